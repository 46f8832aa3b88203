// The settings of a log-structured store.
#pragma once

namespace quna {

// Values that CreateOrOpenLSS takes once; nothing changes them later.
struct LssSettings {
    // The longest time that a closed transaction stays unsynced, in milliseconds; 0: each Close syncs; negative: only
    // checkpoints and requested flushes sync.
    int flushTimeMilliSec = 1000;
    // Dead space is reclaimed while less than this part of the written bytes is live; 0 or less: never; above 95 counts
    // as 95.
    double cleanerUtilisationPercent = 85.0;
    // false: each Close of a transaction hands its bytes to the system, and a killed process loses nothing. true: closed
    // transactions may wait in memory for the flush time, and a killed process may lose the last whole ones.
    bool enableFileBuffering = false;
    // true: each Close of a transaction is durable on return.
    bool enableWriteThrough = false;
    // The most buffers of a segment's size that the store owns; at least 8. The read cache is the system's.
    int maxNumSegmentsInCache = 32;
    // The least log between two timed checkpoints, in segments.
    int numSegmentsPerCheckPoint = 128;
    // Bytes, used when a store is created: rounded up to a power of two from 64 KiB to 8 MiB.
    int segmentSize = 524288;
    // true: begin a fresh segment at open.
    bool forceIncrementMSSN = false;
    // true: each checkpoint recounts the live packets of every segment by walking the index; a difference is
    // CorruptLSSException.
    bool validateSUTDuringCheckPoint = false;
};

} // namespace quna

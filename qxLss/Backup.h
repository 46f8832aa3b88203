// Copies of a whole store: what a caller asks for and what it gets. docs/backup.md tells how to use them.
#pragma once

#include "qxUtils/BasicTypes.h"

#include <functional>

namespace quna {

// How far a copy is. `bytesTotal` is the same in all calls for one copy, `bytesDone` never falls and ends at the total.
struct BackupProgress {
    int64 bytesDone;
    int64 bytesTotal;
};

struct BackupOptions {
    // false: a file that stands at the target is an error. true: it is replaced at the end, in one step; one that another
    // owner has open as a store is an error all the same.
    bool replaceExisting = false;
    // true: the checksum of every packet is verified before it is copied, and damage is CorruptLSSException. false: a
    // backup takes the segments as they are, to save what there is of a damaged store. A compacting copy reads every
    // element and verifies it in any case.
    bool verify = true;
    // Called before the first byte, after every segment (of a compacting copy: about every MiB) and when all is written,
    // by the copying thread, which holds no lock then. false cancels the copy. It may take its time, which slows the copy
    // down and nothing else; it must not close the store. What it throws passes through, and the copy is cancelled.
    std::function<bool(const BackupProgress&)> progress;
};

struct BackupResult {
    // false: cancelled, by `progress` or by the end of the store; there is no copy, and a file that was to be replaced is
    // as it was.
    bool completed = false;
    uint64 transaction = 0; // number of the last transaction in the copy; 0: none
    int64 numElements = 0;  // in the copy
    int64 fileSize = 0;     // bytes of the copy; free segments are holes that take no room on the disk
    int64 bytesCopied = 0;  // bytes that were written to it
};

} // namespace quna

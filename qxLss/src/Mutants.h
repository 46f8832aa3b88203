// Mistakes that a test program can have made on purpose, to show that the crash simulation would find them.
//
// In the library IsMutant is constant false and nothing of it is left. tests/reliability/Mutants.cpp is linked with object
// files of its own, compiled with QX_MUTANTS; CMake has the list of the sources that ask.
#pragma once

namespace quna {

enum class EMutant {
    NONE,
    FREE_BEFORE_SYNC,         // victims are free before their RELOC is on the disk
    RELOC_LEFT_OUT,           // moves are not logged
    LAST_TOO_EARLY,           // a RELOC calls the victims free that another will name again
    RANGE_FROM_THE_BEGINNING, // a RELOC names the whole segment, with what earlier batches left there
    LONG_MOVES_WITHOUT_PAIRS, // parts of long elements move, but nobody says so
    PUBLISH_WITHOUT_LOOKING,  // an element overwritten meanwhile gets its old content back
    VICTIMS_OF_THE_WINDOW,    // segments that recovery walks through are cleaned
    BATCH_INSIDE_CHECKPOINT,  // the cleaner works while a checkpoint does
    OPEN_TAKEN_FOR_SEALED,    // a survivor segment that is still being filled is freed, or cleaned
    HEADER_BEFORE_SYNC,       // a checkpoint's header is written before what it names is on the disk
    INDEX_FREED_EARLY,        // a checkpoint frees what the header before it still names
    EMPTIED_FREED_EARLY,      // likewise segments of the log that hold nothing live any more
    CHECKPOINT_WITHOUT_SYNC,
    HEADER_NOT_DURABLE,        // nobody waits for the header before its segments are used again
    HEADER_OVER_THE_VALID_ONE, // always the same of the two places
    OLDER_HEADER_TAKEN,
    CHECKPOINT_CHECKSUM_IGNORED,
    SEGMENT_CHECKSUM_IGNORED,
    PACKET_CHECKSUM_IGNORED,  // by the walk along the log
    ELEMENT_CHECKSUM_IGNORED, // by readers
    COMMIT_WITHOUT_SYNC,      // although a flush was asked for
    GROUP_IN_TWO_FRAMES,      // one transaction, two COMMITs
    BAD_FRAME_SKIPPED,        // the walk goes on behind a packet that does not verify
    ABORT_IGNORED,
    DROP_IGNORED,
    LOST_HEADER_CALLED_DAMAGE, // a LINK was kept, the segment that it leads to was not
    DAMAGE_TAKEN_FOR_THE_END,  // nobody looks behind the break of the log
    REST_OF_RANGE_LEFT_OUT,    // a RELOC is applied as far as its ranges verify
    NO_SEQUENCE_JUMP,          // after a recovery
    NO_FRESH_SEGMENT,          // after a recovery that found no work
    CLEAN_MARK_NOT_VOIDED,     // by an open
    CREATING_FLAG_KEPT,        // by the first transaction
    HORIZON_NOT_DURABLE,       // identifiers leave before the ring is on the disk
    RING_NOT_ASKED,            // horizons of the checkpoint count alone
    RING_SET_EMPTIED,          // at a checkpoint's header in place of its copy
    TRIMMED_TOO_FAR,           // the file's last segment is cut off
    NEIGHBOUR_PUNCHED,         // the slot before the free one loses its blocks
    ARCHIVE_NOT_AWAITED,       // segments that are not archived are cleaned and freed
    DELTA_NOT_SYNCED,          // a delta gets its name before its bytes are on the disk
    SYNC_ERROR_IGNORED,
    SYNC_ERROR_RETRIED,
    SHORT_WRITE_IGNORED,
    DIRECTORY_NOT_SYNCED
};

#ifdef QX_MUTANTS
inline EMutant g_mutant = EMutant::NONE;
inline bool IsMutant(EMutant mutant) { return g_mutant == mutant; }
#else
inline constexpr bool IsMutant(EMutant) { return false; }
#endif

} // namespace quna

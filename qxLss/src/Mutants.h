// Mistakes that a test program can have made on purpose, to show that the crash simulation would find them.
//
// In the library IsMutant is constant false and nothing of it is left. tests/reliability/Mutants.cpp is linked with object
// files of its own, compiled with QX_MUTANTS.
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
    INDEX_FREED_EARLY         // a checkpoint frees what the header before it still names
};

#ifdef QX_MUTANTS
inline EMutant g_mutant = EMutant::NONE;
inline bool IsMutant(EMutant mutant) { return g_mutant == mutant; }
#else
inline constexpr bool IsMutant(EMutant) { return false; }
#endif

} // namespace quna

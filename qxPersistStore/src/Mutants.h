// Mistakes that a test program can have made on purpose, to show that the crash simulation of whole stores would find them.
//
// In the library IsStoreMutant is constant false and nothing of it is left. tests/reliability/StoreMutants.cpp is linked
// with object files of its own, compiled with QX_MUTANTS.
#pragma once

namespace quna {

enum class EStoreMutant {
    NONE,
    GROUP_IN_TWO,           // each space of a group is written in a transaction of its own
    GROUP_NOT_TIED,         // transactions over several spaces tie nothing
    CLASS_IDS_LATER,        // ids of classes that are new in a group are written with the next one
    FLUSH_LEFT_OUT,         // a write that is to be durable on return is not
    TREE_LATER,             // a tree's header is written with the group after its nodes'
    OBJECT_LATER,           // some of the dirty objects are left for the next group
    QUEUE_BEFORE_DELETIONS, // a deletion leaves the durable queue in a transaction before that of its elements
    QUEUE_AFTER_DELETIONS   // and in a later one
};

#ifdef QX_MUTANTS
inline EStoreMutant g_storeMutant = EStoreMutant::NONE;
inline bool IsStoreMutant(EStoreMutant mutant) { return g_storeMutant == mutant; }
#else
inline constexpr bool IsStoreMutant(EStoreMutant) { return false; }
#endif

} // namespace quna

// A quick look at what the calling thread holds of its current domain, for checks on paths of a few nanoseconds: nothing
// is called, so that the path that it guards needs no frame.
#pragma once

#include "qxObject/CSpaceLockTable.h"
#include "qxObject/ThreadCSpaces.h"

#include <atomic>

namespace quna {

// True only when HaveLockedCSpace() is; false also when the answer takes a search, which then makes it quick.
inline bool HasLockAtHand() noexcept {
    const CSpace* const cs = ThreadCSpace::Own().current.load(std::memory_order_relaxed);
    return CSpaceLockTable::Current().FindAtHand(cs) != nullptr;
}

// The same for HaveExclusiveLockedCSpace().
inline bool HasExclusiveLockAtHand() noexcept {
    const CSpace* const cs = ThreadCSpace::Own().current.load(std::memory_order_relaxed);
    const CSpaceLockEntry* const entry = CSpaceLockTable::Current().FindAtHand(cs);
    return entry && entry->exclusive;
}

} // namespace quna

#include "qxObject/LockAtHand.h"

#include "qxObject/src/CSpaceLockTable.h"
#include "qxObject/src/ThreadCSpaces.h"

namespace quna {

namespace {

const CSpaceLockEntry* FindAtHand() noexcept {
    return CSpaceLockTable::Current().FindAtHand(ThreadCSpace::Own().current.load(std::memory_order_relaxed));
}

} // namespace

bool HasLockAtHand() noexcept { return FindAtHand() != nullptr; }

bool HasExclusiveLockAtHand() noexcept {
    const CSpaceLockEntry* const entry = FindAtHand();
    return entry && entry->exclusive;
}

} // namespace quna

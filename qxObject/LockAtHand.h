// A quick look at what the calling thread holds of its current domain, for checks on paths of a few nanoseconds.
#pragma once

#include "qxUtils/Export.h"

namespace quna {

// True only when HaveLockedCSpace() is; false also when the answer takes a search, which then makes it quick.
QX_API bool HasLockAtHand() noexcept;

// The same for HaveExclusiveLockedCSpace().
QX_API bool HasExclusiveLockAtHand() noexcept;

} // namespace quna

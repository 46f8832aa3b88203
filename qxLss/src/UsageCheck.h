// Recounts the usage table from the index.
#pragma once

#include "qxLss/src/Index.h"
#include "qxLss/src/StoreCore.h"

namespace quna {

// Walks the whole index and the heads of long elements and compares the live packets and bytes of every segment, and the
// store's counters, with what the segment table says. Throws CorruptLSSException at the first difference. Requires: the
// turn, and no checkpoint running; or a store that nobody writes.
QX_API void CheckUsage(const StoreCore& core, Index& index, ssize_t numSlots);

} // namespace quna

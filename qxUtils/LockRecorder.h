// Who holds which lock while waiting for which other: recorded in builds for tests (QX_RECORD_LOCKS), nothing elsewhere.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

// Threads that take the same locks in different orders can wait for one another for ever, however rarely it happens. So a
// test build notes for each wait which locks the thread holds, by the locks' names, not by their addresses: an order that
// was seen for one store and its reverse for another is found as well. A circle ends the process and says which locks,
// and where the last of them was asked for. At the end of the process the pairs are appended to the file that the
// environment's QX_LOCK_GRAPH names, so that the orders of many processes can be looked at together.
//
// Locks that are only tried wait for nobody and make no pair, but count as held.
//
// Threads: all.
namespace LockRecorder {

#ifdef QX_RECORD_LOCKS
// The thread is about to wait for `lock`. `name` is a literal.
QX_API void Wants(const void* lock, ConstStringZ name);
// It has got it.
QX_API void Holds(const void* lock, ConstStringZ name);
// Someone gives it back, not always the thread that took it.
QX_API void Releases(const void* lock);
#else
inline void Wants(const void*, ConstStringZ) {}
inline void Holds(const void*, ConstStringZ) {}
inline void Releases(const void*) {}
#endif

} // namespace LockRecorder
} // namespace quna

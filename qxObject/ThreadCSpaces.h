// The current domains of all threads.
#pragma once

#include "qxUtils/Export.h"

#include <atomic>

namespace quna {

class CSpace;

// A thread's current domain. It is read and written by its thread without synchronisation beyond the atomic's own; when
// a domain ends, its destroyer takes it out of every thread, hence the atomic and the list of all threads that have
// ever set one.
struct ThreadCSpace {
    std::atomic<CSpace*> current{nullptr};
    ThreadCSpace* prev = nullptr; // these two are guarded by the list's mutex
    ThreadCSpace* next = nullptr;
    bool listed = false;
    bool ended = false; // the thread is past the point where it leaves the list

    static ThreadCSpace& Own() noexcept { return t_own; }

private:
    QX_API static constinit thread_local ThreadCSpace t_own;
};

// The domain ends: no thread keeps it as its current one.
void ForgetInThreadCSpaces(const CSpace* cspace) noexcept;

} // namespace quna

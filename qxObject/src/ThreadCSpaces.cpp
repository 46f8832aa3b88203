#include "qxObject/ThreadCSpaces.h"

#include "qxObject/CSpace.h"
#include "qxUtils/Mutex.h"

#include <mutex>

namespace quna {

constinit thread_local ThreadCSpace ThreadCSpace::t_own;

namespace {

Mutex& ListMutex() {
    static Mutex* const mutex = new Mutex("ThreadCSpaces"); // never destroyed: threads may end after static objects
    return *mutex;
}

ThreadCSpace* s_first = nullptr; // guarded by ListMutex

// Takes the thread off the list when it ends. Touched only when a thread is put on the list, so that reading the
// current domain needs no guard.
struct Unlister {
    ~Unlister() {
        std::lock_guard guard(ListMutex());
        ThreadCSpace& own = ThreadCSpace::Own();
        (own.prev ? own.prev->next : s_first) = own.next;
        if (own.next) own.next->prev = own.prev;
        own.prev = own.next = nullptr;
        own.listed = false;
        own.ended = true;
    }
    bool armed = false;
};

thread_local Unlister t_unlister;

void ListThread() {
    t_unlister.armed = true;
    std::lock_guard guard(ListMutex());
    ThreadCSpace& own = ThreadCSpace::Own();
    own.next = s_first;
    if (s_first) s_first->prev = &own;
    s_first = &own;
    own.listed = true;
}

} // namespace

CSpace* GetThreadCSpace() { return ThreadCSpace::Own().current.load(std::memory_order_relaxed); }

void SetThreadCSpace(CSpace* cs) {
    ThreadCSpace& own = ThreadCSpace::Own();
    if (!own.listed && !own.ended) [[unlikely]]
        ListThread();
    own.current.store(cs, std::memory_order_relaxed);
}

void ForgetInThreadCSpaces(const CSpace* cspace) noexcept {
    std::lock_guard guard(ListMutex());
    for (ThreadCSpace* thread = s_first; thread; thread = thread->next) {
        CSpace* expected = const_cast<CSpace*>(cspace);
        thread->current.compare_exchange_strong(expected, nullptr, std::memory_order_relaxed);
    }
}

} // namespace quna

#include "qxObject/src/ThreadCSpaces.h"

#include "qxObject/CSpace.h"

#include <mutex>

namespace quna {

namespace {

// A thread's current domain. It is read and written by its thread without synchronisation beyond the atomic's own; when
// a domain ends, its destroyer takes it out of every thread, hence the atomic and the list of all threads that have
// ever set one.
struct ThreadCSpace {
    std::atomic<CSpace*> current{nullptr};
    ThreadCSpace* prev = nullptr; // guarded by ListMutex
    ThreadCSpace* next = nullptr; // guarded by ListMutex
    bool listed = false;
    bool ended = false; // the thread is past the point where it leaves the list
};

std::mutex& ListMutex() {
    static std::mutex* const mutex = new std::mutex; // never destroyed: threads may end after static objects
    return *mutex;
}

ThreadCSpace* s_first = nullptr; // guarded by ListMutex

constinit thread_local ThreadCSpace t_cspace;

// Takes the thread off the list when it ends. Touched only when a thread is put on the list, so that reading the
// current domain needs no guard.
struct Unlister {
    ~Unlister() {
        std::lock_guard<std::mutex> guard(ListMutex());
        (t_cspace.prev ? t_cspace.prev->next : s_first) = t_cspace.next;
        if (t_cspace.next) t_cspace.next->prev = t_cspace.prev;
        t_cspace.prev = t_cspace.next = nullptr;
        t_cspace.listed = false;
        t_cspace.ended = true;
    }
    bool armed = false;
};

thread_local Unlister t_unlister;

void ListThread() {
    t_unlister.armed = true;
    std::lock_guard<std::mutex> guard(ListMutex());
    t_cspace.next = s_first;
    if (s_first) s_first->prev = &t_cspace;
    s_first = &t_cspace;
    t_cspace.listed = true;
}

} // namespace

CSpace* GetThreadCSpace() { return t_cspace.current.load(std::memory_order_relaxed); }

void SetThreadCSpace(CSpace* cs) {
    if (!t_cspace.listed && !t_cspace.ended) [[unlikely]]
        ListThread();
    t_cspace.current.store(cs, std::memory_order_relaxed);
}

void ForgetInThreadCSpaces(const CSpace* cspace) noexcept {
    std::lock_guard<std::mutex> guard(ListMutex());
    for (ThreadCSpace* thread = s_first; thread; thread = thread->next) {
        CSpace* expected = const_cast<CSpace*>(cspace);
        thread->current.compare_exchange_strong(expected, nullptr, std::memory_order_relaxed);
    }
}

} // namespace quna

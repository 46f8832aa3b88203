#include "qxObject/src/CSpaceRwLock.h"

#include <cerrno>
#include <chrono>
#include <ctime>
#include <fstream>
#include <thread>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace quna {

// The slow paths. Whoever can't enter at once takes m_mutex, looks once more, and either enters or sets WAITERS and
// joins the queue. Once WAITERS is set no fast path enters, so the thread that brings the lock to "free, but WAITERS" is
// exactly one (the writer, or the last reader to leave), and it hands the lock over under m_mutex: it writes the new
// owners into the word and sets each new owner's state. The word is never free in between, which is what makes the lock
// fair: a thread that happens to run can't slip in before one that has to be woken.

namespace {

using Clock = std::chrono::steady_clock;

// A hand-over to a running thread takes less than a microsecond, waking a sleeping one some ten. On one processor
// spinning only delays the owner.
int SpinRounds() {
    static const int rounds = std::thread::hardware_concurrency() > 1 ? 200 : 0;
    return rounds;
}

void Relax() { __builtin_ia32_pause(); }

// The library's own waiting on an atomic knows no deadline.
long Futex(std::atomic<int32>* word, int operation, int32 value, const timespec* deadline) {
    static_assert(sizeof(std::atomic<int32>) == sizeof(int32) && std::atomic<int32>::is_always_lock_free);
    return ::syscall(SYS_futex, word, operation, value, deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
}

timespec MonotonicIn(uint32 milliSecs) {
    timespec t{};
    ::clock_gettime(CLOCK_MONOTONIC, &t);
    t.tv_sec += milliSecs / 1000;
    t.tv_nsec += static_cast<long>(milliSecs % 1000) * 1'000'000;
    if (t.tv_nsec >= 1'000'000'000) {
        t.tv_nsec -= 1'000'000'000;
        ++t.tv_sec;
    }
    return t;
}

int64 MicrosSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

} // namespace

struct CSpaceRwLock::Waiter {
    explicit Waiter(bool exclusiveMode) : exclusive(exclusiveMode) {}

    enum : int32 {
        WAITS = 0,
        GRANTED = 1,
        SLEEPS = 2
    };

    // The thread that hands over touches nothing of the waiter after the store but its address, in the wake-up call:
    // the waiter may be gone by then.
    void Grant() {
        std::atomic<int32>* const word = &state;
        if (word->exchange(GRANTED, std::memory_order_acq_rel) == SLEEPS) Futex(word, FUTEX_WAKE_PRIVATE, 1, nullptr);
    }
    // False when the lock was not granted by the deadline; null for none.
    bool Await(const timespec* deadline) {
        for (int i = 0; i < SpinRounds(); ++i) {
            if (state.load(std::memory_order_acquire) == GRANTED) return true;
            Relax();
        }
        int32 expected = WAITS;
        state.compare_exchange_strong(expected, SLEEPS, std::memory_order_acq_rel, std::memory_order_acquire);
        while (state.load(std::memory_order_acquire) != GRANTED) {
            // The BITSET form takes a point in time of the monotonic clock.
            if (Futex(&state, FUTEX_WAIT_BITSET_PRIVATE, SLEEPS, deadline) != 0 && errno == ETIMEDOUT)
                return state.load(std::memory_order_acquire) == GRANTED;
        }
        return true;
    }

    const bool exclusive;
    std::atomic<int32> state{WAITS};
    Waiter* next = nullptr; // in the queue; then in the list of those to be woken
};

// Requires: m_mutex is held. Enters if the mode allows it and nobody waits; otherwise leaves WAITERS set.
bool CSpaceRwLock::EnterOrMarkWaiting(bool exclusive) {
    uint64 state = m_state.load(std::memory_order_relaxed);
    for (;;) {
        const bool free = exclusive ? state == 0 : (state & (WRITER | WAITERS)) == 0;
        const uint64 wanted = free ? (exclusive ? WRITER : state + READER) : (state | WAITERS);
        if (m_state.compare_exchange_weak(state, wanted, std::memory_order_acquire, std::memory_order_relaxed))
            return free;
    }
}

bool CSpaceRwLock::EnterOrJoinQueue(Waiter& waiter) {
    std::lock_guard guard(m_mutex);
    if (EnterOrMarkWaiting(waiter.exclusive)) return true;
    (m_last ? m_last->next : m_first) = &waiter;
    m_last = &waiter;
    return false;
}

void CSpaceRwLock::WaitInQueue(bool exclusive) {
    Waiter self(exclusive);
    if (EnterOrJoinQueue(self)) return;
    const Clock::time_point start = Clock::now();
    self.Await(nullptr);
    RecordWait(MicrosSince(start));
}

bool CSpaceRwLock::LockFor(bool exclusive, int32 tid, uint32 milliSecs) {
    const timespec deadline = MonotonicIn(milliSecs);
    Waiter self(exclusive);
    if (!EnterOrJoinQueue(self)) {
        const Clock::time_point start = Clock::now();
        const bool granted = self.Await(&deadline) || !LeaveQueue(self);
        RecordWait(MicrosSince(start));
        if (!granted) return false;
    }
    LockRecorder::Holds(this, NAME); // who gives up after a time can't wait in a circle
    m_holderTid.store(tid, std::memory_order_relaxed);
    return true;
}

// False when the lock has been granted after all. When the queue becomes empty the lock is an ordinary one again; a
// thread that is on its way to hand it over finds that out.
bool CSpaceRwLock::LeaveQueue(Waiter& waiter) {
    std::lock_guard guard(m_mutex);
    if (waiter.state.load(std::memory_order_acquire) == Waiter::GRANTED) return false;
    Waiter* previous = nullptr;
    for (Waiter* w = m_first; w != &waiter; w = w->next) previous = w;
    (previous ? previous->next : m_first) = waiter.next;
    if (m_last == &waiter) m_last = previous;
    if (!m_first) m_state.fetch_and(~WAITERS, std::memory_order_relaxed);
    return true;
}

// Takes those who enter next off the queue: one writer, or all readers up to the first writer. Writes them into the
// word. Requires: m_mutex is held, the lock is held by the caller alone or free, the queue is not empty.
CSpaceRwLock::Waiter* CSpaceRwLock::TakeNextFromQueue() {
    Waiter* const first = m_first;
    Waiter* last = first;
    uint64 owners = WRITER;
    if (!first->exclusive) {
        owners = READER;
        while (last->next && !last->next->exclusive) {
            last = last->next;
            owners += READER;
        }
    }
    m_first = last->next;
    last->next = nullptr;
    if (!m_first) m_last = nullptr;
    m_state.store(owners | (m_first ? WAITERS : 0), std::memory_order_release);
    return first;
}

// `owner` is what stands in the word for the caller's own hold: WRITER, or nothing once the last reader has left.
void CSpaceRwLock::HandOver(uint64 owner) {
    // Granted under the mutex: whoever holds the lock exclusively and passes through the mutex once (WaitUntilQuiet)
    // knows that no thread is in here any more.
    std::lock_guard guard(m_mutex);
    // The last waiter may have given up since, and another thread have entered: then it hands over.
    if ((m_state.load(std::memory_order_relaxed) & ~WAITERS) != owner) return;
    if (!m_first) {
        if (owner) m_state.fetch_and(~owner, std::memory_order_release);
        return;
    }
    Waiter* next = TakeNextFromQueue();
    while (next) {
        Waiter* const waiter = next;
        next = waiter->next;
        waiter->Grant();
    }
}

bool CSpaceRwLock::TryLockExclusive(int32 tid) {
    uint64 expected = 0;
    if (!m_state.compare_exchange_strong(expected, WRITER, std::memory_order_acquire, std::memory_order_relaxed))
        return false;
    LockRecorder::Holds(this, NAME);
    m_holderTid.store(tid, std::memory_order_relaxed);
    return true;
}

bool CSpaceRwLock::TryLockShared(int32 tid) {
    if (!TryEnterAsReader()) return false;
    LockRecorder::Holds(this, NAME);
    m_holderTid.store(tid, std::memory_order_relaxed);
    return true;
}

void CSpaceRwLock::WaitUntilQuiet() {
    LockRecorder::Releases(this); // the lock ends while it is held
    std::lock_guard guard(m_mutex);
}

void CSpaceRwLock::RecordWait(int64 micros) {
    m_totalWaits.fetch_add(1, std::memory_order_relaxed);
    int64 longest = m_longestWaitMicros.load(std::memory_order_relaxed);
    while (longest < micros && !m_longestWaitMicros.compare_exchange_weak(longest, micros, std::memory_order_relaxed)) {
    }
}

CSpaceLockFigures CSpaceRwLock::GetFigures() const {
    CSpaceLockFigures figures;
    figures.totalWaits = m_totalWaits.load(std::memory_order_relaxed);
    figures.longestWaitMicros = m_longestWaitMicros.load(std::memory_order_relaxed);
    if (m_state.load(std::memory_order_relaxed) & ~WAITERS)
        figures.holder = ThreadNameOfTid(m_holderTid.load(std::memory_order_relaxed));
    return figures;
}

ssize_t CSpaceRwLock::NumWaitingForTest() const {
    std::lock_guard guard(m_mutex);
    ssize_t count = 0;
    for (const Waiter* waiter = m_first; waiter; waiter = waiter->next) ++count;
    return count;
}

int32 CurrentThreadTid() { return static_cast<int32>(::gettid()); }

std::string ThreadNameOfTid(int32 tid) {
    std::ifstream comm("/proc/self/task/" + std::to_string(tid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

} // namespace quna

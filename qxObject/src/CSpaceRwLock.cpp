#include "qxObject/src/CSpaceRwLock.h"

#include <chrono>
#include <fstream>
#include <thread>

#include <unistd.h>

namespace quna {

// The slow paths. Whoever can't enter at once takes m_mutex, looks once more, and either enters or sets WAITERS and
// joins the queue. Once WAITERS is set no fast path enters, so the thread that brings the lock to "free, but WAITERS" is
// exactly one (the writer, or the last reader to leave), and it hands the lock over under m_mutex: it writes the new
// owners into the word and sets each new owner's flag. The word is never free in between, which is what makes the lock
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

} // namespace

struct CSpaceRwLock::Waiter {
    explicit Waiter(bool exclusiveMode) : exclusive(exclusiveMode) {}

    // The thread that hands over touches nothing of the waiter after the store but its address, in the wake-up call:
    // the waiter may be gone by then.
    void Grant() {
        std::atomic<int32>* const flag = &granted;
        flag->store(1, std::memory_order_release);
        flag->notify_one();
    }
    void Await() {
        for (int i = 0; i < SpinRounds(); ++i) {
            if (granted.load(std::memory_order_acquire)) return;
            Relax();
        }
        while (!granted.load(std::memory_order_acquire)) granted.wait(0, std::memory_order_acquire);
    }

    const bool exclusive;
    std::atomic<int32> granted{0};
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

void CSpaceRwLock::WaitInQueue(bool exclusive) {
    Waiter self(exclusive);
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        if (EnterOrMarkWaiting(exclusive)) return;
        (m_last ? m_last->next : m_first) = &self;
        m_last = &self;
    }
    const Clock::time_point start = Clock::now();
    self.Await();
    RecordWait(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count());
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

void CSpaceRwLock::HandOver() {
    // Granted under the mutex: whoever holds the lock exclusively and passes through the mutex once (WaitUntilQuiet)
    // knows that no thread is in here any more.
    std::lock_guard<std::mutex> guard(m_mutex);
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
    m_holderTid.store(tid, std::memory_order_relaxed);
    return true;
}

bool CSpaceRwLock::TryLockShared(int32 tid) {
    if (!TryEnterAsReader()) return false;
    m_holderTid.store(tid, std::memory_order_relaxed);
    return true;
}

void CSpaceRwLock::WaitUntilQuiet() { std::lock_guard<std::mutex> guard(m_mutex); }

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
    std::lock_guard<std::mutex> guard(m_mutex);
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

// The readers-writer lock of a domain: fair, with one atomic word for the uncontended case.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <atomic>
#include <mutex>
#include <string>

namespace quna {

// What a lock tells about itself, so that a program that stands still can be explained.
struct CSpaceLockFigures {
    int64 totalWaits = 0;        // acquisitions that had to sleep or spin behind another thread
    int64 longestWaitMicros = 0; // of those that have ended
    std::string holder;          // name of the thread that holds it, or of the last reader to come; empty when free
};

// First come, first served between readers and writers: who finds the lock taken, or finds somebody waiting, joins one
// queue, and the lock is handed over in the order of the queue. Readers that stand together in the queue enter together.
// So no thread is ever overtaken by one that came later.
//
// The lock knows nothing of threads: it does not nest. What nests is the thread's table (CSpaceLockTable).
//
// Threads: all methods from any thread. A method may still touch the lock's memory for a moment after the lock was given
//   to somebody else; WaitUntilQuiet lets an owner wait that out before it frees the lock.
// Invariant: while WAITERS is set, only the holder of m_mutex changes the word's other bits, except that readers leave.
class QX_API CSpaceRwLock {
public:
    CSpaceRwLock() = default;
    CSpaceRwLock(const CSpaceRwLock&) = delete;
    CSpaceRwLock& operator=(const CSpaceRwLock&) = delete;

    // `tid` is the calling thread's id in the system, for the figures.
    void LockExclusive(int32 tid) {
        LockRecorder::Wants(this, NAME);
        uint64 expected = 0;
        if (!m_state.compare_exchange_strong(expected, WRITER, std::memory_order_acquire, std::memory_order_relaxed))
            [[unlikely]]
            WaitInQueue(true);
        LockRecorder::Holds(this, NAME);
        m_holderTid.store(tid, std::memory_order_relaxed);
    }
    void LockShared(int32 tid) {
        LockRecorder::Wants(this, NAME);
        if (!TryEnterAsReader()) [[unlikely]]
            WaitInQueue(false);
        LockRecorder::Holds(this, NAME);
        m_holderTid.store(tid, std::memory_order_relaxed);
    }

    // False when another thread holds the lock in the way, or waits for it. Never sleeps.
    [[nodiscard]] bool TryLockExclusive(int32 tid);
    [[nodiscard]] bool TryLockShared(int32 tid);

    // Waits in the queue like the others, but for at most so long; false when it gave up.
    [[nodiscard]] bool LockFor(bool exclusive, int32 tid, uint32 milliSecs);

    void UnlockExclusive() {
        LockRecorder::Releases(this);
        uint64 expected = WRITER;
        if (!m_state.compare_exchange_strong(expected, 0, std::memory_order_release, std::memory_order_relaxed))
            [[unlikely]]
            HandOver(WRITER);
    }
    void UnlockShared() {
        LockRecorder::Releases(this);
        // The last reader must see what all the others did, since it passes the lock on in their name.
        const uint64 before = m_state.fetch_sub(READER, std::memory_order_acq_rel);
        if (before == (READER | WAITERS)) [[unlikely]]
            HandOver(0);
    }

    // Returns when no other thread is inside a method of this lock any more. Requires: the caller holds it exclusively
    // and nobody comes anew.
    void WaitUntilQuiet();

    CSpaceLockFigures GetFigures() const;
    ssize_t NumWaitingForTest() const;

private:
    struct Waiter;

    static constexpr ConstStringZ NAME = "CSpace";
    static constexpr uint64 WRITER = 1;  // held exclusively
    static constexpr uint64 WAITERS = 2; // the queue is not empty
    static constexpr uint64 READER = 4;  // one reader; the upper 62 bits count them

    bool TryEnterAsReader() {
        uint64 state = m_state.load(std::memory_order_relaxed);
        while ((state & (WRITER | WAITERS)) == 0) {
            if (m_state.compare_exchange_weak(state, state + READER, std::memory_order_acquire,
                                              std::memory_order_relaxed))
                return true;
        }
        return false;
    }
    bool EnterOrMarkWaiting(bool exclusive);
    void WaitInQueue(bool exclusive);
    bool EnterOrJoinQueue(Waiter& waiter);
    bool LeaveQueue(Waiter& waiter);
    void HandOver(uint64 owner);
    Waiter* TakeNextFromQueue();
    void RecordWait(int64 micros);

    std::atomic<uint64> m_state{0};
    std::atomic<int32> m_holderTid{0}; // of the last thread that entered; for the figures only

    mutable Mutex m_mutex{"CSpaceRwLock::m_mutex"}; // leaf lock: guards the queue
    Waiter* m_first = nullptr;                      // guarded by m_mutex; the elements are on their threads' stacks
    Waiter* m_last = nullptr;                       // guarded by m_mutex

    std::atomic<int64> m_totalWaits{0};
    std::atomic<int64> m_longestWaitMicros{0};
};

// The id of the calling thread in the system, and the name of a thread with such an id in this process, empty if none.
QX_API int32 CurrentThreadTid();
QX_API std::string ThreadNameOfTid(int32 tid);

} // namespace quna

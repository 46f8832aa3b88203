// The turn of the log: who has it is the only writer of the user stream, the index and the usage table.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/LockRecorder.h"

#include <atomic>

namespace quna {

// A ticket lock: served in the order of asking. May be released by another thread than the one that acquired it.
class QX_API TurnLock {
public:
    void Acquire() {
        LockRecorder::Wants(this, NAME);
        const uint32 ticket = m_nextTicket.fetch_add(1, std::memory_order_relaxed);
        for (;;) {
            const uint32 served = m_served.load(std::memory_order_acquire);
            if (served == ticket) break;
            m_served.wait(served, std::memory_order_acquire);
        }
        LockRecorder::Holds(this, NAME);
        m_owner.store(ThisThread(), std::memory_order_relaxed);
    }

    // Only if nobody has it or waits for it.
    bool TryAcquire() {
        uint32 served = m_served.load(std::memory_order_acquire);
        if (!m_nextTicket.compare_exchange_strong(served, served + 1, std::memory_order_acquire)) return false;
        LockRecorder::Holds(this, NAME);
        m_owner.store(ThisThread(), std::memory_order_relaxed);
        return true;
    }

    void Release() {
        LockRecorder::Releases(this);
        m_owner.store(0, std::memory_order_relaxed);
        m_served.fetch_add(1, std::memory_order_release);
        m_served.notify_all();
    }

    // Was it acquired by the calling thread? Waiting for it would then never end.
    bool IsOwnedByThisThread() const { return m_owner.load(std::memory_order_relaxed) == ThisThread(); }

private:
    static constexpr ConstStringZ NAME = "TurnLock";

    // Never 0, never used again after the thread's end.
    static uint64 ThisThread();

    std::atomic<uint32> m_nextTicket{0};
    std::atomic<uint32> m_served{0};
    std::atomic<uint64> m_owner{0}; // thread, 0 = none
};

// The turn for a scope.
class TurnScope {
public:
    explicit TurnScope(TurnLock& turn) : m_turn(turn) { m_turn.Acquire(); }
    ~TurnScope() { m_turn.Release(); }
    TurnScope(const TurnScope&) = delete;
    TurnScope& operator=(const TurnScope&) = delete;

private:
    TurnLock& m_turn;
};

} // namespace quna

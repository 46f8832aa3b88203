// Makes closed transactions durable: by time, on request, and together.
#pragma once

#include "qxLss/src/StoreCore.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace quna {

// One fdatasync runs at a time. Who comes while one is running is served by it if his bytes were handed over before it
// began, otherwise by the next, together with all others that wait.
//
// The thread "Lss flush" syncs when the oldest unsynced transaction is flushTimeMilliSec old, starts the write-back of
// sealed segments, so that the next sync finds little to do, and tops up the horizons of identifiers.
//
// Ownership: owns the thread. Threads: all methods from any thread, but for Start and Stop.
class QX_API Flusher {
public:
    // What the thread does besides syncing; called with no lock held.
    struct Hooks {
        std::function<void()> handOverBuffered; // before a timed sync: bring closed transactions to the file
        std::function<void()> topUp;            // raise horizons
        // After each sync, by the thread that made it, with m_syncMutex held: the log is durable up to this clock. May be
        // empty.
        std::function<void(uint64)> durable;
    };

    explicit Flusher(StoreCore& core) : m_core(core) {}
    ~Flusher();

    void Start(Hooks hooks);
    void Stop();

    // Bytes up to this log clock have been handed to the system. By the holder of the turn.
    void NoteHandedOver(uint64 clock) { m_handedClock.store(clock, std::memory_order_release); }
    // A transaction was closed without a sync of its own.
    void NoteCommit() {
        if (!m_timerArmed.load(std::memory_order_relaxed)) [[unlikely]]
            ArmTimer();
    }
    void QueueWriteBack(int64 offset, int64 n);
    void WakeTopUp();

    // Returns when everything handed over up to `clock` is durable. Throws FileException; the store has then failed.
    void SyncUpTo(uint64 clock);
    // Returns when everything written to the file before the call is durable.
    void SyncAll();
    void SyncHandedOver() { SyncUpTo(m_handedClock.load(std::memory_order_acquire)); }

    uint64 DurableClock() const { return m_durableClock.load(std::memory_order_acquire); }
    // After a clean open everything up to `clock` is durable.
    void SetDurableClock(uint64 clock);
    // Syncs begun so far. Bytes handed over before the last of them are not to be written again.
    uint64 NumSyncsBegun() const { return m_numBegun.load(std::memory_order_acquire); }

private:
    template <class Served>
    void SyncUntil(Served served);
    void RunSync(std::unique_lock<Mutex>& lock);
    void ArmTimer();
    void ThreadMain();
    void DoDueWork();

    StoreCore& m_core;
    Hooks m_hooks;
    std::atomic<uint64> m_handedClock{0};
    std::atomic<uint64> m_durableClock{0};
    std::atomic<uint64> m_numBegun{0};

    Mutex m_syncMutex{"Flusher::m_syncMutex"};
    ConditionVariable m_syncEnded;
    bool m_syncing = false; // guarded by m_syncMutex
    uint64 m_numEnded = 0;  // guarded by m_syncMutex

    struct Range {
        int64 offset;
        int64 n;
    };
    Mutex m_wakeMutex{"Flusher::m_wakeMutex"}; // leaf
    ConditionVariable m_wake;
    std::vector<Range> m_writeBack;        // guarded by m_wakeMutex
    int64 m_deadline = 0;                  // ns, monotonic; guarded by m_wakeMutex
    bool m_topUp = false;                  // guarded by m_wakeMutex
    bool m_stop = false;                   // guarded by m_wakeMutex
    std::atomic<bool> m_timerArmed{false}; // written under m_wakeMutex
    std::thread m_thread;
};

} // namespace quna

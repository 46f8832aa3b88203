#include "qxLss/src/Flusher.h"

#include "qxUtils/Mutex.h"
#include "qxUtils/Thread.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace quna {

Flusher::~Flusher() { Stop(); }

void Flusher::Start(Hooks hooks) {
    m_hooks = std::move(hooks);
    m_thread = std::thread([this] { ThreadMain(); });
}

void Flusher::Stop() {
    if (!m_thread.joinable()) return;
    {
        std::lock_guard lock(m_wakeMutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void Flusher::QueueWriteBack(int64 offset, int64 n) {
    {
        std::lock_guard lock(m_wakeMutex);
        m_writeBack.push_back({offset, n});
    }
    m_wake.notify_all();
}

void Flusher::WakeTopUp() {
    {
        std::lock_guard lock(m_wakeMutex);
        m_topUp = true;
    }
    m_wake.notify_all();
}

void Flusher::ArmTimer() {
    const int flushTime = m_core.m_settings.flushTimeMilliSec;
    if (flushTime <= 0) return;
    {
        std::lock_guard lock(m_wakeMutex);
        if (m_timerArmed.load(std::memory_order_relaxed)) return;
        m_deadline = m_core.m_file.Sys().MonotonicNanos() + int64{flushTime} * 1000000;
        m_timerArmed.store(true, std::memory_order_relaxed);
    }
    m_wake.notify_all();
}

void Flusher::SetDurableClock(uint64 clock) {
    m_handedClock.store(clock, std::memory_order_release);
    m_durableClock.store(clock, std::memory_order_release);
}

void Flusher::SyncUpTo(uint64 clock) {
    if (DurableClock() >= clock) return;
    SyncUntil([this, clock] { return DurableClock() >= clock; });
}

void Flusher::SyncAll() {
    uint64 needed = 0;
    {
        std::lock_guard lock(m_syncMutex);
        needed = NumSyncsBegun() + 1; // one that runs now may have begun before the caller's last write
    }
    SyncUntil([this, needed] { return m_numEnded >= needed; });
}

template <class Served>
void Flusher::SyncUntil(Served served) {
    std::unique_lock lock(m_syncMutex);
    while (!served()) {
        m_core.ThrowIfUnwritable();
        if (m_syncing)
            m_syncEnded.wait(lock);
        else
            RunSync(lock);
    }
}

void Flusher::RunSync(std::unique_lock<Mutex>& lock) {
    m_syncing = true;
    m_numBegun.store(NumSyncsBegun() + 1, std::memory_order_release);
    const uint64 clock = m_handedClock.load(std::memory_order_acquire);
    lock.unlock();
    bool succeeded = false;
    try {
        m_core.m_file.SyncData();
        succeeded = true;
    } catch (...) {
        m_core.FailWithCurrentException();
    }
    lock.lock();
    m_syncing = false;
    if (succeeded) {
        m_durableClock.store(std::max(DurableClock(), clock), std::memory_order_release);
        ++m_numEnded;
        if (m_hooks.durable) m_hooks.durable(DurableClock());
    }
    m_syncEnded.notify_all();
}

void Flusher::ThreadMain() {
    SetThreadName("Lss flush");
    std::unique_lock lock(m_wakeMutex);
    while (!m_stop) {
        const bool armed = m_timerArmed.load(std::memory_order_relaxed);
        const int64 now = m_core.m_file.Sys().MonotonicNanos();
        if (m_writeBack.empty() && !m_topUp && !(armed && now >= m_deadline)) {
            if (armed)
                m_wake.wait_for(lock, std::chrono::nanoseconds(std::clamp<int64>(
                                          m_deadline - now, 0, int64{m_core.m_settings.flushTimeMilliSec} * 1000000)));
            else
                m_wake.wait(lock);
            continue;
        }
        lock.unlock();
        try {
            DoDueWork();
        } catch (...) {
            m_core.FailWithCurrentException();
        }
        lock.lock();
    }
}

void Flusher::DoDueWork() {
    std::vector<Range> writeBack;
    bool topUp = false;
    bool sync = false;
    {
        std::lock_guard lock(m_wakeMutex);
        writeBack.swap(m_writeBack);
        topUp = std::exchange(m_topUp, false);
        if (m_timerArmed.load(std::memory_order_relaxed) && m_core.m_file.Sys().MonotonicNanos() >= m_deadline) {
            // Disarmed before the sync: a transaction closed during it starts a timer of its own.
            m_timerArmed.store(false, std::memory_order_relaxed);
            sync = true;
        }
    }
    if (m_core.HasFailed()) return;
    for (const Range& range : writeBack) m_core.m_file.WriteBack(range.offset, range.n);
    if (topUp) m_hooks.topUp();
    if (sync) {
        m_hooks.handOverBuffered();
        SyncHandedOver();
    }
}

} // namespace quna

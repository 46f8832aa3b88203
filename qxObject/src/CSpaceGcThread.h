// The collector thread of a domain and the clock by which it runs.
#pragma once

#include "qxObject/CSpace.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <atomic>
#include <mutex>
#include <thread>

namespace quna {

// Threads: every method from any thread. Start and StopAndJoin wait for a thread that is about to end, so their caller
//   holds no lock that the collector needs; RequestStop, Wake and SetPeriod are allowed under any lock.
class QX_API CSpaceGcThread {
public:
    CSpaceGcThread(CSpace& cspace, int period, GCThreadFn fn);
    CSpaceGcThread(const CSpaceGcThread&) = delete;
    CSpaceGcThread& operator=(const CSpaceGcThread&) = delete;

    void Start();
    void RequestStop();
    void StopAndJoin();

    // Blocks until a collection is due; false when the thread is to end.
    bool WaitUntilDue();

    // The next collection is due now. Calm takes that back: what asked for it has been done.
    void Wake();
    void Calm();

    // From Wake until the collector thread has got the domain's lock (Arrived): whoever comes to lock the domain waits a
    // little, so that the collector is before it in the queue. Without that, a thread that loads objects would go far
    // beyond the budget in the time that the system takes to run the collector thread.
    bool IsWanted() const noexcept { return m_wanted.load(std::memory_order_relaxed); }
    void AwaitArrival();
    void Arrived();

    void SetPeriod(int milliSecs);

    // True on the collector thread itself.
    bool IsCurrentThread() const;
    // A thread has been started and not yet joined.
    bool HasThread();

private:
    void Run();

    CSpace& m_cspace;
    const GCThreadFn m_fn;
    Mutex m_startMutex{"CSpaceGcThread::m_startMutex"}; // serialises Start and StopAndJoin; outside m_mutex
    std::thread m_thread;                               // guarded by m_startMutex
    Mutex m_mutex{"CSpaceGcThread::m_mutex"};           // leaf lock
    ConditionVariable m_changed;                        // m_stop, m_wake or m_period has changed
    int m_period;                                       // milliseconds, below 1 for no sleep; guarded by m_mutex
    bool m_stop = false;                                // guarded by m_mutex
    bool m_leaving = false;                             // the thread has been told to end, or has; guarded by m_mutex
    std::atomic<bool> m_started{false};                 // a thread was started at least once
    std::atomic<bool> m_wake{false};                    // set under m_mutex
    std::atomic<bool> m_wanted{false};                  // set under m_mutex
    std::atomic<int32> m_tid{0};                        // of the collector thread while it runs
};

} // namespace quna

// The thread "Lss clean": checkpoints, cleaning, growth ahead of need, shrinking.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <functional>
#include <mutex>
#include <thread>

namespace quna {

// Calls its work whenever it has been woken, and again after as many milliseconds as the work returned (below 0: not
// before it is woken). The work is told which of the two it was. What it throws goes to `failed`.
//
// Ownership: owns the thread. Threads: Wake from any thread; Start and Stop by one.
class QX_API CleanThread {
public:
    CleanThread() = default;
    CleanThread(const CleanThread&) = delete;
    CleanThread& operator=(const CleanThread&) = delete;
    ~CleanThread();

    void Start(std::function<int(bool isWoken)> work, std::function<void()> failed);
    void Stop();
    void Wake();
    bool IsRunning() const { return m_thread.joinable(); }

private:
    void ThreadMain();

    std::function<int(bool isWoken)> m_work;
    std::function<void()> m_failed;        // called inside the catch block
    Mutex m_mutex{"CleanThread::m_mutex"}; // leaf
    ConditionVariable m_wake;
    bool m_woken = false; // guarded by m_mutex
    bool m_stop = false;  // guarded by m_mutex
    std::thread m_thread;
};

} // namespace quna

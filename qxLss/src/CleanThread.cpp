#include "qxLss/src/CleanThread.h"

#include "qxUtils/Thread.h"

#include <chrono>
#include <utility>

namespace quna {

CleanThread::~CleanThread() { Stop(); }

void CleanThread::Start(std::function<int(bool isWoken)> work, std::function<void()> failed) {
    m_work = std::move(work);
    m_failed = std::move(failed);
    m_thread = std::thread([this] { ThreadMain(); });
}

void CleanThread::Stop() {
    if (!m_thread.joinable()) return;
    {
        std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void CleanThread::Wake() {
    {
        std::lock_guard lock(m_mutex);
        m_woken = true;
    }
    m_wake.notify_all();
}

void CleanThread::ThreadMain() {
    SetThreadName("Lss clean");
    std::unique_lock lock(m_mutex);
    int wait = -1; // ms
    for (;;) {
        const auto isWanted = [this] { return m_woken || m_stop; };
        if (wait < 0)
            m_wake.wait(lock, isWanted);
        else
            m_wake.wait_for(lock, std::chrono::milliseconds(wait), isWanted);
        if (m_stop) return;
        const bool isWoken = std::exchange(m_woken, false);
        lock.unlock();
        try {
            wait = m_work(isWoken);
        } catch (...) {
            wait = -1;
            m_failed();
        }
        lock.lock();
    }
}

} // namespace quna

#include "qxLss/src/CleanThread.h"

#include "qxUtils/Thread.h"

#include <utility>

namespace quna {

CleanThread::~CleanThread() { Stop(); }

void CleanThread::Start(std::function<void()> work, std::function<void()> failed) {
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
    for (;;) {
        m_wake.wait(lock, [this] { return m_woken || m_stop; });
        if (m_stop) return;
        m_woken = false;
        lock.unlock();
        try {
            m_work();
        } catch (...) {
            m_failed();
        }
        lock.lock();
    }
}

} // namespace quna

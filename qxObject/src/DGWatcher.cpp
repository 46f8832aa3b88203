#include "qxObject/DGWatcher.h"

#include "qxUtils/Assert.h"
#include "qxUtils/Thread.h"
#include "qxUtils/Tracer.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <memory>
#include <thread>
#include <utility>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/DGWatcher";

} // namespace

DGWatchQueue::~DGWatchQueue() noexcept(false) {
    if (std::uncaught_exceptions() == 0) QX_ASSERT(m_waiting.empty());
}

DGWatchQueue& DGWatchQueue::OfLibrary() {
    static DGWatchQueue* const queue = [] {
        auto q = std::make_unique<DGWatchQueue>();
        std::thread([q = q.get()] {
            SetThreadName("DGWatcher callbacks");
            for (;;) {
                if (q->Wait(UINT32_MAX)) q->Deliver();
            }
        }).detach();
        return q.release(); // never destroyed: watchers may outlive static objects
    }();
    return *queue;
}

void DGWatchQueue::Push(const DGWatcher& watcher) {
    const std::lock_guard lock(m_mutex);
    if (watcher.m_waits) return;
    m_waiting.push_back(&watcher);
    watcher.m_waits = true;
    m_changed.notify_all();
}

void DGWatchQueue::Remove(const DGWatcher& watcher) {
    std::unique_lock lock(m_mutex);
    if (watcher.m_waits) m_waiting.erase(std::find(m_waiting.begin(), m_waiting.end(), &watcher));
    if (m_running != &watcher) return;
    if (m_deliverer == std::this_thread::get_id())
        m_running = nullptr; // the callback ends its own watcher
    else
        m_changed.wait(lock, [&] { return m_running != &watcher; });
}

ssize_t DGWatchQueue::Deliver() {
    std::unique_lock lock(m_mutex);
    if (m_delivering) return 0;
    m_delivering = true;
    m_deliverer = std::this_thread::get_id();
    ssize_t numDelivered = 0;
    // Not what is queued meanwhile: a callback that watches what always changes would keep the thread here.
    for (auto n = m_waiting.size(); n > 0 && !m_waiting.empty(); --n) {
        const DGWatcher* const watcher = m_waiting.front();
        m_waiting.pop_front();
        watcher->m_waits = false;
        m_running = watcher;
        const auto callback = watcher->m_callback; // lives on when the callback ends its watcher
        lock.unlock();
        try {
            (*callback)();
        } catch (...) {
            TraceSwallowedException("a watcher's callback");
        }
        ++numDelivered;
        lock.lock();
        m_running = nullptr;
        m_changed.notify_all();
    }
    m_delivering = false;
    return numDelivered;
}

bool DGWatchQueue::Wait(uint32 milliSecs) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(milliSecs), [&] { return !m_waiting.empty(); });
}

DGWatcher::DGWatcher(xstring name, std::function<void()> callback, DGWatchQueue& queue)
    : m_name(std::move(name)), m_callback(std::make_shared<const std::function<void()>>(std::move(callback))),
      m_queue(queue) {}

DGWatcher::~DGWatcher() noexcept(false) {
    Detach();
    m_queue.Remove(*this);
}

} // namespace quna

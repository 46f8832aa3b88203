#include "qxObject/src/CSpaceGcThread.h"

#include "qxObject/CSpaceLockTable.h"
#include "qxObject/WCSpace.h"
#include "qxObject/src/TouchClock.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Thread.h"

#include <algorithm>
#include <chrono>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/CSpaceGcThread";

using Clock = std::chrono::steady_clock;

// The longest that a thread stands back for a collector that was woken. A collector thread that takes longer to come is
// busy with something else; then nobody waits for it any more.
constexpr std::chrono::milliseconds MAX_STAND_BACK{100};

int PeriodOrDefault(int milliSecs) {
    return milliSecs == QUNA_GC_THREAD_DONT_START ? QUNA_DEFAULT_MILLISECS_PER_GC : milliSecs;
}

void CollectPeriodically(CSpace* cs) {
    const DeclareThreadPtr<CSpace> current(cs);
    while (WaitForGarbageCollect(cs)) SynchronousGc(cs);
}

} // namespace

CSpaceGcThread::CSpaceGcThread(CSpace& cspace, int period, GCThreadFn fn)
    : m_cspace(cspace), m_fn(fn), m_period(PeriodOrDefault(period)) {}

void CSpaceGcThread::Start() {
    QX_ASSERT(!IsCurrentThread());
    std::lock_guard starting(m_startMutex);
    if (m_thread.joinable()) {
        {
            std::lock_guard guard(m_mutex);
            m_stop = m_stop && m_leaving;
            if (!m_leaving) return;
        }
        m_thread.join();
    }
    {
        std::lock_guard guard(m_mutex);
        m_stop = false;
        m_leaving = false;
    }
    m_thread = std::thread([this] { Run(); });
    m_started.store(true, std::memory_order_relaxed);
}

bool CSpaceGcThread::HasThread() {
    std::lock_guard starting(m_startMutex);
    return m_thread.joinable();
}

void CSpaceGcThread::Run() {
    SetThreadName("CSpace collector");
    m_tid.store(CSpaceLockTable::Current().Tid(), std::memory_order_relaxed);
    if (m_fn.m_stubFn)
        m_fn.m_stubFn(m_fn.m_self, &m_cspace);
    else
        CollectPeriodically(&m_cspace);
    m_tid.store(0, std::memory_order_relaxed);
    std::lock_guard guard(m_mutex);
    m_leaving = true;
    m_wanted.store(false, std::memory_order_relaxed);
}

void CSpaceGcThread::RequestStop() {
    std::lock_guard guard(m_mutex);
    m_stop = true;
    m_wanted.store(false, std::memory_order_relaxed);
    m_changed.notify_all();
}

void CSpaceGcThread::StopAndJoin() {
    QX_ASSERT(!IsCurrentThread());
    RequestStop();
    std::lock_guard starting(m_startMutex);
    if (m_thread.joinable()) m_thread.join();
}

bool CSpaceGcThread::WaitUntilDue() {
    const bool ownThread = IsCurrentThread();
    const Clock::time_point start = Clock::now();
    std::unique_lock guard(m_mutex);
    for (;;) {
        if (m_stop) {
            m_leaving = m_leaving || ownThread;
            return false;
        }
        if (m_wake.exchange(false, std::memory_order_relaxed) || m_period < 1) return true;
        const Clock::time_point due = start + std::chrono::milliseconds(m_period);
        const Clock::time_point now = Clock::now();
        if (now >= due) return true;
        // The touch clock is this thread's side job.
        m_changed.wait_until(guard, std::min(due, now + TOUCH_CLOCK_TICK));
        AdvanceTouchClockIfDue();
    }
}

void CSpaceGcThread::Calm() {
    m_wake.store(false, std::memory_order_relaxed);
    if (!IsWanted()) return;
    std::lock_guard guard(m_mutex);
    m_wanted.store(false, std::memory_order_relaxed);
    m_changed.notify_all(); // nobody comes any more: let those who stood back go on
}

void CSpaceGcThread::Wake() {
    if (m_wake.load(std::memory_order_relaxed)) return;
    std::lock_guard guard(m_mutex);
    m_wake.store(true, std::memory_order_relaxed);
    m_wanted.store(m_started.load(std::memory_order_relaxed) && !m_leaving && !m_stop, std::memory_order_relaxed);
    m_changed.notify_all();
}

void CSpaceGcThread::AwaitArrival() {
    if (IsCurrentThread()) return;
    std::unique_lock guard(m_mutex);
    if (!m_changed.wait_for(guard, MAX_STAND_BACK, [this] { return !IsWanted(); }))
        m_wanted.store(false, std::memory_order_relaxed);
}

void CSpaceGcThread::Arrived() {
    if (!IsWanted()) return;
    std::lock_guard guard(m_mutex);
    m_wanted.store(false, std::memory_order_relaxed);
    m_changed.notify_all();
}

void CSpaceGcThread::SetPeriod(int milliSecs) {
    std::lock_guard guard(m_mutex);
    m_period = PeriodOrDefault(milliSecs);
    m_changed.notify_all();
}

bool CSpaceGcThread::IsCurrentThread() const {
    return m_tid.load(std::memory_order_relaxed) == CSpaceLockTable::Current().Tid();
}

} // namespace quna

#include "qxObject/src/TouchClock.h"

#include "qxObject/CSpace.h"
#include "qxUtils/HPTime.h"

namespace quna {

namespace {

constexpr int64 TICKS_PER_MILLISEC = 10000; // of HPTime

std::atomic<int64> s_lastAdvance{0}; // HPTime ticks

} // namespace

std::atomic<int32> g_touchClock{1};

void AdvanceTouchClock() {
    s_lastAdvance.store(HPTime::GetCurrentTime().GetTicks(), std::memory_order_relaxed);
    g_touchClock.fetch_add(1, std::memory_order_relaxed);
}

void AdvanceTouchClockIfDue() {
    const int64 now = HPTime::GetCurrentTime().GetTicks();
    int64 last = s_lastAdvance.load(std::memory_order_relaxed);
    if (now - last < TOUCH_CLOCK_TICK.count() * TICKS_PER_MILLISEC) return;
    if (s_lastAdvance.compare_exchange_strong(last, now, std::memory_order_relaxed))
        g_touchClock.fetch_add(1, std::memory_order_relaxed);
}

} // namespace quna

// The clock of the evictors (g_touchClock).
#pragma once

#include <chrono>

namespace quna {

inline constexpr std::chrono::milliseconds TOUCH_CLOCK_TICK{1000};

void AdvanceTouchClock();

// Advances the clock when it has stood for a tick; any number of threads may call it as often as they like.
void AdvanceTouchClockIfDue();

} // namespace quna

// Monotonic time.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

// A point in time in ticks of 100 nanoseconds, on the system's monotonic clock: it is for differences, and no change
// of the wall clock touches it.
class QX_API HPTime {
public:
    HPTime() = default;
    explicit HPTime(int64 ticks) : m_ticks(ticks) {}
    static HPTime GetCurrentTime();
    int64 GetTicks() const { return m_ticks; }

private:
    int64 m_ticks = 0; // 100 ns each
};

// Ticks of 100 nanoseconds from y to x.
inline int64 operator-(HPTime x, HPTime y) { return x.GetTicks() - y.GetTicks(); }
inline bool operator<(HPTime x, HPTime y) { return x.GetTicks() < y.GetTicks(); }
inline bool operator==(HPTime x, HPTime y) { return x.GetTicks() == y.GetTicks(); }

// A stopwatch.
class QX_API HPTimer {
public:
    explicit HPTimer(bool start) {
        if (start) Start();
    }
    void Start() { m_start = HPTime::GetCurrentTime(); }
    double GetElapsedTimeInSeconds() const { return static_cast<double>(HPTime::GetCurrentTime() - m_start) * 1e-7; }

private:
    HPTime m_start;
};

} // namespace quna

// How much memory the heap has given out. It counts only in programs that include MeteredNew.h, once, in one source.
#pragma once

#include "qxUtils/BasicTypes.h"

#include <atomic>

namespace quna {

// Threads: Note from any thread; Begin and Peak by one.
class AllocationMeter {
public:
    static void Note(int64 bytes) {
        const int64 now = s_now.fetch_add(bytes, std::memory_order_relaxed) + bytes;
        int64 peak = s_peak.load(std::memory_order_relaxed);
        while (now > peak && !s_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
        }
    }
    // The peak from here on is counted.
    static void Begin() {
        s_start = s_now.load(std::memory_order_relaxed);
        s_peak.store(s_start, std::memory_order_relaxed);
    }
    // The most bytes above what was in use at Begin.
    static int64 Peak() { return s_peak.load(std::memory_order_relaxed) - s_start; }

private:
    static inline std::atomic<int64> s_now{0};
    static inline std::atomic<int64> s_peak{0};
    static inline int64 s_start = 0;
};

} // namespace quna

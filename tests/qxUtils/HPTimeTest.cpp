#include "qxUtils/HPTime.h"

#include <chrono>

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(HPTime, NeverGoesBack) {
    HPTime last = HPTime::GetCurrentTime();
    for (int i = 0; i < 10000; ++i) {
        const HPTime now = HPTime::GetCurrentTime();
        EXPECT_FALSE(now < last);
        last = now;
    }
}

TEST(HPTime, ATickIsAHundredNanosecondsOfTheMonotonicClock) {
    const HPTime begin = HPTime::GetCurrentTime();
    const auto steadyBegin = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - steadyBegin < std::chrono::milliseconds(20)) {
    }
    const auto steadyTicks =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - steadyBegin).count() /
        100;
    EXPECT_GE(HPTime::GetCurrentTime() - begin, steadyTicks);
    EXPECT_GE(steadyTicks, 200000);
}

TEST(HPTime, DifferencesAreTicksFromTheSecondToTheFirst) {
    EXPECT_EQ(7, HPTime(10) - HPTime(3));
    EXPECT_EQ(-7, HPTime(3) - HPTime(10));
    EXPECT_TRUE(HPTime(3) < HPTime(10));
    EXPECT_TRUE(HPTime(3) == HPTime(3));
    EXPECT_EQ(0, HPTime().GetTicks());
}

TEST(HPTimer, MeasuresFromItsStart) {
    const HPTimer timer(true);
    const double first = timer.GetElapsedTimeInSeconds();
    EXPECT_GE(first, 0.0);
    EXPECT_GE(timer.GetElapsedTimeInSeconds(), first);
    EXPECT_LT(timer.GetElapsedTimeInSeconds(), 10.0);
}

} // namespace
} // namespace quna

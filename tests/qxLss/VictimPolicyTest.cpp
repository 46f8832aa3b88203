#include "qxLss/src/VictimPolicy.h"

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ssize_t SEGMENT = 524288;

VictimCandidate Candidate(ssize_t slot, double live, uint64 age, double used = 1) {
    return {slot,
            static_cast<uint64>(slot) + 1,
            static_cast<ssize_t>(live * SEGMENT),
            static_cast<ssize_t>(used * SEGMENT),
            age,
            0};
}

VictimLimits Limits(ssize_t maxVictims) {
    return {.segmentSize = SEGMENT, .maxVictims = maxVictims, .maxLiveBytes = 1000 * SEGMENT};
}

std::vector<ssize_t> SlotsOf(const std::vector<VictimCandidate>& victims) {
    std::vector<ssize_t> slots;
    for (const VictimCandidate& victim : victims) slots.push_back(victim.slot);
    return slots;
}

TEST(VictimPolicy, TheGoalIsMissedFourSegmentsBeyondTheAllowance) {
    const CleaningGoal goal(50, SEGMENT);
    const int64 live = 100 * SEGMENT;
    EXPECT_FALSE(goal.IsMissed(2 * live, live));
    EXPECT_FALSE(goal.IsMissed(2 * live + 4 * SEGMENT, live));
    EXPECT_TRUE(goal.IsMissed(2 * live + 4 * SEGMENT + 1, live));
}

TEST(VictimPolicy, ZeroMeansNeverAndAbove95CountsAs95) {
    EXPECT_FALSE(CleaningGoal(0, SEGMENT).IsEnabled());
    EXPECT_FALSE(CleaningGoal(-3, SEGMENT).IsMissed(int64{1} << 40, 0));
    EXPECT_LE(CleaningGoal(0, SEGMENT).Pressure(int64{1} << 40, 0), 0);
    const int64 live = int64{100000} * SEGMENT;
    const int64 used = live * 100 / 96;
    EXPECT_FALSE(CleaningGoal(100, SEGMENT).IsMissed(used, live));
    EXPECT_TRUE(CleaningGoal(100, SEGMENT).IsMissed(live * 100 / 94, live));
}

TEST(VictimPolicy, PressureBegins256thBeyondTheAllowance) {
    const CleaningGoal goal(50, SEGMENT);
    const int64 allowed = (int64{1} << 30) - 4 * SEGMENT; // and the four segments: 1 GiB
    const int64 band = int64{4} << 20;
    EXPECT_LT(goal.Pressure(int64{1} << 30, allowed / 2), 0);
    EXPECT_DOUBLE_EQ(goal.Pressure((int64{1} << 30) + band, allowed / 2), 0);
    EXPECT_DOUBLE_EQ(goal.Pressure((int64{1} << 30) + 3 * band, allowed / 2), 2);
    // Bands of small stores are 2 MiB.
    EXPECT_DOUBLE_EQ(goal.Pressure((4 * SEGMENT) + 3 * band / 2, 0), 2);
}

TEST(VictimPolicy, WritersWaitLittleWhileTheCleanerIsHeldUpAndMuchWhenItIsLeftBehind) {
    EXPECT_EQ(WaitMilliseconds(-1), 0);
    EXPECT_EQ(WaitMilliseconds(0), 0);
    EXPECT_EQ(WaitMilliseconds(1.5), 0.75);
    EXPECT_EQ(WaitMilliseconds(4), 2);
    EXPECT_EQ(WaitMilliseconds(32), 2);
    EXPECT_EQ(WaitMilliseconds(42), 7);
    EXPECT_EQ(WaitMilliseconds(1e9), 100);
}

TEST(VictimPolicy, EmptierAndOlderSegmentsAreWorthMore) {
    EXPECT_GT(VictimScore(SEGMENT / 4, SEGMENT, 1 << 30), VictimScore(SEGMENT / 2, SEGMENT, 1 << 30));
    EXPECT_GT(VictimScore(SEGMENT / 2, SEGMENT, 1 << 30), VictimScore(SEGMENT / 2, SEGMENT, 1 << 20));
    EXPECT_EQ(VictimScore(SEGMENT, SEGMENT, 1 << 30), 0);
    // 16 times the age is worth 8 times as much.
    EXPECT_NEAR(VictimScore(0, SEGMENT, (1 << 24) - 1) / VictimScore(0, SEGMENT, (1 << 20) - 1), 8, 1e-6);
}

TEST(VictimPolicy, ClassesPartAgesAtASixteenthAHalfAndFourTimesTheLiveBytes) {
    constexpr int64 LIVE = 1600;
    EXPECT_EQ(AgeClassOf(0, LIVE), 0);
    EXPECT_EQ(AgeClassOf(99, LIVE), 0);
    EXPECT_EQ(AgeClassOf(100, LIVE), 1);
    EXPECT_EQ(AgeClassOf(799, LIVE), 1);
    EXPECT_EQ(AgeClassOf(800, LIVE), 2);
    EXPECT_EQ(AgeClassOf(6399, LIVE), 2);
    EXPECT_EQ(AgeClassOf(6400, LIVE), 3);
    EXPECT_EQ(AgeClassOf(5, 0), 3);
}

TEST(VictimPolicy, ABatchIsTwoPercentOfTheSegmentsWithinBounds) {
    EXPECT_EQ(BatchSize(10, SEGMENT), 4);
    EXPECT_EQ(BatchSize(1000, SEGMENT), 20);
    EXPECT_EQ(BatchSize(1000000, SEGMENT), 64);
    EXPECT_EQ(BatchSize(1000000, 4096), 32); // one long element's moves must fit a segment
}

TEST(VictimPolicy, TheBestComeFirstAndFullSegmentsNotAtAll) {
    const std::vector<VictimCandidate> candidates = {Candidate(1, 0.5, 1 << 24), Candidate(2, 1, 1 << 30),
                                                     Candidate(3, 0.1, 1 << 24), Candidate(4, 0.5, 1 << 26),
                                                     Candidate(5, 0.7, 1 << 30, 0.7)};
    EXPECT_EQ(SlotsOf(ChooseVictims(candidates, Limits(10))),
              (std::vector<ssize_t>{4, 3, 1})); // old and half full before young and empty
    EXPECT_EQ(SlotsOf(ChooseVictims(candidates, Limits(2))), (std::vector<ssize_t>{4, 3}));
    VictimLimits limits = Limits(10);
    limits.alsoFull = true;
    EXPECT_EQ(ChooseVictims(candidates, limits).size(), 5u);
}

TEST(VictimPolicy, ABatchFitsTheRoomThereIs) {
    const std::vector<VictimCandidate> candidates = {Candidate(1, 0, 1000), Candidate(2, 0.5, 1000),
                                                     Candidate(3, 0.6, 1000)};
    VictimLimits limits = Limits(10);
    limits.maxLiveBytes = SEGMENT;
    EXPECT_EQ(SlotsOf(ChooseVictims(candidates, limits)), (std::vector<ssize_t>{1, 2}));
    limits.maxLiveBytes = 0;
    EXPECT_EQ(SlotsOf(ChooseVictims(candidates, limits)), (std::vector<ssize_t>{1}));
}

TEST(VictimPolicy, TheEndOfTheFileIsPreferredWhenItIsToBeCut) {
    const std::vector<VictimCandidate> candidates = {Candidate(1, 0.3, 1000), Candidate(90, 0.5, 1000)};
    VictimLimits limits = Limits(1);
    EXPECT_EQ(SlotsOf(ChooseVictims(candidates, limits)), (std::vector<ssize_t>{1}));
    limits.preferFrom = 80;
    EXPECT_EQ(SlotsOf(ChooseVictims(candidates, limits)), (std::vector<ssize_t>{90}));
}

} // namespace
} // namespace quna

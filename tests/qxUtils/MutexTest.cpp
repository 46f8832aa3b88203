#include "qxUtils/Mutex.h"

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(Mutex, IsTriedInVainWhileAnotherThreadHasIt) {
    Mutex mutex("MutexTest");
    std::unique_lock lock(mutex);
    std::thread other([&] { EXPECT_FALSE(mutex.try_lock()); });
    other.join();
    lock.unlock();
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
}

TEST(MutexThreads, AWaitGivesTheMutexBackAndTakesItAgain) {
    Mutex mutex("MutexTest");
    ConditionVariable changed;
    bool isSet = false;
    std::unique_lock lock(mutex);
    std::thread other([&] {
        std::lock_guard guard(mutex);
        isSet = true;
        changed.notify_one();
    });
    changed.wait(lock, [&] { return isSet; });
    EXPECT_TRUE(isSet);
    EXPECT_TRUE(lock.owns_lock());
    lock.unlock();
    other.join();
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
}

TEST(Mutex, AWaitThatNobodyEndsIsOverAfterItsTime) {
    Mutex mutex("MutexTest");
    ConditionVariable changed;
    std::unique_lock lock(mutex);
    EXPECT_FALSE(changed.wait_for(lock, std::chrono::milliseconds(1), [] { return false; }));
    EXPECT_EQ(changed.wait_until(lock, std::chrono::steady_clock::now()), std::cv_status::timeout);
    EXPECT_TRUE(lock.owns_lock());
}

#ifdef QX_RECORD_LOCKS

void LockBoth(Mutex& outer, Mutex& inner) {
    std::lock_guard first(outer);
    std::lock_guard second(inner);
}

TEST(LockRecorderDeathTest, ACircleOfNamesEndsTheProcessThoughNobodyWaits) {
    Mutex a("A");
    Mutex b("B");
    Mutex c("C");
    Mutex otherA("A");
    LockBoth(a, b);
    LockBoth(b, c);
    EXPECT_DEATH(LockBoth(c, otherA), "Locks are taken in a circle: C is held and A wanted; before: A B C");
}

TEST(LockRecorderDeathTest, TwoLocksOfOneNameHaveNoOrder) {
    Mutex d("D");
    Mutex otherD("D");
    EXPECT_DEATH(LockBoth(d, otherD), "Locks are taken in a circle: D is held and D wanted");
}

TEST(LockRecorder, ALockThatIsOnlyTriedWaitsForNobody) {
    Mutex a("LockRecorderTest, a");
    Mutex b("LockRecorderTest, b");
    LockBoth(a, b);
    std::lock_guard first(b);
    EXPECT_TRUE(a.try_lock());
    a.unlock();
}

TEST(LockRecorderThreads, ALockMayBeGivenBackByAnotherThread) {
    const int lock = 0;
    LockRecorder::Holds(&lock, "LockRecorderTest, given away");
    std::thread other([&] { LockRecorder::Releases(&lock); });
    other.join();
    Mutex a("LockRecorderTest, alone");
    std::lock_guard first(a); // held together with nothing
    SUCCEED();
}

#endif

} // namespace
} // namespace quna

#include "qxObject/DGWatcher.h"

#include "qxObject/CSpace.h"
#include "qxObject/WCSpace.h"

#include <memory>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace quna {
namespace {

class Number : public DGIndepNode {
public:
    int Get() const {
        ReadBarrier();
        return m_value;
    }
    void Set(int value) {
        m_value = value;
        OnChange();
    }
    void OnEvict() const override { ++m_numEvicted; }
    xstring Name() const override { return "Number"; }
    void VisitContainingObject(IObjectVisitor&) const override {}

    mutable int m_numEvicted = 0;

private:
    int m_value = 0;
};

class Watching : public testing::Test {
protected:
    ~Watching() noexcept override {}

    CSpaceCreator cs;
    DeclareThreadPtr<CSpace> current{cs};
    CSpaceLock lock{cs, Exclusive};
    DGWatchQueue queue;
};

TEST_F(Watching, TheCallbackIsQueuedOnceForAllChangesAndDeliveredWhenTheOwnerOfTheQueueSaysSo) {
    Number a;
    Number b;
    int calls = 0;
    const DGWatcher watcher(
        "w", [&] { ++calls; }, queue);
    EXPECT_EQ(0, watcher.Watch([&] { return a.Get() + b.Get(); }));
    EXPECT_FALSE(queue.Wait(0));
    a.Set(1);
    b.Set(2);
    a.Set(3);
    EXPECT_EQ(0, calls);
    EXPECT_TRUE(queue.Wait(0));
    EXPECT_EQ(1, queue.Deliver());
    EXPECT_EQ(1, calls);
    a.Set(4); // nobody watches since
    EXPECT_EQ(0, queue.Deliver());
    EXPECT_EQ(6, watcher.Watch([&] { return a.Get() + b.Get(); }));
    b.Set(3);
    EXPECT_EQ(1, queue.Deliver());
}

TEST_F(Watching, OnlyWhatTheLastWatchReadCounts) {
    Number a;
    Number b;
    const DGWatcher watcher(
        "w", [] {}, queue);
    watcher.Watch([&] { return a.Get(); });
    watcher.Watch([&] { return b.Get(); });
    a.Set(1);
    EXPECT_EQ(0, queue.Deliver());
    b.Set(1);
    EXPECT_EQ(1, queue.Deliver());
}

TEST_F(Watching, AChangeWhileItIsReadIsReported) {
    Number a;
    const DGWatcher watcher(
        "w", [] {}, queue);
    watcher.Watch([&] {
        const int value = a.Get();
        a.Set(value + 1);
        return value;
    });
    EXPECT_EQ(1, queue.Deliver());
}

TEST_F(Watching, EvictionCountsAsAChangeAndSoDoesAStaleCalculation) {
    Number a;
    Calculated<int> twice("twice", [&] { return 2 * a.Get(); });
    const DGWatcher watcher(
        "w", [] {}, queue);
    watcher.Watch([&] { return twice.Get(); });
    a.AlwaysEvict();
    EXPECT_EQ(1, queue.Deliver());
}

TEST_F(Watching, AReadThatThrowsIsWatchedAllTheSame) {
    Number a;
    const DGWatcher watcher(
        "w", [] {}, queue);
    EXPECT_THROW(watcher.Watch([&] { return a.Get() == 0 ? throw std::runtime_error("no") : 1; }), std::runtime_error);
    a.Set(1);
    EXPECT_EQ(1, queue.Deliver());
}

TEST_F(Watching, ACallbackMayWatchAgainThrowOrEndItsWatcher) {
    Number a;
    int calls = 0;
    std::unique_ptr<DGWatcher> ending;
    const DGWatcher again(
        "again", [&] { ++calls, again.Watch([&] { return a.Get(); }); }, queue);
    const DGWatcher throwing(
        "throwing", [] { throw std::runtime_error("callback"); }, queue);
    ending = std::make_unique<DGWatcher>(
        "ending", [&] { ending.reset(); }, queue);
    for (const DGWatcher* watcher : {&again, &throwing, static_cast<const DGWatcher*>(ending.get())})
        watcher->Watch([&] { return a.Get(); });
    a.Set(1);
    EXPECT_EQ(3, queue.Deliver());
    EXPECT_FALSE(ending);
    a.Set(2);
    EXPECT_EQ(1, queue.Deliver());
    EXPECT_EQ(2, calls);
}

TEST_F(Watching, AWatcherThatEndsLeavesTheQueue) {
    Number a;
    {
        const DGWatcher watcher(
            "w", [] { ADD_FAILURE(); }, queue);
        watcher.Watch([&] { return a.Get(); });
        a.Set(1);
    }
    EXPECT_EQ(0, queue.Deliver());
}

TEST(DGWatcherThreads, TheLibrarysThreadDeliversOutsideTheLockAndTheEndOfAWatcherWaitsForIt) {
    CSpaceCreator cs;
    Number a;
    std::atomic<int> seen{0};
    {
        std::unique_ptr<DGWatcher> watcher;
        const auto watch = [&] {
            const DeclareThreadPtr<CSpace> current(cs);
            const CSpaceLock lock(cs, SharedRead); // would be refused if the delivering thread held it
            seen = watcher->Watch([&] { return a.Get(); });
            seen.notify_all();
        };
        watcher = std::make_unique<DGWatcher>("w", watch);
        watch();
        for (int i = 1; i <= 200; ++i) {
            {
                const DeclareThreadPtr<CSpace> current(cs);
                const CSpaceLock lock(cs, Exclusive);
                a.Set(i);
            }
            if (i % 50 == 0)
                for (int value = seen; value != i; value = seen) seen.wait(value);
        }
        EXPECT_EQ(200, seen);
    }
}

// ---- What a collection evicts ----

TEST_F(Watching, ACollectionThatWasAskedForEvictsWhatNoCalculationDependsOn) {
    Number used;
    Number unused;
    Calculated<int> stale("stale", [&] { return unused.Get(); });
    const DGWatcher watcher(
        "w", [] {}, queue);
    watcher.Watch([&] { return used.Get(); });
    stale.Get();
    const uint64 version = stale.Version();
    SynchronousGc(cs);
    EXPECT_EQ(0, used.m_numEvicted);
    EXPECT_EQ(1, unused.m_numEvicted);
    EXPECT_NE(version, stale.Version()); // its value was given up
    EXPECT_EQ(0, stale.Get());
    EXPECT_EQ(0, queue.Deliver());
}

} // namespace
} // namespace quna

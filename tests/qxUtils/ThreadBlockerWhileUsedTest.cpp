#include "qxUtils/ThreadBlockerWhileUsed.h"

#include "tests/support/ExpectAssertion.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(ThreadBlockerWhileUsed, AWaitEndsAtOnceWhileNobodyUsesIt) {
    ThreadBlockerWhileUsed blocker;
    blocker.Wait();
    ++blocker;
    --blocker;
    blocker.Wait();
}

TEST(ThreadBlockerWhileUsed, RefusesToCountBelowZero) {
    ThreadBlockerWhileUsed blocker;
    ExpectAssertion("count_ > 0", [&] { --blocker; });
    ++blocker;
    --blocker;
    ExpectAssertion("count_ > 0", [&] { blocker.Decrement(); });
}

TEST(ThreadBlockerWhileUsed, RefusesToEndWhileUsed) {
    ExpectAssertion("count_ == 0", [] {
        ThreadBlockerWhileUsed blocker;
        ++blocker;
    });
}

TEST(ThreadBlockerWhileUsedThreads, AWaiterSleepsUntilTheCountIsZero) {
    ThreadBlockerWhileUsed blocker;
    std::atomic<int> numDone{0};
    for (int i = 0; i < 3; ++i) ++blocker;
    std::thread users[3];
    for (std::thread& user : users)
        user = std::thread([&] {
            ++numDone;
            --blocker;
        });
    blocker.Wait();
    EXPECT_EQ(3, numDone.load());
    for (std::thread& user : users) user.join();
}

} // namespace
} // namespace quna

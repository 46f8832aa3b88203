#include "qxUtils/ThreadSafeValue.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(ThreadSafeValue, GivesWhatWasSet) {
    ThreadSafeValue<int> value(1000);
    EXPECT_EQ(1000, value.Get());
    value.Set(5);
    EXPECT_EQ(5, value.Get());
}

TEST(ThreadSafeCount, GivesTheCountAfterTheStep) {
    ThreadSafeCount count(2);
    EXPECT_EQ(3, ++count);
    EXPECT_EQ(2, --count);
    EXPECT_EQ(2, count.Get());
}

TEST(ThreadSafeCountThreads, ExactlyOneOwnerIsTheLast) {
    for (int round = 0; round < 50; ++round) {
        ThreadSafeCount count(4);
        ThreadSafeValue<int> numLast(0);
        std::vector<std::thread> owners;
        for (int i = 0; i < 4; ++i)
            owners.emplace_back([&] {
                if (--count == 0) numLast.Set(numLast.Get() + 1);
            });
        for (std::thread& owner : owners) owner.join();
        EXPECT_EQ(1, numLast.Get());
    }
}

} // namespace
} // namespace quna

#include "qxUtils/Event.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(AutoResetEvent, AWaitThatEndsClearsIt) {
    AutoResetEvent event;
    event.Signal();
    event.Wait();
    EXPECT_FALSE(event.Wait(1));
}

TEST(AutoResetEvent, SignalsDoNotAddUp) {
    AutoResetEvent event;
    event.Signal();
    event.Signal();
    EXPECT_TRUE(event.Wait(0));
    EXPECT_FALSE(event.Wait(0));
}

TEST(AutoResetEvent, ResetTakesASignalBack) {
    AutoResetEvent event;
    event.Signal();
    event.Reset();
    EXPECT_FALSE(event.Wait(0));
}

TEST(ManualResetEvent, StaysSetUntilReset) {
    ManualResetEvent event;
    EXPECT_FALSE(event.Wait(1));
    event.Signal();
    event.Wait();
    EXPECT_TRUE(event.Wait(0));
    event.Reset();
    EXPECT_FALSE(event.Wait(0));
}

TEST(EventThreads, ASignalOfAnAutoResetEventWakesOneWaiter) {
    AutoResetEvent event;
    std::atomic<int> numWoken{0};
    AutoResetEvent woken;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            event.Wait();
            ++numWoken;
            woken.Signal();
        });
    for (int i = 1; i <= 3; ++i) {
        event.Signal();
        woken.Wait();
        EXPECT_EQ(i, numWoken.load());
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(event.Wait(0));
}

TEST(EventThreads, ASignalOfAManualResetEventWakesAll) {
    ManualResetEvent event;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back([&] { event.Wait(); });
    event.Signal();
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(event.Wait(0));
}

TEST(EventThreads, WhatWasWrittenBeforeASignalIsSeenAfterTheWait) {
    AutoResetEvent ping;
    AutoResetEvent pong;
    int value = 0;
    std::thread other([&] {
        for (int i = 0; i < 1000; ++i) {
            ping.Wait();
            ++value;
            pong.Signal();
        }
    });
    for (int i = 0; i < 1000; ++i) {
        ++value;
        ping.Signal();
        pong.Wait();
        EXPECT_EQ(2 * i + 2, value);
    }
    other.join();
}

} // namespace
} // namespace quna

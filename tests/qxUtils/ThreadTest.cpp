#include "qxUtils/Thread.h"

#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <pthread.h>

namespace quna {
namespace {

TEST(Thread, ALongNameIsKeptWholeAndCutForTheSystem) {
    std::string name;
    std::string systemName;
    std::thread([&] {
        EXPECT_STREQ("", GetThreadName());
        SetThreadName("Dirty Object Set Writer");
        name = GetThreadName();
        char buffer[32] = {};
        pthread_getname_np(pthread_self(), buffer, sizeof(buffer));
        systemName = buffer;
    }).join();
    EXPECT_EQ("Dirty Object Set Writer", name);
    EXPECT_EQ("Dirty Object Se", systemName);
}

TEST(Thread, ALaterNameReplacesTheFirst) {
    std::thread([] {
        SetThreadName("first");
        SetThreadName("second");
        EXPECT_STREQ("second", GetThreadName());
    }).join();
}

} // namespace
} // namespace quna

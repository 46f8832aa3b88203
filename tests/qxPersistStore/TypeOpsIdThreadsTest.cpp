// Ids of types, asked for by several threads.
#include "qxObject/TypeOps.h"
#include "qxPersistStore/src/PersistStore.h"
#include "tests/support/Sanitized.h"
#include "tests/support/TestStore.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

// Whoever knows an id may write a record that names it, in a space of its own: the group's transaction looks at the flag
// to see whether the root record, without which the id means nothing, has to be written too.
TEST(TypeOpsIdThreads, WhoeverGetsANewIdFindsTheRootRecordDirty) {
    constexpr int NUM_THREADS = 6; // more than processors: some are woken in the place of others
    constexpr int NUM_TYPES = UNDER_SANITIZER ? 500 : 3000;
    TestStore store;
    std::atomic<bool>& dirty = store->m_rootObject.m_dirty;
    std::atomic<int> numUnmarked = 0;
    std::atomic<int> numArrived = 0, turn = 0;
    const auto meet = [&](int next) {
        if (++numArrived == NUM_THREADS * next) {
            dirty = false;
            turn = next;
        }
        for (int spins = 0; turn < next; ++spins)
            if (spins > 2000) std::this_thread::yield();
    };
    const auto ask = [&] {
        for (int i = 0; i < NUM_TYPES; ++i) {
            static const octet_t code[] = {0x60, 0};
            const std::string name = "quna::typeopsid_test::T" + std::to_string(i);
            const ConstStringZ names[] = {name.c_str()};
            const ReflectionByteCodeValue type(ReflectionByteCode(code, names, nullptr), false);
            meet(i + 1);
            store->GetTypeOpsId(type, GetTypeOps<int32>());
            if (!dirty) ++numUnmarked;
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < NUM_THREADS; ++t) threads.emplace_back(ask);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, numUnmarked);
}

} // namespace
} // namespace quna

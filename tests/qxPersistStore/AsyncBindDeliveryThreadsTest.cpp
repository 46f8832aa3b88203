// Two readers and the load thread bring the same object.
#include "qxPersistStore/src/PSpace.h"
#include "tests/support/AsyncBindFixture.h"
#include "tests/support/Sanitized.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

class AsyncBindDeliveryThreads : public AsyncBindFixture {};

// One reader has been loading the object since before somebody asked for it without blocking, and enters his while another
// takes over what the load thread has delivered.
TEST_F(AsyncBindDeliveryThreads, ReadersThatEnterAnObjectAtTheSameTimeGetTheSame) {
    using Clock = std::chrono::steady_clock;
    constexpr int NUM_OBJECTS = UNDER_SANITIZER ? 500 : 6000;
    constexpr int MAX_PAUSE = 50'000; // rounds of nothing; some 50 microseconds
    const std::vector<OID> oids = StoredLeaves(m_ps, NUM_OBJECTS);
    std::vector<ptr<IPersistable>> found(oids.size());
    std::vector<Clock::time_point> ends(oids.size());
    std::atomic<int> numLoading = 0, numReleased = 0, numFound = 0;
    const auto await = [](const auto& isTrue) {
        for (int spins = 0; !isTrue(); ++spins)
            if (spins > 1000) std::this_thread::yield();
    };
    std::atomic<std::thread::id> first;
    for (const OID oid : oids)
        m_lss->FailOpen(oid, [&] { // which it doesn't: the first reader waits
            if (std::this_thread::get_id() != first.load()) return;
            const int n = ++numLoading;
            await([&] { return numReleased >= n; });
        });
    std::thread loading([&] {
        first = std::this_thread::get_id();
        const SpaceScope scope(m_ps, SharedRead);
        for (std::size_t i = 0; i < oids.size(); ++i) {
            found[i] = m_ps->TryBindObject(oids[i]);
            ends[i] = Clock::now();
            ++numFound;
        }
    });
    int numDifferent = 0;
    {
        await([&] { return numLoading == 1; });
        const SpaceScope scope(m_ps, SharedRead);
        int pause = 0;
        for (std::size_t i = 0; i < oids.size(); ++i) {
            const int turn = static_cast<int>(i) + 1;
            await([&] { return numLoading == turn; });
            m_ps->AsyncBind2(oids[i]);
            await([&] { return m_lss->NumOpens(oids[i]) == 2 && m_lss->NumOpenElements() == 0; });
            numReleased = turn;
            for (volatile int rest = pause; rest > 0;) rest = rest - 1;
            const ptr<IPersistable> po = m_ps->TryBindObject(oids[i]);
            const Clock::time_point end = Clock::now();
            await([&] { return numFound == turn; });
            numDifferent += po.m_self != found[i].m_self;
            // So that both come to the table at the same time.
            const std::chrono::nanoseconds lead(i / 128 % 12 * 100);
            pause = std::min(MAX_PAUSE, end + lead < ends[i] ? 8 + pause * 65 / 64 : pause * 63 / 64);
        }
    }
    loading.join();
    m_lss->StopFailing();
    EXPECT_EQ(0, numDifferent);
}

} // namespace
} // namespace quna

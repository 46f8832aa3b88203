// A placeholder that is settled while it is being made.
#include "qxPersistStore/src/PSpace.h"
#include "tests/support/AsyncBindFixture.h"
#include "tests/support/Sanitized.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using enum EAsyncBindResult;

class AsyncBindSettledThreads : public AsyncBindFixture {};

// One reader is in the middle of loading an object when another asks for it without blocking: the load may end as soon as
// the placeholder stands in the table.
TEST_F(AsyncBindSettledThreads, WhoIsAnsweredPendingHearsOfALoadThatEndsMeanwhile) {
    constexpr int NUM_OBJECTS = UNDER_SANITIZER ? 1000 : 6000;
    constexpr int MAX_PAUSE = 50'000; // rounds of nothing; some 50 microseconds
    const std::vector<OID> oids = StoredLeaves(m_ps, NUM_OBJECTS);
    std::vector<std::unique_ptr<AsyncReader>> readers;
    for (const OID oid : oids) readers.push_back(std::make_unique<AsyncReader>(m_ps, oid));
    HoldLoadThread();
    std::atomic<int> numLoading = 0, numReleased = 0;
    const auto await = [](const std::atomic<int>& count, int n) {
        for (int spins = 0; count < n; ++spins)
            if (spins > 1000) std::this_thread::yield();
    };
    for (const OID oid : oids)
        m_lss->FailOpen(oid, [&] { // which it doesn't: it waits
            const int n = ++numLoading;
            await(numReleased, n);
        });
    std::thread loading([&] {
        const SpaceScope scope(m_ps, SharedRead);
        for (const OID oid : oids) EXPECT_TRUE(m_ps->TryBindObject(oid));
    });
    std::vector<EAsyncBindResult> answers;
    {
        const SpaceScope scope(m_ps, SharedRead);
        int pause = 0;
        for (int i = 0; i < NUM_OBJECTS; ++i) {
            await(numLoading, i + 1);
            numReleased = i + 1;
            for (volatile int rest = pause; rest > 0;) rest = rest - 1;
            answers.push_back(readers[static_cast<std::size_t>(i)]->Read().result);
            // So that both come to the table at the same time.
            pause = std::min(MAX_PAUSE, answers.back() == Pending ? 8 + pause * 65 / 64 : pause * 63 / 64);
        }
    }
    loading.join();
    m_lss->StopFailing();
    int numDeaf = 0;
    for (std::size_t i = 0; i < oids.size(); ++i) numDeaf += answers[i] == Pending && !readers[i]->IsStale();
    EXPECT_EQ(0, numDeaf);
    EvictNodes(); // none of these placeholders is evicted a second time
    ReleaseLoadThread();
    EXPECT_EQ(Bound, Ask(oids.back()));
}

// The end of a request runs code of the application, on the update thread and as the last thing before the space closes.
TEST_F(AsyncBindSettledThreads, WhatTheApplicationAsksForAtTheEndOfARequestSurvivesTheClose) {
    const OID doomed = StoredLeaf();
    const OID promised = MissingOid();
    const OID dqOid = m_ps->m_roots.m_dqOid;
    m_handler->Answer(promised, Pending);
    m_handler->m_onEnd = [&](OID) { m_ps->AsyncPermanentlyDeleteObject(m_ps->BindObject(doomed)); };
    SetHandler();
    // The update thread stands in a handler of another space.
    PSpace* const blocker = OpenSpace("blocker");
    TestHandler blocking(blocker);
    AutoResetEvent isBlocked, mayGoOn;
    const OID blocked = MissingOid(blocker);
    blocking.Answer(blocked, [&](OID) {
        isBlocked.Signal();
        mayGoOn.Wait();
        return MAsyncBind();
    });
    {
        const SpaceScope scope(blocker);
        blocker->SetAsyncBindRequestHandler(&blocking);
        blocker->AsyncBind2(blocked);
    }
    isBlocked.Wait();
    {
        AsyncReader reader(m_ps, promised);
        {
            const SpaceScope scope(m_ps);
            EXPECT_EQ(Pending, reader.Read().result);
            WaitForLoads();
            EXPECT_FALSE(m_ps->TryBindObject(promised)); // asks the handler, before the update thread can
        }
        std::thread afterEviction([&] {
            reader.WaitForChange();
            { const CSpaceLock lock(Domain(), Exclusive); }
            mayGoOn.Signal();
        });
        m_store.CloseSpace(m_ps);
        afterEviction.join();
    }
    EXPECT_EQ(1, m_handler->NumEnds(promised));
    EXPECT_EQ((Bytes{1, 0, 1} + BytesOfOid(doomed)), m_store.Element(dqOid));
    m_store.CloseSpace(blocker);
}

} // namespace
} // namespace quna

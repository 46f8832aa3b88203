// Asynchronous binding among many threads: these tests are for the race detector as much as for their own checks.
#include "qxPersistStore/src/PSpace.h"
#include "tests/support/AsyncBindFixture.h"
#include "tests/support/Sanitized.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using enum EAsyncBindResult;

constexpr int SLOWNESS = UNDER_SANITIZER ? 4 : 1;

class AsyncBindThreads : public AsyncBindFixture {
protected:
    static void RunTogether(const std::vector<std::function<void()>>& actions) {
        std::vector<std::thread> threads;
        for (const auto& action : actions) threads.emplace_back(action);
        for (std::thread& thread : threads) thread.join();
    }
};

TEST_F(AsyncBindThreads, ReadersThatAskForTheSameObjectsStartOneLoadForEach) {
    const std::vector<OID> oids = StoredLeaves(m_ps, 50);
    HoldLoadThread();
    RunTogether(std::vector<std::function<void()>>(4, [&] {
        const SpaceScope scope(m_ps, SharedRead);
        for (const OID oid : oids) EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
    }));
    ReleaseLoadThread();
    WaitForUpdates();
    for (const OID oid : oids) {
        EXPECT_EQ(Bound, Ask(oid));
        EXPECT_EQ(1, m_lss->NumOpens(oid));
    }
}

TEST_F(AsyncBindThreads, ReadersThatSleepForPlaceholdersAllGetTheirObjects) {
    const std::vector<OID> oids = StoredLeaves(m_ps, 6);
    for (int round = 0; round < 20 / SLOWNESS; ++round) {
        HoldLoadThread();
        for (const OID oid : oids) EXPECT_EQ(Pending, Ask(oid));
        std::vector<std::function<void()>> actions;
        for (int t = 0; t < 4; ++t) {
            actions.push_back([&, t] {
                const SpaceScope scope(m_ps, SharedRead);
                // Two threads go through the objects from the front and two from the back.
                for (std::size_t i = 0; i < oids.size(); ++i) {
                    const std::size_t which = t % 2 == 0 ? i : oids.size() - 1 - i;
                    const ptr<IPersistable> po = m_ps->TryBindObject(oids[which]);
                    ASSERT_TRUE(po);
                    EXPECT_EQ(static_cast<int32>(which) + 1, static_cast<const TestLeaf*>(po.m_self)->m_number);
                }
            });
        }
        actions.push_back([&] { ReleaseLoadThread(); });
        RunTogether(actions);
        WaitForUpdates();
        EXPECT_EQ(static_cast<int>(oids.size()), NumLeaves());
        Collect(m_ps);
    }
}

// A reader is in the middle of loading an object when another asks for the same one without blocking.
class AsyncBindThreadsBesideALoad : public AsyncBindThreads {
protected:
    // The first reader stands before the element until the load thread has delivered, or both go on at the same time.
    void Run(bool loadThreadIsFaster) {
        m_oid = StoredLeaf(3);
        m_lss->HoldOpen(m_oid);
        ptr<IPersistable> found;
        std::thread reader([&] {
            const SpaceScope scope(m_ps, SharedRead);
            found = m_ps->BindObject(m_oid);
            EXPECT_EQ((MAsyncBind{Bound, found}), m_ps->AsyncBind2(m_oid));
        });
        m_lss->WaitUntilHeld(m_oid);
        if (loadThreadIsFaster) m_lss->LetNewReadersPass(m_oid);
        {
            const SpaceScope scope(m_ps, SharedRead);
            EXPECT_EQ((MAsyncBind{Pending, null}), m_ps->AsyncBind2(m_oid));
            if (loadThreadIsFaster) WaitForLoads();
        }
        m_lss->ReleaseAll();
        reader.join();
        WaitForUpdates();
        EXPECT_EQ((MAsyncBind{Bound, found}), Bind(m_oid));
        EXPECT_EQ(1, NumLeaves());
        EndAllPlaceholders();
        EXPECT_EQ(3, NumberOf(m_oid));
    }
    OID m_oid;
};

TEST_F(AsyncBindThreadsBesideALoad, TheyGetOneObjectWhenBothEndTogether) { Run(false); }

TEST_F(AsyncBindThreadsBesideALoad, TheyGetOneObjectWhenTheLoadThreadIsFaster) { Run(true); }

TEST_F(AsyncBindThreads, AsynchronousAndSynchronousBindsEvictionCollectionAndPromisesGoOnTogether) {
    constexpr int NUM_STORED = 40;
    constexpr int NUM_PROMISED = 300;
    const std::vector<OID> stored = StoredLeaves(m_ps, NUM_STORED);
    std::vector<OID> promised, refused;
    std::mutex mutex;
    std::vector<OID> toKeep; // guarded by mutex
    for (int i = 0; i < NUM_PROMISED; ++i) {
        promised.push_back(MissingOid());
        refused.push_back(MissingOid());
        m_handler->Answer(promised.back(), [&](OID oid) {
            const std::lock_guard lock(mutex);
            toKeep.push_back(oid);
            return MAsyncBind{Pending, null};
        });
        if (i % 2 == 0) m_handler->Answer(refused.back(), [](OID) { return MAsyncBind{Bound, new TestLeaf(-1)}; });
    }
    SetHandler();

    const auto expectNumber = [](int32 number, ptr<IPersistable> po) {
        EXPECT_EQ(number, po ? static_cast<const TestLeaf*>(po.m_self)->m_number : number);
    };
    std::atomic<int> numReaders{3};
    const auto read = [&](unsigned seed, bool sync) {
        std::mt19937 random(seed);
        for (int i = 0; i < 3000 / SLOWNESS; ++i) {
            const SpaceScope scope(m_ps, SharedRead);
            for (int k = 0; k < 4; ++k) {
                const std::size_t which = random() % NUM_STORED;
                ptr<IPersistable> po = m_ps->AsyncBind2(stored[which]).po;
                if (!po && sync) {
                    po = m_ps->TryBindObject(stored[which]);
                    EXPECT_TRUE(po);
                }
                expectNumber(static_cast<int32>(which) + 1, po);
            }
            m_ps->AsyncBind2(refused[random() % NUM_PROMISED]);
            const OID oid = promised[random() % NUM_PROMISED];
            const ptr<IPersistable> po = sync ? m_ps->TryBindObject(oid) : m_ps->AsyncBind2(oid).po;
            expectNumber(1000, po);
        }
        --numReaders;
    };
    const auto keep = [&] {
        while (numReaders > 0) {
            std::vector<OID> oids;
            {
                const std::lock_guard lock(mutex);
                oids.swap(toKeep);
            }
            const SpaceScope scope(m_ps);
            for (std::size_t i = 0; i < oids.size(); i += 2) {
                m_ps->MakeObjectPersistWithGivenOID(NewObject<TestLeaf>(1000), oids[i], false);
            }
        }
    };
    const auto disturb = [&] {
        for (int i = 0; numReaders > 0; ++i) {
            const SpaceScope scope(m_ps);
            EvictAllDgsNodes(Domain());
            if (i % 4 == 0) SynchronousGc(Domain());
        }
    };
    const auto openAndClose = [&] {
        const std::vector<OID> oids = [&] {
            PSpace* const ps = OpenSpace("short");
            const std::vector<OID> leaves = StoredLeaves(ps, 20);
            m_store.CloseSpace(ps);
            return leaves;
        }();
        while (numReaders > 0) {
            PSpace* const ps = OpenSpace("short");
            {
                const SpaceScope scope(ps, SharedRead);
                for (const OID oid : oids) EXPECT_NE(DoesNotExist, ps->AsyncBind2(oid).result);
            }
            m_store.CloseSpace(ps);
        }
    };
    RunTogether(
        {[&] { read(1, false); }, [&] { read(2, false); }, [&] { read(3, true); }, keep, disturb, openAndClose});

    EndAllPlaceholders();
    for (const OID oid : promised) EXPECT_LE(m_handler->NumEnds(oid), m_handler->NumBegins(oid));
    for (const OID oid : refused) EXPECT_EQ(0, m_handler->NumEnds(oid));
}

} // namespace
} // namespace quna

// Asynchronous and synchronous binders, eviction, collection, a handler's answers and closing, all against one another.
//
// QX_STRESS_SECONDS in the environment makes the race last so long.
#include "qxObject/DGDepNode.h"
#include "tests/support/GatedSpace.h"
#include "tests/support/Sanitized.h"

#include <chrono>
#include <cstdlib>
#include <deque>
#include <random>
#include <thread>
#include <vector>

namespace quna {
namespace {

using enum EAsyncBindResult;
using Clock = std::chrono::steady_clock;

constexpr int NUM_STORED = 64;
constexpr int NUM_MISSING = 16;
constexpr int STEPS = UNDER_SANITIZER ? 300 : 600; // of each thread

// Answers at random, and makes fetched objects persistent when it is told to.
class FetchingHandler {
public:
    MAsyncBind BeginAsyncBindRequest(OID oid) {
        const std::lock_guard lock(m_mutex);
        switch (m_random() % 4) {
        case 0: return BindAnswer(DoesNotExist);
        case 1: return BindAnswer(NotHandled);
        case 2: return BindAnswer(Bound, new TestLeaf(static_cast<int32>(oid.low_)));
        default: m_wanted.push_back(oid); return BindAnswer(Pending);
        }
    }
    void EndAsyncBindRequest(OID) { ++m_numEnded; }

    // The last that was asked for; null when there is none.
    OID TakeWanted() {
        const std::lock_guard lock(m_mutex);
        if (m_wanted.empty()) return OID();
        const OID oid = m_wanted.back();
        m_wanted.pop_back();
        return oid;
    }

    std::atomic<int> m_numEnded{0};

private:
    std::mutex m_mutex;
    std::mt19937 m_random{1};
    std::deque<OID> m_wanted;
};

class AsyncBindStress : public ::testing::Test {
protected:
    void OpenSpace() {
        m_ps = m_store.OpenSpace("s");
        SetMilliSecsPerGc(m_ps->GetCSpace(), 3);
        const SpaceScope scope(m_ps);
        m_ps->SetAsyncBindRequestHandler(&m_handler);
    }
    void StoreObjects() {
        const SpaceScope scope(m_ps);
        for (int i = 0; i < NUM_STORED; ++i) {
            TestLeaf* const leaf = NewObject<TestLeaf>();
            m_ps->MakeObjectPersist(leaf, false);
            leaf->m_number = static_cast<int32>(GetOid(leaf).low_);
            m_oids.push_back(GetOid(leaf));
        }
        for (int i = 0; i < NUM_MISSING; ++i) m_oids.push_back(m_ps->AllocateOid(1, false));
    }
    OID AnyOid(std::mt19937& random) const { return m_oids[random() % m_oids.size()]; }

    static void Check(OID oid, ptr<IPersistable> po) {
        if (!po) return;
        ASSERT_EQ(oid, GetOid(po));
        ASSERT_EQ(static_cast<int32>(oid.low_), LeafNumber(po));
    }
    // Within one hold of the lock what is bound stays what it is.
    void AskOnce(OID oid, ECSpaceLockMode mode) {
        const SpaceScope scope(m_ps, mode);
        const MAsyncBind bind = m_ps->AsyncBind2(oid);
        ASSERT_NE(NotHandled, bind.result);
        ASSERT_EQ(bind.result == Bound, static_cast<bool>(bind.po));
        Check(oid, bind.po);
        if (bind.po) {
            ASSERT_EQ(bind, m_ps->AsyncBind2(oid));
        }
    }
    void BindOnce(OID oid, ECSpaceLockMode mode) {
        const SpaceScope scope(m_ps, mode);
        const ptr<IPersistable> po = m_ps->TryBindObject(oid);
        Check(oid, po);
        if (po) {
            ASSERT_EQ(po, m_ps->BindObject(oid));
        }
    }
    void Fetch() {
        const OID oid = m_handler.TakeWanted();
        if (!oid) return;
        const SpaceScope scope(m_ps);
        m_ps->MakeObjectPersistWithGivenOID(NewObject<TestLeaf>(static_cast<int32>(oid.low_)), oid, false);
    }
    // A calculation over several objects, watched: what it says is never out of date for ever.
    void Watch(std::mt19937& random) {
        DGWatchQueue news;
        const OID oids[] = {AnyOid(random), AnyOid(random)};
        Calculated<bool> settled("settled", [&] {
            bool all = true;
            for (const OID oid : oids) all = m_ps->AsyncBind2(oid).result != Pending && all;
            return all;
        });
        const DGWatcher watcher(
            "watcher", [] {}, news);
        for (int i = 0; i < 3; ++i) {
            {
                const SpaceScope scope(m_ps, SharedRead);
                if (watcher.Watch([&] { return settled.Get(); })) break;
            }
            news.Wait(1);
            news.Deliver();
        }
    }
    void Step(int thread, std::mt19937& random) {
        const OID oid = AnyOid(random);
        switch (thread) {
        case 0: return AskOnce(oid, Exclusive);
        case 1: return AskOnce(oid, SharedRead);
        case 2: return BindOnce(oid, random() % 2 ? SharedRead : Exclusive);
        case 3: return BindOnce(oid, SharedRead);
        case 4: return Watch(random);
        default: break;
        }
        switch (random() % 8) {
        case 0: {
            const SpaceScope scope(m_ps);
            return EvictAllDgsNodes(m_ps->GetCSpace());
        }
        case 1: return SynchronousGc(m_ps->GetCSpace());
        case 2: return m_ps->WriteDirtyObjectsToLss(false);
        default: return Fetch();
        }
    }
    void Race(unsigned seed) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 6; ++t)
            threads.emplace_back([this, t, seed] {
                std::mt19937 random(seed * 100 + static_cast<unsigned>(t));
                for (int i = 0; i < STEPS && !HasFatalFailure(); ++i) Step(t, random);
            });
        for (std::thread& thread : threads) thread.join();
    }

    FetchingHandler m_handler;
    std::vector<OID> m_oids;
    TestStore m_store;
    PSpace* m_ps = nullptr;
};

TEST_F(AsyncBindStress, BindersOfBothKindsEvictionCollectionFetchesAndClosing) {
    const char* const text = std::getenv("QX_STRESS_SECONDS");
    const auto end = Clock::now() + std::chrono::seconds(text ? std::atoi(text) : 0);
    OpenSpace();
    StoreObjects();
    unsigned seed = 1;
    do {
        Race(seed++);
        m_store.CloseSpace(m_ps); // with whatever is under way
        ASSERT_EQ(0, TestLeaf::s_numLive);
        OpenSpace();
    } while (Clock::now() < end && !HasFatalFailure());
    EXPECT_GT(m_handler.m_numEnded, 0);
    m_store.Close(); // before the handler
}

// One thread holds a space most of the time; the loads of the other arrive all the same, and so do its own.
TEST_F(AsyncBindStress, LoadsOfSeveralSpacesUnderBusyLocks) {
    OpenSpace();
    StoreObjects();
    PSpace* const other = m_store.OpenSpace("other");
    std::vector<OID> others;
    {
        const SpaceScope scope(other);
        for (int i = 0; i < NUM_STORED; ++i) {
            TestLeaf* const leaf = NewObject<TestLeaf>();
            other->MakeObjectPersist(leaf, false);
            others.push_back(GetOid(leaf));
        }
    }
    other->WriteDirtyObjectsToLss(false);
    m_ps->WriteDirtyObjectsToLss(false);
    for (PSpace* const ps : {m_ps, other}) SynchronousGc(ps->GetCSpace());
    const auto bindAll = [](PSpace* ps, const std::vector<OID>& oids) {
        for (std::size_t numBound = 0; numBound < NUM_STORED;) {
            const SpaceScope scope(ps);
            numBound = 0;
            for (std::size_t i = 0; i < NUM_STORED; ++i) numBound += ps->AsyncBind2(oids[i]).result == Bound;
        }
    };
    SetMilliSecsPerGc(m_ps->GetCSpace(), 3'600'000);
    SetMilliSecsPerGc(other->GetCSpace(), 3'600'000);
    std::thread first([&] { bindAll(m_ps, m_oids); });
    std::thread second([&] { bindAll(other, others); });
    first.join();
    second.join();
    m_store.Close();
}

} // namespace
} // namespace quna

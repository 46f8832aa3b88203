#include "qxObject/src/Collector.h"

#include "qxObject/src/CSpaceImpl.h"
#include "tests/qxObject/GcTestObjects.h"
#include "tests/support/ExpectAssertion.h"

#include <algorithm>
#include <climits>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>

#include <pthread.h>

namespace quna {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr ssize_t CHAIN_LENGTH = 300'000;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr ssize_t CHAIN_LENGTH = 300'000;
#else
constexpr ssize_t CHAIN_LENGTH = 10'000'000;
#endif
#else
constexpr ssize_t CHAIN_LENGTH = 10'000'000;
#endif

// A domain, locked exclusively for the test.
class CollectorTest : public testing::Test {
protected:
    ~CollectorTest() noexcept override {}

    NodeLog log; // outlives the domain and with it the nodes
    CSpaceCreator cs;
    CSpaceLock lock{cs, Exclusive};

    GcNode* New(int id = 0, ssize_t size = 0) { return NewNode(cs, log, id, size); }
    GcNode* NewRoot() {
        GcNode* const node = New();
        AddGcRoot(cs, ptr<const IObject>(node));
        return node;
    }
    // A collection as the domain's own thread does it.
    void CollectWithinBudget() { cs.Get()->m_collector.Collect(EGcCache::KeepWithinBudget); }
};

TEST_F(CollectorTest, AnObjectLivesAsLongAsARootReachesIt) {
    GcNode* const root = NewRoot();
    GcNode* const child = New();
    root->HoldStrongly(child);
    New(); // nobody holds it
    EXPECT_EQ(GetNumObjects(cs), 3);
    SynchronousGc(cs);
    EXPECT_EQ(GetNumObjects(cs), 2);
    EXPECT_EQ(log.alive, 2);
    root->m_strong.clear();
    SynchronousGc(cs);
    EXPECT_EQ(log.alive, 1);
    RemoveGcRoot(cs, ptr<const IObject>(root));
    SynchronousGc(cs);
    EXPECT_EQ(log.alive, 0);
    EXPECT_EQ(GetNumObjects(cs), 0);
}

TEST_F(CollectorTest, RegisteringSetsTheDomainAndIsDoneOnce) {
    GcNode* const node = new GcNode(log);
    EXPECT_EQ(GetAssociatedCSpace(ptr<const IObject>(node)), nullptr);
    RegisterGcObject(cs, ptr<IObject>(node));
    EXPECT_EQ(GetAssociatedCSpace(ptr<const IObject>(node)), cs.Get());
    ExpectAssertion("!state.m_cspace", [&] { RegisterGcObject(cs, ptr<IObject>(node)); });
    ExpectAssertion("object", [&] { RegisterGcObject(cs, null); });

    SetThreadCSpace(nullptr);
    GcNode* const other = new GcNode(log);
    ExpectAssertion("cs", [&] { RegisterGcObject(ptr<IObject>(other)); });
    DeclareThreadPtr<CSpace> current(cs);
    RegisterGcObject(ptr<IObject>(other));
    EXPECT_EQ(GetAssociatedCSpace(ptr<const IObject>(other)), cs.Get());
}

TEST_F(CollectorTest, RootsAreASet) {
    GcNode* const node = NewRoot();
    AddGcRoot(ptr<const IObject>(node)); // the object's domain
    SynchronousGc(cs);
    EXPECT_EQ(log.alive, 1);
    RemoveGcRoot(ptr<const IObject>(node));
    RemoveGcRoot(ptr<const IObject>(node));
    SynchronousGc(cs);
    EXPECT_EQ(log.alive, 0);
}

TEST_F(CollectorTest, ARootOutsideEveryDomainKeepsWhatItHolds) {
    GcNode outside(log);
    outside.HoldStrongly(New());
    AddGcRoot(cs, ptr<const IObject>(&outside));
    SynchronousGc(cs);
    EXPECT_EQ(GetNumObjects(cs), 1);
    RemoveGcRoot(cs, ptr<const IObject>(&outside));
    SynchronousGc(cs);
    EXPECT_EQ(GetNumObjects(cs), 0);
}

TEST_F(CollectorTest, CyclesGoWhenNothingOutsideHoldsThem) {
    GcNode* const a = New();
    GcNode* const b = New();
    a->HoldStrongly(b);
    b->HoldStrongly(a);
    GcNode* const c = New();
    c->HoldEvictably(c);
    c->HoldStrongly(a);
    CollectWithinBudget();
    EXPECT_EQ(log.alive, 0);
}

TEST_F(CollectorTest, AnEvictablePointerKeepsNothingInAFullCollectionAndIsCleared) {
    GcNode* const root = NewRoot();
    root->HoldEvictably(New());
    GcNode* const both = New();
    root->HoldStrongly(both);
    root->HoldEvictably(both);
    SynchronousGc(cs);
    EXPECT_EQ(log.alive, 2);
    EXPECT_FALSE(root->HasEvictable(0));
    EXPECT_EQ(root->m_evictable[0].m_table, nullptr);
    EXPECT_TRUE(root->HasEvictable(1));
    EXPECT_EQ(GetGcStats(cs).objectsEvicted, 1);
}

TEST_F(CollectorTest, TheOwnThreadKeepsTheCacheWithinTheBudget) {
    GcNode* const root = NewRoot();
    GcNode* const cached = New(1, 100);
    GcNode* const next = New(2, 100);
    root->HoldEvictably(cached);
    cached->HoldEvictably(next);
    next->HoldEvictably(cached);
    New(3, 100); // reached by nothing
    SetEvictionBudget(cs, 200);
    CollectWithinBudget();
    EXPECT_EQ(log.alive, 3);
    EXPECT_TRUE(root->HasEvictable(0));
    EXPECT_EQ(GetGcStats(cs).objectsEvicted, 0);
    EXPECT_EQ(GetGcStats(cs).bytesResident, 200);
    SetEvictionBudget(cs, 199);
    CollectWithinBudget();
    EXPECT_EQ(log.alive, 2); // 90% of the budget hold one of the two
}

TEST_F(CollectorTest, OverTheBudgetTheMostRecentlyTouchedStay) {
    constexpr int COUNT = 1000;
    GcNode* const root = NewRoot();
    for (int i = 0; i < COUNT; ++i) root->HoldEvictably(New(i, 10));
    SynchronousGc(cs.Get()); // lets them all go: none may be left by accident
    ASSERT_EQ(log.alive, 1);
    root->m_evictable.clear();

    std::vector<int> order(COUNT);
    for (int i = 0; i < COUNT; ++i) order[static_cast<std::size_t>(i)] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(7));
    for (int i = 0; i < COUNT; ++i) root->HoldEvictably(New(i, 10));
    for (const int i : order) {
        g_touchClock.fetch_add(1);
        SetTouched(root->m_evictable[static_cast<std::size_t>(i)]);
    }
    SetEvictionBudget(cs, 5000);
    CollectWithinBudget();
    EXPECT_EQ(log.alive, 1 + 450); // 90% of 5000 bytes
    for (int k = 0; k < COUNT; ++k)
        EXPECT_EQ(root->HasEvictable(static_cast<std::size_t>(order[static_cast<std::size_t>(k)])), k >= COUNT - 450);
    EXPECT_EQ(GetGcStats(cs).bytesResident, 4500);
    EXPECT_EQ(GetGcStats(cs).objectsEvicted, COUNT + 550);
}

TEST_F(CollectorTest, WhatAKeptObjectHoldsStronglyCountsAndStays) {
    GcNode* const root = NewRoot();
    GcNode* const recent = New(1, 10);
    recent->HoldStrongly(New(2, 70));
    root->HoldEvictably(New(3, 20));
    root->HoldEvictably(recent);
    g_touchClock.fetch_add(1);
    SetTouched(ptr<IObject>(recent));
    SetEvictionBudget(cs, 99); // 89 bytes may stay
    CollectWithinBudget();
    EXPECT_EQ(log.alive, 3);
    EXPECT_FALSE(root->HasEvictable(0));
    EXPECT_TRUE(root->HasEvictable(1));
}

TEST_F(CollectorTest, ADirtyObjectIsNeverLetGo) {
    GcNode* const root = NewRoot();
    GcNode* const named = New(1, 1000);
    root->HoldEvictably(named);
    GcNode* const unreachable = New(2, 1000);
    GcNode* const held = New(3, 1000);
    unreachable->HoldStrongly(held);
    for (GcNode* node : {named, unreachable}) SetIObjectFlag(ptr<const IObject>(node), DIRTY, true);
    SetEvictionBudget(cs, 0);
    SynchronousGc(cs);
    CollectWithinBudget();
    EXPECT_EQ(log.alive, 4);
    EXPECT_TRUE(root->HasEvictable(0));
    for (GcNode* node : {named, unreachable}) SetIObjectFlag(ptr<const IObject>(node), DIRTY, false);
    SynchronousGc(cs);
    EXPECT_EQ(log.alive, 1);
    EXPECT_FALSE(root->HasEvictable(0));
}

TEST_F(CollectorTest, OverTheBudgetPointersOfADirtyObjectThatNothingReachesAreClearedToo) {
    GcNode* const root = NewRoot();
    for (int i = 0; i < 10; ++i) root->HoldEvictably(New(i, 100));
    GcNode* const unreachable = New(20, 100);
    GcNode* const cold = New(21, 100);
    unreachable->HoldEvictably(cold);
    SetIObjectFlag(ptr<const IObject>(unreachable), DIRTY, true);
    SetEvictionBudget(cs, 500);
    CollectWithinBudget();
    EXPECT_FALSE(unreachable->HasEvictable(0)); // its target is gone
    SetIObjectFlag(ptr<const IObject>(unreachable), DIRTY, false);
}

TEST_F(CollectorTest, EveryGoingObjectIsToldBeforeTheFirstIsDestroyed) {
    ssize_t toldAtFirstDestroy = -1;
    log.onDestroy = [&](int) {
        if (toldAtFirstDestroy < 0) toldAtFirstDestroy = log.announced;
    };
    for (int i = 0; i < 5; ++i) New(i);
    SynchronousGc(cs);
    EXPECT_EQ(toldAtFirstDestroy, 5);
}

TEST_F(CollectorTest, AHookThatThrowsLosesNoObject) {
    for (int i = 0; i < 5; ++i) New(i);
    log.onGarbageCollect = [](int id) {
        if (id == 3) throw std::runtime_error("not now");
    };
    EXPECT_THROW(SynchronousGc(cs), std::runtime_error);
    EXPECT_EQ(log.alive, 5);
    EXPECT_EQ(GetNumObjects(cs), 5);
    log.onGarbageCollect = nullptr;
    SynchronousGc(cs);
    EXPECT_EQ(log.alive, 0);
}

TEST_F(CollectorTest, ADestroyThatThrowsIsAnAssertionAndTheOthersGo) {
    for (int i = 0; i < 5; ++i) New(i);
    log.onDestroy = [](int id) {
        if (id == 3) throw std::runtime_error("broken");
    };
    ExpectAssertion("Destroy of an object of class (unnamed) threw: broken", [&] { SynchronousGc(cs); });
    EXPECT_EQ(log.alive, 0);
    EXPECT_EQ(GetNumObjects(cs), 0);
    log.onDestroy = nullptr;
}

TEST_F(CollectorTest, ACollectionInsideACollectionIsRefused) {
    New();
    log.onGarbageCollect = [&](int) { ExpectAssertion("!m_collecting", [&] { SynchronousGc(cs); }); };
    SynchronousGc(cs);
    EXPECT_EQ(log.announced, 1);
}

TEST_F(CollectorTest, ObjectsRegisteredByAHookStay) {
    New();
    log.onGarbageCollect = [&](int id) {
        if (id == 0) New(1);
    };
    SynchronousGc(cs);
    EXPECT_EQ(log.alive, 1);
    EXPECT_EQ(GetNumObjects(cs), 1);
}

TEST_F(CollectorTest, AVisitorThatThrowsLeavesEverythingAsItWas) {
    class Thrower : public IObjectBaseMixin<Thrower, EmptyBase> {
    public:
        const ReflectedClass* GetReflectedClass() const { return nullptr; }
        void VisitObjects(IObjectVisitor&) const {
            if (m_throw) throw std::runtime_error("visit");
        }
        bool m_throw = true;
    };
    auto* const thrower = new Thrower;
    RegisterGcObject(cs, ptr<IObject>(thrower));
    GcNode* const root = NewRoot();
    root->HoldStrongly(New());
    AddGcRoot(cs, ptr<const IObject>(thrower));
    for (int i = 0; i < 3; ++i) EXPECT_THROW(SynchronousGc(cs), std::runtime_error);
    EXPECT_EQ(GetNumObjects(cs), 3);
    thrower->m_throw = false;
    SynchronousGc(cs);
    EXPECT_EQ(GetNumObjects(cs), 3);
    RemoveGcRoot(cs, ptr<const IObject>(root));
    SynchronousGc(cs);
    EXPECT_EQ(GetNumObjects(cs), 1);
}

TEST_F(CollectorTest, SizesAreSummedAndFollowTheObjects) {
    GcNode* const a = New(1, 100);
    EXPECT_EQ(GetGcStats(cs).bytesResident, 100);
    SetEvictableObjectSizeInBytes(ptr<const IObject>(a), 30);
    EXPECT_EQ(GetGcStats(cs).bytesResident, 30);
    GcNode* const b = new GcNode(log);
    SetEvictableObjectSizeInBytes(ptr<const IObject>(b), 7); // not in a domain yet
    RegisterGcObject(cs, ptr<IObject>(b));
    EXPECT_EQ(GetGcStats(cs).bytesResident, 37);
    SynchronousGc(cs);
    EXPECT_EQ(GetGcStats(cs).bytesResident, 0);
}

TEST_F(CollectorTest, TheFiguresCount) {
    NewRoot();
    New();
    SynchronousGc(cs);
    SynchronousGc(cs);
    const CSpaceGcStats stats = GetGcStats(cs);
    EXPECT_EQ(stats.collections, 2);
    EXPECT_EQ(stats.objectsMarked, 1);
    EXPECT_EQ(stats.objectsReclaimed, 1);
    EXPECT_EQ(stats.objectsEvicted, 0);
    EXPECT_GE(stats.longestPauseMicros, stats.lastPauseMicros);
}

TEST_F(CollectorTest, AnUnlimitedBudgetIsAllowedAndANegativeOneIsNot) {
    SetEvictionBudget(cs, SSIZE_MAX);
    GcNode* const root = NewRoot();
    root->HoldEvictably(New(1, ssize_t{1} << 40));
    CollectWithinBudget();
    EXPECT_EQ(log.alive, 2);
    ExpectAssertion("bytes >= 0", [&] { SetEvictionBudget(cs, -1); });
}

TEST_F(CollectorTest, TheClockAdvancesWithEachCollection) {
    GcNode* const root = NewRoot();
    const int32 before = g_touchClock.load();
    SynchronousGc(cs);
    EXPECT_EQ(g_touchClock.load(), before + 1);
    SetTouched(ptr<IObject>(root));
    EXPECT_EQ(root->GetSysState().GetLastTouchedTime(), before + 1);
}

TEST_F(CollectorTest, TheDomainsOwnObjectsAreRootsForLife) {
    GcNode* const own = new GcNode(log);
    RegisterDomainObject(cs, ptr<IObject>(own));
    GcNode* const converted = New();
    New();
    RegisterDomainObject(cs, ptr<IObject>(converted));
    RegisterDomainObject(cs, ptr<IObject>(converted));
    own->HoldStrongly(New());
    EXPECT_EQ(GetNumObjects(cs), 4);
    SynchronousGc(cs);
    EXPECT_EQ(GetNumObjects(cs), 3);
    EXPECT_EQ(GetAssociatedCSpace(ptr<const IObject>(own)), cs.Get());
}

TEST_F(CollectorTest, TransferMovesTheObjectsAndLeavesTheDomainsOwn) {
    CSpaceCreator to;
    GcNode* const own = new GcNode(log, 1);
    RegisterDomainObject(cs, ptr<IObject>(own));
    AddGcRoot(cs, ptr<const IObject>(own));
    GcNode* const root = NewRoot();
    GcNode* const child = New(2, 50);
    root->HoldStrongly(child);
    SynchronousGc(cs); // the marks of the two domains are out of step now
    ExpectAssertion("HaveExclusiveLock(to)", [&] { TransferCSpace(cs, to); });
    CSpaceLock toLock(to, Exclusive);
    NewNode(to, log, 3);
    TransferCSpace(cs, to);
    EXPECT_EQ(GetNumObjects(cs), 1);
    EXPECT_EQ(GetNumObjects(to), 3);
    EXPECT_EQ(GetAssociatedCSpace(ptr<const IObject>(own)), cs.Get());
    EXPECT_EQ(GetAssociatedCSpace(ptr<const IObject>(child)), to.Get());
    EXPECT_EQ(GetGcStats(cs).bytesResident, 0);
    EXPECT_EQ(GetGcStats(to).bytesResident, 50);
    SynchronousGc(cs);
    SynchronousGc(to);
    EXPECT_EQ(GetNumObjects(cs), 1);
    EXPECT_EQ(GetNumObjects(to), 2); // the root status came along
    TransferCSpace(to, to);
    EXPECT_EQ(GetNumObjects(to), 2);
}

TEST_F(CollectorTest, EdgesIntoAnotherDomainAreNotFollowed) {
    CSpaceCreator other;
    CSpaceLock otherLock(other, Exclusive);
    GcNode* const foreign = NewNode(other, log);
    foreign->HoldStrongly(New());
    GcNode* const root = NewRoot();
    root->HoldStrongly(foreign);
    root->HoldEvictably(foreign);
    SynchronousGc(cs);
    EXPECT_EQ(GetNumObjects(cs), 1);
    EXPECT_TRUE(root->HasEvictable(0));
    root->m_strong.clear();
    root->m_evictable.clear();
}

// The model: the ids of all nodes that those in `work` reach.
std::set<int> Reachable(std::vector<GcNode*> work, bool overEvictable) {
    std::set<int> reached;
    while (!work.empty()) {
        GcNode* const node = work.back();
        work.pop_back();
        if (!reached.insert(node->m_id).second) continue;
        work.insert(work.end(), node->m_strong.begin(), node->m_strong.end());
        if (!overEvictable) continue;
        for (const ptr<IObject>& p : node->m_evictable) {
            if (p) work.push_back(static_cast<GcNode*>(p.m_self));
        }
    }
    return reached;
}

TEST(Collector, RandomGraphsAgainstAModelOfReachability) {
    for (unsigned seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        NodeLog log;
        CSpaceCreator cs;
        CSpaceLock lock(cs, Exclusive);
        std::vector<GcNode*> nodes;
        std::set<int> gone;
        log.onDestroy = [&](int id) { gone.insert(id); };
        for (int round = 0; round < 4; ++round) {
            const int firstNew = round * 1000;
            for (int i = 0; i < 200; ++i) nodes.push_back(NewNode(cs, log, firstNew + i));
            const auto any = [&] { return nodes[random() % nodes.size()]; };
            for (int i = 0; i < 120; ++i) any()->HoldStrongly(any());
            for (int i = 0; i < 160; ++i) any()->HoldEvictably(any());
            for (int i = 0; i < 5; ++i) AddGcRoot(cs, ptr<const IObject>(any()));
            for (int i = 0; i < 5; ++i) RemoveGcRoot(cs, ptr<const IObject>(any()));
            for (int i = 0; i < 5; ++i) SetIObjectFlag(ptr<const IObject>(any()), DIRTY, random() % 2 == 0);

            const bool keepCache = random() % 2 == 0;
            std::vector<GcNode*> strongRoots, dirty;
            for (GcNode* node : nodes) {
                if (cs.Get()->m_objects.Roots().count(node)) strongRoots.push_back(node);
                if (node->GetSysState().GetFlag(DIRTY)) dirty.push_back(node);
            }
            std::set<int> expected = Reachable(strongRoots, keepCache);
            expected.merge(Reachable(dirty, false));

            gone.clear();
            cs.Get()->m_collector.Collect(keepCache ? EGcCache::KeepWithinBudget : EGcCache::LetGo);

            // A node may not be looked at before it is known to live.
            std::vector<GcNode*> kept;
            std::set<const void*> listed;
            for (ssize_t i = 0; i < cs.Get()->m_objects.Objects().Size(); ++i)
                listed.insert(cs.Get()->m_objects.Objects()[i].m_self);
            std::set<int> found;
            for (GcNode* node : nodes) {
                if (!listed.count(node)) continue;
                kept.push_back(node);
                found.insert(node->m_id);
            }
            EXPECT_EQ(found, expected);
            for (const int id : gone) EXPECT_FALSE(expected.count(id));
            EXPECT_EQ(log.alive, static_cast<ssize_t>(expected.size()));
            for (GcNode* node : kept) {
                for (const ptr<IObject>& p : node->m_evictable) EXPECT_TRUE(!p || listed.count(p.m_self));
            }
            nodes = kept;
            if (nodes.empty()) nodes.push_back(NewNode(cs, log, firstNew + 999));
        }
        log.onDestroy = nullptr;
    }
}

// One link of a long chain, as small as an object can be.
class ChainLink : public IObjectBaseMixin<ChainLink, EmptyBase> {
public:
    ChainLink(ChainLink* next, bool evictable) : m_next(next), m_evictable(evictable) {}

    const ReflectedClass* GetReflectedClass() const { return nullptr; }
    void VisitObjects(IObjectVisitor& visitor) const {
        if (m_evictable)
            visitor.VisitEvictablePtr(&m_next);
        else
            visitor << ptr<const IObject>(m_next);
    }

private:
    mutable ptr<IObject> m_next;
    const bool m_evictable;
};

void CollectALongChain(bool evictable) {
    CSpaceCreator cs;
    CSpaceLock lock(cs, Exclusive);
    ChainLink* head = nullptr;
    for (ssize_t i = 0; i < CHAIN_LENGTH; ++i) {
        head = new ChainLink(head, evictable);
        RegisterGcObject(cs, ptr<IObject>(head));
    }
    AddGcRoot(cs, ptr<const IObject>(head));
    cs.Get()->m_collector.Collect(EGcCache::KeepWithinBudget);
    EXPECT_EQ(GetNumObjects(cs), CHAIN_LENGTH);
    RemoveGcRoot(cs, ptr<const IObject>(head));
    SynchronousGc(cs);
    EXPECT_EQ(GetNumObjects(cs), 0);
}

void OnASmallStack(void (*act)()) {
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, 256 * 1024);
    pthread_t thread;
    const auto body = [](void* arg) -> void* {
        reinterpret_cast<void (*)()>(arg)();
        return nullptr;
    };
    ASSERT_EQ(::pthread_create(&thread, &attributes, body, reinterpret_cast<void*>(act)), 0);
    ::pthread_join(thread, nullptr);
    ::pthread_attr_destroy(&attributes);
}

TEST(Collector, AChainOfMillionsOfStrongEdgesNeedsNoStack) {
    OnASmallStack([] { CollectALongChain(false); });
}

TEST(Collector, AChainOfMillionsOfEvictableEdgesNeedsNoStack) {
    OnASmallStack([] { CollectALongChain(true); });
}

TEST(Collector, TheEndOfADomainEndsItsObjects) {
    NodeLog log;
    ssize_t toldAtFirstDestroy = -1;
    log.onDestroy = [&](int) {
        if (toldAtFirstDestroy < 0) toldAtFirstDestroy = log.announced;
    };
    CSpace* const cs = CreateCSpace();
    {
        CSpaceLock lock(cs, Exclusive);
        GcNode* root = NewNode(cs, log);
        root->HoldStrongly(NewNode(cs, log));
        AddGcRoot(cs, ptr<const IObject>(root));
        RegisterDomainObject(cs, ptr<IObject>(new GcNode(log)));
        SetIObjectFlag(ptr<const IObject>(root), DIRTY, true);
    }
    log.onGarbageCollect = [&](int) { EXPECT_TRUE(HaveExclusiveLock(cs)); };
    Destroy(cs);
    EXPECT_EQ(log.alive, 0);
    EXPECT_EQ(toldAtFirstDestroy, 3);
}

TEST(Collector, AFailureAtTheEndOfADomainStillFreesTheRest) {
    NodeLog log;
    CSpace* const cs = CreateCSpace();
    {
        CSpaceLock lock(cs, Exclusive);
        for (int i = 0; i < 3; ++i) NewNode(cs, log, i);
    }
    log.onGarbageCollect = [](int id) {
        if (id == 1) throw std::runtime_error("hook");
    };
    SetThreadCSpace(cs);
    EXPECT_THROW(Destroy(cs), std::runtime_error);
    EXPECT_EQ(log.alive, 0);
    EXPECT_EQ(GetThreadCSpace(), nullptr);
    EXPECT_FALSE(HaveLock(cs));
}

} // namespace
} // namespace quna

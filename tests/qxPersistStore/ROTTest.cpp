#include "qxPersistStore/src/ROT.h"

#include "qxPersistStore/src/PSpace.h"
#include "tests/support/TestStore.h"

#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

class ROTOfTest : public ::testing::Test {
protected:
    ROTOfTest() : m_ps(m_store.OpenSpace("s")) {}
    ROT& Table() { return m_ps->rot_; }

    // A clean object on disk that nothing keeps in memory.
    OID StoredLeaf(int32 number) {
        OID oid;
        {
            const SpaceScope scope(m_ps);
            TestLeaf* const leaf = NewObject<TestLeaf>(number);
            m_ps->MakeObjectPersist(leaf, false);
            oid = GetOid(leaf);
        }
        m_ps->WriteDirtyObjectsToLss(false);
        SynchronousGc(m_ps->GetCSpace());
        return oid;
    }

    TestStore m_store;
    PSpace* m_ps;
};

TEST_F(ROTOfTest, FindingNeverLoads) {
    const OID oid = StoredLeaf(1);
    const SpaceScope scope(m_ps, SharedRead);
    EXPECT_FALSE(Table().FindResidentObject(oid));
    EXPECT_EQ(0, Table().NumEntries());
    const ptr<IPersistable> po = Table().FindOrLoadResidentObject(oid);
    ASSERT_TRUE(po);
    EXPECT_EQ(1, Table().NumEntries());
    EXPECT_EQ(po, Table().FindResidentObject(oid));
    EXPECT_EQ(po, Table().FindOrLoadResidentObject(oid));
    EXPECT_TRUE(Table().Holds(oid, po));
}

TEST_F(ROTOfTest, AnObjectThatTheStoreDoesNotHoldLeavesNoEntry) {
    const SpaceScope scope(m_ps);
    const OID oid = m_ps->AllocateOid(1, false);
    EXPECT_FALSE(Table().FindOrLoadResidentObject(oid));
    EXPECT_EQ(0, Table().NumEntries());
    PutElement(*m_store->GetLss(), oid,
               Bytes{static_cast<octet_t>(m_store->GetCid(GetReflectedClass<TestLeaf>())), 1, 3, 0, 0, 0, 0});
    EXPECT_TRUE(Table().FindOrLoadResidentObject(oid)); // the next call looks again
}

TEST_F(ROTOfTest, ASecondObjectUnderOneIdentifierIsRefused) {
    const SpaceScope scope(m_ps);
    const OID oid = m_ps->AllocateOid(1, false);
    TestLeaf* const first = NewObject<TestLeaf>(1);
    TestLeaf* const second = NewObject<TestLeaf>(2);
    EXPECT_TRUE(Table().AddResidentObject(oid, first));
    EXPECT_FALSE(Table().AddResidentObject(oid, second));
    EXPECT_EQ(ptr<IPersistable>(first), Table().FindResidentObject(oid));
    EXPECT_FALSE(Table().Holds(oid, second));
    Table().RemoveResidentObject(oid);
    EXPECT_FALSE(Table().FindResidentObject(oid));
}

TEST_F(ROTOfTest, ChecksArgumentsBeforeTheLock) {
    TestLeaf leaf;
    const OID oid(5, 1);
    const auto expect = [](const char* text, auto action) { ExpectAssertion(text, "src/ROT", action); };
    expect("oid", [&] { Table().AddResidentObject(OID(), &leaf); });
    expect("po.m_self", [&] { Table().AddResidentObject(oid, null); });
    const FunctionPointer* const noTable = nullptr;
    expect("po.m_table", [&] { Table().AddResidentObject(oid, ptr<IPersistable>(&leaf, noTable)); });
    expect("HasLock()", [&] { Table().AddResidentObject(oid, &leaf); });
    expect("HasLock()", [&] { Table().FindResidentObject(oid); });
    expect("HasLock()", [&] { Table().FindOrLoadResidentObject(oid); });
    expect("HasLock()", [&] { Table().RemoveResidentObject(oid); });
    expect("HasLock()", [&] { Table().TransferResidentObjects(Table()); });
    {
        const SpaceScope scope(m_ps, SharedRead);
        expect("HasLock()", [&] { Table().AddResidentObject(oid, &leaf); });
        expect("HasLock()", [&] { Table().RemoveResidentObject(oid); });
        EXPECT_FALSE(Table().FindResidentObject(oid)); // any lock is enough
    }
    const SpaceScope scope(m_ps);
    expect("oid", [&] { Table().RemoveResidentObject(OID()); });
    expect("i != map_.end()", [&] { Table().RemoveResidentObject(oid); });
    expect("0", [&] { Table().MakeMemoryResident(oid); });
}

TEST_F(ROTOfTest, TransferMovesEveryEntryAndRefusesADouble) {
    PSpace* const src = m_store.OpenSpace("src");
    const SpaceScope scope(m_ps);
    ExpectAssertion("src.HasLock()", "src/ROT", [&] { Table().TransferResidentObjects(src->rot_); });
    const SpaceScope srcScope(src);
    TestLeaf* const a = NewObject<TestLeaf>(1);
    TestLeaf* const b = NewObject<TestLeaf>(2);
    src->rot_.AddResidentObject(OID(1, 9), a);
    src->rot_.AddResidentObject(OID(2, 9), b);
    Table().TransferResidentObjects(src->rot_);
    EXPECT_EQ(0, src->rot_.NumEntries());
    EXPECT_EQ(ptr<IPersistable>(a), Table().FindResidentObject(OID(1, 9)));
    EXPECT_EQ(ptr<IPersistable>(b), Table().FindResidentObject(OID(2, 9)));
    src->rot_.AddResidentObject(OID(2, 9), a);
    ExpectAssertion("map_.find(i->first) == map_.end()", "src/ROT",
                    [&] { Table().TransferResidentObjects(src->rot_); });
    src->rot_.RemoveResidentObject(OID(2, 9));
    Table().RemoveResidentObject(OID(1, 9));
    Table().RemoveResidentObject(OID(2, 9));
}

TEST_F(ROTOfTest, ALoadThatThrowsLeavesTheTableAsItWasAndTheNextSucceeds) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestThrower* const thrower = NewObject<TestThrower>();
        m_ps->MakeObjectPersist(thrower, false);
        oid = GetOid(thrower);
    }
    m_ps->WriteDirtyObjectsToLss(false);
    SynchronousGc(m_ps->GetCSpace());
    for (const ECSpaceLockMode mode : {Exclusive, SharedRead}) {
        {
            const SpaceScope scope(m_ps, mode);
            TestThrower::s_throwInDeserialise = true;
            EXPECT_THROW(Table().FindOrLoadResidentObject(oid), std::runtime_error);
            TestThrower::s_throwInDeserialise = false;
            EXPECT_EQ(0, Table().NumEntries());
            EXPECT_TRUE(Table().FindOrLoadResidentObject(oid));
        }
        SynchronousGc(m_ps->GetCSpace()); // the failed instance goes quietly too
        EXPECT_EQ(0, TestThrower::s_numLive);
    }
}

TEST_F(ROTOfTest, NeighboursShareNoStripe) {
    std::set<Mutex*> mutexes;
    for (SeidLow low = 0; low < 16; ++low) mutexes.insert(&Table().GetMutexForOid(OID(low, 1)));
    EXPECT_EQ(16u, mutexes.size());
    EXPECT_EQ(&Table().GetMutexForOid(OID(3, 1)), &Table().GetMutexForOid(OID(19, 2)));
}

TEST_F(ROTOfTest, ClosingWithoutAsynchronousLoadsReturnsAtOnce) { Table().Close(); }

TEST_F(ROTOfTest, TheLockIsTheSpaces) {
    EXPECT_FALSE(Table().HasLock());
    const SpaceScope scope(m_ps);
    EXPECT_TRUE(Table().HasLock());
}

using ROTThreads = ROTOfTest;

TEST_F(ROTThreads, ReadersThatBindTheSameIdentifiersGetTheSameObjects) {
    constexpr int NUM_THREADS = 4;
    constexpr int NUM_OBJECTS = 200;
    std::vector<OID> oids;
    {
        const SpaceScope scope(m_ps);
        for (int i = 0; i < NUM_OBJECTS; ++i) {
            TestLeaf* const leaf = NewObject<TestLeaf>(i);
            m_ps->MakeObjectPersist(leaf, false);
            oids.push_back(GetOid(leaf));
        }
    }
    m_ps->WriteDirtyObjectsToLss(false);
    SynchronousGc(m_ps->GetCSpace());
    ASSERT_EQ(0, TestLeaf::s_numLive);
    const SpaceScope scope(m_ps, SharedRead); // nothing is collected meanwhile
    std::vector<std::vector<void*>> found(NUM_THREADS);
    std::vector<std::thread> threads;
    for (std::vector<void*>& mine : found)
        threads.emplace_back([&] {
            const SpaceScope inner(m_ps, SharedRead);
            for (const OID oid : oids) mine.push_back(m_ps->BindObject(oid).m_self);
        });
    for (std::thread& thread : threads) thread.join();
    for (const std::vector<void*>& each : found) EXPECT_EQ(found[0], each);
    EXPECT_EQ(NUM_OBJECTS, TestLeaf::s_numLive);
    EXPECT_EQ(NUM_OBJECTS, Table().NumEntries());
}

} // namespace
} // namespace quna

#include "qxPersistStore/src/DOS.h"

#include "qxPersistStore/src/PSpace.h"
#include "tests/support/TestStore.h"

#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

class DOSOfTest : public ::testing::Test {
protected:
    DOSOfTest() : m_ps(m_store.OpenSpace("s")) {}
    PSpaceDos& Set() { return m_ps->m_dos; }
    DirtyPSpaceList& DirtyList() { return m_store->m_dosWriter.m_dirtyPSpaces; }

    // n persistent, dirty objects, in the order in which they became dirty.
    std::vector<TestLeaf*> NewLeaves(int n) {
        std::vector<TestLeaf*> leaves;
        for (int i = 0; i < n; ++i) {
            leaves.push_back(NewObject<TestLeaf>(i));
            m_ps->MakeObjectPersist(leaves.back(), false);
        }
        return leaves;
    }
    // Writes the set alone, in a transaction of the test's.
    std::vector<std::string> WriteSet(PSpace* ps) {
        RecordingLss& lss = m_store.Record();
        {
            const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
            ps->m_dos.WriteChangesToLSS(*txn.Get());
        }
        std::vector<std::string> log = lss.Log();
        return std::vector<std::string>(log.begin() + 1, log.end() - 1);
    }
    static std::string Write(OID oid) { return "write " + TextOfSeid(oid); }
    static std::string Delete(OID oid) { return "delete " + TextOfSeid(oid); }

    TestStore m_store;
    PSpace* m_ps;
};

TEST_F(DOSOfTest, WritesObjectsInTheOrderInWhichTheyBecameDirty) {
    const SpaceScope scope(m_ps);
    const std::vector<TestLeaf*> leaves = NewLeaves(3);
    EXPECT_TRUE(Set().HaveChangesToWriteToLss());
    EXPECT_EQ(m_ps, DirtyList().Front());
    EXPECT_EQ((std::vector<std::string>{Write(GetOid(leaves[0])), Write(GetOid(leaves[1])), Write(GetOid(leaves[2]))}),
              WriteSet(m_ps));
    EXPECT_FALSE(Set().HaveChangesToWriteToLss());
    EXPECT_TRUE(DirtyList().empty());
    for (const TestLeaf* leaf : leaves) EXPECT_FALSE(leaf->IsDirty());
    // An object marked again after its write goes to the back.
    leaves[2]->MarkAsDirtyWithoutTrace();
    leaves[0]->MarkAsDirtyWithoutTrace();
    leaves[2]->MarkAsDirtyWithoutTrace();
    EXPECT_EQ(2, Set().NumDirtyObjects());
    EXPECT_EQ((std::vector<std::string>{Write(GetOid(leaves[2])), Write(GetOid(leaves[0]))}), WriteSet(m_ps));
}

TEST_F(DOSOfTest, WritesMoreObjectsThanAPageHolds) {
    const SpaceScope scope(m_ps);
    const std::vector<TestLeaf*> leaves = NewLeaves(1000);
    const std::vector<std::string> log = WriteSet(m_ps);
    ASSERT_EQ(1000u, log.size());
    for (std::size_t i = 0; i < 1000; ++i) EXPECT_EQ(Write(GetOid(leaves[i])), log[i]);
    EXPECT_EQ(0, Set().NumDirtyObjects());
}

TEST_F(DOSOfTest, AnObjectDeletedAfterItBecameDirtyIsDeletedAndNotWritten) {
    const SpaceScope scope(m_ps);
    const std::vector<TestLeaf*> leaves = NewLeaves(2);
    m_ps->SyncPermanentlyDeleteObject(leaves[0]);
    EXPECT_EQ((std::vector<std::string>{Delete(GetOid(leaves[0])), Write(GetOid(leaves[1]))}), WriteSet(m_ps));
    EXPECT_FALSE(leaves[0]->IsDirty());
    EXPECT_FALSE(m_store.Has(GetOid(leaves[0])));
}

TEST_F(DOSOfTest, MarkedWithoutObjectsItWritesNothingAndBecomesClean) {
    const SpaceScope scope(m_ps);
    Set().MarkAsDirty();
    Set().MarkAsDirty(); // already: the list is not touched again
    EXPECT_TRUE(Set().HaveChangesToWriteToLss());
    EXPECT_EQ(m_ps, DirtyList().Front());
    EXPECT_EQ(m_ps, DirtyList().Back());
    EXPECT_TRUE(WriteSet(m_ps).empty());
    EXPECT_FALSE(Set().HaveChangesToWriteToLss());
    EXPECT_TRUE(DirtyList().empty());
}

TEST_F(DOSOfTest, ChecksItsArgumentsAndLocks) {
    const auto expect = [](const char* text, auto action) { ExpectAssertion(text, "src/DOS", action); };
    TestLeaf leaf;
    expect("po", [&] { Set().AddDirtyObject(null); });
    expect("m_pspace.HaveWriteAccess()", [&] { Set().AddDirtyObject(&leaf); });
    expect("m_pspace.HaveWriteAccess()", [&] { Set().MarkAsDirty(); });
    RecordingLss& lss = m_store.Record();
    struct NoVisitor : IObjectVisitor {
        void VisitObject(ptr<const IObject>) override {}
        void VisitEvictablePtr(AnyInterface*) override {}
    } visitor;
    expect("m_pspace.HaveReadOrWriteAccess()", [&] { Set().VisitObjects(visitor); });
    {
        const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
        expect("m_pspace.HaveReadOrWriteAccess()", [&] { Set().WriteChangesToLSS(*txn.Get()); });
    }
    const SpaceScope scope(m_ps);
    const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
    expect("IsPersistableDirty(po)", [&] { Set().AddDirtyObject(&leaf); });
    expect("m_dirty", [&] { Set().WriteChangesToLSS(*txn.Get()); });
}

TEST_F(DOSOfTest, RefusesAnObjectWithoutIdentifierOrDirtyBit) {
    const SpaceScope scope(m_ps);
    RecordingLss& lss = m_store.Record();
    TestLeaf* const transient = NewObject<TestLeaf>(1);
    SetIObjectFlag(ptr<IPersistable>(transient), PERSISTABLE_DIRTY, true);
    Set().AddDirtyObject(transient);
    {
        const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
        ExpectAssertion("oid", "src/DOS", [&] { Set().WriteChangesToLSS(*txn.Get()); });
    }
    SetIObjectFlag(ptr<IPersistable>(transient), PERSISTABLE_DIRTY, false);
    TestLeaf* const clean = NewLeaves(1)[0];
    SetIObjectFlag(ptr<IPersistable>(clean), PERSISTABLE_DIRTY, false);
    {
        const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
        ExpectAssertion("IsPersistableDirty(po)", "src/DOS", [&] { Set().WriteChangesToLSS(*txn.Get()); });
    }
    EXPECT_TRUE(Set().HaveChangesToWriteToLss());
    EXPECT_TRUE(WriteSet(m_ps).empty());
}

TEST_F(DOSOfTest, NothingMayBecomeDirtyWhileItIsWritten) {
    const SpaceScope scope(m_ps);
    TestLeaf* const clean = NewLeaves(1)[0];
    WriteSet(m_ps);
    NewLeaves(1);
    RecordingLss& lss = m_store.Record();
    lss.m_onWrite = [&](Seid) { clean->MarkAsDirtyWithoutTrace(); };
    {
        const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
        ExpectAssertion("m_dirtyObjectSet.empty()", "src/DOS", [&] { Set().WriteChangesToLSS(*txn.Get()); });
    }
    lss.m_onWrite = nullptr;
    EXPECT_EQ((std::vector<std::string>{Write(GetOid(clean))}), WriteSet(m_ps));
}

TEST_F(DOSOfTest, VisitsEachObjectFromFrontToBack) {
    const SpaceScope scope(m_ps, Exclusive);
    const std::vector<TestLeaf*> leaves = NewLeaves(5);
    struct Collector : IObjectVisitor {
        void VisitObject(ptr<const IObject> object) override { m_seen.push_back(object.m_self); }
        void VisitEvictablePtr(AnyInterface*) override { ADD_FAILURE(); }
        std::vector<const void*> m_seen;
    } collector;
    Set().VisitObjects(collector);
    EXPECT_EQ((std::vector<const void*>(leaves.begin(), leaves.end())), collector.m_seen);
}

TEST_F(DOSOfTest, TransferFromAnEmptySetMakesNothingDirty) {
    PSpace* const src = m_store.OpenSpace("src");
    const SpaceScope scope(m_ps);
    const SpaceScope srcScope(src);
    Set().Transfer(src->m_dos);
    EXPECT_FALSE(Set().HaveChangesToWriteToLss());
    EXPECT_FALSE(src->m_dos.HaveChangesToWriteToLss());
    src->m_dos.MarkAsDirty();
    Set().Transfer(src->m_dos);
    EXPECT_FALSE(Set().HaveChangesToWriteToLss());
    EXPECT_TRUE(WriteSet(src).empty());
}

TEST_F(DOSOfTest, TransferAppendsAndLeavesTheSourceDirtyButEmpty) {
    PSpace* const src = m_store.OpenSpace("src");
    std::vector<std::string> expected;
    const SpaceScope scope(m_ps);
    const std::vector<TestLeaf*> own = NewLeaves(2);
    TestLeaf* moved = nullptr;
    {
        const SpaceScope srcScope(src);
        moved = NewObject<TestLeaf>(9);
        src->MakeObjectPersist(moved, false);
        Set().Transfer(src->m_dos);
        EXPECT_EQ(0, src->m_dos.NumDirtyObjects());
        EXPECT_TRUE(src->m_dos.HaveChangesToWriteToLss());
        EXPECT_EQ(3, Set().NumDirtyObjects());
        EXPECT_TRUE(WriteSet(src).empty());
        EXPECT_FALSE(src->m_dos.HaveChangesToWriteToLss());
    }
    EXPECT_EQ((std::vector<std::string>{Write(GetOid(own[0])), Write(GetOid(own[1])), Write(GetOid(moved))}),
              WriteSet(m_ps));
}

TEST_F(DOSOfTest, ASerialiseThatThrowsKeepsItsOldRecordAndTheObjectsBehindStayDirty) {
    CollectedTrace trace;
    OID throwerOid;
    TestLeaf* before = nullptr;
    TestLeaf* behind = nullptr;
    TestThrower* thrower = nullptr;
    {
        const SpaceScope scope(m_ps);
        thrower = NewObject<TestThrower>();
        AddGcRoot(ptr<IPersistable>(thrower));
        thrower->m_value = 1;
        m_ps->MakeObjectPersist(thrower, false);
        throwerOid = GetOid(thrower);
    }
    m_ps->WriteDirtyObjectsToLss(false);
    const Bytes old = m_store.Element(throwerOid);
    {
        const SpaceScope scope(m_ps);
        before = NewLeaves(1)[0];
        AddGcRoot(ptr<IPersistable>(before));
        thrower->m_value = 2;
        thrower->MarkAsDirtyWithoutTrace();
        behind = NewLeaves(1)[0];
        AddGcRoot(ptr<IPersistable>(behind));
    }
    TestThrower::s_throwInSerialise = true;
    EXPECT_THROW(m_ps->WriteDirtyObjectsToLss(false), std::runtime_error);
    TestThrower::s_throwInSerialise = false;
    EXPECT_TRUE(m_ps->HaveChangesToWriteToLss());
    EXPECT_FALSE(HaveLock(m_ps->GetCSpace()));
    EXPECT_FALSE(before->IsDirty());
    EXPECT_TRUE(thrower->IsDirty());
    EXPECT_TRUE(behind->IsDirty());
    EXPECT_EQ(old, m_store.Element(throwerOid));
    EXPECT_TRUE(m_store.Has(GetOid(before))); // what was completed is committed
    EXPECT_FALSE(m_store.Has(GetOid(behind)));
    bool traced = false;
    for (const std::string& text : trace.Texts())
        traced = traced || (text.find("test::Thrower") != std::string::npos &&
                            text.find(TextOfSeid(throwerOid)) != std::string::npos);
    EXPECT_TRUE(traced) << "the object's class and OID are not in the trace";
    // Out of every set, they are written no more; the bits are put right so that the objects can end.
    SetIObjectFlag(ptr<IPersistable>(thrower), PERSISTABLE_DIRTY, false);
    SetIObjectFlag(ptr<IPersistable>(behind), PERSISTABLE_DIRTY, false);
}

} // namespace
} // namespace quna

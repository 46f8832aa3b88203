#include "qxPersistStore/src/PSpaceRoots.h"

#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PSpace.h"
#include "tests/support/TestStore.h"

#include <functional>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

class PSpaceRootsOfTest : public ::testing::Test {
protected:
    PSpaceRootsOfTest() : m_ps(m_store.OpenSpace("s")) {}
    PSpaceRoots& Roots() { return m_ps->m_roots; }
    Bytes Record() {
        return Written([&](Archive& ar) { Roots().Serialise(ar); });
    }
    void ReopenSpace() {
        m_store.Reopen();
        m_ps = m_store.OpenSpace("s", OM_OPEN_EXISTING);
    }

    TestStore m_store;
    PSpace* m_ps;
};

TEST_F(PSpaceRootsOfTest, ANewSpaceWithoutRootsWritesItsQueuesIdentifier) {
    EXPECT_TRUE(Roots().m_dirty);
    const OID oid = Roots().m_oid;
    const OID dqOid = Roots().m_dqOid;
    m_store.CloseSpace(m_ps);
    EXPECT_EQ((Bytes{1, 0} + BytesOfOid(dqOid)), m_store.Element(oid));
}

TEST_F(PSpaceRootsOfTest, TheRecordListsRootsInTheOrderOfTheirNames) {
    const SpaceScope scope(m_ps);
    TestLeaf* const a = NewObject<TestLeaf>(1);
    TestLeaf* const b = NewObject<TestLeaf>(2);
    TestLeaf* const upper = NewObject<TestLeaf>(3);
    m_ps->AddRoot("b", b);
    m_ps->AddRoot("a", a);
    m_ps->AddRoot("Z", upper);
    EXPECT_EQ((Bytes{1, 3, 1, 'Z'} + BytesOfOid(GetOid(upper)) + Bytes{1, 'a'} + BytesOfOid(GetOid(a)) + Bytes{1, 'b'} +
               BytesOfOid(GetOid(b)) + BytesOfOid(Roots().m_dqOid)),
              Record());
    EXPECT_TRUE(Roots().m_dirty); // serialising does not touch the flag
}

TEST_F(PSpaceRootsOfTest, ComesBackAsItWas) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(11);
        EXPECT_TRUE(m_ps->AddRoot("r", leaf));
        oid = GetOid(leaf);
    }
    const OID dqOid = Roots().m_dqOid;
    ReopenSpace();
    EXPECT_FALSE(Roots().m_dirty);
    EXPECT_EQ(dqOid, Roots().m_dqOid);
    const SpaceScope scope(m_ps, SharedRead);
    EXPECT_EQ(oid, GetOid(m_ps->GetRoot("r")));
    EXPECT_EQ(11, static_cast<const TestLeaf*>(m_ps->GetRoot("r").m_self)->m_number);
}

TEST_F(PSpaceRootsOfTest, AnUnknownNameGivesNull) {
    const SpaceScope scope(m_ps, SharedRead);
    EXPECT_FALSE(m_ps->GetRoot("unknown"));
}

TEST_F(PSpaceRootsOfTest, ANameIsNeitherNullNorEmpty) {
    const SpaceScope scope(m_ps);
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    for (const auto& action : std::vector<std::function<void(ConstStringZ)>>{
             [&](ConstStringZ name) { m_ps->GetRoot(name); }, [&](ConstStringZ name) { m_ps->AddRoot(name, leaf); },
             [&](ConstStringZ name) { m_ps->RemoveRoot(name); }}) {
        ExpectAssertion("name", "src/PSpaceRoots", [&] { action(nullptr); });
        ExpectAssertion("strlen(name) > 0", "src/PSpaceRoots", [&] { action(""); });
    }
}

TEST_F(PSpaceRootsOfTest, ARootIsNewTransientAndASubTree) {
    const SpaceScope scope(m_ps);
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    ExpectAssertion("pspace", "src/PSpaceRoots", [&] { Roots().AddRoot(nullptr, "r", leaf); });
    ExpectAssertion("root", "src/PSpaceRoots", [&] { Roots().AddRoot(m_ps, "r", null); });
    ExpectAssertion("root->RepresentsSubTree()", "src/PSpaceRoots",
                    [&] { m_ps->AddRoot("r", NewObject<TestNoSubTree>()); });
    m_ps->MakeObjectPersist(leaf, false);
    ExpectAssertion("!GetOid(root)", "src/PSpaceRoots", [&] { m_ps->AddRoot("r", leaf); });
    TestLeaf unregistered;
    ExpectAssertion("GetAssociatedCSpace(root) == m_cspace", "src/PSpace", [&] { m_ps->AddRoot("r", &unregistered); });
    EXPECT_FALSE(m_ps->GetRoot("r"));
}

TEST_F(PSpaceRootsOfTest, ARootIsNeverReplaced) {
    const SpaceScope scope(m_ps);
    TestLeaf* const first = NewObject<TestLeaf>(1);
    TestLeaf* const second = NewObject<TestLeaf>(2);
    EXPECT_TRUE(m_ps->AddRoot("r", first));
    EXPECT_FALSE(m_ps->AddRoot("r", second));
    EXPECT_EQ(ptr<IPersistable>(first), m_ps->GetRoot("r"));
    EXPECT_FALSE(GetOid(second));
}

TEST_F(PSpaceRootsOfTest, AddingARootMakesAllThatItReachesPersistent) {
    const SpaceScope scope(m_ps);
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    TestNode* const node = NewObject<TestNode>("n", std::initializer_list<ptr<IPersistable>>{leaf});
    EXPECT_TRUE(m_ps->AddRoot("r", node));
    EXPECT_TRUE(GetOid(node));
    EXPECT_TRUE(GetOid(leaf));
    EXPECT_EQ(0, leaf->m_numOnCreate);
}

TEST_F(PSpaceRootsOfTest, ARootThatCannotBecomePersistentLeavesNoEntry) {
    RecordingLss& lss = m_store.Record();
    const SpaceScope scope(m_ps);
    lss.m_refuseAffiliates = true;
    ExpectAssertion("m_lss->AllocateAffiliateSeid(seid)", [&] { m_ps->AddRoot("r", NewObject<TestLeaf>(1)); });
    lss.m_refuseAffiliates = false;
    EXPECT_FALSE(m_ps->GetRoot("r"));
    EXPECT_TRUE(Roots().m_roots.empty());
}

TEST_F(PSpaceRootsOfTest, RemovingAnUnknownNameChangesNothing) {
    {
        const SpaceScope scope(m_ps);
        m_ps->AddRoot("r", NewObject<TestLeaf>(1));
    }
    ReopenSpace();
    const SpaceScope scope(m_ps);
    EXPECT_FALSE(m_ps->RemoveRoot("other"));
    EXPECT_FALSE(Roots().m_dirty);
    EXPECT_FALSE(m_ps->HaveChangesToWriteToLss());
}

TEST_F(PSpaceRootsOfTest, RemovingARootThatIsNotResidentLoadsItAndForgetsItsName) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(1);
        m_ps->AddRoot("r", leaf);
        oid = GetOid(leaf);
    }
    ReopenSpace();
    const SpaceScope scope(m_ps);
    EXPECT_FALSE(m_ps->BindObjectIfMemoryResident(oid));
    EXPECT_TRUE(m_ps->RemoveRoot("r"));
    EXPECT_TRUE(m_ps->BindObjectIfMemoryResident(oid));
    EXPECT_TRUE(Roots().m_dirty);
    EXPECT_FALSE(m_ps->GetRoot("r"));
    EXPECT_TRUE(m_ps->BindObject(oid)); // the object itself stays
}

TEST_F(PSpaceRootsOfTest, ARootWhoseObjectIsGoneIsADanglingReference) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(1);
        m_ps->AddRoot("r", leaf);
        oid = GetOid(leaf);
    }
    m_store.Close();
    DeleteElement(*BareLss(m_store.Path()), oid);
    m_store.Open();
    m_ps = m_store.OpenSpace("s");
    const SpaceScope scope(m_ps);
    const std::string text = "Dereferenced dangling OID = " + TextOfSeid(oid);
    ExpectException<DerefDanglingOidException>(text, [&] { m_ps->GetRoot("r"); });
    ExpectException<DerefDanglingOidException>(text, [&] { m_ps->RemoveRoot("r"); });
}

TEST_F(PSpaceRootsOfTest, ClearingAnEmptyTableLeavesItsFlag) {
    Roots().m_dirty = false;
    Roots().Clear();
    EXPECT_FALSE(Roots().m_dirty);
    const SpaceScope scope(m_ps);
    m_ps->AddRoot("r", NewObject<TestLeaf>(1));
    Roots().m_dirty = false;
    const OID dqOid = Roots().m_dqOid;
    Roots().Clear();
    EXPECT_TRUE(Roots().m_dirty);
    EXPECT_TRUE(Roots().m_roots.empty());
    EXPECT_EQ(dqOid, Roots().m_dqOid);
}

TEST_F(PSpaceRootsOfTest, IsWrittenOnlyWhileItIsDirtyAndStaysDirtyWhenThatFails) {
    RecordingLss& lss = m_store.Record();
    const std::string write = "write " + TextOfSeid(Roots().m_oid);
    const auto writeInTransaction = [&] {
        const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
        Roots().WriteToLssIfDirty(*txn.Get());
    };
    lss.m_onWrite = [](Seid) { throw FileException("full"); };
    EXPECT_THROW(writeInTransaction(), FileException);
    EXPECT_TRUE(Roots().m_dirty);
    lss.m_onWrite = nullptr;
    writeInTransaction();
    EXPECT_FALSE(Roots().m_dirty);
    writeInTransaction();
    EXPECT_EQ(1, lss.Count(write));
}

TEST_F(PSpaceRootsOfTest, VisitsEachRoot) {
    const SpaceScope scope(m_ps);
    m_ps->AddRoot("a", NewObject<TestLeaf>(1));
    m_ps->AddRoot("b", NewObject<TestLeaf>(2));
    struct Counter : IPrefVisitor {
        void VisitPref(const prefbase&) override { ++m_numPrefs; }
        void VisitParentPref(const prefbase&) override { ADD_FAILURE(); }
        int m_numPrefs = 0;
    } counter;
    Roots().VisitPrefs(counter);
    EXPECT_EQ(2, counter.m_numPrefs);
}

TEST(PSpaceRoots, ChecksWhatItIsBuiltAndReadWith) {
    ExpectAssertion("oid", "src/PSpaceRoots", [] { PSpaceRoots(OID(), true); });
    PSpaceRoots roots(OID(5, 1), false);
    EXPECT_FALSE(roots.m_dirty);
    EXPECT_FALSE(roots.m_dqOid);
    ExpectAssertion("lss", "src/PSpaceRoots", [&] { roots.ReadFromLss(nullptr); });
    Archive loading(static_cast<IOutputStream*>(nullptr));
    ExpectAssertion("ar.IsStoring()", "src/PSpaceRoots", [&] { roots.Serialise(loading); });
}

TEST(PSpaceRoots, ARecordThatIsMissingOrOfAnotherLengthIsRefused) {
    TestStore store;
    ILogStructuredStore& lss = *store->GetLss();
    const OID oid = lss.AllocateSeid(1);
    PSpaceRoots roots(oid, false);
    ExpectException<DerefDanglingOidException>("Dereferenced dangling OID = " + TextOfSeid(oid),
                                               [&] { roots.ReadFromLss(&lss); });
    const Bytes record = Bytes{1, 1, 1, 'r'} + BytesOfOid(OID(9, 1)) + BytesOfOid(OID(10, 1));
    PutElement(lss, oid, record + Bytes{0});
    ExpectAssertion("ar == rob.buffer + rob.size", "src/PSpaceRoots", [&] { roots.ReadFromLss(&lss); });
    PutElement(lss, oid, record);
    roots.ReadFromLss(&lss);
    EXPECT_EQ(OID(10, 1), roots.m_dqOid);
    EXPECT_EQ(OID(9, 1), roots.m_roots.begin()->second.GetOid());
    EXPECT_EQ(record, Written([&](Archive& ar) { roots.Serialise(ar); }));
}

} // namespace
} // namespace quna

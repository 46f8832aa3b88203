#include "qxPersistStore/src/PSpace.h"

#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/ReachablePrefVisitors.h"
#include "tests/support/TestStore.h"

#include <thread>

#include <gtest/gtest.h>

namespace quna {
namespace {

class PSpaceOfTest : public ::testing::Test {
protected:
    PSpaceOfTest() : m_ps(m_store.OpenSpace("s")) {}

    bool IsPersistentAndDirty(ptr<const IPersistable> po) { return GetOid(po) && IsPersistableDirty(po); }
    // A new persistent object, named as a root.
    template <class X, class... Args>
    X* NewRoot(ConstStringZ name, Args&&... args) {
        X* const x = NewObject<X>(std::forward<Args>(args)...);
        EXPECT_TRUE(m_ps->AddRoot(name, x));
        return x;
    }

    TestStore m_store;
    PSpace* m_ps;
};

TEST_F(PSpaceOfTest, StartsEmptyUnlockedAndAlone) {
    EXPECT_TRUE(m_ps->CreatedNew());
    EXPECT_STREQ("s", m_ps->GetName());
    EXPECT_EQ(m_store.Get(), m_ps->GetPersistStore());
    EXPECT_NE(nullptr, m_ps->GetCSpace());
    EXPECT_EQ(m_ps, GetPSpaceOfCSpace(m_ps->GetCSpace()));
    EXPECT_FALSE(m_ps->HaveReadOrWriteAccess());
    EXPECT_FALSE(m_ps->HaveWriteAccess());
    EXPECT_FALSE(m_ps->HaveChangesToWriteToLss());
    EXPECT_EQ(m_ps, m_ps->m_nextInTxnGrp);
    EXPECT_FALSE(m_ps->m_inGrp);
    EXPECT_FALSE(m_ps->m_ensureCommitted);
    EXPECT_FALSE(m_ps->m_useIncrementalOidAllocations);
    EXPECT_EQ(nullptr, m_ps->txn_);
    EXPECT_EQ(1u, m_ps->m_oidHighForOidAllocations);
    EXPECT_EQ(m_ps->m_roots.m_oid.low_, m_ps->m_affiliateOidLow);
    EXPECT_TRUE(m_ps->m_roots.m_dqOid);
    EXPECT_NE(m_ps->m_roots.m_oid, m_ps->m_roots.m_dqOid);
    EXPECT_EQ(nullptr, GetThreadPSpace());
    EXPECT_EQ(nullptr, GetThreadCSpace());
}

TEST_F(PSpaceOfTest, ItsTwoIdentifiersComeFromAHintOfZeroAndFromItsOwn) {
    RecordingLss& lss = m_store.Record();
    PSpace* const ps = m_store.OpenSpace("t");
    const std::vector<Seid> hints = lss.AffiliateHints();
    ASSERT_EQ(2u, hints.size());
    EXPECT_EQ(Seid(0, 1), hints[0]);
    EXPECT_EQ(Seid(ps->m_roots.m_oid.low_, 1), hints[1]);
    EXPECT_EQ(ps->m_roots.m_oid.low_, ps->m_affiliateOidLow); // the hint stays
    EXPECT_TRUE(lss.Log().empty());                           // nothing is written yet
}

TEST_F(PSpaceOfTest, AGivenDomainIsPairedAndEndedByClose) {
    CSpace* const cs = CreateCSpace();
    PSpace* const ps = m_store.OpenSpace("t", OM_OPEN_ALWAYS, cs);
    EXPECT_EQ(cs, ps->GetCSpace());
    EXPECT_EQ(ps, GetPtrSlot(cs, PTR_SLOT_PSpace));
    EXPECT_FALSE(HaveLock(cs));
    ExpectAssertion("!GetPtrSlot(m_cspace,PTR_SLOT_PSpace)", "src/PSpace",
                    [&] { m_store->OpenPSpace("u", OM_OPEN_ALWAYS, cs); });
    EXPECT_EQ(ps, GetPtrSlot(cs, PTR_SLOT_PSpace));
    m_store.CloseSpace(ps);
    EXPECT_EQ(2, m_store->GetNumPSpaces());
}

TEST_F(PSpaceOfTest, AccessFollowsTheThreadsLock) {
    {
        const SpaceScope scope(m_ps, SharedRead);
        EXPECT_TRUE(m_ps->HaveReadOrWriteAccess());
        EXPECT_FALSE(m_ps->HaveWriteAccess());
        std::thread([&] { EXPECT_FALSE(m_ps->HaveReadOrWriteAccess()); }).join();
    }
    const SpaceScope scope(m_ps, Exclusive);
    EXPECT_TRUE(m_ps->HaveReadOrWriteAccess());
    EXPECT_TRUE(m_ps->HaveWriteAccess());
}

TEST_F(PSpaceOfTest, OperationsWithoutTheirLockAreRefused) {
    const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
    const OID oid(5, 1);
    TestLeaf leaf;
    const auto needAny = [&](auto action) { ExpectAssertion("HaveReadOrWriteAccess()", "src/PSpace", action); };
    needAny([&] { m_ps->GetRoot("r"); });
    needAny([&] { m_ps->BindObject(oid); });
    needAny([&] { m_ps->TryBindObject(oid); });
    needAny([&] { m_ps->BindObjectIfMemoryResident(oid); });
    const auto needWrite = [&](auto action) {
        ExpectAssertion("HaveWriteAccess()", "src/PSpace", action);
        const CSpaceLock lock(m_ps->GetCSpace(), SharedRead);
        ExpectAssertion("HaveWriteAccess()", "src/PSpace", action);
    };
    needWrite([&] { m_ps->AddRoot("r", &leaf); });
    needWrite([&] { m_ps->RemoveRoot("r"); });
    needWrite([&] { (void)m_ps->GetAsyncBindRequestHandler(); });
    needWrite([&] { m_ps->SetAsyncBindRequestHandler(null); });
    needWrite([&] { m_ps->MakeObjectPersist(&leaf, true); });
    needWrite([&] { m_ps->MakeObjectPersist(5, &leaf); });
    needWrite([&] { m_ps->MakeObjectPersistWithGivenOID(&leaf, oid, true); });
    needWrite([&] { m_ps->AddPOToDirtyObjectSet(&leaf); });
    needWrite([&] { m_ps->AsyncPermanentlyDeleteSubTree(&leaf); });
    needWrite([&] { m_ps->AsyncPermanentlyDeleteObject(&leaf); });
    needWrite([&] { m_ps->SyncPermanentlyDeleteObject(&leaf); });
    needWrite([&] { m_ps->SyncPermanentlyDeleteSubTree(&leaf); });
    leaf.GetPersistObjState().m_oid = oid;
    needWrite([&] { m_ps->DeclareReachable(&leaf, &leaf, true); });
    needWrite([&] { m_ps->MarkPersistableAsDirtyWithoutTrace(&leaf); });
    needWrite([&] { m_ps->OnGarbageCollectPersistable(&leaf); });
}

TEST_F(PSpaceOfTest, BindingNeedsAnIdentifier) {
    const SpaceScope scope(m_ps, SharedRead);
    ExpectAssertion("oid", "src/PSpace", [&] { m_ps->BindObject(OID()); });
    ExpectAssertion("oid", "src/PSpace", [&] { m_ps->TryBindObject(OID()); });
    ExpectAssertion("oid", "src/PSpace", [&] { m_ps->BindObjectIfMemoryResident(OID()); });
    ExpectAssertion("oid", "src/PSpace", [&] { m_ps->AsyncBind(OID()); });
    ExpectAssertion("oid", "src/PSpace", [&] { m_ps->AsyncBind2(OID()); });
}

TEST_F(PSpaceOfTest, AnIdentifierThatNobodyWroteBindsToNothing) {
    const SpaceScope scope(m_ps);
    const OID oid = m_ps->AllocateOid(1, true);
    EXPECT_FALSE(m_ps->TryBindObject(oid));
    EXPECT_FALSE(m_ps->BindObjectIfMemoryResident(oid));
    ExpectException<DerefDanglingOidException>("Dereferenced dangling OID = " + TextOfSeid(oid),
                                               [&] { m_ps->BindObject(oid); });
    EXPECT_FALSE(m_ps->TryLoadPOGivenOid(oid));
    ExpectException<DerefDanglingOidException>("Dereferenced dangling OID = " + TextOfSeid(oid),
                                               [&] { m_ps->AlwaysLoadPOGivenOid(oid); });
}

TEST_F(PSpaceOfTest, MakingAnObjectPersistentGivesItAnIdentifierAndMarksItDirty) {
    const SpaceScope scope(m_ps);
    TestNode* const node = NewObject<TestNode>("n");
    EXPECT_FALSE(GetOid(node));
    m_ps->MakeObjectPersist(node, true);
    EXPECT_EQ(1u, GetOid(node).high_);
    EXPECT_TRUE(IsPersistentAndDirty(node));
    EXPECT_TRUE(m_ps->HaveChangesToWriteToLss());
    EXPECT_EQ(1, m_ps->m_dos.NumDirtyObjects());
    EXPECT_EQ(ptr<IPersistable>(node), m_ps->BindObject(GetOid(node)));
    EXPECT_EQ(ptr<IPersistable>(node), m_ps->BindObjectIfMemoryResident(GetOid(node)));
    EXPECT_EQ(0, NewObject<TestLeaf>()->m_numOnCreate);
    ExpectAssertion("!GetOid(po)", "src/PSpace", [&] { m_ps->MakeObjectPersist(node, true); });
    ExpectAssertion("po", "src/PSpace", [&] { m_ps->MakeObjectPersist(null, true); });
}

TEST_F(PSpaceOfTest, WithTraceAllThatTheObjectReachesBecomesPersistent) {
    const SpaceScope scope(m_ps);
    TestLeaf* const deep = NewObject<TestLeaf>(1);
    TestNode* const middle = NewObject<TestNode>("middle", std::initializer_list<ptr<IPersistable>>{deep});
    TestNode* const top = NewObject<TestNode>("top", std::initializer_list<ptr<IPersistable>>{middle});
    middle->m_next = top; // a cycle
    m_ps->MakeObjectPersist(top, true);
    EXPECT_TRUE(IsPersistentAndDirty(top));
    EXPECT_TRUE(IsPersistentAndDirty(middle));
    EXPECT_TRUE(IsPersistentAndDirty(deep));
}

TEST_F(PSpaceOfTest, WithoutTraceOnlyTheObjectItself) {
    const SpaceScope scope(m_ps);
    TestLeaf* const child = NewObject<TestLeaf>(1);
    TestNode* const top = NewObject<TestNode>("top", std::initializer_list<ptr<IPersistable>>{child});
    m_ps->MakeObjectPersist(top, false);
    EXPECT_FALSE(GetOid(child));
    m_ps->MakeReachableObjectsPersist(top);
    EXPECT_TRUE(IsPersistentAndDirty(child));
    ExpectAssertion("po", "src/PSpace", [&] { m_ps->MakeReachableObjectsPersist(null); });
    ExpectAssertion("GetOid(po)", "src/PSpace",
                    [&] { m_ps->MakeReachableObjectsPersist(NewObject<TestNode>("transient")); });
}

TEST_F(PSpaceOfTest, ReachableObjectsGetIdentifiersInPreOrder) {
    const SpaceScope scope(m_ps);
    //   top -> a -> a1, a2 ; b -> b1
    TestLeaf* const a1 = NewObject<TestLeaf>(1);
    TestLeaf* const a2 = NewObject<TestLeaf>(2);
    TestLeaf* const b1 = NewObject<TestLeaf>(3);
    TestNode* const a = NewObject<TestNode>("a", std::initializer_list<ptr<IPersistable>>{a1, a2});
    TestNode* const b = NewObject<TestNode>("b", std::initializer_list<ptr<IPersistable>>{b1, a1});
    TestNode* const top = NewObject<TestNode>("top", std::initializer_list<ptr<IPersistable>>{a, b});
    m_ps->SetOidHighForOidAllocations(1, true); // ascending
    m_ps->MakeObjectPersist(top, true);
    EXPECT_LT(GetOid(top), GetOid(a));
    EXPECT_LT(GetOid(a), GetOid(a1));
    EXPECT_LT(GetOid(a1), GetOid(a2));
    EXPECT_LT(GetOid(a2), GetOid(b));
    EXPECT_LT(GetOid(b), GetOid(b1));
}

TEST_F(PSpaceOfTest, AGivenIdentifierIsTakenUnlessItIsResident) {
    const SpaceScope scope(m_ps);
    const OID oid = m_ps->AllocateOid(1, false);
    TestLeaf* const first = NewObject<TestLeaf>(1);
    TestLeaf* const second = NewObject<TestLeaf>(2);
    EXPECT_TRUE(m_ps->MakeObjectPersistWithGivenOID(first, oid, false));
    EXPECT_EQ(oid, GetOid(first));
    EXPECT_FALSE(m_ps->MakeObjectPersistWithGivenOID(second, oid, false));
    EXPECT_FALSE(GetOid(second));
    EXPECT_FALSE(IsPersistableDirty(second));
    EXPECT_EQ(1, m_ps->m_dos.NumDirtyObjects());
    EXPECT_EQ(ptr<IPersistable>(first), m_ps->BindObject(oid));
}

TEST_F(PSpaceOfTest, AGivenIdentifierIsCheckedInOrder) {
    PSpace* const other = m_store.OpenSpace("other");
    const SpaceScope scope(m_ps);
    const OID oid = m_ps->AllocateOid(1, false);
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    ExpectAssertion("po", "src/PSpace", [&] { m_ps->MakeObjectPersistWithGivenOID(null, oid, false); });
    ExpectAssertion("oid", "src/PSpace", [&] { m_ps->MakeObjectPersistWithGivenOID(leaf, OID(), false); });
    TestLeaf unregistered;
    ExpectAssertion("GetAssociatedCSpace(po) == m_cspace", "src/PSpace",
                    [&] { m_ps->MakeObjectPersistWithGivenOID(&unregistered, oid, false); });
    {
        const SpaceScope otherScope(other);
        ExpectAssertion("GetAssociatedCSpace(po) == m_cspace", "src/PSpace", [&] {
            TestLeaf* const elsewhere = NewObject<TestLeaf>(2);
            m_ps->MakeObjectPersistWithGivenOID(elsewhere, oid, false);
        });
    }
    SetIObjectFlag(ptr<IPersistable>(leaf), PERSISTABLE_DIRTY, true);
    ExpectAssertion("!IsPersistableDirty(po)", "src/PSpace",
                    [&] { m_ps->MakeObjectPersistWithGivenOID(leaf, oid, false); });
    SetIObjectFlag(ptr<IPersistable>(leaf), PERSISTABLE_DIRTY, false);
    EXPECT_TRUE(m_ps->MakeObjectPersistWithGivenOID(leaf, oid, false));
    ExpectAssertion("!GetOid(po)", "src/PSpace", [&] { m_ps->MakeObjectPersistWithGivenOID(leaf, oid, false); });
}

TEST_F(PSpaceOfTest, AllocationFollowsTheHintOrTheCount) {
    RecordingLss& lss = m_store.Record();
    const SpaceScope scope(m_ps);
    m_ps->SetAffiliateOidLow(77);
    m_ps->AllocateOid(1, false);
    EXPECT_EQ(Seid(77, 1), lss.AffiliateHints().back());
    EXPECT_EQ(77u, m_ps->m_affiliateOidLow);
    const std::size_t numHints = lss.AffiliateHints().size();
    const OID first = m_ps->AllocateOid(1, true);
    const OID second = m_ps->AllocateOid(1, true);
    EXPECT_LT(first, second);
    EXPECT_EQ(numHints, lss.AffiliateHints().size());
    EXPECT_EQ(1u, m_ps->GetOidHighForOidAllocations());

    m_ps->MakeObjectPersist(5, NewObject<TestLeaf>(1));
    EXPECT_EQ(5u, m_ps->m_affiliateOidLow);
    EXPECT_EQ(Seid(5, 1), lss.AffiliateHints().back());
}

TEST_F(PSpaceOfTest, AllocationChecksWhatTheLogSays) {
    RecordingLss& lss = m_store.Record();
    const SpaceScope scope(m_ps);
    lss.m_affiliateInWrongSpace = true;
    ExpectAssertion("seid.high_ == oidHigh", "src/PSpace", [&] { m_ps->AllocateOid(1, false); });
    ExpectAssertion("seid.high_ == oidHigh", "src/PSpace",
                    [&] { m_ps->MakeObjectPersist(NewObject<TestLeaf>(1), false); });
    lss.m_affiliateInWrongSpace = false;
    lss.m_refuseAffiliates = true;
    ExpectAssertion("m_lss->AllocateAffiliateSeid(seid)", "src/PSpace", [&] { m_ps->AllocateOid(1, false); });
    ExpectAssertion("m_lss->AllocateAffiliateSeid(seid)", "src/PSpace",
                    [&] { m_ps->MakeObjectPersist(NewObject<TestLeaf>(1), false); });
    lss.m_refuseAffiliates = false;
}

TEST_F(PSpaceOfTest, AFreshIdentifierIsNobodysInMemory) {
    const SpaceScope scope(m_ps);
    m_ps->SetOidHighForOidAllocations(1, true);
    const OID last = m_ps->AllocateOid(1, true);
    const OID next(last.low_ + 1, last.high_);
    m_ps->rot_.AddResidentObject(next, NewObject<TestLeaf>(1));
    ExpectAssertion("!rot_.FindResidentObject(oid)", "src/PSpace",
                    [&] { m_ps->MakeObjectPersist(NewObject<TestLeaf>(2), false); });
    m_ps->rot_.RemoveResidentObject(next);
}

TEST_F(PSpaceOfTest, TheHighHalfOfNewIdentifiersCanBeChosen) {
    const SeidHigh high = m_store->GetLss()->AllocateSeidHigh();
    m_ps->SetOidHighForOidAllocations(high, true);
    EXPECT_EQ(high, m_ps->GetOidHighForOidAllocations());
    const SpaceScope scope(m_ps);
    TestLeaf* const leaf = NewRoot<TestLeaf>("r", 1);
    EXPECT_EQ(high, GetOid(leaf).high_);
    m_ps->SetOidHighForOidAllocations(0, false);
    ExpectAssertion("m_oidHighForOidAllocations", "src/PSpace", [&] { (void)m_ps->GetOidHighForOidAllocations(); });
    m_ps->SetOidHighForOidAllocations(1, false);
}

TEST_F(PSpaceOfTest, DeclaringAChildOfATransientParentDoesNothingNotEvenACheck) {
    TestLeaf parent;
    TestLeaf child;
    m_ps->DeclareReachable(&parent, &child, true);
    EXPECT_FALSE(GetOid(&child));
    ExpectAssertion("parent", "src/PSpace", [&] { m_ps->DeclareReachable(null, &child, true); });
}

TEST_F(PSpaceOfTest, DeclaringAChildMakesItPersistentNearItsParent) {
    RecordingLss& lss = m_store.Record();
    const SpaceScope scope(m_ps);
    TestNode* const parent = NewRoot<TestNode>("parent", "p");
    TestLeaf* const grandchild = NewObject<TestLeaf>(1);
    TestNode* const child = NewObject<TestNode>("c", std::initializer_list<ptr<IPersistable>>{grandchild});
    const std::size_t before = lss.AffiliateHints().size();
    m_ps->DeclareReachable(parent, child, true);
    EXPECT_TRUE(IsPersistentAndDirty(child));
    EXPECT_TRUE(IsPersistentAndDirty(grandchild));
    const std::vector<Seid> hints = lss.AffiliateHints();
    ASSERT_EQ(before + 2, hints.size());
    EXPECT_EQ(Seid(GetOid(parent).low_, 1), hints[before]);
    EXPECT_EQ(Seid(GetOid(parent).low_, 1), hints[before + 1]);
    EXPECT_EQ(GetOid(parent).low_, m_ps->m_affiliateOidLow);
}

TEST_F(PSpaceOfTest, DeclaringAPersistentChildOrNoneLeavesTheHintAlone) {
    const SpaceScope scope(m_ps);
    TestNode* const parent = NewRoot<TestNode>("parent", "p");
    TestNode* const child = NewRoot<TestNode>("child", "c");
    m_ps->SetAffiliateOidLow(12345);
    m_ps->DeclareReachable(parent, child, true);
    m_ps->DeclareReachable(parent, null, true);
    EXPECT_EQ(12345u, m_ps->m_affiliateOidLow);
}

TEST_F(PSpaceOfTest, MarkingATransientObjectDoesNothingAndNeedsNoLock) {
    TestLeaf leaf;
    m_ps->MarkPersistableAsDirtyWithoutTrace(&leaf);
    EXPECT_FALSE(leaf.IsDirty());
    ExpectAssertion("po", "src/PSpace", [&] { m_ps->MarkPersistableAsDirtyWithoutTrace(null); });
}

TEST_F(PSpaceOfTest, MarkingTwiceEntersTheObjectOnce) {
    TestLeaf* leaf = nullptr;
    {
        const SpaceScope scope(m_ps);
        leaf = NewRoot<TestLeaf>("r", 1);
    }
    m_ps->WriteDirtyObjectsToLss(false);
    const SpaceScope scope(m_ps);
    EXPECT_FALSE(leaf->IsDirty());
    m_ps->MarkPersistableAsDirtyWithoutTrace(leaf);
    EXPECT_TRUE(leaf->IsDirty());
    m_ps->MarkPersistableAsDirtyWithoutTrace(leaf);
    leaf->MarkAsDirtyWithoutTrace();
    EXPECT_EQ(1, m_ps->m_dos.NumDirtyObjects());
}

TEST_F(PSpaceOfTest, ADeletedObjectBindsAsIfItDidNotExistThoughItIsResident) {
    const SpaceScope scope(m_ps);
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    m_ps->MakeObjectPersist(leaf, false);
    const OID oid = GetOid(leaf);
    m_ps->SyncPermanentlyDeleteObject(leaf);
    EXPECT_TRUE(leaf->GetSysState().GetFlag(PERSISTABLE_DELETED));
    ExpectException<DerefDanglingOidException>("Dereferenced dangling OID = " + TextOfSeid(oid),
                                               [&] { m_ps->BindObject(oid); });
    EXPECT_FALSE(m_ps->TryBindObject(oid));
    EXPECT_FALSE(m_ps->BindObjectIfMemoryResident(oid));
    EXPECT_EQ(ptr<IPersistable>(leaf), m_ps->rot_.FindResidentObject(oid));
}

TEST_F(PSpaceOfTest, DeletingAnObjectRemovesItsElementWithTheNextWrite) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(1);
        m_ps->MakeObjectPersist(leaf, false);
        oid = GetOid(leaf);
    }
    m_ps->WriteDirtyObjectsToLss(false);
    EXPECT_TRUE(m_store.Has(oid));
    {
        const SpaceScope scope(m_ps);
        m_ps->SyncPermanentlyDeleteObject(m_ps->BindObject(oid));
    }
    m_ps->WriteDirtyObjectsToLss(false);
    EXPECT_FALSE(m_store.Has(oid));
    const SpaceScope scope(m_ps);
    EXPECT_FALSE(m_ps->TryBindObject(oid));
}

TEST_F(PSpaceOfTest, KeepsTheHandlerOfAsynchronousBinding) {
    struct Handler {
        MAsyncBind BeginAsyncBindRequest(OID) { return {}; }
        void EndAsyncBindRequest(OID) {}
    } handler;
    const SpaceScope scope(m_ps);
    EXPECT_FALSE(m_ps->GetAsyncBindRequestHandler());
    m_ps->SetAsyncBindRequestHandler(ptr<IAsyncBindRequestHandler>(&handler));
    EXPECT_EQ(&handler, m_ps->GetAsyncBindRequestHandler().m_self);
    m_ps->SetAsyncBindRequestHandler(null);
}

TEST_F(PSpaceOfTest, WhatIsNotOfferedFailsAsStated) {
    const SpaceScope scope(m_ps);
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    ExpectAssertion("GetOid(po)", "src/PSpace", [&] { m_ps->SyncPermanentlyDeleteObject(leaf); });
    ExpectAssertion("GetOid(po)", "src/PSpace", [&] { m_ps->SyncPermanentlyDeleteSubTree(leaf); });
    m_ps->MakeObjectPersist(leaf, false);
    ExpectAssertion("0", "src/PSpace", [&] { m_ps->SyncPermanentlyDeleteSubTree(leaf); });
    ExpectAssertion("0", "src/PSpace", [&] { m_ps->DeclareObjectDoesNotExist(GetOid(leaf)); });
    ExpectAssertion("0", "src/ROT", [&] { m_ps->MakeMemoryResident(GetOid(leaf)); });
}

TEST_F(PSpaceOfTest, TheCollectorKeepsRootsAndDirtyObjectsAndLetsTheRestGo) {
    ASSERT_EQ(0, TestLeaf::s_numLive);
    OID root;
    OID written;
    {
        const SpaceScope scope(m_ps);
        root = GetOid(NewRoot<TestLeaf>("r", 1));
        TestLeaf* const leaf = NewObject<TestLeaf>(2);
        m_ps->MakeObjectPersist(leaf, false);
        written = GetOid(leaf);
        NewObject<TestLeaf>(3); // transient, and nobody's
        SynchronousGc(m_ps->GetCSpace());
        EXPECT_EQ(2, TestLeaf::s_numLive);
        EXPECT_TRUE(m_ps->BindObjectIfMemoryResident(written));
    }
    m_ps->WriteDirtyObjectsToLss(false);
    const SpaceScope scope(m_ps);
    SynchronousGc(m_ps->GetCSpace());
    EXPECT_FALSE(m_ps->BindObjectIfMemoryResident(written));
    EXPECT_TRUE(m_ps->BindObject(written));
    EXPECT_TRUE(m_ps->GetRoot("r"));
    EXPECT_EQ(root, GetOid(m_ps->GetRoot("r")));
}

TEST_F(PSpaceOfTest, CollectingADirtyObjectIsTracedAndRefused) {
    const SpaceScope scope(m_ps);
    TestLeaf* const leaf = NewRoot<TestLeaf>("r", 1);
    ExpectAssertion("po", "src/PSpace", [&] { m_ps->OnGarbageCollectPersistable(null); });
    CollectedTrace trace;
    ExpectAssertion("0", "src/PSpace", [&] { m_ps->OnGarbageCollectPersistable(leaf); });
    ASSERT_EQ(1u, trace.Texts().size());
    const std::string text = trace.Texts()[0];
    const std::string begin = "PSpace: error : garbage collecting dirty object ";
    const std::string end = " with OID = " + TextOfSeid(GetOid(leaf)) + "\n";
    EXPECT_EQ(begin, text.substr(0, begin.size()));
    ASSERT_GT(text.size(), begin.size() + end.size());
    EXPECT_EQ(end, text.substr(text.size() - end.size()));
}

TEST_F(PSpaceOfTest, AnObjectThatIsNotInTheTableIsCollectedQuietly) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(1);
        m_ps->MakeObjectPersist(leaf, false);
        oid = GetOid(leaf);
    }
    m_ps->WriteDirtyObjectsToLss(false);
    const SpaceScope scope(m_ps);
    const ptr<IPersistable> bound = m_ps->BindObject(oid);
    AddGcRoot(bound);
    const ptr<IPersistable> second = m_ps->TryLoadPOGivenOid(oid); // another instance, which the table does not hold
    EXPECT_NE(bound, second);
    SynchronousGc(m_ps->GetCSpace());
    EXPECT_EQ(bound, m_ps->BindObjectIfMemoryResident(oid));
}

TEST_F(PSpaceOfTest, CloseNeedsThatTheCallerHoldsNoLock) {
    const SpaceScope scope(m_ps);
    ExpectAssertion("!HaveLock(m_cspace)", "src/PSpace", [&] { m_ps->Close(); });
}

TEST_F(PSpaceOfTest, CloseWritesEverythingAndReopeningFindsIt) {
    OID leafOid;
    {
        const SpaceScope scope(m_ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(7, "seven");
        NewRoot<TestNode>("root", "top", std::initializer_list<ptr<IPersistable>>{leaf});
        leafOid = GetOid(leaf);
    }
    m_store.Close();
    EXPECT_EQ(0, TestLeaf::s_numLive);
    EXPECT_EQ(0, TestNode::s_numLive);
    m_store.Open();
    m_ps = m_store.OpenSpace("s", OM_OPEN_EXISTING);
    EXPECT_FALSE(m_ps->CreatedNew());
    const SpaceScope scope(m_ps);
    EXPECT_EQ(0, TestNode::s_numLive);
    const ptr<IPersistable> root = m_ps->GetRoot("root");
    EXPECT_EQ(1, TestNode::s_numLive);
    EXPECT_EQ(0, TestLeaf::s_numLive);
    const auto* node = static_cast<const TestNode*>(root.m_self);
    EXPECT_STREQ("top", node->m_name.c_str());
    ASSERT_EQ(1, node->m_children.size());
    EXPECT_EQ(leafOid, node->m_children[0].GetOid());
    EXPECT_FALSE(node->m_children[0].IsBound());
    const auto* leaf = static_cast<const TestLeaf*>(node->m_children[0].Get().m_self);
    EXPECT_EQ(7, leaf->m_number);
    EXPECT_STREQ("seven", leaf->m_text.c_str());
    EXPECT_EQ(leafOid, leaf->m_oidSeenByDeserialise);
    EXPECT_EQ(0, leaf->m_numOnCreate);
    EXPECT_FALSE(leaf->IsDirty());
}

TEST_F(PSpaceOfTest, CloseOfAGroupedSpaceWritesTheGroupInOneTransaction) {
    PSpace* const other = m_store.OpenSpace("other");
    RecordingLss& lss = m_store.Record();
    const auto addRoot = [](PSpace* ps) {
        const SpaceScope scope(ps);
        ps->AddRoot("r", NewObject<TestLeaf>(1));
    };
    addRoot(m_ps);
    addRoot(other);
    m_store->GetPSpaceTxnGroupMgr().MergeTwoPSpaceTxnGroups(m_ps, other);
    m_store.CloseSpace(m_ps);
    EXPECT_EQ(1, lss.Count("open"));
    EXPECT_FALSE(other->HaveChangesToWriteToLss());
    EXPECT_EQ(other, other->m_nextInTxnGrp);
}

TEST_F(PSpaceOfTest, CloseOfAGroupedSpaceWritesItsCleanPartnerToo) {
    PSpace* const other = m_store.OpenSpace("other");
    {
        const SpaceScope scope(m_ps);
        m_ps->AddRoot("r", NewObject<TestLeaf>(1));
    }
    m_store->GetPSpaceTxnGroupMgr().MergeTwoPSpaceTxnGroups(m_ps, other);
    m_store.CloseSpace(m_ps);
    EXPECT_TRUE(other->m_ensureCommitted);
}

TEST_F(PSpaceOfTest, CloseForgetsTheClosingThreadsPairWhenItNamesTheSpace) {
    SetThreadPSpace(m_ps);
    SetThreadCSpace(m_ps->GetCSpace());
    m_store.CloseSpace(m_ps);
    EXPECT_EQ(nullptr, GetThreadPSpace());
    EXPECT_EQ(nullptr, GetThreadCSpace());
}

TEST_F(PSpaceOfTest, CloseKeepsTheThreadsOtherPair) {
    PSpace* const other = m_store.OpenSpace("other");
    const ThreadPSpaceScope pair(other, other->GetCSpace());
    m_store.CloseSpace(m_ps);
    EXPECT_EQ(other, GetThreadPSpace());
    EXPECT_EQ(other->GetCSpace(), GetThreadCSpace());
}

TEST_F(PSpaceOfTest, ARootRemovedBeforeAnyOtherChangeIsGoneAfterReopening) {
    {
        const SpaceScope scope(m_ps);
        NewRoot<TestLeaf>("r", 1);
    }
    m_store.Reopen();
    m_ps = m_store.OpenSpace("s", OM_OPEN_EXISTING);
    {
        const SpaceScope scope(m_ps);
        EXPECT_TRUE(m_ps->RemoveRoot("r"));
        EXPECT_TRUE(m_ps->HaveChangesToWriteToLss());
    }
    m_store.Reopen();
    m_ps = m_store.OpenSpace("s", OM_OPEN_EXISTING);
    const SpaceScope scope(m_ps, SharedRead);
    EXPECT_FALSE(m_ps->GetRoot("r"));
}

TEST_F(PSpaceOfTest, TransferMovesTheObjectsAndDropsTheSourcesRoots) {
    PSpace* const src = m_store.OpenSpace("src");
    OID moved;
    {
        const SpaceScope scope(src);
        TestLeaf* const leaf = NewObject<TestLeaf>(42);
        src->AddRoot("gone", leaf);
        moved = GetOid(leaf);
    }
    OID own;
    {
        const SpaceScope scope(m_ps);
        own = GetOid(NewRoot<TestLeaf>("kept", 1));
    }
    {
        const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
        CSpace* domains[] = {m_ps->GetCSpace(), src->GetCSpace()};
        const MultipleCSpaceLock locks(domains, 2, Exclusive);
        m_ps->Transfer(*src);
        EXPECT_TRUE(m_ps->HaveChangesToWriteToLss());
        EXPECT_TRUE(src->HaveChangesToWriteToLss());
        EXPECT_EQ(src, m_ps->m_nextInTxnGrp);
        EXPECT_EQ(m_ps, src->m_nextInTxnGrp);
        EXPECT_FALSE(src->GetRoot("gone"));
        EXPECT_EQ(own, GetOid(m_ps->GetRoot("kept")));
        const ptr<IPersistable> leaf = m_ps->BindObjectIfMemoryResident(moved);
        ASSERT_TRUE(leaf);
        EXPECT_EQ(m_ps, GetAssociatedPSpace(leaf));
        EXPECT_FALSE(src->BindObjectIfMemoryResident(moved));
        m_ps->Transfer(*m_ps); // nothing at all
        EXPECT_TRUE(m_ps->BindObjectIfMemoryResident(moved));
    }
    m_store.Reopen();
    m_ps = m_store.OpenSpace("s", OM_OPEN_EXISTING);
    const SpaceScope scope(m_ps);
    EXPECT_EQ(42, static_cast<const TestLeaf*>(m_ps->BindObject(moved).m_self)->m_number);
    EXPECT_TRUE(m_ps->GetRoot("kept"));
}

TEST_F(PSpaceOfTest, TransferStaysWithinOneStore) {
    TestStore other;
    PSpace* const foreign = other.OpenSpace("foreign");
    ExpectAssertion("&m_ps == &src.m_ps", "src/PSpace", [&] { m_ps->Transfer(*foreign); });
}

TEST_F(PSpaceOfTest, ContainersGiveIdentifiersToWhatTheirReferencesReach) {
    const SpaceScope scope(m_ps);
    TestNode* const child = NewObject<TestNode>("c");
    const cref<TestNode> reference(child);
    AllocateOidsReachablePrefVisitor visitor(m_ps, OID(99, 1));
    visitor.VisitParentPref(reference);
    EXPECT_FALSE(GetOid(child));
    visitor.VisitPref(cref<TestNode>());
    visitor.VisitPref(reference);
    EXPECT_TRUE(IsPersistentAndDirty(child));
    EXPECT_EQ(99u, m_ps->m_affiliateOidLow);
    visitor.VisitPref(reference); // persistent by now: nothing to do
}

TEST_F(PSpaceOfTest, TheCollectorsPeriodIsTwoSecondsForItsOwnDomain) {
    // A given domain keeps its own collector: none here, so nothing is collected until asked.
    CSpace* const cs = CreateCSpace();
    PSpace* const ps = m_store.OpenSpace("given", OM_OPEN_ALWAYS, cs);
    EXPECT_EQ(0, GetGcStats(cs).collections);
    SynchronousGc(ps->GetCSpace());
    EXPECT_EQ(1, GetGcStats(cs).collections);
}

TEST_F(PSpaceOfTest, AFailedReadOfAGivenDomainsSpaceLeavesTheDomainUsable) {
    const OID oid = m_ps->m_roots.m_oid;
    m_store.CloseSpace(m_ps);
    DeleteElement(*m_store->GetLss(), oid);
    CSpace* const cs = CreateCSpace();
    EXPECT_THROW(m_store->OpenPSpace("s", OM_OPEN_ALWAYS, cs), DerefDanglingOidException);
    EXPECT_NE(nullptr, GetPtrSlot(cs, PTR_SLOT_PSpace)); // as documented: the slot stays set
    EXPECT_FALSE(HaveLock(cs));
    EXPECT_EQ(nullptr, GetThreadPSpace());
    EXPECT_EQ(nullptr, GetThreadCSpace());
    SynchronousGc(cs); // visits nothing of the space that is no more
    GetPtrSlotArray(cs)[PTR_SLOT_PSpace] = nullptr;
    Destroy(cs);
}

} // namespace
} // namespace quna

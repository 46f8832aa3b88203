#include "qxObject/ReflectedClass.h"
#include "qxObject/ReflectedGlobalFunction.h"
#include "qxObject/ReflectedInterface.h"
#include "qxObject/Registry.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/TypeInfo.h"
#include "qxPersistStore/src/PSpace.h"
#include "tests/support/TestStore.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

namespace quna {
namespace {

class LibrarySurface : public ::testing::Test {
protected:
    LibrarySurface() : m_ps(m_store.OpenSpace("s")) {}
    TestStore m_store;
    PSpace* m_ps;
};

// ---- The thread's space ----

TEST_F(LibrarySurface, BindersUseTheThreadsSpace) {
    const SpaceScope scope(m_ps);
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    EXPECT_TRUE(AddPSpaceRoot("r", leaf));
    const OID oid = GetOid(leaf);
    EXPECT_EQ(ptr<IPersistable>(leaf), BindObjectGivenOid(oid));
    EXPECT_EQ(ptr<IPersistable>(leaf), TryBindObjectGivenOid(oid));
    EXPECT_EQ(ptr<IPersistable>(leaf), BindObjectInMemoryGivenOid(oid));
    EXPECT_EQ(ptr<IPersistable>(leaf), GetPSpaceRoot("r"));
    EXPECT_TRUE(RemovePSpaceRoot("r"));
    EXPECT_FALSE(GetPSpaceRoot("r"));
    const OID none = m_ps->AllocateOid(1, false);
    EXPECT_FALSE(TryBindObjectGivenOid(none));
    EXPECT_THROW(BindObjectGivenOid(none), DerefDanglingOidException);
}

TEST_F(LibrarySurface, BindersCheckTheIdentifierThenTheSpace) {
    const auto expect = [](const char* text, OID oid) {
        ExpectAssertion(text, [&] { BindObjectGivenOid(oid); });
        ExpectAssertion(text, [&] { TryBindObjectGivenOid(oid); });
        ExpectAssertion(text, [&] { BindObjectInMemoryGivenOid(oid); });
        ExpectAssertion(text, [&] { AsyncBindObjectInMemoryGivenOid(oid); });
    };
    expect("oid", OID());
    expect("pspace", OID(5, 1));
}

// ---- The object's space ----

TEST_F(LibrarySurface, AnObjectOutsideAnySpaceTakesTheCallsHarmlessly) {
    const CSpaceCreator plain;
    const ThreadPSpaceScope pair(nullptr, plain);
    const CSpaceLock lock(plain, Exclusive);
    TestNode* const node = NewObject<TestNode>("n");
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    TestLeaf unregistered;
    for (const ptr<IPersistable>& po : {ptr<IPersistable>(node), ptr<IPersistable>(&unregistered)}) {
        MarkPersistentAsDirtyWithoutTrace(po);
        DeclareReachable(po, leaf, true);
        OnGarbageCollectPersistable(po);
        AsyncPermanentlyDeleteSubTree(po);
        AsyncPermanentlyDeleteObject(po);
        SyncPermanentlyDeleteSubTree(po);
        SyncPermanentlyDeleteObject(po);
        EXPECT_FALSE(GetOid(po));
        EXPECT_FALSE(IsPersistableDirty(po));
        EXPECT_EQ(nullptr, GetAssociatedPSpace(po));
        EXPECT_EQ(nullptr, GetAssociatedPersistStore(po));
        EXPECT_EQ(nullptr, GetAssociatedLss(po));
    }
    EXPECT_EQ(nullptr, GetPSpaceOfCSpace(plain));
}

TEST_F(LibrarySurface, AnObjectsCallsReachItsSpace) {
    const SpaceScope scope(m_ps);
    TestNode* const parent = NewObject<TestNode>("p");
    TestLeaf* const child = NewObject<TestLeaf>(1);
    AddPSpaceRoot("r", parent);
    DeclareReachable(parent, child, true);
    EXPECT_TRUE(GetOid(child));
    SyncPermanentlyDeleteObject(child);
    EXPECT_FALSE(TryBindObjectGivenOid(GetOid(child)));
    ExpectAssertion("0", [&] { SyncPermanentlyDeleteSubTree(parent); });
    EXPECT_EQ(m_ps, GetAssociatedPSpace(parent));
    EXPECT_EQ(m_store.Get(), GetAssociatedPersistStore(parent));
    EXPECT_EQ(m_store->GetLss(), GetAssociatedLss(parent));
}

TEST_F(LibrarySurface, NullArgumentsAreRefused) {
    TestLeaf leaf;
    ExpectAssertion("po", [] { MarkPersistentAsDirtyWithoutTrace(null); });
    ExpectAssertion("po", [] { OnGarbageCollectPersistable(null); });
    ExpectAssertion("parent", [&] { DeclareReachable(null, &leaf, true); });
    ExpectAssertion("child", [&] { DeclareReachable(&leaf, null, true); });
    ExpectAssertion("po", [] { GetAssociatedPSpace(null); });
    ExpectAssertion("cs", [] { GetPSpaceOfCSpace(nullptr); });
}

TEST_F(LibrarySurface, ObjectsDifferOnlyWhenBothAreKnown) {
    PSpace* const second = m_store.OpenSpace("second");
    TestStore otherStore;
    PSpace* const third = otherStore.OpenSpace("third");
    const auto newIn = [](PSpace* ps) {
        const SpaceScope scope(ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(1);
        AddGcRoot(ptr<IPersistable>(leaf));
        return leaf;
    };
    TestLeaf* const inFirst = newIn(m_ps);
    TestLeaf* const inFirstToo = newIn(m_ps);
    TestLeaf* const inSecond = newIn(second);
    TestLeaf* const inThird = newIn(third);
    TestLeaf outside;
    EXPECT_FALSE(ObjectsBelongToDifferentPSpaces(inFirst, inFirstToo));
    EXPECT_TRUE(ObjectsBelongToDifferentPSpaces(inFirst, inSecond));
    EXPECT_TRUE(ObjectsBelongToDifferentPSpaces(inFirst, inThird));
    EXPECT_FALSE(ObjectsBelongToDifferentPSpaces(inFirst, &outside));
    EXPECT_FALSE(ObjectsBelongToDifferentPSpaces(&outside, inFirst));
    EXPECT_FALSE(ObjectsBelongToDifferentPersistStores(inFirst, inSecond));
    EXPECT_TRUE(ObjectsBelongToDifferentPersistStores(inFirst, inThird));
    EXPECT_FALSE(ObjectsBelongToDifferentPersistStores(&outside, inThird));
    EXPECT_TRUE(ObjectsBelongToDifferentCSpaces(inFirst, inSecond));
    EXPECT_FALSE(ObjectsBelongToDifferentCSpaces(inFirst, &outside));
}

// ---- The thread's context ----

TEST_F(LibrarySurface, TheContextIsCheckedInOrder) {
    TestLeaf leaf;
    PSpace* const other = m_store.OpenSpace("other");
    ExpectAssertion("cs", [] { AssertSetTls(); });
    ExpectAssertion("cs", [] { (void)HaveExclusiveLockedPSpace(); });
    ExpectAssertion("cs", [&] { AssertSetTlsForPSpaceObject(&leaf); });
    SetThreadCSpace(m_ps->GetCSpace());
    ExpectAssertion("ps", [] { AssertSetTls(); });
    ExpectAssertion("ps", [] { (void)HaveLockedPSpace(); });
    ExpectAssertion("ps", [&] { AssertSetTlsForPSpaceObject(&leaf); });
    SetThreadPSpace(other);
    ExpectAssertion("GetCSpace(ps) == cs", [] { AssertSetTls(); });
    SetThreadPSpace(m_ps);
    AssertSetTls();
    ExpectAssertion("p", [] { AssertSetTlsForPSpaceObject(null); });
    ExpectAssertion("GetAssociatedCSpace(p) == cs", [&] { AssertSetTlsForPSpaceObject(&leaf); });
    SetThreadCSpace(nullptr);
    SetThreadPSpace(nullptr);
}

TEST_F(LibrarySurface, AnObjectOfAnotherSpaceIsRefused) {
    PSpace* const other = m_store.OpenSpace("other");
    TestLeaf* leaf = nullptr;
    {
        const SpaceScope scope(m_ps);
        leaf = NewObject<TestLeaf>(1);
        AddGcRoot(ptr<IPersistable>(leaf));
    }
    const ThreadPSpaceScope pair(other, m_ps->GetCSpace());
    ExpectAssertion("GetAssociatedPSpace(p) == ps", [&] { AssertSetTlsForPSpaceObject(leaf); });
}

TEST_F(LibrarySurface, LockQuestionsAnswerForTheThreadsSpace) {
    const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
    EXPECT_FALSE(HaveLockedPSpace());
    TestLeaf* leaf = nullptr;
    {
        const CSpaceLock lock(Exclusive);
        leaf = NewObject<TestLeaf>(1);
        AddGcRoot(ptr<IPersistable>(leaf));
        EXPECT_TRUE(HaveExclusiveLockedPSpace());
        EXPECT_FALSE(HaveSharedReadLockedPSpace());
        EXPECT_TRUE(HaveLockedPSpace());
        EXPECT_TRUE(HaveExclusiveLockedPSpace(leaf));
        EXPECT_FALSE(HaveSharedReadLockedPSpace(leaf));
        EXPECT_TRUE(HaveLockedPSpace(leaf));
    }
    const CSpaceLock lock(SharedRead);
    EXPECT_FALSE(HaveExclusiveLockedPSpace());
    EXPECT_TRUE(HaveSharedReadLockedPSpace());
    EXPECT_TRUE(HaveLockedPSpace());
    EXPECT_TRUE(HaveSharedReadLockedPSpace(leaf));
}

// ---- Bootstrap ----

TEST_F(LibrarySurface, BootstrapMakesTheRootOnceAndKeepsItInMemory) {
    const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
    auto* const leaf = static_cast<TestLeaf*>(BootstrapPSpaceRoot(GetReflectedClass<TestLeaf>(), "root"));
    ASSERT_NE(nullptr, leaf);
    EXPECT_TRUE(GetOid(leaf));
    EXPECT_EQ(1, leaf->m_numOnCreate);
    EXPECT_TRUE(leaf->m_createdArgument);
    EXPECT_FALSE(HaveLock(m_ps->GetCSpace()));
    EXPECT_EQ(leaf, BootstrapPSpaceRoot(GetReflectedClass<TestLeaf>(), "root"));
    EXPECT_EQ(1, leaf->m_numOnCreate);
    m_ps->WriteDirtyObjectsToLss(false);
    SynchronousGc(m_ps->GetCSpace());
    const CSpaceLock lock(SharedRead);
    EXPECT_EQ(ptr<IPersistable>(leaf), m_ps->BindObjectIfMemoryResident(GetOid(leaf)));
}

TEST_F(LibrarySurface, ABootstrappedRootIsFoundAfterReopening) {
    {
        const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
        auto* const leaf = static_cast<TestLeaf*>(BootstrapPSpaceRoot(GetReflectedClass<TestLeaf>(), "root"));
        const CSpaceLock lock(Exclusive);
        leaf->m_number = 31;
        leaf->MarkAsDirtyWithoutTrace();
    }
    m_store.Reopen();
    m_ps = m_store.OpenSpace("s");
    const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
    const auto* leaf = static_cast<TestLeaf*>(BootstrapPSpaceRoot(GetReflectedClass<TestLeaf>(), "root"));
    ASSERT_NE(nullptr, leaf);
    EXPECT_EQ(31, leaf->m_number);
    EXPECT_EQ(0, leaf->m_numOnCreate);
}

TEST_F(LibrarySurface, ARootOfAnotherClassGivesNullAndIsNotPinned) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestNode* const node = NewObject<TestNode>("n");
        AddPSpaceRoot("root", node);
        oid = GetOid(node);
    }
    {
        const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
        EXPECT_EQ(nullptr, BootstrapPSpaceRoot(GetReflectedClass<TestLeaf>(), "root"));
    }
    m_ps->WriteDirtyObjectsToLss(false);
    SynchronousGc(m_ps->GetCSpace());
    const SpaceScope scope(m_ps);
    EXPECT_EQ(nullptr, BootstrapPSpaceRoot2(GetReflectedClass<TestLeaf>(), "root"));
}

TEST_F(LibrarySurface, TheSecondFormNeedsTheLockAndPinsNothing) {
    const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
    const auto bootstrap = [] { return BootstrapPSpaceRoot2(GetReflectedClass<TestLeaf>(), "root"); };
    ExpectAssertion("HaveExclusiveLockedCSpace()", [&] { bootstrap(); });
    OID oid;
    {
        const CSpaceLock lock(Exclusive);
        auto* const leaf = static_cast<TestLeaf*>(bootstrap());
        ASSERT_NE(nullptr, leaf);
        EXPECT_EQ(leaf, bootstrap());
        EXPECT_EQ(1, leaf->m_numOnCreate);
        oid = GetOid(leaf);
        ExpectAssertion("rc.m_createFn",
                        [] { BootstrapPSpaceRoot2(GetReflectedClass<TestNoFactory>(), "no factory"); });
        ExpectAssertion("po", [] { BootstrapPSpaceRoot2(GetReflectedClass<TestPlainObject>(), "plain"); });
    }
    m_ps->WriteDirtyObjectsToLss(false);
    SynchronousGc(m_ps->GetCSpace()); // reachable, not pinned
    const CSpaceLock lock(Exclusive);
    EXPECT_FALSE(m_ps->BindObjectIfMemoryResident(oid));
    EXPECT_EQ(oid, GetOid(static_cast<TestLeaf*>(bootstrap())));
}

// ---- Types of the store without a space ----

TEST(LibrarySurfaceWithoutAStore, TypeLookUpsNeedASpace) {
    RegisterTestObjects();
    ExpectAssertion("tid > 0", [] { GetPersistStoreTypeOps(0); });
    ExpectAssertion("ps", [] { GetPersistStoreTypeOps(1); });
    ExpectAssertion("ps", [] { GetPersistStoreTypeOpsId(DescriptionOf<int32>()); });
}

// ---- Registration ----

TEST(Registration, EachPublicItemIsFoundByItsName) {
    RegisterTestObjects();
    for (const char* name :
         {"BPlusTree", "InternalNode", "LeafNode", "PersistStore", "PSpace", "PersistStoreTxn", "OID",
          "PersistObjState", "ClassNameTranslation", "ClassNameTranslationTable", "LssSettings", "PersistStoreSettings",
          "PSpaceLockMode", "MAsyncBind", "BcTypeOps", "OidSpaceMap", "Goid"})
        EXPECT_NE(nullptr, FindReflectedClass((std::string("quna::") + name).c_str())) << name;
    for (const char* name : {"IPersistable", "IAsyncBindRequestHandler", "IPrefVisitor"})
        EXPECT_NE(nullptr, FindReflectedInterface((std::string("quna::") + name).c_str())) << name;
    for (const char* name : {"EOpenMode", "EAsyncBindResult"})
        EXPECT_NE(nullptr, FindReflectedEnum((std::string("quna::") + name).c_str())) << name;
    for (const char* name : {"OidHigh", "OidLow", "SeidHigh", "SeidLow", "OidSpaceGuid", "TypeOpsId"})
        EXPECT_NE(nullptr, FindReflectedTypedef((std::string("quna::") + name).c_str())) << name;
    for (const char* name : {"AddPSpaceRoot",
                             "AsyncBindObjectInMemoryGivenOid",
                             "AsyncPermanentlyDeleteObject",
                             "AsyncPermanentlyDeleteSubTree",
                             "BindObjectGivenOid",
                             "BindObjectInMemoryGivenOid",
                             "ClosePSpaceTxn",
                             "DeclareReachable",
                             "GetAssociatedLss",
                             "GetAssociatedPersistStore",
                             "GetAssociatedPSpace",
                             "GetOid",
                             "GetPSpaceOfCSpace",
                             "GetPSpaceRoot",
                             "GetThreadPSpace",
                             "MarkPersistentAsDirtyWithoutTrace",
                             "ObjectsBelongToDifferentPersistStores",
                             "ObjectsBelongToDifferentPSpaces",
                             "OnGarbageCollectPersistable",
                             "OpenPersistStore",
                             "OpenPSpace",
                             "OpenPSpaceTxn",
                             "RemovePSpaceRoot",
                             "SetThreadPSpace",
                             "SyncPermanentlyDeleteObject",
                             "SyncPermanentlyDeleteSubTree",
                             "SynchronousDeepCopyPersistableObject",
                             "TryBindObjectGivenOid"})
        EXPECT_NE(nullptr, FindReflectedGlobalFunction((std::string("quna::") + name).c_str())) << name;
}

std::vector<std::string> MethodNames(const char* className) {
    std::vector<std::string> names;
    if (const ReflectedClass* rc = FindReflectedClass(className))
        for (ssize_t i = 0; i < rc->m_numMethods; ++i) names.push_back(rc->m_methods[i].m_name);
    return names;
}

TEST(Registration, MethodsStandInTheirOrder) {
    RegisterTestObjects();
    EXPECT_EQ((std::vector<std::string>{"Close", "CreatedNew", "GetLss", "StartObjectDeletion",
                                        "WriteAllDirtyObjectsToLss", "OpenTxn", "GetDosPeriod", "SetDosPeriod",
                                        "GetNumPSpaces", "GetNumPersistableObjects", "GetTypeOpsId", "GetTypeOps"}),
              MethodNames("quna::PersistStore"));
    EXPECT_EQ((std::vector<std::string>{"Close", "GetPersistStore", "OpenPSpace", "TransferPSpace", "DestroyPSpace"}),
              MethodNames("quna::PersistStoreTxn"));
    EXPECT_EQ((std::vector<std::string>{"Close",
                                        "CreatedNew",
                                        "GetCSpace",
                                        "GetPersistStore",
                                        "GetName",
                                        "WriteDirtyObjectsToLss",
                                        "MarkPersistableAsDirtyWithoutTrace",
                                        "BindObject",
                                        "BindObjectIfMemoryResident",
                                        "TryBindObject",
                                        "MakeMemoryResident",
                                        "AsyncBind2",
                                        "AsyncBind",
                                        "GetAsyncBindRequestHandler",
                                        "SetAsyncBindRequestHandler",
                                        "DeclareObjectDoesNotExist",
                                        "MakeObjectPersist",
                                        "AllocateOid",
                                        "GetOidHighForOidAllocations",
                                        "SetOidHighForOidAllocations",
                                        "MakeObjectPersistWithGivenOID",
                                        "DeclareReachable",
                                        "MakeReachableObjectsPersist",
                                        "GetRoot",
                                        "AddRoot",
                                        "RemoveRoot",
                                        "AsyncPermanentlyDeleteSubTree",
                                        "AsyncPermanentlyDeleteObject",
                                        "SyncPermanentlyDeleteSubTree",
                                        "SyncPermanentlyDeleteObject"}),
              MethodNames("quna::PSpace"));
}

TEST(Registration, ASecondCallDoesNothing) {
    RegisterTestObjects();
    XTarget* const target = Quna_Core_qxPersistStore_GetXTarget();
    ASSERT_NE(nullptr, target);
    EXPECT_STREQ("Quna/Core/qxPersistStore", target->m_dsTarget->m_targetName);
    EXPECT_EQ(0, target->m_dsTarget->m_numDirectSubTargets);
    EXPECT_EQ(0, target->m_dsTarget->m_numReleases);
    const ssize_t before = target->m_numItems;
    Register_Project_qxPersistStore();
    EXPECT_EQ(before, target->m_numItems);
    EXPECT_EQ(target, Quna_Core_qxPersistStore_GetXTarget());
}

TEST(Registration, TheEntryPointsAreFoundByTheirPlainNames) {
    EXPECT_NE(nullptr, dlsym(RTLD_DEFAULT, "Register_Project_qxPersistStore"));
    EXPECT_NE(nullptr, dlsym(RTLD_DEFAULT, "Unregister_Project_qxPersistStore"));
}

} // namespace
} // namespace quna

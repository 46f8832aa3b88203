// What applications and files may rely on to the letter: numbers, texts, and the order in which an operation checks,
// writes and sets. The tests of each class have the reasons; this one has everything in one place.
#include "qxLss/Seid.h"
#include "qxObject/CSpace.h"
#include "qxObject/QunaSystemException.h"
#include "qxObject/Reflect.h"
#include "qxObject/Registry.h"
#include "qxPersistStore/MAsyncBind.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/TypeInfo.h"
#include "qxPersistStore/src/CidMap.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStoreTxn.h"
#include "qxUtils/ArchiveContainers.h"
#include "tests/support/TestStore.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

// ---- Numbers ----

TEST(Contract, NumbersOfTheFileFormatAndOfTheInterface) {
    EXPECT_EQ(0, OM_CREATE_NEW);
    EXPECT_EQ(1, OM_CREATE_ALWAYS);
    EXPECT_EQ(2, OM_OPEN_EXISTING);
    EXPECT_EQ(3, OM_OPEN_EXISTING_READ_ONLY);
    EXPECT_EQ(4, OM_OPEN_EXISTING_SHARED_READ);
    EXPECT_EQ(5, OM_OPEN_ALWAYS);
    EXPECT_EQ(6, OM_DELETE_EXISTING);
    EXPECT_EQ(0, SharedRead);
    EXPECT_EQ(1, Exclusive);
    EXPECT_EQ(2, Transaction);
    EXPECT_EQ(2, PERSISTABLE_DIRTY);
    EXPECT_EQ(4, PERSISTABLE_DELETE_VISITED);
    EXPECT_EQ(8, PERSISTABLE_DELETED);
    EXPECT_EQ(0, PTR_SLOT_PSpace);
    EXPECT_EQ(1, PTR_SLOT_WorkingSetMgr);
    EXPECT_EQ(16, CSPACE_NUM_RESERVED_PTR_SLOTS);
    EXPECT_EQ(-2, QUNA_GC_THREAD_DONT_START);
    EXPECT_EQ(-1, QUNA_GC_THREAD_NO_SLEEP);
    EXPECT_EQ(1000, QUNA_DEFAULT_MILLISECS_PER_GC);
    EXPECT_EQ(4096, ARCHIVE_BUFSIZE);
    EXPECT_EQ(1048576000, MAX_ALLOCATION_SIZE);
    EXPECT_EQ(5, MAX_VARIABLE_LENGTH_UINT_SIZE);
    EXPECT_EQ(2, NUM_PERSISTSTORE_SERIAL_ELEMENTS);
    EXPECT_EQ(2, NUM_PSPACE_SERIAL_ELEMENTS);
    EXPECT_EQ(0, static_cast<int>(EAsyncBindResult::Bound));
    EXPECT_EQ(1, static_cast<int>(EAsyncBindResult::Pending));
    EXPECT_EQ(2, static_cast<int>(EAsyncBindResult::DoesNotExist));
    EXPECT_EQ(3, static_cast<int>(EAsyncBindResult::NotHandled));
    EXPECT_EQ(0, NSE_OK);
    EXPECT_EQ(1, NSE_COLON_EXPECTED);
    EXPECT_EQ(2, NSE_IDENTIFIER_EXPECTED);
    EXPECT_EQ(3, NSE_NAME_ALREADY_IN_USE);
    EXPECT_EQ(4, NSE_NAME_NOT_FOUND);
    EXPECT_EQ(5, NSE_NOT_A_NAMESPACE);
    EXPECT_EQ(8u, sizeof(Seid));
    EXPECT_EQ(16u, sizeof(Guid));
    EXPECT_EQ(24u, sizeof(prefbase));
}

// ---- Exception texts ----

TEST(Contract, ExceptionsSayExactlyThis) {
    RegisterTestObjects();
    const auto expect = [](const std::string& text, const IException& e) {
        EXPECT_EQ(text, TextOf(e));
        EXPECT_EQ(text, e.what());
    };
    expect("Type mismatch during deserialisation : class test::Leaf doesn't support interface quna::IPersistable",
           TypeMismatchException(GetReflectedClass<TestLeaf>(), GetReflectedInterface<IPersistable>()));
    expect("Attempt to dereference null pref<T>", DerefNullPrefException());
    expect("Attempt to initialise pref<T> to object that doesn't implement IPersistable",
           ObjectNotPersistableException());
    expect("Dereferenced dangling OID = 00000007:0000002a", DerefDanglingOidException(OID(42, 7)));
    expect("Repeated class name a::B", RepeatedClassNameInCidMapException(xstring("a::B")));
    expect("TypeOps not found for int32",
           TypeOpsNotFoundException(ReflectionByteCodeValue(DescriptionOf<int32>(), false)));
    expect("Bad TypeOpsId : 3", BadTypeOpsIdException(3));
    expect("Bad CID : -1", BadCidException(-1));
    expect("Could not create new PSpace \"n\", a PSpace with that name already exists",
           OpenPSpaceException(OM_CREATE_NEW, "n"));
    expect("Could not open existing PSpace \"n\", a PSpace with that name does not exist",
           OpenPSpaceException(OM_OPEN_EXISTING, "n"));
    expect("Could not delete existing PSpace \"n\", a PSpace with that name does not exist",
           OpenPSpaceException(OM_DELETE_EXISTING, "n"));
    expect("PersistStore is missing root object", QunaSystemException("PersistStore is missing root object"));
    const OpenPSpaceException other(OM_OPEN_ALWAYS, "n"); // fails in Write, not here
    ExpectAssertion("0", [&] { TextOf(other); });
}

// ---- Assertions ----

class ContractOfStore : public ::testing::Test {
protected:
    ContractOfStore() : m_ps(m_store.OpenSpace("s")) {}

    struct Check {
        const char* m_text;
        std::function<void()> m_action;
    };
    static void ExpectChecks(const char* path, const std::vector<Check>& checks) {
        for (const Check& check : checks) {
            SCOPED_TRACE(check.m_text);
            ExpectAssertion(check.m_text, path, check.m_action);
        }
    }

    TestStore m_store;
    PSpace* m_ps;
};

// Each line breaks one check and every later one, so that the first that fails tells the order.
TEST_F(ContractOfStore, SpacesCheckInThisOrder) {
    TestLeaf transient;
    const OID none;
    const OID oid(77, 1);
    ExpectChecks("src/PSpace", {{"HaveReadOrWriteAccess()", [&] { m_ps->BindObject(none); }},
                                {"HaveReadOrWriteAccess()", [&] { m_ps->TryBindObject(none); }},
                                {"HaveReadOrWriteAccess()", [&] { m_ps->BindObjectIfMemoryResident(none); }},
                                {"HaveReadOrWriteAccess()", [&] { m_ps->GetRoot(nullptr); }},
                                {"oid", [&] { m_ps->AsyncBind(none); }},
                                {"HaveWriteAccess()", [&] { m_ps->AddRoot(nullptr, null); }},
                                {"HaveWriteAccess()", [&] { m_ps->RemoveRoot(nullptr); }},
                                {"HaveWriteAccess()", [&] { m_ps->MakeObjectPersist(null, true); }},
                                {"HaveWriteAccess()", [&] { m_ps->MakeObjectPersistWithGivenOID(null, none, true); }},
                                {"po", [&] { m_ps->MakeReachableObjectsPersist(null); }},
                                {"GetOid(po)", [&] { m_ps->MakeReachableObjectsPersist(&transient); }},
                                {"parent", [&] { m_ps->DeclareReachable(null, null, true); }},
                                {"po", [&] { m_ps->MarkPersistableAsDirtyWithoutTrace(null); }},
                                {"HaveWriteAccess()", [&] { m_ps->AddPOToDirtyObjectSet(null); }},
                                {"HaveWriteAccess()", [&] { m_ps->SyncPermanentlyDeleteObject(&transient); }},
                                {"HaveWriteAccess()", [&] { m_ps->SyncPermanentlyDeleteSubTree(&transient); }},
                                {"HaveWriteAccess()", [&] { m_ps->AsyncPermanentlyDeleteSubTree(null); }},
                                {"HaveWriteAccess()", [&] { m_ps->AsyncPermanentlyDeleteObject(null); }},
                                {"0", [&] { m_ps->DeclareObjectDoesNotExist(none); }},
                                {"po", [&] { m_ps->OnGarbageCollectPersistable(null); }}});
    const SpaceScope scope(m_ps);
    ExpectChecks("src/PSpace", {{"oid", [&] { m_ps->BindObject(none); }},
                                {"oid", [&] { m_ps->TryBindObject(none); }},
                                {"oid", [&] { m_ps->BindObjectIfMemoryResident(none); }},
                                {"GetAssociatedCSpace(root) == m_cspace", [&] { m_ps->AddRoot(nullptr, &transient); }},
                                {"po", [&] { m_ps->MakeObjectPersist(null, true); }},
                                {"po", [&] { m_ps->MakeObjectPersistWithGivenOID(null, none, true); }},
                                {"oid", [&] { m_ps->MakeObjectPersistWithGivenOID(&transient, none, true); }},
                                {"GetAssociatedCSpace(po) == m_cspace",
                                 [&] { m_ps->MakeObjectPersistWithGivenOID(&transient, oid, true); }},
                                {"po", [&] { m_ps->AddPOToDirtyObjectSet(null); }},
                                {"GetOid(po)", [&] { m_ps->SyncPermanentlyDeleteObject(&transient); }},
                                {"GetOid(po)", [&] { m_ps->SyncPermanentlyDeleteSubTree(&transient); }},
                                {"!HaveLock(m_cspace)", [&] { m_ps->Close(); }}});
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    ExpectChecks("src/PSpaceRoots", {{"name", [&] { m_ps->GetRoot(nullptr); }},
                                     {"strlen(name) > 0", [&] { m_ps->GetRoot(""); }},
                                     {"pspace", [&] { m_ps->m_roots.AddRoot(nullptr, nullptr, null); }},
                                     {"name", [&] { m_ps->m_roots.AddRoot(m_ps, nullptr, null); }},
                                     {"strlen(name) > 0", [&] { m_ps->m_roots.AddRoot(m_ps, "", null); }},
                                     {"root", [&] { m_ps->m_roots.AddRoot(m_ps, "r", null); }},
                                     {"name", [&] { m_ps->RemoveRoot(nullptr); }},
                                     {"strlen(name) > 0", [&] { m_ps->RemoveRoot(""); }}});
    m_ps->MakeObjectPersist(leaf, false);
    ExpectChecks("src/PSpace", {{"!GetOid(po)", [&] { m_ps->MakeObjectPersist(leaf, true); }},
                                {"!GetOid(po)", [&] { m_ps->MakeObjectPersistWithGivenOID(leaf, oid, true); }},
                                {"0", [&] { m_ps->SyncPermanentlyDeleteSubTree(leaf); }}});
    ExpectChecks("src/PSpaceRoots", {{"!GetOid(root)", [&] { m_ps->AddRoot("r", leaf); }}});
}

TEST_F(ContractOfStore, DeletionRequestsCheckInThisOrder) {
    const SpaceScope scope(m_ps);
    DeletionQueue queue(false);
    ExpectChecks("src/DeletionQueue", {{"pspace", [&] { queue.AsyncPermanentlyDeleteSubTree(nullptr, null); }},
                                       {"obj", [&] { queue.AsyncPermanentlyDeleteSubTree(m_ps, null); }},
                                       {"obj->RepresentsSubTree()",
                                        [&] { queue.AsyncPermanentlyDeleteSubTree(m_ps, NewObject<TestNoSubTree>()); }},
                                       {"pspace", [&] { queue.AsyncPermanentlyDeleteObject(nullptr, null); }},
                                       {"obj", [&] { queue.AsyncPermanentlyDeleteObject(m_ps, null); }},
                                       {"pspace", [&] { queue.AccumulateDelta(nullptr); }}});
    RecordingLss& lss = m_store.Record();
    const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
    DeletionQueue dirty(true);
    ExpectChecks("src/DeletionQueue", {{"pspace", [&] { dirty.WriteDQToLssIfDirty(OID(), nullptr, *txn.Get()); }},
                                       {"oid", [&] { dirty.WriteDQToLssIfDirty(OID(), m_ps, *txn.Get()); }},
                                       {"oid", [&] { dirty.ReadFromLss(nullptr, OID()); }},
                                       {"lss", [&] { dirty.ReadFromLss(nullptr, OID(1, 1)); }}});
}

TEST_F(ContractOfStore, TransactionsCheckInThisOrder) {
    PSpaceLockMode noSpace[] = {{nullptr, static_cast<ECSpaceLockMode>(3)}};
    PSpaceLockMode unlocked[] = {{m_ps, Exclusive}};
    ExpectChecks("src/PersistStoreTxn", {{"ps",
                                          [] {
                                              PersistStoreTxn* txn = new PersistStoreTxn(nullptr, nullptr, 0);
                                              txn->Close();
                                          }},
                                         {"L", [&] { OpenTxn(m_store.Get(), nullptr, 1); }},
                                         {"m.space", [&] { OpenTxn(m_store.Get(), noSpace, 1); }},
                                         {"HaveExclusiveLock(cs)", [&] { OpenTxn(m_store.Get(), unlocked, 1); }}});
}

// ---- Orders ----

TEST_F(ContractOfStore, AGroupWriteRunsUnderThePairOfEachMemberAndExclusively) {
    PSpace* const other = m_store.OpenSpace("other");
    for (PSpace* ps : {m_ps, other}) {
        const SpaceScope scope(ps);
        ps->AddRoot("r", NewObject<TestLeaf>(1));
    }
    m_store->GetPSpaceTxnGroupMgr().MergeTwoPSpaceTxnGroups(m_ps, other);
    RecordingLss& lss = m_store.Record();
    std::vector<std::pair<Seid, PSpace*>> seen;
    lss.m_onWrite = [&](Seid seid) {
        seen.emplace_back(seid, GetThreadPSpace());
        if (GetThreadPSpace()) {
            EXPECT_EQ(GetThreadPSpace()->GetCSpace(), GetThreadCSpace());
        }
        EXPECT_TRUE(HaveExclusiveLock(m_ps->GetCSpace()));
        EXPECT_TRUE(HaveExclusiveLock(other->GetCSpace()));
        EXPECT_FALSE(m_store->m_dosWriter.mutex_.try_lock());
    };
    m_ps->WriteDirtyObjectsToLss(true);
    lss.m_onWrite = nullptr;
    ASSERT_EQ(8u, seen.size());
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(m_ps, seen[i].second);
    for (std::size_t i = 3; i < 6; ++i) EXPECT_EQ(other, seen[i].second);
    EXPECT_EQ(m_ps->m_roots.m_dqOid, seen[0].first);
    EXPECT_EQ(m_ps->m_roots.m_oid, seen[1].first);
    EXPECT_EQ(ROOT_PERSISTSTORE_OBJECT_SEID, seen[6].first);
    EXPECT_EQ(PSPACEMAP_SEID, seen[7].first);
    EXPECT_EQ(nullptr, seen[6].second);
    EXPECT_EQ(nullptr, seen[7].second);
    EXPECT_EQ(nullptr, GetThreadPSpace());
}

TEST_F(ContractOfStore, ASpacesOwnPartOfAGroupWriteIsRootsThenQueueThenObjects) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(1);
        m_ps->AddRoot("r", leaf);
        oid = GetOid(leaf);
    }
    RecordingLss& lss = m_store.Record();
    const SpaceScope scope(m_ps);
    const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
    m_ps->WriteDirtyObjectsToLss(*txn.Get());
    EXPECT_EQ((std::vector<std::string>{"open", "write " + TextOfSeid(m_ps->m_roots.m_oid),
                                        "write " + TextOfSeid(m_ps->m_roots.m_dqOid), "write " + TextOfSeid(oid)}),
              lss.Log());
}

TEST_F(ContractOfStore, BootstrapCallsOnCreateBeforeItNamesTheRoot) {
    // A class that notes what it sees in OnCreate.
    static bool s_hadOid = true;
    class Noticing : public PersistableMixin<IObjectBaseMixin<Noticing, EmptyBase>> {
    public:
        static ptr<IObject> sfnCreateInstance() { return ptr<IObject>(new Noticing); }
        const ReflectedClass* GetReflectedClass() const { return &quna::GetReflectedClass<TestLeaf>(); }
        void Serialise(Archive& ar) const { ar << int32{0}; }
        InputArchive Deserialise(InputArchive ar) { return ar += 4; }
        void OnCreate(bool) { s_hadOid = static_cast<bool>(GetOid(this)); }
    };
    ReflectedClass rc = GetReflectedClass<TestLeaf>();
    rc.m_createFn = &Noticing::sfnCreateInstance;
    const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
    EXPECT_NE(nullptr, BootstrapPSpaceRoot(rc, "root"));
    EXPECT_FALSE(s_hadOid);
}

TEST_F(ContractOfStore, AddRootEntersTheNameBeforeItMakesTheRootPersistent) {
    RecordingLss& lss = m_store.Record();
    const SpaceScope scope(m_ps);
    m_ps->m_roots.m_dirty = false;
    lss.m_refuseAffiliates = true;
    ExpectAssertion("m_lss->AllocateAffiliateSeid(seid)", [&] { m_ps->AddRoot("r", NewObject<TestLeaf>(1)); });
    lss.m_refuseAffiliates = false;
    EXPECT_TRUE(m_ps->m_roots.m_roots.empty()); // and takes it out again when that fails
}

// ---- Golden records of a small store ----

TEST_F(ContractOfStore, EveryRecordOfASmallStoreHasExactlyTheseBytes) {
    OID leafOid;
    OID nodeOid;
    {
        const SpaceScope scope(m_ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(-2, "zwei");
        TestNode* const node = NewObject<TestNode>("top", std::initializer_list<ptr<IPersistable>>{leaf, leaf});
        node->m_next = node;
        m_ps->AddRoot("root", node);
        nodeOid = GetOid(node);
        leafOid = GetOid(leaf);
    }
    const OID spaceOid = m_ps->m_roots.m_oid;
    const OID dqOid = m_ps->m_roots.m_dqOid;
    m_store.Close();
    const BareLss lss(m_store.Path());
    const auto expect = [&](const Bytes& bytes, Seid seid) { EXPECT_EQ(bytes, ElementOf(*lss, seid)); };
    expect(Bytes{2, 1, 2} + BytesOfString("test::Node") + BytesOfString("test::Leaf") + Bytes{1, 0, 0, 0, 1, 0},
           ROOT_PERSISTSTORE_OBJECT_SEID);
    expect(Bytes{1, 1, 1, 's'} + BytesOfOid(spaceOid), PSPACEMAP_SEID);
    expect(Bytes{1, 1, 4, 'r', 'o', 'o', 't'} + BytesOfOid(nodeOid) + BytesOfOid(dqOid), spaceOid);
    expect(Bytes{1, 0, 0}, dqOid);
    expect(Bytes{1, 1, 3, 't', 'o', 'p'} + BytesOfOid(nodeOid) + Bytes{2} + BytesOfOid(leafOid) + BytesOfOid(leafOid),
           nodeOid);
    expect(Bytes{2, 1, 0xfe, 0xff, 0xff, 0xff, 4, 'z', 'w', 'e', 'i'}, leafOid);
    LssStats stats;
    lss->GetStats(stats);
    EXPECT_EQ(6, stats.numLiveHeadPackets);
}

} // namespace
} // namespace quna

#include "qxPersistStore/src/PersistStore.h"

#include "qxLss/CorruptLSSException.h"
#include "qxObject/QunaSystemException.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "tests/support/TestStore.h"

#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace quna {
namespace {

const Bytes NEW_ROOT_RECORD = {2, 1, 0, 1, 0, 0, 0, 1, 0};
const Bytes EMPTY_MAP_RECORD = {1, 0};

int64 NumTransactions(PersistStore* ps) {
    LssStats stats;
    ps->m_lss->GetStats(stats);
    return stats.numTransactions;
}

// A closed store that has an object of TestLeaf, TestNode and an empty root record otherwise.
void MakeStoreWithTwoClasses(TestStore& store) {
    PSpace* const ps = store.OpenSpace("s");
    {
        const SpaceScope scope(ps);
        ps->AddRoot("leaf", NewObject<TestLeaf>(1));
        ps->AddRoot("node", NewObject<TestNode>("n"));
    }
    store.Close();
}

TEST(PersistStore, ANewStoreHoldsItsTwoFixedRecordsAndNothingElse) {
    const TestStore store;
    EXPECT_TRUE(store->CreatedNew());
    EXPECT_EQ(0, store->GetNumPSpaces());
    LssStats stats;
    store->GetLss()->GetStats(stats);
    EXPECT_EQ(2, stats.numLiveHeadPackets);
    EXPECT_EQ(NEW_ROOT_RECORD, ElementOf(*store->GetLss(), ROOT_PERSISTSTORE_OBJECT_SEID));
    EXPECT_EQ(EMPTY_MAP_RECORD, ElementOf(*store->GetLss(), PSPACEMAP_SEID));
    EXPECT_EQ(1u, store->GetOidHighForOidAllocations());
    EXPECT_FALSE(store->m_rootObject.m_dirty);
}

TEST(PersistStore, TheFixedIdentifiersAreThoseOfTheFileFormat) {
    EXPECT_EQ(0x0000000100000000u, ROOT_SEID.value_);
    EXPECT_EQ(ROOT_SEID, ROOT_PERSISTSTORE_OBJECT_SEID);
    EXPECT_EQ(0x0000000100000001u, PSPACEMAP_SEID.value_);
    EXPECT_EQ(2, NUM_PERSISTSTORE_SERIAL_ELEMENTS);
    EXPECT_EQ(2, NUM_PSPACE_SERIAL_ELEMENTS);
}

TEST(PersistStore, AReopenedStoreIsNotNewAndKeepsItsHighHalf) {
    TestStore store;
    store.Reopen();
    EXPECT_FALSE(store->CreatedNew());
    EXPECT_EQ(1u, store->GetOidHighForOidAllocations());
    EXPECT_FALSE(store->m_rootObject.m_dirty);
    EXPECT_EQ(0, store->GetNumPSpaces());
}

TEST(PersistStore, SettingsStartWithTheirDefaults) {
    const PersistStoreSettings settings;
    EXPECT_EQ(nullptr, settings.deltasDirPath);
    EXPECT_EQ(nullptr, settings.translationTable);
    EXPECT_TRUE(settings.startObjectDeletion);
    EXPECT_EQ(1000, settings.lssSettings.flushTimeMilliSec);
    EXPECT_EQ(85.0, settings.lssSettings.cleanerUtilisationPercent);
    EXPECT_FALSE(settings.lssSettings.enableFileBuffering);
    EXPECT_FALSE(settings.lssSettings.enableWriteThrough);
    EXPECT_EQ(32, settings.lssSettings.maxNumSegmentsInCache);
    EXPECT_EQ(128, settings.lssSettings.numSegmentsPerCheckPoint);
    EXPECT_EQ(524288, settings.lssSettings.segmentSize);
    EXPECT_FALSE(settings.lssSettings.forceIncrementMSSN);
    EXPECT_FALSE(settings.lssSettings.validateSUTDuringCheckPoint);
}

TEST(PersistStore, WithTheWriterStoppedWritingAllDoesNothing) {
    TestStore store;
    PSpace* const ps = store.OpenSpace("s");
    {
        const SpaceScope scope(ps);
        ps->AddRoot("leaf", NewObject<TestLeaf>(1));
    }
    RecordingLss& lss = store.Record();
    store->WriteAllDirtyObjectsToLss(true);
    EXPECT_TRUE(lss.Log().empty());
    EXPECT_TRUE(ps->HaveChangesToWriteToLss());
}

TEST(PersistStore, WithTheWriterStoppedItDoesNotCountObjects) {
    TestStore store;
    ExpectAssertion("m_startedDosWriter", "src/PersistStore", [&] { (void)store->GetNumPersistableObjects(); });
    store->StartObjectDeletion();
    EXPECT_EQ(0, store->GetNumPersistableObjects());
    store->StartObjectDeletion(); // starts nothing more
    EXPECT_EQ(0, store->GetNumPersistableObjects());
}

TEST(PersistStore, OnceTheWriterIsStartedWritingAllWrites) {
    TestStore store;
    PSpace* const ps = store.OpenSpace("s");
    store->SetDosPeriod(600000);
    store->StartObjectDeletion();
    {
        const SpaceScope scope(ps);
        ps->AddRoot("leaf", NewObject<TestLeaf>(1));
    }
    store->WriteAllDirtyObjectsToLss(true);
    EXPECT_FALSE(ps->HaveChangesToWriteToLss());
}

TEST(PersistStore, WithDefaultSettingsAStoreWithoutSpacesCountsNoObjects) {
    const TestStore store{PersistStoreSettings()};
    EXPECT_EQ(0, store->GetNumPersistableObjects());
}

TEST(PersistStore, CountsTheObjectsButNotTheRecordsOfSpaces) {
    TestStore store{PersistStoreSettings()};
    for (const char* name : {"a", "b", "c"}) {
        PSpace* const ps = store.OpenSpace(name);
        const SpaceScope scope(ps);
        ps->AddRoot("r", NewObject<TestNode>("root", std::initializer_list<ptr<IPersistable>>{NewObject<TestLeaf>(1)}));
    }
    EXPECT_EQ(6, store->GetNumPersistableObjects());
    EXPECT_EQ(3, store->GetNumPSpaces());
}

TEST(PersistStore, DisableTracesOnceACallAndChangesNothingButTheAnswer) {
    TestStore store;
    PSpace* const ps = store.OpenSpace("s");
    EXPECT_TRUE(store->Enabled());
    CollectedTrace trace;
    store->Disable();
    store->Disable();
    const std::string text = "PS: *** There are dirty objects so disabling writing of objects to disk\n";
    EXPECT_EQ((std::vector<std::string>{text, text}), trace.Texts());
    EXPECT_FALSE(store->Enabled());
    OID oid;
    {
        const SpaceScope scope(ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(1);
        ps->AddRoot("leaf", leaf);
        oid = GetOid(leaf);
    }
    ps->WriteDirtyObjectsToLss(false);
    EXPECT_TRUE(store.Has(oid));
}

TEST(PersistStore, ThePeriodIsASecondUntilItIsSet) {
    const TestStore store;
    EXPECT_EQ(1000, store->GetDosPeriod());
    store->SetDosPeriod(250);
    EXPECT_EQ(250, store->GetDosPeriod());
    EXPECT_EQ(250, GetDosPeriod(store.Get()));
}

TEST(PersistStore, SettingThePeriodWakesTheWriterEvenIfItIsTheSame) {
    TestStore store;
    PSpace* const ps = store.OpenSpace("s");
    RecordingLss& lss = store.Record();
    store->SetDosPeriod(600000);
    store->StartObjectDeletion();
    {
        const SpaceScope scope(ps);
        ps->AddRoot("leaf", NewObject<TestLeaf>(1));
    }
    store->SetDosPeriod(600000);
    lss.WaitFor("close", 1);
    EXPECT_EQ(600000, store->GetDosPeriod());
}

TEST(PersistStore, CountsASpaceThatHasBeenClosed) {
    TestStore store;
    store.CloseSpace(store.OpenSpace("s"));
    EXPECT_EQ(1, store->GetNumPSpaces());
    store.Reopen();
    EXPECT_EQ(1, store->GetNumPSpaces());
}

TEST(PersistStore, ClosingItWithASpaceOpenFailsAfterTheFileIsClosed) {
    TestStore store;
    static std::vector<void*> leftOpen; // the space and its domain have no owner any more
    CSpace* const cs = CreateCSpace();
    PSpace* const ps = store.OpenSpace("s", OM_OPEN_ALWAYS, cs);
    leftOpen.push_back(ps);
    leftOpen.push_back(cs);
    store.Forget(ps);
    ExpectAssertion("i->second.m_ptr == __null", "src/PSpaceMap", [&] { store->Close(); });
    store.ForgetStore();
    store.Open();
    EXPECT_FALSE(store->CreatedNew());
    EXPECT_EQ(0, store->GetNumPSpaces());
}

TEST(PersistStore, AllocatesIdentifiersNearAHintAndInOrder) {
    TestStore store;
    const OID first = store->AllocateOid(1);
    const OID second = store->AllocateOid(1);
    EXPECT_EQ(1u, first.high_);
    EXPECT_LT(first, second);
    const OID near = store->AllocateAffiliateOid(0);
    EXPECT_EQ(1u, near.high_);
    EXPECT_EQ(1u, store->AllocateAffiliateOid(1, near.low_).high_);
    RecordingLss& lss = store.Record();
    lss.m_affiliateInWrongSpace = true;
    ExpectAssertion("seid.high_ == oidHigh", [&] { store->AllocateAffiliateOid(1, 0); });
    lss.m_affiliateInWrongSpace = false;
    lss.m_refuseAffiliates = true;
    ExpectAssertion("m_lss->AllocateAffiliateSeid(seid)", [&] { store->AllocateAffiliateOid(0); });
    ExpectAssertion("m_lss->AllocateAffiliateSeid(seid)", [&] { store->AllocateAffiliateOid(1, 0); });
}

TEST(PersistStore, ANewThreadHasNoCurrentSpace) {
    std::thread([] {
        EXPECT_EQ(nullptr, GetThreadPSpace());
        EXPECT_EQ(nullptr, GetThreadCSpace());
    }).join();
}

TEST(PersistStore, SettingTheThreadsSpaceLeavesItsDomainAlone) {
    TestStore store;
    PSpace* const ps = store.OpenSpace("s");
    SetThreadPSpace(ps);
    EXPECT_EQ(ps, GetThreadPSpace());
    EXPECT_EQ(ps, GetThreadPtr<PSpace>());
    EXPECT_EQ(nullptr, GetThreadCSpace());
    SetThreadPSpace(nullptr);
}

TEST(PersistStore, OpeningRefusesWhatTheModeDoesNotAllowAndLeavesTheFile) {
    TestStore store;
    store.Close();
    const auto open = [&](const std::string& path, EOpenMode mode) {
        OpenPersistStore(path.c_str(), mode, TestStore::WithoutWriter())->Close();
    };
    EXPECT_THROW(open(store.Path(), OM_CREATE_NEW), FileException);
    EXPECT_THROW(open(store.Dir().File("missing"), OM_OPEN_EXISTING), FileException);
    EXPECT_FALSE(std::filesystem::exists(store.Dir() / "missing"));
    std::ofstream(store.Dir() / "text") << std::string(100000, 'x');
    EXPECT_THROW(open(store.Dir().File("text"), OM_OPEN_EXISTING), CorruptLSSException);
    EXPECT_EQ(100000u, std::filesystem::file_size(store.Dir() / "text"));
    std::ofstream(store.Dir() / "empty");
    EXPECT_THROW(open(store.Dir().File("empty"), OM_OPEN_EXISTING), CorruptLSSException);
    store.Open();
    EXPECT_THROW(open(store.Path(), OM_OPEN_EXISTING), FileException);
    EXPECT_EQ(0, store->GetNumPSpaces());
}

TEST(PersistStore, OpenedReadOnlyItReadsAndLeavesTheFileAsItIs) {
    TestStore store;
    MakeStoreWithTwoClasses(store);
    const auto readFile = [&] {
        std::ifstream file(store.Path(), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    const std::string before = readFile();
    for (const EOpenMode mode : {OM_OPEN_EXISTING_READ_ONLY, OM_OPEN_EXISTING_SHARED_READ}) {
        store.Open(TestStore::WithoutWriter(), mode);
        PSpace* const ps = store.OpenSpace("s", OM_OPEN_EXISTING);
        {
            const SpaceScope scope(ps, SharedRead);
            EXPECT_EQ(1, static_cast<const TestLeaf*>(ps->GetRoot("leaf").m_self)->m_number);
        }
        EXPECT_THROW(store->OpenPSpace("new", OM_OPEN_ALWAYS, nullptr), FileException);
        store.Close();
        EXPECT_TRUE(before == readFile());
    }
}

TEST(PersistStore, WithAWriterOpenIsClosedCleanlyAtOnce) {
    for (int i = 0; i < 5; ++i) const TestStore store{PersistStoreSettings()};
}

// ---- The root record ----

TEST(RootPersistStoreObject, StartsCleanAndEmptyAndIsNotWrittenLikeThat) {
    RootPersistStoreObject root;
    EXPECT_FALSE(root.m_dirty);
    EXPECT_EQ(0u, root.m_oidHighForOidAllocations);
    ExpectAssertion("m_oidHighForOidAllocations", "src/RootPersistStoreObject",
                    [&] { Written([&](Archive& ar) { root.Serialise(ar); }); });
}

TEST(RootPersistStoreObject, WritesItsHighHalfAsFourRawBytesThroughNoHook) {
    RootPersistStoreObject root;
    root.m_oidHighForOidAllocations = 0x01020304;
    struct Hook : IItemSerialiser {
        void SerialiseItem(Archive&, const void*) override { ADD_FAILURE() << "the hook was called"; }
    } hook;
    const Bytes bytes = Written([&](Archive& ar) {
        ar.m_oidHighSerialiser = &hook;
        root.Serialise(ar);
    });
    EXPECT_EQ((Bytes{2, 1, 0, 4, 3, 2, 1, 1, 0}), bytes);
    RootPersistStoreObject read;
    EXPECT_EQ(bytes.data() + bytes.size(), read.Deserialise(bytes.data(), nullptr).ptr());
    EXPECT_EQ(0x01020304u, read.m_oidHighForOidAllocations);
    EXPECT_FALSE(read.m_dirty);
}

TEST(RootPersistStoreObject, WithAClassItHoldsTheClassesName) {
    TestStore store;
    MakeStoreWithTwoClasses(store);
    const BareLss lss(store.Path());
    const Bytes expected =
        Bytes{2, 1, 2} + BytesOfString("test::Leaf") + BytesOfString("test::Node") + Bytes{1, 0, 0, 0, 1, 0};
    EXPECT_EQ(expected, ElementOf(*lss, ROOT_PERSISTSTORE_OBJECT_SEID));
}

TEST(RootPersistStoreObject, ARecordOfSchema1IsReadAndUpgradedByTheNextWrite) {
    TestStore store;
    store.Close();
    PutElement(*BareLss(store.Path()), ROOT_PERSISTSTORE_OBJECT_SEID, {1, 1, 0, 1, 0, 0, 0});
    store.Open();
    EXPECT_EQ(1u, store->GetOidHighForOidAllocations());
    ExpectException<BadTypeOpsIdException>("Bad TypeOpsId : 1", [&] { store->GetTypeOps(1); });
    EXPECT_EQ((Bytes{1, 1, 0, 1, 0, 0, 0}), store.Element(ROOT_PERSISTSTORE_OBJECT_SEID));
    PSpace* const ps = store.OpenSpace("s");
    {
        const SpaceScope scope(ps);
        ps->AddRoot("leaf", NewObject<TestLeaf>(1));
    }
    store.CloseSpace(ps);
    EXPECT_EQ((Bytes{2, 1, 1} + BytesOfString("test::Leaf") + Bytes{1, 0, 0, 0, 1, 0}),
              store.Element(ROOT_PERSISTSTORE_OBJECT_SEID));
}

TEST(RootPersistStoreObject, AMissingRecordIsReported) {
    TestStore store;
    store.Close();
    DeleteElement(*BareLss(store.Path()), ROOT_PERSISTSTORE_OBJECT_SEID);
    ExpectException<QunaSystemException>("PersistStore is missing root object", [&] { store.Open(); });
}

TEST(RootPersistStoreObject, ARecordWithAByteTooManyIsCorrupt) {
    TestStore store;
    store.Close();
    PutElement(*BareLss(store.Path()), ROOT_PERSISTSTORE_OBJECT_SEID, NEW_ROOT_RECORD + Bytes{0});
    ExpectException<QunaSystemException>("PersistStore root object is corupt", [&] { store.Open(); });
}

TEST(RootPersistStoreObject, ARecordWithAByteTooFewIsRefused) {
    TestStore store;
    store.Close();
    Bytes bytes = NEW_ROOT_RECORD;
    while (!bytes.empty()) {
        bytes.pop_back();
        PutElement(*BareLss(store.Path()), ROOT_PERSISTSTORE_OBJECT_SEID, bytes);
        EXPECT_THROW(store.Open(), IException) << bytes.size() << " bytes";
    }
}

TEST(RootPersistStoreObject, AHighHalfOfZeroIsRefused) {
    TestStore store;
    store.Close();
    PutElement(*BareLss(store.Path()), ROOT_PERSISTSTORE_OBJECT_SEID, {2, 1, 0, 0, 0, 0, 0, 1, 0});
    ExpectAssertion("m_oidHighForOidAllocations", "src/RootPersistStoreObject", [&] { store.Open(); });
}

TEST(RootPersistStoreObject, ARepeatedClassNameIsRefused) {
    TestStore store;
    store.Close();
    PutElement(*BareLss(store.Path()), ROOT_PERSISTSTORE_OBJECT_SEID, {2, 1, 2, 1, 'A', 1, 'A', 1, 0, 0, 0, 1, 0});
    ExpectException<RepeatedClassNameInCidMapException>("Repeated class name A", [&] { store.Open(); });
}

TEST(RootPersistStoreObject, ANewerSchemaIsRefused) {
    TestStore store;
    store.Close();
    PutElement(*BareLss(store.Path()), ROOT_PERSISTSTORE_OBJECT_SEID, {3, 1, 0, 1, 0, 0, 0, 1, 0});
    EXPECT_THROW(store.Open(), IException);
}

TEST(PersistStore, AfterAFailedOpenTheSameProcessCanTryAgain) {
    TestStore store;
    store.Close();
    PutElement(*BareLss(store.Path()), ROOT_PERSISTSTORE_OBJECT_SEID, NEW_ROOT_RECORD + Bytes{0});
    EXPECT_THROW(store.Open(), QunaSystemException);
    EXPECT_THROW(store.Open(), QunaSystemException);
    PutElement(*BareLss(store.Path()), ROOT_PERSISTSTORE_OBJECT_SEID, NEW_ROOT_RECORD);
    store.Open();
    EXPECT_FALSE(store->CreatedNew());
}

TEST(PersistStore, ATranslationThatRenamesNothingWritesNothing) {
    TestStore store;
    MakeStoreWithTwoClasses(store);
    const ClassNameTranslation entries[] = {{"test::Gone", "test::Leaf2"}};
    const ClassNameTranslationTable table = {entries, 1};
    PersistStoreSettings settings = TestStore::WithoutWriter();
    store.Open();
    const int64 before = NumTransactions(store.Get());
    store.Reopen();
    const int64 without = NumTransactions(store.Get());
    settings.translationTable = &table;
    store.Reopen(settings);
    EXPECT_EQ(without - before, NumTransactions(store.Get()) - without);
}

TEST(PersistStore, ATranslationThatRenamesAStoredClassIsWrittenAtOnceInOneTransaction) {
    TestStore store;
    MakeStoreWithTwoClasses(store);
    // The stored name becomes an old one, as if an earlier program had written it.
    PutElement(*BareLss(store.Path()), ROOT_PERSISTSTORE_OBJECT_SEID,
               Bytes{2, 1, 2} + BytesOfString("old::Leaf") + BytesOfString("test::Node") + Bytes{1, 0, 0, 0, 1, 0});
    const ClassNameTranslation entries[] = {{"old::Leaf", "test::Leaf"}};
    const ClassNameTranslationTable table = {entries, 1};
    PersistStoreSettings settings = TestStore::WithoutWriter();
    store.Open();
    const int64 before = NumTransactions(store.Get());
    store.Reopen();
    const int64 without = NumTransactions(store.Get());
    settings.translationTable = &table;
    store.Reopen(settings);
    EXPECT_EQ(without - before + 1, NumTransactions(store.Get()) - without);
    EXPECT_FALSE(store->m_rootObject.m_dirty);
    EXPECT_EQ((Bytes{2, 1, 2} + BytesOfString("test::Leaf") + BytesOfString("test::Node") + Bytes{1, 0, 0, 0, 1, 0}),
              store.Element(ROOT_PERSISTSTORE_OBJECT_SEID));
    store.Reopen(); // the name is the new one now
    PSpace* const ps = store.OpenSpace("s", OM_OPEN_EXISTING);
    const SpaceScope scope(ps);
    EXPECT_EQ(&GetReflectedClass<TestLeaf>(), ps->GetRoot("leaf")->GetReflectedClass());
}

TEST(RootPersistStoreObject, IsNotWrittenWhileItIsClean) {
    TestStore store;
    RecordingLss& lss = store.Record();
    const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
    store->WriteRootObjectIfDirty(*txn.Get());
    EXPECT_EQ(std::vector<std::string>{"open"}, lss.Log());
    store->m_rootObject.m_dirty = true;
    store->WriteRootObjectIfDirty(*txn.Get());
    EXPECT_FALSE(store->m_rootObject.m_dirty);
    store->WriteRootObjectIfDirty(*txn.Get());
    EXPECT_EQ((std::vector<std::string>{"open", "write 00000001:00000000"}), lss.Log());
}

TEST(RootPersistStoreObject, StaysDirtyWhenItsWriteFails) {
    TestStore store;
    RecordingLss& lss = store.Record();
    lss.m_onWrite = [](Seid) { throw FileException("full"); };
    store->m_rootObject.m_dirty = true;
    {
        const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
        EXPECT_THROW(store->WriteRootObjectIfDirty(*txn.Get()), FileException);
    }
    EXPECT_TRUE(store->m_rootObject.m_dirty);
}

TEST(PersistStore, AClassGetsItsIdWhenAnObjectOfItIsFirstWrittenAndMarksTheRootDirty) {
    TestStore store;
    EXPECT_EQ(1, store->GetCid(GetReflectedClass<TestLeaf>()));
    EXPECT_TRUE(store->m_rootObject.m_dirty);
    store->m_rootObject.m_dirty = false;
    EXPECT_EQ(1, store->GetCid(GetReflectedClass<TestLeaf>()));
    EXPECT_FALSE(store->m_rootObject.m_dirty);
    EXPECT_EQ(2, store->GetCid(GetReflectedClass<TestNode>()));
    EXPECT_TRUE(store->m_rootObject.m_dirty);
    EXPECT_EQ(&GetReflectedClass<TestNode>(), &store->GetReflectedClass(2));
}

} // namespace
} // namespace quna

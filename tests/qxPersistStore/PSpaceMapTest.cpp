#include "qxPersistStore/src/PSpaceMap.h"

#include "qxPersistStore/PersistStoreExceptions.h"
#include "tests/support/TestStore.h"

#include <thread>

#include <gtest/gtest.h>

namespace quna {
namespace {

OID OidOf(PSpace* ps) { return ps->m_roots.m_oid; }

class PSpaceMapOfTest : public ::testing::Test {
protected:
    // Opens in that mode and says whether the space was created.
    bool Creates(ConstStringZ name, EOpenMode mode) {
        PSpace* const ps = m_store.OpenSpace(name, mode);
        const bool created = ps->CreatedNew();
        m_store.CloseSpace(ps);
        return created;
    }
    Bytes MapRecord() { return m_store.Element(PSPACEMAP_SEID); }

    TestStore m_store;
};

TEST_F(PSpaceMapOfTest, EachModeTreatsANameThatIsNotThereAsItsTableSays) {
    EXPECT_TRUE(Creates("create new", OM_CREATE_NEW));
    EXPECT_TRUE(Creates("create always", OM_CREATE_ALWAYS));
    EXPECT_TRUE(Creates("read only", OM_OPEN_EXISTING_READ_ONLY));
    EXPECT_TRUE(Creates("shared read", OM_OPEN_EXISTING_SHARED_READ));
    EXPECT_TRUE(Creates("open always", OM_OPEN_ALWAYS));
    ExpectException<OpenPSpaceException>("Could not open existing PSpace \"x\", a PSpace with that name does not exist",
                                         [&] { m_store->OpenPSpace("x", OM_OPEN_EXISTING, nullptr); });
    ExpectException<OpenPSpaceException>(
        "Could not delete existing PSpace \"x\", a PSpace with that name does not exist",
        [&] { m_store->OpenPSpace("x", OM_DELETE_EXISTING, nullptr); });
    EXPECT_EQ(5, m_store->GetNumPSpaces());
}

TEST_F(PSpaceMapOfTest, EachModeTreatsANameThatIsThereAsItsTableSays) {
    PSpace* ps = m_store.OpenSpace("s", OM_OPEN_ALWAYS);
    const OID oid = OidOf(ps);
    {
        const SpaceScope scope(ps);
        ps->AddRoot("leaf", NewObject<TestLeaf>(5));
    }
    m_store.CloseSpace(ps);
    ExpectException<OpenPSpaceException>("Could not create new PSpace \"s\", a PSpace with that name already exists",
                                         [&] { m_store->OpenPSpace("s", OM_CREATE_NEW, nullptr); });
    for (const EOpenMode mode : {OM_CREATE_ALWAYS, OM_OPEN_EXISTING, OM_OPEN_EXISTING_READ_ONLY,
                                 OM_OPEN_EXISTING_SHARED_READ, OM_OPEN_ALWAYS, OM_DELETE_EXISTING}) {
        ps = m_store.OpenSpace("s", mode);
        EXPECT_FALSE(ps->CreatedNew()) << mode;
        EXPECT_EQ(oid, OidOf(ps)) << mode;
        {
            const SpaceScope scope(ps);
            EXPECT_TRUE(ps->GetRoot("leaf")) << mode;
        }
        m_store.CloseSpace(ps);
    }
    EXPECT_EQ(1, m_store->GetNumPSpaces());
}

TEST_F(PSpaceMapOfTest, ASpaceIsOpenOnceOnly) {
    m_store.OpenSpace("s");
    ExpectAssertion("e.m_ptr == __null", "src/PSpaceMap", [&] { m_store->OpenPSpace("s", OM_OPEN_ALWAYS, nullptr); });
}

using PSpaceMapThreads = PSpaceMapOfTest;

TEST_F(PSpaceMapThreads, ANameUnderConstructionIsRefusedAtOnceAndHoldsNobodyUp) {
    PSpace* ps = m_store.OpenSpace("s");
    const OID oid = OidOf(ps);
    m_store.CloseSpace(ps);
    RecordingLss& lss = m_store.Record();
    bool entered = false;
    lss.m_onRead = [&](Seid seid) {
        if (seid != oid) return;
        entered = true; // in the constructor of the space
        std::thread([&] {
            ExpectAssertion("e.m_ptr == __null", "src/PSpaceMap",
                            [&] { m_store->OpenPSpace("s", OM_OPEN_ALWAYS, nullptr); });
            EXPECT_EQ(1, m_store->GetNumPSpaces());
            PSpace* const other = OpenPSpace(m_store.Get(), "other", OM_CREATE_NEW, nullptr);
            other->Close();
        }).join();
    };
    ps = m_store.OpenSpace("s");
    lss.m_onRead = nullptr;
    EXPECT_TRUE(entered);
    EXPECT_EQ(oid, OidOf(ps));
}

TEST_F(PSpaceMapOfTest, ANewSpaceCountsAtOnceButIsOnDiskOnlyOnceWritten) {
    PSpace* const ps = m_store.OpenSpace("s");
    EXPECT_EQ(1, m_store->GetNumPSpaces());
    EXPECT_EQ((Bytes{1, 0}), MapRecord());
    EXPECT_FALSE(m_store.Has(OidOf(ps)));
    const OID oid = OidOf(ps);
    m_store.CloseSpace(ps);
    EXPECT_EQ((Bytes{1, 1, 1, 's'} + BytesOfOid(oid)), MapRecord());
    EXPECT_TRUE(m_store.Has(oid));
}

TEST_F(PSpaceMapOfTest, TheRecordSkipsSpacesThatAreNotCommitted) {
    PSpace* const a = m_store.OpenSpace("a");
    PSpace* const b = m_store.OpenSpace("b");
    EXPECT_EQ((Bytes{1, 0}), Written([&](Archive& ar) { m_store->m_spaceMap.Serialise(ar); }));
    m_store->m_spaceMap.CommitPSpace(b);
    EXPECT_EQ((Bytes{1, 1, 1, 'b'} + BytesOfOid(OidOf(b))),
              Written([&](Archive& ar) { m_store->m_spaceMap.Serialise(ar); }));
    m_store->m_spaceMap.CommitPSpace(a);
    m_store->m_spaceMap.CommitPSpace(a);
    EXPECT_EQ((Bytes{1, 2, 1, 'a'} + BytesOfOid(OidOf(a)) + Bytes{1, 'b'} + BytesOfOid(OidOf(b))),
              Written([&](Archive& ar) { m_store->m_spaceMap.Serialise(ar); }));
}

TEST_F(PSpaceMapOfTest, NamesAreOrderedByTheirBytes) {
    const OID a = OidOf(m_store.OpenSpace("a"));
    const OID upperB = OidOf(m_store.OpenSpace("B"));
    const OID aa = OidOf(m_store.OpenSpace("aa"));
    m_store.Close();
    m_store.Open();
    EXPECT_EQ((Bytes{1, 3, 1, 'B'} + BytesOfOid(upperB) + Bytes{1, 'a'} + BytesOfOid(a) + Bytes{2, 'a', 'a'} +
               BytesOfOid(aa)),
              MapRecord());
}

TEST_F(PSpaceMapOfTest, IsWrittenOnlyWhileItIsDirty) {
    RecordingLss& lss = m_store.Record();
    PSpace* const ps = m_store.OpenSpace("s");
    const auto write = [&] {
        lss.ClearLog();
        const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
        m_store->m_spaceMap.WriteIfDirty(*txn.Get());
        return lss.Log().size() == 2;
    };
    EXPECT_FALSE(write()); // a space was opened, but none is committed
    m_store->m_spaceMap.CommitPSpace(ps);
    EXPECT_TRUE(write());
    EXPECT_FALSE(write());
    m_store->m_spaceMap.CommitPSpace(ps);
    EXPECT_FALSE(write());
    EXPECT_EQ((Bytes{1, 1, 1, 's'} + BytesOfOid(OidOf(ps))), MapRecord());
}

TEST_F(PSpaceMapOfTest, StaysDirtyWhenItsWriteFails) {
    RecordingLss& lss = m_store.Record();
    m_store->m_spaceMap.CommitPSpace(m_store.OpenSpace("s"));
    lss.m_onWrite = [](Seid) { throw FileException("full"); };
    {
        const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
        EXPECT_THROW(m_store->m_spaceMap.WriteIfDirty(*txn.Get()), FileException);
    }
    lss.m_onWrite = nullptr;
    lss.ClearLog();
    const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
    m_store->m_spaceMap.WriteIfDirty(*txn.Get());
    EXPECT_EQ(1, lss.Count("write 00000001:00000001"));
}

TEST_F(PSpaceMapOfTest, NeedsAStreamToBeWritten) {
    RecordingLss& lss = m_store.Record();
    m_store->m_spaceMap.CommitPSpace(m_store.OpenSpace("s"));
    lss.m_givesNoStream = true;
    const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
    ExpectAssertion("os.Get()", "src/PSpaceMap", [&] { m_store->m_spaceMap.WriteIfDirty(*txn.Get()); });
    lss.m_givesNoStream = false;
    m_store->m_spaceMap.WriteIfDirty(*txn.Get());
}

TEST_F(PSpaceMapOfTest, ASpaceThatWasNeverWrittenLeavesNoTraceInACopyOfTheFile) {
    PSpace* const written = m_store.OpenSpace("written");
    written->WriteDirtyObjectsToLss(false); // nothing is dirty: nothing is written
    {
        const SpaceScope scope(written);
        written->AddRoot("r", NewObject<TestLeaf>(1));
    }
    written->WriteDirtyObjectsToLss(true);
    m_store.OpenSpace("lost");
    // As after a crash: the file as it is now, without any close.
    const std::string path = m_store.Dir().File("copy");
    std::filesystem::copy_file(m_store.Path(), path);
    PersistStore* const copy = OpenPersistStore(path.c_str(), OM_OPEN_EXISTING, TestStore::WithoutWriter());
    EXPECT_EQ(1, copy->GetNumPSpaces());
    EXPECT_THROW(copy->OpenPSpace("lost", OM_OPEN_EXISTING, nullptr), OpenPSpaceException);
    PSpace* const again = OpenPSpace(copy, "lost", OM_CREATE_NEW, nullptr);
    EXPECT_NE(OidOf(written), OidOf(again));
    again->Close();
    copy->Close();
}

TEST_F(PSpaceMapOfTest, ChecksItsArguments) {
    ExpectAssertion("name", "src/PSpaceMap", [&] { m_store->OpenPSpace(nullptr, OM_OPEN_ALWAYS, nullptr); });
    ExpectAssertion("p", "src/PSpaceMap", [&] { m_store->m_spaceMap.CommitPSpace(nullptr); });
    ExpectAssertion("pspace", "src/PSpaceMap", [&] { m_store->m_spaceMap.RemovePSpace(nullptr); });
    Archive loading(static_cast<IOutputStream*>(nullptr));
    ExpectAssertion("ar.IsStoring()", "src/PSpaceMap", [&] { m_store->m_spaceMap.Serialise(loading); });
}

TEST_F(PSpaceMapOfTest, RefusesASpaceThatIsNotItsOwn) {
    TestStore other;
    PSpace* const foreign = other.OpenSpace("foreign");
    ExpectAssertion("i != map_.end()", "src/PSpaceMap", [&] { m_store->m_spaceMap.CommitPSpace(foreign); });
    ExpectAssertion("i != map_.end()", "src/PSpaceMap", [&] { m_store->m_spaceMap.RemovePSpace(foreign); });
}

TEST_F(PSpaceMapOfTest, ASpaceThatFailsToOpenLeavesTheMapAsItWas) {
    ExpectAssertion("strlen(name) > 0", "src/PSpace", [&] { m_store->OpenPSpace("", OM_OPEN_ALWAYS, nullptr); });
    EXPECT_EQ(0, m_store->GetNumPSpaces());
    RecordingLss& lss = m_store.Record();
    lss.m_refuseAffiliates = true;
    ExpectAssertion("lss.AllocateAffiliateSeid(e.m_oid)", "src/PSpaceMap",
                    [&] { m_store->OpenPSpace("s", OM_OPEN_ALWAYS, nullptr); });
    EXPECT_EQ(0, m_store->GetNumPSpaces());
    lss.m_refuseAffiliates = false;
    EXPECT_TRUE(m_store.OpenSpace("s")->CreatedNew());
}

TEST_F(PSpaceMapOfTest, ASpaceWhoseRecordIsGoneFailsToOpenAndCanBeTriedAgain) {
    PSpace* ps = m_store.OpenSpace("s");
    const OID oid = OidOf(ps);
    m_store.CloseSpace(ps);
    const Bytes record = m_store.Element(oid);
    DeleteElement(*m_store->GetLss(), oid);
    for (int i = 0; i < 2; ++i) {
        CSpace* const cs = CreateCSpace(); // stays the caller's when the open fails
        ExpectException<DerefDanglingOidException>("Dereferenced dangling OID = " + TextOfSeid(oid),
                                                   [&] { m_store->OpenPSpace("s", OM_OPEN_ALWAYS, cs); });
        GetPtrSlotArray(cs)[PTR_SLOT_PSpace] = nullptr;
        Destroy(cs);
    }
    EXPECT_EQ(1, m_store->GetNumPSpaces());
    PutElement(*m_store->GetLss(), oid, record);
    EXPECT_FALSE(m_store.OpenSpace("s")->CreatedNew());
    EXPECT_EQ(nullptr, GetThreadPSpace());
    EXPECT_EQ(nullptr, GetThreadCSpace());
}

TEST(PSpaceMap, AMissingOrDamagedRecordIsRefusedWhenTheStoreOpens) {
    TestStore store;
    store.Close();
    PutElement(*BareLss(store.Path()), PSPACEMAP_SEID, {1, 0, 0});
    ExpectAssertion("ar == rob.buffer + rob.size", "src/PSpaceMap", [&] { store.Open(); });
    PutElement(*BareLss(store.Path()), PSPACEMAP_SEID, {2, 0});
    EXPECT_THROW(store.Open(), RecordException);
    PutElement(*BareLss(store.Path()), PSPACEMAP_SEID, {1, 5, 1, 'a'});
    EXPECT_THROW(store.Open(), IException);
    DeleteElement(*BareLss(store.Path()), PSPACEMAP_SEID);
    ExpectAssertion("se", "src/PSpaceMap", [&] { store.Open(); });
}

TEST(PSpaceMap, EveryEntryFromDiskIsCommitted) {
    TestStore store;
    PSpaceMap map(*store.Get());
    const Bytes bytes = Bytes{1, 2, 1, 'a'} + BytesOfOid(OID(7, 1)) + Bytes{1, 'b'} + BytesOfOid(OID(9, 1));
    EXPECT_EQ(bytes.data() + bytes.size(), map.Deserialise(bytes.data()).ptr());
    EXPECT_EQ(2, map.GetNumPSpaces());
    EXPECT_EQ(bytes, Written([&](Archive& ar) { map.Serialise(ar); }));
}

} // namespace
} // namespace quna

#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/StreamLengthCounter.h"
#include "tests/support/TestStore.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace quna {
namespace {

// Bytes in memory with what a log-structured store keeps readable behind them.
class Record {
public:
    explicit Record(Bytes bytes) : m_size(bytes.size()), m_bytes(std::move(bytes)) {
        m_bytes.resize(m_size + 64, 0xA5);
    }
    const octet_t* Begin() const { return m_bytes.data(); }
    const octet_t* End() const { return m_bytes.data() + m_size; }

private:
    std::size_t m_size;
    Bytes m_bytes;
};

class ObjectRecords : public ::testing::Test {
protected:
    ObjectRecords()
        : m_ps(m_store.OpenSpace("s")), m_pair(m_ps, m_ps->GetCSpace()), m_oid(m_ps->AllocateOid(1, false)) {}
    void SetUp() override { Lock(m_ps->GetCSpace(), Exclusive); }
    void TearDown() override {
        TestMisreader::s_numBytesRead = 5;
        TestThrower::s_throwInDeserialise = false;
        Unlock(m_ps->GetCSpace());
    }

    octet_t Cid(const ReflectedClass& rc) { return static_cast<octet_t>(m_store->GetCid(rc)); }
    ptr<IPersistable> Load(const Bytes& bytes, bool registerInCSpace = true) {
        const Record record(bytes);
        ptr<IPersistable> po;
        m_store->DynCreateDeserialise(record.Begin(), record.End(), po, m_oid, registerInCSpace);
        return po;
    }
    Bytes Envelope(ptr<const IPersistable> po) {
        return Written([&](Archive& ar) { m_store->DynCreateSerialise(ar, po); });
    }

    TestStore m_store;
    PSpace* m_ps;
    ThreadPSpaceScope m_pair;
    OID m_oid;
};

TEST_F(ObjectRecords, ARecordIsTheClassesIdAndTheObjectsBody) {
    TestLeaf* const leaf = NewObject<TestLeaf>(0x01020304, "abc");
    EXPECT_EQ((Bytes{1, 1, 4, 3, 2, 1, 3, 'a', 'b', 'c'}), Envelope(leaf));
    TestNode* const node = NewObject<TestNode>("n");
    node->m_next.SetOid(OID(7, 1));
    node->m_children.push_back(pref<IPersistable>());
    EXPECT_EQ((Bytes{2, 1, 1, 'n', 1, 7, 1, 0}), Envelope(node));
    EXPECT_EQ(10 - 1, leaf->GetSysState().m_size); // without the class's id
}

TEST_F(ObjectRecords, TheSizeForTheEvictorCountsWhatTheArchiveHasFlushedAlready) {
    const std::string text(10000, 'x');
    TestLeaf* const leaf = NewObject<TestLeaf>(1, text.c_str());
    const Bytes envelope = Envelope(leaf);
    EXPECT_EQ(static_cast<ssize_t>(envelope.size()) - 1, leaf->GetSysState().m_size);
    EXPECT_EQ(leaf->GetSysState().m_size, MeasurePersistableObjectSize(leaf));
}

TEST_F(ObjectRecords, MeasuringSerialisesIntoNowhere) {
    TestLeaf* const leaf = NewObject<TestLeaf>(1, "abc");
    EXPECT_EQ(9, MeasurePersistableObjectSize(leaf));
    EXPECT_EQ(0, leaf->GetSysState().m_size);
    SetPersistableSizeForGCEvictor(leaf, 77);
    EXPECT_EQ(77, leaf->GetSysState().m_size);
    ExpectAssertion("size >= 0", [&] { SetPersistableSizeForGCEvictor(leaf, -1); });
}

TEST_F(ObjectRecords, TheCounterKeepsTheNumberOfBytesOnly) {
    StreamLengthCounter counter;
    EXPECT_EQ(0, counter.GetLength());
    counter.WriteStream("abc", 3);
    counter.WriteStream("de", 2);
    counter.FlushStream();
    EXPECT_EQ(5, counter.GetLength());
}

TEST_F(ObjectRecords, ALoadedObjectHasItsIdentifierAndItsSizeAndIsClean) {
    const ptr<IPersistable> po = Load({Cid(GetReflectedClass<TestLeaf>()), 1, 5, 0, 0, 0, 2, 'h', 'i'});
    const auto* leaf = static_cast<const TestLeaf*>(po.m_self);
    EXPECT_EQ(5, leaf->m_number);
    EXPECT_EQ(m_oid, GetOid(po));
    EXPECT_EQ(m_oid, leaf->m_oidSeenByDeserialise);
    EXPECT_FALSE(IsPersistableDirty(po));
    EXPECT_EQ(8, leaf->GetSysState().m_size);
    EXPECT_EQ(0, leaf->m_numOnCreate);
    EXPECT_EQ(m_ps->GetCSpace(), GetAssociatedCSpace(po));
    EXPECT_FALSE(m_ps->BindObjectIfMemoryResident(m_oid)); // the table is not told
}

TEST_F(ObjectRecords, WithoutRegistrationTheObjectIsInNoDomain) {
    const ssize_t before = GetNumObjects(m_ps->GetCSpace());
    const ptr<IPersistable> po = Load({Cid(GetReflectedClass<TestLeaf>()), 1, 5, 0, 0, 0, 0}, false);
    EXPECT_EQ(nullptr, GetAssociatedCSpace(po));
    EXPECT_EQ(before, GetNumObjects(m_ps->GetCSpace()));
    po->Destroy();
}

TEST_F(ObjectRecords, ABodyThatReadsAByteTooFewIsReported) {
    TestMisreader::s_numBytesRead = 4;
    const octet_t cid = Cid(GetReflectedClass<TestMisreader>());
    try {
        Load({cid, 7, 7, 7, 7, 7});
        FAIL();
    } catch (const DeserialisePersistentObjectException& e) {
        EXPECT_EQ("Error deserialising object oid=" + TextOfSeid(m_oid) + " class=test::Misreader cid=1 size=6 read=5",
                  TextOf(e));
        EXPECT_STREQ(e.what(), TextOf(e).c_str());
        EXPECT_EQ(m_oid, e.m_oid);
    }
}

TEST_F(ObjectRecords, ABodyThatReadsAByteTooManyIsReported) {
    TestMisreader::s_numBytesRead = 6;
    const octet_t cid = Cid(GetReflectedClass<TestMisreader>());
    ExpectException<DeserialisePersistentObjectException>(
        "Error deserialising object oid=" + TextOfSeid(m_oid) + " class=test::Misreader cid=1 size=6 read=7", [&] {
            Load({cid, 7, 7, 7, 7, 7});
        });
}

TEST_F(ObjectRecords, AClassIdOfZeroWithMoreBytesIsReportedWithoutAClass) {
    ExpectException<DeserialisePersistentObjectException>(
        "Error deserialising object oid=" + TextOfSeid(m_oid) + " cid=0 size=3 read=1", [&] {
            Load({0, 1, 2});
        });
}

TEST_F(ObjectRecords, AClassIdOfZeroAloneIsANullObject) {
    EXPECT_FALSE(Load({0}));
    PutElement(*m_store->GetLss(), m_oid, {0});
    ExpectAssertion("po", [&] { m_ps->TryLoadPOGivenOid(m_oid); });
}

TEST_F(ObjectRecords, AnUnknownClassIdIsBad) {
    ExpectException<BadCidException>("Bad CID : 7", [&] { Load({7, 1}); });
}

TEST_F(ObjectRecords, AClassWithoutAFactoryIsRefused) {
    const octet_t cid = Cid(GetReflectedClass<TestNoFactory>());
    ExpectAssertion("rc->m_createFn", [&] { Load({cid, 1}); });
}

TEST_F(ObjectRecords, AClassThatIsNotPersistableIsRefused) {
    const octet_t cid = Cid(GetReflectedClass<TestPlainObject>());
    ExpectAssertion("0", [&] { Load({cid, 1}); });
}

TEST_F(ObjectRecords, AnIdentifierIsNeeded) {
    const Record record({1, 1});
    ptr<IPersistable> po;
    ExpectAssertion("oid", [&] { m_store->DynCreateDeserialise(record.Begin(), record.End(), po, OID(), true); });
    ExpectAssertion("oid", [&] { m_store->TryLoadPOGivenOid(OID()); });
}

TEST_F(ObjectRecords, AMissingElementIsNullOrDangling) {
    const ssize_t before = GetNumObjects(m_ps->GetCSpace());
    EXPECT_FALSE(m_store->TryLoadPOGivenOid(m_oid));
    EXPECT_EQ(before, GetNumObjects(m_ps->GetCSpace()));
    ExpectException<DerefDanglingOidException>("Dereferenced dangling OID = " + TextOfSeid(m_oid),
                                               [&] { m_store->AlwaysLoadPOGivenOid(m_oid); });
}

TEST_F(ObjectRecords, EachLoadMakesAnObjectOfItsOwn) {
    PutElement(*m_store->GetLss(), m_oid, {Cid(GetReflectedClass<TestLeaf>()), 1, 5, 0, 0, 0, 0});
    const ptr<IPersistable> first = m_store->AlwaysLoadPOGivenOid(m_oid);
    const ptr<IPersistable> second = m_store->TryLoadPOGivenOid(m_oid);
    EXPECT_NE(first, second);
    EXPECT_EQ(m_oid, GetOid(first));
    EXPECT_EQ(m_oid, GetOid(second));
}

TEST_F(ObjectRecords, AnExceptionOfDeserialisePassesStraightThrough) {
    PutElement(*m_store->GetLss(), m_oid, {Cid(GetReflectedClass<TestThrower>()), 1, 5, 0, 0, 0});
    TestThrower::s_throwInDeserialise = true;
    EXPECT_THROW(m_store->TryLoadPOGivenOid(m_oid), std::runtime_error);
    TestThrower::s_throwInDeserialise = false;
    EXPECT_TRUE(m_store->TryLoadPOGivenOid(m_oid));
}

TEST_F(ObjectRecords, HostileRecordsEndInAnException) {
    const octet_t cid = Cid(GetReflectedClass<TestNode>());
    const Bytes good = Bytes{cid, 1, 1, 'n', 1, 7, 2, 1, 8, 0};
    for (std::size_t n = 0; n < good.size(); ++n) {
        PutElement(*m_store->GetLss(), m_oid, Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(n)));
        EXPECT_THROW(m_store->AlwaysLoadPOGivenOid(m_oid), IException) << n;
    }
    for (const Bytes& bytes :
         {Bytes{cid, 1, 0xF0, 0xFF, 0xFF, 0xFF, 0xFF}, Bytes{cid, 1, 0, 0, 0xF0, 0x7F, 0, 0, 0}, Bytes{cid, 1, 0, 0xFF},
          Bytes{0xFF}, Bytes{0xF0, 0xFF, 0xFF, 0xFF, 0xFF}, Bytes{cid, 9}}) {
        PutElement(*m_store->GetLss(), m_oid, bytes);
        EXPECT_THROW(m_store->AlwaysLoadPOGivenOid(m_oid), IException);
    }
    PutElement(*m_store->GetLss(), m_oid, good);
    EXPECT_TRUE(m_store->AlwaysLoadPOGivenOid(m_oid));
}

TEST(ObjectRecordsOfUnknownClasses, AreHarmlessUntilAnObjectOfThemIsLoaded) {
    TestStore store;
    OID oid;
    {
        PSpace* const ps = store.OpenSpace("s");
        const SpaceScope scope(ps);
        TestUnregistered* const object = NewObject<TestUnregistered>();
        ps->MakeObjectPersist(object, false);
        oid = GetOid(object);
    }
    store.Reopen();
    PSpace* const ps = store.OpenSpace("s");
    const SpaceScope scope(ps);
    ExpectAssertion("e.m_rc", "src/CidMap", [&] { ps->BindObject(oid); });
    ExpectAssertion("e.m_rc", "src/CidMap", [&] { ps->TryBindObject(oid); });
}

} // namespace
} // namespace quna

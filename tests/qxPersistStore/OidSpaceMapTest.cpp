#include "qxPersistStore/OidSpaceMap.h"

#include "qxObject/Registry.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxUtils/Exceptions.h"
#include "tests/support/TestStore.h"

#include <set>
#include <thread>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr OidSpaceGuid GUID_A = {0x00010203, 0x0405, 0x0607, {0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f}};
constexpr OidSpaceGuid GUID_B = {0xffeeddcc, 0xbbaa, 0x9988, {0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0x00}};
const Bytes BYTES_OF_A = {0x03, 0x02, 0x01, 0x00, 0x05, 0x04, 0x07, 0x06, 8, 9, 10, 11, 12, 13, 14, 15};
const Bytes BYTES_OF_B = {0xcc, 0xdd, 0xee, 0xff, 0xaa, 0xbb, 0x88, 0x99, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0};

Bytes BodyOf(const OidSpaceMap& map) {
    return Written([&](Archive& ar) { map.Serialise(ar); });
}

// The number of bytes read.
ssize_t ReadBody(OidSpaceMap& map, Bytes body) {
    const ssize_t size = static_cast<ssize_t>(body.size());
    body.insert(body.end(), RECORD_SLACK, octet_t{0x7F});
    const RecordLimitsScope limits(body.data(), body.data() + size);
    return map.Deserialise(body.data()).ptr() - body.data();
}

std::vector<OidHigh> DeltaOf(OidSpaceMap& map) {
    xvector<uint32> delta;
    map.SwapOutOidHighsDelta(delta);
    return std::vector<OidHigh>(delta.begin(), delta.end());
}

using Highs = std::vector<OidHigh>;

// ---- The table by itself: an object in no space ---------------------------------------------------------------------

TEST(OidSpaceMap, TranslatesBothWays) {
    OidSpaceMap map;
    map.Add(7, GUID_A);
    map.Add(3, GUID_B);
    EXPECT_EQ(2, map.size());
    EXPECT_EQ(7u, map.GetOidHigh(GUID_A));
    EXPECT_EQ(3u, map.GetOidHigh(GUID_B));
    OidSpaceGuid guid;
    EXPECT_TRUE(map.GetOidSpaceGuid(7, guid));
    EXPECT_EQ(GUID_A, guid);
    EXPECT_TRUE(map.GetOidSpaceGuid(3, guid));
    EXPECT_EQ(GUID_B, guid);
}

TEST(OidSpaceMap, StartsEmpty) {
    const OidSpaceMap map;
    EXPECT_EQ(0, map.size());
    EXPECT_TRUE(map.GetOidHighToGuidMap().empty());
    EXPECT_FALSE(map.IsDirty());
}

TEST(OidSpaceMap, AnUnknownGuidHasTheNumberZero) {
    OidSpaceMap map;
    EXPECT_EQ(0u, map.GetOidHigh(GUID_A));
    map.Add(7, GUID_A);
    EXPECT_EQ(0u, map.GetOidHigh(GUID_B));
}

TEST(OidSpaceMap, AnUnknownNumberLeavesTheGuidUntouched) {
    OidSpaceMap map;
    map.Add(7, GUID_A);
    OidSpaceGuid guid = GUID_B;
    EXPECT_FALSE(map.GetOidSpaceGuid(8, guid));
    EXPECT_EQ(GUID_B, guid);
}

TEST(OidSpaceMap, TheNumberZeroIsRefused) {
    OidSpaceMap map;
    OidSpaceGuid guid = GUID_B;
    ExpectAssertion("oh != 0", "src/OidSpaceMap", [&] { (void)map.GetOidSpaceGuid(0, guid); });
    ExpectAssertion("oh != 0", "src/OidSpaceMap", [&] { map.GetOrCreateOidSpaceGuid(0, guid); });
    ExpectAssertion("oh != 0", "src/OidSpaceMap", [&] { map.Add(0, GUID_A); });
    EXPECT_EQ(GUID_B, guid);
    EXPECT_EQ(0, map.size());
    EXPECT_EQ(0u, map.GetOidHigh(GUID_A));
    map.Add(1, GUID_A); // the lock was given back
    EXPECT_EQ(1, map.size());
}

TEST(OidSpaceMap, AKnownNumberOrGuidCantBeAddedAgain) {
    OidSpaceMap map;
    map.Add(7, GUID_A);
    ExpectAssertion("m_nameMap.find(oh) == m_nameMap.end()", "src/OidSpaceMap", [&] { map.Add(7, GUID_B); });
    ExpectAssertion("m_nameMap.find(oh) == m_nameMap.end()", "src/OidSpaceMap", [&] { map.Add(7, GUID_A); });
    ExpectAssertion("m_idMap.find(osg) == m_idMap.end()", "src/OidSpaceMap", [&] { map.Add(8, GUID_A); });
    EXPECT_EQ(1, map.size());
    EXPECT_EQ(0u, map.GetOidHigh(GUID_B));
    EXPECT_EQ(Highs{7}, DeltaOf(map));
}

TEST(OidSpaceMap, ALocalSpaceGetsItsGuidOnceWhenItIsAskedFor) {
    OidSpaceMap map;
    OidSpaceGuid first;
    OidSpaceGuid second;
    map.GetOrCreateOidSpaceGuid(7, first);
    map.GetOrCreateOidSpaceGuid(7, second);
    EXPECT_EQ(first, second);
    EXPECT_NE(Guid_NULL, first);
    EXPECT_EQ(1, map.size());
    EXPECT_EQ(7u, map.GetOidHigh(first));
    map.GetOrCreateOidSpaceGuid(8, second);
    EXPECT_NE(first, second);
    EXPECT_EQ((Highs{7, 8}), DeltaOf(map));
}

TEST(OidSpaceMap, ARemovedSpaceIsUnknownBothWays) {
    OidSpaceMap map;
    map.Add(7, GUID_A);
    map.Add(8, GUID_B);
    map.RemoveOidHigh(7);
    OidSpaceGuid guid;
    EXPECT_FALSE(map.GetOidSpaceGuid(7, guid));
    EXPECT_EQ(0u, map.GetOidHigh(GUID_A));
    EXPECT_EQ(8u, map.GetOidHigh(GUID_B));
    EXPECT_EQ(1, map.size());
    map.Add(9, GUID_A);
    EXPECT_EQ(9u, map.GetOidHigh(GUID_A));
}

TEST(OidSpaceMap, AnUnknownNumberCantBeRemoved) {
    OidSpaceMap map;
    map.Add(7, GUID_A);
    ExpectAssertion("i != m_nameMap.end()", "src/OidSpaceMap", [&] { map.RemoveOidHigh(8); });
    ExpectAssertion("i != m_nameMap.end()", "src/OidSpaceMap", [&] { map.RemoveOidHigh(0); });
    map.RemoveOidHigh(7);
    ExpectAssertion("i != m_nameMap.end()", "src/OidSpaceMap", [&] { map.RemoveOidHigh(7); });
}

TEST(OidSpaceMap, MapsOutOfStepAreNoticedWhenASpaceIsRemoved) {
    OidSpaceMap map;
    map.Add(7, GUID_A);
    map.m_idMap.clear();
    ExpectAssertion("j != m_idMap.end()", "src/OidSpaceMap", [&] { map.RemoveOidHigh(7); });
}

TEST(OidSpaceMap, TheDeltaIsExchangedWithTheCallersVector) {
    OidSpaceMap map;
    map.Add(7, GUID_A);
    map.Add(3, GUID_B);
    xvector<uint32> delta = {55};
    map.SwapOutOidHighsDelta(delta);
    ASSERT_EQ(2, delta.size());
    EXPECT_EQ(7u, delta[0]); // in the order of adding
    EXPECT_EQ(3u, delta[1]);
    EXPECT_EQ(Highs{55}, DeltaOf(map));
    EXPECT_EQ(Highs{}, DeltaOf(map));
}

TEST(OidSpaceMap, ANumberAddedAndRemovedStaysInTheDelta) {
    OidSpaceMap map;
    map.Add(7, GUID_A);
    map.RemoveOidHigh(7);
    EXPECT_EQ(Highs{7}, DeltaOf(map));
}

// ---- Record and text ------------------------------------------------------------------------------------------------

TEST(OidSpaceMap, TheBodyOfAnEmptyMapIsTheSchemaAndACountOfZero) {
    EXPECT_EQ((Bytes{1, 0}), BodyOf(OidSpaceMap()));
    OidSpaceMap map;
    EXPECT_EQ(2, ReadBody(map, {1, 0}));
    EXPECT_EQ(0, map.size());
}

TEST(OidSpaceMap, AnEntryIsAlwaysTwentyBytesInAscendingOrderOfNumbers) {
    OidSpaceMap map;
    map.Add(0x01020304, GUID_B);
    map.Add(7, GUID_A);
    EXPECT_EQ(Bytes({1, 2, 7, 0, 0, 0}) + BYTES_OF_A + Bytes({4, 3, 2, 1}) + BYTES_OF_B, BodyOf(map));
}

TEST(OidSpaceMap, NoHookHasAPartInTheRecord) {
    class Refuses : public IItemSerialiser, public IOidHighDeserialiser {
    public:
        void SerialiseItem(Archive&, const void*) override { ADD_FAILURE(); }
        InputArchive DeserialiseOidHigh(InputArchive ar, OidHigh&) override {
            ADD_FAILURE();
            return ar;
        }
    } refuses;
    OidSpaceMap map;
    map.Add(7, GUID_A);
    const Bytes body = Written([&](Archive& ar) {
        ar.m_oidHighSerialiser = &refuses;
        map.Serialise(ar);
    });
    EXPECT_EQ(BodyOf(map), body);
    OidSpaceMap read;
    SetThreadOidHighDeserialiser(&refuses);
    ReadBody(read, body);
    SetThreadOidHighDeserialiser(nullptr);
    EXPECT_EQ(7u, read.GetOidHigh(GUID_A));
}

TEST(OidSpaceMap, ReadingRebuildsTheInverseAndLeavesTheDeltaEmpty) {
    OidSpaceMap map;
    map.Add(7, GUID_A);
    map.Add(300, GUID_B);
    const Bytes body = BodyOf(map);
    OidSpaceMap read;
    EXPECT_EQ(static_cast<ssize_t>(body.size()), ReadBody(read, body));
    EXPECT_EQ(map.GetOidHighToGuidMap(), read.GetOidHighToGuidMap());
    EXPECT_EQ(7u, read.GetOidHigh(GUID_A));
    EXPECT_EQ(300u, read.GetOidHigh(GUID_B));
    EXPECT_EQ(Highs{}, DeltaOf(read));
    EXPECT_EQ(body, BodyOf(read));
}

TEST(OidSpaceMap, ADamagedRecordIsRefused) {
    const auto refused = [](const Bytes& body) {
        OidSpaceMap map;
        EXPECT_THROW(ReadBody(map, body), RecordException) << ::testing::PrintToString(body);
    };
    refused(Bytes({2, 0}));                                                             // a newer schema
    refused(Bytes({0, 0}));                                                             // none
    refused(Bytes({1, 100}) + Bytes({7, 0, 0, 0}) + BYTES_OF_A);                        // more entries than bytes
    refused(Bytes({1, 1, 0, 0, 0, 0}) + BYTES_OF_A);                                    // the number 0
    refused(Bytes({1, 2, 7, 0, 0, 0}) + BYTES_OF_A + Bytes({8, 0, 0, 0}) + BYTES_OF_A); // one name of two spaces
    refused(Bytes({1, 0xFF, 7, 0, 0, 0}) + BYTES_OF_A);                                 // no count
    refused(Bytes({1, 0xF0, 0xFF, 0xFF, 0xFF, 0xFF, 7, 0, 0, 0}) + BYTES_OF_A);         // four thousand million
}

TEST(OidSpaceMap, PrintsBothMapsIndented) {
    OidSpaceMap map;
    StringStream os;
    os << map;
    EXPECT_STREQ("OidSpaceMap\n    {}\n    {}\n", os.c_str());

    map.Add(0x2a, GUID_B);
    map.Add(7, GUID_A);
    StringStream os2;
    map.Write(os2);
    os2 << "not indented\n";
    EXPECT_STREQ(
        "OidSpaceMap\n"
        "    {(00000007,00010203-0405-0607-0809-0a0b0c0d0e0f),(0000002a,ffeeddcc-bbaa-9988-7766-554433221100)}\n"
        "    {(00010203-0405-0607-0809-0a0b0c0d0e0f,00000007),(ffeeddcc-bbaa-9988-7766-554433221100,0000002a)}\n"
        "not indented\n",
        os2.c_str()); // Guids in the order of their bytes
}

TEST(OidSpaceMap, IsAReflectedPersistableClass) {
    RegisterTestObjects();
    const ReflectedClass* const rc = FindReflectedClass("quna::OidSpaceMap");
    ASSERT_NE(nullptr, rc);
    EXPECT_EQ(rc, &GetReflectedClass<OidSpaceMap>());
    ASSERT_NE(nullptr, rc->m_createFn);
    const ptr<IObject> object = rc->m_createFn();
    EXPECT_EQ(rc, object->GetReflectedClass());
    const auto persistable = qicast<IPersistable>(object);
    ASSERT_TRUE(persistable);
    EXPECT_EQ(object.m_self, persistable.m_self);
    EXPECT_EQ(object.m_self, qicast<IObject>(object).m_self);
    EXPECT_TRUE(persistable->RepresentsSubTree());
    EXPECT_FALSE(GetOid(persistable));
    object->Destroy();
}

// ---- As an object of a store ----------------------------------------------------------------------------------------

class OidSpaceMapInAStore : public ::testing::Test {
protected:
    OidSpaceMapInAStore() { Open(); }
    void Open() {
        m_ps = m_store.OpenSpace("s");
        const SpaceScope scope(m_ps);
        m_map = static_cast<OidSpaceMap*>(BootstrapPSpaceRoot2(GetReflectedClass<OidSpaceMap>(), "oid spaces"));
        AddGcRoot(m_map);
    }
    void Reopen() {
        m_store.Reopen();
        Open();
    }
    void WriteAndExpectClean() {
        m_ps->WriteDirtyObjectsToLss(false);
        EXPECT_FALSE(m_map->IsDirty());
    }

    TestStore m_store;
    PSpace* m_ps = nullptr;
    OidSpaceMap* m_map = nullptr;
};

TEST_F(OidSpaceMapInAStore, IsReadBackWithItsEntries) {
    OidSpaceGuid own;
    OidHigh foreign = 0;
    {
        const SpaceScope scope(m_ps);
        m_map->GetOrCreateOidSpaceGuid(m_ps->GetOidHighForOidAllocations(), own);
        foreign = m_map->GetOrCreateOidHigh(GUID_A);
    }
    Reopen();
    const SpaceScope scope(m_ps, SharedRead);
    EXPECT_EQ(2, m_map->size());
    EXPECT_EQ(m_ps->GetOidHighForOidAllocations(), m_map->GetOidHigh(own));
    EXPECT_EQ(foreign, m_map->GetOidHigh(GUID_A));
    EXPECT_FALSE(m_map->IsDirty());
    EXPECT_EQ(Highs{}, DeltaOf(*m_map));
}

TEST_F(OidSpaceMapInAStore, AForeignSpaceGetsANewNumberOnce) {
    const SpaceScope scope(m_ps);
    const OidHigh first = m_map->GetOrCreateOidHigh(GUID_A);
    EXPECT_EQ(m_ps->GetOidHighForOidAllocations() + 1, first);
    EXPECT_EQ(first, m_map->GetOrCreateOidHigh(GUID_A));
    EXPECT_EQ(first + 1, m_map->GetOrCreateOidHigh(GUID_B)); // so the second call took none
    EXPECT_EQ((Highs{first, first + 1}), DeltaOf(*m_map));
}

TEST_F(OidSpaceMapInAStore, NumbersStayDistinctFromThoseOfAnEarlierLife) {
    std::set<OidHigh> numbers = {m_ps->GetOidHighForOidAllocations()};
    for (int i = 0; i < 4; ++i) {
        {
            const SpaceScope scope(m_ps);
            EXPECT_TRUE(numbers.insert(m_map->GetOrCreateOidHigh(CreateGuid())).second);
            EXPECT_TRUE(numbers.insert(m_ps->GetPersistStore()->GetLss()->AllocateSeidHigh()).second);
        }
        Reopen();
    }
    EXPECT_EQ(4, m_map->size());
}

TEST_F(OidSpaceMapInAStore, EveryNewEntryMakesItDirty) {
    OidSpaceGuid guid;
    WriteAndExpectClean();
    {
        const SpaceScope scope(m_ps);
        m_map->GetOrCreateOidHigh(GUID_A);
        EXPECT_TRUE(m_map->IsDirty());
    }
    WriteAndExpectClean();
    {
        const SpaceScope scope(m_ps);
        m_map->GetOrCreateOidSpaceGuid(1, guid);
        EXPECT_TRUE(m_map->IsDirty());
    }
    WriteAndExpectClean();
    {
        const SpaceScope scope(m_ps);
        m_map->Add(77, GUID_B);
        EXPECT_TRUE(m_map->IsDirty());
    }
    WriteAndExpectClean();
    {
        const SpaceScope scope(m_ps);
        m_map->RemoveOidHigh(77);
        EXPECT_TRUE(m_map->IsDirty());
    }
    WriteAndExpectClean();
    const SpaceScope scope(m_ps);
    m_map->GetOrCreateOidHigh(GUID_A);
    m_map->GetOrCreateOidSpaceGuid(1, guid);
    EXPECT_EQ(0u, m_map->GetOidHigh(GUID_B));
    EXPECT_FALSE(m_map->IsDirty()); // nothing was new
}

TEST_F(OidSpaceMapInAStore, WithoutWriteAccessNothingIsAddedOrRemoved) {
    {
        const SpaceScope scope(m_ps);
        m_map->Add(77, GUID_A);
        DeltaOf(*m_map);
    }
    WriteAndExpectClean();
    const SpaceScope scope(m_ps, SharedRead);
    OidSpaceGuid guid;
    ExpectAssertion("HaveWriteAccess()", [&] { m_map->GetOrCreateOidHigh(GUID_B); });
    ExpectAssertion("HaveWriteAccess()", [&] { m_map->GetOrCreateOidSpaceGuid(1, guid); });
    ExpectAssertion("HaveWriteAccess()", [&] { m_map->RemoveOidHigh(77); });
    EXPECT_EQ(1, m_map->size());
    EXPECT_EQ(77u, m_map->GetOidHigh(GUID_A));
    EXPECT_EQ(0u, m_map->GetOidHigh(GUID_B));
    EXPECT_FALSE(m_map->GetOidSpaceGuid(1, guid));
    EXPECT_EQ(Highs{}, DeltaOf(*m_map));
    EXPECT_EQ(77u, m_map->GetOrCreateOidHigh(GUID_A)); // what is known needs none
}

TEST_F(OidSpaceMapInAStore, ANewNumberNeedsTheThreadsSpaceAStoreAndALog) {
    OidSpaceMap transient;
    {
        const ThreadPSpaceScope none(nullptr, nullptr);
        ExpectAssertion("p", "src/OidSpaceMap", [&] { transient.GetOrCreateOidHigh(GUID_A); });
        transient.Add(7, GUID_B);
        EXPECT_EQ(7u, transient.GetOrCreateOidHigh(GUID_B)); // a known one does not
    }
    const SpaceScope scope(m_ps);
    ILogStructuredStore* const lss = m_store->m_lss;
    m_store->m_lss = nullptr;
    ExpectAssertion("lss", "src/OidSpaceMap", [&] { transient.GetOrCreateOidHigh(GUID_A); });
    m_store->m_lss = lss;
    EXPECT_EQ(1, transient.size());
    EXPECT_NE(0u, transient.GetOrCreateOidHigh(GUID_A));
}

TEST_F(OidSpaceMapInAStore, AnObjectOfAForeignSpaceKeepsItsNumberWithinIt) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        oid = OID(4711, m_map->GetOrCreateOidHigh(GUID_A));
        EXPECT_TRUE(m_ps->MakeObjectPersistWithGivenOID(NewObject<TestLeaf>(31), oid, false));
    }
    Reopen();
    const SpaceScope scope(m_ps);
    const ptr<IPersistable> po = m_ps->TryBindObject(OID(4711, m_map->GetOidHigh(GUID_A)));
    ASSERT_TRUE(po);
    EXPECT_EQ(31, static_cast<TestLeaf*>(po.m_self)->m_number);
    MarkPersistentAsDirtyWithoutTrace(po); // and can be written again
}

// A reader without the space's lock, threads that add under it, and the space's writer.
TEST(OidSpaceMapThreads, LookUpsAdditionsAndWritingRunTogether) {
    constexpr int NUM_ADDING = 2;
    constexpr int NUM_LOCAL = 150;
    constexpr int NUM_FOREIGN = 10;
    constexpr int NUM_WRITES = 40;
    TestStore store;
    PSpace* const ps = store.OpenSpace("s");
    OidSpaceMap* map = nullptr;
    {
        const SpaceScope scope(ps);
        map = static_cast<OidSpaceMap*>(BootstrapPSpaceRoot2(GetReflectedClass<OidSpaceMap>(), "oid spaces"));
        AddGcRoot(map);
    }
    std::atomic<int> numRunning = NUM_ADDING;
    std::vector<std::vector<Guid>> added(NUM_ADDING);
    std::vector<std::thread> threads;
    for (std::vector<Guid>& guids : added)
        threads.emplace_back([&] {
            for (int i = 0; i < NUM_LOCAL + NUM_FOREIGN; ++i) {
                const SpaceScope scope(ps);
                guids.push_back(CreateGuid());
                if (i < NUM_FOREIGN)
                    map->GetOrCreateOidHigh(guids.back());
                else
                    map->GetOrCreateOidSpaceGuid(static_cast<OidHigh>(1000 + map->size()), guids.back());
            }
            --numRunning;
        });
    threads.emplace_back([&] {
        while (numRunning > 0) {
            xvector<uint32> delta;
            map->SwapOutOidHighsDelta(delta);
            OidSpaceGuid guid;
            for (const uint32 oh : delta) {
                EXPECT_TRUE(map->GetOidSpaceGuid(oh, guid));
                EXPECT_EQ(oh, map->GetOidHigh(guid));
            }
            std::this_thread::yield();
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; i < NUM_WRITES; ++i) {
            {
                const SpaceScope scope(ps);
                map->MarkAsDirtyWithoutTrace();
            }
            ps->WriteDirtyObjectsToLss(false);
        }
    });
    for (std::thread& thread : threads) thread.join();

    std::set<OidHigh> numbers;
    for (const std::vector<Guid>& guids : added)
        for (const Guid& guid : guids) numbers.insert(map->GetOidHigh(guid));
    EXPECT_EQ(std::size_t{NUM_ADDING * (NUM_LOCAL + NUM_FOREIGN)}, numbers.size());
    EXPECT_FALSE(numbers.contains(0));
}

} // namespace
} // namespace quna

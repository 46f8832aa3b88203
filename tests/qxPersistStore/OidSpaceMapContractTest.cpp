// The table between a store's own numbers of identifier spaces and their global names: contents, record, text, checks.
#include "qxObject/Registry.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/OidSpaceMap.h"
#include "qxUtils/RecordLimits.h"
#include "tests/support/TestStore.h"

#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "src/OidSpaceMap";

constexpr Guid GuidOf(uint32 first) { return Guid{first, 0x1122, 0x3344, {1, 2, 3, 4, 5, 6, 7, 8}}; }
constexpr Guid A = GuidOf(0xA);
constexpr Guid B = GuidOf(0xB);
constexpr Guid C = GuidOf(0xC);

Bytes EntryBytes(octet_t high, octet_t guid) {
    return {high, 0, 0, 0, guid, 0, 0, 0, 0x22, 0x11, 0x44, 0x33, 1, 2, 3, 4, 5, 6, 7, 8};
}

template <class T>
std::string Text(const T& x) {
    StringStream os;
    os << x;
    return os.c_str();
}

std::vector<uint32> Delta(OidSpaceMap& map) {
    xvector<uint32> delta;
    map.SwapOutOidHighsDelta(delta);
    return std::vector<uint32>(delta.begin(), delta.end());
}

Bytes Body(const OidSpaceMap& map) {
    return Written([&](Archive& ar) { map.Serialise(ar); });
}

// Reads a record with its limits published, as the store does; the position behind it, or -1 for an exception.
ssize_t Parse(OidSpaceMap& map, Bytes bytes) {
    const ssize_t size = static_cast<ssize_t>(bytes.size());
    bytes.resize(bytes.size() + RECORD_SLACK, 0xEE);
    const RecordLimitsScope limits(bytes.data(), bytes.data() + size);
    try {
        return map.Deserialise(InputArchive(bytes.data())).ptr() - bytes.data();
    } catch (const IException&) {
        return -1;
    }
}

// ---- Goid -------------------------------------------------------------------------------------------------------------

TEST(GoidContract, HoldsASpaceAndANumberInIt) {
    RegisterTestObjects();
    Goid goid;
    EXPECT_FALSE(goid);
    EXPECT_EQ(Guid_NULL, goid.GetoidSpaceGuid());
    EXPECT_EQ(0u, goid.GetoidLow());
    goid.SetoidSpaceGuid(A);
    goid.SetoidLow(0x2a);
    EXPECT_TRUE(goid);
    EXPECT_EQ(A, goid.GetoidSpaceGuid());
    EXPECT_EQ(0x2au, goid.GetoidLow());
    EXPECT_EQ("0000000a-1122-3344-0102-030405060708:0000002a", Text(goid));
}

TEST(GoidContract, IsAReflectedValue) {
    RegisterTestObjects();
    const ReflectedClass* const rc = FindReflectedClass("quna::Goid");
    ASSERT_NE(nullptr, rc);
    EXPECT_EQ(&GetReflectedClass<Goid>(), rc);
    EXPECT_EQ(static_cast<ssize_t>(sizeof(Goid)), rc->m_size);
    EXPECT_NE(nullptr, FindReflectedTypedef("quna::OidSpaceGuid"));
    ASSERT_EQ(2, rc->m_numFields);
    EXPECT_STREQ("oidSpaceGuid", rc->m_fields[0].m_name);
    EXPECT_STREQ("oidLow", rc->m_fields[1].m_name);
    ASSERT_TRUE(rc->m_ops.HasConstruct() && rc->m_ops.HasCopyConstruct() && rc->m_ops.HasAssign());
    Goid x, y;
    x.SetoidSpaceGuid(B);
    x.SetoidLow(7);
    rc->m_ops.AssignVariable(&y, &x);
    EXPECT_EQ(B, y.GetoidSpaceGuid());
    EXPECT_EQ(7u, y.GetoidLow());
    rc->m_ops.ConstructVariable(&y);
    EXPECT_EQ(Guid_NULL, y.GetoidSpaceGuid());
    rc->m_ops.CopyConstructVariable(&y, &x);
    EXPECT_EQ(7u, y.GetoidLow());
}

// ---- Contents, on a map outside any space -----------------------------------------------------------------------------

TEST(OidSpaceMapContract, StartsEmpty) {
    OidSpaceMap map;
    EXPECT_EQ(0, map.size());
    EXPECT_EQ(0u, map.GetOidHigh(A));
    Guid guid = B;
    EXPECT_FALSE(map.GetOidSpaceGuid(5, guid));
    EXPECT_EQ(B, guid) << "untouched";
    EXPECT_TRUE(map.GetOidHighToGuidMap().empty());
    EXPECT_TRUE(Delta(map).empty());
}

TEST(OidSpaceMapContract, FindsEachEntryBothWays) {
    OidSpaceMap map;
    map.Add(7, A);
    map.Add(5, B);
    EXPECT_EQ(2, map.size());
    EXPECT_EQ(7u, map.GetOidHigh(A));
    EXPECT_EQ(5u, map.GetOidHigh(B));
    Guid guid;
    EXPECT_TRUE(map.GetOidSpaceGuid(7, guid));
    EXPECT_EQ(A, guid);
    EXPECT_EQ((std::map<uint32, Guid>{{5, B}, {7, A}}), map.GetOidHighToGuidMap());
    EXPECT_FALSE(map.IsDirty()) << "there is no store that could write it";
}

TEST(OidSpaceMapContract, ANumberAndANameAreEnteredOnce) {
    OidSpaceMap map;
    map.Add(7, A);
    ExpectAssertion("m_nameMap.find(oh) == m_nameMap.end()", PATH, [&] { map.Add(7, A); });
    ExpectAssertion("m_nameMap.find(oh) == m_nameMap.end()", PATH, [&] { map.Add(7, B); });
    ExpectAssertion("m_idMap.find(osg) == m_idMap.end()", PATH, [&] { map.Add(8, A); });
    EXPECT_EQ(1, map.size());
    EXPECT_EQ(0u, map.GetOidHigh(B));
    EXPECT_EQ(std::vector<uint32>{7}, Delta(map));
}

TEST(OidSpaceMapContract, ZeroIsNoSpace) {
    OidSpaceMap map;
    Guid guid = B;
    ExpectAssertion("oh != 0", PATH, [&] { (void)map.GetOidSpaceGuid(0, guid); });
    ExpectAssertion("oh != 0", PATH, [&] { map.GetOrCreateOidSpaceGuid(0, guid); });
    ExpectAssertion("i != m_nameMap.end()", PATH, [&] { map.RemoveOidHigh(0); });
    EXPECT_EQ(B, guid);
    EXPECT_EQ(0, map.size()); // and the map can be used: its mutex is free
}

TEST(OidSpaceMapContract, ALocalSpaceIsNamedWhenItIsFirstAskedFor) {
    OidSpaceMap map;
    map.Add(7, A);
    Guid known, fresh, again, other;
    map.GetOrCreateOidSpaceGuid(7, known);
    EXPECT_EQ(A, known);
    map.GetOrCreateOidSpaceGuid(8, fresh);
    map.GetOrCreateOidSpaceGuid(8, again);
    map.GetOrCreateOidSpaceGuid(9, other);
    EXPECT_NE(Guid_NULL, fresh);
    EXPECT_EQ(fresh, again);
    EXPECT_NE(fresh, other);
    EXPECT_EQ(8u, map.GetOidHigh(fresh));
    EXPECT_EQ(3, map.size());
    EXPECT_EQ((std::vector<uint32>{7, 8, 9}), Delta(map));
}

TEST(OidSpaceMapContract, ARemovedNumberIsUnknownBothWaysAndMayComeBack) {
    OidSpaceMap map;
    map.Add(7, A);
    map.Add(8, B);
    map.RemoveOidHigh(7);
    Guid guid = C;
    EXPECT_FALSE(map.GetOidSpaceGuid(7, guid));
    EXPECT_EQ(C, guid);
    EXPECT_EQ(0u, map.GetOidHigh(A));
    EXPECT_EQ(8u, map.GetOidHigh(B));
    EXPECT_EQ(1, map.size());
    ExpectAssertion("i != m_nameMap.end()", PATH, [&] { map.RemoveOidHigh(7); });
    map.Add(9, A);
    EXPECT_EQ(9u, map.GetOidHigh(A));
    EXPECT_EQ((std::vector<uint32>{7, 8, 9}), Delta(map)) << "what was added stays among the news";
}

TEST(OidSpaceMapContract, TheNewsAreExchangedWithTheCallersVector) {
    OidSpaceMap map;
    map.Add(7, A);
    map.Add(5, B);
    xvector<uint32> delta{1, 2};
    map.SwapOutOidHighsDelta(delta);
    EXPECT_EQ((std::vector<uint32>{7, 5}), std::vector<uint32>(delta.begin(), delta.end())) << "in order of entry";
    EXPECT_EQ((std::vector<uint32>{1, 2}), Delta(map));
    EXPECT_TRUE(Delta(map).empty());
    map.Add(9, C);
    EXPECT_EQ(std::vector<uint32>{9}, Delta(map));
}

TEST(OidSpaceMapContract, AForeignSpaceNeedsTheThreadsSpaceOnlyWhenItIsNew) {
    OidSpaceMap map;
    map.Add(7, A);
    EXPECT_EQ(7u, map.GetOrCreateOidHigh(A));
    ExpectAssertion("p", PATH, [&] { map.GetOrCreateOidHigh(B); });
    EXPECT_EQ(1, map.size());
    EXPECT_EQ(0u, map.GetOidHigh(B));
}

// ---- Record and text --------------------------------------------------------------------------------------------------

TEST(OidSpaceMapContract, ItsRecordIsASchemaTagACountAndTwentyBytesAnEntry) {
    OidSpaceMap map;
    EXPECT_EQ((Bytes{1, 0}), Body(map));
    map.Add(7, A);
    map.Add(5, B);
    const Bytes body = Bytes{1, 2} + EntryBytes(5, 0xB) + EntryBytes(7, 0xA);
    EXPECT_EQ(body, Body(map));

    OidSpaceMap read;
    EXPECT_EQ(static_cast<ssize_t>(body.size()), Parse(read, body));
    EXPECT_EQ(map.GetOidHighToGuidMap(), read.GetOidHighToGuidMap());
    EXPECT_EQ(7u, read.GetOidHigh(A));
    EXPECT_EQ(5u, read.GetOidHigh(B));
    EXPECT_TRUE(Delta(read).empty());
    EXPECT_EQ(2, Parse(read, {1, 0, 9}));
}

TEST(OidSpaceMapContract, ItsRecordIsInTheStoresOwnNumbersWhateverTranslates) {
    class Fail : public IItemSerialiser {
    public:
        void SerialiseItem(Archive&, const void*) override { ADD_FAILURE() << "asked to translate"; }
    } fail;
    class FailIn : public IOidHighDeserialiser {
    public:
        InputArchive DeserialiseOidHigh(InputArchive ar, OidHigh&) override {
            ADD_FAILURE() << "asked to translate";
            return ar;
        }
    } failIn;
    OidSpaceMap map, read;
    map.Add(7, A);
    const Bytes bytes = Written([&](Archive& ar) {
        ar.m_oidHighSerialiser = &fail;
        map.Serialise(ar);
    });
    SetThreadOidHighDeserialiser(&failIn);
    EXPECT_EQ(22, Parse(read, bytes));
    SetThreadOidHighDeserialiser(nullptr);
    EXPECT_EQ(7u, read.GetOidHigh(A));
}

TEST(OidSpaceMapContract, ReadingForgetsWhatWasNew) {
    OidSpaceMap map;
    map.Add(7, A);
    EXPECT_EQ(2, Parse(map, {1, 0}));
    EXPECT_EQ(0, map.size());
    EXPECT_TRUE(Delta(map).empty());
}

TEST(OidSpaceMapContract, ARecordThatIsNoneEndsInAnExceptionOrIsSeenToBeTooShort) {
    const Bytes body = Bytes{1, 2} + EntryBytes(5, 0xB) + EntryBytes(7, 0xA);
    for (std::size_t n = 0; n < body.size(); ++n) {
        SCOPED_TRACE(n);
        OidSpaceMap map;
        EXPECT_NE(static_cast<ssize_t>(n), Parse(map, Bytes(body.begin(), body.begin() + static_cast<ssize_t>(n))));
    }
    OidSpaceMap map;
    EXPECT_EQ(-1, Parse(map, {0, 0}));                            // schema 0
    EXPECT_EQ(-1, Parse(map, {2, 0}));                            // of a newer version
    EXPECT_EQ(-1, Parse(map, {0xFF, 0}));                         // no number
    EXPECT_EQ(-1, Parse(map, {1, 0xF1, 0, 0, 0, 0}));             // no count
    EXPECT_EQ(-1, Parse(map, {1, 0xF0, 0xFF, 0xFF, 0xFF, 0xFF})); // more than there is
}

TEST(OidSpaceMapContract, ANameThatStandsTwiceInARecordIsNoticedWhenItGoes) {
    OidSpaceMap map;
    if (Parse(map, Bytes{1, 2} + EntryBytes(5, 0xA) + EntryBytes(7, 0xA)) < 0) return; // refused is as good
    EXPECT_EQ(2, map.size());
    map.RemoveOidHigh(5);
    ExpectAssertion("j != m_idMap.end()", PATH, [&] { map.RemoveOidHigh(7); });
}

TEST(OidSpaceMapContract, PrintsBothItsTables) {
    OidSpaceMap map;
    EXPECT_EQ("OidSpaceMap\n    {}\n    {}\n", Text(map));
    map.Add(0x1F, A);
    map.Add(5, B);
    const std::string a = "0000000a-1122-3344-0102-030405060708", b = "0000000b-1122-3344-0102-030405060708";
    const std::string expected = "OidSpaceMap\n    {(00000005," + b + "),(0000001f," + a + ")}\n    {(" + a +
                                 ",0000001f),(" + b + ",00000005)}\n";
    EXPECT_EQ(expected, Text(map));
    StringStream os;
    map.Write(os);
    EXPECT_EQ(expected, os.c_str());
    os << "x";
    EXPECT_EQ(expected + "x", os.c_str()) << "the stream is indented for the tables only";
}

TEST(OidSpaceMapContract, IsAReflectedPersistableClass) {
    RegisterTestObjects();
    const ReflectedClass* const rc = FindReflectedClass("quna::OidSpaceMap");
    ASSERT_NE(nullptr, rc);
    EXPECT_TRUE(rc->CanCreate());
    EXPECT_EQ(static_cast<ssize_t>(sizeof(OidSpaceMap)), rc->m_size);
    ptr<IObject> made = rc->Create();
    EXPECT_EQ(rc, made->GetReflectedClass());
    EXPECT_TRUE(qicast<IPersistable>(made));
    EXPECT_TRUE(qicast<IObject>(made));
    EXPECT_FALSE(made->QueryInterface(GetReflectedInterface<IPrefVisitor>()));
    EXPECT_TRUE(qicast<IPersistable>(made)->RepresentsSubTree());
    made->Destroy();
    ptr<IObject> byStatic = OidSpaceMap::sfnCreateInstance();
    EXPECT_EQ(&GetReflectedClass<OidSpaceMap>(), byStatic->GetReflectedClass());
    byStatic->Destroy();
}

// ---- In a store -------------------------------------------------------------------------------------------------------

class OidSpaceMapOfStoreContract : public ::testing::Test {
protected:
    OidSpaceMapOfStoreContract() { OpenAndFind(true); }

    void OpenAndFind(bool create) {
        m_ps = m_store.OpenSpace("s", OM_OPEN_ALWAYS, CreateCSpace());
        const SpaceScope scope(m_ps);
        if (create) m_ps->AddRoot("spaces", NewObject<OidSpaceMap>());
        m_map = static_cast<OidSpaceMap*>(m_ps->GetRoot("spaces").m_self);
    }
    void WriteSpace() {
        m_ps->WriteDirtyObjectsToLss(false);
        EXPECT_FALSE(m_map->IsDirty());
    }

    TestStore m_store;
    PSpace* m_ps = nullptr;
    OidSpaceMap* m_map = nullptr; // a root of the space
};

TEST_F(OidSpaceMapOfStoreContract, AForeignSpaceGetsANumberOfItsOwnOnce) {
    const SpaceScope scope(m_ps);
    const OidHigh own = m_ps->GetOidHighForOidAllocations();
    const OidHigh a = m_map->GetOrCreateOidHigh(A);
    const OidHigh b = m_map->GetOrCreateOidHigh(B);
    EXPECT_NE(0u, a);
    EXPECT_NE(a, b);
    EXPECT_NE(own, a);
    EXPECT_NE(own, b);
    EXPECT_EQ(a, m_map->GetOrCreateOidHigh(A));
    EXPECT_EQ(a, m_map->GetOidHigh(A));
    const OidHigh next = GetLss(m_store.Get())->AllocateSeidHigh(); // the same allocator serves both
    EXPECT_NE(a, next);
    EXPECT_NE(b, next);
    EXPECT_EQ((std::vector<uint32>{a, b}), Delta(*m_map));
}

TEST_F(OidSpaceMapOfStoreContract, AStoreWithoutItsLssIsNoticed) {
    const SpaceScope scope(m_ps);
    ILogStructuredStore* const lss = m_store->m_lss;
    m_store->m_lss = nullptr;
    ExpectAssertion("lss", PATH, [&] { m_map->GetOrCreateOidHigh(A); });
    m_store->m_lss = lss;
    EXPECT_EQ(0, m_map->size());
}

TEST_F(OidSpaceMapOfStoreContract, EveryChangeMarksItDirtyAndNoQuestionDoes) {
    Guid guid;
    const std::vector<std::function<void()>> changes = {
        [&] { m_map->Add(1000, A); },
        [&] { m_map->GetOrCreateOidHigh(B); },
        [&] { m_map->GetOrCreateOidSpaceGuid(1001, guid); },
        [&] { m_map->RemoveOidHigh(1000); },
    };
    for (const auto& change : changes) {
        WriteSpace();
        const SpaceScope scope(m_ps);
        change();
        EXPECT_TRUE(m_map->IsDirty());
    }
    WriteSpace();
    const SpaceScope scope(m_ps);
    m_map->GetOrCreateOidHigh(B);
    m_map->GetOrCreateOidSpaceGuid(1001, guid);
    (void)m_map->GetOidSpaceGuid(1001, guid);
    (void)m_map->GetOidHigh(A);
    Delta(*m_map);
    EXPECT_FALSE(m_map->IsDirty());
}

TEST_F(OidSpaceMapOfStoreContract, ChangingItTakesTheExclusiveLockOfItsSpace) {
    WriteSpace();
    const SpaceScope scope(m_ps, SharedRead);
    Guid guid;
    ExpectAssertion("HaveWriteAccess()", "src/PSpace", [&] { m_map->GetOrCreateOidSpaceGuid(1000, guid); });
    (void)m_map->size(); // its own mutex is free again
    EXPECT_FALSE(m_map->IsDirty());
}

TEST_F(OidSpaceMapOfStoreContract, SurvivesARestart) {
    OidHigh b = 0;
    {
        const SpaceScope scope(m_ps);
        m_map->Add(1000, A);
        b = m_map->GetOrCreateOidHigh(B);
    }
    m_store.Reopen();
    OpenAndFind(false);
    EXPECT_EQ(2, m_map->size());
    EXPECT_EQ(1000u, m_map->GetOidHigh(A));
    EXPECT_EQ(b, m_map->GetOidHigh(B));
    EXPECT_TRUE(Delta(*m_map).empty());
    EXPECT_FALSE(m_map->IsDirty());
    const SpaceScope scope(m_ps);
    EXPECT_NE(b, m_map->GetOrCreateOidHigh(C));
}

// ---- Threads ----------------------------------------------------------------------------------------------------------

TEST(OidSpaceMapContractThreads, ThreadsThatAskForTheSameSpacesGetTheSameNames) {
    constexpr uint32 NUM_SPACES = 200;
    OidSpaceMap map;
    std::vector<Guid> found[2] = {std::vector<Guid>(NUM_SPACES), std::vector<Guid>(NUM_SPACES)};
    const auto ask = [&](std::vector<Guid>& guids) {
        for (uint32 i = 0; i < NUM_SPACES; ++i) {
            map.GetOrCreateOidSpaceGuid(i + 1, guids[i]);
            EXPECT_EQ(i + 1, map.GetOidHigh(guids[i]));
            (void)map.size();
        }
    };
    std::thread thread([&] { ask(found[0]); });
    ask(found[1]);
    thread.join();
    EXPECT_EQ(found[0], found[1]);
    EXPECT_EQ(static_cast<ssize_t>(NUM_SPACES), map.size());
    EXPECT_EQ(NUM_SPACES, Delta(map).size());
}

} // namespace
} // namespace quna

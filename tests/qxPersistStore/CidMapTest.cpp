#include "qxPersistStore/src/CidMap.h"

#include "qxObject/ReflectedClass.h"
#include "qxObject/Registry.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxUtils/RecordLimits.h"
#include "tests/support/ExpectAssertion.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using Bytes = std::vector<octet_t>;

class Sink final : public IOutputStream {
public:
    void WriteStream(const void* bytes, ssize_t n) override {
        const auto* p = static_cast<const octet_t*>(bytes);
        m_bytes.insert(m_bytes.end(), p, p + n);
    }
    void FlushStream() override {}

    Bytes m_bytes;
};

Bytes Serialised(const CidMap& map) {
    Sink sink;
    {
        Archive ar(&sink);
        map.Serialise(ar);
    }
    return sink.m_bytes;
}

// Reads the whole of `bytes` as a record; false if the map does not end where they end.
bool Read(CidMap& map, Bytes bytes, const ClassNameTranslationTable* table, bool& dirty) {
    const ssize_t n = static_cast<ssize_t>(bytes.size());
    bytes.resize(bytes.size() + RECORD_SLACK);
    const RecordLimitsScope limits(bytes.data(), bytes.data() + n);
    return map.Deserialise(bytes.data(), table, dirty).ptr() == bytes.data() + n;
}

ReflectedClass MakeClass(ConstStringZ name) {
    ReflectedClass rc;
    rc.m_name = name;
    return rc;
}

// Registered once, for the look-ups of all tests here.
const ReflectedClass& RegisteredClass() {
    static const ReflectedClass& s_class = []() -> const ReflectedClass& {
        static const dsTarget s_description{"Quna/Test/CidMapTest", nullptr, 0, nullptr, 0};
        static const ReflectedClass s_rc = MakeClass("quna::cidmap_test::Registered");
        EXPECT_EQ(NSE_OK, RegisterReflectedClass(&s_rc, RegisterTarget(s_description)));
        return s_rc;
    }();
    return s_class;
}

TEST(CidMap, NumbersClassesInTheOrderOfTheirFirstUse) {
    CidMap map;
    const ReflectedClass a = MakeClass("A");
    const ReflectedClass b = MakeClass("B");
    bool dirty = false;
    EXPECT_EQ(1, map.GetCid(a, dirty));
    EXPECT_TRUE(dirty);
    EXPECT_EQ(2, map.GetCid(b, dirty));
    EXPECT_TRUE(dirty);
    EXPECT_EQ(1, map.GetCid(a, dirty));
    EXPECT_FALSE(dirty);
    EXPECT_EQ(&a, &map.GetReflectedClass(1));
    EXPECT_EQ(&b, &map.GetReflectedClass(2));
}

TEST(CidMap, AClassOfTheSameNameAtAnotherAddressHasTheSameId) {
    CidMap map;
    const ReflectedClass a = MakeClass("A");
    const ReflectedClass again = MakeClass("A");
    bool dirty = false;
    EXPECT_EQ(1, map.GetCid(a, dirty));
    EXPECT_EQ(1, map.GetCid(again, dirty));
    EXPECT_FALSE(dirty);
    EXPECT_EQ(&a, &map.GetReflectedClass(1));
}

TEST(CidMap, FindsAnyNumberOfClassesBothWays) {
    constexpr int NUM_CLASSES = 1000;
    std::vector<std::string> names;
    for (int i = 0; i < NUM_CLASSES; ++i) names.push_back("Class" + std::to_string(i));
    std::vector<ReflectedClass> classes;
    for (const std::string& name : names) classes.push_back(MakeClass(name.c_str()));
    CidMap map;
    for (int round = 0; round < 3; ++round) {
        CID expected = 0;
        for (const ReflectedClass& rc : classes) {
            bool dirty = round != 0;
            ASSERT_EQ(++expected, map.GetCid(rc, dirty));
            ASSERT_EQ(round == 0, dirty);
            ASSERT_EQ(&rc, &map.GetReflectedClass(expected));
        }
    }
}

TEST(CidMap, RefusesIdsThatItDoesNotHave) {
    CidMap map;
    const ReflectedClass a = MakeClass("A");
    bool dirty = false;
    map.GetCid(a, dirty);
    ExpectException<BadCidException>("Bad CID : 0", [&] { map.GetReflectedClass(0); });
    ExpectException<BadCidException>("Bad CID : -3", [&] { map.GetReflectedClass(-3); });
    ExpectException<BadCidException>("Bad CID : 2", [&] { map.GetReflectedClass(2); });
}

TEST(CidMap, TheEmptyMapIsItsSchemaAndACountOfZero) { EXPECT_EQ((Bytes{1, 0}), Serialised(CidMap())); }

TEST(CidMap, TheRecordHoldsTheNamesInOrder) {
    CidMap map;
    const ReflectedClass a = MakeClass("A");
    const ReflectedClass b = MakeClass("Bc");
    bool dirty = false;
    map.GetCid(b, dirty);
    map.GetCid(a, dirty);
    EXPECT_EQ((Bytes{1, 2, 2, 'B', 'c', 1, 'A'}), Serialised(map));
}

TEST(CidMap, AKnownClassIsFoundByNameAfterReading) {
    CidMap map;
    bool dirty = true;
    ASSERT_TRUE(Read(map, {1, 2, 1, 'A', 1, 'B'}, nullptr, dirty));
    EXPECT_FALSE(dirty);
    const ReflectedClass b = MakeClass("B");
    dirty = true;
    EXPECT_EQ(2, map.GetCid(b, dirty));
    EXPECT_FALSE(dirty);
    const ReflectedClass c = MakeClass("C");
    EXPECT_EQ(3, map.GetCid(c, dirty));
    EXPECT_TRUE(dirty);
    EXPECT_EQ((Bytes{1, 3, 1, 'A', 1, 'B', 1, 'C'}), Serialised(map));
}

TEST(CidMap, AStoredClassIsLookedUpWhenItIsAskedForAndNotBefore) {
    CidMap map;
    const ReflectedClass& registered = RegisteredClass();
    bool dirty = false;
    Bytes bytes{1, 2, 7};
    for (const char c : {'U', 'n', 'k', 'n', 'o', 'w', 'n'}) bytes.push_back(static_cast<octet_t>(c));
    const xstring name(registered.m_name);
    bytes.push_back(static_cast<octet_t>(name.size()));
    for (const char c : name) bytes.push_back(static_cast<octet_t>(c));
    ASSERT_TRUE(Read(map, bytes, nullptr, dirty));
    EXPECT_EQ(&registered, &map.GetReflectedClass(2));
    ExpectAssertion("e.m_rc", "src/CidMap", [&] { map.GetReflectedClass(1); });
    ExpectAssertion("e.m_rc", "src/CidMap", [&] { map.GetReflectedClass(1); });
    const ReflectedClass unknown = MakeClass("Unknown");
    EXPECT_EQ(1, map.GetCid(unknown, dirty));
}

TEST(CidMap, ANameThatOccursTwiceIsRefused) {
    CidMap map;
    bool dirty = false;
    ExpectException<RepeatedClassNameInCidMapException>("Repeated class name A", [&] {
        Read(map, {1, 3, 1, 'A', 1, 'B', 1, 'A'}, nullptr, dirty);
    });
}

TEST(CidMap, ATranslationRenamesAndAsksForTheRecordToBeWritten) {
    const ClassNameTranslation entries[] = {{"A", "New"}};
    const ClassNameTranslationTable table{entries, 1};
    CidMap map;
    bool dirty = false;
    ASSERT_TRUE(Read(map, {1, 2, 1, 'A', 1, 'B'}, &table, dirty));
    EXPECT_TRUE(dirty);
    EXPECT_EQ((Bytes{1, 2, 3, 'N', 'e', 'w', 1, 'B'}), Serialised(map));
    const ReflectedClass renamed = MakeClass("New");
    EXPECT_EQ(1, map.GetCid(renamed, dirty));
}

TEST(CidMap, ATranslationThatNamesNoStoredClassChangesNothing) {
    const ClassNameTranslation entries[] = {{"X", "Y"}};
    const ClassNameTranslationTable table{entries, 1};
    CidMap map;
    bool dirty = true;
    ASSERT_TRUE(Read(map, {1, 1, 1, 'A'}, &table, dirty));
    EXPECT_FALSE(dirty);
}

TEST(CidMap, ATranslationIsAppliedOnce) {
    const ClassNameTranslation entries[] = {{"A", "B"}, {"B", "C"}};
    const ClassNameTranslationTable table{entries, 2};
    CidMap map;
    bool dirty = false;
    ASSERT_TRUE(Read(map, {1, 1, 1, 'A'}, &table, dirty));
    EXPECT_EQ((Bytes{1, 1, 1, 'B'}), Serialised(map));
    CidMap swapped;
    ASSERT_TRUE(Read(swapped, {1, 2, 1, 'A', 1, 'B'}, &table, dirty));
    EXPECT_EQ((Bytes{1, 2, 1, 'B', 1, 'C'}), Serialised(swapped));
}

TEST(CidMap, ATranslationThatMergesTwoClassesIsRefusedAtTheSecond) {
    const ClassNameTranslation entries[] = {{"A", "B"}};
    const ClassNameTranslationTable table{entries, 1};
    bool dirty = false;
    for (const Bytes& bytes : {Bytes{1, 2, 1, 'A', 1, 'B'}, Bytes{1, 2, 1, 'B', 1, 'A'}}) {
        CidMap map;
        ExpectException<RepeatedClassNameInCidMapException>("Repeated class name B",
                                                            [&] { Read(map, bytes, &table, dirty); });
    }
}

TEST(CidMap, OfTwoTranslationsOfOneNameTheLaterWins) {
    const ClassNameTranslation entries[] = {{"A", "B"}, {"A", "C"}};
    const ClassNameTranslationTable table{entries, 2};
    CidMap map;
    bool dirty = false;
    ASSERT_TRUE(Read(map, {1, 1, 1, 'A'}, &table, dirty));
    EXPECT_EQ((Bytes{1, 1, 1, 'C'}), Serialised(map));
}

TEST(CidMap, NullNamesInATranslationAreRefused) {
    const ClassNameTranslation noOld[] = {{nullptr, "B"}};
    const ClassNameTranslation noNew[] = {{"A", nullptr}};
    bool dirty = false;
    CidMap map;
    const ClassNameTranslationTable oldTable{noOld, 1};
    ExpectAssertion("e.oldName", "src/CidMap", [&] { Read(map, {1, 0}, &oldTable, dirty); });
    const ClassNameTranslationTable newTable{noNew, 1};
    ExpectAssertion("e.newName", "src/CidMap", [&] { Read(map, {1, 0}, &newTable, dirty); });
}

TEST(CidMap, ADamagedRecordEndsInAnException) {
    bool dirty = false;
    const std::vector<Bytes> records = {
        {2, 0},                        // a schema from the future
        {0, 0},                        // no schema
        {1, 9, 1, 'A'},                // more entries than bytes
        {1, 1, 9, 'A'},                // a name longer than the record
        {1, 0xF0, 255, 255, 255, 255}, // four thousand million entries
    };
    for (const Bytes& bytes : records) {
        CidMap map;
        EXPECT_THROW(Read(map, bytes, nullptr, dirty), RecordException);
    }
}

} // namespace
} // namespace quna

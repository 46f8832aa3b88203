#include "qxPersistStore/src/TypeOpsMap.h"

#include "qxObject/RegisterProject.h"
#include "qxObject/Registry.h"
#include "qxObject/TypeDescription.h"
#include "qxObject/TypeOps.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/TypeInfo.h"
#include "qxUtils/RecordLimits.h"
#include "tests/support/ExpectAssertion.h"

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

template <class T>
Bytes Serialised(const T& x) {
    Sink sink;
    {
        Archive ar(&sink);
        x.Serialise(ar);
    }
    return sink.m_bytes;
}

bool Read(TypeOpsMap& map, Bytes bytes) {
    const ssize_t n = static_cast<ssize_t>(bytes.size());
    bytes.resize(bytes.size() + RECORD_SLACK);
    const RecordLimitsScope limits(bytes.data(), bytes.data() + n);
    return map.Deserialise(bytes.data()).ptr() == bytes.data() + n;
}

template <class T>
ReflectionByteCodeValue Describe() {
    return ReflectionByteCodeValue(DescriptionOf<T>(), false);
}

Bytes Record(const std::vector<ReflectionByteCodeValue>& descriptions) {
    Bytes bytes{1, static_cast<octet_t>(descriptions.size())};
    for (const ReflectionByteCodeValue& rbcv : descriptions) {
        const Bytes one = Serialised(rbcv);
        bytes.insert(bytes.end(), one.begin(), one.end());
    }
    return bytes;
}

TEST(TypeOpsMap, NumbersTypesInTheOrderOfTheirFirstUse) {
    TypeOpsMap map;
    bool dirty = false;
    EXPECT_EQ(1, map.GetTypeOpsId(Describe<int32>(), GetTypeOps<int32>(), dirty));
    EXPECT_TRUE(dirty);
    EXPECT_EQ(2, map.GetTypeOpsId(Describe<xstring>(), GetTypeOps<xstring>(), dirty));
    EXPECT_TRUE(dirty);
    EXPECT_EQ(1, map.GetTypeOpsId(Describe<int32>(), GetTypeOps<int32>(), dirty));
    EXPECT_FALSE(dirty);
    EXPECT_EQ(&GetTypeOps<xstring>(), map.GetTypeOps(2).typeops);
    EXPECT_EQ(Describe<xstring>(), *map.GetTypeOps(2).rbcv);
}

TEST(TypeOpsMap, AnEntryKeepsTheOperationsItHas) {
    TypeOpsMap map;
    bool dirty = false;
    map.GetTypeOpsId(Describe<int32>(), GetTypeOps<int32>(), dirty);
    map.GetTypeOpsId(Describe<int32>(), GetTypeOps<uint32>(), dirty);
    EXPECT_EQ(&GetTypeOps<int32>(), map.GetTypeOps(1).typeops);
}

TEST(TypeOpsMap, RefusesIdsThatItDoesNotHave) {
    TypeOpsMap map;
    ExpectException<BadTypeOpsIdException>("Bad TypeOpsId : 0", [&] { map.GetTypeOps(0); });
    ExpectException<BadTypeOpsIdException>("Bad TypeOpsId : 1", [&] { map.GetTypeOps(1); });
    ExpectException<BadTypeOpsIdException>("Bad TypeOpsId : -1", [&] { map.GetTypeOps(-1); });
}

TEST(TypeOpsMap, TheEmptyMapIsItsSchemaAndACountOfZero) { EXPECT_EQ((Bytes{1, 0}), Serialised(TypeOpsMap())); }

TEST(TypeOpsMap, TheRecordHoldsTheDescriptionsInOrder) {
    TypeOpsMap map;
    bool dirty = false;
    map.GetTypeOpsId(Describe<xstring>(), GetTypeOps<xstring>(), dirty);
    map.GetTypeOpsId(Describe<int32>(), GetTypeOps<int32>(), dirty);
    EXPECT_EQ(Record({Describe<xstring>(), Describe<int32>()}), Serialised(map));
}

TEST(TypeOpsMap, AfterReadingTheOperationsAreFoundByDescription) {
    TypeOpsMap map;
    ASSERT_TRUE(Read(map, Record({Describe<int64>(), Describe<xstring>()})));
    EXPECT_EQ(&GetTypeOps<xstring>(), map.GetTypeOps(2).typeops);
    EXPECT_EQ(map.GetTypeOps(2).typeops, map.GetTypeOps(2).typeops);
    bool dirty = true;
    EXPECT_EQ(1, map.GetTypeOpsId(Describe<int64>(), GetTypeOps<int64>(), dirty));
    EXPECT_FALSE(dirty);
    EXPECT_EQ(3, map.GetTypeOpsId(Describe<bool>(), GetTypeOps<bool>(), dirty));
    EXPECT_TRUE(dirty);
}

// A class that no process has.
ReflectionByteCodeValue UnknownClass() {
    static const octet_t s_code[] = {0x60, 0};
    static const ConstStringZ s_names[] = {"quna::typeopsmap_test::Unknown"};
    return ReflectionByteCodeValue(ReflectionByteCode(s_code, s_names, nullptr), false);
}

TEST(TypeOpsMap, ATypeThatThisProcessDoesNotHaveFailsWhenItIsAskedFor) {
    TypeOpsMap map;
    ASSERT_TRUE(Read(map, Record({UnknownClass()})));
    for (int attempt = 0; attempt < 2; ++attempt)
        ExpectException<TypeOpsNotFoundException>("TypeOps not found for quna::typeopsmap_test::Unknown",
                                                  [&] { map.GetTypeOps(1); });
    EXPECT_EQ(Record({UnknownClass()}), Serialised(map));
}

TEST(TypeOpsMap, OfTwoEqualDescriptionsInARecordTheLaterGivesTheId) {
    TypeOpsMap map;
    ASSERT_TRUE(Read(map, Record({Describe<int32>(), Describe<int32>()})));
    bool dirty = true;
    EXPECT_EQ(2, map.GetTypeOpsId(Describe<int32>(), GetTypeOps<int32>(), dirty));
    EXPECT_FALSE(dirty);
    EXPECT_EQ(Describe<int32>(), *map.GetTypeOps(1).rbcv);
}

TEST(TypeOpsMap, DescriptionsHandedOutStayWhereTheyAre) {
    TypeOpsMap map;
    bool dirty = false;
    map.GetTypeOpsId(Describe<int32>(), GetTypeOps<int32>(), dirty);
    const BcTypeOps first = map.GetTypeOps(1);
    std::vector<xstring> names;
    for (int i = 0; i < 2000; ++i) {
        static const octet_t s_code[] = {0x60, 0};
        const xstring name(("quna::typeopsmap_test::T" + std::to_string(i)).c_str());
        const ConstStringZ table[] = {name.c_str()};
        map.GetTypeOpsId(ReflectionByteCodeValue(ReflectionByteCode(s_code, table, nullptr), false),
                         GetTypeOps<int32>(), dirty);
        ASSERT_TRUE(dirty);
    }
    EXPECT_EQ(first.rbcv, map.GetTypeOps(1).rbcv);
    EXPECT_EQ(Describe<int32>(), *first.rbcv);
}

TEST(TypeOpsMap, ADamagedRecordEndsInAnException) {
    for (const Bytes& bytes : {Bytes{2, 0}, Bytes{1, 9, 1, 0x05, 0}, Bytes{1, 1, 1, 0xFE, 0}}) {
        TypeOpsMap map;
        EXPECT_THROW(Read(map, bytes), RecordException);
    }
}

TEST(TypeInfo, WithoutASpaceOnTheThreadThereIsNoStore) {
    ExpectAssertion("ps", "src/TypeInfo", [] { GetPersistStoreTypeOps(1); });
    ExpectAssertion("tid > 0", "src/TypeInfo", [] { GetPersistStoreTypeOps(0); });
    ExpectAssertion("ps", "src/TypeInfo", [] { GetPersistStoreTypeOpsId(DescriptionOf<int32>()); });
    TypeInfo info;
    EXPECT_EQ(0, info.m_tid);
    EXPECT_EQ(nullptr, info.m_typeops);
    ExpectAssertion("ps", "src/TypeInfo", [&] { info.Set(Describe<int32>()); });
    ExpectAssertion("m_typeops", "src/TypeInfo", [&] { info.Set(UnknownClass()); });
    EXPECT_EQ(nullptr, info.m_typeops);
}

} // namespace
} // namespace quna

#include "qxPersistStore/Goid.h"

#include "qxObject/Registry.h"
#include "qxObject/TypeDescription.h"
#include "qxObject/TypeOps.h"
#include "tests/support/TestObjects.h"

#include <type_traits>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr OidSpaceGuid SPACE = {0x00010203, 0x0405, 0x0607, {0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f}};
constexpr OidSpaceGuid OTHER_SPACE = {0xffeeddcc, 0xbbaa, 0x9988, {0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0x00}};

std::string TextOfGoid(const Goid& goid) {
    StringStream os;
    os << goid;
    return os.c_str();
}

TEST(Goid, NamesAnObjectByItsSpaceAndLowHalf) {
    Goid goid;
    goid.SetoidSpaceGuid(SPACE);
    goid.SetoidLow(42);
    EXPECT_EQ(SPACE, goid.GetoidSpaceGuid());
    EXPECT_EQ(42u, goid.GetoidLow());
    EXPECT_EQ(SPACE, goid.oidSpaceGuid);
    EXPECT_EQ(42u, goid.oidLow);
    EXPECT_EQ(goid, Goid(SPACE, 42));
}

TEST(Goid, IsNullUntilItNamesASpace) {
    EXPECT_FALSE(Goid());
    EXPECT_EQ(Goid(Guid_NULL, 0), Goid());
    EXPECT_FALSE(Goid(Guid_NULL, 42));
    EXPECT_TRUE(Goid(SPACE, 42));
    EXPECT_TRUE(Goid(SPACE, 0));
}

TEST(Goid, IsATestableValueButNoNumber) {
    static_assert(std::is_base_of_v<safe_bool<Goid>, Goid>);
    static_assert(!std::is_convertible_v<Goid, int> && !std::is_convertible_v<Goid, bool>);
    static_assert(std::is_trivially_copyable_v<Goid>);
}

TEST(Goid, IsOrderedBySpaceThenByLowHalf) {
    const Goid& less = SPACE < OTHER_SPACE ? Goid(SPACE, 9) : Goid(OTHER_SPACE, 9);
    const Goid& more = SPACE < OTHER_SPACE ? Goid(OTHER_SPACE, 5) : Goid(SPACE, 5);
    EXPECT_LT(less, more);
    EXPECT_FALSE(more < less);
    EXPECT_LT(Goid(SPACE, 5), Goid(SPACE, 9));
    EXPECT_FALSE(Goid(SPACE, 9) < Goid(SPACE, 9));
    EXPECT_NE(Goid(SPACE, 5), Goid(SPACE, 9));
    EXPECT_NE(Goid(SPACE, 5), Goid(OTHER_SPACE, 5));
}

TEST(Goid, PrintsAsTheGuidAColonAndEightDigits) {
    EXPECT_EQ("00010203-0405-0607-0809-0a0b0c0d0e0f:0000002a", TextOfGoid(Goid(SPACE, 42)));
    EXPECT_EQ("ffeeddcc-bbaa-9988-7766-554433221100:fedcba98", TextOfGoid(Goid(OTHER_SPACE, 0xfedcba98)));
    EXPECT_EQ("00000000-0000-0000-0000-000000000000:00000000", TextOfGoid(Goid()));
}

TEST(Goid, IsReflectedWithItsFields) {
    RegisterTestObjects();
    const ReflectedClass* const rc = FindReflectedClass("quna::Goid");
    ASSERT_NE(nullptr, rc);
    EXPECT_EQ(rc, &GetReflectedClass<Goid>());
    EXPECT_EQ(&rc->m_ops, &GetTypeOps<Goid>());
    EXPECT_EQ(static_cast<ssize_t>(sizeof(Goid)), rc->m_size);
    ASSERT_EQ(2, rc->m_numFields);
    EXPECT_STREQ("oidSpaceGuid", rc->m_fields[0].m_name);
    EXPECT_STREQ("oidLow", rc->m_fields[1].m_name);
    const Goid goid;
    EXPECT_EQ(&goid.oidSpaceGuid, rc->m_fields[0].AddressIn(&goid));
    EXPECT_EQ(&goid.oidLow, rc->m_fields[1].AddressIn(&goid));
    EXPECT_NE(nullptr, FindReflectedTypedef("quna::OidSpaceGuid"));
}

TEST(Goid, ItsTypeOpsConstructCopyAndAssignByValue) {
    const TypeOps& ops = GetTypeOps<Goid>();
    constexpr ssize_t STRIDE = static_cast<ssize_t>(sizeof(Goid));
    EXPECT_EQ(STRIDE, ops.m_size);
    alignas(Goid) octet_t raw[2 * sizeof(Goid)];
    std::memset(raw, 0xEE, sizeof(raw));
    auto* const goids = reinterpret_cast<Goid*>(raw);
    ops.ConstructArray(goids, STRIDE, 2);
    EXPECT_EQ(Goid(), goids[0]);
    EXPECT_EQ(Goid(), goids[1]);
    const Goid from[2] = {Goid(SPACE, 1), Goid(OTHER_SPACE, 2)};
    ops.AssignArray(goids, STRIDE, from, STRIDE, 2);
    EXPECT_EQ(from[0], goids[0]);
    EXPECT_EQ(from[1], goids[1]);
    ops.DestructArray(goids, STRIDE, 2);
    ops.CopyConstructArray(goids, STRIDE, from + 1, STRIDE, 1);
    EXPECT_EQ(from[1], goids[0]);
    ops.DestructArray(goids, STRIDE, 1);
}

} // namespace
} // namespace quna

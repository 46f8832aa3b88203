#include "qxUtils/Guid.h"

#include <map>
#include <set>
#include <type_traits>

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(Guid, IsSixteenPlainBytesAllZeroByDefault) {
    EXPECT_EQ(16u, sizeof(Guid));
    EXPECT_TRUE(std::is_trivially_copyable_v<Guid>);
    EXPECT_EQ(0u, offsetof(Guid, Data1));
    EXPECT_EQ(4u, offsetof(Guid, Data2));
    EXPECT_EQ(6u, offsetof(Guid, Data3));
    EXPECT_EQ(8u, offsetof(Guid, Data4));
    EXPECT_EQ(Guid_NULL, Guid());
    const octet_t zeros[16] = {};
    EXPECT_EQ(0, std::memcmp(&Guid_NULL, zeros, 16));
}

TEST(Guid, ANewOneIsRandomAndNeverNull) {
    std::set<Guid> seen;
    for (int i = 0; i < 1000; ++i) {
        const Guid guid = CreateGuid();
        EXPECT_NE(Guid_NULL, guid);
        EXPECT_EQ(4, guid.Data3 >> 12);
        EXPECT_EQ(0x80, guid.Data4[0] & 0xC0);
        EXPECT_TRUE(seen.insert(guid).second);
    }
}

TEST(Guid, IsAKeyOfOrderedMaps) {
    std::map<Guid, int> map;
    std::vector<Guid> guids;
    for (int i = 0; i < 100; ++i) {
        guids.push_back(CreateGuid());
        map[guids.back()] = i;
    }
    for (int i = 0; i < 100; ++i) EXPECT_EQ(i, map[guids[static_cast<std::size_t>(i)]]);
    EXPECT_FALSE(guids[0] < guids[0]);
    EXPECT_NE(guids[0] < guids[1], guids[1] < guids[0]);
}

} // namespace
} // namespace quna

#include "qxLss/src/Crc32c.h"

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ECrc32cPath ALL_PATHS[] = {ECrc32cPath::TABLE, ECrc32cPath::SSE42, ECrc32cPath::PCLMUL};

std::vector<ECrc32cPath> SupportedPaths() {
    std::vector<ECrc32cPath> paths;
    for (ECrc32cPath path : ALL_PATHS)
        if (IsCrc32cPathSupported(path)) paths.push_back(path);
    return paths;
}

// Bit by bit, after the definition.
uint32 ByDefinition(const std::vector<octet_t>& bytes) {
    uint32 crc = 0xFFFFFFFF;
    for (octet_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) ? 0x82F63B78u : 0u);
    }
    return ~crc;
}

std::vector<octet_t> RandomBytes(ssize_t n, uint64 seed) {
    std::mt19937_64 random(seed);
    std::vector<octet_t> bytes(static_cast<size_t>(n));
    for (octet_t& byte : bytes) byte = static_cast<octet_t>(random());
    return bytes;
}

TEST(Crc32c, GivesThePublishedCheckValues) {
    EXPECT_EQ(Crc32c("", 0), 0u);
    EXPECT_EQ(Crc32c("123456789", 9), 0xE3069283u);
    std::vector<octet_t> bytes(32, 0);
    EXPECT_EQ(Crc32c(bytes.data(), 32), 0x8A9136AAu);
    bytes.assign(32, 0xFF);
    EXPECT_EQ(Crc32c(bytes.data(), 32), 0x62A8AB43u);
    for (size_t i = 0; i < 32; ++i) bytes[i] = static_cast<octet_t>(i);
    EXPECT_EQ(Crc32c(bytes.data(), 32), 0x46DD794Eu);
}

TEST(Crc32c, AllPathsAgreeWithTheDefinitionForEveryShortLengthAndAlignment) {
    for (ssize_t n = 0; n <= 1300; n += n < 400 ? 1 : 13) {
        const std::vector<octet_t> bytes = RandomBytes(n, static_cast<uint64>(n) + 1);
        const uint32 expected = ByDefinition(bytes);
        for (size_t shift = 0; shift < 8; shift += 3) {
            std::vector<octet_t> moved(shift);
            moved.insert(moved.end(), bytes.begin(), bytes.end());
            for (ECrc32cPath path : SupportedPaths())
                ASSERT_EQ(Crc32cByPath(path, moved.data() + shift, n), expected)
                    << "path " << static_cast<int>(path) << ", " << n << " bytes, shift " << shift;
        }
    }
}

TEST(Crc32c, AllPathsAgreeAroundTheBlockBoundariesOfTheThreeChains) {
    for (ssize_t base : {384, 768, 3072, 3456, 6144, 6528, 65536})
        for (ssize_t n = base - 9; n <= base + 9; ++n) {
            const std::vector<octet_t> bytes = RandomBytes(n, static_cast<uint64>(n));
            const uint32 expected = Crc32cByPath(ECrc32cPath::TABLE, bytes.data(), n);
            EXPECT_EQ(expected, ByDefinition(bytes));
            for (ECrc32cPath path : SupportedPaths())
                ASSERT_EQ(Crc32cByPath(path, bytes.data(), n), expected)
                    << "path " << static_cast<int>(path) << ", " << n << " bytes";
        }
}

TEST(Crc32c, AStartValueContinuesWhatCameBefore) {
    const std::vector<octet_t> bytes = RandomBytes(5000, 3);
    const uint32 whole = Crc32c(bytes.data(), 5000);
    for (ECrc32cPath path : SupportedPaths())
        for (ssize_t cut : {0, 1, 7, 400, 3072, 4999, 5000}) {
            const uint32 head = Crc32cByPath(path, bytes.data(), cut);
            EXPECT_EQ(Crc32cByPath(path, bytes.data() + cut, 5000 - cut, head), whole) << cut;
        }
}

TEST(Crc32c, UsesTheBestPathOfTheMachine) {
    EXPECT_TRUE(IsCrc32cPathSupported(ECrc32cPath::TABLE));
    EXPECT_TRUE(IsCrc32cPathSupported(BestCrc32cPath()));
    EXPECT_EQ(BestCrc32cPath(), SupportedPaths().back());
}

} // namespace
} // namespace quna

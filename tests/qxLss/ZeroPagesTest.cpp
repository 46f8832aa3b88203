#include "qxLss/src/ZeroPages.h"

#include <algorithm>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr size_t BYTES = size_t{8} << 20;

bool IsZero(const ZeroPages& pages, size_t bytes) {
    const octet_t* const p = pages.As<octet_t>();
    return std::all_of(p, p + bytes, [](octet_t b) { return b == 0; });
}

TEST(ZeroPages, MoreThanThereAreAddressesIsNone) {
    const ZeroPages pages(~size_t{0} >> 1);
    EXPECT_FALSE(pages);
}

TEST(ZeroPages, WhatIsKeptIsZeroAgainHoweverMuchWasUsed) {
    ZeroPages::KeepForTest();
    for (const size_t used : {size_t{0}, size_t{5000}, size_t{2} << 20}) {
        for (int round = 0; round < 2; ++round) {
            ZeroPages pages(BYTES);
            ASSERT_TRUE(pages);
            EXPECT_TRUE(IsZero(pages, BYTES));
            std::fill_n(pages.As<octet_t>(), used, octet_t{0xA5});
            pages.SetUsed(used);
        }
    }
}

TEST(ZeroPages, ManyAtATimeAreNotAllKept) {
    ZeroPages::KeepForTest();
    for (int round = 0; round < 2; ++round) {
        std::vector<std::unique_ptr<ZeroPages>> many;
        for (int i = 0; i < 100; ++i) {
            many.push_back(std::make_unique<ZeroPages>(size_t{1} << 16));
            ASSERT_TRUE(*many.back());
            EXPECT_TRUE(IsZero(*many.back(), 1 << 16));
            many.back()->As<octet_t>()[100] = 1;
            many.back()->SetUsed(101);
        }
    }
}

} // namespace
} // namespace quna

#include "qxLss/src/SeidAllocator.h"

#include "qxLss/src/SeidFamilies.h"
#include "tests/support/ExpectAssertion.h"
#include "tests/support/SimSys.h"

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

// An allocator over a ring on an imagined disk, with one high.
class TestAllocator {
public:
    explicit TestAllocator(std::function<void()> wake = {}) : m_file(m_sys) {
        m_sys.StopRecording();
        m_file.Open("d/store", EFileAccess::CREATE);
        m_file.Allocate(0, 131072);
        Reset(wake);
        m_ring->BeginOwner(1, {}, 1, 1, false);
    }

    SeidAllocator* operator->() { return m_allocator.get(); }
    SeidAllocator& operator*() { return *m_allocator; }
    SimSys& Sys() { return m_sys; }
    AllocRing& Ring() { return *m_ring; }
    int64 NumRingWrites() const { return m_sys.NumCalls(ESimCall::WRITE_DURABLE); }

    uint32 Affiliate(uint32 hint, SeidHigh high = 1) {
        Seid seid(hint, high);
        EXPECT_TRUE(m_allocator->AllocateAffiliateSeid(seid));
        EXPECT_EQ(seid.high_, high);
        return seid.low_;
    }

    // What an orderly end and a new open do.
    void CloseAndReopen() {
        std::vector<HighAllocation> highs;
        uint32 nextHigh = 0;
        const uint64 sequence = m_allocator->BeginCheckpoint(true, highs, nextHigh);
        m_ring->EndCheckpoint(++m_checkpoint, sequence, false);
        Reset({});
        const AllocRing::Contents contents = m_ring->Read();
        EXPECT_TRUE(m_ring->VouchesForCleanClose(m_checkpoint));
        m_ring->BeginOwner(m_checkpoint, Known(highs), nextHigh, 1, true);
        m_allocator->Import(highs, contents, true);
    }

    // What a killed process and a new open do, with the last checkpoint's entries.
    void KillAndReopen() {
        Reset({});
        const AllocRing::Contents contents = m_ring->Read();
        m_ring->BeginOwner(m_checkpoint, Known(m_lastHighs), m_lastNextHigh, 1, false);
        m_allocator->Import(m_lastHighs, contents, false);
        Checkpoint();
    }

    void Checkpoint() {
        const uint64 sequence = m_allocator->BeginCheckpoint(false, m_lastHighs, m_lastNextHigh);
        m_ring->EndCheckpoint(++m_checkpoint, sequence, true);
    }

private:
    void Reset(std::function<void()> wake) {
        m_allocator.reset();
        m_ring = std::make_unique<AllocRing>(m_file, AllocRing::StoreId{});
        m_allocator = std::make_unique<SeidAllocator>(*m_ring, std::move(wake));
    }
    static std::vector<AllocHorizon> Known(const std::vector<HighAllocation>& highs) {
        std::vector<AllocHorizon> known;
        for (const HighAllocation& entry : highs) known.push_back({entry.high, entry.horizon});
        return known;
    }

    SimSys m_sys;
    File m_file;
    std::unique_ptr<AllocRing> m_ring;
    std::unique_ptr<SeidAllocator> m_allocator;
    uint64 m_checkpoint = 1;
    std::vector<HighAllocation> m_lastHighs;
    uint32 m_lastNextHigh = 1;
};

TEST(SeidAllocator, ANewStoreGivesHighOneThenLowsZeroAndOne) {
    TestAllocator allocator;
    EXPECT_EQ(allocator->AllocateSeidHigh(), 1u);
    EXPECT_EQ(allocator->AllocateSeid(1), Seid(0, 1));
    EXPECT_EQ(allocator->AllocateSeid(1), Seid(1, 1));
    EXPECT_EQ(allocator->AllocateSeidHigh(), 2u);
    EXPECT_EQ(allocator->AllocateSeidHigh(), 3u);
    EXPECT_EQ(allocator->AllocateSeid(3), Seid(0, 3));
}

TEST(SeidAllocator, IncrementalLowsAscendAndBlocksDouble) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    uint32 last = 0;
    for (int i = 0; i < 5000; ++i) {
        const uint32 low = allocator->AllocateSeid(1).low_;
        if (i > 0) {
            ASSERT_GT(low, last);
        }
        last = low;
        if (i % 10 == 0) allocator.Affiliate(0);
    }
    EXPECT_LT(last, 8000u);
}

TEST(SeidAllocator, LowZeroIsALegalHintAndFoundsAFamily) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    allocator->AllocateSeid(1);
    allocator->AllocateSeid(1);
    for (uint32 i = 0; i < 8; ++i) EXPECT_EQ(allocator.Affiliate(0), 64 + i);
    EXPECT_EQ(allocator.Affiliate(0), 72u); // the next extent of the family, of 16
    EXPECT_EQ(allocator.Affiliate(1), 88u); // another family
    EXPECT_EQ(allocator.Affiliate(66), 73u);
    EXPECT_EQ(allocator->AllocateSeid(1), Seid(2, 1));
}

TEST(SeidAllocator, AnAffiliateOfAnEmptyHighIsPossible) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    EXPECT_EQ(allocator.Affiliate(0), 0u);
    EXPECT_EQ(allocator.Affiliate(12345678), 8u);
}

TEST(SeidAllocator, AnIdentifierOfAnotherStoreIsTakenOver) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    EXPECT_FALSE(allocator->TakeOver(Seid(5, 2))); // a high that is not known
    EXPECT_FALSE(allocator->TakeOver(Seid(5, 0)));
    EXPECT_FALSE(allocator->TakeOver(Seid(SeidAllocator::LOW_LIMIT, 1)));
    EXPECT_FALSE(allocator->IsAllocated(Seid(5, 1)));
    EXPECT_TRUE(allocator->TakeOver(Seid(5, 1)));
    EXPECT_TRUE(allocator->IsAllocated(Seid(5, 1)));
    EXPECT_TRUE(allocator->TakeOver(Seid(1000000, 1)));
    EXPECT_TRUE(allocator->IsAllocated(Seid(1000000, 1)));
    EXPECT_TRUE(allocator->TakeOver(Seid(SeidAllocator::LOW_LIMIT - 1, 1)));
    EXPECT_TRUE(allocator->IsAllocated(Seid(SeidAllocator::LOW_LIMIT - 1, 1)));
    EXPECT_FALSE(allocator->IsAllocated(Seid(SeidAllocator::LOW_LIMIT, 1)));
}

TEST(SeidAllocator, WhatWasTakenOverIsNeverHandedOutInThisLifeOrALaterOne) {
    for (const bool clean : {true, false}) {
        TestAllocator allocator;
        allocator->AllocateSeidHigh();
        allocator.Checkpoint();
        EXPECT_TRUE(allocator->TakeOver(Seid(70000, 1)));
        EXPECT_GT(allocator->AllocateSeid(1).low_, 70000u);
        EXPECT_GT(allocator.Affiliate(70000), 70000u);
        clean ? allocator.CloseAndReopen() : allocator.KillAndReopen();
        EXPECT_TRUE(allocator->IsAllocated(Seid(70000, 1)));
        EXPECT_GT(allocator->AllocateSeid(1).low_, 70000u);
        EXPECT_GT(allocator.Affiliate(70000), 70000u);
    }
}

TEST(SeidAllocator, TakingOverAscendingIdentifiersSeldomWritesTheRing) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    const int64 before = allocator.NumRingWrites();
    for (uint32 low = 0; low < 100000; ++low)
        if (!allocator->IsAllocated(Seid(low, 1))) {
            EXPECT_TRUE(allocator->TakeOver(Seid(low, 1)));
        }
    EXPECT_LE(allocator.NumRingWrites() - before, 8);
}

TEST(SeidAllocator, AnUnknownHighIsRefused) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    Seid seid(7, 2);
    EXPECT_FALSE(allocator->AllocateAffiliateSeid(seid));
    EXPECT_EQ(seid, Seid(7, 2));
    seid = Seid(7, 0);
    EXPECT_FALSE(allocator->AllocateAffiliateSeid(seid));
    ExpectAssertion("IsAllocatedHigh(high)", "src/SeidAllocator", [&] { allocator->AllocateSeid(2); });
    ExpectAssertion("IsAllocatedHigh(high)", "src/SeidAllocator", [&] { allocator->AllocateSeid(0); });
    EXPECT_FALSE(allocator->IsAllocated(Seid(0, 1)));
    allocator->AllocateSeid(1);
    EXPECT_TRUE(allocator->IsAllocated(Seid(0, 1)));
    EXPECT_FALSE(allocator->IsAllocated(Seid(4096, 1)));
    EXPECT_FALSE(allocator->IsAllocated(Seid(0, 2)));
}

TEST(SeidAllocator, InterleavedFamiliesStayTogether) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    constexpr int FAMILIES = 1000;
    std::vector<uint32> roots;
    std::vector<std::set<uint32>> leaves(FAMILIES);
    for (int f = 0; f < FAMILIES; ++f) roots.push_back(allocator->AllocateSeid(1).low_);
    std::set<uint32> all(roots.begin(), roots.end());
    uint32 last = 0;
    for (int round = 0; round < 200; ++round)
        for (size_t f = 0; f < FAMILIES; ++f) {
            last = allocator.Affiliate(roots[f]);
            EXPECT_TRUE(all.insert(last).second);
            leaves[f].insert(last / 256);
        }
    size_t sum = 0;
    for (const std::set<uint32>& of : leaves) sum += of.size();
    EXPECT_LT(sum, 7u * FAMILIES); // one counter would give 200 each
    EXPECT_LT(last, 2u * all.size());
}

TEST(SeidAllocator, AHintInALargeFamilyFoundsItsOwnAtTheFourthUse) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    uint32 member = 0;
    for (int i = 0; i < 300; ++i) member = allocator.Affiliate(0);
    const uint32 a = allocator.Affiliate(member);
    EXPECT_EQ(a, member + 1);
    EXPECT_EQ(allocator.Affiliate(member), member + 2);
    EXPECT_EQ(allocator.Affiliate(member), member + 3);
    const uint32 own = allocator.Affiliate(member);
    EXPECT_NE(own, member + 4);
    EXPECT_EQ(allocator.Affiliate(member), own + 1);
    EXPECT_EQ(allocator.Affiliate(0), member + 4);
}

TEST(SeidAllocator, TheHorizonGrowsByDoublingSteps) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    const int64 before = allocator.NumRingWrites();
    auto spendTo = [&](uint32 low) {
        while (allocator->AllocateSeid(1).low_ < low) {
        }
    };
    spendTo(3000);
    EXPECT_EQ(allocator.NumRingWrites() - before, 1);
    spendTo(4096); // the blocks are of 1,024 by now
    EXPECT_EQ(allocator.NumRingWrites() - before, 2);
    spendTo(4096 + 8192 - 1024);
    EXPECT_EQ(allocator.NumRingWrites() - before, 2);
    spendTo(4096 + 8192);
    EXPECT_EQ(allocator.NumRingWrites() - before, 3);
    spendTo(1'000'000);
    EXPECT_LE(allocator.NumRingWrites() - before, 20);
}

TEST(SeidAllocator, TopUpRaisesTheHorizonBeforeItIsReached) {
    int wakes = 0;
    TestAllocator allocator([&] { ++wakes; });
    allocator->AllocateSeidHigh();
    while (allocator->AllocateSeid(1).low_ < 1000) {
    }
    EXPECT_EQ(wakes, 0);
    while (allocator->AllocateSeid(1).low_ < 2100) {
    }
    EXPECT_EQ(wakes, 1);
    const int64 before = allocator.NumRingWrites();
    allocator->TopUp();
    EXPECT_EQ(allocator.NumRingWrites() - before, 1);
    EXPECT_TRUE(allocator->IsAllocated(Seid(4096 + 8191, 1)));
    EXPECT_FALSE(allocator->IsAllocated(Seid(4096 + 8192, 1)));
    allocator->TopUp();
    while (allocator->AllocateSeid(1).low_ < 6000) {
    }
    EXPECT_EQ(allocator.NumRingWrites() - before, 1);
    // A failed disk fails the next who needs it.
    allocator.Sys().FailCall(ESimCall::WRITE_DURABLE, 1, 5, true);
    while (wakes < 2) allocator->AllocateSeid(1);
    EXPECT_THROW(allocator->TopUp(), FileException);
    EXPECT_THROW(allocator->AllocateSeidHigh(), FileException);
    EXPECT_THROW(
        {
            for (int i = 0; i < 100000; ++i) allocator->AllocateSeid(1);
        },
        FileException);
}

TEST(SeidAllocator, AHighEndsBeforeTheLastLow) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    std::vector<HighAllocation> highs = {{1, 0xFFFFFF00, 0, 0}};
    allocator->Import(highs, {}, true);
    std::set<uint32> lows;
    for (int i = 0; i < 3; ++i) lows.insert(allocator.Affiliate(static_cast<uint32>(i)));
    Seid seid(5, 1);
    for (;;) {
        try {
            const Seid got = allocator->AllocateSeid(1);
            EXPECT_TRUE(lows.insert(got.low_).second);
        } catch (const FileException& e) {
            EXPECT_STREQ(e.what(), "Can't allocate an identifier: all of identifier space 1 are in use");
            break;
        }
    }
    while (allocator->AllocateAffiliateSeid(seid)) EXPECT_TRUE(lows.insert(seid.low_).second);
    EXPECT_FALSE(lows.contains(0xFFFFFFFF));
    EXPECT_EQ(*lows.begin(), 0xFFFFFF00u);
    EXPECT_EQ(*lows.rbegin(), 0xFFFFFFFEu);
    // Only what stands open in other families is not handed out.
    EXPECT_GE(lows.size(), 255u - 3 * 8);
    EXPECT_FALSE(allocator->AllocateAffiliateSeid(seid));
    EXPECT_THROW(allocator->AllocateSeid(1), FileException);
    // The next open finds nothing either.
    allocator.CloseAndReopen();
    EXPECT_THROW(allocator->AllocateSeid(1), FileException);
    EXPECT_FALSE(allocator->AllocateAffiliateSeid(seid));
}

TEST(SeidAllocator, ACleanCloseGoesOnWithTheIncrementalBlockAndTheFrontier) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    for (int i = 0; i < 10; ++i) allocator->AllocateSeid(1);
    EXPECT_EQ(allocator.Affiliate(0), 64u);
    allocator.CloseAndReopen();
    EXPECT_TRUE(allocator->IsAllocatedHigh(1));
    EXPECT_EQ(allocator->AllocateSeid(1), Seid(10, 1));
    EXPECT_EQ(allocator.Affiliate(0), 256u); // the rest of the first leaf is spent
    EXPECT_EQ(allocator->AllocateSeidHigh(), 2u);
    for (uint32 low = 11; low < 64; ++low) EXPECT_EQ(allocator->AllocateSeid(1), Seid(low, 1));
    EXPECT_EQ(allocator->AllocateSeid(1), Seid(264, 1));
}

TEST(SeidAllocator, AfterAKillTheHorizonIsTheFrontier) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    allocator->AllocateSeid(1);
    allocator.Checkpoint();
    allocator->AllocateSeidHigh();
    allocator->AllocateSeid(2); // known to the ring alone
    allocator.KillAndReopen();
    EXPECT_EQ(allocator->AllocateSeid(1), Seid(4096, 1));
    EXPECT_EQ(allocator->AllocateSeid(2), Seid(4096, 2));
    EXPECT_EQ(allocator->AllocateSeidHigh(), 3u);
}

TEST(SeidAllocator, DamagedEntriesDoNotGiveSpentLows) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    // A block beyond the frontier is not believed; a frontier inside a granule is rounded up.
    allocator->Import({{1, 1001, 900, 1000}}, {}, true);
    EXPECT_GE(allocator->AllocateSeid(1).low_, 1008u);
    EXPECT_GE(allocator.Affiliate(3), 1008u);
}

TEST(SeidAllocator, HighsBeyondTheFirstThousandAreFound) {
    TestAllocator allocator;
    std::vector<HighAllocation> highs;
    const std::vector<SeidHigh> some = {1, 1023, 1024, 1025, 70000, 1u << 20, (1u << 20) + 5, 0xFFFFFFFD};
    for (SeidHigh high : some) highs.push_back({high, 256, 0, 0});
    allocator.Ring().BeginOwner(1, {}, 0xFFFFFFFE, 1, false);
    allocator->Import(highs, {}, true);
    for (SeidHigh high : some) {
        EXPECT_EQ(allocator->AllocateSeid(high), Seid(256, high));
        EXPECT_EQ(allocator.Affiliate(0, high), 320u);
    }
    EXPECT_EQ(allocator->AllocateSeid(5000), Seid(0, 5000));
    EXPECT_EQ(allocator->AllocateSeid(7u << 20), Seid(0, 7u << 20)); // of a range in which there is none yet
    std::vector<HighAllocation> exported;
    uint32 nextHigh = 0;
    allocator->BeginCheckpoint(false, exported, nextHigh);
    EXPECT_EQ(nextHigh, 0xFFFFFFFEu);
    EXPECT_EQ(exported.size(), some.size() + 2);
    EXPECT_TRUE(std::is_sorted(exported.begin(), exported.end(),
                               [](const HighAllocation& a, const HighAllocation& b) { return a.high < b.high; }));
}

TEST(SeidAllocator, NoIdentifierIsGivenTwiceOverKillsAndCloses) {
    std::mt19937_64 random(20);
    TestAllocator allocator;
    std::set<uint64> given;
    std::vector<Seid> some;
    for (int life = 0; life < 1000; ++life) {
        if (life < 3 || random() % 100 == 0) allocator->AllocateSeidHigh();
        const SeidHigh highs = allocator.Ring().NextHigh() - 1;
        for (uint64 i = random() % 60; i > 0; --i) {
            Seid seid(static_cast<SeidLow>(random() % 5000), 1 + static_cast<SeidHigh>(random() % highs));
            if (!some.empty() && random() % 2) seid = some[random() % some.size()];
            if (random() % 3 == 0)
                seid = allocator->AllocateSeid(seid.high_);
            else
                ASSERT_TRUE(allocator->AllocateAffiliateSeid(seid));
            ASSERT_TRUE(given.insert(seid.value_).second) << "life " << life;
            if (random() % 8 == 0) some.push_back(seid);
        }
        if (random() % 10 == 0) allocator.Checkpoint();
        if (random() % 3 == 0) allocator->TopUp();
        // A kill after a clean open must find a checkpoint that is no older than that close.
        if (random() % 2) {
            allocator.CloseAndReopen();
            allocator.Checkpoint();
        } else {
            allocator.KillAndReopen();
        }
    }
}

TEST(SeidFamilies, AtMostSoManyGranulesAreRemembered) {
    SeidFamilies families;
    uint32 frontier = 0;
    for (uint32 i = 0; i < 100000; ++i) {
        const SeidFamilies::Family family = families.FamilyFor(0x80000000 + i);
        ASSERT_FALSE(families.HasRoom(family));
        families.AddExtent(family, frontier, frontier + 8);
        frontier += 8;
        ASSERT_EQ(families.Take(family), frontier - 8);
    }
    EXPECT_EQ(families.NumGranulesForTest(), SeidFamilies::MAX_GRANULES);
    EXPECT_EQ(families.NumFamiliesForTest(), SeidFamilies::MAX_GRANULES);
    // The first founder is forgotten, the last is not.
    EXPECT_TRUE(families.HasRoom(families.FamilyFor(0x80000000 + 99999)));
    EXPECT_FALSE(families.HasRoom(families.FamilyFor(0x80000000)));
}

TEST(SeidFamilies, SmallHashMapAgreesWithAModel) {
    std::mt19937 random(4);
    SmallHashMap map;
    std::map<uint32, uint32> model;
    for (int i = 0; i < 200000; ++i) {
        const uint32 key = static_cast<uint32>(random() % 3000) * (i % 2 ? 1u : 0x10001u);
        switch (random() % 3) {
        case 0:
            map.Set(key, static_cast<uint32>(i));
            model[key] = static_cast<uint32>(i);
            break;
        case 1:
            map.Erase(key);
            model.erase(key);
            break;
        default: {
            const auto found = model.find(key);
            ASSERT_EQ(map.Find(key), found == model.end() ? SmallHashMap::NONE : found->second);
        }
        }
        ASSERT_EQ(map.Size(), std::ssize(model));
    }
    for (const auto& [key, value] : model) EXPECT_EQ(map.Find(key), value);
}

TEST(SeidAllocatorThreads, NoIdentifierIsGivenTwiceToManyThreads) {
    TestAllocator allocator;
    for (int i = 0; i < 3; ++i) allocator->AllocateSeidHigh();
    constexpr int THREADS = 4;
    std::vector<std::vector<uint64>> given(THREADS);
    std::atomic<bool> stop{false};
    std::thread background([&] {
        while (!stop) {
            allocator->TopUp();
            allocator.Checkpoint();
        }
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t)
        threads.emplace_back([&, t] {
            std::mt19937_64 random(static_cast<uint64>(t));
            Seid last(0, 1);
            uint32 ascending = 0;
            for (int i = 0; i < 20000; ++i) {
                if (random() % 2) {
                    last = allocator->AllocateSeid(1 + static_cast<SeidHigh>(random() % 3));
                    if (last.high_ == 1) {
                        EXPECT_GE(last.low_, ascending);
                        ascending = last.low_;
                    }
                } else {
                    ASSERT_TRUE(allocator->AllocateAffiliateSeid(last));
                }
                given[static_cast<size_t>(t)].push_back(last.value_);
                if (i % 5000 == 0)
                    given[static_cast<size_t>(t)].push_back(uint64{allocator->AllocateSeidHigh()} << 32 | 0xFFFFFFFF);
            }
        });
    for (std::thread& thread : threads) thread.join();
    stop = true;
    background.join();
    std::vector<uint64> all;
    for (const std::vector<uint64>& of : given) all.insert(all.end(), of.begin(), of.end());
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
}

// There a block that would cross into the next leaf has none to begin at.
TEST(SeidAllocator, TheLastLeafIsUsedUpFromWherever) {
    TestAllocator allocator;
    allocator->AllocateSeidHigh();
    allocator->Import({{1, 0xFFFFFE00, 0, 0}}, {}, true);
    std::set<uint32> lows;
    EXPECT_THROW(
        {
            for (;;) lows.insert(allocator->AllocateSeid(1).low_);
        },
        FileException);
    EXPECT_EQ(lows.size(), 511u);
    EXPECT_EQ(*lows.rbegin(), 0xFFFFFFFEu);
}

TEST(SeidFamilies, AFamilyIsForgottenWithItsLastGranule) {
    constexpr uint32 GRANULE = SeidFamilies::GRANULE;
    SeidFamilies families;
    const SeidFamilies::Family first = families.FamilyFor(0);
    families.AddExtent(first, 0, 2 * GRANULE);
    families.DropIfEmpty(first);
    EXPECT_EQ(families.FamilyFor(GRANULE), first);
    for (uint32 at = 2 * GRANULE; families.NumGranulesForTest() == static_cast<ssize_t>(at / GRANULE); at += GRANULE)
        families.AddExtent(families.FamilyFor(at), at, at + GRANULE);
    EXPECT_EQ(families.FamilyFor(2 * GRANULE - 1), first); // one granule of two is forgotten
}

TEST(SeidFamilies, HintZeroCountsAsAnyOther) {
    SeidFamilies families;
    const SeidFamilies::Family large = families.FamilyFor(5);
    uint32 end = 0;
    for (int i = 0; i < 20; ++i) {
        families.AddExtent(large, end, end + 64);
        end += 64;
        while (families.HasRoom(large)) families.Take(large);
    }
    int uses = 1;
    while (families.FamilyFor(0) == large && uses < 10) ++uses;
    EXPECT_EQ(uses, 4);
}

} // namespace
} // namespace quna

#include "qxLss/src/Index.h"

#include "qxLss/src/SegmentWriter.h"
#include "tests/qxLss/TestLss.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

// An index whose pages go into one segment of an imagined file.
class IndexPages : private IIndexPageSink {
public:
    IndexPages() : m_core(m_sys) {
        m_core.m_file.Open("d/store", EFileAccess::CREATE);
        m_core.m_file.Allocate(0, 131072 + 65536);
        m_core.Attach(StoreId{}, 65536);
        SutEntry entry{};
        entry.sequence = 1;
        entry.kind = static_cast<uint8>(ESegmentKind::INDEX);
        m_core.m_segments->SetEntry(0, entry);
        m_core.m_segments->RaiseLimit(1);
        SegmentSlot& slot = (*m_core.m_segments)[0];
        slot.crcSeed = SegmentCrcSeed(StoreId{}, 1);
        slot.base.store(m_core.m_map->At(131072));
        m_writer = std::make_unique<SegmentWriter>(m_core);
        m_writer->Begin(0, 0, 0);
        m_index = std::make_unique<Index>(m_core);
    }

    Index& operator*() { return *m_index; }
    void Set(Seid seid, Location l) { m_index->Publish(m_index->Prepare(seid), l); }
    // Writes the dirty pages and gives the root of high 1.
    Location Checkpoint(int& level) {
        m_index->BeginSnapshot();
        m_index->WriteSnapshot(*this);
        m_writer->HandOver();
        Location root = 0;
        int64 live = 0;
        m_index->GetSnapshotRoot(1, root, level, live);
        return root;
    }
    // Forgets all pages and begins again with what was written.
    void Reload(Location root, int level) {
        m_index = std::make_unique<Index>(m_core);
        m_index->Import(1, root, level, 0);
    }
    ssize_t NumLivePages() const { return m_livePages; }

private:
    Location WritePage(uint64 key, const void* payload, ssize_t n) override {
        ++m_livePages;
        return m_writer->Append(EPacketType::INDEX, key, payload, n);
    }
    void PageDied(Location) override { --m_livePages; }

    SimSys m_sys;
    StoreCore m_core;
    std::unique_ptr<SegmentWriter> m_writer;
    std::unique_ptr<Index> m_index;
    ssize_t m_livePages = 0;
};

Location Fake(uint32 n) { return MakeLocation(131072 + 64 + (n % 4000) * 8, 16); }

constexpr uint32 BORDERS[] = {0, 255, 256, 65535, 65536, 0xFFFFFF, 0x1000000, 0xFFFFFFFE};

TEST(Index, FindsLowsAtTheBordersOfPagesOfEveryLevelAlsoAfterReloading) {
    IndexPages pages;
    uint32 numSet = 0;
    for (const uint32 low : BORDERS) {
        pages.Set(Seid(low, 1), Fake(++numSet));
        int level = 0;
        const Location root = pages.Checkpoint(level);
        pages.Reload(root, level);
        for (uint32 i = 0; i < 8; ++i) EXPECT_EQ((*pages).Get(Seid(BORDERS[i], 1)), i < numSet ? Fake(i + 1) : 0);
        EXPECT_EQ((*pages).Get(Seid(1, 1)), 0u);
        EXPECT_EQ((*pages).Get(Seid(0x800000, 1)), 0u);
        EXPECT_EQ((*pages).Get(Seid(0, 2)), 0u);
    }
}

// The root grows between the marking and the writing of a snapshot, and a marked leaf changes.
TEST(Index, FindsInTheIndexThatIsAskedWhicheverWasAskedBefore) {
    IndexPages x;
    IndexPages y;
    x.Set(Seid(5, 1), Fake(1));
    y.Set(Seid(5, 1), Fake(2));
    y.Set(Seid(5, 2), Fake(3));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ((*x).Get(Seid(5, 1)), Fake(1));
        EXPECT_EQ((*y).Get(Seid(5, 1)), Fake(2));
        EXPECT_EQ((*x).Get(Seid(6, 1)), 0u);
        EXPECT_EQ((*x).Get(Seid(5 + 256, 1)), 0u);
        EXPECT_EQ((*y).Get(Seid(5, 2)), Fake(3));
        EXPECT_EQ((*x).Get(Seid(5, 2)), 0u);
    }
    int level = 0;
    const Location root = y.Checkpoint(level);
    y.Reload(root, level);
    EXPECT_EQ((*y).Get(Seid(5, 1)), Fake(2));
    EXPECT_EQ((*y).Get(Seid(5, 2)), 0u); // only high 1 has been imported again
    y.Set(Seid(5, 1), Fake(4));
    EXPECT_EQ((*y).Get(Seid(5, 1)), Fake(4));
}

TEST(Index, ASnapshotIsTheIndexAsItWasMarked) {
    IndexPages pages;
    pages.Set(Seid(0, 1), Fake(1));
    (*pages).BeginSnapshot();
    pages.Set(Seid(0, 1), Fake(2));
    pages.Set(Seid(70000, 1), Fake(3));
    struct Sink final : IIndexPageSink {
        Location WritePage(uint64, const void* payload, ssize_t n) override {
            written.assign(static_cast<const octet_t*>(payload), static_cast<const octet_t*>(payload) + n);
            return Fake(9);
        }
        void PageDied(Location) override {}
        std::vector<octet_t> written;
    } sink;
    (*pages).WriteSnapshot(sink);
    ASSERT_EQ(sink.written.size(), sizeof(IndexPrefix) + sizeof(Location));
    EXPECT_EQ(ReadPod<Location>(sink.written.data() + sizeof(IndexPrefix)), Fake(1));
    Location root = 0;
    int level = -1;
    int64 live = 0;
    (*pages).GetSnapshotRoot(1, root, level, live);
    EXPECT_EQ(root, Fake(9));
    EXPECT_EQ(level, 0);
    EXPECT_EQ(live, 1);
    // The next one has everything.
    const Location next = pages.Checkpoint(level);
    EXPECT_EQ(level, 2);
    pages.Reload(next, level);
    EXPECT_EQ((*pages).Get(Seid(0, 1)), Fake(2));
    EXPECT_EQ((*pages).Get(Seid(70000, 1)), Fake(3));
}

// A recovery repeats what was published after the mark: it would count an element twice whose page has it already.
// All that was there is reached through nodes that have no changed leaf below them.
TEST(Index, ARootThatGrowsByMoreThanOneLevelKeepsWhatWasBelowIt) {
    constexpr uint32 SMALL[] = {5, 300, 70000};
    constexpr uint32 LARGE[] = {600, 65536, 70001, 0xFFFFFF, 0x1000000, 0xFFFFFFFE};
    for (const uint32 before : SMALL) {
        for (const uint32 after : LARGE) {
            for (const bool isReloaded : {false, true}) {
                SCOPED_TRACE(std::to_string(before) + " then " + std::to_string(after));
                IndexPages pages;
                int level = 0;
                pages.Set(Seid(before, 1), Fake(1));
                Location root = pages.Checkpoint(level);
                if (isReloaded) pages.Reload(root, level);
                pages.Set(Seid(after, 1), Fake(2));
                root = pages.Checkpoint(level);
                pages.Reload(root, level);
                EXPECT_EQ((*pages).Get(Seid(before, 1)), Fake(1));
                EXPECT_EQ((*pages).Get(Seid(after, 1)), Fake(2));
            }
        }
    }
}

TEST(Index, ARootThatGrowsByTwoLevelsInsideASnapshotKeepsWhatWasBelowIt) {
    IndexPages pages;
    pages.Set(Seid(5, 1), Fake(1));
    int level = 0;
    pages.Checkpoint(level);
    (*pages).BeginSnapshot();
    pages.Set(Seid(0x1000000, 1), Fake(2));
    struct Sink final : IIndexPageSink {
        Location WritePage(uint64, const void*, ssize_t) override { return Fake(100); }
        void PageDied(Location) override {}
    } sink;
    (*pages).WriteSnapshot(sink); // nothing was dirty when it began
    const Location root = pages.Checkpoint(level);
    pages.Reload(root, level);
    EXPECT_EQ((*pages).Get(Seid(5, 1)), Fake(1));
    EXPECT_EQ((*pages).Get(Seid(0x1000000, 1)), Fake(2));
}

TEST(IndexThreads, WhatIsPublishedWhileItsPageIsBeingWrittenIsNotInTheSnapshot) {
    constexpr uint32 NUM_LEAVES = 32;
    constexpr int NUM_SNAPSHOTS = 500;
    const auto numbered = [](uint64 n) { return MakeLocation(static_cast<int64>(n) * 8, 16); };
    IndexPages pages;
    std::mutex turn;
    std::atomic<uint64> published{0}; // changed with the turn
    for (uint32 leaf = 0; leaf < NUM_LEAVES; ++leaf) pages.Set(Seid(leaf * 256, 1), numbered(++published));
    std::atomic<bool> stop{false};
    std::thread publisher([&] {
        std::mt19937 random(1);
        while (!stop) {
            const std::lock_guard lock(turn);
            pages.Set(Seid(random() % (NUM_LEAVES * 256), 1), numbered(++published));
        }
    });
    struct Sink final : IIndexPageSink {
        Location WritePage(uint64, const void* payload, ssize_t n) override {
            const octet_t* const bytes = static_cast<const octet_t*>(payload);
            if (ReadPod<IndexPrefix>(bytes).level > 0) return Fake(1);
            for (ssize_t i = sizeof(IndexPrefix); i < n; i += sizeof(Location))
                numLater += LocationOffset(ReadPod<Location>(bytes + i)) / 8 > static_cast<int64>(marked);
            return Fake(1);
        }
        void PageDied(Location) override {}
        uint64 marked = 0;
        int numLater = 0;
    } sink;
    for (int i = 0; i < NUM_SNAPSHOTS; ++i) {
        {
            const std::lock_guard lock(turn);
            sink.marked = published;
            (*pages).BeginSnapshot();
        }
        (*pages).WriteSnapshot(sink);
        while (published < sink.marked + 2 * NUM_LEAVES) std::this_thread::yield();
    }
    stop = true;
    publisher.join();
    EXPECT_EQ(sink.numLater, 0);
}

TEST(Index, PagesThatHaveBecomeEmptyCostNothing) {
    SimSys sys;
    std::vector<Seid> seids;
    TestLss lss(sys);
    for (int i = 0; i < 1000; ++i) seids.push_back(lss.Put("x"));
    lss->CheckpointForTest();
    EXPECT_GE(lss.Stats().numLiveRPMPackets, 5); // leaves and their root
    for (const Seid seid : seids) lss.Delete(seid);
    lss->CheckpointForTest();
    EXPECT_EQ(lss.Stats().numLiveRPMPackets, 0);
    EXPECT_EQ(lss.Stats().utilisation, 0);
    lss.Close();
    TestLss again(sys);
    EXPECT_TRUE(again.All().empty());
    again.Put(seids[500], "y");
    EXPECT_EQ(again.All().size(), 1u);
}

TEST(Index, ManyHighHalvesEachHaveARadixOfTheirOwn) {
    SimSys sys;
    sys.StopRecording();
    ElementMap expected;
    {
        TestLss lss(sys);
        for (uint32 i = 0; i < 700; ++i) {
            const SeidHigh high = lss->AllocateSeidHigh();
            const Seid seid = lss->AllocateSeid(high);
            expected[lss.Put(seid, std::to_string(high)).value_] = std::to_string(high);
        }
        lss.Close();
    }
    TestLss lss(sys);
    EXPECT_EQ(lss.All(), expected);
    EXPECT_EQ(lss->AllocateSeidHigh(), 702u);
}

// Touching writes a page anew at the next checkpoint; of pages that are not there any more nothing is touched.
TEST(Index, OnlyAPageThatIsCurrentIsTouched) {
    IndexPages pages;
    for (const uint32 low : {0u, 0x1000000u}) pages.Set(Seid(low, 1), Fake(low + 1)); // a root of level 3
    int level = 0;
    const Location root = pages.Checkpoint(level);
    ASSERT_EQ(level, 3);
    pages.Reload(root, level);
    (*pages).Import(2, 0, 0, 0); // a high without a page
    const uint64 high = uint64{1} << 32;
    const auto touched = [&](uint64 key, int at, Location l) {
        (*pages).TouchPage(key, at, l);
        return (*pages).SnapshotBytes() > 0;
    };
    EXPECT_FALSE(touched(uint64{77} << 32, 0, root));
    EXPECT_FALSE(touched(uint64{2} << 32, 0, root));
    EXPECT_FALSE(touched(high, 4, root));          // above the root
    EXPECT_FALSE(touched(high | 5, 3, root));      // a level has only one
    EXPECT_FALSE(touched(high | 0x8000, 0, root)); // a page that never was
    EXPECT_FALSE(touched(high, 2, root));          // another page is there now
    EXPECT_TRUE(touched(high, 3, root));
}

} // namespace
} // namespace quna

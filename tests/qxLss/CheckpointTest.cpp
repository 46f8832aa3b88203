#include "qxLss/src/Checkpoint.h"

#include "qxUtils/Exceptions.h"
#include "tests/qxLss/TestLss.h"

#include <cstdio>
#include <cstring>
#include <functional>

#include <gtest/gtest.h>

namespace quna {
namespace {

CheckpointHeader HeaderAt(const FileBytes& file, int64 offset) {
    CheckpointHeader header{};
    std::memcpy(static_cast<void*>(&header), file.data() + offset, sizeof header);
    return header;
}

// The imagined disk's random bytes and clock are the same in every run, so the whole header is.
TEST(Checkpoint, AFreshStoresHeaderHasTheBytesOfTheFormat) {
    SimSys sys;
    TestLss lss(sys);
    const FileBytes file = StoreFile(sys);
    const CheckpointHeader h = HeaderAt(file, 4096); // sequence 1 is odd: place B
    std::string hex;
    for (size_t i = 0; i < 16; ++i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", file[4096 + i]);
        hex += digits;
    }
    EXPECT_EQ(hex, "4c5353434b505431"
                   "01000000"
                   "00100000");
    EXPECT_EQ(h.checkpointSequence, 1u);
    EXPECT_EQ(h.nextSegmentSequence, 3u);
    EXPECT_EQ(h.logClock, 64u);
    EXPECT_EQ(h.startSlot, 0u);
    EXPECT_EQ(h.startOffset, 64u);
    EXPECT_EQ(h.startSequence, 1u);
    EXPECT_EQ(h.lastTransaction, 0u);
    EXPECT_EQ(h.flags, HEADER_FLAG_CREATING);
    EXPECT_EQ(h.nextHigh, 1u);
    EXPECT_EQ(h.numHighs, 0u);
    EXPECT_EQ(h.numCheckpoints, 1u);
    EXPECT_EQ(h.numHighsPackets, 0u);
    EXPECT_EQ(h.numSutPackets, 1u);
    EXPECT_EQ(h.crc, Crc32c(&h, 4092));
}

TEST(Checkpoint, HeadersAreWrittenInTurn) {
    SimSys sys;
    TestLss lss(sys);
    lss.Put("x");
    uint64 sequence = HeaderAt(StoreFile(sys), 0).checkpointSequence;
    EXPECT_EQ(sequence, 2u); // the first transaction's, which makes the store count as created
    for (int i = 0; i < 4; ++i) {
        lss->CheckpointForTest();
        ++sequence;
        EXPECT_EQ(HeaderAt(StoreFile(sys), HeaderOffset(sequence)).checkpointSequence, sequence);
        EXPECT_EQ(HeaderAt(StoreFile(sys), HeaderOffset(sequence - 1)).checkpointSequence, sequence - 1);
    }
}

TEST(Checkpoint, FreesLogSegmentsWithoutALivePacket) {
    SimSys sys;
    sys.StopRecording();
    TestLss lss(sys);
    const Seid seid = lss.NewSeid();
    for (int i = 0; i < 2000; ++i) {
        lss.Put(seid, Pattern(500));
        if (i % 20 == 0) lss->CheckpointForTest();
    }
    EXPECT_LT(lss.Stats().fileSize, 131072 + 60 * 4096);
    lss->Validate();
}

TEST(Checkpoint, PagesThatNeverChangeDoNotHoldASegmentEach) {
    SimSys sys;
    sys.StopRecording();
    LssSettings settings = SmallSegments();
    settings.segmentSize = 65536;
    {
        TestLss lss(sys, settings);
        for (int i = 0; i < 40 * 256; ++i) lss.NewSeid();
        lss.Close();
    }
    for (uint32 i = 0; i < 40; ++i) { // each life changes another leaf
        TestLss lss(sys, settings);
        lss.Put(Seid(i * 256, 1), "x");
        lss.Close();
    }
    TestLss lss(sys, settings);
    EXPECT_EQ(lss.All().size(), 40u);
    EXPECT_LT(lss.Stats().fileSize, 131072 + 30 * 65536);
}

// In segments of 4 KiB a packet holds some 125 entries, so that many highs need more packets than the header can name.
TEST(Checkpoint, TablesThatTheHeaderCannotNameAreNamedByListPackets) {
    SimSys sys;
    sys.StopRecording();
    LssSettings settings = SmallSegments();
    settings.validateSUTDuringCheckPoint = false;
    constexpr uint32 NUM_HIGHS = 62000;
    {
        TestLss lss(sys, settings);
        for (uint32 i = 1; i < NUM_HIGHS; ++i) {
            const SeidHigh high = lss->AllocateSeidHigh();
            try {
                lss->AllocateSeid(high);
            } catch (const FileException&) { // the ring is full until the next checkpoint
                lss->CheckpointForTest();
                lss->AllocateSeid(high);
            }
        }
        lss.Put(Seid(0, 40001), "x");
        lss.Close();
    }
    const FileBytes file = StoreFile(sys);
    const CheckpointHeader a = HeaderAt(file, 0);
    const CheckpointHeader b = HeaderAt(file, 4096);
    const CheckpointHeader& newest = a.checkpointSequence > b.checkpointSequence ? a : b;
    EXPECT_GT(newest.numHighsPackets, 488u);
    EXPECT_TRUE(newest.flags & HEADER_FLAG_LIST);
    TestLss lss(sys, settings);
    EXPECT_EQ(lss.Get(Seid(0, 40001)), "x");
    EXPECT_EQ(lss->AllocateSeidHigh(), NUM_HIGHS + 1);
    lss->Validate();
}

TEST(Checkpoint, RunsByItselfWhenTheLogHasGrown) {
    SimSys sys;
    sys.StopRecording();
    LssSettings settings = SmallSegments();
    settings.numSegmentsPerCheckPoint = 4;
    TestLss lss(sys, settings);
    const int before = lss.Stats().numCheckPoints;
    while (lss.Stats().numCheckPoints == before) lss.Put(Pattern(1000));
}

// The transaction has the turn that the checkpoint needs, so it must not be waited for.
TEST(Checkpoint, FiveHundredAndFiveHighsInOneTransactionDoNotWaitForIt) {
    SimSys sys;
    sys.StopRecording();
    TestLss lss(sys);
    AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
    for (int i = 0; i < 5050; ++i) {
        const Seid seid = lss->AllocateSeid(lss->AllocateSeidHigh());
        if (i % 10 == 0) TestLss::Write(*txn.Get(), seid, "x");
    }
    txn.Close();
    EXPECT_EQ(lss.Stats().numLiveHeadPackets, 505);
}

// Leaves that each hold one element: 63 pages fill a segment of the index to its last byte.
TEST(Checkpoint, SparseSegmentsOfTheIndexAreEmptiedAFewAtATime) {
    constexpr uint32 LEAVES = 1300;
    SimSys sys;
    sys.StopRecording();
    TestLss lss(sys);
    lss->StopThreadsForTest();
    lss->RaiseHorizons({{1, LEAVES * 256}}, 2);
    const auto change = [&](const std::function<bool(uint32)>& which, bool write) {
        AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
        for (uint32 leaf = 0; leaf < LEAVES; ++leaf) {
            if (!which(leaf)) continue;
            if (write)
                TestLss::Write(*txn.Get(), Seid(leaf * 256, 1), "x");
            else
                txn->DeleteSerialElement(Seid(leaf * 256, 1));
        }
        txn.Close();
        AutoCloser<ILssTransaction> next(lss->OpenTransaction()); // makes room for the pages of so many leaves
        next.Close();
        lss->CheckpointForTest();
    };
    change([](uint32) { return true; }, true);
    const ssize_t full = lss.Stats().numLiveRPMPackets;
    EXPECT_GT(full, static_cast<ssize_t>(LEAVES));
    // What stays: the first segment's pages and one page in each twenty.
    change([](uint32 leaf) { return leaf >= 63 && leaf % 20 != 0; }, false);
    const auto numSegments = [&] {
        ssize_t n = 0;
        for (ssize_t slot = 0; slot < lss->SpaceForTest().NumSlots(); ++slot)
            n += (*lss->CoreForTest().m_segments)[slot].kind == ESegmentKind::INDEX ? 1 : 0;
        return n;
    };
    const ssize_t sparse = numSegments();
    lss->CheckpointForTest();
    EXPECT_LT(numSegments(), sparse); // some
    for (int i = 0; i < 4; ++i) lss->CheckpointForTest();
    EXPECT_LT(numSegments(), sparse);
    lss->Validate();
    EXPECT_EQ(lss.All().size(), 63u + 61u);
}

} // namespace
} // namespace quna

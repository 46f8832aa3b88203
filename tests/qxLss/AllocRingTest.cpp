#include "qxLss/src/AllocRing.h"

#include "qxLss/src/Crc32c.h"
#include "tests/support/ExpectAssertion.h"
#include "tests/support/SimSys.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "d/store";

AllocRing::StoreId TestId() {
    AllocRing::StoreId id;
    for (size_t i = 0; i < id.size(); ++i) id[i] = static_cast<octet_t>(0xA0 + i);
    return id;
}

// A file on an imagined disk, and the ring in it.
class RingFile {
public:
    explicit RingFile(const DiskImage& image = {}) : m_sys(image), m_file(m_sys) {
        m_file.Open(PATH, EFileAccess::CREATE);
        if (m_file.Size() < 131072) m_file.Allocate(0, 131072);
        m_file.SyncData();
        SyncDirectoryOf(m_sys, PATH);
        m_ring = std::make_unique<AllocRing>(m_file, TestId());
    }

    AllocRing* operator->() { return m_ring.get(); }
    AllocRing& Ring() { return *m_ring; }
    SimSys& Sys() { return m_sys; }

    AllocRingBlock BlockAt(int index) {
        octet_t bytes[AllocRingBlock::BYTES];
        m_file.Read(AllocRing::FILE_OFFSET + index * AllocRingBlock::BYTES, bytes, AllocRingBlock::BYTES);
        AllocRingBlock block;
        if (!block.Decode(bytes)) block.ringSequence = 0;
        return block;
    }

    // A durable horizon as an allocator would keep it.
    void Raise(uint32 high, uint32 horizon) { m_ring->RaiseHorizon(high, horizon, m_durable[high]); }

    std::map<uint32, std::atomic<uint32>> m_durable;

private:
    SimSys m_sys;
    File m_file;
    std::unique_ptr<AllocRing> m_ring;
};

TEST(AllocRing, ABlockHasTheseBytes) {
    AllocRingBlock block;
    block.ringSequence = 0x0102030405060708;
    block.storeId = TestId();
    block.checkpointSequence = 0x1112131415161718;
    block.nextHigh = 0x21222324;
    block.flags = AllocRingBlock::FLAG_RUNNING;
    block.sequenceBase = 0x3132333435363738;
    block.horizons = {{0x41424344, 0x51525354}, {2, 4096}};
    octet_t bytes[AllocRingBlock::BYTES];
    block.Encode(bytes);

    const octet_t head[] = {
        'L',  'S',  'S',  'A',  'L',  'L',  'O',  'C',                                                  // magic
        0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,                                                 // ring sequence
        0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF, // store id
        0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11,                                                 // checkpoint
        0x24, 0x23, 0x22, 0x21,                                                                         // next high
        0x02, 0x00,                                                                                     // count
        0x01, 0x00,                                                                                     // flags
        0x38, 0x37, 0x36, 0x35, 0x34, 0x33, 0x32, 0x31,                                                 // base
        0x44, 0x43, 0x42, 0x41, 0x54, 0x53, 0x52, 0x51,                                                 // first entry
        0x02, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00,                                                 // second entry
    };
    EXPECT_EQ(std::memcmp(bytes, head, sizeof head), 0);
    EXPECT_TRUE(std::all_of(bytes + sizeof head, bytes + 4092, [](octet_t b) { return b == 0; }));
    const octet_t crc[] = {0x99, 0x83, 0xB0, 0xFD};
    EXPECT_EQ(std::memcmp(bytes + 4092, crc, 4), 0);

    AllocRingBlock found;
    ASSERT_TRUE(found.Decode(bytes));
    EXPECT_EQ(found.ringSequence, block.ringSequence);
    EXPECT_EQ(found.storeId, block.storeId);
    EXPECT_EQ(found.horizons.size(), 2u);
    EXPECT_EQ(found.horizons[0].horizon, 0x51525354u);
}

TEST(AllocRing, NoDamagedBlockIsDecoded) {
    AllocRingBlock block;
    block.ringSequence = 7;
    block.horizons.assign(AllocRingBlock::MAX_ENTRIES, {1, 2});
    octet_t bytes[AllocRingBlock::BYTES];
    block.Encode(bytes);
    AllocRingBlock found;
    EXPECT_TRUE(found.Decode(bytes));
    for (size_t i = 0; i < sizeof bytes; ++i) {
        bytes[i] ^= 0x10;
        EXPECT_FALSE(found.Decode(bytes)) << i;
        bytes[i] ^= 0x10;
    }
    block.horizons.push_back({3, 4});
    ExpectAssertion("std::ssize(horizons) <= MAX_ENTRIES", "src/AllocRing", [&] { block.Encode(bytes); });
}

TEST(AllocRing, WhatWasRaisedIsReadBack) {
    RingFile ring;
    ring->BeginOwner(1, {}, 1, 5, false);
    EXPECT_EQ(ring->TakeHigh(), 1u);
    EXPECT_EQ(ring->TakeHigh(), 2u);
    ring.Raise(1, 4096);
    ring.Raise(2, 4096);
    ring.Raise(1, 12288);
    EXPECT_EQ(ring.m_durable[1], 12288u);

    RingFile next(ring.Sys().CachedImage());
    const AllocRing::Contents contents = next->Read();
    EXPECT_EQ(contents.horizons, (std::map<uint32, uint32>{{1, 12288}, {2, 4096}}));
    EXPECT_EQ(contents.nextHigh, 3u);
    EXPECT_EQ(contents.newestCheckpoint, 1u);
    EXPECT_EQ(contents.sequenceBase, 5u);
    EXPECT_EQ(contents.numValidBlocks, 6);
    EXPECT_FALSE(next->VouchesForCleanClose(1)); // an owner was running
}

TEST(AllocRing, AnEmptyRingSaysNothing) {
    RingFile ring;
    const AllocRing::Contents contents = ring->Read();
    EXPECT_EQ(contents.numValidBlocks, 0);
    EXPECT_EQ(contents.nextHigh, 1u);
    EXPECT_FALSE(ring->VouchesForCleanClose(0));
}

TEST(AllocRing, BlocksOfAnotherStoreCountAsEmpty) {
    SimSys sys;
    File file(sys);
    file.Open(PATH, EFileAccess::CREATE);
    file.Allocate(0, 131072);
    AllocRing::StoreId other = TestId();
    other[15] = 0;
    AllocRing foreign(file, other);
    foreign.BeginOwner(9, {}, 4, 5, false);
    AllocRing ring(file, TestId());
    EXPECT_EQ(ring.Read().numValidBlocks, 0);
}

TEST(AllocRing, TheCleanMarkIsInForceUntilTheNextOwnerBegins) {
    RingFile ring;
    ring->BeginOwner(1, {}, 1, 5, false);
    uint32 nextHigh = 0;
    const uint64 sequence = ring->BeginCheckpoint([] {}, nextHigh);
    ring->EndCheckpoint(2, sequence, false);
    EXPECT_EQ(nextHigh, 1u);

    RingFile second(ring.Sys().CachedImage());
    second->Read();
    EXPECT_TRUE(second->VouchesForCleanClose(2));
    EXPECT_FALSE(second->VouchesForCleanClose(1));
    EXPECT_FALSE(second->VouchesForCleanClose(3));
    second->BeginOwner(2, {}, 1, 5, true);
    EXPECT_FALSE(second->VouchesForCleanClose(2));

    RingFile third(second.Sys().CachedImage());
    third->Read();
    EXPECT_FALSE(third->VouchesForCleanClose(2));
}

TEST(AllocRing, ASetOf505HighsTakesTwoBlocksAndTheFullOneStays) {
    RingFile ring;
    ring->BeginOwner(1, {}, 1000, 5, false);
    for (uint32 high = 1; high <= 505; ++high) ring.Raise(high, 4096);
    EXPECT_EQ(ring->NumSealedForTest(), 1);
    for (int i = 0; i < 100; ++i) ring.Raise(505, 4097 + static_cast<uint32>(i)); // goes round the ring
    RingFile next(ring.Sys().CachedImage());
    const AllocRing::Contents contents = next->Read();
    EXPECT_EQ(std::ssize(contents.horizons), 505);
    for (uint32 high = 1; high <= 504; ++high) EXPECT_EQ(contents.horizons.at(high), 4096u);
    EXPECT_EQ(contents.horizons.at(505), 4196u);
}

TEST(AllocRing, A14112HighsFitBetweenTwoCheckpointsAndOneMoreIsRefused) {
    int wakes = 0;
    SimSys sys;
    File file(sys);
    std::atomic<uint32> durable[14114] = {};
    file.Open(PATH, EFileAccess::CREATE);
    file.Allocate(0, 131072);
    sys.StopRecording();
    AllocRing ring(file, TestId(), [&] { ++wakes; });
    ring.BeginOwner(1, {}, 20000, 5, false);
    for (uint32 high = 1; high <= 14112; ++high) {
        ring.RaiseHorizon(high, 4096, durable[high]);
        if (high == 504 * 8) {
            EXPECT_FALSE(ring.WantsCheckpoint());
        }
    }
    EXPECT_TRUE(ring.WantsCheckpoint());
    EXPECT_EQ(wakes, 1);
    EXPECT_FALSE(ring.TryRaiseHorizon(14113, 4096, durable[14113]));
    EXPECT_EQ(durable[14113], 0u);
    ExpectException<FileException>(
        "Can't allocate identifiers in file \"d/store\": the horizons of 14112 identifier "
        "spaces have moved since the last checkpoint, and no more can be kept before the next",
        [&] { ring.RaiseHorizon(14113, 4096, durable[14113]); });
    EXPECT_FALSE(ring.HasFailed());
    ring.RaiseHorizon(14112, 8192, durable[14112]); // one of the set in use can still move
    EXPECT_EQ(ring.TakeHigh(), 20000u);

    // Nothing of it is lost, and an open that is cut short twice before its checkpoint loses nothing either.
    std::vector<AllocHorizon> known;
    for (uint64 base = 6; base < 9; ++base) {
        AllocRing next(file, TestId());
        const AllocRing::Contents contents = next.Read();
        ASSERT_EQ(std::ssize(contents.horizons), 14112);
        EXPECT_EQ(contents.horizons.at(14112), 8192u);
        EXPECT_EQ(contents.nextHigh, 20001u);
        EXPECT_EQ(contents.sequenceBase, base - 1);
        next.BeginOwner(1, known, 20000, base, false);
    }
    AllocRing last(file, TestId());
    const AllocRing::Contents contents = last.Read();
    last.BeginOwner(1, known, 20000, 9, false);
    uint32 nextHigh = 0;
    const uint64 sequence = last.BeginCheckpoint([] {}, nextHigh);
    EXPECT_EQ(nextHigh, 20001u);
    last.EndCheckpoint(2, sequence, true);
    EXPECT_EQ(last.NumSealedForTest(), 0);
    EXPECT_FALSE(last.WantsCheckpoint());
    last.RaiseHorizon(14113, 4096, durable[14113]);
}

TEST(AllocRing, ARingThatFilledDuringACheckpointWantsAnotherOne) {
    RingFile ring;
    ring->BeginOwner(1, {}, 10, 5, false);
    uint32 nextHigh = 0;
    const uint64 sequence = ring->BeginCheckpoint([] {}, nextHigh);
    for (uint32 high = 1; !ring->WantsCheckpoint(); ++high) ring.Raise(high, 4096);
    ring->EndCheckpoint(2, sequence, true); // nobody is to be woken
    EXPECT_TRUE(ring->WantsCheckpoint());
    const uint64 next = ring->BeginCheckpoint([] {}, nextHigh);
    ring->EndCheckpoint(3, next, true);
    EXPECT_FALSE(ring->WantsCheckpoint());
    EXPECT_EQ(ring->NumSealedForTest(), 0);
}

TEST(AllocRing, AHorizonThatMovesAfterTheCopyOutlivesTheHeader) {
    RingFile ring;
    ring->BeginOwner(1, {}, 10, 5, false);
    ring.Raise(1, 4096);
    uint32 nextHigh = 0;
    const uint64 sequence = ring->BeginCheckpoint([] {}, nextHigh);
    ring.Raise(2, 8192); // not in the checkpoint
    EXPECT_EQ(ring->NumSealedForTest(), 1);
    ring->EndCheckpoint(2, sequence, true);
    EXPECT_EQ(ring->NumSealedForTest(), 0);
    for (int i = 0; i < 60; ++i) ring->TakeHigh();
    RingFile next(ring.Sys().CachedImage());
    EXPECT_EQ(next->Read().horizons.at(2), 8192u);
    EXPECT_FALSE(next->Read().horizons.contains(1)); // its block has been used again
}

TEST(AllocRing, AFailedWriteIsFinal) {
    RingFile ring;
    ring->BeginOwner(1, {}, 1, 5, false);
    ring.Raise(1, 4096);
    ring.Sys().FailCall(ESimCall::WRITE_DURABLE, 1, EIO, false);
    EXPECT_THROW(ring.Raise(1, 8192), FileException);
    EXPECT_TRUE(ring->HasFailed());
    EXPECT_EQ(ring.m_durable[1], 4096u);
    EXPECT_THROW(ring.Raise(2, 4096), FileException);
    EXPECT_THROW(ring->TakeHigh(), FileException);
    uint32 nextHigh = 0;
    const uint64 sequence = ring->BeginCheckpoint([] {}, nextHigh);
    EXPECT_THROW(ring->EndCheckpoint(2, sequence, false), FileException);
    EXPECT_EQ(ring.Sys().NumCalls(ESimCall::WRITE_DURABLE), 3);
}

TEST(AllocRing, TheLastHighIsNotHandedOut) {
    RingFile ring;
    ring->BeginOwner(1, {}, 0xFFFFFFFE, 5, false);
    EXPECT_EQ(ring->TakeHigh(), 0xFFFFFFFEu);
    ExpectException<FileException>("Can't allocate an identifier space in file \"d/store\": all are in use",
                                   [&] { ring->TakeHigh(); });
}

// Random owners over one disk, each ended by a power loss at a random call, torn writes included: whatever an owner was
// told is durable is known to the next, through ring and checkpoint together.
class RingLife {
public:
    explicit RingLife(uint64 seed) : m_random(seed) {}

    void Run(int owners) {
        for (int i = 0; i < owners; ++i) Owner();
    }

private:
    struct Promise {
        std::map<uint32, uint32> horizons;
        uint32 nextHigh = 1;
        uint64 base = 0;
    };
    struct Header {
        uint64 checkpoint = 0;
        std::map<uint32, uint32> horizons;
        uint32 nextHigh = 1;
        bool clean = false;
    };

    uint32 Pick(uint32 limit) { return static_cast<uint32>(m_random() % limit); }

    void Owner() {
        RingFile ring(m_image);
        const AllocRing::Contents contents = ring->Read();
        ASSERT_LE(contents.newestCheckpoint, m_header.checkpoint);
        const bool clean = m_header.clean && ring->VouchesForCleanClose(m_header.checkpoint);
        std::map<uint32, uint32> horizons = m_header.horizons;
        if (!clean)
            for (const auto& [high, horizon] : contents.horizons) horizons[high] = std::max(horizons[high], horizon);
        for (const auto& [high, horizon] : m_promise.horizons) ASSERT_GE(horizons[high], horizon) << "high " << high;
        ASSERT_GE(std::max(contents.nextHigh, m_header.nextHigh), m_promise.nextHigh);
        ASSERT_GE(contents.sequenceBase, m_promise.base);

        std::vector<AllocHorizon> known;
        for (const auto& [high, horizon] : m_header.horizons) known.push_back({high, horizon});
        const uint64 base = contents.sequenceBase + 1;
        const ssize_t begin = ring.Sys().NumRecorded();
        std::vector<Promise> after; // after each recorded call
        Promise promise = m_promise;
        std::vector<Header> headers;
        Header header = m_header;
        auto note = [&] {
            while (std::ssize(after) < ring.Sys().NumRecorded() - begin) {
                after.push_back(promise);
                headers.push_back(header);
            }
        };
        // A step's promise holds only after the last of its calls.
        auto step = [&](auto&& act, auto&& keep) {
            act();
            note();
            keep();
            if (!after.empty()) {
                after.back() = promise;
                headers.back() = header;
            }
        };
        step([&] { ring->BeginOwner(m_header.checkpoint, known, m_header.nextHigh, base, clean); },
             [&] { promise.base = base; });
        for (auto& [high, horizon] : horizons) ring.m_durable[high] = horizon;
        // Without a clean mark an owner begins with a checkpoint of its own; it may be cut short like any other.
        bool due = !clean;
        const uint32 steps = 20 + Pick(60);
        for (uint32 i = 0; i < steps; ++i) {
            const uint32 what = due ? 9 : Pick(10);
            if (what == 0) {
                uint32 high = 0;
                step([&] { high = ring->TakeHigh(); }, [&] { promise.nextHigh = high + 1; });
            } else if (what < 9) {
                const uint32 high = 1 + (Pick(4) ? Pick(10) : Pick(2000));
                const uint32 horizon = ring.m_durable[high] + 1 + Pick(50);
                step([&] { ring.Raise(high, horizon); }, [&] { promise.horizons[high] = horizon; });
            } else {
                due = false;
                const bool close = Pick(4) == 0 && i + 10 > steps;
                Header next;
                next.checkpoint = header.checkpoint + 1;
                next.clean = close;
                uint64 sequence = 0;
                step(
                    [&] {
                        sequence = ring->BeginCheckpoint(
                            [&] {
                                for (auto& [high, horizon] : ring.m_durable) next.horizons[high] = horizon;
                            },
                            next.nextHigh);
                    },
                    [] {});
                for (uint32 between = Pick(Pick(3) ? 4 : 80); between > 0 && !close; --between) {
                    const uint32 high = 1 + Pick(700);
                    const uint32 horizon = ring.m_durable[high] + 1;
                    step([&] { ring.Raise(high, horizon); }, [&] { promise.horizons[high] = horizon; });
                }
                header = next; // durable before the ring's block is
                if (!after.empty()) headers.back() = header;
                step([&] { ring->EndCheckpoint(header.checkpoint, sequence, !close); }, [] {});
                if (close) break;
            }
        }
        Crash(ring.Sys(), begin, after, headers);
    }

    void Crash(SimSys& sys, ssize_t begin, const std::vector<Promise>& after, const std::vector<Header>& headers) {
        const std::vector<SimCall> record = sys.Record();
        const ssize_t end =
            Pick(3) == 0 ? std::ssize(record) : begin + Pick(static_cast<uint32>(std::ssize(record) - begin) + 1);
        SimDisk disk(sys.InitialImage());
        for (ssize_t i = 0; i < end; ++i) disk.Apply(record[static_cast<size_t>(i)]);
        const SimCall* inFlight = end < std::ssize(record) ? &record[static_cast<size_t>(end)] : nullptr;
        const bool torn = Pick(2) == 0;
        m_image = disk.Image({torn ? CrashVariant::EChoice::TORN : CrashVariant::EChoice::ALL, m_random()},
                             torn ? inFlight : nullptr);
        if (end > begin) {
            m_promise = after[static_cast<size_t>(end - begin - 1)];
            m_header = headers[static_cast<size_t>(end - begin - 1)];
        }
    }

    std::mt19937_64 m_random;
    DiskImage m_image;
    Promise m_promise;
    Header m_header;
};

TEST(AllocRing, NoPromiseIsLostByPowerLossAtAnyCall) {
    for (uint64 seed = 1; seed <= 25; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        RingLife(seed).Run(12);
        if (HasFatalFailure()) return;
    }
}

TEST(AllocRingThreads, RaisingFromManyThreadsKeepsTheLargestOfEach) {
    RingFile ring;
    ring.Sys().StopRecording();
    ring->BeginOwner(1, {}, 1, 5, false);
    std::map<uint32, std::atomic<uint32>> durable;
    for (uint32 high = 1; high <= 40; ++high) durable[high] = 0;
    std::vector<std::thread> threads;
    for (uint32 t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (uint32 i = 1; i <= 200; ++i) {
                const uint32 high = 1 + (i * 7 + t) % 40;
                ring->RaiseHorizon(high, i * 10 + t, durable.at(high));
                if (i % 50 == 0) ring->TakeHigh();
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(ring->NextHigh(), 17u);
    AllocRing::Contents contents = RingFile(ring.Sys().CachedImage())->Read();
    for (auto& [high, horizon] : durable) EXPECT_EQ(contents.horizons.at(high), horizon.load());
}

TEST(AllocRingThreads, WhatFillsTheRingDuringACheckpointAsksForTheNextOne) {
    constexpr uint32 SETS_BEFORE = 8;
    constexpr uint32 SETS_MEANWHILE = 9;
    constexpr uint32 ENTRIES = AllocRingBlock::MAX_ENTRIES;
    std::atomic<int> wakes{0};
    SimSys sys;
    File file(sys);
    std::atomic<uint32> durable[(SETS_BEFORE + SETS_MEANWHILE) * ENTRIES + 3] = {};
    file.Open(PATH, EFileAccess::CREATE);
    file.Allocate(0, 131072);
    sys.StopRecording();
    AllocRing ring(file, TestId(), [&] { ++wakes; });
    ring.BeginOwner(1, {}, 20000, 5, false);
    uint32 high = 0;
    const auto raise = [&](uint32 n) {
        while (n-- > 0) {
            ++high;
            ring.RaiseHorizon(high, 4096, durable[high]);
        }
    };
    raise(SETS_BEFORE * ENTRIES + 1);
    EXPECT_EQ(wakes, 1);
    uint32 nextHigh = 0;
    const uint64 sequence = ring.BeginCheckpoint([] {}, nextHigh);
    std::thread(raise, SETS_MEANWHILE * ENTRIES + 1).join();
    EXPECT_EQ(wakes, 1); // one is on its way
    ring.EndCheckpoint(2, sequence, true);
    EXPECT_TRUE(ring.WantsCheckpoint());
    EXPECT_EQ(wakes, 2);
    ring.EndCheckpoint(3, ring.BeginCheckpoint([] {}, nextHigh), true);
    EXPECT_FALSE(ring.WantsCheckpoint());
    EXPECT_EQ(wakes, 2);
}

// Its checksum is right, and no ring has written it.
TEST(AllocRing, BlocksOfImpossibleNumbersCountAsEmpty) {
    RingFile ring;
    const auto put = [&](uint64 ringSequence, uint16 count) {
        AllocRingBlock block;
        block.ringSequence = ringSequence;
        block.storeId = TestId();
        block.nextHigh = 9;
        octet_t bytes[AllocRingBlock::BYTES];
        block.Encode(bytes);
        std::memcpy(bytes + 44, &count, sizeof count);
        const uint32 crc = Crc32c(bytes, AllocRingBlock::BYTES - 4);
        std::memcpy(bytes + AllocRingBlock::BYTES - 4, &crc, sizeof crc);
        ring.Sys().Poke(PATH, AllocRing::FILE_OFFSET, bytes, sizeof bytes);
        return ring->Read().numValidBlocks;
    };
    EXPECT_EQ(put(1, 0), 1);
    EXPECT_EQ(put(0, 0), 0);
    EXPECT_EQ(put((uint64{1} << 62) + 1, 0), 0);
    EXPECT_EQ(put(1, AllocRingBlock::MAX_ENTRIES + 1), 0);
}

// The first write of a set fails, and a checkpoint that has begun copies all the same.
TEST(AllocRing, ASetThatWasNeverWrittenHasNoBlockToSeal) {
    RingFile ring;
    ring->BeginOwner(1, {}, 2, 5, false);
    ring.Sys().FailCall(ESimCall::WRITE_DURABLE, 1, EIO, false);
    EXPECT_THROW(ring.Raise(1, 100), FileException);
    uint32 nextHigh = 0;
    ring->BeginCheckpoint([] {}, nextHigh);
    EXPECT_EQ(ring->NumSealedForTest(), 0);
    EXPECT_THROW(ring.Raise(1, 100), FileException);
}

TEST(AllocRing, WithoutAnybodyToWakeACheckpointIsOnlyWanted) {
    RingFile ring;
    ring.Sys().StopRecording();
    ring->BeginOwner(1, {}, 20000, 5, false);
    for (uint32 high = 1; high <= AllocRingBlock::MAX_ENTRIES * AllocRing::CHECKPOINT_WANTED_AT + 1; ++high)
        ring.Raise(high, 4096);
    EXPECT_TRUE(ring->WantsCheckpoint());
}

} // namespace
} // namespace quna

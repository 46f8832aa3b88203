// Headers and tables of checkpoints that verify and contradict themselves: every one is refused, by what is wrong with it.
#include "tests/qxLss/HostileStore.h"

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

class HostileTables : public HostileFile {
protected:
    // The header says all places of tables one behind the other.
    Location TableAt(ssize_t i) {
        return ReadPod<Location>(reinterpret_cast<const octet_t*>(&Header()) + offsetof(CheckpointHeader, locations) +
                                 i * static_cast<ssize_t>(sizeof(Location)));
    }
    void SetTableAt(ssize_t i, Location l) {
        std::memcpy(reinterpret_cast<octet_t*>(&Header()) + offsetof(CheckpointHeader, locations) +
                        i * static_cast<ssize_t>(sizeof(Location)),
                    &l, sizeof l);
    }
    HighsEntry& FirstHigh() { return *At<HighsEntry>(LocationOffset(TableAt(0)) + PACKET_HEADER_BYTES); }
    HighsEntry& SecondHigh() { return *(&FirstHigh() + 1); }
    PacketHeader& FirstTable() { return *At<PacketHeader>(LocationOffset(TableAt(0))); }

    void ExpectEachRefused(EBase base, const std::vector<std::function<void()>>& changes, const std::string& text) {
        for (size_t i = 0; i < changes.size(); ++i) {
            SCOPED_TRACE("change " + std::to_string(i));
            Take(base);
            changes[i]();
            ExpectRefused(text);
        }
    }
};

TEST_F(HostileTables, HeadersOfNoStoreAreNotValid) {
    const auto both = [&](const std::function<void(CheckpointHeader&)>& change) {
        return [this, change] {
            change(*At<CheckpointHeader>(0));
            change(*At<CheckpointHeader>(4096));
        };
    };
    ExpectEachRefused(CLOSED,
                      {both([](CheckpointHeader& header) { header.segmentSize = 2048; }),
                       both([](CheckpointHeader& header) { header.segmentSize = 1 << 24; }),
                       both([](CheckpointHeader& header) { header.segmentSize = 5000; }),
                       both([](CheckpointHeader& header) { ++header.checkpointSequence; })}, // that of the other place
                      "neither of the two checkpoint headers");
}

TEST_F(HostileTables, ALogThatContinuesNowhereIsRefused) {
    ExpectEachRefused(KILLED,
                      {[&] { Header().startSlot = 0x7FFFFFFF; }, [&] { Header().startOffset = 56; },
                       [&] { Header().startOffset = 4104; }, [&] { Header().startOffset = 100; },
                       [&] { Header().startSequence += 100; }, [&] { Header().startSlot = 12; }},
                      "the segment where the log continues behind the checkpoint is not valid");
    Take(CLOSED);
    for (const auto& [slot, entry] : UsedEntries())
        if (slot == static_cast<ssize_t>(Header().startSlot)) *entry = SutEntry{};
    ExpectRefused("the usage table does not know the segment where the log continues");
}

TEST_F(HostileTables, TablesThatAreNotWhereTheHeaderSaysAreRefused) {
    ExpectEachRefused(CLOSED, {[&] { Header().numHighsPackets = 489; }}, "it has room for 488");
    ExpectEachRefused(CLOSED,
                      {[&] { SetTableAt(0, 0); }, [&] { SetTableAt(0, MakeLocation(64, 64)); },
                       [&] { SetTableAt(0, TableAt(0) | uint64{1} << 61); },
                       [&] { SetTableAt(0, MakeLocation(FRONT_AREA_BYTES + 8, 64)); },    // in a segment's header
                       [&] { SetTableAt(0, MakeLocation(FRONT_AREA_BYTES + 4064, 64)); }, // across a segment's end
                       [&] { SetTableAt(0, MakeLocation(int64{1} << 42, 64)); }},
                      "outside the segments");
    ExpectEachRefused(CLOSED, {[&] { At<SegmentHeader>(LocationOffset(TableAt(0)) / 4096 * 4096)->magic[0] = 'X'; }},
                      "expected that of one with the checkpoint's tables");
    ExpectEachRefused(CLOSED,
                      {[&] { SetTableAt(0, TableAt(1)); },
                       [&] {
                           const Location l = TableAt(0);
                           SetTableAt(0, MakeLocation(LocationOffset(l), LocationBytes(l) + 8));
                       },
                       [&] { Header().flags |= HEADER_FLAG_LIST; }},
                      "a table of the checkpoint is not valid");
    Take(CLOSED);
    m_file.resize(static_cast<size_t>(LocationOffset(TableAt(0))) + 24);
    ExpectRefused("expected is a table of");
}

TEST_F(HostileTables, TablesOfAnotherLengthAreRefused) {
    ExpectEachRefused(CLOSED,
                      {[&] { FirstTable().info -= 1; }, // no whole entry
                       [&] { ++FirstTable().key; }},
                      "a table of the checkpoint is not well formed");
    ExpectEachRefused(CLOSED, {[&] { ++Header().numHighs; }}, "the table of high halves has");
    Take(CLOSED);
    Header().flags |= HEADER_FLAG_LIST;
    FirstTable().info = PacketInfo(EPacketType::LIST, PayloadBytes(FirstTable().info));
    SetTableAt(1, 0);
    ExpectRefused("the list of a checkpoint's packets has");
}

TEST_F(HostileTables, HighHalvesThatNoStoreHasAreRefused) {
    ExpectEachRefused(MANY_SPACES,
                      {[&] { FirstHigh().rootLevel = 4; }, [&] { FirstHigh().root = MakeLocation(64, 64); },
                       [&] { SecondHigh().high = FirstHigh().high; }, [&] { FirstHigh().high = 0; },
                       [&] { SecondHigh().high = 77; }, [&] { FirstHigh().liveElements = ~uint64{0}; }},
                      "the table of high halves is not well formed");
}

TEST_F(HostileTables, SegmentsThatNoStoreHasAreRefused) {
    ExpectEachRefused(CLOSED,
                      {[&] { UsedEntries().front().second->kind = 0; },
                       [&] { UsedEntries().front().second->livePackets = 5000; },
                       [&] { UsedEntries().front().second->sequence = ~uint64{0}; }},
                      "the usage table is not well formed");
}

TEST_F(HostileTables, ARingWhoseNumbersNoStoreReachesIsRefused) {
    Take(KILLED);
    for (int i = 0; i < AllocRing::NUM_BLOCKS; ++i) {
        const int64 block = AllocRing::FILE_OFFSET + i * AllocRingBlock::BYTES;
        if (ReadPod<uint64>(m_file.data() + block) == 0) continue;
        const uint64 base = ~uint64{0};
        std::memcpy(m_file.data() + block + 48, &base, sizeof base);
    }
    ExpectRefused("the allocation ring holds a number");
}

// Blocks of another store do not speak for this one.
TEST_F(HostileTables, ARingOfAnotherStoreSaysNothingOfACreationThatWasCutShort) {
    Take(NEVER_USED);
    Header().flags |= HEADER_FLAG_CREATING;
    for (int i = 0; i < AllocRing::NUM_BLOCKS; ++i) ++*At<octet_t>(AllocRing::FILE_OFFSET + i * 4096 + 16);
    MakeChecksumsRight(m_file);
    m_sys.SetContent(m_file);
    bool createdNew = false;
    EXPECT_THROW(OpenFuzzStore(m_sys, OM_OPEN_EXISTING, createdNew, FuzzSettings(false, true)), FileException);
}

// Pages of the index are looked at when an element below them is asked for.
TEST_F(HostileTables, PagesThatContradictThemselvesAreRefusedWhenTheyAreRead) {
    const auto refused = [&](const std::function<void(IndexPrefix&, octet_t*)>& change) {
        Take(CLEANED_CLOSED);
        ForEachPacket([&](int64, int64 at, PacketHeader header) {
            if (PacketType(header.info) == EPacketType::INDEX)
                change(*At<IndexPrefix>(at + PACKET_HEADER_BYTES),
                       At<octet_t>(at + PACKET_HEADER_BYTES + static_cast<int64>(sizeof(IndexPrefix))));
        });
        EXPECT_THROW(Open(true).Validate(), CorruptLSSException);
        std::exchange(m_store, nullptr)->Abandon();
    };
    refused([](IndexPrefix& page, octet_t*) { ++page.level; });
    refused([](IndexPrefix& page, octet_t*) { ++page.n; });
    refused([](IndexPrefix& page, octet_t*) { page.bitmap[3] ^= uint64{1} << 63; });
    refused([](IndexPrefix&, octet_t* locations) {
        const Location outside = MakeLocation(64, 64);
        std::memcpy(locations, &outside, sizeof outside);
    });
}

} // namespace
} // namespace quna

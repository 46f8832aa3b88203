// Files whose checksums are all right and whose content no store would have written. Each is refused, or can be used, and
// costs time and memory in proportion to the file.
#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/AllocRing.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxLss/HostileStore.h"

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST_F(HostileFile, TheBaseStoresOpenAndAreValid) {
    for (const FileBytes& file : FuzzBaseStores()) {
        m_file = file;
        EXPECT_NO_THROW(Open().Validate());
        std::exchange(m_store, nullptr)->Close();
    }
}

TEST_F(HostileFile, ALogThatLeadsBackToASegmentBeforeIsRefused) {
    Take(LONG_KILLED);
    const int64 link = LastPacket(EPacketType::LINK);
    ASSERT_NE(0, link);
    const int64 segment = link / SEGMENT_BYTES * SEGMENT_BYTES;
    At<PacketHeader>(link)->key = At<SegmentHeader>(segment)->sequence;
    At<LinkPayload>(link + PACKET_HEADER_BYTES)->slot = At<SegmentHeader>(segment)->slot;
    ExpectRefused("leads back");
}

TEST_F(HostileFile, SlotsBehindTheEndOfTheFileCostNothing) {
    Take(CLOSED);
    Header().numSlots = 0xFFFFFFFF;
    LssStore& store = Open();
    EXPECT_LE(store.SpaceForTest().NumSlots() * SEGMENT_BYTES, std::ssize(m_file));
    store.Validate();
}

TEST_F(HostileFile, ATableThatNamesOnePacketTwiceIsRefused) {
    Take(CLEANED_KILLED);
    CheckpointHeader& header = Header();
    const uint32 n = header.numHighsPackets;
    std::memcpy(reinterpret_cast<octet_t*>(&header) + offsetof(CheckpointHeader, locations) +
                    (n + header.numSutPackets) * sizeof(Location),
                reinterpret_cast<octet_t*>(&header) + offsetof(CheckpointHeader, locations) + n * sizeof(Location),
                sizeof(Location));
    ++header.numSutPackets;
    ExpectRefused("a table of the checkpoint is not well formed");
}

TEST_F(HostileFile, NumbersThatNoStoreReachesAreRefused) {
    Take(CLOSED);
    Header().liveHead = ~uint64{0};
    ExpectRefused("no store can reach");
    Take(KILLED);
    Header().nextSegmentSequence = ~uint64{0} - 5;
    ExpectRefused("no store can reach");
}

TEST_F(HostileFile, AnElementInAFreeSegmentCantBeRead) {
    Take(CLEANED_CLOSED);
    // The usage table forgets its log segments, but for the one that goes on.
    for (const auto& [slot, entry] : UsedEntries()) {
        if (slot != static_cast<ssize_t>(Header().startSlot) && entry->kind != static_cast<uint8>(ESegmentKind::INDEX))
            *entry = SutEntry{};
    }
    LssStore& store = Open(true);
    int numRefused = 0;
    std::vector<Seid> seids;
    store.VisitElements([&](Seid seid, Location) { seids.push_back(seid); });
    for (const Seid seid : seids) {
        try {
            const AutoCloser<IContiguousSerialElement> element(store.OpenSerialElement(seid));
        } catch (const CorruptLSSException&) {
            ++numRefused;
        }
    }
    EXPECT_GT(numRefused, 0);
    EXPECT_THROW(store.Validate(), CorruptLSSException);
}

TEST_F(HostileFile, AUsageTableOfImpossibleSegmentsIsRefused) {
    Take(CLOSED);
    UsedEntries().front().second->kind = 9;
    ExpectRefused("the usage table is not well formed");
    Take(CLOSED);
    UsedEntries().front().second->liveBytes = 5000;
    ExpectRefused("the usage table is not well formed");
}

// The log ends there, as at any packet that is not what it should be; what came before it stays.
TEST_F(HostileFile, ARelocationThatPointsOutOfTheFileEndsTheLog) {
    for (const Location outside : {Location{0x7FFFFFFFFF}, MakeLocation(64, 64), MakeLocation(int64{1} << 42, 64)}) {
        Take(CLEANED_KILLED);
        bool changed = false;
        ForEachPacket([&](int64, int64 at, PacketHeader header) {
            if (PacketType(header.info) != EPacketType::RELOC) return;
            const RelocPayload head = ReadPod<RelocPayload>(m_file.data() + at + PACKET_HEADER_BYTES);
            if (head.numLong == 0) return;
            const int64 longs = at + PACKET_HEADER_BYTES + static_cast<int64>(sizeof(RelocPayload)) +
                                head.numNew * static_cast<int64>(sizeof(RelocRange)) +
                                head.numVictims * static_cast<int64>(sizeof(RelocVictim));
            At<RelocLong>(longs)->newHead = outside;
            changed = true;
        });
        ASSERT_TRUE(changed);
        try {
            Open();
            std::exchange(m_store, nullptr)->Close();
        } catch (const CorruptLSSException&) {
            EXPECT_EQ(0, m_sys.NumChanges());
        }
    }
}

TEST_F(HostileFile, ALongElementLongerThanTheFileTakesNoMemory) {
    Take(LONG_KILLED);
    // Its head lists one part again and again.
    const int64 at = LastPacket(EPacketType::HEAD, static_cast<ssize_t>(sizeof(LongPrefix)) + 8);
    ASSERT_NE(0, at);
    bool found = false;
    ForEachPacket([&](int64, int64 head, PacketHeader header) {
        if (PacketType(header.info) != EPacketType::HEAD || !(PacketFlags(header.info) & PACKET_FLAG_LONG)) return;
        auto* const prefix = At<LongPrefix>(head + PACKET_HEADER_BYTES);
        const ssize_t room = PayloadBytes(header.info) - static_cast<ssize_t>(sizeof(LongPrefix));
        const ssize_t parts = room / static_cast<ssize_t>(sizeof(Location));
        const Location part = ReadPod<Location>(m_file.data() + head + PACKET_HEADER_BYTES + sizeof(LongPrefix));
        for (ssize_t i = 0; i < parts; ++i)
            std::memcpy(At<octet_t>(head + PACKET_HEADER_BYTES + static_cast<int64>(sizeof(LongPrefix)) + i * 8), &part,
                        sizeof part);
        prefix->n = static_cast<uint32>(parts);
        prefix->totalBytes = static_cast<uint64>(parts * OverflowBytes(SEGMENT_BYTES) + room % 8);
        found = true;
    });
    ASSERT_TRUE(found);
    LssStore& store = Open(true);
    std::vector<Seid> seids;
    store.VisitElements([&](Seid seid, Location l) {
        if (IsLong(l)) seids.push_back(seid);
    });
    for (const Seid seid : seids) {
        const AutoCloser<IContiguousSerialElement> element(store.OpenSerialElement(seid));
        EXPECT_THROW(element->GetBuffer(), CorruptLSSException);
    }
}

// Found by OpenOpsFuzz: the transaction's close met the page, and the turn of the log was never given back.
TEST_F(HostileFile, ADamagedPageOfTheIndexEndsOneTransactionOfAReadOnlyStoreAndNoMore) {
    Take(CLEANED_CLOSED);
    ForEachPacket([&](int64, int64 at, PacketHeader header) {
        if (PacketType(header.info) == EPacketType::INDEX) At<IndexPrefix>(at + PACKET_HEADER_BYTES)->form = 1;
    });
    LssStore& store = Open(true);
    const Seid seid(3, 1);
    for (int i = 0; i < 2; ++i) {
        AutoCloser<ILssTransaction> transaction(store.OpenTransaction());
        EXPECT_THROW(transaction->WriteSerialElement(seid), CorruptLSSException);
        EXPECT_THROW(transaction->DeleteSerialElement(seid), CorruptLSSException);
        transaction.Close();
    }
}

TEST_F(HostileFile, ARingThatKnowsHighsThatWereNeverGivenIsRefused) {
    Take(KILLED);
    for (int i = 0; i < AllocRing::NUM_BLOCKS; ++i) {
        const int64 block = AllocRing::FILE_OFFSET + i * AllocRingBlock::BYTES;
        if (ReadPod<uint64>(m_file.data() + block) == 0) continue;
        const uint16 count = 1;
        const uint32 high = 0xFFFFFFFF;
        std::memcpy(m_file.data() + block + 44, &count, sizeof count);
        std::memcpy(m_file.data() + block + 56, &high, sizeof high);
    }
    ExpectRefused("the allocation ring holds a number");
}

} // namespace
} // namespace quna

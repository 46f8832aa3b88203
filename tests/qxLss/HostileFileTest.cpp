// Files whose checksums are all right and whose content no store would have written. Each is refused, or can be used, and
// costs time and memory in proportion to the file.
#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/AllocRing.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"
#include "tests/support/FuzzStore.h"

#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ssize_t SEGMENT_BYTES = 4096;

// In the order in which the base stores are made.
enum EBase {
    CLOSED = 1,
    KILLED = 2,
    LONG_KILLED = 3,
    CLEANED_KILLED = 4,
    CLEANED_CLOSED = 5
};

class HostileFile : public ::testing::Test {
protected:
    HostileFile() = default;
    ~HostileFile() noexcept override {
        if (m_store) m_store->Abandon();
    }

    void Take(EBase base) { m_file = FuzzBaseStores()[base]; }
    template <class T>
    T* At(int64 offset) {
        return reinterpret_cast<T*>(m_file.data() + offset);
    }
    // The newest header.
    CheckpointHeader& Header() {
        auto* const a = At<CheckpointHeader>(0);
        auto* const b = At<CheckpointHeader>(4096);
        return b->checkpointSequence > a->checkpointSequence ? *b : *a;
    }

    // Calls act(segment's offset, packet's offset, header) for each packet in the file.
    void ForEachPacket(const std::function<void(int64, int64, PacketHeader)>& act) {
        for (int64 segment = FRONT_AREA_BYTES; segment + SEGMENT_BYTES <= std::ssize(m_file);
             segment += SEGMENT_BYTES) {
            if (std::memcmp(m_file.data() + segment, SEGMENT_MAGIC, 8) != 0) continue;
            for (ssize_t pos = SEGMENT_HEADER_BYTES; pos + PACKET_HEADER_BYTES <= SEGMENT_BYTES;) {
                const PacketHeader header = ReadPod<PacketHeader>(m_file.data() + segment + pos);
                if (header.info == 0) break;
                act(segment, segment + pos, header);
                pos += PacketBytes(header.info);
            }
        }
    }
    // The last packet of the type; its offset, 0 if there is none.
    int64 LastPacket(EPacketType type, ssize_t leastBytes = 0) {
        int64 found = 0;
        ForEachPacket([&](int64, int64 at, PacketHeader header) {
            if (PacketType(header.info) == type && PayloadBytes(header.info) >= leastBytes) found = at;
        });
        return found;
    }

    LssStore& Open(bool readOnly = false) {
        MakeChecksumsRight(m_file);
        m_sys.SetContent(m_file);
        bool createdNew = false;
        m_store = OpenFuzzStore(m_sys, readOnly ? OM_OPEN_EXISTING_READ_ONLY : OM_OPEN_EXISTING, createdNew,
                                FuzzSettings(false, true));
        return *m_store;
    }
    void ExpectRefused(const std::string& text) {
        try {
            Open();
            ADD_FAILURE() << "opened; expected: " << text;
        } catch (const CorruptLSSException& e) {
            EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
        }
        EXPECT_EQ(0, m_sys.NumChanges()) << "a refused open has changed the file";
    }

    FuzzSys m_sys;
    FileBytes m_file;
    LssStore* m_store = nullptr;
};

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
    const int64 table = LastPacket(EPacketType::SUT);
    ASSERT_NE(0, table);
    const ssize_t n = PayloadBytes(At<PacketHeader>(table)->info) / static_cast<ssize_t>(sizeof(SutEntry));
    for (ssize_t slot = 0; slot < n; ++slot) {
        auto* const entry = At<SutEntry>(table + PACKET_HEADER_BYTES + slot * static_cast<int64>(sizeof(SutEntry)));
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
    const int64 table = LastPacket(EPacketType::SUT);
    ASSERT_NE(0, table);
    At<SutEntry>(table + PACKET_HEADER_BYTES)->kind = 9;
    ExpectRefused("the usage table is not well formed");
    Take(CLOSED);
    At<SutEntry>(table + PACKET_HEADER_BYTES)->liveBytes = 5000;
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

#include "qxLss/src/Recovery.h"

#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/SegmentWriter.h"
#include "tests/qxLss/TestLss.h"
#include "tests/support/ExpectAssertion.h"

#include <algorithm>
#include <cstring>
#include <set>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr int64 DATA_START = 131072;
constexpr ssize_t SEGMENT = 4096;

// One packet of the user stream of a file.
struct FoundPacket {
    EPacketType type;
    int64 offset; // in the file
    ssize_t bytes;
    uint64 key;
};

CheckpointHeader HeaderOf(const FileBytes& file) {
    CheckpointHeader a{};
    CheckpointHeader b{};
    std::memcpy(static_cast<void*>(&a), file.data(), sizeof a);
    std::memcpy(static_cast<void*>(&b), file.data() + 4096, sizeof b);
    return b.checkpointSequence > a.checkpointSequence ? b : a;
}

// The packets behind the newest checkpoint, segment by segment.
std::vector<FoundPacket> LogOf(const FileBytes& file) {
    const CheckpointHeader header = HeaderOf(file);
    int64 segment = DATA_START + header.startSlot * SEGMENT;
    ssize_t pos = header.startOffset;
    std::vector<FoundPacket> found;
    for (;;) {
        const SegmentHeader s = ReadPod<SegmentHeader>(file.data() + segment);
        if (pos + PACKET_HEADER_BYTES > SEGMENT) return found;
        const octet_t* const p = file.data() + segment + pos;
        const PacketHeader packet = ReadPod<PacketHeader>(p);
        if (pos + PacketBytes(packet.info) > SEGMENT ||
            PacketCrc(SegmentCrcSeed(header.storeId, s.sequence), static_cast<uint32>(pos), p,
                      PayloadBytes(packet.info)) != packet.crc)
            return found;
        found.push_back({PacketType(packet.info), segment + pos, PacketBytes(packet.info), packet.key});
        pos += PacketBytes(packet.info);
        if (PacketType(packet.info) == EPacketType::LINK) {
            segment = DATA_START + ReadPod<LinkPayload>(p + PACKET_HEADER_BYTES).slot * SEGMENT;
            pos = SEGMENT_HEADER_BYTES;
        }
    }
}

TEST(Recovery, AKilledProcessLosesNothingThatWasClosed) {
    SimSys sys;
    ElementMap expected;
    {
        TestLss lss(sys);
        for (int i = 0; i < 100; ++i) lss.Put(Pattern(i * 17));
        expected = lss.All();
    }
    TestLss lss(sys);
    EXPECT_EQ(lss.All(), expected);
    EXPECT_EQ(lss.Stats().numRecoveries, 1);
    EXPECT_EQ(lss.Stats().numTransactions, 100);
    lss->Validate();
}

TEST(Recovery, ACleanCloseNeedsNone) {
    SimSys sys;
    {
        TestLss lss(sys);
        lss.Put("x");
        lss.Close();
    }
    TestLss lss(sys);
    EXPECT_EQ(lss.Stats().numRecoveries, 0);
    EXPECT_EQ(lss.All().size(), 1u);
}

// Each transaction that is cut, at whatever byte, vanishes whole, and with it all behind it.
TEST(Recovery, ATornTailEndsTheLogBeforeItsTransaction) {
    SimSys sys;
    std::vector<ElementMap> states;
    {
        TestLss lss(sys);
        lss.Put("durable");
        lss->CheckpointForTest();
        states.push_back(lss.All());
        for (int i = 0; i < 12; ++i) {
            lss.Put(Pattern(60 * i));
            states.push_back(lss.All());
        }
    }
    const FileBytes file = StoreFile(sys);
    const std::vector<FoundPacket> log = LogOf(file);
    size_t commits = 0;
    for (const FoundPacket& packet : log) {
        for (const ssize_t at : {ssize_t{0}, packet.bytes / 2, packet.bytes - 1}) {
            if (packet.type == EPacketType::PAD || (at > 0 && packet.type == EPacketType::HEAD))
                continue; // bytes behind a payload may be padding
            FileBytes torn = file;
            torn[static_cast<size_t>(packet.offset + at)] ^= 1;
            SimSys after(ImageOf(torn));
            TestLss lss(after);
            EXPECT_EQ(lss.All(), states[commits]);
            lss->Validate();
        }
        commits += packet.type == EPacketType::COMMIT;
    }
    EXPECT_EQ(commits, 12u);
}

// The COMMITs behind the damage say that the log was durable beyond it.
TEST(Recovery, DamageInsideDurableDataIsNeverPassedOver) {
    SimSys sys;
    {
        TestLss lss(sys);
        for (int i = 0; i < 30; ++i) lss.Put(lss.NewSeid(), Pattern(100), true);
    }
    const FileBytes file = StoreFile(sys);
    const std::vector<FoundPacket> log = LogOf(file);
    for (size_t i = 0; i + 12 < log.size(); ++i) {
        if (log[i].type == EPacketType::PAD) continue;
        FileBytes damaged = file;
        damaged[static_cast<size_t>(log[i].offset + 5)] ^= 1;
        SimSys after(ImageOf(damaged));
        EXPECT_THROW(TestLss lss(after), CorruptLSSException) << "packet " << i;
        EXPECT_EQ(StoreFile(after), damaged);
    }
}

TEST(Recovery, ALinkWhoseTargetWasLostEndsTheLogInGoodHealth) {
    SimSys sys;
    {
        TestLss lss(sys);
        lss.Put("durable");
        lss->CheckpointForTest();
        for (int i = 0; i < 40; ++i) lss.Put(Pattern(200));
    }
    FileBytes file = StoreFile(sys);
    const std::vector<FoundPacket> log = LogOf(file);
    size_t commits = 0;
    size_t i = 0;
    for (; i < log.size() && log[i].type != EPacketType::LINK; ++i) commits += log[i].type == EPacketType::COMMIT;
    ASSERT_LT(i, log.size());
    const LinkPayload link = ReadPod<LinkPayload>(file.data() + log[i].offset + PACKET_HEADER_BYTES);
    std::memset(file.data() + DATA_START + link.slot * SEGMENT, 0, SEGMENT);
    SimSys after(ImageOf(file));
    TestLss lss(after);
    EXPECT_EQ(lss.All().size(), 1 + commits);
    lss->Validate();
}

TEST(Recovery, ALostStartOfTheLogIsDamage) {
    SimSys sys;
    {
        TestLss lss(sys);
        lss.Put("x");
    }
    FileBytes file = StoreFile(sys);
    file[static_cast<size_t>(DATA_START + HeaderOf(file).startSlot * SEGMENT + 9)] ^= 1;
    SimSys after(ImageOf(file));
    EXPECT_THROW(TestLss lss(after), CorruptLSSException);
}

TEST(Recovery, ATornNewestHeaderIsReplacedByTheOlderOnlyIfNoRingBlockNamesIt) {
    SimSys sys;
    {
        TestLss lss(sys);
        lss.Put("x");
        lss->CheckpointForTest();
        lss.Put("y");
    }
    FileBytes file = StoreFile(sys);
    file[static_cast<size_t>(HeaderOffset(HeaderOf(file).checkpointSequence) + 100)] ^= 1;
    SimSys after(ImageOf(file));
    EXPECT_THROW(TestLss lss(after), CorruptLSSException);
}

TEST(Recovery, ANewerFormatVersionIsRefusedByNumberAndTheFileKept) {
    SimSys sys;
    {
        TestLss lss(sys);
        lss.Put("x");
    }
    FileBytes file = StoreFile(sys);
    for (const int64 offset : {0, 4096}) {
        CheckpointHeader header{};
        std::memcpy(static_cast<void*>(&header), file.data() + offset, sizeof header);
        header.version = 2;
        header.crc = Crc32c(&header, offsetof(CheckpointHeader, crc));
        std::memcpy(file.data() + offset, &header, sizeof header);
    }
    SimSys after(ImageOf(file));
    ExpectException<CorruptLSSException>(
        "The store 'd/store' is damaged: the file has format version 2, this library reads versions up to 1. "
        "Open it with a newer library",
        [&] { TestLss lss(after); });
    EXPECT_EQ(StoreFile(after), file);
}

// The format number of the newer header.
void SetVersion(FileBytes& file, uint32 version) {
    CheckpointHeader header = HeaderOf(file);
    header.version = version;
    header.crc = Crc32c(&header, offsetof(CheckpointHeader, crc));
    std::memcpy(file.data() + HeaderOffset(header.checkpointSequence), &header, sizeof header);
}

TEST(Recovery, AnOlderFormatVersionIsRefusedByNumberAndTheFileKept) {
    SimSys sys;
    {
        TestLss lss(sys);
        lss.Put("x");
        lss->CheckpointForTest();
    }
    FileBytes file = StoreFile(sys);
    SetVersion(file, 0);
    SimSys after(ImageOf(file));
    ExpectException<CorruptLSSException>(
        "The store 'd/store' is damaged: the file has format version 0, this library reads versions from 1. "
        "Restore the file from a backup; what is whole can still be read",
        [&] { TestLss lss(after); });
    EXPECT_EQ(StoreFile(after), file);
}

TEST(Recovery, ElementsSurviveOneWhoseIdentifierIsFarAboveTheirs) {
    SimSys sys;
    Seid first;
    Seid far;
    {
        TestLss lss(sys);
        first = lss.Put("first");
        lss->CheckpointForTest();
        far = Seid(0x1000000, first.high_);
        ASSERT_TRUE(lss->AllocateAffiliateSeid(far));
        AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
        TestLss::Write(*txn.Get(), far, "far");
        txn.Close();
    }
    for (int i = 0; i < 3; ++i) {
        TestLss lss(sys);
        EXPECT_EQ(lss.Get(first), "first");
        EXPECT_EQ(lss.Get(far), "far");
        lss->Validate();
    }
}

// Neither by its checksum nor by its version is it a header; which of the two places it stands in makes no difference.
TEST(Recovery, ATornHeaderThatShowsAnotherVersionIsLeftOutBesideAWholeOne) {
    for (const int numCheckpoints : {1, 2}) {
        SimSys sys;
        {
            TestLss lss(sys);
            lss.Put("x");
            for (int i = 0; i < numCheckpoints; ++i) lss->CheckpointForTest();
        }
        FileBytes file = StoreFile(sys);
        CheckpointHeader older{};
        const auto offset = static_cast<std::ptrdiff_t>(HeaderOffset(HeaderOf(file).checkpointSequence + 1));
        std::memcpy(static_cast<void*>(&older), file.data() + offset, sizeof older);
        older.version = 9; // and the checksum of another version
        std::memcpy(file.data() + offset, &older, sizeof older);
        SimSys after(ImageOf(file));
        TestLss lss(after);
        EXPECT_EQ(lss.All().size(), 1u) << numCheckpoints;
    }
}

// The COMMIT that names the mark comes only many segments behind the break.
TEST(Recovery, DamageBeforeALongTransactionIsNeverPassedOver) {
    SimSys sys;
    {
        TestLss lss(sys);
        lss.Put("x");
        lss->CheckpointForTest();
        lss.Put(Pattern(300), true);
        AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
        for (int i = 0; i < 40; ++i) TestLss::Write(*txn.Get(), lss.NewSeid(), Pattern(900));
        txn.Close();
    }
    FileBytes damaged = StoreFile(sys);
    const std::vector<FoundPacket> log = LogOf(damaged);
    const auto head =
        std::find_if(log.begin(), log.end(), [](const FoundPacket& p) { return p.type == EPacketType::HEAD; });
    ASSERT_NE(head, log.end());
    damaged[static_cast<size_t>(head->offset) + 20] ^= 1;
    for (const EOpenMode mode : {OM_OPEN_EXISTING_READ_ONLY, OM_OPEN_ALWAYS}) {
        SimSys after(ImageOf(damaged));
        EXPECT_THROW(TestLss(after, SmallSegments(), mode), CorruptLSSException);
        EXPECT_EQ(StoreFile(after), damaged);
    }
}

// A block of the ring that does not verify counts as empty, and so may say too little.
TEST(Recovery, IdentifiersOfElementsInTheLogAreSpentWhateverTheRingSays) {
    SimSys sys;
    std::set<uint64> written;
    {
        TestLss lss(sys);
        lss.Put("x");
        lss->CheckpointForTest();
        for (int i = 0; i < 6000; ++i) {
            const Seid seid = lss.NewSeid();
            if (i % 100 == 0) written.insert(lss.Put(seid, "y").value_);
        }
    }
    FileBytes file = StoreFile(sys);
    for (int64 block = AllocRing::FILE_OFFSET; block < DATA_START; block += AllocRingBlock::BYTES)
        if (ReadPod<uint16>(file.data() + block + 44) > 0)
            file[static_cast<size_t>(block) + 100] ^= 1; // names horizons
    SimSys after(ImageOf(file));
    TestLss lss(after);
    for (int i = 0; i < 8000; ++i) EXPECT_FALSE(written.contains(lss.NewSeid().value_));
}

// A crash may lose a part of what was reserved at the file's end. An element right before it could not be read: readers may
// look a little beyond its bytes.
TEST(Recovery, AFileThatACrashHasCutWithinItsLastSlotIsMadeWholeByWritersOnly) {
    SimSys sys;
    ElementMap expected;
    {
        TestLss lss(sys);
        for (int i = 0; i < 10; ++i) lss.Put(Pattern(300));
        expected = lss.All();
    }
    FileBytes file = StoreFile(sys);
    ASSERT_EQ(std::ssize(file) % 4096, 0);
    file.resize(file.size() - 1000);
    for (const EOpenMode mode : {OM_OPEN_EXISTING_READ_ONLY, OM_OPEN_EXISTING}) {
        SimSys after(ImageOf(file));
        TestLss lss(after, SmallSegments(), mode);
        EXPECT_EQ(lss.All(), expected);
        const FileBytes opened = StoreFile(after);
        if (mode == OM_OPEN_EXISTING_READ_ONLY)
            EXPECT_EQ(opened, file);
        else
            EXPECT_EQ(std::ssize(opened) % 4096, 0);
    }
}

TEST(Recovery, IdentifiersAreNotHandedOutAgainAfterAKill) {
    SimSys sys;
    std::set<uint64> given;
    for (int life = 0; life < 20; ++life) {
        TestLss lss(sys);
        if (life == 0) lss.Put("x");
        for (int i = 0; i < 100; ++i) EXPECT_TRUE(given.insert(lss.NewSeid().value_).second);
        if (life % 3 == 0) lss.Close();
    }
}

TEST(Recovery, EveryBitOfTheLogIsDetectedOrHarmless) {
    SimSys sys;
    ElementMap expected;
    {
        TestLss lss(sys);
        for (int i = 0; i < 6; ++i) lss.Put(Pattern(40 * i));
        expected = lss.All();
        lss.Close();
    }
    const FileBytes file = StoreFile(sys);
    TestRandom random(5);
    for (int i = 0; i < 1500; ++i) {
        FileBytes damaged = file;
        const size_t at =
            i < 300 ? random() % 8192 : static_cast<size_t>(DATA_START) + random() % (file.size() - DATA_START);
        damaged[at] ^= static_cast<octet_t>(1u << random() % 8);
        SimSys after(ImageOf(damaged));
        after.StopRecording();
        try {
            TestLss lss(after);
            for (const auto& [seid, content] : expected) EXPECT_EQ(lss.Get(Seid(seid)), content) << "byte " << at;
        } catch (const CorruptLSSException&) {
        } catch (const FileException&) { // a damaged "being created" flag can't pass the checksum
            ADD_FAILURE() << "byte " << at;
        }
    }
}

// --- relocations, written as a cleaner would

// Appends to the image of a killed store: the newest elements, moved to a survivor segment, and RELOC behind the log.
class RelocTest : public testing::Test {
protected:
    RelocTest() {
        {
            TestLss lss(m_sys);
            for (int i = 0; i < 40; ++i)
                m_seids.push_back(lss.Put(i == 39 ? Pattern(3 * 952 + 100) : Pattern(100 + i)));
            lss->CheckpointForTest();
            lss.Put(lss.NewSeid(), "behind the checkpoint");
            m_expected = lss.All();
            m_survivorSlot = lss->SpaceForTest().NumSlots() - 1;
            m_sequence = lss->SpaceForTest().NextSequence() + 5;
            m_end = lss->LogForTest().Position();
            for (const Seid seid : m_seids) m_locations[seid.value_] = lss->IndexForTest().Get(seid);
            m_victimSlot = (LocationOffset(m_locations[m_seids[10].value_]) - DATA_START) / SEGMENT;
        }
        m_file = StoreFile(m_sys);
        m_header = HeaderOf(m_file);
    }

    // The packet at `l`, sealed again for the survivor segment at `pos`.
    void Append(EPacketType type, uint64 key, const octet_t* payload, ssize_t n, uint32 flags, ssize_t slot,
                uint64 sequence, ssize_t& pos) {
        octet_t* const p = m_file.data() + DATA_START + slot * SEGMENT + pos;
        PacketHeader header{0, PacketInfo(type, n, flags), key};
        std::memcpy(p, &header, sizeof header);
        std::memcpy(p + sizeof header, payload, static_cast<size_t>(n));
        header.crc = PacketCrc(SegmentCrcSeed(m_header.storeId, sequence), static_cast<uint32>(pos), p, n);
        std::memcpy(p, &header, sizeof header);
        pos += PacketBytes(header.info);
    }

    void WriteSegmentHeader(ssize_t slot, uint64 sequence) {
        SegmentHeader header{};
        std::memcpy(header.magic, SEGMENT_MAGIC, sizeof header.magic);
        header.sequence = sequence;
        header.storeIdStart = StoreIdStart(m_header.storeId);
        header.kind = static_cast<uint32>(ESegmentKind::SURVIVORS);
        header.slot = static_cast<uint32>(slot);
        header.crc = Crc32c(&header, offsetof(SegmentHeader, crc));
        std::memcpy(m_file.data() + DATA_START + slot * SEGMENT, &header, sizeof header);
    }

    // Moves all live packets out of the victim; only its short heads (the test's first elements).
    void MoveVictim(bool tearRange, bool tearReloc) {
        WriteSegmentHeader(m_survivorSlot, m_sequence);
        ssize_t pos = SEGMENT_HEADER_BYTES;
        for (const Seid seid : m_seids) {
            const Location l = m_locations[seid.value_];
            if ((LocationOffset(l) - DATA_START) / SEGMENT != m_victimSlot) continue;
            const octet_t* const old = m_file.data() + LocationOffset(l);
            const ssize_t n = PayloadBytes(ReadPod<PacketHeader>(old).info);
            const std::vector<octet_t> payload(old + PACKET_HEADER_BYTES, old + PACKET_HEADER_BYTES + n);
            Append(EPacketType::HEAD, seid.value_, payload.data(), n, PacketFlags(ReadPod<PacketHeader>(old).info),
                   m_survivorSlot, m_sequence, pos);
            ++m_moved;
        }
        const RelocPayload head{1, 1, 0, RELOC_FLAG_LAST};
        const RelocRange range{static_cast<uint32>(m_survivorSlot), SEGMENT_HEADER_BYTES, static_cast<uint32>(pos), 0,
                               m_sequence};
        const RelocVictim victim{static_cast<uint32>(m_victimSlot), 0,
                                 ReadPod<SegmentHeader>(m_file.data() + DATA_START + m_victimSlot * SEGMENT).sequence};
        std::vector<octet_t> payload(sizeof head + sizeof range + sizeof victim);
        std::memcpy(payload.data(), &head, sizeof head);
        std::memcpy(payload.data() + sizeof head, &range, sizeof range);
        std::memcpy(payload.data() + sizeof head + sizeof range, &victim, sizeof victim);
        ssize_t end = m_end.offset;
        Append(EPacketType::RELOC, 1, payload.data(), static_cast<ssize_t>(payload.size()), 0, m_end.slot,
               m_end.sequence, end);
        if (tearRange)
            m_file[static_cast<size_t>(DATA_START + m_survivorSlot * SEGMENT + SEGMENT_HEADER_BYTES + 20)] ^= 1;
        if (tearReloc) m_file[static_cast<size_t>(DATA_START + m_end.slot * SEGMENT + m_end.offset + 20)] ^= 1;
    }

    SimSys m_sys;
    std::vector<Seid> m_seids;
    std::map<uint64, Location> m_locations;
    ElementMap m_expected;
    FileBytes m_file;
    CheckpointHeader m_header{};
    ssize_t m_victimSlot = 0;
    ssize_t m_survivorSlot = 0;
    uint64 m_sequence = 0;
    LogPosition m_end{};
    int m_moved = 0;
};

TEST_F(RelocTest, MovesWhatItNamesAndFreesTheVictim) {
    MoveVictim(false, false);
    ASSERT_GT(m_moved, 3);
    SimSys after(ImageOf(m_file));
    TestLss lss(after);
    EXPECT_EQ(lss.All(), m_expected);
    lss->Validate();
    const Location l = lss->IndexForTest().Get(m_seids[10]);
    EXPECT_EQ((LocationOffset(l) - DATA_START) / SEGMENT, m_survivorSlot);
}

TEST_F(RelocTest, ThatWasNotSyncedIsNotApplied) {
    MoveVictim(true, false);
    SimSys after(ImageOf(m_file));
    TestLss lss(after);
    EXPECT_EQ(lss.All(), m_expected);
    EXPECT_EQ(lss->IndexForTest().Get(m_seids[10]), m_locations[m_seids[10].value_]);
    lss->Validate();
}

TEST_F(RelocTest, ThatIsTornEndsTheLog) {
    MoveVictim(false, true);
    SimSys after(ImageOf(m_file));
    TestLss lss(after);
    EXPECT_EQ(lss.All(), m_expected);
    lss->Validate();
}

// A store that was closed in order synced everything: what the cache shows of it is what the disk has. After a kill the
// cache may show writes that a failed sync has lost.
TEST(Recovery, KeepsTheCachedPagesOfACleanlyClosedStoreAndOfNoOther) {
    SimSys sys;
    {
        TestLss lss(sys);
        lss.Put("x");
        lss.Close();
    }
    int64 before = sys.NumCalls(ESimCall::DROP_CACHE);
    {
        TestLss lss(sys);
        EXPECT_EQ(sys.NumCalls(ESimCall::DROP_CACHE), before + 1); // headers and ring only
        lss.Put("y");
    }
    before = sys.NumCalls(ESimCall::DROP_CACHE);
    const TestLss killed(sys);
    EXPECT_EQ(sys.NumCalls(ESimCall::DROP_CACHE), before + 2);
}

// The file as it was when the owner of `sys` lost power right before, or after, it wrote its last checkpoint header.
FileBytes FileAtLastHeader(const SimSys& sys, bool after) {
    const std::vector<SimCall> record = sys.Record();
    ssize_t last = -1;
    for (ssize_t k = 0; k < std::ssize(record); ++k) {
        const SimCall& call = record[static_cast<size_t>(k)];
        if (call.kind == SimCall::EKind::WRITE_DURABLE && call.offset <= 4096) last = k;
    }
    EXPECT_GE(last, 0);
    SimDisk disk(sys.InitialImage());
    for (ssize_t k = 0; k < last + after; ++k) disk.Apply(record[static_cast<size_t>(k)]);
    return disk.Image({CrashVariant::EChoice::ALL, 0, 0}).at("d/store");
}

// What was torn in the middle has zeros there again, because the next owner lost power when it had written just that sector.
TEST(Recovery, DoesNotTakeATornHeaderThatBecameValidUnderTheNextOwner) {
    constexpr size_t MIDDLE = 2048;
    SimSys sys;
    ElementMap expected;
    FileBytes file;
    size_t headerAt = 0;
    {
        TestLss lss(sys);
        for (int i = 0; i < 40; ++i) lss.Put(Pattern(200));
        lss->CheckpointForTest();
        for (int i = 0; i < 40; ++i) lss.Put(Pattern(300, static_cast<unsigned>(i)), true);
        expected = lss.All();
        lss->CheckpointForTest();
        file = FileAtLastHeader(sys, true);
        headerAt = static_cast<size_t>(HeaderOffset(HeaderOf(file).checkpointSequence));
    }
    file[headerAt + MIDDLE] ^= 0xFF;
    SimSys next(DiskImage{{"d/store", file}});
    {
        const TestLss lss(next);
        EXPECT_EQ(lss.All(), expected);
    }
    file = FileAtLastHeader(next, false);
    file[headerAt + MIDDLE] = 0;
    SimSys after(DiskImage{{"d/store", file}});
    const TestLss lss(after);
    EXPECT_EQ(lss.All(), expected);
    lss->Validate();
}

} // namespace
} // namespace quna

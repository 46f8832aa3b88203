// Logs that an archive cannot copy, and places in the log that it has to find again.
#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/UserChain.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxLss/ArchivedStore.h"
#include "tests/support/TraceCatcher.h"

#include <functional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quna {
namespace {

// An archived store of some transactions, of which the last are not yet archived, and its file, which the test changes.
class ArchiveDamage : public testing::Test {
protected:
    ArchiveDamage() {
        m_store.Open();
        for (int i = 0; i < 3; ++i) m_store.Transaction(true);
        m_store.Lss()->ArchiveForTest();
    }
    StoreCore& Core() { return m_store.Lss()->CoreForTest(); }
    UserLog& Log() { return m_store.Lss()->LogForTest(); }
    int64 OffsetOf(const LogPosition& p) { return Core().m_segments->OffsetOf(p.slot) + p.offset; }

    template <class T>
    T Peek(int64 at) {
        return ReadPod<T>(m_sys.Peek("d/store", at, sizeof(T)).data());
    }
    template <class T>
    void Poke(int64 at, const T& value) {
        m_sys.Poke("d/store", at, reinterpret_cast<const octet_t*>(&value), sizeof value);
    }
    // The first packet of the type from `from` on in its segment; its offset in the file.
    int64 Find(const LogPosition& from, EPacketType type) {
        int64 at = OffsetOf(from);
        while (PacketType(Peek<PacketHeader>(at).info) != type) at += PacketBytes(Peek<PacketHeader>(at).info);
        return at;
    }
    // Changes a packet of segment `sequence` and makes its checksum right.
    void Rewrite(int64 at, uint64 sequence, const std::function<void(FileBytes&)>& change) {
        FileBytes bytes = m_sys.Peek("d/store", at, 64);
        change(bytes);
        const ssize_t n = PayloadBytes(ReadPod<PacketHeader>(bytes.data()).info);
        const uint32 crc = PacketCrc(SegmentCrcSeed(Core().m_storeId, sequence),
                                     static_cast<uint32>((at - FRONT_AREA_BYTES) % 4096), bytes.data(), n);
        std::memcpy(bytes.data(), &crc, sizeof crc);
        m_sys.Poke("d/store", at, bytes.data(), bytes.size());
    }
    void RewriteHeader(ssize_t slot, const std::function<void(SegmentHeader&)>& change) {
        SegmentHeader header = Peek<SegmentHeader>(Core().m_segments->OffsetOf(slot));
        change(header);
        header.crc = Crc32c(&header, offsetof(SegmentHeader, crc));
        Poke(Core().m_segments->OffsetOf(slot), header);
    }
    // Where the next packet will stand.
    LogPosition NextPlace() {
        TurnScope turn(Log().Turn());
        Log().BeforePacket(); // may leave the sector
        return Log().Position();
    }
    void BeginSegment() {
        TurnScope turn(Log().Turn());
        Log().LinkToNext(EClaim::MAINTENANCE);
    }
    // A transaction; gives the place where it begins.
    LogPosition PutOne() {
        const LogPosition before = NextPlace();
        m_store.Put(m_store.Lss().NewSeid(), Pattern(300));
        m_store.Lss()->Flush();
        return before;
    }
    void ExpectStopped(const std::string& text) {
        try {
            m_store.Lss()->ArchiveForTest();
            ADD_FAILURE() << "archived; expected: " << text;
        } catch (const CorruptLSSException& e) {
            EXPECT_THAT(e.GetMessage(), testing::HasSubstr(text));
        }
        m_store.Transaction(); // the store itself goes on
    }

    SimSys m_sys;
    ArchivedStore m_store{m_sys};
};

TEST_F(ArchiveDamage, ADamagedPacketStopsTheArchiveAndIsTracedByTheClose) {
    const int64 at = OffsetOf(PutOne());
    Poke(at + 20, static_cast<octet_t>(Peek<octet_t>(at + 20) ^ 1));
    ExpectStopped("no valid packet");
    const TraceCatcher trace;
    m_store.Close();
    EXPECT_TRUE(trace.Has("no valid packet")) << trace.Text();
    EXPECT_EQ(DeltaNames(m_sys).size(), 1u);
}

TEST_F(ArchiveDamage, APacketThatClaimsToBeLongerThanTheLogStopsTheArchive) {
    Poke(OffsetOf(PutOne()) + 4, PacketInfo(EPacketType::HEAD, 4000));
    ExpectStopped("no valid packet");
}

TEST_F(ArchiveDamage, ACommitThatIsNotTheNextOneStopsTheArchive) {
    const std::vector<std::function<void(FileBytes&)>> changes{
        [](FileBytes& bytes) { ++bytes[8]; },                       // its number
        [](FileBytes& bytes) { ++bytes[PACKET_HEADER_BYTES]; },     // the bytes that it counts
        [](FileBytes& bytes) { ++bytes[PACKET_HEADER_BYTES + 8]; }, // the packets
        [](FileBytes& bytes) { bytes[4] = 31; }};                   // its length
    for (const auto& change : changes) {
        const LogPosition before = PutOne();
        const int64 at = Find(before, EPacketType::COMMIT);
        const FileBytes right = m_sys.Peek("d/store", at, 64);
        Rewrite(at, before.sequence, change);
        ExpectStopped("with all its packets before it");
        m_sys.Poke("d/store", at, right.data(), 48); // what stands behind it has changed since
        m_store.Archive();
    }
}

TEST_F(ArchiveDamage, ALogThatLeadsToNoSegmentOfItStopsTheArchive) {
    const std::vector<std::function<void(FileBytes&)>> changes{
        [](FileBytes& bytes) { bytes[4] = 0; },                         // no slot
        [](FileBytes& bytes) { bytes[PACKET_HEADER_BYTES + 3] = 200; }, // beyond all slots
        [](FileBytes& bytes) { bytes[PACKET_HEADER_BYTES + 3] = 0x7F; },
        [](FileBytes& bytes) { ++bytes[8]; }}; // another sequence
    for (const auto& change : changes) {
        const LogPosition before = PutOne();
        BeginSegment();
        PutOne();
        const int64 at = Find(before, EPacketType::LINK);
        const FileBytes right = m_sys.Peek("d/store", at, 24);
        Rewrite(at, before.sequence, change);
        ExpectStopped("no valid segment behind this one");
        m_sys.Poke("d/store", at, right.data(), right.size());
        m_store.Archive();
    }
    // or to one that was begun elsewhere in the log
    PutOne();
    BeginSegment();
    const ssize_t slot = Log().Position().slot;
    PutOne();
    RewriteHeader(slot, [](SegmentHeader& header) { header.clockAtOpening += 8; });
    ExpectStopped("no valid segment behind this one");
}

TEST_F(ArchiveDamage, DamageWhereATransactionGoesOnInTheNextSegmentStopsTheArchive) {
    const LogPosition before = NextPlace();
    m_store.Put(m_store.Lss().NewSeid(), Pattern(12000));
    m_store.Lss()->Flush();
    const int64 link = Find(before, EPacketType::LINK);
    const ssize_t next = static_cast<ssize_t>(Peek<LinkPayload>(link + PACKET_HEADER_BYTES).slot);
    const int64 at = Core().m_segments->OffsetOf(next) + SEGMENT_HEADER_BYTES;
    Poke(at + 20, static_cast<octet_t>(Peek<octet_t>(at + 20) ^ 1));
    ExpectStopped("no valid packet");
}

// The sync came when the LINK had been written and the next segment not yet been begun.
TEST_F(ArchiveDamage, ALogThatIsDurableUpToALinkIsFollowedLater) {
    PutOne();
    BeginSegment();
    m_store.Lss()->Flush();
    m_store.Lss()->ArchiveForTest();
    EXPECT_EQ(Core().m_archive.upTo, m_store.Last());
    m_store.Transaction(true);
    m_store.Lss()->ArchiveForTest();
    EXPECT_EQ(Core().m_archive.upTo, m_store.Last());
}

TEST_F(ArchiveDamage, TheHeaderOfAUserSegmentMustBeThatOfItsPlaceAndSequence) {
    const LogPosition p = Log().Position();
    const SegmentHeader right = Peek<SegmentHeader>(Core().m_segments->OffsetOf(p.slot));
    EXPECT_TRUE(ReadUserHeader(Core(), p.slot, p.sequence));
    EXPECT_FALSE(ReadUserHeader(Core(), p.slot, p.sequence + 1));
    EXPECT_FALSE(ReadUserHeader(Core(), Core().m_segments->MaxSlots() - 1, p.sequence)); // behind the end of the file
    const std::vector<std::function<void(SegmentHeader&)>> changes{
        [](SegmentHeader& header) { header.magic[0] = 'X'; }, [](SegmentHeader& header) { ++header.storeIdStart; },
        [](SegmentHeader& header) { ++header.slot; },
        [](SegmentHeader& header) { header.kind = static_cast<uint32>(ESegmentKind::SURVIVORS); }};
    for (const auto& change : changes) {
        RewriteHeader(p.slot, change);
        EXPECT_FALSE(ReadUserHeader(Core(), p.slot, p.sequence));
        Poke(Core().m_segments->OffsetOf(p.slot), right);
    }
    SegmentHeader torn = right;
    ++torn.crc;
    Poke(Core().m_segments->OffsetOf(p.slot), torn);
    EXPECT_FALSE(ReadUserHeader(Core(), p.slot, p.sequence));
}

// --- looking for a transaction backwards from the end

class FindingTransactions : public ArchiveDamage {
protected:
    // Some segments, of one or two transactions each.
    FindingTransactions() {
        for (int i = 0; i < 6; ++i) m_places.push_back(PutSegment());
    }
    struct Place {
        LogPosition segment; // where the transaction begins
        uint64 number;
    };
    Place PutSegment() {
        BeginSegment();
        return {PutOne(), m_store.Last()};
    }
    std::optional<ChainPosition> Find(uint64 number) {
        return FindBehindTransaction(Core(), m_store.Lss()->SpaceForTest().NumSlots(), Log().Position(), number);
    }
    using ArchiveDamage::Find;

    std::vector<Place> m_places;
};

TEST_F(FindingTransactions, EachIsFoundAsLongAsTheChainLeadsThere) {
    for (const Place& place : m_places) {
        const auto found = Find(place.number);
        ASSERT_TRUE(found);
        EXPECT_EQ(found->segments.front().sequence, place.segment.sequence);
        EXPECT_EQ(found->time, m_store.times[place.number]);
    }
    EXPECT_TRUE(Find(0)); // the beginning of the log
    EXPECT_FALSE(Find(m_store.Last() + 5));
    const ssize_t numSlots = m_store.Lss()->SpaceForTest().NumSlots();
    const LogPosition end = Log().Position();
    EXPECT_FALSE(FindBehindTransaction(Core(), numSlots, {end.slot, end.offset, 0}, 1)); // of no segment
    EXPECT_FALSE(FindBehindTransaction(Core(), numSlots, {end.slot, 8, end.sequence}, 1));
}

TEST_F(FindingTransactions, ASegmentThatDoesNotFitEndsTheChain) {
    const std::vector<std::function<void(SegmentHeader&)>> changes{
        [](SegmentHeader& header) { header.magic[0] = 'X'; },
        [](SegmentHeader& header) { header.clockAtOpening += 1 << 20; }, // later than the next one
        [](SegmentHeader& header) { header.clockAtOpening -= 8192; }};   // more than a segment earlier
    const ssize_t slot = m_places[2].segment.slot;
    const SegmentHeader right = Peek<SegmentHeader>(Core().m_segments->OffsetOf(slot));
    const SegmentHeader next = Peek<SegmentHeader>(Core().m_segments->OffsetOf(m_places[3].segment.slot));
    for (const auto& change : changes) {
        RewriteHeader(slot, change);
        EXPECT_FALSE(Find(m_places[1].number));
        EXPECT_TRUE(Find(m_places[4].number));
        Poke(Core().m_segments->OffsetOf(slot), right);
    }
    RewriteHeader(slot, [&](SegmentHeader& header) { header.clockAtOpening = next.clockAtOpening - 8; });
    EXPECT_FALSE(Find(m_places[1].number));
}

// The transaction behind the wanted one is the first that there is, and it is whole: nothing is missing.
TEST_F(FindingTransactions, TheNextOneIsEnoughIfItIsWhole) {
    const Place& first = m_places[2];
    RewriteHeader(m_places[1].segment.slot, [](SegmentHeader& header) { header.magic[0] = 'X'; });
    const auto found = Find(first.number - 1);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->segments.front().sequence, first.segment.sequence);
    EXPECT_EQ(found->offset, SEGMENT_HEADER_BYTES);
    EXPECT_EQ(found->time, 0u);

    const int64 commit = Find(first.segment, EPacketType::COMMIT);
    const FileBytes right = m_sys.Peek("d/store", commit, 64);
    for (const size_t byte : {size_t{8}, size_t{PACKET_HEADER_BYTES}, size_t{PACKET_HEADER_BYTES + 8}}) {
        Rewrite(commit, first.segment.sequence, [&](FileBytes& bytes) { ++bytes[byte]; });
        EXPECT_FALSE(Find(first.number - 1)) << "byte " << byte;
        m_sys.Poke("d/store", commit, right.data(), right.size());
    }
    Rewrite(commit, first.segment.sequence, [](FileBytes& bytes) { bytes[4] = 31; });
    EXPECT_FALSE(Find(first.number - 1));
    m_sys.Poke("d/store", commit, right.data(), right.size());
    Poke(commit + 20, static_cast<octet_t>(Peek<octet_t>(commit + 20) ^ 1)); // damaged
    EXPECT_FALSE(Find(first.number - 1));
}

TEST_F(FindingTransactions, WhatACrashHasCutOffIsNoPartOfTheNextTransaction) {
    const LogPosition before = PutOne();
    ILssTransaction* const txn = m_store.Lss()->OpenTransaction();
    const std::string bytes = Pattern(9000);
    txn->WriteSerialElement(m_store.Lss().NewSeid())->WriteStream(bytes.data(), std::ssize(bytes));
    m_store.Kill();
    m_store.Open();
    PutOne();
    RewriteHeader(before.slot, [](SegmentHeader& header) { header.magic[0] = 'X'; });
    const auto found = Find(m_store.Last() - 1);
    ASSERT_TRUE(found);
    EXPECT_GT(found->segments.front().sequence, before.sequence);
    EXPECT_LT(found->segments.front().sequence, Log().Position().sequence);
}

TEST_F(FindingTransactions, ACommitOfAnotherLengthHasNoTime) {
    const Place& last = m_places.back();
    const int64 commit = Find(last.segment, EPacketType::COMMIT);
    Rewrite(commit, last.segment.sequence, [](FileBytes& bytes) { bytes[4] = 31; });
    const auto found = Find(last.number);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->time, 0u);
}

// --- an open whose log does not have the last transaction any more: what it changed has been freed

class AttachingAnew : public testing::Test {
protected:
    // The last transaction leaves nothing live, and its segment is freed behind a recovery.
    void DeleteAllAndRecover(ConstStringZ deltas) {
        const Seid seid = m_store.Lss().Put("element");
        m_store.Lss().Delete(seid);
        m_last = m_store.Lss()->LastTransaction();
        m_store.Lss()->Flush();
        if (deltas) m_store.Archive();
        m_store.Kill();
        m_store.Open(deltas);
        if (deltas) m_store.Lss()->ArchiveForTest();
        m_store.Lss()->CheckpointForTest();
        m_store.Kill();
    }
    SimSys m_sys;
    ArchivedStore m_store{m_sys};
    uint64 m_last = 0;
};

TEST_F(AttachingAnew, BehindAGapTheTimeOfTheLastTransactionIsNotKnown) {
    m_store.Open(nullptr);
    DeleteAllAndRecover(nullptr);
    m_store.Open();
    EXPECT_EQ(m_store.Lss()->CoreForTest().m_archive.upTo, m_last);
    m_store.Lss().Put("more");
    m_store.Close();
    const DeltaFile delta(m_sys, std::string(DELTAS) + "/" + DeltaName(m_last + 1));
    EXPECT_EQ(delta.Header().previousTime, 0u);
}

TEST_F(AttachingAnew, WithTheDeltasElsewhereTheArchiveGoesOnWithoutAGap) {
    m_store.Open();
    DeleteAllAndRecover(DELTAS);
    for (const std::string& name : DeltaNames(m_sys))
        ASSERT_TRUE(RenameFile(m_sys, std::string(DELTAS) + "/" + name, "e/" + name, false));
    const TraceCatcher trace;
    m_store.Open();
    EXPECT_FALSE(trace.Has("begins anew"));
    m_store.Lss().Put("more");
    m_store.Close();
    EXPECT_THAT(DeltaNames(m_sys), testing::ElementsAre(DeltaName(m_last + 1)));
}

} // namespace
} // namespace quna

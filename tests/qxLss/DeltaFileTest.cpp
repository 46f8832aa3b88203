// Deltas with right checksums that no archive would have written, and the names of deltas.
#include "qxLss/src/DeltaFile.h"

#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/DeltaTransactions.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxLss/DeltaBuilder.h"
#include "tests/support/SimSys.h"

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quna {
namespace {

class Deltas : public testing::Test {
protected:
    void Put(const DeltaBuilder& delta) {
        const std::vector<octet_t> bytes = delta.Bytes();
        RemoveFile(m_sys, "d/delta");
        File file(m_sys);
        file.Open("d/delta", EFileAccess::CREATE);
        file.Write(0, bytes.data(), std::ssize(bytes));
    }
    // The numbers of its transactions.
    std::vector<uint64> Read(const DeltaBuilder& delta) {
        Put(delta);
        const DeltaFile file(m_sys, "d/delta");
        DeltaTransactions transactions(file);
        DeltaTransaction transaction;
        std::vector<uint64> numbers;
        while (transactions.Next(transaction)) numbers.push_back(transaction.number);
        return numbers;
    }
    void ExpectRefused(const DeltaBuilder& delta, const std::string& text) {
        try {
            Read(delta);
            ADD_FAILURE() << "read; expected: " << text;
        } catch (const CorruptLSSException& e) {
            EXPECT_THAT(e.GetMessage(), testing::AllOf(testing::HasSubstr(text), testing::HasSubstr("d/delta"),
                                                       testing::HasSubstr("offset"), testing::HasSubstr("found"),
                                                       testing::HasSubstr("expected")));
        }
    }
    static DeltaBuilder OneTransaction() {
        DeltaBuilder delta;
        delta.Element(1, "abc");
        delta.Commit(8);
        return delta;
    }

    SimSys m_sys;
};

TEST_F(Deltas, TheNameOfADeltaIsTwentyDigitsAndItsEnding) {
    EXPECT_EQ(TransactionOfDeltaName(DeltaName(17)), 17u);
    EXPECT_EQ(TransactionOfDeltaName(DeltaName(~uint64{0})), ~uint64{0});
    for (const char* name :
         {"", "17", "0000000000000000001", "0000000000000000001x.lssdelta", "0000000000000000001/.lssdelta",
          "00000000000000000017.lssdelt", "00000000000000000017.lssdelta.old", "99999999999999999999.lssdelta"})
        EXPECT_FALSE(TransactionOfDeltaName(name)) << name;
    EXPECT_TRUE(IsUnfinishedDeltaName(DeltaName(17) + ".part"));
    for (const std::string& name : {std::string(".part"), DeltaName(17), std::string("store.part"), std::string("x")})
        EXPECT_FALSE(IsUnfinishedDeltaName(name)) << name;
}

TEST_F(Deltas, TransactionsAreReadAcrossFramesAndSegments) {
    DeltaBuilder delta;
    delta.Element(1, "abc");
    delta.Commit(8);
    delta.Element(2, "x");
    delta.BeginFrame(3, delta.Pos(), 5); // goes on right behind the frame before
    delta.Element(3, "y");
    const LinkPayload link{9, 0};
    delta.Packet(EPacketType::LINK, 6, &link, sizeof link);
    delta.BeginFrame(9, SEGMENT_HEADER_BYTES, 6);
    delta.Packet(EPacketType::PAD, 0, "12345678", 8);
    delta.Packet(EPacketType::DROP, 3, "12345678", 8);
    delta.Commit(9);
    delta.Packet(EPacketType::RELOC, 1, "12345678", 8);
    delta.Element(4, "given up");
    delta.Packet(EPacketType::ABORT, 10);
    delta.Element(4, "z");
    delta.Commit(10);
    EXPECT_THAT(Read(delta), testing::ElementsAre(8, 9, 10));
}

// There a recovery has cut off the log.
TEST_F(Deltas, PacketsInFrontOfAFrameThatDoesNotFollowBelongToNoTransaction) {
    for (const auto& begin : std::vector<std::function<void(DeltaBuilder&)>>{
             [](DeltaBuilder& d) { d.BeginFrame(3, d.Pos() + 8, 5); },             // not where it ended
             [](DeltaBuilder& d) { d.BeginFrame(4, d.Pos(), 5); },                 // in another slot
             [](DeltaBuilder& d) { d.BeginFrame(4, SEGMENT_HEADER_BYTES, 6); }}) { // in a segment without a LINK to it
        DeltaBuilder delta;
        delta.Element(1, "lost");
        begin(delta);
        const CommitPayload nothing{0, 0, 0, 0, 80};
        delta.Commit(8, nothing);
        EXPECT_THAT(Read(delta), testing::ElementsAre(8));
    }
}

TEST_F(Deltas, HeadersThatContradictThemselvesAreRefused) {
    DeltaBuilder delta = OneTransaction();
    delta.header.version = 2;
    ExpectRefused(delta, "format version");
    delta.header.version = 0;
    ExpectRefused(delta, "the transaction before");
    delta = OneTransaction();
    delta.header.previousTransaction = 6;
    ExpectRefused(delta, "the transaction before");
}

TEST_F(Deltas, FramesThatDoNotFitTheirSegmentAreRefused) {
    DeltaBuilder delta = OneTransaction();
    delta.BeginFrame(3, 4090, 5);
    delta.frames.back().bytes.resize(8);
    ExpectRefused(delta, "a frame's end in its segment");
}

TEST_F(Deltas, FramesThatGoBackAreRefused) {
    DeltaBuilder delta = OneTransaction();
    delta.BeginFrame(4, SEGMENT_HEADER_BYTES, 4);
    ExpectRefused(delta, "a frame");
    delta = OneTransaction();
    delta.BeginFrame(3, delta.Pos() - 8, 5);
    ExpectRefused(delta, "a place behind the frame before");
}

TEST_F(Deltas, ClosingFramesThatContradictTheRestAreRefused) {
    DeltaBuilder delta = OneTransaction();
    delta.closing.numHighs = 1; // and none follows
    ExpectRefused(delta, "the closing frame's length");
    delta = OneTransaction();
    delta.closingBytes = 20;
    ExpectRefused(delta, "the closing frame's length");
    delta = OneTransaction();
    delta.closing.lastTransaction = 7;
    ExpectRefused(delta, "the last transaction");
    delta.closing.lastTransaction = 9;
    ExpectRefused(delta, "the last transaction");
    delta = OneTransaction();
    delta.closing.lastTime = 81;
    ExpectRefused(delta, "the last transaction");
    delta = OneTransaction();
    delta.behindClosing.resize(8);
    ExpectRefused(delta, "the end of the file");
}

TEST_F(Deltas, ADeltaWithoutAFrameLacksItsTransactions) {
    DeltaBuilder delta;
    delta.frames.clear();
    delta.closing.lastTransaction = 8;
    ExpectRefused(delta, "the last transaction");
}

TEST_F(Deltas, PacketsBehindTheLastCommitAreRefused) {
    DeltaBuilder delta = OneTransaction();
    delta.Element(2, "open");
    ExpectRefused(delta, "the end of the transactions");
}

TEST_F(Deltas, PacketsThatAreCutAreRefused) {
    DeltaBuilder delta = OneTransaction();
    delta.frames.back().bytes.resize(delta.frames.back().bytes.size() + 8); // less than a packet's header
    ExpectRefused(delta, "bytes that do not verify");
    delta = OneTransaction();
    delta.Element(2, std::string(100, 'x'));
    delta.frames.back().bytes.resize(delta.frames.back().bytes.size() - 8);
    ExpectRefused(delta, "bytes that do not verify");
}

TEST_F(Deltas, PacketsThatNoLogHasAreRefused) {
    for (const uint32 type : {0u, 8u, 9u, 10u, 13u, 14u, 15u}) {
        DeltaBuilder delta;
        delta.Packet(static_cast<EPacketType>(type), 1, "12345678", 8);
        delta.Commit(8);
        ExpectRefused(delta, "type " + std::to_string(type));
    }
    DeltaBuilder delta;
    delta.Element(1, "abc");
    delta.Packet(EPacketType::RELOC, 1, "12345678", 8);
    delta.Commit(8);
    ExpectRefused(delta, "RELOC");
}

TEST_F(Deltas, CommitsThatDoNotFitAreRefused) {
    DeltaBuilder delta;
    delta.Element(1, "abc");
    delta.Commit(9);
    ExpectRefused(delta, "the number of a transaction");
    const CommitPayload wrong{24, 2, 0, 0, 80};
    delta = DeltaBuilder();
    delta.Element(1, "abc");
    delta.Commit(8, wrong);
    ExpectRefused(delta, "1 packets of 24 bytes");
    delta = DeltaBuilder();
    delta.Element(1, "abc");
    delta.Commit(8, wrong, 24);
    ExpectRefused(delta, "the length of a COMMIT");
}

// A long element's parts come before its head, which lists them.
class LongDeltas : public Deltas {
protected:
    static constexpr ssize_t PART_BYTES = OverflowBytes(4096);

    Location Part(DeltaBuilder& delta, uint32 ordinal, ssize_t n = PART_BYTES) const {
        std::vector<octet_t> payload(sizeof(OverflowPrefix) + static_cast<size_t>(n));
        const OverflowPrefix prefix{ordinal, 0};
        std::memcpy(payload.data(), &prefix, sizeof prefix);
        return delta.Packet(EPacketType::LONG_PART, 1, payload.data(), std::ssize(payload));
    }
    // Cut to `n` bytes, if that is not -1.
    void Head(DeltaBuilder& delta, const LongPrefix& prefix, const std::vector<Location>& parts,
              const std::string& tail, ssize_t n = -1) const {
        std::vector<octet_t> payload(sizeof prefix + parts.size() * sizeof(Location) + tail.size());
        std::memcpy(payload.data(), &prefix, sizeof prefix);
        if (!parts.empty()) std::memcpy(payload.data() + sizeof prefix, parts.data(), parts.size() * sizeof(Location));
        std::memcpy(payload.data() + payload.size() - tail.size(), tail.data(), tail.size());
        if (n >= 0) payload.resize(static_cast<size_t>(n));
        delta.Packet(EPacketType::HEAD, 1, payload.data(), std::ssize(payload), PACKET_FLAG_LONG);
        delta.Commit(8);
    }
};

TEST_F(LongDeltas, ALongElementIsReadWithItsParts) {
    DeltaBuilder delta;
    const Location first = Part(delta, 0);
    const Location second = Part(delta, 1);
    Head(delta, {2 * PART_BYTES + 4, 2, 0}, {first, second}, "tail");
    EXPECT_THAT(Read(delta), testing::ElementsAre(8));
}

TEST_F(LongDeltas, HeadsThatContradictTheirPartsAreRefused) {
    const auto refused = [&](const LongPrefix& prefix, uint32 ordinal, bool lists, ssize_t n, const std::string& text) {
        DeltaBuilder delta;
        const Location part = Part(delta, ordinal);
        Head(delta, prefix, {lists ? part : part + 1}, "tail", n);
        ExpectRefused(delta, text);
    };
    const LongPrefix right{PART_BYTES + 4, 1, 0};
    refused(right, 0, true, 8, "the head of a long element");  // shorter than its prefix
    refused(right, 0, true, 20, "the head of a long element"); // than its list
    refused({4, 0, 0}, 0, true, -1, "the head of a long element");
    refused({PART_BYTES + 5, 1, 0}, 0, true, -1, "the head of a long element");
    refused(right, 0, false, -1, "a part of a long element"); // a part that is not there
    refused(right, 1, true, -1, "a part of a long element");  // another one
}

TEST_F(LongDeltas, APartOfAnotherLengthIsRefused) {
    DeltaBuilder delta;
    const Location part = Part(delta, 0, PART_BYTES - 8);
    Head(delta, {PART_BYTES + 4, 1, 0}, {part}, "tail");
    ExpectRefused(delta, "the length of a part");
}

TEST_F(Deltas, ANameThatIsTakenIsNotReplaced) {
    { File(m_sys).Open("d/delta", EFileAccess::CREATE); }
    DeltaWriter writer(m_sys, "d/delta", DeltaHeader{});
    EXPECT_THROW(writer.Finish(8, 80, 2, {}, false), FileException);
    EXPECT_FALSE(writer.HasName());
    DeltaWriter again(m_sys, "d/delta", DeltaHeader{});
    again.Finish(8, 80, 2, {}, true);
    EXPECT_TRUE(again.HasName());
}

} // namespace
} // namespace quna

#include "qxLss/src/SegmentWriter.h"

#include "tests/support/SimSys.h"

#include <string>

#include <gtest/gtest.h>

namespace quna {
namespace {

// A core whose store id is 10 11 .. 1f and whose slot 2 is an open user segment with sequence 7.
class SegmentWriterTest : public testing::Test {
protected:
    SegmentWriterTest() : m_core(m_sys) {
        m_core.m_file.Open("d/store", EFileAccess::CREATE);
        m_core.m_file.Allocate(0, 131072 + 4 * 4096);
        StoreId id;
        for (size_t i = 0; i < id.size(); ++i) id[i] = static_cast<octet_t>(16 + i);
        m_core.Attach(id, 4096);
        SutEntry entry{};
        entry.sequence = 7;
        entry.kind = static_cast<uint8>(ESegmentKind::USER);
        m_core.m_segments->SetEntry(2, entry);
        SegmentSlot& slot = (*m_core.m_segments)[2];
        slot.crcSeed = SegmentCrcSeed(id, 7);
        slot.base.store(m_core.m_map->At(m_core.m_segments->OffsetOf(2)));
        m_writer = std::make_unique<SegmentWriter>(m_core);
        m_writer->Begin(2, 4096 + 64, 6);
    }

    // The buffer's bytes from `from` to the position, in hexadecimal.
    std::string Hex(ssize_t from) {
        std::string text;
        for (ssize_t i = from; i < m_writer->Position(); ++i) {
            char digits[3];
            std::snprintf(digits, sizeof digits, "%02x", *m_writer->At(i));
            text += digits;
        }
        return text;
    }

    SimSys m_sys;
    StoreCore m_core;
    std::unique_ptr<SegmentWriter> m_writer;
};

TEST_F(SegmentWriterTest, ASegmentBeginsWithItsHeader) {
    EXPECT_EQ(Hex(0), "4c53535345474d31070000000000000010111213141516174010000000000000"
                      "401000000000000001000000000000000600000000000000020000007628c0fe");
}

TEST_F(SegmentWriterTest, PacketsHaveTheBytesOfTheFormat) {
    const Location head = m_writer->Append(EPacketType::HEAD, Seid(5, 1).value_, "hello", 5);
    EXPECT_EQ(Hex(64), "27fc54a005000001050000000100000068656c6c6f000000");
    EXPECT_EQ(head, MakeLocation(131072 + 2 * 4096 + 64, 24));
    m_writer->Append(EPacketType::REMOVE, Seid(5, 1).value_, nullptr, 0);
    EXPECT_EQ(Hex(88), "5513e3a2000000030500000001000000");
    const CommitPayload commit{40, 2, COMMIT_FLAG_FLUSH, 0x1000, 0x123456789abcdef};
    m_writer->Append(EPacketType::COMMIT, 3, &commit, sizeof commit);
    EXPECT_EQ(Hex(104),
              "a0d2b9dd200000040300000000000000280000000000000002000000010000000010000000000000efcdab8967452301");
    const LinkPayload link{9, 0};
    m_writer->Append(EPacketType::LINK, 8, &link, sizeof link);
    EXPECT_EQ(Hex(152), "a7b923c20800000608000000000000000900000000000000");
}

TEST_F(SegmentWriterTest, ALongHeadBearsItsFlagInThePacketAndInTheLocation) {
    m_writer->Append(EPacketType::PAD, 0, std::string(96, '\0').data(), 96); // to offset 176
    octet_t payload[32] = {};
    const LongPrefix prefix{960, 1, 0};
    const Location part = 0x1234;
    std::memcpy(payload, &prefix, sizeof prefix);
    std::memcpy(payload + 16, &part, sizeof part);
    std::memcpy(payload + 24, "tail....", 8);
    const Location l =
        m_writer->Append(EPacketType::HEAD, Seid(6, 1).value_, payload, sizeof payload, PACKET_FLAG_LONG);
    EXPECT_EQ(Hex(176),
              "33192ec3200000110600000001000000c003000000000000010000000000000034120000000000007461696c2e2e2e2e");
    EXPECT_TRUE(IsLong(l));
}

TEST_F(SegmentWriterTest, HandingOverWritesOnlyWhatIsNew) {
    m_writer->Append(EPacketType::HEAD, Seid(5, 1).value_, "hello", 5);
    m_writer->HandOver();
    m_writer->Append(EPacketType::HEAD, Seid(6, 1).value_, "world", 5);
    m_writer->HandOver();
    m_writer->HandOver();
    const std::vector<SimCall> record = m_sys.Record();
    std::vector<std::pair<int64, size_t>> writes;
    for (const SimCall& call : record) {
        if (call.kind == SimCall::EKind::WRITE) writes.emplace_back(call.offset, call.data.size());
    }
    const int64 start = 131072 + 2 * 4096;
    EXPECT_EQ(writes, (std::vector<std::pair<int64, size_t>>{{start, 88}, {start + 88, 24}}));
}

TEST(Location, PacksOffsetLengthAndTheLongFlag) {
    const Location l = MakeLocation((int64{1} << 43) - 8, 8388600, true);
    EXPECT_EQ(l, 0x1FFFFFFFFFFFFFFFu);
    EXPECT_EQ(LocationOffset(l), (int64{1} << 43) - 8);
    EXPECT_EQ(LocationBytes(l), 8388600);
    EXPECT_TRUE(IsLong(l));
    EXPECT_EQ(MakeLocation(8, 16), 0x20000000001u);
}

} // namespace
} // namespace quna

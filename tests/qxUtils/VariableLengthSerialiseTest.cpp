#include "qxUtils/VariableLengthSerialise.h"

#include "qxUtils/Exceptions.h"
#include "tests/qxUtils/ByteSink.h"
#include "tests/support/ExpectAssertion.h"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

namespace quna {
namespace {

Bytes Coded(uint32 x) {
    return Written([x](Archive& ar) { SerialiseVariableLengthUint32(ar, x); });
}

class BytesInput : public IInputStream {
public:
    explicit BytesInput(Bytes bytes) : m_bytes(std::move(bytes)) {}
    ssize_t ReadStream(void* buffer, ssize_t n) override {
        const ssize_t taken = std::min(n, static_cast<ssize_t>(m_bytes.size()) - m_pos);
        std::copy_n(m_bytes.data() + m_pos, taken, static_cast<octet_t*>(buffer)); // of an empty vector too
        m_pos += taken;
        return taken;
    }

private:
    Bytes m_bytes;
    ssize_t m_pos = 0;
};

TEST(VariableLength, TheLengthStandsInThePrefixBitsOfTheFirstByte) {
    EXPECT_EQ((Bytes{0x00}), Coded(0));
    EXPECT_EQ((Bytes{0x01}), Coded(1));
    EXPECT_EQ((Bytes{0x7f}), Coded(127));
    EXPECT_EQ((Bytes{0x80, 0x80}), Coded(128));
    EXPECT_EQ((Bytes{0x80, 0xff}), Coded(255));
    EXPECT_EQ((Bytes{0xbf, 0xff}), Coded((1u << 14) - 1));
    EXPECT_EQ((Bytes{0xc0, 0x40, 0x00}), Coded(1u << 14));
    EXPECT_EQ((Bytes{0xdf, 0xff, 0xff}), Coded((1u << 21) - 1));
    EXPECT_EQ((Bytes{0xe0, 0x20, 0x00, 0x00}), Coded(1u << 21));
    EXPECT_EQ((Bytes{0xef, 0xff, 0xff, 0xff}), Coded((1u << 28) - 1));
    EXPECT_EQ((Bytes{0xf0, 0x10, 0x00, 0x00, 0x00}), Coded(1u << 28));
    EXPECT_EQ((Bytes{0xf0, 0xff, 0xff, 0xff, 0xff}), Coded(0xffffffff));
}

TEST(VariableLength, EveryValueComesBackThroughEveryReader) {
    std::vector<uint32> values = {0, 1, 255, 0xffffffff};
    for (unsigned bit = 0; bit < 32; ++bit) {
        values.push_back(1u << bit);
        values.push_back((1u << bit) - 1);
        values.push_back((1u << bit) + 1);
    }
    std::mt19937 random(20260101);
    for (int i = 0; i < 20000; ++i) values.push_back(static_cast<uint32>(random()) >> (random() % 32));
    for (const uint32 x : values) {
        const Bytes bytes = Coded(x);
        ASSERT_LE(static_cast<ssize_t>(bytes.size()), MAX_VARIABLE_LENGTH_UINT_SIZE);
        ASSERT_LT(bytes[0], 0xf1) << x;
        const octet_t* end = bytes.data() + bytes.size();

        uint32 narrow = ~x;
        ASSERT_EQ(end, DeserialiseVariableLengthUint(bytes.data(), narrow));
        ASSERT_EQ(x, narrow);

        uint64 wide = ~uint64{0};
        ASSERT_EQ(end, DeserialiseVariableLengthUint(bytes.data(), wide));
        ASSERT_EQ(x, wide);

        bool escaped = true;
        uint32 withFlag = ~x;
        ASSERT_EQ(end, DeserialiseVariableLengthUint(bytes.data(), withFlag, escaped));
        ASSERT_EQ(x, withFlag);
        ASSERT_FALSE(escaped);

        BytesInput input(bytes);
        Archive ar(&input);
        ASSERT_EQ(x, DeserialiseVariableLengthUint32(ar));
    }
}

TEST(VariableLength, TheEscapeIsOneByteAndGives255WithTheFlagSet) {
    const Bytes bytes = {0xff, 0x33};
    uint32 x = 0;
    bool escaped = false;
    EXPECT_EQ(bytes.data() + 1, DeserialiseVariableLengthUint(bytes.data(), x, escaped));
    EXPECT_EQ(255u, x);
    EXPECT_TRUE(escaped);
}

TEST(VariableLength, AnOrdinary255LeavesTheFlagClear) {
    const Bytes bytes = Coded(255);
    uint32 x = 0;
    bool escaped = true;
    DeserialiseVariableLengthUint(bytes.data(), x, escaped);
    EXPECT_EQ(255u, x);
    EXPECT_FALSE(escaped);
}

TEST(VariableLength, BytesF1ToFfOpenNoValue) {
    for (unsigned first = 0xf1; first <= 0xff; ++first) {
        const Bytes bytes = {static_cast<octet_t>(first), 1, 2, 3, 4};
        uint32 narrow = 0;
        uint64 wide = 0;
        EXPECT_THROW(DeserialiseVariableLengthUint(bytes.data(), narrow), RecordException);
        EXPECT_THROW(DeserialiseVariableLengthUint(bytes.data(), wide), RecordException);
        BytesInput input(bytes);
        Archive ar(&input);
        EXPECT_THROW(DeserialiseVariableLengthUint32(ar), RecordException);
        bool escaped = false;
        if (first != 0xff) {
            EXPECT_THROW(DeserialiseVariableLengthUint(bytes.data(), narrow, escaped), RecordException);
        }
    }
}

TEST(VariableLength, AStreamThatEndsInsideAValueIsRefused) {
    for (const uint32 x : {128u, 1u << 14, 1u << 21, 1u << 28}) {
        Bytes bytes = Coded(x);
        bytes.pop_back();
        BytesInput input(bytes);
        Archive ar(&input);
        EXPECT_THROW(DeserialiseVariableLengthUint32(ar), RecordException);
    }
    BytesInput nothing({});
    Archive ar(&nothing);
    EXPECT_THROW(DeserialiseVariableLengthUint32(ar), RecordException);
}

TEST(VariableLength, ACountKeepsItsLow32Bits) {
    const auto count = [](ssize_t x) { return Written([x](Archive& ar) { Serialise_ssize_t(ar, x); }); };
    EXPECT_EQ((Bytes{0}), count(4294967296));
    EXPECT_EQ(Coded(5), count(4294967296 + 5));
    EXPECT_EQ(Coded(0xffffffff), count(-1));
    BytesInput input(count(-1));
    Archive ar(&input);
    EXPECT_EQ(4294967295, Deserialise_ssize_t(ar));
}

TEST(VariableLength, AValueFlushesRatherThanBeSplit) {
    ByteSink sink;
    Archive ar(&sink);
    for (int i = 0; i < 4093; ++i) ar << uint8{0};
    SerialiseVariableLengthUint32(ar, 1u << 21);
    EXPECT_EQ(std::vector<ssize_t>{4093}, sink.m_writes);
    EXPECT_EQ(4, ar.NumBufferedWrites());
}

} // namespace
} // namespace quna

#include "qxUtils/xostream.h"

#include "qxUtils/Guid.h"
#include "tests/qxUtils/ByteSink.h"

#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace quna {
namespace {

template <class T>
std::string Text(const T& x) {
    StringStream os;
    os << x;
    return os.c_str();
}

TEST(XOStream, PrintsNumbersInDecimal) {
    EXPECT_EQ("-128", Text(int8{-128}));
    EXPECT_EQ("255", Text(uint8{255}));
    EXPECT_EQ("-32768", Text(int16{-32768}));
    EXPECT_EQ("65535", Text(uint16{65535}));
    EXPECT_EQ("-2147483648", Text(std::numeric_limits<int32>::min()));
    EXPECT_EQ("4294967295", Text(std::numeric_limits<uint32>::max()));
    EXPECT_EQ("-9223372036854775808", Text(std::numeric_limits<int64>::min()));
    EXPECT_EQ("18446744073709551615", Text(std::numeric_limits<uint64>::max()));
    EXPECT_EQ("0", Text(0));
    EXPECT_EQ("1.5", Text(1.5));
    EXPECT_EQ("0.1", Text(0.1));
    EXPECT_EQ("true", Text(true));
    EXPECT_EQ("false", Text(false));
}

TEST(XOStream, PrintsTextAndCharacters) {
    StringStream os;
    os << "a" << 'b' << xstring("c") << std::string("d") << std::string_view("e");
    EXPECT_STREQ("abcde", os.c_str());
    EXPECT_EQ(5, os.size());
}

TEST(XOStream, WritesThroughToItsStream) {
    ByteSink sink;
    xostream os(&sink);
    os << "ab\n" << 5;
    os.flush();
    EXPECT_EQ(ToBytes("ab\n5"), sink.m_bytes);
    EXPECT_EQ(1, sink.m_numFlushes);
}

TEST(XOStream, IndentsEachLineThatHasText) {
    StringStream os;
    os << "a\n";
    {
        const Indenter indent(os, 4);
        os << "b\n\nc";
        {
            const Indenter deeper(os, DEFAULT_TRACE_INDENTATION);
            os << "\nd\n";
        }
        os << "e\n";
    }
    os << "f\n";
    EXPECT_STREQ("a\n    b\n\n    c\n      d\n    e\nf\n", os.c_str());
    EXPECT_EQ(0, os.GetIndentation());
    EXPECT_EQ(2, DEFAULT_TRACE_INDENTATION);
}

TEST(XOStream, HexIsOfFixedWidthMostSignificantFirstWithoutAPrefix) {
    EXPECT_EQ("00000001", Text(HexNumber<uint32>(1)));
    EXPECT_EQ("deadbeef", Text(HexNumber<uint32>(0xdeadbeef)));
    EXPECT_EQ("0a", Text(HexNumber<uint8>(10)));
    EXPECT_EQ("0000000000000000", Text(HexNumber<uint64>(0)));
    StringStream os;
    const uint16 x = 0xabc;
    WriteHex(os, &x, 2, true);
    EXPECT_STREQ("0ABC", os.c_str());
}

TEST(XOStream, AGuidIsFiveGroupsOfDigits) {
    Guid guid;
    guid.Data1 = 0x01020304;
    guid.Data2 = 0x0506;
    guid.Data3 = 0x0708;
    for (uint8 i = 0; i < 8; ++i) guid.Data4[i] = static_cast<uint8>(0xa0 + i);
    EXPECT_EQ("01020304-0506-0708-a0a1-a2a3a4a5a6a7", Text(guid));
    EXPECT_EQ("00000000-0000-0000-0000-000000000000", Text(Guid_NULL));
}

TEST(StringStream, GivesItsTextOrAppendsIt) {
    StringStream os(64);
    os << "new";
    xstring text("old");
    os.GetString(text, true);
    EXPECT_STREQ("oldnew", text.c_str());
    os.GetString(text);
    EXPECT_STREQ("new", text.c_str());
    EXPECT_STREQ("", StringStream().c_str());
}

} // namespace
} // namespace quna

#include "qxUtils/xstring.h"

#include <map>
#include <string>

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(XString, HoldsTextWithATerminatorBehindIt) {
    const xstring s("hello");
    EXPECT_EQ(5, s.size());
    EXPECT_STREQ("hello", s.c_str());
    EXPECT_EQ(0, s.data()[5]);
    EXPECT_EQ("hello", s.str());
    EXPECT_EQ("hello", s.view());
}

TEST(XString, AnEmptyStringHasAnEmptyText) {
    EXPECT_STREQ("", xstring().c_str());
    EXPECT_STREQ("", xstring("").c_str());
    EXPECT_STREQ("", xstring(nullptr).c_str());
    EXPECT_TRUE(xstring().empty());
}

TEST(XString, TheTerminatorFollowsEveryChange) {
    xstring s;
    std::string model;
    const auto check = [&] {
        ASSERT_EQ(model, s.str());
        ASSERT_EQ(0, s.c_str()[s.size()]);
    };
    for (int i = 0; i < 200; ++i) {
        s += 'a';
        model += 'a';
        check();
    }
    s += "tail";
    model += "tail";
    check();
    s += xstring("more");
    model += "more";
    check();
    s += s;
    model += model;
    check();
    s.resize(10);
    model.resize(10);
    check();
    s.pop_back();
    model.pop_back();
    check();
    s.erase(s.begin() + 2, s.begin() + 5);
    model.erase(2, 3);
    check();
    s.insert(s.begin() + 1, 'X');
    model.insert(1, 1, 'X');
    check();
    s.reserve(1000);
    check();
    xstring other("other");
    s.swap(other);
    EXPECT_STREQ("other", s.c_str());
    EXPECT_EQ(model, other.str());
    s.clear();
    EXPECT_STREQ("", s.c_str());
}

TEST(XString, MayHoldZerosInside) {
    const xstring s("a\0b", 3);
    EXPECT_EQ(3, s.size());
    EXPECT_NE(xstring("a"), s);
    EXPECT_EQ(xstring(std::string_view("a\0b", 3)), s);
}

TEST(XString, OrdersByBytesAsUnsignedThenByLength) {
    EXPECT_LT(xstring("a"), xstring("b"));
    EXPECT_LT(xstring("a"), xstring("aa"));
    EXPECT_LT(xstring(""), xstring("a"));
    EXPECT_LT(xstring("z"), xstring("\xe4"));
    EXPECT_LT(xstring("a\0", 2), xstring("a\0\0", 3));
    EXPECT_FALSE(xstring("a") < xstring("a"));
    EXPECT_GT(xstring("b"), xstring("a"));
    EXPECT_LE(xstring("a"), xstring("a"));
    EXPECT_GE(xstring("a"), xstring("a"));
}

TEST(XString, ComparesWithALiteral) {
    EXPECT_TRUE(xstring("abc") == "abc");
    EXPECT_TRUE(xstring("abc") != "abd");
    EXPECT_TRUE(xstring("abc") != "ab");
}

TEST(XString, CopiesAreIndependentAndMovesLeaveAnEmptyString) {
    xstring a("text");
    xstring b = a;
    b += "!";
    EXPECT_STREQ("text", a.c_str());
    xstring c = std::move(a);
    EXPECT_STREQ("text", c.c_str());
    EXPECT_STREQ("", a.c_str()); // NOLINT(bugprone-use-after-move): the state after a move is what is tested
    a = b;
    EXPECT_STREQ("text!", a.c_str());
    xstring& alias = a;
    a = alias;
    EXPECT_STREQ("text!", a.c_str());
}

TEST(XString, AddsNoFieldToItsBytes) {
    EXPECT_EQ(sizeof(VectorOfByte), sizeof(xstring));
    EXPECT_EQ(24u, sizeof(VectorOfByte));
}

} // namespace
} // namespace quna

#include "qxUtils/Assert.h"

#include "qxUtils/Exceptions.h"
#include "tests/support/ExpectAssertion.h"

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ConstStringZ SOURCE_PATH = "src/AssertTest";

TEST(Assert, ThrowsTheConditionsOwnTextWithPathAndLine) {
    const int m_count = 0;
    int line = 0;
    try {
        line = __LINE__ + 1;
        QX_ASSERT(m_count  >0);
        FAIL();
    } catch (const QunaAssertionError& e) {
        EXPECT_STREQ("m_count >0", e.GetText()); // runs of blanks become one
        EXPECT_STREQ("src/AssertTest", e.GetPath());
        EXPECT_EQ(line, e.GetLine());
        EXPECT_EQ("Assertion failed: m_count >0 (src/AssertTest:" + std::to_string(line) + ")", e.what());
    }
}

TEST(Assert, AConditionThatHoldsIsEvaluatedOnce) {
    int n = 0;
    QX_ASSERT(++n);
    EXPECT_EQ(1, n);
}

TEST(Assert, ACommaIsPartOfTheText) {
    const auto equal = [](int a, int b) { return a == b; };
    ExpectAssertion("equal(1,2)", "src/AssertTest", [&] { QX_ASSERT(equal(1,2)); });
}

TEST(Assert, AHeaderNamesItsPath) {
    const void* first_ = nullptr;
    ExpectAssertion("first_", "xdeque", [&] { QX_ASSERT_IN("xdeque", first_); });
}

TEST(Assert, ATextThatSourceCannotSpellIsGivenApart) {
    const void* p = &p;
    ExpectAssertion("p == __null", "src/AssertTest", [&] { QX_ASSERT_TEXT(p == nullptr, "p == __null"); });
}

TEST(Assert, AMacroNameKeepsItsSpelling) {
    ExpectAssertion("NULL", "src/AssertTest", [&] { QX_ASSERT(NULL); });
}

TEST(Assert, TheFunctionThrowsWhatItIsGiven) {
    ExpectAssertion("text", "src/Path", [] { ThrowQunaAssertionError("text", "src/Path", 7); });
}

} // namespace
} // namespace quna

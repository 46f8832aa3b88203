#include "qxUtils/Exceptions.h"

#include "tests/support/ExpectAssertion.h"

#include <string>

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(Exceptions, EachIsAStandardExceptionWithTheSameText) {
    const ExceptionBase e("what was attempted");
    EXPECT_STREQ("what was attempted", static_cast<const std::exception&>(e).what());
    EXPECT_EQ("what was attempted", TextOf(e));
    EXPECT_STREQ("what was attempted", e.GetMessage());
}

TEST(Exceptions, KeepTheirTextWhenTheSourceIsGone) {
    std::string message = "a message of some length, on the heap";
    const std::string expected = message;
    const ExceptionBase e(message.c_str());
    message.assign(message.size(), '#');
    EXPECT_EQ(expected, e.what());
    const ExceptionBase copy = e; // NOLINT(performance-unnecessary-copy-initialization): the copy is what is tested
    EXPECT_EQ(expected, copy.what());
}

TEST(Exceptions, AFileExceptionCarriesTheSystemsNumber) {
    EXPECT_EQ(28, FileException("full", 28).GetErrno());
    EXPECT_EQ(0, FileException("x").GetErrno());
    EXPECT_STREQ("full", FileException("full", 28).what());
}

TEST(Exceptions, AreCaughtAsTheirBases) {
    EXPECT_THROW(throw FileException("x"), ExceptionBase);
    EXPECT_THROW(throw RecordException("x"), IException);
    EXPECT_THROW(throw QunaAssertionError("t", "p", 1), ExceptionBase);
    EXPECT_THROW(throw QunaAssertionError("t", "p", 1), std::exception);
}

TEST(Exceptions, OneThatDoesNotComposeItsTextStillHasAWhat) {
    class Silent : public IException {
        void Write(xostream& os) const override { os << "text"; }
    };
    EXPECT_NE(nullptr, Silent().what());
    EXPECT_STRNE("", Silent().what());
}

} // namespace
} // namespace quna

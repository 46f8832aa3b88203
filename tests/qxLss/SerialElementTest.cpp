#include "qxLss/CorruptLSSException.h"
#include "tests/qxLss/TestLss.h"

#include <cerrno>
#include <thread>

#include <gtest/gtest.h>

namespace quna {
namespace {

std::string TextOf(IContiguousSerialElement& element) {
    const ReadOnlyBuffer b = element.GetBuffer();
    return std::string(reinterpret_cast<const char*>(b.buffer), static_cast<size_t>(b.size));
}

// Its segment is emptied, freed by a checkpoint and would be the first to be used again.
TEST(SerialElement, StaysAsItWasOpenedWhateverIsWrittenMeanwhile) {
    for (const ssize_t bytes : {100, 9000}) {
        SimSys sys;
        TestLss lss(sys);
        const Seid seid = lss.Put(Pattern(bytes));
        AutoCloser<IContiguousSerialElement> element(lss->OpenSerialElement(seid));
        for (int i = 0; i < 50; ++i) {
            lss.Put(seid, Pattern(bytes, static_cast<unsigned>(i + 2)));
            if (i % 5 == 0) lss->CheckpointForTest();
        }
        EXPECT_EQ(TextOf(*element), Pattern(bytes));
        EXPECT_EQ(element->GetBuffer().buffer, element->GetBuffer().buffer);
        element.Close();
        EXPECT_EQ(lss.Get(seid), Pattern(bytes, 51));
    }
}

TEST(SerialElement, MayBeClosedByAnotherThread) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.Put("x");
    IContiguousSerialElement* element = nullptr;
    std::thread([&] { element = lss->OpenSerialElement(seid); }).join();
    EXPECT_EQ(TextOf(*element), "x");
    std::thread([&] { element->Close(); }).join();
}

TEST(SerialElement, SeveralMayBeOpenAndEachShowsItsOwnBytes) {
    SimSys sys;
    TestLss lss(sys);
    const Seid a = lss.Put("a");
    const Seid b = lss.Put("b");
    for (int i = 0; i < 3; ++i) {
        AutoCloser<IContiguousSerialElement> first(lss->OpenSerialElement(a));
        AutoCloser<IContiguousSerialElement> second(lss->OpenSerialElement(b));
        first.Close();
        AutoCloser<IContiguousSerialElement> third(lss->OpenSerialElement(a));
        EXPECT_EQ(TextOf(*second), "b");
        EXPECT_EQ(TextOf(*third), "a");
    }
}

TEST(SerialElement, DamageIsFoundWhenItIsOpenedAndNamesTheOffset) {
    SimSys sys;
    Seid seid;
    Location l = 0;
    {
        TestLss lss(sys);
        seid = lss.Put("content");
        l = lss->IndexForTest().Get(seid);
        lss.Put("other");
        lss.Close();
    }
    FileBytes file = StoreFile(sys);
    file[static_cast<size_t>(LocationOffset(l)) + 18] ^= 1;
    SimSys after(ImageOf(file));
    TestLss lss(after);
    try {
        lss.Get(seid);
        ADD_FAILURE();
    } catch (const CorruptLSSException& e) {
        EXPECT_NE(std::string(e.what()).find("at offset " + std::to_string(LocationOffset(l))), std::string::npos);
    }
    EXPECT_EQ(lss.Get(Seid(seid.low_ + 1, 1)), "other");
}

TEST(SerialElement, AReadErrorIsAnExceptionAndNothingIsRemembered) {
    SimSys sys;
    Seid seid;
    {
        TestLss lss(sys);
        seid = lss.Put("content");
        lss.Close();
    }
    TestLss again(sys);
    sys.FailCall(ESimCall::LOAD, 1, EIO, false);
    EXPECT_THROW(again.Get(seid), FileException);
    EXPECT_EQ(again.Get(seid), "content");
}

} // namespace
} // namespace quna

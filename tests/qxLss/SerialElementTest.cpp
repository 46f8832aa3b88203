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

TEST(SerialElement, ALongOneThatIsLongerThanItsFileTakesNoMemory) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.Put(Pattern(230000));
    AutoCloser<IContiguousSerialElement> element(lss->OpenSerialElement(seid));
    const int64 size = sys.SizeOf("d/store");
    sys.PokeSize("d/store", 200000); // cut behind the store's back
    EXPECT_THROW(element->GetBuffer(), CorruptLSSException);
    sys.PokeSize("d/store", size);
}

TEST(SerialElement, DamageInAPartOfALongOneIsFoundWhenItsBytesAreAskedFor) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.Put(Pattern(9000));
    const Location head = lss->IndexForTest().Get(seid);
    const Location part = ReadPod<Location>(
        sys.Peek("d/store", LocationOffset(head) + PACKET_HEADER_BYTES + static_cast<int64>(sizeof(LongPrefix)),
                 sizeof(Location))
            .data());
    const octet_t flipped = static_cast<octet_t>(sys.Peek("d/store", LocationOffset(part) + 100, 1)[0] ^ 1);
    sys.Poke("d/store", LocationOffset(part) + 100, &flipped, 1);
    AutoCloser<IContiguousSerialElement> element(lss->OpenSerialElement(seid));
    EXPECT_THROW(element->GetBuffer(), CorruptLSSException);
}

// Ends after the memory that a thread keeps for its next element.
struct LastCloser {
    ~LastCloser() {
        if (m_element) m_element->Close();
    }
    IContiguousSerialElement* m_element = nullptr;
};
thread_local LastCloser t_lastCloser;

TEST(SerialElement, MayBeClosedWhileItsThreadEnds) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.Put("x");
    std::thread([&] {
        t_lastCloser.m_element = nullptr; // made first, ends last
        lss->OpenSerialElement(seid)->Close();
        t_lastCloser.m_element = lss->OpenSerialElement(seid);
    }).join();
    EXPECT_EQ(lss.Get(seid), "x");
}

} // namespace
} // namespace quna

#include "tests/qxLss/TestLss.h"
#include "tests/support/ExpectAssertion.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(ElementStream, AnElementWrittenInSeveralPiecesComesBackAsOneBuffer) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.NewSeid();
    const std::string content = Pattern(3 * 4096 + 77);
    AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
    AutoCloser<ICloseableOutputStream> os(txn->WriteSerialElement(seid));
    for (size_t at = 0; at < content.size(); at += 1000)
        os->WriteStream(content.data() + at, std::min<ssize_t>(1000, static_cast<ssize_t>(content.size() - at)));
    os->FlushStream();
    os.Close();
    txn.Close();
    EXPECT_EQ(lss.Get(seid), content);
}

// Around a quarter of a segment, where elements begin to be split, and around whole segments and parts.
TEST(ElementStream, EveryLengthComesBackAlsoAfterRecovery) {
    SimSys sys;
    std::map<uint64, std::string> expected;
    {
        TestLss lss(sys);
        for (const ssize_t around : {8, 952, 1024, 2048, 3904, 4096, 2 * 952, 3 * 952, 4 * 952, 16384}) {
            for (ssize_t n = around - 8; n <= around + 9; ++n) {
                const std::string content = Pattern(n, static_cast<unsigned>(n));
                expected[lss.Put(content).value_] = content;
            }
        }
        EXPECT_EQ(lss.All(), expected);
        lss->Validate();
    }
    TestLss lss(sys);
    EXPECT_EQ(lss.All(), expected);
    lss->Validate();
}

TEST(ElementStream, AnEmptyElementExists) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.Put("");
    EXPECT_EQ(lss.Get(seid), "");
    EXPECT_EQ(lss.Stats().numLiveHeadPackets, 1);
}

TEST(ElementStream, AtLeast64ReadableBytesFollowEveryElement) {
    SimSys sys;
    TestLss lss(sys);
    for (ssize_t n = 0; n < 9000; n += 37) {
        const Seid seid = lss.Put(Pattern(n));
        AutoCloser<IContiguousSerialElement> element(lss->OpenSerialElement(seid));
        const ReadOnlyBuffer b = element->GetBuffer();
        unsigned sum = 0;
        for (ssize_t i = 0; i < 64; ++i) sum += b.buffer[b.size + i];
        EXPECT_LT(sum, 64u * 256u);
    }
}

TEST(ElementStream, AStreamClosedWhileAnExceptionPassesKeepsTheOldContent) {
    SimSys sys;
    ElementMap expected;
    {
        TestLss lss(sys);
        const Seid kept = lss.Put("old");
        const Seid other = lss.NewSeid();
        for (const ssize_t half : {3, 9000}) {
            try {
                AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
                TestLss::Write(*txn.Get(), other, "whole");
                AutoCloser<ICloseableOutputStream> os(txn->WriteSerialElement(kept));
                const std::string content = Pattern(half);
                os->WriteStream(content.data(), half);
                throw std::runtime_error("Serialise has failed");
            } catch (const std::runtime_error&) {
            }
            EXPECT_EQ(lss.Get(kept), "old");
            EXPECT_EQ(lss.Get(other), "whole");
        }
        lss.Put(other, "next"); // the store goes on
        expected = lss.All();
        lss->Validate();
    }
    TestLss lss(sys);
    EXPECT_EQ(lss.All(), expected);
}

TEST(ElementStream, AnElementBeyondTheLimitIsRefusedAndHarmsNothingElse) {
    SimSys sys;
    sys.StopRecording();
    TestLss lss(sys);
    const Seid seid = lss.Put("old");
    const std::string piece = Pattern(4096);
    const ssize_t limit = MaxOverflowPackets(4096) * OverflowBytes(4096);
    try {
        AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
        AutoCloser<ICloseableOutputStream> os(txn->WriteSerialElement(seid));
        for (ssize_t n = 0; n <= limit; n += 4096) os->WriteStream(piece.data(), 4096);
        ADD_FAILURE() << "the element was accepted";
    } catch (const FileException&) {
    }
    EXPECT_EQ(lss.Get(seid), "old");
    lss.Put(seid, Pattern(limit - 8));
    EXPECT_EQ(lss.Get(seid), Pattern(limit - 8));
    lss->Validate();
}

} // namespace
} // namespace quna

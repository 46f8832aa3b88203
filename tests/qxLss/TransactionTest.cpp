#include "tests/qxLss/TestLss.h"
#include "tests/support/ExpectAssertion.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(Transaction, WhatItWritesIsSeenWhenItHasClosed) {
    SimSys sys;
    TestLss lss(sys);
    const Seid a = lss.NewSeid();
    const Seid b = lss.NewSeid();
    AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
    TestLss::Write(*txn.Get(), a, "one");
    TestLss::Write(*txn.Get(), b, "two");
    EXPECT_EQ(lss.Get(a), std::nullopt);
    txn.Close();
    EXPECT_EQ(lss.Get(a), "one");
    EXPECT_EQ(lss.Get(b), "two");
}

TEST(Transaction, AnIdentifierNeverWrittenHasNoElement) {
    SimSys sys;
    TestLss lss(sys);
    EXPECT_EQ(lss.Get(lss.NewSeid()), std::nullopt);
    EXPECT_EQ(lss.Get(Seid(77, 1)), std::nullopt);
    EXPECT_EQ(lss.Get(Seid(0, 9)), std::nullopt);
    EXPECT_EQ(lss.Get(Seid()), std::nullopt);
}

TEST(Transaction, ADeletedElementIsGoneWhenTheTransactionHasClosed) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.Put("x");
    AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
    EXPECT_TRUE(txn->DeleteSerialElement(seid));
    EXPECT_EQ(lss.Get(seid), "x");
    txn.Close();
    EXPECT_EQ(lss.Get(seid), std::nullopt);
}

TEST(Transaction, DeletingWhatDoesNotExistIsFalseAndHasNoOtherEffect) {
    SimSys sys;
    TestLss lss(sys);
    const Seid never = lss.NewSeid();
    const Seid gone = lss.Put("x");
    EXPECT_TRUE(lss.Delete(gone));
    const LssStats before = lss.Stats();
    EXPECT_FALSE(lss.Delete(gone));
    EXPECT_FALSE(lss.Delete(never));
    EXPECT_FALSE(lss.Delete(Seid(5, 9)));
    const LssStats after = lss.Stats();
    EXPECT_EQ(after.numTransactions, before.numTransactions);
    EXPECT_EQ(after.numObsoletePackets, before.numObsoletePackets);
}

TEST(Transaction, ItsOwnEarlierWritesAndDeletionsCount) {
    SimSys sys;
    TestLss lss(sys);
    const Seid old = lss.Put("old");
    const Seid fresh = lss.NewSeid();
    AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
    EXPECT_FALSE(txn->DeleteSerialElement(fresh));
    TestLss::Write(*txn.Get(), fresh, "1");
    EXPECT_TRUE(txn->DeleteSerialElement(fresh));
    EXPECT_FALSE(txn->DeleteSerialElement(fresh));
    EXPECT_TRUE(txn->DeleteSerialElement(old));
    EXPECT_FALSE(txn->DeleteSerialElement(old));
    TestLss::Write(*txn.Get(), old, "again");
    TestLss::Write(*txn.Get(), fresh, "2");
    TestLss::Write(*txn.Get(), fresh, "3");
    txn.Close();
    EXPECT_EQ(lss.Get(old), "again");
    EXPECT_EQ(lss.Get(fresh), "3");
    EXPECT_EQ(lss.Stats().numLiveHeadPackets, 2);
    lss->Validate();
}

TEST(Transaction, LongElementsReplacedTwiceInOneTransactionAreCountedOnce) {
    SimSys sys;
    {
        TestLss lss(sys);
        const Seid seid = lss.Put(Pattern(9000));
        AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
        TestLss::Write(*txn.Get(), seid, Pattern(8000, 2));
        TestLss::Write(*txn.Get(), seid, Pattern(7000, 3));
        txn.Close();
        lss->Validate();
        EXPECT_EQ(lss.Get(seid), Pattern(7000, 3));
    }
    TestLss lss(sys);
    lss->Validate();
    EXPECT_EQ(lss.All().begin()->second, Pattern(7000, 3));
}

TEST(Transaction, OneThatAskedToBeDroppedIsForgottenWhenAnExceptionPasses) {
    SimSys sys;
    Seid deleted, written, fresh, later;
    {
        TestLss lss(sys);
        deleted = lss.Put("d");
        written = lss.Put("w");
        fresh = lss.NewSeid();
        later = lss.NewSeid();
        const auto fail = [&](bool drop) {
            const AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
            if (drop) txn->RequestDropWhenUnwinding();
            EXPECT_TRUE(txn->DeleteSerialElement(deleted));
            TestLss::Write(*txn.Get(), written, std::string(100'000, 'x')); // long
            TestLss::Write(*txn.Get(), fresh, "f");
            throw std::runtime_error("half way");
        };
        const LssStats before = lss.Stats();
        EXPECT_THROW(fail(true), std::runtime_error);
        EXPECT_EQ(lss.Get(deleted), "d");
        EXPECT_EQ(lss.Get(written), "w");
        EXPECT_EQ(lss.Get(fresh), std::nullopt);
        EXPECT_EQ(lss.Stats().numLiveHeadPackets, before.numLiveHeadPackets);
        EXPECT_EQ(lss.Stats().numTransactions, before.numTransactions);
        lss.Put(later, "l", true);
        lss->Validate();
    }
    {
        TestLss lss(sys); // recovers
        EXPECT_EQ(lss.Get(deleted), "d");
        EXPECT_EQ(lss.Get(written), "w");
        EXPECT_EQ(lss.Get(fresh), std::nullopt);
        EXPECT_EQ(lss.Get(later), "l");
        EXPECT_THROW(
            {
                const AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
                EXPECT_TRUE(txn->DeleteSerialElement(deleted));
                throw std::runtime_error("without the request");
            },
            std::runtime_error);
        EXPECT_EQ(lss.Get(deleted), std::nullopt);
    }
}

TEST(Transaction, TheRequestToBeDroppedDoesNotHinderAnOrderlyClose) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.Put("x");
    AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
    txn->RequestDropWhenUnwinding();
    EXPECT_TRUE(txn->DeleteSerialElement(seid));
    txn.Close();
    EXPECT_EQ(lss.Get(seid), std::nullopt);
}

TEST(Transaction, OneWithoutChangesWritesNothingAndIsNotCounted) {
    SimSys sys;
    TestLss lss(sys);
    lss.Put("x");
    const int64 transactions = lss.Stats().numTransactions;
    const int64 writes = sys.NumCalls(ESimCall::WRITE);
    AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
    txn.Close();
    EXPECT_EQ(lss.Stats().numTransactions, transactions);
    EXPECT_EQ(sys.NumCalls(ESimCall::WRITE), writes);
}

TEST(Transaction, ASecondOneInTheSameThreadIsRefused) {
    SimSys sys;
    TestLss lss(sys);
    AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
    ExpectAssertion("!m_log.Turn().IsOwnedByThisThread()", "src/LssStore", [&] { lss->OpenTransaction(); });
    txn.Close();
}

TEST(Transaction, OnlyOneStreamIsOpenAtATime) {
    SimSys sys;
    TestLss lss(sys);
    AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
    AutoCloser<ICloseableOutputStream> os(txn->WriteSerialElement(lss.NewSeid()));
    ExpectAssertion("!m_stream.IsOpen()", [&] { txn->WriteSerialElement(Seid(0, 1)); });
    os.Close();
    txn.Close();
}

TEST(Transaction, AnIdentifierThatWasNeverAllocatedIsRefused) {
    SimSys sys;
    TestLss lss(sys);
    AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
    ExpectAssertion("seid", [&] { txn->WriteSerialElement(Seid()); });
    ExpectAssertion("m_allocator.IsAllocated(seid)", [&] { txn->WriteSerialElement(Seid(0, 2)); });
    ExpectAssertion("m_allocator.IsAllocated(seid)", [&] { txn->WriteSerialElement(Seid(0xFFFFFFFF, 1)); });
    txn.Close();
}

TEST(Transaction, AnElementMayBearAnIdentifierOfAnotherStoreInASpaceOfItsOwn) {
    for (const bool clean : {true, false}) {
        SimSys sys;
        Seid far;
        Seid near;
        {
            TestLss lss(sys);
            const SeidHigh foreign = lss->AllocateSeidHigh();
            far = lss.Put(Seid(3000000000, foreign), "far");
            near = lss.Put(Seid(7, foreign), "near", true);
            if (clean) lss.Close();
        }
        TestLss lss(sys);
        EXPECT_EQ(lss.Get(far), "far");
        EXPECT_EQ(lss.Get(near), "near");
        lss.Put(far, "again");
        EXPECT_EQ(lss.Get(far), "again");
        EXPECT_LT(far, lss->AllocateSeid(far.high_));
    }
}

TEST(Transaction, CloseAfterARequestedFlushSurvivesPowerLoss) {
    SimSys sys;
    ElementMap flushed;
    ssize_t recorded = 0;
    {
        TestLss lss(sys);
        lss.Put("a");
        lss.Put(lss.NewSeid(), "b", true);
        flushed = lss.All();
        lss.Put("c");
        recorded = sys.NumRecorded();
    }
    SimDisk disk;
    const std::vector<SimCall> record = sys.Record();
    for (ssize_t i = 0; i < recorded; ++i) disk.Apply(record[static_cast<size_t>(i)]);
    SimSys after(disk.Image({CrashVariant::EChoice::NONE, 0}));
    TestLss lss(after, SmallSegments(), OM_OPEN_EXISTING);
    EXPECT_EQ(lss.All(), flushed);
}

TEST(Transaction, DurableSectorsAreNotWrittenAgain) {
    SimSys sys;
    LssSettings settings = SmallSegments();
    settings.segmentSize = 65536;
    TestLss lss(sys, settings);
    lss.Put(lss.NewSeid(), "first", true);
    const ssize_t from = sys.NumRecorded();
    lss.Put(lss.NewSeid(), "second", true);
    for (const std::vector<SimCall> record = sys.Record(); const SimCall& call : record) {
        if (&call - record.data() >= from && call.kind == SimCall::EKind::WRITE) {
            EXPECT_EQ(call.offset % 4096, 0);
        }
    }
}

} // namespace
} // namespace quna

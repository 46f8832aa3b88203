#include "qxLss/src/LssStore.h"

#include "qxLss/CorruptLSSException.h"
#include "tests/qxLss/TestLss.h"
#include "tests/support/ExpectAssertion.h"

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(LssStore, RandomTransactionsAgreeWithAMapAlsoAfterReopening) {
    for (unsigned seed = 1; seed <= 6; ++seed) {
        SimSys sys;
        sys.StopRecording();
        TestRandom random(seed);
        ElementMap model;
        std::vector<Seid> seids;
        LssSettings settings = SmallSegments();
        settings.numSegmentsPerCheckPoint = 8;
        settings.enableFileBuffering = seed % 2 == 0;
        for (int life = 0; life < 6; ++life) {
            TestLss lss(sys, settings);
            ASSERT_EQ(lss.All(), model) << "seed " << seed << ", life " << life;
            for (unsigned t = random() % 40; t-- > 0;) {
                AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
                for (unsigned k = random() % 20; k-- > 0;) {
                    if (seids.empty() || random() % 3 == 0) {
                        seids.push_back(seids.empty() ? lss.NewSeid() : seids[random() % seids.size()]);
                        if (seids.size() > 1) {
                            ASSERT_TRUE(lss->AllocateAffiliateSeid(seids.back()));
                        }
                    }
                    const Seid seid = seids[random() % seids.size()];
                    if (random() % 4 == 0) {
                        ASSERT_EQ(txn->DeleteSerialElement(seid), model.erase(seid.value_) > 0);
                    } else {
                        const std::string content = Pattern(random() % (random() % 10 ? 200 : 15000), random());
                        TestLss::Write(*txn.Get(), seid, content);
                        model[seid.value_] = content;
                    }
                }
                txn.Close();
            }
            lss->Validate();
            ASSERT_EQ(lss.Stats().numLiveHeadPackets, static_cast<int>(model.size()));
            if (settings.enableFileBuffering) lss->Flush();
            if (random() % 2) lss.Close();
        }
    }
}

TEST(LssStore, AffiliatesOfLowZeroAreFoundInAStoreWithManyElements) {
    SimSys sys;
    sys.StopRecording();
    TestLss lss(sys);
    for (int i = 0; i < 3000; ++i) {
        Seid seid(0, 1);
        ASSERT_TRUE(lss->AllocateAffiliateSeid(seid));
        lss.Put(seid, "x");
        EXPECT_EQ(seid.high_, 1u);
    }
    EXPECT_EQ(lss.Stats().numLiveHeadPackets, 3000);
}

// --- durability

// What power loss leaves after the calls so far, with nothing that was not synced.
ElementMap AfterPowerLoss(const SimSys& sys, const LssSettings& settings) {
    SimDisk disk;
    for (const SimCall& call : sys.Record()) disk.Apply(call);
    SimSys after(disk.Image({CrashVariant::EChoice::NONE, 0}));
    TestLss lss(after, settings, OM_OPEN_EXISTING);
    return lss.All();
}

TEST(LssStore, FlushMakesEverythingClosedDurable) {
    for (const bool buffered : {false, true}) {
        SimSys sys;
        LssSettings settings = SmallSegments();
        settings.enableFileBuffering = buffered;
        TestLss lss(sys, settings);
        for (int i = 0; i < 10; ++i) lss.Put(Pattern(300));
        EXPECT_LT(AfterPowerLoss(sys, settings).size(), 10u);
        lss->Flush();
        EXPECT_EQ(AfterPowerLoss(sys, settings), lss.All());
        const int64 syncs = sys.NumCalls(ESimCall::SYNC);
        lss->Flush(); // nothing new
        EXPECT_EQ(sys.NumCalls(ESimCall::SYNC), syncs);
    }
}

TEST(LssStore, WithWriteThroughClosedIsDurable) {
    for (const bool byTime : {false, true}) {
        SimSys sys;
        LssSettings settings = SmallSegments();
        settings.enableWriteThrough = !byTime;
        settings.flushTimeMilliSec = byTime ? 0 : -1;
        TestLss lss(sys, settings);
        for (int i = 0; i < 3; ++i) {
            lss.Put(Pattern(300));
            EXPECT_EQ(AfterPowerLoss(sys, settings), lss.All());
        }
    }
}

TEST(LssStore, ABufferedTransactionIsNotWrittenBeforeItsTimeButRead) {
    SimSys sys;
    LssSettings settings = SmallSegments();
    settings.enableFileBuffering = true;
    settings.segmentSize = 65536;
    TestLss lss(sys, settings);
    lss.Put("first"); // makes the store count as created
    const int64 writes = sys.NumCalls(ESimCall::WRITE);
    const Seid seid = lss.Put("second");
    EXPECT_EQ(sys.NumCalls(ESimCall::WRITE), writes);
    EXPECT_EQ(lss.Get(seid), "second");
    lss->Flush();
    EXPECT_EQ(sys.NumCalls(ESimCall::WRITE), writes + 1);
    EXPECT_EQ(lss.Get(seid), "second");
}

TEST(LssStore, TheFlusherSyncsByTime) {
    SimSys sys;
    LssSettings settings = SmallSegments();
    settings.flushTimeMilliSec = 1;
    TestLss lss(sys, settings);
    lss.Put("x"); // the first one syncs by itself
    const int64 syncs = sys.NumCalls(ESimCall::SYNC);
    lss.Put("y");
    while (sys.NumCalls(ESimCall::SYNC) == syncs) std::this_thread::yield();
}

// --- failures

TEST(LssStore, AFullDiskIsMetByOpenTransactionAndTheStoreStaysUsable) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.Put("x");
    sys.FailCall(ESimCall::ALLOCATE, 1, ENOSPC, true);
    bool refused = false;
    for (int i = 0; i < 1000 && !refused; ++i) {
        try {
            AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
            TestLss::Write(*txn.Get(), seid, Pattern(1000, static_cast<unsigned>(i)));
            txn.Close();
        } catch (const FileException& e) {
            EXPECT_EQ(e.GetErrno(), ENOSPC);
            refused = true;
        }
    }
    EXPECT_TRUE(refused);
    const std::optional<std::string> content = lss.Get(seid);
    sys.Heal();
    lss->Validate();
    lss.Put(seid, "y");
    EXPECT_EQ(lss.Get(seid), "y");
    EXPECT_NE(content, "y");
}

TEST(LssStore, AFullDiskInsideATransactionUndoesItAndEndsWriting) {
    SimSys sys;
    ElementMap before;
    {
        TestLss lss(sys);
        const Seid seid = lss.Put("old");
        before = lss.All();
        AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
        sys.FailCall(ESimCall::ALLOCATE, 1, ENOSPC, true);
        EXPECT_THROW(TestLss::Write(*txn.Get(), seid, Pattern(200000)), FileException);
        EXPECT_THROW(txn.Close(), FileException);
        EXPECT_EQ(lss.All(), before);
        EXPECT_THROW(lss->OpenTransaction(), FileException);
        EXPECT_THROW(lss->AllocateSeid(1), FileException);
        EXPECT_THROW(lss->Flush(), FileException);
        const ssize_t recorded = sys.NumRecorded();
        lss.Close();
        EXPECT_EQ(sys.NumRecorded(), recorded);
    }
    sys.Heal();
    TestLss lss(sys);
    EXPECT_EQ(lss.All(), before);
    lss.Put("goes on");
    lss->Validate();
}

TEST(LssStore, AFailedSyncIsFinalAndNeverRepeated) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.Put("x");
    sys.FailCall(ESimCall::SYNC, 1, EIO, false);
    EXPECT_THROW(lss.Put(seid, "y", true), FileException);
    const int64 syncs = sys.NumCalls(ESimCall::SYNC);
    EXPECT_EQ(lss.Get(seid), "y"); // closed, as far as this process sees
    EXPECT_THROW(lss->Flush(), FileException);
    EXPECT_THROW(lss->OpenTransaction(), FileException);
    lss.Close();
    EXPECT_EQ(sys.NumCalls(ESimCall::SYNC), syncs);
}

// Every changing call fails in turn, once; what was closed before is there afterwards.
TEST(LssStore, WhicheverCallFailsNothingClosedIsLost) {
    for (const ESimCall kind : {ESimCall::WRITE, ESimCall::WRITE_DURABLE, ESimCall::SYNC, ESimCall::ALLOCATE}) {
        for (int64 n = 1; n < 400; ++n) {
            SimSys sys;
            std::vector<ElementMap> states(1);
            size_t acknowledged = 0;
            size_t durable = 0;
            bool failed = false;
            {
                TestLss lss(sys);
                for (int i = 0; i < 4; ++i) lss.NewSeid();
                lss.Put(Seid(0, 1), "first", true);
                states = {lss.All()};
                sys.FailCall(kind, n, EIO, false);
                TestRandom random(1);
                try {
                    for (int i = 0; i < 12; ++i) {
                        const Seid seid(random() % 4, 1);
                        const std::string content = Pattern(random() % 3000, random());
                        ElementMap next = states.back();
                        next[seid.value_] = content;
                        states.push_back(next);
                        lss.Put(seid, content, i % 4 == 0);
                        acknowledged = states.size() - 1;
                        if (i % 4 == 0) durable = acknowledged;
                        if (i == 7) lss->CheckpointForTest();
                    }
                } catch (const FileException&) {
                    failed = true;
                }
                if (!failed && sys.NumFailures() == 0) lss.Close();
            }
            const bool met = sys.NumFailures() > 0;
            sys.Heal();
            TestLss lss(sys);
            const ElementMap found = lss.All();
            bool allowed = false;
            // The system forgets what a failed sync was to write.
            for (size_t j = kind == ESimCall::SYNC ? durable : acknowledged; j < states.size(); ++j)
                allowed |= found == states[j];
            ASSERT_TRUE(allowed) << "call kind " << static_cast<int>(kind) << ", number " << n;
            lss->Validate();
            if (!met) break;
        }
    }
}

TEST(LssStore, ACloseThatFailsWhileAnExceptionPassesIsThrownByTheNextOpen) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.Put("x");
    try {
        AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
        TestLss::Write(*txn.Get(), seid, "y");
        sys.FailCall(ESimCall::WRITE, 1, EIO, true);
        throw std::runtime_error("passing");
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "passing");
    }
    EXPECT_EQ(lss.Get(seid), "x");
    EXPECT_THROW(lss->OpenTransaction(), FileException);
}

TEST(LssStore, InterruptedAndShortCallsChangeNothing) {
    const auto run = [](SimSys& sys) {
        TestLss lss(sys);
        for (int i = 0; i < 60; ++i) lss.Put(Pattern(i * 50));
        const ElementMap all = lss.All();
        lss.Close();
        return all;
    };
    SimSys calm;
    SimSys disturbed;
    disturbed.Disturb(3, 3);
    EXPECT_EQ(run(calm), run(disturbed));
    EXPECT_EQ(StoreFile(calm).size(), StoreFile(disturbed).size());
}

TEST(LssStore, AFailedWriteOfTheRingIsFinalAndAnUnknownHighIsNot) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.Put("x");
    EXPECT_TRUE(lss->IsAllocated(seid));
    EXPECT_FALSE(lss->IsAllocated(Seid(0, 77)));
    EXPECT_THROW(lss->AllocateSeid(77), QunaAssertionError);
    EXPECT_FALSE(lss->CoreForTest().HasFailed());
    sys.FailCall(ESimCall::WRITE_DURABLE, 1, EIO, false);
    EXPECT_THROW(lss->AllocateSeidHigh(), FileException);
    EXPECT_TRUE(lss->CoreForTest().HasFailed());
    EXPECT_THROW(lss->OpenTransaction(), FileException);
    lss->StopThreadsForTest();
    EXPECT_EQ(lss->BackgroundForTest(), -1); // nothing more
}

TEST(LssStore, AFailureInsideATransactionIsToldByEveryFurtherCall) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.Put("x");
    ILssTransaction* const txn = lss->OpenTransaction();
    const std::string bytes = Pattern(20000);
    ICloseableOutputStream* const os = txn->WriteSerialElement(seid);
    sys.FailCall(ESimCall::WRITE, 1, EIO, true);
    EXPECT_THROW(os->WriteStream(bytes.data(), std::ssize(bytes)), FileException);
    EXPECT_THROW(os->WriteStream(bytes.data(), std::ssize(bytes)), FileException);
    EXPECT_THROW(os->Close(), FileException);
    EXPECT_THROW(txn->DeleteSerialElement(seid), FileException);
    EXPECT_THROW(txn->WriteSerialElement(seid), FileException);
    EXPECT_THROW(txn->Close(), FileException);
    EXPECT_EQ(lss.Get(seid), "x");
}

// More highs than the ring keeps between two checkpoints.
TEST(LssStore, HorizonsOfManyHighsAreRaisedWithCheckpointsBetween) {
    SimSys sys;
    sys.StopRecording();
    TestLss lss(sys);
    lss.Put("x");
    lss->StopThreadsForTest();
    const int before = lss.Stats().numCheckPoints;
    std::vector<AllocHorizon> horizons;
    for (uint32 high = 1; high <= 9 * AllocRingBlock::MAX_ENTRIES; ++high) horizons.push_back({high, 4096});
    horizons.push_back({1 << 20, 4096}); // never given
    lss->RaiseHorizons(horizons, 9 * AllocRingBlock::MAX_ENTRIES + 1);
    EXPECT_GT(lss.Stats().numCheckPoints, before);
    EXPECT_GE(lss->AllocateSeid(5).low_, 4096u);
    EXPECT_TRUE(lss->IsAllocated(Seid(4095, 9)));
    // The tables of so many highs take so many segments that more stay free than otherwise, also at rest.
    std::vector<Seid> seids;
    for (int i = 0; i < 400; ++i) seids.push_back(lss.Put(lss->AllocateSeid(5), Pattern(3000)));
    for (const Seid seid : seids) lss.Delete(seid);
    for (int i = 0; i < 4; ++i) lss->CheckpointForTest();
    for (int i = 0; i < 6; ++i) lss->BackgroundForTest();
    lss->Validate();
}

TEST(LssStore, AnEndThatCantBeCutOffIsLeft) {
    SimSys sys;
    sys.StopRecording();
    TestLss lss(sys);
    lss->StopThreadsForTest();
    std::vector<Seid> seids;
    for (int i = 0; i < 120; ++i) seids.push_back(lss.Put(Pattern(3000)));
    for (const Seid seid : seids) lss.Delete(seid);
    lss->CheckpointForTest();
    sys.FailCall(ESimCall::TRUNCATE, 1, EIO, true);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(lss->BackgroundForTest(), -1);
    EXPECT_EQ(sys.NumFailures(), 1); // not tried again
    lss.Put("goes on");
}

TEST(LssStore, HolesAreTriedOnceOnADiskThatHasNone) {
    SimSys sys;
    sys.StopRecording();
    TestLss lss(sys);
    lss->StopThreadsForTest();
    std::vector<Seid> seids;
    for (int i = 0; i < 200; ++i) seids.push_back(lss.Put(Pattern(3000)));
    const Seid last = lss.Put(Pattern(3000));
    for (const Seid seid : seids) lss.Delete(seid);
    lss->CheckpointForTest();
    sys.FailCall(ESimCall::PUNCH, 1, EOPNOTSUPP, true);
    for (int i = 0; i < 6; ++i) lss->BackgroundForTest();
    EXPECT_EQ(sys.NumCalls(ESimCall::PUNCH), 1);
    EXPECT_TRUE(lss.Get(last));
    lss->Validate();
}

TEST(LssStore, CountersThatDoNotAgreeWithTheIndexAreFound) {
    SimSys sys;
    TestLss lss(sys);
    lss->StopThreadsForTest();
    lss.Put(Pattern(10000));
    lss->CheckpointForTest();
    StoreCounters& c = lss->CoreForTest().m_counters;
    for (std::atomic<int64>* counter : {&c.liveHead, &c.liveOverflow, &c.liveIndex, &c.liveBytes}) {
        lss->Validate();
        ++*counter;
        EXPECT_THROW(lss->Validate(), CorruptLSSException);
        --*counter;
    }
    const Location l = lss->IndexForTest().Get(Seid(0, 1));
    SegmentSlot& slot = (*lss->CoreForTest().m_segments)[lss->CoreForTest().m_segments->SlotOf(l)];
    ++slot.livePackets;
    EXPECT_THROW(lss->Validate(), CorruptLSSException);
    --slot.livePackets;
    slot.liveBytes += 8;
    EXPECT_THROW(lss->Validate(), CorruptLSSException);
    slot.liveBytes -= 8;
    lss->Validate();
}

TEST(LssStore, AFlushThatFailsWhileAnExceptionPassesEndsWriting) {
    SimSys sys;
    TestLss lss(sys);
    const Seid seid = lss.Put("x");
    try {
        AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
        txn->RequestFlushToDisk();
        TestLss::Write(*txn.Get(), seid, "y");
        sys.FailCall(ESimCall::SYNC, 1, EIO, false);
        throw std::runtime_error("passing");
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "passing");
    }
    EXPECT_THROW(lss->OpenTransaction(), FileException);
}

// Every commit ends eight bytes before a block of the disk: too few for a packet that fills it.
TEST(LssStore, ACommitJustBeforeTheEndOfABlockIsDurableToo) {
    SimSys sys;
    LssSettings settings = SmallSegments();
    settings.segmentSize = 65536;
    std::vector<Seid> seids;
    {
        TestLss lss(sys, settings);
        for (int i = 0; i < 40; ++i) seids.push_back(lss.Put(Pattern(4024), true));
    }
    TestLss lss(sys, settings);
    for (const Seid seid : seids) EXPECT_EQ(lss.Get(seid), Pattern(4024));
}

TEST(LssStore, AForkedChildIsRefusedEveryCall) {
    SimSys sys;
    bool createdNew = false;
    ILogStructuredStore* const lss =
        OpenLssForTest(sys, "d/store", nullptr, createdNew, OM_CREATE_NEW, SmallSegments(), EBackground::NONE);
    const auto refused = [&] {
        int n = 0;
        LssStats stats{};
        for (const std::function<void()>& call : std::vector<std::function<void()>>{
                 [&] { lss->OpenTransaction(); }, [&] { lss->GetStats(stats); },
                 [&] { lss->OpenSerialElement(ROOT_SEID); }, [&] { lss->AllocateSeidHigh(); }, [&] { lss->Close(); }}) {
            try {
                call();
            } catch (const FileException&) {
                ++n;
            }
        }
        std::exit(n == 5 ? 0 : 1);
    };
    EXPECT_EXIT(refused(), testing::ExitedWithCode(0), "");
    lss->Close();
}

// A reader may still be looking at what stood there.
TEST(LssStore, AFreeSlotThatIsPinnedStaysAtTheEndOfTheFile) {
    SimSys sys;
    TestLss lss(sys);
    lss.Put("x");
    lss->StopThreadsForTest();
    SpaceManager& space = lss->SpaceForTest();
    const ssize_t numSlots = space.NumSlots();
    SegmentSlot& last = (*lss->CoreForTest().m_segments)[numSlots - 1];
    ASSERT_EQ(last.sequence, 0u);
    ++last.pins;
    space.TrimEnd(1);
    EXPECT_EQ(space.NumSlots(), numSlots);
    --last.pins;
    space.TrimEnd(1);
    EXPECT_LT(space.NumSlots(), numSlots);
    lss.Put("y");
}

} // namespace
} // namespace quna

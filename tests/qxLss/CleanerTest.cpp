#include "qxLss/src/Cleaner.h"

#include "qxLss/CorruptLSSException.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxLss/TestLss.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr int64 SEGMENT = 4096;

LssSettings WithCleaner(double percent = 85) {
    LssSettings settings = SmallSegments();
    settings.cleanerUtilisationPercent = percent;
    return settings;
}

// A store whose background work is done when the test says so.
class CleanerTest : public testing::Test {
protected:
    explicit CleanerTest(LssSettings settings = WithCleaner()) : m_settings(settings) { Open(); }

    void Open() {
        m_lss = std::make_unique<TestLss>(m_sys, m_settings);
        (*m_lss)->StopThreadsForTest();
    }
    TestLss& Lss() { return *m_lss; }
    LssStore& Store() { return **m_lss; }

    // `n` elements of about `bytes`, in transactions of ten.
    void Fill(int n, ssize_t bytes) {
        while (n > 0) {
            AutoCloser<ILssTransaction> txn(Store().OpenTransaction());
            for (int i = 0; i < 10 && n > 0; ++i, --n) {
                m_seids.push_back(Lss().NewSeid());
                Write(*txn.Get(), m_seids.back(), bytes);
            }
            txn.Close();
        }
    }
    void Write(ILssTransaction& txn, Seid seid, ssize_t bytes) {
        const std::string content = Pattern(bytes + static_cast<ssize_t>(m_random() % 32), m_random());
        TestLss::Write(txn, seid, content);
        m_model[seid.value_] = content;
    }
    void Overwrite(Seid seid, ssize_t bytes) {
        AutoCloser<ILssTransaction> txn(Store().OpenTransaction());
        Write(*txn.Get(), seid, bytes);
        txn.Close();
    }
    void Delete(Seid seid) {
        Lss().Delete(seid);
        m_model.erase(seid.value_);
    }
    // The last `n` elements stay.
    void DeleteAllBut(size_t n) {
        for (size_t i = 0; i + n < m_seids.size(); ++i) Delete(m_seids[i]);
    }
    Seid SomeSeid() { return m_seids[m_random() % m_seids.size()]; }

    void ExpectModel() {
        EXPECT_EQ(Lss().All(), m_model);
        Store().Validate();
    }
    ssize_t UsedSegments() { return Store().SpaceForTest().NumSlots() - Store().SpaceForTest().NumFree(); }
    ssize_t SlotOf(Seid seid) { return Store().CoreForTest().m_segments->SlotOf(Store().IndexForTest().Get(seid)); }

    const LssSettings m_settings;
    SimSys m_sys;
    std::unique_ptr<TestLss> m_lss;
    TestRandom m_random{7};
    std::vector<Seid> m_seids;
    ElementMap m_model;
};

TEST_F(CleanerTest, MovesWhatIsLiveAndFreesTheSegments) {
    Fill(100, 200);
    for (int i = 0; i < 100; i += 2) Overwrite(m_seids[static_cast<size_t>(i)], 200);
    Store().CheckpointForTest();
    const ssize_t before = UsedSegments();
    const LssStats stats = Lss().Stats();
    EXPECT_GT(Store().CleanForTest(5), 2);
    EXPECT_LT(UsedSegments(), before);
    EXPECT_EQ(Lss().Stats().numLiveHeadPackets, 100);
    EXPECT_EQ(Lss().Stats().utilisation, stats.utilisation);
    EXPECT_LT(Lss().Stats().numObsoletePackets, stats.numObsoletePackets);
    ExpectModel();
    m_lss->Abandon(); // killed: the moves are in the log
    Open();
    ExpectModel();
    m_lss->Close();
    Open();
    ExpectModel();
}

TEST_F(CleanerTest, LongElementsMoveWithTheirPartsAndWithoutTheirHead) {
    for (int i = 0; i < 6; ++i) {
        m_seids.push_back(Lss().NewSeid());
        Overwrite(m_seids.back(), 3 * SEGMENT + 500 * i);
    }
    Store().CheckpointForTest();
    const LssStats stats = Lss().Stats();
    for (int i = 0; i < 12; ++i) {
        Store().CleanForTest(1 + i % 3); // some victims hold a head, others only parts
        ExpectModel();
        Store().CheckpointForTest();
    }
    EXPECT_EQ(Lss().Stats().numLiveOverflowPackets, stats.numLiveOverflowPackets);
    m_lss->Abandon();
    Open();
    ExpectModel();
}

TEST_F(CleanerTest, AnElementOfManyMorePartsThanARelocHasRoomForMovesInSeveralBatches) {
    m_seids.push_back(Lss().NewSeid());
    Overwrite(m_seids.back(), 50 * SEGMENT);
    Fill(20, 100);
    Store().CheckpointForTest();
    EXPECT_GT(Store().CleanForTest(1000), 20);
    ExpectModel();
    m_lss->Abandon();
    Open();
    ExpectModel();
}

TEST_F(CleanerTest, WhatWasWrittenBehindTheCheckpointIsNoVictim) {
    Fill(100, 200);
    EXPECT_EQ(Store().CleanForTest(10), 0);
    Store().CheckpointForTest();
    EXPECT_GT(Store().CleanForTest(10), 0);
}

TEST_F(CleanerTest, SegmentsThatHeldOnlyDeadPacketsAreFreedWithoutBeingRead) {
    Fill(60, 200);
    Store().CheckpointForTest();
    for (const Seid seid : m_seids) Lss().Delete(seid);
    m_model.clear();
    const int64 loads = m_sys.NumCalls(ESimCall::LOAD);
    EXPECT_GT(Store().CleanForTest(4), 2);
    EXPECT_EQ(m_sys.NumCalls(ESimCall::LOAD), loads);
    ExpectModel();
}

TEST_F(CleanerTest, AReaderKeepsWhatItHasOpen) {
    Fill(100, 200);
    Store().CheckpointForTest();
    std::vector<std::pair<IContiguousSerialElement*, std::string>> open;
    for (int i = 0; i < 100; i += 5) {
        const Seid seid = m_seids[static_cast<size_t>(i)];
        open.emplace_back(Store().OpenSerialElement(seid), m_model[seid.value_]);
    }
    for (int round = 0; round < 20; ++round) {
        Store().CleanForTest(6);
        Store().ShrinkForTest();
        for (int i = 0; i < 20; ++i) Overwrite(SomeSeid(), 200);
        Store().CheckpointForTest();
    }
    for (const auto& [element, content] : open) {
        const ReadOnlyBuffer b = element->GetBuffer();
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(b.buffer), static_cast<size_t>(b.size)), content);
        element->Close();
    }
    ExpectModel();
}

TEST_F(CleanerTest, ATransactionBetweenCopyAndPublicationWins) {
    Fill(100, 200);
    Store().CheckpointForTest();
    int steps = 0;
    Store().SetStepHookForTest([&] {
        if (++steps > 60) return;
        Overwrite(SomeSeid(), 200);
        if (steps % 5 == 0) {
            const Seid seid = SomeSeid();
            Lss().Delete(seid);
            m_model.erase(seid.value_);
        }
    });
    EXPECT_GT(Store().CleanForTest(8), 0);
    Store().SetStepHookForTest(nullptr);
    EXPECT_GT(steps, 8);
    ExpectModel();
    m_lss->Abandon();
    Open();
    ExpectModel();
}

TEST_F(CleanerTest, ADamagedPacketStaysWhereItIsWithItsSegment) {
    Fill(100, 200);
    Store().CheckpointForTest();
    const Seid damaged = m_seids[3];
    const ssize_t slot = SlotOf(damaged);
    const int fd = m_sys.Open("d/store", O_RDWR, 0);
    const octet_t wrong = 0xA5;
    m_sys.Write(fd, &wrong, 1, LocationOffset(Store().IndexForTest().Get(damaged)) + 50);
    m_sys.Close(fd);
    for (int i = 0; i < 5; ++i) {
        Store().CleanForTest(8);
        Store().CheckpointForTest();
    }
    EXPECT_EQ(SlotOf(damaged), slot);
    EXPECT_THROW(Lss().Get(damaged), std::exception);
    for (const Seid seid : m_seids) {
        if (seid.value_ == damaged.value_) continue;
        EXPECT_EQ(Lss().Get(seid), m_model[seid.value_]);
    }
    Lss().Put("the store goes on");
}

TEST_F(CleanerTest, TheFileStaysInProportionHoweverLongItIsOverwritten) {
    Fill(400, 200);
    int64 largest = 0;
    for (int i = 0; i < 8000; ++i) {
        Overwrite(SomeSeid(), 200);
        if (i % 20 == 0) {
            Store().BackgroundForTest();
            largest = std::max(largest, Lss().Stats().fileSize);
        }
    }
    // Beside the elements' segments: 4 of dead ones, the index's, free ones for the next transaction and for the cleaner,
    // growth in steps of 8, and the window that may not be cleaned.
    const int64 live = Lss().Stats().utilisation;
    EXPECT_LT(largest, 131072 + live * 100 / 85 + 100 * SEGMENT);
    ExpectModel();
    Store().BackgroundForTest();
    Store().BackgroundForTest(); // nothing was written since: at rest
    EXPECT_LT(Lss().Stats().fileSize, 131072 + live * 100 / 85 + 60 * SEGMENT);
    m_lss->Close();
    Open();
    ExpectModel();
    EXPECT_LT(Lss().Stats().fileSize, 131072 + live * 100 / 85 + 60 * SEGMENT);
}

TEST_F(CleanerTest, ComesToRestWithElementsOfAFifthOfASegment) {
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 40; ++i) {
            if (round == 0) m_seids.push_back(Lss().NewSeid());
            Overwrite(m_seids[static_cast<size_t>(i)], SEGMENT / 5);
        }
        Store().BackgroundForTest();
    }
    const int64 writes = m_sys.NumCalls(ESimCall::WRITE);
    Store().BackgroundForTest();
    Store().BackgroundForTest();
    EXPECT_EQ(m_sys.NumCalls(ESimCall::WRITE), writes);
    m_lss->Close();
    Open();
    Store().BackgroundForTest(); // what is known of segments after an open is an estimate
    ExpectModel();
    const int64 after = m_sys.NumCalls(ESimCall::WRITE);
    Store().BackgroundForTest();
    EXPECT_EQ(m_sys.NumCalls(ESimCall::WRITE), after);
}

TEST_F(CleanerTest, AFullDiskIsCleanedFromTheReserve) {
    Fill(200, 200);
    for (int i = 0; i < 600; ++i) Overwrite(SomeSeid(), 200); // what the disk is full of is mostly dead
    m_sys.FailCall(ESimCall::ALLOCATE, 1, ENOSPC, true);
    int refused = 0;
    for (int i = 0; i < 3000; ++i) {
        try {
            Overwrite(SomeSeid(), 200);
        } catch (const FileException& e) {
            EXPECT_EQ(e.GetErrno(), ENOSPC);
            ++refused;
            Store().BackgroundForTest();
        }
    }
    EXPECT_LT(refused, 600); // the cleaner makes room each time; without it all but the first were refused
    ExpectModel();
    m_sys.Heal();
    m_lss->Close();
    Open();
    ExpectModel();
}

// Another process may have taken the blocks before the next transaction asks for them.
TEST_F(CleanerTest, AStoreWhoseThreadIsWokenAgainAndAgainIsNotAtRest) {
    Fill(2000, 200);
    for (size_t i = 50; i < m_seids.size(); ++i) {
        Lss().Delete(m_seids[i]);
        m_model.erase(m_seids[i].value_);
    }
    Store().CheckpointForTest();
    for (int i = 0; i < 300; ++i) Store().BackgroundForTest(true); // what is too much also at work goes
    const SpaceManager& space = Store().SpaceForTest();
    const ssize_t numSlots = space.NumSlots();
    const int64 punched = m_sys.NumCalls(ESimCall::PUNCH);
    for (int i = 0; i < 300; ++i) Store().BackgroundForTest(true);
    EXPECT_EQ(space.NumSlots(), numSlots);
    EXPECT_EQ(m_sys.NumCalls(ESimCall::PUNCH), punched);
    EXPECT_GT(space.NumFree(), space.Comfort() + 20);
    for (int i = 0; i < 300; ++i) Store().BackgroundForTest();
    EXPECT_LT(space.NumSlots(), numSlots);
    ExpectModel();
}

TEST_F(CleanerTest, AtRestWhatATransactionNeedsStaysReadyAlsoOnAFullDisk) {
    Fill(2000, 200);
    for (size_t i = 50; i < m_seids.size(); ++i) {
        Lss().Delete(m_seids[i]);
        m_model.erase(m_seids[i].value_);
    }
    Store().CheckpointForTest();
    m_sys.FailCall(ESimCall::ALLOCATE, 1, ENOSPC, true);
    for (int i = 0; i < 1000 && Store().BackgroundForTest() >= 0; ++i) {
    }
    EXPECT_LE(Store().SpaceForTest().NumFree(), Store().SpaceForTest().Comfort());
    for (int i = 0; i < 3; ++i) Overwrite(m_seids[0], 200);
    ExpectModel();
}

TEST_F(CleanerTest, MostOfTheFileIsGivenBackWhenMostOfTheStoreIsDeleted) {
    Fill(2000, 200);
    const int64 before = Lss().Stats().fileSize;
    for (size_t i = 0; i < m_seids.size(); ++i) {
        if (i % 20 == 0) continue;
        Lss().Delete(m_seids[i]);
        m_model.erase(m_seids[i].value_);
    }
    for (int i = 0; i < 4; ++i) Store().BackgroundForTest();
    for (int i = 0; i < 1000 && Store().BackgroundForTest() >= 0; ++i) {
    }
    ExpectModel();
    EXPECT_LT(UsedSegments(), 40);
    EXPECT_GT(m_sys.NumCalls(ESimCall::PUNCH) + (before - Lss().Stats().fileSize) / SEGMENT, 80);
    m_lss->Abandon();
    Open();
    ExpectModel();
    Fill(200, 200); // punched slots get their blocks back
    ExpectModel();
}

TEST_F(CleanerTest, WhatStandsAtTheFilesEndMovesForwardWhenTheStoreRests) {
    Fill(6000, 200);
    const ssize_t before = Store().SpaceForTest().NumSlots();
    DeleteAllBut(300);
    for (int i = 0; i < 1000 && Store().BackgroundForTest() >= 0; ++i) {
    }
    EXPECT_GT(before, 300);
    EXPECT_LT(Store().SpaceForTest().NumSlots(), UsedSegments() + 70);
    EXPECT_LT(UsedSegments(), 40);
    ExpectModel();
    Store().Validate();
    m_lss->Abandon(); // killed
    Open();
    ExpectModel();
}

TEST_F(CleanerTest, TheFilesEndMovesForwardAfterABatchOfTheCleaner) {
    Fill(1500, 200);
    for (size_t i = 0; i < m_seids.size(); i += 2) Overwrite(m_seids[i], 200);
    Store().CheckpointForTest();
    EXPECT_GT(Store().CleanForTest(4), 0);
    DeleteAllBut(300);
    for (int i = 0; i < 2; ++i) Store().CheckpointForTest();
    const ssize_t before = Store().SpaceForTest().NumSlots();
    for (int i = 0; i < 2; ++i) Store().PullInEndForTest();
    EXPECT_GT(before, 150);
    EXPECT_LT(Store().SpaceForTest().NumSlots(), UsedSegments() + 20);
    EXPECT_LT(UsedSegments(), 40);
    ExpectModel();
    m_lss->Abandon();
    Open();
    ExpectModel();
}

TEST_F(CleanerTest, ManyTablesMoveForwardToo) {
    Fill(8000, 20);
    for (int i = 0; i < 8000; ++i) {
        Overwrite(SomeSeid(), 20);
        if (i % 50 == 0) Store().BackgroundForTest();
    }
    const ssize_t before = Store().SpaceForTest().NumSlots();
    for (int i = 0; i < 1000 && Store().BackgroundForTest() >= 0; ++i) {
    }
    for (int i = 0; i < 2; ++i) Store().PullInEndForTest();
    EXPECT_GT(before, UsedSegments() + 100);
    EXPECT_LT(Store().SpaceForTest().NumSlots(), UsedSegments() + 20);
    ExpectModel();
}

TEST_F(CleanerTest, TheFilesEndMovesIntoSlotsWhoseBlocksAreNotKnown) {
    Fill(2000, 200);
    DeleteAllBut(100);
    for (int i = 0; i < 2; ++i) Store().CheckpointForTest();
    m_lss->Abandon();
    Open();
    const ssize_t before = Store().SpaceForTest().NumSlots();
    m_sys.FailCall(ESimCall::ALLOCATE, 1, ENOSPC, true);
    Store().PullInEndForTest(); // a full disk: nothing can move
    EXPECT_GT(Store().SpaceForTest().NumSlots(), 60);
    m_sys.FailCall(ESimCall::ALLOCATE, 0, 0, false);
    Store().PullInEndForTest();
    EXPECT_GT(before, 100);
    EXPECT_LT(Store().SpaceForTest().NumSlots(), UsedSegments() + 20);
    ExpectModel();
}

TEST_F(CleanerTest, FreeSlotsAtTheEndAreCutOffWithoutAMove) {
    Fill(6000, 200);
    for (size_t i = 1000; i < m_seids.size(); ++i) Delete(m_seids[i]);
    const ssize_t slot = SlotOf(m_seids[999]);
    for (int i = 0; i < 1000 && Store().BackgroundForTest() >= 0; ++i) {
    }
    EXPECT_EQ(SlotOf(m_seids[999]), slot);
    EXPECT_LT(Store().SpaceForTest().NumSlots(), UsedSegments() + 70);
    ExpectModel();
}

TEST_F(CleanerTest, TheEndOfTheStoreStopsTheMoveOfTheFilesEnd) {
    Fill(6000, 200);
    DeleteAllBut(2000);
    for (int i = 0; i < 2; ++i) Store().CheckpointForTest();
    int steps = 0;
    Store().SetStepHookForTest([&] {
        if (++steps == 1) Store().CleanerForTest().RequestStop();
    });
    Store().PullInEndForTest();
    Store().SetStepHookForTest(nullptr);
    EXPECT_GT(steps, 0);
    const ssize_t stopped = Store().SpaceForTest().NumSlots();
    Store().PullInEndForTest();
    EXPECT_EQ(Store().SpaceForTest().NumSlots(), stopped);
    Store().CleanerForTest().AllowAgainForTest();
    Store().PullInEndForTest();
    EXPECT_LT(Store().SpaceForTest().NumSlots(), stopped - 100);
    ExpectModel();
}

TEST_F(CleanerTest, ATransactionStopsTheMoveOfTheFilesEnd) {
    Fill(6000, 200);
    DeleteAllBut(2000);
    for (int i = 0; i < 2; ++i) Store().CheckpointForTest(); // what is empty becomes free
    int steps = 0;
    Store().SetStepHookForTest([&] {
        if (++steps == 1) Overwrite(m_seids.back(), 200);
    });
    Store().PullInEndForTest();
    Store().SetStepHookForTest(nullptr);
    EXPECT_GT(steps, 1); // the checkpoint that ran was completed
    const ssize_t interrupted = Store().SpaceForTest().NumSlots();
    ExpectModel();
    Store().PullInEndForTest();
    EXPECT_LT(Store().SpaceForTest().NumSlots(), interrupted - 100);
    ExpectModel();
}

TEST_F(CleanerTest, ADamagedSegmentKeepsTheFilesEndWhereItIs) {
    Fill(6000, 200);
    const Seid damaged = m_seids.back();
    for (int i = 0; i < 30; ++i) Overwrite(m_seids[0], 200); // ends the damaged one's segment
    for (size_t i = 1; i + 300 < m_seids.size(); ++i) {
        Lss().Delete(m_seids[i]);
        m_model.erase(m_seids[i].value_);
    }
    Store().CheckpointForTest();
    const ssize_t slot = SlotOf(damaged);
    const int fd = m_sys.Open("d/store", O_RDWR, 0);
    const octet_t wrong = 0xA5;
    m_sys.Write(fd, &wrong, 1, LocationOffset(Store().IndexForTest().Get(damaged)) + 50);
    m_sys.Close(fd);
    for (int i = 0; i < 1000 && Store().BackgroundForTest() >= 0; ++i) {
    }
    EXPECT_EQ(SlotOf(damaged), slot);
    EXPECT_GT(Store().SpaceForTest().NumSlots(), slot);
    Lss().Delete(damaged);
    m_model.erase(damaged.value_);
    ExpectModel();
}

TEST_F(CleanerTest, AFailedWriteOfTheCleanerIsFinalAndReadingGoesOn) {
    Fill(100, 200);
    Store().CheckpointForTest();
    m_sys.FailCall(ESimCall::WRITE, 1, EIO, false);
    EXPECT_THROW(Store().CleanForTest(4), FileException);
    EXPECT_THROW(Store().OpenTransaction(), FileException);
    EXPECT_EQ(Lss().All(), m_model);
    m_lss->Close();
    Open();
    ExpectModel();
}

TEST_F(CleanerTest, ManyLongElementsMoveInOneBatchOfSeveralRelocs) {
    for (int i = 0; i < 60; ++i) {
        m_seids.push_back(Lss().NewSeid());
        Overwrite(m_seids.back(), 9000);
    }
    for (size_t i = 0; i < m_seids.size(); i += 3) Overwrite(m_seids[i], 9000);
    Store().CheckpointForTest();
    EXPECT_GT(Store().CleanForTest(200), 30);
    ExpectModel();
    m_lss->Abandon();
    Open();
    ExpectModel();
}

TEST_F(CleanerTest, ASegmentWithSeveralDamagedPacketsStays) {
    Fill(40, 300);
    Store().CheckpointForTest();
    const ssize_t slot = SlotOf(m_seids[10]);
    ASSERT_EQ(SlotOf(m_seids[11]), slot);
    const octet_t wrong = 0xA5;
    for (const Seid seid : {m_seids[10], m_seids[11]}) {
        m_sys.Poke("d/store", LocationOffset(Store().IndexForTest().Get(seid)) + 50, &wrong, 1);
        m_sys.Poke("d/store", LocationOffset(Store().IndexForTest().Get(seid)) + 51, &wrong, 1);
    }
    for (int i = 0; i < 3; ++i) {
        Store().CleanForTest(8);
        Store().CheckpointForTest();
    }
    for (const Seid seid : {m_seids[10], m_seids[11]}) {
        EXPECT_EQ(SlotOf(seid), slot);
        EXPECT_THROW(Lss().Get(seid), CorruptLSSException);
    }
}

// The age classes that survivor segments have after old elements, and others overwritten again and again, were cleaned.
std::set<int> AgeClassesWith(int stampShift) {
    SimSys sys;
    TestLss lss(sys, WithCleaner(), OM_OPEN_ALWAYS, nullptr, "d/store", EBackground::NONE, stampShift);
    std::vector<Seid> seids;
    for (int i = 0; i < 60; ++i) seids.push_back(lss.Put(Pattern(300)));
    for (int i = 0; i < 400; ++i) lss.Put(seids[static_cast<size_t>(i % 20)], Pattern(300));
    std::set<int> classes;
    for (int round = 0; round < 10; ++round) {
        lss->CheckpointForTest();
        lss->CleanForTest(5);
        for (ssize_t slot = 0; slot < lss->SpaceForTest().NumSlots(); ++slot) {
            const SegmentSlot& s = (*lss->CoreForTest().m_segments)[slot];
            if (s.sequence && s.kind == ESegmentKind::SURVIVORS) classes.insert(s.ageClass);
        }
    }
    return classes;
}

TEST(CleanerAges, SurvivorsOfDifferentAgesLieApart) {
    EXPECT_GE(AgeClassesWith(8).size(), 2u);  // stamps of 256 bytes
    EXPECT_EQ(AgeClassesWith(20).size(), 1u); // of a MiB, of which this log has not one
}

class NoCleanerTest : public CleanerTest {
protected:
    NoCleanerTest() : CleanerTest(WithCleaner(0)) {}
};

TEST_F(NoCleanerTest, NothingIsMovedWithAUtilisationOfZero) {
    Fill(100, 200);
    for (int i = 0; i < 1000; ++i) {
        Overwrite(SomeSeid(), 200);
        if (i % 100 == 0) Store().BackgroundForTest();
    }
    EXPECT_EQ(Store().CoreForTest().m_counters.survivorBytes.load(), 0u);
}

TEST_F(CleanerTest, AFullDiskWhoseStoreIsYoungOrHasNothingDeadIsNotCleaned) {
    m_sys.FailCall(ESimCall::ALLOCATE, 1, ENOSPC, true);
    const auto fill = [&] {
        try {
            for (;;) Fill(1, 3000);
        } catch (const FileException& e) {
            EXPECT_EQ(e.GetErrno(), ENOSPC);
        }
    };
    {
        SimSys sys;
        TestLss young(sys, m_settings); // no transaction has closed yet
        young->StopThreadsForTest();
        for (int i = 0; i < 20; ++i) young->SpaceForTest().Take(ESegmentKind::SURVIVORS, 0, 0);
        sys.FailCall(ESimCall::ALLOCATE, 1, ENOSPC, true);
        const int64 writes = sys.NumCalls(ESimCall::WRITE);
        EXPECT_THROW(
            {
                for (int i = 0; i < 20; ++i) young->SpaceForTest().Take(ESegmentKind::SURVIVORS, 0, 0);
            },
            FileException);
        EXPECT_THROW(young->OpenTransaction(), FileException);
        young->BackgroundForTest();
        EXPECT_EQ(sys.NumCalls(ESimCall::WRITE), writes);
    }
    for (int i = 0; i < 3; ++i) {
        fill();
        Store().BackgroundForTest();
    }
    ExpectModel();
}

// Wherever in a batch the disk has no more room: what has been moved is moved, the rest stays, and the store goes on.
TEST_F(CleanerTest, ABatchThatFindsNoRoomEndsEarlyAndLosesNothing) {
    for (int i = 0; i < 8; ++i) {
        m_seids.push_back(Lss().NewSeid());
        Overwrite(m_seids.back(), 9000);
    }
    Fill(100, 600);
    for (int i = 0; i < 60; ++i) Overwrite(m_seids[8 + m_random() % 100], 600);
    for (int room = 12; room >= 0; --room) {
        Store().CheckpointForTest();
        Overwrite(SomeSeid(), 600); // begins a segment, in which there is room for the RELOC
        // All free slots but `room` are pinned, as by readers.
        std::vector<ssize_t> pinned;
        SegmentTable& segments = *Store().CoreForTest().m_segments;
        for (ssize_t slot = 0, left = room; slot < Store().SpaceForTest().NumSlots(); ++slot) {
            if (segments[slot].sequence != 0 || left-- > 0) continue;
            ++segments[slot].pins;
            pinned.push_back(slot);
        }
        m_sys.FailCall(ESimCall::ALLOCATE, 1, ENOSPC, true);
        Store().CleanForTest(8);
        m_sys.Heal();
        for (const ssize_t slot : pinned) --segments[slot].pins;
        ExpectModel();
    }
    m_lss->Abandon();
    Open();
    ExpectModel();
}

// A part or a head that can't be read stays, and with it all of its element.
TEST_F(CleanerTest, ADamagedLongElementStaysWhereItIs) {
    std::vector<Seid> longs;
    for (int i = 0; i < 6; ++i) {
        longs.push_back(Lss().NewSeid());
        m_seids.push_back(longs.back());
        Overwrite(longs.back(), 9000);
    }
    Fill(40, 600);
    Store().CheckpointForTest();
    const Location head = Store().IndexForTest().Get(longs[0]);
    octet_t wrong = 0xA5;
    m_sys.Poke("d/store", LocationOffset(head) + PACKET_HEADER_BYTES + 4, &wrong, 1);
    const Location other = Store().IndexForTest().Get(longs[1]);
    const Location part = ReadPod<Location>(
        m_sys
            .Peek("d/store", LocationOffset(other) + PACKET_HEADER_BYTES + static_cast<int64>(sizeof(LongPrefix)),
                  sizeof(Location))
            .data());
    m_sys.Poke("d/store", LocationOffset(part) + 100, &wrong, 1);
    m_sys.Poke("d/store", LocationOffset(part) + 101, &wrong, 1);
    for (int i = 0; i < 8; ++i) Store().CleanForTest(8); // a checkpoint would look at every head here
    EXPECT_EQ(Store().IndexForTest().Get(longs[0]), head);
    EXPECT_THROW(Lss().Get(longs[1]), CorruptLSSException);
    for (size_t i = 2; i < m_seids.size(); ++i) EXPECT_EQ(Lss().Get(m_seids[i]), m_model[m_seids[i].value_]);
    Lss().Put("the store goes on");
}

} // namespace
} // namespace quna

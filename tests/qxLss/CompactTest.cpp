// The compacting copy.
#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/CompactingCopy.h"
#include "tests/qxLss/CopyFixture.h"
#include "tests/support/ExpectAssertion.h"

namespace quna {
namespace {

using CompactTest = CopyFixture;

TEST_F(CompactTest, TheCopyOfALiveStoreHasTheSameElementsAndNumbers) {
    Fill(200, 150);
    LiveOn(150);
    const BackupResult result = Compact();
    EXPECT_EQ(result.transaction, LastTransaction());
    ExpectCopy(m_model, result);
    EXPECT_EQ(OpenCopy().Lss().Stats().numTransactions, Lss().Stats().numTransactions);
    EXPECT_TRUE(Lss().All() == m_model);
    Store().Validate();
}

TEST_F(CompactTest, TheCopyOfAReadOnlyStoreHasTheSameElementsAndNumbers) {
    Fill(200, 150);
    LiveOn(100);
    const uint64 transaction = LastTransaction();
    m_lss->Abandon(); // it is rolled forward in memory
    Open(OM_OPEN_EXISTING_READ_ONLY);
    const FileBytes before = StoreFile(m_sys);
    Lss().Put(m_seids[0], "seen by this process only");
    const BackupResult result = Compact();
    EXPECT_EQ(result.transaction, transaction);
    ExpectCopy(m_model, result);
    EXPECT_EQ(StoreFile(m_sys), before);
}

TEST_F(CompactTest, WhatHappensDuringTheCopyIsNotInIt) {
    Fill(6000, 400); // several reports, a MiB apart
    Store().CheckpointForTest();
    const ElementMap model = m_model;
    int reports = 0;
    BackupOptions options;
    options.progress = [&](const BackupProgress&) {
        ++reports;
        LiveOn(60);
        return true;
    };
    ExpectCopy(model, Compact(options));
    EXPECT_GE(reports, 4);
    EXPECT_TRUE(Lss().All() == m_model);
    Store().Validate();
}

TEST_F(CompactTest, TheFileIsNotMuchLargerThanItsElements) {
    Fill(3000, 300);
    for (int i = 0; i < 6000; ++i) ChangeAtRandom();
    int64 bytes = 0;
    for (const auto& [seid, content] : m_model) bytes += PaddedSize(16 + std::ssize(content));
    const BackupResult result = Compact();
    ExpectCopy(m_model, result);
    // 8 bytes of index an element, a COMMIT a transaction; segments of 4 KiB lose up to an element at their ends.
    EXPECT_LT(result.fileSize, FRONT_AREA_BYTES + bytes * 5 / 4 + 20 * 4096);
    EXPECT_LT(result.fileSize, static_cast<int64>(StoreFile(m_sys).size()));
}

TEST_F(CompactTest, NeighboursComeToLieTogether) {
    Fill(300, 100);
    LiveOn(200);
    Compact();
    OpenedCopy copy = OpenCopy();
    int64 last = 0;
    copy.Store().VisitElements([&](Seid, Location l) {
        EXPECT_GT(LocationOffset(l), last);
        last = LocationOffset(l);
    });
}

TEST_F(CompactTest, LongElementsAndEmptyOnesAreCopied) {
    for (const ssize_t n : {ssize_t{0}, ssize_t{1}, ssize_t{40000}, ssize_t{0}, ssize_t{9000}}) {
        AutoCloser<ILssTransaction> txn(Store().OpenTransaction());
        Write(*txn.Get(), NewSeid(), n);
        txn.Close();
    }
    ExpectCopy(m_model, Compact());
}

TEST_F(CompactTest, AnEmptyStoreHasAnEmptyCopy) {
    const BackupResult result = Compact();
    ExpectCopy({}, result);
    EXPECT_LE(result.fileSize, FRONT_AREA_BYTES + 3 * 4096);
}

TEST_F(CompactTest, HighHalvesWithoutElementsAreKept) {
    std::vector<Seid> given;
    for (int i = 0; i < 5; ++i) {
        const SeidHigh high = Store().AllocateSeidHigh();
        given.push_back(Store().AllocateSeid(high));
        if (i % 2) Lss().Put(given.back(), "x");
    }
    Compact();
    OpenedCopy copy = OpenCopy();
    for (const Seid seid : given) EXPECT_GT(copy.Store().AllocateSeid(seid.high_).low_, seid.low_);
    EXPECT_GT(copy.Store().AllocateSeidHigh(), given.back().high_);
}

TEST_F(CompactTest, TheCopyGoesOnAsAStoreOfItsOwn) {
    Fill(200, 200);
    LiveOn(50);
    Compact();
    OpenedCopy copy = OpenCopy();
    copy.Store().StopThreadsForTest();
    const uint64 transaction = copy.Store().LogForTest().LastTransaction();
    ElementMap model = m_model;
    for (int i = 0; i < 200; ++i) {
        const Seid seid = copy.Lss().NewSeid();
        EXPECT_FALSE(m_given.contains(seid.value_));
        copy.Lss().Put(seid, model[seid.value_] = Pattern(200, m_random()));
        if (i % 30 == 0) copy.Store().CheckpointForTest();
        if (i % 20 == 5) copy.Store().CleanForTest(4);
    }
    EXPECT_EQ(copy.Store().LogForTest().LastTransaction(), transaction + 200);
    copy.Store().Validate();
    SimSys killed(ImageOf(StoreFile(copy.Sys())));
    TestLss reopened(killed, OpenedCopy::Settings());
    EXPECT_TRUE(reopened.All() == model);
}

TEST_F(CompactTest, CancelledItLeavesNothingBehind) {
    Fill(6000, 400);
    for (int n = 0;; ++n) {
        int reports = 0;
        BackupOptions options;
        options.progress = [&](const BackupProgress&) { return reports++ != n; };
        const bool completed = Compact(options).completed;
        EXPECT_EQ(Exists("d/copy"), completed);
        EXPECT_FALSE(Exists("d/copy.part"));
        if (completed) break;
    }
    EXPECT_TRUE(Lss().All() == m_model);
    ChangeAtRandom();
}

TEST_F(CompactTest, AFailureOfTheCopyIsNoFailureOfTheStore) {
    Fill(600, 300); // so that the copy grows
    for (const auto& [kind, error] : {std::pair{ESimCall::WRITE, ENOSPC}, std::pair{ESimCall::WRITE, EIO},
                                      std::pair{ESimCall::ALLOCATE, ENOSPC}, std::pair{ESimCall::SYNC, EIO},
                                      std::pair{ESimCall::WRITE_DURABLE, EIO}, std::pair{ESimCall::RENAME, EACCES}}) {
        BackupOptions options;
        bool armed = false;
        options.progress = [&, kind = kind, error = error](const BackupProgress&) {
            if (!std::exchange(armed, true)) m_sys.FailCall(kind, 1, error, true);
            return true;
        };
        try {
            Compact(options);
            ADD_FAILURE();
        } catch (const FileException& e) {
            EXPECT_NE(std::string(e.what()).find("d/copy"), std::string::npos) << e.what();
        }
        m_sys.Heal();
        EXPECT_FALSE(Exists("d/copy"));
        EXPECT_FALSE(Exists("d/copy.part"));
        EXPECT_FALSE(Store().CoreForTest().HasFailed());
        ChangeAtRandom();
    }
    ExpectCopy(m_model, Compact());
}

TEST_F(CompactTest, AfterACrashAtAnyCallTheTargetIsAbsentOrWhole) {
    Fill(40, 200);
    const size_t begin = static_cast<size_t>(m_sys.NumRecorded());
    ExpectCopy(m_model, Compact());
    const std::vector<SimCall> record = m_sys.Record();
    SimDisk disk(m_sys.InitialImage());
    int whole = 0;
    for (size_t k = 0; k < record.size(); ++k) {
        if (k >= begin) {
            for (const CrashVariant::EChoice choice :
                 {CrashVariant::EChoice::NONE, CrashVariant::EChoice::ALL, CrashVariant::EChoice::RANDOM_SUBSET}) {
                const DiskImage image = disk.Image({choice, k * 31}, &record[k]);
                if (!image.contains("d/copy")) continue;
                ++whole;
                OpenedCopy copy(image);
                EXPECT_TRUE(copy.Lss().All() == m_model);
                copy.Store().Validate();
            }
        }
        disk.Apply(record[k]);
    }
    EXPECT_GT(whole, 0);
}

TEST_F(CompactTest, DamageIsReported) {
    Fill(100, 200);
    Store().CheckpointForTest();
    const Location l = Store().IndexForTest().Get(m_seids[3]);
    m_lss->Close();
    FileBytes bytes = StoreFile(m_sys);
    bytes[static_cast<size_t>(LocationOffset(l)) + 40] ^= 1;
    SimSys damaged(ImageOf(bytes));
    TestLss lss(damaged, OpenedCopy::Settings());
    EXPECT_THROW(lss->CopyCompacted("d/copy", {}), CorruptLSSException);
    EXPECT_FALSE(damaged.CachedImage().contains("d/copy.part"));
    EXPECT_FALSE(lss->CoreForTest().HasFailed());
}

TEST_F(CompactTest, AStoreThatHasAnotherNameNowIsNotCompacted) {
    Fill(20, 200);
    ASSERT_TRUE(RenameFile(m_sys, "d/store", "d/moved", false));
    File(m_sys).Open("d/store", EFileAccess::CREATE);
    EXPECT_THROW(Compact(), FileException);
    EXPECT_FALSE(Exists("d/copy.part"));
    Fill(20, 200);
}

// More than one transaction of the copy takes.
TEST(Compact, AStoreOfManyMegabytesIsCopiedInSeveralTransactions) {
    SimSys sys;
    sys.StopRecording();
    LssSettings settings = SmallSegments();
    settings.segmentSize = 1 << 22;
    TestLss lss(sys, settings);
    const std::string large = Pattern(33 << 20);
    const Seid a = lss.Put(large);
    const Seid b = lss.Put(large);
    const Seid c = lss.Put("small");
    EXPECT_TRUE(lss->CopyCompacted("d/copy", {}).completed);
    const TestLss copy(sys, settings, OM_OPEN_EXISTING, nullptr, "d/copy");
    EXPECT_TRUE(copy.Get(a) == large && copy.Get(b) == large);
    EXPECT_EQ(copy.Get(c), "small");
}

} // namespace
} // namespace quna

#include "qxLss/Backup.h"

#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/PartFile.h"
#include "qxUtils/Assert.h"
#include "tests/qxLss/ArchivedStore.h"
#include "tests/qxLss/CopyFixture.h"
#include "tests/support/ExpectAssertion.h"

#include <fcntl.h>

namespace quna {
namespace {

using BackupTest = CopyFixture;

// Cancels at the n-th report, counted from 0.
BackupOptions CancelAt(int n, int& reports) {
    BackupOptions options;
    options.progress = [n, &reports](const BackupProgress&) { return reports++ != n; };
    return options;
}

TEST_F(BackupTest, TheCopyHoldsTheStateAfterTheNamedTransaction) {
    Fill(200, 150);
    LiveOn(150);
    const BackupResult result = Backup();
    EXPECT_EQ(result.transaction, LastTransaction());
    ExpectCopy(m_model, result);
    EXPECT_TRUE(Lss().All() == m_model);
    Store().Validate();
}

TEST_F(BackupTest, AnEmptyStoreHasAnEmptyCopyWhichIsNoUnfinishedCreation) {
    const BackupResult result = Backup();
    EXPECT_EQ(result.transaction, 0u);
    EXPECT_EQ(result.numElements, 0);
    ExpectCopy({}, result);
    OpenedCopy copy = OpenCopy();
    EXPECT_FALSE(copy.Lss().IsCreatedNew());
    copy.Lss().Put("first");
    EXPECT_EQ(copy.Lss().All().size(), 1u);
}

TEST_F(BackupTest, LongElementsAreCopiedWithTheirParts) {
    for (int i = 0; i < 5; ++i) {
        AutoCloser<ILssTransaction> txn(Store().OpenTransaction());
        Write(*txn.Get(), NewSeid(), 4096 * 3 * i + 100);
        txn.Close();
    }
    ExpectCopy(m_model, Backup());
}

TEST_F(BackupTest, WhatHappensDuringTheCopyIsNotInItAndChangesNothingInIt) {
    Fill(300, 200);
    for (int round = 0; round < 5; ++round) {
        LiveOn(20);
        const ElementMap model = m_model;
        BackupOptions options;
        options.replaceExisting = true;
        options.progress = [&](const BackupProgress&) {
            LiveOn(3);
            return true;
        };
        ExpectCopy(model, Backup(options));
        EXPECT_TRUE(Lss().All() == m_model);
        Store().Validate();
    }
}

TEST_F(BackupTest, AnElementOverwrittenAndCleanedAwayDuringTheCopyIsInIt) {
    Fill(200, 300);
    Store().CheckpointForTest();
    const ElementMap model = m_model;
    bool done = false;
    BackupOptions options;
    options.progress = [&](const BackupProgress&) {
        if (std::exchange(done, true)) return true;
        for (int turn = 0; turn < 3; ++turn) { // every slot of the file would be used again
            for (const Seid seid : m_seids) {
                AutoCloser<ILssTransaction> txn(Store().OpenTransaction());
                Write(*txn.Get(), seid, 300);
                txn.Close();
            }
            for (int i = 0; i < 3; ++i) {
                Store().CheckpointForTest();
                Store().CleanForTest(8);
            }
            Store().ShrinkForTest();
        }
        return true;
    };
    ExpectCopy(model, Backup(options));
    EXPECT_TRUE(Lss().All() == m_model);
}

TEST_F(BackupTest, SpaceFreedDuringTheCopyIsUsedAgainAfterIt) {
    Fill(200, 300);
    Store().CheckpointForTest();
    ssize_t freeMeanwhile = 0;
    BackupOptions options;
    bool done = false;
    options.progress = [&](const BackupProgress&) {
        if (std::exchange(done, true)) return true;
        for (const Seid seid : m_seids) Lss().Delete(seid);
        m_model.clear();
        Store().CheckpointForTest();
        Store().CheckpointForTest();
        freeMeanwhile = Store().SpaceForTest().NumFree();
        return true;
    };
    EXPECT_TRUE(Backup(options).completed);
    EXPECT_GT(Store().SpaceForTest().NumFree(), freeMeanwhile + 10);
    Store().ShrinkForTest();
    Fill(50, 200);
    EXPECT_TRUE(Lss().All() == m_model);
    Store().Validate();
}

TEST_F(BackupTest, ProgressGoesFromNothingToTheTotal) {
    Fill(100, 200);
    std::vector<BackupProgress> seen;
    BackupOptions options;
    options.progress = [&](const BackupProgress& p) {
        seen.push_back(p);
        return true;
    };
    Backup(options);
    ASSERT_GT(seen.size(), 3u);
    EXPECT_EQ(seen.front().bytesDone, 0);
    EXPECT_EQ(seen.back().bytesDone, seen.back().bytesTotal);
    for (size_t i = 1; i < seen.size(); ++i) {
        EXPECT_LT(seen[i - 1].bytesDone, seen[i].bytesDone);
        EXPECT_EQ(seen[i].bytesTotal, seen[0].bytesTotal);
    }
}

TEST_F(BackupTest, CancelledAtAnyReportItLeavesNothingBehind) {
    Fill(60, 200);
    int reports = 0;
    Backup(CancelAt(-1, reports));
    const int numReports = reports;
    const ssize_t numOpen = m_sys.NumOpen();
    RemoveFile(m_sys, "d/copy");
    for (int n = 0; n < numReports; ++n) {
        reports = 0;
        const BackupResult result = Backup(CancelAt(n, reports));
        EXPECT_FALSE(result.completed);
        EXPECT_EQ(reports, n + 1);
        EXPECT_FALSE(Exists("d/copy"));
        EXPECT_FALSE(Exists("d/copy.part"));
        EXPECT_EQ(m_sys.NumOpen(), numOpen);
    }
    LiveOn(20);
    EXPECT_TRUE(Lss().All() == m_model);
    ExpectCopy(m_model, Backup());
}

TEST_F(BackupTest, AnExceptionOfTheCallBackPassesThroughAndCancels) {
    Fill(60, 200);
    BackupOptions options;
    options.progress = [](const BackupProgress& p) -> bool {
        if (p.bytesDone) throw std::runtime_error("no more");
        return true;
    };
    EXPECT_THROW(Backup(options), std::runtime_error);
    EXPECT_FALSE(Exists("d/copy"));
    EXPECT_FALSE(Exists("d/copy.part"));
    ExpectCopy(m_model, Backup());
}

TEST_F(BackupTest, AnExistingTargetIsRefusedUnlessItMayBeReplaced) {
    Fill(20, 200);
    Backup();
    const DiskImage before = m_sys.CachedImage();
    Fill(20, 200);
    ExpectException<FileException>("Can't make the copy 'd/copy': the file exists already", [&] { Backup(); });
    EXPECT_EQ(m_sys.CachedImage().at("d/copy"), before.at("d/copy"));
    BackupOptions options;
    options.replaceExisting = true;
    int reports = 0;
    BackupOptions cancelled = CancelAt(2, reports);
    cancelled.replaceExisting = true;
    EXPECT_FALSE(Backup(cancelled).completed);
    EXPECT_EQ(m_sys.CachedImage().at("d/copy"), before.at("d/copy"));
    ExpectCopy(m_model, Backup(options));
}

TEST_F(BackupTest, AStoreThatIsOpenIsNeverReplaced) {
    Fill(20, 200);
    BackupOptions options;
    options.replaceExisting = true;
    ExpectException<FileException>("Can't make the copy 'd/store': the file exists and is in use by another owner",
                                   [&] { Store().Backup("d/store", options); });
    EXPECT_FALSE(Exists("d/store.part"));
    Fill(5, 100);
    EXPECT_TRUE(Lss().All() == m_model);
}

TEST_F(BackupTest, ASecondCopyAtTheSameTimeIsRefused) {
    Fill(20, 200);
    BackupOptions options;
    options.progress = [&](const BackupProgress&) {
        ExpectException<FileException>("Can't make the copy 'd/other': another copy of the store is being made",
                                       [&] { Store().Backup("d/other", {}); });
        ExpectException<FileException>("Can't make the copy 'd/other': another copy of the store is being made",
                                       [&] { Store().CopyCompacted("d/other", {}); });
        return true;
    };
    ExpectCopy(m_model, Backup(options));
    EXPECT_FALSE(Exists("d/other.part"));
}

TEST_F(BackupTest, TwoStoresDoNotWriteOnePart) {
    Fill(20, 200);
    File other(m_sys);
    other.Open("d/copy.part", EFileAccess::CREATE);
    ASSERT_TRUE(other.TryLock(true));
    ExpectException<FileException>("Can't make the copy 'd/copy': another copy is being written there",
                                   [&] { Backup(); });
    EXPECT_TRUE(Exists("d/copy.part"));
    other.Close(); // the part of a killed process is used again
    ExpectCopy(m_model, Backup());
}

TEST_F(BackupTest, AFileThatAppearsMeanwhileIsNotReplaced) {
    Fill(20, 200);
    BackupOptions options;
    options.progress = [&](const BackupProgress&) {
        File other(m_sys);
        other.Open("d/copy", EFileAccess::CREATE);
        return true;
    };
    ExpectException<FileException>("Can't make the copy 'd/copy': the file exists already", [&] { Backup(options); });
    EXPECT_FALSE(Exists("d/copy.part"));
    EXPECT_TRUE(m_sys.CachedImage().at("d/copy").empty());
}

TEST_F(BackupTest, NoCopyIsMadeInsideATransaction) {
    AutoCloser<ILssTransaction> txn(Store().OpenTransaction());
    ExpectAssertion("!m_log.Turn().IsOwnedByThisThread()", [&] { Backup(); });
    txn.Close();
    EXPECT_FALSE(Exists("d/copy.part"));
}

TEST_F(BackupTest, TheStoreIsNotClosedOutOfTheCallBack) {
    BackupOptions options;
    options.progress = [&](const BackupProgress&) {
        ExpectAssertion("m_owner != std::this_thread::get_id()", [&] { Store().Close(); });
        return true;
    };
    EXPECT_TRUE(Backup(options).completed);
}

// --- failures

struct FailingCall {
    ESimCall kind;
    int error;
};

class FailedBackupTest : public CopyFixture, public testing::WithParamInterface<FailingCall> {};

// From the first report on only the copy is being written.
TEST_P(FailedBackupTest, TheStoreGoesOnAndNothingIsLeft) {
    Fill(60, 200);
    bool fails = true;
    for (int64 n = 1; fails; ++n) {
        ASSERT_LT(n, 200);
        BackupOptions options;
        bool armed = false;
        options.progress = [&](const BackupProgress&) {
            if (!std::exchange(armed, true)) m_sys.FailCall(GetParam().kind, n, GetParam().error, false);
            return true;
        };
        std::string text;
        const int64 failures = m_sys.NumFailures();
        try {
            Backup(options);
        } catch (const FileException& e) {
            text = e.what();
        }
        fails = m_sys.NumFailures() != failures;
        m_sys.Heal();
        if (fails) {
            EXPECT_NE(text.find("d/copy"), std::string::npos) << text;
        } else {
            EXPECT_EQ(text, "");
        }
        EXPECT_FALSE(Exists("d/copy.part"));
        EXPECT_EQ(Exists("d/copy"), !fails || GetParam().kind == ESimCall::SYNC_DIR);
        if (Exists("d/copy") && fails) RemoveFile(m_sys, "d/copy");
        EXPECT_FALSE(Store().CoreForTest().HasFailed());
        ChangeAtRandom();
    }
    EXPECT_TRUE(Lss().All() == m_model);
    Store().Validate();
}

INSTANTIATE_TEST_SUITE_P(Calls, FailedBackupTest,
                         testing::Values(FailingCall{ESimCall::WRITE, ENOSPC}, FailingCall{ESimCall::WRITE, EIO},
                                         FailingCall{ESimCall::TRUNCATE, ENOSPC}, FailingCall{ESimCall::SYNC, EIO},
                                         FailingCall{ESimCall::SYNC_DIR, EIO}, FailingCall{ESimCall::RENAME, EACCES}));

TEST_F(BackupTest, ATargetThatCannotBeOpenedIsNamed) {
    m_sys.FailCall(ESimCall::OPEN, 2, EACCES, false);
    try {
        Backup();
        ADD_FAILURE();
    } catch (const FileException& e) {
        EXPECT_NE(std::string(e.what()).find("d/copy.part"), std::string::npos) << e.what();
    }
    EXPECT_FALSE(Store().CoreForTest().HasFailed());
    ExpectException<FileException>("Can't make the copy '': the path is empty", [&] { Store().Backup("", {}); });
}

TEST_F(BackupTest, AFailedStoreRefuses) {
    Fill(20, 200);
    m_sys.FailCall(ESimCall::SYNC, 1, EIO, false);
    EXPECT_THROW(Store().Flush(), FileException);
    EXPECT_THROW(Backup(), FileException);
    EXPECT_THROW(Compact(), FileException);
    EXPECT_FALSE(Exists("d/copy.part"));
}

TEST_F(BackupTest, AFullDiskIsMetBeforeTheCheckpointBeginsAndIsNoFailureOfTheStore) {
    Fill(400, 300);
    m_sys.FailCall(ESimCall::ALLOCATE, 1, ENOSPC, true);
    for (int i = 0; i < 1000; ++i) { // until nothing is free
        try {
            Store().SpaceForTest().Take(ESegmentKind::INDEX, 0, 0);
        } catch (const FileException&) {
            break;
        }
    }
    EXPECT_THROW(Backup(), FileException);
    EXPECT_FALSE(Store().CoreForTest().HasFailed());
    EXPECT_FALSE(Exists("d/copy.part"));
}

TEST_F(BackupTest, DamageIsReportedAndCopiedOnlyOnRequest) {
    Fill(100, 200);
    Store().CheckpointForTest();
    const Location l = Store().IndexForTest().Get(m_seids[3]);
    m_lss->Close();
    FileBytes bytes = StoreFile(m_sys);
    bytes[static_cast<size_t>(LocationOffset(l)) + 40] ^= 1;
    SimSys damaged(ImageOf(bytes));
    TestLss lss(damaged, OpenedCopy::Settings());
    EXPECT_THROW(lss->Backup("d/copy", {}), CorruptLSSException);
    EXPECT_FALSE(damaged.CachedImage().contains("d/copy.part"));
    EXPECT_FALSE(lss->CoreForTest().HasFailed());
    BackupOptions options;
    options.verify = false;
    EXPECT_TRUE(lss->Backup("d/copy", options).completed);
    OpenedCopy copy(damaged.CachedImage());
    EXPECT_EQ(copy.Lss().Get(m_seids[4]), m_model.at(m_seids[4].value_));
    EXPECT_THROW(copy.Lss().Get(m_seids[3]), CorruptLSSException);
}

TEST_F(BackupTest, AnyChangedByteUpToTheLastElementOfASegmentIsFound) {
    while (m_seids.size() < 60) { // 216 bytes each, without padding
        AutoCloser<ILssTransaction> txn(Store().OpenTransaction());
        for (int i = 0; i < 4; ++i) Write(*txn.Get(), NewSeid(), 200);
        txn.Close();
    }
    const ssize_t slot = Store().CoreForTest().m_segments->SlotOf(Store().IndexForTest().Get(m_seids[30]));
    const int64 begin = Store().CoreForTest().m_segments->OffsetOf(slot) + SEGMENT_HEADER_BYTES;
    int64 end = begin;
    for (const Seid seid : m_seids) {
        const Location l = Store().IndexForTest().Get(seid);
        if (Store().CoreForTest().m_segments->SlotOf(l) == slot) end = std::max(end, LocationOffset(l) + 216);
    }
    ASSERT_GT(end, begin + 3000);
    m_lss->Close();
    const FileBytes bytes = StoreFile(m_sys);
    for (int64 at = begin; at < end; at += 61) {
        FileBytes changed = bytes;
        changed[static_cast<size_t>(at)] ^= 4;
        SimSys damaged(ImageOf(changed));
        TestLss lss(damaged, OpenedCopy::Settings());
        EXPECT_THROW(lss->Backup("d/copy", {}), CorruptLSSException) << at;
    }
}

// --- crashes

// Whatever the copying process has done of its calls when it ends or the power fails.
TEST_F(BackupTest, AfterACrashAtAnyCallTheTargetIsAbsentOrWhole) {
    Fill(60, 200);
    LiveOn(20);
    const size_t begin = static_cast<size_t>(m_sys.NumRecorded());
    ExpectCopy(m_model, Backup());
    const std::vector<SimCall> record = m_sys.Record();
    SimDisk disk(m_sys.InitialImage());
    int whole = 0;
    int absent = 0;
    for (size_t k = 0; k < record.size(); ++k) {
        if (k >= begin) {
            for (const CrashVariant::EChoice choice :
                 {CrashVariant::EChoice::NONE, CrashVariant::EChoice::ALL, CrashVariant::EChoice::ALL_BUT_LAST,
                  CrashVariant::EChoice::RANDOM_SUBSET, CrashVariant::EChoice::TORN}) {
                const DiskImage image = disk.Image({choice, k * 31}, &record[k]);
                if (!image.contains("d/copy")) {
                    ++absent;
                    continue;
                }
                ++whole;
                OpenedCopy copy(image);
                EXPECT_TRUE(copy.Lss().All() == m_model);
                copy.Store().Validate();
            }
        }
        disk.Apply(record[k]);
    }
    EXPECT_GT(absent, 50);
    EXPECT_GT(whole, 0);
}

TEST_F(BackupTest, AReplacedTargetIsTheOldOrTheNewOneAfterACrash) {
    Fill(30, 200);
    Backup();
    const ElementMap old = m_model;
    LiveOn(20);
    const size_t begin = static_cast<size_t>(m_sys.NumRecorded());
    BackupOptions options;
    options.replaceExisting = true;
    Backup(options);
    const std::vector<SimCall> record = m_sys.Record();
    SimDisk disk(m_sys.InitialImage());
    for (size_t k = 0; k < record.size(); ++k) {
        if (k >= begin) {
            for (const CrashVariant::EChoice choice : {CrashVariant::EChoice::NONE, CrashVariant::EChoice::ALL}) {
                OpenedCopy copy(disk.Image({choice, k}, &record[k]));
                const ElementMap all = copy.Lss().All();
                EXPECT_TRUE(all == old || all == m_model);
            }
        }
        disk.Apply(record[k]);
    }
}

// --- going on with the copy

TEST_F(BackupTest, TheCopyGoesOnAsAStoreOfItsOwn) {
    Fill(100, 200);
    LiveOn(60);
    Backup();
    OpenedCopy copy = OpenCopy();
    copy.Store().StopThreadsForTest();
    ElementMap model = m_model;
    for (int life = 0; life < 3; ++life) {
        for (int i = 0; i < 100; ++i) {
            const Seid seid = copy.Lss().NewSeid();
            EXPECT_FALSE(m_given.contains(seid.value_));
            m_given.insert(seid.value_);
            model[seid.value_] = Pattern(180, m_random());
            copy.Lss().Put(seid, model[seid.value_]);
            const Seid old = SomeSeid();
            if (model.contains(old.value_)) copy.Lss().Put(old, model[old.value_] = Pattern(90, m_random()));
            if (i % 20 == 0) copy.Store().CheckpointForTest();
            if (i % 10 == 5) copy.Store().CleanForTest(4);
        }
        copy.Store().Validate();
        EXPECT_TRUE(copy.Lss().All() == model);
        const FileBytes bytes = StoreFile(copy.Sys());
        SimSys killed(ImageOf(bytes));
        TestLss reopened(killed, OpenedCopy::Settings());
        EXPECT_TRUE(reopened.All() == model);
    }
    // Meanwhile the store itself hands out the same identifiers for other elements.
    LiveOn(30);
    EXPECT_TRUE(Lss().All() == m_model);
}

TEST_F(BackupTest, ABackupOfABackupEqualsIt) {
    Fill(100, 200);
    LiveOn(60);
    const BackupResult first = Backup();
    OpenedCopy copy = OpenCopy();
    const BackupResult second = copy.Store().Backup("d/copy", {});
    EXPECT_EQ(second.transaction, first.transaction);
    OpenedCopy further(copy.Sys().CachedImage());
    EXPECT_TRUE(further.Lss().All() == m_model);
    further.Store().Validate();
}

TEST_F(BackupTest, HighHalvesGoOnInTheCopy) {
    Fill(10, 100);
    const SeidHigh high = Store().AllocateSeidHigh();
    const Seid seid = Store().AllocateSeid(high);
    const SeidHigh unused = Store().AllocateSeidHigh();
    Lss().Put(seid, "there");
    Backup();
    OpenedCopy copy = OpenCopy();
    EXPECT_GT(copy.Store().AllocateSeidHigh(), unused);
    EXPECT_GT(copy.Store().AllocateSeid(high).low_, seid.low_);
    EXPECT_EQ(copy.Lss().Get(seid), "there");
}

// --- read-only stores

class ReadOnlyBackupTest : public CopyFixture {
protected:
    void ExpectCopyOfReadOnly() {
        const uint64 transaction = LastTransaction();
        Open(OM_OPEN_EXISTING_READ_ONLY);
        const FileBytes before = StoreFile(m_sys);
        const BackupResult result = Backup();
        EXPECT_EQ(StoreFile(m_sys), before);
        ASSERT_TRUE(result.completed);
        EXPECT_EQ(result.transaction, transaction);
        EXPECT_EQ(result.numElements, static_cast<int64>(m_model.size()));
        OpenedCopy copy = OpenCopy();
        EXPECT_TRUE(copy.Lss().All() == m_model);
        copy.Store().Validate();
        EXPECT_EQ(copy.Store().LogForTest().LastTransaction(), transaction);
        EXPECT_FALSE(m_given.contains(copy.Lss().NewSeid().value_));
        EXPECT_FALSE(Exists("d/copy.part"));
    }
};

TEST_F(ReadOnlyBackupTest, AfterACleanClose) {
    Fill(100, 200);
    LiveOn(60);
    const uint64 transaction = LastTransaction();
    m_lss->Close();
    Open(OM_OPEN_EXISTING_READ_ONLY);
    EXPECT_EQ(LastTransaction(), transaction);
    m_lss->Abandon();
    Open(OM_OPEN_EXISTING_READ_ONLY);
    ExpectCopyOfReadOnly();
}

TEST_F(ReadOnlyBackupTest, AfterAKill) {
    Fill(100, 200);
    LiveOn(60);
    m_lss->Abandon();
    Open(OM_OPEN_EXISTING_READ_ONLY);
    ExpectCopyOfReadOnly();
}

TEST_F(ReadOnlyBackupTest, WhatATransactionOfTheReaderHoldsInMemoryIsNotCopied) {
    Fill(20, 200);
    m_lss->Close();
    Open(OM_OPEN_EXISTING_READ_ONLY);
    Lss().Put(m_seids[0], "seen by this process only");
    ASSERT_TRUE(Backup().completed);
    OpenedCopy copy = OpenCopy();
    EXPECT_TRUE(copy.Lss().All() == m_model);
}

// --- and the archive of the log

TEST(BackupAndArchive, EitherCopyOfALiveStoreIsABaseForItsArchive) {
    for (const bool compacting : {false, true}) {
        SCOPED_TRACE(compacting ? "compacting" : "backup");
        SimSys sys;
        sys.StopRecording();
        ArchivedStore store(sys, 3);
        store.Open();
        while (store.Last() < 40) store.Step();
        BackupOptions options;
        if (!compacting) {
            options.progress = [&](const BackupProgress&) {
                store.Step(); // the archive goes on meanwhile
                return true;
            };
        }
        const BackupResult base =
            compacting ? store.Lss()->CopyCompacted("d/base", options) : store.Lss()->Backup("d/base", options);
        EXPECT_EQ(base.transaction, 40u);
        while (store.Last() < 90) store.Step();
        store.Close();
        for (const uint64 n : {base.transaction, base.transaction + 1, uint64{63}, store.Last()}) {
            EXPECT_EQ(Restore(sys, RestoreTarget::Transaction(n)).lastTransaction, n);
            EXPECT_TRUE(ElementsOf(sys, "d/new") == store.states[n]) << n;
        }
    }
}

TEST(BackupAndArchive, ACopyThatTakesTheStoresPlaceGoesOnWithItsArchive) {
    for (const bool compacting : {false, true}) {
        SCOPED_TRACE(compacting ? "compacting" : "backup");
        SimSys sys;
        sys.StopRecording();
        ArchivedStore store(sys, 4);
        store.Open();
        while (store.Last() < 40) store.Step();
        store.Archive();
        BackupOptions options;
        const BackupResult copy =
            compacting ? store.Lss()->CopyCompacted("d/copy", options) : store.Lss()->Backup("d/copy", options);
        store.Close();
        CopyFile(sys, "d/copy", "d/base");
        ASSERT_TRUE(RenameFile(sys, "d/copy", "d/store", true));
        store.Open();
        while (store.Last() < 80) store.Step();
        store.Close();
        for (const uint64 n : {copy.transaction, copy.transaction + 1, store.Last()}) {
            EXPECT_EQ(Restore(sys, RestoreTarget::Transaction(n)).lastTransaction, n);
            EXPECT_TRUE(ElementsOf(sys, "d/new") == store.states[n]) << n;
        }
    }
}

// --- the part file

TEST(PartFile, IsRemovedUnlessItWasPublished) {
    SimSys sys;
    {
        File file(sys);
        PartFile part(file, "d/f", false);
        part.Open();
        EXPECT_TRUE(sys.CachedImage().contains("d/f.part"));
    }
    EXPECT_TRUE(sys.CachedImage().empty());
    File file(sys);
    {
        PartFile part(file, "d/f", false);
        part.Open();
        file.Write(0, "whole", 5);
        part.Publish();
    }
    EXPECT_EQ(sys.CachedImage().size(), 1u);
    EXPECT_EQ(sys.CachedImage().at("d/f").size(), 5u);
    EXPECT_EQ(file.Path(), "d/f");
}

} // namespace
} // namespace quna

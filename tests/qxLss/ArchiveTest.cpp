// The archive of the log: what goes into it, what it holds back, what becomes of it in crashes and failures.
#include "qxLss/CorruptLSSException.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxLss/ArchivedStore.h"
#include "tests/support/TraceCatcher.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quna {
namespace {

class Archiving : public testing::Test {
protected:
    Archiving() {
        m_store.Open();
        m_store.Close();
        CopyFile(m_sys, "d/store", "d/base"); // the empty store: with it the whole archive is looked at
    }
    void ExpectEveryState(uint64 from = 0, const std::string& base = "d/base") {
        for (uint64 n = from; n <= m_store.Last() && !HasFailure(); ++n) ExpectState(n, base);
    }
    void ExpectState(uint64 n, const std::string& base = "d/base") {
        SCOPED_TRACE("transaction " + std::to_string(n));
        EXPECT_EQ(Restore(m_sys, RestoreTarget::Transaction(n), base).lastTransaction, n);
        EXPECT_EQ(ElementsOf(m_sys, "d/new"), m_store.states[n]);
    }
    uint64 ArchivedUpTo() { return m_store.Lss()->CoreForTest().m_archive.upTo; }
    DeltaFile Delta(const std::string& name) { return {m_sys, std::string(DELTAS) + "/" + name}; }
    // The numbers of the deltas follow one another.
    void ExpectChain() {
        uint64 last = 0;
        for (const std::string& name : DeltaNames(m_sys)) {
            const DeltaFile delta(m_sys, std::string(DELTAS) + "/" + name);
            EXPECT_EQ(delta.Header().previousTransaction, last);
            EXPECT_EQ(delta.Header().previousTime, m_store.times[last]);
            last = delta.Closing().lastTransaction;
            EXPECT_EQ(delta.Closing().lastTime, m_store.times[last]);
        }
    }

    SimSys m_sys;
    ArchivedStore m_store{m_sys};
};

TEST_F(Archiving, ADeltaIsNamedByItsFirstTransactionAndHoldsWholeDurableOnes) {
    m_store.Open();
    m_store.Transaction();
    m_store.Transaction(true);
    m_store.Transaction(); // not durable
    m_store.Lss()->ArchiveForTest();
    EXPECT_THAT(DeltaNames(m_sys), testing::ElementsAre("00000000000000000001.lssdelta"));
    {
        const DeltaFile delta = Delta("00000000000000000001.lssdelta");
        EXPECT_EQ(delta.Header().firstTransaction, 1u);
        EXPECT_EQ(delta.Header().previousTransaction, 0u);
        EXPECT_EQ(delta.Header().segmentSize, 4096u);
        EXPECT_EQ(delta.Header().storeId, m_store.Lss()->CoreForTest().m_storeId);
        EXPECT_EQ(delta.Closing().lastTransaction, 2u);
        EXPECT_EQ(delta.Closing().nextHigh, 2u);
    }
    m_store.Close(); // writes the last one
    EXPECT_THAT(DeltaNames(m_sys),
                testing::ElementsAre("00000000000000000001.lssdelta", "00000000000000000003.lssdelta"));
    ExpectEveryState();
}

// The next pass begins behind the last whole transaction, though half of another one was durable behind it.
TEST_F(Archiving, ASyncWithinATransactionEndsADeltaBeforeIt) {
    m_store.Open();
    TestLss& lss = m_store.Lss();
    lss.Put("a");
    lss.Put("b"); // in the segment that the next one fills
    AutoCloser<ILssTransaction> half(lss->OpenTransaction());
    AutoCloser<ICloseableOutputStream> os(half->WriteSerialElement(lss.NewSeid()));
    const std::string content = Pattern(12000);
    os->WriteStream(content.data(), std::ssize(content)); // beyond a segment, so that a part is handed over
    lss->Flush();
    lss->ArchiveForTest();
    EXPECT_EQ(ArchivedUpTo(), 2u);
    os.Close();
    half.Close();
    lss->Flush();
    lss->ArchiveForTest();
    EXPECT_EQ(ArchivedUpTo(), 3u);
    const ElementMap expected = lss.All();
    m_store.Close();
    EXPECT_EQ(Restore(m_sys, RestoreTarget::Transaction(3)).lastTransaction, 3u);
    EXPECT_EQ(ElementsOf(m_sys, "d/new"), expected);
}

TEST_F(Archiving, TheFirstBytesOfADeltaAreThoseOfTheFormat) {
    m_store.Open();
    m_store.Transaction();
    m_store.Archive();
    File file(m_sys);
    file.Open(std::string(DELTAS) + "/00000000000000000001.lssdelta", EFileAccess::READ_ONLY);
    octet_t bytes[88];
    file.Read(0, bytes, sizeof bytes);
    EXPECT_EQ(std::string(bytes, bytes + 8), "LSSDELTA");
    EXPECT_EQ(std::memcmp(bytes + 8, m_store.Lss()->CoreForTest().m_storeId.data(), 16), 0);
    EXPECT_EQ(ReadPod<uint32>(bytes + 24), 1u);    // version
    EXPECT_EQ(ReadPod<uint32>(bytes + 28), 4096u); // segment size
    EXPECT_EQ(ReadPod<uint64>(bytes + 32), 1u);    // first transaction
    EXPECT_EQ(ReadPod<uint64>(bytes + 40), 0u);    // the one before
    EXPECT_EQ(ReadPod<uint64>(bytes + 48), 0u);    // its time
    EXPECT_EQ(ReadPod<uint32>(bytes + 60), Crc32c(bytes, 60));
    const uint32 length = ReadPod<uint32>(bytes + 64 + 16);
    std::vector<octet_t> frame(24 + length);
    file.Read(64, frame.data(), std::ssize(frame));
    const uint32 crc =
        Crc32c(frame.data() + 24, std::ssize(frame) - 24, Crc32c(frame.data(), 20, ReadPod<uint32>(bytes + 60)));
    EXPECT_EQ(ReadPod<uint32>(bytes + 64 + 20), crc);
    // As in the store.
    const int64 at = 131072 + int64{ReadPod<uint32>(bytes + 64)} * 4096 + ReadPod<uint32>(bytes + 64 + 4);
    std::vector<octet_t> stored(length);
    m_store.Lss()->CoreForTest().m_file.Read(at, stored.data(), std::ssize(stored));
    EXPECT_EQ(std::memcmp(stored.data(), frame.data() + 24, length), 0);
}

TEST_F(Archiving, WithoutANewTransactionNothingIsWritten) {
    m_store.Open();
    m_store.Transaction();
    m_store.Archive();
    m_store.Archive();
    m_store.AbortedTransaction();
    m_store.Lss()->CleanForTest(4);
    m_store.Archive();
    m_store.Close();
    m_store.Open();
    m_store.Close();
    EXPECT_EQ(DeltaNames(m_sys).size(), 1u);
}

TEST_F(Archiving, EveryStateOfALifeWithManyEndsCanBeRestored) {
    m_sys.StopRecording();
    for (uint64 seed = 1; seed <= 4 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        SimSys sys;
        sys.StopRecording();
        ArchivedStore store(sys, seed);
        store.SetDeltaBytes(seed % 2 ? 1 : 8000);
        store.Open();
        store.Close();
        CopyFile(sys, "d/store", "d/base");
        store.Open();
        while (store.Last() < 80) {
            store.Step();
            if (store.Pick(12) != 0) continue;
            // Killed or closed; the next life goes on.
            store.Pick(2) ? store.Close() : store.Kill();
            store.Open();
        }
        store.Close();
        for (uint64 n = 0; n <= store.Last() && !HasFailure(); ++n) {
            SCOPED_TRACE("transaction " + std::to_string(n));
            Restore(sys, RestoreTarget::Transaction(n));
            EXPECT_EQ(ElementsOf(sys, "d/new"), store.states[n]);
        }
    }
}

TEST_F(Archiving, SegmentsThatAreNotArchivedAreNeitherCleanedNorFreed) {
    m_store.Open();
    const Seid seid = m_store.Lss().NewSeid();
    for (int i = 0; i < 40; ++i) {
        m_store.Put(seid, Pattern(900, static_cast<unsigned>(i)));
    }
    m_store.Lss()->CheckpointForTest();
    m_store.Lss()->CheckpointForTest();
    EXPECT_EQ(m_store.Lss()->CleanForTest(64), 0);
    const ssize_t free = m_store.Lss()->SpaceForTest().NumFree();
    m_store.Archive();
    EXPECT_EQ(ArchivedUpTo(), 40u);
    EXPECT_GT(m_store.Lss()->CleanForTest(64), 0);
    m_store.Lss()->CheckpointForTest();
    EXPECT_GT(m_store.Lss()->SpaceForTest().NumFree(), free + 4);
    m_store.Close();
    ExpectEveryState();
}

TEST_F(Archiving, TheCheckpointHeaderSaysHowFarTheArchiveIs) {
    const auto inHeader = [&] {
        File file(m_sys);
        file.Open("d/store", EFileAccess::READ_ONLY);
        uint64 newest = 0;
        uint64 archived = 0;
        for (const int64 at : {int64{0}, int64{4096}}) {
            CheckpointHeader header{};
            file.Read(at, &header, sizeof header);
            if (header.checkpointSequence <= newest) continue;
            newest = header.checkpointSequence;
            archived = header.archivedUpTo;
        }
        return archived;
    };
    m_store.Open();
    for (int i = 0; i < 3; ++i) m_store.Transaction(true);
    m_store.Lss()->CheckpointForTest();
    EXPECT_EQ(inHeader(), 0u);
    const uint64 archived = m_store.Last();
    m_store.Archive();
    m_store.Transaction();
    m_store.Lss()->CheckpointForTest();
    EXPECT_EQ(inHeader(), archived);
    m_store.Close();
    EXPECT_EQ(inHeader(), m_store.Last());
    m_store.Open(nullptr); // kept by a life without an archive
    m_store.Transaction();
    m_store.Close();
    EXPECT_EQ(inHeader(), m_store.Last() - 1);
}

// In each segment something stays live, so that none is freed. (One of a single sector would hold nothing but a LINK after
// a recovery.)
TEST_F(Archiving, ALifeWithoutTheArchiveIsCaughtUpWithIfTheLogStillHasIt) {
    SimSys sys;
    LssSettings settings = ArchivedSettings();
    settings.segmentSize = 8192;
    ArchivedStore store(sys, 1, settings);
    store.Open();
    store.PutNew(300);
    store.Close();
    CopyFile(sys, "d/store", "d/base");
    store.Open(nullptr);
    for (int i = 0; i < 4; ++i) store.PutNew(500);
    store.Kill();
    store.Open(nullptr);
    for (int i = 0; i < 4; ++i) store.PutNew(500);
    store.Close();
    store.Open();
    store.Transaction();
    store.Close();
    EXPECT_EQ(DeltaNames(sys).size(), 2u);
    for (uint64 n = 1; n <= store.Last(); ++n) {
        EXPECT_EQ(Restore(sys, RestoreTarget::Transaction(n)).lastTransaction, n);
        EXPECT_EQ(ElementsOf(sys, "d/new"), store.states[n]);
    }
}

TEST_F(Archiving, AfterAGapANewChainBeginsWhoseBaseMustBeAFreshCopy) {
    m_store.Open();
    for (int i = 0; i < 3; ++i) m_store.Transaction();
    m_store.Close();
    const uint64 before = m_store.Last();
    m_store.Open(nullptr);
    while (m_store.Last() < before + 40) m_store.StepWithoutArchive();
    m_store.Close();
    const uint64 gapEnd = m_store.Last();
    CopyFile(m_sys, "d/store", "d/fresh");
    {
        const TraceCatcher trace;
        m_store.Open();
        EXPECT_THAT(trace.Text(), testing::HasSubstr("begins anew with transaction " + std::to_string(gapEnd + 1)));
    }
    m_store.Transaction();
    m_store.Kill(); // and the new chain is not begun anew again
    {
        const TraceCatcher trace;
        m_store.Open();
        EXPECT_EQ(trace.Text(), "");
    }
    m_store.Transaction();
    m_store.Close();
    ExpectEveryState(gapEnd, "d/fresh");
    ExpectState(before);
    EXPECT_THROW(Restore(m_sys, RestoreTarget::Transaction(gapEnd + 1)), CorruptLSSException);
}

TEST_F(Archiving, DeltasThatWereMovedElsewhereAreNotWrittenAgain) {
    m_store.Open();
    for (int i = 0; i < 5; ++i) m_store.Transaction();
    m_store.Close();
    const uint64 moved = m_store.Last();
    for (const std::string& name : DeltaNames(m_sys))
        ASSERT_TRUE(RenameFile(m_sys, std::string(DELTAS) + "/" + name, "e/" + name, false));
    m_store.Open();
    m_store.Transaction();
    m_store.Close();
    EXPECT_THAT(DeltaNames(m_sys), testing::ElementsAre(DeltaName(moved + 1)));
}

TEST_F(Archiving, AStoreThatWasPutBackIsRefusedTheDirectoryOfItsOldFuture) {
    m_store.Open();
    for (int i = 0; i < 5; ++i) m_store.Transaction();
    m_store.Close();
    Restore(m_sys, RestoreTarget::Transaction(2));
    const auto open = [&](ConstStringZ path) {
        TestLss lss(m_sys, ArchivedSettings(), OM_OPEN_EXISTING, DELTAS, path);
    };
    EXPECT_THROW(open("d/new"), FileException);
    { // and also when it has as many transactions again
        TestLss lss(m_sys, ArchivedSettings(), OM_OPEN_EXISTING, nullptr, "d/new");
        for (uint64 n = 2; n < m_store.Last() + 3; ++n) lss.Put("another future");
        lss.Close();
    }
    EXPECT_THROW(open("d/new"), FileException);
    TestLss lss(m_sys, ArchivedSettings(), OM_OPEN_EXISTING, "d/deltas2", "d/new"); // a directory of its own
}

TEST_F(Archiving, AStoreRestoredToTheEndGoesOnWithItsArchive) {
    m_store.Open();
    for (int i = 0; i < 5; ++i) m_store.Transaction();
    m_store.Close();
    Restore(m_sys, RestoreTarget::End());
    CopyFile(m_sys, "d/new", "d/store");
    m_store.Open();
    for (int i = 0; i < 5; ++i) m_store.Transaction();
    m_store.Close();
    ExpectChain();
    ExpectEveryState();
}

TEST_F(Archiving, TheDirectoryOfAnotherStoreOrADamagedOneIsRefused) {
    m_store.Open();
    m_store.Transaction();
    m_store.Close();
    bool createdNew = false;
    EXPECT_THROW(OpenLssForTest(m_sys, "d/other", DELTAS, createdNew, OM_CREATE_NEW, ArchivedSettings()),
                 FileException);
    EXPECT_FALSE(m_sys.CachedImage().contains("d/other"));
    const std::string path = std::string(DELTAS) + "/" + DeltaNames(m_sys).back();
    {
        File file(m_sys);
        file.Open(path, EFileAccess::READ_WRITE);
        file.Write(100, "x", 1);
    }
    EXPECT_THROW(m_store.Open(), CorruptLSSException);
    m_store.Open(nullptr);
    m_store.Close();
    EXPECT_THROW(OpenLssForTest(m_sys, "d/store", "nowhere/deltas", createdNew, OM_OPEN_EXISTING, ArchivedSettings()),
                 FileException);
}

TEST_F(Archiving, ReadOnlyStoresAndEmptyPathsHaveNoArchive) {
    bool createdNew = false;
    ILogStructuredStore* lss =
        OpenLssForTest(m_sys, "d/store", "nowhere/deltas", createdNew, OM_OPEN_EXISTING_READ_ONLY, ArchivedSettings());
    lss->Close();
    lss = OpenLssForTest(m_sys, "d/store", "", createdNew, OM_OPEN_EXISTING, ArchivedSettings());
    EXPECT_EQ(static_cast<LssStore*>(lss)->ArchiverForTest(), nullptr);
    lss->Close();
}

// A full disk in the directory of the deltas, and every other failure there.
TEST_F(Archiving, WhileTheDirectoryFailsTransactionsGoOnAndTheArchiveCatchesUp) {
    m_store.Open();
    m_store.Transaction();
    m_store.Archive();
    m_sys.FailIn(DELTAS, ENOSPC);
    for (int i = 0; i < 20; ++i) {
        m_store.Transaction(true);
        EXPECT_THROW(m_store.Lss()->ArchiveForTest(), FileException);
        if (i % 5 == 0) m_store.Lss()->CheckpointForTest();
        if (i % 7 == 0) m_store.Lss()->CleanForTest(8);
    }
    EXPECT_EQ(DeltaNames(m_sys).size(), 1u);
    m_sys.Heal();
    m_store.Archive();
    EXPECT_EQ(ArchivedUpTo(), m_store.Last());
    m_sys.FailIn(DELTAS, EIO);
    m_store.Transaction(true);
    {
        const TraceCatcher trace;
        m_store.Close(); // cannot report it
        EXPECT_THAT(trace.Text(), testing::HasSubstr("will try again"));
    }
    m_sys.Heal();
    m_store.Open();
    m_store.Close();
    ExpectChain();
    ExpectEveryState();
}

TEST_F(Archiving, EachFailedCallOfADeltaIsRepeatedWithoutGapOrRepetition) {
    m_store.SetDeltaBytes(3000);
    m_store.Open();
    for (const ESimCall kind : {ESimCall::OPEN, ESimCall::WRITE, ESimCall::SYNC, ESimCall::TRUNCATE, ESimCall::RENAME,
                                ESimCall::SYNC_DIR, ESimCall::READ, ESimCall::REMOVE}) {
        for (int64 n = 1;; ++n) {
            m_store.Transaction(true);
            m_store.Transaction(true);
            m_sys.FailCall(kind, n, EIO, false);
            const int64 failures = m_sys.NumFailures();
            try {
                m_store.Lss()->ArchiveForTest();
            } catch (const FileException&) {
                EXPECT_LT(ArchivedUpTo(), m_store.Last());
            }
            m_sys.Heal();
            if (m_sys.NumFailures() == failures) break;
            if (n % 2) m_store.Lss()->ArchiveForTest();
        }
    }
    m_store.Close();
    ExpectChain();
    ExpectEveryState(m_store.Last() - 10);
}

TEST_F(Archiving, ATransactionLargerThanADeltaIsInOne) {
    m_store.Open();
    m_store.PutNew(200000);
    m_store.Transaction();
    m_store.Close();
    EXPECT_EQ(Delta(DeltaNames(m_sys).front()).Closing().lastTransaction, 1u);
    ExpectEveryState();
}

TEST_F(Archiving, AFailedStoreArchivesWhatWasDurable) {
    m_store.Open();
    m_store.Transaction(true);
    m_store.Transaction(true);
    const uint64 durable = m_store.Last();
    m_store.Transaction();
    m_sys.FailCall(ESimCall::SYNC, 1, EIO, false);
    EXPECT_THROW(m_store.Lss()->Flush(), FileException);
    m_store.Close();
    EXPECT_EQ(Restore(m_sys, RestoreTarget::End()).lastTransaction, durable);
    EXPECT_EQ(ElementsOf(m_sys, "d/new"), m_store.states[durable]);
}

TEST_F(Archiving, WhatAKilledArchiveHasLeftIsRemovedAndOtherFilesAreLeftAlone) {
    const std::string unfinished = std::string(DELTAS) + "/" + DeltaName(4) + ".part";
    const std::string notes = std::string(DELTAS) + "/notes.txt";
    File(m_sys).Open(unfinished, EFileAccess::CREATE);
    File(m_sys).Open(notes, EFileAccess::CREATE);
    m_store.Open("d/deltas//");
    m_store.Transaction();
    m_store.Close();
    EXPECT_FALSE(m_sys.CachedImage().contains(unfinished));
    EXPECT_TRUE(m_sys.CachedImage().contains(notes));
    EXPECT_EQ(DeltaNames(m_sys).size(), 1u);
    EXPECT_THROW(m_store.Open("/"), FileException); // the root has no directory above it in this imitation
}

TEST_F(Archiving, ADirectoryThatCantBeSyncedOrListedRefusesTheOpen) {
    for (const ESimCall kind : {ESimCall::MAKE_DIR, ESimCall::SYNC_DIR, ESimCall::LIST_DIR}) {
        m_sys.FailCall(kind, 1, EIO, false);
        EXPECT_THROW(m_store.Open(), FileException);
        m_sys.Heal();
    }
}

} // namespace
} // namespace quna

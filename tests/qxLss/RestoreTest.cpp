// Restoring from a copy and an archive: to each transaction, to a time, and the refusals.
#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/TimeText.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxLss/ArchivedStore.h"
#include "tests/support/ForwardingSys.h"
#include "tests/support/TempDir.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quna {
namespace {

std::string TextOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const ExceptionBase& e) {
        return e.GetMessage();
    }
    return "no exception";
}

// A store with some transactions, archived, closed, and a base that was copied on the way.
class Restoring : public testing::Test {
protected:
    void Fill(uint64 baseAt, uint64 transactions, int64 deltaBytes = 20000, uint64 seed = 1) {
        m_sys = std::make_unique<SimSys>();
        if (!m_isRecorded) m_sys->StopRecording();
        m_store = std::make_unique<ArchivedStore>(*m_sys, seed);
        m_store->SetDeltaBytes(deltaBytes);
        m_store->Open();
        while (m_store->Last() < baseAt) m_store->Step();
        m_store->Close();
        CopyFile(*m_sys, "d/store", "d/base");
        m_baseAt = m_store->Last();
        m_store->Open();
        while (m_store->Last() < transactions) m_store->Step();
        m_store->Close();
    }
    RestoredLss RestoreTo(RestoreTarget target) { return Restore(*m_sys, target); }
    void ExpectState(uint64 transaction) {
        SCOPED_TRACE("transaction " + std::to_string(transaction));
        EXPECT_EQ(ElementsOf(*m_sys, "d/new"), m_store->states[transaction]);
    }
    std::string PathOf(const std::string& delta) { return std::string(DELTAS) + "/" + delta; }
    FileBytes BytesOf(const std::string& path) {
        File file(*m_sys);
        file.Open(path, EFileAccess::READ_ONLY);
        FileBytes bytes(static_cast<size_t>(file.Size()));
        file.Read(0, bytes.data(), std::ssize(bytes));
        return bytes;
    }
    void Put(const std::string& path, const FileBytes& bytes) {
        RemoveFile(*m_sys, path);
        File file(*m_sys);
        file.Open(path, EFileAccess::CREATE);
        file.Write(0, bytes.data(), std::ssize(bytes));
    }
    bool Exists(const std::string& path) {
        File file(*m_sys);
        return file.TryOpen(path, EFileAccess::READ_ONLY);
    }
    // Refused, and nothing is left.
    template <class Exception>
    std::string ExpectRefusal(RestoreTarget target, const std::string& base = "d/base",
                              const std::string& deltas = DELTAS) {
        EXPECT_THROW(Restore(*m_sys, target, base, deltas), Exception);
        EXPECT_FALSE(Exists("d/new"));
        EXPECT_FALSE(Exists("d/new.part"));
        return TextOf([&] { Restore(*m_sys, target, base, deltas); });
    }

    std::unique_ptr<SimSys> m_sys;
    std::unique_ptr<ArchivedStore> m_store;
    uint64 m_baseAt = 0;
    bool m_isRecorded = false; // needed where a sync fails
};

TEST_F(Restoring, ACopyAndTheDeltasSinceGiveTheStoreAfterTheLastTransaction) {
    Fill(5, 60);
    const FileBytes base = BytesOf("d/base");
    const RestoredLss restored = RestoreTo(RestoreTarget::End());
    EXPECT_EQ(restored.lastTransaction, m_store->Last());
    EXPECT_EQ(restored.time, m_store->times.back());
    EXPECT_EQ(restored.numReplayed, m_store->Last() - m_baseAt);
    ExpectState(m_store->Last());
    EXPECT_EQ(BytesOf("d/base"), base);
    EXPECT_FALSE(Exists("d/new.part"));
}

TEST_F(Restoring, ABaseWithEmptySegmentsAtItsEndIsCopied) {
    Fill(20, 40);
    {
        File base(*m_sys);
        base.Open("d/base", EFileAccess::READ_WRITE);
        base.Truncate(base.Size() + (3 << 20));
    }
    EXPECT_EQ(RestoreTo(RestoreTarget::End()).numReplayed, m_store->Last() - m_baseAt);
    ExpectState(m_store->Last());
}

TEST_F(Restoring, EveryTransactionFromTheBaseOnCanBeRestored) {
    for (uint64 seed = 1; seed <= 3; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Fill(7, 60, seed == 1 ? 1 : 20000, seed);
        EXPECT_GT(DeltaNames(*m_sys).size(), seed == 1 ? 10u : 1u);
        for (uint64 n = m_baseAt; n <= m_store->Last() && !HasFailure(); ++n) {
            EXPECT_EQ(RestoreTo(RestoreTarget::Transaction(n)).lastTransaction, n);
            ExpectState(n);
        }
    }
}

TEST_F(Restoring, EveryTimeGivesTheStoreInFrontOfTheFirstLaterTransaction) {
    Fill(5, 40);
    for (uint64 n = m_baseAt + 1; n <= m_store->Last(); n += 3) {
        const uint64 time = m_store->times[n];
        EXPECT_EQ(RestoreTo(RestoreTarget::Time(time)).lastTransaction, n);
        ExpectState(n);
        EXPECT_EQ(RestoreTo(RestoreTarget::Time(time - 1)).lastTransaction, n - 1);
        ExpectState(n - 1);
    }
    EXPECT_EQ(RestoreTo(RestoreTarget::Time(m_store->times.back() + 1)).lastTransaction, m_store->Last());
    EXPECT_THAT(ExpectRefusal<FileException>(RestoreTarget::Time(m_store->times[m_baseAt] - 1)),
                testing::HasSubstr("already has transaction " + std::to_string(m_baseAt)));
}

TEST_F(Restoring, AnyCopyOfTheStoreIsABase) {
    Fill(5, 30);
    m_store->Open();
    m_store->Transaction();
    m_store->Lss()->Flush();
    CopyFile(*m_sys, "d/store", "d/base2"); // as a kill leaves it: its own tail is taken over first
    const uint64 baseAt = m_store->Last();
    while (m_store->Last() < baseAt + 10) m_store->Step();
    m_store->Close();
    for (uint64 n = baseAt; n <= m_store->Last(); ++n) {
        EXPECT_EQ(Restore(*m_sys, RestoreTarget::Transaction(n), "d/base2").numReplayed, n - baseAt);
        ExpectState(n);
    }
    // A base as new as the archive.
    EXPECT_EQ(Restore(*m_sys, RestoreTarget::End(), "d/store").numReplayed, 0u);
    ExpectState(m_store->Last());
}

TEST_F(Restoring, TheEmptyStoreIsABase) {
    m_sys = std::make_unique<SimSys>();
    m_store = std::make_unique<ArchivedStore>(*m_sys);
    m_store->Open();
    m_store->Close();
    CopyFile(*m_sys, "d/store", "d/base");
    m_store->Open();
    while (m_store->Last() < 20) m_store->Step();
    m_store->Close();
    for (uint64 n = 0; n <= m_store->Last(); ++n) {
        EXPECT_EQ(RestoreTo(RestoreTarget::Transaction(n)).lastTransaction, n);
        ExpectState(n);
    }
}

TEST_F(Restoring, ARestoredStoreGoesOnBehindItsLastTransactionAndHandsOutNoIdentifierAgain) {
    Fill(5, 40);
    m_store->Open();
    std::set<uint64> spent;
    std::set<SeidHigh> highs{m_store->Lss()->AllocateSeidHigh()};
    for (int i = 0; i < 9000; ++i) spent.insert(m_store->Lss().NewSeid().value_);
    spent.insert(m_store->Lss()->AllocateSeid(*highs.begin()).value_);
    m_store->Transaction();
    m_store->Close();
    const uint64 last = m_store->Last();
    RestoreTo(RestoreTarget::Transaction(last));
    TestLss lss(*m_sys, SmallSegments(), OM_OPEN_EXISTING, nullptr, "d/new");
    int repeated = 0;
    for (int i = 0; i < 3000; ++i) repeated += spent.contains(lss.NewSeid().value_) ? 1 : 0;
    EXPECT_EQ(repeated, 0);
    EXPECT_FALSE(spent.contains(lss->AllocateSeid(*highs.begin()).value_));
    EXPECT_FALSE(highs.contains(lss->AllocateSeidHigh()));
    const Seid seid = lss.Put("more");
    EXPECT_EQ(lss->LastTransaction(), last + 1);
    EXPECT_EQ(lss.Get(seid), "more");
}

TEST_F(Restoring, ATargetThatTheArchiveDoesNotReachIsRefusedWithTheLastTransactionThereIs) {
    Fill(5, 30);
    const std::string last = std::to_string(m_store->Last());
    EXPECT_THAT(ExpectRefusal<FileException>(RestoreTarget::Transaction(m_store->Last() + 1)),
                testing::HasSubstr("the last one that there is is " + last));
    EXPECT_THAT(ExpectRefusal<FileException>(RestoreTarget::Transaction(m_baseAt - 1)),
                testing::HasSubstr("already has transaction " + std::to_string(m_baseAt)));
}

TEST_F(Restoring, WhatIsMissingOrInUseIsRefused) {
    Fill(5, 20);
    EXPECT_THAT(ExpectRefusal<FileException>(RestoreTarget::End(), "d/none"), testing::HasSubstr("does not exist"));
    EXPECT_THAT(ExpectRefusal<FileException>(RestoreTarget::End(), "d/base", "d/nothing"),
                testing::HasSubstr("d/nothing"));
    EXPECT_THROW(RestoreLssForTest(*m_sys, "d/base", DELTAS, RestoreTarget::End(), "d/store"), FileException);
    EXPECT_THROW(RestoreLssForTest(*m_sys, "d/base", DELTAS, RestoreTarget::End(), ""), FileException);
    m_store->Open();
    EXPECT_THAT(ExpectRefusal<FileException>(RestoreTarget::End(), "d/store"), testing::HasSubstr("in use"));
    Put("d/noStore", FileBytes(10000, octet_t{1}));
    ExpectRefusal<CorruptLSSException>(RestoreTarget::End(), "d/noStore");
}

TEST_F(Restoring, AMissingDeltaIsAGapUnlessTheTargetComesBeforeIt) {
    Fill(5, 60, 2000);
    const std::vector<std::string> names = DeltaNames(*m_sys);
    ASSERT_GT(names.size(), 5u);
    const std::string& gone = names[names.size() - 3];
    const uint64 first = *TransactionOfDeltaName(gone);
    RemoveFile(*m_sys, PathOf(gone));
    EXPECT_THAT(ExpectRefusal<CorruptLSSException>(RestoreTarget::End()),
                testing::AllOf(testing::HasSubstr("gap"), testing::HasSubstr(names[names.size() - 2]),
                               testing::HasSubstr("expected " + std::to_string(first - 1))));
    EXPECT_EQ(RestoreTo(RestoreTarget::Transaction(first - 1)).lastTransaction, first - 1);
    ExpectState(first - 1);
}

TEST_F(Restoring, ADeltaOfAnotherStoreIsRefused) {
    Fill(5, 30, 1000);
    const std::vector<std::string> names = DeltaNames(*m_sys);
    SimSys other;
    octet_t burnt[16];
    other.RandomBytes(burnt, sizeof burnt); // another store id
    ArchivedStore store(other, 2);
    store.SetDeltaBytes(1);
    store.Open();
    while (store.Last() < 40) store.Transaction(true);
    store.Close();
    for (const std::string& name : names) {
        const DiskImage image = other.CachedImage();
        if (!image.contains(PathOf(name)) || *TransactionOfDeltaName(name) <= m_baseAt) continue;
        Put(PathOf(name), image.at(PathOf(name)));
        EXPECT_THAT(ExpectRefusal<CorruptLSSException>(RestoreTarget::End()),
                    testing::AllOf(testing::HasSubstr("store id"), testing::HasSubstr(name)));
        return;
    }
    FAIL() << "no delta of the same name";
}

TEST_F(Restoring, DamageOfAnyBitOfADeltaIsRefused) {
    Fill(3, 12, 1 << 20);
    const std::vector<std::string> names = DeltaNames(*m_sys);
    const std::string path = PathOf(names.back());
    const FileBytes whole = BytesOf(path);
    std::mt19937_64 random(1);
    for (size_t i = 0; i < whole.size(); i += 1 + random() % 97) {
        FileBytes damaged = whole;
        damaged[i] = static_cast<octet_t>(damaged[i] ^ (1 << random() % 8));
        Put(path, damaged);
        EXPECT_THROW(DeltaFile(*m_sys, path), CorruptLSSException) << "byte " << i;
    }
    FileBytes damaged = whole;
    damaged[whole.size() / 2] ^= 1;
    Put(path, damaged);
    EXPECT_THAT(ExpectRefusal<CorruptLSSException>(RestoreTarget::End()),
                testing::AllOf(testing::HasSubstr(path), testing::HasSubstr("offset"), testing::HasSubstr("found"),
                               testing::HasSubstr("expected")));
}

TEST_F(Restoring, ADeltaThatIsCutOrLengthenedIsRefused) {
    Fill(3, 12, 1 << 20);
    const std::string path = PathOf(DeltaNames(*m_sys).back());
    const FileBytes whole = BytesOf(path);
    std::mt19937_64 random(2);
    for (size_t n = 0; n < whole.size(); n += 1 + random() % 61) {
        Put(path, FileBytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n)));
        EXPECT_THROW(DeltaFile(*m_sys, path), CorruptLSSException) << n << " bytes";
    }
    FileBytes longer = whole;
    longer.push_back(0);
    Put(path, longer);
    EXPECT_THROW(DeltaFile(*m_sys, path), CorruptLSSException);
    Put(path, whole);
    EXPECT_NO_THROW(DeltaFile(*m_sys, path));
}

// Whole frames of it, moved about: each would verify for itself.
TEST_F(Restoring, FramesInAnotherOrderAreRefused) {
    Fill(3, 4, 1 << 20);
    m_store->Open();
    while (m_store->Last() < 40) m_store->Transaction();
    m_store->Close();
    const std::string path = PathOf(DeltaNames(*m_sys).back());
    const FileBytes whole = BytesOf(path);
    std::vector<std::pair<size_t, size_t>> frames; // from, to
    {
        const DeltaFile delta(*m_sys, path);
        for (const DeltaFile::Frame& frame : delta.Frames())
            frames.emplace_back(static_cast<size_t>(frame.fileOffset) - sizeof(DeltaFrame),
                                static_cast<size_t>(frame.fileOffset) + frame.head.length);
    }
    ASSERT_GT(frames.size(), 3u);
    const auto at = [&](size_t i) { return whole.begin() + static_cast<std::ptrdiff_t>(i); };
    FileBytes without(whole.begin(), at(frames[1].first));
    without.insert(without.end(), at(frames[1].second), whole.end());
    Put(path, without);
    EXPECT_THROW(DeltaFile(*m_sys, path), CorruptLSSException);
    FileBytes twice(whole.begin(), at(frames[1].second));
    twice.insert(twice.end(), at(frames[1].first), whole.end());
    Put(path, twice);
    EXPECT_THROW(DeltaFile(*m_sys, path), CorruptLSSException);
    FileBytes swapped(whole.begin(), at(frames[1].first));
    swapped.insert(swapped.end(), at(frames[2].first), at(frames[2].second));
    swapped.insert(swapped.end(), at(frames[1].first), at(frames[1].second));
    swapped.insert(swapped.end(), at(frames[2].second), whole.end());
    Put(path, swapped);
    EXPECT_THROW(DeltaFile(*m_sys, path), CorruptLSSException);
}

TEST_F(Restoring, ADeltaUnderAnotherNameIsRefused) {
    Fill(5, 40, 2000);
    const std::vector<std::string> names = DeltaNames(*m_sys);
    const std::string& name = names[names.size() - 2];
    const std::string moved = DeltaName(*TransactionOfDeltaName(name) + 1);
    ASSERT_TRUE(RenameFile(*m_sys, PathOf(name), PathOf(moved), false));
    EXPECT_THAT(ExpectRefusal<CorruptLSSException>(RestoreTarget::End()), testing::HasSubstr("name"));
}

// With right checksums, but packets that are none of the user stream's, or counts that are wrong.
TEST_F(Restoring, WrongContentsUnderRightFrameChecksumsAreRefused) {
    Fill(3, 20, 1 << 20);
    const std::string path = PathOf(DeltaNames(*m_sys).back());
    const FileBytes whole = BytesOf(path);
    const auto refitted = [&](const std::function<void(FileBytes&)>& change) {
        FileBytes bytes = whole;
        change(bytes);
        uint32 crc = ReadPod<uint32>(bytes.data() + offsetof(DeltaHeader, crc));
        for (size_t at = sizeof(DeltaHeader); at < bytes.size();) {
            DeltaFrame frame = ReadPod<DeltaFrame>(bytes.data() + at);
            crc = Crc32c(bytes.data() + at + sizeof frame, static_cast<ssize_t>(frame.length),
                         Crc32c(&frame, offsetof(DeltaFrame, crc), crc));
            std::memcpy(bytes.data() + at + offsetof(DeltaFrame, crc), &crc, sizeof crc);
            at += sizeof frame + frame.length;
        }
        return bytes;
    };
    Put(path, refitted([](FileBytes& bytes) { bytes[sizeof(DeltaHeader) + sizeof(DeltaFrame) + 20] ^= 1; }));
    EXPECT_NO_THROW(DeltaFile(*m_sys, path));
    EXPECT_THAT(ExpectRefusal<CorruptLSSException>(RestoreTarget::End()), testing::HasSubstr("a packet"));

    Put(path, refitted([](FileBytes& bytes) { // its first frame is in another place of the log
            bytes[sizeof(DeltaHeader) + offsetof(DeltaFrame, offset)] ^= 8;
        }));
    ExpectRefusal<CorruptLSSException>(RestoreTarget::End());
}

TEST_F(Restoring, AFailedCallEndsTheRestoreAndLeavesNothingBehind) {
    m_isRecorded = true;
    Fill(3, 9);
    for (const ESimCall kind :
         {ESimCall::OPEN, ESimCall::READ, ESimCall::WRITE, ESimCall::WRITE_DURABLE, ESimCall::SYNC, ESimCall::ALLOCATE,
          ESimCall::RENAME, ESimCall::SYNC_DIR, ESimCall::TRUNCATE, ESimCall::LIST_DIR}) {
        for (int64 n = 1;; n += 1 + n / 4) {
            RemoveFile(*m_sys, "d/new");
            m_sys->FailCall(kind, n, EIO, false);
            const int64 failures = m_sys->NumFailures();
            bool refused = false;
            try {
                RestoreTo(RestoreTarget::End());
            } catch (const FileException&) {
                refused = true;
            } catch (const CorruptLSSException&) {
                refused = true;
            }
            m_sys->Heal();
            if (m_sys->NumFailures() == failures) break;
            EXPECT_FALSE(Exists("d/new.part"));
            if (!refused || Exists("d/new")) ExpectState(m_store->Last()); // a failed sync of the directory comes last
            ASSERT_FALSE(HasFailure()) << "call " << static_cast<int>(kind) << " number " << n;
        }
    }
}

// Calls back before each change of a file, unless it is a change that the callback makes.
class RivalSys final : public ForwardingSys {
public:
    std::function<void()> beforeChange;

private:
    void BeforeChange() override {
        if (m_isCalling.exchange(true)) return;
        beforeChange();
        m_isCalling = false;
    }

    std::atomic<bool> m_isCalling{false};
};

TEST(RestoringBesideARival, WhoeverBeginsIsAloneUntilTheFileHasItsName) {
    const TempDir dir;
    const std::string deltas = dir.File("deltas");
    const std::string restored = dir.File("new");
    bool createdNew = false;
    for (const EOpenMode mode : {OM_CREATE_NEW, OM_OPEN_EXISTING}) {
        if (mode == OM_OPEN_EXISTING) std::filesystem::copy_file(dir.File("store"), dir.File("base"));
        ILogStructuredStore* const lss =
            CreateOrOpenLSS(dir.File("store").c_str(), deltas.c_str(), createdNew, mode, LssSettings());
        if (createdNew) lss->AllocateSeidHigh();
        {
            AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
            TestLss::Write(*txn.Get(), lss->AllocateSeid(1), "content");
            txn.Close();
        }
        lss->Close();
    }
    int refused = 0;
    RivalSys sys;
    sys.beforeChange = [&] {
        if (!std::filesystem::exists(restored + ".part")) return;
        EXPECT_THAT(
            TextOf(
                [&] { RestoreLss(dir.File("base").c_str(), deltas.c_str(), RestoreTarget::End(), restored.c_str()); }),
            testing::HasSubstr("Can't restore the store '" + restored + "': another copy is being written there"));
        ++refused;
    };
    const RestoredLss result =
        RestoreLssForTest(sys, dir.File("base").c_str(), deltas.c_str(), RestoreTarget::End(), restored.c_str());
    EXPECT_EQ(result.lastTransaction, 2u);
    EXPECT_GT(refused, 5);
    TestLss lss(RealSysCalls(), SmallSegments(), OM_OPEN_EXISTING_READ_ONLY, nullptr, restored.c_str());
    EXPECT_EQ(lss->LastTransaction(), 2u);
}

TEST_F(Restoring, ATimeBeforeTheBaseIsRefusedInWords) {
    Fill(3, 9);
    EXPECT_THAT(ExpectRefusal<FileException>(RestoreTarget::Time(10'000'000)),
                testing::HasSubstr("the time 1970-01-01T00:00:01Z is wanted, and its base 'd/base' already has "
                                   "transaction " +
                                   std::to_string(m_baseAt) + " of " + TimeText(m_store->times[m_baseAt])));
}

} // namespace
} // namespace quna

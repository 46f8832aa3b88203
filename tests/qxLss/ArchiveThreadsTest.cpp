// The archive beside writers, readers and the cleaner, on a real disk.
#include "qxLss/ILogStructuredStore.h"
#include "qxLss/Restore.h"
#include "qxLss/src/LssStore.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxLss/ArchivedStore.h"
#include "tests/support/TempDir.h"
#include "tests/support/TraceCatcher.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

// All elements that one transaction writes hold its number, which one of them holds always.
class ArchivingThreads : public testing::Test {
protected:
    static constexpr int NUM_ELEMENTS = 200;
    static constexpr size_t WORDS = 4096;

    void Write(ILogStructuredStore& lss, uint64 seed, int transactions) {
        std::mt19937_64 random(seed);
        for (int i = 0; i < transactions; ++i) {
            AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
            const uint64 number = ++m_number; // the turn orders the transactions
            for (int k = 0; k < 10; ++k) {
                const size_t which = k == 0 ? 0 : random() % NUM_ELEMENTS;
                const std::vector<uint64> words(1 + random() % WORDS, number);
                AutoCloser<ICloseableOutputStream> os(txn->WriteSerialElement(m_seids[which]));
                os->WriteStream(words.data(), static_cast<ssize_t>(words.size() * sizeof(uint64)));
                os.Close();
            }
            txn.Close();
        }
    }

    // The number of the last transaction; 0 if an element holds another number all over, or a later one.
    uint64 NumberOf(ILogStructuredStore& lss) {
        uint64 number = 0;
        for (const Seid seid : m_seids) {
            AutoCloser<IContiguousSerialElement> element(lss.OpenSerialElement(seid));
            if (!element) continue;
            const ReadOnlyBuffer b = element->GetBuffer();
            uint64 first = 0;
            std::memcpy(&first, b.buffer, sizeof first);
            if (number == 0) number = first; // of element 0
            if (first > number || std::memcmp(b.buffer, b.buffer + 8, static_cast<size_t>(b.size - 8)) != 0) return 0;
        }
        return number;
    }

    std::vector<Seid> m_seids;
    uint64 m_number = 0; // guarded by the open transaction
};

TEST_F(ArchivingThreads, TheArchiveFollowsWritersAndTheCleanerAndGivesEveryState) {
    TempDir dir;
    const std::string path = dir.File("store");
    const std::string deltas = dir.File("deltas");
    LssSettings settings;
    settings.segmentSize = 65536;
    settings.flushTimeMilliSec = 2;
    settings.numSegmentsPerCheckPoint = 16;
    bool createdNew = false;
    ILogStructuredStore* lss = CreateOrOpenLSS(path.c_str(), deltas.c_str(), createdNew, OM_CREATE_NEW, settings);
    const SeidHigh high = lss->AllocateSeidHigh();
    for (int i = 0; i < NUM_ELEMENTS; ++i) m_seids.push_back(lss->AllocateSeid(high));
    Write(*lss, 1, 1);
    lss->Close();
    std::filesystem::copy_file(path, dir.File("base"));

    lss = CreateOrOpenLSS(path.c_str(), deltas.c_str(), createdNew, OM_OPEN_EXISTING, settings);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (uint64 seed = 2; seed < 4; ++seed) threads.emplace_back([&, seed] { Write(*lss, seed, 120); });
    threads.emplace_back([&] {
        for (int i = 0; i < 300; ++i) {
            AutoCloser<IContiguousSerialElement> element(lss->OpenSerialElement(m_seids[static_cast<size_t>(i) % 200]));
            if (element && element->GetBuffer().size % 8 != 0) ++wrong;
            if (i % 20 == 0) lss->Flush();
        }
    });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    // 40 MB and more have been written: some deltas before the close.
    lss->Close();
    ssize_t numDeltas = 0;
    for (const auto& entry : std::filesystem::directory_iterator(deltas))
        numDeltas += entry.path().extension() == ".lssdelta" ? 1 : 0;
    EXPECT_GT(numDeltas, 2);

    for (const uint64 n : {uint64{1}, uint64{60}, uint64{177}, m_number}) {
        const std::string restored = dir.File("restored" + std::to_string(n));
        EXPECT_EQ(RestoreLss(dir.File("base").c_str(), deltas.c_str(), RestoreTarget::Transaction(n), restored.c_str())
                      .lastTransaction,
                  n);
        lss = CreateOrOpenLSS(restored.c_str(), nullptr, createdNew, OM_OPEN_EXISTING_READ_ONLY, settings);
        EXPECT_EQ(NumberOf(*lss), n);
        lss->Close();
    }
}

// Neither 16 MiB nor 60 seconds come together here: without the hurry nothing would be archived before the close, and so
// nothing could be cleaned.
TEST(ArchivingInAHurryThreads, AFullDiskHasWhatWaitsArchivedSoThatItCanBeCleaned) {
    constexpr int NUM_WRITES = 200;
    SimSys sys;
    sys.StopRecording();
    TestLss lss(sys, ArchivedSettings(), OM_CREATE_NEW, DELTAS);
    std::vector<Seid> seids;
    for (int i = 0; i < 10; ++i) seids.push_back(lss.NewSeid());
    const auto put = [&](int i) {
        lss.Put(seids[static_cast<size_t>(i) % seids.size()], Pattern(1500, static_cast<unsigned>(i)), true);
    };
    for (int i = 0; i < NUM_WRITES; ++i) put(i);
    EXPECT_TRUE(DeltaNames(sys).empty());
    sys.FailCall(ESimCall::ALLOCATE, 1, ENOSPC, true);
    int done = 0;
    for (int tries = 0; done < NUM_WRITES && tries < 1000; ++tries) {
        try {
            put(done);
            ++done;
        } catch (const FileException& e) { // on a slow machine the wait for archive and cleaner may end too soon
            EXPECT_EQ(e.GetErrno(), ENOSPC);
        }
    }
    EXPECT_EQ(done, NUM_WRITES);
    EXPECT_FALSE(DeltaNames(sys).empty());
    sys.Heal();
    lss.Close();
}

// Each call of Hurry begins an attempt at once, however long the archive would wait.
TEST(ArchiveThreads, AnArchiveThatFailsSaysSoOnceAndGoesOnWhenItCan) {
    SimSys sys;
    TestLss lss(sys, ArchivedSettings(), OM_OPEN_ALWAYS, DELTAS);
    LogArchive& archive = *lss->ArchiverForTest();
    archive.Hurry(); // nothing waits
    const TraceCatcher trace;
    sys.FailIn(DELTAS, EIO);
    lss.Put("element", true);
    while (sys.NumFailures() < 4) archive.Hurry();
    lss.Put("the store goes on");
    sys.Heal();
    while (!trace.Has("goes on, up to transaction")) archive.Hurry();
    const std::string text = trace.Text();
    EXPECT_EQ(text.find("has stopped"), text.rfind("has stopped")) << text;
    EXPECT_EQ(DeltaNames(sys).size(), 1u);
    // A full disk: what waits is archived at once.
    sys.FailCall(ESimCall::ALLOCATE, 1, ENOSPC, true);
    try {
        for (;;) lss.Put(Pattern(3000), true);
    } catch (const FileException& e) {
        EXPECT_EQ(e.GetErrno(), ENOSPC);
    }
    EXPECT_GT(DeltaNames(sys).size(), 1u);
    sys.Heal();
    lss->StopThreadsForTest();
    archive.Hurry(); // nobody would serve it
}

} // namespace
} // namespace quna

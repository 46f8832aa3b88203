#include "tests/qxLss/TestLss.h"
#include "tests/support/TraceCatcher.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr size_t NUM_ELEMENTS = 300;

std::string Versioned(uint64 version, size_t bytes) {
    std::string content(bytes, '\0');
    std::memcpy(content.data(), &version, sizeof version);
    for (size_t i = sizeof version; i < bytes; ++i) content[i] = static_cast<char>(version + i);
    return content;
}

// Reads elements at random: each must be whole, and never older than it was seen before.
void ReadUntil(const std::atomic<bool>& stop, TestLss& lss, unsigned seed, std::atomic<int>& faults) {
    TestRandom random(seed);
    std::vector<uint64> seen(NUM_ELEMENTS);
    while (!stop.load()) {
        const size_t i = random() % NUM_ELEMENTS;
        const std::optional<std::string> content = lss.Get(Seid(static_cast<uint32>(i), 1));
        if (!content) continue;
        uint64 version = 0;
        std::memcpy(&version, content->data(), sizeof version);
        if (version < seen[i] || *content != Versioned(version, content->size())) ++faults;
        seen[i] = version;
    }
}

void RunReadersBesideAWriter(bool buffered) {
    SimSys sys;
    sys.StopRecording();
    LssSettings settings = SmallSegments();
    settings.numSegmentsPerCheckPoint = 8;
    settings.flushTimeMilliSec = 2;
    settings.enableFileBuffering = buffered;
    settings.validateSUTDuringCheckPoint = false;
    TestLss lss(sys, settings);
    for (size_t i = 0; i < NUM_ELEMENTS; ++i) lss.NewSeid();
    std::atomic<bool> stop{false};
    std::atomic<int> faults{0};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 2; ++t) threads.emplace_back([&, t] { ReadUntil(stop, lss, t, faults); });
    threads.emplace_back([&] {
        TestRandom random(77);
        while (!stop.load()) {
            Seid seid(random() % 300, 1);
            lss->AllocateAffiliateSeid(seid);
            lss.NewSeid();
            lss.Stats();
            if (random() % 20 == 0) lss->Flush();
        }
    });
    TestRandom random(3);
    uint64 version = 0;
    for (int t = 0; t < 600; ++t) {
        AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
        for (int k = 0; k < 6; ++k)
            TestLss::Write(*txn.Get(), Seid(random() % NUM_ELEMENTS, 1),
                           Versioned(++version, 8 + random() % (random() % 20 ? 100 : 9000)));
        txn.Close();
    }
    stop.store(true);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(faults.load(), 0);
    lss->Validate();
}

TEST(LssStoreThreads, ReadersSeeWholeElementsBesideAWriter) { RunReadersBesideAWriter(false); }

TEST(LssStoreThreads, ReadersSeeWholeElementsBesideABufferedWriter) { RunReadersBesideAWriter(true); }

TEST(LssStoreThreads, TransactionsOfSeveralThreadsAreServedInTurn) {
    SimSys sys;
    sys.StopRecording();
    TestLss lss(sys);
    const Seid seid = lss.Put(std::string(8, '\0'));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
                uint64 count = 0;
                std::memcpy(&count, lss.Get(seid)->data(), sizeof count);
                ++count;
                TestLss::Write(*txn.Get(), seid, std::string(reinterpret_cast<const char*>(&count), sizeof count));
                if (i % 10 == 0) txn->RequestFlushToDisk();
                txn.Close();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    uint64 count = 0;
    std::memcpy(&count, lss.Get(seid)->data(), sizeof count);
    EXPECT_EQ(count, 400u);
}

// A second failure returns at once, and its thread goes on as the first one's does: by then nothing may be written.
TEST(StoreCoreThreads, WhoeverHasReportedAFailureFindsThatTheStoreHasFailed) {
    constexpr int NUM_ROUNDS = 4000;
    constexpr std::chrono::seconds LONGEST{2}; // a round waits for its turn twice, which takes long on a busy machine
    const TraceCatcher trace;
    SimSys sys;
    std::atomic<int> begun{0};
    std::atomic<int> ended{0};
    std::atomic<int> wrong{0};
    std::unique_ptr<StoreCore> core;
    const auto fail = [&] {
        core->Fail("no disk");
        if (!core->HasFailed()) ++wrong;
    };
    std::atomic<bool> over{false};
    std::thread other([&] {
        for (int i = 1;; ++i) {
            while (begun < i && !over) std::this_thread::yield();
            if (over) return;
            fail();
            ended = i;
        }
    });
    const auto start = std::chrono::steady_clock::now();
    for (int i = 1; i <= NUM_ROUNDS && std::chrono::steady_clock::now() - start < LONGEST; ++i) {
        core = std::make_unique<StoreCore>(sys);
        begun = i;
        fail();
        while (ended < i) std::this_thread::yield();
    }
    over = true;
    other.join();
    EXPECT_EQ(wrong, 0);
}

} // namespace
} // namespace quna

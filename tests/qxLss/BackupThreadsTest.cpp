// Copies of a store while others read and write it.
#include "qxLss/Backup.h"
#include "qxLss/src/LssStore.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxLss/TestLss.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr size_t NUM_ELEMENTS = 200;

// What each transaction has left: element k holds `numbers[k]` after the transaction of that place.
using Numbers = std::vector<uint32>;

class BackupThreads : public testing::Test {
protected:
    BackupThreads() {
        m_sys.StopRecording();
        m_settings.segmentSize = 16384;
        m_settings.numSegmentsPerCheckPoint = 4;
        m_settings.flushTimeMilliSec = 1;
        bool createdNew = false;
        m_store =
            static_cast<LssStore*>(OpenLssForTest(m_sys, "d/store", nullptr, createdNew, OM_CREATE_NEW, m_settings));
        const SeidHigh high = m_store->AllocateSeidHigh();
        for (size_t k = 0; k < NUM_ELEMENTS; ++k) m_seids.push_back(m_store->AllocateSeid(high));
        AutoCloser<ILssTransaction> txn(m_store->OpenTransaction());
        for (const Seid seid : m_seids) Write(*txn.Get(), seid, 0, 50);
        txn.Close();
        m_states.push_back(Numbers(NUM_ELEMENTS, 0)); // transaction 1
    }
    ~BackupThreads() override {
        if (m_store) m_store->Close();
    }

    static void Write(ILssTransaction& txn, Seid seid, uint32 number, size_t words) {
        const std::vector<uint32> content(words, number * 1000 + seid.low_);
        AutoCloser<ICloseableOutputStream> stream(txn.WriteSerialElement(seid));
        stream->WriteStream(content.data(), static_cast<ssize_t>(words * sizeof(uint32)));
        stream.Close();
    }
    // The number of a whole element.
    static uint32 NumberIn(Seid seid, const ReadOnlyBuffer& b) {
        uint32 first = 0;
        std::memcpy(&first, b.buffer, sizeof first);
        for (ssize_t at = 0; at < b.size; at += 4) EXPECT_EQ(std::memcmp(b.buffer + at, &first, 4), 0);
        EXPECT_EQ(first % 1000, seid.low_);
        return first / 1000;
    }

    // The only writer. Stops when told to.
    void WriteOn() {
        std::mt19937_64 random(5);
        Numbers numbers(NUM_ELEMENTS, 0);
        for (uint32 number = 1; !m_stop; ++number) {
            AutoCloser<ILssTransaction> txn(m_store->OpenTransaction());
            for (int i = 0; i < 8; ++i) {
                const size_t k = random() % NUM_ELEMENTS;
                Write(*txn.Get(), m_seids[k], number, random() % 64 == 0 ? 9000 : 30 + random() % 200);
                numbers[k] = number;
            }
            {
                std::lock_guard lock(m_mutex); // before a copy can have it
                m_states.push_back(numbers);
            }
            txn.Close();
        }
    }
    void ReadOn() {
        std::mt19937_64 random(6);
        while (!m_stop) {
            const Seid seid = m_seids[random() % NUM_ELEMENTS];
            AutoCloser<IContiguousSerialElement> element(m_store->OpenSerialElement(seid));
            NumberIn(seid, element->GetBuffer());
        }
    }
    void ExpectCopy(const BackupResult& result) {
        ASSERT_TRUE(result.completed);
        SimSys sys(ImageOf(m_sys.CachedImage().at("d/copy")));
        TestLss copy(sys);
        Numbers expected;
        {
            std::lock_guard lock(m_mutex);
            expected = m_states.at(result.transaction - 1);
        }
        for (size_t k = 0; k < NUM_ELEMENTS; ++k) {
            AutoCloser<IContiguousSerialElement> element(copy->OpenSerialElement(m_seids[k]));
            EXPECT_EQ(NumberIn(m_seids[k], element->GetBuffer()), expected[k]);
        }
        copy->Validate();
    }

    SimSys m_sys;
    LssSettings m_settings;
    LssStore* m_store = nullptr;
    std::vector<Seid> m_seids;
    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;
    std::vector<Numbers> m_states; // guarded by m_mutex
};

TEST_F(BackupThreads, EveryCopyIsTheStateAfterItsTransactionWhileWritersReadersAndTheCleanerGoOn) {
    std::thread writer([this] { WriteOn(); });
    std::thread reader([this] { ReadOn(); });
    BackupOptions options;
    options.replaceExisting = true;
    for (int i = 0; i < 6; ++i) {
        ExpectCopy(i % 3 == 2 ? m_store->CopyCompacted("d/copy", options) : m_store->Backup("d/copy", options));
    }
    m_stop = true;
    writer.join();
    reader.join();
    m_store->Validate();
}

TEST_F(BackupThreads, ClosingTheStoreCancelsTheCopyAndWaitsForItsEnd) {
    for (const bool compacting : {false, true}) {
        std::atomic<bool> begun{false};
        BackupResult result;
        std::thread copier([&] {
            BackupOptions options;
            options.progress = [&](const BackupProgress&) {
                begun = true;
                begun.notify_all();
                // Until the store is being closed: then the next report cancels.
                while (!m_stop) std::this_thread::yield();
                return true;
            };
            result = compacting ? m_store->CopyCompacted("d/copy", options) : m_store->Backup("d/copy", options);
        });
        begun.wait(false);
        std::thread closer([&] { m_store->Close(); });
        m_stop = true;
        copier.join();
        closer.join();
        EXPECT_FALSE(m_sys.CachedImage().contains("d/copy.part"));
        EXPECT_EQ(m_sys.CachedImage().contains("d/copy"), result.completed);
        if (result.completed) RemoveFile(m_sys, "d/copy");
        m_stop = false;
        bool createdNew = false;
        m_store =
            static_cast<LssStore*>(OpenLssForTest(m_sys, "d/store", nullptr, createdNew, OM_OPEN_EXISTING, m_settings));
    }
}

} // namespace
} // namespace quna

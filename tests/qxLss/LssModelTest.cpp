// The store beside a std::map: random transactions, deletions, long elements, checkpoints and reopening.
#include "qxLss/src/LssStore.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"
#include "tests/support/SimSys.h"
#include "tests/support/TempDir.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using Bytes = std::string;

// A store and what it must hold.
class ModelledStore {
public:
    ModelledStore(SysCalls& sys, std::string path, uint64 seed, int segmentSize)
        : m_sys(sys), m_path(std::move(path)), m_random(seed) {
        m_settings.segmentSize = segmentSize;
        m_settings.numSegmentsPerCheckPoint = 16;
        m_settings.flushTimeMilliSec = seed % 3 == 0 ? 0 : 1;
        m_settings.enableFileBuffering = seed % 4 == 1;
        m_settings.enableWriteThrough = seed % 5 == 1;
        m_settings.validateSUTDuringCheckPoint = seed % 2 == 0;
        m_settings.forceIncrementMSSN = seed % 7 == 0;
        Open(true);
        m_highs = m_store->AllocateSeidHigh();
    }
    ModelledStore(const ModelledStore&) = delete;
    ModelledStore& operator=(const ModelledStore&) = delete;
    ~ModelledStore() {
        if (m_store) m_store->Close();
    }

    void Step() {
        switch (Pick(40)) {
        case 0: Reopen(true); break;
        // A buffered transaction may die with its process; all others may not.
        case 1: m_settings.enableFileBuffering ? Reopen(true) : Reopen(false); break;
        case 2: m_store->CheckpointForTest(); break;
        case 3: m_store->Flush(); break;
        case 4: m_highs = std::max(m_highs, m_store->AllocateSeidHigh()); break;
        case 5: ReadOnlyLook(); break;
        default: Transaction(); break;
        }
        LookAtSome();
    }

    void CompareAll() {
        ssize_t count = 0;
        m_store->VisitElements([&](Seid seid, Location) {
            ++count;
            EXPECT_TRUE(m_model.contains(seid.value_));
        });
        EXPECT_EQ(count, std::ssize(m_model));
        for (const auto& [seid, bytes] : m_model) Expect(Seid(seid));
        LssStats stats;
        m_store->GetStats(stats);
        EXPECT_EQ(stats.numLiveHeadPackets, std::ssize(m_model));
        m_store->Validate();
    }

    void Reopen(bool orderly) {
        LssStore* store = std::exchange(m_store, nullptr);
        orderly ? store->Close() : store->Abandon();
        Open(m_numTransactions == 0 && !orderly);
        CompareAll();
    }

private:
    uint64 Pick(uint64 limit) { return m_random() % limit; }

    void Open(bool isNew) {
        bool createdNew = false;
        m_store = static_cast<LssStore*>(
            OpenLssForTest(m_sys, m_path.c_str(), nullptr, createdNew, OM_OPEN_ALWAYS, m_settings));
        EXPECT_EQ(createdNew, isNew);
        if (isNew) m_known.clear();
        if (isNew && m_highs) m_highs = m_store->AllocateSeidHigh();
    }

    // A reader in the same process is refused while the owner has the file.
    void ReadOnlyLook() {
        bool createdNew = false;
        EXPECT_THROW(OpenLssForTest(m_sys, m_path.c_str(), nullptr, createdNew, OM_OPEN_EXISTING_READ_ONLY, m_settings),
                     FileException);
    }

    void Transaction() {
        AutoCloser<ILssTransaction> transaction(m_store->OpenTransaction());
        if (Pick(8) == 0) transaction->RequestFlushToDisk();
        std::map<uint64, Bytes> after = m_model;
        for (uint64 i = Pick(30); i > 0; --i) {
            const Seid seid = SomeSeid();
            if (Pick(4) == 0) {
                EXPECT_EQ(transaction->DeleteSerialElement(seid), after.erase(seid.value_) == 1);
            } else if (Pick(20) == 0) {
                WriteAndThrow(*transaction.Get(), seid);
            } else {
                after[seid.value_] = Write(*transaction.Get(), seid);
            }
            if (Pick(10) == 0) LookAtSome(); // readers see what was committed before
        }
        transaction.Close();
        ++m_numTransactions;
        m_model = std::move(after);
    }

    Seid SomeSeid() {
        if (m_known.empty() || Pick(3) == 0) {
            Seid seid(m_known.empty() ? 0 : Seid(m_known[Pick(m_known.size())]).low_,
                      1 + static_cast<SeidHigh>(Pick(m_highs)));
            if (Pick(2))
                seid = m_store->AllocateSeid(seid.high_);
            else
                EXPECT_TRUE(m_store->AllocateAffiliateSeid(seid));
            EXPECT_FALSE(m_model.contains(seid.value_));
            m_known.push_back(seid.value_);
            return seid;
        }
        return Seid(m_known[Pick(m_known.size())]);
    }

    Bytes SomeBytes() {
        const uint64 segment = static_cast<uint64>(m_settings.segmentSize);
        const uint64 kind = Pick(60);
        uint64 size = Pick(300);
        if (kind < 3) size = Pick(segment);
        if (kind == 3) size = Pick(5 * segment);
        if (kind == 4) size = segment / 4 - 30 + Pick(60);
        if (kind == 5) size = 0;
        Bytes bytes(size, '\0');
        const uint64 pattern = m_random();
        for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(pattern >> (i % 8 * 8) ^ (i >> 3));
        return bytes;
    }

    Bytes Write(ILssTransaction& transaction, Seid seid) {
        const Bytes bytes = SomeBytes();
        AutoCloser<ICloseableOutputStream> stream(transaction.WriteSerialElement(seid));
        for (size_t at = 0; at < bytes.size();) {
            const size_t n = std::min<size_t>(bytes.size() - at, 1 + Pick(5000));
            stream->WriteStream(bytes.data() + at, static_cast<ssize_t>(n));
            at += n;
        }
        stream.Close();
        return bytes;
    }

    // The element of a stream that is closed by unwinding keeps its old content.
    void WriteAndThrow(ILssTransaction& transaction, Seid seid) {
        try {
            const Bytes bytes = SomeBytes();
            AutoCloser<ICloseableOutputStream> stream(transaction.WriteSerialElement(seid));
            stream->WriteStream(bytes.data(), std::ssize(bytes));
            throw std::runtime_error("application");
        } catch (const std::runtime_error&) {
            return;
        }
    }

    void LookAtSome() {
        for (uint64 i = 0; i < 5 && !m_known.empty(); ++i) Expect(Seid(m_known[Pick(m_known.size())]));
    }

    void Expect(Seid seid) {
        AutoCloser<IContiguousSerialElement> element(m_store->OpenSerialElement(seid));
        const auto expected = m_model.find(seid.value_);
        ASSERT_EQ(element.Get() != nullptr, expected != m_model.end()) << seid.high_ << ':' << seid.low_;
        if (!element.Get()) return;
        const ReadOnlyBuffer buffer = element->GetBuffer();
        ASSERT_EQ(buffer.size, std::ssize(expected->second));
        EXPECT_EQ(std::memcmp(buffer.buffer, expected->second.data(), expected->second.size()), 0);
        EXPECT_EQ(element->GetBuffer().buffer, buffer.buffer);
        // 64 bytes behind an element are readable.
        unsigned sum = 0;
        for (int i = 0; i < 64; ++i) sum += buffer.buffer[buffer.size + i];
        EXPECT_LE(sum, 64u * 255);
    }

    SysCalls& m_sys;
    const std::string m_path;
    std::mt19937_64 m_random;
    LssSettings m_settings;
    LssStore* m_store = nullptr;
    SeidHigh m_highs = 0;
    int64 m_numTransactions = 0;
    std::map<uint64, Bytes> m_model;
    std::vector<uint64> m_known;
};

TEST(LssModel, RandomTransactionsOnARealFileAgreeWithAMap) {
    for (uint64 seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        TempDir dir;
        ModelledStore store(RealSysCalls(), dir.File("store"), seed, 65536);
        for (int i = 0; i < 60 && !testing::Test::HasFailure(); ++i) store.Step();
        store.CompareAll();
        store.Reopen(true);
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

TEST(LssModel, SmallSegmentsOnAnImaginedDiskAgreeWithAMap) {
    for (uint64 seed = 100; seed < 120; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        SimSys sys;
        sys.StopRecording();
        {
            ModelledStore store(sys, "d/store", seed, seed % 2 ? 4096 : 8192);
            for (int i = 0; i < 100 && !testing::Test::HasFailure(); ++i) store.Step();
            store.CompareAll();
            store.Reopen(true);
        }
        EXPECT_EQ(sys.NumOpen(), 0); // nothing is left open
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

// Each element holds its own key and one number all over; all elements that one transaction writes hold the same number.
TEST(LssModelThreads, ReadersSeeWholeElementsWhileOthersWriteAllocateAndFlush) {
    TempDir dir;
    LssSettings settings;
    settings.segmentSize = 65536;
    settings.numSegmentsPerCheckPoint = 2;
    settings.flushTimeMilliSec = 1;
    bool createdNew = false;
    auto store = CreateOrOpenLSS(dir.File("store").c_str(), nullptr, createdNew, OM_CREATE_NEW, settings);
    ASSERT_TRUE(createdNew);
    const SeidHigh high = store->AllocateSeidHigh();
    std::vector<Seid> seids;
    for (int i = 0; i < 50; ++i) seids.push_back(store->AllocateSeid(high));
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};

    auto write = [&](uint64 seed) {
        std::mt19937_64 random(seed);
        for (uint32 number = 1; !stop; ++number) {
            AutoCloser<ILssTransaction> transaction(store->OpenTransaction());
            if (number % 20 == 0) transaction->RequestFlushToDisk();
            for (int i = 0; i < 10; ++i) {
                const Seid seid = seids[random() % seids.size()];
                const size_t n = random() % 30 == 0 ? 20000 : random() % 100;
                std::vector<uint32> words(2 * n + 2);
                for (size_t w = 0; w < words.size(); w += 2) {
                    words[w] = seid.low_;
                    words[w + 1] = number;
                }
                AutoCloser<ICloseableOutputStream> stream(transaction->WriteSerialElement(seid));
                stream->WriteStream(words.data(), static_cast<ssize_t>(words.size() * sizeof(uint32)));
                stream.Close();
            }
            transaction.Close();
        }
    };
    auto read = [&](uint64 seed) {
        std::mt19937_64 random(seed);
        while (!stop) {
            const Seid seid = seids[random() % seids.size()];
            AutoCloser<IContiguousSerialElement> element(store->OpenSerialElement(seid));
            if (!element.Get()) continue;
            const ReadOnlyBuffer buffer = element->GetBuffer();
            uint32 first[2] = {};
            std::memcpy(first, buffer.buffer, sizeof first);
            bool right = buffer.size % 8 == 0 && first[0] == seid.low_;
            for (ssize_t at = 0; at < buffer.size; at += 8)
                right = right && std::memcmp(buffer.buffer + at, first, 8) == 0;
            if (!right) ++wrong;
        }
    };
    std::vector<std::thread> threads;
    threads.emplace_back(write, 1);
    threads.emplace_back(write, 2);
    threads.emplace_back(read, 3);
    threads.emplace_back(read, 4);
    threads.emplace_back([&] {
        Seid seid(0, high);
        for (int i = 0; i < 20000; ++i) {
            EXPECT_TRUE(store->AllocateAffiliateSeid(seid));
            if (i % 100 == 0) store->Flush();
            if (i % 50 == 0) {
                LssStats stats;
                store->GetStats(stats);
            }
        }
        stop = true;
    });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    static_cast<LssStore*>(store)->Validate();
    store->Close();
}

} // namespace
} // namespace quna

// The cleaner at work while others read and write.
#include "qxLss/src/LssStore.h"
#include "qxUtils/AutoCloser.h"
#include "tests/qxLss/TestLss.h"
#include "tests/support/Sanitized.h"
#include "tests/support/SimSys.h"
#include "tests/support/TraceCatcher.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr int NUM_ELEMENTS = 300;
constexpr uint64 LOG_BYTES = 6 << 20;

// An element: its key, a number, and words that follow from both.
void WriteElement(ILssTransaction& txn, Seid seid, uint32 number, size_t words) {
    std::vector<uint32> content(words, seid.low_ * 31 + number);
    content[0] = seid.low_;
    content[1] = number;
    AutoCloser<ICloseableOutputStream> stream(txn.WriteSerialElement(seid));
    stream->WriteStream(content.data(), static_cast<ssize_t>(words * sizeof(uint32)));
    stream.Close();
}

bool IsWhole(Seid seid, const ReadOnlyBuffer& b) {
    if (b.size < 8 || b.size % 4 != 0) return false;
    uint32 first[2];
    std::memcpy(first, b.buffer, sizeof first);
    bool right = first[0] == seid.low_;
    for (ssize_t at = 8; at < b.size; at += 4) {
        uint32 word = 0;
        std::memcpy(&word, b.buffer + at, sizeof word);
        right = right && word == seid.low_ * 31 + first[1];
    }
    return right;
}

TEST(CleanerThreads, ReadersAndWritersGoOnWhileSegmentsAreMovedFreedAndUsedAgain) {
    SimSys sys;
    sys.StopRecording();
    LssSettings settings;
    settings.segmentSize = 16384;
    settings.numSegmentsPerCheckPoint = 8;
    settings.flushTimeMilliSec = 1;
    bool createdNew = false;
    auto* store = static_cast<LssStore*>(OpenLssForTest(sys, "d/store", nullptr, createdNew, OM_CREATE_NEW, settings));
    const SeidHigh high = store->AllocateSeidHigh();
    std::vector<Seid> seids;
    {
        AutoCloser<ILssTransaction> txn(store->OpenTransaction());
        for (int i = 0; i < NUM_ELEMENTS; ++i) {
            seids.push_back(store->AllocateSeid(high));
            WriteElement(*txn.Get(), seids.back(), 0, 30);
        }
        txn.Close();
    }
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    const auto read = [&](uint64 seed) {
        std::mt19937_64 random(seed);
        std::vector<std::pair<Seid, IContiguousSerialElement*>> held; // for a while, so that segments stay pinned
        while (!stop) {
            const Seid seid = seids[random() % seids.size()];
            IContiguousSerialElement* const element = store->OpenSerialElement(seid);
            if (!element) {
                ++wrong;
                continue;
            }
            if (!IsWhole(seid, element->GetBuffer())) ++wrong;
            held.emplace_back(seid, element);
            if (held.size() < 8) continue;
            const size_t i = random() % held.size();
            if (!IsWhole(held[i].first, held[i].second->GetBuffer())) ++wrong;
            held[i].second->Close();
            held.erase(held.begin() + static_cast<std::ptrdiff_t>(i));
        }
        for (const auto& [seid, element] : held) element->Close();
    };
    std::vector<std::thread> readers;
    readers.emplace_back(read, 1);
    readers.emplace_back(read, 2);
    std::mt19937_64 random(3);
    std::vector<uint32> numbers(NUM_ELEMENTS, 0);
    for (uint32 number = 1; store->LogForTest().HandedClock() < LOG_BYTES; ++number) {
        AutoCloser<ILssTransaction> txn(store->OpenTransaction());
        for (int i = 0; i < 8; ++i) {
            const size_t k = random() % seids.size();
            WriteElement(*txn.Get(), seids[k], number, random() % 64 == 0 ? 9000 : 30 + random() % 60);
            numbers[k] = number;
        }
        txn.Close();
    }
    stop = true;
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(store->CoreForTest().m_counters.survivorBytes.load(), 0u);
    store->Validate();
    store->Close();
    store = static_cast<LssStore*>(OpenLssForTest(sys, "d/store", nullptr, createdNew, OM_OPEN_EXISTING, settings));
    for (size_t k = 0; k < seids.size(); ++k) {
        AutoCloser<IContiguousSerialElement> element(store->OpenSerialElement(seids[k]));
        const ReadOnlyBuffer b = element->GetBuffer();
        EXPECT_TRUE(IsWhole(seids[k], b));
        uint32 number = 0;
        std::memcpy(&number, b.buffer + 4, sizeof number);
        EXPECT_EQ(number, numbers[k]);
    }
    store->Validate();
    store->Close();
}

TEST(CleanerThreads, AStoreCanBeClosedAndAbandonedInTheMiddleOfCleaning) {
    SimSys sys;
    sys.StopRecording();
    LssSettings settings;
    settings.segmentSize = 4096;
    settings.numSegmentsPerCheckPoint = 4;
    settings.flushTimeMilliSec = -1;
    std::vector<Seid> seids;
    for (uint32 life = 0; life < 12; ++life) {
        bool createdNew = false;
        auto* store =
            static_cast<LssStore*>(OpenLssForTest(sys, "d/store", nullptr, createdNew, OM_OPEN_ALWAYS, settings));
        if (createdNew) {
            const SeidHigh high = store->AllocateSeidHigh();
            for (int i = 0; i < 200; ++i) seids.push_back(store->AllocateSeid(high));
        }
        for (const Seid seid : seids) {
            AutoCloser<ILssTransaction> txn(store->OpenTransaction());
            WriteElement(*txn.Get(), seid, life, 40);
            txn.Close();
        }
        for (const Seid seid : seids) {
            AutoCloser<IContiguousSerialElement> element(store->OpenSerialElement(seid));
            EXPECT_TRUE(IsWhole(seid, element->GetBuffer()));
        }
        life % 2 ? store->Close() : store->Abandon();
    }
}

// The element's head stands in the buffer of the open segment, its parts in one that is cleaned. While the head is being
// read another thread ends the segment and fills the next one, which takes over the buffer.
TEST(CleanerThreads, ALongElementIsMovedWholeWhileTheBufferWithItsHeadIsUsedAgain) {
    constexpr ssize_t SEGMENT_BYTES = 1 << 19;
    constexpr int NUM_ROUNDS = 60;
    SimSys sys;
    sys.StopRecording();
    LssSettings settings = SmallSegments();
    settings.segmentSize = SEGMENT_BYTES;
    settings.enableFileBuffering = true;
    TestLss lss(sys, settings);
    lss->StopThreadsForTest();
    const Seid seid = lss.NewSeid();
    const Seid other = lss.NewSeid();
    const std::string filler = Pattern(100000);
    const auto fill = [&] { // what is left of the open segment
        for (ssize_t room = 0; (room = lss->LogForTest().ElementRoom()) > 2000;)
            lss.Put(other, filler.substr(0, static_cast<size_t>(std::min<ssize_t>(room, 100000))));
    };
    // Four parts, which fill a segment, and a head in the next that is nearly as large as a part.
    const ssize_t bytes = 4 * OverflowBytes(SEGMENT_BYTES) + 120000;
    const std::string contents[] = {Pattern(bytes, 1), Pattern(bytes, 2)};
    std::atomic<bool> go{false}; // until the writer is done
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop) {
            if (!go) continue;
            lss.Put(other, filler);
            go = false;
        }
    });
    const TraceCatcher trace; // a head that changes while it is verified is taken for damaged
    int wrong = 0;
    for (int round = 0; round < NUM_ROUNDS; ++round) {
        fill();
        lss.Put(seid, contents[round % 2]);
        fill();
        lss->CheckpointForTest();
        int step = 0;
        lss->SetStepHookForTest([&] {
            if (++step == 1) go = true;
        });
        const ssize_t freed = lss->CleanForTest(64);
        lss->SetStepHookForTest(nullptr);
        while (go) std::this_thread::yield();
        if (freed == 0 || lss.Get(seid) != contents[round % 2]) ++wrong;
    }
    stop = true;
    writer.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(trace.Text(), "");
    lss->Validate();
}

} // namespace
} // namespace quna

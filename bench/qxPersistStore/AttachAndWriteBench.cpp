// What does an object cost on its way to the disk? 1 M objects of about 100 bytes.
//   Attach:      identity, resident table and dirty set, through a trace from a root. Limit: 300 ns an object.
//   GroupWrite:  the write of all of them in one transaction. Limit: 250 ns an object besides the kernel's pwrite, and
//                at least 0.4 times the rate of RawPwrite.
//   RawPwrite:   the same bytes by pwrite alone, 512 KiB a call, into a new file.
#include "bench/support/BenchObjects.h"

#include <chrono>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace quna;

constexpr ssize_t NUM_OBJECTS = 1'000'000;
constexpr ssize_t BYTES_OF_AN_OBJECT = 120; // element with packet header and padding

double Seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Runs `prepare` and then times `act`, both on a fresh store.
void Attach(benchmark::State& state) {
    for (auto _ : state) {
        const TempDir dir;
        BenchStore store(dir / "store");
        const PSpaceTxn txn(Exclusive);
        auto* root = new BenchRoot;
        RegisterGcObject(ptr<IObject>(root));
        for (BenchNode* node : NewNodes(NUM_OBJECTS)) {
            root->m_nodes.emplace_back();
            root->m_nodes.back() = node;
        }
        const auto begin = std::chrono::steady_clock::now();
        AddPSpaceRoot("root", ptr<IPersistable>(root));
        state.SetIterationTime(Seconds(std::chrono::steady_clock::now() - begin));
    }
    state.SetItemsProcessed(state.iterations() * NUM_OBJECTS);
}

void GroupWrite(benchmark::State& state) {
    for (auto _ : state) {
        const TempDir dir;
        BenchStore store(dir / "store");
        {
            const PSpaceTxn txn(Exclusive);
            auto* root = new BenchRoot;
            RegisterGcObject(ptr<IObject>(root));
            for (BenchNode* node : NewNodes(NUM_OBJECTS)) {
                root->m_nodes.emplace_back();
                root->m_nodes.back() = node;
            }
            AddPSpaceRoot("root", ptr<IPersistable>(root));
        }
        const auto begin = std::chrono::steady_clock::now();
        WriteDirtyObjectsToLss(store.m_space, false);
        state.SetIterationTime(Seconds(std::chrono::steady_clock::now() - begin));
    }
    state.SetItemsProcessed(state.iterations() * NUM_OBJECTS);
    state.SetBytesProcessed(state.iterations() * NUM_OBJECTS * BYTES_OF_AN_OBJECT);
}

void RawPwrite(benchmark::State& state) {
    constexpr ssize_t CALL_BYTES = 512 * 1024;
    constexpr ssize_t TOTAL_BYTES = NUM_OBJECTS * BYTES_OF_AN_OBJECT;
    const std::vector<char> buffer(CALL_BYTES, 'x');
    for (auto _ : state) {
        const TempDir dir;
        const int fd = ::open((dir / "raw").c_str(), O_CREAT | O_RDWR, 0600);
        const auto begin = std::chrono::steady_clock::now();
        for (ssize_t at = 0; at < TOTAL_BYTES; at += CALL_BYTES) {
            if (::pwrite(fd, buffer.data(), static_cast<std::size_t>(CALL_BYTES), at) != CALL_BYTES)
                state.SkipWithError("pwrite failed");
        }
        state.SetIterationTime(Seconds(std::chrono::steady_clock::now() - begin));
        ::close(fd);
    }
    state.SetItemsProcessed(state.iterations() * NUM_OBJECTS);
    state.SetBytesProcessed(state.iterations() * TOTAL_BYTES);
}

BENCHMARK(Attach)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly();
BENCHMARK(GroupWrite)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly();
BENCHMARK(RawPwrite)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly();

} // namespace

// What does following a bound reference cost beside a raw pointer? A random cycle through 1 M objects, out of cache.
// Limit: 1.25 times the raw pointer's time.
#include "bench/support/BenchObjects.h"

#include <benchmark/benchmark.h>

namespace {

using namespace quna;

constexpr ssize_t NUM_OBJECTS = 1'000'000;

// The same object with a raw pointer: as many bytes, as many lines touched.
struct RawNode {
    void* header[6] = {}; // as much as the mixins put in front
    uint64 words[BENCH_NODE_WORDS] = {};
    RawNode* next = nullptr;
    void* pad[2] = {}; // the words of a reference beyond a pointer
};
static_assert(sizeof(RawNode) == sizeof(BenchNode));

void RawPointers(benchmark::State& state) {
    std::vector<std::unique_ptr<RawNode>> nodes;
    for (ssize_t i = 0; i < NUM_OBJECTS; ++i) nodes.push_back(std::make_unique<RawNode>());
    const std::vector<uint32> order = Shuffled(NUM_OBJECTS);
    for (std::size_t i = 0; i < order.size(); ++i) nodes[order[i]]->next = nodes[order[(i + 1) % order.size()]].get();
    const RawNode* node = nodes[order[0]].get();
    for (auto _ : state) {
        for (ssize_t i = 0; i < NUM_OBJECTS; ++i) node = node->next;
        benchmark::DoNotOptimize(node);
    }
    state.SetItemsProcessed(state.iterations() * NUM_OBJECTS);
}

void BoundReferences(benchmark::State& state) {
    const TempDir dir;
    BenchStore store(dir / "store");
    {
        const PSpaceTxn txn(Exclusive);
        const std::vector<BenchNode*> nodes = NewNodes(NUM_OBJECTS);
        const std::vector<uint32> order = Shuffled(NUM_OBJECTS);
        for (std::size_t i = 0; i < order.size(); ++i) nodes[order[i]]->m_next = nodes[order[(i + 1) % order.size()]];
        AddPSpaceRoot("root", ptr<IPersistable>(nodes[order[0]]));
        const BenchNode* node = nodes[order[0]];
        for (auto _ : state) {
            for (ssize_t i = 0; i < NUM_OBJECTS; ++i) node = node->m_next.Get();
            benchmark::DoNotOptimize(node);
        }
    }
    state.SetItemsProcessed(state.iterations() * NUM_OBJECTS);
}

BENCHMARK(RawPointers)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly();
BENCHMARK(BoundReferences)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly();

} // namespace

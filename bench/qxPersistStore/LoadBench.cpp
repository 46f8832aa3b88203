// What does getting 1 M objects back cost, through references after a reopening, page cache warm? Limit: 1 us an
// object, and not slower than LMDB's get, a decode by hand and an insertion into an unordered_map.
// And what does opening cost? The same for 1 M and 10 M objects, at most 10 ms.
#include "bench/support/BenchObjects.h"

#include <chrono>
#include <cstring>
#include <unordered_map>

#include <benchmark/benchmark.h>
#ifdef QX_HAVE_LMDB
#include <lmdb.h>
#endif

namespace {

using namespace quna;

constexpr ssize_t NUM_OBJECTS = 1'000'000;

double Seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

void LoadThroughReferences(benchmark::State& state) {
    const TempDir dir;
    MakeStoreOfNodes(dir / "store", NUM_OBJECTS);
    for (auto _ : state) {
        BenchStore store(dir / "store", OM_OPEN_EXISTING);
        const PSpaceTxn txn(SharedRead);
        const auto begin = std::chrono::steady_clock::now();
        const auto* root = static_cast<BenchRoot*>(GetPSpaceRoot("root").m_self);
        uint64 sum = 0;
        for (const cref<BenchNode>& node : root->m_nodes) sum += node.Get()->m_words[0];
        benchmark::DoNotOptimize(sum);
        state.SetIterationTime(Seconds(std::chrono::steady_clock::now() - begin));
    }
    state.SetItemsProcessed(state.iterations() * NUM_OBJECTS);
}

void Open(benchmark::State& state) {
    const TempDir dir;
    MakeStoreOfNodes(dir / "store", state.range(0));
    for (auto _ : state) {
        const auto begin = std::chrono::steady_clock::now();
        BenchStore store(dir / "store", OM_OPEN_EXISTING);
        state.SetIterationTime(Seconds(std::chrono::steady_clock::now() - begin));
    }
}

#ifdef QX_HAVE_LMDB
struct DecodedNode {
    uint64 key = 0;
    uint64 words[BENCH_NODE_WORDS] = {};
    uint64 next = 0;
};

class LmdbEnv {
public:
    explicit LmdbEnv(const std::string& path) {
        mdb_env_create(&m_env);
        mdb_env_set_mapsize(m_env, std::size_t{4} << 30);
        if (mdb_env_open(m_env, path.c_str(), MDB_NOSUBDIR | MDB_NOSYNC, 0600) != 0) std::abort();
    }
    LmdbEnv(const LmdbEnv&) = delete;
    LmdbEnv& operator=(const LmdbEnv&) = delete;
    ~LmdbEnv() { mdb_env_close(m_env); }
    MDB_env* m_env = nullptr;
};

void FillLmdb(const std::string& path) {
    const LmdbEnv env(path);
    MDB_txn* txn = nullptr;
    MDB_dbi dbi = 0;
    mdb_txn_begin(env.m_env, nullptr, 0, &txn);
    mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi);
    for (uint64 i = 0; i < static_cast<uint64>(NUM_OBJECTS); ++i) {
        DecodedNode node;
        node.words[0] = i;
        MDB_val key{sizeof(i), &i};
        MDB_val value{sizeof(node) - sizeof(node.key), node.words};
        mdb_put(txn, dbi, &key, &value, MDB_APPEND);
    }
    if (mdb_txn_commit(txn) != 0) std::abort();
}

void LmdbGetDecodeInsert(benchmark::State& state) {
    const TempDir dir;
    FillLmdb(dir / "lmdb");
    for (auto _ : state) {
        const LmdbEnv env(dir / "lmdb");
        MDB_txn* txn = nullptr;
        MDB_dbi dbi = 0;
        mdb_txn_begin(env.m_env, nullptr, MDB_RDONLY, &txn);
        mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi);
        std::unordered_map<uint64, std::unique_ptr<DecodedNode>> resident;
        const auto begin = std::chrono::steady_clock::now();
        uint64 sum = 0;
        for (uint64 i = 0; i < static_cast<uint64>(NUM_OBJECTS); ++i) {
            MDB_val key{sizeof(i), &i};
            MDB_val value{};
            if (mdb_get(txn, dbi, &key, &value) != 0) std::abort();
            auto node = std::make_unique<DecodedNode>();
            node->key = i;
            std::memcpy(node->words, value.mv_data, value.mv_size);
            sum += node->words[0];
            resident.emplace(i, std::move(node));
        }
        benchmark::DoNotOptimize(sum);
        state.SetIterationTime(Seconds(std::chrono::steady_clock::now() - begin));
        mdb_txn_abort(txn);
    }
    state.SetItemsProcessed(state.iterations() * NUM_OBJECTS);
}
BENCHMARK(LmdbGetDecodeInsert)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly();
#endif

BENCHMARK(LoadThroughReferences)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly();
BENCHMARK(Open)->Arg(1'000'000)->Arg(10'000'000)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

} // namespace

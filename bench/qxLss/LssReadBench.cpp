// How fast elements are read, beside a bare touch of the same memory and beside LMDB.
#include "bench/qxLss/LssBenchStore.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>

#include <benchmark/benchmark.h>

#if QX_HAVE_LMDB
#include <lmdb.h>
#endif

namespace quna {

namespace {

constexpr ssize_t RECORD_BYTES = 100;
constexpr ssize_t NUM_ELEMENTS = 2000000;

// Elements whose first four bytes are the low of the next: a random cycle through all, so that each read depends on the
// one before.
std::vector<uint32> RandomCycle() {
    std::vector<uint32> order(static_cast<size_t>(NUM_ELEMENTS));
    std::iota(order.begin(), order.end(), 0u);
    std::mt19937_64 random(1);
    std::shuffle(order.begin(), order.end(), random);
    std::vector<uint32> next(order.size());
    for (size_t i = 0; i < order.size(); ++i) next[order[i]] = order[(i + 1) % order.size()];
    return next;
}

struct ChainStore {
    ChainStore() : store("qxbench-read") {
        const std::vector<uint32> next = RandomCycle();
        std::vector<Seid> seids(next.size()); // ascending, not without gaps
        for (Seid& seid : seids) seid = store->AllocateSeid(store.High());
        octet_t content[RECORD_BYTES] = {};
        for (size_t i = 0; i < next.size();) {
            AutoCloser<ILssTransaction> txn(store->OpenTransaction());
            for (int k = 0; k < 1000; ++k, ++i) {
                const uint32 low = seids[next[i]].low_;
                std::memcpy(content, &low, sizeof low);
                BenchStore::Write(*txn, seids[i], content, RECORD_BYTES);
            }
            txn.Close();
        }
    }
    BenchStore store;
};

ChainStore& SharedStore() {
    static ChainStore s_store;
    return s_store;
}

void WarmRandomDependent(benchmark::State& state) {
    BenchStore& store = SharedStore().store;
    uint32 low = static_cast<uint32>(state.thread_index()); // both were handed out
    for (auto _ : state) {
        IContiguousSerialElement* const element = store->OpenSerialElement(Seid(low, store.High()));
        std::memcpy(&low, element->GetBuffer().buffer, sizeof low);
        element->Close();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(WarmRandomDependent)->Iterations(2000000)->Repetitions(5)->ReportAggregatesOnly();
BENCHMARK(WarmRandomDependent)->Threads(2)->Iterations(2000000)->Repetitions(5)->ReportAggregatesOnly();

// The floor: an array of locations, then the bytes, both out of cache.
void LookUpAndTouch(benchmark::State& state) {
    const std::vector<uint32> next = RandomCycle();
    std::vector<octet_t> bytes(next.size() * 120);
    std::vector<uint64> locations(next.size());
    for (size_t i = 0; i < next.size(); ++i) {
        locations[i] = i * 120;
        std::memcpy(bytes.data() + locations[i] + 16, &next[i], sizeof next[i]);
    }
    uint32 low = 0;
    for (auto _ : state) {
        const octet_t* const p = bytes.data() + locations[low] + 16;
        octet_t last;
        std::memcpy(&last, p + 96, 1); // a record spans two lines
        std::memcpy(&low, p, sizeof low);
        low += last;
    }
    benchmark::DoNotOptimize(low);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(LookUpAndTouch)->Iterations(2000000)->Repetitions(5)->ReportAggregatesOnly();

void LongElement(benchmark::State& state) {
    BenchStore store("qxbench-long");
    const std::vector<Seid> seids = store.Fill(16, 1 << 20);
    size_t i = 0;
    for (auto _ : state) {
        IContiguousSerialElement* const element = store->OpenSerialElement(seids[i++ % seids.size()]);
        benchmark::DoNotOptimize(element->GetBuffer().buffer);
        element->Close();
    }
    state.SetBytesProcessed(state.iterations() << 20);
}
BENCHMARK(LongElement)->Iterations(1000)->Repetitions(5)->ReportAggregatesOnly();

void Memcpy(benchmark::State& state) {
    std::vector<octet_t> from(size_t{16} << 20, octet_t{7});
    size_t i = 0;
    for (auto _ : state) {
        auto to = std::make_unique_for_overwrite<octet_t[]>(size_t{1} << 20);
        std::memcpy(to.get(), from.data() + (i++ % 16 << 20), size_t{1} << 20);
        benchmark::DoNotOptimize(to.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() << 20);
}
BENCHMARK(Memcpy)->Iterations(1000)->Repetitions(5)->ReportAggregatesOnly();

void OpenAndClose(benchmark::State& state) {
    const std::string path =
        (std::filesystem::temp_directory_path() / ("qxbench-open-" + std::to_string(::getpid()))).string();
    bool createdNew = false;
    {
        AutoCloser<ILogStructuredStore> lss(
            CreateOrOpenLSS(path.c_str(), nullptr, createdNew, OM_CREATE_ALWAYS, LssSettings()));
        const SeidHigh high = lss->AllocateSeidHigh();
        const octet_t content[RECORD_BYTES] = {7};
        for (int64 i = 0; i < state.range(0);) {
            AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
            for (int k = 0; k < 1000; ++k, ++i) BenchStore::Write(*txn, lss->AllocateSeid(high), content, RECORD_BYTES);
            txn.Close();
        }
        lss.Close();
    }
    for (auto _ : state) {
        ILogStructuredStore* const lss =
            CreateOrOpenLSS(path.c_str(), nullptr, createdNew, OM_OPEN_EXISTING, LssSettings());
        state.PauseTiming();
        lss->Close();
        state.ResumeTiming();
    }
    std::filesystem::remove(path);
}
BENCHMARK(OpenAndClose)->Arg(1000)->Arg(1000000)->Iterations(20)->Unit(benchmark::kMillisecond);

#if QX_HAVE_LMDB

void LmdbWarmRandomDependent(benchmark::State& state) {
    const std::string path =
        (std::filesystem::temp_directory_path() / ("qxbench-lmdbread-" + std::to_string(::getpid()))).string();
    MDB_env* env = nullptr;
    mdb_env_create(&env);
    mdb_env_set_mapsize(env, size_t{4} << 30);
    mdb_env_open(env, path.c_str(), MDB_NOSUBDIR | MDB_NOSYNC, 0600);
    MDB_txn* txn = nullptr;
    MDB_dbi dbi = 0;
    mdb_txn_begin(env, nullptr, 0, &txn);
    mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY | MDB_CREATE, &dbi);
    const std::vector<uint32> next = RandomCycle();
    octet_t content[RECORD_BYTES] = {};
    for (uint64 i = 0; i < next.size(); ++i) {
        std::memcpy(content, &next[i], sizeof next[i]);
        MDB_val k{sizeof i, &i};
        MDB_val v{sizeof content, content};
        mdb_put(txn, dbi, &k, &v, MDB_APPEND);
    }
    mdb_txn_commit(txn);
    mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn);
    uint64 low = 0;
    for (auto _ : state) {
        MDB_val k{sizeof low, &low};
        MDB_val v{};
        mdb_get(txn, dbi, &k, &v);
        uint32 following;
        std::memcpy(&following, v.mv_data, sizeof following);
        low = following;
    }
    mdb_txn_abort(txn);
    mdb_env_close(env);
    std::filesystem::remove(path);
    std::filesystem::remove(path + "-lock");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(LmdbWarmRandomDependent)->Iterations(1000000)->Repetitions(5)->ReportAggregatesOnly();

#endif

} // namespace

} // namespace quna

// How fast transactions of small and large elements are written, beside a bare pwrite of the same bytes and beside LMDB.
#include "bench/qxLss/LssBenchStore.h"

#include <algorithm>
#include <cstring>
#include <random>

#include <benchmark/benchmark.h>
#include <fcntl.h>

#if QX_HAVE_LMDB
#include <lmdb.h>
#endif

namespace quna {

namespace {

constexpr ssize_t RECORD_BYTES = 100;
constexpr ssize_t BATCH = 1000;
constexpr ssize_t NUM_ELEMENTS = 500000; // for random overwrites

// --- the store

void NewIds(benchmark::State& state) {
    BenchStore store("qxbench-write");
    const std::vector<octet_t> content(RECORD_BYTES, octet_t{7});
    std::vector<Seid> seids(BATCH);
    for (auto _ : state) {
        state.PauseTiming();
        for (Seid& seid : seids) seid = store->AllocateSeid(store.High());
        state.ResumeTiming();
        AutoCloser<ILssTransaction> txn(store->OpenTransaction());
        for (const Seid seid : seids) BenchStore::Write(*txn, seid, content.data(), RECORD_BYTES);
        txn.Close();
    }
    state.SetItemsProcessed(state.iterations() * BATCH);
    state.SetBytesProcessed(state.iterations() * BATCH * RECORD_BYTES);
}
BENCHMARK(NewIds)->Iterations(2000)->Repetitions(5)->ReportAggregatesOnly();

void RandomOverwrite(benchmark::State& state) {
    BenchStore store("qxbench-overwrite");
    const std::vector<Seid> seids = store.Fill(NUM_ELEMENTS, RECORD_BYTES);
    const std::vector<octet_t> content(RECORD_BYTES, octet_t{8});
    std::mt19937_64 random(1);
    std::vector<Seid> chosen(BATCH);
    for (auto _ : state) {
        state.PauseTiming();
        for (Seid& seid : chosen) seid = seids[random() % seids.size()];
        state.ResumeTiming();
        AutoCloser<ILssTransaction> txn(store->OpenTransaction());
        for (const Seid seid : chosen) BenchStore::Write(*txn, seid, content.data(), RECORD_BYTES);
        txn.Close();
    }
    state.SetItemsProcessed(state.iterations() * BATCH);
}
BENCHMARK(RandomOverwrite)->Iterations(1000)->Repetitions(5)->ReportAggregatesOnly();

void LargeElements(benchmark::State& state) {
    const ssize_t bytes = state.range(0);
    BenchStore store("qxbench-large");
    const std::vector<Seid> seids = store.Fill(64, 8);
    const std::vector<octet_t> content(static_cast<size_t>(bytes), octet_t{9});
    ssize_t i = 0;
    for (auto _ : state) {
        AutoCloser<ILssTransaction> txn(store->OpenTransaction());
        BenchStore::Write(*txn, seids[static_cast<size_t>(i++ % 64)], content.data(), bytes);
        txn.Close();
    }
    state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(LargeElements)->Arg(65536)->Arg(1048576)->Iterations(8000)->Repetitions(5)->ReportAggregatesOnly();

void OneRecordATransaction(benchmark::State& state) {
    BenchStore store("qxbench-single");
    const std::vector<Seid> seids = store.Fill(10000, RECORD_BYTES);
    const std::vector<octet_t> content(RECORD_BYTES, octet_t{7});
    const bool flush = state.range(0) != 0;
    size_t i = 0;
    for (auto _ : state) {
        AutoCloser<ILssTransaction> txn(store->OpenTransaction());
        if (flush) txn->RequestFlushToDisk();
        BenchStore::Write(*txn, seids[i++ % seids.size()], content.data(), RECORD_BYTES);
        txn.Close();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(OneRecordATransaction)->Arg(0)->Iterations(200000)->Repetitions(5)->ReportAggregatesOnly();
BENCHMARK(OneRecordATransaction)->Arg(1)->Iterations(2000)->Repetitions(5)->ReportAggregatesOnly();

void Allocate(benchmark::State& state) {
    BenchStore store("qxbench-allocate");
    Seid hint(0, store.High());
    for (auto _ : state) {
        if (state.range(0)) {
            Seid seid = hint;
            benchmark::DoNotOptimize(store->AllocateAffiliateSeid(seid));
            if ((seid.low_ & 63) == 0) hint = seid;
        } else {
            benchmark::DoNotOptimize(store->AllocateSeid(store.High()));
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(Allocate)->Arg(0)->Arg(1)->Iterations(1000000)->Repetitions(5)->ReportAggregatesOnly();

// --- a bare pwrite of the same bytes into blocks that exist

void RawPwrite(benchmark::State& state) {
    const ssize_t bytes = state.range(0);
    const bool sync = state.range(1) != 0;
    const std::string path =
        (std::filesystem::temp_directory_path() / ("qxbench-raw-" + std::to_string(::getpid()))).string();
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    const std::vector<octet_t> content(static_cast<size_t>(bytes), octet_t{7});
    off_t at = 0;
    if (::posix_fallocate(fd, 0, static_cast<off_t>(state.max_iterations) * bytes) != 0)
        state.SkipWithError("no space");
    for (auto _ : state) {
        if (::pwrite(fd, content.data(), content.size(), at) != bytes || (sync && ::fdatasync(fd) != 0))
            state.SkipWithError("write failed");
        at += bytes;
    }
    ::close(fd);
    std::filesystem::remove(path);
    state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(RawPwrite)->Args({BATCH * 120, 0})->Iterations(2000)->Repetitions(5)->ReportAggregatesOnly();
BENCHMARK(RawPwrite)
    ->Args({65536 + 64, 0})
    ->Args({1048576, 0})
    ->Iterations(4000)
    ->Repetitions(5)
    ->ReportAggregatesOnly();
BENCHMARK(RawPwrite)->Args({164, 0})->Iterations(200000)->Repetitions(5)->ReportAggregatesOnly();
BENCHMARK(RawPwrite)->Args({164, 1})->Iterations(2000)->Repetitions(5)->ReportAggregatesOnly();

// --- LMDB

#if QX_HAVE_LMDB

class Lmdb {
public:
    explicit Lmdb(unsigned flags)
        : m_path((std::filesystem::temp_directory_path() / ("qxbench-lmdb-" + std::to_string(::getpid()))).string()) {
        std::filesystem::remove(m_path);
        mdb_env_create(&m_env);
        mdb_env_set_mapsize(m_env, size_t{4} << 30);
        mdb_env_open(m_env, m_path.c_str(), MDB_NOSUBDIR | flags, 0600);
        MDB_txn* txn = nullptr;
        mdb_txn_begin(m_env, nullptr, 0, &txn);
        mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY | MDB_CREATE, &m_dbi);
        mdb_txn_commit(txn);
    }
    Lmdb(const Lmdb&) = delete;
    Lmdb& operator=(const Lmdb&) = delete;
    ~Lmdb() {
        mdb_env_close(m_env);
        std::filesystem::remove(m_path);
        std::filesystem::remove(m_path + "-lock");
    }
    template <class Key>
    void Put(ssize_t n, Key&& key, unsigned flags) {
        octet_t content[RECORD_BYTES] = {7};
        MDB_txn* txn = nullptr;
        mdb_txn_begin(m_env, nullptr, 0, &txn);
        for (ssize_t i = 0; i < n; ++i) {
            uint64 k = key();
            MDB_val mk{sizeof k, &k};
            MDB_val mv{sizeof content, content};
            mdb_put(txn, m_dbi, &mk, &mv, flags);
        }
        mdb_txn_commit(txn);
    }

private:
    const std::string m_path;
    MDB_env* m_env = nullptr;
    MDB_dbi m_dbi = 0;
};

void LmdbNewIds(benchmark::State& state) {
    Lmdb db(MDB_NOSYNC);
    uint64 next = 0;
    for (auto _ : state)
        db.Put(
            BATCH, [&] { return next++; }, MDB_APPEND);
    state.SetItemsProcessed(state.iterations() * BATCH);
}
BENCHMARK(LmdbNewIds)->Iterations(2000)->Repetitions(5)->ReportAggregatesOnly();

void LmdbRandomOverwrite(benchmark::State& state) {
    Lmdb db(MDB_NOSYNC);
    uint64 next = 0;
    for (ssize_t i = 0; i < NUM_ELEMENTS / BATCH; ++i)
        db.Put(
            BATCH, [&] { return next++; }, MDB_APPEND);
    std::mt19937_64 random(1);
    for (auto _ : state)
        db.Put(
            BATCH, [&] { return random() % static_cast<uint64>(NUM_ELEMENTS); }, 0);
    state.SetItemsProcessed(state.iterations() * BATCH);
}
BENCHMARK(LmdbRandomOverwrite)->Iterations(100)->Repetitions(5)->ReportAggregatesOnly();

void LmdbOneRecordATransaction(benchmark::State& state) {
    Lmdb db(0);
    uint64 next = 0;
    for (auto _ : state)
        db.Put(
            1, [&] { return next++; }, MDB_APPEND);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(LmdbOneRecordATransaction)->Iterations(1000)->Repetitions(5)->ReportAggregatesOnly();

#endif

} // namespace

} // namespace quna

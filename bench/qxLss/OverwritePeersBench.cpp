// Random overwrites of elements of 100 to 1,000 random bytes, 100 in a transaction, in a store that stays as large as it is
// and is cleaned to 85 %; beside LMDB, RocksDB and SQLite with the same data. Nobody syncs a transaction. Aim: three times
// as many as the best of them.
//
//   OverwritePeersBench [PATTERN] [--live MIB] [--seconds N]
//
// PATTERN is a regular expression for the names of the contestants. One after another they are filled, warmed up until
// their cleaning or compaction is in full swing, and measured for five spans of time, of which the median counts. A killed
// process loses nothing in any of them. Their settings:
//
// LMDB     MDB_NOSYNC; "map": MDB_WRITEMAP as well, where a stray write of the application may damage the data
// RocksDB  write-ahead log on and not synced, no compression (the data cannot be compressed), the rest as it comes
// SQLite   WAL, synchronous=OFF, a cache as large as the data, prepared statements, the rest as it comes
#include "bench/qxLss/LssBenchStore.h"
#include "bench/support/Contest.h"
#include "bench/support/Overwrites.h"
#include "qxLss/src/LssStore.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#if QX_HAVE_LMDB
#include <lmdb.h>
#endif
#ifdef QX_HAVE_SQLITE
#include <sqlite3.h>
#endif
#ifdef QX_HAVE_ROCKSDB
#include <rocksdb/db.h>
#include <rocksdb/write_batch.h>
#endif

namespace quna {

namespace {

constexpr size_t BATCH = 100; // elements a transaction
constexpr double MEBI = 1048576.0;
constexpr int NUM_SPANS = 5;

void Demand(bool condition) {
    if (condition) return;
    std::fprintf(stderr, "A contestant has failed\n");
    std::exit(1);
}

// Takes elements by their number, in transactions.
class IContestant {
public:
    virtual ~IContestant() = default;
    virtual void Begin() = 0;
    virtual void Put(size_t key, const octet_t* p, ssize_t n) = 0;
    virtual void Commit() = 0;
    // Percent of the file's used bytes that are live; below 0 if it has no such notion.
    virtual double Utilisation() { return -1; }
};

// A path of this process's own; what is there is removed before and afterwards.
class OwnPath {
public:
    explicit OwnPath(const std::string& name)
        : m_path((std::filesystem::temp_directory_path() / (name + "-" + std::to_string(::getpid()))).string()) {
        Remove();
    }
    OwnPath(const OwnPath&) = delete;
    OwnPath& operator=(const OwnPath&) = delete;
    ~OwnPath() { Remove(); }
    const std::string& Get() const { return m_path; }

private:
    void Remove() {
        for (ConstStringZ suffix : {"", "-lock", "-wal", "-shm"}) std::filesystem::remove_all(m_path + suffix);
    }
    const std::string m_path;
};

class ThisStore final : public IContestant {
public:
    explicit ThisStore(size_t n) : m_store("qxbench-overwrites"), m_seids(n) {
        for (Seid& seid : m_seids) seid = m_store->AllocateSeid(m_store.High());
    }
    void Begin() override { m_transaction = m_store->OpenTransaction(); }
    void Put(size_t key, const octet_t* p, ssize_t n) override { BenchStore::Write(*m_transaction, m_seids[key], p, n); }
    void Commit() override { std::exchange(m_transaction, nullptr)->Close(); }
    double Utilisation() override {
        const StoreCounters& c = static_cast<LssStore&>(*m_store).CoreForTest().m_counters;
        return 100 * static_cast<double>(c.liveBytes.load() - c.indexBytes.load()) /
               static_cast<double>(c.usedBytes.load() - c.movingBytes.load());
    }

private:
    BenchStore m_store;
    std::vector<Seid> m_seids;
    ILssTransaction* m_transaction = nullptr;
};

#if QX_HAVE_LMDB
class Lmdb final : public IContestant {
public:
    explicit Lmdb(unsigned flags) : m_path("qxbench-lmdb") {
        Demand(mdb_env_create(&m_env) == 0);
        Demand(mdb_env_set_mapsize(m_env, size_t{16} << 30) == 0);
        Demand(mdb_env_open(m_env, m_path.Get().c_str(), MDB_NOSUBDIR | flags, 0600) == 0);
        Begin();
        Demand(mdb_dbi_open(m_txn, nullptr, MDB_INTEGERKEY | MDB_CREATE, &m_dbi) == 0);
        Commit();
    }
    Lmdb(const Lmdb&) = delete;
    Lmdb& operator=(const Lmdb&) = delete;
    ~Lmdb() override { mdb_env_close(m_env); }

    void Begin() override { Demand(mdb_txn_begin(m_env, nullptr, 0, &m_txn) == 0); }
    void Put(size_t key, const octet_t* p, ssize_t n) override {
        MDB_val k{sizeof key, &key};
        MDB_val v{static_cast<size_t>(n), const_cast<octet_t*>(p)};
        Demand(mdb_put(m_txn, m_dbi, &k, &v, 0) == 0);
    }
    void Commit() override { Demand(mdb_txn_commit(m_txn) == 0); }

private:
    const OwnPath m_path;
    MDB_env* m_env = nullptr;
    MDB_dbi m_dbi = 0;
    MDB_txn* m_txn = nullptr;
};
#endif

#ifdef QX_HAVE_ROCKSDB
class RocksDb final : public IContestant {
public:
    RocksDb() : m_path("qxbench-rocksdb") {
        rocksdb::Options options;
        options.create_if_missing = true;
        options.compression = rocksdb::kNoCompression;
        rocksdb::DB* db = nullptr;
        Demand(rocksdb::DB::Open(options, m_path.Get(), &db).ok());
        m_db.reset(db);
    }
    void Begin() override { m_batch.Clear(); }
    void Put(size_t key, const octet_t* p, ssize_t n) override {
        const uint64 ordered = __builtin_bswap64(key);
        Demand(m_batch
                   .Put(rocksdb::Slice(reinterpret_cast<const char*>(&ordered), sizeof ordered),
                        rocksdb::Slice(reinterpret_cast<const char*>(p), static_cast<size_t>(n)))
                   .ok());
    }
    void Commit() override { Demand(m_db->Write(rocksdb::WriteOptions(), &m_batch).ok()); }

private:
    const OwnPath m_path;
    std::unique_ptr<rocksdb::DB> m_db;
    rocksdb::WriteBatch m_batch;
};
#endif

#ifdef QX_HAVE_SQLITE
class Sqlite final : public IContestant {
public:
    explicit Sqlite(double cacheBytes) : m_path("qxbench-sqlite") {
        Demand(sqlite3_open(m_path.Get().c_str(), &m_db) == SQLITE_OK);
        Execute("PRAGMA journal_mode=WAL");
        Execute("PRAGMA synchronous=OFF");
        Execute("PRAGMA cache_size=-" + std::to_string(static_cast<int64>(cacheBytes / 1024)));
        Execute("CREATE TABLE t (k INTEGER PRIMARY KEY, v BLOB NOT NULL)");
        m_begin = Prepare("BEGIN");
        m_commit = Prepare("COMMIT");
        m_put = Prepare("INSERT OR REPLACE INTO t VALUES (?1, ?2)");
    }
    Sqlite(const Sqlite&) = delete;
    Sqlite& operator=(const Sqlite&) = delete;
    ~Sqlite() override {
        for (sqlite3_stmt* statement : {m_begin, m_commit, m_put}) sqlite3_finalize(statement);
        sqlite3_close(m_db);
    }

    void Begin() override { Step(m_begin); }
    void Put(size_t key, const octet_t* p, ssize_t n) override {
        sqlite3_bind_int64(m_put, 1, static_cast<sqlite3_int64>(key));
        sqlite3_bind_blob64(m_put, 2, p, static_cast<sqlite3_uint64>(n), SQLITE_STATIC);
        Step(m_put);
    }
    void Commit() override { Step(m_commit); }

private:
    void Execute(const std::string& sql) {
        Demand(sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK);
    }
    sqlite3_stmt* Prepare(ConstStringZ sql) {
        sqlite3_stmt* statement = nullptr;
        Demand(sqlite3_prepare_v2(m_db, sql, -1, &statement, nullptr) == SQLITE_OK);
        return statement;
    }
    void Step(sqlite3_stmt* statement) {
        Demand(sqlite3_step(statement) == SQLITE_DONE);
        sqlite3_reset(statement);
    }

    const OwnPath m_path;
    sqlite3* m_db = nullptr;
    sqlite3_stmt* m_begin = nullptr;
    sqlite3_stmt* m_commit = nullptr;
    sqlite3_stmt* m_put = nullptr;
};
#endif

struct Arguments {
    double liveMiB = 512;
    double seconds = 4; // a span
    std::string pattern;
};

class Race {
public:
    explicit Race(const Arguments& arguments)
        : m_arguments(arguments), m_sizes(RandomSizes(arguments.liveMiB * MEBI, 100, 1000, PACKET_HEADER_BYTES)) {}

    // `warmup` in turnovers, or until the measured time of all spans has passed.
    void Add(const std::string& name, double warmup, const std::function<std::unique_ptr<IContestant>(size_t)>& make) {
        if (!std::regex_search(name, std::regex(m_arguments.pattern))) return;
        const std::unique_ptr<IContestant> contestant = make(m_sizes.size());
        RandomContent content(1000);
        for (size_t key = 0; key < m_sizes.size();) {
            contestant->Begin();
            for (size_t k = 0; k < BATCH && key < m_sizes.size(); ++k, ++key)
                contestant->Put(key, content.Next(), m_sizes[key]);
            contestant->Commit();
        }
        Chooser chooser("uniform", m_sizes.size());
        const auto overwrite = [&](double most, double seconds) {
            const auto begin = std::chrono::steady_clock::now();
            double done = 0;
            for (; done < most && SecondsSince(begin) < seconds; done += BATCH) {
                contestant->Begin();
                for (size_t k = 0; k < BATCH; ++k) {
                    const size_t key = chooser();
                    contestant->Put(key, content.Next(), m_sizes[key]);
                }
                contestant->Commit();
            }
            return done / SecondsSince(begin);
        };
        overwrite(warmup * static_cast<double>(m_sizes.size()), NUM_SPANS * m_arguments.seconds);
        std::vector<double> rates;
        for (int i = 0; i < NUM_SPANS; ++i) rates.push_back(overwrite(1e18, m_arguments.seconds));
        const double utilisation = contestant->Utilisation();
        std::sort(rates.begin(), rates.end());
        const double median = rates[rates.size() / 2];
        std::printf("  %-14s %9.0f a second (%.0f to %.0f)", name.c_str(), median, rates.front(), rates.back());
        if (m_ours == 0) m_ours = median;
        if (median != m_ours) {
            std::printf("   this / %s %.2f", name.c_str(), m_ours / median);
            m_best = std::max(m_best, median);
        }
        if (utilisation >= 0) std::printf("   %.1f%% of the used bytes live", utilisation);
        std::printf("\n");
        std::fflush(stdout);
    }
    void PrintResult() const {
        if (m_best > 0) std::printf("  %.2f times as many as the best of the others\n", m_ours / m_best);
    }

private:
    const Arguments m_arguments;
    const std::vector<ssize_t> m_sizes;
    double m_ours = 0;
    double m_best = 0;
};

int Main(int argc, char** argv) {
    Arguments arguments;
    arguments.pattern = ArgumentOrNothing(argc, argv, 1);
    for (int i = 1; i + 1 < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--live") arguments.liveMiB = std::strtod(argv[i + 1], nullptr);
        if (name == "--seconds") arguments.seconds = std::strtod(argv[i + 1], nullptr);
    }
    std::printf("Overwrites of elements of 100 to 1000 bytes, %.0f MiB live; medians of %d spans of %.0f s\n",
                arguments.liveMiB, NUM_SPANS, arguments.seconds);
    Race race(arguments);
    race.Add("this store", 3, [](size_t n) { return std::make_unique<ThisStore>(n); });
#if QX_HAVE_LMDB
    race.Add("LMDB", 0.5, [](size_t) { return std::make_unique<Lmdb>(MDB_NOSYNC); });
    race.Add("LMDB map", 0.5, [](size_t) { return std::make_unique<Lmdb>(MDB_NOSYNC | MDB_WRITEMAP); });
#endif
#ifdef QX_HAVE_ROCKSDB
    race.Add("RocksDB", 2, [](size_t) { return std::make_unique<RocksDb>(); });
#endif
#ifdef QX_HAVE_SQLITE
    race.Add("SQLite", 0.5, [&](size_t) { return std::make_unique<Sqlite>(2 * arguments.liveMiB * MEBI); });
#endif
    race.PrintResult();
    return 0;
}

} // namespace

} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

// A tree of uint64 -> uint64 in a store, beside LMDB and SQLite. Limits:
//   groups    1 M random keys in groups of 10,000, with opening, attaching, writing and closing: LMDB's rate without
//             synchronisation, aim 1.5 times, and 3 times SQLite's (WAL, synchronous=OFF, prepared statements)
//   durable   the same with each group on disk before the next begins: twice LMDB's rate
//   cold      100 k random finds of 1 M after reopening, page cache warm: at least half LMDB's rate
//   bytes     on disk for 1 M ascending entries of 16 bytes
// The first argument is a regular expression for the parts (groups, durable, cold, bytes), the second one for the
// contestants.
#include "bench/support/Contest.h"
#include "bench/support/TreePeers.h"
#include "qxPersistStore/PMap.h"

#include <chrono>
#include <filesystem>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#ifdef QX_HAVE_SQLITE
#include <sqlite3.h>
#endif

namespace {

using namespace quna;
using Clock = std::chrono::steady_clock;
using Report = Contest::Report;

constexpr ssize_t GROUP = 10'000;
constexpr ssize_t NUM_COLD_FINDS = 100'000;
constexpr double ENTRY_BYTES = 2 * sizeof(uint64);

double BytesOf(const std::string& path) { return static_cast<double>(std::filesystem::file_size(path)); }

// What still waits for the disk would slow down who comes next.
void Settle() { ::sync(); }

// Calls insert(key) for each key and endGroup() behind each group.
template <class BeginGroup, class Insert, class EndGroup>
void InGroups(const std::vector<uint64>& keys, BeginGroup&& beginGroup, Insert&& insert, EndGroup&& endGroup) {
    for (std::size_t i = 0; i < keys.size();) {
        beginGroup();
        const std::size_t end = std::min(keys.size(), i + static_cast<std::size_t>(GROUP));
        for (; i < end; ++i) insert(keys[i]);
        endGroup();
    }
}

// ---- The tree -----------------------------------------------------------------------------------------------------------

BPlusTree& TreeInStore() { return *static_cast<BPlusTree*>(GetPSpaceRoot("tree").m_self); }

void InsertIntoStore(const std::string& path, const std::vector<uint64>& keys, bool durable) {
    BenchStore store(path, OM_CREATE_ALWAYS);
    {
        const PSpaceTxn txn(Exclusive);
        AddPSpaceRoot("tree", ptr<IPersistable>(NewUint64Tree()));
    }
    for (std::size_t i = 0; i < keys.size();) {
        {
            const PSpaceTxn txn(Exclusive);
            BPlusTree& tree = TreeInStore();
            const std::size_t end = std::min(keys.size(), i + static_cast<std::size_t>(GROUP));
            for (; i < end; ++i) {
                const uint64 payload = ~keys[i];
                tree.Insert(AsKey(keys[i]), AsPayload(payload), true);
            }
        }
        WriteDirtyObjectsToLss(store.m_space, durable);
    }
    store.CloseAll();
}

void FindInStore(const std::string& path, const std::vector<uint64>& keys, Report& report) {
    BenchStore store(path, OM_OPEN_EXISTING);
    const auto begin = Clock::now();
    {
        const PSpaceTxn txn(SharedRead);
        BPlusTree& tree = TreeInStore();
        for (const uint64 key : keys) Demand(PayloadOf(tree.find(AsKey(key)).const_deref()) == ~key);
    }
    report.Time("cold", static_cast<double>(keys.size()), SecondsSince(begin));
}

// ---- SQLite -------------------------------------------------------------------------------------------------------------

#ifdef QX_HAVE_SQLITE
class SqliteMap {
public:
    explicit SqliteMap(const std::string& path) {
        Demand(sqlite3_open(path.c_str(), &m_db) == SQLITE_OK);
        Execute("PRAGMA journal_mode=WAL");
        Execute("PRAGMA synchronous=OFF");
        Execute("CREATE TABLE IF NOT EXISTS t (k INTEGER PRIMARY KEY, v INTEGER NOT NULL)");
        m_begin = Prepare("BEGIN");
        m_commit = Prepare("COMMIT");
        m_insert = Prepare("INSERT OR REPLACE INTO t VALUES (?1, ?2)");
    }
    SqliteMap(const SqliteMap&) = delete;
    SqliteMap& operator=(const SqliteMap&) = delete;
    ~SqliteMap() {
        for (sqlite3_stmt* statement : {m_begin, m_commit, m_insert}) sqlite3_finalize(statement);
        sqlite3_close(m_db);
    }

    void Begin() { Step(m_begin); }
    void Commit() { Step(m_commit); }
    void Put(uint64 key, uint64 value) {
        sqlite3_bind_int64(m_insert, 1, static_cast<sqlite3_int64>(key));
        sqlite3_bind_int64(m_insert, 2, static_cast<sqlite3_int64>(value));
        Step(m_insert);
    }

private:
    void Execute(ConstStringZ sql) { Demand(sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) == SQLITE_OK); }
    sqlite3_stmt* Prepare(ConstStringZ sql) {
        sqlite3_stmt* statement = nullptr;
        Demand(sqlite3_prepare_v2(m_db, sql, -1, &statement, nullptr) == SQLITE_OK);
        return statement;
    }
    void Step(sqlite3_stmt* statement) {
        Demand(sqlite3_step(statement) == SQLITE_DONE);
        sqlite3_reset(statement);
    }

    sqlite3* m_db = nullptr;
    sqlite3_stmt* m_begin = nullptr;
    sqlite3_stmt* m_commit = nullptr;
    sqlite3_stmt* m_insert = nullptr;
};
#endif

// ---- Parts --------------------------------------------------------------------------------------------------------------

// `insert` gets the path of a file to make.
template <class Insert>
void MeasureInsertion(Report& report, ConstStringZ row, Insert&& insert) {
    const TempDir dir;
    Settle();
    const auto begin = Clock::now();
    insert(dir / "file");
    report.Time(row, static_cast<double>(NUM_TREE_KEYS), SecondsSince(begin));
}

void RunInGroups(const std::string& contestants, bool durable) {
    const ConstStringZ row = durable ? "durable" : "groups";
    const std::vector<uint64> keys = RandomKeys(NUM_TREE_KEYS);
    Contest contest(contestants);
    contest.Add("BPlusTree", [&](Report& report) {
        MeasureInsertion(report, row, [&](const std::string& path) { InsertIntoStore(path, keys, durable); });
    });
#ifdef QX_HAVE_LMDB
    contest.Add("LMDB", [&](Report& report) {
        MeasureInsertion(report, row, [&](const std::string& path) {
            LmdbMap map(path, durable ? 0 : MDB_NOSYNC);
            InGroups(
                keys, [&] { map.BeginWrite(); }, [&](uint64 key) { map.Put(key, ~key); }, [&] { map.Commit(); });
        });
    });
#endif
#ifdef QX_HAVE_SQLITE
    if (!durable)
        contest.Add("SQLite", [&](Report& report) {
            MeasureInsertion(report, row, [&](const std::string& path) {
                SqliteMap map(path);
                InGroups(
                    keys, [&] { map.Begin(); }, [&](uint64 key) { map.Put(key, ~key); }, [&] { map.Commit(); });
            });
        });
#endif
    contest.Run(durable ? "1 M random entries in groups of 10,000, each durable"
                        : "1 M random entries in groups of 10,000, not synchronised");
}

void RunCold(const std::string& contestants) {
    const std::vector<uint64> keys = RandomKeys(NUM_TREE_KEYS);
    const std::vector<uint64> sought = Reordered(keys, NUM_COLD_FINDS);
    const TempDir dir;
    InsertIntoStore(dir / "store", keys, false);
    Contest contest(contestants);
    contest.Add("BPlusTree", [&](Report& report) { FindInStore(dir / "store", sought, report); });
#ifdef QX_HAVE_LMDB
    {
        LmdbMap map(dir / "lmdb", MDB_NOSYNC);
        InGroups(
            keys, [&] { map.BeginWrite(); }, [&](uint64 key) { map.Put(key, ~key); }, [&] { map.Commit(); });
    }
    contest.Add("LMDB", [&](Report& report) {
        LmdbMap map(dir / "lmdb", MDB_NOSYNC);
        const auto begin = Clock::now();
        map.BeginRead();
        for (const uint64 key : sought) Demand(map.Get(key) == ~key);
        report.Time("cold", static_cast<double>(sought.size()), SecondsSince(begin));
    });
#endif
    Settle();
    contest.Run("100 k random finds of 1 M after reopening, page cache warm");
}

// ---- Bytes on disk ------------------------------------------------------------------------------------------------------

// Both make the tree "tree" with 1 M ascending keys in the store's space.
void InsertAscending() {
    const PSpaceTxn txn(Exclusive);
    BPlusTree* const tree = NewUint64Tree();
    for (uint64 key = 0; key < static_cast<uint64>(NUM_TREE_KEYS); ++key) {
        const uint64 payload = ~key;
        tree->Insert(AsKey(key), AsPayload(payload), true);
    }
    AddPSpaceRoot("tree", ptr<IPersistable>(tree));
}

void LoadAscending() {
    std::vector<std::pair<uint64, uint64>> entries;
    for (uint64 key = 0; key < static_cast<uint64>(NUM_TREE_KEYS); ++key) entries.emplace_back(key, ~key);
    const PSpaceTxn txn(Exclusive);
    const auto map = PMap<uint64, uint64>::FromSorted(entries);
    AddPSpaceRoot("tree", ptr<IPersistable>(map.Get()));
}

template <class Make>
void MeasureBytes(Report& report, ConstStringZ row, Make&& make) {
    const TempDir dir;
    {
        BenchStore store(dir / "store", OM_CREATE_ALWAYS);
        make();
    }
    report.Value(row, BytesOf(dir / "store") / (ENTRY_BYTES * static_cast<double>(NUM_TREE_KEYS)), "x");
}

void RunBytes(const std::string& contestants) {
    Contest contest(contestants);
    contest.Add("BPlusTree", [](Report& report) {
        MeasureBytes(report, "bytes, insert", InsertAscending);
        MeasureBytes(report, "bytes, bulk load", LoadAscending);
    });
#ifdef QX_HAVE_LMDB
    contest.Add("LMDB", [](Report& report) {
        const TempDir dir;
        {
            LmdbMap map(dir / "lmdb", MDB_NOSYNC);
            map.BeginWrite();
            for (uint64 key = 0; key < static_cast<uint64>(NUM_TREE_KEYS); ++key) map.Put(key, ~key, MDB_APPEND);
            map.Commit();
        }
        report.Value("bytes, append", BytesOf(dir / "lmdb") / (ENTRY_BYTES * static_cast<double>(NUM_TREE_KEYS)), "x");
    });
#endif
    contest.Run("File size to payload, 1 M ascending entries of 16 bytes", 1);
}

} // namespace

int main(int argc, char** argv) {
    const std::regex parts(ArgumentOrNothing(argc, argv, 1));
    const std::string contestants = ArgumentOrNothing(argc, argv, 2);
    if (std::regex_search("groups", parts)) RunInGroups(contestants, false);
    if (std::regex_search("durable", parts)) RunInGroups(contestants, true);
    if (std::regex_search("cold", parts)) RunCold(contestants);
    if (std::regex_search("bytes", parts)) RunBytes(contestants);
}

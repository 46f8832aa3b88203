// A resident tree of 1 M uint64 -> uint64 beside std::map, absl::btree_map and LMDB, in random order. Limits, in rates:
//   find     2 times std::map's, 1.2 times LMDB's, a third of absl::btree_map's
//   insert   std::map's, aim 2 times (transient tree)
//   erase    std::map's, aim 2 times
//   scan     100 M entries/s through the iterator, aim 300 M, and above LMDB's cursor and absl::btree_map
// Each contestant inserts, finds, scans and erases all keys, in one round after the other. The argument is a regular
// expression for the contestants.
#include "bench/support/Contest.h"
#include "bench/support/TreePeers.h"

#include <chrono>
#include <map>

#ifdef QX_HAVE_ABSL
#include <absl/container/btree_map.h>
#endif

namespace {

using namespace quna;
using Clock = std::chrono::steady_clock;
using Report = Contest::Report;

constexpr double NUM_KEYS = static_cast<double>(NUM_TREE_KEYS);

struct Keys {
    std::vector<uint64> m_inserted = RandomKeys(NUM_TREE_KEYS);
    std::vector<uint64> m_found = Reordered(m_inserted);
    uint64 m_sum = 0;
    Keys() {
        for (const uint64 key : m_inserted) m_sum += ~key;
    }
};

template <class Action>
void Measure(Report& report, ConstStringZ row, Action&& action) {
    const auto begin = Clock::now();
    action();
    report.Time(row, NUM_KEYS, SecondsSince(begin));
}

void RunTree(const Keys& keys, Report& report) {
    const TempDir dir;
    BenchStore store(dir / "store");
    const PSpaceTxn txn(Exclusive);
    BPlusTree& tree = *NewUint64Tree();
    Measure(report, "insert", [&] {
        for (const uint64 key : keys.m_inserted) {
            const uint64 payload = ~key;
            tree.Insert(AsKey(key), AsPayload(payload), true);
        }
    });
    Demand(tree.size() == NUM_TREE_KEYS);
    uint64 found = 0;
    Measure(report, "find", [&] {
        for (const uint64 key : keys.m_found) found += PayloadOf(tree.find(AsKey(key)).const_deref());
    });
    Demand(found == keys.m_sum);
    uint64 sum = 0;
    Measure(report, "scan", [&] {
        const BPlusTree::Iterator end = tree.end();
        for (BPlusTree::Iterator i = tree.begin(); i != end; i.next()) sum += PayloadOf(i.const_deref());
    });
    Demand(sum == keys.m_sum);
    Measure(report, "erase", [&] {
        for (const uint64 key : keys.m_found) tree.Delete(AsKey(key));
    });
    Demand(tree.empty());
}

template <class Map>
void RunMap(const Keys& keys, Report& report) {
    Map map;
    Measure(report, "insert", [&] {
        for (const uint64 key : keys.m_inserted) map.insert_or_assign(key, ~key);
    });
    uint64 found = 0;
    Measure(report, "find", [&] {
        for (const uint64 key : keys.m_found) found += map.find(key)->second;
    });
    Demand(found == keys.m_sum);
    uint64 sum = 0;
    Measure(report, "scan", [&] {
        for (const auto& entry : map) sum += entry.second;
    });
    Demand(sum == keys.m_sum);
    Measure(report, "erase", [&] {
        for (const uint64 key : keys.m_found) map.erase(key);
    });
    Demand(map.empty());
}

#ifdef QX_HAVE_LMDB
// In one transaction each, nothing is synchronised: only the pages in memory count.
void RunLmdb(const Keys& keys, Report& report) {
    const TempDir dir;
    LmdbMap map(dir / "lmdb", MDB_NOSYNC);
    map.BeginWrite();
    Measure(report, "insert", [&] {
        for (const uint64 key : keys.m_inserted) map.Put(key, ~key);
    });
    map.Commit();
    map.BeginRead();
    Demand(map.Sum() == keys.m_sum); // maps all pages
    uint64 found = 0;
    Measure(report, "find", [&] {
        for (const uint64 key : keys.m_found) found += map.Get(key);
    });
    Demand(found == keys.m_sum);
    uint64 sum = 0;
    Measure(report, "scan", [&] { sum = map.Sum(); });
    Demand(sum == keys.m_sum);
    map.Commit();
    map.BeginWrite();
    Measure(report, "erase", [&] {
        for (const uint64 key : keys.m_found) map.Delete(key);
    });
    map.Commit();
}
#endif

} // namespace

int main(int argc, char** argv) {
    const Keys keys;
    Contest contest(ArgumentOrNothing(argc, argv, 1));
    contest.Add("BPlusTree", [&](Report& report) { RunTree(keys, report); });
    contest.Add("std::map", [&](Report& report) { RunMap<std::map<uint64, uint64>>(keys, report); });
#ifdef QX_HAVE_ABSL
    contest.Add("absl::btree_map", [&](Report& report) { RunMap<absl::btree_map<uint64, uint64>>(keys, report); });
#endif
#ifdef QX_HAVE_LMDB
    contest.Add("LMDB", [&](Report& report) { RunLmdb(keys, report); });
#endif
    contest.Run("1 M random uint64 -> uint64, resident");
}

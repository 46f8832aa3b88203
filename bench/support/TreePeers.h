// What the benchmarks of the tree have in common: the keys, a tree of uint64 -> uint64, and LMDB as a peer.
#pragma once

#include "bench/support/BenchObjects.h"
#include "qxObject/DollarNew.h"
#include "qxObject/TypeDescription.h"
#include "qxPersistStore/BPlusTree2.h"
#include "qxPersistStore/TypeInfo.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#ifdef QX_HAVE_LMDB
#include <lmdb.h>
#endif

namespace quna {

inline constexpr ssize_t NUM_TREE_KEYS = 1'000'000;

inline const _Key* AsKey(const uint64& key) { return reinterpret_cast<const _Key*>(&key); }
inline const _Payload* AsPayload(const uint64& payload) { return reinterpret_cast<const _Payload*>(&payload); }
inline uint64 PayloadOf(const _KeyAndPayload* entry) {
    uint64 payload = 0;
    std::memcpy(&payload, reinterpret_cast<const char*>(entry) + sizeof(uint64), sizeof payload);
    return payload;
}

// Different random numbers, below 2^63 so that SQLite takes them as integers: a bijection of 0..n-1.
inline std::vector<uint64> RandomKeys(ssize_t n) {
    std::vector<uint64> keys(static_cast<std::size_t>(n));
    for (std::size_t i = 0; i < keys.size(); ++i)
        keys[i] = ((static_cast<uint64>(i) + 1) * 0x9E3779B97F4A7C15u) & 0x7FFFFFFFFFFFFFFFu;
    std::shuffle(keys.begin(), keys.end(), std::mt19937(4711));
    return keys;
}

// The same keys in another order, or `n` of them.
inline std::vector<uint64> Reordered(std::vector<uint64> keys, ssize_t n = NUM_TREE_KEYS) {
    std::shuffle(keys.begin(), keys.end(), std::mt19937(815));
    keys.resize(static_cast<std::size_t>(n));
    return keys;
}

inline void Demand(bool condition) {
    if (!condition) std::abort();
}

// A new tree, transient, in the thread's space, which is locked exclusively.
inline BPlusTree* NewUint64Tree() {
    const TypeOpsId uint64Tid = GetPersistStoreTypeOpsId(DescriptionOf<uint64>());
    return DollarNew<BPlusTree>(BTreeTypeInfo(uint64Tid, uint64Tid));
}

#ifdef QX_HAVE_LMDB
// An LMDB environment with one map of uint64 -> uint64.
class LmdbMap {
public:
    LmdbMap(const std::string& path, unsigned flags) {
        mdb_env_create(&m_env);
        mdb_env_set_mapsize(m_env, std::size_t{8} << 30);
        Demand(mdb_env_open(m_env, path.c_str(), MDB_NOSUBDIR | flags, 0600) == 0);
    }
    LmdbMap(const LmdbMap&) = delete;
    LmdbMap& operator=(const LmdbMap&) = delete;
    ~LmdbMap() {
        if (m_txn) mdb_txn_abort(m_txn);
        mdb_env_close(m_env);
    }

    void BeginWrite() { Begin(0, MDB_INTEGERKEY | MDB_CREATE); }
    void BeginRead() { Begin(MDB_RDONLY, MDB_INTEGERKEY); }
    void Commit() {
        Demand(mdb_txn_commit(m_txn) == 0);
        m_txn = nullptr;
    }

    void Put(uint64 key, uint64 value, unsigned flags = 0) {
        MDB_val k{sizeof key, &key};
        MDB_val v{sizeof value, &value};
        Demand(mdb_put(m_txn, m_dbi, &k, &v, flags) == 0);
    }
    uint64 Get(uint64 key) {
        MDB_val k{sizeof key, &key};
        MDB_val v{};
        Demand(mdb_get(m_txn, m_dbi, &k, &v) == 0);
        return ValueOf(v);
    }
    void Delete(uint64 key) {
        MDB_val k{sizeof key, &key};
        Demand(mdb_del(m_txn, m_dbi, &k, nullptr) == 0);
    }
    // The sum over all values, by a cursor.
    uint64 Sum() {
        MDB_cursor* cursor = nullptr;
        Demand(mdb_cursor_open(m_txn, m_dbi, &cursor) == 0);
        uint64 sum = 0;
        MDB_val k{};
        MDB_val v{};
        while (mdb_cursor_get(cursor, &k, &v, MDB_NEXT) == 0) sum += ValueOf(v);
        mdb_cursor_close(cursor);
        return sum;
    }

private:
    void Begin(unsigned txnFlags, unsigned dbiFlags) {
        Demand(mdb_txn_begin(m_env, nullptr, txnFlags, &m_txn) == 0);
        Demand(mdb_dbi_open(m_txn, nullptr, dbiFlags, &m_dbi) == 0);
    }
    static uint64 ValueOf(const MDB_val& v) {
        uint64 value = 0;
        std::memcpy(&value, v.mv_data, sizeof value);
        return value;
    }

    MDB_env* m_env = nullptr;
    MDB_txn* m_txn = nullptr;
    MDB_dbi m_dbi = 0;
};
#endif

} // namespace quna

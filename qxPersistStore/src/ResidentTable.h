// The container under the resident object table: OIDs and what is in memory under them.
#pragma once

#include "qxObject/Interface.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/OID.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <memory>
#include <vector>

namespace quna {

// A hash table with open addressing (linear probing, deletion by backward shift: Knuth, The Art of Computer
// Programming, volume 3, 6.4, algorithm R), in shards, so that no single insertion pays for moving the whole table.
// An entry costs 24 bytes at a load of 3/8 to 3/4. Sequential OIDs, which is how families of objects are numbered, lie
// next to one another.
//
// Threads: none of its own; see ROT. Iterators and references are valid until the next insertion or erasure.
// Invariant: a slot with a null OID is empty; no OID has two slots.
class QX_API ResidentTable {
public:
    struct value_type {
        OID first;
        ptr<IPersistable> second;
    };
    using iterator = value_type*;
    using const_iterator = const value_type*;

    ResidentTable();
    ResidentTable(const ResidentTable&) = delete;
    ResidentTable& operator=(const ResidentTable&) = delete;
    ~ResidentTable();

    ssize_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    iterator end() { return nullptr; }
    const_iterator end() const { return nullptr; }
    iterator find(OID oid) { return const_cast<iterator>(static_cast<const ResidentTable*>(this)->find(oid)); }
    const_iterator find(OID oid) const;
    // The entry's value, a null one if there was none. Requires: oid is not null.
    ptr<IPersistable>& operator[](OID oid);
    // The number of entries removed: 0 or 1.
    ssize_t erase(OID oid);
    // Requires: `where` is the entry of an OID in this table.
    void erase(const_iterator where);
    void clear();

    // All entries in ascending order of OID.
    std::vector<value_type> SortedEntries() const;

private:
    struct Shard {
        std::unique_ptr<value_type[]> slots;
        ssize_t capacity = 0; // a power of two, or 0
        ssize_t size = 0;
    };

    Shard& ShardOf(uint64 hash);
    const Shard& ShardOf(uint64 hash) const;
    static void Grow(Shard& shard);

    std::unique_ptr<Shard[]> m_shards;
    ssize_t m_size = 0;
};

} // namespace quna

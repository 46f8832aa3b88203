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

// A hash table with open addressing, in shards, so that no single insertion pays for moving the whole table. Slots stand
// in groups of sixteen; one byte of tag a slot lets a search test a group at once, so that looking for an object that is
// not resident, which every load does first, mostly reads sixteen bytes (linear probing by groups: Knuth, The Art of
// Computer Programming, volume 3, 6.4; tags tested in parallel: Ross, Efficient Hash Probes on Modern Processors, 2007).
// An entry costs 25 bytes at a load of 7/12 to 7/8. Sequential OIDs, which is how families of objects are numbered, share
// groups.
//
// Threads: none of its own; see ROT. Iterators and references are valid until the next insertion or erasure.
// Invariants: no OID has two slots. A group without an empty slot has none until the shard is built anew: a search that
// passed it finds again what lies behind. At least one slot in eight is empty.
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
    class Shard;

    Shard& ShardOf(uint64 hash) const;

    std::unique_ptr<Shard[]> m_shards;
    ssize_t m_size = 0;
};

} // namespace quna

// Which OIDs stand in which queue: what makes "is it queued already?" a question of constant time.
#pragma once

#include "qxPersistStore/OID.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <memory>

namespace quna {

// How often each OID stands in each of four queues, in a hash table with open addressing (linear probing, deletion by
// backward shift). An entry costs 16 bytes at a load of at most 3/4; an empty table has no memory.
//
// Threads: none of its own; see DeletionQueue.
// Invariant: a slot with a null OID is empty; an OID that stands in no queue has no slot. A count that has reached its
//   maximum stays there.
class QX_API QueuedOids {
public:
    static constexpr int NUM_QUEUES = 4;

    QueuedOids() = default;
    QueuedOids(const QueuedOids&) = delete;
    QueuedOids& operator=(const QueuedOids&) = delete;

    // The number of different OIDs.
    ssize_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }

    // Requires, in all: 0 <= queue < NUM_QUEUES; oid is not null in Add.
    void Add(OID oid, int queue);
    // Does nothing when the OID does not stand there.
    void Remove(OID oid, int queue);
    bool Contains(OID oid, int queue) const;
    // In any queue.
    bool Contains(OID oid) const { return Find(oid) >= 0; }
    void clear();

    // Slots looked at since construction, for tests of the cost.
    int64 NumProbes() const { return m_numProbes; }

private:
    struct Slot {
        uint64 oid = 0;
        uint16 counts[NUM_QUEUES] = {};
    };

    static bool IsUnused(const Slot& slot);
    ssize_t HomeSlot(uint64 oid) const;
    ssize_t NextSlot(ssize_t slot) const { return (slot + 1) & (m_capacity - 1); }
    ssize_t Find(OID oid) const; // -1 if there is none
    ssize_t FindOrInsert(OID oid);
    void Erase(ssize_t hole);
    void Grow();

    std::unique_ptr<Slot[]> m_slots;
    ssize_t m_capacity = 0; // a power of two, or 0
    ssize_t m_size = 0;
    mutable int64 m_numProbes = 0;
};

} // namespace quna

#include "qxPersistStore/src/QueuedOids.h"

#include <algorithm>
#include <limits>

namespace quna {

namespace {

constexpr ssize_t MIN_CAPACITY = 16; // slots
constexpr uint16 MAX_COUNT = std::numeric_limits<uint16>::max();

} // namespace

bool QueuedOids::IsUnused(const Slot& slot) {
    return std::all_of(slot.counts, slot.counts + NUM_QUEUES, [](uint16 count) { return count == 0; });
}

// Multiplicative hashing with the golden ratio; its high half is the well mixed one.
ssize_t QueuedOids::HomeSlot(uint64 oid) const {
    const uint64 mixed = (oid ^ (oid >> 29)) * 0x9E3779B97F4A7C15u;
    return static_cast<ssize_t>((mixed ^ (mixed >> 32)) & static_cast<uint64>(m_capacity - 1));
}

ssize_t QueuedOids::Find(OID oid) const {
    if (m_size == 0 || !oid) return -1; // a null one would match an unused slot
    for (ssize_t slot = HomeSlot(oid.value_);; slot = NextSlot(slot)) {
        ++m_numProbes;
        if (m_slots[slot].oid == oid.value_) return slot;
        if (m_slots[slot].oid == 0) return -1;
    }
}

ssize_t QueuedOids::FindOrInsert(OID oid) {
    if ((m_size + 1) * 4 > m_capacity * 3) Grow();
    ssize_t slot = HomeSlot(oid.value_);
    for (; m_slots[slot].oid != 0; slot = NextSlot(slot)) {
        ++m_numProbes;
        if (m_slots[slot].oid == oid.value_) return slot;
    }
    m_slots[slot].oid = oid.value_;
    ++m_size;
    return slot;
}

// Unchanged if there is no memory.
void QueuedOids::Grow() {
    const ssize_t oldCapacity = m_capacity;
    const ssize_t capacity = std::max(MIN_CAPACITY, oldCapacity * 2);
    std::unique_ptr<Slot[]> old(new Slot[static_cast<std::size_t>(capacity)]);
    m_slots.swap(old);
    m_capacity = capacity;
    for (ssize_t i = 0; i < oldCapacity; ++i) {
        if (old[i].oid == 0) continue;
        ssize_t slot = HomeSlot(old[i].oid);
        while (m_slots[slot].oid != 0) slot = NextSlot(slot);
        m_slots[slot] = old[i];
    }
}

void QueuedOids::Add(OID oid, int queue) {
    uint16& count = m_slots[FindOrInsert(oid)].counts[queue];
    if (count < MAX_COUNT) ++count;
}

void QueuedOids::Remove(OID oid, int queue) {
    const ssize_t slot = Find(oid);
    if (slot < 0) return;
    uint16& count = m_slots[slot].counts[queue];
    if (count > 0 && count < MAX_COUNT) --count;
    if (IsUnused(m_slots[slot])) Erase(slot);
}

bool QueuedOids::Contains(OID oid, int queue) const {
    const ssize_t slot = Find(oid);
    return slot >= 0 && m_slots[slot].counts[queue] > 0;
}

// Moves back every follower of the run that may stand in the hole: its home lies cyclically at or before it.
void QueuedOids::Erase(ssize_t hole) {
    if (m_size == 1) {
        clear();
        return;
    }
    for (ssize_t slot = NextSlot(hole); m_slots[slot].oid != 0; slot = NextSlot(slot)) {
        ++m_numProbes;
        const ssize_t distanceToHome = (slot - HomeSlot(m_slots[slot].oid)) & (m_capacity - 1);
        const ssize_t distanceToHole = (slot - hole) & (m_capacity - 1);
        if (distanceToHome < distanceToHole) continue;
        m_slots[hole] = m_slots[slot];
        hole = slot;
    }
    m_slots[hole] = Slot();
    --m_size;
}

void QueuedOids::clear() {
    m_slots.reset();
    m_capacity = 0;
    m_size = 0;
}

} // namespace quna

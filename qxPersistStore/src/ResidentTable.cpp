#include "qxPersistStore/src/ResidentTable.h"

#include <algorithm>

namespace quna {

namespace {

constexpr int SHARD_BITS = 7;
constexpr ssize_t NUM_SHARDS = ssize_t{1} << SHARD_BITS;
constexpr int RUN_BITS = 3; // eight sequential OIDs share a run of slots
constexpr uint64 RUN_MASK = (uint64{1} << RUN_BITS) - 1;
constexpr ssize_t MIN_CAPACITY = 16; // slots

// Mixes all bits but the lowest RUN_BITS, so that a run stays together (multiplicative hashing with the golden ratio;
// its high half is the well mixed one).
uint64 Hash(OID oid) {
    const uint64 run = oid.value_ >> RUN_BITS;
    const uint64 mixed = (run ^ (run >> 29)) * 0x9E3779B97F4A7C15u;
    return mixed ^ (mixed >> 32);
}

ssize_t HomeSlot(OID oid, uint64 hash, ssize_t capacity) {
    return static_cast<ssize_t>(((hash >> SHARD_BITS << RUN_BITS) | (oid.value_ & RUN_MASK)) &
                                static_cast<uint64>(capacity - 1));
}

ssize_t HomeSlot(OID oid, ssize_t capacity) { return HomeSlot(oid, Hash(oid), capacity); }

ssize_t NextSlot(ssize_t slot, ssize_t capacity) { return (slot + 1) & (capacity - 1); }

} // namespace

ResidentTable::ResidentTable() : m_shards(new Shard[NUM_SHARDS]) {}
ResidentTable::~ResidentTable() = default;

ResidentTable::Shard& ResidentTable::ShardOf(uint64 hash) { return m_shards[hash & (NUM_SHARDS - 1)]; }
const ResidentTable::Shard& ResidentTable::ShardOf(uint64 hash) const { return m_shards[hash & (NUM_SHARDS - 1)]; }

ResidentTable::const_iterator ResidentTable::find(OID oid) const {
    const uint64 hash = Hash(oid);
    const Shard& shard = ShardOf(hash);
    if (shard.capacity == 0) return nullptr;
    for (ssize_t slot = HomeSlot(oid, hash, shard.capacity); shard.slots[slot].first.value_ != 0;
         slot = NextSlot(slot, shard.capacity)) {
        if (shard.slots[slot].first == oid) return &shard.slots[slot];
    }
    return nullptr;
}

ptr<IPersistable>& ResidentTable::operator[](OID oid) {
    const uint64 hash = Hash(oid);
    Shard& shard = ShardOf(hash);
    if ((shard.size + 1) * 4 > shard.capacity * 3) Grow(shard);
    ssize_t slot = HomeSlot(oid, hash, shard.capacity);
    for (; shard.slots[slot].first.value_ != 0; slot = NextSlot(slot, shard.capacity)) {
        if (shard.slots[slot].first == oid) return shard.slots[slot].second;
    }
    shard.slots[slot].first = oid;
    ++shard.size;
    ++m_size;
    return shard.slots[slot].second;
}

void ResidentTable::Grow(Shard& shard) {
    const ssize_t capacity = std::max(MIN_CAPACITY, shard.capacity * 2);
    std::unique_ptr<value_type[]> slots(new value_type[static_cast<std::size_t>(capacity)]);
    for (ssize_t i = 0; i < shard.capacity; ++i) {
        const value_type& entry = shard.slots[i];
        if (entry.first.value_ == 0) continue;
        ssize_t slot = HomeSlot(entry.first, capacity);
        while (slots[slot].first.value_ != 0) slot = NextSlot(slot, capacity);
        slots[slot] = entry;
    }
    shard.slots = std::move(slots);
    shard.capacity = capacity;
}

ssize_t ResidentTable::erase(OID oid) {
    const const_iterator found = find(oid);
    if (!found) return 0;
    erase(found);
    return 1;
}

void ResidentTable::erase(const_iterator where) {
    Shard& shard = ShardOf(Hash(where->first));
    ssize_t hole = where - shard.slots.get();
    // Move back every follower of the run that may stand in the hole: its home lies cyclically at or before it.
    for (ssize_t slot = NextSlot(hole, shard.capacity); shard.slots[slot].first.value_ != 0;
         slot = NextSlot(slot, shard.capacity)) {
        const ssize_t home = HomeSlot(shard.slots[slot].first, shard.capacity);
        const ssize_t distanceToHome = (slot - home) & (shard.capacity - 1);
        const ssize_t distanceToHole = (slot - hole) & (shard.capacity - 1);
        if (distanceToHome >= distanceToHole) {
            shard.slots[hole] = shard.slots[slot];
            hole = slot;
        }
    }
    shard.slots[hole] = value_type();
    --shard.size;
    --m_size;
}

void ResidentTable::clear() {
    m_shards.reset(new Shard[NUM_SHARDS]);
    m_size = 0;
}

std::vector<ResidentTable::value_type> ResidentTable::SortedEntries() const {
    std::vector<value_type> entries;
    entries.reserve(static_cast<std::size_t>(m_size));
    for (ssize_t i = 0; i < NUM_SHARDS; ++i) {
        const Shard& shard = m_shards[i];
        for (ssize_t slot = 0; slot < shard.capacity; ++slot) {
            if (shard.slots[slot].first.value_ != 0) entries.push_back(shard.slots[slot]);
        }
    }
    std::sort(entries.begin(), entries.end(),
              [](const value_type& x, const value_type& y) { return x.first < y.first; });
    return entries;
}

} // namespace quna

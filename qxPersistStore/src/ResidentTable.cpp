#include "qxPersistStore/src/ResidentTable.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

#include <emmintrin.h>

namespace quna {

namespace {

using Entry = ResidentTable::value_type;
static_assert(std::is_trivially_copyable_v<Entry> && std::is_trivially_destructible_v<Entry>);

constexpr int SHARD_BITS = 7;
constexpr ssize_t NUM_SHARDS = ssize_t{1} << SHARD_BITS;
constexpr int RUN_BITS = 3; // eight sequential OIDs share a home group
constexpr uint64 RUN_MASK = (uint64{1} << RUN_BITS) - 1;
constexpr ssize_t GROUP_SLOTS = 16;

// Tags. That of an entry has its highest bit clear.
constexpr octet_t EMPTY = 0x80;
constexpr octet_t ERASED = 0xFE; // not empty: a search goes on behind the group

// Mixes all bits but the lowest RUN_BITS, so that a run stays together (multiplicative hashing with the golden ratio;
// its high half is the well mixed one).
uint64 Hash(OID oid) {
    const uint64 run = oid.value_ >> RUN_BITS;
    const uint64 mixed = (run ^ (run >> 29)) * 0x9E3779B97F4A7C15u;
    return mixed ^ (mixed >> 32);
}

// Members of a run have different tags.
octet_t TagOf(OID oid, uint64 hash) {
    return static_cast<octet_t>((hash >> SHARD_BITS << RUN_BITS & 0x78) | (oid.value_ & RUN_MASK));
}

// The sixteen tags of a group, tested at once. A bit of a result stands for a slot.
class TagGroup {
public:
    explicit TagGroup(const octet_t* tags) : m_tags(_mm_loadu_si128(reinterpret_cast<const __m128i*>(tags))) {}
    unsigned WithTag(octet_t tag) const {
        return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(m_tags, _mm_set1_epi8(static_cast<char>(tag)))));
    }
    unsigned Empty() const { return WithTag(EMPTY); }
    unsigned EmptyOrErased() const { return static_cast<unsigned>(_mm_movemask_epi8(m_tags)); }
    unsigned Used() const { return ~EmptyOrErased() & 0xFFFF; }

private:
    __m128i m_tags;
};

} // namespace

class ResidentTable::Shard {
public:
    Shard() = default;
    Shard(const Shard&) = delete;
    Shard& operator=(const Shard&) = delete;

    Entry* Find(OID oid, uint64 hash) const {
        if (m_numGroups == 0) return nullptr;
        const octet_t tag = TagOf(oid, hash);
        for (ssize_t group = HomeGroup(hash);; group = NextGroup(group)) {
            const TagGroup tags(Tags() + group * GROUP_SLOTS);
            for (unsigned found = tags.WithTag(tag); found != 0; found &= found - 1) {
                Entry& entry = Entries()[group * GROUP_SLOTS + std::countr_zero(found)];
                if (entry.first == oid) return &entry;
            }
            if (tags.Empty() != 0) {
                // Whoever looks in vain will mostly insert: his slot is fetched while he gets the object.
                __builtin_prefetch(&Entries()[group * GROUP_SLOTS + std::countr_zero(tags.EmptyOrErased())], 1);
                return nullptr;
            }
        }
    }

    // The entry of `oid`, made if need be.
    Entry& FindOrInsert(OID oid, uint64 hash, bool& isNew) {
        isNew = false;
        const octet_t tag = TagOf(oid, hash);
        ssize_t slot = -1; // where a new entry goes
        for (ssize_t group = m_numGroups > 0 ? HomeGroup(hash) : -1; group >= 0; group = NextGroup(group)) {
            const TagGroup tags(Tags() + group * GROUP_SLOTS);
            for (unsigned found = tags.WithTag(tag); found != 0; found &= found - 1) {
                Entry& entry = Entries()[group * GROUP_SLOTS + std::countr_zero(found)];
                if (entry.first == oid) return entry;
            }
            if (slot < 0 && tags.EmptyOrErased() != 0)
                slot = group * GROUP_SLOTS + std::countr_zero(tags.EmptyOrErased());
            if (tags.Empty() != 0) break;
        }
        if (m_numEmptyToUse == 0) {
            Rebuild();
            slot = SlotFor(hash);
        }
        isNew = true;
        if (Tags()[slot] == EMPTY) --m_numEmptyToUse;
        Tags()[slot] = tag;
        ++m_size;
        return *new (&Entries()[slot]) Entry{oid, null};
    }

    // Before a search for an OID of this hash that is to be expected soon.
    void Prefetch(uint64 hash) const {
        if (m_numGroups > 0) __builtin_prefetch(Tags() + HomeGroup(hash) * GROUP_SLOTS);
    }

    void Erase(const Entry* where) {
        const ssize_t slot = where - Entries();
        octet_t* const group = Tags() + slot / GROUP_SLOTS * GROUP_SLOTS;
        const bool isPassed = TagGroup(group).Empty() == 0;
        Tags()[slot] = isPassed ? ERASED : EMPTY;
        if (!isPassed) ++m_numEmptyToUse;
        --m_size;
    }

    template <class Fn>
    void ForEach(Fn fn) const {
        for (ssize_t group = 0; group < m_numGroups; ++group) {
            const TagGroup tags(Tags() + group * GROUP_SLOTS);
            for (unsigned used = tags.Used(); used != 0; used &= used - 1)
                fn(Entries()[group * GROUP_SLOTS + std::countr_zero(used)]);
        }
    }

private:
    Entry* Entries() const { return reinterpret_cast<Entry*>(m_memory.get()); }
    octet_t* Tags() const { return m_memory.get() + m_numGroups * GROUP_SLOTS * ssize_t{sizeof(Entry)}; }

    ssize_t HomeGroup(uint64 hash) const {
        return static_cast<ssize_t>((hash >> 32) * static_cast<uint64>(m_numGroups) >> 32);
    }
    ssize_t NextGroup(ssize_t group) const { return group + 1 == m_numGroups ? 0 : group + 1; }

    // Where an entry goes that the shard does not have.
    ssize_t SlotFor(uint64 hash) const {
        for (ssize_t group = HomeGroup(hash);; group = NextGroup(group)) {
            const unsigned usable = TagGroup(Tags() + group * GROUP_SLOTS).EmptyOrErased();
            if (usable != 0) return group * GROUP_SLOTS + std::countr_zero(usable);
        }
    }

    // Half as large again; of the same size where erased slots have used the room up.
    void Rebuild() {
        const ssize_t used = m_numGroups * GROUP_SLOTS;
        Shard bigger;
        bigger.m_numGroups = m_size * 16 < used * 7 ? m_numGroups : std::max<ssize_t>(1, (m_numGroups * 3 + 1) / 2);
        const ssize_t numSlots = bigger.m_numGroups * GROUP_SLOTS;
        bigger.m_memory.reset(
            static_cast<octet_t*>(::operator new(static_cast<std::size_t>(numSlots * (ssize_t{sizeof(Entry)} + 1)))));
        bigger.TakeEntries(*this);
        m_memory = std::move(bigger.m_memory);
        m_numGroups = bigger.m_numGroups;
        m_numEmptyToUse = numSlots - numSlots / 8 - m_size;
    }

    // Into a shard that has memory and no entries. The slots of each group fill in order and are counted beside: reading
    // sixteen tags right behind the writing of one of them would wait until that is in the cache.
    void TakeEntries(const Shard& source) {
        std::memset(Tags(), EMPTY, static_cast<std::size_t>(m_numGroups * GROUP_SLOTS));
        std::vector<octet_t> numUsed(static_cast<std::size_t>(m_numGroups));
        source.ForEach([&](const Entry& entry) {
            const uint64 hash = Hash(entry.first);
            ssize_t group = HomeGroup(hash);
            while (numUsed[static_cast<std::size_t>(group)] == GROUP_SLOTS) group = NextGroup(group);
            const ssize_t slot = group * GROUP_SLOTS + numUsed[static_cast<std::size_t>(group)]++;
            Tags()[slot] = TagOf(entry.first, hash);
            new (&Entries()[slot]) Entry(entry);
        });
    }

    struct FreeMemory {
        void operator()(octet_t* p) const { ::operator delete(p); }
    };

    std::unique_ptr<octet_t, FreeMemory> m_memory; // the entries of all slots, then their tags
    ssize_t m_numGroups = 0;
    ssize_t m_size = 0;
    ssize_t m_numEmptyToUse = 0; // empty slots that may be filled before the shard is built anew
};

ResidentTable::ResidentTable() : m_shards(new Shard[NUM_SHARDS]) {}
ResidentTable::~ResidentTable() = default;

ResidentTable::Shard& ResidentTable::ShardOf(uint64 hash) const { return m_shards[hash & (NUM_SHARDS - 1)]; }

ResidentTable::const_iterator ResidentTable::find(OID oid) const {
    const uint64 hash = Hash(oid);
    return ShardOf(hash).Find(oid, hash);
}

ptr<IPersistable>& ResidentTable::operator[](OID oid) {
    const uint64 hash = Hash(oid);
    // Sequential OIDs follow one another: the tags of the next run are fetched while this one's objects are entered.
    if ((oid.value_ & RUN_MASK) == 0) {
        const uint64 next = Hash(OID(Seid(oid.value_ + RUN_MASK + 1)));
        ShardOf(next).Prefetch(next);
    }
    bool isNew = false;
    Entry& entry = ShardOf(hash).FindOrInsert(oid, hash, isNew);
    if (isNew) ++m_size;
    return entry.second;
}

ssize_t ResidentTable::erase(OID oid) {
    const const_iterator found = find(oid);
    if (!found) return 0;
    erase(found);
    return 1;
}

void ResidentTable::erase(const_iterator where) {
    ShardOf(Hash(where->first)).Erase(where);
    --m_size;
}

void ResidentTable::clear() {
    m_shards.reset(new Shard[NUM_SHARDS]);
    m_size = 0;
}

std::vector<ResidentTable::value_type> ResidentTable::SortedEntries() const {
    std::vector<value_type> entries;
    entries.reserve(static_cast<std::size_t>(m_size));
    for (ssize_t i = 0; i < NUM_SHARDS; ++i)
        m_shards[i].ForEach([&](const value_type& entry) { entries.push_back(entry); });
    std::sort(entries.begin(), entries.end(),
              [](const value_type& x, const value_type& y) { return x.first < y.first; });
    return entries;
}

} // namespace quna

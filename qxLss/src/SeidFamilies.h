// Which identifiers of one high half belong together.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <array>
#include <deque>
#include <vector>

namespace quna {

// A map from uint32 to uint32 with open addressing and linear probing; at most half full.
class QX_API SmallHashMap {
public:
    static constexpr uint32 NONE = 0xFFFFFFFF; // not a possible value

    SmallHashMap();
    // The value of `key`, or NONE.
    uint32 Find(uint32 key) const {
        for (size_t i = Home(key);; i = (i + 1) & m_mask) {
            const Entry& entry = m_entries[i];
            if (entry.value == NONE) return NONE;
            if (entry.key == key) return entry.value;
        }
    }
    void Set(uint32 key, uint32 value);
    void Erase(uint32 key);
    ssize_t Size() const { return m_size; }

private:
    struct Entry {
        uint32 key = 0;
        uint32 value = NONE;
    };

    // The top bits of a product by the golden ratio: neighbouring keys spread.
    size_t Home(uint32 key) const { return (key * 0x9E3779B1u) >> m_shift; }
    void Grow();

    std::vector<Entry> m_entries; // a power of two
    size_t m_mask;
    int m_shift;
    ssize_t m_size = 0;
};

// The families of a high: see SeidAllocator for what they are for.
//
// The low halves are looked at in granules of 8. A granule of a family's extent leads to the family; what leads nowhere is
// shared (the incremental blocks) or forgotten. At most MAX_GRANULES are remembered: beyond, the oldest is dropped, and with
// its last granule a family is. Its relatives then found a new one, which costs nothing but nearness.
//
// Threads: nothing here locks; the high's mutex guards it.
class QX_API SeidFamilies {
public:
    static constexpr uint32 GRANULE = 8;
    static constexpr ssize_t MAX_GRANULES = 65536;
    static constexpr uint32 FIRST_EXTENT = 8;
    static constexpr uint32 LAST_EXTENT = 256;
    static constexpr uint32 LARGE_FAMILY = 256; // ids; beyond, a hint may found its own
    static constexpr uint32 USES_TO_FOUND = 4;

    using Family = uint32; // index; valid until the next AddExtent or Drop

    // The family that serves `hint`, founded if there is none, perhaps without room.
    Family FamilyFor(uint32 hint);
    bool HasRoom(Family family) const { return m_families[family].next != m_families[family].end; }
    // How long the family's next extent shall be.
    uint32 NextExtent(Family family) const;
    // The family gets the unused lows [first, end), and is not dropped for that. Requires: no room.
    void AddExtent(Family family, uint32 first, uint32 end);
    // The next low of the family. Requires: room.
    uint32 Take(Family family);
    // Forgets a family that was founded but got no extent.
    void DropIfEmpty(Family family);

    ssize_t NumFamiliesForTest() const { return static_cast<ssize_t>(m_families.size() - m_free.size()); }
    ssize_t NumGranulesForTest() const { return m_granules.Size(); }

private:
    struct Entry {
        uint32 next = 0; // [next, end) of the extent in use are unused
        uint32 end = 0;
        uint32 extent = 0;   // length of the last extent asked for
        uint32 total = 0;    // ids taken
        uint32 granules = 0; // that lead here
        uint32 founder = 0;  // the hint
    };
    struct Use {
        uint32 hint = 0;
        uint32 count = 0;
    };

    Family Found(uint32 hint);
    bool HasOftenBeenUsed(uint32 hint);
    void ForgetOldestGranule();
    void Drop(Family family);

    std::vector<Entry> m_families;
    std::vector<Family> m_free;    // unused entries of m_families
    SmallHashMap m_founders;       // hint -> family that it founded
    SmallHashMap m_granules;       // low / GRANULE -> family
    std::deque<uint32> m_order;    // granules, oldest first
    std::array<Use, 256> m_uses{}; // of hints in large families, by hash; the last comer stays
};

} // namespace quna

#include "qxLss/src/SeidFamilies.h"

#include "qxUtils/Assert.h"

#include <algorithm>
#include <utility>

namespace quna {
namespace {

constexpr ConstStringZ SOURCE_PATH = "src/SeidFamilies";

constexpr int FIRST_BITS = 6;

} // namespace

SmallHashMap::SmallHashMap()
    : m_entries(size_t{1} << FIRST_BITS), m_mask((size_t{1} << FIRST_BITS) - 1), m_shift(32 - FIRST_BITS) {}

void SmallHashMap::Set(uint32 key, uint32 value) {
    if (2 * (m_size + 1) > std::ssize(m_entries)) Grow();
    size_t i = Home(key);
    while (m_entries[i].value != NONE && m_entries[i].key != key) i = (i + 1) & m_mask;
    if (m_entries[i].value == NONE) ++m_size;
    m_entries[i] = {key, value};
}

void SmallHashMap::Erase(uint32 key) {
    size_t i = Home(key);
    while (m_entries[i].value != NONE && m_entries[i].key != key) i = (i + 1) & m_mask;
    if (m_entries[i].value == NONE) return;
    --m_size;
    // Moves later entries of the run back into the gap, so that no search ends too early.
    size_t gap = i;
    for (size_t j = (gap + 1) & m_mask; m_entries[j].value != NONE; j = (j + 1) & m_mask) {
        const size_t home = Home(m_entries[j].key);
        if (((j - home) & m_mask) >= ((j - gap) & m_mask)) {
            m_entries[gap] = m_entries[j];
            gap = j;
        }
    }
    m_entries[gap] = Entry();
}

void SmallHashMap::Grow() {
    std::vector<Entry> old(2 * m_entries.size());
    old.swap(m_entries);
    m_mask = m_entries.size() - 1;
    --m_shift;
    m_size = 0;
    for (const Entry& entry : old)
        if (entry.value != NONE) Set(entry.key, entry.value);
}

SeidFamilies::Family SeidFamilies::FamilyFor(uint32 hint) {
    const Family own = m_founders.Find(hint);
    if (own != SmallHashMap::NONE) return own;
    const Family family = m_granules.Find(hint / GRANULE);
    if (family == SmallHashMap::NONE) return Found(hint);
    if (m_families[family].total > LARGE_FAMILY && HasOftenBeenUsed(hint)) return Found(hint);
    return family;
}

SeidFamilies::Family SeidFamilies::Found(uint32 hint) {
    Family family = static_cast<Family>(m_families.size());
    if (m_free.empty()) {
        m_families.emplace_back();
    } else {
        family = m_free.back();
        m_free.pop_back();
    }
    m_families[family] = Entry();
    m_families[family].founder = hint;
    m_founders.Set(hint, family);
    return family;
}

bool SeidFamilies::HasOftenBeenUsed(uint32 hint) {
    Use& use = m_uses[(hint * 0x9E3779B1u) >> 24];
    if (use.hint != hint || use.count == 0) use = {hint, 0};
    if (++use.count < USES_TO_FOUND) return false;
    use = {};
    return true;
}

uint32 SeidFamilies::NextExtent(Family family) const {
    return std::clamp(2 * m_families[family].extent, FIRST_EXTENT, LAST_EXTENT);
}

void SeidFamilies::AddExtent(Family family, uint32 first, uint32 end) {
    QX_ASSERT(!HasRoom(family));
    QX_ASSERT(first < end);
    Entry& entry = m_families[family];
    entry.extent = NextExtent(family);
    entry.next = first;
    entry.end = end;
    for (uint32 granule = first / GRANULE; granule <= (end - 1) / GRANULE; ++granule) {
        m_granules.Set(granule, family);
        m_order.push_back(granule);
        ++entry.granules;
    }
    while (std::ssize(m_order) > MAX_GRANULES) ForgetOldestGranule();
}

void SeidFamilies::ForgetOldestGranule() {
    const uint32 granule = m_order.front();
    m_order.pop_front();
    const Family family = m_granules.Find(granule);
    m_granules.Erase(granule);
    if (--m_families[family].granules == 0) Drop(family);
}

uint32 SeidFamilies::Take(Family family) {
    Entry& entry = m_families[family];
    ++entry.total;
    return entry.next++;
}

void SeidFamilies::DropIfEmpty(Family family) {
    if (m_families[family].granules == 0) Drop(family);
}

void SeidFamilies::Drop(Family family) {
    m_founders.Erase(m_families[family].founder);
    m_families[family] = Entry();
    m_free.push_back(family);
}

} // namespace quna

#include "qxLss/src/SpaceManager.h"

#include "qxUtils/Exceptions.h"

#include <algorithm>

namespace quna {

namespace {

constexpr ssize_t MIN_GROWTH = 8;   // slots
constexpr ssize_t MAX_GROWTH = 256; // slots

} // namespace

void SpaceManager::Import(ssize_t numSlots, uint64 nextSequence) {
    std::lock_guard lock(m_mutex);
    m_numSlots.store(numSlots, std::memory_order_relaxed);
    m_nextSequence = nextSequence;
    for (ssize_t slot = 0; slot < numSlots; ++slot) {
        if ((*m_core.m_segments)[slot].sequence == 0) m_unready.insert(m_unready.end(), slot);
    }
}

void SpaceManager::NoteUsed(ssize_t slot) {
    std::lock_guard lock(m_mutex);
    ssize_t numSlots = NumSlots();
    for (; numSlots <= slot; ++numSlots) m_unready.insert(numSlots);
    m_numSlots.store(numSlots, std::memory_order_relaxed);
    m_unready.erase(slot);
    m_ready.erase(slot);
    UpdateReadyCount();
}

ssize_t SpaceManager::Take(ESegmentKind kind, uint8 ageClass, uint64 clock) {
    std::lock_guard lock(m_mutex);
    ssize_t slot = 0;
    while (!TakeReady(slot)) MakeOneReady();
    UpdateReadyCount();

    SegmentSlot& s = (*m_core.m_segments)[slot];
    const int64 offset = m_core.m_segments->OffsetOf(slot);
    SutEntry entry{};
    entry.sequence = m_nextSequence++;
    entry.writtenAt = entry.dataStamp = static_cast<uint32>(clock >> STAMP_SHIFT);
    entry.kind = static_cast<uint8>(kind);
    entry.ageClass = ageClass;
    m_core.m_segments->SetEntry(slot, entry);
    s.crcSeed = SegmentCrcSeed(m_core.m_storeId, entry.sequence);
    s.base.store(m_core.m_map->At(offset), std::memory_order_relaxed);
    m_core.m_map->MarkLoaded(offset, m_core.m_segmentSize);
    return slot;
}

void SpaceManager::Free(ssize_t slot) {
    SegmentSlot& s = (*m_core.m_segments)[slot];
    m_core.m_counters.packets.fetch_sub(s.packets, std::memory_order_relaxed);
    std::lock_guard lock(m_mutex);
    s.sequence = 0;
    s.packets = 0;
    s.kind = ESegmentKind::FREE;
    m_ready.insert(slot);
    UpdateReadyCount();
}

void SpaceManager::EnsureReady(ssize_t n) {
    m_lowWater.store(n + MIN_GROWTH / 2, std::memory_order_relaxed);
    if (m_numReady.load(std::memory_order_relaxed) >= n) return;
    std::lock_guard lock(m_mutex);
    while (static_cast<ssize_t>(m_ready.size()) < n) MakeOneReady();
    UpdateReadyCount();
}

void SpaceManager::GrowAhead() {
    try {
        std::lock_guard lock(m_mutex);
        while (IsShort()) {
            MakeOneReady();
            UpdateReadyCount();
        }
    } catch (const FileException&) {
        m_lowWater.store(0, std::memory_order_relaxed); // until the next transaction asks
    }
}

void SpaceManager::TrimEnd() {
    std::lock_guard lock(m_mutex);
    ssize_t numSlots = NumSlots();
    while (numSlots > 0 && (m_ready.contains(numSlots - 1) || m_unready.contains(numSlots - 1))) {
        --numSlots;
        m_ready.erase(numSlots);
        m_unready.erase(numSlots);
    }
    m_numSlots.store(numSlots, std::memory_order_relaxed);
    UpdateReadyCount();
    m_core.m_file.Truncate(m_core.m_segments->OffsetOf(numSlots));
}

uint64 SpaceManager::NextSequence() const {
    std::lock_guard lock(m_mutex);
    return m_nextSequence;
}

// A reader that has not yet unpinned may be looking at the slot. The read of the count is a read-modify-write: either it
// sees the reader's pin, or the reader's second look at the index comes after it and finds the new location.
bool SpaceManager::TakeReady(ssize_t& slot) {
    for (auto i = m_ready.begin(); i != m_ready.end(); ++i) {
        if ((*m_core.m_segments)[*i].pins.fetch_add(0, std::memory_order_acq_rel) == 0) {
            slot = *i;
            m_ready.erase(i);
            return true;
        }
    }
    return false;
}

void SpaceManager::MakeOneReady() {
    if (m_unready.empty()) {
        Grow();
        return;
    }
    const ssize_t slot = *m_unready.begin();
    m_core.m_file.Allocate(m_core.m_segments->OffsetOf(slot), m_core.m_segmentSize);
    m_unready.erase(m_unready.begin());
    m_ready.insert(slot);
}

// A full disk may still have room for one segment where it has none for many.
void SpaceManager::Grow() {
    const ssize_t numSlots = NumSlots();
    ssize_t n = std::clamp(numSlots / 8, MIN_GROWTH, MAX_GROWTH);
    n = std::min(n, m_core.m_segments->MaxSlots() - numSlots);
    if (n <= 0) throw FileException(("The store '" + m_core.m_file.Path() + "' has reached its largest size").c_str());
    for (;;) {
        try {
            m_core.m_file.Allocate(m_core.m_segments->OffsetOf(numSlots), n * m_core.m_segmentSize);
            break;
        } catch (const FileException&) {
            if (n == 1) throw;
            n = 1;
        }
    }
    for (ssize_t slot = numSlots; slot < numSlots + n; ++slot) m_ready.insert(slot);
    m_numSlots.store(numSlots + n, std::memory_order_relaxed);
}

} // namespace quna

#include "qxLss/src/SpaceManager.h"

#include "qxLss/src/Mutants.h"
#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace quna {

namespace {

constexpr ssize_t MIN_GROWTH = 8;   // slots
constexpr ssize_t MAX_GROWTH = 256; // slots

} // namespace

void SpaceManager::Import(ssize_t numSlots, uint64 nextSequence) {
    std::lock_guard lock(m_mutex);
    m_numSlots.store(numSlots, std::memory_order_relaxed);
    m_core.m_segments->RaiseLimit(numSlots);
    m_nextSequence = nextSequence;
    for (ssize_t slot = 0; slot < numSlots; ++slot) {
        if ((*m_core.m_segments)[slot].sequence == 0) m_unready.insert(m_unready.end(), slot);
    }
}

ssize_t SpaceManager::Take(ESegmentKind kind, uint8 ageClass, uint64 clock, EClaim claim) {
    const ssize_t reserve = claim == EClaim::TRANSACTION ? m_reserve.load(std::memory_order_relaxed) : 0;
    ssize_t slot = 0;
    uint64 sequence = 0;
    for (;;) {
        {
            std::lock_guard lock(m_mutex);
            if (TakeReady(slot, reserve)) {
                UpdateReadyCount();
                sequence = m_nextSequence++;
                break;
            }
        }
        std::lock_guard lock(m_fileMutex);
        MakeOneReady();
    }
    const int64 offset = m_core.m_segments->OffsetOf(slot);
    SutEntry entry{};
    entry.sequence = sequence;
    entry.writtenAt = entry.dataStamp = static_cast<uint32>(clock >> m_core.m_stampShift);
    entry.kind = static_cast<uint8>(kind);
    entry.ageClass = ageClass;
    m_core.m_segments->SetEntry(slot, entry);
    SegmentSlot& s = (*m_core.m_segments)[slot];
    s.crcSeed = SegmentCrcSeed(m_core.m_storeId, entry.sequence);
    s.base.store(m_core.m_map->At(offset), std::memory_order_relaxed);
    m_core.m_map->MarkLoaded(offset, m_core.m_segmentSize);
    return slot;
}

void SpaceManager::Free(ssize_t slot) {
    SegmentSlot& s = (*m_core.m_segments)[slot];
    m_core.m_counters.packets.fetch_sub(s.packets, std::memory_order_relaxed);
    m_core.m_counters.usedBytes.fetch_sub(s.usedBytes, std::memory_order_relaxed);
    m_core.m_segments->SetEntry(slot, SutEntry{});
    std::lock_guard lock(m_mutex);
    (m_held.contains(slot) ? m_freedHeld : m_ready).insert(slot);
    UpdateReadyCount();
}

void SpaceManager::Hold(const std::vector<ssize_t>& slots) {
    std::lock_guard lock(m_mutex);
    m_held.insert(slots.begin(), slots.end());
}

void SpaceManager::Release(ssize_t slot) {
    std::lock_guard lock(m_mutex);
    m_held.erase(slot);
    if (m_freedHeld.erase(slot)) m_ready.insert(slot);
    UpdateReadyCount();
}

void SpaceManager::ReleaseAll() {
    std::lock_guard lock(m_mutex);
    m_held.clear();
    m_ready.merge(m_freedHeld);
    UpdateReadyCount();
}

void SpaceManager::EnsureReady(ssize_t n) {
    n += m_reserve.load(std::memory_order_relaxed);
    m_comfort.store(n + MIN_GROWTH / 2, std::memory_order_relaxed);
    m_lowWater.store(Comfort(), std::memory_order_relaxed);
    if (NumReady() >= n) return;
    std::lock_guard lock(m_fileMutex);
    while (NumReady() < n) MakeOneReady();
}

ssize_t SpaceManager::PrepareReady(ssize_t n) {
    try {
        std::lock_guard lock(m_fileMutex);
        while (NumReady() < n) MakeOneReady();
    } catch (const FileException&) {
        return NumReady();
    }
    return NumReady();
}

ssize_t SpaceManager::PrepareReadyBelow(ssize_t end, ssize_t n) {
    std::lock_guard fileLock(m_fileMutex);
    for (;;) {
        ssize_t slot = end;
        {
            std::lock_guard lock(m_mutex);
            const ssize_t numReady = std::distance(m_ready.begin(), m_ready.lower_bound(end));
            for (const std::set<ssize_t>* from : {&m_unready, &m_hollow}) {
                if (!from->empty()) slot = std::min(slot, *from->begin());
            }
            if (numReady >= n || slot >= end) return numReady;
        }
        try {
            MakeReady(slot);
        } catch (const FileException&) {
            return 0; // a full disk
        }
    }
}

void SpaceManager::GrowAhead() {
    try {
        std::lock_guard lock(m_fileMutex);
        while (IsShort()) MakeOneReady();
    } catch (const FileException&) {
        m_lowWater.store(0, std::memory_order_relaxed); // until the next transaction asks
    }
}

// What is to go leaves the sets first, so that nobody takes it while the file is cut.
void SpaceManager::TrimEnd(ssize_t keep) {
    std::lock_guard fileLock(m_fileMutex);
    ssize_t numSlots = 0;
    {
        std::lock_guard lock(m_mutex);
        numSlots = NumSlots();
        ssize_t numFree = static_cast<ssize_t>(m_ready.size() + m_unready.size() + m_hollow.size());
        for (; numFree > keep; --numSlots, --numFree) {
            const ssize_t last = numSlots - 1;
            if (IsPinned(last) || m_ready.erase(last) + m_unready.erase(last) + m_hollow.erase(last) == 0) break;
        }
        UpdateReadyCount();
        if (numSlots == NumSlots() && keep > 0) return;
        m_numSlots.store(numSlots, std::memory_order_relaxed);
    }
    if (IsMutant(EMutant::TRIMMED_TOO_FAR) && numSlots > 0) --numSlots;
    m_core.m_file.Truncate(m_core.m_segments->OffsetOf(numSlots));
}

bool SpaceManager::PunchOne(ssize_t keep) {
    std::lock_guard fileLock(m_fileMutex);
    std::set<ssize_t>::node_type punching; // in no set meanwhile
    {
        std::lock_guard lock(m_mutex);
        std::set<ssize_t>& from = m_unready.empty() ? m_ready : m_unready;
        if (!m_canPunch || static_cast<ssize_t>(m_ready.size() + m_unready.size()) <= keep) return false;
        if (IsPinned(*from.rbegin())) return false;
        punching = from.extract(std::prev(from.end()));
        UpdateReadyCount();
    }
    const ssize_t slot = punching.value();
    try {
        const ssize_t punched = IsMutant(EMutant::NEIGHBOUR_PUNCHED) && slot > 0 ? slot - 1 : slot;
        m_canPunch = m_core.m_file.PunchHole(m_core.m_segments->OffsetOf(punched), m_core.m_segmentSize);
    } catch (const FileException&) {
        m_canPunch = false; // the slot may have its blocks or not
    }
    std::lock_guard lock(m_mutex);
    (m_canPunch ? m_hollow : m_unready).insert(std::move(punching));
    return m_canPunch;
}

ssize_t SpaceManager::NumFree() const {
    std::lock_guard lock(m_mutex);
    return static_cast<ssize_t>(m_ready.size() + m_unready.size() + m_hollow.size());
}

ssize_t SpaceManager::NumFreeAtEnd() const {
    std::lock_guard lock(m_mutex);
    ssize_t n = 0;
    for (ssize_t slot = NumSlots() - 1; m_ready.contains(slot) || m_unready.contains(slot) || m_hollow.contains(slot);
         --slot)
        ++n;
    return n;
}

uint64 SpaceManager::NextSequence() const {
    std::lock_guard lock(m_mutex);
    return m_nextSequence;
}

// A reader that has not yet unpinned may be looking at the slot. The read of the count is a read-modify-write: either it
// sees the reader's pin, or the reader's second look at the index comes after it and finds the new location.
bool SpaceManager::IsPinned(ssize_t slot) const {
    return (*m_core.m_segments)[slot].pins.fetch_add(0, std::memory_order_acq_rel) != 0;
}

bool SpaceManager::TakeReady(ssize_t& slot, ssize_t reserve) {
    if (static_cast<ssize_t>(m_ready.size()) <= reserve) return false;
    for (auto i = m_ready.begin(); i != m_ready.end(); ++i) {
        if (!IsPinned(*i)) {
            slot = *i;
            m_ready.erase(i);
            return true;
        }
    }
    return false;
}

// With m_fileMutex.
void SpaceManager::MakeOneReady() {
    ssize_t slot = -1;
    {
        std::lock_guard lock(m_mutex);
        for (std::set<ssize_t>* from : {&m_unready, &m_hollow}) {
            if (!from->empty() && (slot < 0 || *from->begin() < slot)) slot = *from->begin();
        }
    }
    if (slot < 0) {
        Grow();
        return;
    }
    MakeReady(slot);
}

void SpaceManager::MakeReady(ssize_t slot) {
    m_core.m_file.Allocate(m_core.m_segments->OffsetOf(slot), m_core.m_segmentSize);
    std::lock_guard lock(m_mutex);
    m_ready.insert(m_unready.extract(slot));
    m_ready.insert(m_hollow.extract(slot));
    UpdateReadyCount();
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
    // Made before anything changes: a slot that is ready and not counted would be used, and nobody would find it again.
    std::set<ssize_t> fresh;
    for (ssize_t slot = numSlots; slot < numSlots + n; ++slot) fresh.insert(fresh.end(), slot);
    std::lock_guard lock(m_mutex);
    m_ready.merge(fresh);
    UpdateReadyCount();
    m_core.m_segments->RaiseLimit(numSlots + n);
    m_numSlots.store(numSlots + n, std::memory_order_relaxed);
}

} // namespace quna

#include "qxLss/src/SegmentTable.h"

#include <algorithm>
#include <bit>
#include <new>

namespace quna {

SegmentTable::SegmentTable(ssize_t segmentSize, ssize_t maxSlots)
    : m_segmentSize(segmentSize), m_dataStart(DataStart(segmentSize)),
      m_shift(std::countr_zero(static_cast<uint64>(segmentSize))), m_maxSlots(maxSlots),
      m_pages(static_cast<size_t>(maxSlots) * sizeof(SegmentSlot)), m_slots(m_pages.As<SegmentSlot>()) {
    if (!m_pages) throw std::bad_alloc();
}

bool SegmentTable::IsInside(Location l, ssize_t numSlots) const {
    if (l >> 61 || LocationOffset(l) < m_dataStart || LocationBytes(l) < PACKET_HEADER_BYTES) return false;
    const ssize_t offset = OffsetIn(l);
    return SlotOf(l) < numSlots && offset >= SEGMENT_HEADER_BYTES && offset + LocationBytes(l) <= m_segmentSize;
}

uint32 SegmentTable::UsageOfStored(const SutEntry& e) const {
    const uint32 most = static_cast<uint32>(m_segmentSize - SEGMENT_HEADER_BYTES);
    if (!e.sequence || e.kind == static_cast<uint8>(ESegmentKind::INDEX)) return 0;
    if (e.kind == static_cast<uint8>(ESegmentKind::USER) || e.livePackets == 0) return most;
    const uint64 dead = e.packets > e.livePackets ? e.packets - e.livePackets : 0;
    const uint64 used = e.liveBytes + dead * (e.liveBytes / e.livePackets);
    return static_cast<uint32>(std::min<uint64>(used, most));
}

SutEntry SegmentTable::Entry(ssize_t slot) const {
    const SegmentSlot& s = m_slots[slot];
    SutEntry e{};
    e.sequence = s.sequence;
    if (s.sequence == 0) return e;
    e.liveBytes = s.liveBytes;
    e.livePackets = s.livePackets;
    e.packets = s.packets;
    e.writtenAt = s.writtenAt;
    e.dataStamp = s.dataStamp;
    e.kind = static_cast<uint8>(s.kind);
    e.ageClass = s.ageClass;
    return e;
}

void SegmentTable::SetEntry(ssize_t slot, const SutEntry& e) const {
    SegmentSlot& s = m_slots[slot];
    s.sequence = e.sequence;
    s.liveBytes = e.liveBytes;
    s.livePackets = e.livePackets;
    s.packets = e.packets;
    s.writtenAt = e.writtenAt;
    s.dataStamp = e.dataStamp;
    s.kind = e.sequence ? static_cast<ESegmentKind>(e.kind) : ESegmentKind::FREE;
    s.ageClass = e.ageClass;
    s.usedBytes = 0;
    s.isOpen = false;
    s.mayBeVictim = false;
    s.isDamaged = false;
}

} // namespace quna

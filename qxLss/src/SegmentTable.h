// What is known of each segment slot of the file.
#pragma once

#include "qxLss/src/Format.h"
#include "qxLss/src/ZeroPages.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <atomic>

namespace quna {

// One segment slot. The usage fields are those of its SutEntry.
//
// Threads: `pins` by anyone. `base`, `sequence` and `crcSeed` are written when the slot is taken, which needs pins == 0,
//          and read by whoever has it pinned and has found a location in it. The usage fields belong to the holder of the
//          log's turn; those of index segments to the checkpoint. `isOpen`, `mayBeVictim` and `isDamaged` belong to the
//          maintenance (Checkpoint::Exclude).
struct alignas(64) SegmentSlot {
    std::atomic<uint32> pins;
    uint32 crcSeed;
    uint64 sequence;                  // 0 = free
    std::atomic<const octet_t*> base; // of the bytes: the mapping, or the buffer of an open segment
    uint32 liveBytes;
    uint32 livePackets;
    uint32 packets;
    uint32 writtenAt;
    uint32 dataStamp;
    uint32 usedBytes; // of packets of all types, in a sealed log segment; see UsageOfStored. Not in the file
    ESegmentKind kind;
    uint8 ageClass;
    bool isOpen;      // a survivor segment that may still grow
    bool mayBeVictim; // recovery needs it no more than its live packets: sealed before the newest checkpoint
    bool isDamaged;   // the cleaner met a packet that does not verify: the segment stays as it is
};
static_assert(sizeof(SegmentSlot) == 64);

// The slots of the largest file that the mapping allows, as one array whose pages appear when they are first used.
//
// Ownership: owns the memory.
// Threads:   see SegmentSlot.
class QX_API SegmentTable {
public:
    SegmentTable(ssize_t segmentSize, ssize_t maxSlots);
    SegmentTable(const SegmentTable&) = delete;
    SegmentTable& operator=(const SegmentTable&) = delete;
    ~SegmentTable() { m_pages.SetUsed(static_cast<size_t>(Limit()) * sizeof(SegmentSlot)); }

    ssize_t MaxSlots() const { return m_maxSlots; }
    // The slots that the file has or has had: nothing that it holds names another one. Bounds what a damaged file makes us
    // touch of the table.
    ssize_t Limit() const { return m_limit.load(std::memory_order_relaxed); }
    void RaiseLimit(ssize_t numSlots) {
        if (numSlots > Limit()) m_limit.store(numSlots, std::memory_order_relaxed);
    }
    ssize_t SegmentSize() const { return m_segmentSize; }
    int64 DataStartOffset() const { return m_dataStart; }

    SegmentSlot& operator[](ssize_t slot) const { return m_slots[slot]; }

    int64 OffsetOf(ssize_t slot) const { return m_dataStart + (static_cast<int64>(slot) << m_shift); }
    ssize_t SlotOf(Location l) const { return static_cast<ssize_t>((LocationOffset(l) - m_dataStart) >> m_shift); }
    // Offset of the packet within its segment.
    uint32 OffsetIn(Location l) const {
        return static_cast<uint32>((LocationOffset(l) - m_dataStart) & (m_segmentSize - 1));
    }
    // Does the location name a packet inside one of the first `numSlots` segments, behind its header?
    bool IsInside(Location l, ssize_t numSlots) const;
    bool IsInside(Location l) const { return IsInside(l, Limit()); }

    // The packet is current: counts it as live. Returns its bytes.
    ssize_t Credit(Location l) const {
        SegmentSlot& slot = m_slots[SlotOf(l)];
        const ssize_t bytes = LocationBytes(l);
        slot.liveBytes += static_cast<uint32>(bytes);
        ++slot.livePackets;
        return bytes;
    }
    // The packet is dead.
    ssize_t Debit(Location l) const {
        SegmentSlot& slot = m_slots[SlotOf(l)];
        const ssize_t bytes = LocationBytes(l);
        slot.liveBytes -= static_cast<uint32>(bytes);
        --slot.livePackets;
        return bytes;
    }

    // The bytes of the packets in a segment of which only the usage table is known. A user segment counts as full: what
    // its transactions' ends take is dead with them. In a survivor segment the dead packets count as long as the live
    // ones on average, so that one without dead packets never looks worth cleaning.
    uint32 UsageOfStored(const SutEntry& entry) const;

    SutEntry Entry(ssize_t slot) const;
    void SetEntry(ssize_t slot, const SutEntry& entry) const;

private:
    const ssize_t m_segmentSize;
    const int64 m_dataStart;
    const int m_shift; // log2 of the segment size
    const ssize_t m_maxSlots;
    std::atomic<ssize_t> m_limit{0}; // raised by whoever opens or lengthens the file, one at a time
    ZeroPages m_pages;               // zero is a valid slot: free, not pinned
    SegmentSlot* const m_slots;
};

} // namespace quna

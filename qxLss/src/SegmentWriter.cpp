#include "qxLss/src/SegmentWriter.h"

namespace quna {

SegmentWriter::SegmentWriter(StoreCore& core, bool readersUseBuffer)
    : m_core(core), m_readersUseBuffer(readersUseBuffer), m_segmentSize(core.m_segmentSize),
      m_buffer(std::make_unique<octet_t[]>(static_cast<size_t>(core.m_segmentSize))) {}

void SegmentWriter::OpenFor(ssize_t slot, uint64 clockAtOpening) {
    SegmentSlot& s = (*m_core.m_segments)[slot];
    m_slot = slot;
    m_fileOffset = m_core.m_segments->OffsetOf(slot);
    m_sequence = s.sequence;
    m_crcSeed = s.crcSeed;
    m_clockAtOpening = clockAtOpening;
    if (m_readersUseBuffer) s.base.store(m_buffer.get(), std::memory_order_release);
}

void SegmentWriter::Begin(ssize_t slot, uint64 clockAtOpening, uint64 previousSequence, uint64 dataStamp) {
    OpenFor(slot, clockAtOpening);
    const SegmentSlot& s = (*m_core.m_segments)[slot];
    SegmentHeader header{};
    std::memcpy(header.magic, SEGMENT_MAGIC, sizeof header.magic);
    header.sequence = m_sequence;
    header.storeIdStart = StoreIdStart(m_core.m_storeId);
    header.clockAtOpening = clockAtOpening;
    header.dataStamp = dataStamp;
    header.kind = static_cast<uint32>(s.kind);
    header.ageClass = s.ageClass;
    header.previousSequence = previousSequence;
    header.slot = static_cast<uint32>(slot);
    header.crc = Crc32c(&header, offsetof(SegmentHeader, crc));
    std::memcpy(m_buffer.get(), &header, sizeof header);
    m_pos = SEGMENT_HEADER_BYTES;
    m_handed = 0;
}

void SegmentWriter::Resume(ssize_t slot, ssize_t offset, uint64 clockAtOpening) {
    if (m_readersUseBuffer) m_core.m_file.Read(m_core.m_segments->OffsetOf(slot), m_buffer.get(), offset);
    OpenFor(slot, clockAtOpening);
    m_pos = m_handed = offset;
}

void SegmentWriter::End() {
    if (m_readersUseBuffer && m_slot >= 0) {
        (*m_core.m_segments)[m_slot].base.store(m_core.m_map->At(m_fileOffset), std::memory_order_release);
        RetireBuffer();
    }
    m_slot = -1;
}

// A reader that has the slot pinned may have found the buffer there. The look at the count is a read-modify-write, so
// that a reader who pins after it finds the new base. Without memory the writer keeps its buffer: it has to end the
// transaction with it.
void SegmentWriter::RetireBuffer() {
    const auto isUnpinned = [&](ssize_t slot) {
        return (*m_core.m_segments)[slot].pins.fetch_add(0, std::memory_order_acq_rel) == 0;
    };
    if (isUnpinned(m_slot)) return;
    for (Retired& retired : m_retired) {
        if (!isUnpinned(retired.slot)) continue;
        std::swap(retired.buffer, m_buffer);
        retired.slot = m_slot;
        return;
    }
    auto fresh = std::make_unique<octet_t[]>(static_cast<size_t>(m_segmentSize));
    m_retired.reserve(m_retired.size() + 1);
    m_retired.push_back({m_slot, std::move(m_buffer)});
    m_buffer = std::move(fresh);
}

void SegmentWriter::HandOver() {
    if (m_handed == m_pos) return;
    m_core.m_file.Write(m_fileOffset + m_handed, m_buffer.get() + m_handed, m_pos - m_handed);
    m_handed = m_pos;
}

} // namespace quna

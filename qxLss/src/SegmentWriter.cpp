#include "qxLss/src/SegmentWriter.h"

namespace quna {

SegmentWriter::SegmentWriter(StoreCore& core)
    : m_core(core), m_segmentSize(core.m_segmentSize),
      m_buffer(std::make_unique<octet_t[]>(static_cast<size_t>(core.m_segmentSize))) {}

void SegmentWriter::Begin(ssize_t slot, uint64 clockAtOpening, uint64 previousSequence) {
    const SegmentSlot& s = (*m_core.m_segments)[slot];
    m_slot = slot;
    m_fileOffset = m_core.m_segments->OffsetOf(slot);
    m_sequence = s.sequence;
    m_crcSeed = s.crcSeed;
    m_clockAtOpening = clockAtOpening;

    SegmentHeader header{};
    std::memcpy(header.magic, SEGMENT_MAGIC, sizeof header.magic);
    header.sequence = m_sequence;
    header.storeIdStart = StoreIdStart(m_core.m_storeId);
    header.clockAtOpening = clockAtOpening;
    header.dataStamp = clockAtOpening;
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
    const SegmentSlot& s = (*m_core.m_segments)[slot];
    m_slot = slot;
    m_fileOffset = m_core.m_segments->OffsetOf(slot);
    m_sequence = s.sequence;
    m_crcSeed = s.crcSeed;
    m_clockAtOpening = clockAtOpening;
    m_pos = m_handed = offset;
}

void SegmentWriter::HandOver() {
    if (m_handed == m_pos)
        return;
    m_core.m_file.Write(m_fileOffset + m_handed, m_buffer.get() + m_handed, m_pos - m_handed);
    m_handed = m_pos;
}

} // namespace quna

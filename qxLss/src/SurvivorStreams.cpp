#include "qxLss/src/SurvivorStreams.h"

#include "qxUtils/Exceptions.h"

namespace quna {

Location SurvivorStreams::Append(int ageClass, EPacketType type, uint64 key, const octet_t* payload, ssize_t n,
                                 uint32 flags, uint64 dataStamp, uint64 clock) {
    Stream& stream = m_streams[static_cast<size_t>(ageClass)];
    if (!stream.writer) stream.writer = std::make_unique<SegmentWriter>(m_core);
    SegmentWriter& writer = *stream.writer;
    if (writer.IsOpen() && writer.Room() - ELEMENT_TAIL_BYTES < PaddedSize(PACKET_HEADER_BYTES + n)) Seal(stream);
    if (!writer.IsOpen() && !Begin(stream, ageClass, dataStamp, clock)) return 0;
    ++stream.packets;
    stream.stamps += static_cast<double>(dataStamp);
    ++stream.numStamps;
    return writer.Append(type, key, payload, n, flags);
}

bool SurvivorStreams::Begin(Stream& stream, int ageClass, uint64 dataStamp, uint64 clock) {
    ssize_t slot = 0;
    try {
        slot = m_space.Take(ESegmentKind::SURVIVORS, static_cast<uint8>(ageClass), clock);
    } catch (const FileException&) {
        return false; // a full disk; nothing has been written
    }
    SegmentSlot& s = (*m_core.m_segments)[slot];
    s.isOpen = true;
    s.dataStamp = static_cast<uint32>(dataStamp >> m_core.m_stampShift);
    stream.writer->Begin(slot, clock, stream.previousSequence, dataStamp);
    stream.previousSequence = stream.writer->Sequence();
    stream.from = SEGMENT_HEADER_BYTES;
    stream.packets = 0;
    stream.stamps = 0;
    stream.numStamps = 0;
    return true;
}

void SurvivorStreams::Seal(Stream& stream) {
    SegmentWriter& writer = *stream.writer;
    writer.HandOver();
    if (stream.packets) m_sealed.push_back(Unreported(stream));
    (*m_core.m_segments)[writer.Slot()].isOpen = false;
    m_flusher.QueueWriteBack(m_core.m_segments->OffsetOf(writer.Slot()), m_core.m_segmentSize);
    writer.End();
    stream.packets = 0;
}

SurvivorStreams::Range SurvivorStreams::Unreported(const Stream& stream) const {
    const SegmentWriter& writer = *stream.writer;
    return {writer.Slot(), writer.Sequence(), stream.from, writer.Position(), stream.packets};
}

void SurvivorStreams::HandOver() {
    for (Stream& stream : m_streams) {
        if (stream.writer && stream.writer->IsOpen()) stream.writer->HandOver();
    }
}

void SurvivorStreams::SealFrom(ssize_t first) {
    for (Stream& stream : m_streams) {
        if (stream.writer && stream.writer->IsOpen() && stream.writer->Slot() >= first) Seal(stream);
    }
}

bool SurvivorStreams::HasUnreported() const {
    for (const Stream& stream : m_streams) {
        if (stream.packets) return true;
    }
    return !m_sealed.empty();
}

std::vector<SurvivorStreams::Range> SurvivorStreams::TakeRanges() {
    std::vector<Range> ranges;
    ranges.swap(m_sealed);
    for (Stream& stream : m_streams) {
        if (!stream.packets) continue;
        ranges.push_back(Unreported(stream));
        stream.from = stream.writer->Position();
        stream.packets = 0;
        const double mean = stream.stamps / static_cast<double>(stream.numStamps);
        (*m_core.m_segments)[stream.writer->Slot()].dataStamp =
            static_cast<uint32>(static_cast<uint64>(mean) >> m_core.m_stampShift);
    }
    for (const Range& range : ranges) {
        SegmentSlot& s = (*m_core.m_segments)[range.slot];
        s.packets += range.packets;
        s.usedBytes += static_cast<uint32>(range.to - range.from);
        m_core.m_counters.packets.fetch_add(range.packets, std::memory_order_relaxed);
        m_core.m_counters.usedBytes.fetch_add(range.to - range.from, std::memory_order_relaxed);
        m_core.m_counters.survivorBytes.fetch_add(static_cast<uint64>(range.to - range.from),
                                                  std::memory_order_relaxed);
    }
    return ranges;
}

} // namespace quna

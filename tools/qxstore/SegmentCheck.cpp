#include "tools/qxstore/SegmentCheck.h"

#include "qxUtils/Exceptions.h"
#include "tools/qxstore/Units.h"

#include <algorithm>
#include <cstring>

namespace quna::qxstore {

namespace {

bool IsCounted(EPacketType type) {
    return type == EPacketType::HEAD || type == EPacketType::LONG_PART || type == EPacketType::REMOVE ||
           type == EPacketType::INDEX;
}

// Cheap to ask before a checksum is taken: most bytes are no header of a packet.
bool LooksLikeInfo(uint32 info) {
    const uint32 type = info >> 24 & 15;
    return type >= static_cast<uint32>(EPacketType::HEAD) && type <= static_cast<uint32>(EPacketType::LIST) &&
           PacketFlags(info) <= PACKET_FLAG_LONG;
}

} // namespace

SegmentCheck::SegmentCheck(OpenedStore& store, Findings& findings)
    : m_store(store), m_findings(findings), m_bytes(static_cast<size_t>(store.Segments().SegmentSize())) {}

void SegmentCheck::Run(bool quiet) {
    ReadHeaders();
    Progress progress("segments", static_cast<int64>(m_segments.size()), quiet);
    for (Segment& segment : m_segments) {
        try {
            CheckSegment(segment);
        } catch (const IException& e) {
            m_findings.Problem(NameOf(segment), e); // the disk does not give it
        }
        progress.Advance(1);
    }
    m_numSegments = static_cast<int64>(m_segments.size());
}

void SegmentCheck::ReadHeaders() {
    for (ssize_t slot = 0; slot < m_store.NumSlots(); ++slot) {
        Segment segment;
        segment.slot = slot;
        segment.entry = m_store.Segments().Entry(slot);
        if (!segment.entry.sequence) continue;
        segment.hasHeader = ReadHeader(segment);
        const SegmentHeader& header = segment.header;
        if (segment.hasHeader && header.kind == static_cast<uint32>(ESegmentKind::USER))
            m_nextClock[header.previousSequence] = header.clockAtOpening;
        m_segments.push_back(segment);
    }
}

// False if it is not that of the segment that the usage table knows.
bool SegmentCheck::ReadHeader(Segment& segment) const {
    StoreCore& core = m_store.Core();
    SegmentHeader& header = segment.header;
    try {
        core.m_file.Read(m_store.Segments().OffsetOf(segment.slot), &header, sizeof header);
    } catch (const FileException&) {
        return false;
    }
    return std::memcmp(header.magic, SEGMENT_MAGIC, sizeof header.magic) == 0 &&
           header.slot == static_cast<uint32>(segment.slot) && header.storeIdStart == StoreIdStart(core.m_storeId) &&
           header.crc == Crc32c(&header, offsetof(SegmentHeader, crc)) && header.sequence == segment.entry.sequence &&
           header.kind == segment.entry.kind;
}

std::string SegmentCheck::NameOf(const Segment& segment) const {
    return "segment " + std::to_string(segment.slot) + " (offset " +
           std::to_string(m_store.Segments().OffsetOf(segment.slot)) + ")";
}

void SegmentCheck::CheckSegment(Segment& segment) {
    if (!segment.hasHeader) m_findings.Problem(NameOf(segment) + ": its header is not valid");
    segment.size = m_store.Core().m_file.ReadUpTo(m_store.Segments().OffsetOf(segment.slot), m_bytes.data(),
                                                  m_store.Segments().SegmentSize());
    FindEnd(segment);
    WalkPackets(segment);
    if (segment.numCounted < segment.entry.packets)
        m_findings.Problem(NameOf(segment) + ": " + GroupedNumber(segment.numCounted) + " of its " +
                           Counted(segment.entry.packets, "packet", "packets") + " can be read");
}

void SegmentCheck::FindEnd(Segment& segment) const {
    const SegmentHeader& header = segment.header;
    if (!segment.hasHeader || header.kind != static_cast<uint32>(ESegmentKind::USER)) return;
    const auto next = m_nextClock.find(header.sequence);
    if (next != m_nextClock.end() && next->second >= header.clockAtOpening &&
        next->second - header.clockAtOpening <= static_cast<uint64>(m_store.Segments().SegmentSize()))
        segment.knownEnd = static_cast<ssize_t>(next->second - header.clockAtOpening);
    const CheckpointHeader& checkpoint = m_store.Header();
    if (checkpoint.startSlot == static_cast<uint32>(segment.slot) && checkpoint.startSequence == header.sequence)
        segment.leastEnd = static_cast<ssize_t>(checkpoint.startOffset);
}

bool SegmentCheck::IsPacketAt(const Segment& segment, ssize_t pos) const {
    if (pos + PACKET_HEADER_BYTES > segment.size) return false;
    const octet_t* const packet = m_bytes.data() + pos;
    const PacketHeader header = ReadPod<PacketHeader>(packet);
    return LooksLikeInfo(header.info) && pos + PacketBytes(header.info) <= segment.size &&
           PacketCrc(SegmentCrcSeed(m_store.Core().m_storeId, segment.entry.sequence), static_cast<uint32>(pos), packet,
                     PayloadBytes(header.info)) == header.crc;
}

// There is no packet at `pos`: should there be one?
bool SegmentCheck::MustGoOn(const Segment& segment, ssize_t pos) const {
    return pos < std::max(segment.knownEnd, segment.leastEnd) || segment.numCounted < segment.entry.packets;
}

ssize_t SegmentCheck::FindNextPacket(const Segment& segment, ssize_t pos) const {
    do {
        pos += PACKET_ALIGNMENT;
    } while (pos < segment.size && !IsPacketAt(segment, pos));
    return std::min(pos, segment.size);
}

// No checksum covers them, so they must be what was written.
void SegmentCheck::CheckPadding(const Segment& segment, ssize_t pos, uint32 info) const {
    const octet_t* const begin = m_bytes.data() + pos + PACKET_HEADER_BYTES + PayloadBytes(info);
    const octet_t* const end = m_bytes.data() + pos + PacketBytes(info);
    if (std::any_of(begin, end, [](octet_t byte) { return byte != 0; }))
        m_findings.Problem(NameOf(segment) + ": the bytes that fill up the packet at offset " +
                           std::to_string(m_store.Segments().OffsetOf(segment.slot) + pos) + " are not zero");
}

void SegmentCheck::WalkPackets(Segment& segment) {
    ssize_t pos = SEGMENT_HEADER_BYTES;
    const ssize_t end = segment.knownEnd >= 0 ? segment.knownEnd : m_store.Segments().SegmentSize();
    bool hasGap = false;
    while (pos < end) {
        if (IsPacketAt(segment, pos)) {
            const uint32 info = ReadPod<PacketHeader>(m_bytes.data() + pos).info;
            ++m_numPackets;
            segment.numCounted += IsCounted(PacketType(info));
            CheckPadding(segment, pos, info);
            pos += PacketBytes(info);
            continue;
        }
        if (!MustGoOn(segment, pos)) return;
        const ssize_t next = FindNextPacket(segment, pos);
        const bool isLast = next >= std::min(end, segment.size);
        // Behind a gap the number of packets says no more where they end.
        if (isLast && hasGap && pos >= std::max(segment.knownEnd, segment.leastEnd)) return;
        hasGap = true;
        m_findings.Problem(
            NameOf(segment) + ": no valid packet at offset " +
            std::to_string(m_store.Segments().OffsetOf(segment.slot) + pos) +
            (isLast ? ", and none behind it" : ", " + Counted(next - pos, "byte", "bytes") + " before the next"));
        if (isLast) return;
        pos = next;
    }
}

} // namespace quna::qxstore

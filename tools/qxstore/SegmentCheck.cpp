#include "tools/qxstore/SegmentCheck.h"

#include "qxUtils/Exceptions.h"
#include "tools/qxstore/Units.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace quna::qxstore {

namespace {

// Cheap to ask before a checksum is taken: most bytes are no header of a packet.
bool LooksLikeInfo(uint32 info) {
    const uint32 type = info >> 24 & 15;
    return type >= static_cast<uint32>(EPacketType::HEAD) && type <= static_cast<uint32>(EPacketType::LIST) &&
           PacketFlags(info) <= PACKET_FLAG_LONG;
}

} // namespace

SegmentCheck::SegmentCheck(OpenedStore& store, Findings& findings)
    : m_store(store), m_findings(findings), m_bytes(static_cast<size_t>(store.Segments().SegmentSize())) {}

void SegmentCheck::Run(Console& console) {
    ReadHeaders();
    Progress progress("segments", static_cast<int64>(m_segments.size()), console);
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
        segment.headerDamage = ReadHeader(segment);
        const SegmentHeader& header = segment.header;
        if (segment.headerDamage.empty() && header.kind == static_cast<uint32>(ESegmentKind::USER))
            m_nextClock[header.previousSequence] = header.clockAtOpening;
        m_segments.push_back(segment);
    }
}

// What makes it another one than that of the segment that the usage table knows; empty: nothing.
std::string SegmentCheck::ReadHeader(Segment& segment) const {
    StoreCore& core = m_store.Core();
    SegmentHeader& header = segment.header;
    try {
        core.m_file.Read(m_store.Segments().OffsetOf(segment.slot), &header, sizeof header);
    } catch (const FileException& e) {
        return e.what();
    }
    if (std::memcmp(header.magic, SEGMENT_MAGIC, sizeof header.magic) != 0) return "it does not begin as one";
    const uint32 crc = Crc32c(&header, offsetof(SegmentHeader, crc));
    if (header.crc != crc) return "the checksum is wrong, " + Mismatch(header.crc, crc);
    if (header.storeIdStart != StoreIdStart(core.m_storeId)) return "it is that of another store";
    if (header.slot != static_cast<uint32>(segment.slot))
        return "it is that of another slot, " + Mismatch(uint64{header.slot}, static_cast<uint64>(segment.slot));
    if (header.sequence != segment.entry.sequence)
        return "it is that of another segment, " + Mismatch(header.sequence, segment.entry.sequence);
    if (header.kind != segment.entry.kind)
        return "it is of another kind, " + Mismatch(uint64{header.kind}, uint64{segment.entry.kind});
    return {};
}

std::string SegmentCheck::NameOf(const Segment& segment) const {
    return "segment " + std::to_string(segment.slot) + " (offset " +
           std::to_string(m_store.Segments().OffsetOf(segment.slot)) + ")";
}

void SegmentCheck::CheckSegment(Segment& segment) {
    if (!segment.headerDamage.empty())
        m_findings.Problem(NameOf(segment) + ": its header is not valid: " + segment.headerDamage);
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
    if (!segment.headerDamage.empty() || header.kind != static_cast<uint32>(ESegmentKind::USER)) return;
    const auto next = m_nextClock.find(header.sequence);
    if (next != m_nextClock.end() && next->second >= header.clockAtOpening &&
        next->second - header.clockAtOpening <= static_cast<uint64>(m_store.Segments().SegmentSize()))
        segment.knownEnd = static_cast<ssize_t>(next->second - header.clockAtOpening);
    const CheckpointHeader& checkpoint = m_store.Header();
    if (checkpoint.startSlot == static_cast<uint32>(segment.slot) && checkpoint.startSequence == header.sequence)
        segment.leastEnd = static_cast<ssize_t>(checkpoint.startOffset);
}

// With a type and a length that a packet can have here.
bool SegmentCheck::HasPlausibleHeader(const Segment& segment, ssize_t pos) const {
    if (pos + PACKET_HEADER_BYTES > segment.size) return false;
    const uint32 info = ReadPod<PacketHeader>(m_bytes.data() + pos).info;
    return LooksLikeInfo(info) && pos + PacketBytes(info) <= segment.size;
}

// Requires: HasPlausibleHeader.
uint32 SegmentCheck::ExpectedCrc(const Segment& segment, ssize_t pos) const {
    const octet_t* const packet = m_bytes.data() + pos;
    return PacketCrc(SegmentCrcSeed(m_store.Core().m_storeId, segment.entry.sequence), static_cast<uint32>(pos), packet,
                     PayloadBytes(ReadPod<PacketHeader>(packet).info));
}

bool SegmentCheck::IsPacketAt(const Segment& segment, ssize_t pos) const {
    return HasPlausibleHeader(segment, pos) &&
           ExpectedCrc(segment, pos) == ReadPod<PacketHeader>(m_bytes.data() + pos).crc;
}

std::string SegmentCheck::DamageAt(const Segment& segment, ssize_t pos) const {
    if (pos + PACKET_HEADER_BYTES > segment.size) return "the file ends here";
    const PacketHeader header = ReadPod<PacketHeader>(m_bytes.data() + pos);
    if (!HasPlausibleHeader(segment, pos)) {
        char info[48];
        std::snprintf(info, sizeof info, "found %08x as type and length", header.info);
        return info;
    }
    return "the checksum is wrong, " + Mismatch(header.crc, ExpectedCrc(segment, pos));
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
    const octet_t* const bad = std::find_if(begin, end, [](octet_t byte) { return byte != 0; });
    if (bad == end) return;
    m_findings.Problem(NameOf(segment) + ": a byte that fills up a packet at offset " +
                       std::to_string(m_store.Segments().OffsetOf(segment.slot) + (bad - m_bytes.data())) + ": " +
                       Mismatch(uint64{*bad}, uint64{0}));
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
            std::to_string(m_store.Segments().OffsetOf(segment.slot) + pos) + ": " + DamageAt(segment, pos) +
            (isLast ? ", and none behind it" : ", " + Counted(next - pos, "byte", "bytes") + " before the next"));
        if (isLast) return;
        pos = next;
    }
}

} // namespace quna::qxstore

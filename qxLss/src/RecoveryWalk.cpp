// The walk along the user chain: Recovery's second half.
#include "qxLss/src/Recovery.h"
#include "qxLss/src/SerialElement.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>

namespace quna {

namespace {

constexpr uint64 APPLY_MARK = uint64{1} << 63; // in leaves, apart from the numbers of real transactions

} // namespace

void Recovery::Walk(const CheckpointHeader& header) {
    SegmentHeader start{};
    if (m_result.end.slot >= m_segments.MaxSlots() || m_result.end.offset < SEGMENT_HEADER_BYTES ||
        m_result.end.offset > m_core.m_segmentSize || !ReadSegmentHeader(m_result.end.slot, start) ||
        !IsHeaderOf(start, m_result.end.slot, header.startSequence, ESegmentKind::USER))
        ThrowCorrupt(m_core, "the segment where the log continues behind the checkpoint is not valid",
                     m_segments.OffsetOf(std::min(m_result.end.slot, m_segments.MaxSlots() - 1)));
    if (m_result.clean) return;
    EnterSegment(m_result.end.slot, start);
    ReadSegment(m_result.end.slot, m_segment);
    m_segment.sequence = start.sequence;
    m_segment.crcSeed = SegmentCrcSeed(m_core.m_storeId, start.sequence);
    m_segment.clock = start.clockAtOpening;
    m_pos = m_result.end.offset;
    while (ReadStep() != EStep::END) {
    }
    NoteUsedUpTo(m_segment.slot, m_pos);
    m_result.clock = m_segment.clock + static_cast<uint64>(m_pos);
    m_result.end = {m_segment.slot, m_pos, m_segment.sequence};
    ResetPending();
    LookForDamage();
}

Recovery::EStep Recovery::ReadStep() {
    PacketHeader packet{};
    if (!PacketAt(m_segment, m_pos, packet)) return EStep::END;
    const ssize_t n = PayloadBytes(packet.info);
    const octet_t* const payload = m_segment.bytes.data() + m_pos + PACKET_HEADER_BYTES;
    const EStep step = TakePacket(packet, payload, n);
    if (step == EStep::NEXT) m_pos += PacketBytes(packet.info);
    return step;
}

Recovery::EStep Recovery::TakePacket(const PacketHeader& packet, const octet_t* payload, ssize_t n) {
    switch (PacketType(packet.info)) {
    case EPacketType::HEAD:
    case EPacketType::LONG_PART:
    case EPacketType::REMOVE:
    case EPacketType::DROP: return TakeElement(packet, payload - PACKET_HEADER_BYTES);
    case EPacketType::COMMIT: return TakeCommit(packet, payload, n);
    case EPacketType::ABORT: ResetPending(); return EStep::NEXT;
    case EPacketType::LINK: return TakeLink(packet, payload, n);
    case EPacketType::RELOC: return TakeReloc(payload, n);
    case EPacketType::PAD: return EStep::NEXT;
    case EPacketType::INDEX:
    case EPacketType::SUT:
    case EPacketType::HIGHS:
    case EPacketType::LIST: break;
    }
    return EStep::END; // may not stand in the user stream
}

Recovery::EStep Recovery::TakeElement(const PacketHeader& packet, const octet_t* bytes) {
    const ssize_t packetBytes = PacketBytes(packet.info);
    const ssize_t payloadBytes = PayloadBytes(packet.info);
    const EPacketType type = PacketType(packet.info);
    const bool isElement = type == EPacketType::HEAD || type == EPacketType::LONG_PART;
    const Seid seid(packet.key);
    if (isElement && m_pos + packetBytes > m_core.m_segmentSize - USER_TAIL_BYTES) return EStep::END;
    if (seid.high_ == 0 || seid.high_ >= m_result.nextHigh)
        ThrowCorrupt(m_core, "the log holds an element under a high half that was never allocated",
                     m_segments.OffsetOf(m_segment.slot) + m_pos);
    if (isElement) NoteSpent(seid);
    CountSinceCommit(packetBytes);
    if (type != EPacketType::DROP) {
        ++m_segments[m_segment.slot].packets;
        m_core.m_counters.packets.fetch_add(1, std::memory_order_relaxed);
    }
    Operation operation{type, seid, 0, {}};
    if (type == EPacketType::HEAD) {
        const bool isLong = PacketFlags(packet.info) & PACKET_FLAG_LONG;
        operation.location = MakeLocation(m_segments.OffsetOf(m_segment.slot) + m_pos, packetBytes, isLong);
        if (isLong) operation.parts = ParseLongHead(m_core, bytes, operation.location).parts;
    } else if (type == EPacketType::DROP) {
        for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(Location)) <= payloadBytes; at += sizeof(Location))
            operation.parts.push_back(ReadPod<Location>(bytes + PACKET_HEADER_BYTES + at));
    }
    if (type != EPacketType::LONG_PART) m_pending.push_back(std::move(operation));
    return EStep::NEXT;
}

Recovery::EStep Recovery::TakeCommit(const PacketHeader& packet, const octet_t* payload, ssize_t n) {
    if (n != static_cast<ssize_t>(sizeof(CommitPayload)) || packet.key != m_result.lastTransaction + 1)
        return EStep::END;
    const CommitPayload commit = ReadPod<CommitPayload>(payload);
    if (commit.bytes != m_bytesSince || commit.packets != m_packetsSince) return EStep::END;
    Apply();
    ++m_result.lastTransaction;
    m_core.m_counters.numTransactions.fetch_add(1, std::memory_order_relaxed);
    ResetPending();
    return EStep::NEXT;
}

// Backwards, so that the last operation on a Seid comes first; a bit in the leaf marks that it has been seen.
void Recovery::Apply() {
    const uint64 mark = APPLY_MARK | ++m_applyNumber;
    for (size_t i = m_pending.size(); i-- > 0;) {
        const Operation& operation = m_pending[i];
        if (operation.type == EPacketType::DROP) {
            ApplyDrop(operation);
            continue;
        }
        const IndexSlot slot = m_index.Prepare(operation.seid);
        const size_t s = static_cast<size_t>(slot.index);
        IndexLeaf& leaf = *slot.leaf;
        if (leaf.transaction != mark) {
            leaf.transaction = mark;
            for (uint64& bits : leaf.written) bits = 0;
        }
        const uint64 bit = uint64{1} << (s % 64);
        if (leaf.written[s / 64] & bit) continue;
        leaf.written[s / 64] |= bit;
        Move(slot, operation.location);
        for (const Location part : operation.parts) {
            m_core.m_counters.liveBytes.fetch_add(m_segments.Credit(part), std::memory_order_relaxed);
            m_core.m_counters.liveOverflow.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

void Recovery::ApplyDrop(const Operation& drop) {
    for (const Location part : drop.parts) {
        if (!m_segments.IsInside(part, m_segments.MaxSlots()))
            ThrowCorrupt(m_core, "the log drops a packet outside the segments", LocationOffset(part));
        m_core.m_counters.liveBytes.fetch_sub(m_segments.Debit(part), std::memory_order_relaxed);
        m_core.m_counters.liveOverflow.fetch_sub(1, std::memory_order_relaxed);
    }
}

void Recovery::Move(const IndexSlot& slot, Location to) {
    StoreCounters& c = m_core.m_counters;
    const Location old = m_index.Publish(slot, to);
    if (old) {
        c.liveBytes.fetch_sub(m_segments.Debit(old), std::memory_order_relaxed);
        c.liveHead.fetch_sub(1, std::memory_order_relaxed);
    }
    if (to) {
        c.liveBytes.fetch_add(m_segments.Credit(to), std::memory_order_relaxed);
        c.liveHead.fetch_add(1, std::memory_order_relaxed);
    }
}

Recovery::EStep Recovery::TakeLink(const PacketHeader& packet, const octet_t* payload, ssize_t n) {
    if (n != static_cast<ssize_t>(sizeof(LinkPayload))) return EStep::END;
    const LinkPayload link = ReadPod<LinkPayload>(payload);
    SegmentHeader header{};
    m_pos += LINK_BYTES;
    if (link.slot >= m_segments.MaxSlots() || !ReadSegmentHeader(link.slot, header) ||
        !IsHeaderOf(header, link.slot, packet.key, ESegmentKind::USER)) {
        m_brokenLink = link; // the header was lost with the power: a healthy end
        m_brokenLinkSequence = packet.key;
        return EStep::END;
    }
    NoteUsedUpTo(m_segment.slot, m_pos);
    EnterSegment(link.slot, header);
    ReadSegment(link.slot, m_segment);
    m_segment.sequence = header.sequence;
    m_segment.crcSeed = m_segments[link.slot].crcSeed;
    m_segment.clock = header.clockAtOpening;
    m_pos = SEGMENT_HEADER_BYTES;
    return EStep::FOLLOW;
}

void Recovery::NoteUsedUpTo(ssize_t slot, ssize_t offset) {
    m_segments[slot].usedBytes = static_cast<uint32>(offset - SEGMENT_HEADER_BYTES);
}

// The ring says so already, unless the block that does is damaged.
void Recovery::NoteSpent(Seid seid) {
    if (!m_spent || seid.high_ != m_spentHigh) {
        m_spentHigh = seid.high_;
        m_spent = &m_result.ring.horizons[seid.high_];
    }
    if (seid.low_ >= *m_spent && seid.low_ < SeidAllocator::LOW_LIMIT) *m_spent = seid.low_ + 1;
}

void Recovery::CountSinceCommit(ssize_t packetBytes) {
    m_bytesSince += static_cast<uint64>(packetBytes);
    ++m_packetsSince;
}

void Recovery::ResetPending() {
    m_pending.clear();
    m_bytesSince = 0;
    m_packetsSince = 0;
}

// --- relocations

struct Recovery::Reloc {
    struct Moved {
        Seid seid;
        Location location;
    };
    struct LongMove {
        RelocLong entry;
        std::vector<std::pair<Location, Location>> pairs;
    };
    RelocPayload head{};
    std::vector<RelocRange> ranges;
    std::vector<RelocVictim> victims;
    std::vector<LongMove> longMoves;
    std::vector<Moved> moved;            // heads in the ranges
    std::vector<SegmentHeader> segments; // of the ranges
    std::vector<uint32> packets;         // in each range
};

Recovery::EStep Recovery::TakeReloc(const octet_t* payload, ssize_t n) {
    Reloc reloc;
    if (!m_pending.empty() || !ParseReloc(payload, n, reloc)) return EStep::END;
    for (const RelocRange& range : reloc.ranges) {
        if (!VerifyRange(range, reloc)) return EStep::END; // it was not yet synced
    }
    for (const RelocVictim& victim : reloc.victims) {
        if (victim.slot >= m_segments.MaxSlots() || m_segments[victim.slot].sequence != victim.sequence)
            ThrowCorrupt(m_core, "the log names a cleaned segment that is not there",
                         m_segments.OffsetOf(m_segment.slot) + m_pos);
    }
    ApplyReloc(reloc);
    ResetPending();
    return EStep::NEXT;
}

bool Recovery::ParseReloc(const octet_t* payload, ssize_t n, Reloc& reloc) const {
    const octet_t* p = payload;
    const octet_t* const end = payload + n;
    const auto take = [&](auto& x) {
        if (end - p < static_cast<ssize_t>(sizeof x)) return false;
        std::memcpy(&x, p, sizeof x);
        p += sizeof x;
        return true;
    };
    if (!take(reloc.head)) return false;
    for (uint32 i = 0; i < reloc.head.numNew; ++i) {
        if (!take(reloc.ranges.emplace_back())) return false;
    }
    for (uint32 i = 0; i < reloc.head.numVictims; ++i) {
        if (!take(reloc.victims.emplace_back())) return false;
    }
    for (uint32 i = 0; i < reloc.head.numLong; ++i) {
        Reloc::LongMove& move = reloc.longMoves.emplace_back();
        if (!take(move.entry)) return false;
        for (uint32 k = 0; k < move.entry.numPairs; ++k) {
            if (!take(move.pairs.emplace_back().first) || !take(move.pairs.back().second)) return false;
        }
    }
    return p == end;
}

// A segment's ranges follow one another, so that together they are no longer than the file.
bool Recovery::VerifyRange(const RelocRange& range, Reloc& reloc) {
    SegmentHeader header{};
    Segment segment;
    const auto last = m_relocated.find(range.slot);
    if (last != m_relocated.end() && last->second.sequence == range.sequence && range.from < last->second.to)
        return false;
    m_relocated[range.slot] = range;
    if (range.slot >= m_segments.MaxSlots() || !ReadSegmentHeader(range.slot, header) ||
        !IsHeaderOf(header, range.slot, range.sequence, ESegmentKind::SURVIVORS) || !ReadSegment(range.slot, segment))
        return false;
    segment.crcSeed = SegmentCrcSeed(m_core.m_storeId, range.sequence);
    uint32 packets = 0;
    ssize_t pos = range.from;
    while (pos < range.to) {
        PacketHeader packet{};
        if (pos < SEGMENT_HEADER_BYTES || pos % PACKET_ALIGNMENT != 0 || !PacketAt(segment, pos, packet)) return false;
        const ssize_t bytes = PacketBytes(packet.info);
        if (PacketType(packet.info) == EPacketType::HEAD) {
            const bool isLong = PacketFlags(packet.info) & PACKET_FLAG_LONG;
            reloc.moved.push_back(
                {Seid(packet.key), MakeLocation(m_segments.OffsetOf(range.slot) + pos, bytes, isLong)});
        }
        ++packets;
        pos += bytes;
    }
    reloc.segments.push_back(header);
    reloc.packets.push_back(packets);
    return pos == range.to;
}

// Long entries come first: they say exactly what moved, and the old head may have been overwritten since. Then every head
// in the ranges whose element is now located in a victim moves.
void Recovery::ApplyReloc(const Reloc& reloc) {
    std::unordered_set<uint32> victims;
    for (const RelocVictim& victim : reloc.victims) victims.insert(victim.slot);
    for (size_t i = 0; i < reloc.ranges.size(); ++i) {
        EnterSegment(reloc.ranges[i].slot, reloc.segments[i]);
        m_segments[reloc.ranges[i].slot].packets += reloc.packets[i];
        NoteUsedUpTo(reloc.ranges[i].slot, reloc.ranges[i].to);
        m_core.m_counters.packets.fetch_add(reloc.packets[i], std::memory_order_relaxed);
    }
    std::unordered_set<uint64> longSeids;
    for (const Reloc::LongMove& move : reloc.longMoves) {
        longSeids.insert(move.entry.seid);
        const IndexSlot slot = m_index.Prepare(Seid(move.entry.seid));
        if (slot.Get() != move.entry.oldHead) continue;
        Move(slot, move.entry.newHead);
        for (const auto& [from, to] : move.pairs) {
            m_core.m_counters.liveBytes.fetch_sub(m_segments.Debit(from), std::memory_order_relaxed);
            m_core.m_counters.liveBytes.fetch_add(m_segments.Credit(to), std::memory_order_relaxed);
        }
    }
    for (const Reloc::Moved& moved : reloc.moved) {
        const Location now = m_index.Get(moved.seid);
        if (now && victims.contains(static_cast<uint32>(m_segments.SlotOf(now))) &&
            !longSeids.contains(moved.seid.value_))
            Move(m_index.Prepare(moved.seid), moved.location);
    }
    if (!(reloc.head.flags & RELOC_FLAG_LAST)) return;
    for (const uint32 slot : victims) {
        if (m_segments[slot].livePackets)
            ThrowCorrupt(m_core, "a cleaned segment still holds live packets", m_segments.OffsetOf(slot));
        m_core.m_counters.packets.fetch_sub(m_segments[slot].packets, std::memory_order_relaxed);
        m_segments.SetEntry(slot, SutEntry{});
    }
}

} // namespace quna

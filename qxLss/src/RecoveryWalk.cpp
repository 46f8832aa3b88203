// The walk along the user chain: Recovery's second half.
#include "qxLss/src/Mutants.h"
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
    if (m_result.end.slot >= m_segments.Limit() || m_result.end.offset < SEGMENT_HEADER_BYTES ||
        m_result.end.offset > m_core.m_segmentSize || m_result.end.offset % PACKET_ALIGNMENT != 0 ||
        !ReadSegmentHeader(m_result.end.slot, start) ||
        !IsHeaderOf(start, m_result.end.slot, header.startSequence, ESegmentKind::USER))
        ThrowCorrupt(m_core,
                     "the segment where the log continues behind the checkpoint is not valid: found sequence " +
                         std::to_string(start.sequence) + ", expected " + std::to_string(header.startSequence) +
                         " with " + std::to_string(m_result.end.offset) + " bytes before the log's end",
                     m_segments.OffsetOf(std::min(m_result.end.slot, m_segments.MaxSlots() - 1)));
    if (m_result.clean) {
        if (m_segments[m_result.end.slot].sequence != start.sequence)
            ThrowCorrupt(m_core,
                         "the usage table does not know the segment where the log continues: found sequence " +
                             std::to_string(m_segments[m_result.end.slot].sequence) + ", expected " +
                             std::to_string(start.sequence),
                         m_segments.OffsetOf(m_result.end.slot));
        return;
    }
    EnterSegment(m_result.end.slot, start);
    ReadOn(m_result.end.slot);
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
    if (!PacketAt(m_segment, m_pos, packet)) {
        const bool hasLength = PayloadBytes(packet.info) && m_pos + PacketBytes(packet.info) < m_segment.size;
        if (!IsMutant(EMutant::BAD_FRAME_SKIPPED) || !hasLength) return EStep::END;
        CountSinceCommit(PacketBytes(packet.info));
        m_pos += PacketBytes(packet.info);
        return EStep::NEXT;
    }
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
    case EPacketType::ABORT:
        if (!IsMutant(EMutant::ABORT_IGNORED)) ResetPending();
        return EStep::NEXT;
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
    if (!IsKnownHigh(seid.high_))
        ThrowCorrupt(m_core,
                     "the log holds an element under a high half that was never allocated: found " +
                         std::to_string(seid.high_) + ", expected 1 to " + std::to_string(m_result.nextHigh - 1),
                     m_segments.OffsetOf(m_segment.slot) + m_pos);
    if (isElement) NoteSpent(seid);
    CountSinceCommit(packetBytes);
    if (type != EPacketType::DROP) {
        ++m_segments[m_segment.slot].packets;
        ++m_change.packets;
    }
    if (type == EPacketType::LONG_PART) return EStep::NEXT;
    if (type != EPacketType::DROP) ReadPagesAhead(seid);
    Location location = 0;
    const size_t firstPart = m_parts.size();
    if (type == EPacketType::HEAD) {
        const bool isLong = PacketFlags(packet.info) & PACKET_FLAG_LONG;
        location = MakeLocation(m_segments.OffsetOf(m_segment.slot) + m_pos, packetBytes, isLong);
        if (isLong) {
            const std::vector<Location> parts = ParseLongHead(m_core, bytes, location).parts;
            m_parts.insert(m_parts.end(), parts.begin(), parts.end());
        }
    } else if (type == EPacketType::DROP) {
        for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(Location)) <= payloadBytes; at += sizeof(Location))
            m_parts.push_back(ReadPod<Location>(bytes + PACKET_HEADER_BYTES + at));
    }
    m_pending.push_back(
        {type, seid, location, static_cast<uint32>(firstPart), static_cast<uint32>(m_parts.size() - firstPart), {}});
    return EStep::NEXT;
}

Recovery::EStep Recovery::TakeCommit(const PacketHeader& packet, const octet_t* payload, ssize_t n) {
    if (n != static_cast<ssize_t>(sizeof(CommitPayload)) || packet.key != m_result.lastTransaction + 1)
        return EStep::END;
    const CommitPayload commit = ReadPod<CommitPayload>(payload);
    if (commit.bytes != m_bytesSince || commit.packets != m_packetsSince) return EStep::END;
    Apply();
    ++m_result.lastTransaction;
    ++m_change.numTransactions;
    ResetPending();
    return EStep::NEXT;
}

// Backwards, so that the last operation on a Seid comes first; a bit in the leaf marks that it has been seen.
//
// Where an element was and where its leaf lies is as good as random, so each operation misses the cache three times. What
// they need is asked for some operations ahead, first the leaf, then the usage of the segment that the old packet is in.
void Recovery::Apply() {
    constexpr size_t LEAF_AHEAD = 16;
    constexpr size_t USAGE_AHEAD = 8;
    const uint64 mark = APPLY_MARK | ++m_applyNumber;
    const size_t n = m_pending.size();
    for (size_t i = 0; i < n + LEAF_AHEAD; ++i) {
        if (i < n) {
            Operation& operation = m_pending[n - 1 - i];
            if (operation.type != EPacketType::DROP) {
                operation.slot = m_index.Prepare(operation.seid);
                __builtin_prefetch(&operation.slot.leaf->slots[static_cast<size_t>(operation.slot.index)], 1);
                __builtin_prefetch(&operation.slot.leaf->transaction, 1);
            }
        }
        if (i >= USAGE_AHEAD && i - USAGE_AHEAD < n) {
            const Operation& operation = m_pending[n - 1 - (i - USAGE_AHEAD)];
            if (operation.type != EPacketType::DROP) {
                if (const Location old = operation.slot.Get())
                    __builtin_prefetch(&m_segments[m_segments.SlotOf(old)].liveBytes, 1);
            }
        }
        if (i >= LEAF_AHEAD) ApplyOne(m_pending[n - 1 - (i - LEAF_AHEAD)], mark);
    }
}

void Recovery::ApplyOne(const Operation& operation, uint64 mark) {
    if (operation.type == EPacketType::DROP) {
        if (!IsMutant(EMutant::DROP_IGNORED)) ApplyDrop(operation);
        return;
    }
    const size_t s = static_cast<size_t>(operation.slot.index);
    IndexLeaf& leaf = *operation.slot.leaf;
    if (leaf.transaction != mark) {
        leaf.transaction = mark;
        for (uint64& bits : leaf.written) bits = 0;
    }
    const uint64 bit = uint64{1} << (s % 64);
    if (leaf.written[s / 64] & bit) return;
    leaf.written[s / 64] |= bit;
    Move(operation.slot, operation.location);
    for (const Location part : PartsOf(operation)) {
        m_change.liveBytes += m_segments.Credit(part);
        ++m_change.liveOverflow;
    }
}

void Recovery::ApplyDrop(const Operation& drop) {
    for (const Location part : PartsOf(drop)) {
        if (!m_segments.IsInside(part))
            ThrowOutside(m_core, "the log drops a packet", part, m_segments.OffsetOf(m_segment.slot) + m_pos);
        m_change.liveBytes -= m_segments.Debit(part);
        --m_change.liveOverflow;
    }
}

void Recovery::Move(const IndexSlot& slot, Location to) {
    const Location old = m_index.Publish(slot, to);
    if (old) {
        m_change.liveBytes -= m_segments.Debit(old);
        --m_change.liveHead;
    }
    if (to) {
        m_change.liveBytes += m_segments.Credit(to);
        ++m_change.liveHead;
    }
}

Recovery::EStep Recovery::TakeLink(const PacketHeader& packet, const octet_t* payload, ssize_t n) {
    if (n != static_cast<ssize_t>(sizeof(LinkPayload))) return EStep::END;
    const LinkPayload link = ReadPod<LinkPayload>(payload);
    SegmentHeader header{};
    if (packet.key <= m_segment.sequence) // sequences ascend along the chain, or it might have no end
        ThrowCorrupt(m_core,
                     "the log leads back: found a LINK to segment " + std::to_string(packet.key) +
                         ", expected one behind segment " + std::to_string(m_segment.sequence),
                     m_segments.OffsetOf(m_segment.slot) + m_pos);
    m_pos += LINK_BYTES;
    if (link.slot >= m_segments.Limit() || !ReadSegmentHeader(link.slot, header) ||
        !IsHeaderOf(header, link.slot, packet.key, ESegmentKind::USER)) {
        if (IsMutant(EMutant::LOST_HEADER_CALLED_DAMAGE)) ThrowCorrupt(m_core, "the log leads to no segment");
        m_brokenLink = link; // the header was lost with the power: a healthy end
        m_brokenLinkSequence = packet.key;
        return EStep::END;
    }
    NoteUsedUpTo(m_segment.slot, m_pos);
    EnterSegment(link.slot, header);
    ReadOn(link.slot);
    ReadSegment(link.slot, m_segment);
    m_segment.sequence = header.sequence;
    m_segment.crcSeed = m_segments[link.slot].crcSeed;
    m_segment.clock = header.clockAtOpening;
    m_pos = SEGMENT_HEADER_BYTES;
    return EStep::FOLLOW;
}

// The log goes on in free slots, the lowest first: the next ones are probably those that were free at the checkpoint.
void Recovery::ReadOn(ssize_t slot) {
    constexpr ssize_t LOG_AHEAD = int64{16} << 20;
    const ssize_t end = std::min(slot + 1 + LOG_AHEAD / m_core.m_segmentSize, m_segments.Limit());
    for (ssize_t next = std::max(slot + 1, m_readOnFrom); next < end; ++next) {
        if (next >= m_numSlots || m_segments[next].livePackets == 0)
            m_core.m_file.ReadAhead(m_segments.OffsetOf(next), m_core.m_segmentSize);
    }
    m_readOnFrom = end;
}

// A page is read when its transaction is applied, a little later. Pages of one checkpoint lie together and a log touches
// most of those around it, so the whole segment is asked for.
void Recovery::ReadPagesAhead(Seid seid) {
    const Location page = m_index.MissingPageOf(seid);
    if (!page || !m_segments.IsInside(page)) return;
    const ssize_t slot = m_segments.SlotOf(page);
    if (slot == m_lastAdvised) return;
    m_lastAdvised = slot;
    if (static_cast<size_t>(slot) >= m_advised.size()) m_advised.resize(static_cast<size_t>(slot) + 1);
    if (m_advised[static_cast<size_t>(slot)]) return;
    m_advised[static_cast<size_t>(slot)] = true;
    m_core.m_file.ReadAhead(m_segments.OffsetOf(slot), m_core.m_segmentSize);
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
    m_parts.clear();
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

std::string Recovery::SequenceIn(uint32 slot) const {
    return "slot " + std::to_string(slot) +
           (slot < m_segments.Limit() ? " with sequence " + std::to_string(m_segments[slot].sequence) : "");
}

Recovery::EStep Recovery::TakeReloc(const octet_t* payload, ssize_t n) {
    Reloc reloc;
    if (!m_pending.empty() || !ParseReloc(payload, n, reloc)) return EStep::END;
    for (const RelocRange& range : reloc.ranges) {
        if (!VerifyRange(range, reloc)) return EStep::END; // it was not yet synced
    }
    for (const RelocVictim& victim : reloc.victims) {
        if (victim.slot >= m_segments.Limit() || m_segments[victim.slot].sequence != victim.sequence)
            ThrowCorrupt(m_core,
                         "the log names a cleaned segment that is not there: found " + SequenceIn(victim.slot) +
                             ", expected sequence " + std::to_string(victim.sequence),
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
        if (!take(move.entry) || !IsKnownHigh(Seid(move.entry.seid).high_) || !m_segments.IsInside(move.entry.newHead))
            return false;
        for (uint32 k = 0; k < move.entry.numPairs; ++k) {
            if (!take(move.pairs.emplace_back().first) || !take(move.pairs.back().second)) return false;
            if (!m_segments.IsInside(move.pairs.back().first) || !m_segments.IsInside(move.pairs.back().second))
                return false;
        }
    }
    return p == end;
}

// A range lies behind those of its segment that came before it, so that each byte of the file is read for one RELOC only.
bool Recovery::VerifyRange(const RelocRange& range, Reloc& reloc) {
    SegmentHeader header{};
    if (range.slot >= m_segments.Limit() || range.from < SEGMENT_HEADER_BYTES || range.from % PACKET_ALIGNMENT != 0 ||
        range.from > range.to || range.to > m_core.m_segmentSize || range.from < m_rangeEnds[range.sequence] ||
        !ReadSegmentHeader(range.slot, header) ||
        !IsHeaderOf(header, range.slot, range.sequence, ESegmentKind::SURVIVORS))
        return false;
    const ssize_t n = static_cast<ssize_t>(range.to) - range.from;
    const int64 fileOffset = m_segments.OffsetOf(range.slot) + range.from;
    std::vector<octet_t> bytes(static_cast<size_t>(n));
    if (m_core.m_file.ReadUpTo(fileOffset, bytes.data(), n) != n) return false;
    const uint32 crcSeed = SegmentCrcSeed(m_core.m_storeId, range.sequence);
    uint32 packets = 0;
    for (ssize_t pos = 0; pos < n;) {
        if (pos + PACKET_HEADER_BYTES > n) return false;
        const PacketHeader packet = ReadPod<PacketHeader>(bytes.data() + pos);
        const ssize_t packetBytes = PacketBytes(packet.info);
        if (pos + packetBytes > n || PacketCrc(crcSeed, range.from + static_cast<uint32>(pos), bytes.data() + pos,
                                               PayloadBytes(packet.info)) != packet.crc) {
            if (IsMutant(EMutant::REST_OF_RANGE_LEFT_OUT)) break;
            return false;
        }
        if (PacketType(packet.info) == EPacketType::HEAD) {
            const bool isLong = PacketFlags(packet.info) & PACKET_FLAG_LONG;
            reloc.moved.push_back({Seid(packet.key), MakeLocation(fileOffset + pos, packetBytes, isLong)});
        }
        ++packets;
        pos += packetBytes;
    }
    m_rangeEnds[range.sequence] = range.to;
    reloc.segments.push_back(header);
    reloc.packets.push_back(packets);
    return true;
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
        m_change.packets += reloc.packets[i];
    }
    std::unordered_set<uint64> longSeids;
    for (const Reloc::LongMove& move : reloc.longMoves) {
        longSeids.insert(move.entry.seid);
        const IndexSlot slot = m_index.Prepare(Seid(move.entry.seid));
        if (slot.Get() != move.entry.oldHead) continue;
        Move(slot, move.entry.newHead);
        for (const auto& [from, to] : move.pairs) {
            m_change.liveBytes -= m_segments.Debit(from);
            m_change.liveBytes += m_segments.Credit(to);
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
            ThrowCorrupt(m_core,
                         "found " + std::to_string(m_segments[slot].livePackets) +
                             " live packets in a cleaned segment, expected none",
                         m_segments.OffsetOf(slot));
        m_change.packets -= m_segments[slot].packets;
        m_segments.SetEntry(slot, SutEntry{});
    }
}

} // namespace quna

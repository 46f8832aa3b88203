// Telling damage from a torn tail: Recovery's last part.
#include "qxLss/src/Mutants.h"
#include "qxLss/src/Recovery.h"

#include <algorithm>

namespace quna {

// Behind the break a COMMIT that names a durable clock beyond it proves that durable bytes are damaged. It may stand in the
// rest of the broken segment or in any user segment with a higher sequence: those were begun later, by the same life of
// the store, since each recovery begins far above all that it found. However long the transaction at the break is, and
// wherever the chain is broken besides.
void Recovery::LookForDamage() {
    if (IsMutant(EMutant::DAMAGE_TAKEN_FOR_THE_END)) return;
    std::map<ssize_t, uint64> linked;
    LookThrough(m_segment, m_pos, linked);
    if (m_brokenLink) linked.emplace(static_cast<ssize_t>(m_brokenLink->slot), m_brokenLinkSequence);
    const ssize_t numSlots = m_segments.Limit();
    std::vector<bool> seen(static_cast<size_t>(numSlots));
    const auto look = [&](ssize_t slot, uint64 sequence) {
        Segment segment;
        seen[static_cast<size_t>(slot)] = true;
        if (!ReadSegment(slot, segment)) return;
        segment.sequence = sequence;
        segment.crcSeed = SegmentCrcSeed(m_core.m_storeId, sequence);
        LookThrough(segment, SEGMENT_HEADER_BYTES, linked);
    };
    for (ssize_t slot = 0; slot < numSlots; ++slot) {
        SegmentHeader header{};
        if (ReadSegmentHeader(slot, header) && header.kind == static_cast<uint32>(ESegmentKind::USER) &&
            header.sequence > m_segment.sequence)
            look(slot, header.sequence);
    }
    // What a LINK leads to may have lost its header alone.
    while (!linked.empty()) {
        const auto [slot, sequence] = *linked.begin();
        linked.erase(linked.begin());
        if (slot < numSlots && !seen[static_cast<size_t>(slot)]) look(slot, sequence);
    }
}

// COMMIT and LINK have fixed lengths, so that each multiple of 8 can be tried. `linked` gets slot and sequence of each LINK.
void Recovery::LookThrough(const Segment& segment, ssize_t from, std::map<ssize_t, uint64>& linked) const {
    constexpr uint32 COMMIT_INFO = PacketInfo(EPacketType::COMMIT, sizeof(CommitPayload));
    constexpr uint32 LINK_INFO = PacketInfo(EPacketType::LINK, sizeof(LinkPayload));
    for (ssize_t pos = from; pos + LINK_BYTES <= segment.size; pos += PACKET_ALIGNMENT) {
        const octet_t* const bytes = segment.bytes.data() + pos;
        const uint32 info = ReadPod<uint32>(bytes + 4);
        PacketHeader packet{};
        if ((info != COMMIT_INFO && info != LINK_INFO) || !PacketAt(segment, pos, packet)) continue;
        if (info == LINK_INFO) {
            linked.emplace(static_cast<ssize_t>(ReadPod<LinkPayload>(bytes + PACKET_HEADER_BYTES).slot), packet.key);
            continue;
        }
        const uint64 durable = ReadPod<CommitPayload>(bytes + PACKET_HEADER_BYTES).durableUpTo;
        if (durable > m_result.clock)
            ThrowCorrupt(m_core,
                         "the log ends inside data that was durable: after transaction " +
                             std::to_string(m_result.lastTransaction) + ", at log position " +
                             std::to_string(m_result.clock) + "; expected is a log of at least " +
                             std::to_string(durable) + ", as transaction " + std::to_string(packet.key) + " says",
                         m_segments.OffsetOf(m_segment.slot) + m_pos);
    }
}

} // namespace quna

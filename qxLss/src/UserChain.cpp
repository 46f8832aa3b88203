#include "qxLss/src/UserChain.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace quna {

namespace {

// Goes back along the chain, as far as the segment table still has it.
class BackwardSearch {
public:
    BackwardSearch(StoreCore& core, ssize_t numSlots, const LogPosition& end) : m_core(core), m_end(end) {
        for (ssize_t slot = 0; slot < numSlots; ++slot) {
            const SegmentSlot& s = (*core.m_segments)[slot];
            if (s.sequence && s.kind == ESegmentKind::USER) m_table.emplace_back(s.sequence, slot);
        }
        std::sort(m_table.begin(), m_table.end());
        while (!m_table.empty() && m_table.back().first > end.sequence) m_table.pop_back();
    }

    std::optional<ChainPosition> Find(uint64 number) {
        for (uint64 sequence = m_end.sequence; StepBack(sequence); sequence = m_previous) {
            if (FindInFirst(number)) return std::move(m_result);
        }
        if (!m_damaged && BeginsWith(number + 1)) return std::move(m_result);
        return std::nullopt;
    }

private:
    // Puts the segment in front of those found so far, if it is there.
    bool StepBack(uint64 sequence) {
        if (m_table.empty() || m_table.back().first != sequence) return false;
        const ssize_t slot = m_table.back().second;
        m_table.pop_back();
        const std::optional<SegmentHeader> header = ReadUserHeader(m_core, slot, sequence);
        if (!header) return false;
        std::deque<ChainSegment>& segments = m_result.segments;
        ssize_t end = m_end.offset;
        if (!segments.empty()) {
            const uint64 bytes = segments.front().clock - header->clockAtOpening;
            if (segments.front().clock < header->clockAtOpening || bytes > static_cast<uint64>(m_core.m_segmentSize))
                return false;
            end = static_cast<ssize_t>(bytes);
        }
        if (end < SEGMENT_HEADER_BYTES) return false;
        segments.push_front({slot, sequence, header->clockAtOpening, end});
        m_previous = header->previousSequence;
        return true;
    }

    const octet_t* Read(const ChainSegment& segment) {
        m_bytes.resize(static_cast<size_t>(segment.end - SEGMENT_HEADER_BYTES));
        m_core.m_file.Read(m_core.m_segments->OffsetOf(segment.slot) + SEGMENT_HEADER_BYTES, m_bytes.data(),
                           std::ssize(m_bytes));
        return m_bytes.data();
    }

    bool FindInFirst(uint64 number) {
        const ChainSegment& segment = m_result.segments.front();
        bool found = false;
        const ssize_t stopped = VisitPackets(
            Read(segment), SEGMENT_HEADER_BYTES, segment.end, SegmentCrcSeed(m_core.m_storeId, segment.sequence),
            [&](ssize_t pos, const PacketHeader& header, const octet_t* payload) {
                if (PacketType(header.info) != EPacketType::COMMIT || header.key != number) return true;
                found = true;
                m_result.offset = pos + PacketBytes(header.info);
                if (PayloadBytes(header.info) == sizeof(CommitPayload))
                    m_result.time = ReadPod<CommitPayload>(payload).time;
                return false;
            });
        if (found) return true;
        if (stopped != segment.end) m_damaged = true;
        if (number == 0 && segment.clock == 0) {
            m_result.offset = SEGMENT_HEADER_BYTES;
            return true;
        }
        return false;
    }

    // The commit in front may be gone with its segment, and yet nothing of the next transaction: if that is the first in what
    // there is, and whole.
    bool BeginsWith(uint64 number) {
        CommitCount count;
        std::deque<ChainSegment>& segments = m_result.segments;
        for (size_t i = 0; i < segments.size(); ++i) {
            bool decided = false;
            bool isWhole = false;
            uint64 linkedTo = 0;
            VisitPackets(Read(segments[i]), SEGMENT_HEADER_BYTES, segments[i].end,
                         SegmentCrcSeed(m_core.m_storeId, segments[i].sequence),
                         [&](ssize_t, const PacketHeader& header, const octet_t* payload) {
                             if (PacketType(header.info) == EPacketType::COMMIT) {
                                 decided = true;
                                 isWhole = header.key == number && PayloadBytes(header.info) == sizeof(CommitPayload) &&
                                           count.Agrees(ReadPod<CommitPayload>(payload));
                                 return false;
                             }
                             if (PacketType(header.info) == EPacketType::LINK) linkedTo = header.key;
                             count.Add(header);
                             return true;
                         });
            if (decided) {
                m_result.offset = SEGMENT_HEADER_BYTES;
                m_result.time = 0;
                return isWhole;
            }
            if (i + 1 < segments.size() && linkedTo != segments[i + 1].sequence) count.Reset();
        }
        return false;
    }

    StoreCore& m_core;
    const LogPosition m_end;
    std::vector<std::pair<uint64, ssize_t>> m_table; // sequence, slot; what is still to be met
    ChainPosition m_result;
    uint64 m_previous = 0;
    bool m_damaged = false;
    std::vector<octet_t> m_bytes;
};

} // namespace

std::optional<SegmentHeader> ReadUserHeader(StoreCore& core, ssize_t slot, uint64 sequence) {
    SegmentHeader header{};
    if (core.m_file.ReadUpTo(core.m_segments->OffsetOf(slot), &header, sizeof header) !=
            static_cast<ssize_t>(sizeof header) ||
        std::memcmp(header.magic, SEGMENT_MAGIC, sizeof header.magic) != 0 ||
        header.crc != Crc32c(&header, offsetof(SegmentHeader, crc)) ||
        header.storeIdStart != StoreIdStart(core.m_storeId) || header.slot != static_cast<uint32>(slot) ||
        header.sequence != sequence || header.kind != static_cast<uint32>(ESegmentKind::USER))
        return std::nullopt;
    return header;
}

std::optional<ChainPosition> FindBehindTransaction(StoreCore& core, ssize_t numSlots, const LogPosition& end,
                                                   uint64 number) {
    return BackwardSearch(core, numSlots, end).Find(number);
}

} // namespace quna

// The user segments that stand in the file, as a chain that is read from the end backwards and then copied forwards.
#pragma once

#include "qxLss/src/Format.h"
#include "qxLss/src/StoreCore.h"
#include "qxLss/src/UserLog.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <deque>
#include <optional>
#include <vector>

namespace quna {

// A segment of the user stream. `end` is the offset behind its last packet, -1 as long as that is not known: the segment
// may still grow. A segment may end without a LINK: there a recovery has cut off a torn tail and begun the next.
struct ChainSegment {
    ssize_t slot;
    uint64 sequence;
    uint64 clock; // log clock at opening
    ssize_t end;
};

// A place between two transactions.
struct ChainPosition {
    std::deque<ChainSegment> segments; // from the one that holds the place to the open one
    ssize_t offset = 0;                // in the first of them
    uint64 time = 0;                   // of the commit in front of it; 0: not known
};

// Calls visit(offset, header, payload) for the packets in `bytes`, which are those of a segment from offset `from` on, up to
// `end`. Stops behind the packet for which that returns false. Where it stopped: `end` unless a packet does not verify.
template <class Visitor>
ssize_t VisitPackets(const octet_t* bytes, ssize_t from, ssize_t end, uint32 crcSeed, Visitor&& visit) {
    ssize_t pos = from;
    while (pos < end) {
        const octet_t* const packet = bytes + (pos - from);
        if (end - pos < PACKET_HEADER_BYTES) break;
        const PacketHeader header = ReadPod<PacketHeader>(packet);
        const ssize_t packetBytes = PacketBytes(header.info);
        if (pos + packetBytes > end ||
            PacketCrc(crcSeed, static_cast<uint32>(pos), packet, PayloadBytes(header.info)) != header.crc)
            break;
        pos += packetBytes;
        if (!visit(pos - packetBytes, header, packet + PACKET_HEADER_BYTES)) break;
    }
    return pos;
}

// Counts packets as a COMMIT does: those since the last COMMIT, ABORT or RELOC.
class CommitCount {
public:
    // Is the packet one of a transaction? COMMIT itself is not counted.
    bool Add(const PacketHeader& header) {
        switch (PacketType(header.info)) {
        case EPacketType::HEAD:
        case EPacketType::LONG_PART:
        case EPacketType::REMOVE:
        case EPacketType::DROP:
            m_bytes += static_cast<uint64>(PacketBytes(header.info));
            ++m_packets;
            return true;
        case EPacketType::COMMIT:
        case EPacketType::ABORT:
        case EPacketType::RELOC: Reset(); return false;
        default: return false;
        }
    }
    void Reset() {
        m_bytes = 0;
        m_packets = 0;
    }
    bool IsEmpty() const { return m_packets == 0; }
    bool Agrees(const CommitPayload& commit) const { return commit.bytes == m_bytes && commit.packets == m_packets; }
    uint64 Bytes() const { return m_bytes; }
    uint32 Packets() const { return m_packets; }

private:
    uint64 m_bytes = 0;
    uint32 m_packets = 0;
};

// The header of a user segment as the file has it; nothing if that is not the segment `sequence` in `slot`.
QX_API std::optional<SegmentHeader> ReadUserHeader(StoreCore& core, ssize_t slot, uint64 sequence);

// Where the log goes on behind the transaction `number`; nothing if it has been cleaned away. `end`: the log's end, up to
// which everything has been handed over. Requires: nothing is written meanwhile.
QX_API std::optional<ChainPosition> FindBehindTransaction(StoreCore& core, ssize_t numSlots, const LogPosition& end,
                                                          uint64 number);

} // namespace quna

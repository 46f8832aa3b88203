// The buffer of one open segment: packets are built in it in place and handed to the system in order.
#pragma once

#include "qxLss/src/StoreCore.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <memory>
#include <vector>

namespace quna {

// Ownership: owns the buffer; borrows the core.
// Threads:   one at a time.
// With `readersUseBuffer` the slot's base pointer names the buffer as long as the segment is open, so that packets can be
// read before they are handed over. The buffer is then used again only when no reader has the slot pinned.
//
// Invariant: bytes before m_handed are in the file as they are in the buffer; m_handed <= m_pos <= segment size; m_pos is
//            a multiple of PACKET_ALIGNMENT.
class QX_API SegmentWriter {
public:
    explicit SegmentWriter(StoreCore& core, bool readersUseBuffer = false);

    // Begins the segment in `slot`, which SpaceManager has just taken: writes its header into the buffer.
    // `dataStamp` is the age of what it will hold; that of user segments is the clock itself.
    void Begin(ssize_t slot, uint64 clockAtOpening, uint64 previousSequence) {
        Begin(slot, clockAtOpening, previousSequence, clockAtOpening);
    }
    void Begin(ssize_t slot, uint64 clockAtOpening, uint64 previousSequence, uint64 dataStamp);
    // Goes on behind a clean close: `offset` bytes of the segment are in the file.
    void Resume(ssize_t slot, ssize_t offset, uint64 clockAtOpening);
    bool IsOpen() const { return m_slot >= 0; }
    // Everything has been handed over: readers go to the file.
    void End();

    ssize_t Slot() const { return m_slot; }
    uint64 Sequence() const { return m_sequence; }
    uint64 ClockAtOpening() const { return m_clockAtOpening; }
    ssize_t Position() const { return m_pos; }
    ssize_t Handed() const { return m_handed; }
    // Bytes from the position to the segment's end.
    ssize_t Room() const { return m_segmentSize - m_pos; }
    octet_t* At(ssize_t offset) { return m_buffer.get() + offset; }
    // Where the payload of the next packet goes.
    octet_t* Payload() { return m_buffer.get() + m_pos + PACKET_HEADER_BYTES; }

    // Ends the packet whose payload stands at Payload(): header, zeros to the alignment, checksum. Requires: room.
    Location EndPacket(EPacketType type, uint64 key, ssize_t payloadBytes, uint32 flags = 0) {
        const ssize_t size = PACKET_HEADER_BYTES + payloadBytes;
        const ssize_t padded = PaddedSize(size);
        octet_t* const packet = m_buffer.get() + m_pos;
        for (ssize_t i = size; i < padded; ++i) packet[i] = 0;
        PacketHeader header;
        header.info = PacketInfo(type, payloadBytes, flags);
        header.key = key;
        std::memcpy(packet + 4, &header.info, sizeof header - 4);
        header.crc = PacketCrc(m_crcSeed, static_cast<uint32>(m_pos), packet, payloadBytes);
        std::memcpy(packet, &header.crc, sizeof header.crc);
        const Location l =
            MakeLocation(m_fileOffset + m_pos, padded, (flags & PACKET_FLAG_LONG) && type == EPacketType::HEAD);
        m_pos += padded;
        return l;
    }
    // Copies the payload first.
    Location Append(EPacketType type, uint64 key, const void* payload, ssize_t n, uint32 flags = 0) {
        if (n > 0) std::memcpy(Payload(), payload, static_cast<size_t>(n));
        return EndPacket(type, key, n, flags);
    }

    // Writes what has not been written. Throws FileException; that is final.
    void HandOver();

private:
    void OpenFor(ssize_t slot, uint64 clockAtOpening);
    void RetireBuffer();

    struct Retired {
        ssize_t slot;
        std::unique_ptr<octet_t[]> buffer;
    };

    StoreCore& m_core;
    const bool m_readersUseBuffer;
    std::vector<Retired> m_retired; // perhaps still read
    const ssize_t m_segmentSize;
    std::unique_ptr<octet_t[]> m_buffer; // m_segmentSize bytes
    ssize_t m_slot = -1;                 // -1: none open
    int64 m_fileOffset = 0;
    uint64 m_sequence = 0;
    uint64 m_clockAtOpening = 0;
    uint32 m_crcSeed = 0;
    ssize_t m_pos = 0;
    ssize_t m_handed = 0;
};

} // namespace quna

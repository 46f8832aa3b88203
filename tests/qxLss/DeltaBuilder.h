// Deltas of an archive, packet by packet, with right checksums and any contents.
#pragma once

#include "qxLss/src/DeltaFile.h"
#include "qxLss/src/UserChain.h"

#include <cstring>
#include <string>
#include <vector>

namespace quna {

// Transactions from 8 on, behind transaction 7 of time 70; that of transaction n is 10 n.
class DeltaBuilder {
public:
    struct Frame {
        DeltaFrame head;
        std::vector<octet_t> bytes;
    };

    DeltaBuilder() {
        std::memcpy(header.magic, DELTA_MAGIC, sizeof header.magic);
        header.version = DELTA_VERSION;
        header.segmentSize = 4096;
        header.firstTransaction = 8;
        header.previousTransaction = 7;
        header.previousTime = 70;
        closing.nextHigh = 2;
        BeginFrame(3, SEGMENT_HEADER_BYTES, 5);
    }

    DeltaHeader header{};
    std::vector<Frame> frames;
    DeltaClosing closing{}; // lastTransaction and lastTime are of the last Commit, if they are not set
    std::vector<octet_t> behindClosing;
    ssize_t closingBytes = -1; // -1: as many as it has

    void BeginFrame(uint32 slot, ssize_t offset, uint64 sequence) {
        frames.push_back({{slot, static_cast<uint32>(offset), sequence, 0, 0}, {}});
    }
    ssize_t Pos() const { return frames.back().head.offset + std::ssize(frames.back().bytes); }

    // Where the packet stands in its store.
    Location Packet(EPacketType type, uint64 key, const void* payload = nullptr, ssize_t n = 0, uint32 flags = 0) {
        Frame& frame = frames.back();
        const ssize_t at = std::ssize(frame.bytes);
        const Location l =
            MakeLocation(DataStart(4096) + int64{frame.head.slot} * 4096 + Pos(), PaddedSize(PACKET_HEADER_BYTES + n));
        const uint32 pos = static_cast<uint32>(Pos());
        frame.bytes.resize(static_cast<size_t>(at + PaddedSize(PACKET_HEADER_BYTES + n)));
        PacketHeader head{0, PacketInfo(type, n, flags), key};
        octet_t* const packet = frame.bytes.data() + at;
        if (n) std::memcpy(packet + PACKET_HEADER_BYTES, payload, static_cast<size_t>(n));
        std::memcpy(packet, &head, sizeof head);
        head.crc = PacketCrc(SegmentCrcSeed(header.storeId, frame.head.sequence), pos, packet, n);
        std::memcpy(packet, &head, sizeof head);
        m_count.Add(head);
        return l;
    }
    Location Element(uint64 key, const std::string& content) {
        return Packet(EPacketType::HEAD, key, content.data(), std::ssize(content));
    }
    void Commit(uint64 number) {
        CommitPayload payload{m_count.Bytes(), m_count.Packets(), 0, 0, 10 * number};
        Commit(number, payload);
    }
    void Commit(uint64 number, const CommitPayload& payload, ssize_t n = sizeof(CommitPayload)) {
        Packet(EPacketType::COMMIT, number, &payload, n);
        closing.lastTransaction = number;
        closing.lastTime = payload.time;
    }

    std::vector<octet_t> Bytes() const {
        std::vector<octet_t> file(sizeof header);
        DeltaHeader head = header;
        head.crc = Crc32c(&head, offsetof(DeltaHeader, crc));
        std::memcpy(file.data(), &head, sizeof head);
        uint32 crc = head.crc;
        for (const Frame& frame : frames) Add(file, frame.head, frame.bytes, crc);
        std::vector<octet_t> last(sizeof closing);
        std::memcpy(last.data(), &closing, sizeof closing);
        if (closingBytes >= 0) last.resize(static_cast<size_t>(closingBytes));
        Add(file, {DELTA_CLOSING_SLOT, 0, 0, 0, 0}, last, crc);
        file.insert(file.end(), behindClosing.begin(), behindClosing.end());
        return file;
    }

private:
    static void Add(std::vector<octet_t>& file, DeltaFrame head, const std::vector<octet_t>& bytes, uint32& crc) {
        head.length = static_cast<uint32>(bytes.size());
        crc = Crc32c(bytes.data(), std::ssize(bytes), Crc32c(&head, offsetof(DeltaFrame, crc), crc));
        head.crc = crc;
        const octet_t* const p = reinterpret_cast<const octet_t*>(&head);
        file.insert(file.end(), p, p + sizeof head);
        file.insert(file.end(), bytes.begin(), bytes.end());
    }

    CommitCount m_count;
};

} // namespace quna

// The file format, version 1: sizes, structures and the packing of locations. docs/file-format.md tells it in words.
//
// Little-endian, no padding: every structure is the bytes on the disk.
#pragma once

#include "qxLss/Seid.h"
#include "qxLss/src/Crc32c.h"
#include "qxUtils/BasicTypes.h"

#include <array>
#include <cstddef>
#include <cstring>

namespace quna {

using StoreId = std::array<octet_t, 16>;

inline constexpr uint32 FORMAT_VERSION = 1;
inline constexpr char CHECKPOINT_MAGIC[] = "LSSCKPT1";
inline constexpr char SEGMENT_MAGIC[] = "LSSSEGM1";

inline constexpr ssize_t MIN_SEGMENT_SIZE = 65536;
inline constexpr ssize_t MAX_SEGMENT_SIZE = 8388608;
inline constexpr ssize_t MIN_TEST_SEGMENT_SIZE = 4096;
inline constexpr int64 FRONT_AREA_BYTES = 131072; // two headers and the allocation ring
inline constexpr int64 MAX_FILE_BYTES = int64{1} << 43;

inline constexpr ssize_t PACKET_ALIGNMENT = 8;
inline constexpr ssize_t SECTOR_BYTES = 4096; // durable bytes are not written again within it

inline constexpr int64 DataStart(ssize_t segmentSize) {
    return segmentSize > FRONT_AREA_BYTES ? segmentSize : FRONT_AREA_BYTES;
}

// LONG_PART is an OVERFLOW packet and REMOVE a DELETE packet: both words are macros of system headers.
enum class EPacketType : uint32 {
    HEAD = 1,
    LONG_PART = 2,
    REMOVE = 3,
    COMMIT = 4,
    ABORT = 5,
    LINK = 6,
    RELOC = 7,
    INDEX = 8,
    SUT = 9,
    HIGHS = 10,
    DROP = 11,
    PAD = 12,
    LIST = 13
};

enum class ESegmentKind : uint8 {
    FREE = 0,
    USER = 1,
    SURVIVORS = 2,
    INDEX = 3
};

inline constexpr uint32 PACKET_FLAG_LONG = 1;

#pragma pack(push, 1)

struct PacketHeader {
    uint32 crc;
    uint32 info; // bits 0-23 payload length, 24-27 type, 28-31 flags
    uint64 key;
};
static_assert(sizeof(PacketHeader) == 16);

struct CommitPayload {
    uint64 bytes;       // of packets since the last COMMIT, ABORT or RELOC; LINK and PAD not counted
    uint32 packets;     // likewise
    uint32 flags;       // COMMIT_FLAG_...
    uint64 durableUpTo; // log clock
    uint64 time;        // 100 ns since 1970
};
static_assert(sizeof(CommitPayload) == 32);
inline constexpr uint32 COMMIT_FLAG_FLUSH = 1;   // a flush was asked for
inline constexpr uint32 COMMIT_FLAG_UNWOUND = 2; // closed while an exception passed

struct LinkPayload {
    uint32 slot;
    uint32 zero;
};
static_assert(sizeof(LinkPayload) == 8);

struct OverflowPrefix {
    uint32 ordinal;
    uint32 zero;
};
static_assert(sizeof(OverflowPrefix) == 8);

// A LONG head's payload: this, n locations, the tail bytes.
struct LongPrefix {
    uint64 totalBytes;
    uint32 n;
    uint32 zero;
};
static_assert(sizeof(LongPrefix) == 16);

struct RelocPayload {
    uint32 numNew;
    uint32 numVictims;
    uint32 numLong;
    uint32 flags; // RELOC_FLAG_LAST
};
static_assert(sizeof(RelocPayload) == 16);
inline constexpr uint32 RELOC_FLAG_LAST = 1; // of its batch: the victims are free

struct RelocRange {
    uint32 slot;
    uint32 from;
    uint32 to;
    uint32 zero;
    uint64 sequence;
};
static_assert(sizeof(RelocRange) == 24);

struct RelocVictim {
    uint32 slot;
    uint32 zero;
    uint64 sequence;
};
static_assert(sizeof(RelocVictim) == 16);

// Followed by m pairs (old location, new location) of overflow packets.
struct RelocLong {
    uint64 seid;
    uint64 oldHead;
    uint64 newHead;
    uint32 numPairs;
    uint32 zero;
};
static_assert(sizeof(RelocLong) == 32);

// Form 0: a bitmap of 256 bits, then a location for each set bit.
struct IndexPrefix {
    uint8 level;
    uint8 form;
    uint16 n;
    uint32 zero;
    uint64 bitmap[4];
};
static_assert(sizeof(IndexPrefix) == 40);

struct SutEntry {
    uint64 sequence; // 0 = free
    uint32 liveBytes;
    uint32 livePackets;
    uint32 packets;
    uint32 writtenAt; // log clock >> STAMP_SHIFT
    uint32 dataStamp; // likewise
    uint8 kind;
    uint8 ageClass;
    uint16 zero;
};
static_assert(sizeof(SutEntry) == 32);
inline constexpr int STAMP_SHIFT = 20;

struct HighsEntry {
    uint32 high;
    uint32 horizon;
    uint64 root;
    uint8 rootLevel;
    uint8 zero;
    uint16 incrementalLeft;
    uint32 nextIncremental;
    uint64 liveElements;
};
static_assert(sizeof(HighsEntry) == 32);

struct SegmentHeader {
    char magic[8];
    uint64 sequence;
    uint64 storeIdStart; // first 8 bytes of the store id
    uint64 clockAtOpening;
    uint64 dataStamp; // log clock
    uint32 kind;
    uint32 ageClass;
    uint64 previousSequence; // of the same stream
    uint32 slot;
    uint32 crc;
};
static_assert(sizeof(SegmentHeader) == 64 && offsetof(SegmentHeader, crc) == 60);

inline constexpr uint32 HEADER_FLAG_CLEAN = 1;
inline constexpr uint32 HEADER_FLAG_CREATING = 2;
inline constexpr uint32 HEADER_FLAG_LIST = 4; // `locations` are those of LIST packets

struct CheckpointHeader {
    static constexpr ssize_t MAX_LOCATIONS = 488;

    char magic[8];
    uint32 version;
    uint32 segmentSize;
    StoreId storeId;
    uint64 checkpointSequence;
    uint64 nextSegmentSequence;
    uint64 logClock;
    uint32 startSlot; // where rolling forward begins
    uint32 startOffset;
    uint64 startSequence;
    uint64 lastTransaction;
    uint32 numSlots;
    uint32 flags; // HEADER_FLAG_...
    uint64 ringSequence;
    uint32 nextHigh;
    uint32 numHighs;
    uint64 liveHead;
    uint64 liveOverflow;
    uint64 liveIndex;
    uint64 obsolete;
    uint64 numCheckpoints;
    uint64 numRecoveries;
    uint64 numTransactions;
    uint64 archivedUpTo; // transaction number
    uint64 liveBytes;
    uint32 numHighsPackets;
    uint32 numSutPackets;
    uint64 locations[MAX_LOCATIONS];
    uint32 unused;
    uint32 crc;
};
static_assert(sizeof(CheckpointHeader) == 4096);
static_assert(offsetof(CheckpointHeader, storeId) == 16 && offsetof(CheckpointHeader, logClock) == 48);
static_assert(offsetof(CheckpointHeader, startSlot) == 56 && offsetof(CheckpointHeader, lastTransaction) == 72);
static_assert(offsetof(CheckpointHeader, numSlots) == 80 && offsetof(CheckpointHeader, ringSequence) == 88);
static_assert(offsetof(CheckpointHeader, nextHigh) == 96 && offsetof(CheckpointHeader, liveHead) == 104);
static_assert(offsetof(CheckpointHeader, numCheckpoints) == 136 && offsetof(CheckpointHeader, archivedUpTo) == 160);
static_assert(offsetof(CheckpointHeader, numHighsPackets) == 176 && offsetof(CheckpointHeader, locations) == 184);
static_assert(offsetof(CheckpointHeader, crc) == 4092);

// Where the header of a checkpoint sequence stands in the file: A for even ones, B for odd ones.
inline constexpr int64 HeaderOffset(uint64 checkpointSequence) { return checkpointSequence % 2 ? 4096 : 0; }

#pragma pack(pop)

inline constexpr ssize_t PACKET_HEADER_BYTES = sizeof(PacketHeader);
inline constexpr ssize_t SEGMENT_HEADER_BYTES = sizeof(SegmentHeader);
inline constexpr ssize_t ABORT_BYTES = PACKET_HEADER_BYTES;
inline constexpr ssize_t LINK_BYTES = PACKET_HEADER_BYTES + static_cast<ssize_t>(sizeof(LinkPayload));
inline constexpr ssize_t COMMIT_BYTES = PACKET_HEADER_BYTES + static_cast<ssize_t>(sizeof(CommitPayload));

// No element reaches into this part of its segment, so that 64 bytes behind it are always readable; a user segment also
// keeps room for ABORT and LINK.
inline constexpr ssize_t ELEMENT_TAIL_BYTES = 64;
inline constexpr ssize_t USER_TAIL_BYTES = 112;

inline constexpr ssize_t LEAF_SLOTS = 256;
inline constexpr int LEAF_SHIFT = 8;
inline constexpr int MAX_INDEX_LEVEL = 3;

inline constexpr ssize_t PaddedSize(ssize_t n) { return (n + PACKET_ALIGNMENT - 1) & ~(PACKET_ALIGNMENT - 1); }

inline constexpr uint32 PacketInfo(EPacketType type, ssize_t payloadBytes, uint32 flags = 0) {
    return static_cast<uint32>(payloadBytes) | static_cast<uint32>(type) << 24 | flags << 28;
}
inline constexpr ssize_t PayloadBytes(uint32 info) { return info & 0xFFFFFF; }
inline constexpr EPacketType PacketType(uint32 info) { return static_cast<EPacketType>(info >> 24 & 15); }
inline constexpr uint32 PacketFlags(uint32 info) { return info >> 28; }
inline constexpr ssize_t PacketBytes(uint32 info) { return PaddedSize(PACKET_HEADER_BYTES + PayloadBytes(info)); }

// Does the usage table count packets of this type? The others belong to no element and no page.
inline constexpr bool IsCounted(EPacketType type) {
    return type == EPacketType::HEAD || type == EPacketType::LONG_PART || type == EPacketType::REMOVE ||
           type == EPacketType::INDEX;
}

// The bytes of an element in an overflow packet: such that four packets fill a segment.
inline constexpr ssize_t OverflowBytes(ssize_t segmentSize) { return segmentSize / 4 - 72; }
inline constexpr ssize_t MaxOverflowPackets(ssize_t segmentSize) { return segmentSize / 16; }

// Where a packet is: bits 0-39 file offset / 8, 40-59 padded length / 8, 60 LONG, 61-63 zero. 0 = nowhere.
using Location = uint64;
inline constexpr Location LOCATION_LONG = Location{1} << 60;

inline constexpr Location MakeLocation(int64 fileOffset, ssize_t paddedBytes, bool isLong = false) {
    return static_cast<uint64>(fileOffset) >> 3 | static_cast<uint64>(paddedBytes) >> 3 << 40 |
           (isLong ? LOCATION_LONG : 0);
}
inline constexpr int64 LocationOffset(Location l) { return static_cast<int64>((l & 0xFFFFFFFFFFu) << 3); }
inline constexpr ssize_t LocationBytes(Location l) { return static_cast<ssize_t>((l >> 40 & 0xFFFFF) << 3); }
inline constexpr bool IsLong(Location l) { return (l & LOCATION_LONG) != 0; }

// The checksum's start for packets of one use of a segment: CRC32C of store id and sequence. Bytes left by an earlier
// use of the slot never verify.
inline uint32 SegmentCrcSeed(const StoreId& storeId, uint64 sequence) {
    octet_t bytes[24];
    std::memcpy(bytes, storeId.data(), 16);
    std::memcpy(bytes + 16, &sequence, 8);
    return Crc32c(bytes, sizeof bytes);
}

// The checksum of the packet at `packet`, which lies `offset` bytes from the start of its segment: seed, offset (u32),
// bytes 4..15 of the header, payload.
inline uint32 PacketCrc(uint32 segmentSeed, uint32 offset, const octet_t* packet, ssize_t payloadBytes) {
    const uint32 start = Crc32c(&offset, sizeof offset, segmentSeed);
    return Crc32c(packet + 4, PACKET_HEADER_BYTES - 4 + payloadBytes, start);
}

inline uint64 StoreIdStart(const StoreId& storeId) {
    uint64 start;
    std::memcpy(&start, storeId.data(), sizeof start);
    return start;
}

template <class T>
T ReadPod(const octet_t* p) {
    T x;
    std::memcpy(&x, p, sizeof x);
    return x;
}

} // namespace quna

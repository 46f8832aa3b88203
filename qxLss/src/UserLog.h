// The user stream: the only chain of segments that recovery walks.
#pragma once

#include "qxLss/src/Flusher.h"
#include "qxLss/src/SegmentWriter.h"
#include "qxLss/src/SpaceManager.h"
#include "qxLss/src/StoreCore.h"
#include "qxLss/src/TurnLock.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <atomic>

namespace quna {

// Where recovery begins to walk.
struct LogPosition {
    ssize_t slot;
    ssize_t offset;
    uint64 sequence;
};

// Appends the packets of transactions to the open user segment and links segments to a chain.
//
// The log clock counts the bytes of the user stream over the store's life, segment headers included: at each position it
// is the segment's clock at opening plus the offset.
//
// Ownership: borrows core, space and flusher.
// Threads:   all methods but Turn and Clock need the turn.
// Invariant: between packets there is room for ABORT and LINK in the open segment.
class QX_API UserLog {
public:
    UserLog(StoreCore& core, SpaceManager& space, Flusher& flusher)
        : m_core(core), m_space(space), m_flusher(flusher), m_writer(core, core.m_settings.enableFileBuffering) {}

    TurnLock& Turn() { return m_turn; }

    // A fresh segment, the first or after a recovery; `clock` is the log clock where it begins.
    void OpenFresh(uint64 clock, uint64 previousSequence);
    // Goes on where a clean close left off.
    void Resume(const LogPosition& position, uint64 clock);

    // --- packets

    // To be called before a packet is begun: if a sync has begun since the last bytes were handed over, fills their
    // sector, so that durable bytes are not written again.
    void BeforePacket() {
        if (m_writer.Handed() == m_writer.Position() && m_syncsSeen != m_flusher.NumSyncsBegun()) [[unlikely]]
            LeaveSyncedSector(EClaim::TRANSACTION);
    }
    // Room for the payload of an element in the open segment.
    ssize_t ElementRoom() const { return m_writer.Room() - USER_TAIL_BYTES - PACKET_HEADER_BYTES; }
    octet_t* Payload() { return m_writer.Payload(); }
    // Ends a HEAD or OVERFLOW packet whose payload stands at Payload().
    Location EndElement(EPacketType type, uint64 key, ssize_t payloadBytes, uint32 flags = 0) {
        ++m_packetsAdded;
        ++Usage().packets;
        return Count(m_writer.EndPacket(type, key, payloadBytes, flags));
    }
    // A DELETE packet.
    void AppendDelete(uint64 key) {
        AppendSmall(EPacketType::REMOVE, key, nullptr, 0);
        ++m_packetsAdded;
        ++Usage().packets;
    }
    void AppendDrop(uint64 key, const Location* dead, ssize_t n) {
        AppendSmall(EPacketType::DROP, key, dead, n * static_cast<ssize_t>(sizeof(Location)));
    }
    // COMMIT of the next transaction number, which counts from NoteCommitted on.
    void AppendCommit(uint32 flags);
    void NoteCommitted() { ++m_lastTransaction; }
    uint64 LastTransaction() const { return m_lastTransaction; }
    void SetLastTransaction(uint64 number) { m_lastTransaction = number; }
    // The next COMMIT bears this time instead of the present one: a transaction is being repeated.
    void SetTimeOfNextCommit(uint64 time) { m_timeOfNextCommit = time; }
    // The cleaner has moved packets: see RelocPayload. Requires: no open packets. `n` is at most MaxRelocBytes.
    void AppendReloc(uint64 batch, const void* payload, ssize_t n);
    ssize_t MaxRelocBytes() const {
        return m_core.m_segmentSize - SEGMENT_HEADER_BYTES - PACKET_HEADER_BYTES - ABORT_BYTES - LINK_BYTES -
               PACKET_ALIGNMENT;
    }
    // Forgets the packets since the last COMMIT. Needs no new segment. Throws only what HandOver throws.
    void AppendAbort();
    // Ends the open segment and begins the next. Throws FileException before anything changed if there is no space.
    void LinkToNext(EClaim claim = EClaim::TRANSACTION);
    // Fills the sector behind a COMMIT that will be synced at once.
    void PadToSector();

    // Are there packets that no COMMIT or ABORT has closed?
    bool HasOpenPackets() const { return m_packetsSince != 0; }

    // --- to the file

    void HandOver();
    LogPosition Position() const { return {m_writer.Slot(), m_writer.Position(), m_writer.Sequence()}; }
    uint64 Clock() const { return m_writer.ClockAtOpening() + static_cast<uint64>(m_writer.Position()); }
    // The clock of the last byte handed over; any thread.
    uint64 HandedClock() const { return m_handedClock.load(std::memory_order_acquire); }

private:
    SegmentSlot& Usage() { return (*m_core.m_segments)[m_writer.Slot()]; }
    Location Count(Location l) {
        ++m_packetsSince;
        m_bytesSince += static_cast<uint64>(LocationBytes(l));
        return l;
    }
    // A packet that may reach into the tail of the segment, but for the room of ABORT and LINK.
    void AppendSmall(EPacketType type, uint64 key, const void* payload, ssize_t n);
    void LeaveSyncedSector(EClaim claim);
    bool TryPadToSector();
    void ResetCounts();

    StoreCore& m_core;
    SpaceManager& m_space;
    Flusher& m_flusher;
    TurnLock m_turn;
    SegmentWriter m_writer;
    uint64 m_lastTransaction = 0;  // number of the last committed
    uint64 m_timeOfNextCommit = 0; // 100 ns since 1970; 0: the present
    uint64 m_bytesSince = 0;       // since the last COMMIT, ABORT or RELOC
    uint32 m_packetsSince = 0;     // likewise
    int64 m_packetsAdded = 0;      // not yet in the store's counter
    uint64 m_syncsSeen = 0;        // syncs begun when bytes were last handed over
    std::atomic<uint64> m_handedClock{0};
};

} // namespace quna

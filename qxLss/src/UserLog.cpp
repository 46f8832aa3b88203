#include "qxLss/src/UserLog.h"

#include "qxUtils/Assert.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/UserLog";

} // namespace

void UserLog::OpenFresh(uint64 clock, uint64 previousSequence) {
    const ssize_t slot = m_space.Take(ESegmentKind::USER, 0, clock);
    m_writer.Begin(slot, clock, previousSequence);
    ResetCounts();
}

void UserLog::Resume(const LogPosition& position, uint64 clock) {
    m_writer.Resume(position.slot, position.offset, clock - static_cast<uint64>(position.offset));
    m_handedClock.store(clock, std::memory_order_release);
    m_syncsSeen = ~uint64{0}; // what stands was synced by the close
    ResetCounts();
}

void UserLog::AppendSmall(EPacketType type, uint64 key, const void* payload, ssize_t n) {
    BeforePacket();
    if (m_writer.Room() < PaddedSize(PACKET_HEADER_BYTES + n) + ABORT_BYTES + LINK_BYTES) LinkToNext();
    Count(m_writer.Append(type, key, payload, n));
}

void UserLog::AppendCommit(uint32 flags) {
    BeforePacket();
    if (m_writer.Room() < COMMIT_BYTES + ABORT_BYTES + LINK_BYTES) LinkToNext();
    CommitPayload payload{};
    payload.bytes = m_bytesSince;
    payload.packets = m_packetsSince;
    payload.flags = flags;
    payload.durableUpTo = m_flusher.DurableClock();
    payload.time = m_timeOfNextCommit ? m_timeOfNextCommit : m_core.m_file.Sys().WallClock100ns();
    m_timeOfNextCommit = 0;
    m_writer.Append(EPacketType::COMMIT, m_lastTransaction + 1, &payload, sizeof payload);
    ResetCounts();
}

void UserLog::AppendReloc(uint64 batch, const void* payload, ssize_t n) {
    QX_ASSERT(!HasOpenPackets());
    if (m_writer.Handed() == m_writer.Position() && m_syncsSeen != m_flusher.NumSyncsBegun())
        LeaveSyncedSector(EClaim::MAINTENANCE);
    if (m_writer.Room() < PaddedSize(PACKET_HEADER_BYTES + n) + ABORT_BYTES + LINK_BYTES)
        LinkToNext(EClaim::MAINTENANCE);
    m_writer.Append(EPacketType::RELOC, batch, payload, n);
    ResetCounts();
}

void UserLog::AppendAbort() {
    if (m_writer.Room() < ABORT_BYTES) return; // a LINK that could not be written stands there: the chain ends
    m_writer.Append(EPacketType::ABORT, m_lastTransaction + 1, nullptr, 0);
    ResetCounts();
    HandOver();
}

void UserLog::LinkToNext(EClaim claim) {
    const uint64 clock = Clock() + LINK_BYTES;
    const ssize_t next = m_space.Take(ESegmentKind::USER, 0, clock, claim);
    const LinkPayload payload{static_cast<uint32>(next), 0};
    m_writer.Append(EPacketType::LINK, (*m_core.m_segments)[next].sequence, &payload, sizeof payload);
    HandOver();
    Usage().writtenAt = static_cast<uint32>(clock >> m_core.m_stampShift);
    Usage().usedBytes = static_cast<uint32>(m_writer.Position() - SEGMENT_HEADER_BYTES);
    m_core.m_counters.usedBytes.fetch_add(Usage().usedBytes, std::memory_order_relaxed);
    m_flusher.QueueWriteBack(m_core.m_segments->OffsetOf(m_writer.Slot()), m_core.m_segmentSize);
    const uint64 sequence = m_writer.Sequence();
    m_writer.End();
    m_writer.Begin(next, clock, sequence);
}

void UserLog::HandOver() {
    m_syncsSeen = m_flusher.NumSyncsBegun();
    m_writer.HandOver();
    m_handedClock.store(Clock(), std::memory_order_release);
    m_flusher.NoteHandedOver(Clock());
}

void UserLog::LeaveSyncedSector(EClaim claim) {
    if (m_writer.Position() % SECTOR_BYTES != 0 && !TryPadToSector()) LinkToNext(claim);
    m_syncsSeen = m_flusher.NumSyncsBegun();
}

void UserLog::PadToSector() { static_cast<void>(TryPadToSector()); }

// False if the padding would not leave room for ABORT and LINK.
bool UserLog::TryPadToSector() {
    const ssize_t pos = m_writer.Position();
    ssize_t gap = (SECTOR_BYTES - pos % SECTOR_BYTES) % SECTOR_BYTES;
    if (gap == 0) return true;
    if (gap < PACKET_HEADER_BYTES) gap += SECTOR_BYTES;
    if (m_writer.Room() - gap < ABORT_BYTES + LINK_BYTES) return false;
    std::memset(m_writer.Payload(), 0, static_cast<size_t>(gap - PACKET_HEADER_BYTES));
    m_writer.EndPacket(EPacketType::PAD, 0, gap - PACKET_HEADER_BYTES);
    return true;
}

void UserLog::ResetCounts() {
    m_core.m_counters.packets.fetch_add(m_packetsAdded, std::memory_order_relaxed);
    m_packetsAdded = 0;
    m_bytesSince = 0;
    m_packetsSince = 0;
}

} // namespace quna

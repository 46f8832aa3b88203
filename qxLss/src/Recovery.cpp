#include "qxLss/src/Recovery.h"

#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/Mutants.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace quna {

namespace {

constexpr uint64 SEQUENCE_JUMP = uint64{1} << 32;
constexpr uint64 MAX_NUMBER = uint64{1} << 62; // of anything that is counted: no store lives so long

bool IsValidSegmentSize(uint64 n) {
    return n >= static_cast<uint64>(MIN_TEST_SEGMENT_SIZE) && n <= static_cast<uint64>(MAX_SEGMENT_SIZE) &&
           (n & (n - 1)) == 0;
}

enum class EHeaderState {
    MISSING,
    FOREIGN,
    OTHER_VERSION,
    BROKEN,
    VALID
};

bool Verifies(const CheckpointHeader& header) { return header.crc == Crc32c(&header, offsetof(CheckpointHeader, crc)); }

EHeaderState ReadHeader(File& file, int64 offset, CheckpointHeader& header) {
    header = CheckpointHeader{};
    const ssize_t n = file.ReadUpTo(offset, &header, sizeof header);
    if (n < static_cast<ssize_t>(sizeof header.magic) + 4) return EHeaderState::MISSING;
    if (std::memcmp(header.magic, CHECKPOINT_MAGIC, sizeof header.magic) != 0) return EHeaderState::FOREIGN;
    if (header.version > FORMAT_VERSION) return EHeaderState::OTHER_VERSION; // torn or not: see ChooseHeader
    const bool verifies = Verifies(header) || IsMutant(EMutant::CHECKPOINT_CHECKSUM_IGNORED);
    if (n < static_cast<ssize_t>(sizeof header) || !verifies) return EHeaderState::BROKEN;
    if (header.version != FORMAT_VERSION) return EHeaderState::OTHER_VERSION;
    if (!IsValidSegmentSize(header.segmentSize) || HeaderOffset(header.checkpointSequence) != offset)
        return EHeaderState::BROKEN;
    return EHeaderState::VALID;
}

template <class Entry>
std::vector<Entry> EntriesOf(const std::vector<octet_t>& table) {
    std::vector<Entry> entries;
    entries.reserve(table.size() / sizeof(Entry));
    for (size_t at = 0; at + sizeof(Entry) <= table.size(); at += sizeof(Entry))
        entries.push_back(ReadPod<Entry>(table.data() + at));
    return entries;
}

// A header whose writing was cut short may become valid afterwards: the next owner writes over it, is cut short too, and
// just the sector that was wrong gets its zeros. By then that owner has used slots which the old header names. It did not
// know of the header, since the ring names an older one, and its sequences begin far beyond those that the header knows.
bool IsLeftBehind(File& file, const CheckpointHeader& header) {
    const AllocRing::Marks marks = AllocRing::MarksIn(file, header.storeId);
    return header.checkpointSequence > marks.newestCheckpoint && header.nextSegmentSequence < marks.sequenceBase;
}

// The newer of two header places; VALID if there is a valid one.
EHeaderState ChooseHeader(File& file, CheckpointHeader& newest) {
    CheckpointHeader a{};
    CheckpointHeader b{};
    EHeaderState stateA = ReadHeader(file, 0, a);
    EHeaderState stateB = ReadHeader(file, 4096, b);
    const auto isBNewest = [&] {
        const bool isNewer = (b.checkpointSequence > a.checkpointSequence) != IsMutant(EMutant::OLDER_HEADER_TAKEN);
        return stateB == EHeaderState::VALID && (stateA != EHeaderState::VALID || isNewer);
    };
    // Of two valid ones the older was durable before the newer was begun.
    EHeaderState& newestState = isBNewest() ? stateB : stateA;
    if (newestState == EHeaderState::VALID && IsLeftBehind(file, isBNewest() ? b : a))
        newestState = EHeaderState::BROKEN;
    // A torn header may show any version. Beside a valid one only a checksum, which all versions have there, makes it count.
    if (stateA == EHeaderState::OTHER_VERSION && stateB == EHeaderState::VALID && !Verifies(a))
        stateA = EHeaderState::BROKEN;
    if (stateB == EHeaderState::OTHER_VERSION && stateA == EHeaderState::VALID && !Verifies(b))
        stateB = EHeaderState::BROKEN;
    newest = isBNewest() ? b : a;
    if (stateA == EHeaderState::OTHER_VERSION || stateB == EHeaderState::OTHER_VERSION) {
        newest = stateA == EHeaderState::OTHER_VERSION ? a : b;
        return EHeaderState::OTHER_VERSION;
    }
    return std::max(stateA, stateB);
}

std::string FirstBytes(File& file, int64 offset) {
    octet_t bytes[8];
    const ssize_t n = file.ReadUpTo(offset, bytes, sizeof bytes);
    std::string text = std::to_string(n) + " bytes";
    for (ssize_t i = 0; i < n; ++i) {
        constexpr char DIGITS[] = "0123456789abcdef";
        text += {' ', DIGITS[bytes[i] >> 4], DIGITS[bytes[i] & 15]};
    }
    return text;
}

std::string HeaderChecksum(File& file, int64 offset) {
    CheckpointHeader header{};
    const ssize_t n = file.ReadUpTo(offset, &header, sizeof header);
    if (n < static_cast<ssize_t>(sizeof header)) return std::to_string(n) + " bytes of it";
    return "the checksum " + std::to_string(header.crc) + ", expected " +
           std::to_string(Crc32c(&header, offsetof(CheckpointHeader, crc))) + ",";
}

[[noreturn]] void ThrowOtherVersion(const StoreCore& core, uint32 found) {
    const bool isNewer = found > FORMAT_VERSION;
    ThrowCorrupt(core,
                 "the file has format version " + std::to_string(found) + ", this library reads versions " +
                     (isNewer ? "up to " : "from ") + std::to_string(FORMAT_VERSION),
                 -1, isNewer ? ADVICE_NEWER : ADVICE_RESTORE);
}

} // namespace

CheckpointHeader ReadNewestHeader(const StoreCore& core, File& file) {
    CheckpointHeader header{};
    const int64 size = file.Size();
    const EHeaderState state = ChooseHeader(file, header);
    switch (state) {
    case EHeaderState::VALID: return header;
    case EHeaderState::MISSING:
        ThrowCorrupt(core,
                     size == 0 ? std::string("the file is empty, expected is a header")
                               : "the file has only " + std::to_string(size) + " bytes, expected is a header",
                     0);
    case EHeaderState::FOREIGN:
        ThrowCorrupt(core,
                     "the file does not begin as a store does; it is no store, or its header is lost: found " +
                         FirstBytes(file, 0) + " and " + FirstBytes(file, 4096) + ", expected '" +
                         std::string(CHECKPOINT_MAGIC, sizeof header.magic) + "' at offset 0 or 4096",
                     -1);
    case EHeaderState::OTHER_VERSION: ThrowOtherVersion(core, header.version);
    case EHeaderState::BROKEN: break;
    }
    ThrowCorrupt(core,
                 "neither of the two checkpoint headers is valid: found " + HeaderChecksum(file, 0) +
                     " at offset 0 and " + HeaderChecksum(file, 4096) + " at offset 4096",
                 -1);
}

// The flag is cleared by the first transaction, in a header of its own that the ring names. If that one is damaged, the
// header with the flag is the only valid one, but the store was there.
bool IsCutShortCreation(File& file) {
    CheckpointHeader header{};
    return ChooseHeader(file, header) == EHeaderState::VALID && (header.flags & HEADER_FLAG_CREATING) &&
           AllocRing::MarksIn(file, header.storeId).newestCheckpoint <= header.checkpointSequence;
}

Recovery::Recovery(StoreCore& core, SpaceManager& space, Index& index, AllocRing& ring)
    : m_core(core), m_space(space), m_index(index), m_ring(ring), m_segments(*core.m_segments) {}

RecoveredLog Recovery::Run(const CheckpointHeader& header) {
    CheckHeader(header);
    m_result.ring = m_ring.Read();
    if (m_result.ring.newestCheckpoint > header.checkpointSequence)
        ThrowCorrupt(m_core,
                     "the newest checkpoint header is lost: found that of checkpoint " +
                         std::to_string(header.checkpointSequence) + ", expected that of checkpoint " +
                         std::to_string(m_result.ring.newestCheckpoint) + ", which was completed,",
                     HeaderOffset(m_result.ring.newestCheckpoint));
    m_result.clean = (header.flags & HEADER_FLAG_CLEAN) && m_ring.VouchesForCleanClose(header.checkpointSequence);
    // A clean mark on the disk says that every byte before it was synced: then the cache tells the truth and stays warm.
    // Without it a failed sync may have left pages there that the disk does not have.
    if (!m_result.clean) m_core.m_file.DropCache(0, 0);
    return RunFrom(header);
}

RecoveredLog Recovery::RunAt(const CheckpointHeader& header) {
    m_result.clean = true;
    return RunFrom(header);
}

RecoveredLog Recovery::RunFrom(const CheckpointHeader& header) {
    m_segments.RaiseLimit(std::min(SlotsInFile(), m_segments.MaxSlots()));
    m_result.end = {static_cast<ssize_t>(header.startSlot), static_cast<ssize_t>(header.startOffset),
                    header.startSequence};
    m_result.clock = header.logClock;
    m_result.lastTransaction = header.lastTransaction;
    m_result.nextHigh = std::max(header.nextHigh, m_result.ring.nextHigh);
    if (m_result.ring.sequenceBase > MAX_NUMBER ||
        (!m_result.ring.horizons.empty() && m_result.ring.horizons.rbegin()->first >= m_result.nextHigh))
        ThrowCorrupt(m_core,
                     "the allocation ring holds a number that no store can reach: found sequence " +
                         std::to_string(m_result.ring.sequenceBase) + " and next high " +
                         std::to_string(m_result.nextHigh) + ", expected at most " + std::to_string(MAX_NUMBER) +
                         " and one above all highs",
                     AllocRing::FILE_OFFSET);
    m_result.nextSequence = header.nextSegmentSequence;
    if (!m_result.clean && !IsMutant(EMutant::NO_SEQUENCE_JUMP))
        m_result.nextSequence = std::max(header.nextSegmentSequence, m_result.ring.sequenceBase) + SEQUENCE_JUMP;
    LoadTables(header);
    Walk(header);
    Finish();
    return std::move(m_result);
}

// --- the checkpoint's tables

// A right checksum says that the header is what was written, not that a store wrote it.
void Recovery::CheckHeader(const CheckpointHeader& header) const {
    for (const uint64 number :
         {header.checkpointSequence, header.nextSegmentSequence, header.logClock, header.lastTransaction,
          header.liveHead, header.liveOverflow, header.liveIndex, header.numCheckpoints, header.numRecoveries,
          header.numTransactions, header.liveBytes}) {
        if (number > MAX_NUMBER)
            ThrowCorrupt(m_core,
                         "the checkpoint header holds a number that no store can reach: found " +
                             std::to_string(number) + ", expected at most " + std::to_string(MAX_NUMBER),
                         HeaderOffset(header.checkpointSequence));
    }
}

void Recovery::LoadTables(const CheckpointHeader& header) {
    const std::vector<Location> locations = TableLocations(header);
    const size_t numHighsPackets = header.numHighsPackets;
    const auto split = locations.begin() + static_cast<std::ptrdiff_t>(numHighsPackets);
    const std::vector<octet_t> highs = ReadTable({locations.begin(), split}, EPacketType::HIGHS, sizeof(HighsEntry));
    const std::vector<octet_t> sut = ReadTable({split, locations.end()}, EPacketType::SUT, sizeof(SutEntry));

    FillSegments(header, EntriesOf<SutEntry>(sut));
    const std::vector<HighsEntry> highsEntries = EntriesOf<HighsEntry>(highs);
    if (highsEntries.size() != header.numHighs)
        ThrowCorrupt(m_core,
                     "the table of high halves has " + std::to_string(highsEntries.size()) + " entries, expected are " +
                         std::to_string(header.numHighs),
                     HeaderOffset(header.checkpointSequence));
    FillIndex(highsEntries);
}

std::vector<Location> Recovery::TableLocations(const CheckpointHeader& header) {
    const ssize_t n = static_cast<ssize_t>(header.numHighsPackets) + header.numSutPackets;
    const octet_t* const stored = reinterpret_cast<const octet_t*>(&header) + offsetof(CheckpointHeader, locations);
    std::vector<Location> locations;
    std::vector<octet_t> list;
    if (!(header.flags & HEADER_FLAG_LIST)) {
        if (n > CheckpointHeader::MAX_LOCATIONS)
            ThrowCorrupt(m_core,
                         "the checkpoint header names " + std::to_string(n) + " packets, it has room for " +
                             std::to_string(CheckpointHeader::MAX_LOCATIONS),
                         HeaderOffset(header.checkpointSequence));
        for (ssize_t i = 0; i < n; ++i) locations.push_back(ReadPod<Location>(stored + i * 8));
        return locations;
    }
    for (ssize_t i = 0; i < CheckpointHeader::MAX_LOCATIONS; ++i) {
        const Location l = ReadPod<Location>(stored + i * 8);
        if (!l) break;
        AppendTablePacket(l, EPacketType::LIST, sizeof(Location), list);
    }
    locations = EntriesOf<Location>(list);
    if (std::ssize(locations) != n)
        ThrowCorrupt(m_core,
                     "the list of a checkpoint's packets has " + std::to_string(locations.size()) +
                         " entries, expected are " + std::to_string(n),
                     HeaderOffset(header.checkpointSequence));
    return locations;
}

std::vector<octet_t> Recovery::ReadTable(const std::vector<Location>& packets, EPacketType type, ssize_t entryBytes) {
    std::vector<octet_t> table;
    for (const Location l : packets) AppendTablePacket(l, type, entryBytes, table);
    return table;
}

// The usage table is not known yet, so the segment's own header gives the sequence. The key is the number of the first
// entry: so no packet is taken twice, and the table is no larger than the file.
void Recovery::AppendTablePacket(Location l, EPacketType type, ssize_t entryBytes, std::vector<octet_t>& table) {
    if (!m_segments.IsInside(l))
        ThrowOutside(m_core,
                     "the file has " + std::to_string(m_core.m_file.Size()) + " bytes, and its checkpoint has a table",
                     l);
    const ssize_t slot = m_segments.SlotOf(l);
    SegmentHeader segment{};
    if (!ReadSegmentHeader(slot, segment))
        ThrowCorrupt(m_core, "found no valid header of a segment, expected that of one with the checkpoint's tables",
                     m_segments.OffsetOf(slot));
    std::vector<octet_t> packet(static_cast<size_t>(LocationBytes(l)));
    if (m_core.m_file.ReadUpTo(LocationOffset(l), packet.data(), LocationBytes(l)) != LocationBytes(l))
        ThrowCorrupt(m_core,
                     "the file has " + std::to_string(m_core.m_file.Size()) + " bytes, expected is a table of " +
                         std::to_string(LocationBytes(l)) + " bytes",
                     LocationOffset(l));
    const PacketHeader header = ReadPod<PacketHeader>(packet.data());
    const ssize_t n = PayloadBytes(header.info);
    if (PacketType(header.info) != type || PacketBytes(header.info) != LocationBytes(l) ||
        PacketCrc(SegmentCrcSeed(m_core.m_storeId, segment.sequence), m_segments.OffsetIn(l), packet.data(), n) !=
            header.crc)
        ThrowCorrupt(m_core,
                     "a table of the checkpoint is not valid: found a packet of type " +
                         std::to_string(static_cast<uint32>(PacketType(header.info))) + " and " +
                         std::to_string(PacketBytes(header.info)) + " bytes, expected type " +
                         std::to_string(static_cast<uint32>(type)) + ", " + std::to_string(LocationBytes(l)) +
                         " bytes and the right checksum",
                     LocationOffset(l));
    if (n == 0 || n % entryBytes != 0 || header.key != table.size() / static_cast<size_t>(entryBytes) ||
        std::ssize(table) + n > m_core.m_file.Size())
        ThrowCorrupt(m_core,
                     "a table of the checkpoint is not well formed: found " + std::to_string(n) + " bytes from entry " +
                         std::to_string(header.key) + " on, expected entries of " + std::to_string(entryBytes) +
                         " bytes from " + std::to_string(table.size() / static_cast<size_t>(entryBytes)) + " on",
                     LocationOffset(l));
    m_result.held.push_back(slot);
    table.insert(table.end(), packet.begin() + PACKET_HEADER_BYTES, packet.begin() + PACKET_HEADER_BYTES + n);
}

void Recovery::FillSegments(const CheckpointHeader& header, const std::vector<SutEntry>& entries) {
    if (std::ssize(entries) > m_segments.MaxSlots())
        ThrowCorrupt(m_core,
                     "the checkpoint names " + std::to_string(entries.size()) + " segments, a store can have " +
                         std::to_string(m_segments.MaxSlots()),
                     HeaderOffset(header.checkpointSequence));
    // Free slots behind the end of the file need no memory.
    m_segments.RaiseLimit(std::ssize(entries));
    m_numSlots = std::max(std::min<ssize_t>(header.numSlots, m_segments.Limit()), std::ssize(entries));
    StoreCounters& c = m_core.m_counters;
    c.liveHead.store(static_cast<int64>(header.liveHead));
    c.liveOverflow.store(static_cast<int64>(header.liveOverflow));
    c.liveIndex.store(static_cast<int64>(header.liveIndex));
    c.liveBytes.store(static_cast<int64>(header.liveBytes));
    c.numCheckpoints.store(static_cast<int64>(header.numCheckpoints));
    c.numRecoveries.store(static_cast<int64>(header.numRecoveries));
    c.numTransactions.store(static_cast<int64>(header.numTransactions));
    int64 packets = 0;
    int64 indexBytes = 0;
    for (ssize_t slot = 0; slot < static_cast<ssize_t>(entries.size()); ++slot) {
        const SutEntry& entry = entries[static_cast<size_t>(slot)];
        if (entry.sequence &&
            (entry.sequence > MAX_NUMBER || entry.kind < static_cast<uint8>(ESegmentKind::USER) ||
             entry.kind > static_cast<uint8>(ESegmentKind::INDEX) || entry.liveBytes > m_core.m_segmentSize ||
             entry.livePackets > m_core.m_segmentSize / PACKET_HEADER_BYTES))
            ThrowCorrupt(m_core,
                         "the usage table is not well formed: found sequence " + std::to_string(entry.sequence) +
                             ", kind " + std::to_string(entry.kind) + ", " + std::to_string(entry.livePackets) +
                             " live packets and " + std::to_string(entry.liveBytes) +
                             " live bytes, expected kinds 1 to 3 and no more than a segment holds, for the segment",
                         m_segments.OffsetOf(slot));
        m_segments.SetEntry(slot, entry);
        if (!entry.sequence) continue;
        packets += entry.packets;
        if (entry.kind == static_cast<uint8>(ESegmentKind::INDEX)) indexBytes += entry.liveBytes;
        if (slot != static_cast<ssize_t>(header.startSlot))
            m_segments[slot].usedBytes = m_segments.UsageOfStored(entry);
        m_segments[slot].crcSeed = SegmentCrcSeed(m_core.m_storeId, entry.sequence);
        m_segments[slot].base.store(m_core.m_map->At(m_segments.OffsetOf(slot)), std::memory_order_relaxed);
    }
    c.packets.store(packets);
    c.indexBytes.store(indexBytes);
}

void Recovery::FillIndex(const std::vector<HighsEntry>& entries) {
    uint32 previous = 0;
    for (const HighsEntry& entry : entries) {
        const Location root = entry.root;
        if (entry.rootLevel > MAX_INDEX_LEVEL || (root && !m_segments.IsInside(root)) || entry.high <= previous ||
            entry.high >= m_result.nextHigh || entry.liveElements > MAX_NUMBER)
            ThrowCorrupt(m_core,
                         "the table of high halves is not well formed: found high " + std::to_string(entry.high) +
                             " behind " + std::to_string(previous) + " with a root of level " +
                             std::to_string(entry.rootLevel) + ", expected are ascending highs below " +
                             std::to_string(m_result.nextHigh) + " and levels up to " + std::to_string(MAX_INDEX_LEVEL),
                         LocationOffset(root));
        previous = entry.high;
        m_result.highs.push_back({entry.high, entry.horizon, entry.nextIncremental, entry.incrementalLeft});
        m_index.Import(entry.high, root, entry.rootLevel, static_cast<int64>(entry.liveElements));
    }
}

void Recovery::Finish() {
    // Empty index segments that the header does not name were left by a checkpoint that was cut short, or are free since
    // that header is durable.
    std::sort(m_result.held.begin(), m_result.held.end());
    for (ssize_t slot = 0; slot < m_numSlots; ++slot) {
        SegmentSlot& s = m_segments[slot];
        const bool isHeld = std::binary_search(m_result.held.begin(), m_result.held.end(), slot);
        if (s.sequence && s.kind == ESegmentKind::INDEX && s.livePackets == 0 && !isHeld)
            m_segments.SetEntry(slot, SutEntry{});
    }
    int64 usedBytes = 0;
    for (ssize_t slot = 0; slot < m_numSlots; ++slot) usedBytes += m_segments[slot].usedBytes;
    StoreCounters& c = m_core.m_counters;
    c.usedBytes.store(usedBytes);
    c.liveHead += m_change.liveHead;
    c.liveOverflow += m_change.liveOverflow;
    c.packets += m_change.packets;
    c.liveBytes += m_change.liveBytes;
    c.numTransactions += m_change.numTransactions;
    m_space.Import(m_numSlots, m_result.nextSequence);
}

// --- segments of the file

// The last may be cut by the end of the file.
ssize_t Recovery::SlotsInFile() const {
    const int64 bytes = m_core.m_file.Size() - m_segments.DataStartOffset();
    return static_cast<ssize_t>(std::max<int64>(0, (bytes + m_core.m_segmentSize - 1) / m_core.m_segmentSize));
}

bool Recovery::ReadSegmentHeader(ssize_t slot, SegmentHeader& header) {
    if (m_core.m_file.ReadUpTo(m_segments.OffsetOf(slot), &header, sizeof header) !=
        static_cast<ssize_t>(sizeof header))
        return false;
    return std::memcmp(header.magic, SEGMENT_MAGIC, sizeof header.magic) == 0 &&
           header.slot == static_cast<uint32>(slot) && header.storeIdStart == StoreIdStart(m_core.m_storeId) &&
           (header.crc == Crc32c(&header, offsetof(SegmentHeader, crc)) || IsMutant(EMutant::SEGMENT_CHECKSUM_IGNORED));
}

bool Recovery::IsHeaderOf(const SegmentHeader& header, ssize_t slot, uint64 sequence, ESegmentKind kind) const {
    return header.slot == static_cast<uint32>(slot) && header.sequence == sequence &&
           header.kind == static_cast<uint32>(kind);
}

bool Recovery::ReadSegment(ssize_t slot, Segment& segment) {
    if (slot < 0 || slot >= m_segments.Limit()) return false;
    segment.slot = slot;
    segment.bytes.resize(static_cast<size_t>(m_core.m_segmentSize));
    segment.size = m_core.m_file.ReadUpTo(m_segments.OffsetOf(slot), segment.bytes.data(), m_core.m_segmentSize);
    return true;
}

bool Recovery::PacketAt(const Segment& segment, ssize_t pos, PacketHeader& packet) const {
    if (pos + PACKET_HEADER_BYTES > segment.size) return false;
    const octet_t* const bytes = segment.bytes.data() + pos;
    packet = ReadPod<PacketHeader>(bytes);
    return pos + PacketBytes(packet.info) <= segment.size &&
           (PacketCrc(segment.crcSeed, static_cast<uint32>(pos), bytes, PayloadBytes(packet.info)) == packet.crc ||
            IsMutant(EMutant::PACKET_CHECKSUM_IGNORED));
}

// The walk meets a segment that was begun after the checkpoint.
void Recovery::EnterSegment(ssize_t slot, const SegmentHeader& header) {
    SegmentSlot& s = m_segments[slot];
    if (s.sequence == header.sequence) return;
    if (s.livePackets)
        ThrowCorrupt(m_core,
                     "found segment " + std::to_string(header.sequence) + " in place of segment " +
                         std::to_string(s.sequence) + ", in which " + std::to_string(s.livePackets) +
                         " packets are live; expected none",
                     m_segments.OffsetOf(slot));
    m_change.packets -= s.packets;
    SutEntry entry{};
    entry.sequence = header.sequence;
    entry.kind = static_cast<uint8>(header.kind);
    entry.ageClass = static_cast<uint8>(header.ageClass);
    entry.writtenAt = static_cast<uint32>(header.clockAtOpening >> m_core.m_stampShift);
    entry.dataStamp = static_cast<uint32>(header.dataStamp >> m_core.m_stampShift);
    m_segments.SetEntry(slot, entry);
    s.crcSeed = SegmentCrcSeed(m_core.m_storeId, header.sequence);
    s.base.store(m_core.m_map->At(m_segments.OffsetOf(slot)), std::memory_order_relaxed);
    m_numSlots = std::max(m_numSlots, slot + 1);
}

} // namespace quna

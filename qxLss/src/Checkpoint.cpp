#include "qxLss/src/Checkpoint.h"

#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/Mutants.h"
#include "qxLss/src/UsageCheck.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Tracer.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <iterator>

namespace quna {

namespace {

constexpr ssize_t ENTRY_BYTES = sizeof(SutEntry);
static_assert(sizeof(HighsEntry) == sizeof(SutEntry));

constexpr int64 MAX_LOG_BETWEEN = int64{1} << 30; // bytes
constexpr ssize_t MAX_TOUCHED_SEGMENTS = 8;       // for each checkpoint

} // namespace

// What step (1) has seen.
struct Checkpoint::State {
    ssize_t emptyFrom = NO_SLOT; // index segments from here on are to become free
    LogPosition position{};
    uint64 clock = 0;
    uint64 volume = 0;
    uint64 lastTransaction = 0;
    uint64 ringSequence = 0;
    uint32 nextHigh = 0;
    std::vector<HighAllocation> highs;
    std::vector<ssize_t> emptied; // log segments without a live packet
    std::vector<ssize_t> sealed;  // the others that will not grow any more
    int64 liveHead = 0;
    int64 liveOverflow = 0;
    int64 numTransactions = 0;
    std::vector<Location> highsPackets;
    std::vector<Location> sutPackets;
    std::vector<Location> listPackets;
};

Checkpoint::Checkpoint(StoreCore& core, SpaceManager& space, UserLog& log, Index& index, Flusher& flusher,
                       AllocRing& ring, SeidAllocator& allocator)
    : m_core(core), m_space(space), m_log(log), m_index(index), m_flusher(flusher), m_ring(ring),
      m_allocator(allocator), m_writer(core) {}

void Checkpoint::Import(const CheckpointHeader& header, const std::vector<ssize_t>& held) {
    std::lock_guard lock(m_mutex);
    m_header = header;
    m_core.m_archive.upTo.store(header.archivedUpTo, std::memory_order_relaxed);
    m_held.insert(held.begin(), held.end());
    m_isBeingCreated.store(header.flags & HEADER_FLAG_CREATING, std::memory_order_relaxed);
    const ssize_t numSlots = m_space.NumSlots();
    for (ssize_t slot = 0; slot < numSlots; ++slot) {
        SegmentSlot& s = (*m_core.m_segments)[slot];
        if (s.kind == ESegmentKind::INDEX) m_indexSegments.insert(slot);
        // Those that were walked through stand behind the checkpoint that an open after a crash begins with.
        if (s.usedBytes && slot != static_cast<ssize_t>(header.startSlot)) s.mayBeVictim = true;
    }
    ScheduleNext(header.logClock);
}

std::vector<ssize_t> CheckpointImage::Slots() const {
    std::vector<ssize_t> slots;
    for (size_t slot = 0; slot < segments.size(); ++slot) {
        if (segments[slot].sequence) slots.push_back(static_cast<ssize_t>(slot));
    }
    return slots;
}

void Checkpoint::Run(EReason reason) {
    std::lock_guard lock(m_mutex);
    RunLocked(reason);
}

ssize_t Checkpoint::RunAndEmpty(ssize_t first) {
    std::lock_guard lock(m_mutex);
    RunLocked(EReason::RUNNING, first);
    return std::distance(m_indexSegments.lower_bound(first), m_indexSegments.end());
}

// Nothing that the header names is freed before the next checkpoint or batch of the cleaner, which wait for the lock.
CheckpointImage Checkpoint::RunForCopy() {
    std::lock_guard lock(m_mutex);
    RunLocked(EReason::RUNNING);
    CheckpointImage image = ImageOfNewest();
    m_space.Hold(image.Slots());
    return image;
}

// Index segments without a current page have been freed, but for those of the tables.
CheckpointImage Checkpoint::ImageOfNewest() const {
    CheckpointImage image{m_header, m_copy};
    for (size_t slot = 0; slot < image.segments.size(); ++slot) {
        SutEntry& entry = image.segments[slot];
        const bool isIndex = entry.kind == static_cast<uint8>(ESegmentKind::INDEX);
        if (isIndex && entry.livePackets == 0 && !m_held.contains(static_cast<ssize_t>(slot))) entry = SutEntry{};
    }
    return image;
}

void Checkpoint::RunLocked(EReason reason, ssize_t emptyFrom) {
    m_core.ThrowIfUnwritable();
    State state;
    state.emptyFrom = emptyFrom;
    TakePosition(state, reason);
    m_core.Step();
    m_index.WriteSnapshot(*this);
    if (IsMutant(EMutant::INDEX_FREED_EARLY)) FreeIndexSegments();
    m_core.Step();
    WriteTables(state);
    m_writer.End();
    m_core.Step();
    if (IsMutant(EMutant::EMPTIED_FREED_EARLY)) FreeEmptied(state);
    if (IsMutant(EMutant::HEADER_BEFORE_SYNC)) WriteHeader(state, reason);
    if (!IsMutant(EMutant::CHECKPOINT_WITHOUT_SYNC)) m_flusher.SyncAll();
    m_core.Step();
    if (!IsMutant(EMutant::HEADER_BEFORE_SYNC)) WriteHeader(state, reason);
    m_core.Step();
    FreeSegments(state);
    ScheduleNext(state.volume);
    m_core.Step();
}

void Checkpoint::Validate() {
    std::lock_guard lock(m_mutex);
    TurnScope turn(m_log.Turn());
    CheckUsage(m_core, m_index, m_space.NumSlots());
}

// --- (1)

void Checkpoint::TakePosition(State& state, EReason reason) {
    TurnScope turn(m_log.Turn());
    if (m_core.m_settings.validateSUTDuringCheckPoint) CheckUsage(m_core, m_index, m_space.NumSlots());
    m_log.HandOver();
    TouchSparseSegments(state.emptyFrom);
    state.position = m_log.Position();
    state.clock = m_log.Clock();
    state.volume = LogVolume();
    state.lastTransaction = m_log.LastTransaction();
    state.liveHead = m_core.m_counters.liveHead.load(std::memory_order_relaxed);
    state.liveOverflow = m_core.m_counters.liveOverflow.load(std::memory_order_relaxed);
    state.numTransactions = m_core.m_counters.numTransactions.load(std::memory_order_relaxed);

    const ssize_t numSlots = m_space.NumSlots();
    m_copy.assign(static_cast<size_t>(numSlots), SutEntry{});
    for (ssize_t slot = 0; slot < numSlots; ++slot) {
        const SegmentSlot& s = (*m_core.m_segments)[slot];
        const bool isLog = s.sequence && (s.kind == ESegmentKind::USER || s.kind == ESegmentKind::SURVIVORS);
        const bool isSealed =
            isLog && slot != state.position.slot && (!s.isOpen || IsMutant(EMutant::OPEN_TAKEN_FOR_SEALED));
        if (isSealed && s.livePackets == 0 && (!m_core.m_archive.Needs(s) || IsMutant(EMutant::ARCHIVE_NOT_AWAITED))) {
            state.emptied.push_back(slot);
            continue;
        }
        if (isSealed) state.sealed.push_back(slot);
        m_copy[static_cast<size_t>(slot)] = m_core.m_segments->Entry(slot);
    }
    state.ringSequence = m_allocator.BeginCheckpoint(reason == EReason::CLEAN_CLOSE, state.highs, state.nextHigh);
    m_index.BeginSnapshot();
}

// Pages that never change again would keep their segment for ever, however empty it becomes. The fullest are left alone:
// below a quarter a move frees more than three times what it writes. Segments that are to become free come first.
void Checkpoint::TouchSparseSegments(ssize_t emptyFrom) {
    ssize_t liveBytes = 0;
    for (const ssize_t slot : m_indexSegments) liveBytes += (*m_core.m_segments)[slot].liveBytes;
    ssize_t touched = 0;
    for (auto i = m_indexSegments.lower_bound(emptyFrom); i != m_indexSegments.end(); ++i) {
        if ((*m_core.m_segments)[*i].livePackets == 0) continue;
        TouchPagesOf(*i);
        if (++touched == MAX_TOUCHED_SEGMENTS) return;
    }
    if (static_cast<ssize_t>(m_indexSegments.size()) * m_core.m_segmentSize <= 4 * liveBytes + 4 * m_core.m_segmentSize)
        return;
    for (const ssize_t slot : m_indexSegments) {
        const SegmentSlot& s = (*m_core.m_segments)[slot];
        if (s.livePackets == 0 || s.liveBytes * ssize_t{4} >= m_core.m_segmentSize) continue;
        TouchPagesOf(slot);
        if (++touched == MAX_TOUCHED_SEGMENTS) return;
    }
}

void Checkpoint::TouchPagesOf(ssize_t slot) {
    const SegmentSlot& s = (*m_core.m_segments)[slot];
    const int64 fileOffset = m_core.m_segments->OffsetOf(slot);
    std::vector<octet_t> bytes(static_cast<size_t>(m_core.m_segmentSize));
    const ssize_t size = m_core.m_file.ReadUpTo(fileOffset, bytes.data(), m_core.m_segmentSize);
    ssize_t pos = SEGMENT_HEADER_BYTES;
    while (pos + PACKET_HEADER_BYTES <= size) {
        const octet_t* const packet = bytes.data() + pos;
        const PacketHeader header = ReadPod<PacketHeader>(packet);
        const ssize_t packetBytes = PacketBytes(header.info);
        if (pos + packetBytes > size ||
            PacketCrc(s.crcSeed, static_cast<uint32>(pos), packet, PayloadBytes(header.info)) != header.crc)
            return; // the end of what was written
        if (PacketType(header.info) == EPacketType::INDEX &&
            PayloadBytes(header.info) >= static_cast<ssize_t>(sizeof(IndexPrefix)))
            TouchPage(header.key, packet[PACKET_HEADER_BYTES], MakeLocation(fileOffset + pos, packetBytes));
        pos += packetBytes;
    }
}

// A page on the way to it may be damaged. Then its segment stays as it is, and what can still be read of the store can be.
void Checkpoint::TouchPage(uint64 key, int level, Location l) {
    const auto leaveAlone = [&](const std::exception& e) {
        TracerX() << "A checkpoint of the store '" << m_core.m_file.Path() << "' leaves a page as it is: " << e.what()
                  << "\n";
    };
    try {
        m_index.TouchPage(key, level, l);
    } catch (const CorruptLSSException& e) {
        leaveAlone(e);
    } catch (const FileException& e) {
        leaveAlone(e);
    }
}

ssize_t Checkpoint::SlotsNeeded() const {
    const ssize_t tableBytes = m_space.NumSlots() * ENTRY_BYTES + m_index.NumHighs() * ENTRY_BYTES;
    return (m_index.SnapshotBytes() + tableBytes) / (m_core.m_segmentSize - SEGMENT_HEADER_BYTES - 4096 / 2) + 3;
}

// --- (2)

ssize_t Checkpoint::TakeIndexSegment() {
    const ssize_t slot = m_space.Take(ESegmentKind::INDEX, 0, m_log.HandedClock());
    m_indexSegments.insert(slot);
    if (static_cast<ssize_t>(m_copy.size()) <= slot) m_copy.resize(static_cast<size_t>(slot) + 1);
    m_copy[static_cast<size_t>(slot)] = m_core.m_segments->Entry(slot);
    return slot;
}

void Checkpoint::BeginSegment() {
    if (m_writer.IsOpen()) m_writer.HandOver();
    ssize_t slot = 0;
    if (m_reserved.empty()) {
        slot = TakeIndexSegment();
    } else {
        slot = m_reserved.back();
        m_reserved.pop_back();
    }
    m_writer.Begin(slot, m_log.HandedClock(), m_previousSequence);
    m_previousSequence = m_writer.Sequence();
}

Location Checkpoint::WritePage(uint64 key, const void* payload, ssize_t n) {
    if (!m_writer.IsOpen() || m_writer.Room() < PaddedSize(PACKET_HEADER_BYTES + n)) BeginSegment();
    const Location l = m_writer.Append(EPacketType::INDEX, key, payload, n);
    ++(*m_core.m_segments)[m_writer.Slot()].packets;
    const ssize_t bytes = m_core.m_segments->Credit(l);
    m_core.m_counters.liveBytes.fetch_add(bytes, std::memory_order_relaxed);
    m_core.m_counters.indexBytes.fetch_add(bytes, std::memory_order_relaxed);
    m_core.m_counters.packets.fetch_add(1, std::memory_order_relaxed);
    m_core.m_counters.liveIndex.fetch_add(1, std::memory_order_relaxed);
    return l;
}

void Checkpoint::PageDied(Location l) {
    const ssize_t bytes = m_core.m_segments->Debit(l);
    m_core.m_counters.liveBytes.fetch_sub(bytes, std::memory_order_relaxed);
    m_core.m_counters.indexBytes.fetch_sub(bytes, std::memory_order_relaxed);
    m_core.m_counters.liveIndex.fetch_sub(1, std::memory_order_relaxed);
}

// --- (3)

// How many packets the tables fill, as far as the reserved segments have room.
ssize_t Checkpoint::TablePackets() const {
    return static_cast<ssize_t>(m_reserved.size()) + 3; // each begins in the open segment or in a reserved one
}

// The segments of the tables must stand in the usage table before it is copied out, and taking one may lengthen it.
void Checkpoint::ReserveForTables(ssize_t numHighs) {
    const ssize_t perSegment = (m_core.m_segmentSize - SEGMENT_HEADER_BYTES - PACKET_HEADER_BYTES) / ENTRY_BYTES - 1;
    const auto entriesIn = [](ssize_t room) {
        return std::max<ssize_t>(0, (room - PACKET_HEADER_BYTES) / ENTRY_BYTES - 1);
    };
    for (;;) {
        ssize_t needed = numHighs + static_cast<ssize_t>(m_copy.size());
        if (TablePackets() > CheckpointHeader::MAX_LOCATIONS)
            needed += TablePackets() * static_cast<ssize_t>(sizeof(Location)) / ENTRY_BYTES + 2;
        ssize_t capacity = m_writer.IsOpen() ? entriesIn(m_writer.Room() - 2 * PACKET_HEADER_BYTES) : 0;
        capacity += static_cast<ssize_t>(m_reserved.size()) * (perSegment - 1);
        if (capacity >= needed) break;
        m_reserved.push_back(TakeIndexSegment());
    }
    std::sort(m_reserved.rbegin(), m_reserved.rend()); // taken from the back
}

void Checkpoint::WriteTables(State& state) {
    std::vector<HighsEntry> highs;
    for (const HighAllocation& allocation : state.highs) {
        HighsEntry entry{};
        entry.high = allocation.high;
        entry.horizon = allocation.horizon;
        entry.incrementalLeft = allocation.incrementalLeft;
        entry.nextIncremental = allocation.nextIncremental;
        int level = 0;
        int64 live = 0;
        Location root = 0;
        m_index.GetSnapshotRoot(allocation.high, root, level, live);
        entry.root = root;
        entry.rootLevel = static_cast<uint8>(level);
        entry.liveElements = static_cast<uint64>(live);
        highs.push_back(entry);
    }
    ReserveForTables(static_cast<ssize_t>(highs.size()));
    for (const ssize_t slot : m_indexSegments) m_copy[static_cast<size_t>(slot)] = m_core.m_segments->Entry(slot);

    AppendEntries(EPacketType::HIGHS, highs.data(), static_cast<ssize_t>(highs.size()), ENTRY_BYTES,
                  state.highsPackets);
    AppendEntries(EPacketType::SUT, m_copy.data(), static_cast<ssize_t>(m_copy.size()), ENTRY_BYTES, state.sutPackets);
    if (static_cast<ssize_t>(state.highsPackets.size() + state.sutPackets.size()) > CheckpointHeader::MAX_LOCATIONS) {
        std::vector<Location> all = state.highsPackets;
        all.insert(all.end(), state.sutPackets.begin(), state.sutPackets.end());
        AppendEntries(EPacketType::LIST, all.data(), static_cast<ssize_t>(all.size()), sizeof(Location),
                      state.listPackets);
    }
    if (m_writer.IsOpen()) m_writer.HandOver();
}

// Packets of as many entries as the segment has room for. The key is the number of the first.
void Checkpoint::AppendEntries(EPacketType type, const void* entries, ssize_t n, ssize_t entryBytes,
                               std::vector<Location>& locations) {
    const octet_t* const bytes = static_cast<const octet_t*>(entries);
    for (ssize_t first = 0; first < n;) {
        if (!m_writer.IsOpen() || m_writer.Room() < PACKET_HEADER_BYTES + entryBytes) BeginSegment();
        const ssize_t fit = std::min(n - first, (m_writer.Room() - PACKET_HEADER_BYTES) / entryBytes);
        locations.push_back(
            m_writer.Append(type, static_cast<uint64>(first), bytes + first * entryBytes, fit * entryBytes));
        first += fit;
    }
}

// --- (4)

void Checkpoint::WriteHeader(State& state, EReason reason) {
    CheckpointHeader h{};
    std::memcpy(h.magic, CHECKPOINT_MAGIC, sizeof h.magic);
    h.version = FORMAT_VERSION;
    h.segmentSize = static_cast<uint32>(m_core.m_segmentSize);
    h.storeId = m_core.m_storeId;
    h.checkpointSequence = m_header.checkpointSequence + (IsMutant(EMutant::HEADER_OVER_THE_VALID_ONE) ? 2 : 1);
    h.nextSegmentSequence = m_space.NextSequence();
    h.logClock = state.clock;
    h.startSlot = static_cast<uint32>(state.position.slot);
    h.startOffset = static_cast<uint32>(state.position.offset);
    h.startSequence = state.position.sequence;
    h.lastTransaction = state.lastTransaction;
    h.numSlots = static_cast<uint32>(m_space.NumSlots());
    if (reason == EReason::CREATION) m_isBeingCreated.store(true, std::memory_order_relaxed);
    if (reason == EReason::CLEAN_CLOSE) m_isBeingCreated.store(false, std::memory_order_relaxed);
    h.flags = (reason == EReason::CLEAN_CLOSE ? HEADER_FLAG_CLEAN : 0) | (IsBeingCreated() ? HEADER_FLAG_CREATING : 0) |
              (state.listPackets.empty() ? 0 : HEADER_FLAG_LIST);
    h.ringSequence = state.ringSequence;
    h.nextHigh = state.nextHigh;
    h.numHighs = static_cast<uint32>(state.highs.size());
    h.liveHead = static_cast<uint64>(state.liveHead);
    h.liveOverflow = static_cast<uint64>(state.liveOverflow);
    for (const SutEntry& entry : m_copy) {
        if (!entry.sequence) continue;
        h.liveBytes += entry.liveBytes;
        h.obsolete += entry.packets - entry.livePackets;
        if (entry.kind == static_cast<uint8>(ESegmentKind::INDEX)) h.liveIndex += entry.livePackets;
    }
    h.numCheckpoints = static_cast<uint64>(m_core.m_counters.numCheckpoints.load(std::memory_order_relaxed)) + 1;
    h.numRecoveries = static_cast<uint64>(m_core.m_counters.numRecoveries.load(std::memory_order_relaxed));
    h.numTransactions = static_cast<uint64>(state.numTransactions);
    h.archivedUpTo = m_core.m_archive.upTo.load(std::memory_order_relaxed);
    h.numHighsPackets = static_cast<uint32>(state.highsPackets.size());
    h.numSutPackets = static_cast<uint32>(state.sutPackets.size());
    std::vector<Location> locations = state.listPackets;
    if (locations.empty()) {
        locations = state.highsPackets;
        locations.insert(locations.end(), state.sutPackets.begin(), state.sutPackets.end());
    }
    if (static_cast<ssize_t>(locations.size()) > CheckpointHeader::MAX_LOCATIONS)
        ThrowCorrupt(m_core,
                     "the tables of a checkpoint do not fit its header: found " + std::to_string(locations.size()) +
                         " packets, expected at most " + std::to_string(CheckpointHeader::MAX_LOCATIONS),
                     HeaderOffset(h.checkpointSequence));
    for (size_t i = 0; i < locations.size(); ++i)
        std::memcpy(reinterpret_cast<octet_t*>(&h) + offsetof(CheckpointHeader, locations) + i * sizeof(Location),
                    &locations[i], sizeof(Location));
    h.crc = Crc32c(&h, offsetof(CheckpointHeader, crc));
    if (IsMutant(EMutant::HEADER_NOT_DURABLE))
        m_core.m_file.Write(HeaderOffset(h.checkpointSequence), &h, sizeof h);
    else
        m_core.m_file.WriteDurable(HeaderOffset(h.checkpointSequence), &h, sizeof h);
    m_header = h;
    m_core.m_counters.numCheckpoints.fetch_add(1, std::memory_order_relaxed);
    m_ring.EndCheckpoint(h.checkpointSequence, h.ringSequence, reason != EReason::CLEAN_CLOSE);
}

void Checkpoint::FreeSegments(State& state) {
    m_held.clear();
    for (const std::vector<Location>* packets : {&state.highsPackets, &state.sutPackets, &state.listPackets}) {
        for (const Location l : *packets) m_held.insert(m_core.m_segments->SlotOf(l));
    }
    m_reserved.clear();
    FreeIndexSegments();
    FreeEmptied(state);
    for (const ssize_t slot : state.sealed) (*m_core.m_segments)[slot].mayBeVictim = true;
}

void Checkpoint::FreeEmptied(State& state) {
    for (const ssize_t slot : state.emptied) m_space.Free(slot);
    state.emptied.clear();
}

void Checkpoint::FreeIndexSegments() {
    for (auto i = m_indexSegments.begin(); i != m_indexSegments.end();) {
        if ((*m_core.m_segments)[*i].livePackets == 0 && !m_held.contains(*i)) {
            m_space.Free(*i);
            i = m_indexSegments.erase(i);
        } else {
            ++i;
        }
    }
}

void Checkpoint::ScheduleNext(uint64 volume) {
    const int64 least =
        std::min<int64>(int64{m_core.m_settings.numSegmentsPerCheckPoint} * m_core.m_segmentSize, MAX_LOG_BETWEEN);
    const int64 between =
        std::clamp<int64>(m_space.FileBytes() / 4, std::max<int64>(least, m_core.m_segmentSize), MAX_LOG_BETWEEN);
    m_volume.store(volume, std::memory_order_relaxed);
    m_dueVolume.store(volume + static_cast<uint64>(between), std::memory_order_relaxed);
}

// Nothing but the flag changes, so the next header may say the same of everything else.
void Checkpoint::ClearCreatingFlag() {
    std::lock_guard lock(m_mutex);
    if (!IsBeingCreated()) return;
    m_core.ThrowIfUnwritable();
    m_flusher.SyncAll();
    CheckpointHeader h = m_header;
    ++h.checkpointSequence;
    h.flags &= ~HEADER_FLAG_CREATING;
    h.crc = Crc32c(&h, offsetof(CheckpointHeader, crc));
    m_core.m_file.WriteDurable(HeaderOffset(h.checkpointSequence), &h, sizeof h);
    m_header = h;
    m_isBeingCreated.store(false, std::memory_order_relaxed);
    m_ring.EndCheckpoint(h.checkpointSequence, h.ringSequence,
                         true); // should this header be damaged, it will be missed
}

} // namespace quna

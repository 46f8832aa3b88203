#include "qxLss/src/AllocRing.h"

#include "qxLss/src/Crc32c.h"
#include "qxLss/src/Mutants.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace quna {
namespace {

constexpr ConstStringZ SOURCE_PATH = "src/AllocRing";

constexpr char MAGIC[8] = {'L', 'S', 'S', 'A', 'L', 'L', 'O', 'C'};
constexpr ssize_t ENTRIES_OFFSET = 56;
constexpr ssize_t ENTRY_BYTES = 8;
constexpr ssize_t CRC_OFFSET = AllocRingBlock::BYTES - 4;

constexpr uint64 MAX_SEQUENCE = uint64{1} << 62; // no store lives so long

static_assert(ENTRIES_OFFSET + AllocRingBlock::MAX_ENTRIES * ENTRY_BYTES <= CRC_OFFSET);
static_assert(AllocRing::FILE_OFFSET + AllocRing::NUM_BLOCKS * AllocRingBlock::BYTES == 131072);
static_assert(AllocRing::MAX_SET_BLOCKS * AllocRingBlock::MAX_ENTRIES == 14112);

template <class T>
void Put(octet_t* bytes, ssize_t offset, T value) {
    std::memcpy(bytes + offset, &value, sizeof value);
}

template <class T>
T Get(const octet_t* bytes, ssize_t offset) {
    T value;
    std::memcpy(&value, bytes + offset, sizeof value);
    return value;
}

} // namespace

void AllocRingBlock::Encode(octet_t (&bytes)[BYTES]) const {
    QX_ASSERT(std::ssize(horizons) <= MAX_ENTRIES);
    std::memset(bytes, 0, BYTES);
    std::memcpy(bytes, MAGIC, sizeof MAGIC);
    Put(bytes, 8, ringSequence);
    std::memcpy(bytes + 16, storeId.data(), storeId.size());
    Put(bytes, 32, checkpointSequence);
    Put(bytes, 40, nextHigh);
    Put(bytes, 44, static_cast<uint16>(horizons.size()));
    Put(bytes, 46, flags);
    Put(bytes, 48, sequenceBase);
    ssize_t offset = ENTRIES_OFFSET;
    for (const AllocHorizon& entry : horizons) {
        Put(bytes, offset, entry.high);
        Put(bytes, offset + 4, entry.horizon);
        offset += ENTRY_BYTES;
    }
    Put(bytes, CRC_OFFSET, Crc32c(bytes, CRC_OFFSET));
}

bool AllocRingBlock::Decode(const octet_t (&bytes)[BYTES]) {
    if (std::memcmp(bytes, MAGIC, sizeof MAGIC) != 0 || Get<uint32>(bytes, CRC_OFFSET) != Crc32c(bytes, CRC_OFFSET))
        return false;
    const ssize_t count = Get<uint16>(bytes, 44);
    if (count > MAX_ENTRIES) return false;
    ringSequence = Get<uint64>(bytes, 8);
    std::memcpy(storeId.data(), bytes + 16, storeId.size());
    checkpointSequence = Get<uint64>(bytes, 32);
    nextHigh = Get<uint32>(bytes, 40);
    flags = Get<uint16>(bytes, 46);
    sequenceBase = Get<uint64>(bytes, 48);
    horizons.clear();
    for (ssize_t i = 0; i < count; ++i) {
        const ssize_t offset = ENTRIES_OFFSET + i * ENTRY_BYTES;
        horizons.push_back({Get<uint32>(bytes, offset), Get<uint32>(bytes, offset + 4)});
    }
    return true;
}

AllocRing::AllocRing(File& file, const StoreId& storeId, std::function<void()> wakeCheckpoint)
    : m_file(file), m_storeId(storeId), m_wakeCheckpoint(std::move(wakeCheckpoint)) {}

// --- opening

bool AllocRing::ReadBlock(File& file, const StoreId& storeId, int i, AllocRingBlock& block) {
    octet_t bytes[AllocRingBlock::BYTES] = {};
    file.ReadUpTo(FILE_OFFSET + i * AllocRingBlock::BYTES, bytes, AllocRingBlock::BYTES);
    return block.Decode(bytes) && block.storeId == storeId && block.ringSequence != 0 &&
           block.ringSequence <= MAX_SEQUENCE;
}

AllocRing::Contents AllocRing::Read() {
    const std::lock_guard lock(m_mutex);
    Contents contents;
    for (int i = 0; i < NUM_BLOCKS; ++i) {
        AllocRingBlock block;
        if (!ReadBlock(m_file, m_storeId, i, block)) {
            m_slots[static_cast<size_t>(i)] = Slot();
            continue;
        }
        ++contents.numValidBlocks;
        contents.newestCheckpoint = std::max(contents.newestCheckpoint, block.checkpointSequence);
        contents.sequenceBase = std::max(contents.sequenceBase, block.sequenceBase);
        contents.nextHigh = std::max(contents.nextHigh, block.nextHigh);
        for (const AllocHorizon& entry : block.horizons) {
            uint32& horizon = contents.horizons[entry.high];
            horizon = std::max(horizon, entry.horizon);
        }
        m_ringSequence = std::max(m_ringSequence, block.ringSequence);
        m_slots[static_cast<size_t>(i)].block = std::move(block);
    }
    return contents;
}

AllocRing::Marks AllocRing::MarksIn(File& file, const StoreId& storeId) {
    Marks marks;
    for (int i = 0; i < NUM_BLOCKS; ++i) {
        AllocRingBlock block;
        if (!ReadBlock(file, storeId, i, block)) continue;
        marks.newestCheckpoint = std::max(marks.newestCheckpoint, block.checkpointSequence);
        marks.sequenceBase = std::max(marks.sequenceBase, block.sequenceBase);
    }
    return marks;
}

bool AllocRing::VouchesForCleanClose(uint64 checkpointSequence) const {
    const std::lock_guard lock(m_mutex);
    const AllocRingBlock* newest = nullptr;
    for (const Slot& slot : m_slots) {
        if (slot.block.ringSequence == 0 || slot.block.checkpointSequence != checkpointSequence) continue;
        if (!newest || slot.block.ringSequence > newest->ringSequence) newest = &slot.block;
    }
    return newest && !(newest->flags & AllocRingBlock::FLAG_RUNNING);
}

void AllocRing::BeginOwner(uint64 checkpointSequence, const std::vector<AllocHorizon>& known, uint32 nextHigh,
                           uint64 sequenceBase, bool clean) {
    const std::lock_guard lock(m_mutex);
    m_checkpointSequence = checkpointSequence;
    m_sequenceBase = sequenceBase;
    uint32 largestHigh = nextHigh;
    for (const Slot& slot : m_slots)
        if (slot.block.ringSequence != 0) largestHigh = std::max(largestHigh, slot.block.nextHigh);
    m_nextHigh.store(largestHigh, std::memory_order_relaxed);
    if (!clean) SealWhatOnlyTheRingKnows(known, nextHigh);
    if (!clean || !IsMutant(EMutant::CLEAN_MARK_NOT_VOIDED)) WriteBlock(true);
}

// Seals blocks, newest first, that say more than the checkpoint and the blocks sealed so far. The rest may be overwritten,
// in any order and all of them. Newer blocks of a set contain the older ones, so this finds few: at most MAX_SET_BLOCKS
// with sets, and one with the newest base, if the last open was cut short before its checkpoint.
void AllocRing::SealWhatOnlyTheRingKnows(const std::vector<AllocHorizon>& known, uint32 nextHigh) {
    std::map<uint32, uint32> horizons;
    for (const AllocHorizon& entry : known) horizons[entry.high] = entry.horizon;

    std::vector<Slot*> newestFirst;
    for (Slot& slot : m_slots)
        if (slot.block.ringSequence != 0) newestFirst.push_back(&slot);
    std::sort(newestFirst.begin(), newestFirst.end(),
              [](const Slot* a, const Slot* b) { return a->block.ringSequence > b->block.ringSequence; });

    uint64 base = 0;
    for (Slot* slot : newestFirst) {
        // The write to come carries a base above all these and the next high, but it may be torn: then the newest block
        // that has them must still be there.
        bool adds = slot->block.nextHigh > nextHigh || slot->block.sequenceBase > base;
        nextHigh = std::max(nextHigh, slot->block.nextHigh);
        base = std::max(base, slot->block.sequenceBase);
        for (const AllocHorizon& entry : slot->block.horizons) {
            uint32& horizon = horizons[entry.high];
            adds = adds || entry.horizon > horizon;
            horizon = std::max(horizon, entry.horizon);
        }
        slot->sealed = adds;
    }
}

// --- running

bool AllocRing::TryRaiseHorizon(uint32 high, uint32 horizon, std::atomic<uint32>& durable) {
    bool wake = false;
    {
        const std::lock_guard lock(m_mutex);
        ThrowIfFailed();
        if (durable.load(std::memory_order_relaxed) >= horizon) return true;
        const bool wanted = WantsCheckpoint();
        if (!MakeRoomInSet(high)) return false;
        uint32& entry = m_set[high];
        entry = std::max(entry, horizon);
        WriteBlock(true);
        durable.store(horizon, std::memory_order_release);
        wake = !wanted && WantsCheckpoint();
    }
    if (wake && m_wakeCheckpoint) m_wakeCheckpoint();
    return true;
}

void AllocRing::RaiseHorizon(uint32 high, uint32 horizon, std::atomic<uint32>& durable) {
    if (TryRaiseHorizon(high, horizon, durable)) return;
    const std::string text =
        "Can't allocate identifiers in file \"" + m_file.Path() + "\": the horizons of " +
        std::to_string(MAX_SET_BLOCKS * AllocRingBlock::MAX_ENTRIES) +
        " identifier spaces have moved since the last checkpoint, and no more can be kept before the next";
    throw FileException(text.c_str());
}

// Afterwards the current set has `high`, or room for it; or false. The last of MAX_SET_BLOCKS sets stays open when it is
// full, so that the highs in it can still move.
bool AllocRing::MakeRoomInSet(uint32 high) {
    const bool full = std::ssize(m_set) == AllocRingBlock::MAX_ENTRIES && !m_set.contains(high);
    const bool beginsSet = full || m_set.empty();
    if (beginsSet && NumSealed() + (full ? 1 : 0) >= MAX_SET_BLOCKS) return false;
    if (full) SealCurrentSet();
    return true;
}

uint32 AllocRing::TakeHigh() {
    const std::lock_guard lock(m_mutex);
    ThrowIfFailed();
    const uint32 high = NextHigh();
    if (high == 0xFFFFFFFF) {
        const std::string text = "Can't allocate an identifier space in file \"" + m_file.Path() + "\": all are in use";
        throw FileException(text.c_str());
    }
    m_nextHigh.store(high + 1, std::memory_order_relaxed);
    WriteBlock(true);
    return high;
}

void AllocRing::RaiseNextHigh(uint32 nextHigh) {
    const std::lock_guard lock(m_mutex);
    ThrowIfFailed();
    if (nextHigh <= NextHigh()) return;
    m_nextHigh.store(nextHigh, std::memory_order_relaxed);
    WriteBlock(true);
}

uint64 AllocRing::SequenceBase() const {
    const std::lock_guard lock(m_mutex);
    return m_sequenceBase;
}

bool AllocRing::HasFailed() const {
    const std::lock_guard lock(m_mutex);
    return !m_failure.empty();
}

// --- checkpoint

uint64 AllocRing::BeginCheckpoint(const std::function<void()>& copy, uint32& nextHigh) {
    const std::lock_guard lock(m_mutex);
    copy();
    nextHigh = NextHigh();
    if (!m_set.empty() && !IsMutant(EMutant::RING_SET_EMPTIED)) SealCurrentSet();
    return m_ringSequence;
}

void AllocRing::EndCheckpoint(uint64 checkpointSequence, uint64 ringSequence, bool running) {
    const std::lock_guard lock(m_mutex);
    ThrowIfFailed();
    for (Slot& slot : m_slots)
        if (slot.block.ringSequence <= ringSequence) slot.sealed = false;
    m_wantsCheckpoint.store(NumSealed() >= CHECKPOINT_WANTED_AT, std::memory_order_relaxed);
    m_checkpointSequence = checkpointSequence;
    if (IsMutant(EMutant::RING_SET_EMPTIED)) {
        m_set.clear();
        m_current = -1;
    }
    WriteBlock(running);
}

int AllocRing::NumSealedForTest() const {
    const std::lock_guard lock(m_mutex);
    return NumSealed();
}

// --- helpers

// The set begins anew. If it was ever written, its block stays.
void AllocRing::SealCurrentSet() {
    m_set.clear();
    if (m_current >= 0) m_slots[static_cast<size_t>(m_current)].sealed = true;
    m_current = -1;
    m_wantsCheckpoint.store(NumSealed() >= CHECKPOINT_WANTED_AT, std::memory_order_relaxed);
}

int AllocRing::NumSealed() const {
    return static_cast<int>(
        std::count_if(m_slots.begin(), m_slots.end(), [](const Slot& slot) { return slot.sealed; }));
}

// The unsealed block of lowest sequence. There are always two unsealed ones, so this is never the newest, which holds the
// current set.
int AllocRing::ChooseSlot() const {
    int chosen = -1;
    for (int i = 0; i < NUM_BLOCKS; ++i) {
        const Slot& slot = m_slots[static_cast<size_t>(i)];
        if (slot.sealed) continue;
        if (chosen < 0 || slot.block.ringSequence < m_slots[static_cast<size_t>(chosen)].block.ringSequence) chosen = i;
    }
    return chosen;
}

void AllocRing::WriteBlock(bool running) {
    const int index = ChooseSlot();
    QX_ASSERT(index >= 0);
    AllocRingBlock block;
    block.ringSequence = m_ringSequence + 1;
    block.storeId = m_storeId;
    block.checkpointSequence = m_checkpointSequence;
    block.nextHigh = NextHigh();
    block.flags = running ? AllocRingBlock::FLAG_RUNNING : uint16{0};
    block.sequenceBase = m_sequenceBase;
    for (const auto& [high, horizon] : m_set) block.horizons.push_back({high, horizon});

    octet_t bytes[AllocRingBlock::BYTES];
    block.Encode(bytes);
    try {
        if (IsMutant(EMutant::HORIZON_NOT_DURABLE))
            m_file.Write(FILE_OFFSET + index * AllocRingBlock::BYTES, bytes, AllocRingBlock::BYTES);
        else
            m_file.WriteDurable(FILE_OFFSET + index * AllocRingBlock::BYTES, bytes, AllocRingBlock::BYTES);
    } catch (const FileException& e) {
        m_failure = e.GetMessage();
        throw;
    }
    m_ringSequence = block.ringSequence;
    m_slots[static_cast<size_t>(index)].block = std::move(block);
    if (!m_set.empty()) m_current = index;
}

void AllocRing::ThrowIfFailed() const {
    if (!m_failure.empty()) throw FileException(m_failure.c_str());
}

} // namespace quna

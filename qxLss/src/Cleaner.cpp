#include "qxLss/src/Cleaner.h"

#include "qxLss/src/Mutants.h"
#include "qxLss/src/Relocation.h"
#include "qxUtils/Mutex.h"

#include <algorithm>
#include <chrono>

namespace quna {

namespace {

constexpr ssize_t SLOTS_A_LOOK = 4096; // of the usage table read in one hold of the turn, about 20 us
constexpr ssize_t REST_SEGMENTS = 4;   // of log after which a fruitless look is worth another
constexpr ssize_t SLOTS_BESIDE_A_BATCH = NUM_AGE_CLASSES + 1; // an open segment for each class, and one for the RELOC
constexpr auto LONGEST_WAIT = std::chrono::milliseconds(100);

} // namespace

Cleaner::Cleaner(StoreCore& core, SpaceManager& space, UserLog& log, Index& index, Flusher& flusher,
                 Checkpoint& checkpoint)
    : m_core(core), m_space(space), m_log(log), m_index(index), m_flusher(flusher), m_checkpoint(checkpoint),
      m_goal(core.m_settings.cleanerUtilisationPercent, core.m_segmentSize), m_streams(core, space, flusher) {}

// --- choosing

// The usage of segments belongs to the holder of the turn, so it is read in short holds. Meanwhile packets die, which only
// makes a victim better.
Cleaner::Survey Cleaner::LookAround() {
    Survey survey;
    const ssize_t numSlots = m_space.NumSlots();
    for (ssize_t first = 0; first < numSlots; first += SLOTS_A_LOOK) {
        TurnScope turn(m_log.Turn());
        const uint64 clock = m_log.Clock();
        const ssize_t end = std::min(numSlots, first + SLOTS_A_LOOK);
        for (ssize_t slot = first; slot < end; ++slot) {
            const SegmentSlot& s = (*m_core.m_segments)[slot];
            if (!s.sequence || (s.kind != ESegmentKind::USER && s.kind != ESegmentKind::SURVIVORS)) continue;
            ++survey.numUsed;
            const bool isOpen = s.isOpen && !IsMutant(EMutant::OPEN_TAKEN_FOR_SEALED);
            if (isOpen || s.isDamaged || s.usedBytes == 0) continue;
            if (m_core.m_archive.Needs(s) && !IsMutant(EMutant::ARCHIVE_NOT_AWAITED)) continue;
            if (!s.mayBeVictim && !IsMutant(EMutant::VICTIMS_OF_THE_WINDOW)) {
                survey.deadInWindow += int64{s.usedBytes} - s.liveBytes;
                continue;
            }
            const uint64 writtenAt = static_cast<uint64>(s.writtenAt) << m_core.m_stampShift;
            survey.candidates.push_back({slot, s.sequence, static_cast<ssize_t>(s.liveBytes),
                                         static_cast<ssize_t>(s.usedBytes), clock - std::min(clock, writtenAt),
                                         static_cast<uint64>(s.dataStamp) << m_core.m_stampShift});
        }
    }
    return survey;
}

// How many live bytes a batch may move: what the free slots hold, after an attempt to have enough of them. A tenth may be
// lost at the segments' ends.
ssize_t Cleaner::RoomFor(ssize_t segments) { return RoomIn(m_space.PrepareReady(segments + SLOTS_BESIDE_A_BATCH)); }

ssize_t Cleaner::RoomIn(ssize_t ready) const {
    return std::max<ssize_t>(0, ready - SLOTS_BESIDE_A_BATCH) * (m_core.m_segmentSize / 10 * 9);
}

Cleaner::EOutcome Cleaner::CleanOnce(bool urgent) {
    if (!IsEnabled() || m_stop.load(std::memory_order_relaxed)) return EOutcome::AT_REST;
    if (!urgent && !IsDue()) return EOutcome::AT_REST;
    std::unique_lock maintenance = m_checkpoint.Exclude();
    m_core.ThrowIfUnwritable();
    if (m_checkpoint.IsBeingCreated()) return EOutcome::AT_REST;
    Survey survey = LookAround();
    VictimLimits limits{};
    limits.segmentSize = m_core.m_segmentSize;
    limits.maxVictims = BatchSize(survey.numUsed, m_core.m_segmentSize);
    const ssize_t numCandidates = static_cast<ssize_t>(survey.candidates.size());
    limits.maxLiveBytes = RoomFor(limits.maxVictims);
    const ssize_t numSlots = m_space.NumSlots();
    // The file's end first, to be cut.
    if (m_space.NumFree() > m_space.ManyFree()) limits.preferFrom = numSlots - numSlots / 10;
    const std::vector<VictimCandidate> victims = ChooseVictims(std::move(survey.candidates), limits);

    // With few old segments the best of them are not good. What was written since the checkpoint may be better.
    const int64 since = static_cast<int64>(m_checkpoint.LogSince());
    const bool windowIsLarge = since >= 8 * m_core.m_segmentSize && since > Used() / 4;
    const bool lacks = numCandidates < 2 * limits.maxVictims || victims.empty();
    if (survey.deadInWindow >= REST_SEGMENTS * m_core.m_segmentSize && (lacks || windowIsLarge))
        return EOutcome::NEEDS_CHECKPOINT;
    if (victims.empty() || RunBatch(victims) == 0) {
        Rest();
        return EOutcome::AT_REST;
    }
    return EOutcome::CLEANED;
}

ssize_t Cleaner::CleanForTest(ssize_t maxVictims) {
    std::unique_lock<Mutex> maintenance;
    if (!IsMutant(EMutant::BATCH_INSIDE_CHECKPOINT)) maintenance = m_checkpoint.Exclude();
    m_core.ThrowIfUnwritable();
    VictimLimits limits{};
    limits.segmentSize = m_core.m_segmentSize;
    limits.maxVictims = std::min(maxVictims, BatchSize(1 << 20, m_core.m_segmentSize));
    limits.maxLiveBytes = RoomFor(limits.maxVictims);
    limits.alsoFull = true;
    return RunBatch(ChooseVictims(LookAround().candidates, limits));
}

ssize_t Cleaner::EmptyFrom(ssize_t first) {
    if (m_stop.load(std::memory_order_relaxed)) return 0;
    std::unique_lock maintenance = m_checkpoint.Exclude();
    m_core.ThrowIfUnwritable();
    Survey survey = LookAround();
    std::erase_if(survey.candidates, [first](const VictimCandidate& c) { return c.slot < first; });
    VictimLimits limits{};
    limits.segmentSize = m_core.m_segmentSize;
    limits.maxVictims = BatchSize(survey.numUsed, m_core.m_segmentSize);
    limits.maxLiveBytes = RoomIn(m_space.PrepareReadyBelow(first, limits.maxVictims + SLOTS_BESIDE_A_BATCH));
    limits.alsoFull = true;
    return RunBatch(ChooseVictims(std::move(survey.candidates), limits));
}

ssize_t Cleaner::SlotsForBatch() const {
    return BatchSize(m_space.NumSlots() - m_space.NumFree(), m_core.m_segmentSize) + SLOTS_BESIDE_A_BATCH;
}

void Cleaner::SealSurvivorsFrom(ssize_t first) {
    std::unique_lock maintenance = m_checkpoint.Exclude();
    m_core.ThrowIfUnwritable();
    m_streams.SealFrom(first);
}

// How many segments it freed.
ssize_t Cleaner::RunBatch(const std::vector<VictimCandidate>& victims) {
    if (victims.empty()) return 0;
    Relocation relocation(m_core, m_space, m_log, m_index, m_flusher, m_streams, ++m_batchNumber);
    return relocation.Run(victims, m_stop).numFreed;
}

void Cleaner::Rest() {
    m_notBefore.store(m_log.HandedClock() + static_cast<uint64>(REST_SEGMENTS * m_core.m_segmentSize),
                      std::memory_order_relaxed);
}

// --- slowing writers down

void Cleaner::WaitForRoom() {
    if (!IsEnabled() || m_stop.load(std::memory_order_relaxed)) return;
    // Then what is dead cannot be cleaned, and nobody gains by waiting.
    if (m_core.m_archive.isStalled.load(std::memory_order_relaxed)) return;
    const uint64 clock = m_log.HandedClock();
    uint64 last = m_lastWaitAt.load(std::memory_order_relaxed);
    if (clock < last + WAIT_QUANTUM || !m_lastWaitAt.compare_exchange_strong(last, clock, std::memory_order_relaxed))
        return;
    const double perQuantum = WaitMilliseconds(Pressure());
    if (perQuantum <= 0) return;
    // A large transaction has written many at once. Nothing was counted before the store was opened.
    const double quanta = last ? static_cast<double>(clock - last) / WAIT_QUANTUM : 1;
    const std::chrono::duration<double, std::milli> wait(perQuantum * quanta);
    std::unique_lock lock(m_roundMutex);
    const uint64 rounds = m_numRounds;
    m_roundEnded.wait_for(lock, std::min<std::chrono::duration<double, std::milli>>(wait, LONGEST_WAIT),
                          [&] { return m_numRounds != rounds && Pressure() <= 0; });
}

uint64 Cleaner::NumRounds() {
    std::lock_guard lock(m_roundMutex);
    return m_numRounds;
}

void Cleaner::WaitForRound(uint64 rounds) {
    std::unique_lock lock(m_roundMutex);
    m_roundEnded.wait_for(lock, LONGEST_WAIT, [&] { return m_numRounds != rounds; });
}

void Cleaner::NoteRoundEnded() {
    {
        std::lock_guard lock(m_roundMutex);
        ++m_numRounds;
    }
    m_roundEnded.notify_all();
}

} // namespace quna

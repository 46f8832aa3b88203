// Keeps the file in proportion to its data.
#pragma once

#include "qxLss/src/Checkpoint.h"
#include "qxLss/src/Flusher.h"
#include "qxLss/src/Index.h"
#include "qxLss/src/SpaceManager.h"
#include "qxLss/src/StoreCore.h"
#include "qxLss/src/SurvivorStreams.h"
#include "qxLss/src/UserLog.h"
#include "qxLss/src/VictimPolicy.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <atomic>
#include <mutex>
#include <vector>

namespace quna {

// Decides when to clean, chooses victims, has them moved (Relocation), and slows writers down that are faster than it.
//
// Ownership: owns the survivor streams; borrows the rest.
// Threads:   CleanOnce and the like by the thread "Lss clean" (in tests by another, when that is stopped). IsDue and
//            WaitForRoom by any thread; WaitForRoom without the turn.
class QX_API Cleaner {
public:
    enum class EOutcome {
        AT_REST,         // nothing to do
        CLEANED,         // a batch is done; there may be more
        NEEDS_CHECKPOINT // what is dead lies behind the newest checkpoint
    };

    Cleaner(StoreCore& core, SpaceManager& space, UserLog& log, Index& index, Flusher& flusher, Checkpoint& checkpoint);

    bool IsEnabled() const { return m_goal.IsEnabled(); }
    // Is there enough dead space? Cheap.
    bool IsDue() const {
        return m_log.HandedClock() >= m_notBefore.load(std::memory_order_relaxed) && m_goal.IsMissed(Used(), Live());
    }

    // One batch. With `urgent` also if there is not enough dead space: the disk is full. Throws FileException or
    // CorruptLSSException; then the store must not write any more (the caller sees to that).
    EOutcome CleanOnce(bool urgent);
    // A batch also if there is little to win. How many segments it freed.
    ssize_t CleanForTest(ssize_t maxVictims);
    // One batch of segments in slots from `first` on, however full they are, into lower ones. How many became free. Throws as
    // CleanOnce. It moves as much as fits into the free slots below `first`.
    ssize_t EmptyFrom(ssize_t first);
    // Slots that a batch and a checkpoint beside it may take.
    ssize_t SlotsForBatch() const;
    // Nothing more is appended to open survivor segments in slots from `first` on.
    void SealSurvivorsFrom(ssize_t first);
    // After two looks without a batch between them: not again before the log has grown.
    void Rest();
    // Segments may have become victims without any growth of the log.
    void Rouse() { m_notBefore.store(0, std::memory_order_relaxed); }

    // The disk is full: the next round cleans whatever there is to win.
    void RequestUrgently() { m_urgent.store(true, std::memory_order_relaxed); }
    bool TakeUrgent() { return m_urgent.exchange(false, std::memory_order_relaxed); }

    // Before a transaction: if dead space has outgrown the goal, waits for the cleaner, a little at every so many bytes of
    // log, so that writers are slowed down to its pace without ever standing still for long.
    void WaitForRoom();
    // Returns when more than `rounds` rounds have ended, or after 100 ms.
    void WaitForRound(uint64 rounds);
    uint64 NumRounds();
    // The cleaner has ended a batch, or will do no more: wakes who waits.
    void NoteRoundEnded();

    // A running batch ends early, no other begins, and nobody waits any more.
    void RequestStop() {
        m_stop.store(true, std::memory_order_relaxed);
        NoteRoundEnded();
    }
    bool IsStopping() const { return m_stop.load(std::memory_order_relaxed); }
    void AllowAgainForTest() { m_stop.store(false, std::memory_order_relaxed); }

private:
    int64 Used() const { return m_core.m_counters.usedBytes.load(std::memory_order_relaxed); }
    int64 Live() const {
        const StoreCounters& c = m_core.m_counters;
        return c.liveBytes.load(std::memory_order_relaxed) - c.indexBytes.load(std::memory_order_relaxed);
    }
    // Packets that have been moved count once: their victims will be freed.
    double Pressure() const {
        return m_goal.Pressure(Used() - m_core.m_counters.movingBytes.load(std::memory_order_relaxed), Live());
    }
    struct Survey {
        std::vector<VictimCandidate> candidates;
        ssize_t numUsed = 0;    // log segments
        int64 deadInWindow = 0; // bytes in segments that may not be cleaned before the next checkpoint
    };

    Survey LookAround();
    ssize_t RoomFor(ssize_t segments);
    ssize_t RoomIn(ssize_t ready) const;
    ssize_t RunBatch(const std::vector<VictimCandidate>& victims);

    StoreCore& m_core;
    SpaceManager& m_space;
    UserLog& m_log;
    Index& m_index;
    Flusher& m_flusher;
    Checkpoint& m_checkpoint;
    const CleaningGoal m_goal;
    SurvivorStreams m_streams;
    uint64 m_batchNumber = 0;

    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_urgent{false};
    std::atomic<uint64> m_notBefore{0};  // log clock before which there is nothing to win
    std::atomic<uint64> m_lastWaitAt{0}; // log clock at which a writer last looked whether it should wait

    Mutex m_roundMutex{"Cleaner::m_roundMutex"}; // leaf
    ConditionVariable m_roundEnded;
    uint64 m_numRounds = 0; // guarded by m_roundMutex
};

} // namespace quna

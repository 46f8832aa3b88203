#include "qxLss/src/Shrinker.h"

#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <utility>

namespace quna {

namespace {

constexpr ssize_t LEAST_COMFORT = 16;
constexpr ssize_t SLOTS_WORTH_PULLING = 32; // by which the file becomes shorter
constexpr ssize_t SEGMENTS_OF_REST = 64;    // of log after which moving the file's end again is worth it
constexpr int REST_MILLISEC = 1000;
constexpr int PUNCH_MILLISEC = 125; // 8 slots a second: a hole costs some 200 us

} // namespace

// A slot that is cut off or punched is no loss if the power fails: nothing durable names it any more. Failing is none
// either: the file is only larger than it need be.
int Shrinker::Run(bool isWoken) {
    const uint64 clock = m_log.HandedClock();
    const bool isQuiet = std::exchange(m_clockSeen, clock) == clock && !isWoken;
    m_restMillisec = isQuiet ? m_restMillisec + std::max(m_wait, 0) : 0;
    m_wait = Step(m_restMillisec >= REST_MILLISEC);
    return m_wait;
}

int Shrinker::Step(bool rests) {
    if (!m_canShrink || m_space.NumFree() <= std::max(m_space.Comfort(), LEAST_COMFORT)) return -1;
    if (rests) {
        CheckpointAtRest(m_clockSeen);
        PullInEndAtRest(std::max(m_space.Comfort(), LEAST_COMFORT));
    }
    const ssize_t comfort = std::max(m_space.Comfort(), LEAST_COMFORT);
    const ssize_t keep = rests ? comfort : comfort + m_space.ManyFree();
    try {
        if (m_space.NumFree() > keep) m_space.TrimEnd(keep);
    } catch (const FileException&) {
        m_canShrink = false;
        return -1;
    }
    if (m_space.PunchOne(keep)) return PUNCH_MILLISEC;
    return rests ? -1 : REST_MILLISEC;
}

// A checkpoint of many dirty pages needs as many free slots. While the store rests it is taken, so that they can go.
void Shrinker::CheckpointAtRest(uint64 clock) {
    if (m_space.Comfort() <= MANY_FREE_SLOTS || std::exchange(m_restedAt, clock) == clock) return;
    m_checkpoint.Run(Checkpoint::EReason::RUNNING);
    TurnScope turn(m_log.Turn());
    try {
        m_space.EnsureReady(SLOTS_FOR_TRANSACTION + m_checkpoint.SlotsNeeded());
    } catch (const FileException&) {
        return; // a full disk; the next transaction will meet it
    }
}

void Shrinker::PullInEndAtRest(ssize_t comfort) {
    const ssize_t keep = comfort + MANY_FREE_SLOTS / 2;
    if (!m_cleaner.IsEnabled() || m_log.HandedClock() < m_pullNotBefore) return;
    if (m_space.NumSlots() - EndFor(keep) < SLOTS_WORTH_PULLING) return;
    // Or is it enough to cut free slots off?
    if (m_space.NumSlots() - m_space.NumFreeAtEnd() - EndFor(keep) < SLOTS_WORTH_PULLING) return;
    if (PullInEnd(keep))
        m_pullNotBefore = m_log.HandedClock() + static_cast<uint64>(SEGMENTS_OF_REST * m_core.m_segmentSize);
    m_clockSeen = m_log.HandedClock(); // what was logged is its own
}

// The log of the moves fills segments too, which the next round's checkpoint frees.
bool Shrinker::PullInEnd(ssize_t keep) {
    const int64 transactions = m_core.m_counters.numTransactions.load(std::memory_order_relaxed);
    const auto isInterrupted = [&] {
        return m_cleaner.IsStopping() ||
               m_core.m_counters.numTransactions.load(std::memory_order_relaxed) != transactions;
    };
    while (PullInOnce(EndFor(std::max(keep, m_cleaner.SlotsForBatch())), isInterrupted) > 0) continue;
    return !isInterrupted();
}

// How many segments became free. The lowest ready slot is always taken first, so it is enough that there are some below
// the new end. What cannot be moved, because it is damaged, pinned or not yet archived, stays.
template <class IsInterrupted>
ssize_t Shrinker::PullInOnce(ssize_t end, IsInterrupted isInterrupted) {
    if (m_space.NumSlots() - m_space.NumFreeAtEnd() <= end || !LeaveOpenSegment(end)) return 0;
    // The first checkpoint makes victims of the segments just left, the second one moves the tables of the first. What it
    // has moved takes room that a batch would want, but the few that are left need less.
    ssize_t needed = m_cleaner.SlotsForBatch();
    ssize_t left = 0;
    for (ssize_t before = m_space.NumSlots(); !isInterrupted() && HasRoomBelow(end, needed); before = left) {
        left = m_checkpoint.RunAndEmpty(end);
        if (left == 0 || left >= before) break;
        TurnScope turn(m_log.Turn()); // for the count of dirty leaves
        needed = std::min(needed, left + m_checkpoint.SlotsNeeded());
    }
    ssize_t emptied = 0;
    while (!isInterrupted()) {
        const ssize_t n = m_cleaner.EmptyFrom(end);
        if (n == 0) break;
        emptied += n;
    }
    return isInterrupted() ? 0 : emptied;
}

bool Shrinker::HasRoomBelow(ssize_t end, ssize_t needed) { return m_space.PrepareReadyBelow(end, needed) >= needed; }

// False if there is no room below.
bool Shrinker::LeaveOpenSegment(ssize_t first) {
    if (!HasRoomBelow(first, m_cleaner.SlotsForBatch())) return false;
    m_cleaner.SealSurvivorsFrom(first);
    TurnScope turn(m_log.Turn());
    m_core.ThrowIfUnwritable();
    if (m_log.Position().slot >= first) m_log.LinkToNext(EClaim::MAINTENANCE);
    return true;
}

} // namespace quna

// Checkpoints: the state that recovery starts from.
#pragma once

#include "qxLss/src/AllocRing.h"
#include "qxLss/src/Flusher.h"
#include "qxLss/src/Index.h"
#include "qxLss/src/SegmentWriter.h"
#include "qxLss/src/SeidAllocator.h"
#include "qxLss/src/SpaceManager.h"
#include "qxLss/src/StoreCore.h"
#include "qxLss/src/UserLog.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <limits>
#include <mutex>
#include <set>
#include <vector>

namespace quna {

// The state that a checkpoint has written: what a copy of it consists of.
struct CheckpointImage {
    CheckpointHeader header;
    std::vector<SutEntry> segments; // by slot; sequence 0: the slot is no part of it

    std::vector<ssize_t> Slots() const;
};

// A checkpoint is taken in four steps: (1) with the turn, note the position P in the log, copy the usage table and the
// horizons, mark the dirty pages of the index; (2) without it, write the pages as they were, bottom up; (3) write horizons
// and usage table; (4) sync, write the header, durably, and a ring block that names it. Only then are the segments free
// that nothing needs any more: index segments without a current page, and log segments that held no live packet at P.
// The latter stand as free in the copy, so that recovery agrees. And only then may the cleaner have the others that were
// sealed before P: recovery walks through later ones, and verifies what was moved into them.
//
// Ownership: owns the writer of the index segments; borrows the rest.
// Threads:   Run and ClearCreatingFlag by any thread without the turn; one at a time by m_mutex, which is outside the turn.
class QX_API Checkpoint final : private IIndexPageSink {
public:
    enum class EReason {
        CREATION,
        RUNNING,
        CLEAN_CLOSE
    };

    Checkpoint(StoreCore& core, SpaceManager& space, UserLog& log, Index& index, Flusher& flusher, AllocRing& ring,
               SeidAllocator& allocator);

    // At open: the header that was found, and the segments that it names.
    void Import(const CheckpointHeader& header, const std::vector<ssize_t>& held);

    // Throws FileException or CorruptLSSException; then the store must not write any more (the caller sees to that).
    void Run(EReason reason);
    // Writes also the pages of some index segments in slots from `first` on again, so that these become free. How many such
    // segments there are afterwards.
    ssize_t RunAndEmpty(ssize_t first);
    // Takes a checkpoint for a copy. On return the slots of its image are held (SpaceManager::Hold). Throws as Run.
    CheckpointImage RunForCopy();
    // While the lock is held no checkpoint runs. For the cleaner's batches: a checkpoint would take a victim that is freed
    // during it for used, or an index segment for a victim.
    std::unique_lock<Mutex> Exclude() { return std::unique_lock(m_mutex); }
    // Recounts the usage table while nothing is written; see CheckUsage. Requires: the caller has no transaction open.
    void Validate();
    // The store's first transaction has been closed: from now on it counts as created.
    void ClearCreatingFlag();
    bool IsBeingCreated() const { return m_isBeingCreated.load(std::memory_order_relaxed); }

    // Has the log grown enough since the last one?
    bool IsDue() const { return LogVolume() >= m_dueVolume.load(std::memory_order_relaxed); }
    // Bytes of log, the cleaner's included, written since the last one began.
    uint64 LogSince() const { return LogVolume() - m_volume.load(std::memory_order_relaxed); }
    // Slots that a checkpoint of the present dirty pages takes at most. With the turn.
    ssize_t SlotsNeeded() const;

private:
    struct State;

    // Log bytes of users and cleaner.
    uint64 LogVolume() const {
        return m_log.HandedClock() + m_core.m_counters.survivorBytes.load(std::memory_order_relaxed);
    }

    Location WritePage(uint64 key, const void* payload, ssize_t n) override;
    void PageDied(Location l) override;

    static constexpr ssize_t NO_SLOT = std::numeric_limits<ssize_t>::max();

    void RunLocked(EReason reason, ssize_t emptyFrom = NO_SLOT);
    CheckpointImage ImageOfNewest() const;
    void TakePosition(State& state, EReason reason);
    void TouchSparseSegments(ssize_t emptyFrom);
    void TouchPagesOf(ssize_t slot);
    void TouchPage(uint64 key, int level, Location l);
    void ReserveForTables(ssize_t numHighs);
    ssize_t TablePackets() const;
    void WriteTables(State& state);
    void AppendEntries(EPacketType type, const void* entries, ssize_t n, ssize_t entryBytes,
                       std::vector<Location>& locations);
    void BeginSegment();
    ssize_t TakeIndexSegment();
    void WriteHeader(State& state, EReason reason);
    void FreeSegments(State& state);
    void FreeEmptied(State& state);
    void FreeIndexSegments();
    void ScheduleNext(uint64 volume);

    StoreCore& m_core;
    SpaceManager& m_space;
    UserLog& m_log;
    Index& m_index;
    Flusher& m_flusher;
    AllocRing& m_ring;
    SeidAllocator& m_allocator;

    Mutex m_mutex{"Checkpoint::m_mutex"}; // guards all below
    SegmentWriter m_writer;
    CheckpointHeader m_header{};     // the newest durable one
    std::vector<SutEntry> m_copy;    // of the usage table, of the running checkpoint
    std::vector<ssize_t> m_reserved; // index segments taken, not begun
    std::set<ssize_t> m_indexSegments;
    std::set<ssize_t> m_held;      // hold the tables that m_header names
    uint64 m_previousSequence = 0; // of the index stream
    std::atomic<bool> m_isBeingCreated{false};
    std::atomic<uint64> m_volume{0};    // LogVolume at the position of the last one
    std::atomic<uint64> m_dueVolume{0}; // of the next
};

} // namespace quna

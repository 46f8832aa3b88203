// Which slots are free, and how the file grows and shrinks.
#pragma once

#include "qxLss/src/StoreCore.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <vector>

namespace quna {

inline constexpr ssize_t MANY_FREE_SLOTS = 64;

// Slots that a transaction finds ready, besides those of a checkpoint.
inline constexpr ssize_t SLOTS_FOR_TRANSACTION = 4;

// Who takes a slot. The last free ones are kept for maintenance, which is what makes room again: checkpoints, the cleaner
// and its RELOC, recovery.
enum class EClaim {
    TRANSACTION,
    MAINTENANCE
};

// Free slots are *ready* when the file is known to have blocks for them, so that writing them cannot meet a full disk.
// After an open no free slot is, nor is one whose blocks were given back. The lowest ready slot is used first, so that the
// file's end becomes free.
//
// Ownership: borrows the core.
// Threads:   all methods from any thread. m_fileMutex is held across fallocate, truncating and punching, m_mutex (a leaf,
//            inside it) never: whoever finds a ready slot does not wait for the file.
// Invariant: a slot is in exactly one of m_ready, m_unready, m_hollow, m_freedHeld and the segment table's used slots.
class QX_API SpaceManager {
public:
    explicit SpaceManager(StoreCore& core) : m_core(core) {}

    // At open, after the segment table is filled: every slot below `numSlots` with sequence 0 is free. `nextSequence` is
    // larger than that of any segment that was ever written.
    void Import(ssize_t numSlots, uint64 nextSequence);
    // From now on the last `n` ready slots are for maintenance.
    void SetReserve(ssize_t n) { m_reserve.store(n, std::memory_order_relaxed); }

    // Takes a free slot for a new segment and gives it the next sequence; its usage is zero. Throws FileException when
    // the file cannot grow.
    ssize_t Take(ESegmentKind kind, uint8 ageClass, uint64 clock, EClaim claim = EClaim::MAINTENANCE);
    // The segment's packets are dead and nothing on the disk needs it. Readers may still have it pinned: it is not
    // taken before they are done.
    void Free(ssize_t slot);

    // From now on these slots keep their bytes until they are released: freed meanwhile, they are neither taken, nor cut off
    // nor punched. For copies of the store; one at a time.
    void Hold(const std::vector<ssize_t>& slots);
    void Release(ssize_t slot);
    void ReleaseAll();

    // Makes sure that `n` slots are ready beside the reserve. Throws FileException and changes nothing that anyone could
    // see.
    void EnsureReady(ssize_t n);
    // Tries to have `n` slots ready, reserve and all; how many are.
    ssize_t PrepareReady(ssize_t n);
    // Tries to have `n` ready slots below `end`, from the free ones there; how many are.
    ssize_t PrepareReadyBelow(ssize_t end, ssize_t n);
    // Are there fewer ready slots than is comfortable? Then GrowAhead, by a background thread, saves the next transaction
    // the wait. A full disk is no failure there: OpenTransaction will meet it.
    void GrowAhead();
    bool IsShort() const {
        return m_numReady.load(std::memory_order_relaxed) < m_lowWater.load(std::memory_order_relaxed);
    }

    // Gives free slots at the end of the file back, but for `keep` free slots in all. Slots that a reader still has pinned
    // stay.
    void TrimEnd(ssize_t keep = 0);
    // Gives the blocks of one free slot in the middle of the file back, the highest, if more than `keep` have theirs.
    // False if there is none, or the file system has no holes.
    bool PunchOne(ssize_t keep);
    // So many free slots are worth giving back, also while the store is at work: 5 % of the file.
    ssize_t ManyFree() const { return std::max(MANY_FREE_SLOTS, NumSlots() / 20); }
    // Ready slots that transactions and maintenance will want soon.
    ssize_t Comfort() const { return m_comfort.load(std::memory_order_relaxed); }

    ssize_t NumSlots() const { return m_numSlots.load(std::memory_order_relaxed); }
    ssize_t NumReady() const { return m_numReady.load(std::memory_order_relaxed); }
    ssize_t NumFree() const;
    // Of these, how many have no used slot behind them.
    ssize_t NumFreeAtEnd() const;
    uint64 NextSequence() const;
    int64 FileBytes() const { return m_core.m_segments->OffsetOf(NumSlots()); }

private:
    bool TakeReady(ssize_t& slot, ssize_t reserve);
    bool IsPinned(ssize_t slot) const;
    void MakeOneReady();
    void MakeReady(ssize_t slot);
    void Grow();
    void UpdateReadyCount() { m_numReady.store(static_cast<ssize_t>(m_ready.size()), std::memory_order_relaxed); }

    StoreCore& m_core;
    Mutex m_fileMutex{"SpaceManager::m_fileMutex"}; // one change of the file's blocks at a time
    bool m_canPunch = true;                         // guarded by m_fileMutex
    mutable Mutex m_mutex{"SpaceManager::m_mutex"}; // guards all below; the atomics are written under it
    std::set<ssize_t> m_ready;                      // free, with blocks in the file
    std::set<ssize_t> m_unready;                    // free, perhaps without
    std::set<ssize_t> m_hollow;                     // free, without
    std::set<ssize_t> m_held;                       // keep their bytes, used or free
    std::set<ssize_t> m_freedHeld;                  // of these: free, but for that
    std::atomic<ssize_t> m_numSlots{0};
    std::atomic<ssize_t> m_numReady{0};
    std::atomic<ssize_t> m_comfort{0};
    std::atomic<ssize_t> m_lowWater{0}; // ready slots below which growing ahead is worth it; none on a full disk
    std::atomic<ssize_t> m_reserve{0};
    uint64 m_nextSequence = 1;
};

} // namespace quna

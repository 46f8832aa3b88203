// Which slots are free, and how the file grows and shrinks.
#pragma once

#include "qxLss/src/StoreCore.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <atomic>
#include <mutex>
#include <set>
#include <vector>

namespace quna {

// Free slots are *ready* when the file is known to have blocks for them, so that writing them cannot meet a full disk.
// After an open no free slot is. The lowest free slot is used first, so that the file's end becomes free.
//
// Ownership: borrows the core.
// Threads:   all methods from any thread; m_mutex (a leaf) is held across fallocate.
// Invariant: a slot is in exactly one of m_ready, m_unready and the segment table's used slots.
class QX_API SpaceManager {
public:
    explicit SpaceManager(StoreCore& core) : m_core(core) {}

    // At open, after the segment table is filled: every slot below `numSlots` with sequence 0 is free. `nextSequence` is
    // larger than that of any segment that was ever written.
    void Import(ssize_t numSlots, uint64 nextSequence);
    // Recovery meets a segment that the table does not know.
    void NoteUsed(ssize_t slot);

    // Takes a free slot for a new segment and gives it the next sequence; its usage is zero. Throws FileException when
    // the file cannot grow.
    ssize_t Take(ESegmentKind kind, uint8 ageClass, uint64 clock);
    // The segment's packets are dead and nothing on the disk needs it. Readers may still have it pinned: it is not
    // taken before they are done.
    void Free(ssize_t slot);

    // Makes sure that `n` slots are ready. Throws FileException and changes nothing that anyone could see.
    void EnsureReady(ssize_t n);
    // Are there fewer ready slots than is comfortable? Then GrowAhead, by a background thread, saves the next transaction
    // the wait. A full disk is no failure there: OpenTransaction will meet it.
    void GrowAhead();
    bool IsShort() const {
        return m_numReady.load(std::memory_order_relaxed) < m_lowWater.load(std::memory_order_relaxed);
    }

    // Gives the free slots at the end of the file back.
    void TrimEnd();

    ssize_t NumSlots() const { return m_numSlots.load(std::memory_order_relaxed); }
    ssize_t NumReadyForTest() const { return m_numReady.load(std::memory_order_relaxed); }
    uint64 NextSequence() const;
    int64 FileBytes() const { return m_core.m_segments->OffsetOf(NumSlots()); }

private:
    bool TakeReady(ssize_t& slot);
    void MakeOneReady();
    void Grow();
    void UpdateReadyCount() { m_numReady.store(static_cast<ssize_t>(m_ready.size()), std::memory_order_relaxed); }

    StoreCore& m_core;
    mutable std::mutex m_mutex;  // guards all below; the atomics are written under it
    std::set<ssize_t> m_ready;   // free, with blocks in the file
    std::set<ssize_t> m_unready; // free, perhaps without
    std::atomic<ssize_t> m_numSlots{0};
    std::atomic<ssize_t> m_numReady{0};
    std::atomic<ssize_t> m_lowWater{0}; // ready slots below which growing ahead is worth it
    uint64 m_nextSequence = 1;
};

} // namespace quna

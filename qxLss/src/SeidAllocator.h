// Hands out identifiers: ascending ones, and ones that lie near a relative.
#pragma once

#include "qxLss/Seid.h"
#include "qxLss/src/AllocRing.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace quna {

// What a checkpoint keeps of one high: the allocator's fields of a HIGHS entry.
struct HighAllocation {
    uint32 high;
    uint32 horizon;         // every low below is spent
    uint32 nextIncremental; // the incremental block: lows nextIncremental .. + incrementalLeft - 1 are unused
    uint16 incrementalLeft;
};

// The identifiers of a store.
//
// Each high has a *frontier*: all lows below it belong to some extent. Extents are carved at the frontier, never beyond
// the durable horizon, so that handing one out of an extent needs no look at the disk.
// - Incremental: one block of 64 ids, doubling to 1,024; AllocateSeid takes from it in ascending order.
// - Affiliate: an extent belongs to a family. A hint in a family's extent gives the next id of that family, whose extents
//   have 8, 16, .. 256 ids; a hint elsewhere founds a family of its own; and in a family of more than 256 ids a hint used
//   four times founds its own. So relatives share leaves of the index (256 ids), however the families interleave.
// Extents up to 64 ids share a leaf; larger ones do not cross leaves. The low 0xFFFFFFFF is never handed out.
// What remains of open extents is lost at a close or crash, except the incremental block at a clean close.
//
// Ownership: owns its states; borrows the ring.
// Threads:   all allocating methods from any number of threads, also while a transaction is open; none takes the turn of
//            the log. Locks: the high's mutex, then the ring's. Import before any other call, by one thread.
// Invariant: frontier <= durable horizon of the ring, for each high; no low is handed out twice.
class QX_API SeidAllocator {
public:
    static constexpr uint32 LOW_LIMIT = 0xFFFFFFFF; // lows handed out are below
    static constexpr uint32 FIRST_HORIZON_STEP = 4096;
    static constexpr uint32 MAX_HORIZON_STEP = 65536;

    // `wakeTopUp` (may be empty) is called, with no lock held, when a high has spent half of its last horizon step:
    // TopUp should soon be called by a background thread.
    explicit SeidAllocator(AllocRing& ring, std::function<void()> wakeTopUp = {});
    SeidAllocator(const SeidAllocator&) = delete;
    SeidAllocator& operator=(const SeidAllocator&) = delete;
    ~SeidAllocator();

    // Takes over what an earlier owner left. `highs` from the HIGHS packets; with `clean` the horizon of an entry is the
    // frontier and its incremental block goes on; otherwise `ring` may know larger horizons, and each high goes on at the
    // largest. Highs at or above the ring's NextHigh are not possible (the caller has checked).
    void Import(const std::vector<HighAllocation>& highs, const AllocRing::Contents& ring, bool clean);

    // A high never returned before.
    SeidHigh AllocateSeidHigh();
    // The next unused Seid under `high`. Throws FileException if all are spent. Requires: `high` was allocated.
    Seid AllocateSeid(SeidHigh high);
    // Replaces `seid` by an unused one of the same high, near it. False, and `seid` unchanged, if all are spent or the
    // high was never allocated.
    bool AllocateAffiliateSeid(Seid& seid);
    // Was `high` returned by AllocateSeidHigh, now or in an earlier life?
    bool IsAllocatedHigh(SeidHigh high) const;
    // May `seid` have been handed out: is its high known and its low below the horizon?
    bool IsAllocated(Seid seid) const;
    // Takes over an identifier that another store has handed out in a space that both know, here under `seid.high_`.
    // Afterwards it counts as allocated, and neither it nor a lower one is handed out by AllocateSeid or to a new family.
    // False, with nothing changed, if the high was never allocated or no store hands out that low. Throws FileException,
    // with nothing changed, if the horizon cannot be raised.
    bool TakeOver(Seid seid);

    // Every low of `high` below `horizon`, and whatever this allocator was about to hand out below it, counts as spent. For a
    // store whose history goes on from an older state. Throws FileException if the horizon cannot be raised.
    void SpendBelow(SeidHigh high, uint32 horizon);

    // Raises the horizons of which half is spent, without holding up allocation. Leaves them as they are when the ring is
    // full until the next checkpoint. Throws FileException when the write fails.
    void TopUp();

    // A checkpoint begins: the allocation state of every high ever used, sorted by high, as one moment saw it, and the
    // ring sequence and next high for the header. With `clean` (no other thread allocates any more) entries carry the
    // frontier and the incremental block.
    uint64 BeginCheckpoint(bool clean, std::vector<HighAllocation>& highs, uint32& nextHigh);

    // What is spent now at most, sorted by high: every identifier handed out before the call lies below. Any thread.
    void GetHorizons(std::vector<AllocHorizon>& horizons, uint32& nextHigh) const;

private:
    struct HighState;
    struct Directory;

    HighState* Find(SeidHigh high) const;
    HighState& FindOrAdd(SeidHigh high);
    Seid AllocateSeidSlowly(SeidHigh high);
    bool TakeAffiliate(HighState& state, uint32 hint, uint32& low);
    bool Carve(HighState& state, uint32 n, uint32& first, uint32& end);
    bool AdvanceFrontier(HighState& state, uint32 n, uint32& first, uint32& end);
    void EnsureHorizon(HighState& state, uint32 frontier);
    bool QueueForTopUp(HighState& state);

    AllocRing& m_ring;
    const std::function<void()> m_wakeTopUp;
    std::unique_ptr<Directory> m_directory;

    Mutex m_topUpMutex{"SeidAllocator::m_topUpMutex"}; // leaf
    std::vector<HighState*> m_topUp;                   // states that wait for TopUp; guarded by m_topUpMutex
};

} // namespace quna

#include "qxLss/src/SeidAllocator.h"

#include "qxLss/src/Mutants.h"
#include "qxLss/src/SeidFamilies.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Mutex.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

namespace quna {
namespace {

constexpr ConstStringZ SOURCE_PATH = "src/SeidAllocator";

constexpr uint32 LEAF = 256;        // ids in a leaf of the index
constexpr uint32 SMALL_EXTENT = 64; // extents up to this share a leaf
constexpr uint32 FIRST_INCREMENTAL_BLOCK = 64;
constexpr uint32 LAST_INCREMENTAL_BLOCK = 1024;

// Sums of lows are taken in 64 bits: the last extents end at the limit.
uint32 ClampToLimit(uint64 low) { return static_cast<uint32>(std::min<uint64>(low, SeidAllocator::LOW_LIMIT)); }

uint64 RoundUp(uint64 low, uint64 step) { return (low + step - 1) / step * step; }

// The incremental block in one word, so that it is taken from without a lock: the next low in the low half, the end in
// the high half.
constexpr uint64 PackBlock(uint32 next, uint32 end) { return uint64{end} << 32 | next; }
constexpr uint32 NextOf(uint64 block) { return static_cast<uint32>(block); }
constexpr uint32 EndOf(uint64 block) { return static_cast<uint32>(block >> 32); }

// The next low of the block, or false. Never steps beyond the end: at the end of a high that would carry into the other
// half of the word. Who takes a low sees the horizon above it, as whoever stored the block did.
bool TakeFromBlock(std::atomic<uint64>& block, uint32& low) {
    uint64 word = block.load(std::memory_order_relaxed);
    while (NextOf(word) < EndOf(word)) {
        if (block.compare_exchange_weak(word, word + 1, std::memory_order_acquire, std::memory_order_relaxed)) {
            low = NextOf(word);
            return true;
        }
    }
    return false;
}

} // namespace

struct SeidAllocator::HighState {
    explicit HighState(SeidHigh high) : m_high(high) {}

    const SeidHigh m_high;
    std::atomic<uint32> m_durable{0};           // the horizon; raised under the ring's mutex
    std::atomic<bool> m_queued{false};          // for TopUp
    alignas(64) std::atomic<uint64> m_block{0}; // the incremental block; refilled under m_mutex

    alignas(64) Mutex m_mutex{"SeidAllocator, a high half"}; // guards all below
    uint32 m_frontier = 0;                                   // lows from here on belong to no extent
    uint32 m_smallNext = 0; // [m_smallNext, m_smallEnd) of a leaf are for small extents
    uint32 m_smallEnd = 0;
    uint32 m_nextBlock = FIRST_INCREMENTAL_BLOCK;
    uint32 m_horizonStep = FIRST_HORIZON_STEP; // of the next raise
    std::unique_ptr<SeidFamilies> m_families;  // null until the first affiliate
};

// All states by high: the first thousand highs, which is all that most stores have, directly, the rest in a radix of
// 12, 10 and 10 bits. States and nodes are only added, and found without a lock.
struct SeidAllocator::Directory {
    static constexpr SeidHigh NUM_FIRST = 1024;
    struct Leaf {
        std::array<std::atomic<HighState*>, 1024> states{};
    };
    struct Inner {
        std::array<std::atomic<Leaf*>, 1024> leaves{};

        Inner() = default;
        Inner(const Inner&) = delete;
        Inner& operator=(const Inner&) = delete;
        ~Inner() {
            for (std::atomic<Leaf*>& leaf : leaves) delete leaf.load(std::memory_order_relaxed);
        }
    };

    using Top = std::array<std::atomic<Inner*>, 4096>;

    HighState* Find(SeidHigh high) const {
        if (high < NUM_FIRST) [[likely]]
            return m_first[high].load(std::memory_order_acquire);
        const Top* top = m_top.load(std::memory_order_acquire);
        if (!top) return nullptr;
        const Inner* inner = (*top)[high >> 20].load(std::memory_order_acquire);
        if (!inner) return nullptr;
        const Leaf* leaf = inner->leaves[(high >> 10) & 1023].load(std::memory_order_acquire);
        return leaf ? leaf->states[high & 1023].load(std::memory_order_acquire) : nullptr;
    }

    HighState& FindOrAdd(SeidHigh high) {
        const std::lock_guard lock(m_mutex);
        std::atomic<HighState*>& cell = Cell(high);
        if (HighState* state = cell.load(std::memory_order_relaxed)) return *state;
        m_states.push_back(std::make_unique<HighState>(high));
        cell.store(m_states.back().get(), std::memory_order_release);
        return *m_states.back();
    }

    std::vector<HighState*> StatesByHigh() const {
        std::vector<HighState*> states;
        {
            const std::lock_guard lock(m_mutex);
            for (const std::unique_ptr<HighState>& state : m_states) states.push_back(state.get());
        }
        std::sort(states.begin(), states.end(),
                  [](const HighState* a, const HighState* b) { return a->m_high < b->m_high; });
        return states;
    }

private:
    // Requires: m_mutex held.
    std::atomic<HighState*>& Cell(SeidHigh high) {
        if (high < NUM_FIRST) return m_first[high];
        if (!m_ownTop) {
            m_ownTop = std::make_unique<Top>();
            m_top.store(m_ownTop.get(), std::memory_order_release);
        }
        std::atomic<Inner*>& inner = (*m_ownTop)[high >> 20];
        if (!inner.load(std::memory_order_relaxed)) {
            m_inners.push_back(std::make_unique<Inner>());
            inner.store(m_inners.back().get(), std::memory_order_release);
        }
        std::atomic<Leaf*>& leaf = inner.load(std::memory_order_relaxed)->leaves[(high >> 10) & 1023];
        if (!leaf.load(std::memory_order_relaxed)) leaf.store(new Leaf(), std::memory_order_release);
        return leaf.load(std::memory_order_relaxed)->states[high & 1023];
    }

    std::array<std::atomic<HighState*>, NUM_FIRST> m_first{};
    std::atomic<Top*> m_top{nullptr}; // null: no others

    mutable Mutex m_mutex{"SeidAllocator, its highs"}; // leaf; guards what follows, and additions
    std::vector<std::unique_ptr<HighState>> m_states;
    std::unique_ptr<Top> m_ownTop;
    std::vector<std::unique_ptr<Inner>> m_inners; // those in it
};

SeidAllocator::SeidAllocator(AllocRing& ring, std::function<void()> wakeTopUp)
    : m_ring(ring), m_wakeTopUp(std::move(wakeTopUp)), m_directory(std::make_unique<Directory>()) {}

SeidAllocator::~SeidAllocator() = default;

// --- import and export

void SeidAllocator::Import(const std::vector<HighAllocation>& highs, const AllocRing::Contents& ring, bool clean) {
    for (const HighAllocation& entry : highs) {
        HighState& state = FindOrAdd(entry.high);
        const std::lock_guard lock(state.m_mutex);
        // The ring may know a larger horizon, which the last owner had not spent. It is not used: the blocks that know it
        // may be overwritten before the next checkpoint.
        state.m_durable.store(entry.horizon, std::memory_order_relaxed);
        state.m_frontier = ClampToLimit(RoundUp(entry.horizon, SeidFamilies::GRANULE));
        if (clean && uint64{entry.nextIncremental} + entry.incrementalLeft <= entry.horizon)
            state.m_block.store(PackBlock(entry.nextIncremental, entry.nextIncremental + entry.incrementalLeft),
                                std::memory_order_relaxed);
    }
    if (clean || IsMutant(EMutant::RING_NOT_ASKED)) return;
    for (const auto& [high, horizon] : ring.horizons) {
        HighState& state = FindOrAdd(high);
        const std::lock_guard lock(state.m_mutex);
        if (horizon <= state.m_durable.load(std::memory_order_relaxed)) continue;
        state.m_durable.store(horizon, std::memory_order_relaxed);
        state.m_frontier = ClampToLimit(RoundUp(horizon, SeidFamilies::GRANULE));
    }
}

uint64 SeidAllocator::BeginCheckpoint(bool clean, std::vector<HighAllocation>& highs, uint32& nextHigh) {
    highs.clear();
    if (!clean) {
        return m_ring.BeginCheckpoint(
            [&] {
                for (const HighState* state : m_directory->StatesByHigh())
                    highs.push_back({state->m_high, state->m_durable.load(std::memory_order_relaxed), 0, 0});
            },
            nextHigh);
    }
    for (HighState* state : m_directory->StatesByHigh()) {
        const std::lock_guard lock(state->m_mutex);
        const uint64 block = state->m_block.load(std::memory_order_relaxed);
        highs.push_back(
            {state->m_high, state->m_frontier, NextOf(block), static_cast<uint16>(EndOf(block) - NextOf(block))});
    }
    return m_ring.BeginCheckpoint([] {}, nextHigh);
}

void SeidAllocator::GetHorizons(std::vector<AllocHorizon>& horizons, uint32& nextHigh) const {
    horizons.clear();
    for (const HighState* state : m_directory->StatesByHigh())
        horizons.push_back({state->m_high, state->m_durable.load(std::memory_order_relaxed)});
    nextHigh = m_ring.NextHigh();
}

// --- allocation

SeidAllocator::HighState* SeidAllocator::Find(SeidHigh high) const { return m_directory->Find(high); }

SeidAllocator::HighState& SeidAllocator::FindOrAdd(SeidHigh high) { return m_directory->FindOrAdd(high); }

SeidHigh SeidAllocator::AllocateSeidHigh() { return m_ring.TakeHigh(); }

bool SeidAllocator::IsAllocatedHigh(SeidHigh high) const { return high != 0 && high < m_ring.NextHigh(); }

bool SeidAllocator::IsAllocated(Seid seid) const {
    const HighState* state = Find(seid.high_);
    return state && seid.low_ < state->m_durable.load(std::memory_order_relaxed);
}

bool SeidAllocator::TakeOver(Seid seid) {
    if (!IsAllocatedHigh(seid.high_) || seid.low_ >= LOW_LIMIT) return false;
    HighState& state = FindOrAdd(seid.high_);
    const std::lock_guard lock(state.m_mutex);
    EnsureHorizon(state, ClampToLimit(RoundUp(uint64{seid.low_} + 1, SeidFamilies::GRANULE)));
    // Whatever lies below the horizon passes IsAllocated from now on, so all of it is the other store's.
    const uint32 horizon = state.m_durable.load(std::memory_order_relaxed);
    state.m_frontier = std::max(state.m_frontier, ClampToLimit(RoundUp(horizon, SeidFamilies::GRANULE)));
    return true;
}

void SeidAllocator::SpendBelow(SeidHigh high, uint32 horizon) {
    if (!IsAllocatedHigh(high)) return;
    HighState& state = FindOrAdd(high);
    const std::lock_guard lock(state.m_mutex);
    EnsureHorizon(state, ClampToLimit(horizon));
    const uint32 durable = state.m_durable.load(std::memory_order_relaxed);
    state.m_frontier = std::max(state.m_frontier, ClampToLimit(RoundUp(durable, SeidFamilies::GRANULE)));
    state.m_block.store(PackBlock(0, 0), std::memory_order_relaxed);
    state.m_smallNext = state.m_smallEnd = 0;
    state.m_families.reset();
}

Seid SeidAllocator::AllocateSeid(SeidHigh high) {
    if (HighState* state = Find(high)) [[likely]] {
        uint32 low;
        if (TakeFromBlock(state->m_block, low)) [[likely]]
            return Seid(low, high);
    }
    return AllocateSeidSlowly(high);
}

Seid SeidAllocator::AllocateSeidSlowly(SeidHigh high) {
    QX_ASSERT(IsAllocatedHigh(high));
    HighState& state = FindOrAdd(high);
    uint32 low;
    bool wake = false;
    {
        const std::lock_guard lock(state.m_mutex);
        if (!TakeFromBlock(state.m_block, low)) {
            uint32 end;
            if (!Carve(state, state.m_nextBlock, low, end)) {
                const std::string text =
                    "Can't allocate an identifier: all of identifier space " + std::to_string(high) + " are in use";
                throw FileException(text.c_str());
            }
            state.m_nextBlock = std::min(2 * state.m_nextBlock, LAST_INCREMENTAL_BLOCK);
            state.m_block.store(PackBlock(low + 1, end), std::memory_order_release);
            wake = QueueForTopUp(state);
        }
    }
    if (wake && m_wakeTopUp) m_wakeTopUp();
    return Seid(low, high);
}

bool SeidAllocator::AllocateAffiliateSeid(Seid& seid) {
    if (!IsAllocatedHigh(seid.high_)) return false;
    HighState* found = Find(seid.high_);
    HighState& state = found ? *found : FindOrAdd(seid.high_);
    uint32 low;
    bool wake = false;
    {
        const std::lock_guard lock(state.m_mutex);
        const uint32 frontier = state.m_frontier;
        if (!TakeAffiliate(state, seid.low_, low)) return false;
        if (state.m_frontier != frontier) wake = QueueForTopUp(state);
    }
    seid = Seid(low, seid.high_);
    if (wake && m_wakeTopUp) m_wakeTopUp();
    return true;
}

bool SeidAllocator::TakeAffiliate(HighState& state, uint32 hint, uint32& low) {
    if (!state.m_families) state.m_families = std::make_unique<SeidFamilies>();
    SeidFamilies& families = *state.m_families;
    const SeidFamilies::Family family = families.FamilyFor(hint);
    if (!families.HasRoom(family)) {
        uint32 first;
        uint32 end;
        if (!Carve(state, families.NextExtent(family), first, end)) {
            families.DropIfEmpty(family);
            return TakeFromBlock(state.m_block, low);
        }
        families.AddExtent(family, first, end);
    }
    low = families.Take(family);
    return true;
}

// --- extents

// [first, end) of `n` unused lows, fewer only when the high comes to its end; false when it is at its end. Requires: the
// state's mutex held.
bool SeidAllocator::Carve(HighState& state, uint32 n, uint32& first, uint32& end) {
    if (n > SMALL_EXTENT)
        return AdvanceFrontier(state, n, first, end) ||
               (state.m_smallNext < state.m_smallEnd && Carve(state, SMALL_EXTENT, first, end));
    if (state.m_smallEnd - state.m_smallNext < n) {
        uint32 leaf;
        uint32 leafEnd;
        const uint32 rest = LEAF - state.m_frontier % LEAF;
        if (AdvanceFrontier(state, rest, leaf, leafEnd)) {
            state.m_smallNext = leaf;
            state.m_smallEnd = leafEnd;
        }
    }
    first = state.m_smallNext;
    end = first + std::min(n, state.m_smallEnd - first);
    state.m_smallNext = end;
    return first != end;
}

// [first, end) of `n` lows at the frontier, below a durable horizon; an extent that would cross a leaf begins at one.
// Throws FileException, with nothing changed, if the horizon cannot be raised.
bool SeidAllocator::AdvanceFrontier(HighState& state, uint32 n, uint32& first, uint32& end) {
    if (state.m_frontier == LOW_LIMIT) return false;
    uint64 begin = state.m_frontier;
    if (begin % LEAF + n > LEAF && RoundUp(begin, LEAF) < LOW_LIMIT) begin = RoundUp(begin, LEAF);
    const uint32 limit = ClampToLimit(begin + n);
    EnsureHorizon(state, limit);
    first = static_cast<uint32>(begin);
    end = limit;
    state.m_frontier = limit;
    return true;
}

// --- horizons

// Afterwards the durable horizon is at or above `frontier`. Requires: the state's mutex held.
void SeidAllocator::EnsureHorizon(HighState& state, uint32 frontier) {
    const uint32 durable = state.m_durable.load(std::memory_order_relaxed);
    if (frontier <= durable) return;
    const uint32 horizon = std::max(frontier, ClampToLimit(uint64{durable} + state.m_horizonStep));
    m_ring.RaiseHorizon(state.m_high, horizon, state.m_durable);
    state.m_horizonStep = std::min(2 * state.m_horizonStep, MAX_HORIZON_STEP);
}

// Does the state now wait for TopUp, and did not before? Requires: the state's mutex held.
bool SeidAllocator::QueueForTopUp(HighState& state) {
    const uint32 durable = state.m_durable.load(std::memory_order_relaxed);
    const uint32 lastStep = state.m_horizonStep == MAX_HORIZON_STEP ? MAX_HORIZON_STEP : state.m_horizonStep / 2;
    if (durable == LOW_LIMIT || durable - state.m_frontier > lastStep / 2) return false;
    if (state.m_queued.exchange(true, std::memory_order_relaxed)) return false;
    const std::lock_guard lock(m_topUpMutex);
    m_topUp.push_back(&state);
    return true;
}

void SeidAllocator::TopUp() {
    std::vector<HighState*> states;
    {
        const std::lock_guard lock(m_topUpMutex);
        states.swap(m_topUp);
    }
    for (HighState* state : states) {
        state->m_queued.store(false, std::memory_order_relaxed);
        uint32 horizon;
        {
            const std::lock_guard lock(state->m_mutex);
            horizon = ClampToLimit(uint64{state->m_durable.load(std::memory_order_relaxed)} + state->m_horizonStep);
            state->m_horizonStep = std::min(2 * state->m_horizonStep, MAX_HORIZON_STEP);
        }
        // Without the state's mutex: allocation goes on below the old horizon meanwhile. A full ring is no failure here:
        // whoever then needs the horizon asks again.
        (void)m_ring.TryRaiseHorizon(state->m_high, horizon, state->m_durable);
    }
}

} // namespace quna

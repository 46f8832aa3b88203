// The index: from Seid to location.
#pragma once

#include "qxLss/Seid.h"
#include "qxLss/src/IndexNode.h"
#include "qxLss/src/StoreCore.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace quna {

// The radix of one high half.
struct HighIndex {
    explicit HighIndex(uint32 high_) : high(high_) {}

    const uint32 high;
    std::atomic<IndexNode*> root{nullptr}; // null: empty, or not in memory
    std::atomic<Location> rootLocation{0}; // to load the root from; constant once the root is in memory
    int storedRootLevel = 0;
    int64 liveElements = 0; // under the turn

    // The running snapshot; the checkpoint's own.
    IndexNode* snapshotRoot = nullptr;
    int64 snapshotLive = 0;
};

// Where a location stands, for one who is about to change it.
struct IndexSlot {
    IndexLeaf* leaf;
    int index;
    HighIndex* high;

    Location Get() const { return leaf->slots[static_cast<size_t>(index)].load(std::memory_order_relaxed); }
};

// What the checkpoint does with pages. Gives the location of the written packet.
class IIndexPageSink {
public:
    virtual Location WritePage(uint64 key, const void* payload, ssize_t n) = 0;
    virtual void PageDied(Location l) = 0;

protected:
    ~IIndexPageSink() = default;
};

// A radix of 256-way nodes for each high half. Pages come into memory at first touch and stay; they are written only by
// checkpoints.
//
// A snapshot is the index as it was when a checkpoint had the turn: its dirty leaves are marked, and a publisher that
// meets a marked leaf copies it first. Inner nodes change only by checkpoints.
//
// Ownership: owns all nodes; borrows the core.
// Threads:   Find by anyone, without a lock unless a page must be loaded. Prepare, Publish and BeginSnapshot with the
//            turn. WriteSnapshot by one thread at a time.
// Invariant: a page that is not in memory is not dirty, so its packet is current.
class QX_API Index {
public:
    explicit Index(StoreCore& core);
    Index(const Index&) = delete;
    Index& operator=(const Index&) = delete;
    ~Index();

    // At open: the root of a high as the checkpoint knows it.
    void Import(uint32 high, Location root, int rootLevel, int64 liveElements);

    // The place of the location of `seid`, null if there is none and never was. Throws if a page can't be loaded.
    const std::atomic<Location>* Find(Seid seid) const;
    Location Get(Seid seid) const {
        const std::atomic<Location>* slot = Find(seid);
        return slot ? slot->load(std::memory_order_acquire) : 0;
    }

    // The page that would have to be read before the location of `seid` is known; 0 if it is in memory or there is none.
    Location MissingPageOf(Seid seid) const;

    // The same as Find for a change; makes the leaf if there is none.
    IndexSlot Prepare(Seid seid) {
        IndexLeaf* const leaf = m_lastLeaf;
        if (leaf && leaf->high == seid.high_ && leaf->page == seid.low_ >> LEAF_SHIFT) [[likely]]
            return {leaf, static_cast<int>(seid.low_ & (LEAF_SLOTS - 1)), m_lastHigh};
        return PrepareSlowly(seid);
    }
    // Stores the new location, 0 for a deletion; readers see it at once. Gives the old one.
    Location Publish(const IndexSlot& slot, Location l) {
        IndexLeaf& leaf = *slot.leaf;
        if (leaf.marked.load(std::memory_order_acquire)) [[unlikely]] // not before the leaf has been read for its page
            CopyForSnapshot(leaf);
        if (!leaf.dirty) {
            leaf.dirty = true;
            m_dirtyLeaves.push_back(&leaf);
        }
        std::atomic<Location>& place = leaf.slots[static_cast<size_t>(slot.index)];
        const Location old = place.load(std::memory_order_relaxed);
        place.store(l, std::memory_order_release);
        slot.high->liveElements += (l != 0) - (old != 0);
        return old;
    }

    // The bytes that a checkpoint of the present dirty pages takes at most. With the turn.
    ssize_t SnapshotBytes() const;
    void BeginSnapshot();
    // Writes the marked leaves, then the inner nodes above them.
    void WriteSnapshot(IIndexPageSink& sink);
    // For the HIGHS entry, after WriteSnapshot.
    void GetSnapshotRoot(uint32 high, Location& root, int& rootLevel, int64& liveElements) const;
    // Makes the page dirty if the packet at `l` is its current one, so that the next checkpoint moves it. With the turn.
    void TouchPage(uint64 key, int level, Location l);

    // Calls element(seid value, location) for every element, in ascending order, and page(location) for every page.
    // Loads everything; nothing may be published meanwhile.
    template <class ElementVisitor, class PageVisitor>
    void VisitAll(ElementVisitor&& element, PageVisitor&& page) const {
        VisitAll(element, page, [] { throw; });
    }
    // The same; damaged() is called inside the handler of the exception that loading a page has thrown. When it returns,
    // the visit goes on without the page and what is below it.
    template <class ElementVisitor, class PageVisitor, class DamageHandler>
    void VisitAll(ElementVisitor&& element, PageVisitor&& page, DamageHandler&& damaged) const;

    std::vector<uint32> AllHighs() const; // ascending
    ssize_t NumHighs() const;

private:
    struct Directory;

    HighIndex* FindHigh(uint32 high) const;
    HighIndex& FindOrAddHigh(uint32 high);
    IndexNode* Root(HighIndex& high) const;
    IndexNode* Child(IndexInner& inner, size_t i) const;
    IndexNode* LoadPage(uint32 high, int level, uint32 page, Location l) const;
    IndexNode* MakeNode(uint32 high, int level, uint32 page) const;
    IndexSlot PrepareSlowly(Seid seid);
    IndexLeaf* LeafFor(HighIndex& high, uint32 low);
    void ResetRoot(HighIndex& high, IndexNode& root);
    void GrowRoot(HighIndex& high, int level);
    IndexNode* AddChild(IndexInner& inner, size_t i);
    void CopyForSnapshot(IndexLeaf& leaf);
    void MarkDirty(IndexLeaf& leaf);
    // The node itself if it is one; null if there is none.
    IndexLeaf* FirstLeafBelow(IndexNode* node) const;
    void WriteNode(IndexNode& node, IIndexPageSink& sink, std::vector<IndexInner*>& parents);
    static ssize_t Encode(const IndexNode& node, const std::array<Location, LEAF_SLOTS>* copy, octet_t* payload);
    Mutex& LoadMutex(uint32 page) const { return m_loadMutexes[page & 15]; }

    StoreCore& m_core;
    const uint64 m_number; // no other index of the process has it, or has had it
    std::unique_ptr<Directory> m_directory;
    struct LoadingMutex : Mutex {
        LoadingMutex() noexcept : Mutex("Index::m_loadMutexes") {}
    };
    mutable std::array<LoadingMutex, 16> m_loadMutexes;        // leaves of the lock order, by page
    mutable Mutex m_nodesMutex{"Index::m_nodesMutex"};         // innermost: guards m_nodes and m_highs
    mutable std::vector<std::unique_ptr<IndexLeaf>> m_leaves;  // ownership only
    mutable std::vector<std::unique_ptr<IndexInner>> m_inners; // ownership only
    std::vector<std::unique_ptr<HighIndex>> m_highs;

    Mutex m_snapshotMutex{"Index::m_snapshotMutex"}; // guards parent, own, copy and marked -> unmarked
    std::vector<IndexLeaf*> m_dirtyLeaves;           // under the turn
    std::vector<IndexLeaf*> m_snapshotLeaves;        // of the running snapshot; the checkpoint's
    uint64 m_snapshotNumber = 0;
    IndexLeaf* m_lastLeaf = nullptr; // of Prepare; under the turn
    HighIndex* m_lastHigh = nullptr;
};

template <class ElementVisitor, class PageVisitor, class DamageHandler>
void Index::VisitAll(ElementVisitor&& element, PageVisitor&& page, DamageHandler&& damaged) const {
    std::vector<IndexNode*> stack;
    const auto load = [&](auto&& node) {
        try {
            if (IndexNode* const loaded = node()) stack.push_back(loaded);
        } catch (...) {
            damaged();
        }
    };
    for (const uint32 h : AllHighs()) {
        load([&] { return Root(*FindHigh(h)); });
        while (!stack.empty()) {
            IndexNode* const node = stack.back();
            stack.pop_back();
            if (node->own) page(node->own);
            if (!node->IsLeaf()) {
                IndexInner& inner = static_cast<IndexInner&>(*node);
                for (size_t i = static_cast<size_t>(LEAF_SLOTS); i-- > 0;) // the first is taken from the stack first
                    if (inner.HasChild(i)) load([&] { return Child(inner, i); });
                continue;
            }
            for (size_t i = 0; i < static_cast<size_t>(LEAF_SLOTS); ++i) {
                if (const Location l = node->slots[i].load(std::memory_order_relaxed))
                    element(static_cast<uint64>(h) << 32 | node->page << LEAF_SHIFT | static_cast<uint32>(i), l);
            }
        }
    }
}

} // namespace quna

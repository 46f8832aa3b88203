// The nodes of the index in memory.
#pragma once

#include "qxLss/src/Format.h"
#include "qxUtils/BasicTypes.h"

#include <atomic>
#include <memory>

namespace quna {

struct IndexInner;

// A page of the index. Page p at level 0 holds the element locations of lows p * 256 .. p * 256 + 255, at level k the
// locations of pages p * 256 .. of level k - 1.
//
// Threads: slots of leaves are written by the holder of the turn, slots of inner nodes by the checkpoint, under the
//          index's snapshot mutex; all are read by anyone. `parent` and `own` are guarded by the snapshot mutex.
struct IndexNode {
    IndexNode(uint32 high_, int level_, uint32 page_) : high(high_), page(page_), level(level_) {}

    bool IsLeaf() const { return level == 0; }
    uint64 Key() const { return static_cast<uint64>(high) << 32 | page; }

    const uint32 high;
    const uint32 page; // number at its level
    const int level;
    IndexInner* parent = nullptr;
    Location own = 0; // of the page as last written; 0 = never, or empty
    std::array<std::atomic<Location>, LEAF_SLOTS> slots{};
};

struct IndexLeaf : IndexNode {
    using IndexNode::IndexNode;

    // Under the turn: the identifiers that the open transaction has written.
    uint64 transaction = 0;
    uint64 written[LEAF_SLOTS / 64] = {};

    bool dirty = false;              // changed since the last snapshot; under the turn
    std::atomic<bool> marked{false}; // belongs to the running snapshot and has not been written for it
    std::unique_ptr<std::array<Location, LEAF_SLOTS>> copy; // its state at the snapshot, if it has changed since
};

struct IndexInner : IndexNode {
    using IndexNode::IndexNode;

    // In memory or not.
    bool HasChild(size_t i) const {
        return children[i].load(std::memory_order_relaxed) || slots[i].load(std::memory_order_relaxed);
    }

    uint64 visit = 0; // number of the last snapshot that gathered it; checkpoint only
    std::array<std::atomic<IndexNode*>, LEAF_SLOTS> children{}; // null: not in memory, or no such page
};

} // namespace quna

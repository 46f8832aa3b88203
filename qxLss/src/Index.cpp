#include "qxLss/src/Index.h"

#include "qxLss/src/ZeroPages.h"

#include <algorithm>
#include <bit>
#include <new>

namespace quna {

namespace {

constexpr size_t DIRECTORY_SLOTS = 65536;

// Its user sets every slot to null again before it ends.
template <class T>
struct LazyArray {
    LazyArray() : pages(DIRECTORY_SLOTS * sizeof(T)), p(pages.As<T>()) {
        if (!p) throw std::bad_alloc();
    }
    ~LazyArray() { pages.SetUsed(0); }
    LazyArray(const LazyArray&) = delete;
    LazyArray& operator=(const LazyArray&) = delete;
    ZeroPages pages;
    T* const p;
};

constexpr ssize_t MAX_PAGE_BYTES =
    static_cast<ssize_t>(sizeof(IndexPrefix)) + LEAF_SLOTS * static_cast<ssize_t>(sizeof(Location));

size_t SlotAt(uint32 low, int level) { return low >> (LEAF_SHIFT * level) & (LEAF_SLOTS - 1); }
uint32 PageAt(uint32 low, int level) { return level >= MAX_INDEX_LEVEL ? 0 : low >> (LEAF_SHIFT * (level + 1)); }

// Where the thread has found something last. A leaf stays as long as its index; of an index that is gone nothing is asked.
struct LastLeaf {
    uint64 index = 0; // its number; 0 is none's
    const IndexNode* leaf = nullptr;
};
constinit thread_local LastLeaf t_lastLeaf;

std::atomic<uint64> g_numIndexes{0};

} // namespace

// From high half to its radix: two levels of 65,536.
struct Index::Directory {
    using Entry = std::atomic<HighIndex*>;
    using Chunk = LazyArray<Entry>;
    LazyArray<std::atomic<Chunk*>> top;
    std::vector<std::unique_ptr<Chunk>> chunks; // owns those in `top`, so that nobody has to walk through all of it
};

Index::Index(StoreCore& core)
    : m_core(core), m_number(g_numIndexes.fetch_add(1, std::memory_order_relaxed) + 1),
      m_directory(std::make_unique<Directory>()) {}

Index::~Index() {
    for (const auto& h : m_highs) {
        std::atomic<Directory::Chunk*>& top = m_directory->top.p[h->high >> 16];
        if (Directory::Chunk* const chunk = top.load(std::memory_order_relaxed))
            chunk->p[h->high & 0xFFFF].store(nullptr, std::memory_order_relaxed);
    }
    for (const auto& h : m_highs) m_directory->top.p[h->high >> 16].store(nullptr, std::memory_order_relaxed);
}

HighIndex* Index::FindHigh(uint32 high) const {
    const Directory::Chunk* chunk = m_directory->top.p[high >> 16].load(std::memory_order_acquire);
    return chunk ? chunk->p[high & 0xFFFF].load(std::memory_order_acquire) : nullptr;
}

HighIndex& Index::FindOrAddHigh(uint32 high) {
    if (HighIndex* const found = FindHigh(high)) return *found;
    std::lock_guard lock(m_nodesMutex);
    std::atomic<Directory::Chunk*>& top = m_directory->top.p[high >> 16];
    // The high first: what the destructor makes zero again is found through it.
    m_highs.push_back(std::make_unique<HighIndex>(high));
    try {
        if (!top.load(std::memory_order_relaxed)) {
            m_directory->chunks.push_back(std::make_unique<Directory::Chunk>());
            top.store(m_directory->chunks.back().get(), std::memory_order_release);
        }
    } catch (...) {
        m_highs.pop_back();
        throw;
    }
    top.load(std::memory_order_relaxed)->p[high & 0xFFFF].store(m_highs.back().get(), std::memory_order_release);
    return *m_highs.back();
}

void Index::Import(uint32 high, Location root, int rootLevel, int64 liveElements) {
    HighIndex& h = FindOrAddHigh(high);
    h.storedRootLevel = rootLevel;
    h.liveElements = liveElements;
    h.rootLocation.store(root, std::memory_order_release);
}

std::vector<uint32> Index::AllHighs() const {
    std::lock_guard lock(m_nodesMutex);
    std::vector<uint32> highs;
    for (const auto& h : m_highs) highs.push_back(h->high);
    std::sort(highs.begin(), highs.end());
    return highs;
}

ssize_t Index::NumHighs() const {
    std::lock_guard lock(m_nodesMutex);
    return static_cast<ssize_t>(m_highs.size());
}

// --- loading

IndexNode* Index::MakeNode(uint32 high, int level, uint32 page) const {
    if (level == 0) {
        auto node = std::make_unique<IndexLeaf>(high, level, page);
        IndexLeaf* const result = node.get();
        std::lock_guard lock(m_nodesMutex);
        m_leaves.push_back(std::move(node));
        return result;
    }
    auto node = std::make_unique<IndexInner>(high, level, page);
    IndexInner* const result = node.get();
    std::lock_guard lock(m_nodesMutex);
    m_inners.push_back(std::move(node));
    return result;
}

IndexNode* Index::LoadPage(uint32 high, int level, uint32 page, Location l) const {
    const uint64 key = static_cast<uint64>(high) << 32 | page;
    const octet_t* const packet = LoadPacket(m_core, l, EPacketType::INDEX, key);
    const ssize_t payloadBytes = PayloadBytes(ReadPod<PacketHeader>(packet).info);
    const octet_t* const payload = packet + PACKET_HEADER_BYTES;
    IndexPrefix prefix{};
    if (payloadBytes >= static_cast<ssize_t>(sizeof prefix)) prefix = ReadPod<IndexPrefix>(payload);
    if (prefix.form != 0)
        ThrowCorrupt(m_core, "an index page has form " + std::to_string(prefix.form) + ", this library reads form 0",
                     LocationOffset(l), ADVICE_NEWER);
    ssize_t n = 0;
    for (const uint64 bits : prefix.bitmap) n += std::popcount(bits);
    if (payloadBytes != static_cast<ssize_t>(sizeof prefix) + n * 8 || prefix.level != level || prefix.n != n)
        ThrowCorrupt(m_core,
                     "an index page of level " + std::to_string(prefix.level) + " with " + std::to_string(prefix.n) +
                         " entries in " + std::to_string(payloadBytes) + " bytes was found, expected is level " +
                         std::to_string(level) + " with " + std::to_string(n),
                     LocationOffset(l));

    IndexNode* const node = MakeNode(high, level, page);
    node->own = l;
    const octet_t* p = payload + sizeof prefix;
    for (size_t i = 0; i < static_cast<size_t>(LEAF_SLOTS); ++i) {
        if (!(prefix.bitmap[i / 64] >> (i % 64) & 1)) continue;
        const Location child = ReadPod<Location>(p);
        p += sizeof child;
        if (!m_core.m_segments->IsInside(child))
            ThrowOutside(m_core, "an index page holds a location", child, LocationOffset(l));
        node->slots[i].store(child, std::memory_order_relaxed);
    }
    return node;
}

IndexNode* Index::Root(HighIndex& high) const {
    if (IndexNode* const root = high.root.load(std::memory_order_acquire)) return root;
    if (!high.rootLocation.load(std::memory_order_acquire)) return nullptr;
    std::lock_guard lock(LoadMutex(high.high));
    if (IndexNode* const root = high.root.load(std::memory_order_acquire)) return root;
    IndexNode* const root =
        LoadPage(high.high, high.storedRootLevel, 0, high.rootLocation.load(std::memory_order_relaxed));
    high.root.store(root, std::memory_order_release);
    return root;
}

IndexNode* Index::Child(IndexInner& inner, size_t i) const {
    if (IndexNode* const child = inner.children[i].load(std::memory_order_acquire)) return child;
    if (!inner.slots[i].load(std::memory_order_acquire)) return nullptr;
    const uint32 page = inner.page << LEAF_SHIFT | static_cast<uint32>(i);
    std::lock_guard lock(LoadMutex(page));
    if (IndexNode* const child = inner.children[i].load(std::memory_order_acquire)) return child;
    // The page is not in memory, so no checkpoint writes it and its location stands.
    IndexNode* const child =
        LoadPage(inner.high, inner.level - 1, page, inner.slots[i].load(std::memory_order_relaxed));
    child->parent = &inner;
    inner.children[i].store(child, std::memory_order_release);
    return child;
}

// --- looking up and changing

// Identifiers that are read one after the other are mostly neighbours.
const std::atomic<Location>* Index::Find(Seid seid) const {
    LastLeaf& last = t_lastLeaf;
    if (last.index == m_number && last.leaf->page == seid.low_ >> LEAF_SHIFT && last.leaf->high == seid.high_)
        return &last.leaf->slots[SlotAt(seid.low_, 0)];
    HighIndex* const high = FindHigh(seid.high_);
    if (!high) return nullptr;
    IndexNode* node = Root(*high);
    if (!node || PageAt(seid.low_, node->level) != 0) return nullptr;
    while (!node->IsLeaf()) {
        node = Child(static_cast<IndexInner&>(*node), SlotAt(seid.low_, node->level));
        if (!node) return nullptr;
    }
    last = {m_number, node};
    return &node->slots[SlotAt(seid.low_, 0)];
}

IndexSlot Index::PrepareSlowly(Seid seid) {
    HighIndex& high = FindOrAddHigh(seid.high_);
    IndexNode* const root = Root(high);
    IndexLeaf* leaf = nullptr;
    try {
        leaf = LeafFor(high, seid.low_);
    } catch (...) {
        // A new root without a dirty leaf below it would never be written.
        if (root && high.root.load(std::memory_order_relaxed) != root) ResetRoot(high, *root);
        throw;
    }
    m_lastLeaf = leaf;
    m_lastHigh = &high;
    return {leaf, static_cast<int>(SlotAt(seid.low_, 0)), &high};
}

// Makes it if there is none.
IndexLeaf* Index::LeafFor(HighIndex& high, uint32 low) {
    int level = 0;
    while (PageAt(low, level) != 0) ++level;
    IndexNode* node = high.root.load(std::memory_order_relaxed);
    if (!node || node->level < level) GrowRoot(high, level);
    node = high.root.load(std::memory_order_relaxed);
    while (!node->IsLeaf()) {
        IndexInner& inner = static_cast<IndexInner&>(*node);
        const size_t i = SlotAt(low, node->level);
        IndexNode* const child = Child(inner, i);
        node = child ? child : AddChild(inner, i);
    }
    return static_cast<IndexLeaf*>(node);
}

// Readers may be on their way through the roots that go: these stay in memory, and lead on to the old one.
void Index::ResetRoot(HighIndex& high, IndexNode& root) {
    std::lock_guard lock(m_snapshotMutex);
    root.parent = nullptr;
    high.root.store(&root, std::memory_order_release);
}

// The snapshot mutex keeps a checkpoint that is just writing the old root from missing its new parent.
void Index::GrowRoot(HighIndex& high, int level) {
    IndexNode* old = high.root.load(std::memory_order_relaxed);
    if (!old) {
        IndexNode* const root = MakeNode(high.high, level, 0);
        if (root->IsLeaf()) MarkDirty(static_cast<IndexLeaf&>(*root));
        high.root.store(root, std::memory_order_release);
        return;
    }
    // Of the nodes made here only the new root gets a new leaf below it. Those between are written with a leaf of the old
    // root's; without them all that it leads to would be missing in the next snapshot.
    if (IndexLeaf* const leaf = old->level + 1 < level ? FirstLeafBelow(old) : nullptr) MarkDirty(*leaf);
    while (old->level < level) {
        IndexInner* const root = static_cast<IndexInner*>(MakeNode(high.high, old->level + 1, 0));
        {
            std::lock_guard lock(m_snapshotMutex);
            root->children[0].store(old, std::memory_order_relaxed);
            root->slots[0].store(old->own, std::memory_order_relaxed);
            old->parent = root;
        }
        high.root.store(root, std::memory_order_release);
        old = root;
    }
}

// A new leaf is dirty at once, also if nothing is published in it: the inner nodes made for it, perhaps a new root, are
// written only because a leaf below them is.
IndexNode* Index::AddChild(IndexInner& inner, size_t i) {
    IndexNode* const child = MakeNode(inner.high, inner.level - 1, inner.page << LEAF_SHIFT | static_cast<uint32>(i));
    child->parent = &inner;
    if (child->IsLeaf()) MarkDirty(static_cast<IndexLeaf&>(*child));
    inner.children[i].store(child, std::memory_order_release);
    return child;
}

void Index::MarkDirty(IndexLeaf& leaf) {
    if (leaf.dirty) return;
    leaf.dirty = true;
    m_dirtyLeaves.push_back(&leaf);
}

Location Index::MissingPageOf(Seid seid) const {
    HighIndex* const high = FindHigh(seid.high_);
    if (!high) return 0;
    IndexNode* node = high->root.load(std::memory_order_acquire);
    if (!node) return high->rootLocation.load(std::memory_order_relaxed);
    if (PageAt(seid.low_, node->level) != 0) return 0;
    while (!node->IsLeaf()) {
        IndexInner& inner = static_cast<IndexInner&>(*node);
        const size_t i = SlotAt(seid.low_, node->level);
        node = inner.children[i].load(std::memory_order_acquire);
        if (!node) return inner.slots[i].load(std::memory_order_relaxed);
    }
    return 0;
}

// --- snapshots

void Index::CopyForSnapshot(IndexLeaf& leaf) {
    auto copy = std::make_unique<std::array<Location, LEAF_SLOTS>>();
    for (size_t i = 0; i < static_cast<size_t>(LEAF_SLOTS); ++i)
        (*copy)[i] = leaf.slots[i].load(std::memory_order_relaxed);
    std::lock_guard lock(m_snapshotMutex);
    if (!leaf.marked.load(std::memory_order_relaxed)) return; // written meanwhile
    leaf.copy = std::move(copy);
    leaf.marked.store(false, std::memory_order_relaxed);
}

ssize_t Index::SnapshotBytes() const {
    const ssize_t leaves = static_cast<ssize_t>(m_dirtyLeaves.size());
    // Each leaf may have inner nodes of its own, but for the root.
    return leaves * (PACKET_HEADER_BYTES + MAX_PAGE_BYTES) * (leaves < 1024 ? MAX_INDEX_LEVEL : 2);
}

void Index::BeginSnapshot() {
    ++m_snapshotNumber;
    for (IndexLeaf* leaf : m_dirtyLeaves) {
        leaf->dirty = false;
        leaf->marked.store(true, std::memory_order_relaxed);
    }
    m_snapshotLeaves = std::move(m_dirtyLeaves);
    m_dirtyLeaves.clear();
    std::lock_guard lock(m_nodesMutex);
    for (const auto& h : m_highs) {
        h->snapshotRoot = h->root.load(std::memory_order_acquire); // a reader may have just loaded it
        h->snapshotLive = h->liveElements;
    }
}

void Index::WriteSnapshot(IIndexPageSink& sink) {
    const auto byKey = [](const IndexNode* a, const IndexNode* b) { return a->Key() < b->Key(); };
    std::sort(m_snapshotLeaves.begin(), m_snapshotLeaves.end(), byKey);
    std::vector<IndexInner*> parents;
    for (IndexLeaf* leaf : m_snapshotLeaves) WriteNode(*leaf, sink, parents);
    m_snapshotLeaves.clear();
    while (!parents.empty()) {
        std::vector<IndexInner*> level;
        level.swap(parents);
        std::sort(level.begin(), level.end(), byKey);
        for (IndexInner* inner : level) WriteNode(*inner, sink, parents);
    }
}

void Index::WriteNode(IndexNode& node, IIndexPageSink& sink, std::vector<IndexInner*>& parents) {
    octet_t payload[MAX_PAGE_BYTES];
    ssize_t n = 0;
    {
        std::lock_guard lock(m_snapshotMutex);
        std::unique_ptr<std::array<Location, LEAF_SLOTS>> copy;
        if (node.IsLeaf()) copy = std::move(static_cast<IndexLeaf&>(node).copy);
        n = Encode(node, copy.get(), payload);
        // Only now: who finds no mark changes the leaf at once, without the mutex.
        if (node.IsLeaf()) static_cast<IndexLeaf&>(node).marked.store(false, std::memory_order_release);
    }
    // An empty page needs no packet.
    const Location written = n ? sink.WritePage(node.Key(), payload, n) : 0;

    std::lock_guard lock(m_snapshotMutex);
    if (node.own) sink.PageDied(node.own);
    node.own = written;
    if (!node.parent) return;
    node.parent->slots[node.page & (LEAF_SLOTS - 1)].store(written, std::memory_order_release);
    const HighIndex& high = *FindHigh(node.high);
    if (high.snapshotRoot == &node || node.parent->visit == m_snapshotNumber)
        return; // a parent that has come since is reached through its new leaf, by the next checkpoint
    node.parent->visit = m_snapshotNumber;
    parents.push_back(node.parent);
}

// 0 if there is no location in the node.
ssize_t Index::Encode(const IndexNode& node, const std::array<Location, LEAF_SLOTS>* copy, octet_t* payload) {
    IndexPrefix prefix{};
    prefix.level = static_cast<uint8>(node.level);
    octet_t* p = payload + sizeof prefix;
    for (size_t i = 0; i < static_cast<size_t>(LEAF_SLOTS); ++i) {
        const Location l = copy ? (*copy)[i] : node.slots[i].load(std::memory_order_relaxed);
        if (!l) continue;
        prefix.bitmap[i / 64] |= uint64{1} << (i % 64);
        ++prefix.n;
        std::memcpy(p, &l, sizeof l);
        p += sizeof l;
    }
    std::memcpy(payload, &prefix, sizeof prefix);
    return prefix.n ? p - payload : 0;
}

void Index::GetSnapshotRoot(uint32 high, Location& root, int& rootLevel, int64& liveElements) const {
    const HighIndex* const h = FindHigh(high);
    root = 0;
    rootLevel = 0;
    liveElements = 0;
    if (!h) return;
    liveElements = h->snapshotLive;
    if (h->snapshotRoot) {
        root = h->snapshotRoot->own;
        rootLevel = h->snapshotRoot->level;
    } else {
        // Not in memory at the snapshot, so not changed since it was stored.
        root = h->rootLocation.load(std::memory_order_relaxed);
        rootLevel = h->storedRootLevel;
    }
}

void Index::TouchPage(uint64 key, int level, Location l) {
    const uint32 highNumber = static_cast<uint32>(key >> 32);
    HighIndex* const high = FindHigh(highNumber);
    IndexNode* node = high ? Root(*high) : nullptr;
    if (!node || node->level < level) return;
    // The first low below the page leads to it.
    const uint32 low = level >= MAX_INDEX_LEVEL ? 0 : static_cast<uint32>(key) << (LEAF_SHIFT * (level + 1));
    while (node && node->level > level) node = Child(static_cast<IndexInner&>(*node), SlotAt(low, node->level));
    if (!node || node->own != l || node->page != static_cast<uint32>(key)) return;
    // An inner node is written when a leaf below it is.
    if (IndexLeaf* const leaf = FirstLeafBelow(node)) MarkDirty(*leaf);
}

IndexLeaf* Index::FirstLeafBelow(IndexNode* node) const {
    while (node && !node->IsLeaf()) {
        IndexInner& inner = static_cast<IndexInner&>(*node);
        node = nullptr;
        for (size_t i = 0; !node && i < static_cast<size_t>(LEAF_SLOTS); ++i) node = Child(inner, i);
    }
    return static_cast<IndexLeaf*>(node);
}

} // namespace quna

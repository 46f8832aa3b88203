#include "qxPersistStore/BTreeBulkLoader.h"

#include "qxObject/DollarNew.h"
#include "qxUtils/Assert.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/BTreeBulkLoader";

ssize_t EntriesFor(double fillDegree) {
    QX_ASSERT(0.5 <= fillDegree && fillDegree <= 1);
    return std::lround(fillDegree * static_cast<double>(BTREE_MAX_ENTRIES));
}

// How a row of `count` items is cut into nodes of `usual` items, each with at least `least` and at most `most`. The last
// two share what is left for them when the last alone would have too few.
std::vector<ssize_t> Cut(ssize_t count, ssize_t usual, ssize_t least, ssize_t most) {
    std::vector<ssize_t> sizes(static_cast<std::size_t>(count / usual), usual);
    const ssize_t rest = count % usual;
    if (rest >= least || sizes.empty()) {
        if (rest > 0) sizes.push_back(rest);
    } else if (rest > 0) {
        const ssize_t both = sizes.back() + rest;
        sizes.back() = both <= most ? both : both - both / 2;
        if (both > most) sizes.push_back(both / 2);
    }
    return sizes;
}

cref<void> ReferenceTo(void* node, ssize_t height) {
    cref<void> reference;
    if (height > 0)
        reference.Set(static_cast<InternalNode*>(node));
    else
        reference.Set(static_cast<LeafNode*>(node));
    return reference;
}

// A copy of key and payload at `entry`, or an exception and nothing.
void MakeEntry(const CalculatedBTreeTypeInfo& bi, _KeyAndPayload* entry, const _Key* key, const _Payload* payload) {
    CopyConstructKey(bi, member_key(entry), key);
    bool hasPayload = false;
    try {
        if (!bi.m_payloadType) return;
        ConstructPayload(bi, member_payload(bi, entry));
        hasPayload = true;
        if (payload) AssignPayload(bi, member_payload(bi, entry), payload);
    } catch (...) {
        if (hasPayload && bi.m_payloadType->HasDestruct())
            bi.m_payloadType->DestructVariable(member_payload(bi, entry));
        if (Key(bi).HasDestruct()) Key(bi).DestructVariable(member_key(entry));
        throw;
    }
}

} // namespace

BTreeBulkLoader::BTreeBulkLoader(BPlusTree& tree, double fillDegree)
    : m_tree(tree), m_bi(tree.GetCalculatedBTreeTypeInfo()), m_fill(EntriesFor(fillDegree)) {}

// ---- Leaves ---------------------------------------------------------------------------------------------------------

LeafNode* BTreeBulkLoader::NewLeaf() {
    LeafNode* const leaf = DollarNew<LeafNode>(m_tree.m_bti);
    InitEntrysBuffer(m_bi, leaf);
    if (!m_leaves.empty()) {
        leaf->m_prev = m_leaves.back();
        m_leaves.back()->m_next = leaf;
    }
    m_leaves.push_back(leaf);
    return leaf;
}

bool BTreeBulkLoader::Add(const _Key* key, const _Payload* payload) {
    LeafNode* leaf = m_leaves.empty() ? nullptr : m_leaves.back();
    if (leaf) {
        const _Key* const last = member_key(GetEntry(m_bi, leaf, leaf->m_numKeyEntrys - 1));
        if (!Key(m_bi).Less(last, key)) return false;
    }
    const bool isNew = !leaf || leaf->m_numKeyEntrys == m_fill;
    if (isNew) leaf = NewLeaf();
    try {
        MakeEntry(m_bi, GetEntry(m_bi, leaf, leaf->m_numKeyEntrys), key, payload);
    } catch (...) {
        if (isNew) m_leaves.pop_back(); // no leaf of the row is ever empty
        throw;
    }
    ++leaf->m_numKeyEntrys;
    ++m_size;
    return true;
}

void BTreeBulkLoader::CompleteLastLeaf() {
    m_leaves.back()->m_next.Clear();
    if (m_leaves.size() < 2) return;
    LeafNode* const left = m_leaves[m_leaves.size() - 2];
    LeafNode* const right = m_leaves.back();
    if (right->m_numKeyEntrys >= BTREE_MIN_ENTRIES) return;
    const ssize_t both = left->m_numKeyEntrys + right->m_numKeyEntrys;
    if (both <= BTREE_MAX_ENTRIES) {
        MoveLeafEntries(m_bi, right, 0, left, left->m_numKeyEntrys, right->m_numKeyEntrys);
        right->m_numKeyEntrys = 0;
        left->m_numKeyEntrys = both;
        right->m_prev.Clear();
        left->m_next.Clear();
        m_leaves.pop_back();
        return;
    }
    const ssize_t moved = both / 2 - right->m_numKeyEntrys;
    ShiftLeafEntries(m_bi, right, 0, moved, right->m_numKeyEntrys);
    MoveLeafEntries(m_bi, left, left->m_numKeyEntrys - moved, right, 0, moved);
    left->m_numKeyEntrys -= moved;
    right->m_numKeyEntrys += moved;
}

// ---- Levels above ---------------------------------------------------------------------------------------------------

BTreeBulkLoader::Child BTreeBulkLoader::BuildNode(const Child* children, ssize_t count, ssize_t height) const {
    auto* const node = DollarNew<InternalNode>(m_tree.m_bti);
    InitEntrysBuffer(m_bi, node);
    node->m_ptr = ReferenceTo(children[0].node, height - 1);
    for (ssize_t i = 1; i < count; ++i) {
        _KeyAndCref* const entry = GetEntry(m_bi, node, i - 1);
        CopyConstructKey(m_bi, member_key(entry), member_key(GetEntry(m_bi, children[i].leftmost, 0)));
        StorePref(member_cref(m_bi, entry), ReferenceTo(children[i].node, height - 1));
        ++node->m_numKeyEntrys;
    }
    return {node, children[0].leftmost};
}

std::vector<BTreeBulkLoader::Child> BTreeBulkLoader::BuildLevel(const std::vector<Child>& children,
                                                                ssize_t height) const {
    std::vector<Child> level;
    const Child* next = children.data();
    for (const ssize_t count : Cut(std::ssize(children), m_fill + 1, BTREE_MIN_ENTRIES + 1, BTREE_MAX_ENTRIES + 1)) {
        level.push_back(BuildNode(next, count, height));
        next += count;
    }
    return level;
}

void BTreeBulkLoader::Finish() {
    if (m_leaves.empty()) {
        m_tree.ReplaceNodes(nullptr, nullptr, cref<void>(), -1, 0);
        return;
    }
    CompleteLastLeaf();
    std::vector<Child> level;
    for (LeafNode* leaf : m_leaves) level.push_back({leaf, leaf});
    ssize_t height = 0;
    while (level.size() > 1) level = BuildLevel(level, ++height);
    m_tree.ReplaceNodes(m_leaves.front(), m_leaves.back(), ReferenceTo(level.front().node, height), height, m_size);
    m_leaves.clear();
}

} // namespace quna

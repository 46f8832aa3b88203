// The read path: descents that follow references and change nothing.
//
// The search tree with all entries in chained leaves is Bayer and McCreight's ("Organization and Maintenance of Large
// Ordered Indexes", 1972) in the form that Comer calls B+ tree ("The Ubiquitous B-Tree", 1979).
//
// Separators are lazy: they need not equal any key that is stored. So a key may lead into a leaf all of whose entries lie
// below it, and a bound on a leaf's edge goes on to the next leaf.
#include "qxPersistStore/BPlusTree2.h"
#include "qxPersistStore/src/BTreeSearch.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/xostream.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/BPlusTree2";

} // namespace

// ---- Positions ------------------------------------------------------------------------------------------------------

namespace {

// A scan reads the chain two leaves ahead: the entries of the next leaf, and the header of the one behind, which names its
// entries when the scan gets there.
void PrefetchBehind(const LeafNode* leaf) {
    const LeafNode* const next = leaf->m_next.GetBoundPtr();
    if (!next) return;
    PrefetchKeys(reinterpret_cast<const _KeyAndPayload*>(next->m_entrys.data()), next->m_entrys.size() / 2);
    if (const LeafNode* const behind = next->m_next.GetBoundPtr()) {
        __builtin_prefetch(behind);
        __builtin_prefetch(&behind->m_numKeyEntrys);
        __builtin_prefetch(&behind->m_bti.m_bi);
    }
}

// The first keys of neighbours ascend, or the chain of a damaged tree could lead round in a circle for ever. An empty leaf
// has no place in a chain; the next step from it is refused.
void CheckOrder(const CalculatedBTreeTypeInfo& bi, const LeafNode* left, const LeafNode* right) {
    if (left->m_numKeyEntrys == 0 || right->m_numKeyEntrys == 0 ||
        Key(bi).Less(member_key(GetEntry(bi, left, 0)), member_key(GetEntry(bi, right, 0)))) [[likely]]
        return;
    StringStream text;
    text << "the chain of a tree's leaves is damaged: found the leaf " << GetOid(right) << " behind " << GetOid(left)
         << ", expected one with a larger first key";
    throw RecordException(text.c_str());
}

} // namespace

// The same position when there is no such leaf.
BPlusTree::Iterator BPlusTree::Iterator::BehindLeaf(Iterator i) {
    const CalculatedBTreeTypeInfo& bi = i.m_leaf->GetCalculatedBTreeTypeInfo();
    LeafNode* const leaf = FollowLink(bi, i.m_leaf->m_next);
    if (!leaf) return i;
    PrefetchBehind(leaf);
    CheckOrder(bi, i.m_leaf, leaf);
    return Iterator(leaf, 0);
}

BPlusTree::Iterator BPlusTree::Iterator::BeforeLeaf(Iterator i) {
    const CalculatedBTreeTypeInfo& bi = i.m_leaf->GetCalculatedBTreeTypeInfo();
    LeafNode* const leaf = FollowLink(bi, i.m_leaf->m_prev);
    if (!leaf) return i;
    CheckOrder(bi, leaf, i.m_leaf);
    return Iterator(leaf, leaf->m_numKeyEntrys - 1);
}

void BPlusTree::EnsureChainIfExclusive() const {
    if (!m_rootOfChain || m_rootOfChain == m_root.GetBoundPtr()) [[likely]]
        return;
    if (HaveExclusiveLockedCSpace()) EnsureChain();
}

BPlusTree::Iterator BPlusTree::begin() {
    EnsureChainIfExclusive();
    if (!m_firstLeaf) return Iterator();
    return Iterator(FollowLink(GetCalculatedBTreeTypeInfo(), m_firstLeaf), 0);
}

BPlusTree::Iterator BPlusTree::end() {
    if (m_height < 0) return Iterator();
    EnsureChainIfExclusive();
    QX_ASSERT(m_lastLeaf);
    LeafNode* const leaf = FollowLink(GetCalculatedBTreeTypeInfo(), m_lastLeaf);
    return Iterator(leaf, leaf->m_numKeyEntrys);
}

// ---- Search ---------------------------------------------------------------------------------------------------------

// The leaf into which the key leads. Requires: the tree has nodes.
LeafNode* BPlusTree::FindLeaf(const CalculatedBTreeTypeInfo& bi, const _Key* key) const {
    QX_ASSERT(m_height >= 0);
    void* node = GetRoot();
    QX_ASSERT(node);
    for (ssize_t height = m_height; height > 0; --height) {
        const auto* const inner = cast_ptr<InternalNode>(node);
        node = FollowChildAt(bi, inner, FindChildIndex(bi, inner, key), height - 1);
        QX_ASSERT(node);
    }
    return cast_ptr<LeafNode>(node);
}

namespace {

// A null root means a tree that never had nodes.
bool HasNoNodes(const BPlusTree& tree) {
    if (tree.m_root) return false;
    const ssize_t m_height = tree.m_height;
    QX_ASSERT(m_height == -1);
    return true;
}

// Index j of a leaf as a position: behind the last entry it is the next leaf's first.
BPlusTree::Iterator PositionOf(LeafNode* node, ssize_t j) {
    QX_ASSERT(0 <= j && j <= cast_ptr<LeafNode>(node)->m_numKeyEntrys);
    if (j == node->m_numKeyEntrys)
        if (LeafNode* const next = FollowLink(node->GetCalculatedBTreeTypeInfo(), node->m_next))
            return BPlusTree::Iterator(next, 0);
    return BPlusTree::Iterator(node, j);
}

} // namespace

BPlusTree::Iterator BPlusTree::find(const _Key* key) {
    if (HasNoNodes(*this)) return Iterator();
    EnsureChainIfExclusive();
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    LeafNode* const leaf = FindLeaf(bi, key);
    const ssize_t i = SearchLeaf(bi, leaf, key);
    return i < 0 ? end() : Iterator(leaf, i);
}

const _Payload* BPlusTree::rFind(const _Key* key) const {
    if (HasNoNodes(*this)) return nullptr;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    const LeafNode* const leaf = FindLeaf(bi, key);
    const ssize_t i = SearchLeaf(bi, leaf, key);
    return i < 0 ? nullptr : member_payload(bi, GetEntry(bi, leaf, i));
}

ssize_t BPlusTree::count(const _Key* key) const { return rFind(key) ? 1 : 0; }

const _Payload* BPlusTree::operator[](const _Key* key) const {
    const _Payload* const p = rFind(key);
    QX_ASSERT(p);
    return p;
}

BPlusTree::Iterator BPlusTree::lower_bound(const _Key* key) {
    if (HasNoNodes(*this)) return end();
    EnsureChainIfExclusive();
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    LeafNode* const leaf = FindLeaf(bi, key);
    return PositionOf(leaf, LowerBoundInLeaf(bi, leaf, key));
}

BPlusTree::Iterator BPlusTree::upper_bound(const _Key* key) {
    if (HasNoNodes(*this)) return end();
    EnsureChainIfExclusive();
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    LeafNode* const leaf = FindLeaf(bi, key);
    return PositionOf(leaf, UpperBoundInLeaf(bi, leaf, key));
}

} // namespace quna

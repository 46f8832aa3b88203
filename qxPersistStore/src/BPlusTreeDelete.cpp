// Deletion: one descent that carries each node's neighbours, repairs on the way back up.
//
// As in Bayer and McCreight's deletion a node that falls below half full takes entries from a neighbour or merges with
// one. Here each level hands the next one its two neighbours on that level, which need not have the same parent, and the
// two anchors: the nodes that hold the separators towards them, their nearest common ancestors. So a node can be repaired
// without climbing again; the price is that neighbours are loaded whether or not they are needed.
//
// Balancing works across parents, since the anchor's separator is all that changes; merging needs one parent, which has
// to drop an entry. A neighbour with more than 50 entries is balanced with, the larger of the two, on a tie the right
// one; if neither has more than 50 a merge always fits. It is always the right node that goes: the first leaf stays.
//
// Separators are lazy: deleting a leaf's first key leaves the separator above alone. What counts is that everything left
// of a separator is below it and everything right of it is not.
#include "qxPersistStore/BPlusTree2.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/src/BTreeSearch.h"

#include <algorithm>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/BPlusTree2";

enum class ERepair {
    BALANCE_FROM_RIGHT,
    BALANCE_FROM_LEFT,
    MERGE_INTO_LEFT,
    MERGE_RIGHT_INTO_THIS
};

// Of a node whose neighbours have s1 and s2 entries, 0 for none.
ERepair ChooseRepair(ssize_t s1, ssize_t s2, bool leftHasSameParent) {
    const bool useLeft = s2 < s1;
    const ssize_t maxs = std::max(s1, s2);
    if (maxs > BTREE_MIN_ENTRIES) return useLeft ? ERepair::BALANCE_FROM_LEFT : ERepair::BALANCE_FROM_RIGHT;
    return leftHasSameParent ? ERepair::MERGE_INTO_LEFT : ERepair::MERGE_RIGHT_INTO_THIS;
}

template <class Node>
ssize_t CountOf(const Node* node) {
    return node ? node->m_numKeyEntrys : 0;
}

// A node that the descent carries along.
struct Neighbour {
    void* m_node = nullptr;
    InternalNode* m_anchor = nullptr; // null exactly when the node is
};

// Whether m_ptr leads to the child; an unbound reference is not loaded for the question, since the child is in memory
// and was reached through another one.
bool IsLeftmost(const InternalNode* node, const void* child) { return node->m_ptr.GetBoundPtr() == child; }

// Ends a node that has been emptied.
template <class Node>
void DeleteEmptied(Node* node) {
    MarkDirty(node);
    AsyncPermanentlyDeleteSubTree(node);
}

} // namespace

bool BPlusTree::Delete(const _Key* key) {
    EnsureChain();
    if (m_height == -1) return false;
    void* d = nullptr;
    return RecursiveDelete(m_height, GetRoot(), nullptr, nullptr, nullptr, nullptr, nullptr, d, key);
}

bool BPlusTree::RecursiveDelete(ssize_t height, void* thisNode, void* lNode, void* rNode, InternalNode* lAnchor,
                                InternalNode* rAnchor, InternalNode* parent, void*& deleteNode, const _Key* key) {
    QX_ASSERT(height >= 0);
    QX_ASSERT(thisNode);
    QX_ASSERT((lNode == nullptr) == (lAnchor == nullptr));
    QX_ASSERT((rNode == nullptr) == (rAnchor == nullptr));
    if (height > 0)
        return DeleteInInternalNode(height, cast_ptr<InternalNode>(thisNode), cast_ptr<InternalNode>(lNode),
                                    cast_ptr<InternalNode>(rNode), lAnchor, rAnchor, parent, deleteNode, key);
    return DeleteInLeaf(cast_ptr<LeafNode>(thisNode), cast_ptr<LeafNode>(lNode), cast_ptr<LeafNode>(rNode), lAnchor,
                        rAnchor, parent, deleteNode, key);
}

// ---- Internal nodes -------------------------------------------------------------------------------------------------

namespace {

Neighbour LeftOfChild(const CalculatedBTreeTypeInfo& bi, ssize_t height, InternalNode* iThisNode, ssize_t child,
                      const void* nextNode, InternalNode* ilNode, InternalNode* lAnchor) {
    if (child == -1) {
        QX_ASSERT_TEXT(IsLeftmost(iThisNode, nextNode), "iThisNode->m_ptr.Get() == nextNode");
        if (ilNode) {
            QX_ASSERT(ilNode->m_numKeyEntrys > 0);
            return {FollowNeighbourAt(bi, ilNode, ilNode->m_numKeyEntrys - 1, height - 1), lAnchor};
        }
        QX_ASSERT(!lAnchor);
        return {};
    }
    QX_ASSERT_TEXT(!IsLeftmost(iThisNode, nextNode), "iThisNode->m_ptr.Get() != nextNode");
    QX_ASSERT_TEXT(FollowNeighbourAt(bi, iThisNode, child, height - 1) == nextNode, "member_cref(bi, GetEntry(bi,iThisNode,r.second))->Get() == nextNode");
    return {FollowNeighbourAt(bi, iThisNode, child - 1, height - 1), iThisNode};
}

Neighbour RightOfChild(const CalculatedBTreeTypeInfo& bi, ssize_t height, InternalNode* iThisNode, ssize_t child,
                       InternalNode* irNode, InternalNode* rAnchor) {
    if (child + 1 < iThisNode->m_numKeyEntrys)
        return {FollowNeighbourAt(bi, iThisNode, child + 1, height - 1), iThisNode};
    if (irNode) return {FollowNeighbourAt(bi, irNode, -1, height - 1), rAnchor};
    QX_ASSERT(!rAnchor);
    return {};
}

} // namespace

bool BPlusTree::DeleteInInternalNode(ssize_t height, InternalNode* iThisNode, InternalNode* ilNode,
                                     InternalNode* irNode, InternalNode* lAnchor, InternalNode* rAnchor,
                                     InternalNode* parent, void*& deleteNode, const _Key* key) {
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    const ssize_t child = FindChildIndex(bi, iThisNode, key);
    QX_ASSERT_TEXT(-1 <= child && child < iThisNode->m_numKeyEntrys, "-1 <= r.second && r.second < iThisNode->m_numKeyEntrys");
    void* const nextNode = FollowChildAt(bi, iThisNode, child, height - 1);
    QX_ASSERT(nextNode);
    const Neighbour next_l = LeftOfChild(bi, height, iThisNode, child, nextNode, ilNode, lAnchor);
    const Neighbour next_r = RightOfChild(bi, height, iThisNode, child, irNode, rAnchor);
    void* childDeleteNode = nullptr;
    if (!RecursiveDelete(height - 1, nextNode, next_l.m_node, next_r.m_node, next_l.m_anchor, next_r.m_anchor,
                         iThisNode, childDeleteNode, key))
        return false;
    if (!childDeleteNode) return true;

    // Either the child has merged into its left neighbour, or its right neighbour into it. The leftmost child never has
    // a left neighbour under the same parent.
    const ssize_t deletePos = childDeleteNode != nextNode ? child + 1 : child;
    QX_ASSERT(deletePos != -1);
    QX_ASSERT(0 <= deletePos && deletePos < iThisNode->m_numKeyEntrys);
    DestructInternalEntry(bi, iThisNode, deletePos);
    ShiftInternalEntries(bi, iThisNode, deletePos + 1, deletePos, iThisNode->m_numKeyEntrys - deletePos - 1);
    --iThisNode->m_numKeyEntrys;
    MarkDirty(iThisNode);
    if (!parent) {
        QX_ASSERT(height == m_height);
        QX_ASSERT_TEXT(m_root.Get() == iThisNode, "m_root.Get() == thisNode");
        if (iThisNode->m_numKeyEntrys == 0) ShrinkRoot(iThisNode);
        return true;
    }
    QX_ASSERT(height < m_height);
    if (iThisNode->m_numKeyEntrys >= BTREE_MIN_ENTRIES) return true;

    deleteNode = nullptr;
    switch (ChooseRepair(CountOf(ilNode), CountOf(irNode), lAnchor == parent)) {
    case ERepair::BALANCE_FROM_RIGHT: BalanceInternalRightToLeft(iThisNode, irNode, rAnchor); break;
    case ERepair::BALANCE_FROM_LEFT: BalanceInternalLeftToRight(ilNode, iThisNode, lAnchor); break;
    case ERepair::MERGE_INTO_LEFT:
        MergeInternalRightToLeft(ilNode, iThisNode, lAnchor);
        deleteNode = iThisNode;
        break;
    case ERepair::MERGE_RIGHT_INTO_THIS:
        QX_ASSERT(parent == rAnchor);
        MergeInternalRightToLeft(iThisNode, irNode, rAnchor);
        deleteNode = irNode;
        break;
    }
    return true;
}

// The one remaining child becomes the root. The old root lets go of it first, so that its deletion can't follow.
void BPlusTree::ShrinkRoot(InternalNode* root) {
    SetRoot(root->m_ptr, m_height - 1);
    root->m_ptr.Clear();
    DeleteEmptied(root);
    MarkDirty(this);
}

namespace {

// The index of the anchor's separator between two neighbouring internal nodes.
ssize_t FindSeparator(const CalculatedBTreeTypeInfo& bi, const InternalNode* left, const InternalNode* right,
                      const InternalNode* anchor) {
    const ssize_t nL = left->m_numKeyEntrys;
    const ssize_t ai = FindChildIndex(bi, anchor, member_key(GetEntry(bi, right, 0)));
    QX_ASSERT(0 <= ai && ai < anchor->m_numKeyEntrys);
    const _Key* const anchorKey = member_key(GetEntry(bi, anchor, ai));
    if (nL > 0) QX_ASSERT(Key(bi).Less(member_key(GetEntry(bi,left,nL-1)), anchorKey));
    QX_ASSERT(Key(bi).Less(anchorKey, member_key(GetEntry(bi,right,0))));
    return ai;
}

// Bitwise, between the aligned field and an entry.
void PutCref(const CalculatedBTreeTypeInfo& bi, _KeyAndCref* entry, const cref<void>& source) {
    StorePref(member_cref(bi, entry), source);
}
void TakeCref(const CalculatedBTreeTypeInfo& bi, cref<void>& target, const _KeyAndCref* entry) {
    static_cast<prefbase&>(target) = LoadPref(member_cref(bi, entry));
}

} // namespace

void BPlusTree::MergeInternalRightToLeft(InternalNode* left, InternalNode* right, InternalNode* anchor) {
    QX_ASSERT(left);
    QX_ASSERT(right);
    QX_ASSERT(anchor);
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    const ssize_t nL = left->m_numKeyEntrys;
    const ssize_t nR = right->m_numKeyEntrys;
    QX_ASSERT(0 <= nL && nL < 100);
    QX_ASSERT(1 <= nR && nR < 100);
    const ssize_t nTot = nL + nR + 1;
    QX_ASSERT(50 <= nTot && nTot <= 100);
    const _Key* const anchorKey = member_key(GetEntry(bi, anchor, FindSeparator(bi, left, right, anchor)));
    // A copy: the parent ends its own key when it drops the entry.
    CopyConstructKey(bi, member_key(GetEntry(bi, left, nL)), anchorKey);
    PutCref(bi, GetEntry(bi, left, nL), right->m_ptr);
    MoveInternalEntries(bi, right, 0, left, nL + 1, nR);
    left->m_numKeyEntrys = nTot;
    MarkDirty(left);
    right->m_numKeyEntrys = 0;
    right->m_ptr.Clear();
    DeleteEmptied(right);
}

void BPlusTree::BalanceInternalRightToLeft(InternalNode* left, InternalNode* right, InternalNode* anchor) {
    QX_ASSERT(left);
    QX_ASSERT(right);
    QX_ASSERT(anchor);
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    const ssize_t nL = left->m_numKeyEntrys;
    const ssize_t nR = right->m_numKeyEntrys;
    QX_ASSERT(0 <= nL && nL < 50);
    QX_ASSERT(50 < nR && nR <= 100);
    const ssize_t newNumLeft = (nL + nR) / 2;
    QX_ASSERT(50 <= newNumLeft && newNumLeft <= 100);
    const ssize_t ns = newNumLeft - nL;
    QX_ASSERT(ns > 0);
    const ssize_t newNumRight = nR - ns;
    QX_ASSERT(50 <= newNumRight && newNumRight <= 100);
    _Key* const anchorKey = member_key(GetEntry(bi, anchor, FindSeparator(bi, left, right, anchor)));
    MoveKey(bi, member_key(GetEntry(bi, left, nL)), anchorKey);
    PutCref(bi, GetEntry(bi, left, nL), right->m_ptr);
    MoveInternalEntries(bi, right, 0, left, nL + 1, ns - 1);
    const _KeyAndCref* const pivot = GetEntry(bi, right, ns - 1);
    MoveKey(bi, anchorKey, member_key(pivot));
    TakeCref(bi, right->m_ptr, pivot);
    ShiftInternalEntries(bi, right, ns, 0, newNumRight);
    left->m_numKeyEntrys = newNumLeft;
    right->m_numKeyEntrys = newNumRight;
    MarkDirty(anchor);
    MarkDirty(left);
    MarkDirty(right);
}

void BPlusTree::BalanceInternalLeftToRight(InternalNode* left, InternalNode* right, InternalNode* anchor) {
    QX_ASSERT(left);
    QX_ASSERT(right);
    QX_ASSERT(anchor);
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    const ssize_t nL = left->m_numKeyEntrys;
    const ssize_t nR = right->m_numKeyEntrys;
    QX_ASSERT(50 < nL && nL <= 100);
    QX_ASSERT(1 <= nR && nR < 50);
    const ssize_t newNumRight = (nL + nR) / 2;
    QX_ASSERT(50 <= newNumRight && newNumRight <= 100);
    const ssize_t ns = newNumRight - nR;
    QX_ASSERT(ns > 0);
    const ssize_t newNumLeft = nL - ns;
    QX_ASSERT(50 <= newNumLeft && newNumLeft <= 100);
    _Key* const anchorKey = member_key(GetEntry(bi, anchor, FindSeparator(bi, left, right, anchor)));
    ShiftInternalEntries(bi, right, 0, ns, nR);
    MoveKey(bi, member_key(GetEntry(bi, right, ns - 1)), anchorKey);
    PutCref(bi, GetEntry(bi, right, ns - 1), right->m_ptr);
    MoveInternalEntries(bi, left, newNumLeft + 1, right, 0, ns - 1);
    const _KeyAndCref* const pivot = GetEntry(bi, left, newNumLeft);
    MoveKey(bi, anchorKey, member_key(pivot));
    TakeCref(bi, right->m_ptr, pivot);
    left->m_numKeyEntrys = newNumLeft;
    right->m_numKeyEntrys = newNumRight;
    MarkDirty(anchor);
    MarkDirty(left);
    MarkDirty(right);
}

// ---- Leaves ---------------------------------------------------------------------------------------------------------

bool BPlusTree::DeleteInLeaf(LeafNode* leaf, LeafNode* lNode, LeafNode* rNode, InternalNode* lAnchor,
                             InternalNode* rAnchor, InternalNode* parent, void*& deleteNode, const _Key* key) {
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    const ssize_t nk = leaf->m_numKeyEntrys;
    QX_ASSERT(0 <= nk && nk <= 100);
    const ssize_t deletePos = SearchLeaf(bi, leaf, key);
    if (deletePos == -1) return false;
    QX_ASSERT(0 <= deletePos && deletePos < leaf->m_numKeyEntrys);
    // First, since a mark can be refused: without write access nothing changes.
    MarkDirty(leaf);
    MarkDirty(this);
    DestructLeafEntry(bi, leaf, deletePos);
    ShiftLeafEntries(bi, leaf, deletePos + 1, deletePos, nk - deletePos - 1);
    --leaf->m_numKeyEntrys;
    --m_size;
    deleteNode = nullptr;
    if (m_height == 0) {
        QX_ASSERT(!parent);
        return true;
    }
    if (leaf->m_numKeyEntrys >= BTREE_MIN_ENTRIES) return true;
    QX_ASSERT(parent);
    switch (ChooseRepair(CountOf(lNode), CountOf(rNode), lAnchor == parent)) {
    case ERepair::BALANCE_FROM_RIGHT: BalanceLeafRightToLeft(leaf, rNode, rAnchor); break;
    case ERepair::BALANCE_FROM_LEFT:
        QX_ASSERT(leaf->m_numKeyEntrys > 0);
        BalanceLeafLeftToRight(lNode, leaf, lAnchor);
        break;
    case ERepair::MERGE_INTO_LEFT:
        MergeLeafRightToLeft(lNode, leaf);
        deleteNode = leaf;
        break;
    case ERepair::MERGE_RIGHT_INTO_THIS:
        QX_ASSERT(parent == rAnchor);
        MergeLeafRightToLeft(leaf, rNode);
        deleteNode = rNode;
        break;
    }
    return true;
}

// The two checks on the links in the leaf operations are assignments, and each is tested after it is made. Between
// neighbours they change nothing.

void BPlusTree::MergeLeafRightToLeft(LeafNode* left, LeafNode* right) {
    QX_ASSERT(left);
    QX_ASSERT(right);
    QX_ASSERT(left->m_next = right);
    QX_ASSERT(right->m_prev = left);
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    const ssize_t nL = left->m_numKeyEntrys;
    const ssize_t nR = right->m_numKeyEntrys;
    QX_ASSERT(0 <= nL && nL <= 100);
    QX_ASSERT(0 <= nR && nR <= 100);
    const ssize_t nTot = nL + nR;
    QX_ASSERT(50 <= nTot && nTot <= 100);
    // The links of the leaf behind are checked before entries have two owners.
    LeafNode* const behind = right->m_next.Get();
    MoveLeafEntries(bi, right, 0, left, nL, nR);
    left->m_numKeyEntrys = nTot;
    right->m_numKeyEntrys = 0;
    left->m_next = right->m_next;
    MarkDirty(left);
    if (behind) {
        QX_ASSERT(m_lastLeaf != right);
        QX_ASSERT(right->m_next->m_prev == right);
        behind->m_prev = left;
        MarkDirty(behind);
    } else {
        QX_ASSERT(m_lastLeaf == right);
        m_lastLeaf = left;
        MarkDirty(this);
    }
    right->m_prev.Clear();
    right->m_next.Clear();
    DeleteEmptied(right);
}

void BPlusTree::BalanceLeafRightToLeft(LeafNode* left, LeafNode* right, InternalNode* anchor) {
    QX_ASSERT(left);
    QX_ASSERT(right);
    QX_ASSERT(anchor);
    QX_ASSERT(left->m_next = right);
    QX_ASSERT(right->m_prev = left);
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    const ssize_t nL = left->m_numKeyEntrys;
    const ssize_t nR = right->m_numKeyEntrys;
    QX_ASSERT(0 <= nL && nL < 50);
    QX_ASSERT(50 < nR && nR <= 100);
    const ssize_t newNumLeft = (nL + nR) / 2;
    QX_ASSERT(50 <= newNumLeft && newNumLeft <= 100);
    const ssize_t ns = newNumLeft - nL;
    QX_ASSERT(ns > 0);
    const ssize_t newNumRight = nR - ns;
    QX_ASSERT(50 <= newNumRight && newNumRight <= 100);
    MoveLeafEntries(bi, right, 0, left, nL, ns);
    ShiftLeafEntries(bi, right, ns, 0, newNumRight);
    left->m_numKeyEntrys = newNumLeft;
    right->m_numKeyEntrys = newNumRight;
    MarkDirty(left);
    MarkDirty(right);
    ReplaceKeyInAnchor(anchor, member_key(GetEntry(bi, left, nL)), member_key(GetEntry(bi, right, 0)));
}

void BPlusTree::BalanceLeafLeftToRight(LeafNode* left, LeafNode* right, InternalNode* anchor) {
    QX_ASSERT(left);
    QX_ASSERT(right);
    QX_ASSERT(anchor);
    QX_ASSERT(left->m_next = right);
    QX_ASSERT(right->m_prev = left);
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    const ssize_t nL = left->m_numKeyEntrys;
    const ssize_t nR = right->m_numKeyEntrys;
    QX_ASSERT(50 < nL && nL <= 100);
    QX_ASSERT(0 <= nR && nR < 50);
    const ssize_t newNumRight = (nL + nR) / 2;
    QX_ASSERT(50 <= newNumRight && newNumRight <= 100);
    const ssize_t ns = newNumRight - nR;
    QX_ASSERT(ns > 0);
    const ssize_t newNumLeft = nL - ns;
    QX_ASSERT(50 <= newNumLeft && newNumLeft <= 100);
    ShiftLeafEntries(bi, right, 0, ns, nR);
    MoveLeafEntries(bi, left, newNumLeft, right, 0, ns);
    left->m_numKeyEntrys = newNumLeft;
    right->m_numKeyEntrys = newNumRight;
    MarkDirty(left);
    MarkDirty(right);
    ReplaceKeyInAnchor(anchor, member_key(GetEntry(bi, right, ns)), member_key(GetEntry(bi, right, 0)));
}

// The separator is looked for by order, not by equality: it may be a stale one.
void BPlusTree::ReplaceKeyInAnchor(InternalNode* anchor, const _Key* oldKey, const _Key* newKey) {
    QX_ASSERT(anchor);
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    QX_ASSERT(!Key(bi).Equal(oldKey,newKey));
    const ssize_t i = FindChildIndex(bi, anchor, oldKey);
    QX_ASSERT(0 <= i && i < anchor->m_numKeyEntrys);
    AssignKey(bi, member_key(GetEntry(bi, anchor, i)), newKey);
    MarkDirty(anchor);
    if (i > 0) QX_ASSERT(Key(bi).Less(member_key(GetEntry(bi,anchor,i-1)), newKey));
    if (i + 1 < anchor->m_numKeyEntrys) QX_ASSERT(Key(bi).Less(newKey, member_key(GetEntry(bi,anchor,i+1))));
}

} // namespace quna

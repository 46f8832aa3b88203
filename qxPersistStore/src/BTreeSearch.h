// Searching in one node, by a descriptor that the caller has at hand: a descent uses the tree's, and so touches one
// cache line less in each node.
#pragma once

#include "qxPersistStore/BTreeEntries.h"
#include "qxPersistStore/InternalNode.h"
#include "qxPersistStore/LeafNode.h"
#include "qxPersistStore/src/BTreeNodes.h"
#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"

namespace quna {

// An untyped node whose class the caller knows.
template <class Node>
Node* cast_ptr(void* node) {
    return static_cast<Node*>(node);
}

// The place of a child's reference; -1 names m_ptr.
inline void* PlaceOfChild(const CalculatedBTreeTypeInfo& bi, InternalNode* node, ssize_t i) {
    return i < 0 ? static_cast<void*>(&node->m_ptr) : static_cast<void*>(member_cref(bi, GetEntry(bi, node, i)));
}
inline const void* PlaceOfChild(const CalculatedBTreeTypeInfo& bi, const InternalNode* node, ssize_t i) {
    return PlaceOfChild(bi, const_cast<InternalNode*>(node), i);
}

// Child i, whose height is given, loaded if need be.
inline void* FollowChildAt(const CalculatedBTreeTypeInfo& bi, const InternalNode* node, ssize_t i,
                           ssize_t childHeight) {
    const void* const place = PlaceOfChild(bi, node, i);
    return childHeight > 0 ? static_cast<void*>(FollowChild<InternalNode>(bi, place))
                           : static_cast<void*>(FollowChild<LeafNode>(bi, place));
}
inline void* FollowNeighbourAt(const CalculatedBTreeTypeInfo& bi, const InternalNode* node, ssize_t i,
                               ssize_t childHeight) {
    const void* const place = PlaceOfChild(bi, node, i);
    return childHeight > 0 ? static_cast<void*>(FollowNeighbour<InternalNode>(bi, place))
                           : static_cast<void*>(FollowNeighbour<LeafNode>(bi, place));
}

// The index of the last entry whose key is not above `key`, or -1.
inline ssize_t FindChildIndex(const CalculatedBTreeTypeInfo& bi, const InternalNode* node, const _Key* key) {
    const ssize_t m_numKeyEntrys = node->m_numKeyEntrys;
    QX_ASSERT_IN("src/BPlusTree2", 1 <= m_numKeyEntrys && m_numKeyEntrys <= 100);
    return Key(bi).UpperBound(GetEntry(bi, node, 0), GetKeyAndCrefSize(bi), m_numKeyEntrys, key) - 1;
}

// Asks for eight cache lines of the keys at once, so that the first three steps of a search in a leaf that is not in
// the cache wait together.
inline void PrefetchKeys(const _KeyAndPayload* entries, ssize_t numBytes) {
    const char* p = reinterpret_cast<const char*>(entries);
    for (int i = 0; i < 8; ++i) __builtin_prefetch(p + ((i * numBytes) >> 3));
}

inline ssize_t LowerBoundInLeaf(const CalculatedBTreeTypeInfo& bi, const LeafNode* leaf, const _Key* key) {
    QX_ASSERT_IN("src/BPlusTree2", key);
    const ssize_t m_numKeyEntrys = leaf->m_numKeyEntrys;
    QX_ASSERT_IN("src/BPlusTree2", 0 <= m_numKeyEntrys && m_numKeyEntrys <= 100);
    const _KeyAndPayload* const entries = GetEntry(bi, leaf, 0);
    const ssize_t stride = GetKeyAndPayloadSize(bi);
    PrefetchKeys(entries, m_numKeyEntrys * stride);
    return Key(bi).LowerBound(entries, stride, m_numKeyEntrys, key);
}

inline ssize_t UpperBoundInLeaf(const CalculatedBTreeTypeInfo& bi, const LeafNode* leaf, const _Key* key) {
    QX_ASSERT_IN("src/BPlusTree2", key);
    const ssize_t m_numKeyEntrys = leaf->m_numKeyEntrys;
    QX_ASSERT_IN("src/BPlusTree2", 0 <= m_numKeyEntrys && m_numKeyEntrys <= 100);
    const _KeyAndPayload* const entries = GetEntry(bi, leaf, 0);
    const ssize_t stride = GetKeyAndPayloadSize(bi);
    PrefetchKeys(entries, m_numKeyEntrys * stride);
    return Key(bi).UpperBound(entries, stride, m_numKeyEntrys, key);
}

// The index of the entry with this key, or -1.
inline ssize_t SearchLeaf(const CalculatedBTreeTypeInfo& bi, const LeafNode* leaf, const _Key* key) {
    const ssize_t i = UpperBoundInLeaf(bi, leaf, key) - 1;
    return i >= 0 && Key(bi).Equal(member_key(GetEntry(bi, leaf, i)), key) ? i : -1;
}

} // namespace quna

// Iterators: their positions, their steps in both directions, and what they refuse.
#include "qxUtils/Exceptions.h"
#include "tests/support/ExpectAssertion.h"
#include "tests/support/TestTree.h"
#include "tests/support/TestTreeStore.h"

#include <algorithm>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using Iterator = BPlusTree::Iterator;

constexpr ConstStringZ PATH = "src/BPlusTree2";

IntKey KeyOf(const Iterator& i) { return ValueAt<IntKey>(i.const_deref()); }

void ExpectAt(const Iterator& i, const LeafNode* leaf, ssize_t offset, int line = __builtin_LINE()) {
    if (i.m_leaf != leaf || i.m_offset != offset)
        ADD_FAILURE_AT(__FILE__, line) << "the iterator is at offset " << i.m_offset << " of "
                                       << (i.m_leaf == leaf ? "the" : "another") << " leaf";
}

class BPlusTreeIteration : public TransientTreeTest<> {};

TEST_F(BPlusTreeIteration, WithoutNodesBothEndsAreNullAndZero) {
    ExpectAt(m_tree.begin(), nullptr, 0);
    ExpectAt(m_tree.end(), nullptr, 0);
    EXPECT_TRUE(m_tree.begin() == m_tree.end());
    EXPECT_FALSE(m_tree.begin() != m_tree.end());
    EXPECT_FALSE(m_tree.begin().can_dereference());
    EXPECT_EQ(0, m_tree.size());
    EXPECT_TRUE(m_tree.empty());
}

TEST_F(BPlusTreeIteration, AnEmptiedLeafIsBeginAndEnd) {
    Build(1);
    EXPECT_FALSE(m_tree.empty());
    EXPECT_TRUE(Remove(m_tree, IntKey{10}));
    ExpectAt(m_tree.begin(), &RootLeaf(m_tree), 0);
    EXPECT_TRUE(m_tree.begin() == m_tree.end());
    EXPECT_FALSE(m_tree.begin().can_dereference());
    EXPECT_TRUE(m_tree.empty());
}

TEST_F(BPlusTreeIteration, AllEntriesComeInOrderForwards) {
    Build(Shape(Times(3, Shape(Times(51, 50)))));
    std::vector<IntKey> keys;
    Iterator i = m_tree.begin();
    for (; i != m_tree.end(); i.next()) {
        ASSERT_TRUE(i.can_dereference());
        keys.push_back(KeyOf(i));
        ASSERT_EQ(keys.back() + 1, ValueAt<IntKey>(reinterpret_cast<const char*>(i.const_deref()) + sizeof(IntKey)));
    }
    EXPECT_FALSE(i.can_dereference());
    EXPECT_EQ(AllKeys<IntKey>(m_tree), keys);
    EXPECT_EQ(7650u, keys.size());
}

TEST_F(BPlusTreeIteration, AllEntriesComeInOrderBackwards) {
    Build(Shape(Times(3, Shape(Times(51, 50)))));
    std::vector<IntKey> keys;
    for (Iterator i = m_tree.end(); i != m_tree.begin();) {
        i.prev();
        keys.push_back(KeyOf(i));
    }
    std::reverse(keys.begin(), keys.end());
    EXPECT_EQ(AllKeys<IntKey>(m_tree), keys);
}

TEST_F(BPlusTreeIteration, NextFromTheLastEntryOfALeafIsTheNextLeafsFirst) {
    Build({50, 50});
    Iterator i(Leaves()[0], 49);
    i.next();
    ExpectAt(i, Leaves()[1], 0);
}

TEST_F(BPlusTreeIteration, NextFromTheLastEntryOfAllIsTheEnd) {
    Build({50, 50});
    Iterator i(Leaves()[1], 49);
    EXPECT_TRUE(i.can_dereference());
    i.next();
    ExpectAt(i, Leaves()[1], 50);
    EXPECT_TRUE(i == m_tree.end());
    EXPECT_FALSE(i.can_dereference());
}

TEST_F(BPlusTreeIteration, PrevFromTheEndIsTheLastEntry) {
    Build({50, 50});
    Iterator i = m_tree.end();
    i.prev();
    ExpectAt(i, Leaves()[1], 49);
    EXPECT_EQ(1000u, KeyOf(i));
}

TEST_F(BPlusTreeIteration, PrevFromTheFirstEntryOfALeafIsTheLeafBeforesLast) {
    Build({50, 50});
    Iterator i(Leaves()[1], 0);
    i.prev();
    ExpectAt(i, Leaves()[0], 49);
}

TEST_F(BPlusTreeIteration, PrevFromTheFirstEntryStandsBeforeItAndNextComesBack) {
    Build({50, 50});
    Iterator i = m_tree.begin();
    i.prev();
    ExpectAt(i, Leaves()[0], -1);
    EXPECT_FALSE(i.can_dereference());
    ExpectAssertion("0 <= m_offset && m_offset <= m_leaf->m_numKeyEntrys", PATH, [&] { i.prev(); });
    ExpectAssertion("0 <= m_offset && m_offset < m_leaf->m_numKeyEntrys", PATH, [&] { i.const_deref(); });
    i.next();
    EXPECT_TRUE(i == m_tree.begin());
}

TEST_F(BPlusTreeIteration, NothingIsBehindTheEnd) {
    Build({50, 50});
    Iterator i = m_tree.end();
    ExpectAssertion("-1 <= m_offset && m_offset < m_leaf->m_numKeyEntrys", PATH, [&] { i.next(); });
    ExpectAssertion("0 <= m_offset && m_offset < m_leaf->m_numKeyEntrys", PATH, [&] { i.const_deref(); });
    ExpectAssertion("0 <= m_offset && m_offset < m_leaf->m_numKeyEntrys", PATH, [&] { i.deref(); });
    EXPECT_TRUE(i == m_tree.end());
}

TEST_F(BPlusTreeIteration, AnIteratorWithoutALeafIsRefused) {
    Iterator i = m_tree.end();
    ExpectAssertion("m_leaf", PATH, [&] { i.next(); });
    ExpectAssertion("m_leaf", PATH, [&] { i.prev(); });
    ExpectAssertion("m_leaf", PATH, [&] { i.deref(); });
    ExpectAssertion("m_leaf", PATH, [&] { i.const_deref(); });
}

TEST_F(BPlusTreeIteration, IteratorsAreEqualInBothFields) {
    Build({50, 50});
    LeafNode* const a = Leaves()[0];
    LeafNode* const b = Leaves()[1];
    EXPECT_TRUE(Iterator(a, 1) == Iterator(a, 1));
    EXPECT_TRUE(Iterator(a, 1) != Iterator(a, 2));
    EXPECT_TRUE(Iterator(a, 1) != Iterator(b, 1));
    EXPECT_FALSE(Iterator(a, 1) == Iterator(b, 1));
    ExpectAt(Iterator(), nullptr, 0);
}

TEST_F(BPlusTreeIteration, TheEndNeedsTheLastLeaf) {
    Build({50, 50});
    m_tree.m_lastLeaf.Clear();
    ExpectAssertion("m_lastLeaf", PATH, [&] { m_tree.end(); });
}

TEST_F(BPlusTreeIteration, ItWorksWithoutInternalNodes) {
    Build({50, 50, 50});
    m_tree.m_root.Clear();
    ssize_t n = 0;
    for (Iterator i = m_tree.begin(); i != m_tree.end(); i.next()) ++n;
    EXPECT_EQ(150, n);
}

// The chain of a damaged tree may lead to any leaf. A walk along it ends all the same.
TEST_F(BPlusTreeIteration, AChainThatLeadsBackIsRefused) {
    Build({50, 50, 50});
    const std::vector<LeafNode*> leaves = Leaves();
    for (const std::size_t target : {0u, 1u, 2u}) {
        leaves[2]->m_next = leaves[target];
        ssize_t n = 0;
        const auto walk = [&] {
            for (Iterator i = m_tree.begin(); i.can_dereference(); i.next()) ++n;
        };
        EXPECT_THROW(walk(), RecordException) << target;
        EXPECT_EQ(150, n);
    }
    for (const std::size_t target : {0u, 1u, 2u}) {
        leaves[0]->m_prev = leaves[target];
        ssize_t n = 0;
        const auto walk = [&] {
            for (Iterator i(leaves[2], 49); i.can_dereference(); i.prev()) ++n;
        };
        EXPECT_THROW(walk(), RecordException) << target;
        EXPECT_EQ(150, n);
    }
}

class BPlusTreePersistentIteration : public PersistentTreeTest {};

TEST_F(BPlusTreePersistentIteration, OnlyTheWritingAccessMarksTheLeaf) {
    BPlusTree& tree = BuiltTree({50, 50});
    Iterator i = tree.begin();
    for (; i != tree.end(); i.next()) i.const_deref();
    EXPECT_EQ(Objects{}, DirtyOf(tree));
    i.prev();
    EXPECT_EQ(static_cast<const void*>(i.const_deref()), static_cast<const void*>(i.deref()));
    EXPECT_EQ((Objects{LeavesOf(tree)[1]}), DirtyOf(tree));
}

TEST_F(BPlusTreePersistentIteration, WhatTheWritingAccessChangesIsWritten) {
    BPlusTree& tree = BuiltTree({50, 50});
    const IntKey key = 510;
    const IntKey payload = 12345;
    std::memcpy(reinterpret_cast<char*>(tree.find(AsKey(key)).deref()) + sizeof key, &payload, sizeof payload);
    Reopen();
    EXPECT_EQ(payload, (Get<IntKey>(Tree(), key)));
}

TEST_F(BPlusTreePersistentIteration, AStepOverAnEdgeLoadsTheNextLeafAlone) {
    BuiltTree(Shape(Times(10, 50)));
    Reopen();
    BPlusTree& tree = Tree();
    const ssize_t before = GetNumObjects(m_ps->GetCSpace());
    Iterator i = tree.begin();
    EXPECT_EQ(before + 1, GetNumObjects(m_ps->GetCSpace()));
    for (int n = 0; n < 49; ++n) i.next();
    EXPECT_EQ(before + 1, GetNumObjects(m_ps->GetCSpace()));
    i.next();
    EXPECT_EQ(before + 2, GetNumObjects(m_ps->GetCSpace()));
    EXPECT_EQ(510u, KeyOf(i));
    EXPECT_FALSE(tree.m_root.IsBound()); // no internal node is touched
}

} // namespace
} // namespace quna

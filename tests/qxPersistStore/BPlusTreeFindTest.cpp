// Searching a tree: what is found, what a miss gives, and the checks on the way down.
#include "tests/support/ExpectAssertion.h"
#include "tests/support/TestTree.h"

#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using Iterator = BPlusTree::Iterator;

class BPlusTreeFind : public TransientTreeTest<> {
protected:
    Iterator Find(IntKey key) { return m_tree.find(AsKey(key)); }
    Iterator Lower(IntKey key) { return m_tree.lower_bound(AsKey(key)); }
    Iterator Upper(IntKey key) { return m_tree.upper_bound(AsKey(key)); }
    static IntKey KeyOf(const Iterator& i) { return ValueAt<IntKey>(i.const_deref()); }
};

// ---- Nodes -------------------------------------------------------------------------------------------------------------

TEST_F(BPlusTreeFind, ANodeDescendsBehindTheLastSeparatorThatIsNotAboveTheKey) {
    Build({50, 50, 50}); // separators 510 and 1010
    InternalNode& node = RootNode(m_tree);
    const auto find = [&](IntKey key) { return node.FindChildGivenKey2(AsKey(key)); };
    EXPECT_EQ(-1, find(0).second);
    EXPECT_EQ(-1, find(509).second);
    EXPECT_EQ(0, find(510).second);
    EXPECT_EQ(0, find(1009).second);
    EXPECT_EQ(1, find(1010).second);
    EXPECT_EQ(1, find(~IntKey{0}).second);
    for (IntKey key : {IntKey{0}, IntKey{510}, IntKey{1010}}) {
        const auto [child, index] = find(key);
        EXPECT_EQ(ChildAt(node, index), child);
        EXPECT_EQ(child, node.FindChildGivenKey(AsKey(key)));
        EXPECT_EQ(index, node.FindChildIndexGivenKey(AsKey(key)));
    }
}

TEST_F(BPlusTreeFind, ANodeWithoutEntriesOrWithTooManyIsRefused) {
    Build({50, 50});
    const IntKey key = 10;
    for (ssize_t n : {ssize_t{0}, ssize_t{101}}) {
        RootNode(m_tree).m_numKeyEntrys = n;
        ExpectAssertion("1 <= m_numKeyEntrys && m_numKeyEntrys <= 100", "src/BPlusTree2",
                        [&] { RootNode(m_tree).FindChildGivenKey2(AsKey(key)); });
    }
    RootNode(m_tree).m_numKeyEntrys = 1;
}

TEST_F(BPlusTreeFind, ALeafGivesTheIndexOfAKeyOrMinusOne) {
    Build(5); // 10 ... 50
    const LeafNode& leaf = RootLeaf(m_tree);
    const auto search = [&](IntKey key) { return leaf.SearchLeaf(AsKey(key)); };
    EXPECT_EQ(0, search(10));
    EXPECT_EQ(4, search(50));
    EXPECT_EQ(-1, search(5));
    EXPECT_EQ(-1, search(25));
    EXPECT_EQ(-1, search(55));
    const IntKey key = 30;
    EXPECT_EQ(2, leaf.lower_bound(AsKey(key)));
    EXPECT_EQ(3, leaf.upper_bound(AsKey(key)));
    const IntKey between = 31;
    EXPECT_EQ(3, leaf.lower_bound(AsKey(between)));
    EXPECT_EQ(3, leaf.upper_bound(AsKey(between)));
    const IntKey above = 51;
    EXPECT_EQ(5, leaf.lower_bound(AsKey(above)));
}

TEST_F(BPlusTreeFind, AnEmptyLeafHasNoKey) {
    Build(0);
    const IntKey key = 1;
    EXPECT_EQ(-1, RootLeaf(m_tree).SearchLeaf(AsKey(key)));
    EXPECT_EQ(0, RootLeaf(m_tree).lower_bound(AsKey(key)));
    EXPECT_EQ(0, RootLeaf(m_tree).upper_bound(AsKey(key)));
}

TEST_F(BPlusTreeFind, ALeafChecksTheKeyThenItsCount) {
    Build(1);
    LeafNode& leaf = RootLeaf(m_tree);
    const IntKey key = 1;
    leaf.m_numKeyEntrys = 101;
    ExpectAssertion("key", "src/BPlusTree2", [&] { leaf.SearchLeaf(nullptr); });
    ExpectAssertion("key", "src/BPlusTree2", [&] { leaf.lower_bound(nullptr); });
    ExpectAssertion("key", "src/BPlusTree2", [&] { leaf.upper_bound(nullptr); });
    constexpr ConstStringZ TEXT = "0 <= m_numKeyEntrys && m_numKeyEntrys <= 100";
    ExpectAssertion(TEXT, "src/BPlusTree2", [&] { leaf.SearchLeaf(AsKey(key)); });
    ExpectAssertion(TEXT, "src/BPlusTree2", [&] { leaf.lower_bound(AsKey(key)); });
    ExpectAssertion(TEXT, "src/BPlusTree2", [&] { leaf.upper_bound(AsKey(key)); });
    leaf.m_numKeyEntrys = -1;
    ExpectAssertion(TEXT, "src/BPlusTree2", [&] { leaf.SearchLeaf(AsKey(key)); });
    leaf.m_numKeyEntrys = 1;
}

// ---- The tree ----------------------------------------------------------------------------------------------------------

TEST_F(BPlusTreeFind, WithoutNodesAllIsAMiss) {
    const Iterator i = Find(1);
    EXPECT_EQ(nullptr, i.m_leaf);
    EXPECT_EQ(0, i.m_offset);
    EXPECT_TRUE(i == m_tree.end());
    EXPECT_FALSE(Has(m_tree, IntKey{1}));
    EXPECT_FALSE((Get<IntKey>(m_tree, IntKey{1})));
    EXPECT_TRUE(Lower(1) == m_tree.end());
    EXPECT_TRUE(Upper(1) == m_tree.end());
    EXPECT_EQ(-1, m_tree.m_height);
    EXPECT_EQ(0, m_domain.NumObjects());
}

TEST_F(BPlusTreeFind, EveryKeyOfATreeOfThreeLevelsIsFoundAndNoOther) {
    Build(Shape(Times(51, Shape(Times(51, 50)))));
    ASSERT_EQ(2, m_tree.m_height);
    const auto last = static_cast<IntKey>(51 * 51 * 50) * KEY_STEP;
    for (IntKey key = 10; key <= last; key += 7 * KEY_STEP) {
        ASSERT_EQ(key + 1, (Get<IntKey>(m_tree, key)));
        ASSERT_EQ(1, m_tree.count(AsKey(key)));
        const Iterator i = Find(key);
        ASSERT_TRUE(i.can_dereference());
        ASSERT_EQ(key, KeyOf(i));
        const IntKey between = key + 5;
        ASSERT_EQ(0, m_tree.count(AsKey(between)));
        ASSERT_TRUE(Find(between) == m_tree.end());
    }
    EXPECT_FALSE(Has(m_tree, IntKey{0}));
    EXPECT_FALSE(Has(m_tree, last + 1));
    EXPECT_TRUE(Has(m_tree, last));
}

TEST_F(BPlusTreeFind, StaleSeparatorsLeadToTheRightLeaf) {
    Build({50, 50, 50}, true); // separators 507 and 1007
    for (IntKey key = 10; key <= 1500; key += 10) ASSERT_EQ(key + 1, (Get<IntKey>(m_tree, key)));
    EXPECT_FALSE(Has(m_tree, IntKey{508}));
}

TEST_F(BPlusTreeFind, TheConstIndexNeedsTheKey) {
    Build({50, 50});
    const BPlusTree& tree = m_tree;
    const IntKey key = 510;
    EXPECT_EQ(511u, ValueAt<IntKey>(tree[AsKey(key)]));
    const IntKey absent = 511;
    ExpectAssertion("p", "src/BPlusTree2", [&] { tree[AsKey(absent)]; });
    EXPECT_EQ(100, m_tree.size());
}

TEST_F(BPlusTreeFind, BoundsAreTheFirstEntryNotBelowAndTheFirstAbove) {
    Build({50, 50, 50});
    EXPECT_EQ(10u, KeyOf(Lower(0)));
    EXPECT_EQ(10u, KeyOf(Lower(10)));
    EXPECT_EQ(20u, KeyOf(Upper(10)));
    EXPECT_EQ(20u, KeyOf(Lower(11)));
    EXPECT_EQ(500u, KeyOf(Lower(500)));
    EXPECT_EQ(510u, KeyOf(Upper(500)));
    EXPECT_EQ(1010u, KeyOf(Upper(1000)));
    EXPECT_TRUE(Lower(0) == m_tree.begin());
}

TEST_F(BPlusTreeFind, ABoundAboveALeafButBelowTheNextSeparatorIsTheNextLeafsFirstEntry) {
    Build({50, 50, 50});
    for (const Iterator& i : {Lower(501), Upper(500), Upper(505)}) {
        EXPECT_EQ(&LeafChild(RootNode(m_tree), 0), i.m_leaf);
        EXPECT_EQ(0, i.m_offset);
    }
}

TEST_F(BPlusTreeFind, BoundsAboveAllKeysAreTheEnd) {
    Build({50, 50});
    EXPECT_TRUE(Lower(1001) == m_tree.end());
    EXPECT_TRUE(Upper(1000) == m_tree.end());
    EXPECT_TRUE(Upper(5000) == m_tree.end());
    EXPECT_TRUE(Lower(1000) != m_tree.end());
    EXPECT_EQ(50, Upper(1000).m_offset);
}

TEST_F(BPlusTreeFind, BoundsInAnEmptyLeafAreTheEnd) {
    Build(0);
    EXPECT_TRUE(Lower(1) == m_tree.end());
    EXPECT_TRUE(Upper(1) == m_tree.end());
    EXPECT_TRUE(Find(1) == m_tree.end());
}

TEST_F(BPlusTreeFind, InASetThePayloadsAddressIsBehindTheKey) {
    BPlusTree set{ResolvedInfo<IntKey>()};
    TreeBuilder(set).Build(3);
    const IntKey key = 20;
    const _Payload* const p = set.rFind(AsKey(key));
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(static_cast<const void*>(EntryAt(RootLeaf(set), 2)), static_cast<const void*>(p));
    EXPECT_EQ(1, set.count(AsKey(key)));
}

TEST_F(BPlusTreeFind, SearchingChangesAndMarksNothing) {
    Build({50, 50});
    const ssize_t objects = m_domain.NumObjects();
    const IntKey key = 55;
    Find(key);
    Lower(key);
    Upper(key);
    m_tree.count(AsKey(key));
    wFindRet ret;
    m_tree.wFind(ret, AsKey(key), false);
    EXPECT_EQ(objects, m_domain.NumObjects());
    EXPECT_EQ((std::vector<ssize_t>{50, 50}), LeafCounts(m_tree));
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeFind, ARootWithoutHeightAndAHeightWithoutRootAreRefused) {
    Build({50, 50});
    const IntKey key = 55;
    m_tree.m_height = -1;
    ExpectAssertion("m_height >= 0", "src/BPlusTree2", [&] { m_tree.find(AsKey(key)); });
    ExpectAssertion("m_height >= 0", "src/BPlusTree2", [&] { m_tree.rFind(AsKey(key)); });
    ExpectAssertion("m_height >= 0", "src/BPlusTree2", [&] { m_tree.lower_bound(AsKey(key)); });
    ExpectAssertion("m_height >= 0", "src/BPlusTree2", [&] { m_tree.upper_bound(AsKey(key)); });
    ExpectAssertion("!m_root", "src/BPlusTree2", [&] { PutKey(m_tree, key); });
    m_tree.m_height = 1;
    m_tree.m_root.Clear();
    ExpectAssertion("m_height == -1", "src/BPlusTree2", [&] { m_tree.find(AsKey(key)); });
    ExpectAssertion("m_height == -1", "src/BPlusTree2", [&] { m_tree.rFind(AsKey(key)); });
    ExpectAssertion("m_height == -1", "src/BPlusTree2", [&] { m_tree.lower_bound(AsKey(key)); });
    ExpectAssertion("m_height == -1", "src/BPlusTree2", [&] { m_tree.upper_bound(AsKey(key)); });
    ExpectAssertion("m_root", "src/BPlusTree2", [&] { PutKey(m_tree, key); });
    m_tree.m_height = -2;
    ExpectAssertion("m_height >= 0", "src/BPlusTree2", [&] { PutKey(m_tree, key); });
}

TEST_F(BPlusTreeFind, AMissingChildIsRefused) {
    Build({50, 50});
    RootNode(m_tree).m_ptr.Clear();
    const IntKey key = 55;
    ExpectAssertion("node", "src/BPlusTree2", [&] { m_tree.find(AsKey(key)); });
    ExpectAssertion("node", "src/BPlusTree2", [&] { m_tree.rFind(AsKey(key)); });
    ExpectAssertion("node", "src/BPlusTree2", [&] { m_tree.lower_bound(AsKey(key)); });
    ExpectAssertion("childLeft", "src/BPlusTree2", [&] { PutKey(m_tree, key); });
}

} // namespace
} // namespace quna

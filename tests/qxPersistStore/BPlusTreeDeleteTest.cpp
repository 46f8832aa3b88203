// Deletion: each way in which an underflow is repaired, on leaves and on internal nodes, and what becomes of the nodes.
#include "tests/support/ExpectAssertion.h"
#include "tests/support/TestTree.h"

#include <algorithm>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using Counts = std::vector<ssize_t>;

// An internal node with n entries, over n + 1 leaves of 50.
Shape Inner(int n) { return Shape(Times(n + 1, 50)); }
// A node on the second level with n entries; every child has 50.
Shape Upper(int n) { return Shape(Times(n + 1, Inner(50))); }

// Built with separators that are keys, and with stale ones.
class BPlusTreeDelete : public TransientTreeTest<>, public ::testing::WithParamInterface<bool> {
protected:
    void Make(const Shape& shape) {
        Build(shape, GetParam());
        m_keys = AllKeys<IntKey>(m_tree);
        ExpectSound(m_tree);
    }
    void Make(std::initializer_list<Shape> shape) { Make(Shape(shape)); }

    // The node that is reached by taking these children, 0 being the leftmost.
    void* NodeAt(std::initializer_list<ssize_t> path) {
        void* node = m_tree.m_root.Get();
        for (ssize_t child : path) node = ChildAt(*static_cast<InternalNode*>(node), child - 1);
        return node;
    }
    LeafNode& LeafAt(std::initializer_list<ssize_t> path) { return *static_cast<LeafNode*>(NodeAt(path)); }
    InternalNode& InnerAt(std::initializer_list<ssize_t> path) { return *static_cast<InternalNode*>(NodeAt(path)); }
    ssize_t EntriesOf(std::initializer_list<ssize_t> path) { return InnerAt(path).m_numKeyEntrys; }

    // Deletes a key in the middle of the leaf and checks that it alone has gone.
    void DeleteFrom(std::initializer_list<ssize_t> path, ssize_t index = 25) {
        const IntKey key = KeyAt<IntKey>(LeafAt(path), index);
        EXPECT_TRUE(Remove(m_tree, key));
        std::erase(m_keys, key);
        EXPECT_EQ(m_keys, AllKeys<IntKey>(m_tree));
        EXPECT_FALSE(Has(m_tree, key));
        ExpectSound(m_tree);
        EXPECT_FALSE(Remove(m_tree, key));
    }
    static void ExpectEmptied(const LeafNode& leaf) {
        EXPECT_EQ(0, leaf.m_numKeyEntrys);
        EXPECT_FALSE(leaf.m_prev);
        EXPECT_FALSE(leaf.m_next);
    }
    static void ExpectEmptied(const InternalNode& node) {
        EXPECT_EQ(0, node.m_numKeyEntrys);
        EXPECT_FALSE(node.m_ptr);
    }
    static IntKey FirstKey(const LeafNode& leaf) { return KeyAt<IntKey>(leaf, 0); }

    std::vector<IntKey> m_keys;
};

INSTANTIATE_TEST_SUITE_P(WithFreshAndStaleSeparators, BPlusTreeDelete, ::testing::Bool());

// ---- Without a repair ----------------------------------------------------------------------------------------------------

TEST_P(BPlusTreeDelete, WithoutNodesNothingIsThereToDelete) {
    EXPECT_FALSE(Remove(m_tree, IntKey{1}));
    EXPECT_EQ(-1, m_tree.m_height);
    EXPECT_EQ(0u, m_tree.erase(AsKey(IntKey{1})));
    EXPECT_EQ(0, m_domain.NumObjects());
}

TEST_P(BPlusTreeDelete, TheOnlyKeyLeavesAnEmptyRootLeaf) {
    Make(Shape(1));
    LeafNode* const leaf = &RootLeaf(m_tree);
    EXPECT_TRUE(Remove(m_tree, IntKey{10}));
    EXPECT_EQ(0, m_tree.m_height);
    EXPECT_EQ(0, m_tree.size());
    EXPECT_EQ(leaf, &RootLeaf(m_tree));
    EXPECT_TRUE(m_tree.begin() == m_tree.end());
    ExpectSound(m_tree);
    EXPECT_TRUE(Put(m_tree, IntKey{5}, IntKey{6}));
    EXPECT_EQ(leaf, &RootLeaf(m_tree));
}

TEST_P(BPlusTreeDelete, ARootLeafHasNoLowerBound) {
    Make(Shape(60));
    while (m_tree.size() > 0) DeleteFrom({}, m_tree.size() / 2);
    EXPECT_EQ(0, m_tree.m_height);
}

TEST_P(BPlusTreeDelete, AnAbsentKeyChangesNothing) {
    Make({50, 50, 50});
    for (IntKey key : {0, 15, 505, 5000}) EXPECT_FALSE(Remove(m_tree, key));
    EXPECT_EQ((Counts{50, 50, 50}), LeafCounts(m_tree));
    EXPECT_EQ(150, m_tree.size());
}

TEST_P(BPlusTreeDelete, TheFirstKeyOfALeafGoesWithoutAChangeAbove) {
    Make({51, 51, 51});
    const std::vector<IntKey> separators = Separators<IntKey>(RootNode(m_tree));
    DeleteFrom({1}, 0);
    EXPECT_EQ(separators, Separators<IntKey>(RootNode(m_tree)));
    EXPECT_EQ((Counts{51, 50, 51}), LeafCounts(m_tree));
    EXPECT_TRUE(Has(m_tree, FirstKey(LeafAt({1}))));
    EXPECT_TRUE(Put(m_tree, separators[0], IntKey{1})); // the separator's own key is to the right of it
    EXPECT_EQ(separators[0], FirstKey(LeafAt({1})));
    ExpectSound(m_tree);
}

TEST_P(BPlusTreeDelete, EraseCountsAndTakesAnIterator) {
    Make(Shape(5));
    EXPECT_EQ(1u, m_tree.erase(AsKey(IntKey{20})));
    EXPECT_EQ(0u, m_tree.erase(AsKey(IntKey{20})));
    m_tree.erase(m_tree.begin());
    EXPECT_EQ((std::vector<IntKey>{30, 40, 50}), AllKeys<IntKey>(m_tree));
    ExpectAssertion("0 <= m_offset && m_offset < m_leaf->m_numKeyEntrys", "src/BPlusTree2",
                    [&] { m_tree.erase(m_tree.end()); });
    EXPECT_EQ(3, m_tree.size());
}

// ---- Leaves: balance ------------------------------------------------------------------------------------------------------

TEST_P(BPlusTreeDelete, LeafBalancesFromItsRightSibling) {
    Make({50, 50, 51});
    const IntKey moved = FirstKey(LeafAt({2}));
    DeleteFrom({1});
    EXPECT_EQ((Counts{50, 50, 50}), LeafCounts(m_tree));
    EXPECT_EQ(moved, KeyAt<IntKey>(LeafAt({1}), 49));
    EXPECT_EQ(FirstKey(LeafAt({2})), Separators<IntKey>(RootNode(m_tree))[1]);
}

TEST_P(BPlusTreeDelete, LeafBalancesFromItsLeftSibling) {
    Make({60, 50, 51});
    DeleteFrom({1});
    EXPECT_EQ((Counts{55, 54, 51}), LeafCounts(m_tree));
    EXPECT_EQ(FirstKey(LeafAt({1})), Separators<IntKey>(RootNode(m_tree))[0]);
}

TEST_P(BPlusTreeDelete, LeafBalancesFromTheRightOnATie) {
    Make({51, 50, 51});
    DeleteFrom({1});
    EXPECT_EQ((Counts{51, 50, 50}), LeafCounts(m_tree));
}

TEST_P(BPlusTreeDelete, LeafThatReceivesFromTheRightGetsTheTruncatedHalf) {
    Make({50, 50, 100});
    DeleteFrom({1});
    EXPECT_EQ((Counts{50, 74, 75}), LeafCounts(m_tree)); // 149 in all
}

TEST_P(BPlusTreeDelete, LeafThatReceivesFromTheLeftGetsTheTruncatedHalf) {
    Make({100, 50, 50});
    DeleteFrom({1});
    EXPECT_EQ((Counts{75, 74, 50}), LeafCounts(m_tree));
}

TEST_P(BPlusTreeDelete, LeafBalancesFromItsRightCousin) {
    Make({Inner(50), Shape(Times(1, 60) + Times(50, 50))});
    const std::vector<IntKey> inLeftParent = Separators<IntKey>(InnerAt({0}));
    const std::vector<IntKey> inRightParent = Separators<IntKey>(InnerAt({1}));
    DeleteFrom({0, 50});
    EXPECT_EQ(54, LeafAt({0, 50}).m_numKeyEntrys);
    EXPECT_EQ(55, LeafAt({1, 0}).m_numKeyEntrys);
    EXPECT_EQ((std::vector<IntKey>{FirstKey(LeafAt({1, 0}))}), Separators<IntKey>(RootNode(m_tree)));
    EXPECT_EQ(inLeftParent, Separators<IntKey>(InnerAt({0})));
    EXPECT_EQ(inRightParent, Separators<IntKey>(InnerAt({1})));
}

TEST_P(BPlusTreeDelete, LeafBalancesFromItsLeftCousin) {
    Make({Shape(Times(50, 50) + Times(1, 51)), Inner(50)});
    const std::vector<IntKey> inLeftParent = Separators<IntKey>(InnerAt({0}));
    const std::vector<IntKey> inRightParent = Separators<IntKey>(InnerAt({1}));
    DeleteFrom({1, 0});
    EXPECT_EQ(50, LeafAt({0, 50}).m_numKeyEntrys);
    EXPECT_EQ(50, LeafAt({1, 0}).m_numKeyEntrys);
    EXPECT_EQ((std::vector<IntKey>{FirstKey(LeafAt({1, 0}))}), Separators<IntKey>(RootNode(m_tree)));
    EXPECT_EQ(inLeftParent, Separators<IntKey>(InnerAt({0})));
    EXPECT_EQ(inRightParent, Separators<IntKey>(InnerAt({1})));
}

TEST_P(BPlusTreeDelete, LeafTakesFromTheFullerNeighbourThoughItIsACousin) {
    Make({Shape(Times(50, 50) + Times(1, 70)), Shape(Times(1, 50) + Times(1, 60) + Times(49, 50))});
    DeleteFrom({1, 0});
    EXPECT_EQ(60, LeafAt({0, 50}).m_numKeyEntrys); // 119 in all
    EXPECT_EQ(59, LeafAt({1, 0}).m_numKeyEntrys);
    EXPECT_EQ(60, LeafAt({1, 1}).m_numKeyEntrys);
}

// ---- Leaves: merge --------------------------------------------------------------------------------------------------------

TEST_P(BPlusTreeDelete, LeafMergesIntoItsLeftSibling) {
    Make({50, 50, 50});
    LeafNode& left = LeafAt({0});
    LeafNode& gone = LeafAt({1});
    const std::vector<IntKey> separators = Separators<IntKey>(RootNode(m_tree));
    DeleteFrom({1});
    EXPECT_EQ((Counts{99, 50}), LeafCounts(m_tree));
    EXPECT_EQ(&left, &LeafAt({0}));
    EXPECT_EQ((std::vector<IntKey>{separators[1]}), Separators<IntKey>(RootNode(m_tree)));
    ExpectEmptied(gone);
}

TEST_P(BPlusTreeDelete, TheFirstLeafMergesItsRightSiblingIntoItself) {
    Make({50, 50, 50});
    LeafNode& first = LeafAt({0});
    LeafNode& gone = LeafAt({1});
    const std::vector<IntKey> separators = Separators<IntKey>(RootNode(m_tree));
    DeleteFrom({0});
    EXPECT_EQ((Counts{99, 50}), LeafCounts(m_tree));
    EXPECT_EQ(&first, m_tree.m_firstLeaf.Get());
    EXPECT_EQ((std::vector<IntKey>{separators[1]}), Separators<IntKey>(RootNode(m_tree)));
    ExpectEmptied(gone);
}

TEST_P(BPlusTreeDelete, LeafWithALeftCousinMergesItsRightSiblingIntoItself) {
    Make({Inner(50), Inner(51)});
    LeafNode& stays = LeafAt({1, 0});
    LeafNode& gone = LeafAt({1, 1});
    const std::vector<IntKey> above = Separators<IntKey>(RootNode(m_tree));
    const std::vector<IntKey> before = Separators<IntKey>(InnerAt({1}));
    DeleteFrom({1, 0});
    EXPECT_EQ(&stays, &LeafAt({1, 0}));
    EXPECT_EQ(99, stays.m_numKeyEntrys);
    EXPECT_EQ(50, EntriesOf({1}));
    EXPECT_EQ(std::vector<IntKey>(before.begin() + 1, before.end()), Separators<IntKey>(InnerAt({1})));
    EXPECT_EQ(above, Separators<IntKey>(RootNode(m_tree)));
    ExpectEmptied(gone);
}

TEST_P(BPlusTreeDelete, LeafWithARightCousinMergesIntoItsLeftSibling) {
    Make({Inner(51), Inner(50)});
    LeafNode& gone = LeafAt({0, 51});
    DeleteFrom({0, 51});
    EXPECT_EQ(99, LeafAt({0, 50}).m_numKeyEntrys);
    EXPECT_EQ(50, EntriesOf({0}));
    ExpectEmptied(gone);
}

TEST_P(BPlusTreeDelete, TheLastLeafMergesAndItsLeftSiblingIsTheLastThen) {
    Make({50, 50, 50});
    LeafNode& gone = LeafAt({2});
    DeleteFrom({2});
    EXPECT_EQ(&LeafAt({1}), m_tree.m_lastLeaf.Get());
    EXPECT_EQ((Counts{50, 99}), LeafCounts(m_tree));
    ExpectEmptied(gone);
}

// ---- Internal nodes: balance --------------------------------------------------------------------------------------------------

TEST_P(BPlusTreeDelete, InternalNodeBalancesFromItsRightSibling) {
    Make({Inner(50), Inner(50), Inner(51)});
    DeleteFrom({1, 20});
    EXPECT_EQ(50, EntriesOf({0}));
    EXPECT_EQ(50, EntriesOf({1}));
    EXPECT_EQ(50, EntriesOf({2}));
}

TEST_P(BPlusTreeDelete, InternalNodeBalancesFromItsLeftSibling) {
    Make({Inner(60), Inner(50), Inner(51)});
    DeleteFrom({1, 20});
    EXPECT_EQ(55, EntriesOf({0}));
    EXPECT_EQ(54, EntriesOf({1}));
    EXPECT_EQ(51, EntriesOf({2}));
}

TEST_P(BPlusTreeDelete, InternalNodeBalancesFromTheRightOnATie) {
    Make({Inner(51), Inner(50), Inner(51)});
    DeleteFrom({1, 20});
    EXPECT_EQ(51, EntriesOf({0}));
    EXPECT_EQ(50, EntriesOf({1}));
    EXPECT_EQ(50, EntriesOf({2}));
}

TEST_P(BPlusTreeDelete, InternalNodeThatReceivesGetsTheTruncatedHalf) {
    Make({Inner(50), Inner(50), Inner(100)});
    const std::vector<IntKey> roots = Separators<IntKey>(RootNode(m_tree));
    const std::vector<IntKey> right = Separators<IntKey>(InnerAt({2}));
    DeleteFrom({1, 20});
    EXPECT_EQ(74, EntriesOf({1})); // 149 in all
    EXPECT_EQ(75, EntriesOf({2}));
    // The old separator has come down, and entry 24 of the right node has gone up in its place.
    EXPECT_EQ(roots[1], Separators<IntKey>(InnerAt({1}))[49]);
    EXPECT_EQ(right[24], Separators<IntKey>(RootNode(m_tree))[1]);
    EXPECT_EQ(right[25], Separators<IntKey>(InnerAt({2}))[0]);
}

TEST_P(BPlusTreeDelete, InternalNodeThatReceivesFromTheLeftRotatesThroughTheAnchor) {
    Make({Inner(100), Inner(50), Inner(50)});
    const std::vector<IntKey> roots = Separators<IntKey>(RootNode(m_tree));
    const std::vector<IntKey> left = Separators<IntKey>(InnerAt({0}));
    DeleteFrom({1, 20});
    EXPECT_EQ(75, EntriesOf({0}));
    EXPECT_EQ(74, EntriesOf({1}));
    EXPECT_EQ(left[75], Separators<IntKey>(RootNode(m_tree))[0]);
    EXPECT_EQ(roots[0], Separators<IntKey>(InnerAt({1}))[24]);
    EXPECT_EQ(left[76], Separators<IntKey>(InnerAt({1}))[0]);
}

TEST_P(BPlusTreeDelete, InternalNodeBalancesFromItsRightCousin) {
    Make({Upper(50), Shape(Times(1, Inner(60)) + Times(50, Inner(50)))});
    const std::vector<IntKey> inLeftParent = Separators<IntKey>(InnerAt({0}));
    const std::vector<IntKey> inRightParent = Separators<IntKey>(InnerAt({1}));
    const std::vector<IntKey> roots = Separators<IntKey>(RootNode(m_tree));
    DeleteFrom({0, 50, 20});
    EXPECT_EQ(54, EntriesOf({0, 50}));
    EXPECT_EQ(55, EntriesOf({1, 0}));
    EXPECT_EQ(inLeftParent, Separators<IntKey>(InnerAt({0})));
    EXPECT_EQ(inRightParent, Separators<IntKey>(InnerAt({1})));
    EXPECT_LT(roots[0], Separators<IntKey>(RootNode(m_tree))[0]);
}

TEST_P(BPlusTreeDelete, InternalNodeBalancesFromItsLeftCousin) {
    Make({Shape(Times(50, Inner(50)) + Times(1, Inner(60))), Upper(50)});
    const std::vector<IntKey> inLeftParent = Separators<IntKey>(InnerAt({0}));
    const std::vector<IntKey> inRightParent = Separators<IntKey>(InnerAt({1}));
    const std::vector<IntKey> roots = Separators<IntKey>(RootNode(m_tree));
    DeleteFrom({1, 0, 20});
    EXPECT_EQ(55, EntriesOf({0, 50}));
    EXPECT_EQ(54, EntriesOf({1, 0}));
    EXPECT_EQ(inLeftParent, Separators<IntKey>(InnerAt({0})));
    EXPECT_EQ(inRightParent, Separators<IntKey>(InnerAt({1})));
    EXPECT_GT(roots[0], Separators<IntKey>(RootNode(m_tree))[0]);
}

// ---- Internal nodes: merge ----------------------------------------------------------------------------------------------------

TEST_P(BPlusTreeDelete, InternalNodeMergesIntoItsLeftSiblingToExactlyAHundred) {
    Make({Inner(50), Inner(50), Inner(50)});
    InternalNode& gone = InnerAt({1});
    const std::vector<IntKey> roots = Separators<IntKey>(RootNode(m_tree));
    DeleteFrom({1, 20});
    EXPECT_EQ(100, EntriesOf({0}));
    EXPECT_EQ(50, EntriesOf({1}));
    EXPECT_EQ((std::vector<IntKey>{roots[1]}), Separators<IntKey>(RootNode(m_tree)));
    EXPECT_EQ(roots[0], Separators<IntKey>(InnerAt({0}))[50]); // the separator has come down
    ExpectEmptied(gone);
}

TEST_P(BPlusTreeDelete, TheFirstInternalNodeMergesItsRightSiblingIntoItself) {
    Make({Inner(50), Inner(50), Inner(50)});
    InternalNode& gone = InnerAt({1});
    const std::vector<IntKey> roots = Separators<IntKey>(RootNode(m_tree));
    DeleteFrom({0, 20});
    EXPECT_EQ(100, EntriesOf({0}));
    EXPECT_EQ((std::vector<IntKey>{roots[1]}), Separators<IntKey>(RootNode(m_tree)));
    EXPECT_EQ(roots[0], Separators<IntKey>(InnerAt({0}))[49]);
    ExpectEmptied(gone);
}

TEST_P(BPlusTreeDelete, InternalNodeWithALeftCousinMergesItsRightSiblingIntoItself) {
    Make({Upper(50), Upper(51)});
    InternalNode& stays = InnerAt({1, 0});
    InternalNode& gone = InnerAt({1, 1});
    DeleteFrom({1, 0, 20});
    EXPECT_EQ(&stays, &InnerAt({1, 0}));
    EXPECT_EQ(100, stays.m_numKeyEntrys);
    EXPECT_EQ(50, EntriesOf({1}));
    ExpectEmptied(gone);
}

TEST_P(BPlusTreeDelete, InternalNodeWithARightCousinMergesIntoItsLeftSibling) {
    Make({Upper(51), Upper(50)});
    InternalNode& gone = InnerAt({0, 51});
    DeleteFrom({0, 51, 20});
    EXPECT_EQ(100, EntriesOf({0, 50}));
    EXPECT_EQ(50, EntriesOf({0}));
    ExpectEmptied(gone);
}

// ---- The root ------------------------------------------------------------------------------------------------------------------

TEST_P(BPlusTreeDelete, ARootOfOneEntryGivesWayToItsMergedLeaf) {
    Make({50, 50});
    InternalNode& gone = RootNode(m_tree);
    LeafNode& survivor = LeafAt({0});
    DeleteFrom({1});
    EXPECT_EQ(0, m_tree.m_height);
    EXPECT_EQ(&survivor, &RootLeaf(m_tree));
    EXPECT_EQ(99, survivor.m_numKeyEntrys);
    EXPECT_EQ(&survivor, m_tree.m_firstLeaf.Get());
    EXPECT_EQ(&survivor, m_tree.m_lastLeaf.Get());
    ExpectEmptied(gone);
}

TEST_P(BPlusTreeDelete, ARootOfOneEntryGivesWayToItsMergedInternalNode) {
    Make({Inner(50), Inner(50)});
    InternalNode& gone = RootNode(m_tree);
    InternalNode& survivor = InnerAt({0});
    DeleteFrom({0, 0});
    EXPECT_EQ(1, m_tree.m_height);
    EXPECT_EQ(&survivor, &RootNode(m_tree));
    EXPECT_EQ(100, survivor.m_numKeyEntrys);
    ExpectEmptied(gone);
}

TEST_P(BPlusTreeDelete, OneKeyMayMergeEveryLevelUpToTheRoot) {
    Make({Upper(50), Upper(50)});
    EXPECT_EQ(3, m_tree.m_height);
    DeleteFrom({1, 0, 0});
    EXPECT_EQ(2, m_tree.m_height);
    EXPECT_EQ(100, RootNode(m_tree).m_numKeyEntrys);
    EXPECT_EQ(100, EntriesOf({51}));
}

TEST_P(BPlusTreeDelete, ARootMayKeepASingleEntry) {
    Make({50, 50, 50});
    DeleteFrom({1});
    EXPECT_EQ(1, m_tree.m_height);
    EXPECT_EQ(1, RootNode(m_tree).m_numKeyEntrys);
}

// ---- All of it -----------------------------------------------------------------------------------------------------------------

TEST_P(BPlusTreeDelete, ATreeIsEmptiedFromTheFrontFromTheBackAndFromTheMiddle) {
    for (int way = 0; way < 3; ++way) {
        BPlusTree tree(ResolvedInfo<IntKey, IntKey>());
        TreeBuilder(tree, GetParam()).Build(Shape(Times(3, Inner(50))));
        std::vector<IntKey> keys = AllKeys<IntKey>(tree);
        while (!keys.empty()) {
            const std::size_t i = way == 0 ? 0 : way == 1 ? keys.size() - 1 : keys.size() / 2;
            ASSERT_TRUE(Remove(tree, keys[i]));
            keys.erase(keys.begin() + static_cast<std::ptrdiff_t>(i));
            if (keys.size() % 251 == 0) {
                ASSERT_EQ("", TreeChecker::FaultOf(tree));
                ASSERT_EQ(keys, AllKeys<IntKey>(tree));
            }
        }
        EXPECT_EQ(0, tree.m_height);
        EXPECT_EQ(0, tree.size());
    }
}

TEST(BPlusTreeDeleteValues, EveryKeyAndPayloadEndsOnceWhereverItWasMoved) {
    const int before = CountedValue::s_numLive;
    {
        const TreeDomain domain;
        BPlusTree tree(ResolvedInfo<CountedValue, CountedValue>());
        constexpr uint64 N = 12000; // three levels
        for (uint64 i = 0; i < N; ++i) Put(tree, CountedValue(i * 7919 % N), CountedValue(i));
        EXPECT_EQ(2, tree.m_height);
        for (uint64 i = 0; i < N; ++i) {
            ASSERT_TRUE(Remove(tree, CountedValue(i * 4799 % N)));
            if (i % 500 == 0) {
                ssize_t separators = 0;
                for (const ptr<IPersistable>& node : NodesOf(tree))
                    if (node->GetReflectedClass() == &GetReflectedClass<InternalNode>())
                        separators += static_cast<InternalNode*>(node.m_self)->m_numKeyEntrys;
                ASSERT_EQ(before + 2 * tree.size() + separators, CountedValue::s_numLive);
                ExpectSound(tree);
            }
        }
        EXPECT_EQ(before, CountedValue::s_numLive);
    }
    EXPECT_EQ(before, CountedValue::s_numLive);
}

} // namespace
} // namespace quna

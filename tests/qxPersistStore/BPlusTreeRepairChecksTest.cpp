// The six repairs called by themselves, on nodes that they must refuse: the texts, and their order where a call breaks
// several conditions at once.
#include "tests/support/ExpectAssertion.h"
#include "tests/support/TestTree.h"

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "src/BPlusTree2";

Shape Inner(int n) { return Shape(Times(n + 1, 1)); }

class LeafRepairChecks : public TransientTreeTest<> {
protected:
    void Make(int left, int right, int behind = 50) {
        Build({left, right, behind});
        m_left = Leaves()[0];
        m_right = Leaves()[1];
        m_anchor = &RootNode(m_tree);
    }
    void Merge() { TreeInternals::MergeLeaf(m_tree, m_left, m_right); }
    void FromRight() { TreeInternals::BalanceLeafFromRight(m_tree, m_left, m_right, m_anchor); }
    void FromLeft() { TreeInternals::BalanceLeafFromLeft(m_tree, m_left, m_right, m_anchor); }

    LeafNode* m_left = nullptr;
    LeafNode* m_right = nullptr;
    InternalNode* m_anchor = nullptr;
};

TEST_F(LeafRepairChecks, TheNodesAreChecked) {
    Make(49, 50);
    ExpectAssertion("left", PATH, [&] { TreeInternals::MergeLeaf(m_tree, nullptr, m_right); });
    ExpectAssertion("right", PATH, [&] { TreeInternals::MergeLeaf(m_tree, m_left, nullptr); });
    ExpectAssertion("left", PATH, [&] { TreeInternals::BalanceLeafFromRight(m_tree, nullptr, m_right, m_anchor); });
    ExpectAssertion("right", PATH, [&] { TreeInternals::BalanceLeafFromRight(m_tree, m_left, nullptr, m_anchor); });
    ExpectAssertion("anchor", PATH, [&] { TreeInternals::BalanceLeafFromRight(m_tree, m_left, m_right, nullptr); });
    ExpectAssertion("left", PATH, [&] { TreeInternals::BalanceLeafFromLeft(m_tree, nullptr, m_right, m_anchor); });
    ExpectAssertion("right", PATH, [&] { TreeInternals::BalanceLeafFromLeft(m_tree, m_left, nullptr, m_anchor); });
    ExpectAssertion("anchor", PATH, [&] { TreeInternals::BalanceLeafFromLeft(m_tree, m_left, m_right, nullptr); });
}

TEST_F(LeafRepairChecks, TheChecksOfTheLinksSetTheLinks) {
    const auto repair = [](BPlusTree& tree, int way) {
        LeafNode* const left = LeavesOf(tree)[0];
        LeafNode* const right = LeavesOf(tree)[1];
        left->m_next.Clear();
        right->m_prev.Clear();
        if (way == 0)
            TreeInternals::BalanceLeafFromRight(tree, left, right, &RootNode(tree));
        else
            TreeInternals::BalanceLeafFromLeft(tree, left, right, &RootNode(tree));
        EXPECT_EQ(right, left->m_next.Get());
        EXPECT_EQ(left, right->m_prev.Get());
        EXPECT_EQ("", TreeChecker::FaultOf(tree));
    };
    Build({49, 51, 50});
    repair(m_tree, 0);
    BPlusTree other(ResolvedInfo<IntKey, IntKey>());
    TreeBuilder(other).Build({51, 49, 50});
    repair(other, 1);
}

TEST_F(LeafRepairChecks, MergeChecksTheCounts) {
    Make(50, 50);
    m_left->m_numKeyEntrys = 101;
    m_right->m_numKeyEntrys = 101;
    ExpectAssertion("0 <= nL && nL <= 100", PATH, [&] { Merge(); });
    m_left->m_numKeyEntrys = 50;
    ExpectAssertion("0 <= nR && nR <= 100", PATH, [&] { Merge(); });
    m_right->m_numKeyEntrys = 51;
    ExpectAssertion("50 <= nTot && nTot <= 100", PATH, [&] { Merge(); });
    m_left->m_numKeyEntrys = 24;
    m_right->m_numKeyEntrys = 25;
    ExpectAssertion("50 <= nTot && nTot <= 100", PATH, [&] { Merge(); });
}

TEST_F(LeafRepairChecks, MergeTakesEmptyLeavesWithinTheTotal) {
    Make(50, 50);
    m_right->m_numKeyEntrys = 0;
    m_tree.m_size -= 50;
    Merge();
    EXPECT_EQ(50, m_left->m_numKeyEntrys);
    EXPECT_EQ(Leaves()[2], m_left->m_next.Get());
}

TEST_F(LeafRepairChecks, MergeChecksTheChainBehindTheRightLeaf) {
    Make(50, 50);
    m_tree.m_lastLeaf = m_right;
    ExpectAssertion("m_lastLeaf != right", PATH, [&] { Merge(); });
    BPlusTree broken(ResolvedInfo<IntKey, IntKey>());
    TreeBuilder(broken).Build({50, 50, 50});
    LeavesOf(broken)[2]->m_prev.Clear();
    ExpectAssertion("right->m_next->m_prev == right", PATH,
                    [&] { TreeInternals::MergeLeaf(broken, LeavesOf(broken)[0], LeavesOf(broken)[1]); });
    BPlusTree ends(ResolvedInfo<IntKey, IntKey>());
    TreeBuilder(ends).Build({50, 50});
    ends.m_lastLeaf = LeavesOf(ends)[0];
    ExpectAssertion("m_lastLeaf == right", PATH,
                    [&] { TreeInternals::MergeLeaf(ends, LeavesOf(ends)[0], LeavesOf(ends)[1]); });
}

TEST_F(LeafRepairChecks, BalanceFromTheRightChecksTheCounts) {
    Make(50, 51);
    ExpectAssertion("0 <= nL && nL < 50", PATH, [&] { FromRight(); });
    m_left->m_numKeyEntrys = 49;
    m_right->m_numKeyEntrys = 50;
    ExpectAssertion("50 < nR && nR <= 100", PATH, [&] { FromRight(); });
    m_right->m_numKeyEntrys = 101;
    ExpectAssertion("50 < nR && nR <= 100", PATH, [&] { FromRight(); });
    m_left->m_numKeyEntrys = 10;
    m_right->m_numKeyEntrys = 60;
    ExpectAssertion("50 <= newNumLeft && newNumLeft <= 100", PATH, [&] { FromRight(); });
}

TEST_F(LeafRepairChecks, BalanceFromTheLeftChecksTheCounts) {
    Make(50, 49);
    ExpectAssertion("50 < nL && nL <= 100", PATH, [&] { FromLeft(); });
    m_left->m_numKeyEntrys = 51;
    m_right->m_numKeyEntrys = 50;
    ExpectAssertion("0 <= nR && nR < 50", PATH, [&] { FromLeft(); });
    m_left->m_numKeyEntrys = 60;
    m_right->m_numKeyEntrys = 10;
    ExpectAssertion("50 <= newNumRight && newNumRight <= 100", PATH, [&] { FromLeft(); });
}

// ---- The anchor -----------------------------------------------------------------------------------------------------------

TEST_F(LeafRepairChecks, AKeyIsReplacedAtTheLastSeparatorThatIsNotAboveTheOldOne) {
    Build({50, 50, 50, 50}, true); // separators 507, 1007 and 1507
    m_anchor = &RootNode(m_tree);
    const auto replace = [&](IntKey oldKey, IntKey newKey) {
        TreeInternals::ReplaceKeyInAnchor(m_tree, m_anchor, AsKey(oldKey), AsKey(newKey));
    };
    replace(1010, 1100);
    EXPECT_EQ((std::vector<IntKey>{507, 1100, 1507}), Separators<IntKey>(*m_anchor));
    replace(1100, 1050); // the very key
    EXPECT_EQ((std::vector<IntKey>{507, 1050, 1507}), Separators<IntKey>(*m_anchor));
    replace(9999, 1600);
    EXPECT_EQ((std::vector<IntKey>{507, 1050, 1600}), Separators<IntKey>(*m_anchor));
}

TEST_F(LeafRepairChecks, AReplacedKeyIsCheckedAgainstItsNeighbours) {
    Build({50, 50, 50, 50});
    m_anchor = &RootNode(m_tree);
    const auto replace = [&](InternalNode* anchor, IntKey oldKey, IntKey newKey) {
        TreeInternals::ReplaceKeyInAnchor(m_tree, anchor, AsKey(oldKey), AsKey(newKey));
    };
    ExpectAssertion("anchor", PATH, [&] { replace(nullptr, 5, 5); });
    ExpectAssertion("!Key(bi).Equal(oldKey,newKey)", PATH, [&] { replace(m_anchor, 5, 5); });
    ExpectAssertion("0 <= i && i < anchor->m_numKeyEntrys", PATH, [&] { replace(m_anchor, 5, 6); });
    ExpectAssertion("Key(bi).Less(member_key(GetEntry(bi,anchor,i-1)), newKey)", PATH,
                    [&] { replace(m_anchor, 1010, 510); });
    SetKeyAt<IntKey>(*m_anchor, 1, 1010);
    ExpectAssertion("Key(bi).Less(newKey, member_key(GetEntry(bi,anchor,i+1)))", PATH,
                    [&] { replace(m_anchor, 1010, 1510); });
    SetKeyAt<IntKey>(*m_anchor, 1, 1010);
    EXPECT_EQ((std::vector<IntKey>{510, 1010, 1510}), Separators<IntKey>(*m_anchor));
}

// ---- Internal nodes -------------------------------------------------------------------------------------------------------

class InternalRepairChecks : public TransientTreeTest<> {
protected:
    void Make(int left, int right) {
        Build({Inner(left), Inner(right), Inner(50)});
        m_anchor = &RootNode(m_tree);
        m_left = &InternalChild(*m_anchor, -1);
        m_right = &InternalChild(*m_anchor, 0);
    }
    void Merge() { TreeInternals::MergeInternal(m_tree, m_left, m_right, m_anchor); }
    void FromRight() { TreeInternals::BalanceInternalFromRight(m_tree, m_left, m_right, m_anchor); }
    void FromLeft() { TreeInternals::BalanceInternalFromLeft(m_tree, m_left, m_right, m_anchor); }
    // Calls the three, each on counts that it takes, and expects the text of all.
    void ExpectFromAll(const std::string& text, const std::function<void()>& damage) {
        const auto expect = [&](int left, int right, auto repair) {
            m_tree.clear();
            Make(left, right);
            damage();
            ExpectAssertion(text, PATH, [&] { (this->*repair)(); });
        };
        expect(49, 50, &InternalRepairChecks::Merge);
        expect(49, 51, &InternalRepairChecks::FromRight);
        expect(51, 49, &InternalRepairChecks::FromLeft);
    }

    InternalNode* m_left = nullptr;
    InternalNode* m_right = nullptr;
    InternalNode* m_anchor = nullptr;
};

TEST_F(InternalRepairChecks, TheNodesAreChecked) {
    ExpectFromAll("left", [&] {
        m_left = nullptr;
        m_right = nullptr;
    });
    ExpectFromAll("right", [&] {
        m_right = nullptr;
        m_anchor = nullptr;
    });
    ExpectFromAll("anchor", [&] { m_anchor = nullptr; });
}

TEST_F(InternalRepairChecks, TheSeparatorMustLieBetweenTheTwo) {
    // In front of all separators.
    ExpectFromAll("0 <= ai && ai < anchor->m_numKeyEntrys", [&] { SetKeyAt<IntKey>(*m_anchor, 0, 100000); });
    // Not above the left node's last key.
    ExpectFromAll("Key(bi).Less(member_key(GetEntry(bi,left,nL-1)), anchorKey)",
                  [&] { SetKeyAt<IntKey>(*m_anchor, 0, KeyAt<IntKey>(*m_left, m_left->m_numKeyEntrys - 1)); });
    // Not below the right node's first key.
    ExpectFromAll("Key(bi).Less(anchorKey, member_key(GetEntry(bi,right,0)))",
                  [&] { SetKeyAt<IntKey>(*m_anchor, 0, KeyAt<IntKey>(*m_right, 0)); });
}

TEST_F(InternalRepairChecks, MergeChecksTheCounts) {
    Make(50, 50);
    m_left->m_numKeyEntrys = 100;
    ExpectAssertion("0 <= nL && nL < 100", PATH, [&] { Merge(); });
    m_left->m_numKeyEntrys = 50;
    m_right->m_numKeyEntrys = 0;
    ExpectAssertion("1 <= nR && nR < 100", PATH, [&] { Merge(); });
    m_right->m_numKeyEntrys = 100;
    ExpectAssertion("1 <= nR && nR < 100", PATH, [&] { Merge(); });
    m_right->m_numKeyEntrys = 50;
    ExpectAssertion("50 <= nTot && nTot <= 100", PATH, [&] { Merge(); }); // 101 with the separator
    m_left->m_numKeyEntrys = 24;
    m_right->m_numKeyEntrys = 24;
    ExpectAssertion("50 <= nTot && nTot <= 100", PATH, [&] { Merge(); });
}

TEST_F(InternalRepairChecks, ANodeWithoutEntriesMayTakeAnother) {
    Make(1, 49);
    void* const child = ChildAt(*m_left, -1);
    m_left->m_numKeyEntrys = 0;
    Merge();
    EXPECT_EQ(50, m_left->m_numKeyEntrys);
    EXPECT_EQ(child, ChildAt(*m_left, -1));
    EXPECT_EQ(KeyAt<IntKey>(*m_anchor, 0), KeyAt<IntKey>(*m_left, 0));
}

TEST_F(InternalRepairChecks, BalanceFromTheRightChecksTheCounts) {
    Make(50, 51);
    ExpectAssertion("0 <= nL && nL < 50", PATH, [&] { FromRight(); });
    m_left->m_numKeyEntrys = 49;
    m_right->m_numKeyEntrys = 50;
    ExpectAssertion("50 < nR && nR <= 100", PATH, [&] { FromRight(); });
    m_left->m_numKeyEntrys = 10;
    m_right->m_numKeyEntrys = 51;
    ExpectAssertion("50 <= newNumLeft && newNumLeft <= 100", PATH, [&] { FromRight(); });
}

TEST_F(InternalRepairChecks, BalanceFromTheLeftChecksTheCounts) {
    Make(50, 49);
    ExpectAssertion("50 < nL && nL <= 100", PATH, [&] { FromLeft(); });
    m_left->m_numKeyEntrys = 101;
    ExpectAssertion("50 < nL && nL <= 100", PATH, [&] { FromLeft(); });
    m_left->m_numKeyEntrys = 51;
    m_right->m_numKeyEntrys = 0;
    ExpectAssertion("1 <= nR && nR < 50", PATH, [&] { FromLeft(); });
    m_right->m_numKeyEntrys = 50;
    ExpectAssertion("1 <= nR && nR < 50", PATH, [&] { FromLeft(); });
    m_right->m_numKeyEntrys = 10;
    ExpectAssertion("50 <= newNumRight && newNumRight <= 100", PATH, [&] { FromLeft(); });
}

// ---- The descent ----------------------------------------------------------------------------------------------------------

class DescentChecks : public TransientTreeTest<> {
protected:
    struct Frame {
        ssize_t height = 0;
        void* node = nullptr;
        void* left = nullptr;
        void* right = nullptr;
        InternalNode* leftAnchor = nullptr;
        InternalNode* rightAnchor = nullptr;
        InternalNode* parent = nullptr;
        IntKey key = 10;
    };
    bool Call(const Frame& f) {
        void* deleteNode = nullptr;
        return TreeInternals::RecursiveDelete(m_tree, f.height, f.node, f.left, f.right, f.leftAnchor, f.rightAnchor,
                                              f.parent, deleteNode, AsKey(f.key));
    }
    void ExpectFault(const std::string& text, const Frame& frame) {
        ExpectAssertion(text, PATH, [&] { Call(frame); });
    }
};

TEST_F(DescentChecks, ANodeItsNeighboursAndItsAnchorsAreChecked) {
    Build({50, 50});
    LeafNode* const leaf = Leaves()[0];
    InternalNode* const root = &RootNode(m_tree);
    ExpectFault("height >= 0", {.height = -1});
    ExpectFault("thisNode", {.height = 0});
    ExpectFault("(lNode == nullptr) == (lAnchor == nullptr)", {.node = leaf, .left = leaf});
    ExpectFault("(lNode == nullptr) == (lAnchor == nullptr)", {.node = leaf, .leftAnchor = root, .rightAnchor = root});
    ExpectFault("(rNode == nullptr) == (rAnchor == nullptr)", {.node = leaf, .right = leaf});
    ExpectFault("(rNode == nullptr) == (rAnchor == nullptr)", {.node = leaf, .rightAnchor = root});
}

TEST_F(DescentChecks, ARootLeafHasNoParentAndEveryOtherHasOne) {
    Build(5);
    LeafNode* const leaf = &RootLeaf(m_tree);
    InternalNode parent(m_tree.m_bti);
    ExpectFault("!parent", {.node = leaf, .parent = &parent, .key = 10});
    BPlusTree& tree = m_tree;
    tree.clear();
    Build({50, 50});
    ExpectFault("parent", {.node = Leaves()[0], .key = 20});
}

TEST_F(DescentChecks, ALeafWithAnImpossibleCountIsRefused) {
    Build({50, 50});
    Leaves()[0]->m_numKeyEntrys = 101;
    ExpectAssertion("0 <= nk && nk <= 100", PATH, [&] { Remove(m_tree, IntKey{10}); });
    Leaves()[0]->m_numKeyEntrys = 50;
}

TEST_F(DescentChecks, AMergeNeedsANeighbourUnderTheSameParent) {
    Build({50, 50});
    InternalNode other(m_tree.m_bti);
    ExpectFault("parent == rAnchor",
                {.node = Leaves()[0], .right = Leaves()[1], .rightAnchor = &other, .parent = &RootNode(m_tree)});
}

TEST_F(DescentChecks, ChildrenMustBeThereAndStandOnce) {
    Build({50, 50});
    InternalNode& root = RootNode(m_tree);
    const cref<void> first = root.m_ptr;
    StorePref(CrefPlace(root, 0), first);
    ExpectAssertion("iThisNode->m_ptr.Get() != nextNode", PATH, [&] { Remove(m_tree, IntKey{510}); });
    root.m_ptr.Clear();
    ExpectAssertion("nextNode", PATH, [&] { Remove(m_tree, IntKey{10}); });
}

TEST_F(DescentChecks, ALeftNeighbourHasEntries) {
    Build({Inner(50), Inner(50)});
    InternalChild(RootNode(m_tree), -1).m_numKeyEntrys = 0;
    const IntKey key = KeyAt<IntKey>(LeafChild(InternalChild(RootNode(m_tree), 0), -1), 0);
    ExpectAssertion("ilNode->m_numKeyEntrys > 0", PATH, [&] { Remove(m_tree, key); });
    InternalChild(RootNode(m_tree), -1).m_numKeyEntrys = 50;
}

TEST_F(DescentChecks, AChildOfTheWrongClassIsRefusedEachTime) {
    Build({50, 50});
    m_tree.m_height = 2; // so the leaves are taken for internal nodes
    const IntKey key(10);
    for (int i = 0; i < 3; ++i) ExpectAssertion("node", PATH, [&] { m_tree.find(AsKey(key)); });
    m_tree.m_height = 1;
    EXPECT_NE(m_tree.end(), m_tree.find(AsKey(key)));
}

TEST_F(DescentChecks, TheTopmostNodeIsTheRootAtTheTreesHeight) {
    Build({50, 50});
    void* const root = m_tree.m_root.Get();
    m_tree.m_height = 2;
    ExpectFault("height == m_height", {.height = 1, .node = root, .key = 10});
    m_tree.clear();
    Build({50, 50});
    void* const second = m_tree.m_root.Get();
    m_tree.m_root.Set(Leaves()[0]);
    ExpectFault("m_root.Get() == thisNode", {.height = 1, .node = second, .key = 10});
    m_tree.m_root.Set(static_cast<InternalNode*>(second));
}

TEST_F(DescentChecks, ANodeWithAParentStandsBelowTheRoot) {
    Build({50, 50});
    InternalNode parent(m_tree.m_bti);
    ExpectFault("height < m_height", {.height = 1, .node = m_tree.m_root.Get(), .parent = &parent, .key = 10});
}

} // namespace
} // namespace quna

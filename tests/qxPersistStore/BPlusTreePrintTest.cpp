// The two printed forms, the number of nodes, and what Validate finds and what it deliberately does not.
#include "qxUtils/xostream.h"
#include "tests/support/ExpectAssertion.h"
#include "tests/support/TestTree.h"
#include "tests/support/TestTreeStore.h"

#include <string>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "src/BPlusTree2";

std::string Printed(const BPlusTree& tree) {
    StringStream os;
    tree.Write(os);
    return os.c_str();
}
std::string PrintedNodes(const BPlusTree& tree) {
    StringStream os;
    TreeInternals::WriteNode(tree, os, tree.m_height, tree.m_root.Get());
    return os.c_str();
}

class BPlusTreePrint : public TransientTreeTest<> {};

TEST_F(BPlusTreePrint, ATreeWithoutEntriesIsTwoBraces) {
    EXPECT_EQ("{}", Printed(m_tree));
    Build(0);
    EXPECT_EQ("{}", Printed(m_tree));
}

TEST_F(BPlusTreePrint, AMapPrintsKeysAndPayloadsOneALine) {
    Build(2);
    EXPECT_EQ("\n{\n    10 : 11\n    20 : 21\n}", Printed(m_tree));
}

TEST_F(BPlusTreePrint, ASetPrintsKeysAlone) {
    BPlusTree set(ResolvedInfo<IntKey>());
    TreeBuilder(set).Build(2);
    EXPECT_EQ("\n{\n    10\n    20\n}", Printed(set));
}

TEST_F(BPlusTreePrint, TheFlatFormFollowsTheChainOfLeaves) {
    Build({50, 50});
    std::string expected = "\n{\n";
    for (int key = 10; key <= 1000; key += 10)
        expected += "    " + std::to_string(key) + " : " + std::to_string(key + 1) + "\n";
    EXPECT_EQ(expected + "}", Printed(m_tree));
}

TEST_F(BPlusTreePrint, TheIndentationAddsToThatOfTheStream) {
    Build(1);
    StringStream os;
    {
        const Indenter indenter(os, 2);
        m_tree.Write(os);
    }
    EXPECT_STREQ("\n  {\n      10 : 11\n  }", os.c_str());
    EXPECT_EQ(0, os.GetIndentation());
}

TEST_F(BPlusTreePrint, TheNodesFormShowsChildrenBetweenKeys) {
    Build({1, 2});
    EXPECT_EQ("{\n"
              "    {\n"
              "        10 --> 11\n"
              "    }\n"
              "    20\n"
              "    {\n"
              "        20 --> 21\n"
              "        30 --> 31\n"
              "    }\n"
              "}\n",
              PrintedNodes(m_tree));
}

TEST_F(BPlusTreePrint, TheNodesFormOfASetHasNoArrows) {
    BPlusTree set(ResolvedInfo<IntKey>());
    TreeBuilder(set).Build(1);
    EXPECT_EQ("{\n    10\n}\n", PrintedNodes(set));
}

TEST_F(BPlusTreePrint, TheNodesFormOfAnEmptyLeafIsEmptyBraces) {
    Build(0);
    EXPECT_EQ("{\n}\n", PrintedNodes(m_tree));
}

TEST_F(BPlusTreePrint, TheNodesFormChecksNodesAndCounts) {
    Build({50, 50});
    StringStream os;
    ExpectAssertion("node", PATH, [&] { TreeInternals::WriteNode(m_tree, os, 0, nullptr); });
    Leaves()[0]->m_numKeyEntrys = 101;
    ExpectAssertion("0 <= nk && nk <= 100", PATH, [&] { TreeInternals::WriteNode(m_tree, os, 0, Leaves()[0]); });
    Leaves()[0]->m_numKeyEntrys = 50;
    RootNode(m_tree).m_numKeyEntrys = 0;
    ExpectAssertion("1 <= nk && nk <= 100", PATH, [&] { TreeInternals::WriteNode(m_tree, os, 1, &RootNode(m_tree)); });
    RootNode(m_tree).m_numKeyEntrys = 1;
}

// ---- Counting nodes -------------------------------------------------------------------------------------------------------

TEST_F(BPlusTreePrint, TheNodesOfAllLevelsAreCounted) {
    EXPECT_EQ(0, m_tree.GetNumNodes());
    Build(0);
    EXPECT_EQ(1, m_tree.GetNumNodes());
    m_tree.clear();
    EXPECT_EQ(0, m_tree.GetNumNodes());
    Build({1, 1, 1});
    EXPECT_EQ(4, m_tree.GetNumNodes());
    m_tree.clear();
    Build({{1, 1}, {1, 1, 1}});
    EXPECT_EQ(8, m_tree.GetNumNodes());
}

TEST_F(BPlusTreePrint, CountingChecksNodesAndCounts) {
    Build({50, 50});
    ExpectAssertion("node", PATH, [&] { TreeInternals::NumNodes(m_tree, 0, nullptr); });
    RootNode(m_tree).m_numKeyEntrys = 0;
    ExpectAssertion("1 <= nk && nk <= 100", PATH, [&] { m_tree.GetNumNodes(); });
    RootNode(m_tree).m_numKeyEntrys = 1;
}

// ---- Validate -------------------------------------------------------------------------------------------------------------

class BPlusTreeValidate : public TransientTreeTest<> {
protected:
    void ExpectFault(const std::string& text, int line = __builtin_LINE()) {
        ExpectAssertion(
            text, PATH, [&] { m_tree.Validate(); }, __FILE__, line);
    }
};

TEST_F(BPlusTreeValidate, AcceptsTreesWithoutNodesAndSmallRoots) {
    m_tree.Validate();
    for (const Shape& shape : {Shape(0), Shape(1), Shape(100), Shape({50, 50}), Shape(Times(101, 100))}) {
        m_tree.clear();
        Build(shape);
        m_tree.Validate();
    }
}

TEST_F(BPlusTreeValidate, FindsAMissingNodeAndAHeightBelowZero) {
    Build({50, 50});
    ExpectAssertion("node", PATH, [&] { TreeInternals::Validate(m_tree, 1, nullptr, true); });
    ExpectAssertion("height >= 0", PATH, [&] { TreeInternals::Validate(m_tree, -1, &RootNode(m_tree), true); });
    RootNode(m_tree).m_ptr.Clear();
    ExpectFault("node");
}

TEST_F(BPlusTreeValidate, FindsImpossibleCounts) {
    Build({50, 50});
    Leaves()[1]->m_numKeyEntrys = 101;
    ExpectFault("0 <= nk && nk <= 100");
    Leaves()[1]->m_numKeyEntrys = -1;
    ExpectFault("0 <= nk && nk <= 100");
    Leaves()[1]->m_numKeyEntrys = 50;
    for (ssize_t n : {0, 101}) {
        RootNode(m_tree).m_numKeyEntrys = n;
        ExpectFault("1 <= nk && nk <= 100");
    }
    RootNode(m_tree).m_numKeyEntrys = 1;
}

TEST_F(BPlusTreeValidate, FindsNodesThatAreLessThanHalfFull) {
    Build({50, 49});
    ExpectFault("50 <= nk");
    m_tree.clear();
    Build({Shape(Times(51, 50)), Shape(Times(50, 50))});
    ExpectFault("50 <= nk");
}

TEST_F(BPlusTreeValidate, FindsKeysOutOfOrderInALeaf) {
    Build({50, 50});
    SetKeyAt<IntKey>(*Leaves()[0], 10, KeyAt<IntKey>(*Leaves()[0], 9)); // two equal ones
    ExpectFault("Key(bi).Less( member_key(GetEntry(bi,leaf,i-1)), member_key(GetEntry(bi,leaf,i)))");
}

TEST_F(BPlusTreeValidate, FindsKeysOutOfOrderInAnInternalNode) {
    Build({50, 50, 50});
    SetKeyAt<IntKey>(RootNode(m_tree), 1, 510);
    ExpectFault("Key(bi).Less( member_key(GetEntry(bi,inode,i-1)), member_key(GetEntry(bi,inode,i)))");
}

TEST_F(BPlusTreeValidate, FindsALeafsKeysOutsideItsSeparators) {
    Build({50, 50, 50});
    SetKeyAt<IntKey>(*Leaves()[1], 0, 509);
    ExpectFault("Key(bi).LessOrEqual(k1, member_key(GetEntry(bi,leaf,0)))");
    SetKeyAt<IntKey>(*Leaves()[1], 0, 510);
    SetKeyAt<IntKey>(*Leaves()[1], 49, 1010);
    ExpectFault("Key(bi).Less(member_key(GetEntry(bi,leaf,nk-1)), k2)");
    SetKeyAt<IntKey>(*Leaves()[1], 49, 1000);
    m_tree.Validate();
}

TEST_F(BPlusTreeValidate, FindsAnInternalNodesKeysOutsideItsSeparators) {
    const Shape inner = Shape(Times(51, 50));
    Build({inner, inner, inner});
    InternalNode& middle = InternalChild(RootNode(m_tree), 0);
    const IntKey low = KeyAt<IntKey>(RootNode(m_tree), 0);
    const IntKey high = KeyAt<IntKey>(RootNode(m_tree), 1);
    const IntKey first = KeyAt<IntKey>(middle, 0);
    const IntKey last = KeyAt<IntKey>(middle, 49);
    SetKeyAt<IntKey>(middle, 0, low - 1);
    ExpectFault("Key(bi).LessOrEqual(k1,member_key(GetEntry(bi,inode,0)))");
    SetKeyAt<IntKey>(middle, 0, first);
    SetKeyAt<IntKey>(middle, 49, high);
    ExpectFault("Key(bi).Less(member_key(GetEntry(bi,inode, nk-1)), k2)");
    SetKeyAt<IntKey>(middle, 49, last);
    m_tree.Validate();
}

TEST_F(BPlusTreeValidate, ChecksANodeAgainstItsImmediateSeparatorsOnly) {
    const Shape inner = Shape(Times(51, 50));
    Build({inner, inner});
    // The leftmost leaf of the second node has no separator of that node in front of it.
    LeafNode& leaf = LeafChild(InternalChild(RootNode(m_tree), 0), -1);
    SetKeyAt<IntKey>(leaf, 0, 1);
    m_tree.Validate();
    EXPECT_EQ("a key is below its bound", TreeChecker::FaultOf(m_tree));
}

TEST_F(BPlusTreeValidate, DoesNotLookAtTheSizeTheChainAndTheEnds) {
    Build({50, 50, 50});
    m_tree.m_size = 7;
    Leaves()[1]->m_next.Clear();
    Leaves()[1]->m_prev.Clear();
    m_tree.m_firstLeaf.Clear();
    m_tree.m_lastLeaf.Clear();
    m_tree.Validate();
    EXPECT_NE("", TreeChecker::FaultOf(m_tree));
}

// ---- Persistent -----------------------------------------------------------------------------------------------------------

class BPlusTreePersistentPrint : public PersistentTreeTest {};

TEST_F(BPlusTreePersistentPrint, TheFlatFormMarksEveryLeaf) {
    BPlusTree& tree = BuiltTree({50, 50, 50});
    Printed(tree);
    const std::vector<LeafNode*> leaves = LeavesOf(tree);
    EXPECT_EQ(Objects(leaves.begin(), leaves.end()), DirtyOf(tree));
}

TEST_F(BPlusTreePersistentPrint, TheNodesFormValidateAndTheCountMarkNothing) {
    BPlusTree& tree = BuiltTree({50, 50, 50});
    PrintedNodes(tree);
    tree.Validate();
    EXPECT_EQ(4, tree.GetNumNodes());
    EXPECT_EQ(Objects{}, DirtyOf(tree));
}

} // namespace
} // namespace quna

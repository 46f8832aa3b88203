// Whole trees: clearing, comparing, copying, assigning and swapping, in every mixture of transient and persistent.
#include "tests/support/ExpectAssertion.h"
#include "tests/support/TestTree.h"
#include "tests/support/TestTreeStore.h"

#include <memory>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "src/BPlusTree2";

// ---- Transient -------------------------------------------------------------------------------------------------------------

class BPlusTreeCopy : public TransientTreeTest<> {
protected:
    // A tree of these keys, all with the same payload.
    const BPlusTree& Filled(std::initializer_list<IntKey> keys, IntKey payload = 0) {
        m_others.push_back(std::make_unique<BPlusTree>(ResolvedInfo<IntKey, IntKey>()));
        for (IntKey key : keys) Put(*m_others.back(), key, payload);
        return *m_others.back();
    }

    std::vector<std::unique_ptr<BPlusTree>> m_others;
};

TEST_F(BPlusTreeCopy, TreesWithoutEntriesCompareWithoutTheirTypes) {
    const BPlusTree x, y;
    EXPECT_TRUE(x == y);
    EXPECT_FALSE(x < y);
}

TEST_F(BPlusTreeCopy, ClearEmptiesToHeightMinusOne) {
    for (const Shape& shape : {Shape(0), Shape(5), Shape({50, 50}), Shape({{50, 50}, {50, 50}})}) {
        Build(shape);
        m_tree.clear();
        EXPECT_EQ(-1, m_tree.m_height);
        EXPECT_EQ(0, m_tree.size());
        EXPECT_FALSE(m_tree.m_root || m_tree.m_firstLeaf || m_tree.m_lastLeaf);
        ExpectSound(m_tree);
    }
    m_tree.clear(); // at height -1 it stays so
    EXPECT_EQ(-1, m_tree.m_height);
    EXPECT_TRUE(Put(m_tree, IntKey{1}, IntKey{2}));
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeCopy, ClearRunsNoDestructor) {
    const int before = CountedValue::s_numLive;
    BPlusTree tree(ResolvedInfo<CountedValue>());
    for (uint64 i = 0; i < 200; ++i) PutKey(tree, CountedValue(i));
    const int filled = CountedValue::s_numLive;
    tree.clear();
    EXPECT_EQ(filled, CountedValue::s_numLive); // the collector ends the nodes
    EXPECT_LT(before, filled);
}

TEST_F(BPlusTreeCopy, TreesAreEqualWhenAllEntriesAreWhateverTheirNodes) {
    Build(Shape(Times(10, 50)));
    BPlusTree other(ResolvedInfo<IntKey, IntKey>());
    TreeBuilder(other).Build(Shape(Times(5, 100)));
    EXPECT_TRUE(m_tree == other);
    EXPECT_FALSE(m_tree != other);
    const IntKey key = 2000;
    EXPECT_FALSE(Put(other, key, IntKey{0}, true)); // another payload
    EXPECT_FALSE(m_tree == other);
    EXPECT_TRUE(m_tree != other);
    EXPECT_FALSE(Put(other, key, key + 1, true));
    EXPECT_TRUE(m_tree == other);
    EXPECT_TRUE(Remove(other, key));
    EXPECT_FALSE(m_tree == other); // another size
    EXPECT_TRUE(Put(other, key + 1, key + 1));
    EXPECT_FALSE(m_tree == other); // another key
    EXPECT_TRUE(m_tree == m_tree);
}

TEST_F(BPlusTreeCopy, ATreeWithoutNodesEqualsOneThatLostItsEntries) {
    BPlusTree emptied(ResolvedInfo<IntKey, IntKey>());
    TreeBuilder(emptied).Build(0);
    EXPECT_TRUE(m_tree == emptied);
    EXPECT_TRUE(emptied == m_tree);
    EXPECT_FALSE(m_tree < emptied);
    EXPECT_FALSE(emptied < m_tree);
}

TEST_F(BPlusTreeCopy, SetsAreEqualByTheirKeysAlone) {
    BPlusTree a(ResolvedInfo<IntKey>());
    BPlusTree b(ResolvedInfo<IntKey>());
    TreeBuilder(a).Build({50, 60});
    TreeBuilder(b).Build({60, 50});
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a < b);
    EXPECT_TRUE(Remove(b, IntKey{10}));
    EXPECT_TRUE(PutKey(b, IntKey{11}));
    EXPECT_FALSE(a == b);
    EXPECT_TRUE(a < b);
}

TEST_F(BPlusTreeCopy, ASizeThatIsNotTheNumberOfEntriesShowsInTheComparison) {
    Build({50, 50});
    BPlusTree other(ResolvedInfo<IntKey, IntKey>());
    TreeBuilder(other).Build({50, 49});
    other.m_size = 100;
    ExpectAssertion("j != const_cast<BPlusTree&>(rhs).end()", PATH, [&] { return m_tree == other; });
    ExpectAssertion("j == const_cast<BPlusTree&>(rhs).end()", PATH, [&] { return other == m_tree; });
}

TEST_F(BPlusTreeCopy, TheOrderIsLexicographic) {
    const BPlusTree& empty = Filled({});
    const BPlusTree& a = Filled({1, 2});
    const BPlusTree& ab = Filled({1, 2, 3});
    const BPlusTree& c = Filled({1, 3});
    const BPlusTree& payload = Filled({1, 2}, 1);
    EXPECT_TRUE(empty < a);
    EXPECT_FALSE(a < empty);
    EXPECT_TRUE(a < ab); // a proper prefix
    EXPECT_FALSE(ab < a);
    EXPECT_TRUE(ab < c);
    EXPECT_FALSE(c < ab);
    EXPECT_TRUE(a < payload);
    EXPECT_FALSE(payload < a);
    EXPECT_TRUE(c < payload); // the first payload decides before the second key
    EXPECT_FALSE(payload < c);
    EXPECT_FALSE(a < Filled({1, 2}));
    EXPECT_FALSE(Filled({1, 2}) < a);
    EXPECT_FALSE(empty < empty);
}

TEST_F(BPlusTreeCopy, TheOtherComparisonsFollow) {
    const BPlusTree& a = Filled({1});
    const BPlusTree& b = Filled({2});
    const BPlusTree& a2 = Filled({1});
    EXPECT_TRUE(a <= b);
    EXPECT_TRUE(a <= a2);
    EXPECT_FALSE(b <= a);
    EXPECT_TRUE(b > a);
    EXPECT_FALSE(a > a2);
    EXPECT_TRUE(b >= a);
    EXPECT_TRUE(a >= a2);
    EXPECT_FALSE(a >= b);
    EXPECT_TRUE(a != b);
}

TEST_F(BPlusTreeCopy, ACopyHasTheShapeOfAnAscendingLoad) {
    Build({100, 100, 100});
    const BPlusTree copy(m_tree);
    EXPECT_TRUE(copy == m_tree);
    EXPECT_EQ((std::vector<ssize_t>{50, 50, 50, 50, 100}), LeafCounts(copy));
    EXPECT_EQ((std::vector<ssize_t>{100, 100, 100}), LeafCounts(m_tree));
    ExpectSound(copy);
    EXPECT_NE(copy.m_root.Get(), m_tree.m_root.Get());
    EXPECT_FALSE(GetOid(&copy));
    EXPECT_EQ(m_tree.m_bti.m_keyTid, copy.m_bti.m_keyTid);
    EXPECT_EQ(m_tree.m_bti.m_payloadTid, copy.m_bti.m_payloadTid);
}

TEST_F(BPlusTreeCopy, ACopyOfATreeWithoutEntriesHasNoNodes) {
    EXPECT_EQ(-1, BPlusTree(m_tree).m_height);
    Build(0);
    EXPECT_EQ(-1, BPlusTree(m_tree).m_height);
}

TEST_F(BPlusTreeCopy, ACopyChecksTheSize) {
    Build(5);
    m_tree.m_size = 6;
    ExpectAssertion("m_size == rhs.m_size", PATH, [&] { BPlusTree copy(m_tree); });
}

TEST_F(BPlusTreeCopy, ACopyHasValuesOfItsOwn) {
    BPlusTree tree(ResolvedInfo<CountedValue, CountedValue>());
    for (uint64 i = 0; i < 150; ++i) Put(tree, CountedValue(i), CountedValue(i * 2));
    const BPlusTree copy(tree);
    EXPECT_FALSE(Put(tree, CountedValue(7), CountedValue(1), true));
    EXPECT_EQ(14u, (Get<CountedValue>(copy, CountedValue(7)))->Number());
}

TEST_F(BPlusTreeCopy, AssigningReplacesAllEntries) {
    Build({50, 50});
    const BPlusTree& other = Filled({1, 2, 3});
    BPlusTree& result = (m_tree = other);
    EXPECT_EQ(&m_tree, &result);
    EXPECT_TRUE(m_tree == other);
    ExpectSound(m_tree);
    m_tree = BPlusTree(ResolvedInfo<IntKey, IntKey>());
    EXPECT_EQ(-1, m_tree.m_height);
}

TEST_F(BPlusTreeCopy, AssigningATreeToItselfKeepsItsEntries) {
    Build({50, 50});
    const std::vector<IntKey> keys = AllKeys<IntKey>(m_tree);
    BPlusTree& self = m_tree;
    m_tree = self;
    EXPECT_EQ(keys, AllKeys<IntKey>(m_tree));
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeCopy, SwappingTransientTreesExchangesTheirNodes) {
    Build({50, 50});
    BPlusTree other(ResolvedInfo<IntKey, IntKey>());
    const void* const root = m_tree.m_root.Get();
    const ssize_t objects = m_domain.NumObjects();
    m_tree.swap(other);
    EXPECT_EQ(root, other.m_root.Get());
    EXPECT_EQ(100, other.size());
    EXPECT_EQ(-1, m_tree.m_height);
    EXPECT_EQ(0, m_tree.size());
    ExpectSound(other);
    ExpectSound(m_tree);
    EXPECT_EQ(objects, m_domain.NumObjects());
    other.swap(other);
    EXPECT_EQ(100, other.size());
}

TEST_F(BPlusTreeCopy, SwappingLeavesTheTypesWhereTheyAre) {
    BPlusTree set(ResolvedInfo<IntKey>());
    TreeInternals::SwapMembers(m_tree, set); // nothing checks that the types agree
    EXPECT_EQ(2, m_tree.m_bti.m_payloadTid);
    EXPECT_EQ(0, set.m_bti.m_payloadTid);
}

// ---- Persistent ------------------------------------------------------------------------------------------------------------

class BPlusTreePersistentCopy : public PersistentTreeTest {
protected:
    BPlusTree& Transient(std::initializer_list<IntKey> keys) {
        BPlusTree& tree = NewTransientTree<IntKey, IntKey>();
        for (IntKey key : keys) Put(tree, key, key + 1);
        return tree;
    }
    // Every node has an identity and nothing dangles after a restart.
    void ExpectSurvives(const std::vector<IntKey>& keys) {
        Reopen();
        EXPECT_EQ(keys, AllKeys<IntKey>(Tree()));
        ExpectSound(Tree());
    }
    static std::vector<IntKey> Keys(std::initializer_list<IntKey> keys) { return keys; }
    static OID RootOid(const BPlusTree& tree) { return tree.m_root.GetOid(); }
};

TEST_F(BPlusTreePersistentCopy, ClearQueuesTheRootAndMarksTheTree) {
    for (const Shape& shape : {Shape(0), Shape({50, 50})}) {
        BPlusTree& tree = BuiltTree(shape, shape.m_children.empty() ? "a" : "b");
        const OID root = RootOid(tree);
        const OID own = GetOid(&tree);
        tree.clear();
        EXPECT_EQ(root, Requested().back());
        EXPECT_TRUE(tree.IsDirty());
        EXPECT_EQ(-1, tree.m_height);
        EXPECT_EQ(own, GetOid(&tree));
    }
    EXPECT_EQ(1u, Requested().size()); // the first was moved on by the write in between
}

TEST_F(BPlusTreePersistentCopy, ClearWithoutNodesQueuesNothingAndStillMarks) {
    BPlusTree& tree = NewTree<IntKey, IntKey>();
    WriteAll();
    EXPECT_FALSE(tree.IsDirty());
    tree.clear();
    EXPECT_TRUE(tree.IsDirty());
    EXPECT_EQ(-1, tree.m_height);
    EXPECT_TRUE(Requested().empty());
}

TEST_F(BPlusTreePersistentCopy, ACopyIsTransientAndTheSourceUntouched) {
    BPlusTree& tree = BuiltTree({50, 50});
    const BPlusTree copy(tree);
    EXPECT_FALSE(GetOid(&copy));
    EXPECT_FALSE(copy.IsDirty());
    for (const ptr<IPersistable>& node : NodesOf(copy)) EXPECT_FALSE(GetOid(node));
    EXPECT_EQ(Objects{}, DirtyOf(tree));
}

TEST_F(BPlusTreePersistentCopy, AssigningQueuesTheOldNodesAndMakesTheNewOnesPersistent) {
    BPlusTree& tree = BuiltTree({50, 50});
    const OID oldRoot = RootOid(tree);
    const OID own = GetOid(&tree);
    tree = Transient({1, 2, 3});
    EXPECT_EQ(std::vector<OID>{oldRoot}, Requested());
    EXPECT_EQ(own, GetOid(&tree));
    EXPECT_EQ(Objects{}, TransientOf(tree));
    EXPECT_TRUE(tree.IsDirty());
    ExpectSurvives({1, 2, 3});
}

TEST_F(BPlusTreePersistentCopy, AssigningManyNodesReachesAll) {
    BPlusTree& tree = NewTree<IntKey, IntKey>();
    BPlusTree& source = NewTransientTree<IntKey, IntKey>();
    TreeBuilder(source).Build(Shape(Times(60, 60)));
    tree = source;
    EXPECT_EQ(Objects{}, TransientOf(tree));
    EXPECT_EQ(source.GetNumNodes() + 1, std::ssize(TransientOf(source)));
    EXPECT_TRUE(Requested().empty());
    ExpectSurvives(AllKeys<IntKey>(tree));
}

TEST_F(BPlusTreePersistentCopy, AssigningATreeWithoutEntriesLeavesNoNodes) {
    BPlusTree& tree = BuiltTree({50, 50});
    tree = Transient({});
    EXPECT_EQ(-1, tree.m_height);
    ExpectSurvives({});
}

TEST_F(BPlusTreePersistentCopy, AssigningATreeToItselfReplacesAllNodes) {
    BPlusTree& tree = BuiltTree({50, 50});
    const std::vector<IntKey> keys = AllKeys<IntKey>(tree);
    const OID oldRoot = RootOid(tree);
    BPlusTree& self = tree;
    tree = self;
    EXPECT_EQ(std::vector<OID>{oldRoot}, Requested());
    EXPECT_NE(oldRoot, RootOid(tree));
    EXPECT_EQ(Objects{}, TransientOf(tree));
    EXPECT_EQ(keys, AllKeys<IntKey>(tree));
    ExpectSurvives(keys);
}

TEST_F(BPlusTreePersistentCopy, AssigningToATransientTreeMovesTheCopyIn) {
    BPlusTree& source = BuiltTree({50, 50});
    BPlusTree& tree = Transient({1});
    tree = source;
    EXPECT_TRUE(tree == source);
    EXPECT_FALSE(tree.IsDirty());
    EXPECT_EQ(tree.GetNumNodes() + 1, std::ssize(TransientOf(tree)));
    EXPECT_TRUE(Requested().empty());
}

TEST_F(BPlusTreePersistentCopy, SwappingTwoPersistentTreesExchangesTheirNodesAndMarksBoth) {
    BuiltTree({50, 50}, "tree");
    BuiltTree(Shape(10), "other");
    BPlusTree& a = Tree("tree");
    BPlusTree& b = Tree("other");
    const std::vector<IntKey> keysOfA = AllKeys<IntKey>(a);
    const OID rootOfA = RootOid(a);
    const OID rootOfB = RootOid(b);
    const OID ownOfA = GetOid(&a);
    a.swap(b);
    EXPECT_EQ(rootOfB, RootOid(a));
    EXPECT_EQ(rootOfA, RootOid(b));
    EXPECT_EQ(ownOfA, GetOid(&a));
    EXPECT_EQ(Objects{&a}, DirtyOf(a));
    EXPECT_EQ(Objects{&b}, DirtyOf(b));
    EXPECT_TRUE(Requested().empty());
    Reopen();
    EXPECT_EQ(keysOfA, AllKeys<IntKey>(Tree("other")));
    ExpectSound(Tree("tree"));
    ExpectSound(Tree("other"));
}

TEST_F(BPlusTreePersistentCopy, SwappingWithATransientTreeWorksFromBothSides) {
    for (bool fromPersistent : {true, false}) {
        BPlusTree& persistent = BuiltTree({50, 50}, fromPersistent ? "tree" : "second");
        BPlusTree& transient = Transient({1, 2, 3});
        const std::vector<IntKey> keys = AllKeys<IntKey>(persistent);
        const OID oldRoot = RootOid(persistent);
        const void* const transientRoot = transient.m_root.Get();
        if (fromPersistent)
            persistent.swap(transient);
        else
            transient.swap(persistent);
        EXPECT_EQ(oldRoot, Requested().back());
        EXPECT_EQ(Keys({1, 2, 3}), AllKeys<IntKey>(persistent));
        EXPECT_EQ(transientRoot, persistent.m_root.Get()); // its nodes are taken over
        EXPECT_EQ(Objects{}, TransientOf(persistent));
        EXPECT_TRUE(persistent.IsDirty());
        EXPECT_EQ(keys, AllKeys<IntKey>(transient));
        EXPECT_EQ(transient.GetNumNodes() + 1, std::ssize(TransientOf(transient)));
        ExpectSound(persistent);
        ExpectSound(transient);
    }
    ExpectSurvives({1, 2, 3});
}

TEST_F(BPlusTreePersistentCopy, TheMixedSwapChecksItsSides) {
    BPlusTree& persistent = BuiltTree({50, 50});
    BPlusTree& transient = Transient({1});
    ExpectAssertion("GetOid(this)", PATH, [&] { TreeInternals::SwapPersistentWithTransient(transient, persistent); });
    ExpectAssertion("!GetOid(&rhs)", PATH, [&] { TreeInternals::SwapPersistentWithTransient(persistent, persistent); });
}

TEST_F(BPlusTreePersistentCopy, TreesOfTwoSpacesAreNotSwapped) {
    BPlusTree& here = BuiltTree({50, 50});
    Unlock();
    PSpace* const otherSpace = m_store.OpenSpace("other", OM_OPEN_ALWAYS, CreateCSpace());
    {
        const SpaceScope other(otherSpace);
        auto* const there = NewObject<BPlusTree>(StoredInfo<IntKey, IntKey>());
        otherSpace->AddRoot("tree", there);
        const CSpaceLock lock(m_ps->GetCSpace(), Exclusive);
        ExpectAssertion("!ObjectsBelongToDifferentPSpaces(this, &rhs)", PATH, [&] { here.swap(*there); });
        EXPECT_EQ(100, here.size());
        EXPECT_EQ(-1, there->m_height);
    }
    {
        TestStore second;
        PSpace* const foreign = second.OpenSpace("s", OM_OPEN_ALWAYS, CreateCSpace());
        const SpaceScope other(foreign);
        auto* const there = NewObject<BPlusTree>(StoredInfo<IntKey, IntKey>());
        foreign->AddRoot("tree", there);
        const CSpaceLock lock(m_ps->GetCSpace(), Exclusive);
        ExpectAssertion("!ObjectsBelongToDifferentPersistStores(this, &rhs)", PATH, [&] { here.swap(*there); });
    }
    {
        const TreeDomain plain;
        auto* const there = NewObject<BPlusTree>(ResolvedInfo<IntKey, IntKey>());
        const CSpaceLock lock(m_ps->GetCSpace(), Exclusive);
        ExpectAssertion("!ObjectsBelongToDifferentCSpaces(this, &rhs)", PATH, [&] { here.swap(*there); });
    }
    Lock();
}

// ---- References among the payloads -------------------------------------------------------------------------------------------

class BPlusTreeReferences : public PersistentTreeTest {
protected:
    using Ref = cref<TestLeaf>;
    BPlusTree& TreeOfReferences(int n) {
        BPlusTree& tree = NewTree<IntKey, Ref>();
        for (int i = 0; i < n; ++i) Put(tree, static_cast<IntKey>(i), Ref(NewObject<TestLeaf>(i)));
        WriteAll();
        return tree;
    }
    static int32 NumberAt(const BPlusTree& tree, IntKey key) { return Get<Ref>(tree, key)->Get()->m_number; }
};

TEST_F(BPlusTreeReferences, ACopyLeadsToTheSameObjects) {
    BPlusTree& tree = TreeOfReferences(150);
    const BPlusTree copy(tree);
    EXPECT_TRUE(copy == tree);
    EXPECT_EQ(Get<Ref>(tree, IntKey{7})->Get(), Get<Ref>(copy, IntKey{7})->Get());
}

// The old nodes are queued with what they reach, so they must not reach the content that lives on.
TEST_F(BPlusTreeReferences, AssigningATreeToItselfKeepsTheObjectsOutOfTheDeletion) {
    BPlusTree& tree = TreeOfReferences(150);
    const std::vector<LeafNode*> old = LeavesOf(tree);
    BPlusTree& self = tree;
    tree = self;
    EXPECT_EQ(1u, Requested().size());
    for (const LeafNode* leaf : old) EXPECT_EQ(0, leaf->m_numKeyEntrys);
    Reopen();
    for (int i = 0; i < 150; ++i) EXPECT_EQ(i, NumberAt(Tree(), static_cast<IntKey>(i)));
    ExpectSound(Tree());
}

TEST_F(BPlusTreeReferences, TheMixedSwapKeepsTheObjectsOutOfTheDeletion) {
    BPlusTree& tree = TreeOfReferences(150);
    const std::vector<LeafNode*> old = LeavesOf(tree);
    BPlusTree& transient = NewTransientTree<IntKey, Ref>();
    tree.swap(transient);
    EXPECT_EQ(-1, tree.m_height);
    EXPECT_EQ(150, transient.size());
    for (const LeafNode* leaf : old) EXPECT_EQ(0, leaf->m_numKeyEntrys);
    EXPECT_EQ(7, NumberAt(transient, 7));
}

TEST_F(BPlusTreeReferences, AssigningAnotherTreeDeletesTheObjectsWithTheNodes) {
    BPlusTree& tree = TreeOfReferences(10);
    const LeafNode* const old = LeavesOf(tree)[0];
    const OID oldRoot = tree.m_root.GetOid();
    tree = NewTransientTree<IntKey, Ref>();
    EXPECT_EQ(std::vector<OID>{oldRoot}, Requested());
    EXPECT_EQ(10, old->m_numKeyEntrys); // its content goes with it
}

} // namespace
} // namespace quna

// Trees in a store: which objects each operation marks, what becomes persistent, what is queued for deletion, and trees
// that come back from the file node by node.
#include "qxObject/ReflectionByteCodeValue.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "tests/support/Sanitized.h"
#include "tests/support/TestTree.h"
#include "tests/support/TestTreeStore.h"

#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

Shape Inner(int n) { return Shape(Times(n + 1, 50)); }

// ---- Marks, node by node -----------------------------------------------------------------------------------------------------

class BPlusTreeMarks : public PersistentTreeTest {
protected:
    // What `action` marks, of the objects of the tree before and after it.
    template <class Action>
    Objects Marked(BPlusTree& tree, Action&& action) {
        std::vector<ptr<IPersistable>> objects = AllOf(tree);
        EXPECT_EQ(Objects{}, DirtyOf(objects));
        action();
        for (const ptr<IPersistable>& object : AllOf(tree))
            if (std::find(objects.begin(), objects.end(), object) == objects.end()) objects.push_back(object);
        return DirtyOf(objects);
    }
    static LeafNode* Leaf(BPlusTree& tree, std::size_t i) { return LeavesOf(tree)[i]; }
    // Deletes the key in the middle of a leaf.
    static void DeleteFrom(BPlusTree& tree, std::size_t leaf) {
        EXPECT_TRUE(Remove(tree, KeyAt<IntKey>(*Leaf(tree, leaf), 25)));
    }
};

TEST_F(BPlusTreeMarks, TheFirstProbeMarksTheTreeAndMakesItsLeafPersistent) {
    BPlusTree& tree = NewTree<IntKey, IntKey>();
    WriteAll();
    wFindRet ret;
    const IntKey key = 1;
    tree.wFind(ret, AsKey(key), false);
    EXPECT_TRUE(tree.IsDirty());
    EXPECT_TRUE(GetOid(&RootLeaf(tree)));
    Reopen();
    EXPECT_EQ(0, Tree().m_height);
    EXPECT_EQ(0, Tree().size());
    ExpectSound(Tree());
}

TEST_F(BPlusTreeMarks, ReadingMarksNothing) {
    BPlusTree& tree = BuiltTree({50, 50, 50});
    const IntKey key = 555;
    EXPECT_EQ(Objects{}, Marked(tree, [&] {
                  tree.find(AsKey(key));
                  tree.count(AsKey(key));
                  tree.lower_bound(AsKey(key));
                  tree.upper_bound(AsKey(key));
                  wFindRet ret;
                  tree.wFind(ret, AsKey(key), false);
                  EXPECT_FALSE(Remove(tree, key));
              }));
}

TEST_F(BPlusTreeMarks, AnInsertionInPlaceMarksTheTreeAndTheLeaf) {
    BPlusTree& tree = BuiltTree({50, 50, 50});
    EXPECT_EQ((Objects{&tree, Leaf(tree, 1)}), Marked(tree, [&] { Put(tree, IntKey{555}, IntKey{1}); }));
}

TEST_F(BPlusTreeMarks, AFindThatCreatesMarksTheSame) {
    BPlusTree& tree = BuiltTree({50, 50, 50});
    EXPECT_EQ((Objects{&tree, Leaf(tree, 1)}), Marked(tree, [&] {
                  wFindRet ret;
                  const IntKey key = 555;
                  tree.wFind(ret, AsKey(key), true);
              }));
}

TEST_F(BPlusTreeMarks, AnInsertionOfAPresentKeyMarksNothingUnlessItReplaces) {
    BPlusTree& tree = BuiltTree({50, 50, 50});
    const IntKey key = 550;
    EXPECT_EQ(Objects{}, Marked(tree, [&] { EXPECT_FALSE(Put(tree, key, IntKey{1}, false)); }));
    const IntKey entry[] = {550, 1};
    EXPECT_EQ(Objects{}, Marked(tree, [&] { tree.insert(reinterpret_cast<const _KeyAndPayload*>(entry)); }));
    EXPECT_EQ((Objects{Leaf(tree, 1)}), Marked(tree, [&] { EXPECT_FALSE(Put(tree, key, IntKey{1}, true)); }));
    EXPECT_EQ(1u, (Get<IntKey>(tree, key)));
}

TEST_F(BPlusTreeMarks, TheIndexAlwaysMarksTheLeaf) {
    BPlusTree& tree = BuiltTree({50, 50, 50});
    const IntKey key = 550;
    EXPECT_EQ((Objects{Leaf(tree, 1)}), Marked(tree, [&] { tree[AsKey(key)]; }));
}

TEST_F(BPlusTreeMarks, ASplitMarksTheLeafTheNewOneTheNextAndTheParent) {
    BPlusTree& tree = BuiltTree({50, 100, 50, 50});
    const Objects marked = Marked(tree, [&] { Put(tree, IntKey{1005}, IntKey{1}); });
    EXPECT_EQ((Objects{&tree, Leaf(tree, 1), Leaf(tree, 2), Leaf(tree, 3), &RootNode(tree)}), marked);
    EXPECT_EQ(Objects{}, TransientOf(tree));
}

TEST_F(BPlusTreeMarks, ASplitOfARootLeafMakesARootThatIsPersistent) {
    BPlusTree& tree = BuiltTree(Shape(100));
    const Objects marked = Marked(tree, [&] { Put(tree, IntKey{1005}, IntKey{1}); });
    EXPECT_EQ((Objects{&tree, Leaf(tree, 0), Leaf(tree, 1), &RootNode(tree)}), marked);
    EXPECT_EQ(Objects{}, TransientOf(tree));
}

TEST_F(BPlusTreeMarks, ASplitOfAnInternalRootMarksBothHalvesAndTheNewRoot) {
    std::vector<Shape> leaves = Times(101, 50);
    leaves[100] = 100;
    BPlusTree& tree = BuiltTree(Shape(leaves));
    const Objects marked = Marked(tree, [&] { Put(tree, IntKey{1000000}, IntKey{1}); });
    InternalNode& root = RootNode(tree);
    EXPECT_EQ((Objects{&tree, Leaf(tree, 100), Leaf(tree, 101), &root, ChildAt(root, -1), ChildAt(root, 0)}), marked);
    EXPECT_EQ(Objects{}, TransientOf(tree));
    const std::vector<IntKey> keys = AllKeys<IntKey>(tree);
    Reopen();
    EXPECT_EQ(keys, AllKeys<IntKey>(Tree()));
    ExpectSound(Tree());
}

TEST_F(BPlusTreeMarks, ADeletionWithoutARepairMarksTheTreeAndTheLeaf) {
    BPlusTree& tree = BuiltTree({51, 51, 51});
    EXPECT_EQ((Objects{&tree, Leaf(tree, 1)}), Marked(tree, [&] { DeleteFrom(tree, 1); }));
    EXPECT_TRUE(Requested().empty());
}

TEST_F(BPlusTreeMarks, ALeafBalanceMarksBothLeavesAndTheAnchor) {
    BPlusTree& tree = BuiltTree({50, 50, 51});
    EXPECT_EQ((Objects{&tree, Leaf(tree, 1), Leaf(tree, 2), &RootNode(tree)}),
              Marked(tree, [&] { DeleteFrom(tree, 1); }));
    EXPECT_TRUE(Requested().empty());
}

TEST_F(BPlusTreeMarks, ALeafBalanceWithACousinMarksTheAnchorAboveAndNoParent) {
    BPlusTree& tree = BuiltTree({Shape(Times(50, 50) + Times(1, 60)), Inner(50)});
    EXPECT_EQ((Objects{&tree, Leaf(tree, 50), Leaf(tree, 51), &RootNode(tree)}),
              Marked(tree, [&] { DeleteFrom(tree, 51); }));
}

TEST_F(BPlusTreeMarks, ALeafMergeMarksTheSurvivorTheGoneOneTheNextAndTheParent) {
    BPlusTree& tree = BuiltTree({50, 50, 50, 50});
    LeafNode* const gone = Leaf(tree, 1);
    const Objects expected = {&tree, Leaf(tree, 0), gone, Leaf(tree, 2), &RootNode(tree)};
    EXPECT_EQ(expected, Marked(tree, [&] { DeleteFrom(tree, 1); }));
    EXPECT_EQ(std::vector<OID>{GetOid(gone)}, Requested());
}

TEST_F(BPlusTreeMarks, AnInternalBalanceMarksTheAnchorAndBothNodes) {
    BPlusTree& tree = BuiltTree({Inner(50), Inner(50), Inner(60)});
    InternalNode& root = RootNode(tree);
    // In the middle node a leaf merges into its left sibling first.
    const std::size_t victim = 51 + 20;
    const Objects expected = {&tree, Leaf(tree, victim - 1), Leaf(tree, victim), Leaf(tree, victim + 1),
                              &root, ChildAt(root, 0),       ChildAt(root, 1)};
    EXPECT_EQ(expected, Marked(tree, [&] { DeleteFrom(tree, victim); }));
    EXPECT_EQ(1u, Requested().size());
}

TEST_F(BPlusTreeMarks, AnInternalMergeQueuesTheLeafThenTheNode) {
    BPlusTree& tree = BuiltTree({Inner(50), Inner(50), Inner(50)});
    InternalNode& root = RootNode(tree);
    const std::size_t victim = 51 + 20;
    LeafNode* const goneLeaf = Leaf(tree, victim);
    auto* const goneNode = &InternalChild(root, 0);
    const Objects expected = {&tree, Leaf(tree, victim - 1), goneLeaf, Leaf(tree, victim + 1),
                              &root, ChildAt(root, -1),      goneNode};
    EXPECT_EQ(expected, Marked(tree, [&] { DeleteFrom(tree, victim); }));
    EXPECT_EQ((std::vector<OID>{GetOid(goneLeaf), GetOid(goneNode)}), Requested());
}

TEST_F(BPlusTreeMarks, ARootThatShrinksIsQueuedWithoutItsChild) {
    BPlusTree& tree = BuiltTree({50, 50});
    InternalNode* const goneRoot = &RootNode(tree);
    LeafNode* const goneLeaf = Leaf(tree, 1);
    const Objects expected = {&tree, Leaf(tree, 0), goneLeaf, goneRoot};
    EXPECT_EQ(expected, Marked(tree, [&] { DeleteFrom(tree, 1); }));
    EXPECT_EQ((std::vector<OID>{GetOid(goneLeaf), GetOid(goneRoot)}), Requested());
    EXPECT_FALSE(goneRoot->m_ptr);
    Reopen();
    EXPECT_EQ(0, Tree().m_height);
    EXPECT_EQ(99, Tree().size());
    ExpectSound(Tree());
}

TEST_F(BPlusTreeMarks, TheLastLeafsMergeMarksTheTree) {
    BPlusTree& tree = BuiltTree({50, 50, 50});
    DeleteFrom(tree, 2);
    EXPECT_TRUE(tree.IsDirty());
    Reopen();
    ExpectSound(Tree());
    EXPECT_EQ(Leaf(Tree(), 1), Tree().m_lastLeaf.Get());
}

TEST_F(BPlusTreeMarks, RequestsMoveToTheStoredQueueWithTheNextWrite) {
    BPlusTree& tree = BuiltTree({50, 50, 50});
    DeleteFrom(tree, 1);
    const std::vector<OID> requested = Requested();
    ASSERT_EQ(1u, requested.size());
    WriteAll();
    EXPECT_TRUE(Requested().empty());
    ASSERT_EQ(1, m_ps->GetDQ().m_queue.size());
    EXPECT_EQ(requested[0], m_ps->GetDQ().m_queue.front());
    Reopen();
    ASSERT_EQ(1, m_ps->GetDQ().m_queue.size());
    EXPECT_EQ(requested[0], m_ps->GetDQ().m_queue.front());
}

// ---- Becoming persistent -------------------------------------------------------------------------------------------------------

class BPlusTreePersist : public PersistentTreeTest {
protected:
    static std::vector<IntKey> Shuffled(IntKey n, unsigned seed) {
        std::vector<IntKey> keys;
        for (IntKey i = 0; i < n; ++i) keys.push_back(i);
        std::shuffle(keys.begin(), keys.end(), std::mt19937(seed));
        return keys;
    }
};

TEST_F(BPlusTreePersist, ATransientTreeBecomesPersistentWithAllItsNodes) {
    BPlusTree& tree = NewTransientTree<IntKey, IntKey>();
    TreeBuilder(tree).Build(Shape(Times(3, Inner(50))));
    m_ps->AddRoot("tree", &tree);
    EXPECT_EQ(Objects{}, TransientOf(tree));
    const std::vector<IntKey> keys = AllKeys<IntKey>(tree);
    Reopen();
    EXPECT_EQ(keys, AllKeys<IntKey>(Tree()));
    ExpectSound(Tree());
}

TEST_F(BPlusTreePersist, NodesOfAGrowingTreeArePersistentFromTheStart) {
    BPlusTree& tree = NewTree<IntKey, IntKey>();
    for (IntKey key : Shuffled(3000, 1)) {
        Put(tree, key, key);
        if (key % 100 == 0) {
            ASSERT_EQ(Objects{}, TransientOf(tree));
        }
    }
    Reopen();
    EXPECT_EQ(3000, Tree().size());
    ExpectSound(Tree());
    for (IntKey key = 0; key < 3000; ++key) ASSERT_EQ(key, (Get<IntKey>(Tree(), key)));
}

TEST_F(BPlusTreePersist, PayloadsReferencesBecomePersistentWithTheEntry) {
    using Ref = cref<TestLeaf>;
    BPlusTree& tree = NewTree<uint8, Ref>(); // at odd addresses
    auto* const a = NewObject<TestLeaf>(1);
    auto* const b = NewObject<TestLeaf>(2);
    EXPECT_TRUE(Put(tree, uint8{1}, Ref(a)));
    EXPECT_TRUE(GetOid(a));
    EXPECT_FALSE(Put(tree, uint8{1}, Ref(b), true));
    EXPECT_TRUE(GetOid(b));
    auto* const c = NewObject<TestLeaf>(3);
    std::vector<char> entry(1 + sizeof(Ref));
    entry[0] = 2;
    StorePref(entry.data() + 1, Ref(c));
    EXPECT_TRUE(tree.insert(reinterpret_cast<const _KeyAndPayload*>(entry.data())).second);
    EXPECT_TRUE(GetOid(c));
    Reopen();
    EXPECT_EQ(2, Get<Ref>(Tree(), uint8{1})->Get()->m_number);
    EXPECT_EQ(3, Get<Ref>(Tree(), uint8{2})->Get()->m_number);
}

TEST_F(BPlusTreePersist, KeysReferencesBecomePersistentToo) {
    using Ref = cref<TestLeaf>;
    BPlusTree& tree = NewTree<Ref, uint32>();
    auto* const a = NewObject<TestLeaf>(1);
    m_ps->MakeObjectPersist(a, true); // keys are ordered by identity
    EXPECT_TRUE(Put(tree, Ref(a), uint32{5}));
    WriteAll();
    EXPECT_EQ(5u, (Get<uint32>(tree, Ref(a))));
    Reopen();
    EXPECT_EQ(1, KeyAt<Ref>(RootLeaf(Tree()), 0).Get()->m_number);
}

TEST_F(BPlusTreePersist, WhatIsWrittenThroughTheIndexIsNotDeclaredReachable) {
    using Ref = cref<TestLeaf>;
    BPlusTree& tree = NewTree<IntKey, Ref>();
    auto* const a = NewObject<TestLeaf>(1);
    const IntKey key = 1;
    StorePref(tree[AsKey(key)], Ref(a));
    EXPECT_FALSE(GetOid(a)); // left to the caller
    DeclarePayloadReachable(InfoOf(tree), ptr<const IPersistable>(&RootLeaf(tree)), tree[AsKey(key)]);
    EXPECT_TRUE(GetOid(a));
}

TEST_F(BPlusTreePersist, EntriesOfATransientTreeReachNothing) {
    using Ref = cref<TestLeaf>;
    BPlusTree& tree = NewTransientTree<IntKey, Ref>();
    auto* const a = NewObject<TestLeaf>(1);
    EXPECT_TRUE(Put(tree, IntKey{1}, Ref(a)));
    EXPECT_FALSE(GetOid(a));
    m_ps->AddRoot("tree", &tree);
    EXPECT_TRUE(GetOid(a));
}

TEST_F(BPlusTreePersist, AStringKeyedTreeSurvives) {
    BPlusTree& tree = NewTree<xstring, xstring>();
    for (int i = 0; i < 500; ++i)
        Put(tree, xstring(("key " + std::to_string(i)).c_str()), xstring(std::to_string(i * i).c_str()));
    Reopen();
    for (int i = 0; i < 500; ++i)
        ASSERT_STREQ(std::to_string(i * i).c_str(),
                     (Get<xstring>(Tree(), xstring(("key " + std::to_string(i)).c_str())))->c_str());
    ExpectSound(Tree());
}

// ---- Trees that are larger than what is resident ------------------------------------------------------------------------------------

TEST_F(BPlusTreePersist, ASearchLoadsOnePath) {
    BuiltTree(Shape(Times(3, Inner(50))));
    Reopen();
    BPlusTree& tree = Tree();
    const ssize_t before = GetNumObjects(m_ps->GetCSpace());
    EXPECT_TRUE(Has(tree, IntKey{10}));
    EXPECT_EQ(before + 3, GetNumObjects(m_ps->GetCSpace()));
    EXPECT_TRUE(Has(tree, IntKey{10}));
    EXPECT_EQ(before + 3, GetNumObjects(m_ps->GetCSpace()));
}

TEST_F(BPlusTreePersist, AnInsertionLoadsThePathAndAtASplitTheNextLeaf) {
    BuiltTree(Shape(Times(5, 50) + Times(1, 100) + Times(5, 50)));
    Reopen();
    const ssize_t before = GetNumObjects(m_ps->GetCSpace());
    BPlusTree& tree = Tree(); // the tree itself
    Put(tree, IntKey{15}, IntKey{1});
    EXPECT_EQ(before + 3, GetNumObjects(m_ps->GetCSpace()));
    Put(tree, IntKey{3005}, IntKey{1}); // the full leaf, a new one, the next one
    EXPECT_EQ(before + 6, GetNumObjects(m_ps->GetCSpace()));
}

TEST_F(BPlusTreePersist, ADeletionLoadsTheNeighboursOnEveryLevel) {
    BuiltTree(Shape(Times(3, Shape(Times(51, 60)))));
    Reopen();
    BPlusTree& tree = Tree();
    EXPECT_TRUE(Has(tree, IntKey{10})); // the root, the first node and its first leaf
    const ssize_t before = GetNumObjects(m_ps->GetCSpace());
    EXPECT_TRUE(Remove(tree, IntKey{10}));
    // The second node and the second leaf, though no underflow follows.
    EXPECT_EQ(before + 2, GetNumObjects(m_ps->GetCSpace()));
}

TEST_F(BPlusTreePersist, ACollectionLetsGoOfCleanNodesAndTheyComeBack) {
    BuiltTree(Shape(Times(3, Inner(50))));
    ASSERT_GT(GetNumObjects(m_ps->GetCSpace()), 150);
    Evict();
    EXPECT_LT(GetNumObjects(m_ps->GetCSpace()), 10);
    ExpectSound(Tree());
    EXPECT_GT(GetNumObjects(m_ps->GetCSpace()), 150);
}

TEST_F(BPlusTreePersist, ACollectionKeepsDirtyNodes) {
    BuiltTree(Shape(Times(3, Inner(50))));
    Evict();
    Put(Tree(), IntKey{15}, IntKey{77});
    Unlock();
    SynchronousGc(m_ps->GetCSpace());
    Lock();
    EXPECT_EQ(77u, (Get<IntKey>(Tree(), IntKey{15})));
    EXPECT_EQ(7651, Tree().size());
    ExpectSound(Tree());
}

TEST_F(BPlusTreePersist, TransientNodesLiveAsLongAsTheirTree) {
    auto* const tree = &NewTransientTree<IntKey, IntKey>();
    TreeBuilder(*tree).Build(Shape(Times(3, Inner(50))));
    AddGcRoot(tree);
    Unlock();
    SynchronousGc(m_ps->GetCSpace());
    Lock();
    EXPECT_EQ(tree->GetNumNodes() + 1, std::ssize(TransientOf(*tree)));
    ExpectSound(*tree);
    RemoveGcRoot(tree);
    const ssize_t before = GetNumObjects(m_ps->GetCSpace());
    const ssize_t nodes = tree->GetNumNodes();
    Unlock();
    SynchronousGc(m_ps->GetCSpace());
    Lock();
    EXPECT_EQ(before - nodes - 1, GetNumObjects(m_ps->GetCSpace()));
}

TEST_F(BPlusTreePersist, ATreeIsChangedWhileItsNodesComeAndGo) {
    NewTree<IntKey, IntKey>();
    std::vector<IntKey> keys = Shuffled(UNDER_SANITIZER ? 4000 : 20000, 3);
    std::size_t n = 0;
    for (IntKey key : keys) {
        Put(Tree(), key, key * 3);
        if (++n % 1000 == 0) Evict();
    }
    std::shuffle(keys.begin(), keys.end(), std::mt19937(4));
    while (keys.size() > 100) {
        ASSERT_TRUE(Remove(Tree(), keys.back()));
        keys.pop_back();
        if (keys.size() % 1000 == 0) Evict();
    }
    std::sort(keys.begin(), keys.end());
    Evict();
    ExpectSound(Tree());
    EXPECT_EQ(keys, AllKeys<IntKey>(Tree()));
    Reopen();
    ExpectSound(Tree());
    EXPECT_EQ(keys, AllKeys<IntKey>(Tree()));
}

// ---- Bad input ----------------------------------------------------------------------------------------------------------------------

TEST_F(BPlusTreePersist, ATreeOfForeignTypeIdsFailsAtItsUseAndTheStoreIsUnharmed) {
    BuiltTree({50, 50});
    BTreeTypeInfo info;
    info.m_keyTid = 99;
    auto* const foreign = NewObject<BPlusTree>(info);
    m_ps->AddRoot("foreign", foreign);
    EXPECT_THROW(PutKey(*foreign, IntKey{1}), BadTypeOpsIdException);
    EXPECT_FALSE(Has(*foreign, IntKey{1})); // without nodes nothing asks for the types
    EXPECT_EQ(-1, foreign->m_height);
    Reopen();
    EXPECT_THROW(PutKey(Tree("foreign"), IntKey{1}), BadTypeOpsIdException);
    ExpectSound(Tree());
}

TEST_F(BPlusTreePersist, ATreeOfATypeThatThisProcessDoesNotHaveFailsAtItsUseAndTheStoreIsUnharmed) {
    BuiltTree({50, 50});
    // Written while the type was known.
    static const octet_t s_code[] = {0x60, 0};
    static const ConstStringZ s_names[] = {"quna::tree_test::Unknown"};
    BTreeTypeInfo info;
    info.m_keyTid =
        GetTypeOpsId(m_store.Get(), ReflectionByteCodeValue(ReflectionByteCode(s_code, s_names, nullptr), false),
                     TreeOpsOf<IntKey>());
    auto* const unknown = NewObject<BPlusTree>(info);
    m_ps->AddRoot("unknown", unknown);
    EXPECT_TRUE(PutKey(*unknown, IntKey{1}));
    Reopen();
    constexpr ConstStringZ TEXT = "TypeOps not found for quna::tree_test::Unknown";
    ExpectException<TypeOpsNotFoundException>(TEXT, [&] { Has(Tree("unknown"), IntKey{1}); });
    ExpectException<TypeOpsNotFoundException>(TEXT, [&] { PutKey(Tree("unknown"), IntKey{2}); });
    ExpectException<TypeOpsNotFoundException>(TEXT, [&] { Remove(Tree("unknown"), IntKey{1}); });
    EXPECT_EQ(1, Tree("unknown").size());
    ExpectSound(Tree());
    Reopen();
    EXPECT_EQ(1, Tree("unknown").size());
    ExpectSound(Tree());
}

TEST_F(BPlusTreePersist, ATreeWithoutTypeIdsIsNotWritten) {
    BPlusTree tree;
    ExpectAssertion("1 <= bti.m_keyTid", "src/BPlusTree2", [&] { Written([&](Archive& ar) { tree.Serialise(ar); }); });
}

TEST_F(BPlusTreePersist, ADamagedCountInTheFileIsRefusedAndTheOtherNodesAreRead) {
    BPlusTree& tree = BuiltTree({50, 50, 50});
    const OID damaged = GetOid(LeavesOf(tree)[1]);
    const IntKey key = 515;
    Unlock();
    m_store.Close();
    {
        const BareLss lss(m_store.Path());
        Bytes record = ElementOf(*lss, damaged);
        // Behind the envelope the leaf's count of 50 comes right in front of the first key, 510.
        const Bytes firstKey = Written([](Archive& ar) { ar << IntKey{510}; });
        const auto at = std::search(record.begin(), record.end(), firstKey.begin(), firstKey.end());
        ASSERT_NE(record.end(), at);
        ASSERT_EQ(50, at[-1]);
        at[-1] = 101;
        PutElement(*lss, damaged, record);
    }
    m_store.Open();
    m_ps = m_store.OpenSpace("s", OM_OPEN_EXISTING, CreateCSpace());
    Lock();
    ExpectAssertion("0 <= n && n <= 100", "src/BPlusTree2", [&] { Has(Tree(), key); });
    EXPECT_TRUE(Has(Tree(), IntKey{10}));
    EXPECT_TRUE(Has(Tree(), IntKey{1500}));
}

} // namespace
} // namespace quna

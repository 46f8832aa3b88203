// Insertion: where an entry goes, how nodes split, and what the three operations report.
#include "tests/support/ExpectAssertion.h"
#include "tests/support/TestTree.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using Counts = std::vector<ssize_t>;

class BPlusTreeInsert : public TransientTreeTest<> {
protected:
    bool Insert(IntKey key) { return Put(m_tree, key, key + 1); }
    wFindRet Find(IntKey key, bool allowCreate) {
        wFindRet ret;
        m_tree.wFind(ret, AsKey(key), allowCreate);
        return ret;
    }
};

struct PackedEntry {
    IntKey key;
    IntKey payload;
};
const _KeyAndPayload* AsEntry(const PackedEntry& entry) { return reinterpret_cast<const _KeyAndPayload*>(&entry); }

// ---- The first leaf ----------------------------------------------------------------------------------------------------

TEST_F(BPlusTreeInsert, TheFirstKeyMakesOneLeafThatIsFirstLastAndRoot) {
    EXPECT_TRUE(Insert(10));
    EXPECT_EQ(0, m_tree.m_height);
    EXPECT_EQ(1, m_tree.size());
    LeafNode* const leaf = &RootLeaf(m_tree);
    EXPECT_EQ(leaf, m_tree.m_firstLeaf.Get());
    EXPECT_EQ(leaf, m_tree.m_lastLeaf.Get());
    EXPECT_EQ(1, m_domain.NumObjects());
    EXPECT_EQ(11u, (Get<IntKey>(m_tree, IntKey{10})));
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, EvenAProbeMakesTheFirstLeafAndFindsNothing) {
    const wFindRet ret = Find(10, false);
    EXPECT_EQ(0, m_tree.m_height);
    EXPECT_EQ(0, m_tree.size());
    EXPECT_EQ(0, RootLeaf(m_tree).m_numKeyEntrys);
    EXPECT_EQ(-1, ret.m_index);
    EXPECT_FALSE(ret.m_created);
    EXPECT_EQ(nullptr, ret.m_leaf);
    EXPECT_EQ(nullptr, ret.m_payload);
    EXPECT_FALSE(ret.m_containingNode);
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, AProbeOfAPopulatedTreeChangesNothing) {
    Build({50, 100});
    const wFindRet miss = Find(15, false);
    EXPECT_EQ(-1, miss.m_index);
    EXPECT_FALSE(miss.m_created);
    EXPECT_EQ(nullptr, miss.m_leaf);
    EXPECT_EQ(nullptr, miss.m_payload);
    EXPECT_FALSE(miss.m_containingNode);
    EXPECT_EQ((Counts{50, 100}), LeafCounts(m_tree));
    const wFindRet hit = Find(520, false);
    EXPECT_EQ(1, hit.m_index);
    EXPECT_FALSE(hit.m_created);
    EXPECT_EQ(Leaves()[1], hit.m_leaf);
    EXPECT_EQ(Leaves()[1], hit.m_containingNode.m_self);
    EXPECT_EQ(521u, ValueAt<IntKey>(hit.m_payload));
}

TEST_F(BPlusTreeInsert, FindingForCreationNamesTheNewEntryWithADefaultPayload) {
    Build(5);
    const wFindRet ret = Find(25, true);
    EXPECT_TRUE(ret.m_created);
    EXPECT_EQ(2, ret.m_index);
    EXPECT_EQ(&RootLeaf(m_tree), ret.m_leaf);
    EXPECT_EQ(&RootLeaf(m_tree), ret.m_containingNode.m_self);
    EXPECT_EQ(PayloadPlace(RootLeaf(m_tree), 2), static_cast<void*>(ret.m_payload));
    EXPECT_EQ(0u, ValueAt<IntKey>(ret.m_payload));
    EXPECT_EQ((std::vector<IntKey>{10, 20, 25, 30, 40, 50}), KeysOf<IntKey>(RootLeaf(m_tree)));
    EXPECT_EQ(6, m_tree.size());
}

// ---- Leaves ------------------------------------------------------------------------------------------------------------

TEST_F(BPlusTreeInsert, KeysInAnyOrderStandInOrder) {
    for (IntKey key : {30, 10, 50, 20, 40, 5, 60}) EXPECT_TRUE(Insert(key));
    EXPECT_EQ((std::vector<IntKey>{5, 10, 20, 30, 40, 50, 60}), AllKeys<IntKey>(m_tree));
    for (IntKey key : {5, 10, 20, 30, 40, 50, 60}) EXPECT_EQ(key + 1, (Get<IntKey>(m_tree, key)));
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, ALeafTakesAHundredKeys) {
    Fill(100);
    EXPECT_EQ(0, m_tree.m_height);
    EXPECT_EQ((Counts{100}), LeafCounts(m_tree));
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, TheHundredAndFirstKeyGivesFiftyAndFiftyOneUnderANewRoot) {
    Fill(100);
    LeafNode* const left = &RootLeaf(m_tree);
    EXPECT_TRUE(Insert(1010));
    EXPECT_EQ(1, m_tree.m_height);
    EXPECT_EQ(1, RootNode(m_tree).m_numKeyEntrys);
    EXPECT_EQ((Counts{50, 51}), LeafCounts(m_tree));
    EXPECT_EQ(left, ChildAt(RootNode(m_tree), -1));
    EXPECT_EQ(ChildAt(RootNode(m_tree), 0), m_tree.m_lastLeaf.Get());
    EXPECT_EQ(left, m_tree.m_firstLeaf.Get());
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, InAFullLeafPositionZeroStaysLeft) {
    Build(100);
    EXPECT_TRUE(Insert(5));
    EXPECT_EQ((Counts{50, 51}), LeafCounts(m_tree));
    EXPECT_EQ(5u, KeyAt<IntKey>(*Leaves()[0], 0));
    EXPECT_EQ(490u, KeyAt<IntKey>(*Leaves()[0], 49));
    EXPECT_EQ(500u, KeyAt<IntKey>(*Leaves()[1], 0));
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, InAFullLeafPosition49StaysLeft) {
    Build(100);
    EXPECT_TRUE(Insert(495)); // between entries 48 and 49
    EXPECT_EQ((Counts{50, 51}), LeafCounts(m_tree));
    EXPECT_EQ(495u, KeyAt<IntKey>(*Leaves()[0], 49));
    EXPECT_EQ(500u, KeyAt<IntKey>(*Leaves()[1], 0));
    EXPECT_EQ((std::vector<IntKey>{500}), Separators<IntKey>(RootNode(m_tree)));
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, InAFullLeafPosition50GoesRightAndIsTheSeparator) {
    Build(100);
    const wFindRet ret = Find(505, true);
    EXPECT_EQ((Counts{50, 51}), LeafCounts(m_tree));
    EXPECT_EQ(505u, KeyAt<IntKey>(*Leaves()[1], 0));
    EXPECT_EQ(510u, KeyAt<IntKey>(*Leaves()[1], 1));
    EXPECT_EQ((std::vector<IntKey>{505}), Separators<IntKey>(RootNode(m_tree)));
    EXPECT_EQ(Leaves()[1], ret.m_leaf);
    EXPECT_EQ(Leaves()[1], ret.m_containingNode.m_self);
    EXPECT_EQ(0, ret.m_index);
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, InAFullLeafPosition100GoesRightToIndex50) {
    Build(100);
    const wFindRet ret = Find(1010, true);
    EXPECT_EQ(50, ret.m_index);
    EXPECT_EQ(Leaves()[1], ret.m_leaf);
    EXPECT_EQ(1010u, KeyAt<IntKey>(*Leaves()[1], 50));
    EXPECT_EQ((std::vector<IntKey>{510}), Separators<IntKey>(RootNode(m_tree)));
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, EveryPositionOfAFullLeafGivesAllKeysInOrder) {
    for (IntKey key = 5; key <= 1005; key += 10) {
        BPlusTree tree(ResolvedInfo<IntKey, IntKey>());
        TreeBuilder(tree).Build(100);
        EXPECT_TRUE(Put(tree, key, key + 1));
        ExpectSound(tree);
        EXPECT_EQ((Counts{50, 51}), LeafCounts(tree));
        std::vector<IntKey> expected;
        for (IntKey k = 10; k <= 1000; k += 10) expected.push_back(k);
        expected.insert(std::upper_bound(expected.begin(), expected.end(), key), key);
        ASSERT_EQ(expected, AllKeys<IntKey>(tree));
        for (IntKey k : expected) ASSERT_EQ(k + 1, (Get<IntKey>(tree, k)));
    }
}

TEST_F(BPlusTreeInsert, ASplitInTheMiddleOfTheChainLinksBothNeighbours) {
    Build({50, 100, 50});
    const std::vector<LeafNode*> before = Leaves();
    EXPECT_TRUE(Insert(1005));
    EXPECT_EQ((Counts{50, 50, 51, 50}), LeafCounts(m_tree));
    const std::vector<LeafNode*> after = Leaves();
    EXPECT_EQ(before[1], after[1]); // the left one is kept
    EXPECT_EQ(before[2], after[3]);
    EXPECT_EQ(after[2], before[2]->m_prev.Get());
    EXPECT_EQ(before[2], m_tree.m_lastLeaf.Get());
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, ASplitOfTheLastLeafMovesTheEndOfTheChain) {
    Build({50, 100});
    EXPECT_TRUE(Insert(9999));
    EXPECT_EQ(Leaves()[2], m_tree.m_lastLeaf.Get());
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, AscendingKeysLeaveHalfFullLeaves) {
    Fill(1000);
    Counts counts = LeafCounts(m_tree);
    counts.pop_back(); // the last one may hold more
    EXPECT_EQ(Counts(counts.size(), 50), counts);
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, DescendingKeysSplitTheFirstLeafWhichStaysFirst) {
    Insert(100000);
    LeafNode* const first = m_tree.m_firstLeaf.Get();
    for (IntKey key = 99990; key > 90000; key -= 10) Insert(key);
    EXPECT_EQ(first, m_tree.m_firstLeaf.Get());
    EXPECT_EQ(1000, m_tree.size());
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, TheSeparatorIsACopyAndTheLeafKeepsItsKey) {
    const int before = CountedValue::s_numLive;
    {
        BPlusTree tree(ResolvedInfo<CountedValue>());
        for (uint64 i = 0; i < 101; ++i) PutKey(tree, CountedValue(i));
        EXPECT_EQ(before + 101 + 1, CountedValue::s_numLive);
        const void* inLeaf = EntryAt(*LeavesOf(tree)[1], 0);
        const void* inRoot = EntryAt(RootNode(tree), 0);
        EXPECT_EQ(50u, ValueAt<CountedValue>(inLeaf).Number());
        EXPECT_EQ(50u, ValueAt<CountedValue>(inRoot).Number());
        EXPECT_NE(0, std::memcmp(inLeaf, inRoot, sizeof(CountedValue))); // two objects, each with its own memory
    }
}

// ---- Internal nodes ----------------------------------------------------------------------------------------------------

// A root of 100 entries over 101 leaves, of which the one at `position` is full.
Shape FullRoot(int position) {
    std::vector<Shape> leaves = Times(101, 50);
    leaves[static_cast<std::size_t>(position)] = 100;
    return Shape(leaves);
}

// Splits the leaf at `position` under a full root; the new separator then goes in at index `position`.
class FullRootInsert : public BPlusTreeInsert, public ::testing::WithParamInterface<int> {};

TEST_P(FullRootInsert, AnInternalSplitGivesFiftyFiftyAndOneThatRises) {
    const int position = GetParam();
    Build(FullRoot(position));
    InternalNode* const left = &RootNode(m_tree);
    const IntKey inLeaf = static_cast<IntKey>(position) * 500 + 505; // in the middle of the full leaf
    std::vector<IntKey> separators = Separators<IntKey>(*left);
    EXPECT_TRUE(Insert(inLeaf));
    EXPECT_EQ(2, m_tree.m_height);
    InternalNode& root = RootNode(m_tree);
    EXPECT_EQ(1, root.m_numKeyEntrys);
    EXPECT_EQ(left, ChildAt(root, -1)); // the old root is the leftmost child
    InternalNode& right = InternalChild(root, 0);
    EXPECT_EQ(50, left->m_numKeyEntrys);
    EXPECT_EQ(50, right.m_numKeyEntrys);
    separators.insert(std::upper_bound(separators.begin(), separators.end(), inLeaf), inLeaf);
    EXPECT_EQ(std::vector<IntKey>(separators.begin(), separators.begin() + 50), Separators<IntKey>(*left));
    EXPECT_EQ((std::vector<IntKey>{separators[50]}), Separators<IntKey>(root));
    EXPECT_EQ(std::vector<IntKey>(separators.begin() + 51, separators.end()), Separators<IntKey>(right));
    ExpectSound(m_tree);
}

INSTANTIATE_TEST_SUITE_P(AtEveryInterestingPosition, FullRootInsert,
                         ::testing::Values(0, 1, 48, 49, 50, 51, 52, 98, 99, 100));

TEST_F(BPlusTreeInsert, AnEntryAtPosition50OfAFullNodeRisesItself) {
    Build(FullRoot(50));
    EXPECT_TRUE(Insert(25505));
    InternalNode& root = RootNode(m_tree);
    EXPECT_EQ((std::vector<IntKey>{25505}), Separators<IntKey>(root));
    InternalNode& right = InternalChild(root, 0);
    EXPECT_EQ(25505u, KeyAt<IntKey>(LeafChild(right, -1), 0)); // its child is the leftmost of the right node
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, NoKeyIsCopiedWhenASeparatorRises) {
    BPlusTree tree(ResolvedInfo<CountedValue>());
    uint64 next = 0;
    while (tree.m_height < 1 || RootNode(tree).m_numKeyEntrys < 100) PutKey(tree, CountedValue(next++));
    while (LeavesOf(tree).back()->m_numKeyEntrys < 100) PutKey(tree, CountedValue(next++));
    const CountedValue key(next);
    const int copies = CountedValue::s_numCopies;
    PutKey(tree, key);
    EXPECT_EQ(2, tree.m_height);
    // The new entry's own, perhaps by way of a scratch buffer, and the separator of the split leaf.
    EXPECT_EQ(2, CountedValue::s_numCopies - copies);
    ExpectSound(tree);
}

TEST_F(BPlusTreeInsert, AFullPathSplitsUpToTheRoot) {
    // Root, two nodes of which the second is full, and its last leaf full too.
    Build(Shape(std::vector<Shape>{Shape(Times(51, 50)), Shape(Times(100, 50) + Times(1, 100))}));
    EXPECT_TRUE(Insert(1000000));
    EXPECT_EQ(2, m_tree.m_height);
    EXPECT_EQ(2, RootNode(m_tree).m_numKeyEntrys);
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeInsert, AHundredThousandKeysInRandomOrderAreAllThere) {
    std::vector<IntKey> keys;
    for (IntKey i = 0; i < 100000; ++i) keys.push_back(i);
    uint64 random = 42;
    for (std::size_t i = keys.size(); i > 1; --i) {
        random = random * 6364136223846793005u + 1442695040888963407u;
        std::swap(keys[i - 1], keys[(random >> 33) % i]);
    }
    for (IntKey key : keys) ASSERT_TRUE(Insert(key));
    for (IntKey key : keys) ASSERT_FALSE(Insert(key));
    EXPECT_EQ(2, m_tree.m_height);
    EXPECT_EQ(100000, m_tree.size());
    ExpectSound(m_tree);
}

// ---- The three operations ---------------------------------------------------------------------------------------------

TEST_F(BPlusTreeInsert, InsertWithoutReplacingLeavesThePayload) {
    EXPECT_TRUE(Put(m_tree, IntKey{10}, IntKey{1}));
    EXPECT_FALSE(Put(m_tree, IntKey{10}, IntKey{2}, false));
    EXPECT_EQ(1u, (Get<IntKey>(m_tree, IntKey{10})));
    EXPECT_EQ(1, m_tree.size());
}

TEST_F(BPlusTreeInsert, InsertWithReplacingAssignsAndReturnsFalse) {
    EXPECT_TRUE(Put(m_tree, IntKey{10}, IntKey{1}, true));
    EXPECT_FALSE(Put(m_tree, IntKey{10}, IntKey{2}, true));
    EXPECT_EQ(2u, (Get<IntKey>(m_tree, IntKey{10})));
    EXPECT_EQ(1, m_tree.size());
}

TEST_F(BPlusTreeInsert, InsertOfAnEntryNeverReplaces) {
    const auto first = m_tree.insert(AsEntry({10, 1}));
    EXPECT_TRUE(first.second);
    EXPECT_EQ(0, first.first.m_offset);
    EXPECT_EQ(&RootLeaf(m_tree), first.first.m_leaf);
    const auto second = m_tree.insert(AsEntry({10, 2}));
    EXPECT_FALSE(second.second);
    EXPECT_TRUE(first.first == second.first);
    EXPECT_EQ(1u, (Get<IntKey>(m_tree, IntKey{10})));
    const auto third = m_tree.insert(AsEntry({5, 3}));
    EXPECT_TRUE(third.second);
    EXPECT_EQ(0, third.first.m_offset);
}

TEST_F(BPlusTreeInsert, TheIndexFindsOrMakesAnEntry) {
    const IntKey key = 10;
    _Payload* const p = m_tree[AsKey(key)];
    EXPECT_EQ(0u, ValueAt<IntKey>(p));
    const IntKey payload = 7;
    std::memcpy(p, &payload, sizeof payload);
    EXPECT_EQ(p, m_tree[AsKey(key)]);
    EXPECT_EQ(7u, (Get<IntKey>(m_tree, key)));
    EXPECT_EQ(1, m_tree.size());
}

TEST_F(BPlusTreeInsert, ASetTakesKeysWithoutPayloads) {
    BPlusTree set(ResolvedInfo<IntKey>());
    const IntKey key = 10;
    EXPECT_TRUE(set.Insert(AsKey(key), nullptr, false));
    EXPECT_FALSE(set.Insert(AsKey(key), nullptr, true)); // a null payload isn't read
    const IntKey other = 20;
    EXPECT_TRUE(set.Insert(AsKey(other)));
    EXPECT_FALSE(set.Insert(AsKey(other)));
    EXPECT_NE(nullptr, set[AsKey(key)]);
    EXPECT_TRUE(set.insert(reinterpret_cast<const _KeyAndPayload*>(&other)).second == false);
    wFindRet ret;
    set.wFind(ret, AsKey(key), false);
    EXPECT_NE(nullptr, ret.m_payload);
    EXPECT_EQ(2, set.size());
    ExpectSound(set);
}

TEST_F(BPlusTreeInsert, NodesOfATransientTreeHaveNoIdentity) {
    Fill(300);
    for (const ptr<IPersistable>& node : NodesOf(m_tree)) {
        EXPECT_FALSE(GetOid(node));
        EXPECT_FALSE(IsPersistableDirty(node));
    }
    EXPECT_FALSE(m_tree.IsDirty());
}

// ---- Values that resist -----------------------------------------------------------------------------------------------

class BPlusTreeValues : public TransientTreeTest<CountedValue, CountedValue> {};

TEST_F(BPlusTreeValues, AnExceptionFromACopyHarmsNothing) {
    const int before = CountedValue::s_numLive;
    for (uint64 i = 1; i <= 100; ++i) Put(m_tree, CountedValue(i * 10), CountedValue(i));
    const CountedValue key(55);
    const CountedValue payload(1);
    CountedValue::s_copiesUntilThrow = 0;
    EXPECT_THROW(Put(m_tree, key, payload), std::runtime_error);
    CountedValue::s_copiesUntilThrow = -1;
    EXPECT_EQ(100, m_tree.size());
    EXPECT_FALSE(Has(m_tree, key));
    ExpectSound(m_tree);
    EXPECT_EQ(before + 200 + 2, CountedValue::s_numLive);
    EXPECT_TRUE(Put(m_tree, key, payload));
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeValues, APayloadMayComeFromTheSameTree) {
    for (uint64 i = 1; i <= 60; ++i) Put(m_tree, CountedValue(i * 10), CountedValue(i));
    const CountedValue source(600);
    const _Payload* const payload = m_tree.rFind(AsKey(source));
    const CountedValue key(5); // shifts the source while it is inserted
    EXPECT_TRUE(m_tree.Insert(AsKey(key), payload, false));
    EXPECT_EQ(60u, (Get<CountedValue>(m_tree, key))->Number());
    ExpectSound(m_tree);
}

TEST_F(BPlusTreeValues, AnEntryMayComeFromTheSameTree) {
    for (uint64 i = 1; i <= 100; ++i) Put(m_tree, CountedValue(i * 10), CountedValue(i));
    const CountedValue present(500);
    const auto i = m_tree.find(AsKey(present));
    EXPECT_FALSE(m_tree.insert(i.const_deref()).second);
    EXPECT_EQ(100, m_tree.size());
}

// ---- The scratch slot -------------------------------------------------------------------------------------------------

TEST(KeyAndCrefSlot, IsFilledAndEmptiedOnce) {
    const int before = CountedValue::s_numLive;
    const BTreeTypeInfo info = ResolvedInfo<CountedValue>();
    {
        KeyAndCrefSlot slot(info.m_bi);
        EXPECT_TRUE(slot.empty());
        ExpectAssertion("m_p", "src/BPlusTree2", [&] { slot.contents(); });
        ExpectAssertion("m_p", "src/BPlusTree2", [&] { slot.release(); });
        _KeyAndCref* const p = slot.fill();
        CopyConstructKey(info.m_bi, member_key(p), AsKey(CountedValue(1)));
        EXPECT_FALSE(slot.empty());
        EXPECT_EQ(p, slot.contents());
        ExpectAssertion("!m_p", "src/BPlusTree2", [&] { slot.fill(); });
        EXPECT_EQ(p, slot.release());
        EXPECT_TRUE(slot.empty());
        EXPECT_EQ(before + 1, CountedValue::s_numLive);
        info.m_bi.m_keyType->DestructVariable(p); // the entry is the caller's now
    }
    EXPECT_EQ(before, CountedValue::s_numLive);
}

TEST(KeyAndCrefSlot, EndsTheKeyThatItHolds) {
    const int before = CountedValue::s_numLive;
    const BTreeTypeInfo info = ResolvedInfo<CountedValue>();
    try {
        KeyAndCrefSlot slot(info.m_bi);
        CopyConstructKey(info.m_bi, member_key(slot.fill()), AsKey(CountedValue(1)));
        throw std::runtime_error("passing");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(before, CountedValue::s_numLive);
}

TEST(FixedOrHeapAllocatedBuffer, StandsOnTheStackUpToItsSize) {
    using Buffer = FixedOrHeapAllocatedBuffer<256>;
    const auto inside = [](const Buffer& buffer) {
        const auto p = reinterpret_cast<uintptr_t>(buffer.m_buffer);
        const auto from = reinterpret_cast<uintptr_t>(&buffer);
        return p >= from && p < from + sizeof(buffer);
    };
    EXPECT_TRUE(inside(Buffer(0)));
    EXPECT_TRUE(inside(Buffer(256)));
    const Buffer large(257);
    EXPECT_FALSE(inside(large));
    std::memset(large.m_buffer, 1, 257);
    ExpectAssertion("0 <= size", "src/BPlusTree2", [] { Buffer(-1); });
}

TEST_F(BPlusTreeInsert, KeysLargerThanTheScratchBufferTravelToo) {
    BPlusTree tree(ResolvedInfo<BytesKey<300>, uint8>());
    for (uint64 i = 0; i < 12000; ++i) ASSERT_TRUE(Put(tree, BytesKey<300>((i * 7919) % 12000), uint8{1}));
    ExpectSound(tree);
    EXPECT_EQ(2, tree.m_height);
}

// ---- Damage -----------------------------------------------------------------------------------------------------------

TEST_F(BPlusTreeInsert, ASplitChecksTheChain) {
    Build({50, 100, 50});
    Leaves()[2]->m_prev.Clear();
    ExpectAssertion("next->m_prev == left", "src/BPlusTree2", [&] { Insert(1005); });
    BPlusTree other(ResolvedInfo<IntKey, IntKey>());
    TreeBuilder(other).Build({50, 100});
    other.m_lastLeaf = LeavesOf(other)[0];
    ExpectAssertion("m_lastLeaf == left", "src/BPlusTree2", [&] { Put(other, IntKey{1005}, IntKey{0}); });
}

TEST_F(BPlusTreeInsert, ALeafWithAnImpossibleCountIsRefused) {
    Build(50);
    RootLeaf(m_tree).m_numKeyEntrys = 101;
    ExpectAssertion("0 <= nk && nk <= 100", "src/BPlusTree2", [&] { Insert(5); });
    RootLeaf(m_tree).m_numKeyEntrys = 50;
}

TEST_F(BPlusTreeInsert, TheStepsOfTheWritePathCheckTheirSlots) {
    Build({50, 50});
    const IntKey key = 5;
    const CalculatedBTreeTypeInfo& bi = InfoOf(m_tree);
    KeyAndCrefSlot filled(bi);
    std::memset(static_cast<void*>(filled.fill()), 0, 32);
    KeyAndCrefSlot empty(bi);
    InternalNode* const root = &RootNode(m_tree);
    wFindRet ret;
    ExpectAssertion("rightEntry.empty()", "src/BPlusTree2",
                    [&] { TreeInternals::FindInNode(m_tree, ret, root, 1, AsKey(key), filled, true); });
    ExpectAssertion("height >= 0", "src/BPlusTree2",
                    [&] { TreeInternals::RecursiveFind(m_tree, ret, root, -1, AsKey(key), empty, true); });
    ExpectAssertion("left", "src/BPlusTree2",
                    [&] { TreeInternals::RecursiveFind(m_tree, ret, nullptr, 1, AsKey(key), empty, true); });
    ExpectAssertion("rightEntry.empty()", "src/BPlusTree2",
                    [&] { TreeInternals::RecursiveFind(m_tree, ret, root, 1, AsKey(key), filled, true); });
    ExpectAssertion("left", "src/BPlusTree2",
                    [&] { TreeInternals::InsertIntoInternalNode(m_tree, nullptr, filled, empty); });
    ExpectAssertion("!e.empty()", "src/BPlusTree2",
                    [&] { TreeInternals::InsertIntoInternalNode(m_tree, root, empty, empty); });
    ExpectAssertion("overflow.empty()", "src/BPlusTree2",
                    [&] { TreeInternals::InsertIntoInternalNode(m_tree, root, filled, filled); });
    root->m_numKeyEntrys = 0;
    ExpectAssertion("1 <= nk && nk <= 100", "src/BPlusTree2",
                    [&] { TreeInternals::InsertIntoInternalNode(m_tree, root, filled, empty); });
    root->m_numKeyEntrys = 1;
}

} // namespace
} // namespace quna

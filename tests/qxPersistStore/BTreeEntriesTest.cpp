// The descriptor of a tree's types, and the helpers that reach, move, compare and declare entries.
#include "tests/support/TestStore.h"
#include "tests/support/TestTree.h"

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(BTreeTypeInfo, StartsWithoutIdsAndUnresolved) {
    const BTreeTypeInfo info;
    EXPECT_EQ(0, info.m_keyTid);
    EXPECT_EQ(0, info.m_payloadTid);
    EXPECT_FALSE(static_cast<const TypeOps*>(info.m_bi.m_keyType));
    EXPECT_FALSE(static_cast<const TypeOps*>(info.m_bi.m_payloadType));
}

TEST(BTreeTypeInfo, EntriesArePackedWithoutPadding) {
    const BTreeTypeInfo map = ResolvedInfo<Key3, uint64>();
    EXPECT_EQ(3 + 24, map.m_bi.m_keyAndCrefSize);
    EXPECT_EQ(3 + 8, map.m_bi.m_keyAndPayloadSize);
    const BTreeTypeInfo set = ResolvedInfo<Key3>();
    EXPECT_EQ(3 + 24, set.m_bi.m_keyAndCrefSize);
    EXPECT_EQ(3, set.m_bi.m_keyAndPayloadSize);
}

TEST(BTreeTypeInfo, IsResolvedThroughTheStoreOnce) {
    TestStore store;
    PSpace* const ps = store.OpenSpace("s");
    const SpaceScope scope(ps);
    const BTreeTypeInfo info = StoredInfo<uint32, xstring>();
    const CalculatedBTreeTypeInfo& bi = info.GetCalculatedBTreeTypeInfo();
    EXPECT_EQ(&GetTypeOps<uint32>(), static_cast<const TypeOps*>(bi.m_keyType));
    EXPECT_EQ(&GetTypeOps<xstring>(), static_cast<const TypeOps*>(bi.m_payloadType));
    EXPECT_EQ(&info.m_bi, &bi);
    // From now on no space is needed, nor is one asked.
    const ThreadPSpaceScope none(nullptr, ps->GetCSpace());
    EXPECT_EQ(&bi, &info.GetCalculatedBTreeTypeInfo());
    const BPlusTree tree(info);
    const LeafNode leaf(info);
    const InternalNode node(info);
    EXPECT_EQ(&GetTypeOps<uint32>(), static_cast<const TypeOps*>(tree.GetCalculatedBTreeTypeInfo().m_keyType));
    EXPECT_EQ(&GetTypeOps<uint32>(), static_cast<const TypeOps*>(leaf.GetCalculatedBTreeTypeInfo().m_keyType));
    EXPECT_EQ(&GetTypeOps<uint32>(), static_cast<const TypeOps*>(node.GetCalculatedBTreeTypeInfo().m_keyType));
    EXPECT_EQ(4, tree.GetPayloadOffset());
}

TEST(BTreeTypeInfo, ASetHasNoPayloadType) {
    TestStore store;
    const SpaceScope scope(store.OpenSpace("s"));
    const BTreeTypeInfo info = StoredInfo<xstring>();
    const CalculatedBTreeTypeInfo& bi = info.GetCalculatedBTreeTypeInfo();
    EXPECT_FALSE(static_cast<const TypeOps*>(bi.m_payloadType));
    EXPECT_EQ(TreeOpsOf<xstring>().m_size, bi.m_keyAndPayloadSize);
}

TEST(BTreeTypeInfo, ConstructedTreesAreEmpty) {
    const BTreeTypeInfo info = ResolvedInfo<uint8, uint16>();
    for (const BPlusTree& tree : {BPlusTree(), BPlusTree(info)}) {
        EXPECT_EQ(0, tree.m_size);
        EXPECT_EQ(-1, tree.m_height);
        EXPECT_FALSE(tree.m_root || tree.m_firstLeaf || tree.m_lastLeaf);
    }
    EXPECT_EQ(0, BPlusTree().m_bti.m_keyTid);
    EXPECT_EQ(0, BPlusTree().m_bti.m_payloadTid);
    EXPECT_EQ(1, BPlusTree(info).m_bti.m_keyTid);
    EXPECT_EQ(2, BPlusTree(info).m_bti.m_payloadTid);
    EXPECT_EQ(0, LeafNode(info).m_numKeyEntrys);
    EXPECT_EQ(0, LeafNode(info).m_entrys.size());
    EXPECT_EQ(0, InternalNode(info).m_numKeyEntrys);
    EXPECT_EQ(0, InternalNode(info).m_entrys.size());
    EXPECT_EQ(0, LeafNode().m_bti.m_keyTid);
    EXPECT_EQ(0, InternalNode().m_bti.m_keyTid);
}

class BTreeEntries : public ::testing::Test {
protected:
    BTreeEntries() : m_info(ResolvedInfo<Key3, uint16>()), m_leaf(m_info), m_node(m_info) {
        InitEntrysBuffer(Bi(), &m_leaf);
        InitEntrysBuffer(Bi(), &m_node);
    }
    ~BTreeEntries() noexcept override {}
    const CalculatedBTreeTypeInfo& Bi() const { return m_info.m_bi; }
    static void Number(LeafNode& leaf, ssize_t n) {
        for (ssize_t i = 0; i < n; ++i) SetKeyAt(leaf, i, Key3(static_cast<uint64>(i)));
    }
    static std::vector<uint64> Numbers(const LeafNode& leaf, ssize_t from, ssize_t n) {
        std::vector<uint64> numbers;
        for (ssize_t i = from; i < from + n; ++i) numbers.push_back(KeyAt<Key3>(leaf, i).Number());
        return numbers;
    }

    BTreeTypeInfo m_info;
    LeafNode m_leaf;
    InternalNode m_node;
};

TEST_F(BTreeEntries, SizesAndOffsetsComeFromTheTypes) {
    EXPECT_EQ(3, GetKeySize(Bi()));
    EXPECT_EQ(2, GetPayloadSize(Bi()));
    EXPECT_EQ(27, GetKeyAndCrefSize(Bi()));
    EXPECT_EQ(5, GetKeyAndPayloadSize(Bi()));
    EXPECT_EQ(3, GetPayloadOffset(Bi()));
    EXPECT_EQ(3, GetCrefOffset(Bi()));
    EXPECT_EQ(&TreeOpsOf<Key3>(), &Key(Bi()));
    auto* const entry = GetEntry(Bi(), &m_leaf, 1);
    EXPECT_EQ(static_cast<void*>(entry), static_cast<void*>(member_key(entry)));
    EXPECT_EQ(static_cast<void*>(reinterpret_cast<char*>(entry) + 3), static_cast<void*>(member_payload(Bi(), entry)));
    auto* const internal = GetEntry(Bi(), &m_node, 1);
    EXPECT_EQ(static_cast<void*>(internal), static_cast<void*>(member_key(internal)));
    EXPECT_EQ(static_cast<void*>(reinterpret_cast<char*>(internal) + 3),
              static_cast<void*>(member_cref(Bi(), internal)));
}

TEST_F(BTreeEntries, AnUnresolvedDescriptorIsRefused) {
    const CalculatedBTreeTypeInfo bi{};
    ExpectAssertion("bi.m_keyType", "src/BPlusTree2", [&] { GetKeySize(bi); });
    ExpectAssertion("bi.m_keyType", "src/BPlusTree2", [&] { GetPayloadOffset(bi); });
    ExpectAssertion("bi.m_keyType", "src/BPlusTree2", [&] { GetCrefOffset(bi); });
    ExpectAssertion("bi.m_keyType", "src/BPlusTree2", [&] { Key(bi); });
}

TEST_F(BTreeEntries, AnIndexMayBeOnePastTheLastEntry) {
    EXPECT_EQ(EntryAt(m_leaf, 0), static_cast<void*>(GetEntry(Bi(), &m_leaf, 0)));
    EXPECT_EQ(EntryAt(m_leaf, 100), static_cast<void*>(GetEntry(Bi(), &m_leaf, 100)));
    EXPECT_EQ(EntryAt(m_node, 100), static_cast<void*>(GetEntry(Bi(), &m_node, 100)));
    for (ssize_t i : {ssize_t{-1}, ssize_t{101}}) {
        ExpectAssertion("0 <= i && i <= 100", "src/BPlusTree2", [&] { GetEntry(Bi(), &m_leaf, i); });
        ExpectAssertion("0 <= i && i <= 100", "src/BPlusTree2", [&] { GetEntry(Bi(), &m_node, i); });
    }
}

TEST_F(BTreeEntries, EntriesAreReachedOnlyInANodeOfFullSize) {
    LeafNode leaf(m_info);
    InternalNode node(m_info);
    ExpectAssertion("leaf->m_entrys.size() == 100 * GetKeyAndPayloadSize(bi)", "src/BPlusTree2",
                    [&] { GetEntry(Bi(), &leaf, 0); });
    ExpectAssertion("node->m_entrys.size() == 100 * GetKeyAndCrefSize(bi)", "src/BPlusTree2",
                    [&] { GetEntry(Bi(), &node, 0); });
}

TEST_F(BTreeEntries, ABufferIsMadeOnceWithZeroesAndOfNoThirdSize) {
    LeafNode leaf(m_info);
    InternalNode node(m_info);
    InitEntrysBuffer(Bi(), &leaf);
    InitEntrysBuffer(Bi(), &node);
    ASSERT_EQ(500, leaf.m_entrys.size());
    ASSERT_EQ(2700, node.m_entrys.size());
    EXPECT_EQ(500, std::count(leaf.m_entrys.begin(), leaf.m_entrys.end(), 0));
    EXPECT_EQ(2700, std::count(node.m_entrys.begin(), node.m_entrys.end(), 0));
    leaf.m_entrys[7] = 1;
    InitEntrysBuffer(Bi(), &leaf);
    EXPECT_EQ(1, leaf.m_entrys[7]);
    leaf.m_entrys.resize(499);
    node.m_entrys.resize(2701);
    constexpr ConstStringZ TEXT = "node->m_entrys.size() == 0 || node->m_entrys.size() == requiredSize";
    ExpectAssertion(TEXT, "src/BPlusTree2", [&] { InitEntrysBuffer(Bi(), &leaf); });
    ExpectAssertion(TEXT, "src/BPlusTree2", [&] { InitEntrysBuffer(Bi(), &node); });
}

TEST_F(BTreeEntries, EntriesShiftUpAndDownOverEachOther) {
    Number(m_leaf, 5);
    ShiftLeafEntries(Bi(), &m_leaf, 1, 2, 4);
    EXPECT_EQ((std::vector<uint64>{0, 1, 1, 2, 3, 4}), Numbers(m_leaf, 0, 6));
    ShiftLeafEntries(Bi(), &m_leaf, 2, 0, 4);
    EXPECT_EQ((std::vector<uint64>{1, 2, 3, 4, 3, 4}), Numbers(m_leaf, 0, 6));
    ShiftLeafEntries(Bi(), &m_leaf, 100, 99, 0); // none: an end position may be named
    for (ssize_t i = 0; i < 3; ++i) SetKeyAt(m_node, i, Key3(static_cast<uint64>(i)));
    ShiftInternalEntries(Bi(), &m_node, 0, 1, 3);
    EXPECT_EQ(0u, KeyAt<Key3>(m_node, 1).Number());
    EXPECT_EQ(2u, KeyAt<Key3>(m_node, 3).Number());
}

TEST_F(BTreeEntries, EntriesMoveToAnotherNodeBitwise) {
    Number(m_leaf, 5);
    LeafNode other(m_info);
    InitEntrysBuffer(Bi(), &other);
    MoveLeafEntries(Bi(), &m_leaf, 2, &other, 97, 3);
    EXPECT_EQ((std::vector<uint64>{2, 3, 4}), Numbers(other, 97, 3));
    MoveLeafEntries(Bi(), &m_leaf, 100, &other, 100, 0);
    cref<void> child;
    child.SetOid(OID(5, 1));
    SetKeyAt(m_node, 0, Key3(7));
    StorePref(CrefPlace(m_node, 0), child);
    InternalNode otherNode(m_info);
    InitEntrysBuffer(Bi(), &otherNode);
    MoveInternalEntries(Bi(), &m_node, 0, &otherNode, 99, 1);
    EXPECT_EQ(7u, KeyAt<Key3>(otherNode, 99).Number());
    EXPECT_EQ(OID(5, 1), CrefAt(otherNode, 99).GetOid());
    MoveKeyAndCref(Bi(), GetEntry(Bi(), &otherNode, 3), GetEntry(Bi(), &otherNode, 99));
    EXPECT_EQ(7u, KeyAt<Key3>(otherNode, 3).Number());
    EXPECT_EQ(OID(5, 1), CrefAt(otherNode, 3).GetOid());
    MoveKey(Bi(), member_key(GetEntry(Bi(), &m_leaf, 9)), member_key(GetEntry(Bi(), &m_leaf, 4)));
    EXPECT_EQ(4u, KeyAt<Key3>(m_leaf, 9).Number());
}

TEST_F(BTreeEntries, EntriesCompareByKeyThenPayload) {
    const auto entry = [&](uint64 key, uint16 payload) {
        std::vector<char> bytes(5);
        const Key3 k(key);
        std::memcpy(bytes.data(), &k, 3);
        std::memcpy(bytes.data() + 3, &payload, 2);
        return bytes;
    };
    const auto at = [](const std::vector<char>& bytes) {
        return reinterpret_cast<const _KeyAndPayload*>(bytes.data());
    };
    const auto a1 = entry(1, 5);
    const auto a2 = entry(1, 6);
    const auto b = entry(2, 0);
    EXPECT_TRUE(Less(Bi(), at(a1), at(b)));
    EXPECT_FALSE(Less(Bi(), at(b), at(a1)));
    EXPECT_TRUE(Less(Bi(), at(a1), at(a2)));
    EXPECT_FALSE(Less(Bi(), at(a2), at(a1)));
    EXPECT_FALSE(Less(Bi(), at(a1), at(a1)));
    EXPECT_TRUE(Equal(Bi(), at(a1), at(a1)));
    EXPECT_FALSE(Equal(Bi(), at(a1), at(a2)));
    EXPECT_FALSE(Equal(Bi(), at(a1), at(b)));
    const BTreeTypeInfo set = ResolvedInfo<Key3>();
    EXPECT_TRUE(Equal(set.m_bi, at(a1), at(a2)));
    EXPECT_FALSE(Less(set.m_bi, at(a1), at(a2)));
    EXPECT_TRUE(Less(set.m_bi, at(a1), at(b)));
}

TEST_F(BTreeEntries, AMissingOperationIsNamed) {
    TypeOps bare = TreeOpsOf<Key3>();
    bare.m_equalsFn = nullptr;
    bare.m_lessFn = nullptr;
    bare.m_AssignArrayFn = nullptr;
    bare.m_CopyConstructArrayFn = nullptr;
    const BTreeTypeInfo info = ResolvedInfo(bare, nullptr);
    const Key3 key(1);
    const auto* const entry = reinterpret_cast<const _KeyAndPayload*>(&key);
    ExpectAssertion("m_lessFn", [&] { Less(info.m_bi, entry, entry); });
    ExpectAssertion("m_equalsFn", [&] { Equal(info.m_bi, entry, entry); });
    Key3 target;
    auto* const place = reinterpret_cast<_Key*>(&target);
    ExpectAssertion("m_AssignArrayFn", [&] { AssignKey(info.m_bi, place, AsKey(key)); });
    ExpectAssertion("m_CopyConstructArrayFn", [&] { CopyConstructKey(info.m_bi, place, AsKey(key)); });
}

TEST_F(BTreeEntries, ValuesAreMadeAssignedAndEndedThroughTheirTypes) {
    const BTreeTypeInfo info = ResolvedInfo<CountedValue, CountedValue>();
    const CalculatedBTreeTypeInfo& bi = info.m_bi;
    const int before = CountedValue::s_numLive;
    {
        LeafNode leaf(info);
        InitEntrysBuffer(bi, &leaf);
        const CountedValue key(5);
        const CountedValue payload(6);
        auto* const entry = GetEntry(bi, &leaf, 0);
        CopyConstructKey(bi, member_key(entry), AsKey(key));
        ConstructPayload(bi, member_payload(bi, entry));
        EXPECT_EQ(before + 4, CountedValue::s_numLive);
        AssignPayload(bi, member_payload(bi, entry), AsPayload(payload));
        AssignKey(bi, member_key(entry), AsKey(payload));
        EXPECT_EQ(6u, KeyAt<CountedValue>(leaf, 0).Number());
        EXPECT_EQ(6u, PayloadAt<CountedValue>(leaf, 0).Number());
        DestructLeafEntry(bi, &leaf, 0);
        EXPECT_EQ(before + 2, CountedValue::s_numLive);
        ConstructArrayOfKeyAndPayload(bi, entry, 3);
        EXPECT_EQ(before + 8, CountedValue::s_numLive);
        DestructArrayOfKeyAndPayload(bi, entry, 3);
        EXPECT_EQ(before + 2, CountedValue::s_numLive);
        InternalNode node(info);
        InitEntrysBuffer(bi, &node);
        ConstructArrayOfKeyAndCref(bi, GetEntry(bi, &node, 0), 3);
        EXPECT_EQ(before + 5, CountedValue::s_numLive);
        DestructInternalEntry(bi, &node, 2);
        DestructArrayOfKeyAndCref(bi, GetEntry(bi, &node, 0), 2);
        EXPECT_EQ(before + 2, CountedValue::s_numLive);
    }
    EXPECT_EQ(before, CountedValue::s_numLive);
}

// ---- Declaring what an entry references -----------------------------------------------------------------------------------

class BTreeReachable : public ::testing::Test {
protected:
    BTreeReachable() : m_ps(m_store.OpenSpace("s")), m_scope(m_ps) {}
    ~BTreeReachable() noexcept override {}

    TestStore m_store;
    PSpace* m_ps;
    SpaceScope m_scope;
};

TEST_F(BTreeReachable, NeedsAParent) {
    const cref<TestLeaf> child;
    ExpectAssertion("parent", "src/BPlusTree2",
                    [&] { DeclareVariableReachable(TreeOpsOf<cref<TestLeaf>>(), ptr<const IPersistable>(), &child); });
}

TEST_F(BTreeReachable, ATransientParentReachesNothing) {
    auto* const parent = NewObject<TestLeaf>(1);
    auto* const target = NewObject<TestLeaf>(2);
    const cref<TestLeaf> child(target);
    DeclareVariableReachable(TreeOpsOf<cref<TestLeaf>>(), ptr<const IPersistable>(parent), &child);
    EXPECT_FALSE(GetOid(target));
}

TEST_F(BTreeReachable, APersistentParentMakesTheTargetPersistent) {
    auto* const parent = NewObject<TestLeaf>(1);
    m_ps->MakeObjectPersist(parent, true);
    auto* const target = NewObject<TestLeaf>(2);
    const cref<TestLeaf> child(target);
    DeclareVariableReachable(TreeOpsOf<cref<TestLeaf>>(), ptr<const IPersistable>(parent), &child);
    EXPECT_TRUE(GetOid(target));
    EXPECT_TRUE(target->IsDirty());
    const uint32 number = 5;
    DeclareVariableReachable(TreeOpsOf<uint32>(), ptr<const IPersistable>(parent), &number); // visits nothing
}

TEST_F(BTreeReachable, APersistentParentOutsideAnySpaceIsRefused) {
    TestLeaf parent(1);
    parent.m_persistObjState.m_oid = OID(5, 1);
    const cref<TestLeaf> child;
    ExpectAssertion("ps", "src/BPlusTree2", [&] {
        DeclareVariableReachable(TreeOpsOf<cref<TestLeaf>>(), ptr<const IPersistable>(&parent), &child);
    });
}

TEST_F(BTreeReachable, KeyAndPayloadOfAnEntryAreDeclaredTogether) {
    auto* const parent = NewObject<TestLeaf>(1);
    m_ps->MakeObjectPersist(parent, true);
    auto* const target = NewObject<TestLeaf>(2);
    const BTreeTypeInfo info = ResolvedInfo<uint8, cref<TestLeaf>>();
    std::vector<char> entry(25);
    StorePref(entry.data() + 1, cref<TestLeaf>(target));
    DeclareKeyReachable(info.m_bi, ptr<const IPersistable>(parent), reinterpret_cast<const _Key*>(entry.data()));
    EXPECT_FALSE(GetOid(target));
    DeclareKeyAndPayloadReachable(info.m_bi, ptr<const IPersistable>(parent),
                                  reinterpret_cast<const _KeyAndPayload*>(entry.data()));
    EXPECT_TRUE(GetOid(target));
    auto* const second = NewObject<TestLeaf>(3);
    const cref<TestLeaf> payload(second);
    DeclarePayloadReachable(info.m_bi, ptr<const IPersistable>(parent), AsPayload(payload));
    EXPECT_TRUE(GetOid(second));
}

} // namespace
} // namespace quna

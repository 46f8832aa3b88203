// The three records of a tree, byte by byte, the visitors, and what reading a record does to a node.
#include "qxPersistStore/PersistStoreExceptions.h"
#include "tests/support/TestStore.h"
#include "tests/support/TestTree.h"

#include <set>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

class BTreeRecords : public ::testing::Test {
protected:
    BTreeRecords() {
        RegisterTreeTypes();
        m_ps = m_store.OpenSpace("s");
        m_scope.emplace(m_ps);
    }
    ~BTreeRecords() noexcept override { m_scope.reset(); }

    template <class X>
    static Bytes RecordOf(const X& x) {
        return Written([&](Archive& ar) { x.Serialise(ar); });
    }
    // True when all bytes were read, and no more.
    template <class X>
    static bool Read(X& x, Bytes bytes) {
        const ssize_t n = std::ssize(bytes);
        bytes.resize(bytes.size() + RECORD_SLACK);
        const RecordLimitsScope limits(bytes.data(), bytes.data() + n);
        return x.Deserialise(bytes.data()).ptr() == bytes.data() + n;
    }
    static Bytes Native(int64 x) {
        return Written([&](Archive& ar) { ar << x; });
    }
    // A leaf of uint8 keys 1, 2 ... n with uint16 payloads 0x0101, 0x0202 ...
    static LeafNode* SmallLeaf(uint8 n) {
        auto* const leaf = NewObject<LeafNode>(StoredInfo<uint8, uint16>());
        InitEntrysBuffer(InfoOf(*leaf), leaf);
        for (uint8 i = 0; i < n; ++i) {
            SetKeyAt<uint8>(*leaf, i, static_cast<uint8>(i + 1));
            const auto payload = static_cast<uint16>((i + 1) * 0x0101);
            std::memcpy(PayloadPlace(*leaf, i), &payload, 2);
        }
        leaf->m_numKeyEntrys = n;
        return leaf;
    }
    template <class Node, class K, class P = void>
    static Node* NewNode() {
        auto* const node = NewObject<Node>(StoredInfo<K, P>());
        InitEntrysBuffer(InfoOf(*node), node);
        return node;
    }

    TestStore m_store;
    PSpace* m_ps = nullptr;
    std::optional<SpaceScope> m_scope;
};

// ---- The tree ---------------------------------------------------------------------------------------------------------

TEST_F(BTreeRecords, ATreeWithoutNodesWritesThreeNullReferencesAndAHeightOfZero) {
    const BPlusTree tree(StoredInfo<uint8, uint16>());
    EXPECT_EQ((Bytes{2, 1, 2, 0, 0, 0, 0, 0}), RecordOf(tree));
    BPlusTree read;
    read.m_height = 7;
    read.m_size = 7;
    ASSERT_TRUE(Read(read, {2, 1, 2, 0, 0, 0, 0, 0}));
    EXPECT_EQ(0, read.m_size);
    EXPECT_EQ(-1, read.m_height);
    EXPECT_FALSE(read.m_root || read.m_firstLeaf || read.m_lastLeaf);
    EXPECT_EQ(1, read.m_bti.m_keyTid);
    EXPECT_EQ(2, read.m_bti.m_payloadTid);
}

TEST_F(BTreeRecords, ATreeHasItsTypesItsSizeItsThreeReferencesAndItsHeightPlusOne) {
    BPlusTree tree(StoredInfo<uint8, uint16>());
    tree.m_size = 300;
    tree.m_firstLeaf.SetOid(OID(5, 1));
    tree.m_lastLeaf.SetOid(OID(6, 1));
    tree.m_root.SetOid(OID(7, 2));
    tree.m_height = 3;
    const Bytes size = Written([](Archive& ar) { SerialiseVariableLengthUint32(ar, 300); });
    const Bytes record = Bytes{2, 1, 2} + size + Bytes{1, 5, 1, 6, 2, 7, 4};
    EXPECT_EQ(record, RecordOf(tree));
    BPlusTree read;
    ASSERT_TRUE(Read(read, record));
    EXPECT_EQ(300, read.m_size);
    EXPECT_EQ(3, read.m_height);
    EXPECT_EQ(OID(5, 1), read.m_firstLeaf.GetOid());
    EXPECT_EQ(OID(6, 1), read.m_lastLeaf.GetOid());
    EXPECT_EQ(OID(7, 2), read.m_root.GetOid());
    EXPECT_EQ(record, RecordOf(read));
    // The references name nothing that exists, so nobody may follow them.
    read.m_root.Clear();
}

TEST_F(BTreeRecords, ATreeOfOneEmptyLeafHasAHeightFieldOfOne) {
    BPlusTree tree(StoredInfo<uint8>());
    wFindRet ret;
    tree.wFind(ret, AsKey(uint8{1}), false);
    ASSERT_EQ(0, tree.m_height);
    m_ps->MakeObjectPersist(&RootLeaf(tree), true);
    const Bytes record = RecordOf(tree);
    EXPECT_EQ(1, record.back());
    EXPECT_EQ((Bytes{2, 1, 0, 0}), Bytes(record.begin(), record.begin() + 4));
}

TEST_F(BTreeRecords, AnImpossibleHeightIsRefused) {
    StoredInfo<uint8>();
    for (const uint32 heightPlusOne : {14u, 1002u, 0xFFFFFFFFu}) {
        const Bytes height = Written([&](Archive& ar) { SerialiseVariableLengthUint32(ar, heightPlusOne); });
        BPlusTree read;
        EXPECT_THROW(Read(read, Bytes{2, 1, 0, 0, 0, 0, 0} + height), RecordException);
        EXPECT_EQ(-1, read.m_height);
    }
}

TEST_F(BTreeRecords, ASizeOfFourGigaEntriesLosesItsUpperHalf) {
    BPlusTree tree(StoredInfo<uint8>());
    tree.m_size = (ssize_t{1} << 32) + 5;
    EXPECT_EQ((Bytes{2, 1, 0, 5, 0, 0, 0, 0}), RecordOf(tree));
}

TEST_F(BTreeRecords, SchemaOneOfATreeHasNativeNumbersAndTheTrueHeight) {
    StoredInfo<uint8, uint16>();
    BPlusTree read;
    ASSERT_TRUE(Read(read, Bytes{1, 1, 2} + Native(300) + Bytes{1, 5, 1, 6, 2, 7} + Native(3)));
    EXPECT_EQ(300, read.m_size);
    EXPECT_EQ(3, read.m_height);
    EXPECT_EQ(OID(7, 2), read.m_root.GetOid());
    EXPECT_EQ(2, RecordOf(read).front());
    read.m_root.Clear();
    ASSERT_TRUE(Read(read, Bytes{1, 1, 0} + Native(0) + Bytes{0, 0, 0} + Native(-1)));
    EXPECT_EQ(-1, read.m_height);
    EXPECT_EQ((Bytes{2, 1, 0, 0, 0, 0, 0, 0}), RecordOf(read));
}

TEST_F(BTreeRecords, ImpossibleNumbersOfATreeAreRefused) {
    StoredInfo<uint8, uint16>();
    BPlusTree read;
    ExpectAssertion("m_size >= 0", "src/BPlusTree2", [&] {
        Read(read, Bytes{1, 1, 2} + Native(-1) + Bytes{0, 0, 0} + Native(-1));
    });
    ExpectAssertion("m_height >= -1", "src/BPlusTree2", [&] {
        Read(read, Bytes{1, 1, 2} + Native(0) + Bytes{0, 0, 0} + Native(-2));
    });
    ExpectAssertion("1 <= bti.m_keyTid", "src/BPlusTree2", [&] { Read(read, {2, 0, 2, 0, 0, 0, 0, 0}); });
}

TEST_F(BTreeRecords, OfANewerSchemaNothingIsRead) {
    BPlusTree tree;
    LeafNode leaf;
    InternalNode node;
    EXPECT_ANY_THROW(Read(tree, {3, 1, 2, 0, 0, 0, 0, 0}));
    EXPECT_ANY_THROW(Read(leaf, {3, 1, 0, 0, 0, 0}));
    EXPECT_ANY_THROW(Read(node, {3, 1, 0, 0, 0}));
    EXPECT_ANY_THROW(Read(leaf, {0, 1, 0, 0, 0, 0}));
}

// ---- Nodes ------------------------------------------------------------------------------------------------------------

TEST_F(BTreeRecords, ALeafHasItsNeighboursThenItsCountThenAllKeysThenAllPayloads) {
    LeafNode* const leaf = SmallLeaf(3);
    leaf->m_prev.SetOid(OID(5, 1));
    leaf->m_next.SetOid(OID(6, 1));
    EXPECT_EQ((Bytes{2, 1, 2, 1, 5, 1, 6, 3, 1, 2, 3, 1, 1, 2, 2, 3, 3}), RecordOf(*leaf));
}

TEST_F(BTreeRecords, ALeafOfASetHasNoPayloads) {
    auto* const leaf = NewNode<LeafNode, uint8>();
    SetKeyAt<uint8>(*leaf, 0, 9);
    leaf->m_numKeyEntrys = 1;
    EXPECT_EQ((Bytes{2, 1, 0, 0, 0, 1, 9}), RecordOf(*leaf));
}

TEST_F(BTreeRecords, AnInternalNodeHasItsLeftmostChildThenItsCountThenAllKeysThenAllReferences) {
    auto* const node = NewNode<InternalNode, uint8, uint16>();
    node->m_ptr.SetOid(OID(5, 1));
    for (uint8 i = 0; i < 2; ++i) {
        SetKeyAt<uint8>(*node, i, static_cast<uint8>(0x10 + i));
        cref<void> child;
        child.SetOid(OID(6u + i, 3));
        StorePref(CrefPlace(*node, i), child);
    }
    node->m_numKeyEntrys = 2;
    const Bytes record = {2, 1, 2, 1, 5, 2, 0x10, 0x11, 3, 6, 3, 7};
    EXPECT_EQ(record, RecordOf(*node));
    auto* const read = NewObject<InternalNode>();
    ASSERT_TRUE(Read(*read, record));
    EXPECT_EQ(2, read->m_numKeyEntrys);
    EXPECT_EQ((std::vector<uint8>{0x10, 0x11}), Separators<uint8>(*read));
    EXPECT_EQ(OID(5, 1), read->m_ptr.GetOid());
    EXPECT_EQ(OID(6, 3), CrefAt(*read, 0).GetOid());
    EXPECT_EQ(OID(7, 3), CrefAt(*read, 1).GetOid());
    EXPECT_EQ(NODE_CAPACITY * (1 + 24), read->m_entrys.size());
    EXPECT_EQ(record, RecordOf(*read));
}

TEST_F(BTreeRecords, ReadingALeafGivesTheEntriesAndTheFullBytes) {
    StoredInfo<uint8, uint16>();
    auto* const leaf = NewObject<LeafNode>();
    ASSERT_TRUE(Read(*leaf, {2, 1, 2, 1, 5, 0, 2, 7, 8, 1, 0, 2, 0}));
    EXPECT_EQ((std::vector<uint8>{7, 8}), KeysOf<uint8>(*leaf));
    EXPECT_EQ(1, PayloadAt<uint16>(*leaf, 0));
    EXPECT_EQ(2, PayloadAt<uint16>(*leaf, 1));
    EXPECT_EQ(OID(5, 1), leaf->m_prev.GetOid());
    EXPECT_FALSE(leaf->m_next);
    EXPECT_EQ(NODE_CAPACITY * 3, leaf->m_entrys.size());
}

TEST_F(BTreeRecords, AnEmptyLeafHasItsFullBytesAfterReading) {
    StoredInfo<uint8, uint16>();
    auto* const leaf = NewObject<LeafNode>();
    EXPECT_EQ(0, leaf->m_entrys.size());
    ASSERT_TRUE(Read(*leaf, {2, 1, 2, 0, 0, 0}));
    EXPECT_EQ(0, leaf->m_numKeyEntrys);
    EXPECT_EQ(NODE_CAPACITY * 3, leaf->m_entrys.size());
}

TEST_F(BTreeRecords, SchemaOneOfANodeHasANativeCount) {
    StoredInfo<uint8, uint16>();
    auto* const leaf = NewObject<LeafNode>();
    ASSERT_TRUE(Read(*leaf, Bytes{1, 1, 2, 0, 0} + Native(2) + Bytes{7, 8, 1, 0, 2, 0}));
    EXPECT_EQ((std::vector<uint8>{7, 8}), KeysOf<uint8>(*leaf));
    EXPECT_EQ((Bytes{2, 1, 2, 0, 0, 2, 7, 8, 1, 0, 2, 0}), RecordOf(*leaf));
    auto* const node = NewObject<InternalNode>();
    ASSERT_TRUE(Read(*node, Bytes{1, 1, 2, 1, 5} + Native(1) + Bytes{9, 1, 6}));
    EXPECT_EQ((std::vector<uint8>{9}), Separators<uint8>(*node));
    EXPECT_EQ((Bytes{2, 1, 2, 1, 5, 1, 9, 1, 6}), RecordOf(*node));
}

TEST_F(BTreeRecords, ImpossibleCountsOfANodeAreRefused) {
    StoredInfo<uint8, uint16>();
    for (const Bytes& count :
         {Bytes{2, 1, 2, 0, 0, 101}, Bytes{1, 1, 2, 0, 0} + Native(-1), Bytes{1, 1, 2, 0, 0} + Native(101)}) {
        auto* const leaf = NewObject<LeafNode>();
        ExpectAssertion("0 <= n && n <= 100", "src/BPlusTree2", [&] { Read(*leaf, count); });
        EXPECT_EQ(0, leaf->m_numKeyEntrys);
    }
    auto* const node = NewObject<InternalNode>();
    ExpectAssertion("0 <= n && n <= 100", "src/BPlusTree2", [&] { Read(*node, {2, 1, 2, 0, 101}); });
    ExpectAssertion("0 <= n && n <= 100", "src/BPlusTree2", [&] { Read(*node, Bytes{1, 1, 2, 0} + Native(101)); });
}

TEST_F(BTreeRecords, ARecordThatEndsEarlyIsRefused) {
    StoredInfo<uint8, uint16>();
    StoredInfo<xstring>();
    auto* const leaf = NewObject<LeafNode>();
    EXPECT_ANY_THROW(Read(*leaf, {2, 3, 0, 0, 0, 100}));
    auto* const node = NewObject<InternalNode>();
    EXPECT_ANY_THROW(Read(*node, {2, 1, 2, 0, 100, 1, 2, 3}));
}

TEST_F(BTreeRecords, TypeIdsOutOfRangeAreRefusedInBothDirections) {
    const auto check = [&](auto& x) {
        x.m_bti.m_keyTid = 0;
        ExpectAssertion("1 <= bti.m_keyTid", "src/BPlusTree2", [&] { RecordOf(x); });
        x.m_bti.m_keyTid = 1;
        x.m_bti.m_payloadTid = -1;
        ExpectAssertion("0 <= bti.m_payloadTid", "src/BPlusTree2", [&] { RecordOf(x); });
        ExpectAssertion("1 <= bti.m_keyTid", "src/BPlusTree2", [&] { Read(x, {2, 0, 0, 0, 0, 0, 0, 0, 0}); });
    };
    StoredInfo<uint8>();
    check(*NewObject<BPlusTree>());
    check(*NewObject<LeafNode>());
    check(*NewObject<InternalNode>());
}

TEST_F(BTreeRecords, TheTreeAndTheLeafAreWrittenThroughAnArchiveThatStores) {
    Archive loading(static_cast<IOutputStream*>(nullptr));
    ExpectAssertion("ar.IsStoring()", "src/BPlusTree2", [&] { BPlusTree(StoredInfo<uint8>()).Serialise(loading); });
    ExpectAssertion("ar.IsStoring()", "src/BPlusTree2", [&] { LeafNode(StoredInfo<uint8>()).Serialise(loading); });
}

TEST_F(BTreeRecords, AnIdThatTheStoreDoesNotHaveFailsWhenTheNodeIsRead) {
    StoredInfo<uint8>();
    auto* const leaf = NewObject<LeafNode>();
    ExpectException<BadTypeOpsIdException>("Bad TypeOpsId : 99", [&] { Read(*leaf, {2, 99, 0, 0, 0, 1, 5}); });
    EXPECT_EQ(0, leaf->m_numKeyEntrys);
}

TEST_F(BTreeRecords, ATreeOfForeignIdsIsReadAndFailsAtItsFirstUse) {
    StoredInfo<uint8>();
    auto* const tree = NewObject<BPlusTree>();
    ASSERT_TRUE(Read(*tree, {2, 99, 0, 0, 0, 0, 0, 0}));
    ExpectException<BadTypeOpsIdException>("Bad TypeOpsId : 99", [&] { PutKey(*tree, uint8{1}); });
}

TEST_F(BTreeRecords, WithoutASpaceTheTypesAreNotFound) {
    const BTreeTypeInfo info = StoredInfo<uint8>();
    const ThreadPSpaceScope none(nullptr, m_ps->GetCSpace());
    ExpectAssertion("ps", [&] { info.GetCalculatedBTreeTypeInfo(); });
}

// ---- Reading into a node that holds entries already --------------------------------------------------------------------

TEST_F(BTreeRecords, ReadingFewerEntriesDestructsTheSurplus) {
    const int before = CountedValue::s_numLive;
    auto* const leaf = NewNode<LeafNode, CountedValue, CountedValue>();
    const Bytes one = Native(1);
    const Bytes three = one + one + one;
    ASSERT_TRUE(Read(*leaf, Bytes{2, 1, 1, 0, 0, 3} + three + three));
    EXPECT_EQ(before + 6, CountedValue::s_numLive);
    ASSERT_TRUE(Read(*leaf, Bytes{2, 1, 1, 0, 0, 1} + Native(5) + Native(6)));
    EXPECT_EQ(before + 2, CountedValue::s_numLive);
    EXPECT_EQ(1, leaf->m_numKeyEntrys);
    EXPECT_EQ(5u, KeyAt<CountedValue>(*leaf, 0).Number());
    EXPECT_EQ(6u, PayloadAt<CountedValue>(*leaf, 0).Number());
    ASSERT_TRUE(Read(*leaf, {2, 1, 1, 0, 0, 0}));
    EXPECT_EQ(before, CountedValue::s_numLive);
}

TEST_F(BTreeRecords, ReadingMoreEntriesConstructsTheShortfall) {
    const int before = CountedValue::s_numLive;
    auto* const leaf = NewNode<LeafNode, CountedValue>();
    ASSERT_TRUE(Read(*leaf, Bytes{2, 1, 0, 0, 0, 1} + Native(1)));
    ASSERT_TRUE(Read(*leaf, Bytes{2, 1, 0, 0, 0, 3} + Native(2) + Native(3) + Native(4)));
    EXPECT_EQ(before + 3, CountedValue::s_numLive);
    EXPECT_EQ(4u, KeyAt<CountedValue>(*leaf, 2).Number());
    auto* const node = NewNode<InternalNode, CountedValue>();
    ASSERT_TRUE(Read(*node, Bytes{2, 1, 0, 0, 2} + Native(2) + Native(3) + Bytes{1, 5, 1, 6}));
    EXPECT_EQ(before + 5, CountedValue::s_numLive);
    ASSERT_TRUE(Read(*node, Bytes{2, 1, 0, 0, 1} + Native(9) + Bytes{1, 7}));
    EXPECT_EQ(before + 4, CountedValue::s_numLive);
    EXPECT_EQ(OID(7, 1), CrefAt(*node, 0).GetOid());
}

TEST_F(BTreeRecords, TheEndOfANodeDestructsItsLiveEntriesAndNoOthers) {
    const int before = CountedValue::s_numLive;
    const BTreeTypeInfo info = StoredInfo<CountedValue, CountedValue>();
    {
        LeafNode leaf(info);
        InitEntrysBuffer(InfoOf(leaf), &leaf);
        EXPECT_EQ(before, CountedValue::s_numLive);
        ConstructArrayOfKeyAndPayload(InfoOf(leaf), GetEntry(InfoOf(leaf), &leaf, 0), 4);
        leaf.m_numKeyEntrys = 4;
        InternalNode node(info);
        InitEntrysBuffer(InfoOf(node), &node);
        ConstructArrayOfKeyAndCref(InfoOf(node), GetEntry(InfoOf(node), &node, 0), 2);
        node.m_numKeyEntrys = 2;
        EXPECT_EQ(before + 10, CountedValue::s_numLive);
    }
    EXPECT_EQ(before, CountedValue::s_numLive);
}

TEST_F(BTreeRecords, ANodeWithoutEntriesEndsAndIsVisitedWithoutKnowingItsTypes) {
    struct Visitor final : IPrefVisitor {
        void VisitPref(const prefbase&) override { ++m_n; }
        void VisitParentPref(const prefbase&) override {}
        int m_n = 0;
    } visitor;
    BTreeTypeInfo foreign;
    foreign.m_keyTid = 99;
    const ThreadPSpaceScope none(nullptr, m_ps->GetCSpace());
    {
        const LeafNode leaf(foreign);
        const InternalNode node(foreign);
        leaf.VisitPrefs(visitor);
        node.VisitPrefs(visitor);
    }
    EXPECT_EQ(1, visitor.m_n); // m_ptr, be it null
}

// ---- Copies of nodes --------------------------------------------------------------------------------------------------

TEST_F(BTreeRecords, ACopiedNodeHasTheSameMembersAndNoIdentity) {
    LeafNode* const leaf = SmallLeaf(3);
    leaf->m_prev.SetOid(OID(5, 1));
    m_ps->MakeObjectPersist(leaf, false);
    auto* const copy = NewObject<LeafNode>(*leaf);
    EXPECT_FALSE(GetOid(copy));
    EXPECT_FALSE(copy->IsDirty());
    EXPECT_TRUE(copy->m_entrys == leaf->m_entrys);
    EXPECT_EQ(OID(5, 1), copy->m_prev.GetOid());
    EXPECT_EQ(RecordOf(*leaf), RecordOf(*copy));
    LeafNode* const assigned = SmallLeaf(1);
    *assigned = *leaf;
    EXPECT_EQ(RecordOf(*leaf), RecordOf(*assigned));
    EXPECT_FALSE(GetOid(assigned));
}

TEST_F(BTreeRecords, ACopiedNodeOfValuesWithDestructorsHasItsOwn) {
    const int before = CountedValue::s_numLive;
    {
        LeafNode leaf(StoredInfo<CountedValue, CountedValue>());
        ASSERT_TRUE(Read(leaf, Bytes{2, 1, 1, 0, 0, 2} + Native(1) + Native(2) + Native(3) + Native(4)));
        const LeafNode copy(leaf);
        EXPECT_EQ(before + 8, CountedValue::s_numLive);
        LeafNode assigned(copy.m_bti);
        ASSERT_TRUE(Read(assigned, Bytes{2, 1, 1, 0, 0, 1} + Native(1) + Native(2)));
        assigned = leaf;
        EXPECT_EQ(before + 12, CountedValue::s_numLive);
        EXPECT_EQ(RecordOf(leaf), RecordOf(assigned));
    }
    EXPECT_EQ(before, CountedValue::s_numLive);
}

// ---- Visitors ---------------------------------------------------------------------------------------------------------

struct SeenPrefs final : IPrefVisitor {
    void VisitPref(const prefbase& pref) override {
        if (const OID oid = pref.GetOid()) m_lows.push_back(oid.low_);
    }
    void VisitParentPref(const prefbase&) override { ADD_FAILURE() << "a tree has no parent references"; }
    std::vector<uint32> m_lows;
};

// Transient targets only: each is a strong edge.
struct SeenObjects final : IObjectVisitor {
    void VisitObject(ptr<const IObject> object) override { m_objects.push_back(object.m_self); }
    void VisitEvictablePtr(AnyInterface*) override {}
    std::vector<const void*> m_objects;
};

TEST_F(BTreeRecords, OfATreeOnlyTheRootBelongsToIt) {
    BPlusTree tree(StoredInfo<uint8>());
    tree.m_firstLeaf.SetOid(OID(5, 1));
    tree.m_lastLeaf.SetOid(OID(6, 1));
    tree.m_root.SetOid(OID(7, 1));
    SeenPrefs prefs;
    tree.VisitPrefs(prefs);
    EXPECT_EQ((std::vector<uint32>{7}), prefs.m_lows);
}

TEST_F(BTreeRecords, TheCollectorSeesBothEndsAndTheRoot) {
    BPlusTree tree(StoredInfo<uint8>());
    LeafNode* const first = NewNode<LeafNode, uint8>();
    LeafNode* const last = NewNode<LeafNode, uint8>();
    InternalNode* const root = NewNode<InternalNode, uint8>();
    tree.m_firstLeaf = first;
    tree.m_lastLeaf = last;
    tree.m_root.Set(root);
    SeenObjects objects;
    tree.VisitObjects(objects);
    EXPECT_EQ((std::vector<const void*>{first, last, root}), objects.m_objects);
    tree.m_root.Clear();
}

TEST_F(BTreeRecords, ThePrefsOfALeafAreThoseInItsEntriesWithoutItsNeighbours) {
    auto* const leaf = NewNode<LeafNode, uint8, cref<TestLeaf>>();
    leaf->m_prev.SetOid(OID(5, 1));
    leaf->m_next.SetOid(OID(6, 1));
    cref<TestLeaf> payload;
    payload.SetOid(OID(7, 1));
    SetKeyAt<uint8>(*leaf, 0, 1);
    StorePref(PayloadPlace(*leaf, 0), payload); // at an odd address
    leaf->m_numKeyEntrys = 1;
    SeenPrefs prefs;
    leaf->VisitPrefs(prefs);
    EXPECT_EQ((std::vector<uint32>{7}), prefs.m_lows);
}

TEST_F(BTreeRecords, TheCollectorSeesTheNeighboursAndTheEntriesOfALeaf) {
    auto* const leaf = NewNode<LeafNode, uint8, cref<TestLeaf>>();
    LeafNode* const prev = NewNode<LeafNode, uint8, cref<TestLeaf>>();
    LeafNode* const next = NewNode<LeafNode, uint8, cref<TestLeaf>>();
    auto* const target = NewObject<TestLeaf>(1);
    leaf->m_prev = prev;
    leaf->m_next = next;
    SetKeyAt<uint8>(*leaf, 0, 1);
    StorePref(PayloadPlace(*leaf, 0), cref<TestLeaf>(target));
    leaf->m_numKeyEntrys = 1;
    SeenObjects objects;
    leaf->VisitObjects(objects);
    EXPECT_EQ((std::vector<const void*>{prev, next, target}), objects.m_objects);
}

TEST_F(BTreeRecords, AnInternalNodeShowsItsLeftmostChildFirstToBothVisitors) {
    auto* const node = NewNode<InternalNode, uint8>();
    std::vector<const void*> children;
    for (uint8 i = 0; i < 3; ++i) {
        LeafNode* const leaf = NewNode<LeafNode, uint8>();
        children.push_back(leaf);
        cref<void> child;
        child.Set(leaf);
        if (i == 0) {
            node->m_ptr.Set(leaf);
        } else {
            SetKeyAt<uint8>(*node, i - 1, i);
            StorePref(CrefPlace(*node, i - 1), child);
        }
    }
    node->m_numKeyEntrys = 2;
    SeenObjects objects;
    node->VisitObjects(objects);
    EXPECT_EQ(children, objects.m_objects);
    m_ps->MakeObjectPersist(node, true); // reaches all children through VisitPrefs
    std::vector<uint32> lows;
    for (ssize_t i = -1; i < 2; ++i) lows.push_back(CrefAt(*node, i).GetOid().low_);
    SeenPrefs prefs;
    node->VisitPrefs(prefs);
    EXPECT_EQ(lows, prefs.m_lows);
    EXPECT_EQ(3u, std::set<uint32>(lows.begin(), lows.end()).size());
}

TEST_F(BTreeRecords, AllThreeRepresentASubtree) {
    EXPECT_TRUE(BPlusTree().RepresentsSubTree());
    EXPECT_TRUE(LeafNode().RepresentsSubTree());
    EXPECT_TRUE(InternalNode().RepresentsSubTree());
}

} // namespace
} // namespace quna

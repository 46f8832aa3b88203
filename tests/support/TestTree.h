// Trees for tests: types to put into them, trees without a store, trees of a given shape, and a checker that shares no
// code with the tree's own.
//
// Everything that names a header or a private operation of the tree stands here, so that tests don't.
#pragma once

#include "qxObject/Reflect.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/BPlusTree2.h"
#include "qxPersistStore/BTreeEntries.h"
#include "qxPersistStore/BTreeTypeInfo.h"
#include "qxPersistStore/InternalNode.h"
#include "qxPersistStore/LeafNode.h"
#include "qxPersistStore/pref.h"
#include "qxPersistStore/src/KeyAndCrefSlot.h"
#include "tests/support/TestTreeTypes.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace quna {

constexpr ssize_t NODE_CAPACITY = 100;
constexpr ssize_t HALF_NODE = 50;

// ---- Operations that are not for callers ------------------------------------------------------------------------------

struct TreeInternals {
    static void Validate(const BPlusTree& t, ssize_t height, void* node, bool isRoot, const _Key* k1 = nullptr,
                         const _Key* k2 = nullptr) {
        t.ValidateNode(height, node, isRoot, k1, k2);
    }
    static ssize_t NumNodes(const BPlusTree& t, ssize_t height, void* node) { return t.GetNumNodes(height, node); }
    static void WriteNode(const BPlusTree& t, xostream& os, ssize_t height, void* node) {
        t.WriteNode(os, height, node);
    }
    static void SwapMembers(BPlusTree& x, BPlusTree& y) { x.SwapMembers(y); }
    static void SwapPersistentWithTransient(BPlusTree& x, BPlusTree& y) { x.SwapPersistentWithTransient(y); }
    static bool RecursiveDelete(BPlusTree& t, ssize_t height, void* node, void* left, void* right,
                                InternalNode* leftAnchor, InternalNode* rightAnchor, InternalNode* parent,
                                void*& deleteNode, const _Key* key) {
        return t.RecursiveDelete(height, node, left, right, leftAnchor, rightAnchor, parent, deleteNode, key);
    }
    static void MergeLeaf(BPlusTree& t, LeafNode* left, LeafNode* right) { t.MergeLeafRightToLeft(left, right); }
    static void BalanceLeafFromRight(BPlusTree& t, LeafNode* left, LeafNode* right, InternalNode* anchor) {
        t.BalanceLeafRightToLeft(left, right, anchor);
    }
    static void BalanceLeafFromLeft(BPlusTree& t, LeafNode* left, LeafNode* right, InternalNode* anchor) {
        t.BalanceLeafLeftToRight(left, right, anchor);
    }
    static void MergeInternal(BPlusTree& t, InternalNode* left, InternalNode* right, InternalNode* anchor) {
        t.MergeInternalRightToLeft(left, right, anchor);
    }
    static void BalanceInternalFromRight(BPlusTree& t, InternalNode* left, InternalNode* right, InternalNode* anchor) {
        t.BalanceInternalRightToLeft(left, right, anchor);
    }
    static void BalanceInternalFromLeft(BPlusTree& t, InternalNode* left, InternalNode* right, InternalNode* anchor) {
        t.BalanceInternalLeftToRight(left, right, anchor);
    }
    static void ReplaceKeyInAnchor(BPlusTree& t, InternalNode* anchor, const _Key* oldKey, const _Key* newKey) {
        t.ReplaceKeyInAnchor(anchor, oldKey, newKey);
    }
    static void InsertIntoInternalNode(BPlusTree& t, InternalNode* left, KeyAndCrefSlot& e, KeyAndCrefSlot& overflow) {
        t.InsertIntoInternalNode(left, e, overflow);
    }
    static void FindInNode(BPlusTree& t, wFindRet& ret, void* node, ssize_t height, const _Key* key,
                           KeyAndCrefSlot& rightEntry, bool allowCreate) {
        t.wFindInNode(ret, node, height, key, rightEntry, allowCreate);
    }
    static void RecursiveFind(BPlusTree& t, wFindRet& ret, InternalNode* node, ssize_t height, const _Key* key,
                              KeyAndCrefSlot& rightEntry, bool allowCreate) {
        t.wRecursiveFind(ret, node, height, key, rightEntry, allowCreate);
    }
};

// ---- Values and descriptors -------------------------------------------------------------------------------------------

template <class T>
const TypeOps& TreeOpsOf() {
    if constexpr (requires { _GetTypeOps(static_cast<const T*>(nullptr)); })
        return GetTypeOps<T>();
    else
        return detail::TypeOpsOf<T>::s_ops;
}

// A descriptor that is resolved already, so that no store is needed. The ids are 1 for the key and 2 for the payload.
inline BTreeTypeInfo ResolvedInfo(const TypeOps& key, const TypeOps* payload) {
    BTreeTypeInfo info;
    info.m_keyTid = 1;
    info.m_payloadTid = payload ? 2 : 0;
    info.m_bi.m_payloadType = payload;
    info.m_bi.m_keyType = &key;
    info.InitSizes();
    return info;
}

template <class K, class P = void>
BTreeTypeInfo ResolvedInfo() {
    if constexpr (std::is_void_v<P>)
        return ResolvedInfo(TreeOpsOf<K>(), nullptr);
    else
        return ResolvedInfo(TreeOpsOf<K>(), &TreeOpsOf<P>());
}

// The descriptor by the ids that the thread's store gives the types.
template <class K, class P = void>
BTreeTypeInfo StoredInfo() {
    BTreeTypeInfo info;
    info.m_keyTid = GetPersistStoreTypeOpsId(DescriptionOf<K>());
    if constexpr (std::is_void_v<P>)
        info.m_payloadTid = 0;
    else
        info.m_payloadTid = GetPersistStoreTypeOpsId(DescriptionOf<P>());
    return info;
}

template <class K>
const _Key* AsKey(const K& key) {
    return reinterpret_cast<const _Key*>(&key);
}
template <class P>
const _Payload* AsPayload(const P& payload) {
    return reinterpret_cast<const _Payload*>(&payload);
}
template <class T>
T ValueAt(const void* p) {
    return *detail::ReadView<T>(p);
}

// ---- The everyday operations, typed -----------------------------------------------------------------------------------

template <class K, class P>
bool Put(BPlusTree& tree, const K& key, const P& payload, bool allowReplace = false) {
    return tree.Insert(AsKey(key), AsPayload(payload), allowReplace);
}
template <class K>
bool PutKey(BPlusTree& tree, const K& key) {
    return tree.Insert(AsKey(key), nullptr, false);
}
template <class K>
bool Remove(BPlusTree& tree, const K& key) {
    return tree.Delete(AsKey(key));
}
template <class K>
bool Has(const BPlusTree& tree, const K& key) {
    return tree.count(AsKey(key)) == 1;
}
template <class P, class K>
std::optional<P> Get(const BPlusTree& tree, const K& key) {
    const _Payload* const p = tree.rFind(AsKey(key));
    if (!p) return std::nullopt;
    return ValueAt<P>(p);
}

// ---- Looking at nodes ---------------------------------------------------------------------------------------------------

template <class Node>
const CalculatedBTreeTypeInfo& InfoOf(const Node& node) {
    return node.GetCalculatedBTreeTypeInfo();
}
inline ssize_t EntrySize(const LeafNode& leaf) { return InfoOf(leaf).m_keyAndPayloadSize; }
inline ssize_t EntrySize(const InternalNode& node) { return InfoOf(node).m_keyAndCrefSize; }
template <class Node>
ssize_t KeySize(const Node& node) {
    const TypeOps* const ops = InfoOf(node).m_keyType;
    return ops->m_size;
}
template <class Node>
void* EntryAt(const Node& node, ssize_t i) {
    return const_cast<unsigned char*>(node.m_entrys.data()) + i * EntrySize(node);
}
template <class K, class Node>
K KeyAt(const Node& node, ssize_t i) {
    return ValueAt<K>(EntryAt(node, i));
}
inline void* PayloadPlace(const LeafNode& leaf, ssize_t i) {
    return static_cast<char*>(EntryAt(leaf, i)) + KeySize(leaf);
}
template <class P>
P PayloadAt(const LeafNode& leaf, ssize_t i) {
    return ValueAt<P>(PayloadPlace(leaf, i));
}
// Overwrites a key in place, as damage would; for types without a destructor.
template <class K, class Node>
void SetKeyAt(Node& node, ssize_t i, const K& key) {
    static_assert(std::is_trivially_copyable_v<K>);
    std::memcpy(EntryAt(node, i), &key, sizeof key);
}
inline void* CrefPlace(const InternalNode& node, ssize_t i) {
    return static_cast<char*>(EntryAt(node, i)) + KeySize(node);
}
// The child reference in front of all keys for -1, otherwise that of entry i.
inline prefbase CrefAt(const InternalNode& node, ssize_t i) {
    return i < 0 ? static_cast<const prefbase&>(node.m_ptr) : LoadPref(CrefPlace(node, i));
}
inline void* ChildAt(const InternalNode& node, ssize_t i) { return CrefAt(node, i).Get().m_self; }
inline LeafNode& LeafChild(const InternalNode& node, ssize_t i) { return *static_cast<LeafNode*>(ChildAt(node, i)); }
inline InternalNode& InternalChild(const InternalNode& node, ssize_t i) {
    return *static_cast<InternalNode*>(ChildAt(node, i));
}
inline LeafNode& RootLeaf(const BPlusTree& tree) { return *static_cast<LeafNode*>(tree.m_root.Get()); }
inline InternalNode& RootNode(const BPlusTree& tree) { return *static_cast<InternalNode*>(tree.m_root.Get()); }

template <class K>
std::vector<K> KeysOf(const LeafNode& leaf) {
    std::vector<K> keys;
    for (ssize_t i = 0; i < leaf.m_numKeyEntrys; ++i) keys.push_back(KeyAt<K>(leaf, i));
    return keys;
}
template <class K>
std::vector<K> Separators(const InternalNode& node) {
    std::vector<K> keys;
    for (ssize_t i = 0; i < node.m_numKeyEntrys; ++i) keys.push_back(KeyAt<K>(node, i));
    return keys;
}

namespace detail {

template <class Visit>
void VisitNodes(void* node, ssize_t height, Visit& visit) {
    if (height == 0) {
        visit(static_cast<LeafNode*>(node));
        return;
    }
    auto* const internal = static_cast<InternalNode*>(node);
    visit(internal);
    for (ssize_t i = -1; i < internal->m_numKeyEntrys; ++i) VisitNodes(ChildAt(*internal, i), height - 1, visit);
}

} // namespace detail

// The leaves, found from the root down and not by the chain.
inline std::vector<LeafNode*> LeavesOf(const BPlusTree& tree) {
    struct Collect {
        void operator()(LeafNode* leaf) { m_leaves.push_back(leaf); }
        void operator()(InternalNode*) {}
        std::vector<LeafNode*> m_leaves;
    } collect;
    if (tree.m_height >= 0) detail::VisitNodes(tree.m_root.Get(), tree.m_height, collect);
    return collect.m_leaves;
}

// All nodes of the tree, each before its children.
inline std::vector<ptr<IPersistable>> NodesOf(const BPlusTree& tree) {
    struct Collect {
        void operator()(LeafNode* leaf) { m_nodes.emplace_back(leaf); }
        void operator()(InternalNode* node) { m_nodes.emplace_back(node); }
        std::vector<ptr<IPersistable>> m_nodes;
    } collect;
    if (tree.m_height >= 0) detail::VisitNodes(tree.m_root.Get(), tree.m_height, collect);
    return collect.m_nodes;
}

inline std::vector<ssize_t> LeafCounts(const BPlusTree& tree) {
    std::vector<ssize_t> counts;
    for (const LeafNode* leaf : LeavesOf(tree)) counts.push_back(leaf->m_numKeyEntrys);
    return counts;
}

template <class K>
std::vector<K> AllKeys(const BPlusTree& tree) {
    std::vector<K> keys;
    for (const LeafNode* leaf : LeavesOf(tree))
        for (ssize_t i = 0; i < leaf->m_numKeyEntrys; ++i) keys.push_back(KeyAt<K>(*leaf, i));
    return keys;
}

// ---- The checker ----------------------------------------------------------------------------------------------------------

// What the tree's own Validate leaves out is checked here as well: bounds that are handed down, the chain of leaves, the
// size, both ends, the depth, the descriptors, and that no node is reached twice.
class TreeChecker {
public:
    // The first fault, or an empty text. Without `halfFull` a node may hold fewer than 50 entries.
    static std::string FaultOf(const BPlusTree& tree, bool halfFull = true) {
        TreeChecker checker(tree, halfFull);
        try {
            checker.CheckTree();
        } catch (const std::string& fault) {
            return fault;
        }
        return {};
    }

private:
    TreeChecker(const BPlusTree& tree, bool halfFull) : m_tree(tree), m_halfFull(halfFull) {}

    static void Require(bool condition, const char* fault) {
        if (!condition) throw std::string(fault);
    }

    void CheckTree() {
        if (m_tree.m_height == -1) {
            Require(m_tree.m_size == 0, "a tree without nodes has a size");
            Require(!m_tree.m_root && !m_tree.m_firstLeaf && !m_tree.m_lastLeaf, "a tree without nodes has references");
            return;
        }
        Require(m_tree.m_height >= 0, "the height is below -1");
        CheckNode(m_tree.m_root.Get(), m_tree.m_height, nullptr, nullptr, true);
        CheckChain();
    }

    void CheckNode(void* node, ssize_t height, const void* low, const void* high, bool isRoot) {
        Require(node, "a child is null");
        Require(m_seen.insert(node).second, "a node is reached twice");
        if (height == 0) {
            CheckLeaf(*static_cast<LeafNode*>(node), low, high, isRoot);
            return;
        }
        const auto& internal = *static_cast<InternalNode*>(node);
        CheckEntries(internal, low, high, isRoot, 1);
        for (ssize_t i = -1; i < internal.m_numKeyEntrys; ++i)
            CheckNode(ChildAt(internal, i), height - 1, i < 0 ? low : EntryAt(internal, i),
                      i + 1 < internal.m_numKeyEntrys ? EntryAt(internal, i + 1) : high, false);
    }

    void CheckLeaf(LeafNode& leaf, const void* low, const void* high, bool isRoot) {
        CheckEntries(leaf, low, high, isRoot, 0);
        m_leaves.push_back(&leaf);
        m_numEntries += leaf.m_numKeyEntrys;
    }

    // low <= every key < high, and the keys ascend.
    template <class Node>
    void CheckEntries(const Node& node, const void* low, const void* high, bool isRoot, ssize_t least) {
        const ssize_t n = node.m_numKeyEntrys;
        Require(n >= least && n <= NODE_CAPACITY, "a count is out of range");
        Require(isRoot || !m_halfFull || n >= HALF_NODE, "a node is less than half full");
        Require(node.m_bti.m_keyTid == m_tree.m_bti.m_keyTid && node.m_bti.m_payloadTid == m_tree.m_bti.m_payloadTid,
                "a node has other types than its tree");
        Require(node.m_entrys.size() == NODE_CAPACITY * EntrySize(node), "a node's bytes are not those of 100 entries");
        const TypeOps& ops = *InfoOf(node).m_keyType;
        for (ssize_t i = 0; i + 1 < n; ++i)
            Require(ops.Less(EntryAt(node, i), EntryAt(node, i + 1)), "keys do not ascend");
        Require(n == 0 || !low || !ops.Less(EntryAt(node, 0), low), "a key is below its bound");
        Require(n == 0 || !high || ops.Less(EntryAt(node, n - 1), high), "a key is not below its bound");
    }

    void CheckChain() {
        Require(m_numEntries == m_tree.m_size, "the size is not the number of entries");
        Require(m_tree.m_firstLeaf.Get() == m_leaves.front(), "the first leaf is not the first");
        Require(m_tree.m_lastLeaf.Get() == m_leaves.back(), "the last leaf is not the last");
        for (std::size_t i = 0; i < m_leaves.size(); ++i) {
            Require(m_leaves[i]->m_prev.Get() == (i == 0 ? nullptr : m_leaves[i - 1]), "m_prev is wrong");
            Require(m_leaves[i]->m_next.Get() == (i + 1 == m_leaves.size() ? nullptr : m_leaves[i + 1]),
                    "m_next is wrong");
        }
    }

    const BPlusTree& m_tree;
    const bool m_halfFull;
    std::set<const void*> m_seen;
    std::vector<LeafNode*> m_leaves;
    ssize_t m_numEntries = 0;
};

// Both checks: the tree's own and the one above.
inline void ExpectSound(const BPlusTree& tree, bool halfFull = true, const char* file = __builtin_FILE(),
                        int line = __builtin_LINE()) {
    const std::string fault = TreeChecker::FaultOf(tree, halfFull);
    if (!fault.empty()) ADD_FAILURE_AT(file, line) << fault;
    if (!halfFull) return;
    try {
        tree.Validate();
    } catch (const std::exception& e) {
        ADD_FAILURE_AT(file, line) << "Validate: " << e.what();
    }
}

// ---- Trees of a given shape ----------------------------------------------------------------------------------------------

// What TreeBuilder makes: a leaf with so many entries, or an internal node over children.
struct Shape {
    Shape(int count) : m_count(count) {} // NOLINT(google-explicit-constructor): a leaf is its count
    Shape(std::initializer_list<Shape> children) : m_children(children) {}
    explicit Shape(std::vector<Shape> children) : m_children(std::move(children)) {}
    ssize_t m_count = 0;
    std::vector<Shape> m_children;
};

// n equal shapes.
inline std::vector<Shape> Times(int n, const Shape& shape) {
    return std::vector<Shape>(static_cast<std::size_t>(n), shape);
}
inline std::vector<Shape> operator+(std::vector<Shape> x, const std::vector<Shape>& y) {
    x.insert(x.end(), y.begin(), y.end());
    return x;
}

using IntKey = uint64;
constexpr IntKey KEY_STEP = 10; // between neighbouring keys of a built tree, so that a test can put keys between them

// Makes the nodes of an empty tree of uint64 keys and uint64 payloads, or a set, by hand: without an insertion, so that
// every shape can be had. Keys are 10, 20, 30 ...; a payload is its key plus 1. A separator is the first key behind it,
// or 3 below that where `stale` asks for separators that are no keys.
class TreeBuilder {
public:
    explicit TreeBuilder(BPlusTree& tree, bool stale = false) : m_tree(tree), m_stale(stale) {}

    void Build(const Shape& shape) {
        ssize_t height = 0;
        for (const Shape* s = &shape; !s->m_children.empty(); s = &s->m_children.front()) ++height;
        IntKey first = 0;
        Make(shape, m_tree.m_root, first);
        m_tree.m_height = height;
        m_tree.m_size = static_cast<ssize_t>(m_nextKey / KEY_STEP) - 1;
        m_tree.m_lastLeaf = m_last;
    }

private:
    template <class Node>
    Node* NewNode() {
        auto* const node = new Node(m_tree.m_bti);
        RegisterGcObject(node);
        InitEntrysBuffer(InfoOf(*node), node);
        return node;
    }

    // Makes the nodes of `shape`, puts the topmost into `reference` and gives the first key below it.
    void Make(const Shape& shape, cref<void>& reference, IntKey& first) {
        if (shape.m_children.empty())
            MakeLeaf(shape.m_count, reference, first);
        else
            MakeInternal(shape.m_children, reference, first);
    }

    void MakeLeaf(ssize_t count, cref<void>& reference, IntKey& first) {
        auto* const leaf = NewNode<LeafNode>();
        const CalculatedBTreeTypeInfo& bi = InfoOf(*leaf);
        const TypeOps* const payloadOps = bi.m_payloadType;
        first = m_nextKey;
        for (ssize_t i = 0; i < count; ++i, m_nextKey += KEY_STEP) {
            std::memcpy(EntryAt(*leaf, i), &m_nextKey, sizeof m_nextKey);
            const IntKey payload = m_nextKey + 1;
            if (payloadOps) std::memcpy(PayloadPlace(*leaf, i), &payload, sizeof payload);
        }
        leaf->m_numKeyEntrys = count;
        if (m_last) {
            m_last->m_next = leaf;
            leaf->m_prev = m_last;
        } else {
            m_tree.m_firstLeaf = leaf;
        }
        m_last = leaf;
        reference.Set(leaf);
    }

    void MakeInternal(const std::vector<Shape>& children, cref<void>& reference, IntKey& first) {
        auto* const node = NewNode<InternalNode>();
        Make(children.front(), node->m_ptr, first);
        for (std::size_t i = 1; i < children.size(); ++i) {
            cref<void> child;
            IntKey separator = 0;
            Make(children[i], child, separator);
            if (m_stale) separator -= 3;
            const auto entry = static_cast<ssize_t>(i) - 1;
            std::memcpy(EntryAt(*node, entry), &separator, sizeof separator);
            StorePref(CrefPlace(*node, entry), child);
        }
        node->m_numKeyEntrys = static_cast<ssize_t>(children.size()) - 1;
        reference.Set(node);
    }

    BPlusTree& m_tree;
    const bool m_stale;
    IntKey m_nextKey = KEY_STEP;
    LeafNode* m_last = nullptr;
};

// ---- Trees without a store ------------------------------------------------------------------------------------------------

// A domain without a space, current and locked exclusively for a scope; its end ends the nodes made in it.
class TreeDomain {
public:
    TreeDomain() : m_thread(m_cs.Get()), m_lock(m_cs.Get(), Exclusive) {}
    ~TreeDomain() noexcept {} // what the ends of its parts throw ends the test's process
    CSpace* Get() const { return m_cs.Get(); }
    ssize_t NumObjects() const { return GetNumObjects(m_cs.Get()); }

private:
    CSpaceCreator m_cs;
    DeclareThreadPtr<CSpace> m_thread;
    CSpaceLock m_lock;
};

// A test with transient trees of one pair of types.
template <class K = IntKey, class P = IntKey>
class TransientTreeTest : public ::testing::Test {
protected:
    TransientTreeTest() : m_tree(ResolvedInfo<K, P>()) {}
    ~TransientTreeTest() noexcept override {}

    void Build(const Shape& shape, bool stale = false) { TreeBuilder(m_tree, stale).Build(shape); }
    // 10, 20, 30 ... in ascending order.
    void Fill(ssize_t n) {
        for (ssize_t i = 1; i <= n; ++i) Put(m_tree, static_cast<K>(i * 10), static_cast<P>(i * 10 + 1));
    }
    std::vector<LeafNode*> Leaves() const { return LeavesOf(m_tree); }

    TreeDomain m_domain; // first: the trees end before it
    BPlusTree m_tree;
};

} // namespace quna

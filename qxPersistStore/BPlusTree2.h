// An ordered map or set of any size, whose key and payload types are known at run time only.
//
// Every node is a persistent object of its own, so a tree loads and is written node by node through the ordinary
// machinery of references and dirty marks: the store's object record is the page, a reference is the child pointer.
// Keys and payloads are opaque bytes, handled through the TypeOps of their types. docs/btree.md describes the layout and
// the algorithms.
//
//     const TypeOpsId keyTid = GetPersistStoreTypeOpsId(DescriptionOf<uint64>());       // in a locked space
//     const TypeOpsId payloadTid = GetPersistStoreTypeOpsId(DescriptionOf<xstring>());  // 0 for a set
//     BPlusTree* tree = DollarNew<BPlusTree>(BTreeTypeInfo(keyTid, payloadTid));
//     AddPSpaceRoot("index", tree);                                                      // persistent from here on
//     const uint64 key = 7;
//     const xstring payload("seven");
//     tree->Insert(reinterpret_cast<const _Key*>(&key), reinterpret_cast<const _Payload*>(&payload), true);
#pragma once

#include "qxPersistStore/BTreeEntries.h"
#include "qxPersistStore/BTreeTypeInfo.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/InternalNode.h"
#include "qxPersistStore/LeafNode.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <cstddef>
#include <utility>

namespace quna {

class IObjectVisitor;
class IPrefVisitor;
class KeyAndCrefSlot;
class xostream;
struct ReflectedClass;
struct TypeOps;
struct XTarget;

class BPlusTree;
QX_API const ReflectedClass& _GetReflected(const BPlusTree*);
QX_API const TypeOps* _GetTypeOps(const BPlusTree*);
QX_API void _Register_BPlusTree(XTarget* target);

// The result of the search on the write path. The pointers are good until the tree changes.
struct wFindRet {
    ptr<IPersistable> m_containingNode; // the leaf that holds the entry; null when nothing was found or made
    _Payload* m_payload = nullptr;      // in a set the address behind the key
    LeafNode* m_leaf = nullptr;         // the same leaf
    ssize_t m_index = -1;               // of the entry in the leaf; -1 when nothing was found or made
    bool m_created = false;             // this call made the entry
};

// The header object of a tree.
//
// Threads: no lock of its own. Reading takes the lock of the space in any mode, changing takes it exclusively. A tree
//   outside any space is guarded by whoever made it.
// Ownership: a persistent tree owns its nodes in the store; in memory the collector does. RepresentsSubTree.
// Invariant: see docs/btree.md; Validate checks what can be checked without the chain.
//
// Record, schema 2. uint is the variable-length form, pref that of a reference.
//   schema tag
//   keyTid, payloadTid           uint each
//   size                         uint, the low 32 bits; in schema 1 a native int64
//   firstLeaf, lastLeaf, root    pref each
//   height + 1                   uint; in schema 1 the height itself as a native int64
class QX_API BPlusTree : public PersistableMixin<IObjectBaseMixin<BPlusTree, EmptyBase>> {
public:
    using wFindRet = quna::wFindRet;

    // A position. Good as long as its leaf stays in memory and the tree isn't changed. Stepping from leaf to leaf may
    // load. The end is the last leaf with its count; without nodes null and 0.
    class QX_API Iterator {
    public:
        Iterator() = default;
        Iterator(LeafNode* leaf, ssize_t offset) : m_leaf(leaf), m_offset(offset) {}

        bool can_dereference() const { return m_leaf && 0 <= m_offset && m_offset < m_leaf->m_numKeyEntrys; }

        const _KeyAndPayload* const_deref() const {
            QX_ASSERT_IN("src/BPlusTree2", m_leaf);
            QX_ASSERT_IN("src/BPlusTree2", 0 <= m_offset && m_offset < m_leaf->m_numKeyEntrys);
            return GetEntry(m_leaf->GetCalculatedBTreeTypeInfo(), m_leaf, m_offset);
        }
        // For writing through the result: marks the leaf dirty.
        _KeyAndPayload* deref() const {
            QX_ASSERT_IN("src/BPlusTree2", m_leaf);
            QX_ASSERT_IN("src/BPlusTree2", 0 <= m_offset && m_offset < m_leaf->m_numKeyEntrys);
            m_leaf->MarkAsDirtyWithoutTrace();
            return GetEntry(m_leaf->GetCalculatedBTreeTypeInfo(), m_leaf, m_offset);
        }

        // Never stops at the end of a leaf that has a successor.
        void next() {
            QX_ASSERT_IN("src/BPlusTree2", m_leaf);
            QX_ASSERT_IN("src/BPlusTree2", -1 <= m_offset && m_offset < m_leaf->m_numKeyEntrys);
            if (++m_offset == m_leaf->m_numKeyEntrys) [[unlikely]]
                *this = BehindLeaf(*this);
        }
        // From the first entry to -1 on the first leaf, from where next leads back.
        void prev() {
            QX_ASSERT_IN("src/BPlusTree2", m_leaf);
            QX_ASSERT_IN("src/BPlusTree2", 0 <= m_offset && m_offset <= m_leaf->m_numKeyEntrys);
            if (--m_offset < 0) [[unlikely]]
                *this = BeforeLeaf(*this);
        }

        bool operator==(const Iterator& rhs) const { return m_leaf == rhs.m_leaf && m_offset == rhs.m_offset; }
        bool operator!=(const Iterator& rhs) const { return !(*this == rhs); }

        LeafNode* m_leaf = nullptr;
        ssize_t m_offset = 0; // index of the entry

    private:
        // By value, so that a loop keeps its position in registers.
        static Iterator BehindLeaf(Iterator i);
        static Iterator BeforeLeaf(Iterator i);
    };

    BPlusTree() = default; // for the object system, just before Deserialise
    explicit BPlusTree(const BTreeTypeInfo& bti) : m_bti(bti) {}
    // Inserts every entry of rhs into new, transient nodes; loads all of rhs. References in keys and payloads still lead
    // to the same objects.
    BPlusTree(const BPlusTree& rhs);
    // The same for a tree that exists. The nodes of a persistent one are deleted and the new ones made persistent. Both
    // trees have the same types: nothing checks it.
    BPlusTree& operator=(const BPlusTree& rhs);
    ~BPlusTree() noexcept(false) override = default;

    void Serialise(Archive& ar) const;
    InputArchive Deserialise(InputArchive ar);
    // What is held in memory: first leaf, last leaf, root.
    void VisitObjects(IObjectVisitor& visitor) const;
    // What belongs to the tree: the root, through which every node is reached once.
    void VisitPrefs(IPrefVisitor& visitor) const;
    bool RepresentsSubTree() const { return true; }

    const CalculatedBTreeTypeInfo& GetCalculatedBTreeTypeInfo() const { return m_bti.GetCalculatedBTreeTypeInfo(); }
    // Where the payload stands in an entry: behind the key.
    ssize_t GetPayloadOffset() const { return quna::GetPayloadOffset(GetCalculatedBTreeTypeInfo()); }

    ssize_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }

    // ---- Positions --------------------------------------------------------------------------------------------------

    Iterator begin();
    Iterator end();

    // ---- Reading: changes nothing, loads the nodes on the way --------------------------------------------------------

    Iterator find(const _Key* key);               // end() when there is none
    const _Payload* rFind(const _Key* key) const; // null when there is none
    ssize_t count(const _Key* key) const;
    const _Payload* operator[](const _Key* key) const; // the key must exist ("p")
    Iterator lower_bound(const _Key* key);             // the first entry not below the key
    Iterator upper_bound(const _Key* key);             // the first entry above the key

    // ---- Writing ----------------------------------------------------------------------------------------------------

    // The entry's payload, made with a default value if need be. Always marks the leaf dirty; references that the caller
    // writes through the result are not declared: call DeclarePayloadReachable.
    _Payload* operator[](const _Key* key);
    // Never replaces a payload.
    std::pair<Iterator, bool> insert(const _KeyAndPayload* x);
    // True when the entry was made. `payload` may lie in this tree; it is not read in a set.
    bool Insert(const _Key* key, const _Payload* payload, bool allowReplace);
    bool Insert(const _Key* key) { return Insert(key, nullptr, false); }
    // The same, with the entry's position.
    std::pair<Iterator, bool> InsertAt(const _Key* key, const _Payload* payload, bool allowReplace);
    // The search beneath the three. A tree without nodes gets its first leaf, whatever allowCreate says. With `payload`
    // a new entry is made with a copy of it.
    void wFind(wFindRet& ret, const _Key* key, bool allowCreate, const _Payload* payload = nullptr);

    // True when the key was there and has been removed.
    bool Delete(const _Key* key);
    std::size_t erase(const _Key* key) { return Delete(key) ? 1 : 0; }
    void erase(Iterator i) { Delete(member_key(i.const_deref())); }

    // ---- Whole trees ------------------------------------------------------------------------------------------------

    // Queues the nodes for deletion without walking them.
    void clear();
    // Exchanges the contents of two trees with the same types (nothing checks it): in constant time, unless one is
    // persistent and the other transient, which copies every entry.
    void swap(BPlusTree& rhs);

    // By entries, keys and payloads; the order is lexicographic.
    bool operator==(const BPlusTree& rhs) const;
    bool operator<(const BPlusTree& rhs) const;
    bool operator!=(const BPlusTree& rhs) const { return !(*this == rhs); }
    bool operator<=(const BPlusTree& rhs) const { return !(rhs < *this); }
    bool operator>(const BPlusTree& rhs) const { return rhs < *this; }
    bool operator>=(const BPlusTree& rhs) const { return !(*this < rhs); }

    // Checks every node's fill, the order of its keys and its bounds by the separators beside it, by assertion. Loads
    // the whole tree. Looks neither at the chain of leaves nor at the size, the first and the last leaf.
    void Validate() const;
    ssize_t GetNumNodes() const;
    // The entries in order. Marks every leaf dirty.
    void Write(xostream& os) const;

    // ---- Steps of the above, open to white-box tests ----------------------------------------------------------------

    void wFindInNode(wFindRet& ret, void* left, ssize_t height, const _Key* key, KeyAndCrefSlot& rightEntry,
                     bool allowCreate, const _Payload* payload = nullptr);
    void wRecursiveFind(wFindRet& ret, InternalNode* left, ssize_t height, const _Key* key, KeyAndCrefSlot& rightEntry,
                        bool allowCreate, const _Payload* payload = nullptr);
    // The new right leaf after a split, otherwise null. A split puts a copy of the separator into `separator`, if given.
    LeafNode* wFindInLeaf(wFindRet& ret, LeafNode* left, const _Key* key, bool allowCreate,
                          const _Payload* payload = nullptr, KeyAndCrefSlot* separator = nullptr);
    void InsertIntoInternalNode(InternalNode* left, KeyAndCrefSlot& e, KeyAndCrefSlot& overflow);

    // On return deleteNode is the child that the caller must remove from its entries, or null.
    bool RecursiveDelete(ssize_t height, void* thisNode, void* lNode, void* rNode, InternalNode* lAnchor,
                         InternalNode* rAnchor, InternalNode* parent, void*& deleteNode, const _Key* key);
    void MergeLeafRightToLeft(LeafNode* left, LeafNode* right);
    void BalanceLeafRightToLeft(LeafNode* left, LeafNode* right, InternalNode* anchor);
    void BalanceLeafLeftToRight(LeafNode* left, LeafNode* right, InternalNode* anchor);
    void MergeInternalRightToLeft(InternalNode* left, InternalNode* right, InternalNode* anchor);
    void BalanceInternalRightToLeft(InternalNode* left, InternalNode* right, InternalNode* anchor);
    void BalanceInternalLeftToRight(InternalNode* left, InternalNode* right, InternalNode* anchor);
    void ReplaceKeyInAnchor(InternalNode* anchor, const _Key* oldKey, const _Key* newKey);

    // Takes nodes that were built beside the tree in place of its own, and makes them persistent if the tree is; none with
    // height -1. What the old entries name is not deleted with their nodes, since the new ones may name it too.
    void ReplaceNodes(LeafNode* firstLeaf, LeafNode* lastLeaf, const cref<void>& root, ssize_t height, ssize_t size);
    // Exchanges the five fields below and nothing else; marks nothing.
    void SwapMembers(BPlusTree& rhs);
    void SwapPersistentWithTransient(BPlusTree& rhs);
    void ValidateNode(ssize_t height, void* node, bool isRoot, const _Key* k1, const _Key* k2) const;
    ssize_t GetNumNodes(ssize_t height, void* node) const;
    void WriteNode(xostream& os, ssize_t height, void* node) const;

    ssize_t m_size = 0; // entries in the whole tree
    cref<LeafNode> m_firstLeaf;
    cref<LeafNode> m_lastLeaf;
    cref<void> m_root;     // a LeafNode at height 0, an InternalNode above, null at -1
    ssize_t m_height = -1; // levels of internal nodes; -1 without nodes
    BTreeTypeInfo m_bti;

private:
    class NewLeafEntry;

    LeafNode* FindLeaf(const CalculatedBTreeTypeInfo& bi, const _Key* key) const;
    void* GetRoot() const;
    void SetRoot(cref<void> root, ssize_t height);
    LeafNode* NewLeaf();
    InternalNode* NewInternalNode();
    void MakeFirstLeaf();
    void GrowRoot(KeyAndCrefSlot& rightEntry);
    void InsertIntoRoomyLeaf(wFindRet& ret, LeafNode* leaf, ssize_t insertPos, NewLeafEntry& entry);
    LeafNode* SplitLeaf(wFindRet& ret, LeafNode* left, ssize_t insertPos, NewLeafEntry& entry);
    void UndoSplit(LeafNode* left, LeafNode* right, LeafNode* next);
    bool DeleteInInternalNode(ssize_t height, InternalNode* iThisNode, InternalNode* ilNode, InternalNode* irNode,
                              InternalNode* lAnchor, InternalNode* rAnchor, InternalNode* parent, void*& deleteNode,
                              const _Key* key);
    bool DeleteInLeaf(LeafNode* leaf, LeafNode* lNode, LeafNode* rNode, InternalNode* lAnchor, InternalNode* rAnchor,
                      InternalNode* parent, void*& deleteNode, const _Key* key);
    void ShrinkRoot(InternalNode* root);

    void DeleteNodes();
    void DeclareRootReachable();
    void ReleaseReferencesOfNodes();
    void RepairChainAfterDeepCopy() const;
    // A deep copy duplicates the nodes that VisitPrefs reports, behind the back of the chain.
    void EnsureChain() const {
        if (m_rootOfChain && m_rootOfChain != m_root.GetBoundPtr()) [[unlikely]]
            RepairChainAfterDeepCopy();
    }

    // Before a position is handed out through which the caller may write. Readers beside each other repair nothing: what
    // the old chain shows them is equal.
    void EnsureChainIfExclusive() const;

    // The root whose leaves the chain is known to link. Set by copying only, null otherwise, since nothing but the deep
    // copy, which begins with a copy, ever changes the root from outside. Not stored.
    mutable const void* m_rootOfChain = nullptr;
};

} // namespace quna

// The leaves of a tree: entries in key order, chained in both directions.
#pragma once

#include "qxPersistStore/BTreeEntries.h"
#include "qxPersistStore/BTreeTypeInfo.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/xvector.h"

namespace quna {

class IObjectVisitor;
class IPrefVisitor;
struct ReflectedClass;
struct TypeOps;
struct XTarget;

class LeafNode;
QX_API const ReflectedClass& _GetReflected(const LeafNode*);
QX_API const TypeOps* _GetTypeOps(const LeafNode*);
QX_API void _Register_LeafNode(XTarget* target);

// A persistent object of its own. Made and changed by its tree alone.
//
// Threads: under the lock of the space, like any persistent object.
// Invariant: m_entrys is empty or has room for exactly 100 entries. The first m_numKeyEntrys hold live values, keys
//   strictly ascending; the bytes behind them are dead.
//
// Record, schema 2. uint is the variable-length form, pref that of a reference.
//   schema tag
//   keyTid, payloadTid    uint each
//   prev, next            pref each
//   n                     uint, 0 to 100; in schema 1 a native int64
//   n keys                in the key type's form
//   n payloads            in the payload type's form; absent in a set
class QX_API LeafNode : public PersistableMixin<IObjectBaseMixin<LeafNode, EmptyBase>> {
public:
    LeafNode() = default; // for the object system, just before Deserialise
    // The maker calls InitEntrysBuffer next.
    explicit LeafNode(const BTreeTypeInfo& bti) : m_bti(bti) {}
    // The links and entries as they stand: a copy is of use only to code that puts it into a chain. Values that may not
    // be copied as bytes are copied by their type.
    LeafNode(const LeafNode& rhs);
    LeafNode& operator=(const LeafNode& rhs);
    ~LeafNode() noexcept(false) override;

    void Serialise(Archive& ar) const;
    // Also into a node that has entries.
    InputArchive Deserialise(InputArchive ar);

    // What is held in memory: the links, then keys, then payloads.
    void VisitObjects(IObjectVisitor& visitor) const;
    // What belongs to the leaf: keys, then payloads. The neighbours belong to their parents.
    void VisitPrefs(IPrefVisitor& visitor) const;
    bool RepresentsSubTree() const { return true; }

    const CalculatedBTreeTypeInfo& GetCalculatedBTreeTypeInfo() const { return m_bti.GetCalculatedBTreeTypeInfo(); }

    // The index of the entry with this key, or -1.
    ssize_t SearchLeaf(const _Key* key) const;
    // The index of the first entry not below the key, or above it; m_numKeyEntrys when there is none.
    ssize_t lower_bound(const _Key* key) const;
    ssize_t upper_bound(const _Key* key) const;

    cref<LeafNode> m_prev;      // null at the first leaf
    cref<LeafNode> m_next;      // null at the last leaf
    ssize_t m_numKeyEntrys = 0; // live entries, 0 to 100
    xvector<unsigned char> m_entrys;
    BTreeTypeInfo m_bti;

private:
    void DestructLiveEntries();
};

// The address of entry i. 100 is allowed: a move of no entries may name it.
inline _KeyAndPayload* GetEntry(const CalculatedBTreeTypeInfo& bi, LeafNode* leaf, ssize_t i) {
    QX_ASSERT_IN("src/BPlusTree2", 0 <= i && i <= 100);
    QX_ASSERT_IN("src/BPlusTree2", leaf->m_entrys.size() == 100 * GetKeyAndPayloadSize(bi));
    return reinterpret_cast<_KeyAndPayload*>(leaf->m_entrys.data() + i * bi.m_keyAndPayloadSize);
}
inline const _KeyAndPayload* GetEntry(const CalculatedBTreeTypeInfo& bi, const LeafNode* leaf, ssize_t i) {
    return GetEntry(bi, const_cast<LeafNode*>(leaf), i);
}

// Gives a new node its 100 entries of zero bytes.
QX_API void InitEntrysBuffer(const CalculatedBTreeTypeInfo& bi, LeafNode* node);
// Within a node; the ranges may overlap.
QX_API void ShiftLeafEntries(const CalculatedBTreeTypeInfo& bi, LeafNode* node, ssize_t s, ssize_t d, ssize_t count);
// Between two different nodes.
QX_API void MoveLeafEntries(const CalculatedBTreeTypeInfo& bi, const LeafNode* src, ssize_t s, LeafNode* dst, ssize_t d,
                            ssize_t count);
QX_API void DestructLeafEntry(const CalculatedBTreeTypeInfo& bi, LeafNode* node, ssize_t i);

} // namespace quna

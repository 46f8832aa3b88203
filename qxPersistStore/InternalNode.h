// The inner nodes of a tree: separators, with the children between them.
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

#include <utility>

namespace quna {

class IObjectVisitor;
class IPrefVisitor;
struct ReflectedClass;
struct TypeOps;
struct XTarget;

class InternalNode;
QX_API const ReflectedClass& _GetReflected(const InternalNode*);
QX_API const TypeOps* _GetTypeOps(const InternalNode*);
QX_API void _Register_InternalNode(XTarget* target);

// A persistent object of its own. Made and changed by its tree alone.
//
// With n entries it has n + 1 children: m_ptr, then the reference of each entry. That of entry i leads to keys equal to
// or above key i and below key i + 1. Children are untyped: leaf or inner node follows from the height, which the
// descent carries and no node records.
//
// Threads: under the lock of the space, like any persistent object.
// Invariant: m_entrys is empty or has room for exactly 100 entries. The first m_numKeyEntrys hold live values, keys
//   strictly ascending; the bytes behind them are dead.
//
// Record, schema 2. uint is the variable-length form, pref that of a reference.
//   schema tag
//   keyTid, payloadTid    uint each
//   ptr                   pref
//   n                     uint, 0 to 100; in schema 1 a native int64
//   n keys                in the key type's form
//   n children            pref each
class QX_API InternalNode : public PersistableMixin<IObjectBaseMixin<InternalNode, EmptyBase>> {
public:
    InternalNode() = default; // for the object system, just before Deserialise
    // The maker calls InitEntrysBuffer next.
    explicit InternalNode(const BTreeTypeInfo& bti) : m_bti(bti) {}
    // Children and entries as they stand. Keys that may not be copied as bytes are copied by their type.
    InternalNode(const InternalNode& rhs);
    InternalNode& operator=(const InternalNode& rhs);
    ~InternalNode() noexcept(false) override;

    void Serialise(Archive& ar) const;
    // Also into a node that has entries.
    InputArchive Deserialise(InputArchive ar);

    // Both: m_ptr, keys, then the references of the entries.
    void VisitObjects(IObjectVisitor& visitor) const;
    void VisitPrefs(IPrefVisitor& visitor) const;
    bool RepresentsSubTree() const { return true; }

    const CalculatedBTreeTypeInfo& GetCalculatedBTreeTypeInfo() const { return m_bti.GetCalculatedBTreeTypeInfo(); }

    // The child under which the key belongs, loaded if need be, and the index of its entry: the last one whose key is
    // not above `key`, or -1 for m_ptr.
    std::pair<void*, ssize_t> FindChildGivenKey2(const _Key* key) const;
    void* FindChildGivenKey(const _Key* key) const { return FindChildGivenKey2(key).first; }
    ssize_t FindChildIndexGivenKey(const _Key* key) const;

    cref<void> m_ptr;           // the leftmost child, which has no key
    ssize_t m_numKeyEntrys = 0; // live entries, 1 to 100 in a tree
    xvector<unsigned char> m_entrys;
    BTreeTypeInfo m_bti;

private:
    void DestructLiveEntries();
};

// The address of entry i. 100 is allowed: a move of no entries may name it.
inline _KeyAndCref* GetEntry(const CalculatedBTreeTypeInfo& bi, InternalNode* node, ssize_t i) {
    QX_ASSERT_IN("src/BPlusTree2", 0 <= i && i <= 100);
    QX_ASSERT_IN("src/BPlusTree2", node->m_entrys.size() == 100 * GetKeyAndCrefSize(bi));
    return reinterpret_cast<_KeyAndCref*>(node->m_entrys.data() + i * bi.m_keyAndCrefSize);
}
inline const _KeyAndCref* GetEntry(const CalculatedBTreeTypeInfo& bi, const InternalNode* node, ssize_t i) {
    return GetEntry(bi, const_cast<InternalNode*>(node), i);
}

// Gives a new node its 100 entries of zero bytes.
QX_API void InitEntrysBuffer(const CalculatedBTreeTypeInfo& bi, InternalNode* node);
// Within a node; the ranges may overlap.
QX_API void ShiftInternalEntries(const CalculatedBTreeTypeInfo& bi, InternalNode* node, ssize_t s, ssize_t d,
                                 ssize_t count);
// Between two different nodes.
QX_API void MoveInternalEntries(const CalculatedBTreeTypeInfo& bi, const InternalNode* src, ssize_t s,
                                InternalNode* dst, ssize_t d, ssize_t count);
QX_API void DestructInternalEntry(const CalculatedBTreeTypeInfo& bi, InternalNode* node, ssize_t i);

} // namespace quna

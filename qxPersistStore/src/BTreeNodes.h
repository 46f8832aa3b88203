// What the two kinds of tree nodes do alike.
#pragma once

#include "qxObject/CSpace.h"
#include "qxObject/EvictablePtr.h"
#include "qxPersistStore/BTreeEntries.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/VariableLengthSerialise.h"

#include <cstddef>
#include <utility>

namespace quna {

namespace detail {

// Whether entries may not be copied as bytes: their types have something to end, or references, which are read as
// atomics while others bind them.
inline bool NeedsCopyByType(const CalculatedBTreeTypeInfo& bi) {
    const auto needs = [](const TypeOps& type) { return type.HasDestruct() || type.HasVisitPrefs(); };
    return needs(*bi.m_keyType) || (bi.m_payloadType && needs(*bi.m_payloadType));
}

template <class Node>
void ResizeEntrys(Node* node, ssize_t requiredSize) {
    QX_ASSERT_IN("src/BPlusTree2", node->m_entrys.size() == 0 || node->m_entrys.size() == requiredSize);
    node->m_entrys.reserve(requiredSize);
    node->m_entrys.resize(requiredSize);
}

// Reads the type ids and resolves them. Entries that the node has already stay what they are as long as the ids are the
// same, and their descriptor survives a failure here, so that they can be ended; with other ids they end before.
template <class Node, class DestructLiveEntries>
InputArchive ReadTypes(InputArchive ar, Node& node, DestructLiveEntries&& destructLiveEntries) {
    BTreeTypeInfo stored;
    const InputArchive behind = DeserialiseBTreeTypeInfo(ar, stored);
    if (stored.m_keyTid != node.m_bti.m_keyTid || stored.m_payloadTid != node.m_bti.m_payloadTid) {
        destructLiveEntries();
        node.m_entrys.clear();
    }
    stored.GetCalculatedBTreeTypeInfo();
    node.m_bti = stored;
    return behind;
}

inline InputArchive ReadNumEntries(InputArchive ar, int schema, ssize_t& n) {
    if (schema == 1) {
        int64 native = 0;
        ar = ar >> native;
        n = native;
    } else {
        uint64 x = 0;
        ar = DeserialiseVariableLengthUint(ar, x);
        n = static_cast<ssize_t>(x);
    }
    QX_ASSERT_IN("src/BPlusTree2", 0 <= n && n <= 100);
    return ar;
}

// The reference at `place` bound by loading: null for a null reference. At an aligned address the place keeps the
// pointer; at another one it does so only under an exclusive lock, since the words could tear. Fails "node" when the
// object is not of the class whose table is given.
QX_API void* LoadChild(const void* place, const void* table);

} // namespace detail

// Where the words of the cached pointer stand in a reference.
inline constexpr std::ptrdiff_t PREF_POINTER_OFFSET = sizeof(OID);
static_assert(sizeof(prefbase) == sizeof(OID) + sizeof(AnyInterface));

// A damaged record may refer to a node of another tree. With entries of the same size nothing else would tell, and values of
// one type would be used as values of another.
template <class Node>
void AssertTypes(const CalculatedBTreeTypeInfo& bi, const Node* node) {
    const CalculatedBTreeTypeInfo& types = node->GetCalculatedBTreeTypeInfo();
    if (&types == &bi) [[likely]]
        return;
    QX_ASSERT_IN("src/BPlusTree2", types.m_keyType == bi.m_keyType && types.m_payloadType == bi.m_payloadType);
}
// The node that a reference beside `node` leads to, null for none.
template <class Node>
Node* FollowLink(const CalculatedBTreeTypeInfo& bi, const cref<Node>& link) {
    Node* const node = link.Get();
    if (node) AssertTypes(bi, node);
    return node;
}

// Follows a reference at any address to a node of a known class: as Get, without a call on the way to a bound node.
template <class Node>
Node* FollowChild(const CalculatedBTreeTypeInfo& bi, const void* place) {
    const AnyInterface words = LoadEvictableWords(
        reinterpret_cast<const AnyInterface*>(static_cast<const char*>(place) + PREF_POINTER_OFFSET));
    if (words.m_self && static_cast<const void*>(words.m_table) == IPersistable::Stubs<Node>::GetTable()) [[likely]] {
        Node* const node = static_cast<Node*>(words.m_self);
        node->GetSysState().SetLastTouchedTime(g_touchClock.load(std::memory_order_relaxed));
        AssertTypes(bi, node);
        return node;
    }
    Node* const node = static_cast<Node*>(detail::LoadChild(place, IPersistable::Stubs<Node>::GetTable()));
    if (node) AssertTypes(bi, node);
    return node;
}

// The same for a node that is only carried along: no use is noted, so that a bound one is not brought into the cache.
template <class Node>
Node* FollowNeighbour(const CalculatedBTreeTypeInfo& bi, const void* place) {
    const AnyInterface words = LoadEvictableWords(
        reinterpret_cast<const AnyInterface*>(static_cast<const char*>(place) + PREF_POINTER_OFFSET));
    if (words.m_self && static_cast<const void*>(words.m_table) == IPersistable::Stubs<Node>::GetTable()) [[likely]]
        return static_cast<Node*>(words.m_self);
    Node* const node = static_cast<Node*>(detail::LoadChild(place, IPersistable::Stubs<Node>::GetTable()));
    if (node) AssertTypes(bi, node);
    return node;
}

// MarkAsDirtyWithoutTrace with a transient node told apart first: it has nothing to mark, which the call would find out
// by way of its space.
template <class Object>
void MarkDirty(const Object* object) {
    if (!object->IsDirty() && object->m_persistObjState.m_oid) object->MarkAsDirtyWithoutTrace();
}

} // namespace quna

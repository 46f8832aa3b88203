// The entries of tree nodes: their parts, and what is done to the values in them.
//
// An entry has no padding, the key first:
//   _KeyAndPayload (leaf)       key, then the payload at offset m_keyType->m_size; in a set the key alone
//   _KeyAndCref    (internal)   key, then a cref<void> at offset m_keyType->m_size
// So a payload or reference may stand at any address. Values live in the bytes of a node by placement; they are made and
// ended through TypeOps and moved as bytes: a key or payload type must survive a bitwise move, after which the source
// bytes are abandoned, not destructed.
//
// A reference at an address that is no multiple of 8 is not used in place but through LoadPref and StorePref.
#pragma once

#include "qxObject/IObjectVisitor.h"
#include "qxObject/Interface.h"
#include "qxPersistStore/BTreeTypeInfo.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/IPrefVisitor.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

// The fan-out: part of the algorithms, not of any record.
inline constexpr ssize_t BTREE_MAX_ENTRIES = 100; // of a leaf or an internal node
inline constexpr ssize_t BTREE_MIN_ENTRIES = 50;  // of a node that is not the root

// ---- Sizes and parts ------------------------------------------------------------------------------------------------

inline ssize_t GetKeySize(const CalculatedBTreeTypeInfo& bi) {
    QX_ASSERT_IN("src/BPlusTree2", bi.m_keyType);
    return bi.m_keyType->m_size;
}
// 0 in a set.
inline ssize_t GetPayloadSize(const CalculatedBTreeTypeInfo& bi) {
    return bi.m_payloadType ? bi.m_payloadType->m_size : 0;
}
inline ssize_t GetKeyAndCrefSize(const CalculatedBTreeTypeInfo& bi) {
    QX_ASSERT_IN("src/BPlusTree2", bi.m_keyType);
    return bi.m_keyAndCrefSize;
}
inline ssize_t GetKeyAndPayloadSize(const CalculatedBTreeTypeInfo& bi) {
    QX_ASSERT_IN("src/BPlusTree2", bi.m_keyType);
    return bi.m_keyAndPayloadSize;
}
inline ssize_t GetPayloadOffset(const CalculatedBTreeTypeInfo& bi) { return GetKeySize(bi); }
inline ssize_t GetCrefOffset(const CalculatedBTreeTypeInfo& bi) { return GetKeySize(bi); }
inline const TypeOps& Key(const CalculatedBTreeTypeInfo& bi) {
    QX_ASSERT_IN("src/BPlusTree2", bi.m_keyType);
    return *bi.m_keyType;
}

inline _Key* member_key(_KeyAndPayload* p) { return reinterpret_cast<_Key*>(p); }
inline const _Key* member_key(const _KeyAndPayload* p) { return reinterpret_cast<const _Key*>(p); }
inline _Key* member_key(_KeyAndCref* p) { return reinterpret_cast<_Key*>(p); }
inline const _Key* member_key(const _KeyAndCref* p) { return reinterpret_cast<const _Key*>(p); }

inline _Payload* member_payload(const CalculatedBTreeTypeInfo& bi, _KeyAndPayload* p) {
    return reinterpret_cast<_Payload*>(reinterpret_cast<char*>(p) + GetPayloadOffset(bi));
}
inline const _Payload* member_payload(const CalculatedBTreeTypeInfo& bi, const _KeyAndPayload* p) {
    return reinterpret_cast<const _Payload*>(reinterpret_cast<const char*>(p) + GetPayloadOffset(bi));
}

// To be used in place only when the key's size and the entry's are multiples of 8.
inline cref<void>* member_cref(const CalculatedBTreeTypeInfo& bi, _KeyAndCref* p) {
    return reinterpret_cast<cref<void>*>(reinterpret_cast<char*>(p) + GetCrefOffset(bi));
}
inline const cref<void>* member_cref(const CalculatedBTreeTypeInfo& bi, const _KeyAndCref* p) {
    return reinterpret_cast<const cref<void>*>(reinterpret_cast<const char*>(p) + GetCrefOffset(bi));
}

// ---- One value ------------------------------------------------------------------------------------------------------

// Bitwise; no value is made or ended.
QX_API void MoveKey(const CalculatedBTreeTypeInfo& bi, _Key* dst, const _Key* src);
QX_API void MoveKeyAndCref(const CalculatedBTreeTypeInfo& bi, _KeyAndCref* dst, const _KeyAndCref* src);

QX_API void CopyConstructKey(const CalculatedBTreeTypeInfo& bi, _Key* dst, const _Key* src);
QX_API void AssignKey(const CalculatedBTreeTypeInfo& bi, _Key* dst, const _Key* src);
// The next two require a payload type.
QX_API void AssignPayload(const CalculatedBTreeTypeInfo& bi, _Payload* dst, const _Payload* src);
QX_API void ConstructPayload(const CalculatedBTreeTypeInfo& bi, _Payload* dst);

QX_API void DestructKeyAndPayload(const CalculatedBTreeTypeInfo& bi, _KeyAndPayload* p);
QX_API void DestructKeyAndCref(const CalculatedBTreeTypeInfo& bi, _KeyAndCref* p);

// ---- Runs of entries ------------------------------------------------------------------------------------------------

// When a constructor throws, nothing has been constructed.
QX_API void ConstructArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, _KeyAndPayload* A, ssize_t n);
QX_API void ConstructArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, _KeyAndCref* A, ssize_t n);
QX_API void CopyConstructArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, _KeyAndPayload* dst,
                                              const _KeyAndPayload* src, ssize_t n);
QX_API void CopyConstructArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, _KeyAndCref* dst, const _KeyAndCref* src,
                                           ssize_t n);
QX_API void DestructArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, _KeyAndPayload* A, ssize_t n);
QX_API void DestructArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, _KeyAndCref* A, ssize_t n);

// Keys, then payloads or references.
QX_API void VisitPrefsInKeyAndPayload(const CalculatedBTreeTypeInfo& bi, IPrefVisitor& v, const _KeyAndPayload* p);
QX_API void VisitPrefsInArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, IPrefVisitor& v,
                                             const _KeyAndPayload* A, ssize_t n);
QX_API void VisitPrefsInArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, IPrefVisitor& v, const _KeyAndCref* A,
                                          ssize_t n);
QX_API void VisitObjectsInArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, IObjectVisitor& v,
                                               const _KeyAndPayload* A, ssize_t n);
QX_API void VisitObjectsInArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, IObjectVisitor& v, const _KeyAndCref* A,
                                            ssize_t n);

// All keys, then all payloads or references.
QX_API void SerialiseArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, Archive& ar, const _KeyAndPayload* A,
                                          ssize_t n);
QX_API void SerialiseArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, Archive& ar, const _KeyAndCref* A, ssize_t n);
// Into constructed entries.
QX_API InputArchive DeserialiseArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, InputArchive ar,
                                                    _KeyAndPayload* A, ssize_t n);
QX_API InputArchive DeserialiseArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, InputArchive ar, _KeyAndCref* A,
                                                 ssize_t n);

// ---- Whole entries compared -----------------------------------------------------------------------------------------

// By key, then by payload.
QX_API bool Less(const CalculatedBTreeTypeInfo& bi, const _KeyAndPayload* p1, const _KeyAndPayload* p2);
QX_API bool Equal(const CalculatedBTreeTypeInfo& bi, const _KeyAndPayload* p1, const _KeyAndPayload* p2);

// ---- What an entry of a persistent node names becomes persistent, near the node --------------------------------------

// They do nothing for a transient parent. Exclusive lock otherwise.
QX_API void DeclareVariableReachable(const TypeOps& rt, ptr<IPersistable const> parent, const void* child);
QX_API void DeclareKeyReachable(const CalculatedBTreeTypeInfo& bi, ptr<IPersistable const> parent, const _Key* key);
// Who writes through the result of BPlusTree::operator[] or wFind calls it.
QX_API void DeclarePayloadReachable(const CalculatedBTreeTypeInfo& bi, ptr<IPersistable const> parent,
                                    const _Payload* payload);
QX_API void DeclareKeyAndPayloadReachable(const CalculatedBTreeTypeInfo& bi, ptr<IPersistable const> parent,
                                          const _KeyAndPayload* entry);

} // namespace quna

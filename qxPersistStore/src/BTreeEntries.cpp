#include "qxPersistStore/BTreeEntries.h"

#include "qxObject/TypeOpsArrays.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/ReachablePrefVisitors.h"

#include <cstring>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/BPlusTree2";

void CopyBytes(void* dst, const void* src, ssize_t n) { std::memcpy(dst, src, static_cast<std::size_t>(n)); }

void DestructIfNeeded(const TypeOps& type, void* A, ssize_t stride, ssize_t n) {
    if (type.HasDestruct()) type.DestructArray(A, stride, n);
}

void VisitPrefsIfAny(const TypeOps& type, IPrefVisitor& v, const void* A, ssize_t stride, ssize_t n) {
    if (type.HasVisitPrefs()) type.VisitPrefsInArray(v, A, stride, n);
}

void VisitObjectsIfAny(const TypeOps& type, IObjectVisitor& v, const void* A, ssize_t stride, ssize_t n) {
    if (type.HasVisitObjects()) type.VisitObjectsInArray(v, A, stride, n);
}

// The payload or the reference of the first entry.
void* SecondPart(const CalculatedBTreeTypeInfo& bi, void* A) { return static_cast<char*>(A) + GetKeySize(bi); }
const void* SecondPart(const CalculatedBTreeTypeInfo& bi, const void* A) {
    return static_cast<const char*>(A) + GetKeySize(bi);
}

// The visitor for a persistent parent, null members for a transient one.
PSpace* SpaceOfPersistentParent(ptr<IPersistable const> parent) {
    QX_ASSERT(parent);
    if (!GetOid(parent)) return nullptr;
    PSpace* ps = GetAssociatedPSpace(parent);
    QX_ASSERT(ps);
    return ps;
}

} // namespace

// ---- One value ------------------------------------------------------------------------------------------------------

void MoveKey(const CalculatedBTreeTypeInfo& bi, _Key* dst, const _Key* src) { CopyBytes(dst, src, GetKeySize(bi)); }

void MoveKeyAndCref(const CalculatedBTreeTypeInfo& bi, _KeyAndCref* dst, const _KeyAndCref* src) {
    CopyBytes(dst, src, GetKeyAndCrefSize(bi));
}

void CopyConstructKey(const CalculatedBTreeTypeInfo& bi, _Key* dst, const _Key* src) {
    Key(bi).CopyConstructVariable(dst, src);
}

void AssignKey(const CalculatedBTreeTypeInfo& bi, _Key* dst, const _Key* src) { Key(bi).AssignVariable(dst, src); }

void AssignPayload(const CalculatedBTreeTypeInfo& bi, _Payload* dst, const _Payload* src) {
    bi.m_payloadType->AssignVariable(dst, src);
}

void ConstructPayload(const CalculatedBTreeTypeInfo& bi, _Payload* dst) { bi.m_payloadType->ConstructVariable(dst); }

void DestructKeyAndPayload(const CalculatedBTreeTypeInfo& bi, _KeyAndPayload* p) {
    DestructIfNeeded(Key(bi), p, 0, 1);
    if (bi.m_payloadType) DestructIfNeeded(*bi.m_payloadType, SecondPart(bi, p), 0, 1);
}

void DestructKeyAndCref(const CalculatedBTreeTypeInfo& bi, _KeyAndCref* p) { DestructIfNeeded(Key(bi), p, 0, 1); }

// ---- Runs of entries ------------------------------------------------------------------------------------------------

void ConstructArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, _KeyAndPayload* A, ssize_t n) {
    const ssize_t stride = GetKeyAndPayloadSize(bi);
    Key(bi).ConstructArray(A, stride, n);
    if (!bi.m_payloadType) return;
    try {
        bi.m_payloadType->ConstructArray(SecondPart(bi, A), stride, n);
    } catch (...) {
        DestructIfNeeded(Key(bi), A, stride, n);
        throw;
    }
}

void ConstructArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, _KeyAndCref* A, ssize_t n) {
    const ssize_t stride = GetKeyAndCrefSize(bi);
    Key(bi).ConstructArray(A, stride, n);
    ConstructArray<prefbase>(SecondPart(bi, A), stride, n);
}

void CopyConstructArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, _KeyAndPayload* dst,
                                       const _KeyAndPayload* src, ssize_t n) {
    const ssize_t stride = GetKeyAndPayloadSize(bi);
    Key(bi).CopyConstructArray(dst, stride, src, stride, n);
    if (!bi.m_payloadType) return;
    try {
        bi.m_payloadType->CopyConstructArray(SecondPart(bi, dst), stride, SecondPart(bi, src), stride, n);
    } catch (...) {
        DestructIfNeeded(Key(bi), dst, stride, n);
        throw;
    }
}

void CopyConstructArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, _KeyAndCref* dst, const _KeyAndCref* src,
                                    ssize_t n) {
    const ssize_t stride = GetKeyAndCrefSize(bi);
    Key(bi).CopyConstructArray(dst, stride, src, stride, n);
    CopyConstructArray<prefbase>(SecondPart(bi, dst), stride, SecondPart(bi, src), stride, n);
}

void DestructArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, _KeyAndPayload* A, ssize_t n) {
    const ssize_t stride = GetKeyAndPayloadSize(bi);
    DestructIfNeeded(Key(bi), A, stride, n);
    if (bi.m_payloadType) DestructIfNeeded(*bi.m_payloadType, SecondPart(bi, A), stride, n);
}

void DestructArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, _KeyAndCref* A, ssize_t n) {
    DestructIfNeeded(Key(bi), A, GetKeyAndCrefSize(bi), n);
}

void VisitPrefsInKeyAndPayload(const CalculatedBTreeTypeInfo& bi, IPrefVisitor& v, const _KeyAndPayload* p) {
    VisitPrefsIfAny(Key(bi), v, p, 0, 1);
    if (bi.m_payloadType) VisitPrefsIfAny(*bi.m_payloadType, v, SecondPart(bi, p), 0, 1);
}

void VisitPrefsInArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, IPrefVisitor& v, const _KeyAndPayload* A,
                                      ssize_t n) {
    const ssize_t stride = GetKeyAndPayloadSize(bi);
    VisitPrefsIfAny(Key(bi), v, A, stride, n);
    if (bi.m_payloadType) VisitPrefsIfAny(*bi.m_payloadType, v, SecondPart(bi, A), stride, n);
}

void VisitPrefsInArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, IPrefVisitor& v, const _KeyAndCref* A,
                                   ssize_t n) {
    const ssize_t stride = GetKeyAndCrefSize(bi);
    VisitPrefsIfAny(Key(bi), v, A, stride, n);
    VisitPrefsInArray<prefbase>(v, SecondPart(bi, A), stride, n);
}

void VisitObjectsInArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, IObjectVisitor& v, const _KeyAndPayload* A,
                                        ssize_t n) {
    const ssize_t stride = GetKeyAndPayloadSize(bi);
    VisitObjectsIfAny(Key(bi), v, A, stride, n);
    if (bi.m_payloadType) VisitObjectsIfAny(*bi.m_payloadType, v, SecondPart(bi, A), stride, n);
}

void VisitObjectsInArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, IObjectVisitor& v, const _KeyAndCref* A,
                                     ssize_t n) {
    const ssize_t stride = GetKeyAndCrefSize(bi);
    VisitObjectsIfAny(Key(bi), v, A, stride, n);
    VisitObjectsInArray<prefbase>(v, SecondPart(bi, A), stride, n);
}

void SerialiseArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, Archive& ar, const _KeyAndPayload* A, ssize_t n) {
    const ssize_t stride = GetKeyAndPayloadSize(bi);
    Key(bi).SerialiseArray(ar, A, stride, n);
    if (bi.m_payloadType) bi.m_payloadType->SerialiseArray(ar, SecondPart(bi, A), stride, n);
}

void SerialiseArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, Archive& ar, const _KeyAndCref* A, ssize_t n) {
    const ssize_t stride = GetKeyAndCrefSize(bi);
    Key(bi).SerialiseArray(ar, A, stride, n);
    SerialiseArray<prefbase>(ar, SecondPart(bi, A), stride, n);
}

InputArchive DeserialiseArrayOfKeyAndPayload(const CalculatedBTreeTypeInfo& bi, InputArchive ar, _KeyAndPayload* A,
                                             ssize_t n) {
    const ssize_t stride = GetKeyAndPayloadSize(bi);
    ar = Key(bi).DeserialiseArray(ar, A, stride, n);
    return bi.m_payloadType ? bi.m_payloadType->DeserialiseArray(ar, SecondPart(bi, A), stride, n) : ar;
}

InputArchive DeserialiseArrayOfKeyAndCref(const CalculatedBTreeTypeInfo& bi, InputArchive ar, _KeyAndCref* A,
                                          ssize_t n) {
    const ssize_t stride = GetKeyAndCrefSize(bi);
    ar = Key(bi).DeserialiseArray(ar, A, stride, n);
    return DeserialiseArray<prefbase>(ar, SecondPart(bi, A), stride, n);
}

// ---- Whole entries compared -----------------------------------------------------------------------------------------

bool Less(const CalculatedBTreeTypeInfo& bi, const _KeyAndPayload* p1, const _KeyAndPayload* p2) {
    const TypeOps& key = Key(bi);
    if (key.Less(member_key(p1), member_key(p2))) return true;
    if (!bi.m_payloadType || !key.Equal(member_key(p1), member_key(p2))) return false;
    return bi.m_payloadType->Less(member_payload(bi, p1), member_payload(bi, p2));
}

bool Equal(const CalculatedBTreeTypeInfo& bi, const _KeyAndPayload* p1, const _KeyAndPayload* p2) {
    if (!Key(bi).Equal(member_key(p1), member_key(p2))) return false;
    if (!bi.m_payloadType) return true;
    return bi.m_payloadType->Equal(member_payload(bi, p1), member_payload(bi, p2));
}

// ---- Reachability ---------------------------------------------------------------------------------------------------

void DeclareVariableReachable(const TypeOps& rt, ptr<IPersistable const> parent, const void* child) {
    PSpace* const ps = SpaceOfPersistentParent(parent);
    if (!ps) return;
    AllocateOidsReachablePrefVisitor visitor(ps, GetOid(parent));
    VisitPrefsIfAny(rt, visitor, child, 0, 1);
}

void DeclareKeyReachable(const CalculatedBTreeTypeInfo& bi, ptr<IPersistable const> parent, const _Key* key) {
    DeclareVariableReachable(Key(bi), parent, key);
}

void DeclarePayloadReachable(const CalculatedBTreeTypeInfo& bi, ptr<IPersistable const> parent,
                             const _Payload* payload) {
    if (bi.m_payloadType) DeclareVariableReachable(*bi.m_payloadType, parent, payload);
}

void DeclareKeyAndPayloadReachable(const CalculatedBTreeTypeInfo& bi, ptr<IPersistable const> parent,
                                   const _KeyAndPayload* entry) {
    PSpace* const ps = SpaceOfPersistentParent(parent);
    if (!ps) return;
    AllocateOidsReachablePrefVisitor visitor(ps, GetOid(parent));
    VisitPrefsInKeyAndPayload(bi, visitor, entry);
}

} // namespace quna

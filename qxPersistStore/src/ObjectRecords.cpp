// The envelope of an object's record: written, read, and measured.

#include "qxObject/DollarNew.h"
#include "qxObject/QunaSystemException.h"
#include "qxObject/ReflectedClass.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/StreamLengthCounter.h"
#include "qxPersistStore/src/TraceFailure.h"
#include "qxUtils/Assert.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/RecordLimits.h"
#include "qxUtils/VariableLengthSerialise.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/PersistStore";

// `rc` is null for a record of a null object.
[[noreturn]] void ThrowRecordNotUsedExactly(OID oid, const ReflectedClass* rc, CID cid, ssize_t size, ssize_t read) {
    StringStream os(256);
    os << "Error deserialising object"
       << " oid=" << oid;
    if (rc) os << " class=" << rc->GetName();
    os << " cid=" << cid << " size=" << size << " read=" << read;
    throw DeserialisePersistentObjectException(os.c_str(), oid);
}

InputArchive DeserialiseBody(InputArchive body, ptr<IPersistable> po, OID oid) {
    try {
        return po->Deserialise(body);
    } catch (...) {
        TraceFailure("reading", po, oid);
        throw;
    }
}

} // namespace

void StreamLengthCounter::WriteStream(const void*, ssize_t n) { m_length += n; }
void StreamLengthCounter::FlushStream() {}

CID PersistStore::GetCid(ReflectedClass const& rc) {
    bool newEntry = false;
    const CID cid = m_rootObject.m_cidMap.GetCid(rc, newEntry);
    QX_ASSERT(cid != 0);
    if (newEntry) m_rootObject.m_dirty.store(true, std::memory_order_release);
    return cid;
}

ReflectedClass const& PersistStore::GetReflectedClass(CID cid) { return m_rootObject.m_cidMap.GetReflectedClass(cid); }

void PersistStore::DynCreateSerialise(Archive& ar, ptr<const IPersistable> po) {
    if (!po) {
        // Reads where the reader expects a CID of 0. Nobody passes null; a write here would let such records appear.
        DeserialiseVariableLengthUint32(ar);
        return;
    }
    const ReflectedClass* rc = po->GetReflectedClass();
    QX_ASSERT(rc);
    const CID cid = GetCid(*rc);
    QX_ASSERT(cid >= 0);
    SerialiseVariableLengthUint32(ar, static_cast<uint32>(cid));
    const int64 begin = ar.GetNumBytesWritten();
    po->Serialise(ar);
    SetPersistableSizeForGCEvictor(po, ar.GetNumBytesWritten() - begin);
}

void PersistStore::DynCreateDeserialise(InputArchive ar_begin, InputArchive ar_end, ptr<IPersistable>& po, OID oid,
                                        bool registerInCSpace) {
    QX_ASSERT(oid);
    const RecordLimitsScope limits(ar_begin, ar_end);
    uint64 storedCid = 0;
    InputArchive ar = DeserialiseVariableLengthUint(ar_begin, storedCid);
    const CID cid = static_cast<CID>(storedCid);
    const ReflectedClass* rc = nullptr;
    if (cid == 0) {
        po = null;
    } else {
        rc = &GetReflectedClass(cid);
        QX_ASSERT(rc);
        QX_ASSERT(rc->m_createFn);
        const ptr<IObject> v = rc->m_createFn();
        QX_ASSERT(v);
        if (registerInCSpace) RegisterOrDestroy(v);
        po = qicast<IPersistable>(v);
        if (!po && !registerInCSpace) v->Destroy();
        QX_ASSERT_TEXT(po, "0"); // a class that is no IPersistable
        QX_ASSERT(!IsPersistableDirty(po));
        PersistObjState& state = po->GetPersistObjState();
        QX_ASSERT_TEXT(!state.m_oid, "!GetOid(po)");
        state.m_oid = oid; // before Deserialise: references read there can see it
        const InputArchive body = ar;
        ar = DeserialiseBody(body, po, oid);
        SetPersistableSizeForGCEvictor(po, ar.ptr() - body.ptr());
    }
    if (ar.ptr() != ar_end.ptr())
        ThrowRecordNotUsedExactly(oid, rc, cid, ar_end.ptr() - ar_begin.ptr(), ar.ptr() - ar_begin.ptr());
}

ptr<IPersistable> PersistStore::TryLoadPOGivenOid(OID oid) {
    QX_ASSERT(oid);
    IContiguousSerialElement* const se = m_lss->OpenSerialElement(oid);
    if (!se) return null; // a dangling OID
    ptr<IPersistable> po;
    try {
        const ReadOnlyBuffer rob = se->GetBuffer();
        DynCreateDeserialise(rob.buffer, rob.buffer + rob.size, po, oid, true);
    } catch (...) {
        const AutoCloser<IContiguousSerialElement> closer(se);
        throw;
    }
    se->Close();
    QX_ASSERT(po);
    return po;
}

ptr<IPersistable> PersistStore::AlwaysLoadPOGivenOid(OID oid) {
    const ptr<IPersistable> po = TryLoadPOGivenOid(oid);
    if (!po) throw DerefDanglingOidException(oid);
    return po;
}

void SetPersistableSizeForGCEvictor(ptr<const IPersistable> po, ssize_t size) {
    QX_ASSERT(size >= 0);
    SetEvictableObjectSizeInBytes(po, size);
}

ssize_t MeasurePersistableObjectSize(ptr<const IPersistable> po) {
    StreamLengthCounter counter;
    {
        Archive ar(&counter);
        po->Serialise(ar);
    }
    return counter.GetLength();
}

} // namespace quna

// The library's outer face. Each function finds its target, in one of a few ways, and forwards.
#include "qxPersistStore/IPersistStore.h"

#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/PersistStoreTxn.h"
#include "qxUtils/Assert.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/qxPersistStore";

// The space that a binder looks an OID up in.
PSpace* PSpaceToBindIn(OID oid) {
    QX_ASSERT(oid);
    PSpace* pspace = GetThreadPSpace();
    QX_ASSERT(pspace);
    return pspace;
}

} // namespace

// ---- The thread's current space -------------------------------------------------------------------------------------

ptr<IPersistable> BindObjectGivenOid(OID oid) { return PSpaceToBindIn(oid)->BindObject(oid); }
ptr<IPersistable> BindObjectInMemoryGivenOid(OID oid) { return PSpaceToBindIn(oid)->BindObjectIfMemoryResident(oid); }
ptr<IPersistable> AsyncBindObjectInMemoryGivenOid(OID oid) { return PSpaceToBindIn(oid)->AsyncBind(oid); }
ptr<IPersistable> TryBindObjectGivenOid(OID oid) { return PSpaceToBindIn(oid)->TryBindObject(oid); }

// These three go straight to the thread's space: without one they dereference null. So it is documented.
ptr<IPersistable> GetPSpaceRoot(ConstStringZ name) { return GetThreadPSpace()->GetRoot(name); }
bool AddPSpaceRoot(ConstStringZ name, ptr<IPersistable> root) { return GetThreadPSpace()->AddRoot(name, root); }
bool RemovePSpaceRoot(ConstStringZ name) { return GetThreadPSpace()->RemoveRoot(name); }

// ---- The object's own space -----------------------------------------------------------------------------------------

void MarkPersistentAsDirtyWithoutTrace(ptr<const IPersistable> po) {
    QX_ASSERT(po);
    if (PSpace* pspace = GetAssociatedPSpace(po)) pspace->MarkPersistableAsDirtyWithoutTrace(po);
}

void DeclareReachable(ptr<const IPersistable> parent, ptr<const IPersistable> child, bool trace) {
    QX_ASSERT(parent);
    QX_ASSERT(child);
    if (PSpace* pspace = GetAssociatedPSpace(parent)) pspace->DeclareReachable(parent, child, trace);
}

void OnGarbageCollectPersistable(ptr<IPersistable> po) {
    QX_ASSERT(po);
    if (PSpace* pspace = GetAssociatedPSpace(po)) pspace->OnGarbageCollectPersistable(po);
}

void AsyncPermanentlyDeleteSubTree(ptr<IPersistable> obj) {
    if (PSpace* pspace = GetAssociatedPSpace(obj)) pspace->AsyncPermanentlyDeleteSubTree(obj);
}

void AsyncPermanentlyDeleteObject(ptr<IPersistable> obj) {
    if (PSpace* pspace = GetAssociatedPSpace(obj)) pspace->AsyncPermanentlyDeleteObject(obj);
}

void SyncPermanentlyDeleteSubTree(ptr<IPersistable> obj) {
    if (PSpace* pspace = GetAssociatedPSpace(obj)) pspace->SyncPermanentlyDeleteSubTree(obj);
}

void SyncPermanentlyDeleteObject(ptr<IPersistable> obj) {
    if (PSpace* pspace = GetAssociatedPSpace(obj)) pspace->SyncPermanentlyDeleteObject(obj);
}

void* FailedPSpaceMark() {
    static constinit char mark = 0;
    return &mark;
}

// ---- Look-ups -------------------------------------------------------------------------------------------------------

PSpace* GetAssociatedPSpace(ptr<const IObject> po) {
    QX_ASSERT(po);
    CSpace* cs = GetAssociatedCSpace(po);
    return cs ? GetPSpaceOfCSpace(cs) : nullptr;
}

PSpace* GetPSpaceOfCSpace(CSpace* cs) {
    QX_ASSERT(cs);
    void* const slot = GetPtrSlot(cs, PTR_SLOT_PSpace);
    return slot == FailedPSpaceMark() ? nullptr : static_cast<PSpace*>(slot);
}

PersistStore* GetAssociatedPersistStore(ptr<const IObject> po) {
    PSpace* pspace = GetAssociatedPSpace(po);
    return pspace ? pspace->GetPersistStore() : nullptr;
}

ILogStructuredStore* GetAssociatedLss(ptr<const IObject> po) {
    PSpace* pspace = GetAssociatedPSpace(po);
    if (!pspace) return nullptr;
    PersistStore* ps = pspace->GetPersistStore();
    QX_ASSERT(ps);
    return ps->GetLss();
}

bool ObjectsBelongToDifferentPSpaces(ptr<const IObject> po1, ptr<const IObject> po2) {
    const PSpace* pspace1 = GetAssociatedPSpace(po1);
    const PSpace* pspace2 = GetAssociatedPSpace(po2);
    return pspace1 && pspace2 && pspace1 != pspace2;
}

bool ObjectsBelongToDifferentPersistStores(ptr<const IObject> po1, ptr<const IObject> po2) {
    const PersistStore* ps1 = GetAssociatedPersistStore(po1);
    const PersistStore* ps2 = GetAssociatedPersistStore(po2);
    return ps1 && ps2 && ps1 != ps2;
}

// ---- Checks of the thread's context ---------------------------------------------------------------------------------

void AssertSetTls() {
    CSpace* cs = GetThreadCSpace();
    QX_ASSERT(cs);
    PSpace* ps = GetThreadPSpace();
    QX_ASSERT(ps);
    QX_ASSERT(GetCSpace(ps) == cs);
}

void AssertSetTlsForPSpaceObject(ptr<const IPersistable> p) {
    CSpace* cs = GetThreadCSpace();
    QX_ASSERT(cs);
    PSpace* ps = GetThreadPSpace();
    QX_ASSERT(ps);
    QX_ASSERT(p);
    QX_ASSERT(GetAssociatedCSpace(p) == cs);
    QX_ASSERT(GetAssociatedPSpace(p) == ps);
}

bool HaveExclusiveLockedPSpace() {
    AssertSetTls();
    return HaveExclusiveLockedCSpace();
}

bool HaveSharedReadLockedPSpace() {
    AssertSetTls();
    return HaveSharedReadLockedCSpace();
}

bool HaveLockedPSpace() {
    AssertSetTls();
    return HaveLockedCSpace();
}

bool HaveExclusiveLockedPSpace(ptr<const IPersistable> p) {
    AssertSetTlsForPSpaceObject(p);
    return HaveExclusiveLockedCSpace();
}

bool HaveSharedReadLockedPSpace(ptr<const IPersistable> p) {
    AssertSetTlsForPSpaceObject(p);
    return HaveSharedReadLockedCSpace();
}

bool HaveLockedPSpace(ptr<const IPersistable> p) {
    AssertSetTlsForPSpaceObject(p);
    return HaveLockedCSpace();
}

// ---- The methods as functions ---------------------------------------------------------------------------------------

void Close(PersistStore* _self) { _self->Close(); }
bool CreatedNew(PersistStore const* _self) { return _self->CreatedNew(); }
ILogStructuredStore* GetLss(PersistStore* _self) { return _self->GetLss(); }
void StartObjectDeletion(PersistStore* _self) { _self->StartObjectDeletion(); }
void WriteAllDirtyObjectsToLss(PersistStore* _self, bool flushToDisk) { _self->WriteAllDirtyObjectsToLss(flushToDisk); }
PersistStoreTxn* OpenTxn(PersistStore* _self, PSpaceLockMode* L, ssize_t n) { return _self->OpenTxn(L, n); }
int32 GetDosPeriod(PersistStore const* _self) { return _self->GetDosPeriod(); }
void SetDosPeriod(PersistStore* _self, int32 time) { _self->SetDosPeriod(time); }
ssize_t GetNumPSpaces(PersistStore const* _self) { return _self->GetNumPSpaces(); }
ssize_t GetNumPersistableObjects(PersistStore const* _self) { return _self->GetNumPersistableObjects(); }
TypeOpsId GetTypeOpsId(PersistStore* _self, ReflectionByteCodeValue const& rbcv, TypeOps const& typeOps) {
    return _self->GetTypeOpsId(rbcv, typeOps);
}
BcTypeOps GetTypeOps(PersistStore* _self, TypeOpsId tid) { return _self->GetTypeOps(tid); }
void Disable(PersistStore* _self) { _self->Disable(); }
bool Enabled(PersistStore const* _self) { return _self->Enabled(); }
BackupResult Backup(PersistStore* _self, ConstStringZ path, BackupOptions const& options) {
    return _self->GetLss()->Backup(path, options);
}
BackupResult CopyCompacted(PersistStore* _self, ConstStringZ path, BackupOptions const& options) {
    return _self->GetLss()->CopyCompacted(path, options);
}

void Close(PersistStoreTxn* _self) { _self->Close(); }
PersistStore* GetPersistStore(PersistStoreTxn const* _self) { return _self->GetPersistStore(); }
PSpace* OpenPSpace(PersistStoreTxn* _self, ConstStringZ name, EOpenMode openMode, CSpace* cspace) {
    return _self->OpenPSpace(name, openMode, cspace);
}
void TransferPSpace(PersistStoreTxn* _self, PSpace* dst, PSpace* src) { _self->TransferPSpace(dst, src); }
bool DestroyPSpace(PersistStoreTxn* _self, ConstStringZ name) { return _self->DestroyPSpace(name); }

void Close(PSpace* _self) { _self->Close(); }
bool CreatedNew(PSpace const* _self) { return _self->CreatedNew(); }
CSpace* GetCSpace(PSpace const* _self) { return _self->GetCSpace(); }
PersistStore* GetPersistStore(PSpace const* _self) { return _self->GetPersistStore(); }
ConstStringZ GetName(PSpace const* _self) { return _self->GetName(); }
void WriteDirtyObjectsToLss(PSpace* _self, bool flushToDisk) { _self->WriteDirtyObjectsToLss(flushToDisk); }
void MarkPersistableAsDirtyWithoutTrace(PSpace* _self, ptr<const IPersistable> po) {
    _self->MarkPersistableAsDirtyWithoutTrace(po);
}
ptr<IPersistable> BindObject(PSpace* _self, OID oid) { return _self->BindObject(oid); }
ptr<IPersistable> BindObjectIfMemoryResident(PSpace* _self, OID oid) { return _self->BindObjectIfMemoryResident(oid); }
ptr<IPersistable> TryBindObject(PSpace* _self, OID oid) { return _self->TryBindObject(oid); }
void MakeMemoryResident(PSpace* _self, OID oid) { _self->MakeMemoryResident(oid); }
MAsyncBind AsyncBind2(PSpace* _self, OID oid) { return _self->AsyncBind2(oid); }
ptr<IPersistable> AsyncBind(PSpace* _self, OID oid) { return _self->AsyncBind(oid); }
ptr<IAsyncBindRequestHandler> GetAsyncBindRequestHandler(PSpace const* _self) {
    return _self->GetAsyncBindRequestHandler();
}
void SetAsyncBindRequestHandler(PSpace* _self, ptr<IAsyncBindRequestHandler> h) {
    _self->SetAsyncBindRequestHandler(h);
}
void DeclareObjectDoesNotExist(PSpace* _self, OID oid) { _self->DeclareObjectDoesNotExist(oid); }
void MakeObjectPersist(PSpace* _self, SeidLow affiliateOidLow, ptr<IPersistable> po) {
    _self->MakeObjectPersist(affiliateOidLow, po);
}
OID AllocateOid(PSpace* _self, OidHigh oidHigh, bool useIncrementalOidAllocations) {
    return _self->AllocateOid(oidHigh, useIncrementalOidAllocations);
}
OidHigh GetOidHighForOidAllocations(PSpace const* _self) { return _self->GetOidHighForOidAllocations(); }
void SetOidHighForOidAllocations(PSpace* _self, OidHigh oidHigh, bool useIncrementalOidAllocations) {
    _self->SetOidHighForOidAllocations(oidHigh, useIncrementalOidAllocations);
}
bool MakeObjectPersistWithGivenOID(PSpace* _self, ptr<IPersistable> po, OID oid, bool trace) {
    return _self->MakeObjectPersistWithGivenOID(po, oid, trace);
}
void DeclareReachable(PSpace* _self, ptr<const IPersistable> parent, ptr<const IPersistable> child, bool trace) {
    _self->DeclareReachable(parent, child, trace);
}
void MakeReachableObjectsPersist(PSpace* _self, ptr<IPersistable> po) { _self->MakeReachableObjectsPersist(po); }
ptr<IPersistable> GetRoot(PSpace* _self, ConstStringZ name) { return _self->GetRoot(name); }
bool AddRoot(PSpace* _self, ConstStringZ name, ptr<IPersistable> root) { return _self->AddRoot(name, root); }
bool RemoveRoot(PSpace* _self, ConstStringZ name) { return _self->RemoveRoot(name); }
void AsyncPermanentlyDeleteSubTree(PSpace* _self, ptr<IPersistable> obj) { _self->AsyncPermanentlyDeleteSubTree(obj); }
void AsyncPermanentlyDeleteObject(PSpace* _self, ptr<IPersistable> obj) { _self->AsyncPermanentlyDeleteObject(obj); }
void SyncPermanentlyDeleteSubTree(PSpace* _self, ptr<IPersistable> obj) { _self->SyncPermanentlyDeleteSubTree(obj); }
void SyncPermanentlyDeleteObject(PSpace* _self, ptr<IPersistable> obj) { _self->SyncPermanentlyDeleteObject(obj); }

} // namespace quna

#include "qxPersistStore/src/ReflectedFunctions.h"

#include "qxObject/Registry.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/PersistStoreTxn.h"
#include "qxPersistStore/src/ReflectRecords.h"
#include "qxPersistStore/src/ReflectedStoreClasses.h"
#include "qxUtils/Assert.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/qxPersistStore";

// The record stays for ever: the registry keeps its address.
template <const ReflectedGlobalFunction& RECORD>
void Enter(XTarget* target) {
    QX_ASSERT(RegisterReflectedGlobalFunction(&RECORD, target) == NSE_OK);
}

constexpr const ReflectedGlobalFunction& RECORD_OF_GetAssociatedLss =
    FUNCTION<&GetAssociatedLss, "quna::GetAssociatedLss", "po">;
constexpr const ReflectedGlobalFunction& RECORD_OF_GetAssociatedPersistStore =
    FUNCTION<&GetAssociatedPersistStore, "quna::GetAssociatedPersistStore", "po">;
constexpr const ReflectedGlobalFunction& RECORD_OF_ObjectsBelongToDifferentPSpaces =
    FUNCTION<&ObjectsBelongToDifferentPSpaces, "quna::ObjectsBelongToDifferentPSpaces", "po1", "po2">;
constexpr const ReflectedGlobalFunction& RECORD_OF_ObjectsBelongToDifferentPersistStores =
    FUNCTION<&ObjectsBelongToDifferentPersistStores, "quna::ObjectsBelongToDifferentPersistStores", "po1", "po2">;
constexpr const ReflectedGlobalFunction& RECORD_OF_GetOid = FUNCTION<&GetOid, "quna::GetOid", "po">;
constexpr const ReflectedGlobalFunction& RECORD_OF_AddPSpaceRoot =
    FUNCTION<&AddPSpaceRoot, "quna::AddPSpaceRoot", "name", "root">;
constexpr const ReflectedGlobalFunction& RECORD_OF_AsyncBindObjectInMemoryGivenOid =
    FUNCTION<&AsyncBindObjectInMemoryGivenOid, "quna::AsyncBindObjectInMemoryGivenOid", "oid">;
constexpr const ReflectedGlobalFunction& RECORD_OF_AsyncPermanentlyDeleteObject =
    FUNCTION<static_cast<void (*)(ptr<IPersistable>)>(&AsyncPermanentlyDeleteObject),
             "quna::AsyncPermanentlyDeleteObject", "obj">;
constexpr const ReflectedGlobalFunction& RECORD_OF_AsyncPermanentlyDeleteSubTree =
    FUNCTION<static_cast<void (*)(ptr<IPersistable>)>(&AsyncPermanentlyDeleteSubTree),
             "quna::AsyncPermanentlyDeleteSubTree", "obj">;
constexpr const ReflectedGlobalFunction& RECORD_OF_BindObjectGivenOid =
    FUNCTION<&BindObjectGivenOid, "quna::BindObjectGivenOid", "oid">;
constexpr const ReflectedGlobalFunction& RECORD_OF_BindObjectInMemoryGivenOid =
    FUNCTION<&BindObjectInMemoryGivenOid, "quna::BindObjectInMemoryGivenOid", "oid">;
constexpr const ReflectedGlobalFunction& RECORD_OF_DeclareReachable =
    FUNCTION<static_cast<void (*)(ptr<const IPersistable>, ptr<const IPersistable>, bool)>(&DeclareReachable),
             "quna::DeclareReachable", "parent", "child", "trace">;
constexpr const ReflectedGlobalFunction& RECORD_OF_GetAssociatedPSpace =
    FUNCTION<&GetAssociatedPSpace, "quna::GetAssociatedPSpace", "po">;
constexpr const ReflectedGlobalFunction& RECORD_OF_GetPSpaceOfCSpace =
    FUNCTION<&GetPSpaceOfCSpace, "quna::GetPSpaceOfCSpace", "cs">;
constexpr const ReflectedGlobalFunction& RECORD_OF_GetPSpaceRoot =
    FUNCTION<&GetPSpaceRoot, "quna::GetPSpaceRoot", "name">;
constexpr const ReflectedGlobalFunction& RECORD_OF_GetThreadPSpace =
    FUNCTION<&GetThreadPSpace, "quna::GetThreadPSpace">;
constexpr const ReflectedGlobalFunction& RECORD_OF_MarkPersistentAsDirtyWithoutTrace =
    FUNCTION<&MarkPersistentAsDirtyWithoutTrace, "quna::MarkPersistentAsDirtyWithoutTrace", "po">;
constexpr const ReflectedGlobalFunction& RECORD_OF_OnGarbageCollectPersistable =
    FUNCTION<&OnGarbageCollectPersistable, "quna::OnGarbageCollectPersistable", "po">;
constexpr const ReflectedGlobalFunction& RECORD_OF_OpenPersistStore =
    FUNCTION<&OpenPersistStore, "quna::OpenPersistStore", "lssPath", "openMode", "settings">;
constexpr const ReflectedGlobalFunction& RECORD_OF_RemovePSpaceRoot =
    FUNCTION<&RemovePSpaceRoot, "quna::RemovePSpaceRoot", "name">;
constexpr const ReflectedGlobalFunction& RECORD_OF_SetThreadPSpace =
    FUNCTION<&SetThreadPSpace, "quna::SetThreadPSpace", "p">;
constexpr const ReflectedGlobalFunction& RECORD_OF_SyncPermanentlyDeleteObject =
    FUNCTION<static_cast<void (*)(ptr<IPersistable>)>(&SyncPermanentlyDeleteObject),
             "quna::SyncPermanentlyDeleteObject", "obj">;
constexpr const ReflectedGlobalFunction& RECORD_OF_SyncPermanentlyDeleteSubTree =
    FUNCTION<static_cast<void (*)(ptr<IPersistable>)>(&SyncPermanentlyDeleteSubTree),
             "quna::SyncPermanentlyDeleteSubTree", "obj">;
constexpr const ReflectedGlobalFunction& RECORD_OF_SynchronousDeepCopyPersistableObject =
    FUNCTION<&SynchronousDeepCopyPersistableObject, "quna::SynchronousDeepCopyPersistableObject", "po">;
constexpr const ReflectedGlobalFunction& RECORD_OF_TryBindObjectGivenOid =
    FUNCTION<&TryBindObjectGivenOid, "quna::TryBindObjectGivenOid", "oid">;
constexpr const ReflectedGlobalFunction& RECORD_OF_ClosePSpaceTxn =
    FUNCTION<&ClosePSpaceTxn, "quna::ClosePSpaceTxn", "txn">;
constexpr const ReflectedGlobalFunction& RECORD_OF_OpenPSpace =
    FUNCTION<static_cast<PSpace* (*)(PersistStore*, ConstStringZ, EOpenMode, CSpace*)>(&OpenPSpace), "quna::OpenPSpace",
             "ps", "name", "openMode", "cspace">;
constexpr const ReflectedGlobalFunction& RECORD_OF_OpenPSpaceTxn =
    FUNCTION<&OpenPSpaceTxn, "quna::OpenPSpaceTxn", "mode">;

} // namespace

void _Register_GetAssociatedLss(XTarget* target) { Enter<RECORD_OF_GetAssociatedLss>(target); }
void _Register_GetAssociatedPersistStore(XTarget* target) { Enter<RECORD_OF_GetAssociatedPersistStore>(target); }
void _Register_ObjectsBelongToDifferentPSpaces(XTarget* target) {
    Enter<RECORD_OF_ObjectsBelongToDifferentPSpaces>(target);
}
void _Register_ObjectsBelongToDifferentPersistStores(XTarget* target) {
    Enter<RECORD_OF_ObjectsBelongToDifferentPersistStores>(target);
}
void _Register_GetOid(XTarget* target) { Enter<RECORD_OF_GetOid>(target); }
void _Register_AddPSpaceRoot(XTarget* target) { Enter<RECORD_OF_AddPSpaceRoot>(target); }
void _Register_AsyncBindObjectInMemoryGivenOid(XTarget* target) {
    Enter<RECORD_OF_AsyncBindObjectInMemoryGivenOid>(target);
}
void _Register_AsyncPermanentlyDeleteObject(XTarget* target) { Enter<RECORD_OF_AsyncPermanentlyDeleteObject>(target); }
void _Register_AsyncPermanentlyDeleteSubTree(XTarget* target) {
    Enter<RECORD_OF_AsyncPermanentlyDeleteSubTree>(target);
}
void _Register_BindObjectGivenOid(XTarget* target) { Enter<RECORD_OF_BindObjectGivenOid>(target); }
void _Register_BindObjectInMemoryGivenOid(XTarget* target) { Enter<RECORD_OF_BindObjectInMemoryGivenOid>(target); }
void _Register_DeclareReachable(XTarget* target) { Enter<RECORD_OF_DeclareReachable>(target); }
void _Register_GetAssociatedPSpace(XTarget* target) { Enter<RECORD_OF_GetAssociatedPSpace>(target); }
void _Register_GetPSpaceOfCSpace(XTarget* target) { Enter<RECORD_OF_GetPSpaceOfCSpace>(target); }
void _Register_GetPSpaceRoot(XTarget* target) { Enter<RECORD_OF_GetPSpaceRoot>(target); }
void _Register_GetThreadPSpace(XTarget* target) { Enter<RECORD_OF_GetThreadPSpace>(target); }
void _Register_MarkPersistentAsDirtyWithoutTrace(XTarget* target) {
    Enter<RECORD_OF_MarkPersistentAsDirtyWithoutTrace>(target);
}
void _Register_OnGarbageCollectPersistable(XTarget* target) { Enter<RECORD_OF_OnGarbageCollectPersistable>(target); }
void _Register_OpenPersistStore(XTarget* target) { Enter<RECORD_OF_OpenPersistStore>(target); }
void _Register_RemovePSpaceRoot(XTarget* target) { Enter<RECORD_OF_RemovePSpaceRoot>(target); }
void _Register_SetThreadPSpace(XTarget* target) { Enter<RECORD_OF_SetThreadPSpace>(target); }
void _Register_SyncPermanentlyDeleteObject(XTarget* target) { Enter<RECORD_OF_SyncPermanentlyDeleteObject>(target); }
void _Register_SyncPermanentlyDeleteSubTree(XTarget* target) { Enter<RECORD_OF_SyncPermanentlyDeleteSubTree>(target); }
void _Register_SynchronousDeepCopyPersistableObject(XTarget* target) {
    Enter<RECORD_OF_SynchronousDeepCopyPersistableObject>(target);
}
void _Register_TryBindObjectGivenOid(XTarget* target) { Enter<RECORD_OF_TryBindObjectGivenOid>(target); }
void _Register_ClosePSpaceTxn(XTarget* target) { Enter<RECORD_OF_ClosePSpaceTxn>(target); }
void _Register_OpenPSpace(XTarget* target) { Enter<RECORD_OF_OpenPSpace>(target); }
void _Register_OpenPSpaceTxn(XTarget* target) { Enter<RECORD_OF_OpenPSpaceTxn>(target); }

} // namespace quna

// Registration: the library's types become known to reflection, and reflection learns about references.
#include "qxObject/PrefHooks.h"
#include "qxObject/RegisterProject.h"
#include "qxObject/Registry.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxPersistStore/BPlusTree2.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/InternalNode.h"
#include "qxPersistStore/LeafNode.h"
#include "qxPersistStore/OidSpaceMap.h"
#include "qxPersistStore/pref.h"
#include "qxPersistStore/src/PersistOperationCallbacks.h"
#include "qxPersistStore/src/ReflectedFunctions.h"
#include "qxPersistStore/src/ReflectedStoreClasses.h"
#include "qxUtils/xvector.h"

namespace quna {

namespace {

constexpr dsTarget MakeTarget() {
    dsTarget target;
    target.m_targetName = "Quna/Core/qxPersistStore";
    return target;
}

constinit const dsTarget s_dsTarget = MakeTarget();
constinit XTarget* s_xTarget = nullptr; // null until first needed

using RegisterItemFn = void (*)(XTarget* target);

// In the order of registration.
constexpr RegisterItemFn REGISTER_ITEMS[] = {
    &_Register_BPlusTree,
    &_Register_InternalNode,
    &_Register_LeafNode,
    &_Register_ClassNameTranslation,
    &_Register_ClassNameTranslationTable,
    &_Register_EAsyncBindResult,
    &_Register_EOpenMode,
    &_Register_GetAssociatedLss,
    &_Register_GetAssociatedPersistStore,
    &_Register_IAsyncBindRequestHandler,
    &_Register_LssSettings,
    &_Register_MAsyncBind,
    &_Register_ObjectsBelongToDifferentPSpaces,
    &_Register_ObjectsBelongToDifferentPersistStores,
    &_Register_PSpaceLockMode,
    &_Register_PersistStoreSettings,
    &_Register_SynchronousDeepCopyPersistableObject,
    &_Register_IPrefVisitor,
    &_Register_GetOid,
    &_Register_IPersistable,
    &_Register_PersistObjState,
    &_Register_OID,
    &_Register_OidHigh,
    &_Register_OidLow,
    &_Register_SeidHigh,
    &_Register_SeidLow,
    &_Register_OidSpaceMap,
    &_Register_Goid,
    &_Register_OidSpaceGuid,
    &_Register_PSpace,
    &_Register_PersistOperationCallbacks0,
    &_Register_PersistStore,
    &_Register_AddPSpaceRoot,
    &_Register_AsyncBindObjectInMemoryGivenOid,
    &_Register_AsyncPermanentlyDeleteObject,
    &_Register_AsyncPermanentlyDeleteSubTree,
    &_Register_BindObjectGivenOid,
    &_Register_BindObjectInMemoryGivenOid,
    &_Register_DeclareReachable,
    &_Register_GetAssociatedPSpace,
    &_Register_GetPSpaceOfCSpace,
    &_Register_GetPSpaceRoot,
    &_Register_GetThreadPSpace,
    &_Register_MarkPersistentAsDirtyWithoutTrace,
    &_Register_OnGarbageCollectPersistable,
    &_Register_OpenPersistStore,
    &_Register_RemovePSpaceRoot,
    &_Register_SetThreadPSpace,
    &_Register_SyncPermanentlyDeleteObject,
    &_Register_SyncPermanentlyDeleteSubTree,
    &_Register_TryBindObjectGivenOid,
    &_Register_PersistStoreTxn,
    &_Register_ClosePSpaceTxn,
    &_Register_OpenPSpace,
    &_Register_OpenPSpaceTxn,
    &_Register_BcTypeOps,
    &_Register_TypeOpsId,
};

// Connects references to reflection, which knows them by these hooks only.
void _Register_qxPersistStore0() {
    g_PrintPref = &PrintPref;
    g_SerialisePref = &SerialisePref;
    g_DeserialisePref = &DeserialisePref;
    g_PrefTypeOps = _GetTypeOps(static_cast<const prefbase*>(nullptr));
    g_PrefVectorTypeOps = &GetTypeOps<xvector<prefbase>>();
}

void _Register_qxPersistStore1() { Quna_Core_qxPersistStore_GetXTarget(); }

} // namespace

namespace {

void RegisterItems() {
    for (const RegisterItemFn registerItem : REGISTER_ITEMS) registerItem(Quna_Core_qxPersistStore_GetXTarget());
    _Register_qxPersistStore0();
    _Register_qxPersistStore1();
}

} // namespace

XTarget* Quna_Core_qxPersistStore_GetXTarget() {
    if (!s_xTarget) s_xTarget = RegisterTarget(s_dsTarget);
    return s_xTarget;
}

} // namespace quna

extern "C" void Register_Project_qxPersistStore() {
    static constinit bool s_called = false;
    if (s_called) return;
    s_called = true;
    Register_Project_qxObject();
    quna::RegisterItems();
}

// What is registered stays registered; the two flags are separate, so that a second registration is not permitted.
extern "C" void Unregister_Project_qxPersistStore() {
    static constinit bool s_called = false;
    if (s_called) return;
    s_called = true;
    Unregister_Project_qxObject();
}

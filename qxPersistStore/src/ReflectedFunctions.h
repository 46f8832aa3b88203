// Entering the records of the store's free functions, one function an item: see qxPersistStore.cpp for their order.
#pragma once

namespace quna {

struct XTarget;

void _Register_GetAssociatedLss(XTarget* target);
void _Register_GetAssociatedPersistStore(XTarget* target);
void _Register_ObjectsBelongToDifferentPSpaces(XTarget* target);
void _Register_ObjectsBelongToDifferentPersistStores(XTarget* target);
void _Register_GetOid(XTarget* target);
void _Register_AddPSpaceRoot(XTarget* target);
void _Register_AsyncBindObjectInMemoryGivenOid(XTarget* target);
void _Register_AsyncPermanentlyDeleteObject(XTarget* target);
void _Register_AsyncPermanentlyDeleteSubTree(XTarget* target);
void _Register_BindObjectGivenOid(XTarget* target);
void _Register_BindObjectInMemoryGivenOid(XTarget* target);
void _Register_DeclareReachable(XTarget* target);
void _Register_GetAssociatedPSpace(XTarget* target);
void _Register_GetPSpaceOfCSpace(XTarget* target);
void _Register_GetPSpaceRoot(XTarget* target);
void _Register_GetThreadPSpace(XTarget* target);
void _Register_MarkPersistentAsDirtyWithoutTrace(XTarget* target);
void _Register_OnGarbageCollectPersistable(XTarget* target);
void _Register_OpenPersistStore(XTarget* target);
void _Register_RemovePSpaceRoot(XTarget* target);
void _Register_SetThreadPSpace(XTarget* target);
void _Register_SyncPermanentlyDeleteObject(XTarget* target);
void _Register_SyncPermanentlyDeleteSubTree(XTarget* target);
void _Register_SynchronousDeepCopyPersistableObject(XTarget* target);
void _Register_TryBindObjectGivenOid(XTarget* target);
void _Register_ClosePSpaceTxn(XTarget* target);
void _Register_OpenPSpace(XTarget* target);
void _Register_OpenPSpaceTxn(XTarget* target);

} // namespace quna

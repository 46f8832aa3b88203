// Entering the records of the store's own items, one function an item: see qxPersistStore.cpp for their order.
#pragma once

namespace quna {

struct XTarget;

void _Register_ClassNameTranslation(XTarget* target);
void _Register_ClassNameTranslationTable(XTarget* target);
void _Register_EAsyncBindResult(XTarget* target);
void _Register_EOpenMode(XTarget* target);
void _Register_IAsyncBindRequestHandler(XTarget* target);
void _Register_LssSettings(XTarget* target);
void _Register_MAsyncBind(XTarget* target);
void _Register_PSpaceLockMode(XTarget* target);
void _Register_PersistStoreSettings(XTarget* target);
void _Register_IPrefVisitor(XTarget* target);
void _Register_IPersistable(XTarget* target);
void _Register_PersistObjState(XTarget* target);
void _Register_OID(XTarget* target);
void _Register_OidHigh(XTarget* target);
void _Register_OidLow(XTarget* target);
void _Register_SeidHigh(XTarget* target);
void _Register_SeidLow(XTarget* target);
void _Register_OidSpaceGuid(XTarget* target);
void _Register_PSpace(XTarget* target);
void _Register_PersistStore(XTarget* target);
void _Register_PersistStoreTxn(XTarget* target);
void _Register_BcTypeOps(XTarget* target);
void _Register_TypeOpsId(XTarget* target);

} // namespace quna

// Transactions on a domain: the exclusive lock and the operation hooks that frame it.
#include "qxObject/CSpace.h"
#include "qxObject/IOperationCallBacks.h"
#include "qxUtils/Assert.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/CSpace";

} // namespace

void BeginTransaction(CSpace* cs) {
    QX_ASSERT(cs);
    Lock(cs, Transaction);
    IOperationCallBacks* const hooks = GetOperationCallBacks();
    if (!hooks) return;
    try {
        hooks->OnBeginTransaction(cs);
    } catch (...) {
        Unlock(cs);
        throw;
    }
}

void EndTransaction(CSpace* cs) {
    QX_ASSERT(cs);
    QX_ASSERT(HaveExclusiveLock(cs));
    if (IOperationCallBacks* const hooks = GetOperationCallBacks()) {
        try {
            hooks->OnEndTransaction(cs);
        } catch (...) {
            Unlock(cs);
            throw;
        }
    }
    Unlock(cs);
}

} // namespace quna

#include "qxPersistStore/src/PersistOperationCallbacks.h"

#include "qxPersistStore/PSpaceLockMode.h"
#include "qxPersistStore/ReachablePrefVisitors.h"
#include "qxPersistStore/pref.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/PersistStoreTxn.h"
#include "qxUtils/Assert.h"
#include "qxUtils/VectorOfByte.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/PersistOperationCallbacks";

// The object that changes, if it is persistent, and its space. For a transient one nothing is to be done.
struct PersistentParent {
    explicit operator bool() const { return pspace != nullptr; }
    void MarkAsDirty() const { pspace->MarkPersistableAsDirtyWithoutTrace(po); }

    ptr<IPersistable> po;
    PSpace* pspace = nullptr;
};

PersistentParent Resolve(ptr<IObject> obj) {
    const ptr<IPersistable> po = qicast<IPersistable>(obj);
    if (!po || !GetOid(po)) return {};
    PSpace* pspace = GetAssociatedPSpace(po);
    QX_ASSERT(pspace);
    return {po, pspace};
}

// Makes the target of a reference, which must be a new object, a child of the parent.
void Adopt(const PersistentParent& parent, const prefbase* src) {
    QX_ASSERT_TEXT(src, "params.src");
    const ptr<IPersistable> child = src->Get();
    QX_ASSERT(child);
    QX_ASSERT(!GetOid(child));
    parent.pspace->DeclareReachable(parent.po, child, true);
    QX_ASSERT(GetOid(child));
    child->OnCreate(true);
}

// The elements of a vector of references, whatever their type.
const prefbase* PrefsOfVector(const void* addr) {
    return reinterpret_cast<const prefbase*>(static_cast<const VectorOfByte*>(addr)->data());
}

// Both ends of a transaction require this. Gives the space of the domain, which may be none.
PSpace* SpaceOfTransaction(CSpace* cspace) {
    QX_ASSERT(cspace);
    QX_ASSERT(HaveExclusiveLock(cspace));
    QX_ASSERT(GetThreadPtr<CSpace>() == cspace);
    PSpace* pspace = GetPSpaceOfCSpace(cspace);
    if (!pspace) return nullptr;
    QX_ASSERT(pspace == GetThreadPtr<PSpace>());
    return pspace;
}

} // namespace

// ---- Transactions ---------------------------------------------------------------------------------------------------

void PersistOperationCallbacks::OnBeginTransaction(CSpace* cspace) {
    PSpace* pspace = SpaceOfTransaction(cspace);
    if (!pspace) return;
    QX_ASSERT(!pspace->txn_);
    PSpaceLockMode member{pspace, Transaction};
    pspace->txn_ = pspace->GetPersistStore()->OpenTxn(&member, 1);
}

void PersistOperationCallbacks::OnEndTransaction(CSpace* cspace) {
    PSpace* pspace = SpaceOfTransaction(cspace);
    if (!pspace) return;
    QX_ASSERT(pspace->txn_);
    pspace->txn_->Close();
    pspace->txn_ = nullptr;
}

// ---- Values ---------------------------------------------------------------------------------------------------------

void PersistOperationCallbacks::OnBeforeAssignValue(const AssignValue_params& params) {
    QX_ASSERT(params.obj);
    QX_ASSERT(params.addr);
    const PersistentParent parent = Resolve(params.obj);
    if (!parent) return;
    if (params.visitPrefsFn) {
        PermanentlyDeleteReachablePrefVisitor visitor(GetThreadPSpace());
        params.visitPrefsFn(visitor, params.addr);
    }
    parent.MarkAsDirty();
}

void PersistOperationCallbacks::OnAfterAssignValueWithoutPrefs(const AssignValue_params&) {}

void PersistOperationCallbacks::OnAfterAssignValueWithPrefs(const AssignValue_params& params) {
    QX_ASSERT(params.obj);
    QX_ASSERT(params.addr);
    QX_ASSERT(params.visitPrefsFn);
    const PersistentParent parent = Resolve(params.obj);
    if (!parent) return;
    AllocateOidsReachablePrefVisitor visitor(parent.pspace, GetOid(parent.po));
    params.visitPrefsFn(visitor, params.addr); // the object is dirty since OnBeforeAssignValue
}

void PersistOperationCallbacks::OnOffsetValue(const OffsetValue_params& params) { MarkAsPersistent(params); }

bool PersistOperationCallbacks::MarkAsPersistent(const FieldParams& params) {
    QX_ASSERT(params.obj);
    const PersistentParent parent = Resolve(params.obj);
    if (!parent) return false;
    parent.MarkAsDirty();
    return true;
}

// ---- References -----------------------------------------------------------------------------------------------------

void PersistOperationCallbacks::OnAssignPref(const AssignPref_params& params) {
    auto* field = static_cast<prefbase*>(params.addr);
    QX_ASSERT(field);
    if (const PersistentParent parent = Resolve(params.obj)) {
        if (*field) parent.pspace->AsyncPermanentlyDeleteSubTree(field->GetNotNull());
        Adopt(parent, params.src);
        parent.MarkAsDirty();
    }
    QX_ASSERT(params.src);
    *field = *params.src;
}

// ---- Vectors --------------------------------------------------------------------------------------------------------

void PersistOperationCallbacks::OnCreateIntoVector(const CreateIntoVector_params& params) {
    QX_ASSERT(params.n > 0);
    QX_ASSERT(params.src);
    QX_ASSERT(params.obj);
    const PersistentParent parent = Resolve(params.obj);
    if (!parent) return;
    if (params.visitPrefsInArrayFn) {
        AllocateOidsReachablePrefVisitor visitor(parent.pspace, GetOid(parent.po));
        params.visitPrefsInArrayFn(visitor, params.src, params.elementSize, params.n);
    }
    parent.MarkAsDirty();
}

void PersistOperationCallbacks::OnDeleteFromVector(const DeleteFromVector_params& params) {
    QX_ASSERT(params.n > 0);
    QX_ASSERT(params.i >= 0);
    QX_ASSERT(params.obj);
    const PersistentParent parent = Resolve(params.obj);
    if (!parent) return;
    if (params.visitPrefsInArrayFn) {
        const auto* v = static_cast<const VectorOfByte*>(params.addr); // the only field of a vector of any type
        QX_ASSERT(params.elementSize > 0);
        QX_ASSERT(v->size() % params.elementSize == 0);
        QX_ASSERT((params.i + params.n) * params.elementSize <= v->size());
        PermanentlyDeleteReachablePrefVisitor visitor(GetThreadPSpace());
        params.visitPrefsInArrayFn(visitor, v->data() + params.i * params.elementSize, params.elementSize, params.n);
    }
    parent.MarkAsDirty();
}

void PersistOperationCallbacks::OnCreateIntoMVector(const CreateIntoMVector_params& params) {
    QX_ASSERT(params.n > 0);
    QX_ASSERT(params.obj);
    const PersistentParent parent = Resolve(params.obj);
    if (!parent) return;
    for (ssize_t k = 0; k < params.n; ++k) Adopt(parent, params.src ? params.src + k : nullptr);
    parent.MarkAsDirty();
}

void PersistOperationCallbacks::OnDeleteFromMVector(const DeleteFromMVector_params& params) {
    QX_ASSERT(params.n > 0);
    const PersistentParent parent = Resolve(params.obj);
    if (!parent) return;
    const prefbase* const prefs = PrefsOfVector(params.addr);
    for (ssize_t k = params.i; k < params.i + params.n; ++k)
        parent.pspace->AsyncPermanentlyDeleteSubTree(prefs[k].GetNotNull());
    parent.MarkAsDirty();
}

// ---- Sets -----------------------------------------------------------------------------------------------------------

void PersistOperationCallbacks::OnSetInsert(const AssignValue_params&) {}
void PersistOperationCallbacks::OnSetDelete(const AssignValue_params&) {}

void PersistOperationCallbacks::OnInsertIntoMSet(const InsertIntoMSet_params& params) {
    QX_ASSERT(params.n > 0);
    const PersistentParent parent = Resolve(params.obj);
    if (!parent) return;
    for (ssize_t k = 0; k < params.n; ++k) Adopt(parent, params.src ? params.src + k : nullptr);
    parent.MarkAsDirty();
}

void PersistOperationCallbacks::OnDeleteFromMSet(const DeleteFromMSet_params& params) {
    QX_ASSERT(params.n > 0);
    const PersistentParent parent = Resolve(params.obj);
    if (!parent) return;
    for (ssize_t k = 0; k < params.n; ++k) parent.pspace->AsyncPermanentlyDeleteSubTree(params.src[k].GetNotNull());
    parent.MarkAsDirty();
}

// ---- Registration ---------------------------------------------------------------------------------------------------

void _Register_PersistOperationCallbacks0(XTarget*) {
    static constinit PersistOperationCallbacks s;
    QX_ASSERT(SetOperationCallBacks(&s) == nullptr);
    SetQuietObjects(&s, PERSISTABLE_DIRTY); // marking a dirty object again does nothing
}

} // namespace quna

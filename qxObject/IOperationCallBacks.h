// The hooks that report every elementary change of a reflected object: one interface for the whole process, which the
// layer that cares about changes implements and installs.
#pragma once

#include "qxObject/CSpace.h"
#include "qxObject/IObject.h"
#include "qxObject/Interface.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <atomic>

namespace quna {

class IPrefVisitor;
class prefbase;

// The number of a field among the model fields of its class; -1 when the caller does not know it.
using PseudoFieldId = ssize_t;

// Report the references in a value, or in an array of values.
using VisitPrefsFn = void (*)(IPrefVisitor& visitor, const void* value);
using VisitPrefsInArrayFn = void (*)(IPrefVisitor& visitor, const void* array, ssize_t elementSize, ssize_t count);

// Which field of which object.
struct FieldParams {
    ptr<IObject> obj;
    PseudoFieldId fid = -1;
    void* addr = nullptr; // of the field
};

struct AssignValue_params : FieldParams {
    VisitPrefsFn visitPrefsFn = nullptr; // null for values without references
};

struct AssignPref_params : FieldParams {
    const prefbase* src = nullptr;
};

struct OffsetValue_params : FieldParams {
    int64 offset = 0;
};

// Elements i to i + n - 1 of a vector of values. `elementSize` is in bytes.
struct CreateIntoVector_params : FieldParams {
    ssize_t i = 0;
    const void* src = nullptr;
    ssize_t n = 0;
    VisitPrefsInArrayFn visitPrefsInArrayFn = nullptr; // null for values without references
    ssize_t elementSize = 0;
};

struct DeleteFromVector_params : FieldParams {
    ssize_t i = 0;
    ssize_t n = 0;
    VisitPrefsInArrayFn visitPrefsInArrayFn = nullptr;
    ssize_t elementSize = 0;
};

// Vectors and sets of references that own their targets.
struct CreateIntoMVector_params : FieldParams {
    ssize_t i = 0;
    const prefbase* src = nullptr;
    ssize_t n = 0;
};

struct DeleteFromMVector_params : FieldParams {
    ssize_t i = 0;
    ssize_t n = 0;
};

struct InsertIntoMSet_params : FieldParams {
    const prefbase* src = nullptr;
    ssize_t n = 0;
};

struct DeleteFromMSet_params : FieldParams {
    const prefbase* src = nullptr;
    ssize_t n = 0;
};

// Threads: each operation runs on the thread that changes the object, inside the change, under the lock of the object's
//   domain. An exception passes through the change to its caller.
class QX_API IOperationCallBacks {
public:
    virtual void OnBeginTransaction(CSpace* cspace) = 0; // right after the lock is taken
    virtual void OnEndTransaction(CSpace* cspace) = 0;   // right before the lock is released
    virtual void OnBeforeAssignValue(const AssignValue_params& params) = 0;
    virtual void OnAfterAssignValueWithoutPrefs(const AssignValue_params& params) = 0;
    virtual void OnAfterAssignValueWithPrefs(const AssignValue_params& params) = 0;
    virtual void OnAssignPref(const AssignPref_params& params) = 0; // performs the assignment itself
    virtual void OnOffsetValue(const OffsetValue_params& params) = 0;
    virtual void OnCreateIntoVector(const CreateIntoVector_params& params) = 0;
    virtual void OnDeleteFromVector(const DeleteFromVector_params& params) = 0;
    virtual void OnCreateIntoMVector(const CreateIntoMVector_params& params) = 0;
    virtual void OnDeleteFromMVector(const DeleteFromMVector_params& params) = 0;
    virtual void OnSetInsert(const AssignValue_params& params) = 0;
    virtual void OnSetDelete(const AssignValue_params& params) = 0;
    virtual void OnInsertIntoMSet(const InsertIntoMSet_params& params) = 0;
    virtual void OnDeleteFromMSet(const DeleteFromMSet_params& params) = 0;

protected:
    IOperationCallBacks() = default;
    IOperationCallBacks(const IOperationCallBacks&) = default;
    IOperationCallBacks& operator=(const IOperationCallBacks&) = default;
    ~IOperationCallBacks() = default;
};

// Installs the hooks, which must outlive their use; null takes them out. Gives those that were installed before, so that
// an installer sees that it is the first.
QX_API IOperationCallBacks* SetOperationCallBacks(IOperationCallBacks* callBacks);

// Tells that these hooks do nothing for a change without references of an object that has one of the flags (of
// ObjSysState), made by a thread that holds the exclusive lock of the object's domain. Fields then leave the report out
// while these hooks are the installed ones. One such pair is known: the one given last.
QX_API void SetQuietObjects(IOperationCallBacks* callBacks, uint32 flags);

namespace detail {

// Changed by the two functions above alone.
QX_API extern std::atomic<IOperationCallBacks*> g_operationCallBacks;
QX_API extern std::atomic<IOperationCallBacks*> g_quietCallBacks;
QX_API extern std::atomic<uint32> g_quietFlags;

} // namespace detail

// The installed hooks, or null.
inline IOperationCallBacks* GetOperationCallBacks() noexcept {
    return detail::g_operationCallBacks.load(std::memory_order_acquire);
}

// The hooks that are to be told of a change without references of the object with this system record; null when there
// are none, or nothing to tell.
inline IOperationCallBacks* GetCallBacksForPlainChange(const ObjSysState& state) {
    IOperationCallBacks* const callBacks = GetOperationCallBacks();
    if (!callBacks || callBacks != detail::g_quietCallBacks.load(std::memory_order_acquire)) return callBacks;
    const bool quiet = (state.objflags_ & detail::g_quietFlags.load(std::memory_order_relaxed)) != 0;
    return quiet && GetRecordedLockStatus(state.m_cspace) > 0 ? nullptr : callBacks;
}

} // namespace quna

// What a change of a persistent object means for its store.
#pragma once

#include "qxObject/IOperationCallBacks.h"
#include "qxUtils/Export.h"

namespace quna {

struct XTarget;

// Ties plain changes of fields to persistence: the changed object is marked dirty, a new child of a persistent parent
// becomes persistent, and a child that is overwritten or removed is queued for permanent deletion. A transient object
// costs each operation one look at its identity. Begin and end of a transaction on a domain open and close a
// transaction on its space.
//
// Has no state. One instance is installed for the life of the process.
//
// Threads: under the exclusive lock of the object's domain, with the object's space as the thread's current one. Takes
//   no lock.
class QX_API PersistOperationCallbacks : public IOperationCallBacks {
public:
    void OnBeginTransaction(CSpace* cspace) override;
    void OnEndTransaction(CSpace* cspace) override;
    void OnBeforeAssignValue(const AssignValue_params& params) override;
    void OnAfterAssignValueWithoutPrefs(const AssignValue_params& params) override;
    void OnAfterAssignValueWithPrefs(const AssignValue_params& params) override;
    void OnAssignPref(const AssignPref_params& params) override;
    void OnOffsetValue(const OffsetValue_params& params) override;
    void OnCreateIntoVector(const CreateIntoVector_params& params) override;
    void OnDeleteFromVector(const DeleteFromVector_params& params) override;
    void OnCreateIntoMVector(const CreateIntoMVector_params& params) override;
    void OnDeleteFromMVector(const DeleteFromMVector_params& params) override;
    void OnSetInsert(const AssignValue_params& params) override;
    void OnSetDelete(const AssignValue_params& params) override;
    void OnInsertIntoMSet(const InsertIntoMSet_params& params) override;
    void OnDeleteFromMSet(const DeleteFromMSet_params& params) override;

    // Marks the object dirty if it is persistent; tells whether it is.
    bool MarkAsPersistent(const FieldParams& params);
};

// Installs the hooks. Nobody may have installed any before: the assertion "SetOperationCallBacks(&s) == nullptr".
QX_API void _Register_PersistOperationCallbacks0(XTarget* target = nullptr);

} // namespace quna

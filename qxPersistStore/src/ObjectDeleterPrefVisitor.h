// The walk of a permanent deletion, one object's references at a time.
#pragma once

#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/IPrefVisitor.h"
#include "qxPersistStore/OID.h"
#include "qxUtils/Export.h"
#include "qxUtils/PagedStack.h"
#include "qxUtils/xdeque.h"

namespace quna {

class DeletionQueue;

// Adds the target of each reference to a deletion: one that calls itself a subtree goes on the queue, which is what
// splits a big deletion into batches; any other goes into the batch, to be visited in its turn. What does not exist any
// more, was deleted otherwise or has been reached before is skipped.
//
// Threads: under the exclusive lock of the space, which is the thread's current one.
class QX_API ObjectDeleterPrefVisitor : public IPrefVisitor {
public:
    using OIDS = xdeque<OID, 512>;
    using OBJSET = PagedStack<ptr<IPersistable>, 1024>;

    ObjectDeleterPrefVisitor(DeletionQueue& dq, OIDS& oidsToDelete, OBJSET& stack)
        : m_dq(dq), m_oidsToDelete(oidsToDelete), m_stack(stack) {}

    void VisitPref(const prefbase& pref) override;
    // A reference to a parent does not extend the deletion.
    void VisitParentPref(const prefbase& pref) override;

private:
    DeletionQueue& m_dq;
    OIDS& m_oidsToDelete;
    OBJSET& m_stack;
};

} // namespace quna

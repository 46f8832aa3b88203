#include "qxPersistStore/src/ObjectDeleterPrefVisitor.h"

#include "qxPersistStore/pref.h"
#include "qxPersistStore/src/DeletionBatch.h"
#include "qxUtils/Assert.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/DeletionQueue";

} // namespace

void ObjectDeleterPrefVisitor::VisitPref(const prefbase& pref) {
    const DeletionBatch* const batch = m_dq.m_batch;
    if (batch && batch->DeletesUnloaded(pref)) return;
    const ptr<IPersistable> po = pref.TryGet();
    if (!po) return; // null or dangling
    ObjSysState& state = po->GetSysState();
    if (state.GetFlag(PERSISTABLE_DELETE_VISITED) || state.GetFlag(PERSISTABLE_DELETED)) return;
    state.SetFlag(PERSISTABLE_DELETE_VISITED);
    const OID oid = pref.GetOid();
    QX_ASSERT(oid);
    // Two paths may lead to a subtree, the second after its root was queued, let go by the collector and loaded anew,
    // or after a restart. A batch leaves it to the queue: nobody could answer for an exception there, and the next
    // process would meet the same.
    if (batch && m_dq.IsQueued(oid)) return;
    m_dq.AssertNotQueuedToDelete(oid);
    if (po->RepresentsSubTree()) {
        // One that was never written must not be in the durable queue before its element exists: as a request it gets
        // there in the transaction that writes it.
        const bool unwritten = batch && batch->WasNeverWritten(po, oid);
        m_dq.Push(unwritten ? DeletionQueue::DELTA_QUEUE : DeletionQueue::QUEUE, oid);
        m_dq.MarkAsDirty();
        return;
    }
    m_stack.push(po);
    m_oidsToDelete.push_back(oid);
}

void ObjectDeleterPrefVisitor::VisitParentPref(const prefbase&) {}

} // namespace quna

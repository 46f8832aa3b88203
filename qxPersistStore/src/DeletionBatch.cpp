#include "qxPersistStore/src/DeletionBatch.h"

#include "qxPersistStore/pref.h"
#include "qxPersistStore/src/Mutants.h"
#include "qxPersistStore/src/ObjectDeleterPrefVisitor.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxUtils/Assert.h"
#include "qxUtils/AutoCloser.h"

#include <algorithm>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/DeletionQueue";

// No further subtree is begun when a batch has this many objects.
constexpr ssize_t BATCH_THRESHOLD = 10;
// Each batch writes the whole queue. Beyond this length writing it costs more than ten deletions, and the sum over all
// batches would grow with the square of the length; the batches grow with the queue instead. An OID in the image costs
// about a two hundredth of a deletion.
constexpr ssize_t LONG_QUEUE = 16384;
constexpr ssize_t IMAGE_OIDS_PER_DELETION = 128;

} // namespace

DeletionBatch::DeletionBatch(DeletionQueue& dq, PSpace& pspace)
    : m_dq(dq), m_pspace(pspace), m_wasDirty(dq.m_dirty.load(std::memory_order_relaxed)) {
    m_dq.m_batch = this;
}

DeletionBatch::~DeletionBatch() {
    m_dq.m_batch = nullptr;
    if (!m_committed) m_dq.m_dirty.store(m_wasDirty, std::memory_order_relaxed);
}

void DeletionBatch::TakeSingleObjects() {
    if (m_dq.m_queue2.empty()) return;
    m_dq.MarkAsDirty();
    m_dq.TakeAll(DeletionQueue::QUEUE2, m_oidsToDelete);
    const bool walks = !m_dq.m_queue.empty() && m_oidsToDelete.size() < Threshold();
    for (const OID oid : m_oidsToDelete) {
        m_pspace.rot_.EvictPlaceholder(oid); // a load under way must not bring back what goes now
        if (const ptr<IPersistable> po = m_pspace.rot_.FindResidentObject(oid)) {
            po->GetSysState().SetFlag(PERSISTABLE_DELETE_VISITED); // so that no walk reaches it
            m_resident.push_back(po);
        } else if (walks) {
            m_unloaded.Add(oid, 0);
        }
    }
}

ssize_t DeletionBatch::Threshold() const {
    const ssize_t size = m_dq.m_queue.size();
    return size <= LONG_QUEUE ? BATCH_THRESHOLD : std::max(BATCH_THRESHOLD, size / IMAGE_OIDS_PER_DELETION);
}

void DeletionBatch::TakeSubTrees() {
    const ssize_t threshold = Threshold();
    OBJSET stack;
    while (m_oidsToDelete.size() < threshold && !m_dq.m_queue.empty()) {
        const OID oid = m_dq.PopBack(DeletionQueue::QUEUE);
        m_dq.MarkAsDirty();
        ptr<IPersistable> po = m_pspace.rot_.FindOrLoadResidentObject(oid);
        if (po && po->GetSysState().GetFlag(PERSISTABLE_DELETED)) {
            // Alone, without what lies below it. It is in the dirty set too, but may not leave the durable queue before its
            // element is gone: this process may die before that set is written.
            m_oidsToDelete.push_back(oid);
            continue;
        }
        if (!po) po = m_pspace.BindObject(oid); // which says that it dangles
        QX_ASSERT(po);
        TakeSubTree(oid, po, stack);
    }
}

// The stack is empty before and after; it is passed along for its memory.
void DeletionBatch::TakeSubTree(OID oid, ptr<IPersistable> root, OBJSET& stack) {
    m_oidsToDelete.push_back(oid);
    root->GetSysState().SetFlag(PERSISTABLE_DELETE_VISITED);
    stack.push(root);
    ObjectDeleterPrefVisitor visitor(m_dq, m_oidsToDelete, stack);
    while (!stack.empty()) {
        const ptr<IPersistable> visited = stack.pop();
        m_resident.push_back(visited);
        visited->VisitPrefs(visitor);
    }
}

void DeletionBatch::Commit() {
    if (IsStoreMutant(EStoreMutant::QUEUE_BEFORE_DELETIONS)) {
        const AutoCloser<ILssTransaction> before(m_pspace.m_ps.m_lss->OpenTransaction());
        m_pspace.WriteDQToLssIfDirty(*before);
    }
    AutoCloser<ILssTransaction> txn(m_pspace.m_ps.m_lss->OpenTransaction());
    txn->RequestDropWhenUnwinding();
    for (const OID oid : m_oidsToDelete) DeleteElement(*txn, oid);
    if (!IsStoreMutant(EStoreMutant::QUEUE_AFTER_DELETIONS)) m_pspace.WriteDQToLssIfDirty(*txn);
    txn.Close();
    m_committed = true;
    for (const ptr<IPersistable> po : m_resident) po->GetSysState().SetFlag(PERSISTABLE_ERASED);
}

void DeletionBatch::DeleteElement(ILssTransaction& txn, OID oid) const {
    if (txn.DeleteSerialElement(oid)) [[likely]]
        return;
    const ptr<IPersistable> po = m_pspace.rot_.FindResidentObject(oid);
    const bool isDeleted = po && po->GetSysState().GetFlag(PERSISTABLE_DELETED); // otherwise, at once
    QX_ASSERT_TEXT(isDeleted || (po && WasNeverWritten(po, oid)), "txn->DeleteSerialElement(*i)");
}

bool DeletionBatch::DeletesUnloaded(const prefbase& pref) const {
    return !m_unloaded.empty() && m_unloaded.Contains(pref.GetOid());
}

bool DeletionBatch::WasNeverWritten(ptr<IPersistable> po, OID oid) const {
    const ObjSysState& state = po->GetSysState();
    if (!state.GetFlag(PERSISTABLE_DIRTY) || state.GetFlag(PERSISTABLE_DELETED) || state.GetFlag(PERSISTABLE_ERASED))
        return false;
    const AutoCloser<IContiguousSerialElement> se(m_pspace.m_ps.m_lss->OpenSerialElement(oid));
    return !se;
}

} // namespace quna

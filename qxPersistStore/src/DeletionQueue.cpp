#include "qxPersistStore/src/DeletionQueue.h"

#include "qxObject/WCSpace.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/DeletionBatch.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/Records.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "qxUtils/Archivexdeque.h"
#include "qxUtils/Assert.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Schema.h"

#include <algorithm>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/DeletionQueue";
constexpr int DeletionQueue_SCHEMA = 1;

// A batch has deleted it, or a group write has after SyncPermanentlyDeleteObject. Such an object may be collected before
// the request reaches the durable queue, where nothing could tell any more that there is no element to delete.
bool HasNoElementAnyMore(const ObjSysState& state) {
    return state.GetFlag(PERSISTABLE_DELETE_VISITED) ||
           (state.GetFlag(PERSISTABLE_DELETED) && !state.GetFlag(PERSISTABLE_DIRTY));
}

} // namespace

// ---- Requests -------------------------------------------------------------------------------------------------------

void DeletionQueue::AsyncPermanentlyDeleteSubTree(PSpace* pspace, ptr<IPersistable> obj) {
    QX_ASSERT(pspace);
    QX_ASSERT(obj);
    QX_ASSERT(obj->RepresentsSubTree());
    const OID oid = GetOid(obj);
    if (!oid) return;
    AssertNotQueuedToDelete(oid);
    if (HasNoElementAnyMore(obj->GetSysState())) return;
    Push(DELTA_QUEUE, oid);
}

void DeletionQueue::AsyncPermanentlyDeleteObject(PSpace* pspace, ptr<IPersistable> obj) {
    QX_ASSERT(pspace);
    QX_ASSERT(obj);
    const OID oid = GetOid(obj);
    if (!oid) return;
    AssertNotQueuedToDelete(oid);
    if (HasNoElementAnyMore(obj->GetSysState())) return;
    Push(DELTA_QUEUE2, oid);
}

void DeletionQueue::AssertNotQueuedToDelete(OID oid) const {
    if (!IsQueued(oid)) return;
    QX_ASSERT_TEXT(IsInNoQueue(oid, DELTA_QUEUE),
                   "std::find(m_deltaQueue.begin(), m_deltaQueue.end(), oid) == m_deltaQueue.end()");
    QX_ASSERT_TEXT(IsInNoQueue(oid, DELTA_QUEUE2),
                   "std::find(m_deltaQueue2.begin(), m_deltaQueue2.end(), oid) == m_deltaQueue2.end()");
    QX_ASSERT_TEXT(IsInNoQueue(oid, QUEUE), "std::find(m_queue.begin(), m_queue.end(), oid) == m_queue.end()");
    QX_ASSERT_TEXT(IsInNoQueue(oid, QUEUE2), "std::find(m_queue2.begin(), m_queue2.end(), oid) == m_queue2.end()");
}

bool DeletionQueue::IsQueued(OID oid) const {
    if (!HaveObjectsToDelete() && !HaveRequests()) return false;
    if (!IsIndexInStep()) RebuildIndex();
    return m_index.Contains(oid);
}

void DeletionQueue::NoteDeleted(OID oid) {
    if (HaveObjectsToDelete() && IsQueued(oid)) m_haveDeleted = true;
}

void DeletionQueue::AccumulateDelta(PSpace* pspace) {
    QX_ASSERT(pspace);
    if (m_haveDeleted) {
        DropDeleted(*pspace, QUEUE);
        DropDeleted(*pspace, QUEUE2);
        MarkAsDirty();
        m_haveDeleted = false;
    }
    DropDeleted(*pspace, DELTA_QUEUE);
    DropDeleted(*pspace, DELTA_QUEUE2);
    if (!HaveRequests()) return;
    if (!HaveObjectsToDelete()) pspace->m_ps.m_dosWriter.AddPSpaceToNedqList(pspace);
    MarkAsDirty();
    MoveToEnd(*this, DELTA_QUEUE, *this, QUEUE);
    MoveToEnd(*this, DELTA_QUEUE2, *this, QUEUE2);
}

// The element of an object whose deleted bit is set is removed by the write of the dirty set.
void DeletionQueue::DropDeleted(PSpace& pspace, EQueue queue) {
    const auto isDeleted = [&](OID oid) {
        const ptr<IPersistable> po = pspace.rot_.FindResidentObject(oid);
        return po && po->GetSysState().GetFlag(PERSISTABLE_DELETED);
    };
    if (std::none_of(Queue(queue).begin(), Queue(queue).end(), isDeleted)) return;
    OIDS all;
    TakeAll(queue, all);
    for (const OID oid : all) {
        if (!isDeleted(oid)) Push(queue, oid);
    }
}

void DeletionQueue::Transfer(DeletionQueue& src) {
    if (src.HaveObjectsToDelete()) {
        MoveToEnd(src, QUEUE, *this, DELTA_QUEUE);
        MoveToEnd(src, QUEUE2, *this, DELTA_QUEUE2);
        src.MarkAsDirty();
    }
    MoveToEnd(src, DELTA_QUEUE, *this, DELTA_QUEUE);
    MoveToEnd(src, DELTA_QUEUE2, *this, DELTA_QUEUE2);
}

// ---- Batches --------------------------------------------------------------------------------------------------------

bool DeletionQueue::DeleteSomeObjects(PSpace* pspace) {
    QX_ASSERT(pspace);
    CSpace* const cspace = pspace->GetCSpace();
    const ThreadPSpaceScope pair(pspace, cspace);
    QX_ASSERT(cspace);
    const CSpaceLock lock(cspace, Exclusive);
    if (!HaveObjectsToDelete()) return false;
    DeletionBatch batch(*this, *pspace);
    batch.TakeSingleObjects();
    batch.TakeSubTrees();
    batch.Commit();
    QX_ASSERT(m_queue2.empty());
    if (m_queue.empty()) pspace->m_ps.m_dosWriter.RemovePSpaceFromNedqList(pspace);
    return true;
}

// ---- Image ----------------------------------------------------------------------------------------------------------

void DeletionQueue::WriteDQToLssIfDirty(OID oid, PSpace* pspace, ILssTransaction& txn) {
    QX_ASSERT(pspace);
    QX_ASSERT(oid);
    if (!m_dirty.load(std::memory_order_relaxed)) return;
    WriteRecord(txn, oid, [this](Archive& ar) { Serialise(ar); });
    m_dirty.store(false, std::memory_order_relaxed);
}

void DeletionQueue::ReadFromLss(ILogStructuredStore* lss, OID oid) {
    QX_ASSERT(oid);
    QX_ASSERT(lss);
    AutoCloser<IContiguousSerialElement> se(lss->OpenSerialElement(oid));
    if (!se) throw DerefDanglingOidException(oid);
    const bool usedExactly = ParseRecord(*se, [this](InputArchive ar) { return Deserialise(ar); });
    QX_ASSERT_TEXT(usedExactly, "ar == rob.buffer + rob.size");
    se.Close();
}

void DeletionQueue::Serialise(Archive& ar) const {
    QX_ASSERT(ar.IsStoring());
    SerialiseSchema(ar, DeletionQueue_SCHEMA);
    ar << m_queue << m_queue2;
}

InputArchive DeletionQueue::Deserialise(InputArchive ar) {
    int schema = 0;
    m_indexInStep = false;
    ar = DeserialiseSchema(ar, DeletionQueue_SCHEMA, schema);
    return ar >> m_queue >> m_queue2;
}

// ---- Queues and index -----------------------------------------------------------------------------------------------

DeletionQueue::OIDS& DeletionQueue::Queue(EQueue queue) {
    return const_cast<OIDS&>(static_cast<const DeletionQueue*>(this)->Queue(queue));
}

const DeletionQueue::OIDS& DeletionQueue::Queue(EQueue queue) const {
    switch (queue) {
    case DELTA_QUEUE: return m_deltaQueue;
    case DELTA_QUEUE2: return m_deltaQueue2;
    case QUEUE: return m_queue;
    default: return m_queue2;
    }
}

void DeletionQueue::Push(EQueue queue, OID oid) {
    const bool inStep = IsIndexInStep();
    m_indexInStep = false; // and stays so if there is no memory
    Queue(queue).push_back(oid);
    if (!inStep) return;
    m_index.Add(oid, queue);
    ++m_indexedSizes[queue];
    m_indexInStep = true;
}

OID DeletionQueue::PopBack(EQueue queue) {
    m_indexInStep = IsIndexInStep();
    const OID oid = Queue(queue).back();
    Queue(queue).pop_back();
    if (m_indexInStep) m_index.Remove(oid, queue);
    --m_indexedSizes[queue];
    return oid;
}

void DeletionQueue::TakeAll(EQueue queue, OIDS& to) {
    m_indexInStep = IsIndexInStep();
    to.TakePages(Queue(queue));
    m_indexedSizes[queue] = 0;
    if (!HaveObjectsToDelete() && !HaveRequests()) {
        m_index.clear();
        m_indexInStep = true;
        return;
    }
    if (!m_indexInStep) return;
    for (const OID oid : to) m_index.Remove(oid, queue);
}

void DeletionQueue::MoveToEnd(DeletionQueue& src, EQueue from, DeletionQueue& dest, EQueue to) {
    if (src.Queue(from).empty()) return;
    OIDS oids;
    src.TakeAll(from, oids);
    for (const OID oid : oids) dest.Push(to, oid);
}

// Also false when a queue was changed otherwise than by the operations here.
bool DeletionQueue::IsIndexInStep() const {
    return m_indexInStep && m_indexedSizes[DELTA_QUEUE] == m_deltaQueue.size() &&
           m_indexedSizes[DELTA_QUEUE2] == m_deltaQueue2.size() && m_indexedSizes[QUEUE] == m_queue.size() &&
           m_indexedSizes[QUEUE2] == m_queue2.size();
}

void DeletionQueue::RebuildIndex() const {
    m_index.clear();
    for (const EQueue queue : {DELTA_QUEUE, DELTA_QUEUE2, QUEUE, QUEUE2}) {
        for (const OID oid : Queue(queue)) m_index.Add(oid, queue);
        m_indexedSizes[queue] = Queue(queue).size();
    }
    m_indexInStep = true;
}

} // namespace quna

#include "qxPersistStore/src/DeletionQueue.h"

#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/Records.h"
#include "qxUtils/Archivexdeque.h"
#include "qxUtils/Assert.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Schema.h"

#include <algorithm>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/DeletionQueue";
constexpr int DeletionQueue_SCHEMA = 1;

void MoveToEnd(DeletionQueue::OIDS& from, DeletionQueue::OIDS& to) {
    to.insert(to.end(), from.begin(), from.end());
    from.clear();
}

} // namespace

void DeletionQueue::AsyncPermanentlyDeleteSubTree(PSpace* pspace, ptr<IPersistable> obj) {
    QX_ASSERT(pspace);
    QX_ASSERT(obj);
    QX_ASSERT(obj->RepresentsSubTree());
    const OID oid = GetOid(obj);
    if (!oid) return;
    AssertNotQueuedToDelete(oid);
    m_deltaQueue.push_back(oid);
}

void DeletionQueue::AsyncPermanentlyDeleteObject(PSpace* pspace, ptr<IPersistable> obj) {
    QX_ASSERT(pspace);
    QX_ASSERT(obj);
    const OID oid = GetOid(obj);
    if (!oid) return;
    AssertNotQueuedToDelete(oid);
    m_deltaQueue2.push_back(oid);
}

void DeletionQueue::AssertNotQueuedToDelete(OID oid) const {
    QX_ASSERT(std::find(m_deltaQueue.begin(), m_deltaQueue.end(), oid) == m_deltaQueue.end());
    QX_ASSERT(std::find(m_deltaQueue2.begin(), m_deltaQueue2.end(), oid) == m_deltaQueue2.end());
    QX_ASSERT(std::find(m_queue.begin(), m_queue.end(), oid) == m_queue.end());
    QX_ASSERT(std::find(m_queue2.begin(), m_queue2.end(), oid) == m_queue2.end());
}

void DeletionQueue::AccumulateDelta(PSpace* pspace) {
    QX_ASSERT(pspace);
    if (!HaveRequests()) return;
    if (!HaveObjectsToDelete()) pspace->m_ps.m_dosWriter.AddPSpaceToNedqList(pspace);
    m_dirty.store(true, std::memory_order_relaxed);
    MoveToEnd(m_deltaQueue, m_queue);
    MoveToEnd(m_deltaQueue2, m_queue2);
}

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
    ar = DeserialiseSchema(ar, DeletionQueue_SCHEMA, schema);
    return ar >> m_queue >> m_queue2;
}

void DeletionQueue::Transfer(DeletionQueue& src) {
    if (src.HaveObjectsToDelete()) {
        MoveToEnd(src.m_queue, m_deltaQueue);
        MoveToEnd(src.m_queue2, m_deltaQueue2);
        src.m_dirty.store(true, std::memory_order_relaxed);
    }
    MoveToEnd(src.m_deltaQueue, m_deltaQueue);
    MoveToEnd(src.m_deltaQueue2, m_deltaQueue2);
}

} // namespace quna

// The permanent deletions of a space that are still to be done.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/OID.h"
#include "qxPersistStore/src/ObjectDeleterPrefVisitor.h"
#include "qxPersistStore/src/QueuedOids.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Export.h"
#include "qxUtils/xdeque.h"

#include <atomic>

namespace quna {

class DeletionBatch;
class PSpace;

// A bit of ObjSysState::objflags_: a batch has removed the object's element while the object was in memory. It stays
// there until the collector takes it, and is never written again, even when it is dirty.
inline constexpr int PERSISTABLE_ERASED = 1 << 29;

// Record at the OID that PSpaceRoots holds, schema 1:
//   1..5   schema tag
//   queue  m_queue     count (variable length), then each OID
//   queue  m_queue2    the same
//
// An OID in m_queue names the root of a subtree to delete, one in m_queue2 a single object. The delta queues hold what
// was requested since the space was last written; they are not stored. The writer works the persistent queues off in
// batches (DeletionBatch), each in a transaction of its own that removes the elements and writes the queue's new image:
// so queue and elements agree after every crash.
//
// Threads: under the space's CSpace lock; m_dirty may be read without.
class QX_API DeletionQueue {
public:
    using OIDS = xdeque<OID, 512>;

    explicit DeletionQueue(bool dirty) : m_dirty(dirty) {}
    DeletionQueue(const DeletionQueue&) = delete;
    DeletionQueue& operator=(const DeletionQueue&) = delete;

    bool HaveObjectsToDelete() const { return !m_queue.empty() || !m_queue2.empty(); }
    bool HaveRequests() const { return !m_deltaQueue.empty() || !m_deltaQueue2.empty(); }

    // Queues the object's subtree, or the object alone. A transient object has nothing to delete, nor has one that a
    // batch has reached and that waits in no queue any more.
    void AsyncPermanentlyDeleteSubTree(PSpace* pspace, ptr<IPersistable> obj);
    void AsyncPermanentlyDeleteObject(PSpace* pspace, ptr<IPersistable> obj);
    // The failing check is that of the first queue, in the order requested, persistent, that holds the OID. Constant
    // time.
    void AssertNotQueuedToDelete(OID oid) const;
    bool IsQueued(OID oid) const;
    // The object was deleted otherwise, and its element goes with the next write: a queue that still held it then would
    // ask for an element that does not exist.
    void NoteDeleted(OID oid);

    // Moves the delta queues to the persistent ones; called for each member of a group before it is written.
    void AccumulateDelta(PSpace* pspace);
    // One batch, on the writer's thread. Takes the exclusive lock. False when there was nothing to do; the space then
    // stays on the writer's list.
    bool DeleteSomeObjects(PSpace* pspace);
    void WriteDQToLssIfDirty(OID oid, PSpace* pspace, ILssTransaction& txn);
    // Throws DerefDanglingOidException when the record is missing.
    void ReadFromLss(ILogStructuredStore* lss, OID oid);
    void Serialise(Archive& ar) const;
    InputArchive Deserialise(InputArchive ar);

    // Takes over everything that src holds; its persistent queues become requests here.
    void Transfer(DeletionQueue& src);

    // Slots of the index looked at, for tests of the cost.
    int64 NumIndexProbes() const { return m_index.NumProbes(); }

    std::atomic<bool> m_dirty; // the record differs from the one in the LSS
    OIDS m_deltaQueue;
    OIDS m_queue; // worked from the back
    OIDS m_deltaQueue2;
    OIDS m_queue2;

private:
    friend class DeletionBatch;
    friend class ObjectDeleterPrefVisitor;

    // In the order of the checks.
    enum EQueue {
        DELTA_QUEUE,
        DELTA_QUEUE2,
        QUEUE,
        QUEUE2
    };

    OIDS& Queue(EQueue queue);
    const OIDS& Queue(EQueue queue) const;
    void Push(EQueue queue, OID oid);
    OID PopBack(EQueue queue);
    void TakeAll(EQueue queue, OIDS& to);
    static void MoveToEnd(DeletionQueue& src, EQueue from, DeletionQueue& dest, EQueue to);
    void DropDeleted(PSpace& pspace, EQueue queue);
    void MarkAsDirty() { m_dirty.store(true, std::memory_order_relaxed); }

    bool IsIndexInStep() const;
    void RebuildIndex() const;
    bool IsInNoQueue(OID oid, EQueue queue) const { return !m_index.Contains(oid, queue); }

    DeletionBatch* m_batch = nullptr; // the one that runs
    bool m_haveDeleted = false;       // a persistent queue may hold an object that was deleted otherwise

    // Follows each change. After reading a record, or when a queue was changed otherwise, it is out of step until it is
    // asked: a space whose deletions go on without new requests has none.
    mutable QueuedOids m_index;
    mutable bool m_indexInStep = true;
    mutable ssize_t m_indexedSizes[QueuedOids::NUM_QUEUES] = {};
};

} // namespace quna

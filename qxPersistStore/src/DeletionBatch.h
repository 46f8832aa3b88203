// One step of a permanent deletion: what is removed in one transaction, under one hold of the space's lock.
#pragma once

#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/src/DeletionQueue.h"
#include "qxPersistStore/src/QueuedOids.h"
#include "qxUtils/Export.h"
#include "qxUtils/PagedStack.h"
#include "qxUtils/xdeque.h"

namespace quna {

class prefbase;

// Takes OIDs off the queue, adds what their objects reach, and removes the elements of all of them together with
// writing the queue's image. The objects stay in memory until they are collected.
//
// A batch that ends without Commit, which only an exception causes, changes nothing durable: its transaction is dropped,
// and the image is not written by its doing, so that the next process finds the queue as it was.
//
// Threads: one at a time in a space, under its exclusive lock, with the space as the thread's current one.
class QX_API DeletionBatch {
public:
    DeletionBatch(DeletionQueue& dq, PSpace& pspace);
    DeletionBatch(const DeletionBatch&) = delete;
    DeletionBatch& operator=(const DeletionBatch&) = delete;
    ~DeletionBatch();

    // All of them, however many.
    void TakeSingleObjects();
    // From the back of the queue, until there are enough for a batch; each with everything below it that is no subtree
    // of its own.
    void TakeSubTrees();
    void Commit();

    // Whether the reference names a single object of this batch that is not in memory: it is not loaded for a visit.
    bool DeletesUnloaded(const prefbase& pref) const;
    // A dirty object without an element: it waits for its first write.
    bool WasNeverWritten(ptr<IPersistable> po, OID oid) const;

private:
    using OBJSET = PagedStack<ptr<IPersistable>, 1024>;
    using RESIDENT = xdeque<ptr<IPersistable>, 256>;

    ssize_t Threshold() const;
    void TakeSubTree(OID oid, ptr<IPersistable> root, OBJSET& stack);
    void DeleteElement(ILssTransaction& txn, OID oid) const;

    DeletionQueue& m_dq;
    PSpace& m_pspace;
    const bool m_wasDirty;
    bool m_committed = false;
    DeletionQueue::OIDS m_oidsToDelete;
    RESIDENT m_resident;   // the objects of the batch that are in memory
    QueuedOids m_unloaded; // the single objects of the batch that are not; one queue
};

} // namespace quna

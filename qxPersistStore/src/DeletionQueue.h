// The permanent deletions of a space that are still to be done.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/OID.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Export.h"
#include "qxUtils/xdeque.h"

#include <atomic>

namespace quna {

class PSpace;

// Record at the OID that PSpaceRoots holds, schema 1:
//   1..5   schema tag
//   queue  m_queue     count (variable length), then each OID
//   queue  m_queue2    the same
//
// An OID in m_queue names the root of a subtree to delete, one in m_queue2 a single object. The delta queues hold what
// was requested since the space was last written; they are not stored.
// Threads: under the space's CSpace lock; m_dirty may be read without.
class QX_API DeletionQueue {
public:
    using OIDS = xdeque<OID, 512>;

    explicit DeletionQueue(bool dirty) : m_dirty(dirty) {}

    bool HaveObjectsToDelete() const { return !m_queue.empty() || !m_queue2.empty(); }
    bool HaveRequests() const { return !m_deltaQueue.empty() || !m_deltaQueue2.empty(); }

    // Queues the object's subtree, or the object alone. A transient object has nothing to delete.
    void AsyncPermanentlyDeleteSubTree(PSpace* pspace, ptr<IPersistable> obj);
    void AsyncPermanentlyDeleteObject(PSpace* pspace, ptr<IPersistable> obj);
    void AssertNotQueuedToDelete(OID oid) const;

    // Moves the delta queues to the persistent ones; called for each member of a group before it is written.
    void AccumulateDelta(PSpace* pspace);
    void WriteDQToLssIfDirty(OID oid, PSpace* pspace, ILssTransaction& txn);
    // Throws DerefDanglingOidException when the record is missing.
    void ReadFromLss(ILogStructuredStore* lss, OID oid);
    void Serialise(Archive& ar) const;
    InputArchive Deserialise(InputArchive ar);

    // Takes over everything that src holds; its persistent queues become requests here.
    void Transfer(DeletionQueue& src);

    std::atomic<bool> m_dirty; // the record differs from the one in the LSS
    OIDS m_deltaQueue;
    OIDS m_queue;
    OIDS m_deltaQueue2;
    OIDS m_queue2;
};

} // namespace quna

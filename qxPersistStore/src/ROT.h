// The resident object table: what makes an OID stand for at most one object in memory.
#pragma once

#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/MAsyncBind.h"
#include "qxPersistStore/OID.h"
#include "qxPersistStore/src/ResidentTable.h"
#include "qxUtils/Event.h"
#include "qxUtils/Export.h"
#include "qxUtils/ThreadBlockerWhileUsed.h"

#include <condition_variable>
#include <mutex>
#include <vector>

namespace quna {

class PSpace;

// Every object of one space that is bound in memory, by OID.
//
// Ownership: holds plain pointers. The objects belong to the CSpace, whose collector has each entry removed before it
//   frees the object.
// Threads: guarded by the space's CSpace lock. Entering, removing and transferring need it exclusively; finding and
//   loading need it in any mode. Under a shared lock several threads may bind at once: then, and only then,
//   tableMutex_ guards map_. It is never held across a disk read or an object's Deserialise. A load under way is
//   noted in loading_, and a second reader of the same OID waits for it, so that no OID gets two objects.
// Invariant: an entry's OID is not null; its m_self and m_table are not null.
class QX_API ROT {
public:
    using MAP = ResidentTable;

    explicit ROT(PSpace& pspace) : pspace_(pspace) {}
    ROT(const ROT&) = delete;
    ROT& operator=(const ROT&) = delete;

    // Write access in the operations that change the table, any access in the others.
    bool HasLock() const;

    // The resident object, else null; nothing is loaded.
    ptr<IPersistable> FindResidentObject(OID oid) const;
    // The object, loaded if need be; null when it does not exist. An exception of the load leaves the table as it was.
    ptr<IPersistable> FindOrLoadResidentObject(OID oid);
    // False when another object is resident under the OID.
    bool AddResidentObject(OID oid, ptr<IPersistable> po);
    void RemoveResidentObject(OID oid);
    // True when the table holds this very object under the OID.
    bool Holds(OID oid, ptr<const IPersistable> po) const;
    // Removes the entry if it is this very object's; for the collector, under its exclusive lock. An object whose
    // Deserialise threw, or that was loaded beside the table, has an OID and no entry.
    void RemoveCollectedObject(OID oid, ptr<const IPersistable> po);
    // Moves all entries of src into this table.
    void TransferResidentObjects(ROT& src);

    MAsyncBind AsyncBind2(OID oid);
    // Disabled: fails the assertion "0".
    void MakeMemoryResident(OID oid);

    // One of 16, by the low four bits of the OID's low half.
    std::mutex& GetMutexForOid(OID oid) { return mutex_[oid.low_ & 15]; }

    // Waits until no placeholder of an asynchronous load is alive. The caller holds no CSpace lock.
    void Close();

    ssize_t NumEntries() const { return map_.size(); }

private:
    class LoadInFlight;

    bool HaveSharedLockOnly() const;
    ptr<IPersistable> SyncLoadObject(OID oid);
    ptr<IPersistable> FindOrLoadExclusively(OID oid);
    ptr<IPersistable> FindOrLoadAmongReaders(OID oid);

    PSpace& pspace_;
    ThreadBlockerWhileUsed blockUntilNoMoreAsyncNodes_;
    AutoResetEvent blockSyncThreadWaitingOnAsyncLoad_;
    std::mutex mutex_[16];
    MAP map_;

    mutable std::mutex tableMutex_;     // leaf lock; taken by holders of a shared CSpace lock only
    std::condition_variable loadEnded_; // with tableMutex_
    std::vector<OID> loading_;          // loads under way among readers; guarded by tableMutex_
};

} // namespace quna

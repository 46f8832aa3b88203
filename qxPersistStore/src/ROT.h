// The resident object table: what makes an OID stand for at most one object in memory.
#pragma once

#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/MAsyncBind.h"
#include "qxPersistStore/OID.h"
#include "qxPersistStore/src/ResidentTable.h"
#include "qxUtils/Event.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"
#include "qxUtils/ThreadBlockerWhileUsed.h"

#include <mutex>
#include <vector>

namespace quna {

class DGIndepNodeForAsyncPref;
class PSpace;

// Every object of one space that is bound in memory, by OID, and the placeholders of those that are on the way.
//
// The two words of an entry tell what it is: with both set, a resident object; with m_table null, a placeholder, and
// m_self points to a DGIndepNodeForAsyncPref.
//
// Ownership: holds plain pointers. The objects belong to the CSpace, whose collector has each entry removed before it
//   frees the object.
// Threads: guarded by the space's CSpace lock. Entering, removing and transferring need it exclusively; finding and
//   loading need it in any mode. Under a shared lock several threads may bind at once: then, and only then,
//   tableMutex_ guards map_. It is never held across a disk read, a handler, a call of the dependency graph or an
//   object's Deserialise. A load under way is noted in loading_, and a second reader of the same OID waits for it, so
//   that no OID gets two objects. A placeholder that a reader settles changes its state and its entry together, under
//   GetMutexForOid: who has found it in the table looks at its state under that mutex. The threads of asynchronous
//   loading touch the table under the exclusive lock only.
// Invariants: an entry's OID is not null; its m_self is not null. A placeholder in the table is UR_PENDING or
//   UR_OBJECT_DOES_NOT_EXIST, between calls.
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

    // What is known of the object now. The first call for an OID that is not in memory starts a load; the caller, if
    // it is a calculation, depends on the placeholder. Never waits for the disk.
    MAsyncBind AsyncBind2(OID oid);
    // Disabled: fails the assertion "0".
    void MakeMemoryResident(OID oid);
    // Ends the placeholder of the OID, if there is one; exclusive. What its load has delivered is then resident.
    void EvictPlaceholder(OID oid);

    // One of 16, by the low four bits of the OID's low half.
    Mutex& GetMutexForOid(OID oid) { return mutex_[oid.low_ & 15]; }

    // Waits until no placeholder of an asynchronous load is alive. The caller holds no CSpace lock.
    void Close();
    // The same, for so long; true when none is alive.
    [[nodiscard]] bool WaitForPlaceholders(uint32 milliSecs);

    PSpace& GetPSpace() const { return pspace_; }
    // The placeholder of the OID; null when there is none. Exclusive.
    DGIndepNodeForAsyncPref* PlaceholderForTest(OID oid);
    ssize_t NumEntries() const { return map_.size(); }

private:
    friend class DGIndepNodeForAsyncPref;
    class LoadInFlight;
    using TableLock = std::unique_lock<Mutex>;

    bool HasAnyLock() const;
    bool HaveSharedLockOnly() const;
    TableLock LockAmongReaders() const;
    ptr<IPersistable> SyncLoadObject(OID oid);
    ptr<IPersistable> FindOrLoadExclusively(OID oid);
    ptr<IPersistable> FindOrLoadAmongReaders(OID oid);
    ptr<IPersistable> LoadAmongReaders(OID oid, TableLock& lock);
    ptr<IPersistable> EnterAmongReaders(OID oid, ptr<IPersistable> po, TableLock& lock);

    MAsyncBind AsyncBindAmongReaders(OID oid);
    MAsyncBind BeginAsyncLoad(OID oid, TableLock& lock);
    void ReadBarrierOf(const DGIndepNodeForAsyncPref& node) const;

    // A synchronous binder that has found a placeholder.
    struct Delivery {
        ptr<IPersistable> po;
        bool failed = false;
        bool settled = false; // by another reader: the table has the answer
    };
    void AwaitLoad(DGIndepNodeForAsyncPref& node);
    Delivery TakeDelivery(DGIndepNodeForAsyncPref& node);

    // Requires: the node stands in the table.
    void ReplacePlaceholder(const DGIndepNodeForAsyncPref& node, ptr<IPersistable> po);
    void ErasePlaceholder(const DGIndepNodeForAsyncPref& node);
    MAP::iterator EntryOf(const DGIndepNodeForAsyncPref& node);

    PSpace& pspace_;
    ThreadBlockerWhileUsed blockUntilNoMoreAsyncNodes_; // counts the placeholders that are alive
    AutoResetEvent blockSyncThreadWaitingOnAsyncLoad_;  // one binder sleeps on it at a time
    struct OidMutex : Mutex {
        OidMutex() noexcept : Mutex("ROT::mutex_") {}
    };
    OidMutex mutex_[16];
    MAP map_;

    mutable Mutex tableMutex_{"ROT::tableMutex_"}; // leaf lock; taken by holders of a shared CSpace lock only
    ConditionVariable loadEnded_;                  // with tableMutex_
    std::vector<OID> loading_;                     // loads under way among readers; guarded by tableMutex_
    Mutex sleeperMutex_{"ROT::sleeperMutex_"};     // held by the reader that sleeps on the event; outside mutex_[]
};

} // namespace quna

// Domains: a CSpace is a readers-writer lock, the objects that it guards, and the collector that ends them.
//
// A domain is opaque and used through the free functions below. Holding its lock is the right to touch its objects:
// shared to read, exclusive to change. The lock nests by thread: exclusive in exclusive, shared in shared (even while a
// writer waits), shared in exclusive. Exclusive in shared can't be granted safely and fails an assertion at once, as
// does unlocking what the thread doesn't hold. Between threads the lock is first come, first served.
//
// Unless a function says otherwise, `cs` may not be null and the function may be called by any thread.
#pragma once

#include "qxObject/IObject.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <atomic>
#include <string>

namespace quna {

class CSpace;

// How a domain is locked. A lock taken as Transaction excludes as Exclusive does; the mode is told apart by those who
// pair it with the operation hooks (BeginTransaction).
enum ECSpaceLockMode {
    SharedRead = 0,
    Exclusive = 1,
    Transaction = 2
};

// The names of the reserved slots of a domain's pointer array.
enum ReservedPointerSlots {
    PTR_SLOT_PSpace = 0,
    PTR_SLOT_WorkingSetMgr = 1
};

inline constexpr ssize_t CSPACE_NUM_RESERVED_PTR_SLOTS = 16;

// Values for the period of a collector, besides milliseconds.
inline constexpr int QUNA_GC_THREAD_DONT_START = -2; // no collector thread until StartGc
inline constexpr int QUNA_GC_THREAD_NO_SLEEP = -1;   // one collection after the other
inline constexpr int QUNA_DEFAULT_MILLISECS_PER_GC = 1000;

// Serialised bytes of objects that only evictable pointers reach, up to which a collector keeps them all.
inline constexpr ssize_t DEFAULT_EVICTION_BUDGET = ssize_t{256} << 20;

// The body of a domain's collector thread: calls m_stubFn(m_self, cs) once, which loops on WaitForGarbageCollect and
// calls SynchronousGc. With a null m_stubFn the domain runs that loop itself.
struct GCThreadFn {
    void* m_self = nullptr;
    void (*m_stubFn)(void* self, CSpace* cs) = nullptr;
};

// --- Life -----------------------------------------------------------------------------------------------------------

// A new domain. `milliSecsPerGc` is the period of the collector, whose thread starts at once unless the value is
// QUNA_GC_THREAD_DONT_START; a domain made so has the default period when StartGc is called later.
QX_API CSpace* CreateCSpace(int milliSecsPerGc = QUNA_GC_THREAD_DONT_START, GCThreadFn fn = GCThreadFn());

// Ends a domain with all that is in it: stops and joins the collector, takes the lock, evicts the dependency-graph
// nodes, calls OnGarbageCollect for every object and then Destroy for every object. Afterwards no thread's current
// domain is `cs`, and the caller's record of its lock is gone.
//
// The caller holds no lock on the domain, or, when no collector thread runs, may hold it exclusively. Nobody else may
// use the domain any more; threads that are just leaving it are waited for.
QX_API void Destroy(CSpace* cs);

// --- Lock -----------------------------------------------------------------------------------------------------------

QX_API void Lock(CSpace* cs, ECSpaceLockMode mode);
QX_API void Unlock(CSpace* cs);

// Takes the lock if that is possible without waiting, and says whether it did.
[[nodiscard]] QX_API bool TryLock(CSpace* cs, ECSpaceLockMode mode);

// Takes the lock, waiting for it in turn with everybody else, but for at most so long; says whether it did.
[[nodiscard]] QX_API bool TryLockFor(CSpace* cs, ECSpaceLockMode mode, uint32 milliSecs);

// Takes all locks of a set. Waits for one of them only while it holds none of the set, so it can't be part of a
// deadlock, whatever order others lock in. A domain may occur twice.
QX_API void LockMultipleCSpaces(CSpace** spaces, ssize_t n, ECSpaceLockMode mode);
QX_API void UnlockMultipleCSpaces(CSpace** spaces, ssize_t n);

// Notes a lock for this thread without taking it: for a domain that no other thread can reach, or for a thread that
// works on behalf of the one that holds the lock. Nests with Lock and Unlock, but each kind is undone by its own kind.
QX_API void RecordLock(CSpace* cs, ECSpaceLockMode mode);
QX_API void RecordUnlock(CSpace* cs);

// What this thread holds of the domain: positive when exclusive, negative when shared, 0 for nothing or a null `cs`.
// Costs no atomic operation.
QX_API int GetRecordedLockStatus(const CSpace* cs);

inline bool HaveLock(const CSpace* cs) { return GetRecordedLockStatus(cs) != 0; }
inline bool HaveExclusiveLock(const CSpace* cs) { return GetRecordedLockStatus(cs) > 0; }

// Locks in the mode Transaction and calls OnBeginTransaction of the installed operation hooks; calls OnEndTransaction
// and unlocks. A hook that throws leaves the lock released.
QX_API void BeginTransaction(CSpace* cs);
QX_API void EndTransaction(CSpace* cs);

// --- The thread's current domain ------------------------------------------------------------------------------------

QX_API CSpace* GetThreadCSpace();
QX_API void SetThreadCSpace(CSpace* cs); // null for none

// What this thread holds of its current domain; false when it has none.
inline bool HaveExclusiveLockedCSpace() { return GetRecordedLockStatus(GetThreadCSpace()) > 0; }
inline bool HaveSharedReadLockedCSpace() { return GetRecordedLockStatus(GetThreadCSpace()) < 0; }
inline bool HaveLockedCSpace() { return GetRecordedLockStatus(GetThreadCSpace()) != 0; }

// --- Slots ----------------------------------------------------------------------------------------------------------

// CSPACE_NUM_RESERVED_PTR_SLOTS pointers for the layers above, null at first. Set while no other thread can read them.
QX_API void** GetPtrSlotArray(CSpace* cs);
QX_API void* GetPtrSlot(const CSpace* cs, ssize_t slot);

// --- Objects --------------------------------------------------------------------------------------------------------

// Puts a new object under the domain's collector. The caller holds the domain's lock in any mode; the form without a
// domain uses the thread's current one. Fails an assertion for an object that is in a domain already.
QX_API void RegisterGcObject(ptr<IObject> object);
QX_API void RegisterGcObject(CSpace* cs, ptr<IObject> object);

// The same for an object that is part of the domain itself: it is a root, lives as long as the domain, and stays behind
// when the objects are transferred. An object of the domain that is registered already becomes one; then the caller
// holds the lock exclusively.
QX_API void RegisterDomainObject(CSpace* cs, ptr<IObject> object);

// Keeps an object alive, with all that it reaches, until RemoveGcRoot. Roots are a set: adding twice is adding once,
// removing what is no root does nothing. The forms without a domain use the object's, or the thread's current one for
// an object without.
QX_API void AddGcRoot(ptr<const IObject> object);
QX_API void AddGcRoot(CSpace* cs, ptr<const IObject> object);
QX_API void RemoveGcRoot(ptr<const IObject> object);
QX_API void RemoveGcRoot(CSpace* cs, ptr<const IObject> object);

// The object's domain; null before it is registered, and for a null object.
inline CSpace* GetAssociatedCSpace(ptr<const IObject> object) {
    return object ? object->GetSysState().m_cspace : nullptr;
}

// True when both objects have a domain and the two differ.
inline bool ObjectsBelongToDifferentCSpaces(ptr<const IObject> po1, ptr<const IObject> po2) {
    const CSpace* const cs1 = GetAssociatedCSpace(po1);
    const CSpace* const cs2 = GetAssociatedCSpace(po2);
    return cs1 && cs2 && cs1 != cs2;
}

// The number of objects in the domain, its own included.
QX_API ssize_t GetNumObjects(const CSpace* cs);

// Moves every object, except the domain's own, with the root status of each. Both domains are exclusively locked by the
// caller. Does nothing when they are the same.
QX_API void TransferCSpace(CSpace* from, CSpace* to);

// --- Collection -----------------------------------------------------------------------------------------------------

// Starts the domain's collector thread; nothing happens when it runs already.
QX_API void StartGc(CSpace* cs);

// Asks the collector thread to end, and returns at once: allowed under any lock.
QX_API void StopGc(CSpace* cs);

// Runs one collection now, under an exclusive hold of the lock, which nests in the caller's. On the domain's own
// collector thread the eviction budget decides which of the objects that only evictable pointers reach stay; any other
// caller wants them all let go. An object whose dirty bit is set always stays.
//
// Requires: the caller holds no shared lock on the domain.
QX_API void SynchronousGc(CSpace* cs);

// Blocks until the next collection is due: when the period is over, or early when the resident objects have outgrown
// the budget. False when the collector is to end.
[[nodiscard]] QX_API bool WaitForGarbageCollect(CSpace* cs);

// The period of the collector in milliseconds, or QUNA_GC_THREAD_NO_SLEEP.
QX_API void SetMilliSecsPerGc(CSpace* cs, int milliSecsPerGc);

// How many bytes of objects that only evictable pointers reach the collector keeps.
QX_API void SetEvictionBudget(CSpace* cs, ssize_t bytes);

// Tells the evictor how large the object counts. The caller holds the lock in any mode, or is alone with the object.
QX_API void SetEvictableObjectSizeInBytes(ptr<const IObject> object, ssize_t size);

// The clock of the evictor: it advances with every collection of any domain, and once a second while collector threads
// run. Only differences of close values mean anything.
QX_API extern std::atomic<int32> g_touchClock;

// Marks use for the evictor. Costs two loads and a compare while the clock stands.
inline void SetTouched(ptr<IObject> object) {
    object->GetSysState().SetLastTouchedTime(g_touchClock.load(std::memory_order_relaxed));
}

// Evicts every evictable dependency-graph node of the domain, which its caller has locked exclusively.
QX_API void EvictAllDgsNodes(CSpace* cs);

// --- Figures --------------------------------------------------------------------------------------------------------

struct CSpaceGcStats {
    int64 collections = 0;
    int64 lastPauseMicros = 0; // from having the lock to giving it back
    int64 longestPauseMicros = 0;
    ssize_t objectsMarked = 0;  // by the last collection
    int64 objectsReclaimed = 0; // in all, the evicted included
    int64 objectsEvicted = 0;   // in all: clean objects that evictable pointers still named
    ssize_t bytesResident = 0;  // sizes of all objects, as told to the evictor
};

struct CSpaceLockStats {
    int64 totalWaits = 0;        // acquisitions that had to wait for another thread
    int64 longestWaitMicros = 0; // of those that have ended
    std::string holder;          // name of the thread that holds the lock, or of the last reader to come
};

QX_API CSpaceGcStats GetGcStats(const CSpace* cs);
QX_API CSpaceLockStats GetLockStats(const CSpace* cs);

} // namespace quna

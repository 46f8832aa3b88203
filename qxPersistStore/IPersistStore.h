// The outer face of the store: what applications and generated code call.
//
// PersistStore, PSpace and PersistStoreTxn are opaque here; each ends by its own Close, which frees it. Every public
// method of theirs is a free function with the object, `_self`, as its first argument.
//
// Locks: "shared" and "exclusive" below name the lock of the space's CSpace that the calling thread must hold
// (OpenPSpaceTxn takes it). A call that says "no lock" waits for the writer or for spaces, so a thread that holds the
// lock of any space must not make it. Misuse is an assertion failure (QunaAssertionError), what an application can
// meet is an IException.
#pragma once

#include "qxLss/Backup.h"
#include "qxLss/EOpenMode.h"
#include "qxLss/ILogStructuredStore.h"
#include "qxObject/CSpace.h"
#include "qxObject/Interface.h"
#include "qxObject/ThreadPtr.h"
#include "qxPersistStore/CID.h"
#include "qxPersistStore/ClassNameTranslation.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/MAsyncBind.h"
#include "qxPersistStore/OID.h"
#include "qxPersistStore/PSpaceLockMode.h"
#include "qxPersistStore/PSpaceTxn.h"
#include "qxPersistStore/PersistStoreSettings.h"
#include "qxPersistStore/ReachablePrefVisitors.h"
#include "qxPersistStore/TypeInfo.h"
#include "qxPersistStore/TypeOpsId.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

class PSpace;
class PersistStore;
class PersistStoreTxn;

// GetThreadPtr<PSpace>() is GetThreadPSpace().
QX_API PSpace* GetThreadPSpace();
QX_API void SetThreadPSpace(PSpace* p);

template <>
struct ThreadPtrTraits<PSpace> {
    static PSpace* Get() { return GetThreadPSpace(); }
    static void Set(PSpace* p) { SetThreadPSpace(p); }
};

class ReflectionByteCodeValue;
struct ReflectedClass;
struct TypeOps;
struct XTarget;

// Records that a store and a space always have, beside the objects.
inline constexpr ssize_t NUM_PERSISTSTORE_SERIAL_ELEMENTS = 2;
inline constexpr ssize_t NUM_PSPACE_SERIAL_ELEMENTS = 2;

// ---- Stores -------------------------------------------------------------------------------------------------------

// Opens or creates the store at lssPath. Throws FileException (missing, in use, no access), CorruptLSSException
// (damaged or no store), QunaSystemException (not an object store). The file is then as it was before.
QX_API PersistStore* OpenPersistStore(ConstStringZ lssPath, EOpenMode openMode, PersistStoreSettings const& settings);

// Stops the threads, closes the file and frees the store. Close its spaces first: they write what is dirty. No lock,
// and no other thread may use the store any more. With a space still open it fails, after the file is closed, on
// "i->second.m_ptr == __null".
QX_API void Close(PersistStore* _self);
QX_API bool CreatedNew(PersistStore const* _self);
QX_API ILogStructuredStore* GetLss(PersistStore* _self);
// Starts the writer thread if it is not running.
QX_API void StartObjectDeletion(PersistStore* _self);
// Writes every dirty space now, each group in a transaction of its own. With flushToDisk everything closed so far is
// on disk when it returns. Does nothing until the writer has been started. No lock.
QX_API void WriteAllDirtyObjectsToLss(PersistStore* _self, bool flushToDisk);
QX_API PersistStoreTxn* OpenTxn(PersistStore* _self, PSpaceLockMode* L, ssize_t n);
// The writer's period in milliseconds. Any thread.
QX_API int32 GetDosPeriod(PersistStore const* _self);
QX_API void SetDosPeriod(PersistStore* _self, int32 time);
// Spaces that the store has, open or not.
QX_API ssize_t GetNumPSpaces(PersistStore const* _self);
// Objects in the file, after writing what is dirty. Requires the writer to have been started. No lock.
QX_API ssize_t GetNumPersistableObjects(PersistStore const* _self);
QX_API TypeOpsId GetTypeOpsId(PersistStore* _self, ReflectionByteCodeValue const& rbcv, TypeOps const& typeOps);
QX_API BcTypeOps GetTypeOps(PersistStore* _self, TypeOpsId tid);
// Traces a warning and clears what Enabled answers; writing goes on.
QX_API void Disable(PersistStore* _self);
QX_API bool Enabled(PersistStore const* _self);

// Copies the store to a file of its own at `path`, while everything goes on. The copy holds what the writer has written:
// whole groups, all that were closed before the call and perhaps later ones. What is only changed in memory is not in it;
// WriteAllDirtyObjectsToLss before the call has that written first. Options, result, progress and exceptions are those of
// ILogStructuredStore::Backup. The caller's thread does the work, as long as it takes; a lock is not needed, and one that
// the thread holds would be held all the time.
QX_API BackupResult Backup(PersistStore* _self, ConstStringZ path, BackupOptions const& options);
// The same into a file as small as the records allow, written in the order of their identifiers.
QX_API BackupResult CopyCompacted(PersistStore* _self, ConstStringZ path, BackupOptions const& options);

// ---- Transactions -------------------------------------------------------------------------------------------------

// Opens a space in a transaction of its own. The result is open, with no lock held. Throws OpenPSpaceException when
// the mode does not fit. With a CSpace of the caller's the space takes it over and ends it in Close. No lock.
QX_API PSpace* OpenPSpace(PersistStore* ps, ConstStringZ name, EOpenMode openMode, CSpace* cspace);
// Locks the thread's current space (or plain CSpace; the result is then null) and opens a transaction on it.
QX_API PersistStoreTxn* OpenPSpaceTxn(ECSpaceLockMode mode);
// Closes what OpenPSpaceTxn opened and unlocks.
QX_API void ClosePSpaceTxn(PersistStoreTxn* txn);
// Asserts that the thread holds the locks that the members name.
QX_API void AssertHaveCSpaceLocks(PSpaceLockMode* L, ssize_t n);

QX_API void Close(PersistStoreTxn* _self);
QX_API PersistStore* GetPersistStore(PersistStoreTxn const* _self);
// The space stays locked exclusively until the transaction closes, and joins its group.
QX_API PSpace* OpenPSpace(PersistStoreTxn* _self, ConstStringZ name, EOpenMode openMode, CSpace* cspace);
// Moves all objects of src into dst; src's roots are dropped. Both exclusive.
QX_API void TransferPSpace(PersistStoreTxn* _self, PSpace* dst, PSpace* src);
// Always fails: a space cannot be removed.
QX_API bool DestroyPSpace(PersistStoreTxn* _self, ConstStringZ name);

// ---- Spaces -------------------------------------------------------------------------------------------------------

// Writes the space with its group, ends its CSpace and frees it. No lock.
QX_API void Close(PSpace* _self);
QX_API bool CreatedNew(PSpace const* _self);
QX_API CSpace* GetCSpace(PSpace const* _self);
QX_API PersistStore* GetPersistStore(PSpace const* _self);
QX_API ConstStringZ GetName(PSpace const* _self);
// Writes the space with its group now. No lock.
QX_API void WriteDirtyObjectsToLss(PSpace* _self, bool flushToDisk);
QX_API void MarkPersistableAsDirtyWithoutTrace(PSpace* _self, ptr<const IPersistable> po);
// The object, loaded if need be: DerefDanglingOidException when there is none. Shared.
QX_API ptr<IPersistable> BindObject(PSpace* _self, OID oid);
// The same without loading: null when it is not in memory.
QX_API ptr<IPersistable> BindObjectIfMemoryResident(PSpace* _self, OID oid);
// The same as BindObject with null for the exception.
QX_API ptr<IPersistable> TryBindObject(PSpace* _self, OID oid);
QX_API void MakeMemoryResident(PSpace* _self, OID oid);
QX_API MAsyncBind AsyncBind2(PSpace* _self, OID oid);
QX_API ptr<IPersistable> AsyncBind(PSpace* _self, OID oid);
QX_API ptr<IAsyncBindRequestHandler> GetAsyncBindRequestHandler(PSpace const* _self);
QX_API void SetAsyncBindRequestHandler(PSpace* _self, ptr<IAsyncBindRequestHandler> h);
QX_API void DeclareObjectDoesNotExist(PSpace* _self, OID oid);
// Gives the object an OID near affiliateOidLow. Exclusive.
QX_API void MakeObjectPersist(PSpace* _self, SeidLow affiliateOidLow, ptr<IPersistable> po);
QX_API OID AllocateOid(PSpace* _self, OidHigh oidHigh, bool useIncrementalOidAllocations);
QX_API OidHigh GetOidHighForOidAllocations(PSpace const* _self);
QX_API void SetOidHighForOidAllocations(PSpace* _self, OidHigh oidHigh, bool useIncrementalOidAllocations);
// False, with nothing changed, when another object is resident under the OID. Exclusive.
QX_API bool MakeObjectPersistWithGivenOID(PSpace* _self, ptr<IPersistable> po, OID oid, bool trace);
QX_API void DeclareReachable(PSpace* _self, ptr<const IPersistable> parent, ptr<const IPersistable> child, bool trace);
QX_API void MakeReachableObjectsPersist(PSpace* _self, ptr<IPersistable> po);
QX_API ptr<IPersistable> GetRoot(PSpace* _self, ConstStringZ name);
QX_API bool AddRoot(PSpace* _self, ConstStringZ name, ptr<IPersistable> root);
QX_API bool RemoveRoot(PSpace* _self, ConstStringZ name);
QX_API void AsyncPermanentlyDeleteSubTree(PSpace* _self, ptr<IPersistable> obj);
QX_API void AsyncPermanentlyDeleteObject(PSpace* _self, ptr<IPersistable> obj);
QX_API void SyncPermanentlyDeleteSubTree(PSpace* _self, ptr<IPersistable> obj);
QX_API void SyncPermanentlyDeleteObject(PSpace* _self, ptr<IPersistable> obj);

// ---- The thread's current space -----------------------------------------------------------------------------------

// GetThreadPSpace and SetThreadPSpace, declared above, read and set it. They go in a pair with GetThreadCSpace and
// SetThreadCSpace: set the space first, and restore in reverse order.

// The root of that name, null when there is none. The thread's space must be set: nothing checks it. Shared.
QX_API ptr<IPersistable> GetPSpaceRoot(ConstStringZ name);
// Names a new, transient object, and makes it and all that it reaches persistent. False when the name is taken; the
// object is then untouched. Exclusive.
QX_API bool AddPSpaceRoot(ConstStringZ name, ptr<IPersistable> root);
// Forgets the name; the object stays. False when there is no such name. Exclusive.
QX_API bool RemovePSpaceRoot(ConstStringZ name);

// Gets the named root or makes one of class rc, and keeps it in memory for the life of the space. Null when the root
// is of another class. The first form takes the lock itself; the second is called under an exclusive lock and does
// not keep the root in memory.
QX_API void* BootstrapPSpaceRoot(ReflectedClass const& rc, ConstStringZ name);
QX_API void* BootstrapPSpaceRoot2(ReflectedClass const& rc, ConstStringZ name);

// ---- The object's own space: quietly nothing for an object outside any space --------------------------------------

// A new child of a persistent parent becomes persistent, near it; with trace, also all that it reaches. Exclusive.
QX_API void DeclareReachable(ptr<const IPersistable> parent, ptr<const IPersistable> child, bool trace);
QX_API void AsyncPermanentlyDeleteSubTree(ptr<IPersistable> obj);
QX_API void AsyncPermanentlyDeleteObject(ptr<IPersistable> obj);
QX_API void SyncPermanentlyDeleteSubTree(ptr<IPersistable> obj);
QX_API void SyncPermanentlyDeleteObject(ptr<IPersistable> obj);

// ---- Copying ------------------------------------------------------------------------------------------------------

// A new, transient copy of the object and of everything that it owns: what its VisitPrefs reports, and so on, every child
// loaded if need be. The copies belong to the thread's current domain and are reached from nothing yet: attach the result,
// or keep it with AddGcRoot, before the lock is released. Shared, if the thread's domain is the space's.
//
// Null when a class among them has no copy constructor in its record. A reference to a parent (VisitParentPref) ends up at
// the parent's copy; the object's own stays what its copy constructor made it. A child that is reached twice is copied
// twice. A child that is no subtree fails "po->RepresentsSubTree()", an object that owns itself "!ownsItself"; after an
// exception the collector takes what has been made.
//
// The memory is that of the plain operator new: a class with an operator new of its own, or with more than its alignment,
// can't be copied so.
QX_API ptr<IPersistable> SynchronousDeepCopyPersistableObject(ptr<IPersistable> po);

// ---- Look-ups: no lock needed -------------------------------------------------------------------------------------

QX_API PSpace* GetAssociatedPSpace(ptr<const IObject> po);
QX_API PSpace* GetPSpaceOfCSpace(CSpace* cs);
QX_API PersistStore* GetAssociatedPersistStore(ptr<const IObject> po);
QX_API ILogStructuredStore* GetAssociatedLss(ptr<const IObject> po);
// True when both are known and differ: an object outside any space never counts as different.
// ObjectsBelongToDifferentCSpaces stands in qxObject/CSpace.h.
QX_API bool ObjectsBelongToDifferentPSpaces(ptr<const IObject> po1, ptr<const IObject> po2);
QX_API bool ObjectsBelongToDifferentPersistStores(ptr<const IObject> po1, ptr<const IObject> po2);

// ---- Checks of the thread's context -------------------------------------------------------------------------------

QX_API void AssertSetTls();
QX_API void AssertSetTlsForPSpaceObject(ptr<const IPersistable> p);
QX_API bool HaveExclusiveLockedPSpace();
QX_API bool HaveSharedReadLockedPSpace();
QX_API bool HaveLockedPSpace();
QX_API bool HaveExclusiveLockedPSpace(ptr<const IPersistable> p);
QX_API bool HaveSharedReadLockedPSpace(ptr<const IPersistable> p);
QX_API bool HaveLockedPSpace(ptr<const IPersistable> p);

// ---- Sizes --------------------------------------------------------------------------------------------------------

// The bytes of the object's body, by serialising it into nowhere. Shared.
QX_API ssize_t MeasurePersistableObjectSize(ptr<const IPersistable> po);
// Tells the evictor the bytes that the object stands for.
QX_API void SetPersistableSizeForGCEvictor(ptr<const IPersistable> po, ssize_t size);

} // namespace quna

// ---- The library ----------------------------------------------------------------------------------------------------

// Registers the library's types; call it once, from one thread, before the first store is opened. Further calls do
// nothing.
extern "C" QX_API void Register_Project_qxPersistStore();
extern "C" QX_API void Unregister_Project_qxPersistStore();

namespace quna {

using ::Register_Project_qxPersistStore;
using ::Unregister_Project_qxPersistStore;

QX_API XTarget* Quna_Core_qxPersistStore_GetXTarget();

} // namespace quna

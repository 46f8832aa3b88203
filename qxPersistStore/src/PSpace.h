// A named unit of persistent objects, paired with one CSpace.
#pragma once

#include "qxLss/EOpenMode.h"
#include "qxObject/CSpace.h"
#include "qxObject/IObject.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/src/DOS.h"
#include "qxPersistStore/src/DeletionQueue.h"
#include "qxPersistStore/src/PSpaceRoots.h"
#include "qxPersistStore/src/ROT.h"
#include "qxUtils/DoubleLinkedList.h"
#include "qxUtils/Export.h"
#include "qxUtils/xstring.h"

namespace quna {

class PSpaceRoot;

// Gives objects identity, binds and loads them by it, keeps the names of roots, and knows what changed.
//
// Ownership: made by PSpaceMap only, ends by Close. Owns its CSpace, also one that the caller gave. The objects belong
//   to the CSpace.
// Threads: under the CSpace lock, in the mode that each operation asserts ("HaveWriteAccess()" exclusive,
//   "HaveReadOrWriteAccess()" any). Close runs with no lock held.
class QX_API PSpace : public IObjectBaseMixin<PSpace, EmptyBase> {
public:
    PSpace(PersistStore& ps, ConstStringZ name, OID oid, bool creating, CSpace* cspace);
    PSpace(const PSpace&) = delete;
    PSpace& operator=(const PSpace&) = delete;
    ~PSpace() noexcept(false) override;

    void Close();
    void Transfer(PSpace& src);

    bool CreatedNew() const { return createdNew_; }
    CSpace* GetCSpace() const { return m_cspace; }
    PersistStore* GetPersistStore() const { return &m_ps; }
    ConstStringZ GetName() const { return m_name.c_str(); }
    bool HaveReadOrWriteAccess() const { return GetRecordedLockStatus(m_cspace) != 0; }
    bool HaveWriteAccess() const { return GetRecordedLockStatus(m_cspace) > 0; }

    ptr<IPersistable> GetRoot(ConstStringZ name);
    bool AddRoot(ConstStringZ name, ptr<IPersistable> root);
    bool RemoveRoot(ConstStringZ name);

    ptr<IPersistable> BindObject(OID oid);
    ptr<IPersistable> TryBindObject(OID oid);
    ptr<IPersistable> BindObjectIfMemoryResident(OID oid);
    void MakeMemoryResident(OID oid);
    ptr<IPersistable> AsyncBind(OID oid);
    MAsyncBind AsyncBind2(OID oid);
    ptr<IAsyncBindRequestHandler> GetAsyncBindRequestHandler() const;
    void SetAsyncBindRequestHandler(ptr<IAsyncBindRequestHandler> h);
    void DeclareObjectDoesNotExist(OID oid);
    ptr<IPersistable> AlwaysLoadPOGivenOid(OID oid);
    ptr<IPersistable> TryLoadPOGivenOid(OID oid);

    void MakeObjectPersist(ptr<IPersistable> po, bool trace);
    void MakeObjectPersist(SeidLow affiliateOidLow, ptr<IPersistable> po);
    bool MakeObjectPersistWithGivenOID(ptr<IPersistable> po, OID oid, bool trace);
    void MakeReachableObjectsPersist(ptr<IPersistable> po);
    void DeclareReachable(ptr<const IPersistable> parent, ptr<const IPersistable> child, bool trace);
    OID AllocateOid(OidHigh oidHigh, bool useIncrementalOidAllocations);
    OidHigh GetOidHighForOidAllocations() const;
    void SetOidHighForOidAllocations(OidHigh oidHigh, bool useIncrementalOidAllocations);
    void SetAffiliateOidLow(SeidLow affiliateOidLow) { m_affiliateOidLow = affiliateOidLow; }

    void MarkPersistableAsDirtyWithoutTrace(ptr<const IPersistable> po);
    void AddPOToDirtyObjectSet(ptr<const IPersistable> po);
    bool HaveChangesToWriteToLss() const { return m_dos.HaveChangesToWriteToLss(); }
    // Writes the space with its group on the calling thread, which holds no CSpace lock.
    void WriteDirtyObjectsToLss(bool flushToDisk);
    // The space's own part of a group write.
    void WriteDirtyObjectsToLss(ILssTransaction& txn);
    void WriteDQToLssIfDirty(ILssTransaction& txn) { m_dq.WriteDQToLssIfDirty(m_roots.m_dqOid, this, txn); }
    DeletionQueue& GetDQ() { return m_dq; }

    void AsyncPermanentlyDeleteSubTree(ptr<IPersistable> obj);
    void AsyncPermanentlyDeleteObject(ptr<IPersistable> obj);
    void SyncPermanentlyDeleteSubTree(ptr<IPersistable> po);
    void SyncPermanentlyDeleteObject(ptr<IPersistable> po);

    // Called by the collector, under its exclusive lock, for an object that it is about to free.
    void OnGarbageCollectPersistable(ptr<IPersistable> po);
    void VisitObjects(IObjectVisitor& v) const;

    PersistStoreTxn* txn_ = nullptr; // begun by the operation hooks
    PersistStore& m_ps;
    ptr<IAsyncBindRequestHandler> asyncBindRequestHandler_;
    PSpaceRoots m_roots;
    DeletionQueue m_dq;
    xstring m_name;
    ROT rot_;
    bool m_useIncrementalOidAllocations = false;
    bool createdNew_;
    OidHigh m_oidHighForOidAllocations; // high half of new OIDs
    SeidLow m_affiliateOidLow;          // hint for the next allocation; sticky
    bool m_ensureCommitted = false;     // the map names this space; changed under DosWriter::mutex_ and the CSpace lock
    PSpaceDos m_dos;
    CSpace* m_cspace;              // null after Close
    PSpace* m_nextInTxnGrp = this; // ring; guarded by the group manager's mutex, like m_inGrp
    bool m_inGrp = false;
    ListPtrs<PSpace> m_DirtyPSpaceListPtrs;
    ListPtrs<PSpace> m_NedqListPtrs;

private:
    bool TakeIdentity(ptr<IPersistable> po, OID oid, bool trace);
    bool IsOfOwnSpace(OID oid) const;
    void OpenInGivenCSpace(bool creating);
    void OpenInOwnCSpace(bool creating);
    void PrepareOwnCSpace(bool creating);
    void LoadOrCreate(bool creating);
    PSpaceRoot* CreatePSpaceRoot();
    void RunCollector(CSpace* cs);
    void EndAsyncBinds();
    void MarkAsDirtyWhereAnythingIsUnwritten();
};

// What stands in the slot of a CSpace whose space failed to open: not null, and no space.
void* FailedPSpaceMark();

QX_API const ReflectedClass& _GetReflected(const PSpace*);

} // namespace quna

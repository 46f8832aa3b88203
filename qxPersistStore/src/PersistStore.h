// One open store.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/src/AsyncObjectLoader.h"
#include "qxPersistStore/src/DosWriter.h"
#include "qxPersistStore/src/PSpaceMap.h"
#include "qxPersistStore/src/RootPersistStoreObject.h"
#include "qxUtils/Export.h"

#include <atomic>
#include <functional>

namespace quna {

// Opens or creates the file of a store, and says which.
using LssOpener = std::function<ILogStructuredStore*(bool& createdNew)>;

// The open log-structured store with all that gives it meaning as an object store: the root record, the directory of
// spaces, the writer and the threads of asynchronous binding.
//
// Ownership: ends by Close, which frees it. Owns the LSS. Spaces are closed before it.
// Threads: construction, StartObjectDeletion and Close by one thread, alone. Everything else guards itself.
class QX_API PersistStore {
public:
    PersistStore(LssOpener const& openLss, PersistStoreSettings const& settings);
    PersistStore(const PersistStore&) = delete;
    PersistStore& operator=(const PersistStore&) = delete;

    void Close();

    bool CreatedNew() const { return createdNew_; }
    ILogStructuredStore* GetLss() { return m_lss; }
    void StartObjectDeletion();
    void WriteAllDirtyObjectsToLss(bool flushToDisk);
    int32 GetDosPeriod() const;
    void SetDosPeriod(int32 time);
    ssize_t GetNumPSpaces() const { return m_spaceMap.GetNumPSpaces(); }
    ssize_t GetNumPersistableObjects() const;
    // Traces a warning. The flag is for the application: nothing here consults it.
    void Disable();
    bool Enabled() const { return m_enableApplyingChangesToLSS.load(std::memory_order_relaxed); }
    void FlowControlDataProducer() {}

    PSpace* OpenPSpace(ConstStringZ name, EOpenMode openMode, CSpace* cspace);
    PersistStoreTxn* OpenTxn(PSpaceLockMode* L, ssize_t n);

    OID AllocateOid(SeidHigh seidHigh) { return m_lss->AllocateSeid(seidHigh); }
    OID AllocateAffiliateOid(SeidLow affiliateOidLow);
    OID AllocateAffiliateOid(SeidHigh oidHigh, SeidLow affiliateOidLow);
    OidHigh GetOidHighForOidAllocations() const { return m_rootObject.m_oidHighForOidAllocations; }
    // Does the store keep a record of its own under the identifier: its root, the map of spaces, a space's roots or queue?
    bool IsOwnRecord(OID oid);
    PSpaceTxnGroupMgr& GetPSpaceTxnGroupMgr() { return m_dosWriter.m_grpMgr; }
    void WriteRootObjectIfDirty(ILssTransaction& txn) const { m_rootObject.WriteIfDirty(txn); }

    TypeOpsId GetTypeOpsId(ReflectionByteCodeValue const& rbcv, TypeOps const& ops);
    BcTypeOps GetTypeOps(TypeOpsId tid);

    // ---- Object records: CID (variable length), then what the object's Serialise writes ----

    CID GetCid(ReflectedClass const& rc);
    ReflectedClass const& GetReflectedClass(CID cid);
    void DynCreateSerialise(Archive& ar, ptr<const IPersistable> po);
    // Makes the object of a record. It has its OID before its Deserialise runs. With registerInCSpace it belongs to
    // the thread's CSpace, also when an exception is thrown.
    void DynCreateDeserialise(InputArchive ar_begin, InputArchive ar_end, ptr<IPersistable>& po, OID oid,
                              bool registerInCSpace);
    // A new instance at every call: keeping one object an OID is the ROT's business. Null when there is no record.
    ptr<IPersistable> TryLoadPOGivenOid(OID oid);
    ptr<IPersistable> AlwaysLoadPOGivenOid(OID oid);

    // In this order: the threads below use what stands above them.
    bool createdNew_ = false;
    std::atomic<bool> m_startedDosWriter = false;
    ILogStructuredStore* m_lss = nullptr; // owned, ended by Close
    std::atomic<bool> m_enableApplyingChangesToLSS = true;
    RootPersistStoreObject m_rootObject;
    PSpaceMap m_spaceMap;
    DosWriter m_dosWriter;
    AsyncLoadThread asyncLoadThread_;
    AsyncUpdateRotThread asyncUpdateRotThread_;

private:
    ~PersistStore() noexcept(false) = default; // by Close

    void LayDownFixedRecords();
    void ReadFixedRecords(ClassNameTranslationTable const* table);
    void StartThreads(bool startObjectDeletion);
    void StopThreads();
};

// OpenPersistStore over a log-structured store of the caller's, which the store then owns. Of the settings those of the
// log-structured store and the directory of the archive don't count.
QX_API PersistStore* OpenPersistStoreForTest(LssOpener const& openLss, PersistStoreSettings const& settings);

QX_API const ReflectedClass& _GetReflected(const PersistStore*);

} // namespace quna

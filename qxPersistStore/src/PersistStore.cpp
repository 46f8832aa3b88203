#include "qxPersistStore/src/PersistStore.h"

#include "qxPersistStore/src/PersistStoreTxn.h"
#include "qxUtils/Assert.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Tracer.h"

#include <exception>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/PersistStore";

thread_local constinit PSpace* tls_currentPSpace = nullptr;

} // namespace

PSpace* GetThreadPSpace() { return tls_currentPSpace; }
void SetThreadPSpace(PSpace* p) { tls_currentPSpace = p; }

PersistStore* OpenPersistStore(ConstStringZ lssPath, EOpenMode openMode, PersistStoreSettings const& settings) {
    const auto openLss = [&](bool& createdNew) {
        return CreateOrOpenLSS(lssPath, settings.deltasDirPath, createdNew, openMode, settings.lssSettings);
    };
    return new PersistStore(openLss, settings);
}

PersistStore* OpenPersistStoreForTest(LssOpener const& openLss, PersistStoreSettings const& settings) {
    return new PersistStore(openLss, settings);
}

PersistStore::PersistStore(LssOpener const& openLss, PersistStoreSettings const& settings)
    : m_spaceMap(*this), m_dosWriter(*this) {
    m_lss = openLss(createdNew_);
    try {
        if (createdNew_)
            LayDownFixedRecords();
        else
            ReadFixedRecords(settings.translationTable);
        StartThreads(settings.startObjectDeletion);
    } catch (...) {
        // As after a kill: nothing is written, the threads end and the file's lock is given back, so that this process
        // can try again.
        StopThreads();
        m_lss->Abandon();
        throw;
    }
}

// The LSS is not asked for these identifiers by value: a new one must hand out exactly these.
void PersistStore::LayDownFixedRecords() {
    m_rootObject.m_oidHighForOidAllocations = m_lss->AllocateSeidHigh();
    QX_ASSERT(m_rootObject.m_oidHighForOidAllocations == ROOT_SEID.high_);
    const Seid rootObjectOid = m_lss->AllocateSeid(m_rootObject.m_oidHighForOidAllocations);
    QX_ASSERT(rootObjectOid == ROOT_PERSISTSTORE_OBJECT_SEID);
    const Seid PSpaceMapOid = m_lss->AllocateSeid(m_rootObject.m_oidHighForOidAllocations);
    QX_ASSERT(PSpaceMapOid == PSPACEMAP_SEID);
    AutoCloser<ILssTransaction> txn(m_lss->OpenTransaction());
    m_rootObject.m_dirty.store(true, std::memory_order_relaxed);
    WriteRootObjectIfDirty(*txn);
    m_spaceMap.WriteIfDirty(*txn);
    txn.Close();
}

void PersistStore::ReadFixedRecords(ClassNameTranslationTable const* table) {
    m_rootObject.Read(*m_lss, table);
    m_spaceMap.Read(*m_lss);
}

void PersistStore::StartThreads(bool startObjectDeletion) {
    asyncLoadThread_.Start();
    asyncUpdateRotThread_.Start();
    if (startObjectDeletion) StartObjectDeletion();
}

void PersistStore::StopThreads() {
    if (m_startedDosWriter.load(std::memory_order_relaxed)) m_dosWriter.Stop();
    asyncLoadThread_.Stop();
    asyncUpdateRotThread_.Stop();
}

void PersistStore::Close() {
    StopThreads();
    m_lss->Close();
    try {
        m_spaceMap.AssertAllClosed();
    } catch (...) {
        m_dosWriter.ForgetSpaces();
        delete this;
        throw;
    }
    delete this;
}

void PersistStore::StartObjectDeletion() {
    if (m_startedDosWriter.load(std::memory_order_relaxed)) return;
    m_dosWriter.Start();
    m_startedDosWriter.store(true, std::memory_order_relaxed);
}

void PersistStore::WriteAllDirtyObjectsToLss(bool flushToDisk) {
    if (!m_startedDosWriter.load(std::memory_order_relaxed)) return;
    m_dosWriter.ProcessAllGroups(flushToDisk);
}

int32 PersistStore::GetDosPeriod() const { return m_dosWriter.GetSleepTime(); }

void PersistStore::SetDosPeriod(int32 time) {
    // In this order: a writer that wakes on the signal may read the old period for one more sleep.
    m_dosWriter.SignalWriteDirtyObjectSet();
    m_dosWriter.SetSleepTime(time);
}

ssize_t PersistStore::GetNumPersistableObjects() const {
    QX_ASSERT(m_startedDosWriter);
    const_cast<PersistStore*>(this)->WriteAllDirtyObjectsToLss(false);
    QX_ASSERT(m_lss);
    LssStats stats;
    m_lss->GetStats(stats);
    return ssize_t{stats.numLiveHeadPackets} - NUM_PERSISTSTORE_SERIAL_ELEMENTS -
           NUM_PSPACE_SERIAL_ELEMENTS * GetNumPSpaces();
}

void PersistStore::Disable() {
    TracerX() << "PS: *** There are dirty objects so disabling writing of objects to disk\n";
    m_enableApplyingChangesToLSS.store(false, std::memory_order_relaxed);
}

PSpace* PersistStore::OpenPSpace(ConstStringZ name, EOpenMode openMode, CSpace* cspace) {
    return m_spaceMap.OpenPSpace(*m_lss, m_rootObject.m_oidHighForOidAllocations, name, openMode, cspace);
}

PersistStoreTxn* PersistStore::OpenTxn(PSpaceLockMode* L, ssize_t n) { return new PersistStoreTxn(this, L, n); }

OID PersistStore::AllocateAffiliateOid(SeidLow affiliateOidLow) {
    Seid seid(affiliateOidLow, m_rootObject.m_oidHighForOidAllocations);
    QX_ASSERT(m_lss->AllocateAffiliateSeid(seid));
    return seid;
}

OID PersistStore::AllocateAffiliateOid(SeidHigh oidHigh, SeidLow affiliateOidLow) {
    Seid seid(affiliateOidLow, oidHigh);
    QX_ASSERT(m_lss->AllocateAffiliateSeid(seid));
    QX_ASSERT(seid.high_ == oidHigh);
    return seid;
}

bool PersistStore::IsOwnRecord(OID oid) {
    return oid == ROOT_PERSISTSTORE_OBJECT_SEID || oid == PSPACEMAP_SEID || m_spaceMap.HasRecord(*m_lss, oid);
}

TypeOpsId PersistStore::GetTypeOpsId(ReflectionByteCodeValue const& rbcv, TypeOps const& ops) {
    return m_rootObject.m_typeOpsMap.GetTypeOpsId(rbcv, ops, m_rootObject.m_dirty);
}

BcTypeOps PersistStore::GetTypeOps(TypeOpsId tid) { return m_rootObject.m_typeOpsMap.GetTypeOps(tid); }

} // namespace quna

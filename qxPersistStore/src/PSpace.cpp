#include "qxPersistStore/src/PSpace.h"

#include "qxObject/PrintInstance.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PSpaceRoot.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Tracer.h"

#include <cstring>
#include <exception>
#include <vector>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/PSpace";
constexpr int MILLISECS_PER_GC = 2000; // of a CSpace that the space made itself

// Collects the transient targets of an object's references, in visiting order.
class TransientChildrenVisitor : public IPrefVisitor {
public:
    void VisitPref(const prefbase& pref) override {
        const ptr<IPersistable> po = pref.GetTransient();
        if (!po) return;
        QX_ASSERT(!GetOid(po));
        m_children.push_back(po);
    }
    void VisitParentPref(const prefbase&) override {}

    std::vector<ptr<IPersistable>> m_children;
};

// A persistable object as its interface allows changing it. The store's interface passes parents and children as
// const, since attaching an object changes its system state only.
ptr<IPersistable> Mutable(ptr<const IPersistable> po) { return {const_cast<void*>(po.m_self), po.m_table}; }

// When the construction of a space fails, its CSpace lives on, with objects that look for their space: the slot stays
// taken, by a mark that stands for no space, and the root visits nothing.
class ConstructionGuard {
public:
    explicit ConstructionGuard(CSpace* cspace) : m_cspace(cspace) {}
    ConstructionGuard(const ConstructionGuard&) = delete;
    ConstructionGuard& operator=(const ConstructionGuard&) = delete;
    ~ConstructionGuard() {
        if (!m_cspace) return;
        GetPtrSlotArray(m_cspace)[PTR_SLOT_PSpace] = FailedPSpaceMark();
        if (m_root) m_root->Detach();
    }
    void SetRoot(PSpaceRoot* root) { m_root = root; }
    void Release() { m_cspace = nullptr; }

private:
    CSpace* m_cspace;
    PSpaceRoot* m_root = nullptr;
};

} // namespace

// ---- Life -----------------------------------------------------------------------------------------------------------

PSpace::PSpace(PersistStore& ps, ConstStringZ name, OID oid, bool creating, CSpace* cspace)
    : m_ps(ps), m_roots(oid, creating), m_dq(creating), m_name(name), rot_(*this), createdNew_(creating),
      m_oidHighForOidAllocations(ps.m_rootObject.m_oidHighForOidAllocations), m_affiliateOidLow(oid.low_), m_dos(*this),
      m_cspace(cspace) {
    QX_ASSERT(strlen(name) > 0);
    if (m_cspace)
        OpenInGivenCSpace(creating);
    else
        OpenInOwnCSpace(creating);
}

void PSpace::OpenInGivenCSpace(bool creating) {
    const ThreadPSpaceScope pair(this, m_cspace);
    const CSpaceLock lock(m_cspace, Exclusive); // the CSpace may have objects and a collector, which look at the slot
    QX_ASSERT(!GetPtrSlot(m_cspace,PTR_SLOT_PSpace));
    ConstructionGuard guard(m_cspace);
    GetPtrSlotArray(m_cspace)[PTR_SLOT_PSpace] = this;
    guard.SetRoot(CreatePSpaceRoot());
    LoadOrCreate(creating);
    guard.Release();
}

void PSpace::OpenInOwnCSpace(bool creating) {
    GCThreadFn collector;
    collector.m_self = this;
    collector.m_stubFn = [](void* self, CSpace* cs) { static_cast<PSpace*>(self)->RunCollector(cs); };
    m_cspace = CreateCSpace(QUNA_GC_THREAD_DONT_START, collector);
    QX_ASSERT(m_cspace);
    try {
        PrepareOwnCSpace(creating);
    } catch (...) {
        quna::Destroy(m_cspace); // nobody else knows it
        throw;
    }
}

void PSpace::PrepareOwnCSpace(bool creating) {
    ConstructionGuard guard(m_cspace);
    GetPtrSlotArray(m_cspace)[PTR_SLOT_PSpace] = this;
    SetMilliSecsPerGc(m_cspace, MILLISECS_PER_GC);
    const ThreadPSpaceScope pair(this, m_cspace);
    const CSpacePseudoLock lock(m_cspace, Exclusive); // nobody else can know this CSpace yet
    QX_ASSERT(HaveExclusiveLockedCSpace());
    guard.SetRoot(CreatePSpaceRoot());
    LoadOrCreate(creating);
    StartGc(m_cspace);
    guard.Release();
}

PSpaceRoot* PSpace::CreatePSpaceRoot() {
    auto* root = new PSpaceRoot(*this);
    try {
        RegisterDomainObject(m_cspace, ptr<IObject>(root)); // registered, and a root that no transfer takes along
    } catch (...) {
        delete root;
        throw;
    }
    return root;
}

void PSpace::LoadOrCreate(bool creating) {
    ILogStructuredStore* m_lss = m_ps.GetLss();
    if (!creating) {
        m_roots.ReadFromLss(m_lss);
        m_dq.ReadFromLss(m_lss, m_roots.m_dqOid);
        return;
    }
    QX_ASSERT(!m_roots.m_dqOid);
    Seid seid(m_affiliateOidLow, m_ps.m_rootObject.m_oidHighForOidAllocations);
    QX_ASSERT(m_lss->AllocateAffiliateSeid(seid));
    m_roots.m_dqOid = seid;
}

void PSpace::RunCollector(CSpace* cs) {
    QX_ASSERT(cs == m_cspace);
    const ThreadPSpaceScope pair(this, cs);
    while (WaitForGarbageCollect(cs)) SynchronousGc(cs);
}

void PSpace::Close() {
    QX_ASSERT(m_cspace);
    QX_ASSERT(!HaveLock(m_cspace));
    ThreadPSpaceScope pair(this, m_cspace);
    EndAsyncBinds();
    m_ps.m_dosWriter.OnClosePSpace(this);
    QX_ASSERT(!HaveChangesToWriteToLss());
    QX_ASSERT(m_nextInTxnGrp == this);
    QX_ASSERT(m_inGrp == false);
    // An object that fails to go must not leave the space half closed: its CSpace is gone either way.
    std::exception_ptr failure;
    try {
        quna::Destroy(m_cspace);
    } catch (...) {
        failure = std::current_exception();
    }
    pair.Forget(this, m_cspace);
    m_cspace = nullptr;
    m_ps.m_spaceMap.RemovePSpace(this);
    delete this; // the pair is restored after it, from copies of its own
    if (failure) std::rethrow_exception(failure);
}

// The end of a placeholder runs code of the application, which may ask for another object: then there is one more to
// evict. The lock is given up in between, since the update thread needs it for the jobs that hold the last references.
void PSpace::EndAsyncBinds() {
    constexpr uint32 MILLISECS_UNTIL_NEXT_LOOK = 20;
    do {
        const CSpaceLock lock(m_cspace, Exclusive);
        EvictAllDgsNodes(m_cspace);
    } while (!rot_.WaitForPlaceholders(MILLISECS_UNTIL_NEXT_LOOK));
    rot_.Close();
    // Last: what the application did at the end of a request counts.
    const CSpaceLock lock(m_cspace, Exclusive);
    MarkAsDirtyWhereAnythingIsUnwritten();
}

// Changes that mark nothing themselves, such as a request for a deletion, or a new space without objects, must not be
// lost by an orderly close. Requires the exclusive lock.
void PSpace::MarkAsDirtyWhereAnythingIsUnwritten() {
    const bool uncommitted = createdNew_ && !m_ensureCommitted;
    if (uncommitted || m_roots.m_dirty || m_dq.m_dirty || m_dq.HaveRequests()) m_dos.MarkAsDirty();
}

PSpace::~PSpace() noexcept(false) {
    if (std::uncaught_exceptions() > 0) {
        TracerX() << "PSpace: error : space \"" << m_name << "\" ends while an exception passes\n";
        return;
    }
    QX_ASSERT(!HaveChangesToWriteToLss());
    QX_ASSERT(m_nextInTxnGrp == this);
    QX_ASSERT(m_inGrp == false);
    QX_ASSERT(m_cspace == nullptr);
    QX_ASSERT_TEXT(!m_DirtyPSpaceListPtrs.prev, "!prev");
    QX_ASSERT_TEXT(!m_DirtyPSpaceListPtrs.next, "!next");
    QX_ASSERT_TEXT(!m_NedqListPtrs.prev, "!prev");
    QX_ASSERT_TEXT(!m_NedqListPtrs.next, "!next");
}

void PSpace::Transfer(PSpace& src) {
    QX_ASSERT(&m_ps == &src.m_ps);
    if (&src == this) return;
    EvictAllDgsNodes(src.m_cspace); // a placeholder would go on naming the source
    StopGc(src.m_cspace);
    TransferCSpace(src.m_cspace, m_cspace);
    m_dos.Transfer(src.m_dos);
    rot_.TransferResidentObjects(src.rot_);
    m_dq.Transfer(src.m_dq);
    src.m_roots.Clear();
    // Both records change, and they must change together: an object must not be in both spaces or in neither.
    m_dos.MarkAsDirty();
    src.m_dos.MarkAsDirty();
    m_ps.GetPSpaceTxnGroupMgr().MergeTwoPSpaceTxnGroups(this, &src);
}

// ---- Roots ----------------------------------------------------------------------------------------------------------

ptr<IPersistable> PSpace::GetRoot(ConstStringZ name) {
    QX_ASSERT(HaveReadOrWriteAccess());
    return m_roots.GetRoot(name);
}

bool PSpace::AddRoot(ConstStringZ name, ptr<IPersistable> root) {
    QX_ASSERT(HaveWriteAccess());
    QX_ASSERT(GetAssociatedCSpace(root) == m_cspace);
    return m_roots.AddRoot(this, name, root);
}

bool PSpace::RemoveRoot(ConstStringZ name) {
    QX_ASSERT(HaveWriteAccess());
    if (!m_roots.RemoveRoot(name)) return false;
    m_dos.MarkAsDirty(); // no object changes that would do it
    return true;
}

// ---- Binding --------------------------------------------------------------------------------------------------------

ptr<IPersistable> PSpace::TryBindObject(OID oid) {
    QX_ASSERT(HaveReadOrWriteAccess());
    QX_ASSERT(oid);
    const ptr<IPersistable> po = rot_.FindOrLoadResidentObject(oid);
    return po && !po->GetSysState().GetFlag(PERSISTABLE_DELETED) ? po : null;
}

ptr<IPersistable> PSpace::BindObject(OID oid) {
    const ptr<IPersistable> po = TryBindObject(oid);
    if (!po) throw DerefDanglingOidException(oid);
    return po;
}

ptr<IPersistable> PSpace::BindObjectIfMemoryResident(OID oid) {
    QX_ASSERT(HaveReadOrWriteAccess());
    QX_ASSERT(oid);
    const ptr<IPersistable> po = rot_.FindResidentObject(oid);
    return po && !po->GetSysState().GetFlag(PERSISTABLE_DELETED) ? po : null;
}

void PSpace::MakeMemoryResident(OID oid) { rot_.MakeMemoryResident(oid); }

MAsyncBind PSpace::AsyncBind2(OID oid) {
    QX_ASSERT(oid);
    return rot_.AsyncBind2(oid);
}

ptr<IPersistable> PSpace::AsyncBind(OID oid) {
    QX_ASSERT(oid);
    return rot_.AsyncBind2(oid).po;
}

ptr<IAsyncBindRequestHandler> PSpace::GetAsyncBindRequestHandler() const {
    QX_ASSERT(HaveWriteAccess());
    return asyncBindRequestHandler_;
}

void PSpace::SetAsyncBindRequestHandler(ptr<IAsyncBindRequestHandler> h) {
    QX_ASSERT(HaveWriteAccess());
    asyncBindRequestHandler_ = h;
}

void PSpace::DeclareObjectDoesNotExist(OID) { QX_ASSERT(0); }

ptr<IPersistable> PSpace::AlwaysLoadPOGivenOid(OID oid) { return m_ps.AlwaysLoadPOGivenOid(oid); }

ptr<IPersistable> PSpace::TryLoadPOGivenOid(OID oid) { return m_ps.TryLoadPOGivenOid(oid); }

// ---- Identity -------------------------------------------------------------------------------------------------------

OID PSpace::AllocateOid(OidHigh oidHigh, bool useIncrementalOidAllocations) {
    ILogStructuredStore* m_lss = m_ps.GetLss();
    if (useIncrementalOidAllocations) return m_lss->AllocateSeid(oidHigh);
    Seid seid(m_affiliateOidLow, oidHigh); // a copy: the hint stays
    QX_ASSERT(m_lss->AllocateAffiliateSeid(seid));
    QX_ASSERT(seid.high_ == oidHigh);
    return seid;
}

OidHigh PSpace::GetOidHighForOidAllocations() const {
    QX_ASSERT(m_oidHighForOidAllocations);
    return m_oidHighForOidAllocations;
}

void PSpace::SetOidHighForOidAllocations(OidHigh oidHigh, bool useIncrementalOidAllocations) {
    m_oidHighForOidAllocations = oidHigh;
    m_useIncrementalOidAllocations = useIncrementalOidAllocations;
}

void PSpace::MakeObjectPersist(ptr<IPersistable> po, bool trace) {
    QX_ASSERT(HaveWriteAccess());
    QX_ASSERT(po);
    QX_ASSERT(!GetOid(po));
    const OID oid = AllocateOid(m_oidHighForOidAllocations, m_useIncrementalOidAllocations);
    QX_ASSERT(!rot_.FindResidentObject(oid));
    QX_ASSERT_TEXT(TakeIdentity(po, oid, trace), "MakeObjectPersistWithGivenOID(po,oid,trace)");
}

void PSpace::MakeObjectPersist(SeidLow affiliateOidLow, ptr<IPersistable> po) {
    m_affiliateOidLow = affiliateOidLow;
    MakeObjectPersist(po, false);
}

// The identifier may have come from outside, so it may be any. The store's own records would be written over; and one of
// our own space far beyond what we gave out would spend all that lie between.
bool PSpace::MakeObjectPersistWithGivenOID(ptr<IPersistable> po, OID oid, bool trace) {
    QX_ASSERT(HaveWriteAccess());
    QX_ASSERT(po);
    QX_ASSERT(oid);
    QX_ASSERT(GetAssociatedCSpace(po) == m_cspace);
    QX_ASSERT(!GetOid(po));
    QX_ASSERT(!IsPersistableDirty(po));
    QX_ASSERT(!m_ps.IsOwnRecord(oid));
    QX_ASSERT(!IsOfOwnSpace(oid) || m_ps.GetLss()->IsAllocated(oid));
    return TakeIdentity(po, oid, trace);
}

bool PSpace::IsOfOwnSpace(OID oid) const {
    return oid.high_ == m_oidHighForOidAllocations || oid.high_ == m_ps.GetOidHighForOidAllocations();
}

bool PSpace::TakeIdentity(ptr<IPersistable> po, OID oid, bool trace) {
    QX_ASSERT(GetAssociatedCSpace(po) == m_cspace);
    QX_ASSERT(!IsPersistableDirty(po));
    if (!rot_.AddResidentObject(oid, po)) return false;
    po->GetPersistObjState().m_oid = oid;
    QX_ASSERT(GetOid(po) == oid);
    po->GetSysState().SetFlag(PERSISTABLE_DIRTY);
    try {
        AddPOToDirtyObjectSet(po);
    } catch (...) { // no memory: the object stays transient
        po->GetSysState().ClearFlag(PERSISTABLE_DIRTY);
        po->GetPersistObjState().m_oid = OID();
        rot_.RemoveResidentObject(oid);
        throw;
    }
    if (trace) MakeReachableObjectsPersist(po);
    return true;
}

// Depth first and in pre-order, each child with its whole subtree before the next, on a stack of our own: chains may
// be as long as memory lasts. A child may have become persistent through another path by the time its turn comes.
void PSpace::MakeReachableObjectsPersist(ptr<IPersistable> po) {
    QX_ASSERT(po);
    QX_ASSERT(GetOid(po));
    TransientChildrenVisitor visitor;
    std::vector<ptr<IPersistable>> stack;
    const auto pushChildren = [&](ptr<IPersistable> parent) {
        visitor.m_children.clear();
        parent->VisitPrefs(visitor);
        stack.insert(stack.end(), visitor.m_children.rbegin(), visitor.m_children.rend());
    };
    pushChildren(po);
    while (!stack.empty()) {
        const ptr<IPersistable> child = stack.back();
        stack.pop_back();
        if (GetOid(child)) continue;
        MakeObjectPersist(child, false);
        pushChildren(child);
    }
}

void PSpace::DeclareReachable(ptr<const IPersistable> parent, ptr<const IPersistable> child, bool trace) {
    QX_ASSERT(parent);
    const OID parentOid = GetOid(parent);
    if (!parentOid) return; // the child will be reached when the parent becomes persistent
    QX_ASSERT(HaveWriteAccess());
    if (!child || GetOid(child)) return;
    m_affiliateOidLow = parentOid.low_;
    MakeObjectPersist(Mutable(child), trace);
}

// ---- Changes --------------------------------------------------------------------------------------------------------

void PSpace::MarkPersistableAsDirtyWithoutTrace(ptr<const IPersistable> po) {
    QX_ASSERT(po);
    if (!GetOid(po)) return;
    QX_ASSERT(HaveWriteAccess());
    ObjSysState& state = po->GetSysState();
    if (state.GetFlag(PERSISTABLE_DIRTY)) return;
    state.SetFlag(PERSISTABLE_DIRTY);
    try {
        AddPOToDirtyObjectSet(po);
    } catch (...) { // an object that is dirty and in no set would never be written
        state.ClearFlag(PERSISTABLE_DIRTY);
        throw;
    }
}

void PSpace::AddPOToDirtyObjectSet(ptr<const IPersistable> po) {
    QX_ASSERT(HaveWriteAccess());
    QX_ASSERT(po);
    m_dos.AddDirtyObject(po);
}

void PSpace::WriteDirtyObjectsToLss(bool flushToDisk) { m_ps.m_dosWriter.ProcessPSpaceTxnGroup(this, flushToDisk); }

void PSpace::WriteDirtyObjectsToLss(ILssTransaction& txn) {
    m_roots.WriteToLssIfDirty(txn);
    m_dq.WriteDQToLssIfDirty(m_roots.m_dqOid, this, txn);
    m_dos.WriteChangesToLSS(txn);
}

// ---- Deletion -------------------------------------------------------------------------------------------------------

void PSpace::AsyncPermanentlyDeleteSubTree(ptr<IPersistable> obj) {
    QX_ASSERT(HaveWriteAccess());
    m_dq.AsyncPermanentlyDeleteSubTree(this, obj);
}

void PSpace::AsyncPermanentlyDeleteObject(ptr<IPersistable> obj) {
    QX_ASSERT(HaveWriteAccess());
    m_dq.AsyncPermanentlyDeleteObject(this, obj);
}

void PSpace::SyncPermanentlyDeleteObject(ptr<IPersistable> po) {
    QX_ASSERT(HaveWriteAccess());
    QX_ASSERT(GetOid(po));
    MarkPersistableAsDirtyWithoutTrace(po);
    po->GetSysState().SetFlag(PERSISTABLE_DELETED);
    m_dq.NoteDeleted(GetOid(po));
}

void PSpace::SyncPermanentlyDeleteSubTree(ptr<IPersistable> po) {
    QX_ASSERT(HaveWriteAccess());
    QX_ASSERT(GetOid(po));
    QX_ASSERT(0);
}

// ---- Collection -----------------------------------------------------------------------------------------------------

void PSpace::OnGarbageCollectPersistable(ptr<IPersistable> po) {
    QX_ASSERT(po);
    QX_ASSERT(HaveWriteAccess());
    if (IsPersistableDirty(po)) {
        TracerX tracer;
        tracer << "PSpace: error : garbage collecting dirty object ";
        WriteIObjectPtr(tracer, po);
        tracer << " with OID = " << GetOid(po) << "\n";
        QX_ASSERT(0);
    }
    if (const OID oid = GetOid(po)) rot_.RemoveCollectedObject(oid, po);
}

void PSpace::VisitObjects(IObjectVisitor& v) const {
    m_roots.VisitObjects(v);
    m_dos.VisitObjects(v);
}

} // namespace quna

#include "qxObject/CSpace.h"

#include "qxObject/CSpaceLockTable.h"
#include "qxObject/ThreadCSpaces.h"
#include "qxObject/src/CSpaceImpl.h"
#include "qxUtils/Assert.h"

#include <algorithm>
#include <memory>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/CSpace";

CSpace& DomainOf(ptr<const IObject> object) {
    CSpace* const own = GetAssociatedCSpace(object);
    CSpace* const cs = own ? own : GetThreadCSpace();
    QX_ASSERT(cs);
    return *cs;
}

void WakeCollectorUnderPressure(CSpace& cs) {
    if (cs.m_objects.Bytes() > cs.m_collector.PressureThreshold()) [[unlikely]]
        cs.m_gcThread.Wake();
}

} // namespace

CSpace::CSpace(int milliSecsPerGc, GCThreadFn fn)
    : m_objects(*this), m_collector(m_objects, *this), m_gcThread(*this, milliSecsPerGc, fn) {}

// --- Life -----------------------------------------------------------------------------------------------------------

CSpace* CreateCSpace(int milliSecsPerGc, GCThreadFn fn) {
    auto cs = std::make_unique<CSpace>(milliSecsPerGc, fn);
    if (milliSecsPerGc != QUNA_GC_THREAD_DONT_START) cs->m_gcThread.Start();
    return cs.release();
}

void Destroy(CSpace* cs) {
    QX_ASSERT(cs);
    QX_ASSERT(GetRecordedLockStatus(cs) >= 0);
    // The collector may be waiting for the lock; a caller that holds it would wait for the collector for ever.
    QX_ASSERT(!HaveLock(cs) || !cs->m_gcThread.HasThread());
    cs->m_gcThread.StopAndJoin();

    Lock(cs, Exclusive);
    cs->m_lock.WaitUntilQuiet();
    const std::unique_ptr<CSpace> owner(cs);
    struct Forget {
        const CSpace* cs;
        ~Forget() {
            CSpaceLockTable& table = CSpaceLockTable::Current();
            table.Remove(table.Find(cs));
            ForgetInThreadCSpaces(cs);
        }
    };
    const Forget forget{cs}; // before the owner frees the domain
    EvictAllDgsNodes(cs);
    cs->m_collector.DestroyAll();
    DGGraph::ForgetDomain(*cs);
}

// --- Slots ----------------------------------------------------------------------------------------------------------

void** GetPtrSlotArray(CSpace* cs) {
    QX_ASSERT(cs);
    return cs->m_slots;
}

void* GetPtrSlot(const CSpace* cs, ssize_t slot) {
    QX_ASSERT(cs);
    QX_ASSERT(0 <= slot && slot < CSPACE_NUM_RESERVED_PTR_SLOTS);
    return cs->m_slots[slot];
}

// --- Objects --------------------------------------------------------------------------------------------------------

void RegisterGcObject(ptr<IObject> object) { RegisterGcObject(GetThreadCSpace(), object); }

void RegisterGcObject(CSpace* cs, ptr<IObject> object) {
    QX_ASSERT(cs);
    QX_ASSERT(object);
    cs->m_objects.Register(object);
    WakeCollectorUnderPressure(*cs);
}

void RegisterDomainObject(CSpace* cs, ptr<IObject> object) {
    QX_ASSERT(cs);
    QX_ASSERT(object);
    cs->m_objects.RegisterOwn(object);
}

void AddGcRoot(ptr<const IObject> object) {
    QX_ASSERT(object);
    DomainOf(object).m_objects.AddRoot(object);
}

void AddGcRoot(CSpace* cs, ptr<const IObject> object) {
    QX_ASSERT(cs);
    QX_ASSERT(object);
    cs->m_objects.AddRoot(object);
}

void RemoveGcRoot(ptr<const IObject> object) {
    QX_ASSERT(object);
    DomainOf(object).m_objects.RemoveRoot(object);
}

void RemoveGcRoot(CSpace* cs, ptr<const IObject> object) {
    QX_ASSERT(cs);
    QX_ASSERT(object);
    cs->m_objects.RemoveRoot(object);
}

ssize_t GetNumObjects(const CSpace* cs) {
    QX_ASSERT(cs);
    return cs->m_objects.Count();
}

void TransferCSpace(CSpace* from, CSpace* to) {
    QX_ASSERT(from);
    QX_ASSERT(to);
    QX_ASSERT(HaveExclusiveLock(from));
    QX_ASSERT(HaveExclusiveLock(to));
    if (from != to) to->m_objects.TransferFrom(from->m_objects);
}

// --- Collection -----------------------------------------------------------------------------------------------------

void StartGc(CSpace* cs) {
    QX_ASSERT(cs);
    cs->m_gcThread.Start();
}

void StopGc(CSpace* cs) {
    QX_ASSERT(cs);
    cs->m_gcThread.RequestStop();
}

void SynchronousGc(CSpace* cs) {
    QX_ASSERT(cs);
    Lock(cs, Exclusive);
    struct Unlocker {
        CSpace* cs;
        ~Unlocker() { Unlock(cs); }
    };
    const Unlocker unlocker{cs};
    const bool byCollector = cs->m_gcThread.IsCurrentThread();
    if (byCollector) cs->m_gcThread.Arrived();
    DGGraph::OfferToCollector(*cs, !byCollector);
    cs->m_collector.Collect(byCollector ? EGcCache::KeepWithinBudget : EGcCache::LetGo);
    cs->m_gcThread.Calm();
}

bool WaitForGarbageCollect(CSpace* cs) {
    QX_ASSERT(cs);
    return cs->m_gcThread.WaitUntilDue();
}

void SetMilliSecsPerGc(CSpace* cs, int milliSecsPerGc) {
    QX_ASSERT(cs);
    cs->m_gcThread.SetPeriod(milliSecsPerGc);
}

void SetEvictionBudget(CSpace* cs, ssize_t bytes) {
    QX_ASSERT(cs);
    cs->m_collector.SetBudget(bytes);
    WakeCollectorUnderPressure(*cs);
}

void SetEvictableObjectSizeInBytes(ptr<const IObject> object, ssize_t size) {
    QX_ASSERT(object);
    ObjSysState& state = object->GetSysState();
    const ssize_t before = std::atomic_ref<ssize_t>(state.m_size).exchange(size, std::memory_order_relaxed);
    if (!state.m_cspace || size == before) return;
    state.m_cspace->m_objects.AddBytes(size - before);
    WakeCollectorUnderPressure(*state.m_cspace);
}

void EvictAllDgsNodes(CSpace* cs) {
    QX_ASSERT(cs);
    QX_ASSERT(HaveExclusiveLock(cs));
    DGGraph::EvictAll(*cs);
}

// --- Figures --------------------------------------------------------------------------------------------------------

CSpaceGcStats GetGcStats(const CSpace* cs) {
    QX_ASSERT(cs);
    return cs->m_collector.GetStats();
}

CSpaceLockStats GetLockStats(const CSpace* cs) {
    QX_ASSERT(cs);
    CSpaceLockFigures figures = cs->m_lock.GetFigures();
    return {figures.totalWaits, figures.longestWaitMicros, std::move(figures.holder)};
}

} // namespace quna

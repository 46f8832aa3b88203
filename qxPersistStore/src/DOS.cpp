#include "qxPersistStore/src/DOS.h"

#include "qxPersistStore/BPlusTree2.h"
#include "qxPersistStore/src/Mutants.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/Records.h"
#include "qxPersistStore/src/TraceFailure.h"
#include "qxUtils/Assert.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/DOS";

// Never but by mistake.
bool IsLeftForLater(ptr<const IPersistable> po) {
    return (IsStoreMutant(EStoreMutant::TREE_LATER) && po->GetReflectedClass() == &GetReflectedClass<BPlusTree>()) ||
           (IsStoreMutant(EStoreMutant::OBJECT_LATER) && GetOid(po).low_ % 16 == 5);
}

} // namespace

void PSpaceDos::AddDirtyObject(ptr<const IPersistable> po) {
    QX_ASSERT(po);
    QX_ASSERT(m_pspace.HaveWriteAccess());
    QX_ASSERT(IsPersistableDirty(po));
    MarkAsDirty();
    m_dirtyObjectSet.push_back(po);
}

void PSpaceDos::MarkAsDirty() const {
    QX_ASSERT(m_pspace.HaveWriteAccess());
    if (m_dirty.load(std::memory_order_relaxed)) return;
    m_dirty.store(true, std::memory_order_release);
    m_pspace.m_ps.m_dosWriter.m_dirtyPSpaces.PushBack(&m_pspace);
}

void PSpaceDos::AssertDirty() const { QX_ASSERT(m_dirty); }

void PSpaceDos::VisitObjects(IObjectVisitor& v) const {
    QX_ASSERT(m_pspace.HaveReadOrWriteAccess());
    const std::lock_guard lock(mutex_);
    for (const ptr<const IPersistable>& po : m_dirtyObjectSet) v << po;
}

void PSpaceDos::WriteChangesToLSS(ILssTransaction& txn) {
    QX_ASSERT(m_pspace.HaveReadOrWriteAccess());
    QX_ASSERT(m_dirty);
    DIRTY_OBJECT_SET objects;
    {
        const std::lock_guard lock(mutex_);
        objects.TakePages(m_dirtyObjectSet);
    }
    for (const ptr<const IPersistable>& po : objects)
        if (!IsLeftForLater(po)) WriteObject(txn, po);
    QX_ASSERT(m_dirtyObjectSet.empty());
    m_dirty.store(false, std::memory_order_release);
    m_pspace.m_ps.m_dosWriter.m_dirtyPSpaces.Remove(&m_pspace);
    if (!IsStoreMutant(EStoreMutant::TREE_LATER) && !IsStoreMutant(EStoreMutant::OBJECT_LATER)) return;
    for (const ptr<const IPersistable>& po : objects)
        if (IsLeftForLater(po)) m_dirtyObjectSet.push_back(po);
}

void PSpaceDos::WriteObject(ILssTransaction& txn, ptr<const IPersistable> po) {
    QX_ASSERT(po);
    const OID oid = GetOid(po);
    QX_ASSERT(oid);
    QX_ASSERT(IsPersistableDirty(po));
    ObjSysState& state = po->GetSysState();
    try {
        if (state.GetFlag(PERSISTABLE_DELETED)) {
            txn.DeleteSerialElement(oid); // false for an object that was deleted before its first write
        } else if (!state.GetFlag(PERSISTABLE_ERASED)) {
            WriteRecord(txn, oid, [&](Archive& ar) { m_pspace.m_ps.DynCreateSerialise(ar, po); });
        }
    } catch (...) {
        TraceFailure("writing", po, oid);
        throw;
    }
    state.ClearFlag(PERSISTABLE_DIRTY);
}

void PSpaceDos::Transfer(PSpaceDos& src) {
    const std::lock_guard lock(mutex_);
    const std::lock_guard srcLock(src.mutex_);
    if (src.m_dirtyObjectSet.empty()) return;
    m_dirtyObjectSet.insert(m_dirtyObjectSet.end(), src.m_dirtyObjectSet.begin(), src.m_dirtyObjectSet.end());
    src.m_dirtyObjectSet.clear();
    MarkAsDirty();
}

} // namespace quna

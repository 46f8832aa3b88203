#include "qxPersistStore/src/ROT.h"

#include "qxPersistStore/src/PSpace.h"
#include "qxUtils/Assert.h"

#include <algorithm>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/ROT";

} // namespace

// A load that a reader has begun: while it lives, other readers of the OID wait for its end.
class ROT::LoadInFlight {
public:
    // Requires: `lock` holds rot.tableMutex_, here and at the end of the scope.
    LoadInFlight(ROT& rot, OID oid, std::unique_lock<std::mutex>& lock) : m_rot(rot), m_oid(oid), m_lock(lock) {
        rot.loading_.push_back(oid);
    }
    LoadInFlight(const LoadInFlight&) = delete;
    LoadInFlight& operator=(const LoadInFlight&) = delete;
    ~LoadInFlight() {
        if (!m_lock.owns_lock()) m_lock.lock();
        m_rot.loading_.erase(std::find(m_rot.loading_.begin(), m_rot.loading_.end(), m_oid));
        m_rot.loadEnded_.notify_all();
    }

private:
    ROT& m_rot;
    OID m_oid;
    std::unique_lock<std::mutex>& m_lock;
};

bool ROT::HasLock() const { return pspace_.HaveWriteAccess(); }

bool ROT::HaveSharedLockOnly() const { return !pspace_.HaveWriteAccess(); }

ptr<IPersistable> ROT::FindResidentObject(OID oid) const {
    QX_ASSERT_TEXT(pspace_.HaveReadOrWriteAccess(), "HasLock()");
    std::unique_lock lock(tableMutex_, std::defer_lock);
    if (HaveSharedLockOnly()) lock.lock();
    const auto i = map_.find(oid);
    return i != map_.end() && i->second.m_table ? i->second : null;
}

ptr<IPersistable> ROT::FindOrLoadResidentObject(OID oid) {
    QX_ASSERT_TEXT(pspace_.HaveReadOrWriteAccess(), "HasLock()");
    return HaveSharedLockOnly() ? FindOrLoadAmongReaders(oid) : FindOrLoadExclusively(oid);
}

ptr<IPersistable> ROT::FindOrLoadExclusively(OID oid) {
    const auto i = map_.find(oid);
    if (i != map_.end()) {
        QX_ASSERT(i->second.m_self);
        return i->second;
    }
    const ptr<IPersistable> p = SyncLoadObject(oid);
    if (!p) return null;
    QX_ASSERT(p.m_table);
    map_[oid] = p;
    return p;
}

ptr<IPersistable> ROT::FindOrLoadAmongReaders(OID oid) {
    std::unique_lock lock(tableMutex_);
    for (;;) {
        const auto i = map_.find(oid);
        if (i != map_.end()) {
            QX_ASSERT(i->second.m_self);
            return i->second;
        }
        if (std::find(loading_.begin(), loading_.end(), oid) == loading_.end()) break;
        loadEnded_.wait(lock); // whatever it came to: look again
    }
    const LoadInFlight inFlight(*this, oid, lock);
    lock.unlock();
    const ptr<IPersistable> p = SyncLoadObject(oid);
    lock.lock();
    if (!p) return null;
    QX_ASSERT(p.m_table);
    map_[oid] = p;
    return p;
}

bool ROT::AddResidentObject(OID oid, ptr<IPersistable> po) {
    QX_ASSERT(oid);
    QX_ASSERT(po.m_self);
    QX_ASSERT(po.m_table);
    QX_ASSERT(HasLock());
    ptr<IPersistable>& entry = map_[oid];
    if (entry.m_self && entry.m_table) return false;
    entry = po;
    return true;
}

void ROT::RemoveResidentObject(OID oid) {
    QX_ASSERT(HasLock());
    QX_ASSERT(oid);
    const auto i = map_.find(oid);
    QX_ASSERT(i != map_.end());
    QX_ASSERT(i->second.m_table != nullptr);
    const ssize_t numRemoved = map_.erase(oid);
    QX_ASSERT(numRemoved == 1);
}

bool ROT::Holds(OID oid, ptr<const IPersistable> po) const {
    const auto i = map_.find(oid);
    return i != map_.end() && i->second.m_self == po.m_self;
}

void ROT::RemoveCollectedObject(OID oid, ptr<const IPersistable> po) {
    const auto i = map_.find(oid);
    if (i != map_.end() && i->second.m_self == po.m_self) map_.erase(i);
}

void ROT::TransferResidentObjects(ROT& src) {
    QX_ASSERT(HasLock());
    QX_ASSERT(src.HasLock());
    const std::vector<MAP::value_type> entries = src.map_.SortedEntries();
    for (auto i = entries.begin(); i != entries.end(); ++i) {
        QX_ASSERT(map_.find(i->first) == map_.end());
        map_[i->first] = i->second;
    }
    src.map_.clear();
}

ptr<IPersistable> ROT::SyncLoadObject(OID oid) { return pspace_.TryLoadPOGivenOid(oid); }

MAsyncBind ROT::AsyncBind2(OID oid) {
    QX_ASSERT(oid);
    QX_ASSERT_TEXT(pspace_.HaveReadOrWriteAccess(), "HasLock()");
    MAsyncBind bind;
    const ptr<IPersistable> po = FindOrLoadResidentObject(oid);
    if (po && !po->GetSysState().GetFlag(PERSISTABLE_DELETED)) {
        bind.result = EAsyncBindResult::Bound;
        bind.po = po;
    }
    return bind;
}

void ROT::MakeMemoryResident(OID) { QX_ASSERT(0); }

void ROT::Close() { blockUntilNoMoreAsyncNodes_.Wait(); }

} // namespace quna

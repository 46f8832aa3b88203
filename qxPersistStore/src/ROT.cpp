#include "qxPersistStore/src/ROT.h"

#include "qxObject/WCSpace.h"
#include "qxPersistStore/src/DGIndepNodeForAsyncPref.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Mutex.h"

#include <algorithm>
#include <utility>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/ROT";

using Node = DGIndepNodeForAsyncPref;

Node* NodeOf(ptr<IPersistable> placeholder) { return static_cast<Node*>(placeholder.m_self); }

MAsyncBind AnswerFor(ptr<IPersistable> po) {
    MAsyncBind bind;
    if (po->GetSysState().GetFlag(PERSISTABLE_DELETED)) return bind;
    bind.result = EAsyncBindResult::Bound;
    bind.po = po;
    return bind;
}

MAsyncBind Pending() {
    MAsyncBind bind;
    bind.result = EAsyncBindResult::Pending;
    return bind;
}

// Of a placeholder that stands in the table.
MAsyncBind AnswerFor(const Node* node) {
    QX_ASSERT(!node->abort_);
    QX_ASSERT(node->updatedRot_ != DGIndepNodeForAsyncPref::UR_OBJECT_FOUND);
    QX_ASSERT(node->updatedRot_ != DGIndepNodeForAsyncPref::UR_NODE_EVICTED);
    QX_ASSERT(node->updatedRot_ == DGIndepNodeForAsyncPref::UR_PENDING || node->updatedRot_ == DGIndepNodeForAsyncPref::UR_OBJECT_DOES_NOT_EXIST);
    if (node->updatedRot_ == Node::UR_PENDING) return Pending();
    QX_ASSERT(node->updatedRot_ == DGIndepNodeForAsyncPref::UR_OBJECT_DOES_NOT_EXIST);
    return MAsyncBind();
}

} // namespace

// A load that a reader has begun: while it lives, other readers of the OID wait for its end.
class ROT::LoadInFlight {
public:
    // Requires: `lock` holds rot.tableMutex_, here and at the end of the scope.
    LoadInFlight(ROT& rot, OID oid, std::unique_lock<Mutex>& lock) : m_rot(rot), m_oid(oid), m_lock(lock) {
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
    std::unique_lock<Mutex>& m_lock;
};

bool ROT::HasLock() const { return pspace_.HaveWriteAccess(); }

bool ROT::HasAnyLock() const { return pspace_.HaveReadOrWriteAccess(); }

bool ROT::HaveSharedLockOnly() const { return !pspace_.HaveWriteAccess(); }

// tableMutex_, where it is needed.
ROT::TableLock ROT::LockAmongReaders() const {
    return HaveSharedLockOnly() ? TableLock(tableMutex_) : TableLock(tableMutex_, std::defer_lock);
}

// ---- Synchronous binding --------------------------------------------------------------------------------------------

ptr<IPersistable> ROT::FindResidentObject(OID oid) const {
    QX_ASSERT_TEXT(HasAnyLock(), "HasLock()");
    const TableLock lock = LockAmongReaders();
    const auto i = map_.find(oid);
    return i != map_.end() && i->second.m_table ? i->second : null;
}

ptr<IPersistable> ROT::FindOrLoadResidentObject(OID oid) {
    const int lockStatus = GetRecordedLockStatus(pspace_.GetCSpace());
    QX_ASSERT_TEXT(lockStatus != 0, "HasLock()");
    return lockStatus < 0 ? FindOrLoadAmongReaders(oid) : FindOrLoadExclusively(oid);
}

ptr<IPersistable> ROT::FindOrLoadExclusively(OID oid) {
    const auto i = map_.find(oid);
    if (i == map_.end()) {
        const ptr<IPersistable> p = SyncLoadObject(oid);
        if (!p) return null;
        QX_ASSERT(p.m_table);
        map_[oid] = p;
        return p;
    }
    QX_ASSERT(i->second.m_self);
    if (i->second.m_table) return i->second;
    Node* const node = NodeOf(i->second);
    QX_ASSERT(node);
    const Node::Reference reference(*node);
    const Delivery delivery = TakeDelivery(*node);
    node->UpdateRot();
    if (!delivery.failed) return delivery.po;
    const ptr<IPersistable> p = SyncLoadObject(oid); // throws what the other load met, if it still does
    if (p) AddResidentObject(oid, p);
    return p;
}

ptr<IPersistable> ROT::FindOrLoadAmongReaders(OID oid) {
    TableLock lock(tableMutex_);
    for (;; lock.lock()) {
        const auto i = map_.find(oid);
        if (i == map_.end()) {
            if (std::find(loading_.begin(), loading_.end(), oid) == loading_.end()) return LoadAmongReaders(oid, lock);
            loadEnded_.wait(lock); // whatever it came to: look again
            lock.unlock();
            continue;
        }
        QX_ASSERT(i->second.m_self);
        if (i->second.m_table) return i->second;
        Node* const node = NodeOf(i->second);
        QX_ASSERT(node);
        const Node::Reference reference(*node); // before the mutex is given up: then the table holds one too
        lock.unlock();
        const Delivery delivery = TakeDelivery(*node);
        if (delivery.settled) continue;
        node->UpdateRot();
        // Not the object delivered: a reader that was loading it himself may have settled the node since, and the one
        // delivered goes with the node.
        if (delivery.po) continue;
        if (!delivery.failed) return null;
        lock.lock();
        return LoadAmongReaders(oid, lock);
    }
}

// Requires: the lock is held.
ptr<IPersistable> ROT::LoadAmongReaders(OID oid, TableLock& lock) {
    ptr<IPersistable> p;
    {
        const LoadInFlight inFlight(*this, oid, lock);
        lock.unlock();
        p = SyncLoadObject(oid);
        lock.lock();
        if (!p) return null;
        QX_ASSERT(p.m_table);
        ptr<IPersistable>& entry = map_[oid];
        if (!entry.m_self) return entry = p;
    }
    return EnterAmongReaders(oid, p, lock);
}

// A reader that does not wait has asked for the object meanwhile. Requires: the lock is held.
ptr<IPersistable> ROT::EnterAmongReaders(OID oid, ptr<IPersistable> po, TableLock& lock) {
    for (;; lock.lock()) {
        const auto i = map_.find(oid);
        if (i == map_.end()) return map_[oid] = po;
        if (i->second.m_table) return i->second; // `po` is left to the collector
        Node* const node = NodeOf(i->second);
        const Node::Reference reference(*node);
        lock.unlock();
        if (node->SetObjectAmongReaders(po)) return po;
    }
}

// Sleeps until the load is over. The thread keeps its CSpace lock: the load thread never needs it.
void ROT::AwaitLoad(DGIndepNodeForAsyncPref& node) {
    std::unique_lock sleeper(sleeperMutex_, std::defer_lock);
    if (HaveSharedLockOnly()) sleeper.lock();
    {
        const std::lock_guard lock(GetMutexForOid(node.oid_));
        if (node.readyToUpdateRot_ || node.IsSettled()) return;
        QX_ASSERT_TEXT(!node.waiting_, "!node->waiting_");
        // Under the mutex, so that the load thread can't come between the test and the reset.
        blockSyncThreadWaitingOnAsyncLoad_.Reset();
        node.waiting_ = true;
    }
    blockSyncThreadWaitingOnAsyncLoad_.Wait();
}

// What the load has brought, before UpdateRot: an object that a handler supplies there shows at the next bind.
ROT::Delivery ROT::TakeDelivery(DGIndepNodeForAsyncPref& node) {
    for (;;) {
        {
            const std::lock_guard lock(GetMutexForOid(node.oid_));
            if (node.readyToUpdateRot_ || node.IsSettled()) return {node.asyncobj_, node.loadFailed_, node.IsSettled()};
        }
        AwaitLoad(node);
    }
}

bool ROT::AddResidentObject(OID oid, ptr<IPersistable> po) {
    QX_ASSERT(oid);
    QX_ASSERT(po.m_self);
    QX_ASSERT(po.m_table);
    QX_ASSERT(HasLock());
    ptr<IPersistable>& entry = map_[oid];
    if (entry.m_self && entry.m_table) return false;
    if (entry.m_self)
        NodeOf(entry)->SetObject(po); // which stores it
    else
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

// ---- Binding without blocking ---------------------------------------------------------------------------------------

MAsyncBind ROT::AsyncBind2(OID oid) {
    QX_ASSERT(oid);
    QX_ASSERT_TEXT(HasAnyLock(), "HasLock()");
    if (HaveSharedLockOnly()) return AsyncBindAmongReaders(oid);
    const auto i = map_.find(oid);
    if (i == map_.end()) {
        TableLock notNeeded(tableMutex_, std::defer_lock);
        return BeginAsyncLoad(oid, notNeeded);
    }
    const ptr<IPersistable> p = i->second;
    QX_ASSERT(p.m_self);
    if (p.m_table) [[likely]]
        return AnswerFor(p);
    const Node* const node = NodeOf(p);
    QX_ASSERT(node);
    node->magic_.Test();
    ReadBarrierOf(*node);
    return AnswerFor(node);
}

MAsyncBind ROT::AsyncBindAmongReaders(OID oid) {
    TableLock lock(tableMutex_);
    for (;; lock.lock()) {
        const auto i = map_.find(oid);
        if (i == map_.end()) return BeginAsyncLoad(oid, lock);
        const ptr<IPersistable> p = i->second;
        QX_ASSERT(p.m_self);
        if (p.m_table) return AnswerFor(p);
        const Node* const node = NodeOf(p);
        QX_ASSERT(node);
        node->magic_.Test();
        const Node::Reference reference(*node);
        lock.unlock();
        // While another reader can't settle the node: the dependency would come too late to hear of it.
        const std::lock_guard oidLock(GetMutexForOid(oid));
        if (node->IsSettled()) continue;
        ReadBarrierOf(*node);
        return AnswerFor(node);
    }
}

// Requires: the lock is held, or is not needed.
MAsyncBind ROT::BeginAsyncLoad(OID oid, TableLock& lock) {
    Node* const node = new Node(*this, oid);
    try {
        ptr<IPersistable>& entry = map_[oid];
        QX_ASSERT_TEXT(!entry.m_self, "r.second");
        entry.m_self = node;
    } catch (...) {
        node->DecRef();
        node->DecRef();
        throw;
    }
    if (lock.owns_lock()) lock.unlock();
    bool settled = false;
    try {
        {
            // A reader that was loading the object already may settle the node as soon as it stands in the table. Then it
            // is out of the graph, and must not come back: it would be evicted again, and nobody would hear of it.
            const std::lock_guard oidLock(GetMutexForOid(oid));
            settled = node->IsSettled();
            if (!settled) ReadBarrierOf(*node);
        }
        if (!settled) {
            AsyncLoadJob job;
            job.node = node;
            pspace_.m_ps.asyncLoadThread_.Push(job);
        }
    } catch (...) {
        node->AbandonLoad();
        node->DecRef();
        throw;
    }
    if (!settled) return Pending();
    node->DecRef();
    return AsyncBindAmongReaders(oid); // the object is there
}

// The node is listed in its own domain, whichever the thread works in: there it is evicted when the space closes.
void ROT::ReadBarrierOf(const DGIndepNodeForAsyncPref& node) const {
    CSpace* const cspace = pspace_.GetCSpace();
    if (GetThreadCSpace() == cspace) [[likely]] {
        node.ReadBarrier();
        return;
    }
    const DeclareThreadPtr<CSpace> current(cspace);
    node.ReadBarrier();
}

ROT::MAP::iterator ROT::EntryOf(const DGIndepNodeForAsyncPref& node) {
    const auto i = map_.find(node.oid_);
    QX_ASSERT_TEXT(i != map_.end() && i->second.m_self == &node, "rotIterator_->second.m_self == this");
    return i;
}

void ROT::ReplacePlaceholder(const DGIndepNodeForAsyncPref& node, ptr<IPersistable> po) {
    const TableLock lock = LockAmongReaders();
    EntryOf(node)->second = po;
}

void ROT::ErasePlaceholder(const DGIndepNodeForAsyncPref& node) {
    const TableLock lock = LockAmongReaders();
    map_.erase(EntryOf(node));
}

void ROT::EvictPlaceholder(OID oid) {
    QX_ASSERT(HasLock());
    const auto i = map_.find(oid);
    if (i != map_.end() && !i->second.m_table) NodeOf(i->second)->AlwaysEvict();
}

DGIndepNodeForAsyncPref* ROT::PlaceholderForTest(OID oid) {
    QX_ASSERT(HasLock());
    const auto i = map_.find(oid);
    return i != map_.end() && !i->second.m_table ? NodeOf(i->second) : nullptr;
}

// Behind the check: load in a domain of its own, and move what came of it.
void ROT::MakeMemoryResident(OID oid) {
    QX_ASSERT(0);
    CSpace* const real = pspace_.GetCSpace();
    const CSpaceCreator temporary(QUNA_GC_THREAD_DONT_START, GCThreadFn());
    const DeclareThreadPtr<CSpace> current(temporary);
    const CSpaceLock lock(temporary, Exclusive);
    FindOrLoadResidentObject(oid);
    if (GetNumObjects(temporary) > 0) {
        const CSpaceLock lockReal(real, Exclusive);
        TransferCSpace(temporary, real);
    }
}

void ROT::Close() { blockUntilNoMoreAsyncNodes_.Wait(); }

bool ROT::WaitForPlaceholders(uint32 milliSecs) { return blockUntilNoMoreAsyncNodes_.Wait(milliSecs); }

} // namespace quna

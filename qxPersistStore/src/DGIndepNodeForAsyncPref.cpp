#include "qxPersistStore/src/DGIndepNodeForAsyncPref.h"

#include "qxLss/CorruptLSSException.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/ROT.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Mutex.h"
#include "qxUtils/Tracer.h"
#include "qxUtils/xostream.h"

#include <utility>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/ROT";

// An object that nobody but this thread knows, for the scope.
class UnknownObject {
public:
    UnknownObject() = default;
    UnknownObject(const UnknownObject&) = delete;
    UnknownObject& operator=(const UnknownObject&) = delete;
    ~UnknownObject() {
        if (!m_po) return;
        try {
            m_po->Destroy();
        } catch (...) {
            TraceSwallowedException("an object that could not be loaded");
        }
    }
    ptr<IPersistable> Release() { return std::exchange(m_po, ptr<IPersistable>()); }

    ptr<IPersistable> m_po;
};

// The node ends whatever its parts do.
template <class Act>
void EndQuietly(ConstStringZ part, Act act) noexcept {
    try {
        act();
    } catch (...) {
        TraceSwallowedException(part);
    }
}

} // namespace

// The reference of a job, which is dropped at the end of the scope unless it has passed on.
class DGIndepNodeForAsyncPref::JobReference {
public:
    explicit JobReference(const DGIndepNodeForAsyncPref& node) : m_node(&node) {}
    JobReference(const JobReference&) = delete;
    JobReference& operator=(const JobReference&) = delete;
    ~JobReference() { Drop(); }
    void Drop() {
        if (m_node) std::exchange(m_node, nullptr)->DecRef();
    }
    void PassOn() { m_node = nullptr; }

private:
    const DGIndepNodeForAsyncPref* m_node;
};

DGIndepNodeForAsyncPref::DGIndepNodeForAsyncPref(ROT& rot, OID oid) : rot_(rot), oid_(oid) {
    OfferToCollector(false); // somebody waits for the answer
    QX_ASSERT(oid_);
    QX_ASSERT(!asyncobj_);
    rot_.blockUntilNoMoreAsyncNodes_.Increment();
}

DGIndepNodeForAsyncPref::~DGIndepNodeForAsyncPref() {
    if (asyncobj_) EndQuietly("an object that was loaded for nobody", [this] { asyncobj_->Destroy(); });
    if (needEndAsyncBindRequest_) EndQuietly("EndAsyncBindRequest", [this] { EndRequest(); });
    if (cse_) EndQuietly("the element of an abandoned load", [this] { CloseElement(); });
    rot_.blockUntilNoMoreAsyncNodes_.Decrement(); // the table may be gone from here on
}

Mutex& DGIndepNodeForAsyncPref::LoadMutex() const { return rot_.GetMutexForOid(oid_); }

void DGIndepNodeForAsyncPref::DecRef() const {
    if (--refCount_ == 0) delete this;
}

// The thread may hold the lock in any mode: then it is enough, and must not be taken again.
void DGIndepNodeForAsyncPref::EndRequest() const {
    PSpace& pspace = rot_.pspace_;
    const ThreadPSpaceScope pair(&pspace, pspace.GetCSpace());
    const auto end = [&] {
        if (const ptr<IAsyncBindRequestHandler> handler = pspace.asyncBindRequestHandler_)
            handler->EndAsyncBindRequest(oid_);
    };
    if (pspace.HaveReadOrWriteAccess()) {
        end();
        return;
    }
    const CSpaceLock lock(pspace.GetCSpace(), Exclusive);
    end();
}

// ---- Loading --------------------------------------------------------------------------------------------------------

void DGIndepNodeForAsyncPref::AsyncLoad() {
    const ThreadPSpaceScope pair(&rot_.pspace_, rot_.pspace_.GetCSpace());
    JobReference job(*this);
    try {
        QX_ASSERT_TEXT(!rot_.HasAnyLock(), "!rot_.HasLock()");
        if (abort_.load(std::memory_order_relaxed)) return;
        if (LoadElement()) job.PassOn();
    } catch (const CorruptLSSException&) {
        EndFailedLoad(job);
        QX_ASSERT(0);
    } catch (const FileException&) {
        EndFailedLoad(job);
        QX_ASSERT(0);
    } catch (...) {
        EndFailedLoad(job);
        throw;
    }
}

bool DGIndepNodeForAsyncPref::LoadElement() {
    ILogStructuredStore* lss = rot_.pspace_.m_ps.GetLss();
    QX_ASSERT(lss);
    QX_ASSERT(cse_ == nullptr);
    cse_ = lss->OpenSerialElement(oid_);
    if (!cse_) return HandleAsyncLoad(null);
    rob_ = cse_->GetBuffer();
    return AsyncDeserialise();
}

void DGIndepNodeForAsyncPref::CloseElement() { std::exchange(cse_, nullptr)->Close(); }

bool DGIndepNodeForAsyncPref::AsyncDeserialise() {
    if (abort_.load(std::memory_order_relaxed)) return false;
    QX_ASSERT(rob_.buffer);
    QX_ASSERT(rob_.size > 0);
    UnknownObject loaded;
    PersistStore& store = rot_.pspace_.m_ps;
    store.DynCreateDeserialise(rob_.buffer, rob_.buffer + rob_.size, loaded.m_po, oid_, false);
    QX_ASSERT(cse_);
    CloseElement();
    return HandleAsyncLoad(loaded.Release());
}

bool DGIndepNodeForAsyncPref::HandleAsyncLoad(ptr<IPersistable> po) {
    bool waiting = false;
    {
        const std::lock_guard lock(LoadMutex());
        asyncobj_ = po;
        readyToUpdateRot_ = true;
        waiting = waiting_;
    }
    if (!waiting) {
        PushUpdateJob();
        return true;
    }
    // In this order: whoever is woken must own the node alone, since its end may need the lock that the woken one
    // holds. The sleeper keeps the table alive, not the node.
    ROT& rot = rot_;
    DecRef();
    rot.blockSyncThreadWaitingOnAsyncLoad_.Signal();
    return true;
}

// Without memory for the job those who wait would never get an answer: then the process ends.
void DGIndepNodeForAsyncPref::PushUpdateJob() noexcept {
    AsyncUpdateRotJob job;
    job.node = this;
    rot_.pspace_.m_ps.asyncUpdateRotThread_.Push(job);
}

// Inside a catch block.
std::optional<bool> DGIndepNodeForAsyncPref::NoteFailedLoad() noexcept {
    TraceFailure("loading");
    const std::lock_guard lock(LoadMutex());
    if (readyToUpdateRot_) return std::nullopt;
    readyToUpdateRot_ = true;
    loadFailed_ = true;
    return waiting_;
}

// Inside a catch block. The binder that waits is woken as by any other end of a load, and meets the exception itself
// when it loads the object anew; those who do not wait get an answer through the update thread.
void DGIndepNodeForAsyncPref::EndFailedLoad(JobReference& job) noexcept {
    if (cse_) EndQuietly("the element of a failed load", [this] { CloseElement(); });
    ROT& rot = rot_;
    const std::optional<bool> waiting = NoteFailedLoad();
    if (!waiting) return; // it was over already
    if (*waiting) {
        job.Drop();
        rot.blockSyncThreadWaitingOnAsyncLoad_.Signal();
        return;
    }
    PushUpdateJob();
    job.PassOn();
}

void DGIndepNodeForAsyncPref::AbandonLoad() {
    if (NoteFailedLoad().value_or(false)) rot_.blockSyncThreadWaitingOnAsyncLoad_.Signal();
    UpdateRot();
}

// Inside a catch block.
void DGIndepNodeForAsyncPref::TraceFailure(ConstStringZ act) const noexcept {
    EndQuietly("tracing", [&] {
        TracerX tracer;
        tracer << "PSpace: error : " << act << " object with OID = " << oid_ << " asynchronously failed";
        try {
            throw;
        } catch (const std::exception& e) {
            tracer << ": " << e.what();
        } catch (...) {
        }
        tracer << "\n";
    });
}

// ---- Settling -------------------------------------------------------------------------------------------------------

void DGIndepNodeForAsyncPref::AsyncUpdateRot() {
    CSpace* const cspace = rot_.pspace_.GetCSpace();
    QX_ASSERT(cspace);
    const CSpaceLock lock(cspace, Exclusive); // outlives the node and, while it is held, the space
    const ThreadPSpaceScope pair(&rot_.pspace_, cspace);
    const JobReference job(*this);
    UpdateRot();
}

void DGIndepNodeForAsyncPref::UpdateRot() {
    QX_ASSERT_TEXT(rot_.HasAnyLock(), "rot_.HasLock()");
    const Reference self(*this); // whatever a handler or a dependent does
    bool failed = false;
    bool entered = false;
    {
        const std::lock_guard lock(LoadMutex());
        QX_ASSERT(readyToUpdateRot_);
        if (updatedRot_.load(std::memory_order_relaxed) != UR_PENDING) return;
        failed = loadFailed_;
        entered = static_cast<bool>(asyncobj_);
        if (entered) EnterLoadedObject();
    }
    if (entered)
        AlwaysEvict();
    else if (failed)
        DeclareMissing();
    else
        AskHandler();
}

// Requires: the OID's mutex is held; asyncobj_ is not null; the node is in the table.
void DGIndepNodeForAsyncPref::EnterLoadedObject() const {
    const ptr<IPersistable> po = std::exchange(asyncobj_, ptr<IPersistable>());
    try {
        RegisterGcObject(rot_.pspace_.GetCSpace(), po);
    } catch (...) {
        // As if the load had failed. Whoever got an object that belongs to no domain would change it, and nobody would note it.
        loadFailed_ = true;
        po->Destroy();
        throw;
    }
    rot_.ReplacePlaceholder(*this, po);
    updatedRot_.store(UR_OBJECT_FOUND, std::memory_order_relaxed);
}

void DGIndepNodeForAsyncPref::AskHandler() {
    PSpace& pspace = rot_.pspace_;
    const ptr<IAsyncBindRequestHandler> handler = pspace.asyncBindRequestHandler_;
    if (!handler) {
        DeclareMissing();
        return;
    }
    const ThreadPSpaceScope pair(&pspace, pspace.GetCSpace());
    const MAsyncBind ab = handler->BeginAsyncBindRequest(oid_);
    switch (ab.result) {
    case EAsyncBindResult::Bound:
        QX_ASSERT(ab.po);
        TakeFromHandler(ab.po);
        break;
    case EAsyncBindResult::Pending: {
        // Also when the handler has settled the node meanwhile: each Pending is answered by an End.
        const std::lock_guard lock(LoadMutex());
        needEndAsyncBindRequest_ = true;
        break;
    }
    default:
        QX_ASSERT(ab.result == EAsyncBindResult::DoesNotExist || ab.result == EAsyncBindResult::NotHandled);
        DeclareMissing();
    }
}

void DGIndepNodeForAsyncPref::TakeFromHandler(ptr<IPersistable> po) {
    CSpace* const cspace = rot_.pspace_.GetCSpace();
    {
        const std::lock_guard lock(LoadMutex());
        // A new object is the collector's in any case: it ends one that is not wanted.
        if (!GetAssociatedCSpace(po)) RegisterGcObject(cspace, po);
        // The handler may have made the object persistent itself, or evicted the node.
        if (updatedRot_.load(std::memory_order_relaxed) != UR_PENDING) return;
        QX_ASSERT(GetAssociatedCSpace(po) == cspace);
        OID& oid = po->GetPersistObjState().m_oid;
        if (!oid) oid = oid_;
        QX_ASSERT(oid == oid_);
        rot_.ReplacePlaceholder(*this, po);
        updatedRot_.store(UR_OBJECT_FOUND, std::memory_order_relaxed);
    }
    AlwaysEvict();
}

void DGIndepNodeForAsyncPref::DeclareMissing() {
    {
        const std::lock_guard lock(LoadMutex());
        if (updatedRot_.load(std::memory_order_relaxed) != UR_PENDING) return;
        updatedRot_.store(UR_OBJECT_DOES_NOT_EXIST, std::memory_order_relaxed);
    }
    OfferToCollector(true);
    OnChange();
}

void DGIndepNodeForAsyncPref::SetObject(ptr<IPersistable> po) {
    QX_ASSERT(po);
    QX_ASSERT(rot_.HasLock());
    CSpace* const cspace = rot_.pspace_.GetCSpace();
    QX_ASSERT(cspace);
    QX_ASSERT(GetAssociatedCSpace(po) == cspace);
    abort_.store(true, std::memory_order_relaxed);
    QX_ASSERT(updatedRot_ != UR_NODE_EVICTED);
    updatedRot_.store(UR_OBJECT_FOUND, std::memory_order_relaxed);
    // Before the eviction: who is told by it may look at the table.
    rot_.ReplacePlaceholder(*this, po);
    const DeclareThreadPtr<CSpace> current(cspace);
    AlwaysEvict();
}

bool DGIndepNodeForAsyncPref::SetObjectAmongReaders(ptr<IPersistable> po) {
    bool wake = false;
    {
        const std::lock_guard lock(LoadMutex());
        if (IsSettled()) return false;
        rot_.ReplacePlaceholder(*this, po);
        updatedRot_.store(UR_OBJECT_FOUND, std::memory_order_relaxed);
        // A load that is given up wakes nobody, and one that is over finds nobody to wake.
        abort_.store(true, std::memory_order_relaxed);
        wake = !readyToUpdateRot_ && std::exchange(waiting_, false);
    }
    if (wake) rot_.blockSyncThreadWaitingOnAsyncLoad_.Signal();
    AlwaysEvict();
    return true;
}

void DGIndepNodeForAsyncPref::OnEvict() const {
    QX_ASSERT_TEXT(rot_.HasAnyLock(), "rot_.HasLock()");
    abort_.store(true, std::memory_order_relaxed);
    QX_ASSERT(updatedRot_ != UR_NODE_EVICTED);
    if (updatedRot_.load(std::memory_order_relaxed) == UR_PENDING) {
        // The load may be over just now: the object isn't to be wasted.
        const std::lock_guard lock(LoadMutex());
        if (asyncobj_) EnterLoadedObject();
    }
    if (updatedRot_.load(std::memory_order_relaxed) != UR_OBJECT_FOUND) rot_.ErasePlaceholder(*this);
    updatedRot_.store(UR_NODE_EVICTED, std::memory_order_relaxed);
    DecRef();
}

xstring DGIndepNodeForAsyncPref::Name() const {
    StringStream os;
    os << "DGIndepNodeForAsyncPref:oid=" << oid_;
    return xstring(os.c_str());
}

} // namespace quna

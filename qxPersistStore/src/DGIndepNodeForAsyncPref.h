// The placeholder of an object that is being loaded without blocking anybody.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxObject/DGNode.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/OID.h"
#include "qxUtils/Export.h"
#include "qxUtils/Magic.h"
#include "qxUtils/Mutex.h"
#include "qxUtils/ThreadSafeValue.h"
#include "qxUtils/xstring.h"

#include <atomic>
#include <mutex>
#include <optional>

namespace quna {

class ROT;

// Stands in the ROT under an OID from the first AsyncBind2 until the object arrives or the node is evicted. A node of
// the dependency graph: who was answered Pending depends on it, and is stale as soon as there is another answer.
//
//   UR_PENDING                 the load, or the application's fetch, is under way
//   UR_OBJECT_DOES_NOT_EXIST   neither the store nor a handler has the object, or it can't be read; stays in the table
//                              until evicted
//   UR_OBJECT_FOUND            passes at once: the entry holds the object, the node is about to be evicted
//   UR_NODE_EVICTED            out of table and graph; lives until the last reference goes
//
// Ownership: counts references. The constructor gives one to the chain of jobs (load, then update) and one to the
//   graph, which OnEvict drops. Who uses a node over a call that may evict it takes one of its own (Reference).
// Threads:   abort_ is read by the load thread while the lock's holder sets it. asyncobj_, readyToUpdateRot_,
//   loadFailed_, waiting_ and needEndAsyncBindRequest_ are guarded by ROT::GetMutexForOid(oid_). updatedRot_ is guarded
//   by the CSpace lock; among holders of a shared lock, the same mutex guards it too, and the entry changes together
//   with it. cse_ and rob_ belong to the load thread until readyToUpdateRot_ is set.
class QX_API DGIndepNodeForAsyncPref final : public DGIndepNode {
public:
    enum EUpdatedRot : int32 {
        UR_PENDING = 0,
        UR_OBJECT_FOUND = 1,
        UR_OBJECT_DOES_NOT_EXIST = 2,
        UR_NODE_EVICTED = 3
    };

    // A reference for the scope.
    class Reference {
    public:
        explicit Reference(const DGIndepNodeForAsyncPref& node) : m_node(node) { ++node.refCount_; }
        Reference(const Reference&) = delete;
        Reference& operator=(const Reference&) = delete;
        ~Reference() { m_node.DecRef(); }

    private:
        const DGIndepNodeForAsyncPref& m_node;
    };

    DGIndepNodeForAsyncPref(ROT& rot, OID oid);
    ~DGIndepNodeForAsyncPref() override;

    // --- On the load thread, which holds no lock ---

    // The load job: reads and deserialises the object, and takes the job's reference. An exception of it leaves the
    // node as one whose load has failed; CorruptLSSException and FileException become the assertion "0".
    void AsyncLoad();
    // Makes the object of rob_. True when the job's reference is no longer the caller's, here and below.
    bool AsyncDeserialise();
    // The load is over; `po` is null when the store holds no object. Hands the node to the binder that waits for it, or
    // to the update thread.
    bool HandleAsyncLoad(ptr<IPersistable> po);

    // --- On the update thread ---

    // The update job: UpdateRot under the exclusive lock. Takes the job's reference.
    void AsyncUpdateRot();

    // --- Under the CSpace lock ---

    // Enters what was loaded, or asks the handler, or settles that the object does not exist. An exception of the
    // handler passes.
    void UpdateRot();
    // Settles that there is no object to be had.
    void DeclareMissing();
    // `po` takes the place of the node in the table, and ends it. Exclusive.
    void SetObject(ptr<IPersistable> po);
    // The same under a shared lock; false when another reader has settled the node.
    bool SetObjectAmongReaders(ptr<IPersistable> po);
    // Inside a catch block: the load could not even be queued.
    void AbandonLoad();
    // Inside a catch block.
    void TraceFailure(ConstStringZ act) const noexcept;

    void OnEvict() const override;
    xstring Name() const override;
    void VisitContainingObject(IObjectVisitor&) const override {}

    // Any thread. Deletes the node with the last reference.
    void DecRef() const;

    // The table has the answer, or will never get one from this node.
    bool IsSettled() const noexcept {
        const EUpdatedRot state = updatedRot_.load(std::memory_order_relaxed);
        return state == UR_OBJECT_FOUND || state == UR_NODE_EVICTED;
    }

    MagicTestDestructed magic_;
    ROT& rot_;
    const OID oid_;
    mutable ThreadSafeCount refCount_{2};
    IContiguousSerialElement* cse_ = nullptr; // open while the load reads it
    ReadOnlyBuffer rob_{nullptr, 0};
    bool needEndAsyncBindRequest_ = false; // a handler answered Pending
    mutable std::atomic<bool> abort_{false};
    mutable std::atomic<EUpdatedRot> updatedRot_{UR_PENDING};
    bool waiting_ = false;               // a synchronous binder sleeps on this node, or did
    bool readyToUpdateRot_ = false;      // the load is over
    mutable bool loadFailed_ = false;    // with an exception
    mutable ptr<IPersistable> asyncobj_; // from the end of the load until it is in the table

private:
    class JobReference;

    Mutex& LoadMutex() const;
    bool LoadElement();
    void CloseElement();
    // What waiting_ was; nothing when the load is over already.
    std::optional<bool> NoteFailedLoad() noexcept;
    void EndFailedLoad(JobReference& job) noexcept;
    void PushUpdateJob() noexcept;
    void AskHandler();
    void TakeFromHandler(ptr<IPersistable> po);
    void EnterLoadedObject() const;
    void EndRequest() const;
};

} // namespace quna

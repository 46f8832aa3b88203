// The dirty object set of a space: what changed since it was last written.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxObject/IObjectVisitor.h"
#include "qxPersistStore/IPersistable.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"
#include "qxUtils/xdeque.h"

#include <atomic>
#include <mutex>

namespace quna {

class PSpace;

// The objects in the order in which they became dirty. They leave all at once, when the writer serialises them.
//
// Ownership: plain pointers; VisitObjects keeps the objects alive, so that a dirty object may be unreachable otherwise.
// Threads: AddDirtyObject and MarkAsDirty under the exclusive CSpace lock, the others under any. mutex_ keeps a visit
//   and the swap of a write apart; it is never held while writing. m_dirty may be read without a lock.
// Invariant: an object in the set has its dirty bit set and an OID, and stands there once: the bit guards entry.
// Invariant: m_dirty is true exactly while the space is on the writer's DirtyPSpaceList. The set may be empty then.
class QX_API PSpaceDos {
public:
    using DIRTY_OBJECT_SET = xdeque<ptr<const IPersistable>, 256>;

    explicit PSpaceDos(PSpace& pspace) : m_pspace(pspace) {}
    PSpaceDos(const PSpaceDos&) = delete;
    PSpaceDos& operator=(const PSpaceDos&) = delete;

    // Requires: the dirty bit of po is set.
    void AddDirtyObject(ptr<const IPersistable> po);
    void MarkAsDirty() const;
    bool HaveChangesToWriteToLss() const { return m_dirty.load(std::memory_order_acquire); }
    // Fails the check that WriteChangesToLSS makes first.
    void AssertDirty() const;
    void VisitObjects(IObjectVisitor& v) const;

    // Writes every object's element, or deletes it where the object is deleted, in the order of the set, and clears
    // the set. An object whose element a deletion batch has removed is left out: it would come back. Each dirty bit is cleared when its object's element is complete. An exception leaves the objects behind
    // the failing one dirty and in no set: a Serialise that throws is a mistake of its class, which is traced with the
    // OID.
    void WriteChangesToLSS(ILssTransaction& txn);

    // Appends all objects of src, in their order. src stays marked as dirty.
    void Transfer(PSpaceDos& src);

    ssize_t NumDirtyObjects() const { return m_dirtyObjectSet.size(); }

private:
    void WriteObject(ILssTransaction& txn, ptr<const IPersistable> po);

    PSpace& m_pspace;
    mutable std::atomic<bool> m_dirty = false;
    DIRTY_OBJECT_SET m_dirtyObjectSet;
    mutable Mutex mutex_{"DOS::mutex_"}; // after the CSpace lock; of two sets, the target's first
};

} // namespace quna

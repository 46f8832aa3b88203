// The spaces that have changes to write.
#pragma once

#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"
#include "qxUtils/xdeque.h"

#include <mutex>

namespace quna {

class PSpace;

// A list through PSpace::m_DirtyPSpaceListPtrs, in the order in which the spaces became dirty. A space is on it exactly
// while its dirty object set is dirty. Entering and leaving allocate nothing.
//
// Ownership: none; the spaces are unlinked before they and the list end.
// Threads: any. mutex_ guards the list and the links; it is a leaf lock.
class QX_API DirtyPSpaceList {
public:
    DirtyPSpaceList() = default;
    DirtyPSpaceList(const DirtyPSpaceList&) = delete;
    DirtyPSpaceList& operator=(const DirtyPSpaceList&) = delete;
    // Fails unless the list is empty.
    ~DirtyPSpaceList() noexcept(false);

    // `s` is not on the list.
    void PushBack(PSpace* s);
    // `s` is on the list.
    void Remove(PSpace* s);
    void Clear();
    // Takes the first off; null if there is none.
    PSpace* TryPopFront();
    void CopyIntoDeque(xdeque<PSpace*, 512>& out) const;

    PSpace* Front() const {
        const std::lock_guard lock(mutex_);
        return m_first;
    }
    PSpace* Back() const {
        const std::lock_guard lock(mutex_);
        return m_last;
    }
    bool empty() const { return !Front(); }

private:
    mutable Mutex mutex_{"DirtyPSpaceList::mutex_"};
    PSpace* m_first = nullptr;
    PSpace* m_last = nullptr;
};

} // namespace quna

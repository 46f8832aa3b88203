// The spaces that have permanent deletions waiting ("Nedq": non-empty deletion queue).
#pragma once

#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <mutex>

namespace quna {

class PSpace;

// A list through PSpace::m_NedqListPtrs. Entering and leaving allocate nothing.
//
// Ownership: none; the spaces are unlinked before they end.
// Threads: any. mutex_ guards the list and the links; it is a leaf lock.
class QX_API NedqList {
public:
    NedqList() = default;
    NedqList(const NedqList&) = delete;
    NedqList& operator=(const NedqList&) = delete;

    // `s` is not on the list.
    void PushBack(PSpace* s);
    // `s` is on the list.
    void Remove(PSpace* s);
    void Clear();
    // Takes the first off; null if there is none.
    PSpace* TryPopFront();

    // Whether `s` is on the list.
    bool Contains(const PSpace* s) const;

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
    mutable Mutex mutex_{"NedqList::mutex_"};
    PSpace* m_first = nullptr;
    PSpace* m_last = nullptr;
};

} // namespace quna

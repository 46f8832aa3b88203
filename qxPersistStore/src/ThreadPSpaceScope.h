// Makes a space and its CSpace the thread's current pair for a scope.
#pragma once

#include "qxObject/CSpace.h"
#include "qxPersistStore/IPersistStore.h"

namespace quna {

// Set space first, then CSpace; restored in reverse order on every exit. Code that acts for a space on a thread that
// may be in another context holds one of these.
class ThreadPSpaceScope {
public:
    ThreadPSpaceScope(PSpace* pspace, CSpace* cspace)
        : m_savedPSpace(GetThreadPSpace()), m_savedCSpace(GetThreadCSpace()) {
        SetThreadPSpace(pspace);
        SetThreadCSpace(cspace);
    }
    ThreadPSpaceScope(const ThreadPSpaceScope&) = delete;
    ThreadPSpaceScope& operator=(const ThreadPSpaceScope&) = delete;
    ~ThreadPSpaceScope() {
        SetThreadCSpace(m_savedCSpace);
        SetThreadPSpace(m_savedPSpace);
    }

    // The thread's former pair must not name what ends within the scope.
    void Forget(const PSpace* pspace, const CSpace* cspace) {
        if (m_savedPSpace == pspace) m_savedPSpace = nullptr;
        if (m_savedCSpace == cspace) m_savedCSpace = nullptr;
    }

private:
    PSpace* m_savedPSpace;
    CSpace* m_savedCSpace;
};

} // namespace quna

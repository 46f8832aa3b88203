// Which spaces must be written together.
#pragma once

#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"
#include "qxUtils/xvector.h"

#include <mutex>

namespace quna {

class PSpace;

// Spaces that a transaction tied together form a group, whose changes go to disk in one LSS transaction. A group is a
// ring through PSpace::m_nextInTxnGrp, so joining and leaving allocate nothing; a space alone points to itself. The
// writer dissolves a group when it takes it.
//
// Threads: any. mutex_ guards m_nextInTxnGrp and m_inGrp of all spaces of the store; it is a leaf lock.
class QX_API PSpaceTxnGroupMgr {
public:
    PSpaceTxnGroupMgr() = default;
    PSpaceTxnGroupMgr(const PSpaceTxnGroupMgr&) = delete;
    PSpaceTxnGroupMgr& operator=(const PSpaceTxnGroupMgr&) = delete;

    // Joins two groups: p2's ring stands right behind p1. False, and nothing changed, if they are one group already.
    // Costs a walk around p2's ring.
    bool MergeTwoPSpaceTxnGroups(PSpace* p1, PSpace* p2);

    // Appends to grp all members of the groups of its elements, in ring order, each once, and dissolves those groups.
    // The elements given come first and are distinct ("!grp[i]->m_inGrp").
    void RetrieveGroup(xvector<PSpace*>& grp);

private:
    Mutex mutex_{"PSpaceTxnGroupMgr::mutex_"};
};

} // namespace quna

#include "qxPersistStore/src/PSpaceTxnGroupMgr.h"

#include "qxPersistStore/src/PSpace.h"
#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/PSpaceTxnGroupMgr";

ssize_t RingSize(const PSpace* first) {
    ssize_t size = 1;
    for (const PSpace* p = first->m_nextInTxnGrp; p != first; p = p->m_nextInTxnGrp) ++size;
    return size;
}

// Marks the given elements; an element that occurs twice leaves no mark behind.
void MarkGiven(const xvector<PSpace*>& grp) {
    ssize_t i = 0;
    try {
        for (; i < grp.size(); ++i) {
            QX_ASSERT(grp[i]);
            QX_ASSERT(!grp[i]->m_inGrp);
            grp[i]->m_inGrp = true;
        }
    } catch (...) {
        while (i > 0) grp[--i]->m_inGrp = false;
        throw;
    }
}

// Moves the members of first's ring that are not in grp yet to its end. grp has room for them.
void DissolveRing(PSpace* first, xvector<PSpace*>& grp) {
    QX_ASSERT(first);
    PSpace* p = first->m_nextInTxnGrp;
    QX_ASSERT(p);
    first->m_nextInTxnGrp = first;
    while (p != first) {
        if (!p->m_inGrp) {
            p->m_inGrp = true;
            grp.push_back(p);
        }
        PSpace* n = p->m_nextInTxnGrp;
        QX_ASSERT(n);
        p->m_nextInTxnGrp = p;
        p = n;
    }
}

void ClearMarks(const xvector<PSpace*>& grp) {
    for (ssize_t i = 0; i < grp.size(); ++i) {
        QX_ASSERT(grp[i]);
        QX_ASSERT(grp[i]->m_inGrp);
        grp[i]->m_inGrp = false;
    }
}

} // namespace

bool PSpaceTxnGroupMgr::MergeTwoPSpaceTxnGroups(PSpace* p1, PSpace* p2) {
    const std::lock_guard lock(mutex_);
    QX_ASSERT(p1);
    QX_ASSERT(p2);
    if (p1 == p2) return false;
    PSpace* last = p2;
    while (last->m_nextInTxnGrp != p2) {
        last = last->m_nextInTxnGrp;
        if (last == p1) return false;
    }
    last->m_nextInTxnGrp = p1->m_nextInTxnGrp;
    p1->m_nextInTxnGrp = p2;
    return true;
}

void PSpaceTxnGroupMgr::RetrieveGroup(xvector<PSpace*>& grp) {
    const std::lock_guard lock(mutex_);
    const ssize_t numGiven = grp.size();
    // Room comes first: a ring that is dissolved halfway would never close again.
    ssize_t capacity = numGiven;
    for (ssize_t i = 0; i < numGiven; ++i)
        if (grp[i]) capacity += RingSize(grp[i]) - 1;
    grp.reserve(capacity);
    MarkGiven(grp);
    for (ssize_t i = 0; i < numGiven; ++i) DissolveRing(grp[i], grp);
    ClearMarks(grp);
}

} // namespace quna

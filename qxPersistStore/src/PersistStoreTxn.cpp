#include "qxPersistStore/src/PersistStoreTxn.h"

#include "qxPersistStore/src/Mutants.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxUtils/Assert.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Tracer.h"

#include <cstdlib>
#include <cstring>
#include <exception>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/PersistStoreTxn";

// Gives a lock back when the scope ends before Keep.
class UnlockUnlessKept {
public:
    explicit UnlockUnlessKept(CSpace* cs) : m_cs(cs) {}
    UnlockUnlessKept(const UnlockUnlessKept&) = delete;
    UnlockUnlessKept& operator=(const UnlockUnlessKept&) = delete;
    ~UnlockUnlessKept() {
        if (m_cs) Unlock(m_cs);
    }
    void Keep() { m_cs = nullptr; }

private:
    CSpace* m_cs;
};

} // namespace

void AssertHaveCSpaceLocks(PSpaceLockMode* L, ssize_t n) {
    QX_ASSERT(n >= 0);
    for (ssize_t i = 0; i < n; ++i) {
        QX_ASSERT(L);
        const PSpaceLockMode& m = L[i];
        QX_ASSERT(m.space);
        CSpace* cs = m.space->GetCSpace();
        QX_ASSERT(cs);
        switch (m.mode) {
        case SharedRead: QX_ASSERT(HaveLock(cs)); break;
        case Exclusive:
        case Transaction: QX_ASSERT(HaveExclusiveLock(cs)); break;
        default: QX_ASSERT(0);
        }
    }
}

PersistStoreTxn::PersistStoreTxn(PersistStore* ps, PSpaceLockMode* L, ssize_t n) : m_ps(ps) {
    QX_ASSERT(ps);
    QX_ASSERT(n >= 0);
    for (ssize_t i = 0; i < n; ++i) {
        QX_ASSERT(L);
        const PSpaceLockMode& m = L[i];
        QX_ASSERT(m.space);
        QX_ASSERT(m.space->GetPersistStore() == ps);
        m_pspaces.push_back(m);
    }
    AssertHaveCSpaceLocks(L, n);
    for (ssize_t i = 0; i < n; ++i) {
        QX_ASSERT(L[i].space);
        if (L[i].mode == Exclusive) // a Transaction lock does not make a writer
            m_haveWriteAccess = true;
    }
    if (!m_haveWriteAccess) return;
    for (ssize_t i = 1; i < n; ++i) Merge(L[0].space, L[i].space);
}

void PersistStoreTxn::Merge(PSpace* p1, PSpace* p2) {
    if (IsStoreMutant(EStoreMutant::GROUP_NOT_TIED)) return;
    m_ps->GetPSpaceTxnGroupMgr().MergeTwoPSpaceTxnGroups(p1, p2);
}

PSpace* PersistStoreTxn::OpenPSpace(ConstStringZ name, EOpenMode openMode, CSpace* cspace) {
    QX_ASSERT(name);
    QX_ASSERT(strlen(name) > 0);
    // Made first: a space that is open and that nobody knows of could not be closed.
    m_openedPSpaces.push_back(nullptr);
    m_openedPSpaces.pop_back();
    PSpace* pspace = m_ps->OpenPSpace(name, openMode, cspace);
    QX_ASSERT(pspace);
    OnOpenPSpace(pspace);
    return pspace;
}

void PersistStoreTxn::OnOpenPSpace(PSpace* p) {
    QX_ASSERT(p);
    QX_ASSERT(p->m_cspace);
    Lock(p->m_cspace, Exclusive);
    UnlockUnlessKept lock(p->m_cspace);
    if (!m_openedPSpaces.empty()) {
        Merge(m_openedPSpaces.front(), p);
    } else if (m_haveWriteAccess) {
        QX_ASSERT(m_pspaces.size() > 0);
        Merge(m_pspaces[0].space, p);
    } else {
        m_haveWriteAccess = true;
        for (const PSpaceLockMode& m : m_pspaces) Merge(p, m.space);
    }
    m_openedPSpaces.push_back(p);
    lock.Keep();
}

void PersistStoreTxn::Close() {
    if (!m_pspaces.empty()) AssertHaveCSpaceLocks(m_pspaces.data(), m_pspaces.size());
    if (m_haveWriteAccess) TieWhatHasChanges();
    for (PSpace* p : m_openedPSpaces) Unlock(p->m_cspace);
    delete this;
}

// The writer dissolves a group when it looks at one of its members, which it may have done before this transaction had
// changed anything. Ties again, under the locks, what has to be written together.
void PersistStoreTxn::TieWhatHasChanges() {
    PSpace* first = nullptr;
    const auto tie = [&](PSpace* p) {
        // A request for a deletion marks nothing, and is a change like any other.
        if (!p->HaveChangesToWriteToLss() && !p->m_dq.HaveRequests()) return;
        if (first)
            Merge(first, p);
        else
            first = p;
    };
    for (const PSpaceLockMode& m : m_pspaces) tie(m.space);
    for (PSpace* p : m_openedPSpaces) tie(p);
}

void PersistStoreTxn::TransferPSpace(PSpace* dst, PSpace* src) {
    QX_ASSERT(dst);
    QX_ASSERT(src);
    dst->Transfer(*src);
}

bool PersistStoreTxn::DestroyPSpace(ConstStringZ name) {
    QX_ASSERT(name);
    QX_ASSERT(0);
    return false;
}

// ---- The thread's current space -------------------------------------------------------------------------------------

PersistStoreTxn* OpenPSpaceTxn(ECSpaceLockMode mode) {
    PSpace* ps = GetThreadPSpace();
    if (!ps) {
        CSpace* cs = GetThreadCSpace();
        QX_ASSERT(cs);
        Lock(cs, mode);
        UnlockUnlessKept lock(cs);
        QX_ASSERT(!GetPSpaceOfCSpace(cs));
        lock.Keep();
        return nullptr;
    }
    CSpace* cs = ps->GetCSpace();
    QX_ASSERT(cs);
    QX_ASSERT(GetPSpaceOfCSpace(cs) == ps);
    Lock(cs, mode);
    UnlockUnlessKept lock(cs);
    PSpaceLockMode member;
    member.space = ps;
    member.mode = mode;
    PersistStoreTxn* txn = ps->GetPersistStore()->OpenTxn(&member, 1);
    lock.Keep();
    return txn;
}

void ClosePSpaceTxn(PersistStoreTxn* txn) {
    if (!txn) {
        CSpace* cs = GetThreadCSpace();
        QX_ASSERT(cs);
        Unlock(cs);
        return;
    }
    txn->Close();
    PSpace* ps = GetThreadPSpace();
    QX_ASSERT(ps);
    CSpace* cs = ps->GetCSpace();
    QX_ASSERT(cs);
    QX_ASSERT(GetPSpaceOfCSpace(cs) == ps);
    Unlock(cs);
}

PSpaceTxn::PSpaceTxn(ECSpaceLockMode mode) : m_txn(OpenPSpaceTxn(mode)) {}

PSpaceTxn::~PSpaceTxn() noexcept(false) {
    if (std::uncaught_exceptions() > 0) {
        TracerX() << "Assertion failed: false (" << SOURCE_PATH << "): an exception passes through a PSpaceTxn\n";
        std::abort();
    }
    ClosePSpaceTxn(m_txn);
}

PSpace* OpenPSpace(PersistStore* ps, ConstStringZ name, EOpenMode openMode, CSpace* cspace) {
    QX_ASSERT(ps);
    AutoCloser2<PersistStoreTxn> txn(ps->OpenTxn(nullptr, 0));
    PSpace* p = txn->OpenPSpace(name, openMode, cspace);
    txn.Close();
    return p;
}

} // namespace quna

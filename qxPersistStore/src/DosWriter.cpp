#include "qxPersistStore/src/DosWriter.h"

#include "qxObject/WCSpace.h"
#include "qxPersistStore/src/Mutants.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "qxUtils/Assert.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Mutex.h"
#include "qxUtils/Thread.h"
#include "qxUtils/Tracer.h"

#include <algorithm>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/DosWriter";
constexpr double MILLISECS_PER_TICK = 0.0001; // HPTime counts in 100 ns

bool IsDirty(const PSpace* pspace) { return pspace->HaveChangesToWriteToLss(); }

} // namespace

class DosWriter::Timer {
public:
    double GetElapsedTimeInMilliSecs() const {
        return static_cast<double>(HPTime::GetCurrentTime() - m_startTime) * MILLISECS_PER_TICK;
    }

private:
    HPTime m_startTime = HPTime::GetCurrentTime();
};

// mutex_, given to those who wait before it goes to the same thread again: who waits for mutex_ holds turnstile_, which
// everybody passes. Without it the thread's loop of deletion batches would keep others out for a long time.
class DosWriter::Turn {
public:
    explicit Turn(DosWriter& writer) : m_lock(writer.mutex_, std::defer_lock) {
        const std::lock_guard passing(writer.turnstile_);
        m_lock.lock();
    }

private:
    std::unique_lock<Mutex> m_lock;
};

// The CSpace locks of a group, exclusive.
class DosWriter::GroupLocks {
public:
    explicit GroupLocks(const GROUP& group) {
        for (PSpace* pspace : group) m_cspaces.push_back(pspace->m_cspace);
        LockMultipleCSpaces(m_cspaces.data(), m_cspaces.size(), Exclusive);
    }
    GroupLocks(const GroupLocks&) = delete;
    GroupLocks& operator=(const GroupLocks&) = delete;
    ~GroupLocks() noexcept(false) {
        UndoInDestructor("DosWriter::GroupLocks", m_uncaught,
                         [this] { UnlockMultipleCSpaces(m_cspaces.data(), m_cspaces.size()); });
    }

private:
    xvector<CSpace*> m_cspaces;
    int m_uncaught = std::uncaught_exceptions();
};

// A group that has been taken off. When an exception ends the scope, such as that of a disk without room for the
// transaction, what is dirty of it is tied again: the next write takes it together. A destructor and no catch block, which
// would let the writer's thread close the transaction before the exception ends the process.
class DosWriter::StaysTied {
public:
    // mutex_ is held for the scope. `group` may grow meanwhile.
    StaysTied(PSpaceTxnGroupMgr& grpMgr, const GROUP& group) : m_grpMgr(grpMgr), m_group(&group) {}
    StaysTied(const StaysTied&) = delete;
    StaysTied& operator=(const StaysTied&) = delete;
    ~StaysTied() {
        if (!m_group) return;
        PSpace* firstDirty = nullptr;
        for (PSpace* pspace : *m_group) {
            if (!IsDirty(pspace)) continue;
            if (firstDirty)
                m_grpMgr.MergeTwoPSpaceTxnGroups(firstDirty, pspace);
            else
                firstDirty = pspace;
        }
    }
    void Release() { m_group = nullptr; }

private:
    PSpaceTxnGroupMgr& m_grpMgr;
    const GROUP* m_group;
};

// ---- The thread -----------------------------------------------------------------------------------------------------

void DosWriter::Start() {
    m_wakeThreadEvent.Reset();
    requestShutDown_.store(false, std::memory_order_relaxed);
    thread_ = std::thread([this] { Run(); });
}

void DosWriter::Stop() {
    requestShutDown_.store(true, std::memory_order_relaxed);
    m_wakeThreadEvent.Signal();
    thread_.join();
}

void DosWriter::Run() {
    SetThreadName("Dirty Object Set Writer");
    while (!requestShutDown_.load(std::memory_order_relaxed)) {
        const Timer timer;
        if (!DeleteUntilPeriodIsOver(timer)) return;
        SleepUntilPeriodIsOver(timer);
        if (requestShutDown_.load(std::memory_order_relaxed)) return;
        ProcessAllGroups(false, CleanMember::IsMarked);
    }
}

// Deletions take the place of the sleep. False when the thread is to end.
bool DosWriter::DeleteUntilPeriodIsOver(const Timer& timer) {
    while (DeleteSomeObjects()) {
        if (m_sleepTime.Get() <= timer.GetElapsedTimeInMilliSecs()) break;
        if (requestShutDown_.load(std::memory_order_relaxed)) return false;
    }
    return true;
}

void DosWriter::SleepUntilPeriodIsOver(const Timer& timer) {
    const int64 remaining = m_sleepTime.Get() - static_cast<int64>(timer.GetElapsedTimeInMilliSecs());
    if (remaining >= 1) m_wakeThreadEvent.Wait(static_cast<uint32>(remaining));
}

// ---- Group writes ---------------------------------------------------------------------------------------------------

void DosWriter::ProcessPSpaceTxnGroup(PSpace* pspace, bool flush) {
    const Turn turn(*this);
    if (!ProcessGroup(pspace, flush, CleanMember::Fails) && flush) m_ps.m_lss->Flush();
}

void DosWriter::ProcessAllGroups(bool flush) { ProcessAllGroups(flush, CleanMember::Fails); }

void DosWriter::ProcessAllGroups(bool flush, CleanMember cleanMember) {
    const Turn turn(*this);
    xdeque<PSpace*, 512> pspaces; // a copy: writing takes spaces off the list
    m_dirtyPSpaces.CopyIntoDeque(pspaces);
    bool flushed = false;
    for (PSpace* pspace : pspaces) {
        // A space that was written with an earlier one's group is left alone: to look for its group would dissolve
        // a tie that a transaction has made since.
        if (IsDirty(pspace) && ProcessGroup(pspace, flush, cleanMember)) flushed = flush;
    }
    if (flush && !flushed) m_ps.m_lss->Flush();
}

bool DosWriter::PrivateProcessPSpaceTxnGroup(PSpace* first, bool flush) {
    return ProcessGroup(first, flush, CleanMember::Fails);
}

bool DosWriter::ProcessGroup(PSpace* first, bool flush, CleanMember cleanMember) {
    QX_ASSERT(first);
    GROUP group;
    group.push_back(first);
    m_grpMgr.RetrieveGroup(group);
    if (std::none_of(group.begin(), group.end(), IsDirty)) return false;
    StaysTied tie(m_grpMgr, group);
    for (;;) {
        const GroupLocks locks(group);
        const ssize_t size = group.size();
        m_grpMgr.RetrieveGroup(group); // a transaction may have tied more spaces before we had the locks
        if (group.size() != size) continue;
        HandleCleanMembers(group, cleanMember);
        WriteGroup(group, flush);
        tie.Release();
        return true;
    }
}

// Before anything is written, so that nothing of the group is half committed.
void DosWriter::HandleCleanMembers(const GROUP& group, CleanMember cleanMember) {
    for (PSpace* pspace : group)
        if (pspace->m_dq.HaveRequests()) pspace->m_dos.MarkAsDirty(); // which it has to write
    const auto clean = std::find_if_not(group.begin(), group.end(), IsDirty);
    if (clean == group.end()) return;
    if (cleanMember == CleanMember::IsMarked) {
        for (PSpace* pspace : group) pspace->m_dos.MarkAsDirty();
        return;
    }
    (*clean)->m_dos.AssertDirty();
}

void DosWriter::WriteGroup(const GROUP& group, bool flush) {
    if (IsStoreMutant(EStoreMutant::GROUP_IN_TWO) && group.size() > 1) {
        for (PSpace* pspace : group) WriteGroup({pspace}, flush);
        return;
    }
    AutoCloser<ILssTransaction> txn(m_ps.m_lss->OpenTransaction());
    if (flush && !IsStoreMutant(EStoreMutant::FLUSH_LEFT_OUT)) txn->RequestFlushToDisk();
    if (IsStoreMutant(EStoreMutant::CLASS_IDS_LATER)) m_ps.m_rootObject.WriteIfDirty(*txn);
    try {
        for (PSpace* pspace : group) WriteMember(pspace, *txn);
    } catch (...) {
        // What is complete is committed when the transaction closes, and may need class ids, or the name of its space, that
        // are new.
        try {
            m_ps.m_rootObject.WriteIfDirty(*txn);
            m_ps.m_spaceMap.WriteIfDirty(*txn);
        } catch (...) {
            TraceSwallowedException("DosWriter::WriteGroup");
        }
        throw;
    }
    if (!IsStoreMutant(EStoreMutant::CLASS_IDS_LATER)) m_ps.m_rootObject.WriteIfDirty(*txn);
    m_ps.m_spaceMap.WriteIfDirty(*txn);
    txn.Close();
}

void DosWriter::WriteMember(PSpace* pspace, ILssTransaction& txn) {
    const ThreadPSpaceScope pair(pspace, pspace->m_cspace);
    pspace->m_dq.AccumulateDelta(pspace);
    pspace->WriteDQToLssIfDirty(txn);
    pspace->WriteDirtyObjectsToLss(txn);
    if (!pspace->m_ensureCommitted) {
        m_ps.m_spaceMap.CommitPSpace(pspace);
        pspace->m_ensureCommitted = true;
    }
}

// ---- Spaces and deletions -------------------------------------------------------------------------------------------

void DosWriter::OnOpenPSpace(PSpace* pspace) {
    QX_ASSERT(pspace);
    if (!pspace->m_dq.HaveObjectsToDelete()) return;
    AddPSpaceToNedqList(pspace);
    m_wakeThreadEvent.Signal();
}

void DosWriter::OnClosePSpace(PSpace* pspace) {
    QX_ASSERT(pspace);
    const Turn turn(*this);
    ProcessGroup(pspace, false, CleanMember::IsMarked);
    RemovePSpaceFromNedqList(pspace); // what is left resumes when the space opens again
}

// While mutex_ is held the persistent queues of a space do not grow: what was empty then may leave the list.
bool DosWriter::DeleteSomeObjects() {
    const Turn turn(*this);
    PSpace* const pspace = m_nedqList.Front();
    if (!pspace) return false;
    if (!pspace->m_dq.DeleteSomeObjects(pspace)) RemovePSpaceFromNedqList(pspace); // a transfer has emptied it
    return true;
}

// By membership: a space whose queues a transfer has emptied is still on the list.
void DosWriter::AddPSpaceToNedqList(PSpace* pspace) {
    if (!m_nedqList.Contains(pspace)) m_nedqList.PushBack(pspace);
}

void DosWriter::RemovePSpaceFromNedqList(PSpace* pspace) {
    if (m_nedqList.Contains(pspace)) m_nedqList.Remove(pspace);
}

void DosWriter::ForgetSpaces() {
    m_dirtyPSpaces.Clear();
    m_nedqList.Clear();
}

} // namespace quna

// The background writer.
#pragma once

#include "qxPersistStore/src/DirtyPSpaceList.h"
#include "qxPersistStore/src/NedqList.h"
#include "qxPersistStore/src/PSpaceTxnGroupMgr.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Event.h"
#include "qxUtils/Export.h"
#include "qxUtils/HPTime.h"
#include "qxUtils/Mutex.h"
#include "qxUtils/ThreadSafeValue.h"
#include "qxUtils/xdeque.h"
#include "qxUtils/xvector.h"

#include <atomic>
#include <mutex>
#include <thread>

namespace quna {

class ILssTransaction;
class PSpace;
class PersistStore;

// Once a period its thread works on permanent deletions for as long as the period lasts, and then writes every dirty
// space with its transaction group, one LSS transaction a group: that is what makes a transaction over several spaces
// atomic on disk. Synchronous callers use the same code on their own threads.
//
// Threads: mutex_ serialises all writing and all deletion batches. It comes before every CSpace lock: a thread that
//   holds one must not call what takes mutex_. The thread catches nothing: an exception that leaves it ends the
//   process, with the last closed state on disk.
class QX_API DosWriter {
public:
    explicit DosWriter(PersistStore& ps) : m_ps(ps) {}
    DosWriter(const DosWriter&) = delete;
    DosWriter& operator=(const DosWriter&) = delete;

    void Start();
    // Ends the thread. It makes no last pass over what is dirty.
    void Stop();
    void SignalWriteDirtyObjectSet() { m_wakeThreadEvent.Signal(); }
    int GetSleepTime() const { return m_sleepTime.Get(); }
    void SetSleepTime(int milliSecs) { m_sleepTime.Set(milliSecs); }

    // With `flush` everything closed earlier is on disk on return, also when nothing was dirty. A clean member of a
    // group that is to be written fails "m_dirty" (path src/DOS) before anything is. What is dirty of a group that was
    // not written stays tied, whatever failed.
    void ProcessPSpaceTxnGroup(PSpace* pspace, bool flush);
    void ProcessAllGroups(bool flush);
    // Requires: mutex_ is held. False when the group had nothing to write.
    bool PrivateProcessPSpaceTxnGroup(PSpace* first, bool flush);

    // The space is not yet known to any other thread but the collector's.
    void OnOpenPSpace(PSpace* pspace);
    // The space's last write.
    void OnClosePSpace(PSpace* pspace);

    // Runs one deletion batch on the first space that has deletions waiting; false when there is none. The next space
    // has its turn when the first has nothing left.
    bool DeleteSomeObjects();
    void AddPSpaceToNedqList(PSpace* pspace);
    void RemovePSpaceFromNedqList(PSpace* pspace);

    // Unlinks all spaces, for a store that ends with spaces open.
    void ForgetSpaces();

    PersistStore& m_ps;
    std::atomic<bool> requestShutDown_ = false;
    AutoResetEvent m_wakeThreadEvent;
    std::thread thread_;
    Mutex mutex_{"DosWriter::mutex_"};
    ThreadSafeValue<int> m_sleepTime{1000}; // the period, milliseconds
    NedqList m_nedqList;
    PSpaceTxnGroupMgr m_grpMgr;
    DirtyPSpaceList m_dirtyPSpaces;

private:
    using GROUP = xvector<PSpace*>;

    // What to do about a member of a group that has nothing to write.
    enum class CleanMember {
        Fails, // the application asked for the write: it tied a space that it did not change
        IsMarked,
    };

    class Timer;
    class Turn;
    class GroupLocks;
    class StaysTied;

    void Run();
    bool DeleteUntilPeriodIsOver(const Timer& timer);
    void SleepUntilPeriodIsOver(const Timer& timer);
    void ProcessAllGroups(bool flush, CleanMember cleanMember);
    bool ProcessGroup(PSpace* first, bool flush, CleanMember cleanMember);
    void HandleCleanMembers(const GROUP& group, CleanMember cleanMember);
    void WriteGroup(const GROUP& group, bool flush);
    void WriteMember(PSpace* pspace, ILssTransaction& txn);

    Mutex turnstile_{"DosWriter::turnstile_"}; // held only while waiting for mutex_
};

} // namespace quna

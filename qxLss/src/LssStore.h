// An open log-structured store: the public interface over its parts.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxLss/src/AllocRing.h"
#include "qxLss/src/Checkpoint.h"
#include "qxLss/src/CleanThread.h"
#include "qxLss/src/Cleaner.h"
#include "qxLss/src/CopyGate.h"
#include "qxLss/src/Flusher.h"
#include "qxLss/src/Index.h"
#include "qxLss/src/LogArchive.h"
#include "qxLss/src/LssTransaction.h"
#include "qxLss/src/Overlay.h"
#include "qxLss/src/Recovery.h"
#include "qxLss/src/SeidAllocator.h"
#include "qxLss/src/Shrinker.h"
#include "qxLss/src/SpaceManager.h"
#include "qxLss/src/StoreCore.h"
#include "qxLss/src/UserLog.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace quna {

struct CopyOrigin;

// Ownership: owns all parts and the two threads; ends by Close or Abandon.
// Threads:   as ILogStructuredStore says. Locks from outermost to innermost: Checkpoint::m_mutex, the turn of the log,
//            Flusher::m_syncMutex, SpaceManager's mutexes, the allocator's and the ring's mutexes, the index's load mutexes
//            and snapshot mutex.
class QX_API LssStore final : public ILogStructuredStore {
public:
    // `core` has its file open and locked and is attached.
    // `deltasDirectory`: where the log is archived; empty: nowhere.
    explicit LssStore(std::unique_ptr<StoreCore> core, const std::string& deltasDirectory = {});

    // The store in the file of `core`, which is open and locked but not attached; recovered, its threads not started.
    static LssStore* OpenLocked(std::unique_ptr<StoreCore> core, const std::string& deltasDirectory = {});

    // Lays down a fresh store that counts as "being created" and starts the threads.
    void LayDown();
    // Recovers what the file holds and starts the threads, which a read-only store has not.
    void Recover(const CheckpointHeader& header);
    // A creation under another name has been finished.
    void SetPath(const std::string& path) { m_core->m_file.SetPath(path); }
    void StartThreads();

    void Close() override;
    SeidHigh AllocateSeidHigh() override;
    Seid AllocateSeid(SeidHigh high) override;
    bool AllocateAffiliateSeid(Seid& seid) override;
    bool IsAllocated(Seid seid) override;
    IContiguousSerialElement* OpenSerialElement(Seid seid) override;
    ILssTransaction* OpenTransaction() override;
    void GetStats(LssStats& stats) override;
    void Flush() override;
    void Abandon() override;
    BackupResult Backup(ConstStringZ path, const BackupOptions& options) override;
    BackupResult CopyCompacted(ConstStringZ path, const BackupOptions& options) override;

    // --- for RestoreLss, which has the store for itself

    // The next transaction to be closed bears this time.
    void SetTimeOfNextCommit(uint64 time) { m_log.SetTimeOfNextCommit(time); }
    uint64 LastTransaction() const { return m_log.LastTransaction(); }
    // Time of its last transaction's commit; 0: the log no longer has it.
    uint64 TimeOfLastTransaction();
    // From now on no identifier below these is handed out.
    void RaiseHorizons(const std::vector<AllocHorizon>& horizons, uint32 nextHigh);
    // Does what Close does, but says when it fails. Only Abandon may follow.
    void FinishRestore();

    const StoreCore& Core() const { return *m_core; }
    // --- for CompactingCopy, whose target nobody else has

    TurnLock& Turn() { return m_log.Turn(); }

    // --- for tests

    // Writes deltas until nothing durable waits. Throws what the background thread would trace.
    void ArchiveForTest();
    // Takes a checkpoint now. A failure is final, as in the background.
    void CheckpointForTest();
    // Cleans up to `maxVictims` segments, however full they are. A failure is final. How many became free.
    ssize_t CleanForTest(ssize_t maxVictims);
    // Gives free space at the file's end, and some in its middle, back.
    void ShrinkForTest();
    // Moves what stands at the file's end into free slots, and cuts the end off. A failure is final.
    void PullInEndForTest();
    // Called between the steps of checkpoints and of the cleaner.
    void SetStepHookForTest(std::function<void()> hook) { m_core->m_stepHook = std::move(hook); }
    // From now on nothing happens in the background, so that a run depends on its calls alone.
    void StopThreadsForTest() {
        StopThreads();
        m_cleaner.AllowAgainForTest();
    }
    // What the thread "Lss clean" does when it is woken, or after its time; when that is stopped. In how many milliseconds
    // again, below 0: when it is woken.
    int BackgroundForTest(bool isWoken = false) { return DoBackgroundWork(isWoken); }
    // Recounts everything; throws CorruptLSSException at a difference. Requires: no transaction open in this thread.
    void Validate();
    // Calls visit(seid, location) for every element.
    template <class Visitor>
    void VisitElements(Visitor&& visit) {
        m_index.VisitAll([&](uint64 seid, Location l) { visit(Seid(seid), l); }, [](Location) {});
    }

    StoreCore& CoreForTest() { return *m_core; }
    SpaceManager& SpaceForTest() { return m_space; }
    UserLog& LogForTest() { return m_log; }
    Cleaner& CleanerForTest() { return m_cleaner; }
    LogArchive* ArchiverForTest() { return m_archive.get(); }
    Index& IndexForTest() { return m_index; }

private:
    ~LssStore();

    // A store in the making, or one that is only looked into, ends without writing anything.
    struct Abandoner {
        void operator()(LssStore* store) const { store->Abandon(); }
    };

    void BecomeReadOnly(const CheckpointHeader& header, RecoveredLog log);
    // --- of LssStoreCopies.cpp
    using StorePtr = std::unique_ptr<LssStore, Abandoner>;
    void CheckMayCopy();
    CheckpointImage CheckpointForCopy();
    StorePtr OpenCheckpoint(const CheckpointHeader& header);
    void LayDownCopy(const LssStore& source);
    void FinishCopy(const LssStore& source);
    // ---

    void StopThreads();
    void AttachArchive();
    void FinishArchive();
    void CompleteLastSlot();
    void OnTransactionClosed(bool unwinding);
    int DoBackgroundWork(bool isWoken);
    void CleanUntilAtRest();
    void MakeRoomForTransaction();
    void HandOverBuffered();
    void ThrowIfReadOnly(ConstStringZ operation) const;
    template <class Action>
    auto Allocate(Action&& action);

    std::unique_ptr<StoreCore> m_core;
    Flusher m_flusher;
    SpaceManager m_space;
    AllocRing m_ring;
    SeidAllocator m_allocator;
    Index m_index;
    UserLog m_log;
    Checkpoint m_checkpoint;
    Cleaner m_cleaner;
    Shrinker m_shrinker;
    LssTransaction m_transaction;
    Overlay m_overlay; // of a read-only store
    std::unique_ptr<OverlayTransaction> m_overlayTransaction;
    std::unique_ptr<const CopyOrigin> m_origin; // of a read-only store
    CopyGate m_copies;
    std::unique_ptr<LogArchive> m_archive; // null: none
    CleanThread m_cleanThread;
};

// Has a store threads of its own? Without them nothing happens in the background, so that a run depends on its calls alone.
enum class EBackground {
    THREADS,
    NONE
};

// CreateOrOpenLSS with another table of system calls, and segments down to 4 KiB. `stampShift` is the unit of the segments'
// log stamps, as a power of two: with a small one the data of a small store has ages. A store keeps its own.
QX_API ILogStructuredStore* OpenLssForTest(SysCalls& sys, ConstStringZ path, ConstStringZ deltasDirPath,
                                           bool& createdNew, EOpenMode openMode, const LssSettings& settings,
                                           EBackground background = EBackground::THREADS, int stampShift = STAMP_SHIFT);

} // namespace quna

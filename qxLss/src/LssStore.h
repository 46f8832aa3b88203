// An open log-structured store: the public interface over its parts.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxLss/src/AllocRing.h"
#include "qxLss/src/Checkpoint.h"
#include "qxLss/src/CleanThread.h"
#include "qxLss/src/Cleaner.h"
#include "qxLss/src/Flusher.h"
#include "qxLss/src/Index.h"
#include "qxLss/src/Overlay.h"
#include "qxLss/src/Recovery.h"
#include "qxLss/src/SeidAllocator.h"
#include "qxLss/src/SpaceManager.h"
#include "qxLss/src/StoreCore.h"
#include "qxLss/src/Transaction.h"
#include "qxLss/src/UserLog.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <functional>
#include <memory>
#include <utility>

namespace quna {

// Ownership: owns all parts and the two threads; ends by Close or Abandon.
// Threads:   as ILogStructuredStore says. Locks from outermost to innermost: Checkpoint::m_mutex, the turn of the log,
//            Flusher::m_syncMutex, SpaceManager's mutexes, the allocator's and the ring's mutexes, the index's load mutexes
//            and snapshot mutex.
class QX_API LssStore final : public ILogStructuredStore {
public:
    // `core` has its file open and locked and is attached.
    explicit LssStore(std::unique_ptr<StoreCore> core);

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

    // Takes a checkpoint now. A failure is final, as in the background.
    void CheckpointForTest();
    // Cleans up to `maxVictims` segments, however full they are. A failure is final. How many became free.
    ssize_t CleanForTest(ssize_t maxVictims);
    // Gives free space at the file's end, and some in its middle, back.
    void ShrinkForTest();
    // Called between the steps of checkpoints and of the cleaner.
    void SetStepHookForTest(std::function<void()> hook) { m_core->m_stepHook = std::move(hook); }
    // From now on nothing happens in the background, so that a run depends on its calls alone.
    void StopThreadsForTest() {
        StopThreads();
        m_cleaner.AllowAgainForTest();
    }
    // What the thread "Lss clean" does when it is woken; when that is stopped. In how many milliseconds again, below 0: when
    // it is woken.
    int BackgroundForTest() { return DoBackgroundWork(); }
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
    Index& IndexForTest() { return m_index; }

private:
    ~LssStore();

    void StopThreads();
    void OnTransactionClosed(bool unwinding);
    int DoBackgroundWork();
    void CleanUntilAtRest();
    int Shrink();
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
    Transaction m_transaction;
    Overlay m_overlay; // of a read-only store
    std::unique_ptr<OverlayTransaction> m_overlayTransaction;
    CleanThread m_cleanThread;
    uint64 m_clockSeen = 0;  // by Shrink; the thread "Lss clean"
    bool m_canShrink = true; // likewise
};

// Has a store threads of its own? Without them nothing happens in the background, so that a run depends on its calls alone.
enum class EBackground {
    THREADS,
    NONE
};

// CreateOrOpenLSS with another table of system calls, and segments down to 4 KiB.
QX_API ILogStructuredStore* OpenLssForTest(SysCalls& sys, ConstStringZ path, ConstStringZ deltasDirPath,
                                           bool& createdNew, EOpenMode openMode, const LssSettings& settings,
                                           EBackground background = EBackground::THREADS);

} // namespace quna

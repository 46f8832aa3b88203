// Copies the user stream, as soon as it is durable, into the files of an archive.
#pragma once

#include "qxLss/src/DeltaFile.h"
#include "qxLss/src/Flusher.h"
#include "qxLss/src/StoreCore.h"
#include "qxLss/src/UserChain.h"
#include "qxLss/src/UserLog.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quna {

// A base, which is any copy of the store, and the deltas written since give the store as it was after any transaction: see
// RestoreLss. The thread "Lss archive" writes a delta when 16 MiB of log wait for it, or 60 seconds after something began to
// wait; the close of the store writes the last one. It has a thread of its own so that a slow directory holds up nothing.
//
// What is not archived is kept: user segments from the archive's place on are no victims of the cleaner, and no checkpoint
// frees them (ArchiveProgress). So a failing directory costs room, never a transaction, and is caught up with later.
//
// Ownership: owns the thread; borrows core and flusher.
// Threads:   Attach by the opening thread; then WriteNext by one thread at a time: "Lss archive", and after Stop the closing
//            one. NoteDurable by any.
// Invariant: every transaction up to ArchiveProgress::upTo, from the one on with which the chain began, is in a delta that is
//            durable under its name.
class QX_API LogArchive {
public:
    struct Hooks {
        std::function<void(std::vector<AllocHorizon>&, uint32& nextHigh)> horizons;
        std::function<void()> advanced; // segments are no longer needed here; called with no lock held
    };

    LogArchive(StoreCore& core, Flusher& flusher, const std::string& directory, Hooks hooks);
    ~LogArchive();

    // From now on nothing of the log is given up, until Attach has found out what need not be kept.
    void KeepEverything() { m_core.m_archive.neededFrom.store(0, std::memory_order_release); }
    // Makes the directory if it is missing and finds out where to go on. `end` is the log's end, `lastTransaction` the last
    // one in it. True: the log no longer has what follows on the archive, so a new chain begins here, which a checkpoint must
    // make durable. Throws FileException if the directory cannot be used or holds another history, CorruptLSSException if its
    // newest delta is damaged.
    [[nodiscard]] bool Attach(ssize_t numSlots, const LogPosition& end, uint64 lastTransaction);

    void Start();
    void Stop();

    // The log is durable up to this clock, which Flusher::DurableClock says already. Read by a read-modify-write: either the
    // thread's new m_wakeAt is seen here, or the thread, which looks at the durable clock once more after it has set that,
    // sees the clock.
    void NoteDurable(uint64 clock) {
        if (clock >= m_wakeAt.fetch_add(0, std::memory_order_acq_rel)) [[unlikely]]
            Wake(clock);
    }
    // The disk is full: what waits is archived now, so that its segments can be cleaned. Returns when that is done or has
    // failed, or after 100 ms.
    void Hurry();
    // Writes one delta of what is durable. False: there is no complete transaction. Throws FileException or
    // CorruptLSSException, and then nothing has changed.
    bool WriteNext();
    // Writes all that is durable. A failure is traced: the next open goes on.
    void WriteLast() noexcept;

    void SetDeltaBytesForTest(int64 n) { m_deltaBytes = n; }

private:
    class Pass;

    // What the newest delta in the directory says.
    struct Newest {
        uint64 lastTransaction = 0; // 0: there is none
        uint64 time = 0;
        std::string path;
    };

    Newest ReadDirectory();
    void CheckHistory(const Newest& newest, uint64 lastTransaction) const;
    void BeginAt(ChainPosition position);
    std::string PathOf(const std::string& name) const { return m_directory + "/" + name; }

    void Wake(uint64 clock);
    void ThreadMain();
    int64 DueAt() const;
    void WriteDue();
    bool PlanNext();
    void NoteFailure(const char* what);

    StoreCore& m_core;
    Flusher& m_flusher;
    const std::string m_directory;
    const Hooks m_hooks;
    int64 m_deltaBytes;

    // The place up to which everything is archived, or belongs to no transaction.
    ChainPosition m_position;
    // First transaction of a delta that has its name, though its directory could not be synced; 0: none.
    uint64 m_nameTaken = 0;

    std::atomic<uint64> m_positionClock{0};
    std::atomic<uint64> m_wakeAt{0};              // clock from which on the thread is to be told
    Mutex m_wakeMutex{"LogArchive::m_wakeMutex"}; // leaf; guards all below
    ConditionVariable m_wake;
    ConditionVariable m_passEnded;
    uint64 m_numPasses = 0;
    uint64 m_notedClock = 0;
    int64 m_deadline = 0;   // ns, monotonic; 0: nothing waits
    int64 m_retryAt = 0;    // ns, monotonic; 0: the last attempt did not fail
    int64 m_retryDelay = 0; // ns
    bool m_stop = false;
    std::string m_failure; // of the last attempt; empty: it did not fail
    std::thread m_thread;
};

} // namespace quna

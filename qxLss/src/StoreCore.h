// What all parts of an open store share: the file, its identity, the settings, the counters, the failed state.
#pragma once

#include "qxLss/LssSettings.h"
#include "qxLss/src/FileIo.h"
#include "qxLss/src/FileMap.h"
#include "qxLss/src/Format.h"
#include "qxLss/src/SegmentTable.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace quna {

// A store belongs to the process that opened it: a child that fork makes of it holds neither its lock nor its threads,
// and every call there throws FileException. The child may open stores of its own.
//
// Forks are counted from the first call of InstallForkGuard on; ForkGeneration differs between a process and its child.
QX_API void InstallForkGuard();
QX_API uint32 ForkGeneration() noexcept;

// Numbers of GetStats. Changed under the log's turn or by the checkpoint, read at any time.
struct StoreCounters {
    std::atomic<int64> liveHead{0};
    std::atomic<int64> liveOverflow{0};
    std::atomic<int64> liveIndex{0};
    std::atomic<int64> packets{0}; // HEAD, OVERFLOW, DELETE and INDEX packets in segments that have not been freed
    std::atomic<int64> liveBytes{0};
    std::atomic<int64> indexBytes{0};  // of them, in pages of the index
    std::atomic<int64> usedBytes{0};   // of packets in sealed log segments that have not been freed, dead ones too
    std::atomic<int64> movingBytes{0}; // of them, moved by the cleaner's running batch: dead in segments it will free
    std::atomic<uint64> survivorBytes{0}; // written by the cleaner since the open
    std::atomic<int64> numCheckpoints{0};
    std::atomic<int64> numRecoveries{0};
    std::atomic<int64> numTransactions{0};
};

// How far the user stream has been copied into the archive (LogArchive).
struct ArchiveProgress {
    static constexpr uint64 NOTHING = ~uint64{0};

    std::atomic<uint64> upTo{0};             // number of the last archived transaction
    std::atomic<uint64> neededFrom{NOTHING}; // user segments from this sequence on are still to be copied
    std::atomic<bool> isStalled{false};      // the last attempt has failed

    // Must the segment stay as it is?
    bool Needs(const SegmentSlot& slot) const {
        return slot.kind == ESegmentKind::USER && slot.sequence >= neededFrom.load(std::memory_order_acquire);
    }
};

// Ownership: owns file, mapping and segment table; lives as long as the store.
// Threads:   set up by the opening thread; then constant but for the counters and the failure.
class QX_API StoreCore {
public:
    explicit StoreCore(SysCalls& sys) : m_file(sys) {}

    // Sets up mapping and segment table for a store of this identity.
    void Attach(const StoreId& storeId, ssize_t segmentSize);

    // Writing has failed: from now on it is refused. The first failure counts; it is traced.
    void Fail(const char* what) noexcept;
    // For a catch block: Fail with the text of the exception that is being handled.
    void FailWithCurrentException() noexcept;
    bool HasFailed() const { return m_hasFailed.load(std::memory_order_acquire); }
    // The gate of every operation that writes. Throws FileException in a forked child or failed store.
    void ThrowIfUnwritable() const {
        if (HasFailed() || IsForkedChild()) [[unlikely]]
            ThrowUnwritable();
    }
    bool IsForkedChild() const noexcept { return ForkGeneration() != m_forkGeneration; }
    void ThrowIfForked() const {
        if (IsForkedChild()) [[unlikely]]
            ThrowUnwritable();
    }

    File m_file;
    std::unique_ptr<FileMap> m_map;
    std::unique_ptr<SegmentTable> m_segments;
    StoreId m_storeId{};
    ssize_t m_segmentSize = 0; // bytes
    bool m_readOnly = false;
    LssSettings m_settings;
    int m_stampShift = STAMP_SHIFT; // log clock to log stamp; tests make it smaller
    StoreCounters m_counters;
    ArchiveProgress m_archive;

    // Called by tests between the steps of checkpoints and of the cleaner, where other threads may be served, with no lock
    // but that of the maintenance held.
    std::function<void()> m_stepHook;
    void Step() const {
        if (m_stepHook) [[unlikely]]
            m_stepHook();
    }

private:
    [[noreturn]] void ThrowUnwritable() const;

    const uint32 m_forkGeneration = ForkGeneration();
    std::atomic<bool> m_hasFailed{false};
    mutable Mutex m_failureMutex{"StoreCore::m_failureMutex"};
    std::string m_failure; // guarded by m_failureMutex
};

// Throws CorruptLSSException: "The store '<path>' is damaged: <what> at offset <offset>. <advice>". `what` says what was found
// and what was expected. `offset` below 0: none, or `what` says it.
inline constexpr ConstStringZ ADVICE_RESTORE = "Restore the file from a backup; what is whole can still be read";
inline constexpr ConstStringZ ADVICE_NEWER = "Open it with a newer library";
[[noreturn]] QX_API void ThrowCorrupt(const StoreCore& core, const std::string& what, int64 offset = -1,
                                      ConstStringZ advice = ADVICE_RESTORE);

// The same where `l` can be no place of a packet: "<what> outside the segments: ...". `namedAt`: the offset of what names it.
[[noreturn]] QX_API void ThrowOutside(const StoreCore& core, const std::string& what, Location l, int64 namedAt = -1);

[[noreturn]] QX_API void ThrowWrongChecksum(const StoreCore& core, Location l, uint64 key, uint32 found,
                                            uint32 expected);

// The bytes of the packet at location `l`, loaded but not verified. Throws CorruptLSSException if there can be none.
QX_API const octet_t* TouchPacket(const StoreCore& core, Location l, ssize_t loadBehind);

// The packet at location `l`, loaded and verified: type, key, length and checksum are as expected. `loadBehind` bytes
// behind it are loaded as well. Throws CorruptLSSException or FileException. Requires: the segment cannot be reused
// while the caller uses the result.
QX_API const octet_t* LoadPacket(const StoreCore& core, Location l, EPacketType type, uint64 key,
                                 ssize_t loadBehind = 0);

} // namespace quna

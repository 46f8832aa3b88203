// The allocation ring: durable promises about identifiers, kept outside the log.
#pragma once

#include "qxLss/src/FileIo.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace quna {

// The horizon of one high half: every low half below it counts as spent.
struct AllocHorizon {
    uint32 high;
    uint32 horizon;
};

// One block of the ring, 4096 bytes. Little-endian, no padding.
//   0     8      magic "LSSALLOC"
//   8     8      ring sequence: one more than any block before
//   16    16     store id
//   32    8      sequence of the newest durable checkpoint
//   40    4      next high
//   44    2      n, the number of entries, at most 504
//   46    2      flags: 1 = an owner is running
//   48    8      base of the segment sequences
//   56    n x 8  high u32, horizon u32: the highs whose horizon has moved since the set was begun
//   4092  4      CRC32C of bytes 0..4091
struct QX_API AllocRingBlock {
    static constexpr ssize_t BYTES = 4096;
    static constexpr ssize_t MAX_ENTRIES = 504;
    static constexpr uint16 FLAG_RUNNING = 1;

    uint64 ringSequence = 0;
    std::array<octet_t, 16> storeId{};
    uint64 checkpointSequence = 0;
    uint32 nextHigh = 1;
    uint16 flags = 0;
    uint64 sequenceBase = 0;
    std::vector<AllocHorizon> horizons;

    // Requires: at most MAX_ENTRIES horizons.
    void Encode(octet_t (&bytes)[BYTES]) const;
    // False if magic, CRC or count are not those of a block; then the object's state is unspecified.
    [[nodiscard]] bool Decode(const octet_t (&bytes)[BYTES]);
};

// A block is written, durably, before an identifier at or above an old horizon leaves, and outside the log, so that
// allocating needs no turn of the log and is possible in the middle of a transaction.
//
// A *set* is the highs whose horizon has moved since the last checkpoint copied all horizons (or since the set before
// was full). Each write carries the whole current set into another block, so that a torn write costs nothing. A set
// that is full, or that stands when a checkpoint copies the horizons, stays in its block, sealed, until the header of
// that (of the next) checkpoint is durable: until then it is the only place that knows. At most 28 blocks hold sets, so
// that two are left: one for the next write, and one with the newest base of the segment sequences.
//
// Ownership: borrows the file.
// Threads:   all methods from any thread; m_mutex is a leaf but for the write itself, which is made under it. Nothing
//            here waits for a checkpoint (which needs the turn that the caller may hold).
// Invariant: what the blocks on the disk and the newest durable header say together covers every horizon given out by
//            RaiseHorizon, every high given out by TakeHigh and the sequence base, at every moment and with any one
//            block torn.
class QX_API AllocRing {
public:
    static constexpr int64 FILE_OFFSET = 8192;
    static constexpr int NUM_BLOCKS = 30;
    static constexpr int MAX_SET_BLOCKS = 28;      // with it 14,112 highs between two checkpoints
    static constexpr int CHECKPOINT_WANTED_AT = 8; // sealed blocks

    using StoreId = std::array<octet_t, 16>;

    // What all valid blocks say together.
    struct Contents {
        ssize_t numValidBlocks = 0;
        uint64 newestCheckpoint = 0;
        uint64 sequenceBase = 0;           // the largest
        uint32 nextHigh = 1;               // the largest
        std::map<uint32, uint32> horizons; // the largest of each high
    };

    // `wakeCheckpoint` (may be empty) is called when the ring comes to want a checkpoint: see WantsCheckpoint. The caller
    // of an allocation may hold a high's mutex then, so it must not allocate, nor wait.
    AllocRing(File& file, const StoreId& storeId, std::function<void()> wakeCheckpoint = {});
    AllocRing(const AllocRing&) = delete;
    AllocRing& operator=(const AllocRing&) = delete;

    // --- opening, by one thread

    // The largest that valid blocks of a store say; 0: there is none.
    struct Marks {
        uint64 newestCheckpoint = 0; // durable
        uint64 sequenceBase = 0;     // where the segments of its last owner begin
    };
    static Marks MarksIn(File& file, const StoreId& storeId);
    // Reads all blocks. Blocks of another store, or that do not verify, count as empty.
    Contents Read();
    // Is the clean mark of the checkpoint `checkpointSequence` in force, as far as the ring is concerned: the newest
    // block that names it lacks the flag of a running owner? After Read.
    bool VouchesForCleanClose(uint64 checkpointSequence) const;
    // The first write of an owner, before an identifier or any other byte leaves. `clean`: the clean mark is in force,
    // so that the checkpoint alone says everything. Otherwise the blocks that know more than the checkpoint's horizons
    // `known` stay sealed until the next header is durable. After Read, or for a new store in whose file the ring is
    // zero. Requires: `known` sorted by high.
    void BeginOwner(uint64 checkpointSequence, const std::vector<AllocHorizon>& known, uint32 nextHigh,
                    uint64 sequenceBase, bool clean);

    // --- running

    // Makes it durable that every low of `high` below `horizon` is spent, then stores `horizon` to `durable` (unless
    // that is larger). False, and nothing is changed, when the ring is full until the next checkpoint. Throws
    // FileException when the write fails, which is final: see HasFailed.
    [[nodiscard]] bool TryRaiseHorizon(uint32 high, uint32 horizon, std::atomic<uint32>& durable);
    // As TryRaiseHorizon, but a full ring throws FileException too (and does not fail the ring).
    void RaiseHorizon(uint32 high, uint32 horizon, std::atomic<uint32>& durable);
    // The next high, after that is durable. Throws FileException when the write fails or all highs are gone.
    uint32 TakeHigh();
    // Every high below `nextHigh` counts as given out, durably. Throws FileException when the write fails.
    void RaiseNextHigh(uint32 nextHigh);
    uint32 NextHigh() const { return m_nextHigh.load(std::memory_order_relaxed); }
    uint64 SequenceBase() const;
    // Has a write failed? Then every further one throws what that one threw.
    bool HasFailed() const;
    // Are so many blocks sealed that a checkpoint should come soon?
    bool WantsCheckpoint() const { return m_wantsCheckpoint.load(std::memory_order_relaxed); }

    // --- checkpoint, by one thread at a time

    // The checkpoint copies the horizons: calls `copy` at a moment at which no horizon moves, and seals the current set.
    // The ring sequence for the header. `nextHigh` becomes the next high at that moment.
    uint64 BeginCheckpoint(const std::function<void()>& copy, uint32& nextHigh);
    // The header of checkpoint `checkpointSequence`, which bears `ringSequence` of its BeginCheckpoint, is durable: opens
    // the sealed blocks that it covers and writes a block that names it. `running` false: the vouching block of a clean
    // close, the last write of an owner.
    void EndCheckpoint(uint64 checkpointSequence, uint64 ringSequence, bool running);

    int NumSealedForTest() const;

private:
    struct Slot {
        AllocRingBlock block; // last read or written; ringSequence 0 if there was no valid one
        bool sealed = false;
    };

    // False if the block is not valid, or of another store.
    static bool ReadBlock(File& file, const StoreId& storeId, int i, AllocRingBlock& block);

    // All with m_mutex held.
    void WriteBlock(bool running);
    int ChooseSlot() const;
    void SealCurrentSet();
    bool MakeRoomInSet(uint32 high);
    int NumSealed() const;
    void SealWhatOnlyTheRingKnows(const std::vector<AllocHorizon>& known, uint32 nextHigh);
    void ThrowIfFailed() const;

    File& m_file;
    const StoreId m_storeId;
    const std::function<void()> m_wakeCheckpoint;

    mutable Mutex m_mutex{"AllocRing::m_mutex"}; // guards all below; held across the write of a block
    std::array<Slot, NUM_BLOCKS> m_slots;
    int m_current = -1;             // slot that holds m_set, or -1: none does
    std::map<uint32, uint32> m_set; // high -> horizon, at most MAX_ENTRIES
    uint64 m_ringSequence = 0;      // of the newest block
    uint64 m_checkpointSequence = 0;
    uint64 m_sequenceBase = 0;
    std::string m_failure;             // text of the failed write, empty: none
    std::atomic<uint32> m_nextHigh{1}; // written under m_mutex
    std::atomic<bool> m_wantsCheckpoint{false};
};

} // namespace quna

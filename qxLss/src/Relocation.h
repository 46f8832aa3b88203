// One batch of the cleaner: moves all live packets out of some segments and frees them.
#pragma once

#include "qxLss/src/Flusher.h"
#include "qxLss/src/Index.h"
#include "qxLss/src/SpaceManager.h"
#include "qxLss/src/StoreCore.h"
#include "qxLss/src/SurvivorStreams.h"
#include "qxLss/src/UserLog.h"
#include "qxLss/src/VictimPolicy.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <atomic>
#include <unordered_set>
#include <utility>
#include <vector>

namespace quna {

// What a batch did.
struct RelocationResult {
    ssize_t numFreed = 0; // segments
    int64 movedBytes = 0; // of packets written
    bool lacksRoom = false;
};

// Live packets are copied into survivor segments without any lock. Then, with the turn, a RELOC in the user log names where
// they are and where they were, and the index is changed for those that are still where they were. When nothing in a victim
// is live any more, a last RELOC says so; after a sync the victims are free.
//
// So at every moment a crash leaves one of two truths: the RELOC is in the log and its copies are valid, then the index has
// the new places; or not, then the old places are untouched. A victim is overwritten only when every RELOC that emptied it,
// and every transaction that did, is on the disk.
//
// Threads:   one at a time, under the maintenance lock (Checkpoint::Exclude), so that no checkpoint lies inside a batch:
//            a victim freed there could become a segment of the index, which the replayed RELOC would free.
// Ownership: borrows everything.
class QX_API Relocation {
public:
    Relocation(StoreCore& core, SpaceManager& space, UserLog& log, Index& index, Flusher& flusher,
               SurvivorStreams& streams, uint64 batchNumber)
        : m_core(core), m_space(space), m_log(log), m_index(index), m_flusher(flusher), m_streams(streams),
          m_batchNumber(batchNumber) {}

    // Moves and frees. Ends early, in good order, when `stop` becomes true. Throws FileException when writing fails, which
    // is final.
    RelocationResult Run(const std::vector<VictimCandidate>& victims, const std::atomic<bool>& stop);

private:
    struct Move {
        uint64 seid;
        Location from;
        Location to;                        // 0: not copied yet
        const std::atomic<Location>* place; // in the index, which never gives it up
        int ageClass;
        uint64 dataStamp;
    };
    // On its way through a victim. Several are on their way at once, in turns: each step of one asks for memory that its
    // next step needs, and the others' steps hide the wait.
    struct Walk {
        const VictimCandidate* victim;
        int64 offset; // of the segment
        const octet_t* bytes;
        int ageClass;
        ssize_t pos = SEGMENT_HEADER_BYTES; // of the packet to be looked at
        // The HEAD packet looked at before, null if it was none: is it current?
        const std::atomic<Location>* place = nullptr;
        uint64 key = 0;
        Location location = 0;
    };
    struct LongMove {
        uint64 seid;
        Location oldHead;
        Location newHead;
        std::vector<std::pair<Location, Location>> pairs;
    };

    void CollectAll(const std::atomic<bool>& stop);
    void BeginWalk(const VictimCandidate& victim);
    bool TryStep(Walk& walk);
    bool Step(Walk& walk);
    void Decide(Walk& walk);
    void CollectLong(uint64 seid, const Walk& walk);
    void Prefetch(const Move& move) const;
    bool CopyMove(Move& move);
    bool CopyLong(const Move& source);
    void CopyAll(const std::atomic<bool>& stop);
    void LeaveAlone(Location l, const char* what);
    const octet_t* Load(Location l, EPacketType type, uint64 seid);
    bool IsInVictim(Location l) const { return m_slots.contains(static_cast<uint32>(m_core.m_segments->SlotOf(l))); }

    ssize_t RelocBytes() const;
    void Emit();
    void Publish();
    void PublishLong(const LongMove& move);
    std::vector<octet_t> EncodeReloc(const std::vector<SurvivorStreams::Range>& ranges, uint32 flags) const;
    void AppendReloc(const std::vector<octet_t>& payload);
    void FreeEmptied();

    StoreCore& m_core;
    SpaceManager& m_space;
    UserLog& m_log;
    Index& m_index;
    Flusher& m_flusher;
    SurvivorStreams& m_streams;
    const uint64 m_batchNumber;

    std::vector<VictimCandidate> m_victims;
    std::unordered_set<uint32> m_slots; // of the victims
    std::vector<Walk> m_walks;          // on their way
    std::vector<Move> m_plan;           // HEAD packets
    std::vector<Move> m_longPlan;       // elements with parts in victims; `from` is the head
    std::unordered_set<uint64> m_longs; // their keys
    std::vector<Move> m_moved;          // copied, not yet published
    std::vector<LongMove> m_movedLongs; // likewise
    ssize_t m_longBytes = 0;            // of m_movedLongs in a RELOC
    RelocationResult m_result;
};

} // namespace quna

// Brings the state of a store back from its file.
#pragma once

#include "qxLss/src/AllocRing.h"
#include "qxLss/src/Index.h"
#include "qxLss/src/SeidAllocator.h"
#include "qxLss/src/SpaceManager.h"
#include "qxLss/src/StoreCore.h"
#include "qxLss/src/UserLog.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <map>
#include <optional>
#include <span>
#include <vector>

namespace quna {

// The newest valid header of the file that `core` has open. Throws CorruptLSSException if the file is empty, no store,
// of a newer version or has no valid header.
QX_API CheckpointHeader ReadNewestHeader(const StoreCore& core, File& file);
// Does the file bear the mark of a creation that was cut short? False for anything that is no store.
QX_API bool IsCutShortCreation(File& file);

// What the checkpoint's tables say, and what the log adds.
struct RecoveredLog {
    bool clean = false; // a clean mark is in force: nothing was walked
    LogPosition end{};  // behind the last complete transaction's packets
    uint64 clock = 0;   // there
    uint64 lastTransaction = 0;
    uint64 nextSequence = 0; // for new segments
    uint32 nextHigh = 1;
    std::vector<HighAllocation> highs; // of the checkpoint
    AllocRing::Contents ring;
    std::vector<ssize_t> held; // segments of the tables
};

// Reading alone: nothing is written, so that a read-only store recovers in the same way.
//
// From the newest checkpoint's position P the user chain is walked: packets wait in a list until a COMMIT with the next
// number and matching counts applies them, ABORT drops them, RELOC moves what the cleaner moved. The chain ends at the
// first packet that does not verify or may not stand there. Normally that is the torn tail of the last moments; but a
// later COMMIT that says that the log was durable beyond that point proves damage, which is never passed over.
//
// Threads: the opening thread alone.
class QX_API Recovery {
public:
    Recovery(StoreCore& core, SpaceManager& space, Index& index, AllocRing& ring);

    // Fills segment table, space, index and counters. Throws CorruptLSSException or FileException.
    RecoveredLog Run(const CheckpointHeader& header);
    // The state at the header's position, whatever the log holds behind it and the ring says. Requires: what the header
    // names is not freed meanwhile.
    RecoveredLog RunAt(const CheckpointHeader& header);

private:
    // A segment as it is in the file.
    struct Segment {
        ssize_t slot = 0;
        uint64 sequence = 0;
        uint32 crcSeed = 0;
        uint64 clock = 0; // at opening
        ssize_t size = 0; // bytes that the file has of it
        std::vector<octet_t> bytes;
    };
    struct Operation {
        EPacketType type;
        Seid seid;
        Location location; // of a HEAD, else 0
        uint32 firstPart;  // of a LONG head or DROP: in m_parts
        uint32 numParts;
        IndexSlot slot; // set by Apply
    };
    enum class EStep {
        NEXT,
        FOLLOW,
        END
    };
    struct Reloc;

    RecoveredLog RunFrom(const CheckpointHeader& header);
    void CheckHeader(const CheckpointHeader& header) const;
    void LoadTables(const CheckpointHeader& header);
    std::vector<Location> TableLocations(const CheckpointHeader& header);
    std::vector<octet_t> ReadTable(const std::vector<Location>& packets, EPacketType type, ssize_t entryBytes);
    void AppendTablePacket(Location l, EPacketType type, ssize_t entryBytes, std::vector<octet_t>& table);
    void FillSegments(const CheckpointHeader& header, const std::vector<SutEntry>& entries);
    void FillIndex(const std::vector<HighsEntry>& entries);
    void Finish();
    void NoteUsedUpTo(ssize_t slot, ssize_t offset);

    void Walk(const CheckpointHeader& header);
    EStep ReadStep();
    EStep TakePacket(const PacketHeader& packet, const octet_t* payload, ssize_t n);
    EStep TakeElement(const PacketHeader& packet, const octet_t* bytes);
    EStep TakeCommit(const PacketHeader& packet, const octet_t* payload, ssize_t n);
    EStep TakeLink(const PacketHeader& packet, const octet_t* payload, ssize_t n);
    std::string SequenceIn(uint32 slot) const; // as text
    EStep TakeReloc(const octet_t* payload, ssize_t n);
    void Apply();
    void ApplyOne(const Operation& operation, uint64 mark);
    void ApplyDrop(const Operation& drop);
    void Move(const IndexSlot& slot, Location to);
    std::span<const Location> PartsOf(const Operation& operation) const {
        return std::span(m_parts).subspan(operation.firstPart, operation.numParts);
    }
    bool ParseReloc(const octet_t* payload, ssize_t n, Reloc& reloc) const;
    bool VerifyRange(const RelocRange& range, Reloc& reloc);
    void ApplyReloc(const Reloc& reloc);
    void NoteSpent(Seid seid);
    void CountSinceCommit(ssize_t packetBytes);
    void ResetPending();

    ssize_t SlotsInFile() const;
    bool IsKnownHigh(SeidHigh high) const { return high != 0 && high < m_result.nextHigh; }
    bool ReadSegment(ssize_t slot, Segment& segment);
    void ReadOn(ssize_t slot);
    void ReadPagesAhead(Seid seid);
    bool ReadSegmentHeader(ssize_t slot, SegmentHeader& header);
    bool IsHeaderOf(const SegmentHeader& header, ssize_t slot, uint64 sequence, ESegmentKind kind) const;
    bool PacketAt(const Segment& segment, ssize_t pos, PacketHeader& packet) const;
    void EnterSegment(ssize_t slot, const SegmentHeader& header);

    void LookForDamage();
    void LookThrough(const Segment& segment, ssize_t from, std::map<ssize_t, uint64>& linked) const;

    StoreCore& m_core;
    SpaceManager& m_space;
    Index& m_index;
    AllocRing& m_ring;
    SegmentTable& m_segments;

    RecoveredLog m_result;
    ssize_t m_numSlots = 0;
    Segment m_segment;           // being walked
    ssize_t m_readOnFrom = 0;    // slots before it have been asked for, see ReadOn
    ssize_t m_lastAdvised = -1;  // segment of the index, see ReadPagesAhead
    std::vector<bool> m_advised; // likewise, by slot
    ssize_t m_pos = 0;           // in it
    struct Change {
        int64 liveHead = 0;
        int64 liveOverflow = 0;
        int64 packets = 0;
        int64 liveBytes = 0;
        int64 numTransactions = 0;
    };
    Change m_change;                  // what the log adds to the checkpoint's counts
    std::vector<Operation> m_pending; // since the last COMMIT, ABORT or RELOC
    std::vector<Location> m_parts;    // of the pending operations
    uint64 m_bytesSince = 0;
    uint32 m_packetsSince = 0;
    uint64 m_applyNumber = 0;                // marks in leaves, see Apply
    std::optional<LinkPayload> m_brokenLink; // a LINK whose target did not verify
    uint64 m_brokenLinkSequence = 0;
    SeidHigh m_spentHigh = 0;
    uint32* m_spent = nullptr;            // the horizon of m_spentHigh, once one was asked for
    std::map<uint64, uint32> m_rangeEnds; // segment sequence -> where the last range of a RELOC in it ended
};

} // namespace quna

// Where the cleaner writes: one open segment for each age class.
#pragma once

#include "qxLss/src/Flusher.h"
#include "qxLss/src/SegmentWriter.h"
#include "qxLss/src/SpaceManager.h"
#include "qxLss/src/StoreCore.h"
#include "qxLss/src/VictimPolicy.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <array>
#include <memory>
#include <vector>

namespace quna {

// Segments stay open over batches, but not over an open of the store. What is appended is reported once, as ranges, which
// is what a RELOC names: nothing in a range may be older than the batch, since recovery takes what stands there for moved.
//
// Ownership: owns the writers; borrows the rest.
// Threads:   one at a time, under the maintenance lock (Checkpoint::Exclude).
class QX_API SurvivorStreams {
public:
    struct Range {
        ssize_t slot;
        uint64 sequence;
        ssize_t from; // offsets in the segment
        ssize_t to;
        uint32 packets;
    };

    SurvivorStreams(StoreCore& core, SpaceManager& space, Flusher& flusher)
        : m_core(core), m_space(space), m_flusher(flusher) {}

    // Appends a HEAD or OVERFLOW packet whose content has this age stamp (log clock). 0 if there is no room on the disk for
    // another segment. Throws FileException when writing fails; that is final. `clock` is the log clock now.
    Location Append(int ageClass, EPacketType type, uint64 key, const octet_t* payload, ssize_t n, uint32 flags,
                    uint64 dataStamp, uint64 clock);
    // Hands everything to the system. Throws FileException; that is final.
    void HandOver();
    // Ends the open segments in slots from `first` on. Throws as HandOver.
    void SealFrom(ssize_t first);
    // What was appended since the last call, and is handed over. Adds it to the usage of its segments, so with the turn.
    std::vector<Range> TakeRanges();
    bool HasUnreported() const;
    // Ranges that TakeRanges would give at most.
    ssize_t NumRanges() const { return static_cast<ssize_t>(m_sealed.size()) + NUM_AGE_CLASSES; }

private:
    struct Stream {
        std::unique_ptr<SegmentWriter> writer;
        ssize_t from = 0; // offset up to which everything has been reported
        uint32 packets = 0;
        uint64 previousSequence = 0;
        double stamps = 0; // sum over the packets in the segment
        ssize_t numStamps = 0;
    };

    bool Begin(Stream& stream, int ageClass, uint64 dataStamp, uint64 clock);
    void Seal(Stream& stream);
    Range Unreported(const Stream& stream) const;

    StoreCore& m_core;
    SpaceManager& m_space;
    Flusher& m_flusher;
    std::array<Stream, NUM_AGE_CLASSES> m_streams;
    std::vector<Range> m_sealed; // unreported, of segments that are sealed by now
};

} // namespace quna

// Checks every segment in use: its header and each of its packets, the dead ones as well.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "tools/qxstore/Findings.h"
#include "tools/qxstore/OpenedStore.h"
#include "tools/qxstore/Progress.h"

#include <map>
#include <vector>

namespace quna::qxstore {

// Packets stand back to back, so one after another is verified. What ends them is told from damage in two ways: the usage
// table says how many packets a segment holds, and a segment of the log goes as far as its successor says.
//
// Bytes behind the end are not looked at: they are what a crash has left, or zero.
class SegmentCheck {
public:
    SegmentCheck(OpenedStore& store, Findings& findings);

    void Run(bool quiet);
    int64 NumSegments() const { return m_numSegments; }
    int64 NumPackets() const { return m_numPackets; }

private:
    // One that is being checked.
    struct Segment {
        ssize_t slot = 0;
        SutEntry entry{};
        SegmentHeader header{};
        bool hasHeader = false; // a valid one
        ssize_t size = 0;       // bytes that the file has of it
        ssize_t knownEnd = -1;  // where its packets end; -1: not known
        ssize_t leastEnd = 0;   // they reach at least as far
        int64 numCounted = 0;   // packets of the kinds that the usage table counts
    };

    void ReadHeaders();
    bool ReadHeader(Segment& segment) const;
    void CheckSegment(Segment& segment);
    void FindEnd(Segment& segment) const;
    void WalkPackets(Segment& segment);
    bool IsPacketAt(const Segment& segment, ssize_t pos) const;
    void CheckPadding(const Segment& segment, ssize_t pos, uint32 info) const;
    bool MustGoOn(const Segment& segment, ssize_t pos) const;
    ssize_t FindNextPacket(const Segment& segment, ssize_t pos) const;
    std::string NameOf(const Segment& segment) const;

    OpenedStore& m_store;
    Findings& m_findings;
    std::vector<Segment> m_segments;      // in use, by slot
    std::map<uint64, uint64> m_nextClock; // segment of the log -> log clock where its successor begins
    std::vector<octet_t> m_bytes;         // of the segment that is being checked
    int64 m_numSegments = 0;
    int64 m_numPackets = 0;
};

} // namespace quna::qxstore

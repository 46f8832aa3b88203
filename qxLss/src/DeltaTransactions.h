// The transactions in a delta.
#pragma once

#include "qxLss/Seid.h"
#include "qxLss/src/DeltaFile.h"
#include "qxLss/src/UserChain.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <unordered_map>
#include <vector>

namespace quna {

// Bytes in a delta.
struct DeltaBytes {
    const octet_t* bytes;
    ssize_t size;
};

// A HEAD or DELETE packet: the element is the pieces one behind the other.
struct DeltaOperation {
    Seid seid;
    bool isDeletion;
    std::vector<DeltaBytes> pieces;
    int64 fileOffset; // of the packet
};

struct DeltaTransaction {
    uint64 number = 0;
    uint64 time = 0;                        // of its commit
    int64 fileOffset = 0;                   // of its COMMIT
    std::vector<DeltaOperation> operations; // in their order
};

// Gives the transactions of a delta one by one. Everything is verified: each packet's checksum, the counts of each COMMIT,
// the sequence of the numbers, the parts of long elements.
//
// Ownership: borrows the delta, in which the pieces lie.
// Threads:   one.
class QX_API DeltaTransactions {
public:
    explicit DeltaTransactions(const DeltaFile& delta);

    // False: there are no more, and the last one was that which the closing frame names. Throws CorruptLSSException.
    bool Next(DeltaTransaction& transaction);

private:
    struct Part {
        uint32 ordinal;
        DeltaBytes piece;
    };

    bool NextFrame();
    bool Take(ssize_t pos, const PacketHeader& header, const octet_t* payload);
    void TakeHead(const PacketHeader& header, const octet_t* payload);
    void TakeLong(DeltaOperation& operation, const octet_t* payload, ssize_t n);
    void TakePart(ssize_t pos, const PacketHeader& header, const octet_t* payload);
    void TakeCommit(const PacketHeader& header, const octet_t* payload);
    void Forget();
    int64 FileOffsetOf(const octet_t* p) const;
    [[noreturn]] void ThrowDamaged(const std::string& what, const std::string& found,
                                   const std::string& expected) const;

    const DeltaFile& m_delta;
    const ssize_t m_segmentSize;
    size_t m_nextFrame = 0;
    const DeltaFile::Frame* m_frame = nullptr;
    uint32 m_crcSeed = 0;
    ssize_t m_pos = 0;     // offset in the segment
    uint64 m_linkedTo = 0; // sequence that the LINK at the end of the frame names; 0: none
    uint64 m_lastNumber;
    uint64 m_lastTime = 0;
    int64 m_packetOffset = 0; // in the file, of the packet that is being taken

    DeltaTransaction m_pending;
    bool m_isComplete = false;
    std::unordered_map<Location, Part> m_parts; // OVERFLOW packets of m_pending, by where they stood in the store
    CommitCount m_count;
};

} // namespace quna

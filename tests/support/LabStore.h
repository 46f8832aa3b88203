// A store's file together with what it may hold, for programs that damage it.
#pragma once

#include "qxLss/src/LssStore.h"
#include "tests/support/SimSys.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace quna {

enum class ELabKind {
    CLEAN,             // cleaned, checkpointed and closed
    KILLED,            // killed with transactions and relocations behind the last checkpoint
    NEW,               // killed; no checkpoint since the store was laid down
    LONG_TRANSACTIONS, // killed; behind the checkpoint transactions that fill many segments
    COUNT
};

const char* NameOf(ELabKind kind);

// A byte range of the file.
struct LabRange {
    int64 from;
    int64 to;

    bool Meets(const LabRange& other) const { return from < other.to && other.from < to; }
};

// A COMMIT behind the checkpoint. What it calls durable may not be cut off.
struct LabCommit {
    LabRange packet;
    LabRange segmentHeader; // of its segment
    LabRange link;          // that leads to its segment; empty in the first
    uint64 transaction;
    uint64 endClock; // of the log, behind it
    uint64 durableUpTo;
};

// Hash of an element's bytes; never 0, which stands for no element.
uint64 LabHash(const ReadOnlyBuffer& bytes);

struct LabStore {
    ELabKind kind = ELabKind::CLEAN;
    uint64 seed = 0;
    ssize_t segmentSize = 0;
    FileBytes file;
    std::vector<FileBytes> earlier;               // the file at moments before
    CheckpointHeader header{};                    // the newest
    LabRange headerRange{};                       // its place
    bool clean = false;                           // closed
    std::vector<LabRange> vouching;               // the ring blocks that name the newest header
    std::vector<LabCommit> commits;               // behind the checkpoint, in order
    uint64 numTransactions = 0;                   // the number of the last one
    std::map<uint64, uint64> last;                // key -> hash, after it
    std::vector<std::map<uint64, uint64>> before; // [n]: what the keys held that transaction n + 1 changed; 0: nothing
    std::vector<uint64> seids;                    // every key that ever had an element, ascending

    // The number of the transaction up to which nothing may be missing if what lies in `touched` has been destroyed and the
    // rest stands. 0 if nothing is left that tells of the newest checkpoint.
    uint64 Floor(const std::vector<LabRange>& touched) const;
};

// A file of about `bytes` bytes. The same for the same arguments.
LabStore BuildLabStore(ELabKind kind, uint64 seed, int64 bytes, int segmentSize);

LssSettings LabSettings(int segmentSize);

} // namespace quna

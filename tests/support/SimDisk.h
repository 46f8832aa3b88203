// What is on an imagined disk after a given sequence of system calls, and what may be on it if the power fails there.
#pragma once

#include "tests/support/SimBlocks.h"

#include <map>
#include <string>
#include <vector>

namespace quna {

// One changing call, as SimSys records it.
struct SimCall {
    enum class EKind {
        CREATE,        // name -> file
        WRITE,         // offset, data
        WRITE_DURABLE, // offset, data
        SYNC,          // of file
        FAILED_SYNC,   // the pending changes of file are lost
        SYNC_DIR,
        ALLOCATE, // offset, size
        TRUNCATE, // size
        PUNCH,    // offset, size
        RENAME,   // name -> name2
        REMOVE    // name
    };

    EKind kind;
    int file = -1;
    int64 offset = 0;
    int64 size = 0;
    std::vector<octet_t> data;
    std::string name;
    std::string name2;
};

// How to choose among what has not been synced. Call: a write or a change of size, one entry of the record.
struct CrashVariant {
    enum class EChoice {
        NONE, // only what completed syncs cover
        ALL,  // everything: also what a mere process death leaves
        ALL_BUT_LAST,
        ONLY_LAST,
        RANDOM_SUBSET, // each call whole or not, in order
        TORN,          // each call whole, not, or torn at a sector boundary or inside a sector
        SECTORS,       // each sector of 512 bytes as of some moment after the last sync; new space zero or garbage
        SUBSET,        // up to 8 calls: those whose bit is set in `index`; of more a random subset in random order
        TEAR, // the `index`-th way to tear one call: at each sector a prefix, a suffix, all but a middle; inside one
        NEW_SPACE, // sectors that were never written durably hold zeros, random bytes, or what was there or elsewhere before
        SIZE,      // the file is shorter than the data, or longer
        GARBLED // what was being written within a block of 4096 bytes is random
    };
    EChoice choice = EChoice::NONE;
    uint64 seed = 0;  // of the random ones
    uint64 index = 0; // of SUBSET and TEAR; taken modulo their number
};

// The base is what completed syncs cover; the rest is pending. Calls are fed in order; an image can be taken after each.
//
// Names: creations and renames become durable by a sync of the directory, in their order (as in a journal). Contents:
// a sync covers everything before it, a durable write its own bytes.
class SimDisk {
public:
    SimDisk() = default;
    explicit SimDisk(const SimImage& image);

    void Apply(const SimCall& call);

    // What a crash now leaves. `inFlight`, if not null, is the call under way: it may count as pending.
    DiskImage Image(const CrashVariant& variant, const SimCall* inFlight = nullptr) const {
        return BytesOf(Blocks(variant, inFlight));
    }
    // The same, sharing blocks with the disk and other images of it.
    SimImage Blocks(const CrashVariant& variant, const SimCall* inFlight = nullptr) const;

    // The content that the disk holds for `file` with all pending changes, in order.
    FileBytes Content(int file) const;

    ssize_t NumPending() const;
    // How many subsets, or ways to tear one call, there are. A number of subsets beyond 2^8 is not given: 0.
    uint64 NumSubsets(const SimCall* inFlight) const;
    uint64 NumTears(const SimCall* inFlight) const;

private:
    struct Pending {
        SimCall call;
        bool durable; // a durable write: always there, but not before what is pending from earlier
    };
    struct File {
        SimBlocks base;
        std::vector<Pending> pending;
        SimBlocks old; // what was cut off or punched
    };
    // One call that may be on the disk, in the order in which they were made.
    struct Candidate {
        const SimCall* call;
        bool durable;
    };
    using Candidates = std::vector<Candidate>;

    static void ApplyTo(SimBlocks& bytes, const SimCall& call);
    static void ApplyName(std::map<std::string, int>& names, const SimCall& call);
    static void ApplyToBase(File& file, const SimCall& call);
    Candidates CandidatesOf(int file, const SimCall* inFlight) const;
    SimBlocks FileImage(int file, const SimCall* inFlight, const CrashVariant& variant) const;

    std::vector<File> m_files;
    std::map<std::string, int> m_names; // durable
    std::vector<SimCall> m_pendingNames;
};

} // namespace quna

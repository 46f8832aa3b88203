// What a workload on an imagined disk did, in terms of the record of system calls, and how to choose a crash of it.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "tests/support/SimDisk.h"

#include <string>
#include <utility>
#include <vector>

namespace quna {

// A model of the workload has a state S0 before the first transaction, and S1, S2... after each.
struct CrashHistory {
    struct Transaction {
        ssize_t closeBegan = 0; // calls recorded before its Close
        ssize_t closed = -1;    // calls recorded when its Close had returned; -1: it has not
        ssize_t durable = -1;   // calls recorded when it was known to be durable; -1: never
    };
    struct Identifier {
        ssize_t given; // calls recorded when it was handed out
        uint64 seid;
    };

    std::vector<Transaction> transactions; // the n-th leads from S(n) to S(n + 1)
    std::vector<Identifier> identifiers;
    std::vector<std::pair<ssize_t, ssize_t>>
        maintenance;     // calls recorded at beginning and end of cleaning, checkpoints
    std::string failure; // the FileException that ended the workload early; empty: none did
    std::string fault;   // what the store did wrong while it ran: any other exception; empty: nothing

    // The first so many transactions are durable now, as far as they are closed.
    void NoteDurable(ssize_t upTo, ssize_t calls);

    // The states that a crash after `calls` recorded calls may leave.
    ssize_t Floor(ssize_t calls, bool processDeathOnly) const;
    ssize_t Ceiling(ssize_t calls) const;
    // Would a crash after `calls` recorded calls fall into the cleaner or a checkpoint?
    bool IsInMaintenance(ssize_t calls) const;
};

// Variants of the crash after k calls: the first few are fixed, the others depend on all three numbers.
inline constexpr uint64 NUM_FIXED_VARIANTS = 4;
CrashVariant CrashVariantOf(uint64 seed, int64 k, uint64 v);
// The one that a mere process death leaves.
bool IsProcessDeath(const CrashVariant& variant, uint64 v);

} // namespace quna

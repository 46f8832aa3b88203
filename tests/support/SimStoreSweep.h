// The sweep over crash points of a whole store: for each system call of a random workload many states in which a power
// failure or a process death there may leave the disk, each opened and compared with the model.
#pragma once

#include "tests/support/SimStoreCheck.h"

#include <array>
#include <iterator>
#include <string>

namespace quna {

struct StoreSweepTotals {
    static constexpr const char* KINDS[] = {"lost", "sum_broken", "dangling", "tree_bad", "ids_repeated", "other"};

    int64 points = 0;
    int64 inMaintenance = 0; // of the points: inside the cleaner or a checkpoint
    int64 states = 0;
    int64 nested = 0; // crashes of recoveries
    std::array<int64, std::size(KINDS)> faults{};

    int64 Sum() const;
    int64 NumOf(const std::string& kind) const { return faults[IndexOf(kind)]; }
    // Of the first fault; empty if there is none.
    std::string AKind() const;
    void Note(const std::string& kind) { ++faults[IndexOf(kind)]; }
    void Add(const StoreSweepTotals& other);

private:
    static size_t IndexOf(const std::string& kind);
};

class SimStoreSweep {
public:
    SimStoreSweep(StoreSweepTotals& totals, const StoreWorkload& workload) : m_totals(totals), m_workload(workload) {}

    // `variants` states at each point; or one state of one point. Faults are counted, and the first ones printed.
    void Run(uint64 variants, int64 onlyPoint = -1, int64 onlyVariant = -1);
    // Ends at the first fault, and prints none.
    void StopAtFirstFault() { m_stopAtFirstFault = true; }
    // Only every n-th point.
    void SetStride(int64 n) { m_stride = n; }

    static StoreWorkload WorkloadOf(uint64 seed);

private:
    void CheckOne(const SimDisk& disk, const SimCall* next, int64 k, uint64 v);
    void Nested(SimSys& sys, StoreCheck check, int64 k, uint64 v, int depth);
    void Report(const StoreFault& fault, int64 k, uint64 v, int depth);

    StoreSweepTotals& m_totals;
    const StoreWorkload m_workload;
    bool m_stopAtFirstFault = false;
    int64 m_stride = 1;
    StoreHistory m_history;
};

} // namespace quna

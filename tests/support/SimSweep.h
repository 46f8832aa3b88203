// The sweep over crash points: for each system call of a random workload many states in which a power failure or a process
// death there may leave the disk, each opened and compared with the model.
#pragma once

#include "tests/support/SimLss.h"

#include <map>
#include <set>
#include <string>

namespace quna {

struct SweepTotals {
    int64 points = 0;
    int64 inMaintenance = 0; // of the points: inside the cleaner or a checkpoint
    int64 states = 0;
    int64 nested = 0; // crashes of recoveries
    std::map<std::string, int64> faults;

    int64 Sum() const {
        int64 sum = 0;
        for (const auto& [kind, count] : faults) sum += count;
        return sum;
    }
};

class SimSweep {
public:
    SimSweep(SweepTotals& totals, uint64 seed, const LssWorkload& workload)
        : m_totals(totals), m_seed(seed), m_workload(workload) {}

    // `variants` states at each point; or one state of one point. Faults are counted, and the first ones printed.
    void Run(uint64 variants, int64 onlyPoint = -1, int64 onlyVariant = -1);
    // Ends at the first fault, and prints none.
    void StopAtFirstFault() { m_stopAtFirstFault = true; }
    // Only every n-th point.
    void SetStride(int64 n) { m_stride = n; }

    static LssWorkload WorkloadOf(uint64 seed);

private:
    void CheckOne(const SimDisk& disk, const SimCall* next, const std::set<uint64>& spent, int64 k, uint64 v);
    void Nested(SimSys& sys, LssCheck check, int64 k, uint64 v, int depth);
    void Report(const std::string& kind, int64 k, uint64 v, int depth, const std::string& text);

    SweepTotals& m_totals;
    const uint64 m_seed;
    const LssWorkload m_workload;
    bool m_stopAtFirstFault = false;
    int64 m_stride = 1;
    LssHistory m_history;
};

} // namespace quna

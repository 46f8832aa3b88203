// The sweep over crash points: for each system call of a workload many states in which a power failure or a process death
// there may leave the disk, each opened and compared with the model; and from some of them the life goes on, to crash again.
#pragma once

#include "tests/support/SimLss.h"

#include <array>
#include <functional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

namespace quna {

// Counts of a sweep. Plain bytes, so that a worker can send them.
struct SweepTotals {
    enum EFault {
        LOST,
        NOT_PREFIX,
        REFUSED,
        IDS_REPEATED,
        OTHER,
        NUM_FAULTS
    };
    int64 workloads = 0;
    int64 transactions = 0;
    int64 points = 0;
    int64 inMaintenance = 0; // of the points that are not of scripts: inside the cleaner or a checkpoint
    int64 scripted = 0;      // of the points: of scripts
    int64 states = 0;        // images checked, those of later lives included
    int64 nested = 0;        // of the states: of later lives
    std::array<int64, NUM_FAULTS> faults{};

    int64 Sum() const;
    void Add(const SweepTotals& other);
};

// How one workload is swept.
struct SweepPlan {
    uint64 variants = 16;              // images at each point, equal ones counted once
    int64 stride = 1;                  // only every n-th point
    int64 fromPoint = 0;               // only points from here on
    uint64 oneLifeIn = 6;              // images from which the life goes on
    int lifeSteps = 8;                 // of a later life
    int lifePoints = 4;                // crashes of a later life, half of them in its recovery
    int depth = 3;                     // lives after the first
    bool stopAtFirstFault = false;     // which is kept, and not printed
    int64 mostStates = int64{1} << 60; // then the sweep ends
    // Of a store that fails: what it is made to suffer. A failure that the store reports is no fault then.
    std::function<void(SimSys&)> disturb;
    int64 onlyPoint = -1;
    int64 onlyVariant = -1;
};

class SimSweep {
public:
    SimSweep(SweepTotals& totals, const LssWorkload& workload, const SweepPlan& plan)
        : m_totals(totals), m_workload(workload), m_plan(plan) {}

    void Run();
    // With stopAtFirstFault: the text of the first fault, with its replay numbers.
    const std::string& FirstFault() const { return m_firstFault; }

    static LssWorkload WorkloadOf(uint64 seed);

private:
    struct Place {
        int64 k;
        uint64 v;
        int depth;
        std::string trail; // of the later lives: point of so many (those of its recovery), variant
    };
    struct Crash;

    bool IsOver() const {
        return (m_plan.stopAtFirstFault && !m_firstFault.empty()) || m_totals.states >= m_plan.mostStates;
    }
    void CheckPoint(const SimDisk& disk, const SimCall* next, const LssHistory& history, const std::set<uint64>& spent,
                    int64 k);
    LssCheck CheckOf(const Crash& crash, const LssHistory& history) const;
    std::set<uint64> MayHaveLeft(const Crash& crash, const LssHistory& history) const;
    std::string CheckImage(const Crash& crash, const LssHistory& history, SimSys& sys, bool thorough, ssize_t& found);
    void GoOnLiving(const SimImage& image, const LssBeginning& beginning, Place place, uint64 seed);
    void CrashLife(SimSys& sys, const LssHistory& history, const LssBeginning& beginning, Place place, uint64 seed);
    void Report(Place place, const std::string& text);

    SweepTotals& m_totals;
    const LssWorkload m_workload;
    const SweepPlan m_plan;
    std::unordered_set<uint64> m_seen; // images at the point
    std::string m_firstFault;
};

} // namespace quna

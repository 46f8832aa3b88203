#include "tests/support/SimStoreSweep.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

namespace quna {

int64 StoreSweepTotals::Sum() const { return std::accumulate(faults.begin(), faults.end(), int64{0}); }

std::string StoreSweepTotals::AKind() const {
    for (size_t i = 0; i < faults.size(); ++i)
        if (faults[i]) return KINDS[i];
    return {};
}

// Kinds that have no name here are "other", the last one.
size_t StoreSweepTotals::IndexOf(const std::string& kind) {
    return static_cast<size_t>(std::find(std::begin(KINDS), std::end(KINDS) - 1, kind) - std::begin(KINDS));
}

void StoreSweepTotals::Add(const StoreSweepTotals& other) {
    points += other.points;
    inMaintenance += other.inMaintenance;
    states += other.states;
    nested += other.nested;
    for (size_t i = 0; i < faults.size(); ++i) faults[i] += other.faults[i];
}

void SimStoreSweep::Run(uint64 variants, int64 onlyPoint, int64 onlyVariant) {
    SimSys sys({}, ESimMemory::ARENA);
    {
        StoreDriver driver(sys, m_workload);
        driver.Run();
        m_history = driver.History();
    }
    if (!m_history.failure.empty() || !m_history.fault.empty()) {
        Report({"other", "the undisturbed workload failed: " + m_history.failure + m_history.fault}, -1, 0, 0);
        return;
    }
    const std::vector<SimCall> record = sys.TakeRecord();
    SimDisk disk(sys.InitialImage());
    for (int64 k = 0; k <= std::ssize(record) && !(m_stopAtFirstFault && m_totals.Sum()); ++k) {
        if (k > 0) disk.Apply(record[static_cast<size_t>(k - 1)]);
        if ((onlyPoint >= 0 && k != onlyPoint) || k % m_stride != 0) continue;
        ++m_totals.points;
        m_totals.inMaintenance += m_history.IsInMaintenance(k);
        const SimCall* next = k < std::ssize(record) ? &record[static_cast<size_t>(k)] : nullptr;
        for (uint64 v = 0; v < variants; ++v) {
            if (onlyVariant >= 0 && v != static_cast<uint64>(onlyVariant)) continue;
            CheckOne(disk, next, k, v);
        }
    }
}

void SimStoreSweep::CheckOne(const SimDisk& disk, const SimCall* next, int64 k, uint64 v) {
    const CrashVariant variant = CrashVariantOf(m_workload.seed, k, v);
    StoreCheck check;
    check.history = &m_history;
    check.calls = k;
    check.processDeath = IsProcessDeath(variant, v);
    check.floor = m_history.Floor(k, check.processDeath);
    check.ceiling = std::max(check.floor, m_history.Ceiling(k));
    check.lookFirst = (static_cast<uint64>(k) + v) % 4 == 1;
    check.thorough = (static_cast<uint64>(k) + v) % 4 == 0;
    // A torn call under way counts from the first random variant on.
    SimSys sys(ESimMemory::ARENA, disk.Blocks(variant, v >= NUM_FIXED_VARIANTS ? next : nullptr));
    ssize_t found = -1;
    ++m_totals.states;
    const StoreFault fault = CheckStoreImage(sys, check, found);
    if (fault)
        Report(fault, k, v, 0);
    else if (v % 5 == 0 && !check.thorough)
        Nested(sys, check, k, v, 1);
}

// The recovery that has just been checked, with the deletions that it resumed, killed in its turn.
void SimStoreSweep::Nested(SimSys& sys, StoreCheck check, int64 k, uint64 v, int depth) {
    const std::vector<SimCall> record = sys.Record();
    if (record.empty()) return;
    SimDisk disk(sys.InitialImage());
    std::mt19937_64 random(m_workload.seed * 31 + static_cast<uint64>(k) * 7 + v + static_cast<uint64>(depth) * 1000);
    const int64 point = static_cast<int64>(random() % static_cast<uint64>(std::ssize(record)));
    for (int64 i = 0; i < point; ++i) disk.Apply(record[static_cast<size_t>(i)]);
    const CrashVariant variant = CrashVariantOf(random(), point, random() % 12);
    SimSys further(ESimMemory::ARENA, disk.Blocks(variant, &record[static_cast<size_t>(point)]));
    ssize_t found = -1;
    check.thorough = depth == 3;
    check.processDeath = false;
    ++m_totals.nested;
    const StoreFault fault = CheckStoreImage(further, check, found);
    if (fault)
        Report(fault, k, v, depth);
    else if (depth < 3)
        Nested(further, check, k, v, depth + 1);
}

void SimStoreSweep::Report(const StoreFault& fault, int64 k, uint64 v, int depth) {
    m_totals.Note(fault.kind);
    if (m_totals.Sum() <= 20 && !m_stopAtFirstFault)
        std::printf("FAULT --replay %llu,%lld,%llu depth %d: %s: %s\n",
                    static_cast<unsigned long long>(m_workload.seed), static_cast<long long>(k),
                    static_cast<unsigned long long>(v), depth, fault.kind.c_str(), fault.text.c_str());
}

StoreWorkload SimStoreSweep::WorkloadOf(uint64 seed) {
    StoreWorkload workload;
    workload.seed = seed;
    workload.steps = seed % 3 == 0 ? 160 : 80;
    workload.segmentSize = seed % 4 == 3 ? 16384 : seed % 16 == 10 ? 65536 : 4096;
    workload.numKeys = seed % 8 == 5 ? 1000 : seed % 64 == 38 ? 10000 : 300;
    workload.writeThrough = seed % 7 == 6;
    return workload;
}

} // namespace quna

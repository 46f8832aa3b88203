#include "tests/support/SimSweep.h"

#include <algorithm>
#include <cstdio>

namespace quna {
void SimSweep::Run(uint64 variants, int64 onlyPoint, int64 onlyVariant) {
    SimSys sys;
    LssDriver driver(sys, m_workload);
    driver.Run();
    m_history = driver.History();
    if (!m_history.failure.empty() || !m_history.fault.empty()) {
        Report("refused", -1, 0, 0, "the undisturbed workload failed: " + m_history.failure + m_history.fault);
        return;
    }
    const std::vector<SimCall> record = sys.Record();
    SimDisk disk(sys.InitialImage());
    std::set<uint64> spent;
    size_t given = 0;
    for (int64 k = 0; k <= std::ssize(record) && !(m_stopAtFirstFault && m_totals.Sum()); ++k) {
        if (k > 0) disk.Apply(record[static_cast<size_t>(k - 1)]);
        for (; given < m_history.identifiers.size() && m_history.identifiers[given].given <= k; ++given)
            spent.insert(m_history.identifiers[given].seid);
        if ((onlyPoint >= 0 && k != onlyPoint) || k % m_stride != 0) continue;
        ++m_totals.points;
        m_totals.inMaintenance += m_history.IsInMaintenance(k);
        const SimCall* next = k < std::ssize(record) ? &record[static_cast<size_t>(k)] : nullptr;
        for (uint64 v = 0; v < variants; ++v) {
            if (onlyVariant >= 0 && v != static_cast<uint64>(onlyVariant)) continue;
            CheckOne(disk, next, spent, k, v);
        }
    }
}

void SimSweep::CheckOne(const SimDisk& disk, const SimCall* next, const std::set<uint64>& spent, int64 k, uint64 v) {
    const CrashVariant variant = CrashVariantOf(m_seed, k, v);
    const bool processDeath = IsProcessDeath(variant, v);
    LssCheck check;
    check.history = &m_history;
    check.floor = m_history.Floor(k, processDeath);
    check.ceiling = std::max(check.floor, m_history.Ceiling(k));
    check.spent = processDeath ? &spent : nullptr;
    check.thorough = v % 4 == 0;
    // A torn call under way counts from v = 4 on.
    SimSys sys(disk.Image(variant, v >= NUM_FIXED_VARIANTS ? next : nullptr));
    ssize_t found = -1;
    ++m_totals.states;
    const std::string fault = CheckLssImage(sys, check, found);
    if (!fault.empty()) {
        Report(fault.substr(0, fault.find(':')), k, v, 0, fault);
        return;
    }
    if (v % 5 == 0 && !check.thorough) Nested(sys, check, k, v, 1);
}

// The recovery that has just been checked, killed in its turn.
void SimSweep::Nested(SimSys& sys, LssCheck check, int64 k, uint64 v, int depth) {
    const std::vector<SimCall> record = sys.Record();
    if (record.empty()) return;
    SimDisk disk(sys.InitialImage());
    std::mt19937_64 random(m_seed * 31 + static_cast<uint64>(k) * 7 + v + static_cast<uint64>(depth) * 1000);
    const int64 point = static_cast<int64>(random() % static_cast<uint64>(std::ssize(record)));
    for (int64 i = 0; i < point; ++i) disk.Apply(record[static_cast<size_t>(i)]);
    const CrashVariant variant = CrashVariantOf(random(), point, random() % 12);
    SimSys further(disk.Image(variant, &record[static_cast<size_t>(point)]));
    ssize_t found = -1;
    check.thorough = depth == 3;
    check.spent = nullptr;
    ++m_totals.nested;
    const std::string fault = CheckLssImage(further, check, found);
    if (!fault.empty())
        Report(fault.substr(0, fault.find(':')), k, v, depth, fault);
    else if (depth < 3)
        Nested(further, check, k, v, depth + 1);
}

void SimSweep::Report(const std::string& kind, int64 k, uint64 v, int depth, const std::string& text) {
    ++m_totals.faults[kind];
    if (m_totals.Sum() <= 20 && !m_stopAtFirstFault)
        std::printf("FAULT --replay %llu,%lld,%llu depth %d: %s\n", static_cast<unsigned long long>(m_seed),
                    static_cast<long long>(k), static_cast<unsigned long long>(v), depth, text.c_str());
}

LssWorkload SimSweep::WorkloadOf(uint64 seed) {
    LssWorkload workload;
    workload.seed = seed;
    workload.steps = seed % 3 == 0 ? 60 : 25;
    workload.segmentSize = seed % 4 == 3 ? 16384 : 4096;
    workload.threads = seed % 5 == 4; // then a replay may see other calls
    return workload;
}

} // namespace quna

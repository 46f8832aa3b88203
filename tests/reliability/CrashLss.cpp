// Crash simulation of the log-structured store: random workloads on an imagined disk; for each system call of each, many
// states in which a power failure or a process death there may leave the disk; each opened and compared with the model.
//
// A failure prints "seed,k,v": the workload, the number of calls before the crash, the variant. --replay runs that one.
#include "tests/support/SimArguments.h"
#include "tests/support/SimLss.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <string>

namespace quna {
namespace {

using EChoice = CrashVariant::EChoice;

struct Totals {
    int64 points = 0;
    int64 inMaintenance = 0; // of the points: inside the cleaner or a checkpoint
    int64 states = 0;
    int64 nested = 0;
    std::map<std::string, int64> faults;

    int64 Sum() const {
        int64 sum = 0;
        for (const auto& [kind, count] : faults) sum += count;
        return sum;
    }
};

constexpr uint64 NUM_FIXED = 4;

CrashVariant VariantOf(uint64 seed, int64 k, uint64 v) {
    constexpr EChoice FIXED[NUM_FIXED] = {EChoice::ALL, EChoice::NONE, EChoice::ALL_BUT_LAST, EChoice::ONLY_LAST};
    constexpr EChoice RANDOM[] = {EChoice::RANDOM_SUBSET, EChoice::TORN, EChoice::SECTORS};
    if (v < NUM_FIXED) return {FIXED[v], 0};
    return {RANDOM[v % 3], (seed * 1000003 + static_cast<uint64>(k)) * 1000003 + v};
}

class Sweep {
public:
    Sweep(Totals& totals, uint64 seed, const LssWorkload& workload)
        : m_totals(totals), m_seed(seed), m_workload(workload) {}

    void Run(uint64 variants, int64 onlyPoint = -1, int64 onlyVariant = -1) {
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
        for (int64 k = 0; k <= std::ssize(record); ++k) {
            if (k > 0) disk.Apply(record[static_cast<size_t>(k - 1)]);
            for (; given < m_history.identifiers.size() && m_history.identifiers[given].given <= k; ++given)
                spent.insert(m_history.identifiers[given].seid);
            if (onlyPoint >= 0 && k != onlyPoint) continue;
            ++m_totals.points;
            m_totals.inMaintenance += m_history.IsInMaintenance(k);
            const SimCall* next = k < std::ssize(record) ? &record[static_cast<size_t>(k)] : nullptr;
            for (uint64 v = 0; v < variants; ++v) {
                if (onlyVariant >= 0 && v != static_cast<uint64>(onlyVariant)) continue;
                CheckOne(disk, next, spent, k, v);
            }
        }
    }

private:
    void CheckOne(const SimDisk& disk, const SimCall* next, const std::set<uint64>& spent, int64 k, uint64 v) {
        const CrashVariant variant = VariantOf(m_seed, k, v);
        const bool processDeath = variant.choice == EChoice::ALL && v < NUM_FIXED;
        LssCheck check;
        check.history = &m_history;
        check.floor = m_history.Floor(k, processDeath);
        check.ceiling = std::max(check.floor, m_history.Ceiling(k));
        check.spent = processDeath ? &spent : nullptr;
        check.thorough = v % 4 == 0;
        // A torn call under way counts from v = 4 on.
        SimSys sys(disk.Image(variant, v >= NUM_FIXED ? next : nullptr));
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
    void Nested(SimSys& sys, LssCheck check, int64 k, uint64 v, int depth) {
        const std::vector<SimCall> record = sys.Record();
        if (record.empty()) return;
        SimDisk disk(sys.InitialImage());
        std::mt19937_64 random(m_seed * 31 + static_cast<uint64>(k) * 7 + v + static_cast<uint64>(depth) * 1000);
        const int64 point = static_cast<int64>(random() % static_cast<uint64>(std::ssize(record)));
        for (int64 i = 0; i < point; ++i) disk.Apply(record[static_cast<size_t>(i)]);
        const CrashVariant variant = VariantOf(random(), point, random() % 12);
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

    void Report(const std::string& kind, int64 k, uint64 v, int depth, const std::string& text) {
        ++m_totals.faults[kind];
        if (m_totals.Sum() <= 20)
            std::printf("FAULT --replay %llu,%lld,%llu depth %d: %s\n", static_cast<unsigned long long>(m_seed),
                        static_cast<long long>(k), static_cast<unsigned long long>(v), depth, text.c_str());
    }

    Totals& m_totals;
    const uint64 m_seed;
    const LssWorkload m_workload;
    LssHistory m_history;
};

LssWorkload WorkloadOf(uint64 seed) {
    LssWorkload workload;
    workload.seed = seed;
    workload.steps = seed % 3 == 0 ? 60 : 25;
    workload.segmentSize = seed % 4 == 3 ? 16384 : 4096;
    workload.threads = seed % 5 == 4; // then a replay may see other calls
    return workload;
}

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    Totals totals;
    if (arguments.replay) {
        Sweep(totals, arguments.replaySeed, WorkloadOf(arguments.replaySeed))
            .Run(arguments.replayVariant + 1, arguments.replayPoint, static_cast<int64>(arguments.replayVariant));
    } else {
        const int workloads = std::max(1, static_cast<int>(3 * arguments.scale));
        for (int i = 0; i < workloads; ++i) {
            const uint64 seed = arguments.seed + static_cast<uint64>(i);
            Sweep(totals, seed, WorkloadOf(seed)).Run(arguments.scale > 1 ? 12 : 6);
        }
    }
    const bool ok = totals.Sum() == 0 && totals.states > 0;
    std::printf("reliability crash-lss: points=%lld states=%lld nested=%lld lost=%lld not_prefix=%lld refused=%lld "
                "ids_repeated=%lld other=%lld cleaner_share=%.0f%% verdict=%s\n",
                static_cast<long long>(totals.points), static_cast<long long>(totals.states),
                static_cast<long long>(totals.nested), static_cast<long long>(totals.faults["lost"]),
                static_cast<long long>(totals.faults["not_prefix"]), static_cast<long long>(totals.faults["refused"]),
                static_cast<long long>(totals.faults["ids_repeated"]),
                static_cast<long long>(totals.Sum() - totals.faults["lost"] - totals.faults["not_prefix"] -
                                       totals.faults["refused"] - totals.faults["ids_repeated"]),
                100.0 * static_cast<double>(totals.inMaintenance) / static_cast<double>(std::max<int64>(totals.points, 1)),
                ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

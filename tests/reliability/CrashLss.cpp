// Crash simulation of the log-structured store: random workloads on an imagined disk; for each system call of each, many
// states in which a power failure or a process death there may leave the disk; each opened and compared with the model.
//
// A failure prints "seed,k,v": the workload, the number of calls before the crash, the variant. --replay runs that one.
#include "tests/support/SimArguments.h"
#include "tests/support/SimSweep.h"

#include <algorithm>
#include <cstdio>

namespace quna {
namespace {

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    SweepTotals totals;
    if (arguments.replay) {
        SimSweep(totals, arguments.replaySeed, SimSweep::WorkloadOf(arguments.replaySeed))
            .Run(arguments.replayVariant + 1, arguments.replayPoint, static_cast<int64>(arguments.replayVariant));
    } else {
        const int workloads = std::max(1, static_cast<int>(3 * arguments.scale));
        for (int i = 0; i < workloads; ++i) {
            const uint64 seed = arguments.seed + static_cast<uint64>(i);
            SimSweep(totals, seed, SimSweep::WorkloadOf(seed)).Run(arguments.scale > 1 ? 12 : 6);
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
                100.0 * static_cast<double>(totals.inMaintenance) /
                    static_cast<double>(std::max<int64>(totals.points, 1)),
                ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

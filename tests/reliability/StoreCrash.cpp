// Crash simulation of a whole store: two spaces tied by transfers, trees, deletions in progress, with the cleaner and
// checkpoints at work below. Random workloads, each crashed at each of its system calls in several ways.
#include "tests/support/SimArguments.h"
#include "tests/support/SimJobs.h"
#include "tests/support/SimStoreSweep.h"

#include <algorithm>
#include <cstdio>

namespace quna {
namespace {

// At scale 1 three workloads, every third point, four variants; larger scales have more of all.
constexpr double WORKLOADS = 3;
constexpr int64 STRIDE = 3;
constexpr uint64 VARIANTS = 4;
constexpr uint64 MAX_VARIANTS = 36;

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    StoreSweepTotals totals;
    if (arguments.replay) {
        SimStoreSweep(totals, SimStoreSweep::WorkloadOf(arguments.replaySeed))
            .Run(arguments.replayVariant + 1, arguments.replayPoint, static_cast<int64>(arguments.replayVariant));
    } else {
        const uint64 variants =
            std::min(MAX_VARIANTS, VARIANTS * std::max<uint64>(1, static_cast<uint64>(arguments.scale / 4)));
        const int workloads = std::max(1, static_cast<int>(WORKLOADS * arguments.scale));
        totals = RunJobs<StoreSweepTotals>(arguments.jobs, [&](int job, int jobs) {
            StoreSweepTotals found;
            for (int i = job; i < workloads; i += jobs) {
                SimStoreSweep sweep(found, SimStoreSweep::WorkloadOf(arguments.seed + static_cast<uint64>(i)));
                if (arguments.scale <= 1) sweep.SetStride(STRIDE);
                sweep.Run(variants);
            }
            return found;
        });
    }
    const bool ok = totals.Sum() == 0 && totals.states > 0;
    std::printf("reliability crash-store: points=%lld states=%lld nested=%lld lost=%lld sum_broken=%lld dangling=%lld "
                "tree_bad=%lld ids_repeated=%lld other=%lld cleaner_share=%.2f verdict=%s\n",
                static_cast<long long>(totals.points), static_cast<long long>(totals.states),
                static_cast<long long>(totals.nested), static_cast<long long>(totals.NumOf("lost")),
                static_cast<long long>(totals.NumOf("sum_broken")), static_cast<long long>(totals.NumOf("dangling")),
                static_cast<long long>(totals.NumOf("tree_bad")), static_cast<long long>(totals.NumOf("ids_repeated")),
                static_cast<long long>(totals.NumOf("other")),
                totals.points ? static_cast<double>(totals.inMaintenance) / static_cast<double>(totals.points) : 0.0,
                ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

// Crash simulation of stores with an archive.
//
// A failure prints "seed,k,v": the workload, the number of calls before the crash, the variant. --replay runs that one.
#include "qxUtils/Tracer.h"
#include "tests/support/ArchiveSweep.h"
#include "tests/support/SimArguments.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace quna {
namespace {

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    SetTraceSink({nullptr, [](void*, const char*, ssize_t) {}});
    ArchiveSweepTotals totals;
    if (arguments.replay) {
        ArchiveSweep(totals, arguments.replaySeed).Run(1, arguments.replayPoint, arguments.replayVariant);
    } else {
        const int workloads = std::max(1, static_cast<int>(4 * arguments.scale));
        for (int i = 0; i < workloads; ++i)
            ArchiveSweep(totals, arguments.seed + static_cast<uint64>(i)).Run(25, -1, 0);
    }
    for (const std::string& example : totals.examples) std::printf("%s\n", example.c_str());
    const bool ok = totals.Sum() == 0 && totals.points > 0;
    std::printf("reliability archive-crash: points=%lld restores=%lld state=%lld wrong=%lld refused=%lld verdict=%s\n",
                static_cast<long long>(totals.points), static_cast<long long>(totals.restores),
                static_cast<long long>(totals.faults["state"]), static_cast<long long>(totals.faults["wrong"]),
                static_cast<long long>(totals.faults["refused"]), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

// Crash simulation of the log-structured store on an imagined disk: scripted workloads, which are all sequences of up to
// four operations on a new store, and random ones; for each system call of each, many states in which a power failure or a
// process death there may leave the disk; each opened and compared with the model, and from some the life goes on.
//
// A failure prints "seed,k,v": the workload, the number of calls before the crash, the variant. --replay runs that one.
// At scale 1 all scripts are swept and every point of 40 random workloads, with 40 variants each; below only a share of both.
// --part i,n does only one n-th of it.
#include "tests/support/SimArguments.h"
#include "tests/support/SimCrashImage.h"
#include "tests/support/SimJobs.h"
#include "tests/support/SimSweep.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace quna {
namespace {

constexpr uint64 NUM_OPERATIONS = static_cast<uint64>(ELssOperation::COUNT);
constexpr uint64 NUM_SCRIPTS = 7 + 49 + 343 + 2401;   // of 1 to 4 operations
constexpr uint64 ALWAYS = 7 + 49;                     // those of up to 2 are in every run that is not tiny
constexpr uint64 FIRST_SCRIPT_SEED = uint64{1} << 40; // so that replay numbers tell them apart
constexpr int RANDOM_WORKLOADS = 40;
constexpr int LEAST_RANDOM_WORKLOADS = 6;

std::vector<ELssOperation> ScriptOf(uint64 number) {
    ssize_t length = 1;
    for (uint64 count = NUM_OPERATIONS; number >= count; count *= NUM_OPERATIONS, ++length) number -= count;
    std::vector<ELssOperation> script;
    for (ssize_t i = 0; i < length; ++i, number /= NUM_OPERATIONS)
        script.push_back(static_cast<ELssOperation>(number % NUM_OPERATIONS));
    std::reverse(script.begin(), script.end());
    return script;
}

LssWorkload WorkloadOf(uint64 seed) {
    if (seed < FIRST_SCRIPT_SEED) return SimSweep::WorkloadOf(seed);
    LssWorkload workload;
    workload.seed = seed;
    workload.script = ScriptOf(seed - FIRST_SCRIPT_SEED);
    return workload;
}

void SweepOne(uint64 seed, double scale, SweepTotals& totals, int64 point = -1, int64 variant = -1) {
    const LssWorkload workload = WorkloadOf(seed);
    SweepPlan plan;
    plan.onlyPoint = point;
    plan.onlyVariant = variant;
    plan.variants = std::max<uint64>(40, static_cast<uint64>(variant + 1));
    if (scale < 1) {
        plan.variants = 6;
        plan.oneLifeIn = 16;
        plan.stride = workload.script.empty() ? 1 + static_cast<int64>(0.4 / scale) : 1;
    }
    if (point >= 0) {
        plan.stride = 1;
        plan.oneLifeIn = 1; // also if the life that failed goes on
    }
    // The points before the last operation are those of a shorter script.
    if (workload.script.size() > 1) {
        SimSys sys({}, ESimMemory::ARENA);
        LssDriver driver(sys, workload);
        driver.Run();
        plan.fromPoint = driver.History().operations.back();
    }
    SimSweep(totals, workload, plan).Run();
}

SweepTotals Sweep(const ReliabilityArguments& arguments, int job, int jobs) {
    SweepTotals totals;
    const uint64 shares = static_cast<uint64>(arguments.parts * jobs);
    const uint64 mine = static_cast<uint64>(arguments.part * jobs + job);
    const auto isMine = [&](uint64 i) { return i % shares == mine; };
    const uint64 share = static_cast<uint64>(std::min(1.0, arguments.scale) * 10000);
    for (uint64 i = 0; i < NUM_SCRIPTS; ++i) {
        const bool isChosen =
            (i < ALWAYS && arguments.scale >= 0.005) || MixBits(arguments.seed * 10007 + i) % 10000 < share;
        if (isChosen && isMine(i)) SweepOne(FIRST_SCRIPT_SEED + i, arguments.scale, totals);
    }
    const int workloads =
        std::max(LEAST_RANDOM_WORKLOADS, static_cast<int>(std::lround(RANDOM_WORKLOADS * arguments.scale)));
    for (uint64 i = 0; i < static_cast<uint64>(workloads); ++i)
        if (isMine(i)) SweepOne(arguments.seed + i, arguments.scale, totals);
    return totals;
}

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    SweepTotals totals;
    const auto begin = std::chrono::steady_clock::now();
    if (arguments.replay)
        SweepOne(arguments.replaySeed, 1, totals, arguments.replayPoint, static_cast<int64>(arguments.replayVariant));
    else
        totals = RunJobs<SweepTotals>(arguments.jobs, [&](int job, int jobs) { return Sweep(arguments, job, jobs); });
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    const bool ok = totals.Sum() == 0 && totals.states > 0;
    const auto n = [](int64 x) { return static_cast<long long>(x); };
    std::printf("reliability crash-lss: workloads=%lld transactions=%lld points=%lld states=%lld nested=%lld lost=%lld "
                "not_prefix=%lld refused=%lld ids_repeated=%lld other=%lld cleaner_share=%.0f%% states_per_s=%.0f "
                "verdict=%s\n",
                n(totals.workloads), n(totals.transactions), n(totals.points), n(totals.states), n(totals.nested),
                n(totals.faults[SweepTotals::LOST]), n(totals.faults[SweepTotals::NOT_PREFIX]),
                n(totals.faults[SweepTotals::REFUSED]), n(totals.faults[SweepTotals::IDS_REPEATED]),
                n(totals.faults[SweepTotals::OTHER]),
                100.0 * static_cast<double>(totals.inMaintenance) /
                    static_cast<double>(std::max<int64>(totals.points - totals.scripted, 1)),
                static_cast<double>(totals.states) / std::max(seconds.count(), 1e-3), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

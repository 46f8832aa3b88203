// Is the crash simulation able to see what it looks for? A list of mistakes, each compiled into the store on purpose and
// switched on in turn; the simulation must find every one, and nothing when none is on.
#include "qxLss/src/Mutants.h"

#include "tests/support/SimArguments.h"
#include "tests/support/SimSweep.h"

#include <algorithm>
#include <cstdio>

namespace quna {
namespace {

struct Mutant {
    EMutant mutant;
    const char* text;
};

constexpr Mutant MUTANTS[] = {
    {EMutant::FREE_BEFORE_SYNC, "victims are free before their RELOC is on the disk"},
    {EMutant::RELOC_LEFT_OUT, "moves are not logged"},
    {EMutant::LAST_TOO_EARLY, "a RELOC calls victims free that another names again"},
    {EMutant::RANGE_FROM_THE_BEGINNING, "a RELOC names the whole segment"},
    {EMutant::LONG_MOVES_WITHOUT_PAIRS, "the parts of long elements that move are not told"},
    {EMutant::PUBLISH_WITHOUT_LOOKING, "an element overwritten meanwhile gets its old content back"},
    {EMutant::VICTIMS_OF_THE_WINDOW, "segments that recovery walks through are cleaned"},
    {EMutant::BATCH_INSIDE_CHECKPOINT, "the cleaner works inside a checkpoint"},
    {EMutant::OPEN_TAKEN_FOR_SEALED, "a survivor segment that is being filled is freed or cleaned"},
    {EMutant::HEADER_BEFORE_SYNC, "a checkpoint's header is written before what it names is on the disk"},
    {EMutant::INDEX_FREED_EARLY, "a checkpoint frees what the header before it names"},
};

// How many workloads it took; 0: it was not found in so many.
int Find(EMutant mutant, uint64 seed, int workloads) {
    g_mutant = mutant;
    for (int i = 0; i < workloads; ++i) {
        LssWorkload workload = SimSweep::WorkloadOf(seed + static_cast<uint64>(i));
        workload.threads = false;
        workload.cleanInsideCheckpoint = mutant == EMutant::BATCH_INSIDE_CHECKPOINT;
        SweepTotals totals;
        SimSweep sweep(totals, workload.seed, workload);
        sweep.StopAtFirstFault();
        sweep.SetStride(3);
        sweep.Run(8);
        if (totals.Sum()) {
            g_mutant = EMutant::NONE;
            return i + 1;
        }
    }
    return 0;
}

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    const int workloads = std::max(1, static_cast<int>(60 * arguments.scale));
    int caught = 0;
    for (const Mutant& mutant : MUTANTS) {
        const int n = Find(mutant.mutant, arguments.seed, workloads);
        caught += n > 0;
        std::fflush(stdout);
        std::printf("%-70s %s after %d workloads\n", mutant.text, n ? "caught" : "NOT CAUGHT", n ? n : workloads);
    }
    const bool clean = Find(EMutant::NONE, arguments.seed, 3) == 0;
    const bool ok = clean && caught == static_cast<int>(std::size(MUTANTS));
    std::printf("reliability mutants: seeded=%d caught=%d clean=%s verdict=%s\n", static_cast<int>(std::size(MUTANTS)),
                caught, clean ? "yes" : "NO", ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

// Is the crash simulation of whole stores able to see what it looks for? A list of mistakes, each compiled into the store
// on purpose and switched on in turn; the simulation must find every one, and nothing when none is on.
#include "qxPersistStore/src/Mutants.h"
#include "qxUtils/Tracer.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimStoreSweep.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string>

namespace quna {
namespace {

struct Mutant {
    EStoreMutant mutant;
    const char* text;
};

constexpr Mutant MUTANTS[] = {
    {EStoreMutant::GROUP_IN_TWO, "each space of a group is written in a transaction of its own"},
    {EStoreMutant::GROUP_NOT_TIED, "transactions over several spaces tie nothing"},
    {EStoreMutant::CLASS_IDS_LATER, "ids of new classes are written with the next group"},
    {EStoreMutant::FLUSH_LEFT_OUT, "a write that is to be durable on return is not"},
    {EStoreMutant::TREE_LATER, "a tree's header is written with the group after its nodes'"},
    {EStoreMutant::OBJECT_LATER, "some of the dirty objects are left for the next group"},
    {EStoreMutant::QUEUE_BEFORE_DELETIONS, "a deletion leaves the queue before its elements are gone"},
    {EStoreMutant::QUEUE_AFTER_DELETIONS, "a deletion leaves the queue after its elements are gone"},
};

// How many workloads it took, and what was found; 0: nothing in so many.
int Find(EStoreMutant mutant, uint64 seed, int workloads, std::string& kind) {
    g_storeMutant = mutant;
    for (int i = 0; i < workloads; ++i) {
        StoreWorkload workload = SimStoreSweep::WorkloadOf(seed + static_cast<uint64>(i));
        workload.reopen = false; // a store that never sees its own mistakes: only a crash shows them
        StoreSweepTotals totals;
        SimStoreSweep sweep(totals, workload);
        sweep.StopAtFirstFault();
        sweep.SetStride(3);
        sweep.Run(6);
        if (totals.Sum() == 0) continue;
        kind = totals.AKind() + (totals.points ? "" : ", without a crash");
        g_storeMutant = EStoreMutant::NONE;
        return i + 1;
    }
    return 0;
}

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    const int workloads = std::max(1, static_cast<int>(10 * arguments.scale));
    int caught = 0;
    SetTraceSink({nullptr, [](void*, const char*, ssize_t) {}}); // a mistaken store has much to say
    std::string kind;
    for (const Mutant& mutant : MUTANTS) {
        const int n = Find(mutant.mutant, arguments.seed, workloads, kind);
        caught += n > 0;
        if (n)
            std::printf("%-65s caught after %d workloads (%s)\n", mutant.text, n, kind.c_str());
        else
            std::printf("%-65s NOT CAUGHT in %d workloads\n", mutant.text, workloads);
        std::fflush(stdout);
    }
    const bool clean = Find(EStoreMutant::NONE, arguments.seed, 3, kind) == 0;
    const bool ok = clean && caught == static_cast<int>(std::size(MUTANTS));
    std::printf("reliability store-mutants: seeded=%d caught=%d clean=%s verdict=%s\n",
                static_cast<int>(std::size(MUTANTS)), caught, clean ? "yes" : "NO", ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

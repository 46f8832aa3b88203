// Every system call is interrupted or cut short at random: the store's file must come out byte for byte as from the
// undisturbed run.
#include "tests/support/SimArguments.h"
#include "tests/support/SimLss.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace quna {
namespace {

struct Result {
    DiskImage image;
    LssHistory history;
    ssize_t calls = 0;
};

Result Run(uint64 seed, int oneIn) {
    LssWorkload workload;
    workload.seed = seed;
    workload.steps = 60;
    SimSys sys;
    if (oneIn) sys.Disturb(seed, oneIn);
    LssDriver driver(sys, workload);
    driver.Run();
    return {sys.CachedImage(), driver.History(), sys.NumRecorded()};
}

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    int64 runs = 0;
    int64 different = 0;
    int64 failed = 0;
    int64 further = 0;
    const int seeds = std::max(1, static_cast<int>(15 * arguments.scale));
    for (int i = 0; i < seeds; ++i) {
        const uint64 seed = arguments.seed + static_cast<uint64>(i);
        const Result quiet = Run(seed, 0);
        for (int oneIn : {2, 5, 20}) {
            const Result disturbed = Run(seed, oneIn);
            ++runs;
            further += disturbed.calls - quiet.calls;
            if (!disturbed.history.failure.empty() || !disturbed.history.fault.empty()) {
                ++failed;
                std::printf("FAULT seed %llu one in %d: %s\n", static_cast<unsigned long long>(seed), oneIn,
                            (disturbed.history.failure + disturbed.history.fault).c_str());
            } else if (disturbed.image != quiet.image) {
                ++different;
                std::printf("FAULT seed %llu one in %d: the image differs\n", static_cast<unsigned long long>(seed),
                            oneIn);
            }
        }
    }
    // Short writes show as further calls; without them nothing was tested.
    const bool ok = different + failed == 0 && further > 0;
    std::printf("reliability eintr-short: runs=%lld further_calls=%lld different=%lld failed=%lld verdict=%s\n",
                static_cast<long long>(runs), static_cast<long long>(further), static_cast<long long>(different),
                static_cast<long long>(failed), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

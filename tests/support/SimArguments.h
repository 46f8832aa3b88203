// The command line of a reliability program: --seed N, --scale N, --replay seed,k,v, --jobs N, --part i,n.
#pragma once

#include "qxLss/src/ZeroPages.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <malloc.h>

namespace quna {

struct ReliabilityArguments {
    uint64 seed = 1;
    double scale = 1;
    int jobs = 1; // processes that share the work, where a program can share it
    int part = 0; // of `parts`: only that of the work, likewise
    int parts = 1;
    bool replay = false;
    uint64 replaySeed = 0;
    int64 replayPoint = 0;
    uint64 replayVariant = 0;

    // Ends the program with a text on a wrong argument. Prints the seed, which is all that a run depends on.
    ReliabilityArguments(int argc, char** argv) {
        for (int i = 1; i < argc; ++i) {
            const std::string name = argv[i];
            const char* value = i + 1 < argc ? argv[++i] : nullptr;
            if (value && name == "--seed") {
                seed = std::strtoull(value, nullptr, 10);
            } else if (value && name == "--scale") {
                scale = std::strtod(value, nullptr);
            } else if (value && name == "--jobs") {
                jobs = std::max(1, std::atoi(value));
            } else if (value && name == "--part") {
                if (std::sscanf(value, "%d,%d", &part, &parts) != 2 || part < 0 || part >= parts) Usage(argv[0]);
            } else if (value && name == "--replay") {
                unsigned long long s = 0;
                long long k = 0;
                unsigned long long v = 0;
                replay = std::sscanf(value, "%llu,%lld,%llu", &s, &k, &v) == 3;
                replaySeed = s;
                replayPoint = k;
                replayVariant = v;
                if (!replay) Usage(argv[0]);
            } else {
                Usage(argv[0]);
            }
        }
        KeepMemory();
        std::printf("seed %llu scale %g\n", static_cast<unsigned long long>(seed), scale);
    }

private:
    // What is freed is used again soon: giving it back to the system, and getting it as new pages, took a third of the time
    // of programs that open a store thousands of times a second.
    static void KeepMemory() {
        ::mallopt(M_MMAP_THRESHOLD, 1 << 30);
        ::mallopt(M_TRIM_THRESHOLD, 1 << 30);
        ::mallopt(M_TOP_PAD, 1 << 24);
        ZeroPages::KeepForTest();
    }

    [[noreturn]] static void Usage(const char* program) {
        std::fprintf(stderr, "usage: %s [--seed N] [--scale N] [--replay seed,k,v] [--jobs N] [--part i,n]\n", program);
        std::exit(2);
    }
};

} // namespace quna

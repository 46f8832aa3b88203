// Work shared among processes.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <type_traits>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace quna {

// Calls work(job, jobs) for each job, in a process of its own if there are several, and adds up what they return.
// A worker that ends otherwise ends the program.
template <class Totals, class Work>
Totals RunJobs(int jobs, Work work) {
    static_assert(std::is_trivially_copyable_v<Totals>);
    if (jobs <= 1) return work(0, 1);
    std::vector<int> results;
    std::fflush(stdout);
    for (int job = 0; job < jobs; ++job) {
        int ends[2];
        if (::pipe(ends) != 0) std::abort();
        const pid_t child = ::fork();
        if (child < 0) std::abort();
        if (child == 0) {
            const Totals totals = work(job, jobs);
            std::fflush(stdout);
            const bool sent = ::write(ends[1], &totals, sizeof totals) == static_cast<ssize_t>(sizeof totals);
            ::_exit(sent ? 0 : 1);
        }
        ::close(ends[1]);
        results.push_back(ends[0]);
    }
    Totals sum{};
    for (const int result : results) {
        Totals totals{};
        if (::read(result, &totals, sizeof totals) != static_cast<ssize_t>(sizeof totals)) {
            std::printf("a worker has died\n");
            std::exit(1);
        }
        ::close(result);
        sum.Add(totals);
    }
    while (::wait(nullptr) > 0) {
    }
    return sum;
}

} // namespace quna

// A child works on a real file with four threads and says through a pipe which transactions are closed and which are
// durable; it is killed at a random moment. Whatever it said was closed must be there, whole and in order. The file is used
// for 20 kills, so that recovery is killed as well.
#include "qxLss/ILogStructuredStore.h"
#include "qxUtils/AutoCloser.h"
#include "tests/support/NumberedTransactions.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimJobs.h"
#include "tests/support/TempDir.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace quna {
namespace {

constexpr int NUM_THREADS = 4;

LssSettings Settings(uint64 seed) {
    LssSettings settings;
    settings.segmentSize = 65536;
    settings.flushTimeMilliSec = 20;
    settings.numSegmentsPerCheckPoint = seed % 2 ? 4 : 128;
    settings.cleanerUtilisationPercent = 85;
    return settings;
}

struct Message {
    uint64 number;
    uint64 durable; // 1: the transaction and all before it are durable
};

void RunTransaction(ILogStructuredStore& store, std::mt19937_64& random, int pipe) {
    const bool flush = random() % 16 == 0;
    const uint64 number = NumberedPlan().RunNext(store, flush);
    const Message message{number, flush ? 1u : 0u};
    if (::write(pipe, &message, sizeof message) != static_cast<ssize_t>(sizeof message)) std::_Exit(3);
}

[[noreturn]] void Child(const std::string& path, uint64 seed, int pipe) {
    try {
        bool createdNew = false;
        ILogStructuredStore* store = CreateOrOpenLSS(path.c_str(), nullptr, createdNew, OM_OPEN_ALWAYS, Settings(seed));
        if (createdNew) NumberedPlan().Prepare(*store);
        std::vector<std::thread> threads;
        for (int t = 0; t < NUM_THREADS; ++t)
            threads.emplace_back([&, t] {
                std::mt19937_64 random(seed * NUM_THREADS + static_cast<uint64>(t));
                for (;;) RunTransaction(*store, random, pipe);
            });
        for (std::thread& thread : threads) thread.join();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "child: %s\n", e.what());
    }
    std::_Exit(4);
}

struct Totals {
    int64 kills = 0;
    int64 closed = 0;
    int64 lost = 0;
    int64 wrong = 0;

    void Add(const Totals& other) {
        kills += other.kills;
        closed += other.closed;
        lost += other.lost;
        wrong += other.wrong;
    }
};

void SleepMicros(uint64 micros) {
    const timespec time{static_cast<time_t>(micros / 1000000), static_cast<long>(micros % 1000000 * 1000)};
    ::nanosleep(&time, nullptr);
}

class Murderer {
public:
    Murderer(uint64 seed, Totals& totals)
        : m_seed(seed), m_random(seed), m_totals(totals), m_path(m_dir.File("store")) {}

    void Run(int kills) {
        for (int i = 0; i < kills; ++i) {
            KillOne();
            if (!Check()) return;
        }
    }

private:
    void KillOne() {
        int pipe[2];
        if (::pipe(pipe) != 0) std::abort();
        const uint64 seed = m_random();
        const pid_t child = ::fork();
        if (child < 0) std::abort();
        if (child == 0) {
            ::close(pipe[0]);
            Child(m_path, seed, pipe[1]);
        }
        ::close(pipe[1]);
        std::thread killer([&] {
            // Often soon, so that recovery is met; the moment itself is the test.
            SleepMicros(1000 + seed % (seed % 3 == 0 ? 20000 : 200000));
            ::kill(child, SIGKILL);
        });
        Message message;
        for (;;) {
            const ssize_t n = ::read(pipe[0], &message, sizeof message);
            if (n < 0 && errno == EINTR) continue;
            if (n != static_cast<ssize_t>(sizeof message)) break;
            m_closed = std::max(m_closed, message.number);
            ++m_totals.closed;
        }
        killer.join();
        int status = 0;
        ::waitpid(child, &status, 0);
        ::close(pipe[0]);
        ++m_totals.kills;
        if (!WIFSIGNALED(status)) {
            ++m_totals.wrong;
            std::printf("FAULT seed %llu kill %lld: the child ended by itself\n",
                        static_cast<unsigned long long>(m_seed), static_cast<long long>(m_totals.kills));
        }
    }

    // Opened read-only, so that the next child meets the file as the killed one left it.
    bool Check() {
        if (m_closed == 0 && ::access(m_path.c_str(), F_OK) != 0) return true;
        std::string fault;
        try {
            bool createdNew = false;
            AutoCloser<ILogStructuredStore> store(
                CreateOrOpenLSS(m_path.c_str(), nullptr, createdNew, OM_OPEN_EXISTING_READ_ONLY, Settings(1)));
            const uint64 number = NumberedPlan::ReadNumber(*store.Get());
            if (number < m_closed) {
                ++m_totals.lost;
                fault = "transaction " + std::to_string(m_closed) + " was closed, but the last is " +
                        std::to_string(number);
            } else if (number > m_closed + NUM_THREADS) {
                fault = "transaction " + std::to_string(number) + " comes from nowhere";
            } else {
                m_model.RollTo(number);
                fault = m_model.Compare(*store.Get());
                m_closed = number;
            }
        } catch (const std::exception& e) {
            if (m_closed == 0 && std::strstr(e.what(), "cut short")) return true;
            fault = e.what();
        }
        if (fault.empty()) return true;
        ++m_totals.wrong;
        std::printf("FAULT seed %llu kill %lld: %s\n", static_cast<unsigned long long>(m_seed),
                    static_cast<long long>(m_totals.kills), fault.c_str());
        return false;
    }

    const uint64 m_seed;
    std::mt19937_64 m_random;
    Totals& m_totals;
    TempDir m_dir;
    const std::string m_path;
    uint64 m_closed = 0; // the largest number that a child acknowledged
    NumberedModel m_model{NumberedPlan()};
};

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    std::fflush(stdout);
    const int stores = std::max(1, static_cast<int>(arguments.scale));
    const Totals totals = RunJobs<Totals>(arguments.jobs, [&](int job, int jobs) {
        Totals found;
        for (int i = job; i < stores; i += jobs) Murderer(arguments.seed + static_cast<uint64>(i), found).Run(20);
        return found;
    });
    const bool ok = totals.lost + totals.wrong == 0 && totals.closed > 0;
    std::printf("reliability kill-random: kills=%lld closed=%lld lost=%lld wrong=%lld verdict=%s\n",
                static_cast<long long>(totals.kills), static_cast<long long>(totals.closed),
                static_cast<long long>(totals.lost), static_cast<long long>(totals.wrong), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

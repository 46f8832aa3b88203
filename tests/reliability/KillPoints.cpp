// A child works on a real file and kills itself at the entry of its n-th call that changes something, for each n of many
// workloads. What was closed before must be there, whole and in order; the opening that brings it back is killed at a random
// call as well, and the store must then go on.
//
// The table of system calls is all that changes the file, so its entries are all the moments that can make a difference.
#include "qxLss/src/LssStore.h"
#include "tests/support/ForwardingSys.h"
#include "tests/support/NumberedTransactions.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimJobs.h"
#include "tests/support/TempDir.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <random>
#include <string>

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quna {
namespace {

constexpr int DONE = 7; // exit status of a child that came to its end

class KillingSys final : public ForwardingSys {
public:
    explicit KillingSys(int64 n) : m_left(n) {}

private:
    void BeforeChange() override {
        if (m_left.fetch_sub(1) == 1) ::kill(::getpid(), SIGKILL);
    }
    std::atomic<int64> m_left;
};

// Written by the child, read by the parent after its death.
struct Told {
    std::atomic<uint64> closing{0}; // the Close of this transaction has begun
    std::atomic<uint64> closed{0};  // and that of this one has returned
};

LssSettings Settings(uint64 seed) {
    LssSettings settings;
    settings.segmentSize = seed % 3 ? 4096 : 16384;
    settings.flushTimeMilliSec = -1;
    settings.numSegmentsPerCheckPoint = 1 << 20;
    settings.cleanerUtilisationPercent = 85;
    return settings;
}

NumberedPlan PlanOf(uint64 seed) {
    NumberedPlan plan;
    plan.seed = seed;
    plan.numKeys = 40;
    plan.longest = 20000;
    plan.mostChanges = 5;
    return plan;
}

LssStore* Open(SysCalls& sys, const std::string& path, EOpenMode mode, uint64 seed, bool& createdNew) {
    return static_cast<LssStore*>(
        OpenLssForTest(sys, path.c_str(), nullptr, createdNew, mode, Settings(seed), EBackground::NONE));
}

class Workload {
public:
    Workload(const std::string& path, uint64 seed, Told& told)
        : m_path(path), m_seed(seed), m_plan(PlanOf(seed)), m_random(seed), m_told(told) {}

    void Run(SysCalls& sys) {
        const int steps = 20 + static_cast<int>(m_random() % 40);
        OpenStore(sys);
        for (int i = 0; i < steps; ++i) Step(sys);
        m_store->Close();
    }

private:
    void OpenStore(SysCalls& sys) {
        bool createdNew = false;
        m_store = Open(sys, m_path, OM_OPEN_ALWAYS, m_seed, createdNew);
        if (createdNew) m_plan.Prepare(*m_store);
    }

    void Step(SysCalls& sys) {
        switch (m_random() % 16) {
        case 0: m_store->CheckpointForTest(); break;
        case 1:
        case 2: m_store->CleanForTest(1 + static_cast<ssize_t>(m_random() % 4)); break;
        case 3: m_store->ShrinkForTest(); break;
        case 4: m_store->Flush(); break;
        case 5:
            m_store->Close();
            OpenStore(sys);
            break;
        default:
            m_told.closed = m_plan.RunNext(*m_store, m_random() % 4 == 0, [this](uint64 n) { m_told.closing = n; });
        }
    }

    const std::string m_path;
    const uint64 m_seed;
    const NumberedPlan m_plan;
    std::mt19937_64 m_random;
    Told& m_told;
    LssStore* m_store = nullptr;
};

struct Totals {
    int64 points = 0;
    int64 recoveries = 0; // that were killed
    int64 closed = 0;
    int64 lost = 0;
    int64 wrong = 0;

    void Add(const Totals& other) {
        points += other.points;
        recoveries += other.recoveries;
        closed += other.closed;
        lost += other.lost;
        wrong += other.wrong;
    }
};

class Killer {
public:
    Killer(uint64 seed, Totals& totals) : m_seed(seed), m_totals(totals) {
        void* const p = ::mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) throw std::bad_alloc();
        m_told = new (p) Told;
    }
    Killer(const Killer&) = delete;
    Killer& operator=(const Killer&) = delete;
    ~Killer() { ::munmap(static_cast<void*>(m_told), sizeof(Told)); }

    // At the entry of changing call n. False if there are not so many.
    bool KillAt(int64 n) {
        const std::string path = m_dir.File("store" + std::to_string(n));
        m_told->closing = m_told->closed = 0;
        const bool killed = InChild([&] {
            KillingSys sys(n);
            Workload(path, m_seed, *m_told).Run(sys);
        });
        if (killed) {
            ++m_totals.points;
            m_totals.closed += static_cast<int64>(m_told->closed);
            Check(path, n);
        }
        ::unlink(path.c_str());
        ::unlink((path + ".new").c_str());
        return killed;
    }

private:
    // True if it was killed.
    template <class Action>
    bool InChild(Action action) {
        const pid_t child = ::fork();
        if (child < 0) std::abort();
        if (child == 0) {
            try {
                action();
            } catch (const std::exception& e) {
                std::fprintf(stderr, "child: %s\n", e.what());
                ::_exit(1);
            }
            ::_exit(DONE);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return true;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != DONE) Fault(0, "a child ended with an error");
        return false;
    }

    void Check(const std::string& path, int64 n) {
        try {
            if (!Verify(path, OM_OPEN_EXISTING_READ_ONLY, n)) return;
            // The opening that recovers is killed in its turn, and the next one as well.
            std::mt19937_64 random(m_seed * 100003 + static_cast<uint64>(n));
            for (int i = 0; i < 2; ++i) {
                const int64 m = 1 + static_cast<int64>(random() % 10);
                const bool killed = InChild([&] {
                    KillingSys sys(m);
                    bool createdNew = false;
                    Open(sys, path, OM_OPEN_EXISTING, m_seed, createdNew)->Abandon();
                });
                m_totals.recoveries += killed;
            }
            Verify(path, OM_OPEN_EXISTING, n);
        } catch (const std::exception& e) {
            if (m_told->closed == 0 && (std::strstr(e.what(), "cut short") || std::strstr(e.what(), "does not exist")))
                return;
            Fault(n, e.what());
        }
    }

    bool Verify(const std::string& path, EOpenMode mode, int64 n) {
        bool createdNew = false;
        LssStore* store = Open(RealSysCalls(), path, mode, m_seed, createdNew);
        NumberedModel model(PlanOf(m_seed));
        const uint64 number = NumberedPlan::ReadNumber(*store);
        if (number < m_told->closed || number > m_told->closing) {
            ++m_totals.lost;
            Fault(n, "transaction " + std::to_string(m_told->closed) + " was closed and " +
                         std::to_string(m_told->closing) + " begun to be, the last there is " + std::to_string(number));
            store->Abandon();
            return false;
        }
        model.RollTo(number);
        std::string fault = model.Compare(*store);
        if (fault.empty() && mode == OM_OPEN_EXISTING && number > 0) {
            store->Validate();
            model.RollTo(PlanOf(m_seed).RunNext(*store, true));
            store->Close();
            store = Open(RealSysCalls(), path, mode, m_seed, createdNew);
            fault = model.Compare(*store);
        }
        store->Abandon();
        if (!fault.empty()) Fault(n, fault);
        return fault.empty();
    }

    void Fault(int64 n, const std::string& text) {
        ++m_totals.wrong;
        std::printf("FAULT --replay %llu,%lld,0: %s\n", static_cast<unsigned long long>(m_seed),
                    static_cast<long long>(n), text.c_str());
    }

    const uint64 m_seed;
    Totals& m_totals;
    TempDir m_dir;
    Told* m_told = nullptr;
};

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    std::setvbuf(stdout, nullptr, _IONBF, 0); // nothing is inherited by children
    Totals totals;
    if (arguments.replay) {
        Killer(arguments.replaySeed, totals).KillAt(arguments.replayPoint);
    } else {
        const int64 workloads = std::max<int64>(3, static_cast<int64>(3 * arguments.scale));
        const int64 step = arguments.scale > 1 ? 1 : 7; // at small scale every seventh call
        totals = RunJobs<Totals>(arguments.jobs, [&](int job, int jobs) {
            Totals found;
            for (int64 i = job; i < workloads; i += jobs) {
                Killer killer(arguments.seed + static_cast<uint64>(i), found);
                for (int64 n = 1 + i % step; killer.KillAt(n); n += step) {
                }
            }
            return found;
        });
    }
    const bool ok = totals.lost + totals.wrong == 0 && totals.points > 0;
    std::printf("reliability kill-points: points=%lld recoveries=%lld closed=%lld lost=%lld wrong=%lld verdict=%s\n",
                static_cast<long long>(totals.points), static_cast<long long>(totals.recoveries),
                static_cast<long long>(totals.closed), static_cast<long long>(totals.lost),
                static_cast<long long>(totals.wrong), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

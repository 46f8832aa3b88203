// The wall clock jumps, by a second to a hundred years, forwards and backwards, while a store with its writer, its collectors
// and its archive is at work. Every change must be closed all the same, and neither recovery nor a restore from the archive
// may stumble over the times of the transactions.
//
// A preloaded library makes the clock jump: the program starts itself again with it.
#include "qxLss/Restore.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/HPTime.h"
#include "qxUtils/Tracer.h"
#include "tests/support/SimArguments.h"
#include "tests/support/StepStore.h"
#include "tests/support/TempDir.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace quna {
namespace {

constexpr int32 PERIOD_MILLISEC = 20; // of the writer
// A busy machine may keep a thread waiting for seconds; a period that hangs on the wall clock waits for years.
constexpr double MOST_SECONDS = 30;
constexpr int64 TICKS_PER_SECOND = 10'000'000; // of transactions' times
constexpr int64 YEAR = 365 * 86400;
constexpr int64 JUMPS[] = {1,      -1,   60,    -60,        3600,        -3600,      86400,
                           -86400, YEAR, -YEAR, 100 * YEAR, -100 * YEAR, -50 * YEAR, 50 * YEAR};

using Jump = void(long long seconds);

struct Totals {
    int64 tried = 0; // jumps
    int64 restored = 0;
    int64 faults = 0;
    double worst = 0; // periods until a change was closed

    void Fault(const std::string& text) {
        ++faults;
        std::printf("FAULT %s\n", text.c_str());
    }
};

int64 WallTicks() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return int64{now.tv_sec} * TICKS_PER_SECOND + now.tv_nsec / 100;
}

class Life {
public:
    Life(const TempDir& dir, Jump* jump, Totals& totals)
        : m_path(dir.File("store")), m_deltas(dir.File("deltas")), m_base(dir.File("base")), m_jump(jump),
          m_totals(totals) {}

    // With the first step, and a copy of the file.
    void Begin() {
        Open();
        m_store.MakeHomes();
        RunStep(0);
        WriteAllDirtyObjectsToLss(m_store.m_store, true);
        Backup(m_store.m_store, m_base.c_str(), BackupOptions());
        m_store.Close();
    }
    // The jumps of one opening, each with a step. Ends by a kill or in order.
    void Run(const std::vector<int64>& jumps, bool kill) {
        std::fflush(stdout);
        const int64 before = WallTicks();
        const uint64 first = m_step;
        int pipe[2];
        if (::pipe(pipe) != 0) std::abort();
        const pid_t child = ::fork();
        if (child < 0) std::abort();
        if (child == 0) {
            const bool well = WorkUntilKilled(jumps, kill);
            const double worst = m_totals.worst;
            if (::write(pipe[1], &worst, sizeof worst) != sizeof worst) ::_exit(3);
            std::fflush(stdout);
            ::_exit(well ? 0 : 1);
        }
        ::close(pipe[1]);
        double worst = 0;
        if (::read(pipe[0], &worst, sizeof worst) == sizeof worst) m_totals.worst = std::max(m_totals.worst, worst);
        ::close(pipe[0]);
        int status = 0;
        ::waitpid(child, &status, 0);
        if (status != 0) m_totals.Fault("the child ended with status " + std::to_string(status));
        m_totals.tried += std::ssize(jumps);
        m_step = first + jumps.size();
        int64 at = before;
        for (const int64 jump : jumps) {
            at += jump * TICKS_PER_SECOND;
            m_times.push_back(at);
            m_jump(jump); // the next life goes on at the time that this one has reached
        }
        // A recovery, and the archive goes on where it was.
        try {
            Open();
            for (size_t i = 0; i < m_store.m_spaces.size(); ++i)
                if (m_store.ReadStep(i) != m_step) m_totals.Fault("step " + std::to_string(m_step) + " is missing");
            m_store.Close();
        } catch (const std::exception& e) {
            m_totals.Fault(std::string("opened again: ") + e.what());
        }
    }

    // To the end of the archive, and to the times around the jumps.
    void Restore(const std::string& target) {
        Restore(target, RestoreTarget::End(), m_step);
        for (const int64 time : m_times)
            if (time > 0) Restore(target, RestoreTarget::Time(static_cast<uint64>(time)), 1);
    }

private:
    void Open() {
        PersistStoreSettings settings;
        settings.deltasDirPath = m_deltas.c_str();
        settings.lssSettings.segmentSize = 65536;
        settings.lssSettings.flushTimeMilliSec = PERIOD_MILLISEC;
        settings.lssSettings.numSegmentsPerCheckPoint = 2;
        m_store.Open(m_path, OM_OPEN_ALWAYS, settings, true);
        // The writer, which the first call wakes, may sleep once more for the old period.
        for (int i = 0; i < 2; ++i) {
            SetDosPeriod(m_store.m_store, PERIOD_MILLISEC);
            std::this_thread::sleep_for(MOMENT);
        }
        for (PSpace* const space : m_store.m_spaces) SetMilliSecsPerGc(space->GetCSpace(), PERIOD_MILLISEC);
    }
    bool WorkUntilKilled(const std::vector<int64>& jumps, bool kill) {
        try {
            Open();
            bool well = true;
            for (const int64 jump : jumps) well = RunStep(jump) && well;
            if (kill) return well;
            m_store.Close();
            return well;
        } catch (const std::exception& e) {
            m_totals.Fault(e.what());
            return false;
        }
    }
    // The clock jumps between the change and its write, in the writer's sleep. False if that takes too long.
    bool RunStep(int64 jump) {
        std::array<int64, NUM_SIM_SPACES> collections{};
        for (size_t i = 0; i < collections.size(); ++i) collections[i] = NumCollections(i);
        m_store.RunStep(++m_step);
        const HPTimer timer(true);
        m_jump(jump);
        for (size_t i = 0; i < collections.size(); ++i)
            while (!IsWritten(i)) {
                if (timer.GetElapsedTimeInSeconds() > MOST_SECONDS) {
                    m_totals.Fault("a change is not closed after a jump of " + std::to_string(jump) + " s");
                    return false;
                }
                std::this_thread::sleep_for(MOMENT);
            }
        m_totals.worst = std::max(m_totals.worst, timer.GetElapsedTimeInSeconds() * 1000 / PERIOD_MILLISEC);
        for (size_t i = 0; i < collections.size(); ++i)
            while (NumCollections(i) == collections[i]) {
                if (timer.GetElapsedTimeInSeconds() > MOST_SECONDS) {
                    m_totals.Fault("no collection after a jump of " + std::to_string(jump) + " s");
                    return false;
                }
                std::this_thread::sleep_for(MOMENT);
            }
        return true;
    }
    // The writer holds the lock until its transaction is closed.
    bool IsWritten(size_t i) const {
        const CSpaceLock lock(m_store.m_spaces[i]->GetCSpace(), SharedRead);
        return !m_store.m_spaces[i]->HaveChangesToWriteToLss();
    }
    int64 NumCollections(size_t i) const { return GetGcStats(m_store.m_spaces[i]->GetCSpace()).collections; }

    void Restore(const std::string& path, RestoreTarget target, uint64 least) {
        const std::string name =
            target.Kind() == RestoreTarget::EKind::END ? "to the end" : "to time " + std::to_string(target.Value());
        try {
            RestoreLss(m_base.c_str(), m_deltas.c_str(), target, path.c_str());
        } catch (const FileException& e) {
            // The base may be of a later time.
            if (target.Kind() == RestoreTarget::EKind::END) m_totals.Fault("restored " + name + ": " + e.what());
            return;
        } catch (const std::exception& e) {
            m_totals.Fault("restored " + name + ": " + e.what());
            return;
        }
        ++m_totals.restored;
        const std::string fault = CheckStepStore(path, least, m_step, true);
        if (!fault.empty()) m_totals.Fault("restored " + name + ": " + fault);
        ::unlink(path.c_str());
    }

    const std::string m_path;
    const std::string m_deltas;
    const std::string m_base;
    Jump* const m_jump;
    Totals& m_totals;
    StepStore m_store;
    uint64 m_step = 0;
    std::vector<int64> m_times; // around those of the transactions
};

int Main(int argc, char** argv) {
    auto* const jump = reinterpret_cast<Jump*>(::dlsym(RTLD_DEFAULT, "QxJumpWallClock"));
    if (!jump) {
        if (std::getenv("LD_PRELOAD")) {
            std::printf("the library that makes the clock jump is not loaded\nreliability clocks: tried=0 faults=1 "
                        "verdict=FAIL\n");
            return 1;
        }
        ::setenv("LD_PRELOAD", QX_CLOCK_SHIM, 1);
        ::execv("/proc/self/exe", argv);
        std::perror("execv");
        return 1;
    }
    const ReliabilityArguments arguments(argc, argv);
    PreferFilesInMemory();
    RegisterSimStoreObjects();
    SetTraceSink({nullptr, [](void*, const char*, ssize_t) {}});
    Totals totals;
    const int64 before = WallTicks();
    jump(1000);
    if (WallTicks() < before + 999 * TICKS_PER_SECOND) totals.Fault("the clock does not jump");
    std::mt19937_64 random(arguments.seed);
    const int rounds = std::max(1, static_cast<int>(arguments.scale));
    for (int round = 0; round < rounds && totals.faults == 0; ++round) {
        const TempDir dir;
        Life life(dir, jump, totals);
        life.Begin();
        std::vector<int64> jumps(std::begin(JUMPS), std::end(JUMPS));
        if (round > 0) std::shuffle(jumps.begin(), jumps.end(), random);
        for (size_t i = 0; i < jumps.size();) {
            const size_t n = std::min<size_t>(jumps.size() - i, 3);
            life.Run({jumps.begin() + static_cast<ssize_t>(i), jumps.begin() + static_cast<ssize_t>(i + n)},
                     i / 3 % 2 == 0);
            i += n;
        }
        life.Restore(dir.File("restored"));
    }
    const bool ok = totals.faults == 0 && totals.tried > 0;
    std::printf("reliability clocks: tried=%lld restored=%lld worst_periods=%.1f faults=%lld verdict=%s\n",
                static_cast<long long>(totals.tried), static_cast<long long>(totals.restored), totals.worst,
                static_cast<long long>(totals.faults), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

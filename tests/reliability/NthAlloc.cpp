// The n-th allocation fails, once or for ever, on the thread of the application or on one of the library's, under workloads
// of the log-structured store and of the whole one. Each runs in a child. The caller gets std::bad_alloc, or the process ends;
// the file then holds a state that was allowed, and a process that goes on has lost no memory.
#include "qxLss/src/LssStore.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Tracer.h"
#include "tests/support/FailingNew.h"
#include "tests/support/NumberedTransactions.h"
#include "tests/support/Sanitized.h"
#include "tests/support/SimArguments.h"
#include "tests/support/StepStore.h"
#include "tests/support/TempDir.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <new>
#include <string>
#include <thread>

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#define QX_TEST_HAS_LEAK_CHECK 1
#endif
#endif

namespace quna {
namespace {

using EThreads = FailingNew::EThreads;

// Exit statuses of a child; a failed check of its own is 1.
constexpr int DONE = 7;
constexpr int ENDED = 8;  // by an exception that nobody could catch, or would
constexpr int LEAKED = 9; // the process went on, closed the store, and something was left
constexpr unsigned SECONDS_UNTIL_HUNG = 60;
constexpr int64 NEVER = int64{1} << 60;

// Written by the child, read by the parent after its end.
struct Told {
    std::atomic<uint64> begun{0};     // this step, or the Close of this transaction, has begun
    std::atomic<uint64> closed{0};    // and this one is closed
    std::atomic<int64> calls{0};      // allocations that could have failed
    std::atomic<int64> failures{0};   // those that did
    std::atomic<int64> exceptions{0}; // that the application caught
    std::atomic<int64> traces{0};     // texts that the library traced
    std::atomic<int64> ackedAfter{0}; // transactions closed after the Close of another one had thrown
    std::atomic<bool> partial{false}; // an exception went through the write of a group, which may be there in part
    char wrong[400] = {};             // an exception that should not be
};

Told* g_told = nullptr;

void Reset() {
    void* p = g_told;
    if (!p) p = ::mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) std::abort();
    g_told = new (p) Told;
}

[[noreturn]] void End(int status) {
    g_told->calls = FailingNew::NumCalls();
    g_told->failures = FailingNew::NumFailures();
    FailingNew::Disarm();
    ::_exit(status);
}

// Runs an action of the application. False if it threw.
template <class Action>
bool Try(const char* name, Action action) {
    const auto note = [&](const char* text) {
        if (!g_told->wrong[0]) std::snprintf(g_told->wrong, sizeof g_told->wrong, "%s: %s", name, text);
    };
    try {
        action();
        return true;
    } catch (const std::bad_alloc&) {
    } catch (const FileException& e) { // from a store that has failed
        if (FailingNew::NumFailures() == 0) note(e.what());
    } catch (const std::exception& e) {
        note(e.what());
    }
    ++g_told->exceptions;
    return false;
}

[[noreturn]] void EndAfterClosing() {
    FailingNew::Disarm();
#ifdef QX_TEST_HAS_LEAK_CHECK
    if (__lsan_do_recoverable_leak_check() != 0) End(LEAKED);
#endif
    End(DONE);
}

// --- the log-structured store

LssSettings SettingsOfLss(bool threads) {
    LssSettings settings;
    settings.segmentSize = 4096;
    settings.flushTimeMilliSec = threads ? 1 : -1;
    settings.numSegmentsPerCheckPoint = threads ? 4 : 1 << 20;
    return settings;
}

NumberedPlan PlanOf(uint64 seed) {
    NumberedPlan plan;
    plan.seed = seed;
    plan.numKeys = 30;
    plan.longest = 12000;
    plan.mostChanges = 5;
    plan.dropsWhenUnwinding = true;
    return plan;
}

LssStore* OpenLss(const std::string& path, EOpenMode mode, bool threads, bool& createdNew) {
    return static_cast<LssStore*>(OpenLssForTest(RealSysCalls(), path.c_str(), (path + ".deltas").c_str(), createdNew,
                                                 mode, SettingsOfLss(threads),
                                                 threads ? EBackground::THREADS : EBackground::NONE));
}

class LssWork {
public:
    LssWork(const std::string& path, uint64 seed, bool threads)
        : m_path(path), m_threads(threads), m_plan(PlanOf(seed)) {}

    [[noreturn]] void Run() {
        for (int i = 0; i < 14; ++i) {
            if (!m_store && !Open()) {
                if (Open()) continue; // the memory was short for a moment only
                End(ENDED);
            }
            if (!Act(i)) ++m_failed;
            if (m_failed > 3) break;
        }
        if (m_store) m_store->Close();
        EndAfterClosing();
    }

private:
    bool Open() {
        m_closeFailed = false;
        return Try("open", [this] {
            bool createdNew = false;
            m_store = OpenLss(m_path, OM_OPEN_ALWAYS, m_threads, createdNew);
            if (createdNew || NumberedPlan::ReadNumber(*m_store) == 0) m_plan.Prepare(*m_store);
        });
    }
    bool Act(int i) {
        switch (i) {
        case 3: return Try("checkpoint", [this] { m_store->CheckpointForTest(); });
        case 5: return Try("cleaning", [this] { m_store->CleanForTest(2); });
        case 6: return Try("archive", [this] { Archive(); });
        case 7:
            return Try("shrinking",
                       [this] { m_store->ShrinkForTest(); }); // of which the cleaner's thread tries no more
        case 8:
            m_store->Close();
            m_store = nullptr;
            return true;
        case 10: return Try("backup", [this] { m_store->Backup((m_path + ".copy").c_str(), BackupOptions()); });
        case 11:
            return Try("compacting", [this] { m_store->CopyCompacted((m_path + ".small").c_str(), BackupOptions()); });
        default: return Try("transaction", [this] { RunTransactions(); });
        }
    }
    void Archive() {
        m_store->Flush();
        if (!m_threads) m_store->ArchiveForTest();
    }
    void RunTransactions() {
        for (int i = 0; i < 3; ++i) {
            bool closing = false;
            try {
                g_told->closed = m_plan.RunNext(*m_store, i == 2, [&](uint64 n) {
                    closing = true;
                    g_told->begun = n;
                });
            } catch (...) {
                m_closeFailed = m_closeFailed || closing;
                throw;
            }
            if (m_closeFailed) ++g_told->ackedAfter;
        }
    }

    const std::string m_path;
    const bool m_threads;
    const NumberedPlan m_plan;
    LssStore* m_store = nullptr;
    bool m_closeFailed = false; // of a transaction, since the store was opened
    int m_failed = 0;
};

std::string CheckLss(const std::string& path, uint64 seed) {
    try {
        bool createdNew = false;
        LssStore* store = OpenLss(path, OM_OPEN_ALWAYS, false, createdNew);
        const uint64 number = NumberedPlan::ReadNumber(*store);
        NumberedModel model(PlanOf(seed));
        model.RollTo(number);
        std::string fault = model.Compare(*store);
        if (!fault.empty()) fault = "torn: " + fault;
        if (number < g_told->closed || number > g_told->begun)
            fault = "lost: transaction " + std::to_string(number) + " is the last, " + std::to_string(g_told->closed) +
                    " was closed and " + std::to_string(g_told->begun) + " begun to be";
        if (fault.empty()) {
            store->Validate();
            if (number == 0) PlanOf(seed).Prepare(*store);
            model.RollTo(PlanOf(seed).RunNext(*store, true));
        }
        store->Close();
        if (!fault.empty()) return fault;
        store = OpenLss(path, OM_OPEN_EXISTING, false, createdNew);
        fault = model.Compare(*store);
        store->Close();
        return fault.empty() ? fault : "torn: later, " + fault;
    } catch (const std::exception& e) {
        return std::string("torn: ") + e.what();
    }
}

// --- the whole store

PersistStoreSettings SettingsOfStore(bool threads) {
    PersistStoreSettings settings;
    settings.startObjectDeletion = threads;
    settings.lssSettings.segmentSize = 65536;
    settings.lssSettings.flushTimeMilliSec = threads ? 1 : -1;
    settings.lssSettings.numSegmentsPerCheckPoint = threads ? 1 : 1 << 20;
    return settings;
}

// An exception in the middle of a change leaves objects half changed; the application ends then, as PSpaceTxn would.
class StoreWork {
public:
    StoreWork(const std::string& path, bool threads) : m_path(path), m_threads(threads) {}

    [[noreturn]] void Run() {
        Open();
        if (!Try("homes", [this] { m_store.MakeHomes(); })) End(ENDED);
        for (int i = 1; i <= 12; ++i) {
            const uint64 step = ++m_step;
            g_told->begun = step;
            if (!Try("step", [&] { RunStep(step); })) End(ENDED);
            if (!Act(i)) break;
        }
        Close();
        EndAfterClosing();
    }

private:
    void Open() {
        if (Try("open", [this] { OpenOnce(); })) return;
        // The memory was short for a moment only; what is open stays so.
        if (!Try("open again", [this] {
                if (m_store.m_store)
                    m_store.OpenSpaces(OM_OPEN_ALWAYS, m_threads);
                else
                    OpenOnce();
                Configure();
            }))
            End(ENDED);
    }
    void OpenOnce() {
        m_store.Open(m_path, OM_OPEN_ALWAYS, SettingsOfStore(m_threads), m_threads);
        Configure();
    }
    void Configure() {
        if (!m_threads) return;
        SetDosPeriod(m_store.m_store, 1);
        for (PSpace* space : m_store.m_spaces) SetMilliSecsPerGc(space->GetCSpace(), 5);
    }
    // Its last write is one like others: after an exception the space is as good as lost.
    void Close() {
        if (Try("close", [this] { m_store.Close(); })) {
            if (!g_told->partial) g_told->closed = m_step;
            return;
        }
        g_told->partial = true;
        End(ENDED);
    }

    void RunStep(uint64 step) {
        m_store.InTransaction([&](size_t i) {
            // Before the lock is given back, so that nobody writes half a change.
            if (!Try("change", [&] { m_store.ChangeSpace(i, step); })) End(ENDED);
        });
    }
    // False when nothing should follow.
    bool Act(int i) {
        switch (i) {
        case 4: {
            if (!Write(true)) return false;
            const std::string copy = m_path + ".copy";
            return Try("backup", [&] { Backup(m_store.m_store, copy.c_str(), BackupOptions()); });
        }
        case 6:
            Close();
            Open();
            return true;
        case 8:
            if (!Write(false)) return false;
            return m_threads ? Try("bind", [this] { BindAgain(); }) : DeleteAll();
        case 9: return Try("look", [this] { m_store.TextOf(0); });
        case 11: return m_threads || DeleteAll();
        default: return i % 2 == 0 || Write(i % 4 == 1);
        }
    }
    bool Write(bool flush) {
        if (m_threads) {
            m_store.AwaitWritten(); // by the writer, an exception of which ends the process
        } else if (!Try("write", [&] { m_store.Write(flush); })) {
            g_told->partial = true; // and some objects are not going to be written by this process any more
            End(ENDED);
        }
        g_told->closed = m_step;
        return true;
    }
    bool DeleteAll() {
        return Try("collection", [this] { m_store.Collect(); }) && Try("deletion", [this] {
                   while (m_store.DeleteSome()) continue;
               });
    }
    // By the threads that load.
    void BindAgain() {
        PSpace* const space = m_store.m_spaces[1];
        const ThreadPSpaceScope pair(space, space->GetCSpace());
        std::vector<OID> oids;
        {
            const CSpaceLock lock(SharedRead);
            const auto* const home = static_cast<const SimHome*>(space->GetRoot("home").m_self);
            for (const auto [number, account] : home->m_accounts) oids.push_back(account.GetOid());
        }
        SynchronousGc(space->GetCSpace());
        for (const OID oid : oids)
            for (EAsyncBindResult result = EAsyncBindResult::Pending; result == EAsyncBindResult::Pending;) {
                std::this_thread::sleep_for(MOMENT);
                const CSpaceLock lock(Exclusive);
                result = space->AsyncBind2(oid).result;
            }
    }

    const std::string m_path;
    const bool m_threads;
    StepStore m_store;
    uint64 m_step = 0;
};

// --- the parent

struct Totals {
    int64 runs = 0;
    int64 failures = 0;
    int64 ended = 0;
    int64 unreported = 0;
    int64 ackedAfter = 0;
    int64 lost = 0;
    int64 hung = 0;
    int64 torn = 0;
    int64 leaked = 0;
    int64 wrong = 0; // a crash, or another exception than those two

    int64 Faults() const { return unreported + ackedAfter + lost + hung + torn + leaked + wrong; }
};

struct Kind {
    const char* name;
    bool whole; // the store of objects, not only the log-structured one
    EThreads threads;
    bool forever;
};

constexpr Kind KINDS[] = {
    {"lss, caller, once", false, EThreads::CALLER, false},   {"lss, caller, for ever", false, EThreads::CALLER, true},
    {"lss, threads, once", false, EThreads::OTHERS, false},  {"lss, threads, for ever", false, EThreads::OTHERS, true},
    {"store, caller, once", true, EThreads::CALLER, false},  {"store, caller, for ever", true, EThreads::CALLER, true},
    {"store, threads, once", true, EThreads::OTHERS, false}, {"store, threads, for ever", true, EThreads::OTHERS, true},
};
constexpr uint64 NUM_KINDS = std::size(KINDS);

class Sweep {
public:
    Sweep(uint64 seed, Totals& totals) : m_seed(seed), m_totals(totals) {}

    void Run(uint64 kind, int64 points) {
        const int64 calls = RunOne(kind, NEVER);
        const int64 step = std::max<int64>(1, calls / points);
        for (int64 n = 1 + static_cast<int64>(m_seed) % step; n <= calls; n += step) RunOne(kind, n);
    }

    // The allocations that counted.
    int64 RunOne(uint64 number, int64 n) {
        const Kind& kind = KINDS[number];
        const std::string path = m_dir.File("store");
        Reset();
        const pid_t child = ::fork();
        if (child < 0) std::abort();
        if (child == 0) Work(kind, path, n);
        int status = 0;
        ::waitpid(child, &status, 0);
        ++m_totals.runs;
        m_totals.failures += g_told->failures;
        m_where =
            std::to_string(m_seed) + "," + std::to_string(n) + "," + std::to_string(number) + " (" + kind.name + ")";
        Judge(kind, status);
        std::string fault =
            kind.whole ? CheckStepStore(path, g_told->closed, g_told->begun, !g_told->partial) : CheckLss(path, m_seed);
        if (!fault.empty())
            Fault(fault.starts_with("lost") ? m_totals.lost : m_totals.torn,
                  fault + " (exit " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + ", exceptions " +
                      std::to_string(g_told->exceptions) + ", traces " + std::to_string(g_told->traces) + ", begun " +
                      std::to_string(g_told->begun) + ", closed " + std::to_string(g_told->closed) + ")");
        for (const char* suffix : {"", ".new", ".copy", ".copy.part", ".small", ".small.part", ".deltas"})
            std::filesystem::remove_all(path + suffix);
        return g_told->calls;
    }

private:
    [[noreturn]] void Work(const Kind& kind, const std::string& path, int64 n) {
        ::alarm(SECONDS_UNTIL_HUNG);
        std::set_terminate([] { End(ENDED); });
        ::signal(SIGABRT, [](int) { End(ENDED); });
        SetTraceSink({nullptr, [](void*, const char*, ssize_t) { ++g_told->traces; }});
        const bool threads = kind.threads == EThreads::OTHERS;
        if (kind.whole) {
            StoreWork work(path, threads);
            FailingNew::Arm(n, kind.forever, kind.threads);
            work.Run();
        }
        LssWork work(path, m_seed, threads);
        FailingNew::Arm(n, kind.forever, kind.threads);
        work.Run();
    }

    void Judge(const Kind& kind, int status) {
        const int exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        m_totals.ended += exit == ENDED;
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
            Fault(m_totals.hung, "hung");
        else if (exit == LEAKED)
            Fault(m_totals.leaked, "memory is lost");
        else if (exit != DONE && exit != ENDED)
            Fault(m_totals.wrong, "the child ended with status " + std::to_string(status));
        if (g_told->wrong[0]) Fault(m_totals.wrong, g_told->wrong);
        if (g_told->ackedAfter > 0) {
            Fault(m_totals.ackedAfter, "a transaction was closed after a Close had failed");
        }
        // A thread that lacks memory for its text as well can't be asked to trace.
        const bool told = g_told->exceptions + g_told->traces > 0 || exit == ENDED || kind.forever;
        if (g_told->failures > 0 && !told) Fault(m_totals.unreported, "nobody was told");
    }

    void Fault(int64& count, const std::string& text) {
        ++count;
        std::printf("FAULT --replay %s: %s\n", m_where.c_str(), text.c_str());
    }

    const uint64 m_seed;
    Totals& m_totals;
    TempDir m_dir;
    std::string m_where;
};

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    std::setvbuf(stdout, nullptr, _IONBF, 0); // nothing is inherited by children
    PreferFilesInMemory();
    RegisterSimStoreObjects();
    SetTraceSink({nullptr, [](void*, const char*, ssize_t) {}});
    Totals totals;
    if (arguments.replay) {
        Sweep(arguments.replaySeed, totals).RunOne(arguments.replayVariant % NUM_KINDS, arguments.replayPoint);
    } else {
        // Points of each kind; at the largest scales every n.
        const int64 points = std::max<int64>(2, static_cast<int64>((UNDER_SANITIZER ? 6 : 30) * arguments.scale));
        for (uint64 kind = 0; kind < NUM_KINDS; ++kind)
            if (kind % static_cast<uint64>(arguments.parts) == static_cast<uint64>(arguments.part))
                Sweep(arguments.seed, totals).Run(kind, points);
    }
    const bool ok = totals.Faults() == 0 && totals.failures > 0;
    std::printf("reliability nth-alloc: runs=%lld failures=%lld ended=%lld unreported=%lld acked_after=%lld lost=%lld "
                "hung=%lld "
                "torn=%lld leaked=%lld wrong=%lld verdict=%s\n",
                static_cast<long long>(totals.runs), static_cast<long long>(totals.failures),
                static_cast<long long>(totals.ended), static_cast<long long>(totals.unreported),
                static_cast<long long>(totals.ackedAfter), static_cast<long long>(totals.lost),
                static_cast<long long>(totals.hung), static_cast<long long>(totals.torn),
                static_cast<long long>(totals.leaked), static_cast<long long>(totals.wrong), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

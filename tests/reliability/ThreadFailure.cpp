// Starting a thread fails, the n-th one, once or for ever: for each thread that a store starts while it opens, works and
// closes. The caller gets an exception or the process ends; what was acknowledged is in the file, and the file can be opened
// again, by the same process too once threads can be started.
#include "qxObject/DGWatcher.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Tracer.h"
#include "tests/support/SimArguments.h"
#include "tests/support/StepStore.h"
#include "tests/support/TempDir.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <new>
#include <string>
#include <system_error>

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quna {
namespace {

using ThreadCreate = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

std::atomic<int64> g_failing{0}; // the number of the thread that fails, counted from Arm; 0: none
std::atomic<bool> g_forever{false};
std::atomic<int64> g_started{0};

bool MustFail() {
    const int64 n = g_failing;
    if (n == 0) return false;
    const int64 thread = ++g_started;
    return g_forever ? thread >= n : thread == n;
}

} // namespace
} // namespace quna

// Sanitizers have a function of their own in between.
extern "C" quna::ThreadCreate __interceptor_pthread_create __attribute__((weak));

// In place of the system's, for the library as well.
extern "C" __attribute__((visibility("default"))) int
pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) noexcept {
    if (quna::MustFail()) return EAGAIN;
    if (__interceptor_pthread_create) return __interceptor_pthread_create(thread, attributes, body, argument);
    static auto* const next = reinterpret_cast<quna::ThreadCreate*>(::dlsym(RTLD_NEXT, "pthread_create"));
    return next(thread, attributes, body, argument);
}

namespace quna {
namespace {

constexpr int DONE = 7;
constexpr int ENDED = 8;
constexpr unsigned SECONDS_UNTIL_HUNG = 60;

// Written by the child, read by the parent after its end.
struct Told {
    std::atomic<uint64> begun{0};
    std::atomic<uint64> closed{0};
    std::atomic<int64> failures{0};
    std::atomic<int64> exceptions{0};
    char wrong[400] = {};
};

Told* g_told = nullptr;

void Reset() {
    void* p = g_told;
    if (!p) p = ::mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) std::abort();
    g_told = new (p) Told;
}

void NoteWrong(const char* text) {
    if (!g_told->wrong[0]) std::snprintf(g_told->wrong, sizeof g_told->wrong, "%s", text);
}

[[noreturn]] void End(int status) {
    const int64 n = g_failing.exchange(0);
    const int64 beyond = g_started - n + 1;
    g_told->failures = beyond <= 0 ? 0 : g_forever ? beyond : 1;
    ::_exit(status);
}

class Work {
public:
    Work(const std::string& path, const std::string& deltas) : m_path(path), m_deltas(deltas) {}

    [[noreturn]] void Run(int64 n, bool forever) {
        g_forever = forever;
        g_failing = n;
        for (int life = 0; life < 2; ++life) {
            // After a failure once more, in the same process.
            if (!Try([this] { Open(); }) && !Try([this] { Open(); })) break;
            Try([] { DGWatchQueue::OfLibrary(); });
            Step();
        }
        Try([this] { m_store.Close(); });
        if (!g_told->wrong[0]) TakeUpAgain();
        End(DONE);
    }

private:
    template <class Action>
    bool Try(Action action) {
        try {
            action();
            return true;
        } catch (const std::system_error&) { // what std::thread throws
        } catch (const std::exception& e) {
            NoteWrong(e.what());
        }
        ++g_told->exceptions;
        return false;
    }
    void Open() {
        PersistStoreSettings settings;
        settings.deltasDirPath = m_deltas.c_str();
        settings.lssSettings.segmentSize = 65536;
        settings.startObjectDeletion = m_numSteps > 0; // the first time later
        if (!m_store.m_store) m_store.m_store = OpenPersistStore(m_path.c_str(), OM_OPEN_ALWAYS, settings);
        m_store.OpenSpaces(OM_OPEN_ALWAYS, true);
        StartObjectDeletion(m_store.m_store);
    }
    void Step() {
        g_told->begun = ++m_numSteps;
        if (m_numSteps == 1) m_store.MakeHomes();
        m_store.RunStep(m_numSteps);
        WriteAllDirtyObjectsToLss(m_store.m_store, false);
        g_told->closed = m_numSteps;
        m_store.Close();
    }
    // Threads can be started again.
    void TakeUpAgain() {
        const int64 n = g_failing.exchange(0);
        if (!Try([this] {
                Open();
                Step();
            }))
            NoteWrong("the store cannot be opened again by the same process");
        g_failing = n;
    }

    const std::string m_path;
    const std::string m_deltas;
    StepStore m_store;
    uint64 m_numSteps = 0;
};

struct Totals {
    int64 tried = 0;
    int64 failures = 0;
    int64 ended = 0;
    int64 unreported = 0;
    int64 lost = 0;
    int64 hung = 0;
    int64 wrong = 0;

    int64 Faults() const { return unreported + lost + hung + wrong; }
};

// False if the program starts fewer threads.
bool RunOne(int64 n, bool forever, Totals& totals) {
    const TempDir dir;
    const std::string path = dir.File("store");
    Reset();
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child < 0) std::abort();
    if (child == 0) {
        ::alarm(SECONDS_UNTIL_HUNG);
        std::set_terminate([] { End(ENDED); });
        Work(path, dir.File("deltas")).Run(n, forever);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    const int exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    ++totals.tried;
    totals.failures += g_told->failures;
    totals.ended += exit == ENDED;
    const auto fault = [&](int64& count, const std::string& text) {
        ++count;
        std::printf("FAULT --replay 0,%lld,%d: %s\n", static_cast<long long>(n), forever, text.c_str());
    };
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
        fault(totals.hung, "hung");
    else if (exit != DONE && exit != ENDED)
        fault(totals.wrong, "the child ended with status " + std::to_string(status));
    if (g_told->wrong[0]) fault(totals.wrong, g_told->wrong);
    if (g_told->failures > 0 && g_told->exceptions == 0 && exit == DONE) fault(totals.unreported, "nobody was told");
    const std::string found = CheckStepStore(path, g_told->closed, g_told->begun, true);
    if (!found.empty()) fault(totals.lost, found);
    return g_told->failures > 0;
}

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    PreferFilesInMemory();
    RegisterSimStoreObjects();
    SetTraceSink({nullptr, [](void*, const char*, ssize_t) {}});
    Totals totals;
    if (arguments.replay) {
        RunOne(arguments.replayPoint, arguments.replayVariant != 0, totals);
    } else {
        for (const bool forever : {false, true})
            for (int64 n = 1; RunOne(n, forever, totals); ++n) continue;
    }
    const bool ok = totals.Faults() == 0 && totals.failures > 0;
    std::printf("reliability thread-failure: tried=%lld failures=%lld ended=%lld unreported=%lld lost=%lld hung=%lld "
                "wrong=%lld "
                "faults=%lld verdict=%s\n",
                static_cast<long long>(totals.tried), static_cast<long long>(totals.failures),
                static_cast<long long>(totals.ended), static_cast<long long>(totals.unreported),
                static_cast<long long>(totals.lost), static_cast<long long>(totals.hung),
                static_cast<long long>(totals.wrong), static_cast<long long>(totals.Faults()), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

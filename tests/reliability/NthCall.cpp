// Each kind of system call fails at its n-th use, for every n, once and for ever, with EIO and with ENOSPC, under a random
// workload. The failure must reach the caller, nothing may be acknowledged after a failed write or sync, and the disk must
// hold a state that was allowed.
#include "qxUtils/Tracer.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimLss.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>

namespace quna {
namespace {

struct Totals {
    int64 runs = 0;
    int64 failures = 0;
    int64 unreported = 0;
    int64 ackedAfter = 0;
    int64 lost = 0;
};

struct Kind {
    ESimCall call;
    const char* name;
    bool isFinal; // a failure ends all writing
    bool mustBeReported;
};

constexpr Kind KINDS[] = {
    {ESimCall::OPEN, "open", false, true},
    {ESimCall::READ, "read", false, true},
    {ESimCall::WRITE, "write", true, true},
    {ESimCall::WRITE_DURABLE, "durable write", true, true},
    {ESimCall::SYNC, "sync", true, true},
    {ESimCall::SYNC_DIR, "sync of directory", false, true},
    {ESimCall::WRITE_BACK, "write-back", false, false},
    // Growth ahead of need may fail unseen: who then needs the room asks again.
    {ESimCall::ALLOCATE, "allocate", false, false},
    {ESimCall::TRUNCATE, "truncate", false, false},
    {ESimCall::PUNCH, "hole", false, false},
    {ESimCall::SIZE, "size", false, false},
    {ESimCall::RENAME, "rename", false, true},
    {ESimCall::LOCK, "lock", false, true},
    {ESimCall::NAMES_FILE, "look-up of the name", false, true},
    {ESimCall::DROP_CACHE, "drop of the cache", false, false},
    {ESimCall::MAP, "map", false, true},
    {ESimCall::LOAD, "load", false, true},
};

// What the store traces while a workload runs. One thread.
class CollectedTraces {
public:
    CollectedTraces() : m_previous(SetTraceSink({this, &CollectedTraces::Take})) {}
    ~CollectedTraces() { SetTraceSink(m_previous); }

    // A segment that can't be read while it is cleaned: nobody waits for an answer, and nothing is lost.
    bool TellsOfSegmentLeftAlone() const { return m_text.find("leaves a segment as it is") != std::string::npos; }

private:
    static void Take(void* self, const char* text, ssize_t n) {
        static_cast<CollectedTraces*>(self)->m_text.append(text, static_cast<size_t>(n));
    }

    std::string m_text;
    TraceSink m_previous;
};

struct Case {
    Kind kind;
    int64 n;
    int error;
    bool forever;
    uint64 seed;
};

void Report(const Case& c, const std::string& text) {
    std::printf("FAULT seed %llu, %s number %lld, errno %d, %s: %s\n", static_cast<unsigned long long>(c.seed),
                c.kind.name, static_cast<long long>(c.n), c.error, c.forever ? "for ever" : "once", text.c_str());
}

// False if the call was never reached.
bool Run(const Case& c, Totals& totals) {
    LssWorkload workload;
    workload.seed = c.seed;
    workload.steps = 20;
    SimSys sys;
    LssDriver driver(sys, workload);
    sys.FailCall(c.kind.call, c.n, c.error, c.forever);
    const CollectedTraces traces;
    driver.Run();
    if (sys.NumFailures() == 0) return false;
    ++totals.runs;
    totals.failures += sys.NumFailures();
    const LssHistory& history = driver.History();
    const bool reported = !history.failure.empty() || !history.fault.empty();
    const bool traced = c.kind.call == ESimCall::LOAD && traces.TellsOfSegmentLeftAlone();
    if (c.kind.mustBeReported && !reported && !traced && sys.NumFailures() > driver.NumFailuresInClose()) {
        ++totals.unreported;
        Report(c, "nobody was told");
    }
    if (!history.fault.empty()) {
        ++totals.lost;
        Report(c, history.fault);
    }
    if (c.kind.isFinal && reported && driver.NumClosedAfterFailure() > 0) {
        ++totals.ackedAfter;
        Report(c, "a transaction was closed after the failure: " + history.failure);
    }
    sys.Heal();
    const ssize_t calls = sys.NumRecorded();
    SimDisk disk(sys.InitialImage());
    for (const SimCall& call : sys.Record()) disk.Apply(call);
    for (CrashVariant::EChoice choice :
         {CrashVariant::EChoice::ALL, CrashVariant::EChoice::NONE, CrashVariant::EChoice::TORN}) {
        LssCheck check;
        check.history = &history;
        check.floor = history.Floor(calls, choice == CrashVariant::EChoice::ALL && c.kind.call != ESimCall::SYNC);
        check.ceiling = std::ssize(history.states) - 1;
        SimSys after(disk.Image({choice, c.seed + static_cast<uint64>(c.n)}));
        ssize_t found = -1;
        const std::string fault = CheckLssImage(after, check, found);
        if (fault.empty()) continue;
        ++totals.lost;
        Report(c, fault + " (image " + std::to_string(static_cast<int>(choice)) + ", told: " + history.failure + ")");
    }
    return true;
}

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    Totals totals;
    const int seeds = std::max(1, static_cast<int>(arguments.scale));
    for (int i = 0; i < seeds; ++i)
        for (const Kind& kind : KINDS)
            for (int error : {EIO, ENOSPC})
                for (bool forever : {false, true}) {
                    // At small scale only every so many-th n, from another start for each seed.
                    const int64 step = arguments.scale > 1 ? 1 : 3;
                    for (int64 n = 1 + i % step;
                         Run({kind, n, error, forever, arguments.seed + static_cast<uint64>(i)}, totals); n += step) {
                    }
                }
    const bool ok = totals.unreported + totals.ackedAfter + totals.lost == 0 && totals.failures > 0;
    std::printf("reliability nth-call: runs=%lld failures=%lld unreported=%lld acked_after=%lld lost=%lld verdict=%s\n",
                static_cast<long long>(totals.runs), static_cast<long long>(totals.failures),
                static_cast<long long>(totals.unreported), static_cast<long long>(totals.ackedAfter),
                static_cast<long long>(totals.lost), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

// A store on a real file that can't grow any more: under a limit of the file's size, and on a small file system in memory if
// one is mounted. The failure must reach the caller, a failed write is followed by no closed transaction, and what was closed
// is there when the file is opened again.
#include "qxLss/ILogStructuredStore.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"
#include "tests/support/NumberedTransactions.h"
#include "tests/support/SimArguments.h"
#include "tests/support/TempDir.h"

#include <atomic>
#include <cstdio>
#include <exception>
#include <fstream>
#include <new>
#include <sstream>
#include <string>

#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quna {
namespace {

constexpr int64 LARGEST_MOUNT = int64{64} << 20; // bytes; a larger file system is not filled

struct Told {
    std::atomic<uint64> closing{0};
    std::atomic<uint64> closed{0};
    std::atomic<int64> failures{0};
    std::atomic<int64> ackedAfter{0}; // closed after the store had refused to go on
};

class SharedTold {
public:
    SharedTold() {
        void* const p = ::mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) throw std::bad_alloc();
        m_told = new (p) Told;
    }
    SharedTold(const SharedTold&) = delete;
    SharedTold& operator=(const SharedTold&) = delete;
    ~SharedTold() { ::munmap(static_cast<void*>(m_told), sizeof(Told)); }
    Told* operator->() const { return m_told; }

private:
    Told* m_told;
};

struct Totals {
    int64 faults = 0; // injected
    int64 unreported = 0;
    int64 acked = 0;
    int64 lost = 0;
};

LssSettings Settings() {
    LssSettings settings;
    settings.segmentSize = 65536;
    settings.flushTimeMilliSec = 5;
    settings.numSegmentsPerCheckPoint = 4;
    return settings;
}

// Grows: the keys are many and few are deleted.
NumberedPlan PlanOf(uint64 seed) {
    NumberedPlan plan;
    plan.seed = seed;
    plan.numKeys = 4000;
    plan.longest = 60000;
    plan.mostChanges = 40;
    return plan;
}

// Until nothing goes any more. A full disk may be refused with the store still usable; a failed store stays so.
[[noreturn]] void FillStore(const std::string& path, uint64 seed, const SharedTold& told) {
    const NumberedPlan plan = PlanOf(seed);
    try {
        bool createdNew = false;
        ILogStructuredStore* store = CreateOrOpenLSS(path.c_str(), nullptr, createdNew, OM_OPEN_ALWAYS, Settings());
        if (createdNew) plan.Prepare(*store);
        bool hasFailed = false;
        for (int failures = 0; failures < 20;) {
            try {
                told->closed = plan.RunNext(*store, told->closed % 8 == 0, [&](uint64 n) { told->closing = n; });
                told->ackedAfter += hasFailed;
            } catch (const FileException& e) {
                ++failures;
                ++told->failures;
                hasFailed = hasFailed || std::string(e.what()).find("stopped writing") != std::string::npos;
            }
        }
        store->Close();
    } catch (const FileException&) {
        ++told->failures; // already the creation
    } catch (const std::exception& e) {
        std::fprintf(stderr, "child: %s\n", e.what());
        ::_exit(1);
    }
    ::_exit(0);
}

void Try(const std::string& path, uint64 seed, int64 limit, Totals& totals) {
    const SharedTold told;
    const pid_t child = ::fork();
    if (child < 0) std::abort();
    if (child == 0) {
        if (limit > 0) {
            ::signal(SIGXFSZ, SIG_IGN);
            const rlimit most{static_cast<rlim_t>(limit), static_cast<rlim_t>(limit)};
            if (::setrlimit(RLIMIT_FSIZE, &most) != 0) ::_exit(2);
        }
        FillStore(path, seed, told);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    totals.faults += told->failures;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || told->failures == 0) {
        ++totals.unreported;
        std::printf("FAULT seed %llu, limit %lld: the child ended with status %d\n",
                    static_cast<unsigned long long>(seed), static_cast<long long>(limit), status);
    }
    totals.acked += told->ackedAfter;
    std::string fault;
    try {
        bool createdNew = false;
        AutoCloser<ILogStructuredStore> store(
            CreateOrOpenLSS(path.c_str(), nullptr, createdNew, OM_OPEN_EXISTING_READ_ONLY, Settings()));
        const uint64 number = NumberedPlan::ReadNumber(*store.Get());
        NumberedModel model(PlanOf(seed));
        model.RollTo(number);
        fault = model.Compare(*store.Get());
        if (number < told->closed || number > told->closing)
            fault = "transaction " + std::to_string(number) + " is the last";
    } catch (const std::exception& e) {
        if (told->closed > 0) fault = e.what();
    }
    ::unlink(path.c_str());
    ::unlink((path + ".new").c_str());
    if (fault.empty()) return;
    ++totals.lost;
    std::printf("FAULT seed %llu, limit %lld, %llu closed: %s\n", static_cast<unsigned long long>(seed),
                static_cast<long long>(limit), static_cast<unsigned long long>(told->closed), fault.c_str());
}

// A mounted file system in memory that may be filled; empty if there is none.
std::string SmallMount() {
    std::ifstream mounts("/proc/mounts");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::string device;
        std::string place;
        std::string type;
        fields >> device >> place >> type;
        struct statvfs info {};
        if (type != "tmpfs" || ::statvfs(place.c_str(), &info) != 0 || ::access(place.c_str(), W_OK) != 0) continue;
        const int64 bytes = static_cast<int64>(info.f_blocks) * static_cast<int64>(info.f_frsize);
        const bool isOurs = place.find("qxtest") != std::string::npos; // made for such tests
        if (isOurs && bytes > 0 && bytes <= LARGEST_MOUNT) return place;
    }
    return {};
}

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    std::setvbuf(stdout, nullptr, _IONBF, 0); // nothing is inherited by children
    Totals totals;
    const TempDir dir;
    std::mt19937_64 random(arguments.seed);
    const int64 tries = static_cast<int64>(40 * std::max(1.0, arguments.scale));
    for (int64 i = 0; i < tries; ++i) {
        const int64 limit =
            i % 4 == 0 ? static_cast<int64>(random() % 700000) + 1 : 800000 + static_cast<int64>(random() % 2500000);
        Try(dir.File("store"), random(), limit, totals);
    }
    const std::string mount = SmallMount();
    if (mount.empty())
        std::printf("no small file system in memory is mounted as *qxtest*: that part is skipped\n");
    else
        for (int64 i = 0; i < tries / 4; ++i) Try(mount + "/store", random(), 0, totals);
    const bool ok = totals.unreported + totals.acked + totals.lost == 0 && totals.faults > 0;
    std::printf("reliability real-device: faults=%lld unreported=%lld acked_after=%lld lost=%lld verdict=%s\n",
                static_cast<long long>(totals.faults), static_cast<long long>(totals.unreported),
                static_cast<long long>(totals.acked), static_cast<long long>(totals.lost), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

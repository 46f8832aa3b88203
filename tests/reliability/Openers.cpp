// Processes and threads race to open one store, for writing and for reading: there is never more than one owner, and no reader
// beside one. Then a store is forked under load: every call of the child throws, and nothing of the child's doings shows.
#include "qxLss/ILogStructuredStore.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"
#include "tests/support/NumberedTransactions.h"
#include "tests/support/SimArguments.h"
#include "tests/support/TempDir.h"

#include <atomic>
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quna {
namespace {

constexpr int NUM_PROCESSES = 4;
constexpr int NUM_THREADS = 3;

// In memory that all processes share.
struct Shared {
    std::atomic<int> owners{0};
    std::atomic<int> readers{0};
    std::atomic<int64> opened{0};
    std::atomic<int64> refused{0};
    std::atomic<int64> closed{0}; // transactions
    std::atomic<int64> faults{0};
    std::atomic<int64> childCalls{0};
};

class SharedMemory {
public:
    SharedMemory() {
        void* const p = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) throw std::bad_alloc();
        m_shared = new (p) Shared;
    }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;
    ~SharedMemory() { ::munmap(static_cast<void*>(m_shared), sizeof(Shared)); }
    Shared* operator->() const { return m_shared; }

private:
    Shared* m_shared;
};

LssSettings Settings() {
    LssSettings settings;
    settings.segmentSize = 65536;
    settings.flushTimeMilliSec = 5;
    return settings;
}

NumberedPlan Plan() {
    NumberedPlan plan;
    plan.numKeys = 30;
    plan.longest = 3000;
    return plan;
}

void Fault(const SharedMemory& shared, const char* text) {
    ++shared->faults;
    std::printf("FAULT %s\n", text);
}

// One owner at a time, so that opening, one transaction and the end are alone.
void OpenForWriting(const std::string& path, const SharedMemory& shared, uint64 random) {
    constexpr EOpenMode MODES[] = {OM_OPEN_ALWAYS, OM_OPEN_EXISTING, OM_CREATE_NEW};
    bool createdNew = false;
    ILogStructuredStore* const store =
        CreateOrOpenLSS(path.c_str(), nullptr, createdNew, MODES[random % 3], Settings());
    ++shared->opened;
    if (shared->owners.fetch_add(1) != 0 || shared->readers != 0) Fault(shared, "two owners, or an owner and a reader");
    if (createdNew) Plan().Prepare(*store);
    Plan().RunNext(*store, random % 2 == 0);
    ++shared->closed;
    if (shared->readers != 0) Fault(shared, "a reader beside an owner");
    --shared->owners;
    store->Close();
}

void OpenForReading(const std::string& path, const SharedMemory& shared) {
    bool createdNew = false;
    AutoCloser<ILogStructuredStore> store(
        CreateOrOpenLSS(path.c_str(), nullptr, createdNew, OM_OPEN_EXISTING_READ_ONLY, Settings()));
    ++shared->opened;
    ++shared->readers;
    if (shared->owners != 0) Fault(shared, "a reader beside an owner");
    NumberedModel model(Plan());
    const uint64 number = NumberedPlan::ReadNumber(*store.Get());
    model.RollTo(number);
    const std::string fault = model.Compare(*store.Get());
    if (!fault.empty()) Fault(shared, fault.c_str());
    --shared->readers;
}

void Race(const std::string& path, const SharedMemory& shared, uint64 seed, int64 rounds) {
    std::mt19937_64 random(seed);
    for (int64 i = 0; i < rounds; ++i) {
        try {
            if (random() % 4 == 0)
                OpenForReading(path, shared);
            else
                OpenForWriting(path, shared, random());
        } catch (const FileException&) {
            ++shared->refused;
        } catch (const std::exception& e) {
            Fault(shared, e.what());
        }
    }
}

void WaitFor(pid_t child, const SharedMemory& shared) {
    int status = 0;
    if (::waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        Fault(shared, "a child ended with an error");
}

void RunOpeners(const SharedMemory& shared, uint64 seed, int64 rounds) {
    const TempDir dir;
    const std::string path = dir.File("store");
    std::vector<pid_t> children;
    for (uint64 p = 0; p < NUM_PROCESSES; ++p) {
        const pid_t child = ::fork();
        if (child < 0) std::abort();
        if (child == 0) {
            std::vector<std::thread> threads;
            for (uint64 t = 0; t < NUM_THREADS; ++t)
                threads.emplace_back([&, t] { Race(path, shared, seed * 1000 + p * NUM_THREADS + t, rounds); });
            for (std::thread& thread : threads) thread.join();
            ::_exit(0);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) WaitFor(child, shared);
    bool createdNew = false;
    AutoCloser<ILogStructuredStore> store(
        CreateOrOpenLSS(path.c_str(), nullptr, createdNew, OM_OPEN_EXISTING, Settings()));
    if (static_cast<int64>(NumberedPlan::ReadNumber(*store.Get())) != shared->closed)
        Fault(shared, "the transactions of all owners are not those that are there");
}

// Each call of a store in a forked child must throw.
void CallEverything(ILogStructuredStore& store, const SharedMemory& shared) {
    const auto expect = [&](const char* name, auto&& call) {
        ++shared->childCalls;
        try {
            call();
            Fault(shared, name);
        } catch (const FileException&) {
            return;
        }
    };
    expect("OpenTransaction", [&] { store.OpenTransaction(); });
    expect("AllocateSeidHigh", [&] { store.AllocateSeidHigh(); });
    expect("AllocateSeid", [&] { store.AllocateSeid(1); });
    expect("AllocateAffiliateSeid", [&] {
        Seid seid(1, 1);
        store.AllocateAffiliateSeid(seid);
    });
    expect("OpenSerialElement", [&] { store.OpenSerialElement(Seid(1, 1)); });
    expect("GetStats", [&] {
        LssStats stats;
        store.GetStats(stats);
    });
    expect("Flush", [&] { store.Flush(); });
    expect("Close", [&] { store.Close(); });
}

void RunForks(const SharedMemory& shared, uint64 seed, int64 forks) {
    const TempDir dir;
    const std::string path = dir.File("store");
    bool createdNew = false;
    ILogStructuredStore* store = CreateOrOpenLSS(path.c_str(), nullptr, createdNew, OM_CREATE_NEW, Settings());
    Plan().Prepare(*store);
    std::atomic<bool> stop{false};
    std::atomic<uint64> last{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&, t] {
            std::mt19937_64 random(seed + static_cast<uint64>(t));
            while (!stop) {
                const uint64 number = Plan().RunNext(*store, random() % 16 == 0);
                uint64 before = last;
                while (before < number && !last.compare_exchange_weak(before, number)) {
                }
            }
        });
    for (int64 i = 0; i < forks; ++i) {
        const pid_t child = ::fork();
        if (child < 0) std::abort();
        if (child == 0) {
            CallEverything(*store, shared);
            ::_exit(0);
        }
        WaitFor(child, shared);
        try { // the parent's lock stands
            AutoCloser<ILogStructuredStore> other(
                CreateOrOpenLSS(path.c_str(), nullptr, createdNew, OM_OPEN_EXISTING, Settings()));
            Fault(shared, "a second owner after a fork");
        } catch (const FileException&) {
            continue;
        }
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    store->Close();
    store = CreateOrOpenLSS(path.c_str(), nullptr, createdNew, OM_OPEN_EXISTING, Settings());
    NumberedModel model(Plan());
    model.RollTo(last);
    const std::string fault = model.Compare(*store);
    if (!fault.empty()) Fault(shared, fault.c_str());
    store->Close();
}

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    std::setvbuf(stdout, nullptr, _IONBF, 0); // nothing is inherited by children
    const double scale = std::max(1.0, arguments.scale);
    const SharedMemory openers;
    RunOpeners(openers, arguments.seed, static_cast<int64>(300 * scale));
    const SharedMemory forks;
    RunForks(forks, arguments.seed, static_cast<int64>(40 * scale));
    const bool ok = openers->faults + forks->faults == 0 && openers->opened > 0 && openers->refused > 0;
    std::printf("reliability fork: tried=%lld faults=%lld verdict=%s\n", static_cast<long long>(forks->childCalls),
                static_cast<long long>(forks->faults), forks->faults == 0 ? "ok" : "FAIL");
    std::printf("reliability openers: tried=%lld opened=%lld refused=%lld closed=%lld faults=%lld verdict=%s\n",
                static_cast<long long>(openers->opened + openers->refused), static_cast<long long>(openers->opened),
                static_cast<long long>(openers->refused), static_cast<long long>(openers->closed),
                static_cast<long long>(openers->faults), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

// How long does a change wait at the defaults? From the release of the lock under which it was made until its transaction is
// closed, so that it outlives the process, and from then until a sync covers it, so that it outlives the machine. Limits:
// 1.1 s each, a period and a tenth for the write. The last line is the result.
//
//   DurabilityBench [--seconds N] [--objects N] [--dir PATH]
//
// A thread changes some objects at random moments, five milliseconds apart in the mean; the writer and the log do their
// part in the background. Run it on a machine that does nothing else: with both cores busy a sync takes forty times longer.
#include "bench/support/BenchObjects.h"
#include "qxLss/src/LssStore.h"
#include "qxPersistStore/PersistentMembers.h"
#include "qxPersistStore/src/PersistStore.h"
#include "tests/support/ForwardingSys.h"
#include "tests/support/WatchedLss.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace quna;
using Clock = std::chrono::steady_clock;

constexpr int64 LIMIT_MICROS = 1'100'000;

// Number of the newest change that a record of the present transaction holds. Written and read by the store's writer.
std::atomic<int64> g_inRecord{0};

// Changed last in each change.
class Ticker : public PersistentObject<Ticker> {
public:
    static constexpr auto Members() { return MemberList(Member("number", &Ticker::m_number)); }
    void Serialise(Archive& ar) const {
        SerialiseMembers(ar, *this);
        g_inRecord.store(m_number, std::memory_order_relaxed);
    }
    int64 m_number = 0;
};
QX_REFLECT_PERSISTENT_CLASS(Ticker, "bench::Ticker")

// When each change was made, closed and durable. Threads: any.
class Times {
public:
    void Changed() {
        const std::lock_guard lock(m_mutex);
        m_changed.push_back(Clock::now());
    }
    void ClosedUpTo(int64 number) {
        const std::lock_guard lock(m_mutex);
        Note(m_closed, number);
    }
    ssize_t NumClosed() {
        const std::lock_guard lock(m_mutex);
        return std::ssize(m_closed);
    }
    void DurableUpTo(ssize_t number) {
        const std::lock_guard lock(m_mutex);
        Note(m_durable, number);
    }
    ssize_t NumDurable() {
        const std::lock_guard lock(m_mutex);
        return std::ssize(m_durable);
    }

    // True if the limits hold.
    bool Print() {
        const std::lock_guard lock(m_mutex);
        std::printf("reliability durability: changes=%td ", std::ssize(m_durable));
        const bool closed = PrintOne("change_to_closed", m_changed, m_closed);
        const bool durable = PrintOne("closed_to_durable", m_closed, m_durable);
        std::printf("verdict=%s\n", closed && durable ? "ok" : "FAIL");
        return closed && durable;
    }

private:
    using Moments = std::vector<Clock::time_point>;

    static void Note(Moments& moments, ssize_t number) {
        const Clock::time_point now = Clock::now();
        while (std::ssize(moments) < number) moments.push_back(now);
    }

    // A write may close a change before the thread that made it has noted its moment: that one waited for nothing.
    static bool PrintOne(ConstStringZ name, const Moments& from, const Moments& to) {
        std::vector<int64> micros;
        for (size_t i = 0; i < std::min(from.size(), to.size()); ++i)
            micros.push_back(
                std::max<int64>(0, std::chrono::duration_cast<std::chrono::microseconds>(to[i] - from[i]).count()));
        std::sort(micros.begin(), micros.end());
        const auto at = [&](size_t perMille) {
            return static_cast<long long>(micros.empty() ? -1 : micros[(micros.size() - 1) * perMille / 1000]);
        };
        std::printf("%s_p50=%lldus %s_p99=%lldus %s_max=%lldus ", name, at(500), name, at(990), name, at(1000));
        return !micros.empty() && micros.back() <= LIMIT_MICROS;
    }

    std::mutex m_mutex;
    Moments m_changed; // by number - 1, like the others
    Moments m_closed;
    Moments m_durable;
};

// Syncs make durable what was closed before they began.
class TimedSys final : public ForwardingSys {
public:
    explicit TimedSys(Times& times) : m_times(times) {}
    int SyncData(int fd) override {
        const ssize_t closed = m_times.NumClosed();
        const int result = ForwardingSys::SyncData(fd);
        if (result == 0) m_times.DurableUpTo(closed);
        return result;
    }

private:
    void BeforeChange() override {}
    Times& m_times;
};

struct Arguments {
    int seconds = 20;
    ssize_t objects = 20; // changed at a time, of a hundred times as many
    std::string directory;

    Arguments(int argc, char** argv) {
        for (int i = 1; i < argc; i += 2) {
            const std::string name = argv[i];
            const char* const value = i + 1 < argc ? argv[i + 1] : nullptr;
            if (value && name == "--seconds")
                seconds = std::max(1, std::atoi(value));
            else if (value && name == "--objects")
                objects = std::max(0, std::atoi(value));
            else if (value && name == "--dir")
                directory = value;
            else {
                std::fprintf(stderr, "usage: %s [--seconds N] [--objects N] [--dir PATH]\n", argv[0]);
                std::exit(2);
            }
        }
    }
};

void Change(const std::vector<BenchNode*>& nodes, Ticker& ticker, const Arguments& arguments, Times& times) {
    std::mt19937_64 random(1);
    std::exponential_distribution<double> pause(1 / 0.005);
    const auto end = Clock::now() + std::chrono::seconds(arguments.seconds);
    while (Clock::now() < end) {
        {
            const PSpaceTxn txn(Exclusive);
            for (ssize_t i = 0; i < arguments.objects; ++i) {
                BenchNode* const node = nodes[random() % nodes.size()];
                node->MarkAsDirtyWithoutTrace();
                ++node->m_words[0];
            }
            ticker.MarkAsDirtyWithoutTrace();
            ++ticker.m_number;
        }
        times.Changed();
        std::this_thread::sleep_for(std::chrono::duration<double>(pause(random)));
    }
}

} // namespace

int main(int argc, char** argv) {
    const Arguments arguments(argc, argv);
    RegisterBenchClasses();
    static constexpr dsTarget TARGET = {"Quna/Bench/Durability", nullptr, 0, nullptr, 0};
    _Register_Ticker(RegisterTarget(TARGET));

    const TempDir dir;
    const std::string path =
        (arguments.directory.empty() ? std::string(dir / "store") : arguments.directory + "/qxbench-durability.store");
    Times times;
    TimedSys sys(times);
    std::unique_ptr<WatchedLss> watched;
    PersistStore* const store = OpenPersistStoreForTest(
        [&](bool& createdNew) {
            watched = std::make_unique<WatchedLss>(
                OpenLssForTest(sys, path.c_str(), nullptr, createdNew, OM_CREATE_ALWAYS, LssSettings()));
            watched->m_onClosed = [&] { times.ClosedUpTo(g_inRecord.load(std::memory_order_relaxed)); };
            return watched.get();
        },
        PersistStoreSettings());
    PSpace* const space = OpenPSpace(store, "bench", OM_CREATE_NEW, nullptr);
    SetThreadPSpace(space);
    SetThreadCSpace(GetCSpace(space));
    std::vector<BenchNode*> nodes;
    auto* ticker = new Ticker;
    {
        const PSpaceTxn txn(Exclusive);
        auto* root = new BenchRoot;
        RegisterGcObject(ptr<IObject>(root));
        nodes = NewNodes(std::max<ssize_t>(1, arguments.objects * 100));
        for (BenchNode* node : nodes) {
            root->m_nodes.emplace_back();
            root->m_nodes.back() = node;
        }
        RegisterGcObject(ptr<IObject>(ticker));
        AddPSpaceRoot("root", ptr<IPersistable>(root));
        AddPSpaceRoot("ticker", ptr<IPersistable>(ticker));
    }
    Change(nodes, *ticker, arguments, times);
    // The last changes wait for the background like all others.
    const auto patience = Clock::now() + std::chrono::seconds(30);
    while (times.NumDurable() < ticker->m_number && Clock::now() < patience)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const bool complete = times.NumDurable() == ticker->m_number;
    if (!complete) std::puts("changes are not durable after 30 s");
    const bool ok = times.Print() && complete;
    Close(space);
    SetThreadPSpace(nullptr);
    SetThreadCSpace(nullptr);
    Close(store);
    if (!arguments.directory.empty()) std::remove(path.c_str());
    return ok ? 0 : 1;
}

// A child works on a real file with four threads and says through a pipe which transactions are closed and which are
// durable; it is killed at a random moment. Whatever it said was closed must be there, whole and in order. The file is used
// for 20 kills, so that recovery is killed as well.
#include "qxLss/ILogStructuredStore.h"
#include "qxLss/src/LssStore.h"
#include "qxUtils/AutoCloser.h"
#include "tests/support/KillLoop.h"
#include "tests/support/NumberedTransactions.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimJobs.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <random>
#include <string>
#include <thread>
#include <vector>

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

struct Totals : KillTotals {
    int64 lost = 0;

    void Add(const Totals& other) {
        KillTotals::Add(other);
        lost += other.lost;
    }
};

class Murderer final : public KillLoop<Message> {
public:
    Murderer(uint64 seed, Totals& totals) : KillLoop(seed, totals), m_totals(totals) {}

private:
    [[noreturn]] void Work(uint64 seed, int pipe) override {
        try {
            bool createdNew = false;
            ILogStructuredStore* store =
                CreateOrOpenLSS(Path().c_str(), nullptr, createdNew, OM_OPEN_ALWAYS, Settings(seed));
            if (createdNew) NumberedPlan().Prepare(*store);
            std::vector<std::thread> threads;
            for (int t = 0; t < NUM_THREADS; ++t)
                threads.emplace_back([&, t] {
                    std::mt19937_64 random(seed * NUM_THREADS + static_cast<uint64>(t));
                    for (;;) {
                        const bool flush = random() % 16 == 0;
                        const uint64 number = NumberedPlan().RunNext(*store, flush);
                        Tell(pipe, Message{number, flush ? 1u : 0u});
                    }
                });
            for (std::thread& thread : threads) thread.join();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "child: %s\n", e.what());
        }
        std::_Exit(4);
    }

    void Take(const Message& message) override { m_closed = std::max(m_closed, message.number); }

    // Opened read-only, so that the next child meets the file as the killed one left it.
    bool Check() override {
        if (m_closed == 0 && ::access(Path().c_str(), F_OK) != 0) return true;
        std::string fault;
        try {
            bool createdNew = false;
            AutoCloser<ILogStructuredStore> store(
                CreateOrOpenLSS(Path().c_str(), nullptr, createdNew, OM_OPEN_EXISTING_READ_ONLY, Settings(1)));
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
                static_cast<LssStore&>(*store.Get()).Validate(); // what the cleaner goes by
                m_closed = number;
            }
        } catch (const std::exception& e) {
            if (m_closed == 0 && std::strstr(e.what(), "cut short")) return true;
            fault = e.what();
        }
        if (fault.empty()) return true;
        Report(fault);
        return false;
    }

    Totals& m_totals;
    uint64 m_closed = 0; // the largest number that a child acknowledged
    NumberedModel m_model{NumberedPlan()};
};

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    const int stores = std::max(1, static_cast<int>(arguments.scale));
    const Totals totals = RunJobs<Totals>(arguments.jobs, [&](int job, int jobs) {
        Totals found;
        for (int i = job; i < stores; i += jobs) Murderer(arguments.seed + static_cast<uint64>(i), found).Run(20);
        return found;
    });
    const bool ok = totals.lost + totals.faults == 0 && totals.messages > 0;
    std::printf("reliability kill-random: kills=%lld closed=%lld lost=%lld wrong=%lld verdict=%s\n",
                static_cast<long long>(totals.kills), static_cast<long long>(totals.messages),
                static_cast<long long>(totals.lost), static_cast<long long>(totals.faults), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

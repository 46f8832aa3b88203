// What the cleaner costs under random overwrites of a store that stays as large as it is.
//
//   CleanerBench [amplification|curve|small|stalls] [--live MIB] [--operations MILLIONS] [--warmup TURNOVERS]
//                [--utilisation PERCENT] [--workload uniform|90/10|zipf] [--csv FILE]
//
// amplification  bytes of data packets written, by users and the cleaner, over those written by users; all bytes handed to
//                the system over those of the elements; the file's size when writing has stopped. Elements of 100 to 1,000
//                bytes
// curve          the first of these for each workload at 75, 80, 85, 90 and 95 % (bench/plot-cleaner draws the CSV file)
// small          amplification with 10 million elements of 300 bytes
// stalls         how long transactions and readers take with writers as fast as they are let, with the cleaner and without
//
// All but the curve, which takes several minutes, if nothing is named. For amplification writers keep pace with the
// cleaner, so that the store is as full as the setting says; it is counted after the warm-up.
#include "bench/qxLss/LssBenchStore.h"
#include "bench/support/Contest.h"
#include "bench/support/Overwrites.h"
#include "qxLss/src/LssStore.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

namespace quna {

namespace {

constexpr int BATCH = 100; // elements a transaction
constexpr double MEBI = 1048576.0;
constexpr ConstStringZ WORKLOADS[] = {"uniform", "90/10", "zipf"};

using Clock = std::chrono::steady_clock;

struct Arguments {
    double liveMiB = 512;
    double operations = 10e6;
    double warmup = 3; // turnovers
    double utilisation = 85;
    ssize_t least = 100; // bytes of an element
    ssize_t most = 1000;
    std::string workload;
    std::string csv;
};

// Bytes that this process has handed to the system in writes.
double BytesWritten() {
    std::ifstream io("/proc/self/io");
    std::string name;
    double value = 0;
    while (io >> name >> value)
        if (name == "wchar:") return value;
    return 0;
}

class Latencies {
public:
    void Add(Clock::duration d) { m_microseconds.push_back(std::chrono::duration<float, std::micro>(d).count()); }
    void Print(ConstStringZ what) {
        std::printf("    %-28s p50 %7.0f us   p99 %7.0f us   p99.9 %7.0f us   longest %7.0f us\n", what, At(0.5),
                    At(0.99), At(0.999), At(1));
    }

private:
    double At(double share) {
        if (m_microseconds.empty()) return 0;
        const auto last = static_cast<std::ptrdiff_t>(m_microseconds.size()) - 1;
        const auto place =
            m_microseconds.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(last) + 0.5);
        std::nth_element(m_microseconds.begin(), place, m_microseconds.end());
        return static_cast<double>(*place);
    }

    std::vector<float> m_microseconds;
};

struct Amplification {
    double packets; // data packets written / those of users
    double all;     // all bytes / bytes of elements
    double utilisation;
};

class Run {
public:
    Run(const std::string& workload, const Arguments& arguments)
        : m_arguments(arguments),
          m_sizes(RandomSizes(arguments.liveMiB * MEBI, arguments.least, arguments.most, PACKET_HEADER_BYTES)),
          m_store("qxbench-cleaner", Settings(arguments)), m_lss(static_cast<LssStore&>(*m_store)),
          m_content(arguments.most), m_chooser(workload, m_sizes.size()) {
        m_seids.resize(m_sizes.size());
        for (Seid& seid : m_seids) seid = m_store->AllocateSeid(m_store.High());
        const std::vector<size_t> order = RandomOrder(m_sizes.size());
        for (size_t i = 0; i < order.size();) {
            AutoCloser<ILssTransaction> txn(m_store->OpenTransaction());
            for (int k = 0; k < BATCH && i < order.size(); ++k, ++i) Write(*txn, order[i]);
            txn.Close();
        }
    }

    double Turnover() const { return static_cast<double>(m_sizes.size()); } // operations
    double Utilisation() { return 100 * Live() / Used(); }

    Amplification Measure() {
        Overwrite(m_arguments.warmup * Turnover(), true, nullptr);
        const double user = m_userBytes;
        const double elements = m_elementBytes;
        const double moved = static_cast<double>(Counters().survivorBytes.load());
        const double all = BytesWritten();
        constexpr int LOOKS = 50;
        Amplification result{};
        for (int i = 0; i < LOOKS; ++i) {
            Overwrite(m_arguments.operations / LOOKS, true, nullptr);
            result.utilisation += Utilisation() / LOOKS;
        }
        result.packets = 1 + (static_cast<double>(Counters().survivorBytes.load()) - moved) / (m_userBytes - user);
        result.all = (BytesWritten() - all) / (m_elementBytes - elements);
        return result;
    }

    // When writing has stopped the cleaner ends its work and the file is cut.
    void PrintRest() {
        m_store->Flush();
        double size = 0;
        const Clock::time_point begin = Clock::now();
        Clock::time_point changed = begin;
        while (Clock::now() - changed < std::chrono::seconds(4)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            LssStats stats{};
            m_store->GetStats(stats);
            if (static_cast<double>(stats.fileSize) == size) continue;
            size = static_cast<double>(stats.fileSize);
            changed = Clock::now();
        }
        const double live = static_cast<double>(Counters().liveBytes.load());
        std::printf("    file at rest %.1f MiB after %.1f s; live %.1f MiB, live / %.2f + 64 MiB = %.1f MiB\n", size / MEBI,
                    std::chrono::duration<double>(changed - begin).count(), live / MEBI, m_arguments.utilisation / 100,
                    live / m_arguments.utilisation * 100 / MEBI + 64);
    }

    // Transactions of 100 elements one after another, with a reader beside them.
    void MeasureStalls() {
        Overwrite(m_arguments.warmup * Turnover(), false, nullptr);
        Latencies transactions;
        Latencies reads;
        std::atomic<bool> stop{false};
        std::thread reader([&] {
            std::mt19937_64 random(17);
            while (!stop) {
                const size_t i = random() % m_seids.size();
                const Clock::time_point begin = Clock::now();
                AutoCloser<IContiguousSerialElement> element(m_store->OpenSerialElement(m_seids[i]));
                if (element->GetBuffer().size != m_sizes[i]) std::abort();
                element.Close();
                reads.Add(Clock::now() - begin);
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        });
        constexpr int LOOKS = 50;
        double utilisation = 0;
        const Clock::time_point begin = Clock::now();
        for (int i = 0; i < LOOKS; ++i) {
            Overwrite(m_arguments.operations / LOOKS, false, &transactions);
            utilisation += Utilisation() / LOOKS;
        }
        const double seconds = SecondsSince(begin);
        stop = true;
        reader.join();
        std::printf("  %.0f overwrites a second, utilisation %.1f%%\n", m_arguments.operations / seconds, utilisation);
        transactions.Print("transactions of 100");
        reads.Print("reads beside them");
    }

private:
    static LssSettings Settings(const Arguments& arguments) {
        LssSettings settings;
        settings.cleanerUtilisationPercent = arguments.utilisation;
        return settings;
    }
    StoreCounters& Counters() { return m_lss.CoreForTest().m_counters; }
    double Live() { return static_cast<double>(Counters().liveBytes.load() - Counters().indexBytes.load()); }
    double Used() { return static_cast<double>(Counters().usedBytes.load() - Counters().movingBytes.load()); }
    bool IsBehind() { return Used() > Live() / m_arguments.utilisation * 100 + 8.0 * 524288; }

    void Overwrite(double operations, bool keepPace, Latencies* latencies) {
        for (double done = 0; done < operations; done += BATCH) {
            const Clock::time_point begin = Clock::now();
            AutoCloser<ILssTransaction> txn(m_store->OpenTransaction());
            for (int k = 0; k < BATCH; ++k) Write(*txn, m_chooser());
            txn.Close();
            if (latencies) latencies->Add(Clock::now() - begin);
            while (keepPace && IsBehind()) std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    void Write(ILssTransaction& txn, size_t i) {
        const ssize_t n = m_sizes[i];
        BenchStore::Write(txn, m_seids[i], m_content.Next(), n);
        m_userBytes += static_cast<double>(PaddedSize(PACKET_HEADER_BYTES + n));
        m_elementBytes += static_cast<double>(n);
    }

    const Arguments m_arguments;
    const std::vector<ssize_t> m_sizes;
    BenchStore m_store;
    LssStore& m_lss;
    RandomContent m_content;
    std::vector<Seid> m_seids;
    Chooser m_chooser;
    double m_userBytes = 0;    // of packets
    double m_elementBytes = 0; // asked for
};

void Print(const std::string& workload, const Amplification& a) {
    std::printf("  %-8s write amplification %.2f (data packets), all bytes / element bytes %.2f, utilisation %.1f%%\n",
                workload.c_str(), a.packets, a.all, a.utilisation);
    std::fflush(stdout);
}

void PrintTitle(const Arguments& a) {
    std::printf("%.0f MiB live, elements of %zd to %zd bytes, %.1f million overwrites after %.1f turnovers\n", a.liveMiB,
                a.least, a.most, a.operations / 1e6, a.warmup);
}

bool IsWanted(const Arguments& arguments, const std::string& workload) {
    return arguments.workload.empty() || arguments.workload == workload;
}

void MeasureAmplification(const Arguments& arguments) {
    PrintTitle(arguments);
    for (const std::string workload : WORKLOADS) {
        if (!IsWanted(arguments, workload)) continue;
        Run run(workload, arguments);
        Print(workload, run.Measure());
        run.PrintRest();
    }
}

void MeasureSmall(Arguments arguments) {
    arguments.least = arguments.most = 300;
    arguments.liveMiB = 10e6 * static_cast<double>(PaddedSize(PACKET_HEADER_BYTES + 300)) / MEBI;
    arguments.warmup = std::min(arguments.warmup, 1.5);
    PrintTitle(arguments);
    Run run("uniform", arguments);
    Print("uniform", run.Measure());
    run.PrintRest();
}

void MeasureCurve(Arguments arguments) {
    PrintTitle(arguments);
    std::ofstream csv;
    if (!arguments.csv.empty()) csv.open(arguments.csv);
    csv << "utilisation,workload,amplification,measured_utilisation\n";
    for (const std::string workload : WORKLOADS) {
        if (!IsWanted(arguments, workload)) continue;
        for (const double utilisation : {75.0, 80.0, 85.0, 90.0, 95.0}) {
            arguments.utilisation = utilisation;
            const Amplification a = Run(workload, arguments).Measure();
            Print(workload, a);
            csv << utilisation << ',' << workload << ',' << a.packets << ',' << a.utilisation << std::endl;
        }
    }
}

void MeasureStalls(Arguments arguments) {
    arguments.operations = std::min(arguments.operations, 3e6); // without the cleaner the file grows by all of them
    PrintTitle(arguments);
    std::printf("with the cleaner:\n");
    Run("uniform", arguments).MeasureStalls();
    std::printf("without:\n");
    arguments.utilisation = 0;
    arguments.warmup = 0;
    Run("uniform", arguments).MeasureStalls();
}

int Main(int argc, char** argv) {
    Arguments arguments;
    for (int i = 1; i + 1 < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--live") arguments.liveMiB = std::strtod(argv[i + 1], nullptr);
        if (name == "--operations") arguments.operations = 1e6 * std::strtod(argv[i + 1], nullptr);
        if (name == "--warmup") arguments.warmup = std::strtod(argv[i + 1], nullptr);
        if (name == "--utilisation") arguments.utilisation = std::strtod(argv[i + 1], nullptr);
        if (name == "--workload") arguments.workload = argv[i + 1];
        if (name == "--csv") arguments.csv = argv[i + 1];
    }
    const std::string what = ArgumentOrNothing(argc, argv, 1);
    if (what.empty() || what == "amplification") MeasureAmplification(arguments);
    if (what == "curve") MeasureCurve(arguments);
    if (what.empty() || what == "small") MeasureSmall(arguments);
    if (what.empty() || what == "stalls") MeasureStalls(arguments);
    return 0;
}

} // namespace

} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

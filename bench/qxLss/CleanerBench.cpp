// The cleaner under random overwrites of a store that stays as large as it is: what it writes again (amplification), how
// large the file is at rest, how long transactions and readers have to wait, and the throughput beside LMDB without syncs.
//
//   CleanerBench [--live MIB] [--turnovers N] [--only uniform|90/10|zipf|pace]
//
// Amplification is bytes of data packets written, by users and the cleaner, over those written by users, in the second half
// of the run. Writers keep pace with the cleaner there, so that the store is as full as the setting says; the throughput is
// measured with writers as fast as they are let.
#include "bench/qxLss/LssBenchStore.h"
#include "qxLss/src/LssStore.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

#if QX_HAVE_LMDB
#include <lmdb.h>
#endif

namespace quna {

namespace {

constexpr size_t LEAST_BYTES = 100;
constexpr size_t MOST_BYTES = 1000;
constexpr int BATCH = 100; // elements a transaction
constexpr double MEBI = 1048576.0;

using Clock = std::chrono::steady_clock;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

struct Arguments {
    double liveMiB = 128;
    double turnovers = 6;
    std::string only;
};

// Which element the next operation overwrites.
class Chooser {
public:
    Chooser(const std::string& kind, size_t n) : m_kind(kind), m_n(n), m_order(n) {
        std::iota(m_order.begin(), m_order.end(), size_t{0});
        std::shuffle(m_order.begin(), m_order.end(), std::mt19937_64(5));
    }
    size_t operator()() {
        if (m_kind == "uniform") return m_random() % m_n;
        if (m_kind == "90/10") {
            const size_t hot = m_n / 10;
            return m_order[m_random() % 10 != 0 ? m_random() % hot : m_random() % m_n];
        }
        // Zipf 0.99, by the inverse of its continuous form.
        constexpr double A = 1 - 0.99;
        const double x = static_cast<double>(m_random() >> 11) / 9007199254740992.0;
        const double v = std::pow(x * (std::pow(static_cast<double>(m_n), A) - 1) + 1, 1 / A);
        return m_order[std::min(m_n - 1, static_cast<size_t>(v - 1))];
    }

private:
    const std::string m_kind;
    const size_t m_n;
    std::vector<size_t> m_order;
    std::mt19937_64 m_random{11};
};

// Sizes of all elements: constant over their lives.
std::vector<size_t> Sizes(double liveMiB) {
    std::mt19937_64 random(3);
    std::vector<size_t> sizes;
    for (double bytes = 0; bytes < liveMiB * MEBI;) {
        sizes.push_back(LEAST_BYTES + random() % (MOST_BYTES - LEAST_BYTES + 1));
        bytes += static_cast<double>(PaddedSize(PACKET_HEADER_BYTES + static_cast<ssize_t>(sizes.back())));
    }
    return sizes;
}

// Bytes that this process has handed to the system in writes.
double BytesWritten() {
    std::ifstream io("/proc/self/io");
    std::string name;
    double value = 0;
    while (io >> name >> value)
        if (name == "wchar:") return value;
    return 0;
}

struct Latencies {
    std::vector<float> microseconds;

    void Add(Clock::duration d) { microseconds.push_back(static_cast<float>(Seconds(d) * 1e6)); }
    double At(double share) {
        if (microseconds.empty()) return 0;
        const size_t i =
            std::min(microseconds.size() - 1, static_cast<size_t>(share * static_cast<double>(microseconds.size())));
        std::nth_element(microseconds.begin(), microseconds.begin() + static_cast<std::ptrdiff_t>(i),
                         microseconds.end());
        return static_cast<double>(microseconds[i]);
    }
    void Print(const char* what) {
        std::printf("    %-26s p50 %.0f us, p99 %.0f us, p99.9 %.0f us, longest %.0f us\n", what, At(0.5), At(0.99),
                    At(0.999), At(1));
    }
};

class Run {
public:
    Run(const std::string& name, const Arguments& arguments)
        : m_arguments(arguments), m_sizes(Sizes(arguments.liveMiB)), m_store("qxbench-cleaner", LssSettings()),
          m_lss(static_cast<LssStore&>(*m_store)), m_content(MOST_BYTES, octet_t{7}), m_chooser(name, m_sizes.size()) {
        std::vector<size_t> order(m_sizes.size());
        std::iota(order.begin(), order.end(), size_t{0});
        std::shuffle(order.begin(), order.end(), std::mt19937_64(9));
        m_seids.resize(m_sizes.size());
        for (Seid& seid : m_seids) seid = m_store->AllocateSeid(m_store.High());
        for (size_t i = 0; i < order.size();) {
            AutoCloser<ILssTransaction> txn(m_store->OpenTransaction());
            for (int k = 0; k < BATCH && i < order.size(); ++k, ++i) Write(*txn, order[i]);
            txn.Close();
        }
        m_userBytes = 0;
        m_elementBytes = 0;
    }

    StoreCounters& Counters() { return m_lss.CoreForTest().m_counters; }
    double Live() { return static_cast<double>(Counters().liveBytes.load() - Counters().indexBytes.load()); }
    double Used() { return static_cast<double>(Counters().usedBytes.load()); }
    bool IsBehind() { return Used() > Live() / 0.85 + 16.0 * 524288; }

    void Overwrite(bool keepPace, double bytes, Latencies* latencies) {
        const double end = m_userBytes + bytes;
        while (m_userBytes < end) {
            const Clock::time_point begin = Clock::now();
            AutoCloser<ILssTransaction> txn(m_store->OpenTransaction());
            for (int k = 0; k < BATCH; ++k) Write(*txn, m_chooser());
            txn.Close();
            if (latencies) latencies->Add(Clock::now() - begin);
            while (keepPace && IsBehind()) std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }

    void Amplification(const char* name) {
        const double turnover = m_arguments.liveMiB * MEBI;
        Overwrite(true, turnover * m_arguments.turnovers / 2, nullptr);
        const double user = m_userBytes;
        const double elements = m_elementBytes;
        const double moved = static_cast<double>(Counters().survivorBytes.load());
        const double all = BytesWritten();
        double utilisation = 0;
        constexpr int LOOKS = 20;
        for (int i = 0; i < LOOKS; ++i) {
            Overwrite(true, turnover * m_arguments.turnovers / 2 / LOOKS, nullptr);
            utilisation += Live() / Used() / LOOKS;
        }
        const double written = m_userBytes - user;
        std::printf(
            "%-8s write amplification %.2f (data packets), all bytes / element bytes %.2f, utilisation %.1f%%\n", name,
            1 + (static_cast<double>(Counters().survivorBytes.load()) - moved) / written,
            (BytesWritten() - all) / (m_elementBytes - elements), 100 * utilisation);
    }

    void AtRest() {
        m_store->Flush();
        double last = -1;
        for (int i = 0; i < 60; ++i) { // until it has not changed for 3 s
            std::this_thread::sleep_for(std::chrono::seconds(3));
            const double size = FileBytes();
            if (size == last) break;
            last = size;
        }
        struct stat s {};
        ::stat(m_store.Path().c_str(), &s);
        std::printf(
            "    file at rest %.1f MiB (blocks %.1f MiB), live %.1f MiB, limit live / 0.85 + 64 MiB = %.1f MiB\n",
            FileBytes() / MEBI, static_cast<double>(s.st_blocks) * 512 / MEBI, Live() / MEBI,
            Live() / 0.85 / MEBI + 64);
    }

    // As fast as it goes, or waiting for the cleaner, with a reader beside it. Overwrites a second.
    double Pace(bool keepPace) {
        Latencies transactions;
        Latencies reads;
        std::atomic<bool> stop{false};
        std::thread reader([&] {
            std::mt19937_64 random(17);
            while (!stop) {
                const size_t i = random() % m_seids.size();
                const Clock::time_point begin = Clock::now();
                AutoCloser<IContiguousSerialElement> element(m_store->OpenSerialElement(m_seids[i]));
                if (element->GetBuffer().size != static_cast<ssize_t>(m_sizes[i])) std::abort();
                element.Close();
                reads.Add(Clock::now() - begin);
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        });
        const double turnover = m_arguments.liveMiB * MEBI;
        Overwrite(keepPace, turnover * m_arguments.turnovers / 2, nullptr);
        const double user = m_userBytes;
        const ssize_t operations = m_operations;
        const Clock::time_point begin = Clock::now();
        Overwrite(keepPace, turnover * m_arguments.turnovers / 2, &transactions);
        const double seconds = Seconds(Clock::now() - begin);
        stop = true;
        reader.join();
        std::printf(
            "%s %.0f overwrites a second, %.0f MiB/s of packets; utilisation at the end %.1f%%\n",
            keepPace ? "held at 85%:" : "as fast as let:", static_cast<double>(m_operations - operations) / seconds,
            (m_userBytes - user) / MEBI / seconds, 100 * Live() / Used());
        transactions.Print("transactions of 100");
        reads.Print("reads meanwhile");
        return static_cast<double>(m_operations - operations) / seconds;
    }

private:
    double FileBytes() {
        LssStats stats{};
        m_store->GetStats(stats);
        return static_cast<double>(stats.fileSize);
    }
    void Write(ILssTransaction& txn, size_t i) {
        const ssize_t n = static_cast<ssize_t>(m_sizes[i]);
        BenchStore::Write(txn, m_seids[i], m_content.data(), n);
        m_userBytes += static_cast<double>(PaddedSize(PACKET_HEADER_BYTES + n));
        m_elementBytes += static_cast<double>(n);
        ++m_operations;
    }

    const Arguments m_arguments;
    const std::vector<size_t> m_sizes;
    BenchStore m_store;
    LssStore& m_lss;
    const std::vector<octet_t> m_content;
    std::vector<Seid> m_seids;
    Chooser m_chooser;
    double m_userBytes = 0;    // of packets
    double m_elementBytes = 0; // asked for
    ssize_t m_operations = 0;
};

#if QX_HAVE_LMDB

// The same overwrites in LMDB without syncs. Overwrites a second.
double LmdbPace(const Arguments& arguments) {
    const std::vector<size_t> sizes = Sizes(arguments.liveMiB);
    const std::string path =
        (std::filesystem::temp_directory_path() / ("qxbench-lmdb-" + std::to_string(::getpid()))).string();
    std::filesystem::remove(path);
    MDB_env* env = nullptr;
    mdb_env_create(&env);
    mdb_env_set_mapsize(env, size_t{16} << 30);
    mdb_env_open(env, path.c_str(), MDB_NOSUBDIR | MDB_NOSYNC, 0600);
    MDB_dbi dbi = 0;
    const std::vector<octet_t> content(MOST_BYTES, octet_t{7});
    Chooser chooser("uniform", sizes.size());
    const auto put = [&](MDB_txn* txn, uint64 key, unsigned flags) {
        MDB_val k{sizeof key, &key};
        MDB_val v{sizes[key], const_cast<octet_t*>(content.data())};
        if (mdb_put(txn, dbi, &k, &v, flags) != 0) std::abort();
    };
    MDB_txn* txn = nullptr;
    mdb_txn_begin(env, nullptr, 0, &txn);
    mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY | MDB_CREATE, &dbi);
    for (size_t i = 0; i < sizes.size(); ++i) put(txn, i, MDB_APPEND);
    mdb_txn_commit(txn);
    const ssize_t operations = std::max<ssize_t>(20000, static_cast<ssize_t>(sizes.size()) / 4);
    const Clock::time_point begin = Clock::now();
    for (ssize_t done = 0; done < operations; done += BATCH) {
        mdb_txn_begin(env, nullptr, 0, &txn);
        for (int k = 0; k < BATCH; ++k) put(txn, chooser(), 0);
        mdb_txn_commit(txn);
    }
    const double rate = static_cast<double>(operations) / Seconds(Clock::now() - begin);
    mdb_env_close(env);
    std::filesystem::remove(path);
    std::filesystem::remove(path + "-lock");
    return rate;
}

#endif

int Main(int argc, char** argv) {
    Arguments arguments;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--live") arguments.liveMiB = std::strtod(argv[i + 1], nullptr);
        if (name == "--turnovers") arguments.turnovers = std::strtod(argv[i + 1], nullptr);
        if (name == "--only") arguments.only = argv[i + 1];
    }
    std::printf("%.0f MiB live, elements of %zu to %zu bytes, %.1f turnovers, cleaned to 85%%\n", arguments.liveMiB,
                LEAST_BYTES, MOST_BYTES, arguments.turnovers);
    const auto wanted = [&](const char* name) { return arguments.only.empty() || arguments.only == name; };
    for (const char* name : {"uniform", "90/10", "zipf"}) {
        if (!wanted(name)) continue;
        Run run(name, arguments);
        run.Amplification(name);
        run.AtRest();
    }
    if (!wanted("pace")) return 0;
    const double fast = Run("uniform", arguments).Pace(false);
    const double held = Run("uniform", arguments).Pace(true);
#if QX_HAVE_LMDB
    const double lmdb = LmdbPace(arguments);
    std::printf(
        "LMDB without syncs %.0f overwrites a second; as fast as let %.1f times, held at 85%% %.1f times as many\n",
        lmdb, fast / lmdb, held / lmdb);
#else
    static_cast<void>(fast);
    static_cast<void>(held);
#endif
    return 0;
}

} // namespace

} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

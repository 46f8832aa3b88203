// Copies of a store: the time of a backup beside that of copying the file with `cp` and a sync, what it costs a writer that
// goes on meanwhile, and the time of a compacting copy.
//
//   BackupBench [--mib N]    of live data; 512 unless said otherwise
#include "bench/qxLss/LssBenchStore.h"
#include "bench/support/Contest.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace quna {

namespace {

constexpr int NUM_ROUNDS = 5;
constexpr ssize_t ELEMENT_BYTES = 300;
constexpr double MEBI = 1048576.0;
constexpr int BATCH = 100; // elements a transaction

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void Check(bool succeeded, const char* what) {
    if (succeeded) return;
    std::perror(what);
    std::exit(1);
}

// As cp and a sync, without starting a process.
double SecondsToCopyFile(const std::string& from, const std::string& to) {
    const auto begin = std::chrono::steady_clock::now();
    const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    Check(in >= 0 && out >= 0, "open");
    ssize_t n = 0;
    do {
        n = ::copy_file_range(in, nullptr, out, nullptr, size_t{1} << 30, 0);
        Check(n >= 0, "copy_file_range");
    } while (n > 0);
    Check(::fdatasync(out) == 0, "fdatasync");
    ::close(in);
    ::close(out);
    const double seconds = SecondsSince(begin);
    std::filesystem::remove(to);
    return seconds;
}

class Writer {
public:
    Writer(BenchStore& store, const std::vector<Seid>& seids) : m_store(store), m_seids(seids) {}

    // Overwrites at random until told to stop; elements a second.
    double RunUntil(const std::atomic<bool>& stop) {
        const std::vector<octet_t> content(ELEMENT_BYTES, octet_t{9});
        const auto begin = std::chrono::steady_clock::now();
        int64 n = 0;
        while (!stop) {
            const auto txnBegin = std::chrono::steady_clock::now();
            AutoCloser<ILssTransaction> txn(m_store->OpenTransaction());
            for (int i = 0; i < BATCH; ++i, ++n)
                BenchStore::Write(*txn, m_seids[m_random() % m_seids.size()], content.data(), ELEMENT_BYTES);
            txn.Close();
            m_longest = std::max(m_longest, SecondsSince(txnBegin));
        }
        return static_cast<double>(n) / SecondsSince(begin);
    }
    double TakeLongest() { return std::exchange(m_longest, 0.0); }

private:
    BenchStore& m_store;
    const std::vector<Seid>& m_seids;
    std::mt19937_64 m_random{1};
    double m_longest = 0; // seconds, of a transaction
};

double SecondsOf(const BackupResult& result, std::chrono::steady_clock::time_point begin) {
    Check(result.completed, "copy");
    return SecondsSince(begin);
}

void Run(ssize_t mib) {
    BenchStore store("backup-bench");
    const std::vector<Seid> seids = store.Fill(mib * 1048576 / (ELEMENT_BYTES + 16), ELEMENT_BYTES);
    store->Flush();
    const std::string copy = store.Path() + "-copy";
    BackupOptions options;
    options.replaceExisting = true;
    Writer writer(store, seids);
    std::vector<double> cp, backup, unverified, compact, alone, beside, stallAlone, stallBeside;
    int64 bytes = 0;
    int64 compactBytes = 0;
    for (int round = 0; round < NUM_ROUNDS; ++round) {
        cp.push_back(SecondsToCopyFile(store.Path(), copy));
        auto begin = std::chrono::steady_clock::now();
        const BackupResult result = store->Backup(copy.c_str(), options);
        backup.push_back(SecondsOf(result, begin));
        bytes = result.bytesCopied;
        std::filesystem::remove(copy);
        options.verify = false;
        begin = std::chrono::steady_clock::now();
        unverified.push_back(SecondsOf(store->Backup(copy.c_str(), options), begin));
        options.verify = true;
        std::filesystem::remove(copy);
        begin = std::chrono::steady_clock::now();
        const BackupResult compacted = store->CopyCompacted(copy.c_str(), options);
        compact.push_back(SecondsOf(compacted, begin));
        compactBytes = compacted.fileSize;
        std::filesystem::remove(copy);

        for (const bool copying : {false, true}) {
            std::atomic<bool> stop{false};
            std::thread helper([&] {
                if (copying)
                    store->Backup(copy.c_str(), options);
                else
                    std::this_thread::sleep_for(std::chrono::duration<double>(backup.back()));
                stop = true;
            });
            (copying ? beside : alone).push_back(writer.RunUntil(stop));
            helper.join();
            (copying ? stallBeside : stallAlone).push_back(writer.TakeLongest() * 1e3);
            std::filesystem::remove(copy);
        }
    }
    const double size = static_cast<double>(bytes) / MEBI;
    std::printf("%zd MiB live, %.0f MiB copied; medians of %d\n", mib, size, NUM_ROUNDS);
    std::printf("cp and sync          %8.0f MiB/s\n", size / Median(cp));
    std::printf("backup               %8.0f MiB/s  %.2f of cp\n", size / Median(backup), Median(cp) / Median(backup));
    std::printf("backup, unverified   %8.0f MiB/s  %.2f of cp\n", size / Median(unverified),
                Median(cp) / Median(unverified));
    std::printf("compacting copy      %8.0f MiB/s  %.2f of cp, %.0f MiB long\n",
                static_cast<double>(compactBytes) / MEBI / Median(compact), Median(cp) / Median(compact),
                static_cast<double>(compactBytes) / MEBI);
    std::printf("writer alone         %8.2f M elements/s, longest transaction %.1f ms\n", Median(alone) / 1e6,
                Median(stallAlone));
    std::printf("writer beside backup %8.2f M elements/s, longest transaction %.1f ms, %.2f of alone\n",
                Median(beside) / 1e6, Median(stallBeside), Median(beside) / Median(alone));
}

} // namespace

} // namespace quna

int main(int argc, char** argv) {
    ssize_t mib = 512;
    for (int i = 1; i + 1 < argc; ++i) {
        if (!std::strcmp(argv[i], "--mib")) mib = std::atol(argv[i + 1]);
    }
    quna::Run(mib);
    return 0;
}

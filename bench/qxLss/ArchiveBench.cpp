// What an archive costs a writer: the same transactions with and without one, side by side.
//
//   ArchiveBench [MIB]
//
// The deltas lie on the same disk as the store. Each round writes so many MiB of elements, in transactions of 100 elements of
// 100 to 1000 bytes, and closes the store; "writing" is the time of the transactions, "with the close" includes what then was
// still to be archived, "restoring" repeats all of it on a copy of the empty store.
#include "bench/qxLss/LssBenchStore.h"
#include "bench/support/Contest.h"
#include "qxLss/Restore.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

namespace quna {

namespace {

constexpr ssize_t NUM_ELEMENTS = 100000;
constexpr int BATCH = 100;

class Round {
public:
    Round(bool withArchive, int64 bytes) : m_withArchive(withArchive), m_bytes(bytes) {}

    void operator()(Contest::Report& report) const {
        const std::filesystem::path directory =
            std::filesystem::temp_directory_path() / ("qxbench-archive-" + std::to_string(::getpid()));
        std::filesystem::create_directory(directory);
        const std::string path = (directory / "store").string();
        const std::string deltas = (directory / "deltas").string();
        std::vector<Seid> seids = LayDown(path, deltas);
        std::filesystem::copy_file(path, directory / "base");
        bool createdNew = false;
        ILogStructuredStore* const lss = CreateOrOpenLSS(path.c_str(), m_withArchive ? deltas.c_str() : nullptr,
                                                         createdNew, OM_OPEN_EXISTING, BenchStore::Settings());
        const auto begin = std::chrono::steady_clock::now();
        Write(*lss, seids);
        const double writing = SecondsSince(begin);
        lss->Close();
        const double all = SecondsSince(begin);
        const double mebi = static_cast<double>(m_bytes) / 1048576.0;
        report.Value("writing", mebi / writing, "MiB/s");
        report.Value("with the close", mebi / all, "MiB/s");
        if (m_withArchive) {
            report.Value("bytes archived / element bytes", BytesIn(deltas) / static_cast<double>(m_bytes), "");
            const auto beginRestore = std::chrono::steady_clock::now();
            RestoreLss((directory / "base").c_str(), deltas.c_str(), RestoreTarget::End(), (directory / "new").c_str());
            report.Value("restoring", mebi / SecondsSince(beginRestore), "MiB/s");
        }
        std::filesystem::remove_all(directory);
    }

private:
    // An empty store, and the identifiers of what will be written to it.
    std::vector<Seid> LayDown(const std::string& path, const std::string& deltas) const {
        bool createdNew = false;
        ILogStructuredStore* const lss = CreateOrOpenLSS(path.c_str(), m_withArchive ? deltas.c_str() : nullptr,
                                                         createdNew, OM_CREATE_ALWAYS, BenchStore::Settings());
        const SeidHigh high = lss->AllocateSeidHigh();
        std::vector<Seid> seids;
        for (ssize_t i = 0; i < NUM_ELEMENTS; ++i) seids.push_back(lss->AllocateSeid(high));
        lss->Close();
        return seids;
    }

    static double BytesIn(const std::string& directory) {
        double bytes = 0;
        for (const auto& entry : std::filesystem::directory_iterator(directory))
            bytes += static_cast<double>(entry.file_size());
        return bytes;
    }

    void Write(ILogStructuredStore& lss, const std::vector<Seid>& seids) const {
        std::mt19937_64 random(1);
        const std::vector<octet_t> content(1000, octet_t{7});
        for (int64 written = 0; written < m_bytes;) {
            AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
            for (int i = 0; i < BATCH; ++i) {
                const ssize_t n = 100 + static_cast<ssize_t>(random() % 901);
                BenchStore::Write(*txn, seids[random() % seids.size()], content.data(), n);
                written += n;
            }
            txn.Close();
        }
    }

    const bool m_withArchive;
    const int64 m_bytes;
};

} // namespace

} // namespace quna

int main(int argc, char** argv) {
    const quna::int64 bytes = quna::int64{argc > 1 ? std::atoi(argv[1]) : 512} << 20;
    quna::Contest contest;
    contest.Add("without", quna::Round(false, bytes));
    contest.Add("with an archive", quna::Round(true, bytes));
    contest.Run("transactions of 100 elements of 100-1000 bytes", 7);
    return 0;
}

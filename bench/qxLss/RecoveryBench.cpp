// How fast a store is opened whose owner was killed: the log behind the last checkpoint is read, verified and applied.
// Beside it the limit: the same bytes read in pieces of a segment and their checksum computed.
//
//   RecoveryBench [--elements N] [--bytes N] [--log MIB] [--dir PATH]...
//
// Without --dir it runs in /dev/shm, where nothing has to be read from a disk (warm), and in TMPDIR (the page cache is
// dropped by recovery itself: cold).
#include "bench/support/Contest.h"
#include "qxLss/src/Crc32c.h"
#include "qxLss/src/LssStore.h"
#include "qxUtils/AutoCloser.h"

#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace quna {
namespace {

struct Arguments {
    ssize_t elements = 3000000;
    ssize_t bytes = 300;
    int64 logMiB = 1000; // a checkpoint is taken at 1 GiB at the latest
    std::vector<std::string> directories;
};

LssSettings Settings() {
    LssSettings settings;
    settings.cleanerUtilisationPercent = 0;
    settings.flushTimeMilliSec = 100;
    settings.numSegmentsPerCheckPoint = 1 << 20;
    return settings;
}

LssStore* OpenStore(const std::string& path, EOpenMode mode) {
    bool createdNew = false;
    return static_cast<LssStore*>(CreateOrOpenLSS(path.c_str(), nullptr, createdNew, mode, Settings()));
}

// A store that was killed with a log of `logMiB` behind its checkpoint: random elements written again.
void MakeKilledStore(const std::string& path, const Arguments& arguments) {
    std::filesystem::remove(path);
    LssStore* store = OpenStore(path, OM_CREATE_ALWAYS);
    const SeidHigh high = store->AllocateSeidHigh();
    std::vector<Seid> seids;
    std::vector<octet_t> content(static_cast<size_t>(arguments.bytes), octet_t{7});
    const auto write = [&](ILssTransaction& txn, Seid seid) {
        ICloseableOutputStream* const os = txn.WriteSerialElement(seid);
        os->WriteStream(content.data(), std::ssize(content));
        os->Close();
    };
    for (ssize_t i = 0; i < arguments.elements;) {
        AutoCloser<ILssTransaction> txn(store->OpenTransaction());
        for (int k = 0; k < 1000 && i < arguments.elements; ++k, ++i) {
            seids.push_back(store->AllocateSeid(high));
            write(*txn, seids.back());
        }
        txn.Close();
    }
    store->Close();
    store = OpenStore(path, OM_OPEN_EXISTING);
    std::mt19937_64 random(1);
    for (int64 written = 0; written < arguments.logMiB << 20;) {
        AutoCloser<ILssTransaction> txn(store->OpenTransaction());
        for (int k = 0; k < 1000; ++k) {
            write(*txn, seids[random() % seids.size()]);
            written += arguments.bytes + 16;
        }
        txn.Close();
    }
    store->Flush();
    store->Abandon();
}

double ReadAndSum(const std::string& path, int64 bytes) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const int64 size = static_cast<int64>(std::filesystem::file_size(path));
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    std::vector<octet_t> buffer(524288);
    uint32 sum = 0;
    const auto begin = std::chrono::steady_clock::now();
    for (int64 at = size - bytes; at < size; at += std::ssize(buffer)) {
        const ssize_t n = ::pread(fd, buffer.data(), buffer.size(), at);
        if (n <= 0) break;
        sum += Crc32c(buffer.data(), n);
    }
    const double seconds = SecondsSince(begin);
    ::close(fd);
    if (sum == 1) std::puts("");
    return seconds;
}

void Measure(const std::string& directory, const Arguments& arguments) {
    const std::string path = directory + "/qxbench-recovery-" + std::to_string(::getpid());
    const std::string copy = path + ".copy";
    MakeKilledStore(path, arguments);
    const double gigabytes = static_cast<double>(arguments.logMiB << 20) / 1e9;
    Contest contest;
    contest.Add("read and checksum", [&](Contest::Report& report) {
        report.Value("log", gigabytes / ReadAndSum(path, arguments.logMiB << 20), "GB/s");
    });
    contest.Add("recovery", [&](Contest::Report& report) {
        std::filesystem::copy_file(path, copy, std::filesystem::copy_options::overwrite_existing);
        const int fd = ::open(copy.c_str(), O_RDWR | O_CLOEXEC);
        ::fsync(fd);
        ::close(fd);
        const auto begin = std::chrono::steady_clock::now();
        LssStore* const store = OpenStore(copy, OM_OPEN_EXISTING);
        report.Value("log", gigabytes / SecondsSince(begin), "GB/s");
        store->Abandon();
    });
    contest.Run(("log of " + std::to_string(arguments.logMiB) + " MiB behind the checkpoint, " +
                 std::to_string(arguments.elements) + " elements of " + std::to_string(arguments.bytes) +
                 " bytes, in " + directory)
                    .c_str());
    std::filesystem::remove(path);
    std::filesystem::remove(copy);
}

int Main(int argc, char** argv) {
    Arguments arguments;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--elements")
            arguments.elements = std::atoll(argv[i + 1]);
        else if (name == "--bytes")
            arguments.bytes = std::atoll(argv[i + 1]);
        else if (name == "--log")
            arguments.logMiB = std::atoll(argv[i + 1]);
        else if (name == "--dir")
            arguments.directories.emplace_back(argv[i + 1]);
    }
    if (arguments.directories.empty()) {
        if (std::filesystem::exists("/dev/shm")) arguments.directories.emplace_back("/dev/shm");
        arguments.directories.push_back(std::filesystem::temp_directory_path().string());
    }
    for (const std::string& directory : arguments.directories) Measure(directory, arguments);
    return 0;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

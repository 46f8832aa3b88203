// An imitation of the disk behind the table of system calls, which can record, disturb and fail them.
#pragma once

#include "qxLss/src/SysCalls.h"
#include "tests/support/SimDisk.h"
#include "tests/support/SimMemory.h"

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace quna {

// The calls that can be made to fail.
enum class ESimCall {
    OPEN,
    READ,
    WRITE,
    WRITE_DURABLE,
    SYNC,
    SYNC_DIR,
    WRITE_BACK,
    ALLOCATE,
    TRUNCATE,
    PUNCH,
    SIZE,
    RENAME,
    REMOVE,
    MAKE_DIR,
    LIST_DIR,
    LOCK,
    NAMES_FILE,
    DROP_CACHE,
    MAP,
    LOAD,
    COUNT
};

// Files in memory. Each one's cached content can be mapped; what would be on the disk is kept as the list of all changing
// calls, from which SimDisk makes images.
//
// Ownership: every File and FileMap that uses it ends first.
// Threads:   all calls from any thread; one mutex.
class SimSys final : public SysCalls {
public:
    SimSys() = default;
    // The files that a crash left.
    explicit SimSys(const DiskImage& image, ESimMemory kind = ESimMemory::SHARED);
    // For sweeps.
    SimSys(ESimMemory kind, SimImage image);

    // --- disturbing

    // The n-th call of the kind from now on (1 = the next), or with `forever` each from that one on, fails with `error`.
    // A failed sync loses what was pending, while reads still show it from the cache.
    void FailCall(ESimCall kind, int64 n, int error, bool forever);
    // Calls end with EINTR, reads and writes with short counts, once in `oneIn` calls.
    void Disturb(uint64 seed, int oneIn);
    // From now on every call that changes a file or a name in `directory` fails with `error`; 0: none does.
    void FailIn(const std::string& directory, int error);
    // No call fails or is disturbed any more.
    void Heal();

    // --- looking

    int64 NumCalls(ESimCall kind) const;
    int64 NumFailures() const;
    // How many changing calls have been recorded.
    ssize_t NumRecorded() const;
    // A copy of the record; with what was there at the beginning it says all.
    std::vector<SimCall> Record() const;
    // The record itself, when no more calls come.
    std::vector<SimCall> TakeRecord();
    const SimImage& InitialImage() const { return m_initial; }
    // All files as a killed process leaves them.
    DiskImage CachedImage() const;
    // Does not record any more: for long runs whose images nobody wants.
    void StopRecording();
    // How many descriptors are open.
    ssize_t NumOpen() const;
    // All calls so far.
    int64 NumAllCalls() const;
    // From now on the places of a file that Read and Load bring in are kept, up to TakeReads.
    void TrackReads();
    // Offset and length, in the order of the calls.
    std::vector<std::pair<int64, int64>> TakeReads();

    // --- changing a file behind the store's back; not recorded

    // A file's bytes from `at` on; the file is not made longer.
    void Poke(const std::string& name, int64 at, const octet_t* bytes, size_t n);
    void PokeSize(const std::string& name, int64 size);
    FileBytes Peek(const std::string& name, int64 at, size_t n) const;
    int64 SizeOf(const std::string& name) const;
    // Forgets what was recorded: the files as they are now are where a new record begins. Images are no longer known.
    std::vector<SimCall> RestartRecord();

    // --- SysCalls

    int Open(const char* path, int flags, int mode) override;
    ssize_t Read(int fd, void* p, size_t n, off_t at) override;
    ssize_t Write(int fd, const void* p, size_t n, off_t at) override;
    ssize_t WriteDurable(int fd, const void* p, size_t n, off_t at) override;
    int SyncData(int fd) override;
    int SyncDir(const char* path) override;
    int WriteBack(int fd, off_t at, off_t n) override;
    int Allocate(int fd, off_t at, off_t n) override;
    int Truncate(int fd, off_t n) override;
    int PunchHole(int fd, off_t at, off_t n) override;
    int64 Size(int fd) override;
    int Rename(const char* from, const char* to) override;
    int RenameNoReplace(const char* from, const char* to) override;
    int Remove(const char* path) override;
    int MakeDirectory(const char* path) override;
    int ListDirectory(const char* path, std::vector<std::string>& names) override;
    int Lock(int fd, bool exclusive) override;
    int NamesFile(const char* path, int fd) override;
    int DropCache(int fd, off_t at, off_t n) override;
    int Map(int fd, size_t n, const octet_t*& base) override;
    int Unmap(const octet_t* base, size_t n) override;
    int Load(int fd, const octet_t* base, off_t at, size_t n) override;
    int Close(int fd) override;
    int64 MonotonicNanos() override;
    uint64 WallClock100ns() override;
    int RandomBytes(void* p, size_t n) override;

private:
    struct Inode {
        std::unique_ptr<SimMemory> memory;
        bool lostWrites = false; // a sync has failed: the cache shows more than the disk has
    };
    struct Descriptor {
        int file;
        bool writable;
        std::string path;
        int lock = 0; // 0 none, 1 shared, 2 exclusive
    };
    struct Fault {
        int64 at = 0; // number of the call that fails; 0: none
        int error = 0;
        bool forever = false;
    };

    // All with m_mutex held.
    int Begin(ESimCall kind);
    int BeginChange(ESimCall kind, const std::string& path);
    int BeginChange(ESimCall kind, int fd);
    bool HasDirectory(const std::string& path) const;
    void ReleaseIfUnused(int file);
    size_t Shortened(size_t n);
    Inode& FileOf(int fd);
    Descriptor* Find(int fd);
    int NewFile(const SimBlocks& content);
    uint64 IdentitySeed() const;
    Inode& FileNamed(const std::string& name);
    const Inode& FileNamed(const std::string& name) const;
    ssize_t WriteTo(int fd, const void* p, size_t n, off_t at, SimCall::EKind kind, ESimCall call);
    int RenameTo(const char* from, const char* to, bool replace);
    void Note(SimCall call);
    SimDisk Disk() const;

    mutable std::mutex m_mutex; // guards all below
    SimImage m_initial;
    const ESimMemory m_kind = ESimMemory::SHARED;
    std::vector<Inode> m_files;
    std::map<std::string, int> m_names;
    std::set<std::string> m_directories; // made by MakeDirectory; those that files lie in exist as well
    std::map<int, Descriptor> m_open;
    std::map<const octet_t*, int> m_mapped; // address -> file
    int m_nextDescriptor = 1000;
    std::vector<SimCall> m_record;
    bool m_recording = true;
    bool m_trackingReads = false;
    std::vector<std::pair<int64, int64>> m_reads;

    std::array<int64, static_cast<size_t>(ESimCall::COUNT)> m_calls{};
    std::array<Fault, static_cast<size_t>(ESimCall::COUNT)> m_faults{};
    int64 m_failures = 0;
    std::string m_failingDirectory;
    int m_directoryError = 0; // 0: no directory fails
    int m_oneIn = 0;          // 0: nothing is disturbed
    std::mt19937_64 m_random{1};
    std::optional<std::mt19937_64> m_identity; // of RandomBytes
    uint64 m_wallClock = 0;
};

} // namespace quna

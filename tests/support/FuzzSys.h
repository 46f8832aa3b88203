// The fastest imitation of a disk with one file: for fuzz targets, which open a store thousands of times a second.
#pragma once

#include "qxLss/src/SysCalls.h"
#include "tests/support/SimDisk.h"

#include <random>
#include <vector>

namespace quna {

// One file, whatever it is called, in one mapping that lives as long as the object. What lies behind the page of the file's
// end can't be touched, as in the mapping of a true file. Nothing is recorded but which bytes a sync has not covered yet.
//
// Threads: one.
class FuzzSys final : public SysCalls {
public:
    static constexpr int64 CAPACITY = int64{1} << 30; // bytes; a store takes this for the largest mapping

    FuzzSys();
    ~FuzzSys() override;

    // The file as it shall be, all of it on the disk.
    void SetContent(const FileBytes& bytes);
    // The same in two steps: a file of zeros, and what else it holds.
    void SetZeros(int64 size);
    void Put(int64 offset, const octet_t* p, int64 n); // inside the file
    const octet_t* Bytes() const { return m_base; }
    // No file.
    void Clear();
    FileBytes Content() const { return FileBytes(m_base, m_base + m_size); }
    FileBytes DurableContent() const;
    // As after a power failure that took everything that no sync has covered.
    void LosePower();

    // Calls that changed the file or its name since SetContent or Clear.
    int64 NumChanges() const { return m_numChanges; }
    bool Exists() const { return m_exists; }
    int64 FileSize() const { return m_size; }

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
    static constexpr int64 PAGE_BYTES = 4096;

    // Bytes that a sync has not covered, as they are on the disk.
    struct Unsynced {
        int64 offset;
        FileBytes before;
    };

    void Resize(int64 size);
    void SetReach(int64 size);
    void Zero(int64 from, int64 to);
    void Forbid(int64 from, int64 to);
    void Allow(int64 from, int64 to);
    void NoteWritten(int64 offset, int64 n);

    octet_t* m_base = nullptr;
    int64 m_size = 0;
    int64 m_reach = 0;           // bytes of the mapping that may be touched
    int64 m_granted = 0;         // bytes of it that have memory; those behind m_reach are poisoned for the sanitizer
    std::vector<bool> m_written; // the pages that may not be zero
    bool m_exists = false;
    int64 m_numChanges = 0;
    std::vector<Unsynced> m_unsynced; // newest last
    uint64 m_clock = 16'000'000'000'000'000;
    std::mt19937_64 m_random{1};
};

} // namespace quna

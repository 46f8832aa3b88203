#include "qxLss/src/SysCalls.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#ifndef MADV_POPULATE_READ
#define MADV_POPULATE_READ 22
#endif

namespace quna {
namespace {

template <class T>
T OrErrno(T result) {
    return result < 0 ? static_cast<T>(-errno) : result;
}

class SystemCalls final : public SysCalls {
public:
    int Open(const char* path, int flags, int mode) override { return OrErrno(::open(path, flags | O_CLOEXEC, mode)); }

    ssize_t Read(int fd, void* p, size_t n, off_t at) override { return OrErrno(::pread(fd, p, n, at)); }
    ssize_t Write(int fd, const void* p, size_t n, off_t at) override { return OrErrno(::pwrite(fd, p, n, at)); }

    ssize_t WriteDurable(int fd, const void* p, size_t n, off_t at) override {
        const iovec part{const_cast<void*>(p), n};
        return OrErrno(::pwritev2(fd, &part, 1, at, RWF_DSYNC));
    }

    int SyncData(int fd) override { return OrErrno(::fdatasync(fd)); }

    int SyncDir(const char* path) override {
        const int fd = OrErrno(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (fd < 0) return fd;
        const int result = OrErrno(::fsync(fd));
        ::close(fd);
        return result;
    }

    int WriteBack(int fd, off_t at, off_t n) override {
        return OrErrno(::sync_file_range(fd, at, n, SYNC_FILE_RANGE_WRITE));
    }

    int Allocate(int fd, off_t at, off_t n) override { return OrErrno(::fallocate(fd, 0, at, n)); }
    int Truncate(int fd, off_t n) override { return OrErrno(::ftruncate(fd, n)); }

    int PunchHole(int fd, off_t at, off_t n) override {
        return OrErrno(::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, at, n));
    }

    int64 Size(int fd) override {
        struct stat status {};
        const int result = OrErrno(::fstat(fd, &status));
        return result < 0 ? result : status.st_size;
    }

    int Rename(const char* from, const char* to) override { return OrErrno(::rename(from, to)); }

    int RenameNoReplace(const char* from, const char* to) override {
        return OrErrno(::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE));
    }

    int Remove(const char* path) override { return OrErrno(::unlink(path)); }

    int Lock(int fd, bool exclusive) override {
        struct flock lock {};
        lock.l_type = exclusive ? F_WRLCK : F_RDLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = 0;
        lock.l_len = 1;
        return OrErrno(::fcntl(fd, F_OFD_SETLK, &lock));
    }

    int NamesFile(const char* path, int fd) override {
        struct stat named {};
        struct stat open {};
        if (::stat(path, &named) < 0) return errno == ENOENT ? 0 : -errno;
        if (::fstat(fd, &open) < 0) return -errno;
        return named.st_dev == open.st_dev && named.st_ino == open.st_ino ? 1 : 0;
    }

    int ReadAhead(int fd, off_t at, off_t n) override { return -::posix_fadvise(fd, at, n, POSIX_FADV_WILLNEED); }
    int DropCache(int fd, off_t at, off_t n) override { return -::posix_fadvise(fd, at, n, POSIX_FADV_DONTNEED); }

    int Map(int fd, size_t n, const octet_t*& base) override {
        void* p = ::mmap(nullptr, n, PROT_READ, MAP_SHARED | MAP_NORESERVE, fd, 0);
        if (p == MAP_FAILED) return -errno;
        // Advice: a kernel without it serves the mapping all the same.
        ::madvise(p, n, MADV_RANDOM);
        ::madvise(p, n, MADV_DONTFORK);
        base = static_cast<const octet_t*>(p);
        return 0;
    }

    int Unmap(const octet_t* base, size_t n) override { return OrErrno(::munmap(const_cast<octet_t*>(base), n)); }

    int Load(int fd, const octet_t* base, off_t at, size_t n) override {
        // Without this advice the populating reads page by page: 250 us instead of 100 for 16 KiB.
        ::posix_fadvise(fd, at, static_cast<off_t>(n), POSIX_FADV_WILLNEED);
        if (m_populates.load(std::memory_order_relaxed)) {
            if (::madvise(const_cast<octet_t*>(base + at), n, MADV_POPULATE_READ) == 0) return 0;
            if (errno != EINVAL) return -errno;
            m_populates.store(false, std::memory_order_relaxed);
        }
        return ReadThrough(fd, at, n);
    }

    int Close(int fd) override { return OrErrno(::close(fd)); }

    int64 MonotonicNanos() override {
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        return int64{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
    }

    uint64 WallClock100ns() override {
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME, &now);
        return static_cast<uint64>(now.tv_sec) * 10'000'000 + static_cast<uint64>(now.tv_nsec) / 100;
    }

    int RandomBytes(void* p, size_t n) override { return ::getrandom(p, n, 0) < 0 ? -errno : 0; }

private:
    // Brings the range into the page cache, from where the mapping takes it without another read.
    static int ReadThrough(int fd, off_t at, size_t n) {
        std::array<octet_t, 16384> scratch;
        for (size_t done = 0; done < n;) {
            const size_t part = std::min(n - done, scratch.size());
            const ssize_t got = ::pread(fd, scratch.data(), part, at + static_cast<off_t>(done));
            if (got < 0) return -errno;
            if (got == 0) break; // the last page of the file, rounded up
            done += static_cast<size_t>(got);
        }
        return 0;
    }

    std::atomic<bool> m_populates{true}; // until the kernel says that it doesn't know MADV_POPULATE_READ
};

} // namespace

SysCalls& RealSysCalls() {
    static SystemCalls* const calls = new SystemCalls();
    return *calls;
}

} // namespace quna

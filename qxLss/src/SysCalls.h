// The seam below the LSS: every system call that it makes on files, behind one table, so that the loops above it
// (short counts, EINTR, failed syncs) can be tested with an imitation of the disk.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <sys/types.h>

namespace quna {

// The raw calls. Each behaves and returns like the system call that it names, but for errno, which comes back as a
// negative value. Nothing here loops, retries or throws: that is the work of File, which is the only user.
//
// Ownership: the table outlives every File made with it.
// Threads:   all calls may be made from several threads at once, also on one descriptor.
// Invariant: the store file is never mapped writable, so these calls are all that changes what is on the disk.
class QX_API SysCalls {
public:
    SysCalls() = default;
    SysCalls(const SysCalls&) = delete;
    SysCalls& operator=(const SysCalls&) = delete;
    virtual ~SysCalls() = default;

    // open(2), always with O_CLOEXEC added. A descriptor, or -errno.
    virtual int Open(const char* path, int flags, int mode) = 0;
    // pread(2)
    virtual ssize_t Read(int fd, void* p, size_t n, off_t at) = 0;
    // pwrite(2)
    virtual ssize_t Write(int fd, const void* p, size_t n, off_t at) = 0;
    // pwritev2(2) with RWF_DSYNC: the bytes counted in the result are durable.
    virtual ssize_t WriteDurable(int fd, const void* p, size_t n, off_t at) = 0;
    // fdatasync(2)
    virtual int SyncData(int fd) = 0;
    // fsync(2) of the directory `path`.
    virtual int SyncDir(const char* path) = 0;
    // sync_file_range(2) with SYNC_FILE_RANGE_WRITE: starts the write-back and waits for nothing.
    virtual int WriteBack(int fd, off_t at, off_t n) = 0;
    // fallocate(2), mode 0: afterwards the file is at least `at` + `n` long and has blocks for the range.
    virtual int Allocate(int fd, off_t at, off_t n) = 0;
    // ftruncate(2)
    virtual int Truncate(int fd, off_t n) = 0;
    // fallocate(2) with FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE
    virtual int PunchHole(int fd, off_t at, off_t n) = 0;
    // The file's size from fstat(2), or -errno.
    virtual int64 Size(int fd) = 0;
    // rename(2)
    virtual int Rename(const char* from, const char* to) = 0;
    // renameat2(2) with RENAME_NOREPLACE: -EEXIST if `to` exists.
    virtual int RenameNoReplace(const char* from, const char* to) = 0;
    // unlink(2)
    virtual int Remove(const char* path) = 0;
    // fcntl(2) F_OFD_SETLK on byte 0; -EAGAIN or -EACCES if another description holds a lock in the way.
    virtual int Lock(int fd, bool exclusive) = 0;
    // Does `path` name the very file that `fd` has open? 1, 0 (also if the name is gone), or -errno.
    virtual int NamesFile(const char* path, int fd) = 0;
    // posix_fadvise(2) POSIX_FADV_DONTNEED on `n` bytes from `at`; n = 0 means to the end.
    virtual int DropCache(int fd, off_t at, off_t n) = 0;
    // posix_fadvise(2) POSIX_FADV_WILLNEED: begins to read `n` bytes from `at` and waits for nothing. A hint, which an
    // imitation of the disk has no need to take.
    virtual int ReadAhead(int /*fd*/, off_t /*at*/, off_t /*n*/) { return 0; }
    // mmap(2) of the first `n` bytes, read-only, shared, MAP_NORESERVE, with MADV_RANDOM and MADV_DONTFORK. The range
    // may be far longer than the file. 0 and the address in `base`, or -errno.
    virtual int Map(int fd, size_t n, const octet_t*& base) = 0;
    // munmap(2)
    virtual int Unmap(const octet_t* base, size_t n) = 0;
    // Brings `n` bytes at `at` of the file into memory and into its mapping `base`, so that a read error shows here and
    // not as a signal at the first access: posix_fadvise(2) WILLNEED, then MADV_POPULATE_READ, or before Linux 5.14 a
    // pread(2). `at` is a multiple of the page size. 0, or -errno (-EFAULT for a page that cannot be read).
    virtual int Load(int fd, const octet_t* base, off_t at, size_t n) = 0;
    // close(2). Never repeated, whatever it returns.
    virtual int Close(int fd) = 0;

    // CLOCK_MONOTONIC, in nanoseconds.
    virtual int64 MonotonicNanos() = 0;
    // CLOCK_REALTIME, in units of 100 ns since 1970.
    virtual uint64 WallClock100ns() = 0;
    // getrandom(2): `n` <= 256 random bytes. 0, or -errno.
    virtual int RandomBytes(void* p, size_t n) = 0;
};

// The table of the real system. Never destroyed.
QX_API SysCalls& RealSysCalls();

} // namespace quna

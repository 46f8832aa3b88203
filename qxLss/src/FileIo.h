// A file as the LSS uses it: whole reads and writes at offsets, or an exception.
#pragma once

#include "qxLss/src/SysCalls.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <string>

namespace quna {

// How a File is opened.
enum class EFileAccess {
    READ_ONLY,  // must exist
    READ_WRITE, // must exist
    CREATE,     // created if it is missing; never emptied by the open
};

// Throws the FileException of a failed operation: "Can't <operation> file '<path>' [at offset <offset>]: <text of
// error> (errno <error>)". `offset` below 0 means none.
[[noreturn]] QX_API void ThrowFileError(ConstStringZ operation, const std::string& path, int error, int64 offset = -1);

// One open file, and the operations on names that belong to it. The only user of SysCalls.
//
// Every operation finishes the job or throws FileException with operation, path, offset and errno: short counts go on,
// EINTR is repeated, everything else is final. A failed sync or write is never repeated here, since the kernel may have
// dropped the pages; the caller must stop writing.
//
// Ownership: owns the descriptor and with it the lock. Borrows the table of calls.
// Threads:   reads, writes, syncs and Allocate from any number of threads. Open, TryLock and Close by one thread while
//            no other uses the object.
class QX_API File {
public:
    explicit File(SysCalls& sys) : m_sys(sys) {}
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File();

    // Opens `path`. Requires: not open. False if the file must exist and does not; every other failure throws.
    [[nodiscard]] bool TryOpen(const std::string& path, EFileAccess access);
    // As TryOpen, but a missing file throws too.
    void Open(const std::string& path, EFileAccess access);
    bool IsOpen() const { return m_fd >= 0; }
    // Ends the descriptor, gives back the lock. Nothing is synced. No effect when not open.
    void Close() noexcept;

    // The open-file-description lock on byte 0. False if another description (of any process, also this one) holds
    // one that stands in the way.
    [[nodiscard]] bool TryLock(bool exclusive);
    // Does Path() still name this file? To be asked after a lock is got: between open and lock another owner may have
    // renamed a new store over the name.
    bool IsStillNamed();
    // The file has been renamed by RenameFile: later texts and IsStillNamed use `path`.
    void SetPath(const std::string& path) { m_path = path; }

    // Exactly `n` bytes; the end of the file before that throws.
    void Read(int64 offset, void* p, ssize_t n);
    // Up to `n` bytes, fewer only at the end of the file; how many.
    ssize_t ReadUpTo(int64 offset, void* p, ssize_t n);
    // All `n` bytes are handed to the system.
    void Write(int64 offset, const void* p, ssize_t n);
    // All `n` bytes are on the disk on return.
    void WriteDurable(int64 offset, const void* p, ssize_t n);
    // Everything written before the call is on the disk on return.
    void SyncData();
    // Starts write-back of a range. Only advice: no failure is reported (the sync reports it).
    void WriteBack(int64 offset, int64 n) noexcept;
    // Afterwards the range exists and, where the file system can, has blocks, so that writing it cannot meet ENOSPC.
    void Allocate(int64 offset, int64 n);
    void Truncate(int64 size);
    // Gives the blocks of the range back. False where the file system cannot.
    bool PunchHole(int64 offset, int64 n);
    int64 Size() const;
    // Drops the clean cached pages of a range, so that later reads see the disk. n = 0: to the end. Only advice.
    void DropCache(int64 offset, int64 n) noexcept;
    // Begins to read the range, in the hope that it is there when it is needed.
    void ReadAhead(int64 offset, int64 n) noexcept;

    const std::string& Path() const { return m_path; }
    int Descriptor() const { return m_fd; }
    SysCalls& Sys() const { return m_sys; }

private:
    template <class Call>
    void WriteLoop(ConstStringZ operation, int64 offset, const void* p, ssize_t n, Call call);

    SysCalls& m_sys;
    std::string m_path;
    int m_fd = -1; // -1: not open
};

// Gives the file `from` the name `to`. With `replace` false an existing `to` makes the result false, and nothing is
// changed. The new name is durable only after SyncDirectoryOf.
[[nodiscard]] QX_API bool RenameFile(SysCalls& sys, const std::string& from, const std::string& to, bool replace);
// Makes the creation, renaming or removal of `path` durable: syncs the directory that holds it.
QX_API void SyncDirectoryOf(SysCalls& sys, const std::string& path);
// Removes the name. False if there was none.
QX_API bool RemoveFile(SysCalls& sys, const std::string& path);

} // namespace quna

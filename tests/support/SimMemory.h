// The cached content of one simulated file.
#pragma once

#include "tests/support/SimBlocks.h"

#include <memory>

namespace quna {

enum class ESimMemory {
    SHARED, // a memory file, mapped as a real one is: of any size, and for threads that read while others write
    ARENA, // memory of this process, used again by the next file: 1 GiB at most, without a system call. For sweeps, where
           // the next file is much like the last: only blocks that differ are copied
    GUARDED // the same, and the pages behind the file's end can't be touched, as in the mapping of a true file
};

// Ownership: owns the memory; mappings end before it.
// Threads:   the caller's; SHARED content may be read through mappings at the same time.
class SimMemory {
public:
    explicit SimMemory(ESimMemory kind, const SimBlocks& content = {});
    SimMemory(const SimMemory&) = delete;
    SimMemory& operator=(const SimMemory&) = delete;
    ~SimMemory();

    int64 Size() const { return m_size; }
    // New bytes are zeros.
    void Resize(int64 size);
    ssize_t Read(void* p, size_t n, int64 at) const; // fewer at the end of the file
    void Write(const void* p, ssize_t n, int64 at);
    void Zero(int64 at, int64 n); // inside the file

    // Like the system call: 0 or a negative errno.
    int Map(size_t n, const octet_t*& base) const;
    int Unmap(const octet_t* base, size_t n) const;

private:
    bool IsArena() const { return m_kind != ESimMemory::SHARED; }
    void SetSize(int64 size);

    struct Arena;
    class SpareArenas;
    static thread_local SpareArenas t_spares;

    const ESimMemory m_kind;
    int m_file = -1;                // SHARED
    std::unique_ptr<Arena> m_arena; // ARENA and GUARDED
    int64 m_size = 0;
};

} // namespace quna

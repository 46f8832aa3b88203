// The cached content of one simulated file.
#pragma once

#include "qxUtils/BasicTypes.h"

namespace quna {

enum class ESimMemory {
    SHARED, // a memory file, mapped as a real one is: of any size, and for threads that read while others write
    ARENA   // memory of this process, used again by the next file: 1 GiB at most, without a system call. For sweeps
};

// Ownership: owns the memory; mappings end before it.
// Threads:   the caller's; SHARED content may be read through mappings at the same time.
class SimMemory {
public:
    explicit SimMemory(ESimMemory kind);
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
    const ESimMemory m_kind;
    int m_file = -1;            // SHARED
    octet_t* m_bytes = nullptr; // ARENA
    int64 m_size = 0;
    int64 m_used = 0; // ARENA: beyond, all is zero
};

} // namespace quna

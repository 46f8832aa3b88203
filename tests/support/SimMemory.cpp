#include "tests/support/SimMemory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace quna {
namespace {

constexpr size_t ARENA_BYTES = size_t{1} << 30;   // addresses; what is not touched costs nothing
constexpr int64 MOST_KEPT_BYTES = int64{1} << 24; // of a spare arena

// Arenas that wait for the next file, all zeros.
class SpareArenas {
public:
    SpareArenas() = default;
    SpareArenas(const SpareArenas&) = delete;
    SpareArenas& operator=(const SpareArenas&) = delete;
    ~SpareArenas() {
        for (octet_t* arena : m_spare) ::munmap(arena, ARENA_BYTES);
    }
    octet_t* Take() {
        if (!m_spare.empty()) {
            octet_t* const arena = m_spare.back();
            m_spare.pop_back();
            return arena;
        }
        void* const p =
            ::mmap(nullptr, ARENA_BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (p == MAP_FAILED) throw std::runtime_error("SimMemory: no room for an arena");
        return static_cast<octet_t*>(p);
    }
    void Give(octet_t* arena, int64 used) {
        if (used > MOST_KEPT_BYTES || m_spare.size() == 16) {
            ::munmap(arena, ARENA_BYTES);
            return;
        }
        std::memset(arena, 0, static_cast<size_t>(used));
        m_spare.push_back(arena);
    }

private:
    std::vector<octet_t*> m_spare;
};

thread_local SpareArenas t_arenas;

} // namespace

SimMemory::SimMemory(ESimMemory kind) : m_kind(kind) {
    if (kind == ESimMemory::ARENA) {
        m_bytes = t_arenas.Take();
        return;
    }
    m_file = ::memfd_create("simulated", MFD_CLOEXEC);
    if (m_file < 0) throw std::runtime_error("SimMemory: memfd_create failed");
}

SimMemory::~SimMemory() {
    if (m_kind == ESimMemory::ARENA)
        t_arenas.Give(m_bytes, m_used);
    else
        ::close(m_file);
}

void SimMemory::Resize(int64 size) {
    if (m_kind == ESimMemory::SHARED) {
        if (::ftruncate(m_file, size) != 0) throw std::runtime_error("SimMemory: can't size a memory file");
    } else {
        if (size > static_cast<int64>(ARENA_BYTES)) throw std::runtime_error("SimMemory: an arena is too small");
        if (size < m_used) std::memset(m_bytes + size, 0, static_cast<size_t>(m_used - size));
        m_used = std::min(m_used, size);
    }
    m_size = size;
}

ssize_t SimMemory::Read(void* p, size_t n, int64 at) const {
    if (m_kind == ESimMemory::SHARED) return ::pread(m_file, p, n, at);
    const int64 count = std::clamp<int64>(m_size - at, 0, static_cast<int64>(n));
    if (count > 0) std::memcpy(p, m_bytes + at, static_cast<size_t>(count));
    return count;
}

void SimMemory::Write(const void* p, ssize_t n, int64 at) {
    if (n <= 0) return;
    if (m_kind == ESimMemory::SHARED) {
        if (::pwrite(m_file, p, static_cast<size_t>(n), at) != n)
            throw std::runtime_error("SimMemory: can't write a memory file");
    } else {
        if (at + n > static_cast<int64>(ARENA_BYTES)) throw std::runtime_error("SimMemory: an arena is too small");
        std::memcpy(m_bytes + at, p, static_cast<size_t>(n));
        m_used = std::max(m_used, at + n);
    }
    m_size = std::max(m_size, at + n);
}

void SimMemory::Zero(int64 at, int64 n) {
    if (m_kind == ESimMemory::SHARED) {
        if (::fallocate(m_file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, at, n) != 0)
            throw std::runtime_error("SimMemory: can't make a hole in a memory file");
        return;
    }
    const int64 end = std::min(at + n, m_used);
    if (at < end) std::memset(m_bytes + at, 0, static_cast<size_t>(end - at));
}

int SimMemory::Map(size_t n, const octet_t*& base) const {
    if (m_kind == ESimMemory::ARENA) {
        if (n > ARENA_BYTES) return -ENOMEM;
        base = m_bytes;
        return 0;
    }
    void* const p = ::mmap(nullptr, n, PROT_READ, MAP_SHARED | MAP_NORESERVE, m_file, 0);
    if (p == MAP_FAILED) return -errno;
    base = static_cast<const octet_t*>(p);
    return 0;
}

int SimMemory::Unmap(const octet_t* base, size_t n) const {
    if (m_kind == ESimMemory::ARENA) return 0;
    return ::munmap(const_cast<octet_t*>(base), n) == 0 ? 0 : -errno;
}

} // namespace quna

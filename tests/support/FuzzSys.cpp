#include "tests/support/FuzzSys.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>

#include <fcntl.h>
#include <sys/mman.h>

namespace quna {
namespace {

constexpr int DESCRIPTOR = 1000;
constexpr int64 PAGE_BYTES = 4096;

int64 RoundedUp(int64 n) { return (n + PAGE_BYTES - 1) / PAGE_BYTES * PAGE_BYTES; }

} // namespace

FuzzSys::FuzzSys() {
    void* const p =
        ::mmap(nullptr, static_cast<size_t>(CAPACITY), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED) throw std::bad_alloc();
    m_base = static_cast<octet_t*>(p);
}

FuzzSys::~FuzzSys() { ::munmap(m_base, static_cast<size_t>(CAPACITY)); }

// --- content

void FuzzSys::SetContent(const FileBytes& bytes) {
    Clear();
    Resize(std::ssize(bytes));
    if (!bytes.empty()) std::memcpy(m_base, bytes.data(), bytes.size());
    m_highWater = m_size;
    m_exists = true;
}

void FuzzSys::Clear() {
    Resize(0);
    m_exists = false;
    m_numChanges = 0;
    m_unsynced.clear();
}

FileBytes FuzzSys::DurableContent() const {
    FileBytes bytes = Content();
    for (size_t i = m_unsynced.size(); i-- > 0;) {
        const Unsynced& u = m_unsynced[i];
        if (u.offset >= std::ssize(bytes)) continue;
        const size_t n = std::min(u.before.size(), bytes.size() - static_cast<size_t>(u.offset));
        std::memcpy(bytes.data() + u.offset, u.before.data(), n);
    }
    return bytes;
}

void FuzzSys::LosePower() {
    const bool exists = m_exists;
    SetContent(DurableContent());
    m_exists = exists;
}

void FuzzSys::Zero(int64 from, int64 to) {
    to = std::min(to, m_highWater);
    if (to > from) std::memset(m_base + from, 0, static_cast<size_t>(to - from));
}

void FuzzSys::SetReach(int64 size) {
    const int64 reach = RoundedUp(size);
    if (reach == m_reach) return;
    const int64 from = std::min(reach, m_reach);
    const int protection = reach > m_reach ? PROT_READ | PROT_WRITE : PROT_NONE;
    if (::mprotect(m_base + from, static_cast<size_t>(std::max(reach, m_reach) - from), protection) != 0)
        throw std::runtime_error("FuzzSys: mprotect failed");
    m_reach = reach;
}

// What is cut off is zero when the file comes to have it again.
void FuzzSys::Resize(int64 size) {
    if (size > CAPACITY) throw std::runtime_error("FuzzSys: the file is too large");
    if (size < m_size) {
        Zero(size, m_size);
        m_highWater = std::min(m_highWater, size);
    }
    SetReach(size);
    m_size = size;
}

// --- the calls

int FuzzSys::Open(const char*, int flags, int) {
    if (!m_exists) {
        if (!(flags & O_CREAT)) return -ENOENT;
        ++m_numChanges;
        m_exists = true;
    }
    return DESCRIPTOR;
}

ssize_t FuzzSys::Read(int, void* p, size_t n, off_t at) {
    if (at >= m_size) return 0;
    n = std::min(n, static_cast<size_t>(m_size - at));
    std::memcpy(p, m_base + at, n);
    return static_cast<ssize_t>(n);
}

ssize_t FuzzSys::Write(int, const void* p, size_t n, off_t at) {
    const int64 end = at + static_cast<int64>(n);
    if (end > CAPACITY) return -EFBIG;
    if (end > m_size) Resize(end);
    m_unsynced.push_back({at, FileBytes(m_base + at, m_base + end)});
    ++m_numChanges;
    std::memcpy(m_base + at, p, n);
    m_highWater = std::max(m_highWater, end);
    return static_cast<ssize_t>(n);
}

// Durable at once, and with it what was written to the same bytes before.
ssize_t FuzzSys::WriteDurable(int fd, const void* p, size_t n, off_t at) {
    const ssize_t written = Write(fd, p, n, at);
    if (written >= 0) m_unsynced.pop_back();
    return written;
}

int FuzzSys::SyncData(int) {
    m_unsynced.clear();
    return 0;
}

int FuzzSys::SyncDir(const char*) { return 0; }
int FuzzSys::WriteBack(int, off_t, off_t) { return 0; }

int FuzzSys::Allocate(int, off_t at, off_t n) {
    if (at + n > CAPACITY) return -ENOSPC;
    ++m_numChanges;
    if (at + n > m_size) Resize(at + n);
    return 0;
}

int FuzzSys::Truncate(int, off_t n) {
    if (n > CAPACITY) return -EFBIG;
    ++m_numChanges;
    Resize(n);
    return 0;
}

int FuzzSys::PunchHole(int, off_t at, off_t n) {
    ++m_numChanges;
    Zero(at, std::min<int64>(at + n, m_size));
    return 0;
}

int64 FuzzSys::Size(int) { return m_size; }

int FuzzSys::Rename(const char*, const char*) { return 0; }
int FuzzSys::RenameNoReplace(const char*, const char*) { return 0; }

int FuzzSys::Remove(const char*) {
    if (!m_exists) return -ENOENT;
    m_exists = false;
    return 0;
}

int FuzzSys::Lock(int, bool) { return 0; }

int FuzzSys::NamesFile(const char*, int) { return m_exists ? 1 : 0; }
int FuzzSys::DropCache(int, off_t, off_t) { return 0; }

int FuzzSys::Map(int, size_t n, const octet_t*& base) {
    if (n > static_cast<size_t>(CAPACITY)) return -ENOMEM;
    base = m_base;
    return 0;
}

int FuzzSys::Unmap(const octet_t*, size_t) { return 0; }

int FuzzSys::Load(int, const octet_t*, off_t at, size_t n) {
    return at + static_cast<int64>(n) <= RoundedUp(m_size) ? 0 : -EFAULT;
}

int FuzzSys::Close(int) { return 0; }

int64 FuzzSys::MonotonicNanos() { return static_cast<int64>(m_clock++) * 100; }
uint64 FuzzSys::WallClock100ns() { return m_clock++; }

int FuzzSys::RandomBytes(void* p, size_t n) {
    for (size_t i = 0; i < n; ++i) static_cast<octet_t*>(p)[i] = static_cast<octet_t>(m_random());
    return 0;
}

} // namespace quna

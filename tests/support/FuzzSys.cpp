#include "tests/support/FuzzSys.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>

#include <fcntl.h>
#include <sys/mman.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/asan_interface.h>
#define QX_POISONS 1
#endif
#endif

namespace quna {
namespace {

constexpr int DESCRIPTOR = 1000;
int64 RoundedUp(int64 n) { return (n + 4095) / 4096 * 4096; }

void Protect(octet_t* p, int64 n, int protection) {
    if (::mprotect(p, static_cast<size_t>(n), protection) != 0) throw std::runtime_error("FuzzSys: mprotect failed");
}

} // namespace

FuzzSys::FuzzSys() {
    void* const p =
        ::mmap(nullptr, static_cast<size_t>(CAPACITY), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED) throw std::bad_alloc();
    m_base = static_cast<octet_t*>(p);
}

FuzzSys::~FuzzSys() {
    Allow(0, m_granted);
    ::munmap(m_base, static_cast<size_t>(CAPACITY));
}

// --- content

void FuzzSys::SetContent(const FileBytes& bytes) {
    static const FileBytes zeros(PAGE_BYTES);
    SetZeros(std::ssize(bytes));
    for (int64 at = 0; at < m_size; at += PAGE_BYTES) {
        const int64 n = std::min(PAGE_BYTES, m_size - at);
        if (std::memcmp(bytes.data() + at, zeros.data(), static_cast<size_t>(n)) != 0) Put(at, bytes.data() + at, n);
    }
}

void FuzzSys::SetZeros(int64 size) {
    Clear();
    Resize(size);
    m_exists = true;
}

void FuzzSys::Put(int64 offset, const octet_t* p, int64 n) {
    if (n <= 0) return;
    NoteWritten(offset, n);
    std::memcpy(m_base + offset, p, static_cast<size_t>(n));
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

void FuzzSys::NoteWritten(int64 offset, int64 n) {
    const size_t end = static_cast<size_t>(RoundedUp(offset + n) / PAGE_BYTES);
    if (m_written.size() < end) m_written.resize(end);
    for (size_t page = static_cast<size_t>(offset / PAGE_BYTES); page < end; ++page) m_written[page] = true;
}

void FuzzSys::Zero(int64 from, int64 to) {
    to = std::min(to, std::ssize(m_written) * PAGE_BYTES);
    for (int64 at = from; at < to;) {
        const int64 page = at / PAGE_BYTES;
        const int64 end = std::min(to, (page + 1) * PAGE_BYTES);
        if (m_written[static_cast<size_t>(page)]) {
            std::memset(m_base + at, 0, static_cast<size_t>(end - at));
            if (end - at == PAGE_BYTES) m_written[static_cast<size_t>(page)] = false;
        }
        at = end;
    }
}

// Pages come and go with every input. The sanitizer sees an access to a poisoned one as well as the hardware sees one without
// memory, and poisoning is no system call.
void FuzzSys::Forbid(int64 from, int64 to) {
#if defined(QX_POISONS)
    ASAN_POISON_MEMORY_REGION(m_base + from, static_cast<size_t>(to - from));
#else
    Protect(m_base + from, to - from, PROT_NONE);
    m_granted = from;
#endif
}

void FuzzSys::Allow(int64 from, int64 to) {
    if (to > m_granted) {
        Protect(m_base + m_granted, to - m_granted, PROT_READ | PROT_WRITE);
        m_granted = to;
    }
#if defined(QX_POISONS)
    ASAN_UNPOISON_MEMORY_REGION(m_base + from, static_cast<size_t>(to - from));
#else
    static_cast<void>(from);
#endif
}

void FuzzSys::SetReach(int64 size) {
    const int64 reach = RoundedUp(size);
    if (reach > m_reach)
        Allow(m_reach, reach);
    else if (reach < m_reach)
        Forbid(reach, m_reach);
    m_reach = reach;
}

// What is cut off is zero when the file comes to have it again.
void FuzzSys::Resize(int64 size) {
    if (size > CAPACITY) throw std::runtime_error("FuzzSys: the file is too large");
    if (size < m_size) Zero(size, RoundedUp(m_size));
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
    Put(at, static_cast<const octet_t*>(p), static_cast<int64>(n));
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

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

constexpr int64 ARENA_BYTES = int64{1} << 30;     // addresses; what is not touched costs nothing
constexpr int64 MOST_KEPT_BYTES = int64{1} << 24; // of a spare arena
constexpr size_t MOST_SPARES = 16;

} // namespace

struct SimMemory::Arena {
    Arena()
        : base(static_cast<octet_t*>(::mmap(nullptr, ARENA_BYTES, PROT_READ | PROT_WRITE,
                                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))) {
        if (base == MAP_FAILED) throw std::runtime_error("SimMemory: no room for an arena");
    }
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;
    ~Arena() { ::munmap(base, ARENA_BYTES); }

    // What it holds in the place of a block, unless it was changed there.
    struct Place {
        SimBlocks::Ref block;
        bool isChanged = false;
    };

    void Fill(const SimBlocks& content) {
        const std::vector<SimBlocks::Ref>& blocks = content.Blocks();
        if (places.size() < blocks.size()) places.resize(blocks.size());
        for (size_t i = 0; i < places.size(); ++i) {
            const SimBlocks::Ref block = i < blocks.size() ? blocks[i] : SimBlocks::Ref();
            Place& place = places[i];
            if (!place.isChanged && place.block == block) continue;
            octet_t* const to = base + static_cast<int64>(i) * SimBlocks::BLOCK_BYTES;
            if (block)
                std::memcpy(to, block->bytes, SimBlocks::BLOCK_BYTES);
            else
                std::memset(to, 0, SimBlocks::BLOCK_BYTES);
            place = {block, false};
        }
        places.resize(blocks.size());
    }
    void NoteChange(int64 at, int64 n) {
        const size_t end = static_cast<size_t>((at + n + SimBlocks::BLOCK_BYTES - 1) / SimBlocks::BLOCK_BYTES);
        if (places.size() < end) places.resize(end);
        for (size_t i = static_cast<size_t>(at / SimBlocks::BLOCK_BYTES); i < end; ++i) places[i].isChanged = true;
    }
    // Beyond, all is zero.
    int64 Used() const { return std::ssize(places) * SimBlocks::BLOCK_BYTES; }
    void Clear(int64 at, int64 end) {
        end = std::min(end, Used());
        if (at >= end) return;
        std::memset(base + at, 0, static_cast<size_t>(end - at));
        NoteChange(at, end - at);
    }

    // The pages behind `from`, up to that of the last byte before `to`.
    void Protect(int64 from, int64 to, int protection) const {
        const auto rounded = [](int64 n) { return (n + SimBlocks::BLOCK_BYTES - 1) & -SimBlocks::BLOCK_BYTES; };
        const int64 n = rounded(to) - rounded(from);
        if (n > 0 && ::mprotect(base + rounded(from), static_cast<size_t>(n), protection) != 0)
            throw std::runtime_error("SimMemory: mprotect failed");
    }

    octet_t* const base;
    std::vector<Place> places;
};

// Arenas that wait for the next file, with what the last one left.
class SimMemory::SpareArenas {
public:
    std::unique_ptr<Arena> Take() {
        if (m_spares.empty()) return std::make_unique<Arena>();
        std::unique_ptr<Arena> arena = std::move(m_spares.back());
        m_spares.pop_back();
        return arena;
    }
    void Give(std::unique_ptr<Arena> arena) {
        if (arena->Used() <= MOST_KEPT_BYTES && m_spares.size() < MOST_SPARES) m_spares.push_back(std::move(arena));
    }

private:
    std::vector<std::unique_ptr<Arena>> m_spares;
};

thread_local SimMemory::SpareArenas SimMemory::t_spares;

SimMemory::SimMemory(ESimMemory kind, const SimBlocks& content) : m_kind(kind) {
    if (IsArena()) {
        m_arena = t_spares.Take();
        m_arena->Fill(content);
        m_size = content.Size();
        if (kind == ESimMemory::GUARDED) m_arena->Protect(m_size, ARENA_BYTES, PROT_NONE);
        return;
    }
    m_file = ::memfd_create("simulated", MFD_CLOEXEC);
    if (m_file < 0) throw std::runtime_error("SimMemory: memfd_create failed");
    Resize(content.Size());
    int64 at = 0;
    for (const SimBlocks::Ref& block : content.Blocks()) {
        if (block) Write(block->bytes, std::min(SimBlocks::BLOCK_BYTES, m_size - at), at);
        at += SimBlocks::BLOCK_BYTES;
    }
}

SimMemory::~SimMemory() {
    if (!IsArena()) {
        ::close(m_file);
        return;
    }
    if (m_kind == ESimMemory::GUARDED) m_arena->Protect(m_size, ARENA_BYTES, PROT_READ | PROT_WRITE);
    t_spares.Give(std::move(m_arena));
}

void SimMemory::Resize(int64 size) {
    if (m_kind == ESimMemory::SHARED) {
        if (::ftruncate(m_file, size) != 0) throw std::runtime_error("SimMemory: can't size a memory file");
    } else {
        if (size > ARENA_BYTES) throw std::runtime_error("SimMemory: an arena is too small");
        if (size < m_size) m_arena->Clear(size, m_size);
    }
    SetSize(size);
}

void SimMemory::SetSize(int64 size) {
    if (m_kind == ESimMemory::GUARDED) {
        if (size < m_size)
            m_arena->Protect(size, m_size, PROT_NONE);
        else
            m_arena->Protect(m_size, size, PROT_READ | PROT_WRITE);
    }
    m_size = size;
}

ssize_t SimMemory::Read(void* p, size_t n, int64 at) const {
    if (m_kind == ESimMemory::SHARED) return ::pread(m_file, p, n, at);
    const int64 count = std::clamp<int64>(m_size - at, 0, static_cast<int64>(n));
    if (count > 0) std::memcpy(p, m_arena->base + at, static_cast<size_t>(count));
    return count;
}

void SimMemory::Write(const void* p, ssize_t n, int64 at) {
    if (n <= 0) return;
    if (m_kind == ESimMemory::SHARED) {
        if (::pwrite(m_file, p, static_cast<size_t>(n), at) != n)
            throw std::runtime_error("SimMemory: can't write a memory file");
    } else {
        if (at + n > ARENA_BYTES) throw std::runtime_error("SimMemory: an arena is too small");
        if (at + n > m_size) SetSize(at + n);
        std::memcpy(m_arena->base + at, p, static_cast<size_t>(n));
        m_arena->NoteChange(at, n);
    }
    m_size = std::max(m_size, at + n);
}

void SimMemory::Zero(int64 at, int64 n) {
    if (m_kind == ESimMemory::SHARED) {
        if (::fallocate(m_file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, at, n) != 0)
            throw std::runtime_error("SimMemory: can't make a hole in a memory file");
        return;
    }
    m_arena->Clear(at, std::min(at + n, m_size));
}

int SimMemory::Map(size_t n, const octet_t*& base) const {
    if (IsArena()) {
        if (n > static_cast<size_t>(ARENA_BYTES)) return -ENOMEM;
        base = m_arena->base;
        return 0;
    }
    void* const p = ::mmap(nullptr, n, PROT_READ, MAP_SHARED | MAP_NORESERVE, m_file, 0);
    if (p == MAP_FAILED) return -errno;
    base = static_cast<const octet_t*>(p);
    return 0;
}

int SimMemory::Unmap(const octet_t* base, size_t n) const {
    if (IsArena()) return 0;
    return ::munmap(const_cast<octet_t*>(base), n) == 0 ? 0 : -errno;
}

} // namespace quna

#include "qxLss/src/ZeroPages.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <vector>

#include <sys/mman.h>

namespace quna {
namespace {

constexpr size_t MOST_USED = size_t{1} << 20; // of pages that are kept: more is cheaper to get anew
constexpr size_t MOST_SPARES = 32;

struct Spare {
    void* pages;
    size_t bytes;
};

// Never destroyed: stores may end later.
struct Spares {
    std::mutex mutex; // a leaf; guards the list
    std::vector<Spare> list;
};

std::atomic<Spares*> g_spares{nullptr}; // null: nothing is kept

void* TakeSpare(size_t bytes) noexcept {
    Spares* const spares = g_spares.load(std::memory_order_acquire);
    if (!spares) return nullptr;
    const std::lock_guard lock(spares->mutex);
    for (size_t i = spares->list.size(); i-- > 0;) {
        if (spares->list[i].bytes != bytes) continue;
        void* const pages = spares->list[i].pages;
        spares->list.erase(spares->list.begin() + static_cast<std::ptrdiff_t>(i));
        return pages;
    }
    return nullptr;
}

bool KeepSpare(void* pages, size_t bytes, size_t used) noexcept {
    Spares* const spares = g_spares.load(std::memory_order_acquire);
    if (!spares || used > MOST_USED) return false;
    std::memset(pages, 0, used);
    const std::lock_guard lock(spares->mutex);
    if (spares->list.size() == MOST_SPARES) return false;
    spares->list.push_back({pages, bytes});
    return true;
}

} // namespace

ZeroPages::ZeroPages(size_t bytes) noexcept : m_pages(TakeSpare(bytes)), m_bytes(bytes) {
    if (m_pages) return;
    m_pages = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (m_pages == MAP_FAILED) m_pages = nullptr;
}

ZeroPages::~ZeroPages() {
    if (m_pages && !KeepSpare(m_pages, m_bytes, m_used)) ::munmap(m_pages, m_bytes);
}

void ZeroPages::KeepForTest() {
    static Spares* const spares = [] {
        auto* const made = new Spares;
        made->list.reserve(MOST_SPARES);
        return made;
    }();
    g_spares.store(spares, std::memory_order_release);
}

} // namespace quna

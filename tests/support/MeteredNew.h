// Replaces the operators new and delete of the program by ones that AllocationMeter hears of. Include it in one source.
#pragma once

#include "tests/support/AllocationMeter.h"

#include <cstdlib>
#include <new>

#include <malloc.h>

namespace quna {

inline void* MeteredAllocate(std::size_t n) {
    void* const p = std::malloc(n ? n : 1);
    if (!p) throw std::bad_alloc();
    AllocationMeter::Note(static_cast<int64>(::malloc_usable_size(p)));
    return p;
}

inline void* MeteredAllocate(std::size_t n, std::align_val_t alignment) {
    const std::size_t a = static_cast<std::size_t>(alignment);
    void* const p = std::aligned_alloc(a, (n + a - 1) / a * a);
    if (!p) throw std::bad_alloc();
    AllocationMeter::Note(static_cast<int64>(::malloc_usable_size(p)));
    return p;
}

inline void MeteredFree(void* p) noexcept {
    if (p) AllocationMeter::Note(-static_cast<int64>(::malloc_usable_size(p)));
    std::free(p);
}

} // namespace quna

// NOLINTBEGIN(misc-definitions-in-headers): these may not be inline, and one source includes them
void* operator new(std::size_t n) { return quna::MeteredAllocate(n); }
void* operator new[](std::size_t n) { return quna::MeteredAllocate(n); }
void* operator new(std::size_t n, std::align_val_t a) { return quna::MeteredAllocate(n, a); }
void* operator new[](std::size_t n, std::align_val_t a) { return quna::MeteredAllocate(n, a); }
void operator delete(void* p) noexcept { quna::MeteredFree(p); }
void operator delete[](void* p) noexcept { quna::MeteredFree(p); }
void operator delete(void* p, std::size_t) noexcept { quna::MeteredFree(p); }
void operator delete[](void* p, std::size_t) noexcept { quna::MeteredFree(p); }
void operator delete(void* p, std::align_val_t) noexcept { quna::MeteredFree(p); }
void operator delete[](void* p, std::align_val_t) noexcept { quna::MeteredFree(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { quna::MeteredFree(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { quna::MeteredFree(p); }
// NOLINTEND(misc-definitions-in-headers)

#include "tests/support/FuzzBasics.h"

#include "qxLss/src/ZeroPages.h"
#include "qxUtils/Tracer.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/allocator_interface.h>
#define QX_COUNTS_MEMORY 1
#endif
#endif

#if defined(QX_COUNTS_MEMORY)
// Most of the time went into the stacks of allocations and the memory that is kept back from reuse.
extern "C" const char* __asan_default_options(); // NOLINT(bugprone-reserved-identifier): the sanitizer's name
extern "C" const char* __asan_default_options() {
    return "malloc_context_size=5:quarantine_size_mb=4:thread_local_quarantine_size_kb=64";
}
#endif

namespace quna {

void FuzzRequire(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "fuzz: %s\n", what);
    std::abort();
}

void PrepareForFuzz() {
    static const bool prepared = [] {
        SetTraceSink({nullptr, [](void*, const char*, ssize_t) {}});
        ZeroPages::KeepForTest();
        return true;
    }();
    static_cast<void>(prepared);
}

// --- memory

#if defined(QX_COUNTS_MEMORY)
namespace {

int64 g_inUse = 0;
int64 g_base = 0;
int64 g_peak = 0;

void OnMalloc(const volatile void*, size_t n) {
    g_inUse += static_cast<int64>(n);
    g_peak = std::max(g_peak, g_inUse);
}

void OnFree(const volatile void* p) {
    if (p) g_inUse -= static_cast<int64>(__sanitizer_get_allocated_size(const_cast<const void*>(p)));
}

} // namespace

void ResetPeakMemory() {
    static const int installed = __sanitizer_install_malloc_and_free_hooks(&OnMalloc, &OnFree);
    static_cast<void>(installed);
    g_base = g_peak = g_inUse;
}

int64 PeakMemory() { return g_peak - g_base; }
#else
void ResetPeakMemory() {}
int64 PeakMemory() { return 0; }
#endif

} // namespace quna

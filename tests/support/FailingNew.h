// Replaces the operators new and delete of the program by ones that fail when they are told to. Include it in one source.
#pragma once

#include "qxUtils/BasicTypes.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace quna {

// The n-th allocation fails, once or for ever.
//
// Threads: Arm and Disarm by one thread, "the caller"; the counts by any.
class FailingNew {
public:
    // Whose allocations count.
    enum class EThreads {
        CALLER, // those of the thread that armed
        OTHERS,
        ALL
    };

    static void Arm(int64 n, bool forever, EThreads threads) {
        t_isCaller = true;
        s_threads = threads;
        s_forever = forever;
        s_calls = 0;
        s_failures = 0;
        s_n.store(n, std::memory_order_release);
    }
    static void Disarm() { s_n.store(0, std::memory_order_release); }
    // Since Arm, of the threads that count.
    static int64 NumCalls() { return s_calls.load(); }
    static int64 NumFailures() { return s_failures.load(); }

    // Allocations in the scope neither count nor fail: what is no part of the program under test.
    class Exempt {
    public:
        Exempt() { ++t_exempt; }
        Exempt(const Exempt&) = delete;
        Exempt& operator=(const Exempt&) = delete;
        ~Exempt() { --t_exempt; }
    };

    static bool MustFail() noexcept {
        const int64 n = s_n.load(std::memory_order_acquire);
        if (n == 0 || t_exempt > 0) return false;
        if (s_threads != EThreads::ALL && t_isCaller != (s_threads == EThreads::CALLER)) return false;
        const int64 call = s_calls.fetch_add(1, std::memory_order_relaxed) + 1;
        if (s_forever ? call < n : call != n) return false;
        s_failures.fetch_add(1, std::memory_order_relaxed);
        return true;
    }

private:
    static inline std::atomic<int64> s_n{0}; // 0: none fails
    static inline std::atomic<int64> s_calls{0};
    static inline std::atomic<int64> s_failures{0};
    static inline EThreads s_threads = EThreads::ALL;
    static inline bool s_forever = false;
    static inline thread_local bool t_isCaller = false;
    static inline thread_local int t_exempt = 0;
};

inline void* AllocateOrNull(std::size_t n) noexcept {
    return FailingNew::MustFail() ? nullptr : std::malloc(n ? n : 1);
}

inline void* AllocateOrNull(std::size_t n, std::align_val_t alignment) noexcept {
    const std::size_t a = static_cast<std::size_t>(alignment);
    return FailingNew::MustFail() ? nullptr : std::aligned_alloc(a, (n + a - 1) / a * a);
}

template <class... Arguments>
void* AllocateOrThrow(Arguments... arguments) {
    void* const p = AllocateOrNull(arguments...);
    if (!p) throw std::bad_alloc();
    return p;
}

} // namespace quna

// NOLINTBEGIN(misc-definitions-in-headers): these may not be inline, and one source includes them
void* operator new(std::size_t n) { return quna::AllocateOrThrow(n); }
void* operator new[](std::size_t n) { return quna::AllocateOrThrow(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return quna::AllocateOrNull(n); }
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return quna::AllocateOrNull(n); }
void* operator new(std::size_t n, std::align_val_t a) { return quna::AllocateOrThrow(n, a); }
void* operator new[](std::size_t n, std::align_val_t a) { return quna::AllocateOrThrow(n, a); }
void* operator new(std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
    return quna::AllocateOrNull(n, a);
}
void* operator new[](std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
    return quna::AllocateOrNull(n, a);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }
// NOLINTEND(misc-definitions-in-headers)

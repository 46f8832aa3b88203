// Preloaded into a program, it makes the wall clock jump: for all that asks the C library for the time. The kernel's own
// clock, and the monotonic ones, stay as they are.
#include <atomic>

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace {

std::atomic<long long> g_offset{0}; // seconds

int RealGetTime(clockid_t clock, timespec* out) { return static_cast<int>(::syscall(SYS_clock_gettime, clock, out)); }

} // namespace

extern "C" {

// Found by name by who is shown the wrong time.
__attribute__((visibility("default"))) void QxJumpWallClock(long long seconds) { g_offset += seconds; }

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* out) noexcept {
    const int result = RealGetTime(clock, out);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) out->tv_sec += g_offset;
    return result;
}

__attribute__((visibility("default"))) int gettimeofday(timeval* out, void*) noexcept {
    timespec now{};
    const int result = clock_gettime(CLOCK_REALTIME, &now);
    if (result == 0) {
        out->tv_sec = now.tv_sec;
        out->tv_usec = now.tv_nsec / 1000;
    }
    return result;
}

__attribute__((visibility("default"))) time_t time(time_t* out) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (out) *out = now.tv_sec;
    return now.tv_sec;
}
}

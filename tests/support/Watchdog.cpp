// A test that hangs says where: when none of the process's threads has used the processor for ten seconds, each writes its
// stack and the process aborts. Linked into every GoogleTest program.
//
// There is no thread for it, as processes that fork must not have one: a timer's signal looks at the processor time used.
// A forked child has no timer.
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <execinfo.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr int PERIOD_SECONDS = 2;
constexpr int LOOKS_WITHOUT_PROGRESS = 5;
constexpr int64_t PROGRESS_NANOS = 5'000'000; // less is the watchdog's own

// Written by the signal's handler and by the thread that runs the tests while the timer is off.
volatile sig_atomic_t g_idleLooks = 0;
int64_t g_usedNanos = 0;

void Say(const char* text) {
    if (::write(STDERR_FILENO, text, std::strlen(text)) < 0) return;
}

int64_t ProcessNanos() {
    timespec t{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return int64_t{t.tv_sec} * 1'000'000'000 + t.tv_nsec;
}

void WriteOwnStack(int) {
    Say("--- a thread:\n");
    std::array<void*, 64> frames;
    ::backtrace_symbols_fd(frames.data(), ::backtrace(frames.data(), static_cast<int>(frames.size())), STDERR_FILENO);
}

// The directory is read by the bare system call: nothing else may be called in a handler.
template <class Action>
void ForEachThread(Action action) {
    const int fd = ::open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    alignas(8) char buffer[4096];
    for (long n; fd >= 0 && (n = ::syscall(SYS_getdents64, fd, buffer, sizeof buffer)) > 0;) {
        for (long at = 0; at < n;) {
            uint16_t length = 0;
            std::memcpy(&length, buffer + at + 16, sizeof length);
            pid_t tid = 0;
            for (const char* c = buffer + at + 19; *c >= '0' && *c <= '9'; ++c) tid = tid * 10 + (*c - '0');
            if (tid) action(tid);
            at += length;
        }
    }
    ::close(fd);
}

void Look(int) {
    const int64_t used = ProcessNanos();
    const bool progress = used - g_usedNanos > PROGRESS_NANOS;
    g_usedNanos = used;
    g_idleLooks = progress ? 0 : g_idleLooks + 1;
    if (g_idleLooks < LOOKS_WITHOUT_PROGRESS) return;
    Say("This test has hung for ten seconds. Its threads:\n");
    const pid_t self = static_cast<pid_t>(::syscall(SYS_gettid));
    ForEachThread([self](pid_t tid) {
        if (tid == self) return;
        ::syscall(SYS_tgkill, ::getpid(), tid, SIGUSR2);
        const timespec turn{0, 50'000'000}; // one after the other, so that their lines don't mix
        ::nanosleep(&turn, nullptr);
    });
    WriteOwnStack(0);
    std::abort();
}

void Handle(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    ::sigaction(signal, &action, nullptr);
}

void SetTimer(int seconds) {
    const itimerval timer{{seconds, 0}, {seconds, 0}};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

class Watchdog : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override {
        g_idleLooks = 0;
        g_usedNanos = ProcessNanos();
        SetTimer(PERIOD_SECONDS);
    }
    void OnTestEnd(const testing::TestInfo&) override { SetTimer(0); }
};

const bool g_isSet = [] {
    void* frame = nullptr;
    ::backtrace(&frame, 1); // loads what it needs, which a handler may not do
    Handle(SIGALRM, &Look);
    Handle(SIGUSR2, &WriteOwnStack);
    testing::UnitTest::GetInstance()->listeners().Append(new Watchdog);
    return true;
}();

} // namespace

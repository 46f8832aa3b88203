// Processes that work on a file until they are killed.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "tests/support/TempDir.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace quna {

struct KillTotals {
    int64 kills = 0;
    int64 messages = 0;
    int64 faults = 0;

    void Add(const KillTotals& other) {
        kills += other.kills;
        messages += other.messages;
        faults += other.faults;
    }
};

// In the child, by any of its threads. A message is smaller than PIPE_BUF, so none is torn.
template <class Message>
void Tell(int pipe, const Message& message) {
    if (::write(pipe, &message, sizeof message) != static_cast<ssize_t>(sizeof message)) std::_Exit(3);
}

// One child after another works on the same file, tells through a pipe what it has done, and is killed at a random moment;
// what it has left is looked at, and the next one begins on it. So the recovery of one is in the way of the next one's kill.
template <class Message>
class KillLoop {
public:
    KillLoop(uint64 seed, KillTotals& totals)
        : m_seed(seed), m_random(seed), m_totals(totals), m_path(m_dir.File("store")) {}
    KillLoop(const KillLoop&) = delete;
    KillLoop& operator=(const KillLoop&) = delete;
    virtual ~KillLoop() = default;

    // Ends at the first fault of the file.
    void Run(int kills) {
        for (int i = 0; i < kills; ++i) {
            KillOne();
            if (!Check()) return;
        }
    }

protected:
    // The child's work, which tells Messages.
    [[noreturn]] virtual void Work(uint64 seed, int pipe) = 0;
    // In the order in which they were written.
    virtual void Take(const Message& message) = 0;
    // The file as the killed one has left it, and so must be left for the next. False after a fault that was reported.
    virtual bool Check() = 0;

    void Report(const std::string& fault) {
        ++m_totals.faults;
        std::printf("FAULT seed %llu kill %lld: %s\n", static_cast<unsigned long long>(m_seed),
                    static_cast<long long>(m_totals.kills), fault.c_str());
    }
    const std::string& Path() const { return m_path; }

private:
    void KillOne() {
        int pipe[2];
        if (::pipe(pipe) != 0) std::abort();
        const uint64 seed = m_random();
        std::fflush(stdout);
        const pid_t child = ::fork();
        if (child < 0) std::abort();
        if (child == 0) {
            ::close(pipe[0]);
            Work(seed, pipe[1]);
        }
        ::close(pipe[1]);
        std::thread killer([child, seed] {
            // Often soon, so that recovery is met; the moment itself is the test.
            const uint64 micros = 1000 + seed % (seed % 3 == 0 ? 20000 : 200000);
            const timespec time{0, static_cast<long>(micros * 1000)};
            ::nanosleep(&time, nullptr);
            ::kill(child, SIGKILL);
        });
        for (Message message;;) {
            const ssize_t n = ::read(pipe[0], &message, sizeof message);
            if (n < 0 && errno == EINTR) continue;
            if (n != static_cast<ssize_t>(sizeof message)) break;
            Take(message);
            ++m_totals.messages;
        }
        killer.join();
        int status = 0;
        ::waitpid(child, &status, 0);
        ::close(pipe[0]);
        ++m_totals.kills;
        if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) Report("the child ended by itself");
    }

    const uint64 m_seed;
    std::mt19937_64 m_random;
    KillTotals& m_totals;
    TempDir m_dir;
    const std::string m_path;
};

} // namespace quna

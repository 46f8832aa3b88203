#include "qxUtils/LockRecorder.h"

#ifdef QX_RECORD_LOCKS

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

namespace quna::LockRecorder {
namespace {

struct Held {
    const void* lock;
    ConstStringZ name;
};

// Several locks of these names may be held by one thread: their users order them themselves.
bool MayNest(const std::string& name) { return name == "CSpace" || name == "DOS::mutex_" || name == "TurnLock"; }

// Never destroyed: threads may take locks until the process ends.
class Recorder {
public:
    static Recorder& Instance() {
        static Recorder* const s_instance = new Recorder;
        return *s_instance;
    }

    // A pair that the thread has made before costs no lock of all threads.
    void Wants(const void* lock, ConstStringZ name) {
        Thread& mine = Mine();
        std::vector<ConstStringZ> newlyBefore;
        {
            std::lock_guard guard(mine.mutex);
            for (const Held& held : mine.held) {
                if (held.lock != lock && mine.pairs.insert({held.name, name}).second) newlyBefore.push_back(held.name);
            }
        }
        for (const ConstStringZ held : newlyBefore) AddPair(held, name);
    }

    void Holds(const void* lock, ConstStringZ name) {
        Thread& mine = Mine();
        std::lock_guard guard(mine.mutex);
        mine.held.push_back({lock, name});
    }

    void Releases(const void* lock) {
        if (Remove(Mine(), lock)) return;
        std::lock_guard guard(m_mutex);
        for (Thread* const other : m_threads) {
            if (Remove(*other, lock)) return;
        }
    }

private:
    // Lives as long as the process, since another thread may give back what this one took. Others only remove.
    struct Thread {
        std::mutex mutex; // guards `held` against others
        std::vector<Held> held;
        std::set<std::pair<ConstStringZ, ConstStringZ>> pairs;
    };

    Thread& Mine() {
        thread_local Thread* t_mine = nullptr;
        if (!t_mine) {
            t_mine = new Thread;
            std::lock_guard guard(m_mutex);
            m_threads.push_back(t_mine);
        }
        return *t_mine;
    }

    // The last one taken, as with recursion.
    static bool Remove(Thread& thread, const void* lock) {
        std::lock_guard guard(thread.mutex);
        std::vector<Held>& list = thread.held;
        const auto i = std::find_if(list.rbegin(), list.rend(), [&](const Held& held) { return held.lock == lock; });
        if (i == list.rend()) return false;
        list.erase(std::next(i).base());
        return true;
    }

    void AddPair(const std::string& held, const std::string& wanted) {
        std::lock_guard guard(m_mutex);
        if (!m_after[held].insert(wanted).second) return;
        std::vector<std::string> way;
        if (held == wanted ? MayNest(held) : !FindWay(wanted, held, way)) return;
        std::string text = "Locks are taken in a circle: " + held + " is held and " + wanted + " wanted; before:";
        for (const std::string& name : way) text += " " + name;
        text += "\n";
        std::fputs(text.c_str(), stderr);
        void* frames[64];
        ::backtrace_symbols_fd(frames, ::backtrace(frames, 64), STDERR_FILENO);
        std::abort();
    }

    bool FindWay(const std::string& from, const std::string& to, std::vector<std::string>& way) {
        std::set<std::string> seen{from};
        std::map<std::string, std::string> cameFrom;
        std::vector<std::string> open{from};
        while (!open.empty()) {
            const std::string name = open.back();
            open.pop_back();
            if (name == to) {
                for (std::string n = to; n != from; n = cameFrom[n]) way.insert(way.begin(), n);
                way.insert(way.begin(), from);
                return true;
            }
            for (const std::string& next : m_after[name]) {
                if (!seen.insert(next).second) continue;
                cameFrom[next] = name;
                open.push_back(next);
            }
        }
        return false;
    }

    Recorder() {
        std::atexit([] { Instance().Append(); });
    }

    void Append() {
        const char* const path = std::getenv("QX_LOCK_GRAPH");
        if (!path) return;
        std::lock_guard guard(m_mutex);
        std::string text;
        for (const auto& [held, after] : m_after) {
            for (const std::string& wanted : after) text += held + "\t" + wanted + "\n";
        }
        const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        if (fd < 0) return;
        if (::write(fd, text.data(), text.size()) < 0) std::perror(path);
        ::close(fd);
    }

    std::mutex m_mutex; // not recorded; outside those of the threads' lists
    std::vector<Thread*> m_threads;
    std::map<std::string, std::set<std::string>> m_after; // wanted while holding
};

} // namespace

void Wants(const void* lock, ConstStringZ name) { Recorder::Instance().Wants(lock, name); }
void Holds(const void* lock, ConstStringZ name) { Recorder::Instance().Holds(lock, name); }
void Releases(const void* lock) { Recorder::Instance().Releases(lock); }

} // namespace quna::LockRecorder

#endif

#include "qxUtils/LockRecorder.h"

#ifdef QX_RECORD_LOCKS

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

namespace quna::LockRecorder {
namespace {

// Taking a lock must not throw: std::lock_guard would leave it held for ever. Nor should the recorder take part in what a test
// does to operator new.
template <class T>
struct OwnMemory {
    using value_type = T;

    OwnMemory() = default;
    template <class U>
    OwnMemory(const OwnMemory<U>& /*other*/) noexcept {} // NOLINT(google-explicit-constructor): as allocators are

    T* allocate(size_t n) noexcept {
        void* const p = std::malloc(n * sizeof(T));
        if (!p) std::abort();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, size_t /*n*/) noexcept { std::free(p); }
    friend bool operator==(const OwnMemory& /*a*/, const OwnMemory& /*b*/) noexcept { return true; }
};

template <class T>
using Vector = std::vector<T, OwnMemory<T>>;
template <class T>
using Set = std::set<T, std::less<T>, OwnMemory<T>>;
template <class K, class T>
using Map = std::map<K, T, std::less<K>, OwnMemory<std::pair<const K, T>>>;

template <class T>
T* MakeForEver() {
    return ::new (OwnMemory<T>().allocate(1)) T;
}

struct Held {
    const void* lock;
    ConstStringZ name;
};

// Several locks of these names may be held by one thread: their users order them themselves.
bool MayNest(std::string_view name) { return name == "CSpace" || name == "DOS::mutex_" || name == "TurnLock"; }

// Never destroyed: threads may take locks until the process ends.
class Recorder {
public:
    static Recorder& Instance() {
        static Recorder* const s_instance = MakeForEver<Recorder>();
        return *s_instance;
    }

    // A pair that the thread has made before costs no lock of all threads.
    void Wants(const void* lock, ConstStringZ name) {
        Thread& mine = Mine();
        Vector<ConstStringZ> newlyBefore;
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
        Vector<Held> held;
        Set<std::pair<ConstStringZ, ConstStringZ>> pairs;
    };

    Thread& Mine() {
        thread_local Thread* t_mine = nullptr;
        if (!t_mine) {
            t_mine = MakeForEver<Thread>();
            std::lock_guard guard(m_mutex);
            m_threads.push_back(t_mine);
        }
        return *t_mine;
    }

    // The last one taken, as with recursion.
    static bool Remove(Thread& thread, const void* lock) {
        std::lock_guard guard(thread.mutex);
        Vector<Held>& list = thread.held;
        const auto i = std::find_if(list.rbegin(), list.rend(), [&](const Held& held) { return held.lock == lock; });
        if (i == list.rend()) return false;
        list.erase(std::next(i).base());
        return true;
    }

    void AddPair(std::string_view held, std::string_view wanted) {
        std::lock_guard guard(m_mutex);
        if (!m_after[held].insert(wanted).second) return;
        Vector<std::string_view> way;
        if (held == wanted ? MayNest(held) : !FindWay(wanted, held, way)) return;
        std::fprintf(stderr, "Locks are taken in a circle: %s is held and %s wanted; before:", held.data(),
                     wanted.data());
        for (const std::string_view name : way) std::fprintf(stderr, " %s", name.data());
        std::fputs("\n", stderr);
        void* frames[64];
        ::backtrace_symbols_fd(frames, ::backtrace(frames, 64), STDERR_FILENO);
        std::abort();
    }

    bool FindWay(std::string_view from, std::string_view to, Vector<std::string_view>& way) {
        Set<std::string_view> seen{from};
        Map<std::string_view, std::string_view> cameFrom;
        Vector<std::string_view> open{from};
        while (!open.empty()) {
            const std::string_view name = open.back();
            open.pop_back();
            if (name == to) {
                for (std::string_view n = to; n != from; n = cameFrom[n]) way.insert(way.begin(), n);
                way.insert(way.begin(), from);
                return true;
            }
            for (const std::string_view next : m_after[name]) {
                if (!seen.insert(next).second) continue;
                cameFrom[next] = name;
                open.push_back(next);
            }
        }
        return false;
    }

    friend Recorder* MakeForEver<Recorder>();

    Recorder() {
        std::atexit([] { Instance().Append(); });
    }

    void Append() {
        const char* const path = std::getenv("QX_LOCK_GRAPH");
        if (!path) return;
        std::lock_guard guard(m_mutex);
        std::string text;
        for (const auto& [held, after] : m_after) {
            for (const std::string_view wanted : after) text.append(held).append("\t").append(wanted).append("\n");
        }
        const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        if (fd < 0) return;
        if (::write(fd, text.data(), text.size()) < 0) std::perror(path);
        ::close(fd);
    }

    std::mutex m_mutex; // not recorded; outside those of the threads' lists
    Vector<Thread*> m_threads;
    // Wanted while holding. The names are literals; equal ones may stand at several addresses.
    Map<std::string_view, Set<std::string_view>> m_after;
};

} // namespace

void Wants(const void* lock, ConstStringZ name) { Recorder::Instance().Wants(lock, name); }
void Holds(const void* lock, ConstStringZ name) { Recorder::Instance().Holds(lock, name); }
void Releases(const void* lock) { Recorder::Instance().Releases(lock); }

} // namespace quna::LockRecorder

#endif

// Being told that what one has read is out of date, without asking again and again.
//
//     DGWatcher watcher("scene", [&] { Redraw(); });
//     ...
//     { CSpaceLock lock(cs, SharedRead);  watcher.Watch([&] { return scene.Get(); }); }
//
// As soon as anything that was read inside Watch has changed, the callback is queued, once. It is delivered outside every
// lock: by a thread of the library, or, with a queue of one's own, by whoever calls Deliver, for example once a frame.
// To hear of the next change the callback, or anybody, watches again.
#pragma once

#include "qxObject/DGDepNode.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace quna {

class DGWatcher;

// Callbacks that wait to be delivered, in the order in which they became due.
//
// Threads: all operations from any thread. Outlives its watchers.
class QX_API DGWatchQueue {
public:
    DGWatchQueue() = default;
    DGWatchQueue(const DGWatchQueue&) = delete;
    DGWatchQueue& operator=(const DGWatchQueue&) = delete;
    ~DGWatchQueue() noexcept(false); // asserts that no watcher is left in it

    // Runs the callbacks that wait now, on the calling thread, which holds no domain's lock; gives their number. What a
    // callback throws is traced. When another thread is at it, that one delivers.
    ssize_t Deliver();

    // Sleeps until a callback waits, for at most so long; false when none does.
    bool Wait(uint32 milliSecs);

    // The queue that a thread of the library delivers, which starts with the first use and never ends.
    static DGWatchQueue& OfLibrary();

private:
    friend class DGWatcher;

    void Push(const DGWatcher& watcher);
    void Remove(const DGWatcher& watcher);

    Mutex m_mutex{"DGWatcher::m_mutex"};    // taken under the graph's calls; nothing is called while it is held
    ConditionVariable m_changed;            // m_waiting has grown, or m_running has changed
    std::deque<const DGWatcher*> m_waiting; // each once; guarded by m_mutex
    const DGWatcher* m_running = nullptr;   // whose callback runs; guarded by m_mutex
    bool m_delivering = false;              // guarded by m_mutex
    std::thread::id m_deliverer;            // valid while m_delivering; guarded by m_mutex
};

// Threads: Watch under the lock, in any mode, of the domains of what it reads, by one thread at a time.
class QX_API DGWatcher final : public DGDepNode {
public:
    DGWatcher(xstring name, std::function<void()> callback, DGWatchQueue& queue = DGWatchQueue::OfLibrary());
    // Waits for the callback to end, if it is running on another thread: so the caller holds no lock that the callback
    // takes. Afterwards it is never called.
    ~DGWatcher() noexcept(false) override;

    // Calls `read` and returns its result. Its reads take the place of those of the call before.
    template <class Read>
    auto Watch(Read&& read) const {
        EnsureNoInnodesOrOutnodes();
        DGCalculation calculation(*this);
        const FinishAtEnd finish{calculation};
        return read();
    }

    void OnEvict() const override {}
    xstring Name() const override { return m_name; }
    void VisitContainingObject(IObjectVisitor&) const override {}
    void OnInvalidate() const override { m_queue.Push(*this); }

private:
    friend class DGWatchQueue;

    // What changes during the calculation has queued the callback already; what an exception leaves behind counts too.
    struct FinishAtEnd {
        ~FinishAtEnd() { static_cast<void>(calculation.Finish()); }
        DGCalculation& calculation;
    };

    const xstring m_name;
    const std::shared_ptr<const std::function<void()>> m_callback;
    DGWatchQueue& m_queue;
    mutable bool m_waits = false; // in the queue; guarded by it
};

} // namespace quna

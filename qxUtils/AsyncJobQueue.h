// A queue of jobs with a thread of its own that runs them in order.
#pragma once

#include "qxUtils/Event.h"
#include "qxUtils/Mutex.h"
#include "qxUtils/Thread.h"
#include "qxUtils/xdeque.h"

#include <mutex>
#include <thread>
#include <utility>

namespace quna {

// Job is a small copyable callable.
// Threads: Push from any thread; Start and Stop from one. An exception out of a job ends the process.
// Invariant: a batch that was popped runs to its end, so no job that was popped is dropped.
template <class Job>
class AsyncJobQueue {
public:
    using QUEUE = xdeque<Job, 512>;

    AsyncJobQueue() = default;
    AsyncJobQueue(const AsyncJobQueue&) = delete;
    AsyncJobQueue& operator=(const AsyncJobQueue&) = delete;

    void Start() {
        StartWith([this] { Run(); });
    }

    // Asks the thread to end after the batch that it next takes, and waits until it has. Does nothing when it was not
    // started.
    void Stop() {
        if (!thread_.joinable()) return;
        {
            const std::lock_guard lock(mutex_);
            finished_ = true;
            evtQueueNonEmpty_.Signal();
        }
        thread_.join();
    }

    void Push(const Job& job) {
        const std::lock_guard lock(mutex_);
        const bool wasEmpty = queue_.empty();
        queue_.push_back(job);
        if (wasEmpty) evtQueueNonEmpty_.Signal();
    }

    // Takes all jobs, in exchange for `out`; true when the thread has been asked to end.
    bool PopAll(QUEUE& out) {
        const std::lock_guard lock(mutex_);
        queue_.swap(out);
        evtQueueNonEmpty_.Reset();
        return finished_;
    }

protected:
    static constexpr ConstStringZ THREAD_NAME = "AsyncJobQueue";

    // Start, for a derived class whose thread takes the jobs in another order: `body` runs every job that it popped
    // before it ends, which it does when PopAll says so.
    template <class Body>
    void StartWith(Body body) {
        finished_ = false;
        thread_ = std::thread(std::move(body));
    }

    // Sleeps until there are jobs, or the thread has been asked to end.
    void WaitForJobs() { evtQueueNonEmpty_.Wait(); }

private:
    void Run() {
        SetThreadName(THREAD_NAME);
        QUEUE batch;
        for (;;) {
            WaitForJobs();
            const bool finished = PopAll(batch);
            for (Job& job : batch) job();
            if (finished) return;
            batch.clear();
        }
    }

    std::thread thread_;
    bool finished_ = false; // guarded by mutex_ while the thread runs
    QUEUE queue_;           // guarded by mutex_
    ManualResetEvent evtQueueNonEmpty_;
    Mutex mutex_{"AsyncJobQueue::mutex_"}; // its own event's mutex is taken under it
};

} // namespace quna

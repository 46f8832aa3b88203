// The two threads that serve binding without blocking.
#pragma once

#include "qxUtils/AsyncJobQueue.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <deque>
#include <list>

namespace quna {

class CSpace;
class DGIndepNodeForAsyncPref;
class PSpace;

// Reads and deserialises, never under a CSpace lock. What goes wrong with one object is traced and noted in its node,
// and does not stop the thread.
struct AsyncLoadJob {
    void operator()();
    DGIndepNodeForAsyncPref* node = nullptr;
};

// Enters what was loaded, under the CSpace lock.
struct AsyncUpdateRotJob {
    void operator()();
    DGIndepNodeForAsyncPref* node = nullptr;
};

class AsyncLoadThread : public AsyncJobQueue<AsyncLoadJob> {};

// Runs its jobs in order within a space. A space whose lock is taken goes behind the others: its holder may be waiting
// for one of those, or for a space to close. When the locks of all are taken, the thread stands in the queue of one, but
// not for long at a time, since a job of a space that is free may come.
//
// One hold of a lock serves several jobs, for a bounded time: between two holds whoever waits comes first.
class QX_API AsyncUpdateRotThread : public AsyncJobQueue<AsyncUpdateRotJob> {
public:
    void Start();

private:
    struct SpaceJobs {
        PSpace* pspace;
        CSpace* cspace;
        std::deque<AsyncUpdateRotJob> jobs;
    };

    void Run();
    void Sort(QUEUE& batch);
    void ServeNextSpace();
    static void RunSlice(SpaceJobs& space);

    // Of the thread alone.
    std::list<SpaceJobs> m_spaces; // those with jobs; the first is served next
    ssize_t m_numTaken = 0;        // how many at the end of the list were found locked, one after the other
    uint32 m_patience = 0;         // milliseconds to wait for a lock
};

} // namespace quna

#include "qxPersistStore/src/AsyncObjectLoader.h"

#include "qxObject/WCSpace.h"
#include "qxPersistStore/src/DGIndepNodeForAsyncPref.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/ROT.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "qxUtils/Thread.h"
#include "qxUtils/Tracer.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace quna {

namespace {

using Clock = std::chrono::steady_clock;

// A hold of a lock: long enough to be worth its taking, short for somebody who waits.
constexpr std::chrono::microseconds SLICE{100};
constexpr int JOBS_BETWEEN_LOOKS_AT_THE_CLOCK = 16;

constexpr uint32 FIRST_PATIENCE_MILLISECS = 1;
constexpr uint32 LAST_PATIENCE_MILLISECS = 16;

} // namespace

// The node has noted, and traced, what went wrong; nobody above can do more.
void AsyncLoadJob::operator()() {
    try {
        node->AsyncLoad();
    } catch (...) {
    }
}

// Under the exclusive lock of the node's space. Takes the job's reference.
void AsyncUpdateRotJob::operator()() {
    try {
        node->UpdateRot();
    } catch (...) { // a handler's: the request ends without an object
        node->TraceFailure("asking for");
        try {
            node->DeclareMissing();
        } catch (...) {
            TraceSwallowedException("AsyncUpdateRotJob");
        }
    }
    node->DecRef();
}

void AsyncUpdateRotThread::Start() {
    StartWith([this] { Run(); });
}

void AsyncUpdateRotThread::Run() {
    SetThreadName(THREAD_NAME);
    QUEUE batch;
    bool finished = false; // once asked for, whatever jobs are left by then
    for (;;) {
        if (m_spaces.empty() && !finished) WaitForJobs();
        finished = PopAll(batch);
        Sort(batch);
        batch.clear();
        if (!m_spaces.empty())
            ServeNextSpace();
        else if (finished)
            return;
    }
}

void AsyncUpdateRotThread::Sort(QUEUE& batch) {
    auto space = m_spaces.end();
    for (const AsyncUpdateRotJob& job : batch) {
        PSpace* const pspace = &job.node->rot_.GetPSpace();
        if (space == m_spaces.end() || space->pspace != pspace) {
            space =
                std::find_if(m_spaces.begin(), m_spaces.end(), [&](const SpaceJobs& s) { return s.pspace == pspace; });
            if (space == m_spaces.end()) space = m_spaces.insert(space, SpaceJobs{pspace, pspace->GetCSpace(), {}});
        }
        space->jobs.push_back(job);
    }
}

void AsyncUpdateRotThread::ServeNextSpace() {
    SpaceJobs& space = m_spaces.front();
    const bool allAreTaken = m_numTaken >= static_cast<ssize_t>(m_spaces.size());
    const bool locked =
        allAreTaken ? TryLockFor(space.cspace, Exclusive, m_patience) : TryLock(space.cspace, Exclusive);
    if (!locked) {
        m_spaces.splice(m_spaces.end(), m_spaces, m_spaces.begin());
        ++m_numTaken;
        m_patience = allAreTaken ? std::min(2 * m_patience, LAST_PATIENCE_MILLISECS) : FIRST_PATIENCE_MILLISECS;
        return;
    }
    m_numTaken = 0;
    CSpace* const cspace = space.cspace; // outlives the last job, while its lock is held
    RunSlice(space);
    Unlock(cspace);
    // Where others want the processor, better now than in the middle of the next hold.
    std::this_thread::yield();
    if (space.jobs.empty())
        m_spaces.pop_front();
    else
        m_spaces.splice(m_spaces.end(), m_spaces, m_spaces.begin());
}

void AsyncUpdateRotThread::RunSlice(SpaceJobs& space) {
    const ThreadPSpaceScope pair(space.pspace, space.cspace);
    const Clock::time_point end = Clock::now() + SLICE;
    do {
        for (int i = 0; i < JOBS_BETWEEN_LOOKS_AT_THE_CLOCK && !space.jobs.empty(); ++i) {
            AsyncUpdateRotJob job = space.jobs.front();
            space.jobs.pop_front();
            job();
        }
    } while (!space.jobs.empty() && Clock::now() < end);
}

} // namespace quna

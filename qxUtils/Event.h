// Events on which threads wait.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <mutex>

namespace quna {

// Stays set until one wait ends, which clears it. A signal wakes one waiter.
class QX_API AutoResetEvent {
public:
    void Signal();
    void Reset();
    void Wait();
    // Waits at most milliSecs. True when the event was signalled. Either way it is clear afterwards.
    bool Wait(uint32 milliSecs);

private:
    Mutex mutex_{"Event::mutex_"}; // leaf lock
    ConditionVariable condition_;
    bool signaled_ = false; // guarded by mutex_
};

// Stays set until Reset. A signal wakes all waiters.
class QX_API ManualResetEvent {
public:
    void Signal();
    void Reset();
    void Wait();
    // Waits at most milliSecs. True when the event is set.
    bool Wait(uint32 milliSecs);

private:
    Mutex mutex_{"Event::mutex_"}; // leaf lock
    ConditionVariable condition_;
    bool signaled_ = false; // guarded by mutex_
};

} // namespace quna

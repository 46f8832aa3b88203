// A counted blocker: whoever waits sleeps until nobody uses the thing any more.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <mutex>

namespace quna {

// Destruction with a count other than zero is a failed assertion ("count_ == 0").
class QX_API ThreadBlockerWhileUsed {
public:
    ThreadBlockerWhileUsed() = default;
    ThreadBlockerWhileUsed(const ThreadBlockerWhileUsed&) = delete;
    ThreadBlockerWhileUsed& operator=(const ThreadBlockerWhileUsed&) = delete;
    ~ThreadBlockerWhileUsed() noexcept(false);

    void operator++() { Increment(); }
    void operator--() { Decrement(); }
    void Increment();
    void Decrement(); // asserts "count_ > 0"
    void Wait();      // sleeps until the count is zero
    // The same, for at most so long; true when the count is zero.
    [[nodiscard]] bool Wait(uint32 milliSecs);

private:
    Mutex mutex_{"ThreadBlockerWhileUsed::mutex_"}; // leaf lock
    ConditionVariable condition_;
    int count_ = 0; // guarded by mutex_
};

} // namespace quna

// A counted blocker: whoever waits sleeps until nobody uses the thing any more.
#pragma once

#include "qxUtils/Export.h"

#include <condition_variable>
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

private:
    std::mutex mutex_; // leaf lock
    std::condition_variable condition_;
    int count_ = 0; // guarded by mutex_
};

} // namespace quna

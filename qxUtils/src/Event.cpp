#include "qxUtils/Event.h"

#include <chrono>

namespace quna {

void AutoResetEvent::Signal() {
    const std::lock_guard lock(mutex_);
    signaled_ = true;
    condition_.notify_one();
}

void AutoResetEvent::Reset() {
    const std::lock_guard lock(mutex_);
    signaled_ = false;
}

void AutoResetEvent::Wait() {
    std::unique_lock lock(mutex_);
    condition_.wait(lock, [this] { return signaled_; });
    signaled_ = false;
}

bool AutoResetEvent::Wait(uint32 milliSecs) {
    std::unique_lock lock(mutex_);
    const bool signaled = condition_.wait_for(lock, std::chrono::milliseconds(milliSecs), [this] { return signaled_; });
    signaled_ = false;
    return signaled;
}

void ManualResetEvent::Signal() {
    const std::lock_guard lock(mutex_);
    signaled_ = true;
    condition_.notify_all();
}

void ManualResetEvent::Reset() {
    const std::lock_guard lock(mutex_);
    signaled_ = false;
}

void ManualResetEvent::Wait() {
    std::unique_lock lock(mutex_);
    condition_.wait(lock, [this] { return signaled_; });
}

bool ManualResetEvent::Wait(uint32 milliSecs) {
    std::unique_lock lock(mutex_);
    return condition_.wait_for(lock, std::chrono::milliseconds(milliSecs), [this] { return signaled_; });
}

} // namespace quna

#include "qxUtils/ThreadBlockerWhileUsed.h"

#include "qxUtils/Assert.h"
#include "qxUtils/Tracer.h"

#include <chrono>
#include <exception>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/ThreadBlockerWhileUsed";

} // namespace

ThreadBlockerWhileUsed::~ThreadBlockerWhileUsed() noexcept(false) {
    if (std::uncaught_exceptions() == 0)
        QX_ASSERT(count_ == 0);
    else if (count_ != 0)
        TracerX() << "ThreadBlockerWhileUsed destroyed while in use: count " << count_ << "\n";
}

void ThreadBlockerWhileUsed::Increment() {
    const std::lock_guard lock(mutex_);
    ++count_;
}

void ThreadBlockerWhileUsed::Decrement() {
    const std::lock_guard lock(mutex_);
    QX_ASSERT(count_ > 0);
    if (--count_ == 0) condition_.notify_all();
}

void ThreadBlockerWhileUsed::Wait() {
    std::unique_lock lock(mutex_);
    condition_.wait(lock, [this] { return count_ == 0; });
}

bool ThreadBlockerWhileUsed::Wait(uint32 milliSecs) {
    std::unique_lock lock(mutex_);
    return condition_.wait_for(lock, std::chrono::milliseconds(milliSecs), [this] { return count_ == 0; });
}

} // namespace quna

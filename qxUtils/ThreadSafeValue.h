// Small values that several threads read and write.
#pragma once

#include "qxUtils/Mutex.h"

#include <atomic>
#include <mutex>

namespace quna {

// A value with a mutex of its own.
template <class T>
class ThreadSafeValue {
public:
    explicit ThreadSafeValue(const T& x) : value_(x) {}
    T Get() const {
        const std::lock_guard lock(mutex_);
        return value_;
    }
    void Set(const T& x) {
        const std::lock_guard lock(mutex_);
        value_ = x;
    }

private:
    mutable Mutex mutex_{"ThreadSafeValue::mutex_"}; // leaf lock
    T value_;                                        // guarded by mutex_
};

// An atomic reference count.
class ThreadSafeCount {
public:
    explicit ThreadSafeCount(int count) : count_(count) {}
    int operator++() { return count_.fetch_add(1, std::memory_order_relaxed) + 1; }
    // What other owners did before their decrement is visible to whoever sees the count reach zero.
    int operator--() { return count_.fetch_sub(1, std::memory_order_acq_rel) - 1; }
    int Get() const { return count_.load(std::memory_order_relaxed); }

private:
    std::atomic<int> count_;
};

} // namespace quna

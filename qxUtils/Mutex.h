// The mutexes of this library: the standard ones, each with a name for the recorder of lock orders.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/LockRecorder.h"

#include <condition_variable>
#include <mutex>
#include <shared_mutex>

namespace quna {

// The name of a lock, kept in the builds that record locks only.
class LockName {
public:
#ifdef QX_RECORD_LOCKS
    constexpr explicit LockName(ConstStringZ name) noexcept : m_name(name) {}
    constexpr ConstStringZ Get() const { return m_name; }

private:
    ConstStringZ m_name;
#else
    constexpr explicit LockName(ConstStringZ /*name*/) noexcept {}
    static constexpr ConstStringZ Get() { return nullptr; }
#endif
};

// Meets the standard's Lockable. In ordinary builds it is a std::mutex and nothing else.
class Mutex {
public:
    // `name`, a literal, says class and field. Locks of one name have one place in the order of locks.
    constexpr explicit Mutex(ConstStringZ name) noexcept : m_name(name) {}
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() {
        LockRecorder::Wants(this, m_name.Get());
        m_mutex.lock();
        LockRecorder::Holds(this, m_name.Get());
    }
    bool try_lock() {
        if (!m_mutex.try_lock()) return false;
        LockRecorder::Holds(this, m_name.Get());
        return true;
    }
    void unlock() {
        LockRecorder::Releases(this);
        m_mutex.unlock();
    }

private:
    friend class ConditionVariable;

    [[no_unique_address]] const LockName m_name;
    std::mutex m_mutex;
};

// std::condition_variable for a Mutex.
class ConditionVariable {
public:
    void notify_one() noexcept { m_condition.notify_one(); }
    void notify_all() noexcept { m_condition.notify_all(); }

    void wait(std::unique_lock<Mutex>& lock) {
        Inner inner(lock);
        m_condition.wait(inner.lock);
    }
    template <class Predicate>
    void wait(std::unique_lock<Mutex>& lock, Predicate predicate) {
        while (!predicate()) wait(lock);
    }
    template <class Clock, class Duration>
    std::cv_status wait_until(std::unique_lock<Mutex>& lock, const std::chrono::time_point<Clock, Duration>& end) {
        Inner inner(lock);
        return m_condition.wait_until(inner.lock, end);
    }
    template <class Clock, class Duration, class Predicate>
    bool wait_until(std::unique_lock<Mutex>& lock, const std::chrono::time_point<Clock, Duration>& end,
                    Predicate predicate) {
        while (!predicate()) {
            if (wait_until(lock, end) == std::cv_status::timeout) return predicate();
        }
        return true;
    }
    template <class Rep, class Period>
    std::cv_status wait_for(std::unique_lock<Mutex>& lock, const std::chrono::duration<Rep, Period>& time) {
        return wait_until(lock, std::chrono::steady_clock::now() + time);
    }
    template <class Rep, class Period, class Predicate>
    bool wait_for(std::unique_lock<Mutex>& lock, const std::chrono::duration<Rep, Period>& time, Predicate predicate) {
        return wait_until(lock, std::chrono::steady_clock::now() + time, std::move(predicate));
    }

private:
    // Lends the mutex inside to the standard's condition variable. The caller's lock object goes on to say that it is
    // locked, which is true again when the wait is over. A mutex that is waited on belongs to nobody meanwhile.
    struct Inner {
        explicit Inner(std::unique_lock<Mutex>& outer) : mutex(*outer.mutex()), lock(mutex.m_mutex, std::adopt_lock) {
            LockRecorder::Releases(&mutex);
        }
        Inner(const Inner&) = delete;
        Inner& operator=(const Inner&) = delete;
        ~Inner() {
            lock.release();
            LockRecorder::Holds(&mutex, mutex.m_name.Get());
        }
        Mutex& mutex;
        std::unique_lock<std::mutex> lock;
    };

    std::condition_variable m_condition;
};

// Meets the standard's SharedLockable.
class SharedMutex {
public:
    explicit SharedMutex(ConstStringZ name) : m_name(name) {}
    SharedMutex(const SharedMutex&) = delete;
    SharedMutex& operator=(const SharedMutex&) = delete;

    void lock() {
        LockRecorder::Wants(this, m_name.Get());
        m_mutex.lock();
        LockRecorder::Holds(this, m_name.Get());
    }
    void unlock() {
        LockRecorder::Releases(this);
        m_mutex.unlock();
    }
    void lock_shared() {
        LockRecorder::Wants(this, m_name.Get());
        m_mutex.lock_shared();
        LockRecorder::Holds(this, m_name.Get());
    }
    void unlock_shared() {
        LockRecorder::Releases(this);
        m_mutex.unlock_shared();
    }

private:
    [[no_unique_address]] const LockName m_name;
    std::shared_mutex m_mutex;
};

} // namespace quna

// Scoped owners of objects that end by their own Close.
#pragma once

#include "qxUtils/Tracer.h"

#include <exception>
#include <utility>

namespace quna {

// Calls Close at the end of its scope, also when an exception passes; a failure of that Close is then traced, since
// two exceptions cannot pass at once.
template <class T>
class AutoCloser {
public:
    explicit AutoCloser(T* p = nullptr) : ptr_(p) {}
    AutoCloser(const AutoCloser&) = delete;
    AutoCloser& operator=(const AutoCloser&) = delete;
    ~AutoCloser() noexcept(false) {
        if (!ptr_) return;
        if (std::uncaught_exceptions() == m_uncaughtAtConstruction) {
            Close();
            return;
        }
        try {
            Close();
        } catch (...) {
            TraceSwallowedException("AutoCloser");
        }
    }

    T* Get() const { return ptr_; }
    T* operator->() const { return ptr_; }
    T& operator*() const { return *ptr_; }
    explicit operator bool() const { return ptr_ != nullptr; }

    // Closes now. Forgets the object first, so that Close is never called twice, even when it throws.
    void Close() { std::exchange(ptr_, nullptr)->Close(); }
    T* Release() { return std::exchange(ptr_, nullptr); }

    T* ptr_;

private:
    int m_uncaughtAtConstruction = std::uncaught_exceptions();
};

// The same for a store's transactions.
template <class T>
class AutoCloser2 : public AutoCloser<T> {
public:
    using AutoCloser<T>::AutoCloser;
};

} // namespace quna

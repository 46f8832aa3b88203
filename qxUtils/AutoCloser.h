// Scoped owners of objects that end by their own Close.
#pragma once

#include "qxUtils/Tracer.h"

#include <exception>
#include <utility>

namespace quna {

namespace detail {

struct CloseByMember {
    template <class T>
    static void Do(T* p) {
        p->Close();
    }
};

// For classes that are opaque to the caller and end by a free function Close.
struct CloseByFunction {
    template <class T>
    static void Do(T* p) {
        Close(p);
    }
};

} // namespace detail

// Calls Close at the end of its scope, also when an exception passes; a failure of that Close is then traced, since
// two exceptions cannot pass at once.
template <class T, class Closer = detail::CloseByMember>
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
    void Close() { Closer::Do(std::exchange(ptr_, nullptr)); }
    T* Release() { return std::exchange(ptr_, nullptr); }

    T* ptr_;

private:
    int m_uncaughtAtConstruction = std::uncaught_exceptions();
};

// The same for a store's transactions, stores and spaces: closes by the free function.
template <class T>
class AutoCloser2 : public AutoCloser<T, detail::CloseByFunction> {
public:
    using AutoCloser<T, detail::CloseByFunction>::AutoCloser;
};

} // namespace quna

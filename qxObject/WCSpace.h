// Scoped forms of the domain operations: what the constructor does, the destructor undoes.
//
// The destructors call operations that assert, and let the assertion out: none of these scopes may be owned by a
// std::unique_ptr or be a member of a class whose destructor is noexcept. They belong on the stack.
#pragma once

#include "qxObject/CSpace.h"
#include "qxObject/ThreadPtr.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Tracer.h"

#include <exception>
#include <vector>

namespace quna {

// Runs `undo` in a destructor: while an exception is passing, an exception out of `undo` is dropped, since the first
// one tells what went wrong and a second one would end the process.
template <class Undo>
void UndoInDestructor(ConstStringZ scope, int uncaughtAtConstruction, Undo undo) {
    if (std::uncaught_exceptions() <= uncaughtAtConstruction) {
        undo();
        return;
    }
    try {
        undo();
    } catch (...) {
        TraceSwallowedException(scope);
    }
}

// Locks a domain for the scope.
class CSpaceLock {
public:
    CSpaceLock(CSpace* cs, ECSpaceLockMode mode) : cs_(cs) {
        QX_ASSERT_IN("WCSpace", cs_);
        Lock(cs_, mode);
    }
    // Locks the thread's current domain.
    explicit CSpaceLock(ECSpaceLockMode mode) : CSpaceLock(GetThreadCSpace(), mode) {}
    CSpaceLock(const CSpaceLock&) = delete;
    CSpaceLock& operator=(const CSpaceLock&) = delete;
    ~CSpaceLock() noexcept(false) {
        UndoInDestructor("~CSpaceLock", uncaught_, [this] { Unlock(cs_); });
    }

private:
    CSpace* const cs_;
    const int uncaught_ = std::uncaught_exceptions();
};

// Records a lock for the scope without taking it.
class CSpacePseudoLock {
public:
    CSpacePseudoLock(CSpace* cs, ECSpaceLockMode mode) : cs_(cs) {
        QX_ASSERT_IN("WCSpace", cs_);
        RecordLock(cs_, mode);
    }
    CSpacePseudoLock(const CSpacePseudoLock&) = delete;
    CSpacePseudoLock& operator=(const CSpacePseudoLock&) = delete;
    ~CSpacePseudoLock() noexcept(false) {
        UndoInDestructor("~CSpacePseudoLock", uncaught_, [this] { RecordUnlock(cs_); });
    }

private:
    CSpace* const cs_;
    const int uncaught_ = std::uncaught_exceptions();
};

// Locks a set of domains for the scope. Keeps its own copy of the list.
class MultipleCSpaceLock {
public:
    MultipleCSpaceLock(CSpace** spaces, ssize_t n, ECSpaceLockMode mode) : spaces_(spaces, spaces + n) {
        LockMultipleCSpaces(spaces_.data(), n, mode);
    }
    MultipleCSpaceLock(const MultipleCSpaceLock&) = delete;
    MultipleCSpaceLock& operator=(const MultipleCSpaceLock&) = delete;
    ~MultipleCSpaceLock() noexcept(false) {
        UndoInDestructor("~MultipleCSpaceLock", uncaught_,
                         [this] { UnlockMultipleCSpaces(spaces_.data(), static_cast<ssize_t>(spaces_.size())); });
    }

private:
    std::vector<CSpace*> spaces_;
    const int uncaught_ = std::uncaught_exceptions();
};

// A domain that lives for the scope.
class CSpaceCreator {
public:
    explicit CSpaceCreator(int milliSecsPerGc = QUNA_GC_THREAD_DONT_START, GCThreadFn fn = GCThreadFn())
        : cs_(CreateCSpace(milliSecsPerGc, fn)) {}
    CSpaceCreator(const CSpaceCreator&) = delete;
    CSpaceCreator& operator=(const CSpaceCreator&) = delete;
    ~CSpaceCreator() noexcept(false) {
        UndoInDestructor("~CSpaceCreator", uncaught_, [this] { Destroy(cs_); });
    }

    CSpace* Get() const noexcept { return cs_; }
    operator CSpace*() const noexcept { return cs_; } // NOLINT(google-explicit-constructor): stands for its domain

private:
    CSpace* const cs_;
    const int uncaught_ = std::uncaught_exceptions();
};

// Sets the thread's current T for the scope and puts the old one back.
template <class T>
class DeclareThreadPtr {
public:
    explicit DeclareThreadPtr(T* p) : m_prev(GetThreadPtr<T>()) { SetThreadPtr<T>(p); }
    DeclareThreadPtr(const DeclareThreadPtr&) = delete;
    DeclareThreadPtr& operator=(const DeclareThreadPtr&) = delete;
    ~DeclareThreadPtr() { SetThreadPtr<T>(m_prev); }

private:
    T* m_prev;
};

} // namespace quna

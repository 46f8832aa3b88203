// Thread pointers: for each type T, one `T*` of the calling thread, its current T.
#pragma once

#include "qxUtils/Export.h"

namespace quna {

class CSpace;
QX_API CSpace* GetThreadCSpace();
QX_API void SetThreadCSpace(CSpace* cs);

// Where the thread pointer of `T` is kept. A module that keeps its own thread-local specialises this beside the
// declaration of `T`, before anything uses the pointer.
template <class T>
struct ThreadPtrTraits {
    static T* Get() noexcept { return Slot(); }
    static void Set(T* p) noexcept { Slot() = p; }

private:
    // One slot of each thread in the whole process: visible across libraries.
    QX_API static T*& Slot() noexcept {
        thread_local T* slot = nullptr;
        return slot;
    }
};

template <>
struct ThreadPtrTraits<CSpace> {
    static CSpace* Get() { return GetThreadCSpace(); }
    static void Set(CSpace* cs) { SetThreadCSpace(cs); }
};

template <class T>
T* GetThreadPtr() {
    return ThreadPtrTraits<T>::Get();
}

template <class T>
void SetThreadPtr(T* p) {
    ThreadPtrTraits<T>::Set(p);
}

} // namespace quna

// Making objects that belong to the thread's current domain from the start.
#pragma once

#include "qxObject/CSpace.h"
#include "qxObject/IObject.h"

#include <utility>

namespace quna {

// Registers a new object that nobody else knows with the calling thread's current CSpace. One that cannot be registered, for
// want of memory, ends.
inline void RegisterOrDestroy(ptr<IObject> object) {
    try {
        RegisterGcObject(object);
    } catch (...) {
        object->Destroy();
        throw;
    }
}

// A new T, registered with the calling thread's current CSpace, whose lock the thread holds.
template <class T, class... Args>
T* DollarNew(Args&&... args) {
    T* object = new T(std::forward<Args>(args)...);
    RegisterOrDestroy(ptr<IObject>(object));
    return object;
}

} // namespace quna

// Making objects that belong to the thread's current domain from the start.
#pragma once

#include "qxObject/CSpace.h"
#include "qxObject/IObject.h"

#include <utility>

namespace quna {

// A new T, registered with the calling thread's current CSpace, whose lock the thread holds.
template <class T, class... Args>
T* DollarNew(Args&&... args) {
    T* object = new T(std::forward<Args>(args)...);
    try {
        RegisterGcObject(ptr<IObject>(object));
    } catch (...) {
        delete object;
        throw;
    }
    return object;
}

} // namespace quna

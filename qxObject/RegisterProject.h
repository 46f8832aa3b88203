// The registration of this library's own types.
#pragma once

#include "qxUtils/Export.h"

namespace quna {

struct XTarget;

// This library's target, "Quna/Core/qxObject"; registered on the first call.
QX_API XTarget* Quna_Core_qxObject_GetXTarget();

} // namespace quna

// Exported under these names, so that a loader finds them. The first registers the types of this library: the root
// interface, the reflected exception, and the operations of vectors of the basic types. Each acts once in a process,
// whatever threads call it; nothing is ever taken out of the registry.
extern "C" {
QX_API void Register_Project_qxObject();
QX_API void Unregister_Project_qxObject();
}

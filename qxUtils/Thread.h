// Names of threads.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

// Names the calling thread. The whole name is kept for GetThreadName; the system gets its first 15 characters, all
// that it takes.
QX_API void SetThreadName(const char* name);

// The calling thread's name as it was set, "" when it was not. Valid until the thread sets another name.
QX_API ConstStringZ GetThreadName();

} // namespace quna

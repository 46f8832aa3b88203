// A member of a store transaction.
#pragma once

#include "qxObject/CSpace.h"

namespace quna {

class PSpace;

struct PSpaceLockMode {
    PSpace* space = nullptr;
    ECSpaceLockMode mode = SharedRead; // the lock that the thread holds on the space's CSpace
};

} // namespace quna

// The small persistent integer that stands for a class in object records.
#pragma once

#include "qxUtils/BasicTypes.h"

namespace quna {

// 1 and up; 0 is never a class. Never renumbered, since records on disk hold it.
using CID = ssize_t;

} // namespace quna

// What all fuzz targets have in common.
#pragma once

#include "qxUtils/BasicTypes.h"

namespace quna {

// Ends the process with a text, which is how a fuzz target reports a fault, unless the condition holds.
void FuzzRequire(bool condition, const char* what);

// For speed: no line of the trace is written, and what opening a store takes from the system is kept for the next.
void PrepareForFuzz();

// The most memory that was in use since the last ResetPeakMemory, without what was before. 0 in builds that can't tell.
void ResetPeakMemory();
int64 PeakMemory();

} // namespace quna

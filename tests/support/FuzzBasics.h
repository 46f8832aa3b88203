// What all fuzz targets have in common.
#pragma once

#include "qxUtils/BasicTypes.h"

namespace quna {

// Ends the process with a text, which is how a fuzz target reports a fault, unless the condition holds.
void FuzzRequire(bool condition, const char* what);

// No line of the trace is written: a target that prints is slow.
void SilenceTraceForFuzz();

// The most memory that was in use since the last ResetPeakMemory, without what was before. 0 in builds that can't tell.
void ResetPeakMemory();
int64 PeakMemory();

} // namespace quna

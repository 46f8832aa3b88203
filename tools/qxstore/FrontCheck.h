// Checks the front area of a store's file: the two checkpoint headers and the allocation ring.
#pragma once

#include "tools/qxstore/Findings.h"
#include "tools/qxstore/OpenedStore.h"

namespace quna::qxstore {

// One header and what the ring says is enough to open the store, so opening passes over the others. A write that a crash
// has torn leaves one of them invalid, and the next open for writing overwrites it: after a clean close all are valid.
void CheckFront(OpenedStore& store, Findings& findings);

} // namespace quna::qxstore

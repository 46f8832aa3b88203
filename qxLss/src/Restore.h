// RestoreLss with another table of system calls.
#pragma once

#include "qxLss/Restore.h"
#include "qxLss/src/SysCalls.h"

namespace quna {

QX_API RestoredLss RestoreLssForTest(SysCalls& sys, ConstStringZ basePath, ConstStringZ deltasDirPath,
                                     RestoreTarget target, ConstStringZ newPath);

} // namespace quna

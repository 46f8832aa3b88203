// New names for classes that a store knows under old ones.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

struct ReflectedClass;

// One renamed class. Both names are full, terminated and not owned. Reflected as "quna::ClassNameTranslation".
struct ClassNameTranslation {
    ConstStringZ oldName = nullptr;
    ConstStringZ newName = nullptr;
};

// A table of renamed classes, applied when a store opens: one pass, so a new name is not translated again; where an old
// name is listed twice, the later entry wins. Reflected as "quna::ClassNameTranslationTable".
struct ClassNameTranslationTable {
    const ClassNameTranslation* entries = nullptr; // `count` of them, not owned
    ssize_t count = 0;
};

QX_API const ReflectedClass& _GetReflected(const ClassNameTranslation*);
QX_API const ReflectedClass& _GetReflected(const ClassNameTranslationTable*);

} // namespace quna

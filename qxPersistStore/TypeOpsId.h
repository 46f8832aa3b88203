// The small persistent integer that stands for a type's description in records.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

class ReflectionByteCodeValue;
struct ReflectedClass;
struct ReflectedTypedef;
struct TypeOps;

// 1 and up; 0 is never an id. Never renumbered, since records on disk hold it. Reflected as "quna::TypeOpsId".
using TypeOpsId = ssize_t;

// A type's description and its operations in this process. Both stay valid as long as the store is open. Reflected as
// "quna::BcTypeOps".
struct BcTypeOps {
    const ReflectionByteCodeValue* rbcv = nullptr;
    const TypeOps* typeops = nullptr;
};

QX_API const ReflectedClass& _GetReflected(const BcTypeOps*);

} // namespace quna

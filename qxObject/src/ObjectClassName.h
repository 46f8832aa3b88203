// The name of an object's class, for messages.
#pragma once

#include "qxObject/IObject.h"

#include <string>

namespace quna {

// "(unnamed)" for an object without a record.
std::string ObjectClassName(const ReflectedClass* rc);

} // namespace quna

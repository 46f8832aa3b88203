// The record of a typedef: another name for a type.
#pragma once

#include "qxObject/ReflectedMember.h"
#include "qxUtils/BasicTypes.h"

namespace quna {

struct ReflectedTypedef {
    ConstStringZ GetName() const { return m_name; }

    ConstStringZ m_name = nullptr; // fully qualified
    TypeDescriptionFn m_typeFn = nullptr;
};

} // namespace quna

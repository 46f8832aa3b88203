// The record of a free function.
#pragma once

#include "qxObject/ReflectedMember.h"
#include "qxUtils/BasicTypes.h"

namespace quna {

struct ReflectedGlobalFunction {
    ConstStringZ GetName() const { return m_name; }

    ConstStringZ m_name = nullptr; // fully qualified
    TypeDescriptionFn m_resultTypeFn = nullptr;
    const ReflectedArgument* m_args = nullptr;
    ssize_t m_numArgs = 0;
    InvokeFn m_invokeFn = nullptr;
};

} // namespace quna

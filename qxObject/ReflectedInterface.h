// The record of an interface.
#pragma once

#include "qxObject/ReflectedMember.h"
#include "qxUtils/BasicTypes.h"

namespace quna {

// A static table, found through `_GetReflected(const I*)`. Its address is the key of QueryInterface.
struct ReflectedInterface {
    ConstStringZ GetName() const { return m_name; }

    ConstStringZ m_name = nullptr; // fully qualified
    uint32 m_flags = 0;
    const ConstStringZ* m_bases = nullptr; // names of the interfaces that it extends
    ssize_t m_numBases = 0;
    const ReflectedMethod* m_methods = nullptr;
    ssize_t m_numMethods = 0;
};

} // namespace quna

// The record of an enum type.
#pragma once

#include "qxObject/TypeOps.h"
#include "qxUtils/BasicTypes.h"

namespace quna {

struct ReflectedEnumValue {
    ConstStringZ m_name = nullptr;
    int64 m_value = 0;
};

struct ReflectedEnum {
    ConstStringZ GetName() const { return m_name; }

    ConstStringZ m_name = nullptr; // fully qualified
    ssize_t m_size = 0;            // bytes of a value
    const ReflectedEnumValue* m_values = nullptr;
    ssize_t m_numValues = 0;
    TypeOps m_ops;
};

} // namespace quna

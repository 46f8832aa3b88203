// The parts of reflected records: types by description, fields, arguments and methods.
#pragma once

#include "qxObject/ReflectionByteCode.h"
#include "qxUtils/BasicTypes.h"

namespace quna {

// Gives the description of a type, which lives for ever. Null where a type has no description.
using TypeDescriptionFn = ReflectionByteCode (*)();

struct ReflectedField {
    ConstStringZ m_name = nullptr;
    TypeDescriptionFn m_typeFn = nullptr;
    // The address of the field in an object of the class.
    void* (*m_addressFn)(void* object) = nullptr;
    schema_t m_sinceSchema = 1; // of the class's record

    const void* AddressIn(const void* object) const { return m_addressFn(const_cast<void*>(object)); }
};

struct ReflectedArgument {
    ConstStringZ m_name = nullptr;
    TypeDescriptionFn m_typeFn = nullptr;
};

// Calls a function: `args` are the addresses of the arguments, or of what an argument refers to; `result` is raw memory
// for the result, or for the address of what a reference result refers to, unused for void.
using InvokeFn = void (*)(void* result, void* const* args);

struct ReflectedMethod {
    ConstStringZ m_name = nullptr;
    TypeDescriptionFn m_resultTypeFn = nullptr;
    const ReflectedArgument* m_args = nullptr;
    ssize_t m_numArgs = 0;
    InvokeFn m_invokeFn = nullptr; // args[0] is the address of the object's pointer
};

} // namespace quna

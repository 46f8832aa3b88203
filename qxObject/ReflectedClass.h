// The record of a class.
#pragma once

#include "qxObject/IObject.h"
#include "qxObject/ReflectedMember.h"
#include "qxObject/TypeOps.h"
#include "qxUtils/BasicTypes.h"

namespace quna {

// A bit of ReflectedClass::m_flags: an application makes instances of the class; without it, the class is a part that
// only its own library makes.
inline constexpr uint32 REFLECTED_CLASS_FOR_APPLICATIONS = 1;

// A static table, found through `_GetReflected(const T*)`; one of each class in the process, so that the address of the
// record is the class's identity here. Its name is the class's identity in files.
struct ReflectedClass {
    ConstStringZ GetName() const { return m_name; }
    ssize_t GetSize() const { return m_size; }
    bool CanCreate() const { return m_createFn != nullptr; }

    // A new object that belongs to no domain yet; null when the class can't create.
    ptr<IObject> Create() const { return m_createFn ? m_createFn() : ptr<IObject>(); }

    ConstStringZ m_name = nullptr; // fully qualified
    uint32 m_flags = 0;
    ssize_t m_size = 0; // bytes of an object
    ptr<IObject> (*m_createFn)() = nullptr;
    const IObject::FnTable* m_IObjectFnTable = nullptr; // null for a class whose values are no objects
    TypeOps m_ops;

    const ReflectedField* m_fields = nullptr;
    ssize_t m_numFields = 0;
    const ReflectedField* m_modelFields = nullptr; // whose changes run through the operation hooks
    ssize_t m_numModelFields = 0;
    const ReflectedField* m_dependentFields = nullptr; // calculated from others
    ssize_t m_numDependentFields = 0;
    const ReflectedMethod* m_methods = nullptr;
    ssize_t m_numMethods = 0;

    // The names of the interfaces that the objects offer: those that another one extends first, then those that the
    // class names itself.
    const ConstStringZ* m_interfaces = nullptr;
    ssize_t m_numIndirectInterfaces = 0;
    ssize_t m_numDirectInterfaces = 0;
};

} // namespace quna

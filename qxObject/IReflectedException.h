// Exceptions that have a record, so that code that learns types at run time can handle them.
#pragma once

#include "qxUtils/Exceptions.h"
#include "qxUtils/Export.h"

namespace quna {

struct ReflectedClass;

class QX_API IReflectedException : public IException {
public:
    virtual const ReflectedClass* GetReflectedClass() const = 0;
};

} // namespace quna

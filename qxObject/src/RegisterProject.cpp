#include "qxObject/RegisterProject.h"

#include "qxObject/QunaSystemException.h"
#include "qxObject/Reflect.h"
#include "qxObject/ReflectedInterface.h"
#include "qxUtils/Guid.h"
#include "qxUtils/xstring.h"

#include <mutex>

namespace quna {

namespace {

constexpr dsTarget TARGET = {"Quna/Core/qxObject", nullptr, 0, nullptr, 0};

constexpr ReflectedInterface IOBJECT_RECORD = {"quna::IObject", 0, nullptr, 0, nullptr, 0};

template <class... Elements>
void RegisterVectorsOf() {
    (RegisterTypeOpsOf<xvector<Elements>>(), ...);
}

void RegisterProject() {
    XTarget* const target = Quna_Core_qxObject_GetXTarget();
    RegisterOrThrow(IOBJECT_RECORD, target);
    RegisterOrThrow(_GetReflected(static_cast<const QunaSystemException*>(nullptr)), target);
    RegisterVectorsOf<bool, char, int8, int16, int32, int64, uint8, uint16, uint32, uint64, float32, float64, xstring,
                      Guid>();
}

} // namespace

const ReflectedInterface& _GetReflected(const IObject*) { return IOBJECT_RECORD; }

XTarget* Quna_Core_qxObject_GetXTarget() {
    static XTarget* const target = RegisterTarget(TARGET);
    return target;
}

} // namespace quna

extern "C" {

void Register_Project_qxObject() {
    static std::once_flag s_called;
    std::call_once(s_called, quna::RegisterProject);
}

// The registry keeps what it has: records are static, and other libraries may still use them.
void Unregister_Project_qxObject() {}
}

#include "qxPersistStore/Goid.h"

#include "qxObject/Reflect.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxPersistStore/src/ReflectRecords.h"
#include "qxUtils/xostream.h"

#include <iterator>

namespace quna {

xostream& operator<<(xostream& os, const Goid& goid) {
    return os << goid.oidSpaceGuid << ':' << HexNumber<OidLow>(goid.oidLow);
}

// ---- Reflection -----------------------------------------------------------------------------------------------------

namespace {

constexpr ReflectedField GOID_FIELDS[] = {
    FIELD<&Goid::oidSpaceGuid, "oidSpaceGuid">,
    FIELD<&Goid::oidLow, "oidLow">,
};

constexpr ReflectedClass MakeGoidClass() {
    ReflectedClass rc;
    rc.m_name = "quna::Goid";
    rc.m_flags = REFLECTED_CLASS_FOR_APPLICATIONS;
    rc.m_size = static_cast<ssize_t>(sizeof(Goid));
    rc.m_ops = MakeLifeTypeOps<Goid>();
    rc.m_fields = GOID_FIELDS;
    rc.m_numFields = static_cast<ssize_t>(std::size(GOID_FIELDS));
    return rc;
}

constinit const ReflectedClass GOID = MakeGoidClass();

} // namespace

const ReflectedClass& _GetReflected(const Goid*) { return GOID; }
const TypeOps* _GetTypeOps(const Goid*) { return &GOID.m_ops; }
void _Register_Goid(XTarget* target) { RegisterOrThrow(GOID, target); }

} // namespace quna

#include "qxPersistStore/IPersistable.h"

#include "qxObject/ReflectedClass.h"
#include "qxObject/ReflectedInterface.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxPersistStore/IPrefVisitor.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Tracer.h"

#include <cstdint>
#include <exception>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/IPersistable";

constexpr ConstStringZ IPERSISTABLE_BASES[] = {"quna::IObject"};

constexpr ReflectedInterface MakeIPersistableInterface() {
    ReflectedInterface ri;
    ri.m_name = "quna::IPersistable";
    ri.m_bases = IPERSISTABLE_BASES;
    ri.m_numBases = 1;
    return ri;
}

constexpr ReflectedInterface MakeIPrefVisitorInterface() {
    ReflectedInterface ri;
    ri.m_name = "quna::IPrefVisitor";
    return ri;
}

constexpr ReflectedClass MakePersistObjStateClass() {
    ReflectedClass rc;
    rc.m_name = "quna::PersistObjState";
    rc.m_size = static_cast<ssize_t>(sizeof(PersistObjState));
    rc.m_ops = MakeLifeTypeOps<PersistObjState>();
    return rc;
}

constinit const ReflectedInterface IPERSISTABLE_INTERFACE = MakeIPersistableInterface();
constinit const ReflectedInterface IPREFVISITOR_INTERFACE = MakeIPrefVisitorInterface();
constinit const ReflectedClass PERSISTOBJSTATE_CLASS = MakePersistObjStateClass();

} // namespace

void detail::ReportDirtyObjectDestroyed(const void* object) {
    if (std::uncaught_exceptions() == 0) QX_ASSERT_TEXT(false, "!IsDirty()");
    TracerX() << "*** ERROR Object " << HexNumber(reinterpret_cast<std::uintptr_t>(object))
              << " is destroyed while an exception passes and its changes are not written : !IsDirty()\n";
}

const ReflectedInterface& _GetReflected(const IPersistable*) { return IPERSISTABLE_INTERFACE; }

const ReflectedInterface& _GetReflected(const IPrefVisitor*) { return IPREFVISITOR_INTERFACE; }

const ReflectedClass& _GetReflected(const PersistObjState*) { return PERSISTOBJSTATE_CLASS; }

} // namespace quna

#include "qxPersistStore/OID.h"

#include "qxObject/ReflectedClass.h"
#include "qxObject/TypeOpsArrays.h"

namespace quna {

namespace {

constexpr TypeOps OID_TYPE_OPS = MakeTypeOps<OID>();

constexpr ReflectedClass MakeOidClass() {
    ReflectedClass rc;
    rc.m_name = "quna::OID";
    rc.m_size = static_cast<ssize_t>(sizeof(OID));
    rc.m_ops = OID_TYPE_OPS;
    return rc;
}

constinit const ReflectedClass OID_CLASS = MakeOidClass();

} // namespace

thread_local constinit IOidHighDeserialiser* tls_OidHighDeserialiser = nullptr;

IOidHighDeserialiser* GetThreadOidHighDeserialiser() { return tls_OidHighDeserialiser; }

void SetThreadOidHighDeserialiser(IOidHighDeserialiser* deserialiser) { tls_OidHighDeserialiser = deserialiser; }

const ReflectedClass& _GetReflected(const OID*) { return OID_CLASS; }

const TypeOps* _GetTypeOps(const OID*) { return &OID_CLASS.m_ops; }

} // namespace quna

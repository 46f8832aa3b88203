#include "qxPersistStore/TypeInfo.h"

#include "qxObject/ReflectedClass.h"
#include "qxObject/ReflectionByteCodeValue.h"
#include "qxObject/Registry.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxUtils/Assert.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/TypeInfo";

constexpr ReflectedClass MakeBcTypeOpsClass() {
    ReflectedClass rc;
    rc.m_name = "quna::BcTypeOps";
    rc.m_size = static_cast<ssize_t>(sizeof(BcTypeOps));
    rc.m_ops = MakeLifeTypeOps<BcTypeOps>();
    return rc;
}

constinit const ReflectedClass BCTYPEOPS_CLASS = MakeBcTypeOpsClass();

PersistStore* GetThreadPersistStore() {
    const PSpace* pspace = GetThreadPSpace();
    PersistStore* ps = pspace ? GetPersistStore(pspace) : nullptr;
    QX_ASSERT(ps);
    return ps;
}

} // namespace

const TypeOps& GetPersistStoreTypeOps(TypeOpsId tid) {
    QX_ASSERT(tid > 0);
    const BcTypeOps b = GetTypeOps(GetThreadPersistStore(), tid);
    QX_ASSERT(b.typeops);
    return *b.typeops;
}

TypeOpsId GetPersistStoreTypeOpsId(ReflectionByteCode bc) {
    PersistStore* ps = GetThreadPersistStore();
    const TypeOps* typeops = FindTypeOps(bc);
    QX_ASSERT(typeops);
    const TypeOpsId tid = GetTypeOpsId(ps, ReflectionByteCodeValue(bc, false), *typeops);
    QX_ASSERT(tid > 0);
    return tid;
}

void TypeInfo::Set(TypeOpsId tid) {
    m_tid = tid;
    m_typeops = &GetPersistStoreTypeOps(tid);
}

void TypeInfo::Set(const ReflectionByteCodeValue& rbcv) {
    m_typeops = FindTypeOps(rbcv.AsReflectionByteCode());
    QX_ASSERT(m_typeops);
    m_tid = GetTypeOpsId(GetThreadPersistStore(), rbcv, *m_typeops);
    QX_ASSERT(m_tid > 0);
}

const ReflectionByteCodeValue& TypeInfo::GetReflectionByteCodeValue() const {
    const BcTypeOps b = quna::GetTypeOps(GetThreadPersistStore(), m_tid);
    QX_ASSERT(b.rbcv);
    return *b.rbcv;
}

const ReflectedClass& _GetReflected(const BcTypeOps*) { return BCTYPEOPS_CLASS; }

} // namespace quna

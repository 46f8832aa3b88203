// Getting or making the root object of a space.
#include "qxObject/DollarNew.h"
#include "qxObject/ReflectedClass.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxUtils/Assert.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/qxPersistStore";

// The first form of the bootstrap keeps the root in memory, the second does not.
enum class Pin {
    Yes,
    No
};

void* GetOrCreateRoot(ReflectedClass const& rc, ConstStringZ name, Pin pin) {
    ptr<IPersistable> po = GetPSpaceRoot(name);
    if (po) {
        const ReflectedClass* rcp = po->GetReflectedClass();
        QX_ASSERT(rcp);
        if (rcp != &rc) return nullptr; // the result says so; it is no error
        if (pin == Pin::Yes) AddGcRoot(po);
        return po.m_self;
    }
    QX_ASSERT(rc.m_createFn);
    const ptr<IObject> v = rc.m_createFn();
    QX_ASSERT(v);
    RegisterOrDestroy(v);
    po = qicast<IPersistable>(v);
    QX_ASSERT(po);
    po->OnCreate(true);
    AddPSpaceRoot(name, po);
    if (pin == Pin::Yes) AddGcRoot(v);
    return v.m_self;
}

} // namespace

void* BootstrapPSpaceRoot(ReflectedClass const& rc, ConstStringZ name) {
    const PSpaceTxn txn(Exclusive);
    return GetOrCreateRoot(rc, name, Pin::Yes);
}

void* BootstrapPSpaceRoot2(ReflectedClass const& rc, ConstStringZ name) {
    QX_ASSERT(HaveExclusiveLockedCSpace());
    return GetOrCreateRoot(rc, name, Pin::No);
}

} // namespace quna

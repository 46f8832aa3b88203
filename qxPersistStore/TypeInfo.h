// A type known at run time, with its id in the store of the calling thread's space.
#pragma once

#include "qxPersistStore/TypeOpsId.h"
#include "qxUtils/Export.h"

namespace quna {

class ReflectionByteCodeValue;
struct ReflectionByteCode;
struct TypeOps;

// The store is that of the calling thread's PSpace. Without one each of these fails the assertion "ps".

// The operations of a type that the store knows.
QX_API const TypeOps& GetPersistStoreTypeOps(TypeOpsId tid);

// The id of a described type in the store, which learns the type on the spot. Fails "typeops" when this process has no
// operations for the description.
QX_API TypeOpsId GetPersistStoreTypeOpsId(ReflectionByteCode bc);

// A descriptor for callers above the store. Empty at first: id 0 and no operations.
class QX_API TypeInfo {
public:
    TypeInfo() = default;

    void Set(TypeOpsId tid);
    // Registers the type in the store; fails "m_typeops" when this process has no operations for it.
    void Set(const ReflectionByteCodeValue& rbcv);

    // Requires: Set.
    const TypeOps& GetTypeOps() const { return *m_typeops; }
    const ReflectionByteCodeValue& GetReflectionByteCodeValue() const;

    TypeOpsId m_tid = 0;
    const TypeOps* m_typeops = nullptr;
};

} // namespace quna

// Goid, the name of an object that means the same in every store.
#pragma once

#include "qxPersistStore/OID.h"
#include "qxUtils/Export.h"
#include "qxUtils/Guid.h"
#include "qxUtils/safe_bool.h"

namespace quna {

class xostream;
struct ReflectedClass;
struct TypeOps;
struct XTarget;

// The name of an identifier space that means the same in every store; an OidHigh is its number in one store. See
// OidSpaceMap, which translates. Reflected as "quna::OidSpaceGuid".
using OidSpaceGuid = Guid;

// The global form of an OID: the high half by its name, the low half as it is. Reflected as "quna::Goid".
//
// Null, like an OID, when it names no space: the low half may be 0.
// Threads: a plain value.
class QX_API Goid : public safe_bool<Goid> {
public:
    Goid() = default;
    Goid(const OidSpaceGuid& space, OidLow low) : oidSpaceGuid(space), oidLow(low) {}

    const OidSpaceGuid& GetoidSpaceGuid() const { return oidSpaceGuid; }
    void SetoidSpaceGuid(const OidSpaceGuid& space) { oidSpaceGuid = space; }
    OidLow GetoidLow() const { return oidLow; }
    void SetoidLow(OidLow low) { oidLow = low; }

    bool boolean_test() const { return oidSpaceGuid != Guid_NULL; }

    friend bool operator==(const Goid& x, const Goid& y) {
        return x.oidSpaceGuid == y.oidSpaceGuid && x.oidLow == y.oidLow;
    }
    // By space, then by low half: a total order that is the same everywhere.
    friend bool operator<(const Goid& x, const Goid& y) {
        return x.oidSpaceGuid != y.oidSpaceGuid ? x.oidSpaceGuid < y.oidSpaceGuid : x.oidLow < y.oidLow;
    }

    OidSpaceGuid oidSpaceGuid;
    OidLow oidLow = 0;
};

// The Guid's text, ":" and the low half as eight hexadecimal digits.
QX_API xostream& operator<<(xostream& os, const Goid& goid);

QX_API const ReflectedClass& _GetReflected(const Goid*);
QX_API const TypeOps* _GetTypeOps(const Goid*);
QX_API void _Register_Goid(XTarget* target);

} // namespace quna

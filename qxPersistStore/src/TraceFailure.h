// Which object was being read or written when an exception passed.
#pragma once

#include "qxObject/ReflectedClass.h"
#include "qxPersistStore/IPersistable.h"
#include "qxUtils/Tracer.h"

namespace quna {

// For a catch block, which throws the exception on: what an object's own code throws does not name the object, and a reader
// of the log has no other way to find it. `act` is "writing" or "reading".
//
// A catch block rather than a destructor that asks whether an exception passes: objects are read and written by the million,
// and that question costs more than the rest of such a scope.
inline void TraceFailure(ConstStringZ act, ptr<const IPersistable> po, OID oid) {
    const ReflectedClass* rc = po->GetReflectedClass();
    TracerX() << "PSpace: error : " << act << " object with OID = " << oid << " of class " << (rc ? rc->GetName() : "?")
              << " failed\n";
}

} // namespace quna

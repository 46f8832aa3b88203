// Which object was being read or written when an exception passed.
#pragma once

#include "qxObject/ReflectedClass.h"
#include "qxPersistStore/IPersistable.h"
#include "qxUtils/Tracer.h"

#include <exception>

namespace quna {

// Traces it when an exception ends the scope: what an object's own code throws does not name the object, and a reader
// of the log has no other way to find it.
class TraceOnFailure {
public:
    // `act` is a literal, "writing" or "reading".
    TraceOnFailure(ConstStringZ act, ptr<const IPersistable> po, OID oid) : m_act(act), m_po(po), m_oid(oid) {}
    TraceOnFailure(const TraceOnFailure&) = delete;
    TraceOnFailure& operator=(const TraceOnFailure&) = delete;
    ~TraceOnFailure() {
        if (std::uncaught_exceptions() == m_uncaught) return;
        const ReflectedClass* rc = m_po->GetReflectedClass();
        TracerX() << "PSpace: error : " << m_act << " object with OID = " << m_oid << " of class "
                  << (rc ? rc->GetName() : "?") << " failed\n";
    }

private:
    ConstStringZ m_act;
    ptr<const IPersistable> m_po;
    OID m_oid;
    int m_uncaught = std::uncaught_exceptions();
};

} // namespace quna

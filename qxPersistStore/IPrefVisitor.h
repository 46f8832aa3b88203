// How the store walks the persistent references of an object.
#pragma once

#include "qxUtils/Export.h"

namespace quna {

class prefbase;
struct ReflectedInterface;

// Told of each persistent reference of an object by the object's VisitPrefs.
//
// Threads: called under the lock of the object's domain.
class QX_API IPrefVisitor {
public:
    // An ordinary edge: the object owns, or at least needs, what the reference names.
    virtual void VisitPref(const prefbase& pref) = 0;

    // A reference that points upwards and owns nothing. Walks for persistence and deletion do nothing with it; the deep
    // copy aims it at the new parent.
    virtual void VisitParentPref(const prefbase& pref) = 0;

protected:
    IPrefVisitor() = default;
    IPrefVisitor(const IPrefVisitor&) = default;
    IPrefVisitor& operator=(const IPrefVisitor&) = default;
    ~IPrefVisitor() = default;
};

inline IPrefVisitor& operator<<(IPrefVisitor& visitor, const prefbase& pref) {
    visitor.VisitPref(pref);
    return visitor;
}

// The record of the visitor, named "quna::IPrefVisitor".
QX_API const ReflectedInterface& _GetReflected(const IPrefVisitor*);

} // namespace quna

// How an object tells the collector what it points at.
#pragma once

#include "qxObject/IObject.h"

namespace quna {

// Told of every outgoing pointer of one object by the object's VisitObjects.
//
// Threads: called under the lock of the object's domain. Addresses given to VisitEvictablePtr are used only as long as
//   that lock is held without interruption.
class IObjectVisitor {
public:
    // An ordinary, strong edge: the target lives at least as long as the object that reports it. Null is allowed.
    virtual void VisitObject(ptr<const IObject> object) = 0;

    // The address of an evictable pointer: the visitor may clear both words in place, because the holder can find the
    // object again. `p` is the `AnyInterface` part of a `ptr<I>`, never null itself, though it may hold null. `I` must be
    // IObject or extend it, so that AsIObject(*p) is right whatever `I` is. The two words are read and written as the
    // evictable pointer functions do it, never as plain memory while others may bind.
    virtual void VisitEvictablePtr(AnyInterface* p) = 0;

protected:
    IObjectVisitor() = default;
    IObjectVisitor(const IObjectVisitor&) = default;
    IObjectVisitor& operator=(const IObjectVisitor&) = default;
    ~IObjectVisitor() = default;
};

template <class I>
requires ExtendsInterface<std::remove_const_t<I>, IObject> IObjectVisitor& operator<<(IObjectVisitor& visitor,
                                                                                      ptr<I> p) {
    visitor.VisitObject(p);
    return visitor;
}

} // namespace quna

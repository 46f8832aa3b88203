// The garbage collection root of a space.
#pragma once

#include "qxObject/IObject.h"
#include "qxObject/IObjectVisitor.h"

namespace quna {

class PSpace;

// Belongs to the CSpace of the space, as part of the domain itself, and reports what the space keeps alive: its roots
// and its dirty objects.
class PSpaceRoot : public IObjectBaseMixin<PSpaceRoot, EmptyBase> {
public:
    explicit PSpaceRoot(PSpace& pspace) : m_pspace(&pspace) {}

    void VisitObjects(IObjectVisitor& v) const;
    const ReflectedClass* GetReflectedClass() const { return nullptr; }

    // The space is no more, though its CSpace is: visit nothing.
    void Detach() { m_pspace = nullptr; }

private:
    PSpace* m_pspace;
};

} // namespace quna

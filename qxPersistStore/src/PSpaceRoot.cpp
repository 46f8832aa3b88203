#include "qxPersistStore/src/PSpaceRoot.h"

#include "qxPersistStore/src/PSpace.h"

namespace quna {

void PSpaceRoot::VisitObjects(IObjectVisitor& v) const {
    if (m_pspace) m_pspace->VisitObjects(v);
}

} // namespace quna

#include "Package.h"

#include "qxObject/Registry.h"
#include "qxPersistStore/IPersistStore.h"

namespace packagegraph {

void RegisterClasses() {
    static constexpr quna::dsTarget TARGET = {.m_targetName = "packagegraph"};
    Register_Project_qxPersistStore();
    quna::XTarget* const target = quna::RegisterTarget(TARGET);
    _Register_Package(target);
    _Register_Catalogue(target);
    quna::RegisterTypeOpsOf<DependencyRank>();
}

} // namespace packagegraph

#include "Office.h"

#include "qxObject/Registry.h"
#include "qxPersistStore/IPersistStore.h"

namespace handover {

void RegisterClasses() {
    static constexpr quna::dsTarget TARGET = {.m_targetName = "handover"};
    Register_Project_qxPersistStore();
    quna::XTarget* const target = quna::RegisterTarget(TARGET);
    _Register_Person(target);
    _Register_Step(target);
    _Register_Project(target);
    _Register_Desk(target);
}

} // namespace handover

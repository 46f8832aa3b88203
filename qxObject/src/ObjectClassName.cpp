#include "qxObject/src/ObjectClassName.h"

#include "qxObject/ReflectedClass.h"

namespace quna {

std::string ObjectClassName(const ReflectedClass* rc) { return rc && rc->m_name ? rc->m_name : "(unnamed)"; }

} // namespace quna

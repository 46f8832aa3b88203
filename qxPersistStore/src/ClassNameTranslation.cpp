#include "qxPersistStore/ClassNameTranslation.h"

#include "qxObject/ReflectedClass.h"
#include "qxObject/TypeOpsArrays.h"

namespace quna {

namespace {

template <class T>
constexpr ReflectedClass MakeClass(ConstStringZ name) {
    ReflectedClass rc;
    rc.m_name = name;
    rc.m_size = static_cast<ssize_t>(sizeof(T));
    rc.m_ops = MakeLifeTypeOps<T>();
    return rc;
}

constinit const ReflectedClass TRANSLATION_CLASS = MakeClass<ClassNameTranslation>("quna::ClassNameTranslation");
constinit const ReflectedClass TRANSLATION_TABLE_CLASS =
    MakeClass<ClassNameTranslationTable>("quna::ClassNameTranslationTable");

} // namespace

const ReflectedClass& _GetReflected(const ClassNameTranslation*) { return TRANSLATION_CLASS; }

const ReflectedClass& _GetReflected(const ClassNameTranslationTable*) { return TRANSLATION_TABLE_CLASS; }

} // namespace quna

#include "qxObject/Reflect.h"

#include "qxObject/ReflectedGlobalFunction.h"
#include "qxUtils/Assert.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/Registry";

} // namespace

void RegisterOrThrow(const ReflectedClass& record, XTarget* target) {
    QX_ASSERT(RegisterReflectedClass(&record, target) == NSE_OK);
}
void RegisterOrThrow(const ReflectedInterface& record, XTarget* target) {
    QX_ASSERT(RegisterReflectedInterface(&record, target) == NSE_OK);
}
void RegisterOrThrow(const ReflectedEnum& record, XTarget* target) {
    QX_ASSERT(RegisterReflectedEnum(&record, target) == NSE_OK);
}
void RegisterOrThrow(const ReflectedTypedef& record, XTarget* target) {
    QX_ASSERT(RegisterReflectedTypedef(&record, target) == NSE_OK);
}
void RegisterOrThrow(const ReflectedGlobalFunction& record, XTarget* target) {
    QX_ASSERT(RegisterReflectedGlobalFunction(&record, target) == NSE_OK);
}

} // namespace quna

#include "qxObject/QunaSystemException.h"

#include "qxObject/Reflect.h"
#include "qxUtils/xostream.h"

namespace quna {

namespace {

void* AddressOfMessage(void* object) { return &static_cast<QunaSystemException*>(object)->Message; }

constexpr ReflectedField FIELDS[] = {{"Message", &DescriptionOf<string8>, &AddressOfMessage, 1}};

constexpr ReflectedClass MakeRecord() {
    ReflectedClass rc;
    rc.m_name = "quna::QunaSystemException";
    rc.m_size = static_cast<ssize_t>(sizeof(QunaSystemException));
    rc.m_ops = MakeLifeTypeOps<QunaSystemException>();
    rc.m_fields = FIELDS;
    rc.m_numFields = 1;
    return rc;
}

constexpr ReflectedClass RECORD = MakeRecord();

} // namespace

QunaSystemException::QunaSystemException(ConstStringZ message) : Message(message) { ComposeWhat(); }

void QunaSystemException::SetMessage(const string8& message) {
    Message = message;
    ComposeWhat();
}

void QunaSystemException::Write(xostream& os) const { os << Message; }

const ReflectedClass* QunaSystemException::GetReflectedClass() const { return &RECORD; }

const ReflectedClass& _GetReflected(const QunaSystemException*) { return RECORD; }

} // namespace quna

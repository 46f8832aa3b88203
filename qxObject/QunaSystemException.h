// The exception for conditions that have no class of their own.
#pragma once

#include "qxObject/IReflectedException.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/xstring.h"

namespace quna {

struct ReflectedClass;
class xostream;

// An exception that holds a message, which is its text.
class QX_API QunaSystemException : public IReflectedException {
public:
    QunaSystemException() : QunaSystemException("") {}
    explicit QunaSystemException(ConstStringZ message);

    const string8& GetMessage() const { return Message; }
    void SetMessage(const string8& message);

    void Write(xostream& os) const override;
    const ReflectedClass* GetReflectedClass() const override;

    string8 Message;
};

// The record, named "quna::QunaSystemException", with the field "Message".
QX_API const ReflectedClass& _GetReflected(const QunaSystemException*);

} // namespace quna

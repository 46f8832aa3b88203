// What an application can meet in ordinary use of the store. A programmer's mistake is an assertion instead.
//
// Throw by value, catch by reference to IException; Write gives the text, what() the same text as it was composed at
// construction.
#pragma once

#include "qxLss/EOpenMode.h"
#include "qxObject/ReflectionByteCodeValue.h"
#include "qxPersistStore/CID.h"
#include "qxPersistStore/OID.h"
#include "qxPersistStore/TypeOpsId.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Export.h"
#include "qxUtils/xstring.h"

namespace quna {

struct ReflectedClass;
struct ReflectedInterface;
class xostream;

// An object does not offer the interface that a reference to it, or the reader of its record, requires.
class QX_API TypeMismatchException : public IException {
public:
    TypeMismatchException(const ReflectedClass& rc, const ReflectedInterface& ri);
    void Write(xostream& os) const override;

    const ReflectedClass& m_rc;
    const ReflectedInterface& m_ri;
};

// There is no object, or no record, under an OID.
class QX_API DerefDanglingOidException : public IException {
public:
    explicit DerefDanglingOidException(OID oid);
    void Write(xostream& os) const override;

    OID m_oid;
};

// An object's Deserialise did not use its record exactly. The message names the object, its class and both sizes.
class QX_API DeserialisePersistentObjectException : public ExceptionBase {
public:
    DeserialisePersistentObjectException(ConstStringZ message, OID oid);

    OID m_oid;
};

// A space does not exist, or exists already. For an open mode that cannot fail so, Write fails the assertion "0".
class QX_API OpenPSpaceException : public IException {
public:
    OpenPSpaceException(EOpenMode openMode, const xstring& name);
    void Write(xostream& os) const override;

    EOpenMode m_openMode;
    xstring m_name;
};

// A store's class table names a class twice: it is corrupt, or a translation merges two classes.
class QX_API RepeatedClassNameInCidMapException : public IException {
public:
    explicit RepeatedClassNameInCidMapException(const xstring& name);
    void Write(xostream& os) const override;

    xstring m_name;
};

class QX_API DerefNullPrefException : public IException {
public:
    DerefNullPrefException();
    void Write(xostream& os) const override;
};

// For code that initialises a pref<T> from an object without IPersistable.
class QX_API ObjectNotPersistableException : public IException {
public:
    ObjectNotPersistableException();
    void Write(xostream& os) const override;
};

// A type that a store's record describes has no operations in this process.
class QX_API TypeOpsNotFoundException : public IException {
public:
    explicit TypeOpsNotFoundException(const ReflectionByteCodeValue& rbcv);
    void Write(xostream& os) const override;

    ReflectionByteCodeValue m_rbcv;
};

class QX_API BadTypeOpsIdException : public IException {
public:
    explicit BadTypeOpsIdException(TypeOpsId tid);
    void Write(xostream& os) const override;

    TypeOpsId m_tid;
};

class QX_API BadCidException : public IException {
public:
    explicit BadCidException(CID cid);
    void Write(xostream& os) const override;

    CID m_cid;
};

} // namespace quna

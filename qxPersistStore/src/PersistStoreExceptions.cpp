#include "qxPersistStore/PersistStoreExceptions.h"

#include "qxObject/ReflectedClass.h"
#include "qxObject/ReflectedInterface.h"
#include "qxUtils/Assert.h"
#include "qxUtils/xostream.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/PersistStoreExceptions";

void WriteOpenFailure(xostream& os, ConstStringZ attempt, const xstring& name, ConstStringZ found) {
    os << attempt << " PSpace \"" << name << "\", a PSpace with that name " << found;
}

} // namespace

TypeMismatchException::TypeMismatchException(const ReflectedClass& rc, const ReflectedInterface& ri)
    : m_rc(rc), m_ri(ri) {
    ComposeWhat();
}

void TypeMismatchException::Write(xostream& os) const {
    os << "Type mismatch during deserialisation : class " << m_rc.m_name << " doesn't support interface "
       << m_ri.m_name;
}

DerefDanglingOidException::DerefDanglingOidException(OID oid) : m_oid(oid) { ComposeWhat(); }

void DerefDanglingOidException::Write(xostream& os) const { os << "Dereferenced dangling OID = " << m_oid; }

DeserialisePersistentObjectException::DeserialisePersistentObjectException(ConstStringZ message, OID oid)
    : ExceptionBase(message), m_oid(oid) {}

OpenPSpaceException::OpenPSpaceException(EOpenMode openMode, const xstring& name) : m_openMode(openMode), m_name(name) {
    ComposeWhat();
}

void OpenPSpaceException::Write(xostream& os) const {
    if (m_openMode == OM_CREATE_NEW)
        WriteOpenFailure(os, "Could not create new", m_name, "already exists");
    else if (m_openMode == OM_OPEN_EXISTING)
        WriteOpenFailure(os, "Could not open existing", m_name, "does not exist");
    else if (m_openMode == OM_DELETE_EXISTING)
        WriteOpenFailure(os, "Could not delete existing", m_name, "does not exist");
    else
        QX_ASSERT(0);
}

RepeatedClassNameInCidMapException::RepeatedClassNameInCidMapException(const xstring& name) : m_name(name) {
    ComposeWhat();
}

void RepeatedClassNameInCidMapException::Write(xostream& os) const { os << "Repeated class name " << m_name; }

DerefNullPrefException::DerefNullPrefException() { ComposeWhat(); }

void DerefNullPrefException::Write(xostream& os) const { os << "Attempt to dereference null pref<T>"; }

ObjectNotPersistableException::ObjectNotPersistableException() { ComposeWhat(); }

void ObjectNotPersistableException::Write(xostream& os) const {
    os << "Attempt to initialise pref<T> to object that doesn't implement IPersistable";
}

TypeOpsNotFoundException::TypeOpsNotFoundException(const ReflectionByteCodeValue& rbcv) : m_rbcv(rbcv) {
    ComposeWhat();
}

void TypeOpsNotFoundException::Write(xostream& os) const {
    os << "TypeOps not found for " << m_rbcv.AsReflectionByteCode();
}

BadTypeOpsIdException::BadTypeOpsIdException(TypeOpsId tid) : m_tid(tid) { ComposeWhat(); }

void BadTypeOpsIdException::Write(xostream& os) const { os << "Bad TypeOpsId : " << m_tid; }

BadCidException::BadCidException(CID cid) : m_cid(cid) { ComposeWhat(); }

void BadCidException::Write(xostream& os) const { os << "Bad CID : " << m_cid; }

} // namespace quna

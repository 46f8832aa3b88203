// OID, the durable identity of a persistent object, its wire form and the hooks that translate it.
//
// Wire form of an OID:
//   1..5  high half   variable length, unless a hook decides its bytes
//   1..5  low half    variable length; only when the high half is not 0
// So a null OID is one zero byte.
//
// The two directions are hooked differently because the two archives differ: an Archive is an object and carries a
// pointer, an InputArchive is a bare cursor and cannot, so the hook for reading is a thread's.
#pragma once

#include "qxLss/Seid.h"
#include "qxObject/Interface.h"
#include "qxUtils/Archive.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/VariableLengthSerialise.h"

#include <cstddef>

namespace quna {

struct ReflectedClass;
struct TypeOps;

using OidLow = uint32;
using OidHigh = uint32; // the local number of an identifier space; 0 is none

// Names a persistent object. The object's record is the serial element of the same value, so nothing is translated
// between the object layer and the storage layer. Adds no field to Seid; equality and order are those of value_.
class OID : public Seid {
public:
    constexpr OID() = default;
    constexpr OID(SeidLow low, SeidHigh high) : Seid(low, high) {}
    constexpr OID(Seid seid) : Seid(seid) {}  // NOLINT(google-explicit-constructor): an OID is a Seid
    constexpr OID(std::nullptr_t) : Seid() {} // NOLINT(google-explicit-constructor)
    constexpr OID(NullInterface) : Seid() {}  // NOLINT(google-explicit-constructor)
};
static_assert(sizeof(OID) == 8);

// The store's root record is the root element of the log-structured store; the map of spaces follows it.
inline constexpr Seid ROOT_PERSISTSTORE_OBJECT_SEID(0, 1);
inline constexpr Seid PSPACEMAP_SEID(1, 1);

// Reads the high half of an identifier that another store wrote. Not owned by the hook that points at it.
class IOidHighDeserialiser {
public:
    virtual InputArchive DeserialiseOidHigh(InputArchive ar, OidHigh& oidHigh) = 0;

protected:
    IOidHighDeserialiser() = default;
    IOidHighDeserialiser(const IOidHighDeserialiser&) = default;
    IOidHighDeserialiser& operator=(const IOidHighDeserialiser&) = default;
    ~IOidHighDeserialiser() = default;
};

// The calling thread's hook, null in a new thread. Whoever reads records of another store sets it, and sets it back.
extern QX_API thread_local constinit IOidHighDeserialiser* tls_OidHighDeserialiser;

QX_API IOidHighDeserialiser* GetThreadOidHighDeserialiser();
QX_API void SetThreadOidHighDeserialiser(IOidHighDeserialiser* deserialiser);

// The one place that fixes how a half is compressed.
inline void SerialiseCompressedOidPart(Archive& ar, uint32 part) { SerialiseVariableLengthUint32(ar, part); }
inline InputArchive DeserialiseCompressedOidPart(InputArchive ar, uint32& part) {
    return DeserialiseVariableLengthUint(ar.p, part);
}

// With a hook on the archive, the hook alone decides the bytes, for a high half of 0 too.
inline void SerialiseOidHigh(Archive& ar, OidHigh oidHigh) {
    if (ar.m_oidHighSerialiser) [[unlikely]]
        ar.m_oidHighSerialiser->SerialiseItem(ar, &oidHigh);
    else
        SerialiseCompressedOidPart(ar, oidHigh);
}

inline InputArchive DeserialiseOidHigh(InputArchive ar, OidHigh& oidHigh) {
    if (IOidHighDeserialiser* hook = tls_OidHighDeserialiser) [[unlikely]]
        return hook->DeserialiseOidHigh(ar, oidHigh);
    return DeserialiseCompressedOidPart(ar, oidHigh);
}

// An identifier with a zero high half reads back as null: the low half is not written. The low half passes no hook,
// since translation between stores changes the space and keeps the number within it.
inline void SerialiseOid(Archive& ar, OID oid) {
    SerialiseOidHigh(ar, oid.high_);
    if (oid.high_ != 0) SerialiseCompressedOidPart(ar, oid.low_);
}

inline InputArchive DeserialiseOid(InputArchive ar, OID& oid) {
    OidHigh high = 0;
    ar = DeserialiseOidHigh(ar, high);
    OidLow low = 0;
    if (high != 0) ar = DeserialiseCompressedOidPart(ar, low);
    oid = OID(low, high);
    return ar;
}

inline Archive& operator<<(Archive& ar, const OID& oid) {
    SerialiseOid(ar, oid);
    return ar;
}
inline InputArchive operator>>(InputArchive ar, OID& oid) { return DeserialiseOid(ar, oid); }

// The reflected class "quna::OID" and its operations: construction gives null, copies are by value.
QX_API const ReflectedClass& _GetReflected(const OID*);
QX_API const TypeOps* _GetTypeOps(const OID*);

} // namespace quna

// The object store's own records, read without the classes of any application. docs/file-format.md describes them.
//
// The library reads them into live objects, which want a space, a domain and registered classes. These readers want
// nothing but the bytes, so that a store can be looked at by a program that knows none of its classes.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxObject/ReflectionByteCodeValue.h"
#include "qxPersistStore/OID.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Guid.h"

#include <string>
#include <vector>

namespace quna::qxstore {

struct RootRecord {
    int schema = 0;
    std::vector<std::string> classes; // by class id - 1
    OidHigh oidHigh = 0;
    std::vector<ReflectionByteCodeValue> types; // by type id - 1

    // Null if there is no such class.
    const std::string* ClassName(uint32 cid) const {
        return cid >= 1 && cid <= classes.size() ? &classes[cid - 1] : nullptr;
    }
};

struct NamedOid {
    std::string name;
    OID oid;
};

struct RootsRecord {
    std::vector<NamedOid> roots;
    OID deletionQueue;
};

struct DeletionRecord {
    std::vector<OID> subTrees;
    std::vector<OID> objects;
};

// An object's record: the class and where the body begins.
struct ObjectRecord {
    uint32 cid = 0;
    ssize_t bodyOffset = 0;
};

// A high half of identifiers and the space of identifiers that it stands for.
struct OidSpace {
    OidHigh high = 0;
    Guid guid{};
};
// The class of the library whose objects hold such; they refer to nothing.
inline constexpr const char* OID_SPACE_MAP_CLASS = "quna::OidSpaceMap";

// They throw RecordException when the bytes are no such record, or are not used up by it.
RootRecord ParseRootRecord(const ReadOnlyBuffer& record);
std::vector<NamedOid> ParseSpaceMap(const ReadOnlyBuffer& record);
RootsRecord ParseRootsRecord(const ReadOnlyBuffer& record);
DeletionRecord ParseDeletionRecord(const ReadOnlyBuffer& record);
// `body` is the record behind the class id.
std::vector<OidSpace> ParseOidSpaceMap(const ReadOnlyBuffer& body);
// Looks at the class id only.
ObjectRecord ParseObjectRecord(const ReadOnlyBuffer& record);

// What follows the class id.
inline ReadOnlyBuffer BodyOf(const ReadOnlyBuffer& record, const ObjectRecord& object) {
    return {record.buffer + object.bodyOffset, record.size - object.bodyOffset};
}

// "00000001:0000002a".
std::string OidText(OID oid);
std::string GuidText(const Guid& guid);
std::string TypeText(const ReflectionByteCodeValue& type);

} // namespace quna::qxstore

#include "tools/qxstore/StoreRecords.h"

#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/RecordLimits.h"
#include "qxUtils/Schema.h"
#include "qxUtils/xostream.h"

namespace quna::qxstore {

namespace {

constexpr int ROOT_SCHEMA = 2;
constexpr int MAP_SCHEMA = 1; // of all others

// Parses by `parse(cursor)`, which gives the cursor behind the record.
template <class Parse>
void ParseWhole(const ReadOnlyBuffer& record, Parse&& parse) {
    const RecordLimitsScope limits(record.buffer, record.buffer + record.size);
    const InputArchive end = parse(InputArchive(record.buffer));
    const ssize_t used = end.ptr() - record.buffer;
    if (used != record.size)
        throw RecordException(
            ("the record has " + std::to_string(record.size) + " bytes, its content " + std::to_string(used)).c_str());
}

InputArchive ReadSchema(InputArchive ar, int latest) {
    int schema = 0;
    return DeserialiseSchema(ar, latest, schema);
}

InputArchive ReadString(InputArchive ar, std::string& to) {
    xstring text;
    ar = ar >> text;
    to = text.str();
    return ar;
}

// A count, then each element by `read(cursor, element)`.
template <class T, class Read>
InputArchive ReadAll(InputArchive ar, std::vector<T>& to, Read&& read) {
    ssize_t n = 0;
    ar = DeserialiseCount(ar, n);
    for (ssize_t i = 0; i < n; ++i) ar = read(ar, to.emplace_back());
    return ar;
}

InputArchive ReadNamedOids(InputArchive ar, std::vector<NamedOid>& to) {
    return ReadAll(ar, to, [](InputArchive from, NamedOid& entry) {
        from = ReadString(from, entry.name);
        return DeserialiseOid(from, entry.oid);
    });
}

} // namespace

RootRecord ParseRootRecord(const ReadOnlyBuffer& record) {
    RootRecord root;
    ParseWhole(record, [&root](InputArchive ar) {
        ar = DeserialiseSchema(ar, ROOT_SCHEMA, root.schema);
        ar = ReadSchema(ar, MAP_SCHEMA);
        ar = ReadAll(ar, root.classes, &ReadString);
        ar = ar >> root.oidHigh;
        if (root.schema < 2) return ar;
        ar = ReadSchema(ar, MAP_SCHEMA);
        return ReadAll(ar, root.types,
                       [](InputArchive from, ReflectionByteCodeValue& type) { return type.Deserialise(from); });
    });
    return root;
}

std::vector<NamedOid> ParseSpaceMap(const ReadOnlyBuffer& record) {
    std::vector<NamedOid> spaces;
    ParseWhole(record, [&spaces](InputArchive ar) { return ReadNamedOids(ReadSchema(ar, MAP_SCHEMA), spaces); });
    return spaces;
}

RootsRecord ParseRootsRecord(const ReadOnlyBuffer& record) {
    RootsRecord roots;
    ParseWhole(record, [&roots](InputArchive ar) {
        ar = ReadNamedOids(ReadSchema(ar, MAP_SCHEMA), roots.roots);
        return DeserialiseOid(ar, roots.deletionQueue);
    });
    return roots;
}

DeletionRecord ParseDeletionRecord(const ReadOnlyBuffer& record) {
    DeletionRecord queue;
    ParseWhole(record, [&queue](InputArchive ar) {
        ar = ReadAll(ReadSchema(ar, MAP_SCHEMA), queue.subTrees, &DeserialiseOid);
        return ReadAll(ar, queue.objects, &DeserialiseOid);
    });
    return queue;
}

std::vector<OidSpace> ParseOidSpaceMap(const ReadOnlyBuffer& body) {
    std::vector<OidSpace> spaces;
    ParseWhole(body, [&spaces](InputArchive ar) {
        return ReadAll(ReadSchema(ar, MAP_SCHEMA), spaces,
                       [](InputArchive from, OidSpace& space) { return from >> space.high >> space.guid; });
    });
    return spaces;
}

ObjectRecord ParseObjectRecord(const ReadOnlyBuffer& record) {
    const RecordLimitsScope limits(record.buffer, record.buffer + record.size);
    if (record.size == 0) throw RecordException("the record is empty: it has no class");
    ObjectRecord object;
    const octet_t* const body = DeserialiseVariableLengthUint(record.buffer, object.cid);
    object.bodyOffset = body - record.buffer;
    if (object.bodyOffset > record.size) throw RecordException("the record ends inside the number of its class");
    return object;
}

std::string OidText(OID oid) {
    StringStream os;
    os << oid;
    return os.c_str();
}

std::string GuidText(const Guid& guid) {
    StringStream os;
    os << guid;
    return os.c_str();
}

std::string TypeText(const ReflectionByteCodeValue& type) {
    StringStream os;
    os << type;
    return os.c_str();
}

} // namespace quna::qxstore

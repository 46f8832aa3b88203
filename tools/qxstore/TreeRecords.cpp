#include "tools/qxstore/TreeRecords.h"

#include "qxPersistStore/BTreeEntries.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/RecordLimits.h"
#include "qxUtils/Schema.h"
#include "qxUtils/VariableLengthSerialise.h"
#include "tools/qxstore/ValueReader.h"

namespace quna::qxstore {

namespace {

constexpr int TREE_SCHEMA = 2;

using Types = std::vector<ReflectionByteCodeValue>;

void CheckTypes(const TreeRecord& record, const Types& types) {
    if (record.keyType < 1 || record.keyType > types.size() || record.payloadType > types.size())
        throw RecordException(("the types of its entries are " + std::to_string(record.keyType) + " and " +
                               std::to_string(record.payloadType) + ", the store knows " + std::to_string(types.size()))
                                  .c_str());
}

// A number that schema 1 stores in 8 bytes.
InputArchive ReadCount(InputArchive ar, int schema, uint64& n) {
    if (schema == 1) return ar >> n;
    return DeserialiseVariableLengthUint(ar.ptr(), n);
}

InputArchive ReadLinks(InputArchive ar, TreeRecord& record, size_t n) {
    record.links.resize(n);
    for (OID& link : record.links) ar = DeserialiseOid(ar, link);
    return ar;
}

InputArchive ReadTree(InputArchive ar, TreeRecord& record) {
    ar = ReadCount(ar, record.schema, record.size);
    ar = ReadLinks(ar, record, 3);
    uint64 height = 0;
    ar = ReadCount(ar, record.schema, height);
    record.height = static_cast<int64>(height) - (record.schema == 1 ? 0 : 1);
    record.areEntriesRead = true;
    return ar;
}

InputArchive ReadValues(InputArchive ar, const ReflectionByteCodeValue& type, uint64 n, bool wantText,
                        ValueReader& reader, std::vector<std::string>& texts) {
    for (uint64 i = 0; i < n; ++i) {
        ar = reader.Read(ar, type.AsReflectionByteCode());
        if (wantText) texts.push_back(reader.Text());
    }
    return ar;
}

InputArchive ReadEntries(InputArchive ar, const Types& types, bool wantText, TreeRecord& record) {
    const ReflectionByteCodeValue& keyType = types[record.keyType - 1];
    const bool hasPayloads = record.kind == ETreeRecord::LEAF && record.payloadType;
    record.areEntriesRead = IsReadableType(keyType.AsReflectionByteCode()) &&
                            (!hasPayloads || IsReadableType(types[record.payloadType - 1].AsReflectionByteCode()));
    if (!record.areEntriesRead) return ar;
    ValueReader reader(wantText);
    ar = ReadValues(ar, keyType, record.numEntries, wantText, reader, record.keys);
    if (hasPayloads)
        ar = ReadValues(ar, types[record.payloadType - 1], record.numEntries, wantText, reader, record.payloads);
    record.valueReferences = reader.References();
    if (record.kind == ETreeRecord::LEAF) return ar;
    record.children.resize(record.numEntries);
    for (OID& child : record.children) ar = DeserialiseOid(ar, child);
    return ar;
}

InputArchive ReadNode(InputArchive ar, const Types& types, bool wantText, TreeRecord& record) {
    ar = ReadLinks(ar, record, record.kind == ETreeRecord::LEAF ? 2 : 1);
    ar = ReadCount(ar, record.schema, record.numEntries);
    if (record.numEntries > static_cast<uint64>(BTREE_MAX_ENTRIES))
        throw RecordException(("it has " + std::to_string(record.numEntries) + " entries, a node at most " +
                               std::to_string(BTREE_MAX_ENTRIES))
                                  .c_str());
    return ReadEntries(ar, types, wantText, record);
}

} // namespace

ETreeRecord TreeRecordOf(const std::string& className) {
    if (className == "quna::BPlusTree") return ETreeRecord::TREE;
    if (className == "quna::LeafNode") return ETreeRecord::LEAF;
    if (className == "quna::InternalNode") return ETreeRecord::INNER;
    return ETreeRecord::NONE;
}

TreeRecord ParseTreeRecord(ETreeRecord kind, const ReadOnlyBuffer& body, const Types& types, bool wantText) {
    const RecordLimitsScope limits(body.buffer, body.buffer + body.size);
    TreeRecord record;
    record.kind = kind;
    InputArchive ar = DeserialiseSchema(InputArchive(body.buffer), TREE_SCHEMA, record.schema);
    ar = DeserialiseVariableLengthUint(ar.ptr(), record.keyType);
    ar = DeserialiseVariableLengthUint(ar.ptr(), record.payloadType);
    CheckTypes(record, types);
    ar = kind == ETreeRecord::TREE ? ReadTree(ar, record) : ReadNode(ar, types, wantText, record);
    const ssize_t used = ar.ptr() - body.buffer;
    if (used > body.size || (record.areEntriesRead && used != body.size))
        throw RecordException(
            ("the record of the tree has " + std::to_string(body.size) + " bytes, its content " + std::to_string(used))
                .c_str());
    return record;
}

} // namespace quna::qxstore

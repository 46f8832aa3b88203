#include "tools/qxstore/DecodedRecord.h"

#include "qxUtils/Exceptions.h"
#include "tools/qxstore/StoreRecords.h"
#include "tools/qxstore/TreeRecords.h"
#include "tools/qxstore/Units.h"

namespace quna::qxstore {

namespace {

class Decoder {
public:
    Decoder(const Directory& directory, int64 maxRows, Report& report)
        : m_directory(directory), m_maxRows(maxRows), m_report(report) {}

    void RootRecordOf(const ReadOnlyBuffer& record);
    void SpaceMapOf(const ReadOnlyBuffer& record);
    void RootsOf(const ReadOnlyBuffer& record);
    void DeletionQueueOf(const ReadOnlyBuffer& record);
    void ObjectOf(const ReadOnlyBuffer& record);

private:
    void OidSpacesOf(const ReadOnlyBuffer& body);
    void TreeOf(ETreeRecord kind, const ReadOnlyBuffer& body);
    void AddTreeLinks(const TreeRecord& record);
    void AddEntries(const TreeRecord& record);
    std::string TypeName(uint64 tid) const;

    void Kind(const std::string& text) { m_report.Add("kind", "record", Text(text)); }
    Table& NewTable(const char* key, const char* title, std::vector<Column> columns);
    void AddNamedOids(const std::vector<NamedOid>& entries, Table& table);
    // Ends a loop over rows; what was left out is said in a field.
    bool IsFull(const Table& table, size_t numAll);

    const Directory& m_directory;
    const int64 m_maxRows;
    Report& m_report;
};

std::string OidOrNull(OID oid) { return oid ? OidText(oid) : "null"; }

Table& Decoder::NewTable(const char* key, const char* title, std::vector<Column> columns) {
    Table& table = m_report.tables.emplace_back();
    table.key = key;
    table.title = title;
    table.ifEmpty = std::string(title) + ": none";
    table.columns = std::move(columns);
    return table;
}

bool Decoder::IsFull(const Table& table, size_t numAll) {
    const int64 numShown = static_cast<int64>(table.rows.size());
    if (!m_maxRows || numShown < m_maxRows) return false;
    m_report.Add(table.key + "NotShown", "rows not shown", Count(static_cast<int64>(numAll) - numShown));
    return true;
}

void Decoder::AddNamedOids(const std::vector<NamedOid>& entries, Table& table) {
    for (const NamedOid& entry : entries) {
        if (IsFull(table, entries.size())) return;
        table.rows.push_back({Text(entry.name), Text(OidOrNull(entry.oid))});
    }
}

void Decoder::RootRecordOf(const ReadOnlyBuffer& record) {
    Kind("root record of the store");
    const RootRecord root = ParseRootRecord(record);
    m_report.Add("schema", "schema", Count(root.schema));
    m_report.Add("oidHigh", "high half of new objects", Count(root.oidHigh));
    Table& classes = NewTable("classes", "Classes", {{"id", "id"}, {"name", "class"}});
    for (size_t i = 0; i < root.classes.size() && !IsFull(classes, root.classes.size()); ++i)
        classes.rows.push_back({Text(std::to_string(i + 1)), Text(root.classes[i])});
    Table& types = NewTable("types", "Types", {{"id", "id"}, {"name", "type"}});
    for (size_t i = 0; i < root.types.size() && !IsFull(types, root.types.size()); ++i)
        types.rows.push_back({Text(std::to_string(i + 1)), Text(TypeText(root.types[i]))});
}

void Decoder::SpaceMapOf(const ReadOnlyBuffer& record) {
    Kind("map of spaces");
    AddNamedOids(ParseSpaceMap(record), NewTable("spaces", "Spaces", {{"name", "space"}, {"oid", "record"}}));
}

void Decoder::RootsOf(const ReadOnlyBuffer& record) {
    Kind("roots of a space");
    const RootsRecord roots = ParseRootsRecord(record);
    m_report.Add("deletionQueue", "deletion queue", Text(OidOrNull(roots.deletionQueue)));
    AddNamedOids(roots.roots, NewTable("roots", "Roots", {{"name", "root"}, {"oid", "object"}}));
}

void Decoder::DeletionQueueOf(const ReadOnlyBuffer& record) {
    Kind("deletion queue of a space");
    const DeletionRecord queue = ParseDeletionRecord(record);
    Table& subTrees = NewTable("subTrees", "Subtrees to delete", {{"oid", "object"}});
    for (size_t i = 0; i < queue.subTrees.size() && !IsFull(subTrees, queue.subTrees.size()); ++i)
        subTrees.rows.push_back({Text(OidText(queue.subTrees[i]))});
    Table& objects = NewTable("objects", "Objects to delete", {{"oid", "object"}});
    for (size_t i = 0; i < queue.objects.size() && !IsFull(objects, queue.objects.size()); ++i)
        objects.rows.push_back({Text(OidText(queue.objects[i]))});
}

void Decoder::ObjectOf(const ReadOnlyBuffer& record) {
    Kind("object");
    const ObjectRecord object = ParseObjectRecord(record);
    m_report.Add("classId", "class id", Count(object.cid));
    const std::string* const name = m_directory.Root().ClassName(object.cid);
    if (!name) throw RecordException("the store knows no class of this number");
    m_report.Add("class", "class", Text(*name));
    const ETreeRecord kind = TreeRecordOf(*name);
    if (kind != ETreeRecord::NONE)
        TreeOf(kind, BodyOf(record, object));
    else if (*name == OID_SPACE_MAP_CLASS)
        OidSpacesOf(BodyOf(record, object));
    else
        m_report.Add("decoded", "content", Text("the application's own, shown in hex only"));
}

void Decoder::OidSpacesOf(const ReadOnlyBuffer& body) {
    const std::vector<OidSpace> spaces = ParseOidSpaceMap(body);
    Table& table = NewTable("oidSpaces", "Spaces of identifiers", {{"high", "high half"}, {"guid", "space"}});
    for (size_t i = 0; i < spaces.size() && !IsFull(table, spaces.size()); ++i)
        table.rows.push_back({Count(spaces[i].high), Text(GuidText(spaces[i].guid))});
}

std::string Decoder::TypeName(uint64 tid) const {
    if (!tid) return "none: the tree is a set";
    return TypeText(m_directory.Root().types[tid - 1]);
}

void Decoder::TreeOf(ETreeRecord kind, const ReadOnlyBuffer& body) {
    const TreeRecord record = ParseTreeRecord(kind, body, m_directory.Root().types, true);
    m_report.Add("schema", "schema", Count(record.schema));
    m_report.Add("keyType", "type of keys", Text(TypeName(record.keyType)));
    m_report.Add("payloadType", "type of payloads", Text(TypeName(record.payloadType)));
    if (kind == ETreeRecord::TREE) {
        m_report.Add("size", "entries", Count(static_cast<int64>(record.size)));
        m_report.Add("height", "height", Count(record.height));
    }
    AddTreeLinks(record);
    if (kind != ETreeRecord::TREE) AddEntries(record);
}

void Decoder::AddTreeLinks(const TreeRecord& record) {
    const auto add = [&](const char* key, const char* label, size_t i) {
        m_report.Add(key, label, Text(OidOrNull(record.links[i])));
    };
    switch (record.kind) {
    case ETreeRecord::TREE:
        add("firstLeaf", "first leaf", 0);
        add("lastLeaf", "last leaf", 1);
        add("root", "root node", 2);
        break;
    case ETreeRecord::LEAF:
        add("previousLeaf", "previous leaf", 0);
        add("nextLeaf", "next leaf", 1);
        break;
    case ETreeRecord::INNER: add("leftmostChild", "leftmost child", 0); break;
    case ETreeRecord::NONE: break;
    }
}

void Decoder::AddEntries(const TreeRecord& record) {
    m_report.Add("numEntries", "entries", Count(static_cast<int64>(record.numEntries)));
    if (!record.areEntriesRead) {
        m_report.Add("decoded", "content", Text("of types that only the application can read, shown in hex only"));
        return;
    }
    Table& table = NewTable("entries", "Entries", {{"key", "key"}});
    const bool isLeaf = record.kind == ETreeRecord::LEAF;
    if (isLeaf && record.payloadType) table.columns.push_back({"payload", "payload"});
    if (!isLeaf) table.columns.push_back({"child", "child"});
    for (size_t i = 0; i < record.keys.size() && !IsFull(table, record.keys.size()); ++i) {
        std::vector<Value>& row = table.rows.emplace_back();
        row.push_back(Text(record.keys[i]));
        if (i < record.payloads.size()) row.push_back(Text(record.payloads[i]));
        if (i < record.children.size()) row.push_back(Text(OidOrNull(record.children[i])));
    }
}

} // namespace

void AddDecoded(const Directory& directory, OID oid, const ReadOnlyBuffer& record, int64 maxRows, Report& report) {
    if (!directory.IsObjectStore()) {
        report.Add("kind", "record", Text("element of a store without spaces and classes"));
        return;
    }
    Decoder decoder(directory, maxRows, report);
    try {
        switch (directory.KindOf(oid)) {
        case EElement::ROOT_RECORD: decoder.RootRecordOf(record); break;
        case EElement::SPACE_MAP: decoder.SpaceMapOf(record); break;
        case EElement::ROOTS: decoder.RootsOf(record); break;
        case EElement::DELETION_QUEUE: decoder.DeletionQueueOf(record); break;
        case EElement::OBJECT: decoder.ObjectOf(record); break;
        }
    } catch (const IException& e) {
        report.Add("damage", "not well formed", Text(e.what()));
    }
}

} // namespace quna::qxstore

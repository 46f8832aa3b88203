// What a store says of its own content: classes, types, spaces, roots.
#pragma once

#include "qxPersistStore/OID.h"
#include "qxUtils/BasicTypes.h"
#include "tools/qxstore/OpenedStore.h"
#include "tools/qxstore/StoreRecords.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quna::qxstore {

struct Space {
    std::string name;
    OID oid; // of its roots' record
    RootsRecord roots;
    DeletionRecord deletion;
};

enum class EElement {
    ROOT_RECORD,
    SPACE_MAP,
    ROOTS,
    DELETION_QUEUE,
    OBJECT
};

// Ownership: a copy of the records; the store may be closed.
class Directory {
public:
    // Gets a sentence for each record that is missing or not well formed.
    using OnProblem = std::function<void(const std::string&)>;

    // Reads what can be read. A store without the object store's records has a directory without a root record.
    Directory(OpenedStore& store, const OnProblem& onProblem);
    // The first problem is a ToolError.
    explicit Directory(OpenedStore& store);

    bool IsObjectStore() const { return m_root.has_value(); }
    // Throws ToolError if the file is a log-structured store of something else.
    const RootRecord& Root() const;
    const std::vector<Space>& Spaces() const { return m_spaces; }
    // Throws ToolError if there is none of that name.
    const Space& SpaceNamed(const std::string& name) const;

    // Which record stands at `oid`, if one does.
    EElement KindOf(OID oid) const;
    int64 NumOwnRecords() const { return static_cast<int64>(m_own.size()); }
    bool IsOwnRecord(OID oid) const { return m_own.contains(oid.value_); }

private:
    bool HasFixedRecords();
    template <class Parse>
    bool IsRecord(OID oid, Parse&& parse);
    void ReadRoot();
    void ReadSpaces();
    void ReadSpace(Space& space);
    template <class Parse>
    bool Read(OID oid, EElement kind, const std::string& what, Parse&& parse);

    OpenedStore& m_store; // while it is constructed
    const OnProblem m_onProblem;
    const std::string m_path;
    std::optional<RootRecord> m_root;
    std::vector<Space> m_spaces;
    std::map<uint64, EElement> m_own; // the records that are no objects
};

} // namespace quna::qxstore

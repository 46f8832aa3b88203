#include "tools/qxstore/Directory.h"

#include "qxUtils/Exceptions.h"
#include "tools/qxstore/ToolError.h"

#include <exception>

namespace quna::qxstore {

namespace {

Directory::OnProblem Thrower(const std::string& path) {
    return [path](const std::string& problem) {
        throw ToolError(EXIT_DAMAGED, DamagePrefix(path) + problem +
                                          "; 'qxstore verify' says what else is, a backup can take its place");
    };
}

} // namespace

Directory::Directory(OpenedStore& store) : Directory(store, Thrower(store.Path())) {}

Directory::Directory(OpenedStore& store, const OnProblem& onProblem)
    : m_store(store), m_onProblem(onProblem), m_path(store.Path()) {
    if (!HasFixedRecords()) return;
    ReadRoot();
    ReadSpaces();
}

// A log-structured store may be used without the layer above it, and then has something of its own in these places: whole
// elements, none of which is such a record. One of the two that can't be read is taken for a record, so that the damage is
// said.
bool Directory::HasFixedRecords() {
    return IsRecord(ROOT_PERSISTSTORE_OBJECT_SEID, ParseRootRecord) || IsRecord(PSPACEMAP_SEID, ParseSpaceMap);
}

template <class Parse>
bool Directory::IsRecord(OID oid, Parse&& parse) {
    bool isRecord = true;
    try {
        const bool exists = m_store.WithElement(oid, [&](const ReadOnlyBuffer& element) {
            try {
                static_cast<void>(parse(element));
            } catch (const IException&) {
                isRecord = false;
            }
        });
        return exists && isRecord;
    } catch (const IException&) {
        return true;
    }
}

// False when there is a problem, which has been reported.
template <class Parse>
bool Directory::Read(OID oid, EElement kind, const std::string& what, Parse&& parse) {
    m_own[oid.value_] = kind;
    std::string problem;
    try {
        if (m_store.WithElement(oid, parse)) return true;
        problem = what + " (" + OidText(oid) + ") is missing";
    } catch (const std::exception& e) {
        problem = what + " (" + OidText(oid) + ") can't be read: " + WithoutDamagePrefix(e.what(), m_path);
    }
    m_onProblem(problem);
    return false;
}

void Directory::ReadRoot() {
    m_root.emplace();
    Read(ROOT_PERSISTSTORE_OBJECT_SEID, EElement::ROOT_RECORD, "the root record",
         [this](const ReadOnlyBuffer& record) { m_root = ParseRootRecord(record); });
}

void Directory::ReadSpaces() {
    std::vector<NamedOid> names;
    Read(PSPACEMAP_SEID, EElement::SPACE_MAP, "the map of spaces",
         [&names](const ReadOnlyBuffer& record) { names = ParseSpaceMap(record); });
    for (const NamedOid& name : names) {
        Space& space = m_spaces.emplace_back();
        space.name = name.name;
        space.oid = name.oid;
        ReadSpace(space);
    }
}

void Directory::ReadSpace(Space& space) {
    const std::string of = " of the space '" + space.name + "'";
    if (!Read(space.oid, EElement::ROOTS, "the record of the roots" + of,
              [&space](const ReadOnlyBuffer& record) { space.roots = ParseRootsRecord(record); }))
        return;
    Read(space.roots.deletionQueue, EElement::DELETION_QUEUE, "the deletion queue" + of,
         [&space](const ReadOnlyBuffer& record) { space.deletion = ParseDeletionRecord(record); });
}

const RootRecord& Directory::Root() const {
    if (!m_root)
        throw ToolError(EXIT_NOT_FOUND, "The store '" + m_path +
                                            "' holds no spaces and classes: its elements were written by something "
                                            "else than the object store; 'qxstore stats' counts them");
    return *m_root;
}

const Space& Directory::SpaceNamed(const std::string& name) const {
    Root();
    for (const Space& space : m_spaces) {
        if (space.name == name) return space;
    }
    throw ToolError(EXIT_NOT_FOUND,
                    "The store '" + m_path + "' has no space '" + name + "'; 'qxstore spaces' lists those that it has");
}

EElement Directory::KindOf(OID oid) const {
    const auto own = m_own.find(oid.value_);
    return own == m_own.end() ? EElement::OBJECT : own->second;
}

} // namespace quna::qxstore

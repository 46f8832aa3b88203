#include "tools/qxstore/ObjectCheck.h"

#include "qxUtils/Exceptions.h"
#include "tools/qxstore/StoreRecords.h"
#include "tools/qxstore/Units.h"

#include <unordered_set>

namespace quna::qxstore {

void ObjectCheck::Check(OID oid, const ReadOnlyBuffer& record) {
    if (!m_directory.IsObjectStore() || m_directory.IsOwnRecord(oid)) return;
    ++m_numObjects;
    try {
        const ObjectRecord object = ParseObjectRecord(record);
        const std::string* const className = m_directory.Root().ClassName(object.cid);
        if (!className) {
            ++m_numOpaque;
            m_findings.Problem("object " + OidText(oid) + ": its class has the number " + std::to_string(object.cid) +
                               ", the store knows " +
                               Counted(static_cast<int64>(m_directory.Root().classes.size()), "class", "classes"));
            return;
        }
        const ETreeRecord kind = TreeRecordOf(*className);
        if (*className == OID_SPACE_MAP_CLASS)
            ParseOidSpaceMap(BodyOf(record, object));
        else if (kind == ETreeRecord::NONE)
            ++m_numOpaque;
        else
            CheckTree(oid, kind, *className, BodyOf(record, object));
    } catch (const IException& e) {
        ++m_numOpaque;
        m_findings.Problem("object " + OidText(oid), e);
    }
}

void ObjectCheck::CheckTree(OID oid, ETreeRecord kind, const std::string& className, const ReadOnlyBuffer& body) {
    const TreeRecord record = ParseTreeRecord(kind, body, m_directory.Root().types, false);
    if (!record.areEntriesRead) ++m_numOpaque;
    for (const OID link : record.links) {
        if (link) CheckLink(oid, className, link);
    }
    for (const OID child : record.children) CheckLink(oid, className, child);
    m_numReferences += static_cast<int64>(record.valueReferences.size());
    for (const OID value : record.valueReferences) m_numDangling += IsMissing(value);
}

// A page of the index that can't be read is a problem of its own, told once: not of each that refers to what it names.
bool ObjectCheck::IsMissing(OID oid) const {
    try {
        return !m_store.Exists(oid);
    } catch (const IException&) {
        return false;
    }
}

// Nodes of a tree are deleted with the tree alone, so one that is missing is damage.
void ObjectCheck::CheckLink(OID from, const std::string& className, OID to) {
    ++m_numReferences;
    if (IsMissing(to))
        m_findings.Problem("object " + OidText(from) + " (" + className + ") needs " + OidText(to) +
                           ", which does not exist");
}

void ObjectCheck::CheckSpaces() {
    for (const Space& space : m_directory.Spaces()) {
        for (const NamedOid& root : space.roots.roots) {
            ++m_numReferences;
            if (IsMissing(root.oid))
                m_findings.Problem("root '" + root.name + "' of the space '" + space.name + "' names " +
                                   OidText(root.oid) + ", which does not exist");
        }
        CheckQueue(space);
    }
    if (m_numDangling)
        m_findings.Note(Counted(m_numDangling, "reference", "references") +
                        " in trees to objects that do not exist: permanent deletion leaves such");
}

void ObjectCheck::CheckQueue(const Space& space) {
    int64 numGone = 0;
    for (const std::vector<OID>* queue : {&space.deletion.subTrees, &space.deletion.objects}) {
        for (const OID oid : *queue) numGone += IsMissing(oid);
        m_numReferences += static_cast<int64>(queue->size());
    }
    if (numGone)
        m_findings.Note("the deletion queue of the space '" + space.name + "' names " +
                        Counted(numGone, "object that is", "objects that are") + " gone already");
}

void ObjectCheck::AddReferencesOf(OID oid, std::vector<OID>& references) {
    m_store.WithElement(oid, [&](const ReadOnlyBuffer& record) {
        const ObjectRecord object = ParseObjectRecord(record);
        const ETreeRecord kind = TreeRecordOf(*m_directory.Root().ClassName(object.cid));
        if (kind == ETreeRecord::NONE) return; // refers to nothing
        const TreeRecord tree = ParseTreeRecord(kind, BodyOf(record, object), m_directory.Root().types, false);
        for (const std::vector<OID>* more : {&tree.links, &tree.children, &tree.valueReferences})
            references.insert(references.end(), more->begin(), more->end());
    });
}

// What waits for its deletion is not lost either.
void ObjectCheck::FindOrphans() {
    if (!m_directory.IsObjectStore()) return;
    if (m_numOpaque) {
        m_findings.Note(Counted(m_numOpaque, "object", "objects") +
                        " of classes that only the application knows: their references were not followed, so orphans "
                        "can't be told");
        return;
    }
    if (m_findings.NumProblems()) return; // what can't be read refers to others
    std::vector<OID> toVisit;
    for (const Space& space : m_directory.Spaces()) {
        for (const NamedOid& root : space.roots.roots) toVisit.push_back(root.oid);
        toVisit.insert(toVisit.end(), space.deletion.subTrees.begin(), space.deletion.subTrees.end());
        toVisit.insert(toVisit.end(), space.deletion.objects.begin(), space.deletion.objects.end());
    }
    std::unordered_set<uint64> reached;
    while (!toVisit.empty()) {
        const OID oid = toVisit.back();
        toVisit.pop_back();
        if (oid && reached.insert(oid.value_).second && !m_directory.IsOwnRecord(oid)) AddReferencesOf(oid, toVisit);
    }
    m_areOrphansKnown = true;
    m_store.Lss().VisitElements([&](Seid seid, Location) {
        if (!m_directory.IsOwnRecord(seid) && !reached.contains(seid.value_)) m_findings.Orphan(OidText(seid));
    });
}

} // namespace quna::qxstore

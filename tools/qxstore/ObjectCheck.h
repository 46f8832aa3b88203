// Checks the records of the object store: classes, references, and whether everything is reachable.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxPersistStore/OID.h"
#include "qxUtils/BasicTypes.h"
#include "tools/qxstore/Directory.h"
#include "tools/qxstore/Findings.h"
#include "tools/qxstore/OpenedStore.h"
#include "tools/qxstore/TreeRecords.h"

#include <string>

namespace quna::qxstore {

// The records of trees are read and their references followed. Those of the application's classes are not: what stands in
// them only the application knows. So orphans are looked for only if there is none of these: else an object might be
// called an orphan that one of them refers to.
class ObjectCheck {
public:
    ObjectCheck(OpenedStore& store, const Directory& directory, Findings& findings)
        : m_store(store), m_directory(directory), m_findings(findings) {}

    // One element, as it was read.
    void Check(OID oid, const ReadOnlyBuffer& record);
    // After all of them.
    void CheckSpaces();
    void FindOrphans();

    int64 NumObjects() const { return m_numObjects; }
    // Objects whose references are not known.
    int64 NumOpaque() const { return m_numOpaque; }
    int64 NumReferences() const { return m_numReferences; }
    bool AreOrphansKnown() const { return m_areOrphansKnown; }

private:
    void CheckTree(OID oid, ETreeRecord kind, const std::string& className, const ReadOnlyBuffer& body);
    void CheckLink(OID from, const std::string& className, OID to);
    bool IsMissing(OID oid) const;
    void CheckQueue(const Space& space);
    void AddReferencesOf(OID oid, std::vector<OID>& references);

    OpenedStore& m_store;
    const Directory& m_directory;
    Findings& m_findings;
    int64 m_numObjects = 0;
    int64 m_numOpaque = 0;
    int64 m_numReferences = 0;
    int64 m_numDangling = 0;
    bool m_areOrphansKnown = false;
};

} // namespace quna::qxstore

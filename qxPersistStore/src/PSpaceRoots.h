// The named entry points of a space, and the record that makes the space exist on disk.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxObject/IObjectVisitor.h"
#include "qxPersistStore/IPrefVisitor.h"
#include "qxPersistStore/OID.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Export.h"
#include "qxUtils/xstring.h"

#include <atomic>
#include <map>

namespace quna {

class PSpace;

// Record at the space's own OID, schema 1:
//   1..5   schema tag
//   1..5   number of roots    variable length
//   n x    name, reference    string; OID
//   2..10  m_dqOid            OID of the deletion queue's record
//
// A root is reachable for ever, until it is removed: the space visits every entry for the collector. Removing a root
// forgets its name and nothing else.
// Threads: under the space's CSpace lock, which PSpace asserts; m_dirty may be read without.
class QX_API PSpaceRoots {
public:
    using ROOTS = std::map<xstring, pref<IPersistable>>;

    PSpaceRoots(OID oid, bool creating);

    // Null when there is no such name. Binds the root, loading it if need be.
    ptr<IPersistable> GetRoot(ConstStringZ name) const;
    // False, with nothing changed, when the name is taken. The root becomes persistent with all that it reaches.
    bool AddRoot(PSpace* pspace, ConstStringZ name, ptr<IPersistable> root);
    bool RemoveRoot(ConstStringZ name);
    void Clear();

    void WriteToLssIfDirty(ILssTransaction& txn);
    // Throws DerefDanglingOidException when the record is missing.
    void ReadFromLss(ILogStructuredStore* lss);
    void Serialise(Archive& ar) const;
    InputArchive Deserialise(InputArchive ar);

    void VisitObjects(IObjectVisitor& v) const;
    void VisitPrefs(IPrefVisitor& v) const;

    OID m_dqOid;               // null until the space is created or read
    const OID m_oid;           // not null
    std::atomic<bool> m_dirty; // the record differs from the one in the LSS
    ROOTS m_roots;
};

} // namespace quna

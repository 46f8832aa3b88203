// The directory of a store: the names of its spaces.
#pragma once

#include "qxLss/EOpenMode.h"
#include "qxLss/ILogStructuredStore.h"
#include "qxPersistStore/OID.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Export.h"
#include "qxUtils/xstring.h"

#include <atomic>
#include <map>
#include <mutex>
#include <set>

namespace quna {

class CSpace;
class PSpace;
class PersistStore;

// Record at PSPACEMAP_SEID, schema 1:
//   1..5   schema tag
//   1..5   number of committed entries    variable length
//   n x    name, m_oid                    string, OID; in key order
//
// An entry is made when a space is opened, but is written only once it is committed, which the writer does in the
// transaction that first writes the space's records: the directory never names a space whose records are missing. No
// entry is ever erased.
// Threads: mutex_ guards all but m_ps, for one operation at a time. It is not held while a space is constructed, which
//   locks and reads: the name is reserved in m_opening meanwhile, and another open of it fails at once.
class QX_API PSpaceMap {
public:
    struct Entry {
        OID m_oid; // of the space's record, which is the space's own
        bool m_committed = false;
        PSpace* m_ptr = nullptr; // the open space; not owned
    };
    using MAP = std::map<xstring, Entry>;

    explicit PSpaceMap(PersistStore& ps) : m_ps(ps) {}
    PSpaceMap(const PSpaceMap&) = delete;
    PSpaceMap& operator=(const PSpaceMap&) = delete;
    // Fails "i->second.m_ptr == __null" for a space that is open.
    ~PSpaceMap() noexcept(false);

    void Read(ILogStructuredStore& lss);
    void WriteIfDirty(ILssTransaction& txn);
    // Throws OpenPSpaceException when the mode does not fit the name.
    PSpace* OpenPSpace(ILogStructuredStore& lss, OidHigh oidHigh, ConstStringZ name, EOpenMode openMode,
                       CSpace* cspace);
    void RemovePSpace(PSpace* pspace);
    void CommitPSpace(PSpace* p);
    ssize_t GetNumPSpaces() const;
    // Is the identifier that of a space's record, or of its queue's? Reads the records of spaces that are not open, if there is
    // an element under the identifier at all.
    bool HasRecord(ILogStructuredStore& lss, OID oid) const;
    void Serialise(Archive& ar) const;
    InputArchive Deserialise(InputArchive ar);

    // The destructor's check, for an owner that must still free its memory when it fails: every entry counts as closed
    // afterwards.
    void AssertAllClosed();

private:
    class OpeningName;

    // What OpenPSpace needs to know: the space's OID, null for a name that is not in the map.
    OID ReserveName(const xstring& name, EOpenMode openMode);

    PersistStore& m_ps;
    mutable std::mutex mutex_;
    mutable std::atomic<bool> m_dirty = true; // the record differs from the one in the LSS
    MAP map_;
    std::set<xstring> m_opening; // names whose spaces are under construction
};

} // namespace quna

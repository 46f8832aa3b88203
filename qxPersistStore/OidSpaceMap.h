// OidSpaceMap, the names of a store's identifier spaces, and with it all that carries identifiers to another store:
// Goid, OidHighWriter and OidHighReader. docs/moving-objects.md shows how they work together.
#pragma once

#include "qxPersistStore/Goid.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/OID.h"
#include "qxPersistStore/OidHighReader.h"
#include "qxPersistStore/OidHighWriter.h"
#include "qxUtils/Archive.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Guid.h"
#include "qxUtils/Mutex.h"
#include "qxUtils/xvector.h"

#include <map>
#include <mutex>

namespace quna {

class xostream;
struct ReflectedClass;
struct TypeOps;
struct XTarget;

class OidSpaceMap;
QX_API const ReflectedClass& _GetReflected(const OidSpaceMap*);
QX_API const TypeOps* _GetTypeOps(const OidSpaceMap*);
QX_API void _Register_OidSpaceMap(XTarget* target);

// The two-way table between the numbers that identifier spaces have in one store and their names, which they have in
// all stores. Reflected as "quna::OidSpaceMap".
//
// A persistent object like any other: the store makes none by itself. The application keeps one in a space, best as a
// named root that stays in memory (BootstrapPSpaceRoot): translators borrow it, and the delta goes with the instance. A
// store needs no more than one; a second would give the same spaces other names.
//
// Threads:   mutex_ guards the maps and the delta, so look-ups run on any thread that may use the object. Whoever
//   changes a persistent map marks it dirty and so holds its domain's lock exclusively: that lock first, mutex_ second.
//   While mutex_ is held, a new number is taken from the log-structured store and the dirty set is changed; neither
//   calls back.
// Invariant: the two maps are inverses of each other, and 0 is in neither.
//
// Record, schema 1. No hook has a part in it: it holds this store's own numbers.
//   1..5     schema tag
//   1..5     n        variable length
//   n x 20   entry    OidHigh (4, little-endian), OidSpaceGuid (16); ascending OidHighs
class QX_API OidSpaceMap : public PersistableMixin<IObjectBaseMixin<OidSpaceMap, EmptyBase>> {
public:
    using NAME_MAP = std::map<uint32, Guid>;
    using ID_MAP = std::map<Guid, uint32>;

    OidSpaceMap() = default;
    OidSpaceMap(const OidSpaceMap&) = delete; // two maps of one store
    OidSpaceMap& operator=(const OidSpaceMap&) = delete;

    void Serialise(Archive& ar) const;
    // Into a freshly constructed object; locks nothing. RecordException when an entry has the number 0 or a name that
    // another one has.
    InputArchive Deserialise(InputArchive ar);

    // The number of entries.
    ssize_t size() const;

    // 0 when the space is not known.
    OidHigh GetOidHigh(const OidSpaceGuid& osg) const;
    // False, with `guid` untouched, when the number is not known. Requires: oh is not 0.
    bool GetOidSpaceGuid(OidHigh oh, OidSpaceGuid& guid) const;

    // A name that is not known gets a new number of the store to which the thread's current space belongs: the store of
    // this map. No space of that store, its own or foreign, ever has the same one.
    OidHigh GetOrCreateOidHigh(const OidSpaceGuid& osg);
    // A number that is not known gets a new name. Requires: oh is not 0, and a number of this store.
    void GetOrCreateOidSpaceGuid(OidHigh oh, OidSpaceGuid& guid);

    // Requires: neither is known, oh is not 0; nobody else uses the map, which does not lock. When it throws, the entry
    // is not there.
    void Add(OidHigh oh, const OidSpaceGuid& osg);
    // Requires: oh is known. The delta is left alone.
    void RemoveOidHigh(OidHigh oh);

    // Does not lock: good until the map is changed.
    const NAME_MAP& GetOidHighToGuidMap() const { return m_nameMap; }
    // Exchanges the numbers added since the last exchange, or since reading, with the caller's vector, which is usually
    // empty.
    void SwapOutOidHighsDelta(xvector<uint32>& delta);

    void Write(xostream& os) const;

    NAME_MAP m_nameMap;
    mutable Mutex mutex_{"OidSpaceMap::mutex_"}; // not recursive
    ID_MAP m_idMap;
    xvector<uint32> newOidHighsDelta_; // not stored
};

QX_API xostream& operator<<(xostream& os, const OidSpaceMap& map);

} // namespace quna

// The store's table of classes.
#pragma once

#include "qxPersistStore/CID.h"
#include "qxPersistStore/ClassNameTranslation.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"
#include "qxUtils/xstring.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <deque>
#include <map>
#include <mutex>

namespace quna {

struct ReflectedClass;

// Maps a class to its CID and back. It stores names, so that a store can be opened by a program whose classes lie
// elsewhere, and it grows by one entry the first time that a class is written. Entries are never removed or renumbered.
//
// Record, schema 1, inside the root record:
//   1..5   schema tag
//   1..5   n
//   n x    xstring   full class name; the first is CID 1
//
// Threads: any, after Deserialise; mutex_ is held across the look-up in the class registry and nothing else. Loading and
//   writing an object asks here each time, so what has been found once is found again without the mutex.
// Invariant: m_nameToCid names every entry once.
class QX_API CidMap {
public:
    CidMap() = default;
    CidMap(const CidMap&) = delete;
    CidMap& operator=(const CidMap&) = delete;

    // The id of the class, made if need be. `dirty` says whether an entry was made: the record must be written then.
    CID GetCid(const ReflectedClass& rc, bool& dirty);

    // BadCidException if there is no such entry; the assertion "e.m_rc" fails if this process has no class of that
    // name. A store may hold classes unknown to the process, as long as no object of them is loaded.
    const ReflectedClass& GetReflectedClass(CID cid);

    void Serialise(Archive& ar) const;

    // Into an empty map that no other thread can reach. `dirty` says whether the table, which may be null, renamed a
    // class. RepeatedClassNameInCidMapException if two entries end with one name.
    InputArchive Deserialise(InputArchive ar, const ClassNameTranslationTable* table, bool& dirty);

private:
    using NAME_MAP = std::map<xstring, CID>;
    using RC_MAP = std::map<const ReflectedClass*, CID>;

    struct Entry {
        Entry() = default;
        explicit Entry(const ReflectedClass& rc);

        xstring m_name;                       // as it stands in the store
        const ReflectedClass* m_rc = nullptr; // null until looked up
    };

    // A class and its id, for ever.
    struct Known {
        const ReflectedClass* m_rc;
        CID m_cid;
    };
    static constexpr std::size_t NUM_QUICK = 256;

    CID AddEntry(const ReflectedClass& rc, const xstring& name);
    CID FindOrAddCid(const ReflectedClass& rc, bool& dirty);
    std::atomic<const Known*>& QuickCid(const ReflectedClass& rc);

    // What needs no mutex: the classes of the lowest ids, by id, and the ids of classes, by address, each in the one place
    // that it can have there. Null: ask under the mutex. What is stored once is true for ever.
    std::array<std::atomic<const ReflectedClass*>, NUM_QUICK> m_quickClasses{};
    std::array<std::atomic<const Known*>, NUM_QUICK> m_quickCids{};

    mutable Mutex mutex_{"CidMap::mutex_"};
    std::deque<Known> m_known;  // those in m_quickCids
    std::deque<Entry> m_entrys; // by CID - 1
    NAME_MAP m_nameToCid;
    RC_MAP m_rcToCid; // what this process has asked for already; not stored
};

} // namespace quna

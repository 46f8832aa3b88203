// The store's table of types.
#pragma once

#include "qxObject/ReflectionByteCodeValue.h"
#include "qxPersistStore/TypeOpsId.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <atomic>
#include <deque>
#include <map>
#include <mutex>

namespace quna {

struct TypeOps;

// Maps the description of a type to its TypeOpsId and back, for containers whose keys and payloads are known only at
// run time. Entries are never removed or renumbered.
//
// Record, schema 1, inside the root record:
//   1..5   schema tag
//   1..5   n
//   n x    ReflectionByteCodeValue; the first is id 1
//
// Threads: any, after Deserialise; mutex_ is held across the look-up of a type's operations and nothing else.
class QX_API TypeOpsMap {
public:
    TypeOpsMap() = default;
    TypeOpsMap(const TypeOpsMap&) = delete;
    TypeOpsMap& operator=(const TypeOpsMap&) = delete;

    // The id of the description, made if need be. `dirty` says whether an entry was made: the record must be written then.
    // An entry that is there already keeps the operations that it has.
    TypeOpsId GetTypeOpsId(const ReflectionByteCodeValue& rbcv, const TypeOps& ops, bool& dirty);
    // The same, but the flag of the record is only set, and before any other thread can get the id: whoever writes an object
    // that names it finds it set.
    TypeOpsId GetTypeOpsId(const ReflectionByteCodeValue& rbcv, const TypeOps& ops, std::atomic<bool>& recordDirty);

    // BadTypeOpsIdException if there is no such entry; TypeOpsNotFoundException if this process has no operations for
    // the description. The result is valid for the life of the map.
    BcTypeOps GetTypeOps(TypeOpsId tid);

    void Serialise(Archive& ar) const;

    // Into an empty map that no other thread can reach. Of two equal descriptions the later gives the id.
    InputArchive Deserialise(InputArchive ar);

private:
    using RBCV_MAP = std::map<ReflectionByteCodeValue, TypeOpsId>;

    struct Entry {
        ReflectionByteCodeValue m_rbcv;
        const TypeOps* m_typeOps = nullptr; // null until looked up
    };

    mutable Mutex mutex_{"TypeOpsMap::mutex_"};
    std::deque<Entry> m_entrys; // by id - 1; a deque, since the descriptions handed out must not move
    RBCV_MAP m_rbcvToTypeOpsId;
};

} // namespace quna

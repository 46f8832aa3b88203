// The first record of every store: what is global to it.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxPersistStore/ClassNameTranslation.h"
#include "qxPersistStore/OID.h"
#include "qxPersistStore/src/CidMap.h"
#include "qxPersistStore/src/TypeOpsMap.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Export.h"

#include <atomic>

namespace quna {

// Record at ROOT_PERSISTSTORE_OBJECT_SEID, schema 2:
//   1..5   schema tag
//   map    m_cidMap                      class ids
//   4      m_oidHighForOidAllocations    raw little-endian, through no hook
//   map    m_typeOpsMap                  type ids; absent in schema 1
//
// Threads: read and constructed alone; afterwards the maps guard themselves, and m_dirty is set by any thread and
//   cleared by the writer only.
class QX_API RootPersistStoreObject {
public:
    void Serialise(Archive& ar) const;
    // Sets m_dirty when the table renamed a stored class.
    InputArchive Deserialise(InputArchive ar, ClassNameTranslationTable const* table);

    // An exception leaves the record dirty.
    void WriteIfDirty(ILssTransaction& txn) const;
    // QunaSystemException when the record is missing or its length is wrong. Writes it back at once when a class was
    // renamed.
    void Read(ILogStructuredStore& lss, ClassNameTranslationTable const* table);

    mutable std::atomic<bool> m_dirty = false; // the record differs from the one in the LSS
    OidHigh m_oidHighForOidAllocations = 0;    // of the store's own identifiers and of every space's; 0 until known
    CidMap m_cidMap;
    TypeOpsMap m_typeOpsMap;

private:
    bool IsUsedExactly(IContiguousSerialElement& se, ClassNameTranslationTable const* table);
};

} // namespace quna

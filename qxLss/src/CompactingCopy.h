// The copy of a store's elements into a file that holds nothing else.
#pragma once

#include "qxLss/Backup.h"
#include "qxLss/src/CopyGate.h"
#include "qxLss/src/HotBackup.h"
#include "qxLss/src/Index.h"
#include "qxLss/src/Recovery.h"
#include "qxLss/src/StoreCore.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <memory>

namespace quna {

class LssStore;

// What the recovery of a store that is open read-only has found, for the copies that are made of it.
struct CopyOrigin {
    CheckpointHeader header; // that it began with
    RecoveredLog log;
    int64 numElements;
};

// Writes every element of a store that does not change into a fresh one, through its ordinary transactions. The fresh store
// keeps the source's id, goes on with its segment sequences, clock and transaction number, and has its horizons, so that
// the log's archive continues. Nothing runs in the background there, so its index is written once, at the end.
//
// Ownership: borrows everything.
// Threads:   one. Others may read the source.
class QX_API CompactingCopy {
public:
    CompactingCopy(const StoreCore& source, const Index& index, const BackupOptions& options, const CopyGate& gate)
        : m_source(source), m_index(index), m_options(options), m_gate(gate) {}

    // False if cancelled. Throws FileException or CorruptLSSException.
    [[nodiscard]] bool CopyElements(LssStore& target);
    int64 NumElements() const { return m_numElements; }
    int64 BytesCopied() const { return m_bytes; }

private:
    class Batch;

    const StoreCore& m_source;
    const Index& m_index;
    const BackupOptions& m_options;
    const CopyGate& m_gate;
    int64 m_numElements = 0;
    int64 m_bytes = 0; // of their packets, about
};

} // namespace quna

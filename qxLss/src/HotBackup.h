// The copy of a store's segments as they are.
#pragma once

#include "qxLss/Backup.h"
#include "qxLss/src/Checkpoint.h"
#include "qxLss/src/CopyGate.h"
#include "qxLss/src/FileIo.h"
#include "qxLss/src/SpaceManager.h"
#include "qxLss/src/StoreCore.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <vector>

namespace quna {

// Tells the caller of a copy how far it is.
//
// Threads: the copying one.
class QX_API CopyProgress {
public:
    CopyProgress(const BackupOptions& options, const CopyGate& gate, int64 bytesTotal)
        : m_options(options), m_gate(gate), m_total(bytesTotal) {}

    // False: the copy is cancelled. What is more than the total counts as the total.
    [[nodiscard]] bool Report(int64 bytesDone);

private:
    const BackupOptions& m_options;
    const CopyGate& m_gate;
    const int64 m_total;
};

// The slots of a checkpoint's image are copied to the same places of another file, in front of them its header with the mark
// of a clean close, and one block of the allocation ring that vouches for that. So whoever opens the copy finds the state at
// the checkpoint's position and nothing to roll forward: the user segment that was open there is copied up to the position,
// and what the log has grown since is not in the copy.
//
// Every other segment of the image is complete: user segments are sealed, index segments end with their checkpoint, and an
// open survivor segment only grows, behind what the image's index names.
//
// Ownership: borrows everything. Releases each slot once it is copied.
// Threads:   one; all others go on.
class QX_API HotBackup {
public:
    HotBackup(const StoreCore& core, File& source, File& target, const BackupOptions& options, const CopyGate& gate)
        : m_core(core), m_source(source), m_target(target), m_options(options), m_gate(gate) {}

    // Of a store that is open for writing. False if cancelled. Throws FileException or CorruptLSSException.
    [[nodiscard]] bool CopyImage(const CheckpointImage& image, SpaceManager& space);
    // Of a store that nobody writes: the whole file, so that opening the copy rolls the same log forward. `numSlots`: that
    // the segment table knows.
    [[nodiscard]] bool CopyFile(ssize_t numSlots);

    int64 FileSize() const { return m_fileSize; }
    int64 BytesCopied() const { return m_bytesCopied; }

private:
    void ReadSegment(ssize_t slot, ssize_t n);
    void Verify(ssize_t slot, const SutEntry& entry, ssize_t end) const;
    void WriteSegment(ssize_t slot, ssize_t n);
    void WriteFront(const CheckpointImage& image);

    const StoreCore& m_core;
    File& m_source;
    File& m_target;
    const BackupOptions& m_options;
    const CopyGate& m_gate;
    std::vector<octet_t> m_buffer; // one segment
    int64 m_fileSize = 0;
    int64 m_bytesCopied = 0;
};

} // namespace quna

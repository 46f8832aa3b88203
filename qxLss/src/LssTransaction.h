// A transaction: packets in the user stream that become visible together.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxLss/src/ElementStream.h"
#include "qxLss/src/Index.h"
#include "qxLss/src/StoreCore.h"
#include "qxLss/src/UserLog.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <functional>
#include <unordered_map>
#include <vector>

namespace quna {

class SeidAllocator;

// What a commit changes in the store's counters; added at its end.
struct UsageDelta {
    int64 head = 0;
    int64 overflow = 0;
    int64 bytes = 0;

    void AddTo(StoreCounters& counters) const;
};

// Has the turn from opening to the end of publishing.
//
// Ownership: one object of the store, used again for each transaction.
// Threads:   one at a time, not always the same.
// Invariant: m_changes holds one entry for each finished write or deletion, in order; the last of a Seid counts. The bit of
//            a Seid in its leaf (IndexLeaf::written) is set exactly if it has an entry.
class QX_API LssTransaction final : public ILssTransaction {
public:
    // Called by Close when the turn has been given back.
    using ClosedHook = std::function<void(bool unwinding)>;

    LssTransaction(StoreCore& core, UserLog& log, Index& index, Flusher& flusher, SeidAllocator& allocator,
                   ClosedHook closed);

    // Requires: the caller has taken the turn.
    void Open();

    void Close() override;
    void RequestFlushToDisk() override;
    void RequestDropWhenUnwinding() override { m_dropWhenUnwinding = true; }
    ICloseableOutputStream* WriteSerialElement(Seid seid) override;
    bool DeleteSerialElement(Seid seid) override;

    // --- for ElementStream

    void AddElement(Location l, const std::vector<Location>& parts);
    // Writing has failed: undoes the transaction and stops the store's writing. For a catch block.
    void Break() noexcept;
    void ThrowIfBroken() const {
        if (m_broken) [[unlikely]]
            m_core.ThrowIfUnwritable();
    }

private:
    static constexpr uint32 NO_PARTS = ~uint32{0};

    struct Change {
        IndexSlot slot;
        Location location; // 0: deleted
        uint32 parts;      // index in m_parts, NO_PARTS for an element of one packet
    };
    struct DeadParts {
        Seid seid;
        std::vector<Location> parts;
    };

    void PrepareChange(Seid seid);
    void AddChange(Location l, uint32 parts);
    bool IsWritten(const IndexSlot& slot) const;
    bool ExistsInside(Seid seid);
    void CheckSeid(Seid seid);
    void Commit(bool unwinding);
    void Publish();
    void MarkSuperseded();
    bool WantsSync() const;

    StoreCore& m_core;
    UserLog& m_log;
    Index& m_index;
    Flusher& m_flusher;
    SeidAllocator& m_allocator;
    const ClosedHook m_closed;
    ElementStream m_stream;

    uint64 m_number = 0; // of this use of the object; never 0 while open
    int m_uncaughtAtOpen = 0;
    bool m_flushRequested = false;
    bool m_dropWhenUnwinding = false;
    bool m_broken = false; // undone by a failure
    bool m_hasDuplicates = false;
    std::vector<Change> m_changes;
    std::vector<std::vector<Location>> m_parts;      // of long elements written
    std::vector<DeadParts> m_dead;                   // of long elements replaced or deleted
    IndexSlot m_preparedSlot{};                      // of the open stream
    std::vector<Location> m_preparedDead;            // parts that die if the open stream is finished
    std::unordered_map<uint64, size_t> m_lastChange; // by Seid, of the first m_numMapped changes
    size_t m_numMapped = 0;
};

} // namespace quna

#include "qxLss/src/LssTransaction.h"

#include "qxLss/src/Mutants.h"
#include "qxLss/src/SeidAllocator.h"
#include "qxLss/src/SerialElement.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Exceptions.h"

#include <exception>
#include <new>
#include <utility>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/Transaction";

} // namespace

void UsageDelta::AddTo(StoreCounters& counters) const {
    if (head) counters.liveHead.fetch_add(head, std::memory_order_relaxed);
    if (overflow) counters.liveOverflow.fetch_add(overflow, std::memory_order_relaxed);
    counters.liveBytes.fetch_add(bytes, std::memory_order_relaxed);
}

LssTransaction::LssTransaction(StoreCore& core, UserLog& log, Index& index, Flusher& flusher, SeidAllocator& allocator,
                               ClosedHook closed)
    : m_core(core), m_log(log), m_index(index), m_flusher(flusher), m_allocator(allocator), m_closed(std::move(closed)),
      m_stream(*this, log, core.m_segmentSize) {}

void LssTransaction::Open() {
    ++m_number;
    m_uncaughtAtOpen = std::uncaught_exceptions();
    m_flushRequested = false;
    m_dropWhenUnwinding = false;
    m_broken = false;
    m_hasDuplicates = false;
    m_changes.clear();
    m_parts.clear();
    m_dead.clear();
    m_lastChange.clear();
    m_numMapped = 0;
}

void LssTransaction::RequestFlushToDisk() { m_flushRequested = true; }

// --- changes

// An identifier that is not from here may be from another store, which sent the object with it.
void LssTransaction::CheckSeid(Seid seid) {
    QX_ASSERT(seid);
    if (m_allocator.IsAllocated(seid)) [[likely]]
        return;
    m_core.ThrowIfUnwritable();
    QX_ASSERT_TEXT(m_allocator.TakeOver(seid), "m_allocator.IsAllocated(seid)");
}

ICloseableOutputStream* LssTransaction::WriteSerialElement(Seid seid) {
    QX_ASSERT(!m_stream.IsOpen());
    CheckSeid(seid);
    m_core.ThrowIfUnwritable();
    PrepareChange(seid);
    try {
        m_stream.Open(seid);
    } catch (...) {
        Break();
        throw;
    }
    return &m_stream;
}

bool LssTransaction::DeleteSerialElement(Seid seid) {
    QX_ASSERT(!m_stream.IsOpen());
    m_core.ThrowIfUnwritable();
    if (!m_index.Find(seid)) // also an identifier never written: no leaf is made for it
        return false;
    PrepareChange(seid);
    const bool exists = IsWritten(m_preparedSlot) ? ExistsInside(seid) : m_preparedSlot.Get() != 0;
    if (!exists) return false;
    try {
        m_log.AppendDelete(seid.value_);
        AddChange(0, NO_PARTS);
    } catch (...) {
        Break();
        throw;
    }
    return true;
}

// Loads now what the commit will need, so that it cannot fail there: the leaf, and the list of an old long element.
void LssTransaction::PrepareChange(Seid seid) {
    m_preparedDead.clear();
    m_preparedSlot = m_index.Prepare(seid);
    const Location old = m_preparedSlot.Get();
    if (IsLong(old) && !IsWritten(m_preparedSlot)) {
        const octet_t* const head = LoadPacket(m_core, old, EPacketType::HEAD, seid.value_);
        m_preparedDead = ParseLongHead(m_core, head, old).parts;
    }
}

bool LssTransaction::IsWritten(const IndexSlot& slot) const {
    const size_t i = static_cast<size_t>(slot.index);
    return slot.leaf->transaction == m_number && (slot.leaf->written[i / 64] >> (i % 64) & 1);
}

// The last change of the Seid decides. A map of the changes is made only when this question comes up.
bool LssTransaction::ExistsInside(Seid seid) {
    for (; m_numMapped < m_changes.size(); ++m_numMapped) {
        const IndexSlot& slot = m_changes[m_numMapped].slot;
        const Seid changed(slot.leaf->page << LEAF_SHIFT | static_cast<uint32>(slot.index), slot.leaf->high);
        m_lastChange[changed.value_] = m_numMapped;
    }
    return m_changes[m_lastChange.at(seid.value_)].location != 0;
}

void LssTransaction::AddElement(Location l, const std::vector<Location>& parts) {
    uint32 partsIndex = NO_PARTS;
    if (!parts.empty()) {
        partsIndex = static_cast<uint32>(m_parts.size());
        m_parts.push_back(parts);
    }
    AddChange(l, partsIndex);
}

void LssTransaction::AddChange(Location l, uint32 parts) {
    if (IsMutant(EMutant::GROUP_IN_TWO_FRAMES) && m_changes.size() == 1) {
        m_log.AppendCommit(0);
        m_log.NoteCommitted();
    }
    m_changes.push_back({m_preparedSlot, l, parts});
    IndexLeaf& leaf = *m_preparedSlot.leaf;
    if (leaf.transaction != m_number) {
        leaf.transaction = m_number;
        for (uint64& bits : leaf.written) bits = 0;
    }
    const size_t i = static_cast<size_t>(m_preparedSlot.index);
    const uint64 bit = uint64{1} << (i % 64);
    if (leaf.written[i / 64] & bit) {
        m_hasDuplicates = true;
        return;
    }
    leaf.written[i / 64] |= bit;
    if (!m_preparedDead.empty()) {
        const Seid seid(leaf.page << LEAF_SHIFT | static_cast<uint32>(i), leaf.high);
        m_dead.push_back({seid, std::move(m_preparedDead)});
    }
}

// --- end

void LssTransaction::Break() noexcept {
    if (m_broken) return;
    m_broken = true;
    try {
        m_log.AppendAbort();
    } catch (...) {
        // The failure that brought us here is the one to tell; without ABORT the missing COMMIT says the same.
    }
    m_core.FailWithCurrentException();
}

bool LssTransaction::WantsSync() const {
    return m_flushRequested || m_core.m_settings.enableWriteThrough || m_core.m_settings.flushTimeMilliSec == 0;
}

void LssTransaction::Close() {
    const bool unwinding = std::uncaught_exceptions() > m_uncaughtAtOpen;
    const bool streamLeftOpen = m_stream.IsOpen();
    m_stream.Drop();
    try {
        Commit(unwinding);
    } catch (...) {
        // The store has failed with it: where an exception is passing, the next OpenTransaction throws it.
        m_log.Turn().Release();
        if (!unwinding) throw;
        return;
    }
    const bool sync = WantsSync() && !IsMutant(EMutant::COMMIT_WITHOUT_SYNC);
    const uint64 clock = m_log.HandedClock();
    m_log.Turn().Release();
    // From here on the object may be in use by the next transaction.
    try {
        if (sync)
            m_flusher.SyncUpTo(clock);
        else
            m_flusher.NoteCommit();
        m_closed(unwinding);
    } catch (...) {
        if (!unwinding) throw;
        m_core.FailWithCurrentException();
    }
    if (!unwinding) QX_ASSERT(!streamLeftOpen);
}

void LssTransaction::Commit(bool unwinding) {
    if (m_broken) {
        m_core.ThrowIfUnwritable();
        return;
    }
    const bool sync = WantsSync();
    try {
        if (unwinding && m_dropWhenUnwinding) {
            m_changes.clear();
            m_dead.clear();
        }
        if (m_changes.empty()) {
            if (m_log.HasOpenPackets()) // parts of a dropped element
                m_log.AppendAbort();
            else if (sync)
                m_log.HandOver();
            return;
        }
        if (m_hasDuplicates) MarkSuperseded();
        for (const DeadParts& dead : m_dead)
            m_log.AppendDrop(dead.seid.value_, dead.parts.data(), static_cast<ssize_t>(dead.parts.size()));
        m_log.AppendCommit((m_flushRequested ? COMMIT_FLAG_FLUSH : 0) | (unwinding ? COMMIT_FLAG_UNWOUND : 0));
        if (sync) m_log.PadToSector();
        if (sync || !m_core.m_settings.enableFileBuffering) m_log.HandOver();
    } catch (...) {
        Break();
        throw;
    }
    try {
        Publish();
    } catch (...) {
        // The log says more than the index: nothing may follow.
        m_core.FailWithCurrentException();
        throw;
    }
}

// Leaves only the last change of each Seid. Uses up the bits in the leaves.
void LssTransaction::MarkSuperseded() {
    std::vector<Change> last;
    last.reserve(m_changes.size());
    for (size_t i = m_changes.size(); i-- > 0;) {
        const IndexSlot& slot = m_changes[i].slot;
        const size_t s = static_cast<size_t>(slot.index);
        uint64& bits = slot.leaf->written[s / 64];
        const uint64 bit = uint64{1} << (s % 64);
        if (bits & bit) last.push_back(m_changes[i]);
        bits &= ~bit;
    }
    m_changes.swap(last);
}

void LssTransaction::Publish() {
    const SegmentTable& segments = *m_core.m_segments;
    UsageDelta delta;
    for (const Change& change : m_changes) {
        const Location old = m_index.Publish(change.slot, change.location);
        if (old) {
            delta.bytes -= segments.Debit(old);
            --delta.head;
        }
        if (change.location) {
            delta.bytes += segments.Credit(change.location);
            ++delta.head;
        }
        if (change.parts != NO_PARTS) {
            for (const Location part : m_parts[change.parts]) {
                delta.bytes += segments.Credit(part);
                ++delta.overflow;
            }
        }
    }
    for (const DeadParts& dead : m_dead) {
        for (const Location part : dead.parts) {
            delta.bytes -= segments.Debit(part);
            --delta.overflow;
        }
    }
    delta.AddTo(m_core.m_counters);
    m_log.NoteCommitted();
    m_core.m_counters.numTransactions.fetch_add(1, std::memory_order_relaxed);
}

} // namespace quna

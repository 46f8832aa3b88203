// Which domains the calling thread has locked: the table that makes domain locks nest.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

class CSpace;

// One domain that a thread holds.
struct CSpaceLockEntry {
    const CSpace* cspace;
    int32 depth;    // how often it is locked or recorded, at least 1
    bool exclusive; // kind of the outermost lock; what nests inside doesn't change it
    bool recorded;  // the outermost is only a record: the lock itself was never taken
};

// The calling thread's entries. Only a few domains are locked at a time, so a search goes from the newest entry back;
// a thread that works through the domains of a large group finds each again through the place of the last hit.
//
// Constant-initialised and trivially destructible, so that reaching it costs neither a guard nor registration at thread
// exit: the overflow for more than INLINE_ENTRIES domains is freed when the table shrinks again, not by a destructor.
//
// Threads: one table a thread, no sharing.
class CSpaceLockTable {
public:
    static constexpr int32 INLINE_ENTRIES = 8;

    static CSpaceLockTable& Current() noexcept { return t_table; }

    // Null when the thread holds nothing of the domain. Valid until the next Add or Remove.
    CSpaceLockEntry* Find(const CSpace* cspace) noexcept {
        if (m_count == 0) return nullptr;
        CSpaceLockEntry* const hit = Entries() + m_lastHit;
        if (m_lastHit < m_count && hit->cspace == cspace) return hit;
        return Search(cspace);
    }

    // The same when the domain is the one found last, otherwise null; null for a null domain.
    const CSpaceLockEntry* FindAtHand(const CSpace* cspace) const noexcept {
        const CSpaceLockEntry* const hit = (m_overflow ? m_overflow : m_inline) + m_lastHit;
        return m_lastHit < m_count && hit->cspace == cspace ? hit : nullptr;
    }

    // Makes room for `count` further entries, so that as many calls of Add can't fail.
    void Reserve(ssize_t count);

    // Requires: no entry for the domain. Throws std::bad_alloc, having changed nothing, when there is no room.
    void Add(const CSpaceLockEntry& entry) {
        if (m_count == m_capacity) [[unlikely]]
            Reserve(1);
        m_lastHit = m_count;
        Entries()[m_count++] = entry;
    }

    // `entry` comes from Find. The others keep their order.
    void Remove(CSpaceLockEntry* entry) noexcept {
        if (entry != Entries() + m_count - 1) [[unlikely]]
            CloseGap(entry);
        --m_count;
        if (m_overflow && m_count == 0) [[unlikely]]
            FreeOverflow();
    }

    int32 Count() const noexcept { return m_count; }

    // The thread's id in the system.
    int32 Tid() {
        if (m_tid == 0) [[unlikely]]
            m_tid = FetchTid();
        return m_tid;
    }

    constexpr CSpaceLockTable() noexcept = default;

private:
    CSpaceLockEntry* Entries() noexcept { return m_overflow ? m_overflow : m_inline; }
    CSpaceLockEntry* Search(const CSpace* cspace) noexcept;
    void CloseGap(CSpaceLockEntry* entry) noexcept;
    void FreeOverflow() noexcept;
    static int32 FetchTid();

    QX_API static constinit thread_local CSpaceLockTable t_table;

    CSpaceLockEntry* m_overflow = nullptr; // owned; holds all entries when it is not null
    int32 m_count = 0;
    int32 m_capacity = INLINE_ENTRIES;
    int32 m_lastHit = 0; // index of the entry found last; may be beyond m_count
    int32 m_tid = 0;     // 0 until asked for
    CSpaceLockEntry m_inline[INLINE_ENTRIES] = {};
};

} // namespace quna

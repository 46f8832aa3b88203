#include "qxObject/CSpaceLockTable.h"

#include "qxObject/src/CSpaceRwLock.h"

#include <algorithm>

namespace quna {

constinit thread_local CSpaceLockTable CSpaceLockTable::t_table;

CSpaceLockEntry* CSpaceLockTable::Search(const CSpace* cspace) noexcept {
    CSpaceLockEntry* const entries = Entries();
    for (int32 i = m_count - 1; i >= 0; --i) {
        if (entries[i].cspace == cspace) {
            m_lastHit = i;
            return entries + i;
        }
    }
    return nullptr;
}

void CSpaceLockTable::Reserve(ssize_t count) {
    const ssize_t needed = m_count + count;
    if (needed <= m_capacity) return;
    const ssize_t capacity = std::max<ssize_t>(needed, 2 * static_cast<ssize_t>(m_capacity));
    CSpaceLockEntry* grown = new CSpaceLockEntry[static_cast<std::size_t>(capacity)];
    std::copy_n(Entries(), m_count, grown);
    delete[] m_overflow;
    m_overflow = grown;
    m_capacity = static_cast<int32>(capacity);
}

void CSpaceLockTable::CloseGap(CSpaceLockEntry* entry) noexcept { std::copy(entry + 1, Entries() + m_count, entry); }

void CSpaceLockTable::FreeOverflow() noexcept {
    delete[] m_overflow;
    m_overflow = nullptr;
    m_capacity = INLINE_ENTRIES;
}

int32 CSpaceLockTable::FetchTid() { return CurrentThreadTid(); }

} // namespace quna

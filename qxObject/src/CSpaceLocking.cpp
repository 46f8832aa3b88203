// Lock and unlock, and the record of what the thread holds.
#include "qxObject/CSpace.h"
#include "qxObject/CSpaceLockTable.h"
#include "qxObject/src/CSpaceImpl.h"
#include "qxUtils/Assert.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/CSpace";

// Deepens an entry: the thread holds the domain already.
void Nest(CSpaceLockEntry& entry, ECSpaceLockMode mode) {
    // Two readers that both waited to become writers would wait for each other for ever.
    QX_ASSERT(entry.exclusive || mode == SharedRead);
    ++entry.depth;
}

// The record is made before the lock is taken: making it can fail, and then nothing is held.
void LockNew(CSpaceLockTable& table, CSpace* cs, ECSpaceLockMode mode) {
    const bool exclusive = mode != SharedRead;
    const int32 tid = table.Tid();
    if (cs->m_gcThread.IsWanted()) [[unlikely]]
        cs->m_gcThread.AwaitArrival();
    table.Add({cs, 1, exclusive, false});
    if (exclusive)
        cs->m_lock.LockExclusive(tid);
    else
        cs->m_lock.LockShared(tid);
}

// How long a thread that needs several locks stays away after so many failures, at most: long enough for another one
// to get through, short enough not to be noticed.
constexpr int ROUNDS_WITHOUT_BACK_OFF = 3;
constexpr uint32 MAX_BACK_OFF_MICROS = 256;

// Different threads must not come back in step.
class BackOff {
public:
    void AfterFailure() {
        if (++m_round <= ROUNDS_WITHOUT_BACK_OFF) return;
        m_random = m_random * 6364136223846793005u + 1442695040888963407u;
        const uint32 limit = std::min(MAX_BACK_OFF_MICROS, 1u << std::min(m_round, 16));
        std::this_thread::sleep_for(std::chrono::microseconds((m_random >> 33) % limit));
    }

private:
    int m_round = 0;
    uint64 m_random = static_cast<uint64>(CSpaceLockTable::Current().Tid()) * 0x9E3779B97F4A7C15u;
};

void CheckSet(CSpace** spaces, ssize_t n) {
    QX_ASSERT(n >= 0);
    QX_ASSERT(n == 0 || spaces);
    for (ssize_t i = 0; i < n; ++i) QX_ASSERT(spaces[i]);
}

} // namespace

void Lock(CSpace* cs, ECSpaceLockMode mode) {
    QX_ASSERT(cs);
    QX_ASSERT(SharedRead <= mode && mode <= Transaction);
    CSpaceLockTable& table = CSpaceLockTable::Current();
    if (CSpaceLockEntry* const entry = table.Find(cs))
        Nest(*entry, mode);
    else
        LockNew(table, cs, mode);
}

bool TryLock(CSpace* cs, ECSpaceLockMode mode) {
    QX_ASSERT(cs);
    QX_ASSERT(SharedRead <= mode && mode <= Transaction);
    CSpaceLockTable& table = CSpaceLockTable::Current();
    if (CSpaceLockEntry* const entry = table.Find(cs)) {
        Nest(*entry, mode);
        return true;
    }
    const bool exclusive = mode != SharedRead;
    table.Reserve(1);
    if (exclusive ? !cs->m_lock.TryLockExclusive(table.Tid()) : !cs->m_lock.TryLockShared(table.Tid())) return false;
    table.Add({cs, 1, exclusive, false});
    return true;
}

bool TryLockFor(CSpace* cs, ECSpaceLockMode mode, uint32 milliSecs) {
    QX_ASSERT(cs);
    QX_ASSERT(SharedRead <= mode && mode <= Transaction);
    CSpaceLockTable& table = CSpaceLockTable::Current();
    if (CSpaceLockEntry* const entry = table.Find(cs)) {
        Nest(*entry, mode);
        return true;
    }
    if (cs->m_gcThread.IsWanted()) [[unlikely]]
        cs->m_gcThread.AwaitArrival();
    const bool exclusive = mode != SharedRead;
    table.Reserve(1);
    if (!cs->m_lock.LockFor(exclusive, table.Tid(), milliSecs)) return false;
    table.Add({cs, 1, exclusive, false});
    return true;
}

void Unlock(CSpace* cs) {
    QX_ASSERT(cs);
    CSpaceLockTable& table = CSpaceLockTable::Current();
    CSpaceLockEntry* const entry = table.Find(cs);
    QX_ASSERT_TEXT(entry, "HaveLock(cs)");
    if (entry->depth > 1) {
        --entry->depth;
        return;
    }
    QX_ASSERT_TEXT(!entry->recorded, "!entry->recorded");
    const bool exclusive = entry->exclusive;
    table.Remove(entry);
    if (exclusive)
        cs->m_lock.UnlockExclusive();
    else
        cs->m_lock.UnlockShared();
}

void RecordLock(CSpace* cs, ECSpaceLockMode mode) {
    QX_ASSERT(cs);
    QX_ASSERT(SharedRead <= mode && mode <= Transaction);
    CSpaceLockTable& table = CSpaceLockTable::Current();
    if (CSpaceLockEntry* const entry = table.Find(cs))
        Nest(*entry, mode);
    else
        table.Add({cs, 1, mode != SharedRead, true});
}

void RecordUnlock(CSpace* cs) {
    QX_ASSERT(cs);
    CSpaceLockTable& table = CSpaceLockTable::Current();
    CSpaceLockEntry* const entry = table.Find(cs);
    QX_ASSERT_TEXT(entry, "HaveLock(cs)");
    if (entry->depth > 1) {
        --entry->depth;
        return;
    }
    QX_ASSERT_TEXT(entry->recorded, "entry->recorded");
    table.Remove(entry);
}

int GetRecordedLockStatus(const CSpace* cs) {
    if (!cs) return 0;
    const CSpaceLockEntry* const entry = CSpaceLockTable::Current().Find(cs);
    if (!entry) return 0;
    return entry->exclusive ? entry->depth : -entry->depth;
}

void LockMultipleCSpaces(CSpace** spaces, ssize_t n, ECSpaceLockMode mode) {
    CheckSet(spaces, n);
    QX_ASSERT(SharedRead <= mode && mode <= Transaction);
    for (ssize_t i = 0; i < n; ++i) QX_ASSERT(mode == SharedRead || GetRecordedLockStatus(spaces[i]) >= 0);
    if (n == 0) return;
    BackOff backOff;
    ssize_t first = 0; // the one to wait for
    for (;;) {
        CSpaceLockTable::Current().Reserve(n); // nothing below can fail half done; a failed round gives it back
        Lock(spaces[first], mode);
        ssize_t next = 0;
        while (next < n && (next == first || TryLock(spaces[next], mode))) ++next;
        if (next == n) return;
        for (ssize_t i = 0; i < next; ++i) {
            if (i != first) Unlock(spaces[i]);
        }
        Unlock(spaces[first]);
        // Whoever has it is waited for in its queue, in turn with everybody else.
        first = next;
        backOff.AfterFailure();
    }
}

void UnlockMultipleCSpaces(CSpace** spaces, ssize_t n) {
    CheckSet(spaces, n);
    for (ssize_t i = n - 1; i >= 0; --i) Unlock(spaces[i]);
}

} // namespace quna

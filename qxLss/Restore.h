// Restoring a store from a copy of it and its archive: docs/archive.md tells how to use them.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

// How far a store is restored.
class RestoreTarget {
public:
    enum class EKind {
        END,
        TRANSACTION,
        TIME
    };

    // As far as the archive goes.
    static RestoreTarget End() { return {EKind::END, 0}; }
    // To the state after transaction `number`.
    static RestoreTarget Transaction(uint64 number) { return {EKind::TRANSACTION, number}; }
    // To the state at a time, in units of 100 ns since 1970, UTC: in front of the first transaction that was closed later.
    static RestoreTarget Time(uint64 time) { return {EKind::TIME, time}; }

    EKind Kind() const { return m_kind; }
    uint64 Value() const { return m_value; }

private:
    RestoreTarget(EKind kind, uint64 value) : m_kind(kind), m_value(value) {}

    EKind m_kind;
    uint64 m_value; // of END: 0
};

// What a restore has reached.
struct RestoredLss {
    uint64 lastTransaction; // its number
    uint64 time;            // when it was closed, 100 ns since 1970; 0: not known
    uint64 numReplayed;     // transactions that came from the archive
};

// Writes to `newPath` the store as it was at `target`: the state of the copy at `basePath`, and on it, in their order, the
// transactions that the deltas in the directory `deltasDirPath` have beyond it. Transaction numbers and times are those of
// the original, and no identifier that it had handed out before the target, or that belongs to a delta that was used, is
// handed out again.
//
// The base is a copy of the file of a closed store, of one that was killed, or a backup of one at work. It and the deltas
// are only read. The new file appears under its name when it is whole and durable; until then it is called `newPath`.part,
// and no attempt that fails leaves it behind.
//
// FileException: the base is missing, in use or was never created completely; the directory is missing; `newPath` exists; the
// base is already beyond the target; a transaction is wanted that the archive does not reach (the text names the last
// one there is); a system call has failed. CorruptLSSException, with file, offset, what was found and what was expected: the
// base or a delta that is needed is damaged, belongs to another store or to another history of this store, or a delta between
// the base and the target is missing. Deltas that the target does not need are not looked at.
//
// Threads: any; the calling one does the work, beside those of the store that it has open meanwhile.
QX_API RestoredLss RestoreLss(ConstStringZ basePath, ConstStringZ deltasDirPath, RestoreTarget target,
                              ConstStringZ newPath);

} // namespace quna

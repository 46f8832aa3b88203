// The limits of the record that a thread is parsing.
//
// An InputArchive is a bare cursor without an end. Whoever parses a record publishes where it lies for the thread;
// the readers then check each length and count against what remains, and a cursor that runs past the end raises
// RecordException instead of reading on. Records in memory are followed by at least RECORD_SLACK readable bytes, so
// that reading a value of up to 16 bytes that begins at, or a little behind, the end is harmless: the record's owner
// sees the overrun in its own check that the cursor stands exactly at the end.
//
// A buffer that nobody published is not checked: its parser is trusted, as one that holds a foreign buffer in the
// middle of a record is.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

// Readable bytes that follow every record.
inline constexpr ssize_t RECORD_SLACK = 64;

// The most bytes that one unchecked read takes.
inline constexpr ssize_t MAX_UNCHECKED_READ = 16;

// Where a thread's cursor must not begin another read: the addresses from `forbidden` on, `RECORD_SLACK` of them.
// They start MAX_UNCHECKED_READ before the end of the slack, so that small overruns stay harmless and visible.
struct RecordLimits {
    uintptr_t begin = 0;
    uintptr_t end = 0;       // 0: no record is published
    uintptr_t forbidden = 0; // end + RECORD_SLACK - MAX_UNCHECKED_READ + 1
};

extern QX_API thread_local constinit RecordLimits tls_recordLimits;

[[noreturn]] QX_API void ThrowRecordOverrun(const void* p);
[[noreturn]] QX_API void ThrowRecordTooShort(const void* p, ssize_t n);

// Before a read of at most MAX_UNCHECKED_READ bytes at p.
inline void CheckRecordCursor(const octet_t* p) {
    if (reinterpret_cast<uintptr_t>(p) - tls_recordLimits.forbidden < static_cast<uintptr_t>(RECORD_SLACK)) [[unlikely]]
        ThrowRecordOverrun(p);
}

// Before n further bytes are taken at p, or n elements of at least one byte each: throws RecordException when p lies
// in the published record and fewer than n bytes remain, or when n is negative.
inline void CheckRecordRemaining(const octet_t* p, ssize_t n) {
    const uintptr_t at = reinterpret_cast<uintptr_t>(p);
    const RecordLimits& limits = tls_recordLimits;
    const bool inRecord = at >= limits.begin && at - limits.begin <= limits.end - limits.begin + RECORD_SLACK;
    if (n < 0 || (inRecord && limits.end != 0 && (at > limits.end || static_cast<uintptr_t>(n) > limits.end - at)))
        [[unlikely]]
        ThrowRecordTooShort(p, n);
}

// Before a cursor moves on by n bytes without reading them: throws RecordException when n is negative, or when the cursor
// would leave the part of the slack in which a small overrun is harmless.
inline void CheckRecordSkip(const octet_t* p, ssize_t n) {
    const uintptr_t at = reinterpret_cast<uintptr_t>(p);
    const RecordLimits& limits = tls_recordLimits;
    const bool inRecord = at >= limits.begin && at < limits.forbidden;
    if (n < 0 || (inRecord && static_cast<uintptr_t>(n) >= limits.forbidden - at)) [[unlikely]]
        ThrowRecordTooShort(p, n);
}

// Publishes a record for the calling thread, for a scope. Nests: the record outside is published again afterwards.
// Requires: RECORD_SLACK readable bytes behind `end`.
class RecordLimitsScope {
public:
    RecordLimitsScope(const octet_t* begin, const octet_t* end) : m_previous(tls_recordLimits) {
        tls_recordLimits.begin = reinterpret_cast<uintptr_t>(begin);
        tls_recordLimits.end = reinterpret_cast<uintptr_t>(end);
        tls_recordLimits.forbidden = tls_recordLimits.end + (RECORD_SLACK - MAX_UNCHECKED_READ + 1);
    }
    ~RecordLimitsScope() { tls_recordLimits = m_previous; }
    RecordLimitsScope(const RecordLimitsScope&) = delete;
    RecordLimitsScope& operator=(const RecordLimitsScope&) = delete;

private:
    RecordLimits m_previous;
};

} // namespace quna

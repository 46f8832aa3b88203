#include "qxUtils/RecordLimits.h"

#include "qxUtils/Exceptions.h"

#include <string>

namespace quna {

thread_local constinit RecordLimits tls_recordLimits;

namespace {

// Offset and size rather than addresses: they mean the same in every process.
std::string Place(const void* p) {
    const RecordLimits& limits = tls_recordLimits;
    const auto offset = static_cast<int64>(reinterpret_cast<uintptr_t>(p) - limits.begin);
    return "at offset " + std::to_string(offset) + " of a record of " + std::to_string(limits.end - limits.begin) +
           " bytes";
}

} // namespace

void ThrowRecordOverrun(const void* p) {
    throw RecordException(("Record too short: a read begins " + Place(p)).c_str());
}

void ThrowRecordTooShort(const void* p, ssize_t n) {
    throw RecordException(
        ("Record too short: " + std::to_string(n) + " bytes or elements expected " + Place(p)).c_str());
}

} // namespace quna

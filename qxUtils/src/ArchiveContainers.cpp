#include "qxUtils/ArchiveContainers.h"

#include "qxUtils/Exceptions.h"

#include <string>

namespace quna {

namespace {

void CheckAllocationSize(ssize_t n) {
    if (n > MAX_ALLOCATION_SIZE)
        throw RecordException(
            ("Item of " + std::to_string(n) + " bytes, expected at most " + std::to_string(MAX_ALLOCATION_SIZE))
                .c_str());
}

} // namespace

Archive& operator<<(Archive& ar, const VectorOfByte& x) {
    CheckAllocationSize(x.size());
    Serialise_ssize_t(ar, x.size());
    ar.Write(x.data(), x.size());
    return ar;
}

InputArchive operator>>(InputArchive ar, VectorOfByte& x) {
    uint64 n = 0;
    const octet_t* p = DeserialiseVariableLengthUint(ar, n);
    const auto size = static_cast<ssize_t>(n);
    CheckAllocationSize(size);
    CheckRecordRemaining(p, size);
    x.assign(p, size);
    return p + size;
}

} // namespace quna

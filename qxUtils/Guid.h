// Globally unique identifiers.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <cstring>

namespace quna {

// 16 bytes, plain. On disk they are copied as they lie in memory: Data1, Data2 and Data3 little-endian, then Data4.
struct Guid {
    uint32 Data1 = 0;
    uint16 Data2 = 0;
    uint16 Data3 = 0;
    uint8 Data4[8] = {};
};

static_assert(sizeof(Guid) == 16);

inline constexpr Guid Guid_NULL{};

inline bool operator==(const Guid& x, const Guid& y) { return std::memcmp(&x, &y, sizeof(Guid)) == 0; }
inline bool operator!=(const Guid& x, const Guid& y) { return !(x == y); }

// A total order by the bytes in memory. It means nothing but "the same everywhere".
inline bool operator<(const Guid& x, const Guid& y) { return std::memcmp(&x, &y, sizeof(Guid)) < 0; }

// A new random Guid (version 4, RFC 4122), from the system's random source. Any thread. Throws FileException when the
// system gives no random bytes.
QX_API Guid CreateGuid();

} // namespace quna

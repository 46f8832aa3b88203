// The basic types that every module and every record is built from.
#pragma once

#include <cstdint>

#include <sys/types.h> // ::ssize_t, the type of every size, count and index

namespace quna {

using int8 = std::int8_t;
using int16 = std::int16_t;
using int32 = std::int32_t;
using int64 = std::int64_t;
using uint8 = std::uint8_t;
using uint16 = std::uint16_t;
using uint32 = std::uint32_t;
using uint64 = std::uint64_t;
using octet_t = uint8;
using float32 = float;
using float64 = double;
using ::ssize_t;

// The number of a record's form on disk; 1 is the first.
using schema_t = int;

// A terminated string that the holder does not own.
using ConstStringZ = const char*;

static_assert(sizeof(ssize_t) == 8 && sizeof(int64) == 8);
static_assert(sizeof(float32) == 4 && sizeof(float64) == 8);

} // namespace quna

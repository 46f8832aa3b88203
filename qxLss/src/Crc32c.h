// CRC32C (Castagnoli), by the fastest means that the processor has.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

// The three implementations. All give the same results.
enum class ECrc32cPath {
    TABLE, // eight tables of 256 words
    SSE42, // the crc32 instruction, one chain
    PCLMUL // the crc32 instruction, three chains joined by carry-less multiplication
};

// The CRC32C of `n` bytes at `p`. `start` is 0, or the CRC32C of what comes before:
// Crc32c(b, nb, Crc32c(a, na)) is the CRC32C of a followed by b.
QX_API uint32 Crc32c(const void* p, ssize_t n, uint32 start = 0);

// The implementation that Crc32c uses on this machine.
QX_API ECrc32cPath BestCrc32cPath();
// Can this machine run `path`?
QX_API bool IsCrc32cPathSupported(ECrc32cPath path);
// Crc32c by a given implementation. Requires: IsCrc32cPathSupported(path).
QX_API uint32 Crc32cByPath(ECrc32cPath path, const void* p, ssize_t n, uint32 start = 0);

} // namespace quna

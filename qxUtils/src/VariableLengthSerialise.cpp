#include "qxUtils/VariableLengthSerialise.h"

#include "qxUtils/Exceptions.h"

#include <string>

namespace quna {

namespace {

uint32 BigEndian(const octet_t* p, int numBytes) {
    uint32 x = 0;
    for (int i = 0; i < numBytes; ++i) x = x << 8 | p[i];
    return x;
}

octet_t* PutBigEndian(octet_t* p, uint32 x, int numBytes) {
    for (int i = numBytes - 1; i >= 0; --i) *p++ = static_cast<octet_t>(x >> (8 * i));
    return p;
}

} // namespace

namespace detail {

void ThrowBadVariableLengthUint(octet_t firstByte) {
    throw RecordException(
        ("Bad variable-length integer: first byte " + std::to_string(firstByte) + ", expected at most 240").c_str());
}

octet_t* PutLongVariableLengthUint(octet_t* p, uint32 x) {
    if (x < 0x4000) return PutBigEndian(p, x | 0x8000, 2);
    if (x < 0x200000) return PutBigEndian(p, x | 0xC00000, 3);
    if (x < 0x10000000) return PutBigEndian(p, x | 0xE0000000, 4);
    *p = 0xF0;
    return PutBigEndian(p + 1, x, 4);
}

const octet_t* GetLongVariableLengthUint(const octet_t* p, uint32& x) {
    const octet_t first = *p;
    if (first < 0xC0) {
        x = BigEndian(p, 2) & 0x3FFF;
        return p + 2;
    }
    if (first < 0xE0) {
        x = BigEndian(p, 3) & 0x1FFFFF;
        return p + 3;
    }
    if (first < 0xF0) {
        x = BigEndian(p, 4) & 0xFFFFFFF;
        return p + 4;
    }
    if (first != 0xF0) ThrowBadVariableLengthUint(first);
    x = BigEndian(p + 1, 4);
    return p + 5;
}

} // namespace detail

uint32 DeserialiseVariableLengthUint32(Archive& ar) {
    octet_t bytes[MAX_VARIABLE_LENGTH_UINT_SIZE] = {};
    ar.Read(bytes, 1);
    const octet_t first = bytes[0];
    if (first > 0xF0) detail::ThrowBadVariableLengthUint(first);
    const ssize_t numMore = first < 0x80 ? 0 : first < 0xC0 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    ar.Read(bytes + 1, numMore);
    uint32 x = 0;
    if (numMore == 0) return first;
    detail::GetLongVariableLengthUint(bytes, x);
    return x;
}

} // namespace quna

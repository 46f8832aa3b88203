// Variable-length unsigned integers: the form of counts, identifiers and type ids.
//
// A value is 1 to 5 bytes. The prefix bits of the first byte give the length; the value's bits follow, most
// significant first.
//   0xxxxxxx                      values below 2^7
//   10xxxxxx +1 byte              values below 2^14
//   110xxxxx +2 bytes             values below 2^21
//   1110xxxx +3 bytes             values below 2^28
//   11110000 +4 bytes             the rest of the 32-bit values
// The first bytes 0xF1 to 0xFF open no value. 0xFF is the escape that the three-argument reader reports.
#pragma once

#include "qxUtils/Archive.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

inline constexpr ssize_t MAX_VARIABLE_LENGTH_UINT_SIZE = 5; // bytes

// The first byte that a three-argument reader reports as an escape.
inline constexpr octet_t VARIABLE_LENGTH_ESCAPE = 0xFF;

namespace detail {

[[noreturn]] QX_API void ThrowBadVariableLengthUint(octet_t firstByte);

// Values that need two bytes or more; gives the position behind the value.
QX_API octet_t* PutLongVariableLengthUint(octet_t* p, uint32 x);
QX_API const octet_t* GetLongVariableLengthUint(const octet_t* p, uint32& x);

} // namespace detail

inline void SerialiseVariableLengthUint32(Archive& ar, uint32 x) {
    if (x < 0x80) [[likely]] {
        ar.SerialisePod(static_cast<octet_t>(x));
        return;
    }
    const ssize_t numBytes = x < 0x4000 ? 2 : x < 0x200000 ? 3 : x < 0x10000000 ? 4 : 5;
    octet_t* p = ar.BeginWrite(numBytes);
    ar.EndWrite(detail::PutLongVariableLengthUint(p, x));
}

// Reads from the archive's input stream. RecordException when the stream ends, or when no value begins there.
QX_API uint32 DeserialiseVariableLengthUint32(Archive& ar);

// RecordException when no value begins at p.
inline const octet_t* DeserialiseVariableLengthUint(const octet_t* p, uint32& x) {
    CheckRecordCursor(p);
    if (*p < 0x80) [[likely]] {
        x = *p;
        return p + 1;
    }
    return detail::GetLongVariableLengthUint(p, x);
}

// As above, but a first byte of 0xFF sets `escaped`, gives 255 and takes that one byte. `escaped` is always written.
inline const octet_t* DeserialiseVariableLengthUint(const octet_t* p, uint32& x, bool& escaped) {
    CheckRecordCursor(p);
    escaped = *p == VARIABLE_LENGTH_ESCAPE;
    if (escaped) {
        x = VARIABLE_LENGTH_ESCAPE;
        return p + 1;
    }
    return DeserialiseVariableLengthUint(p, x);
}

// The 32-bit reader, widened with zeros.
inline const octet_t* DeserialiseVariableLengthUint(const octet_t* p, uint64& x) {
    uint32 low = 0;
    p = DeserialiseVariableLengthUint(p, low);
    x = low;
    return p;
}

// The low 32 bits of a count or size. The high bits are dropped without a check: a negative value reads back as a
// large positive one.
inline void Serialise_ssize_t(Archive& ar, ssize_t x) { SerialiseVariableLengthUint32(ar, static_cast<uint32>(x)); }
inline ssize_t Deserialise_ssize_t(Archive& ar) { return static_cast<ssize_t>(DeserialiseVariableLengthUint32(ar)); }

} // namespace quna

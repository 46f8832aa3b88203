// Descriptions of types as byte codes.
//
// A description is a prefix code: one byte for each basic type; one byte for each constructor, followed by the
// descriptions of its arguments; one byte and the index of a name for each named type. So it ends by itself. Names stand
// in a string table beside the code.
//
//   void 01  bool 02  int8 03  int16 04  int32 05  int64 06  uint8 07  uint16 08  uint32 09  uint64 0A
//   float32 0B  float64 0C  xstring 0D  Guid 0E  OID 0F  char 10  ConstStringZ 11
//   xvector 40 T   pair 41 A B   map 42 K V   set 43 T   pointer 44 T   const 45 T   reference 46 T
//   class 60 n   interface 61 n   enum 62 n   pref 63 n (interface)   cref 64 n (class)   ptr 65 n (interface)
//
// `n` is an index in base 128, least significant digits first, the high bit set in all bytes but the last. Codes are
// stored in files: they are never renumbered.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

class xostream;
struct ReflectedClass;
struct ReflectedEnum;
struct ReflectedInterface;
struct ReflectedTypedef;

enum class EByteCode : octet_t {
    Void = 0x01,
    Bool = 0x02,
    Int8 = 0x03,
    Int16 = 0x04,
    Int32 = 0x05,
    Int64 = 0x06,
    Uint8 = 0x07,
    Uint16 = 0x08,
    Uint32 = 0x09,
    Uint64 = 0x0A,
    Float32 = 0x0B,
    Float64 = 0x0C,
    XString = 0x0D,
    Guid = 0x0E,
    Oid = 0x0F,
    Char = 0x10,
    StringZ = 0x11,
    Vector = 0x40,
    Pair = 0x41,
    Map = 0x42,
    Set = 0x43,
    Pointer = 0x44,
    Const = 0x45,
    Reference = 0x46,
    Class = 0x60,
    Interface = 0x61,
    Enum = 0x62,
    Pref = 0x63,
    Cref = 0x64,
    Ptr = 0x65,
};

// How a map or a set of a described type is read and filled by code that does not know it. A set has no values: `value`
// is null then.
struct MapOrSetFns {
    using EntryFn = void (*)(void* context, const void* key, const void* value);

    ssize_t (*m_sizeFn)(const void* container);
    void (*m_forEachFn)(const void* container, EntryFn entryFn, void* context);
    bool (*m_insertFn)(void* container, const void* key, const void* value); // false when the key was there
    void (*m_clearFn)(void* container);
};

using PtrMapOrSetFns = const MapOrSetFns*;

// A description that somebody else owns; a plain value. It lives as long as its owner: the descriptions of static
// records live for ever.
struct ReflectionByteCode {
    constexpr ReflectionByteCode() = default;
    constexpr ReflectionByteCode(const octet_t* bc, const ConstStringZ* stringTable, const PtrMapOrSetFns* mapOrSetFns)
        : m_bc(bc), m_stringTable(stringTable), m_mapOrSetFns(mapOrSetFns) {}

    // The type that a record describes; a typedef is the type that it names. The description refers to the record.
    QX_API ReflectionByteCode(const ReflectedClass& rc);
    QX_API ReflectionByteCode(const ReflectedInterface& ri);
    QX_API ReflectionByteCode(const ReflectedEnum& re);
    QX_API ReflectionByteCode(const ReflectedTypedef& rt);

    explicit operator bool() const { return m_bc != nullptr; }

    const octet_t* m_bc = nullptr;                 // null: nothing is described
    const ConstStringZ* m_stringTable = nullptr;   // by index
    const PtrMapOrSetFns* m_mapOrSetFns = nullptr; // one for each map and set, in the order of the code; may be null
};

// One step of a description, as a reader sees it.
struct ByteCodeStep {
    EByteCode m_code;
    int m_numArguments;            // descriptions that follow as arguments
    ConstStringZ m_name = nullptr; // of a named type
};

// Reads the step at `bc`, whose names are in `stringTable`, and gives the position behind it. RecordException for a byte
// that is no code.
QX_API const octet_t* ReadByteCodeStep(const octet_t* bc, const ConstStringZ* stringTable, ByteCodeStep& step);

// The number of bytes of a description.
QX_API ssize_t GetByteCodeSize(const octet_t* bc);

// The code as C++ would spell it, for example "xvector<pref<demo::IPerson>>"; nothing for an empty description.
QX_API xostream& operator<<(xostream& os, ReflectionByteCode bc);

} // namespace quna

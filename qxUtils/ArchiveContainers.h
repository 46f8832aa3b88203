// The serialised forms of strings, byte vectors, Guids, pairs and maps.
//
//   byte vector, string   length (variable length), then the bytes; no terminator
//   Guid                  16 bytes as they lie in memory
//   pair                  first, second
//   map                   count (variable length), then each pair in ascending key order
#pragma once

#include "qxUtils/Archive.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Guid.h"
#include "qxUtils/VariableLengthSerialise.h"
#include "qxUtils/VectorOfByte.h"
#include "qxUtils/xstring.h"
#include "qxUtils/xvector.h"

#include <map>
#include <utility>

namespace quna {

// The most bytes that one item may occupy, on writing and on reading: 1000 MiB. More is RecordException, before a byte
// moves.
inline constexpr ssize_t MAX_ALLOCATION_SIZE = 1048576000;

QX_API Archive& operator<<(Archive& ar, const VectorOfByte& x);
QX_API InputArchive operator>>(InputArchive ar, VectorOfByte& x);

inline Archive& operator<<(Archive& ar, const xvector<char>& x) { return ar << x.m_buffer; }
inline InputArchive operator>>(InputArchive ar, xvector<char>& x) { return ar >> x.m_buffer; }
inline Archive& operator<<(Archive& ar, const xstring& x) { return ar << x.m_buffer; }
inline InputArchive operator>>(InputArchive ar, xstring& x) { return ar >> x.m_buffer; }

inline Archive& operator<<(Archive& ar, const Guid& x) {
    ar.SerialisePod(x);
    return ar;
}
inline InputArchive operator>>(InputArchive ar, Guid& x) { return DeserialisePod(ar.p, x); }

// Reads a count of elements of at least one byte each, checked against what remains of the record.
inline InputArchive DeserialiseCount(InputArchive ar, ssize_t& count) {
    uint64 n = 0;
    const octet_t* p = DeserialiseVariableLengthUint(ar, n);
    count = static_cast<ssize_t>(n);
    CheckRecordRemaining(p, count);
    return p;
}

template <class First, class Second>
Archive& operator<<(Archive& ar, const std::pair<First, Second>& x) {
    return ar << x.first << x.second;
}

template <class First, class Second>
InputArchive operator>>(InputArchive ar, std::pair<First, Second>& x) {
    return ar >> x.first >> x.second;
}

template <class Key, class Value, class Less>
Archive& operator<<(Archive& ar, const std::map<Key, Value, Less>& x) {
    Serialise_ssize_t(ar, static_cast<ssize_t>(x.size()));
    for (const auto& entry : x) ar << entry.first << entry.second;
    return ar;
}

// Replaces the map's contents. Entries out of order land in their place; a repeated key keeps its first value.
template <class Key, class Value, class Less>
InputArchive operator>>(InputArchive ar, std::map<Key, Value, Less>& x) {
    ssize_t count = 0;
    ar = DeserialiseCount(ar, count);
    x.clear();
    for (ssize_t i = 0; i < count; ++i) {
        std::pair<Key, Value> entry{};
        ar = ar >> entry;
        x.insert(x.end(), std::move(entry)); // the writer's order is the map's, so the hint is right
    }
    return ar;
}

} // namespace quna

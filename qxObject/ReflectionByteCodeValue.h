// A description of a type that owns its bytes and names.
#pragma once

#include "qxObject/ReflectionByteCode.h"
#include "qxUtils/Archive.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/xstring.h"
#include "qxUtils/xvector.h"

namespace quna {

class xostream;

// The same in every process whatever classes it has. Equality, order and the serialised form depend on nothing but the
// type described.
//
// Invariant: canonical, that is, a name occurs once in the table and names are numbered in the order of their first use;
// so equal descriptions are equal byte for byte.
//
// Serialised form: the code's length (variable length) and bytes, the number of names (variable length), and each name
// as a string.
class QX_API ReflectionByteCodeValue {
public:
    ReflectionByteCodeValue() = default;

    // Captures a description. With `checkNames` each name must be that of a registered item of its kind, or it is a
    // RecordException; without it, a description may name what this process does not have.
    ReflectionByteCodeValue(ReflectionByteCode bc, bool checkNames);

    ReflectionByteCodeValue(const ReflectionByteCodeValue& rhs);
    ReflectionByteCodeValue(ReflectionByteCodeValue&& rhs) noexcept;
    ReflectionByteCodeValue& operator=(const ReflectionByteCodeValue& rhs);
    ReflectionByteCodeValue& operator=(ReflectionByteCodeValue&& rhs) noexcept;
    ~ReflectionByteCodeValue() = default;

    // Valid as long as this value lives and is not assigned.
    ReflectionByteCode AsReflectionByteCode() const;
    const ConstStringZ* GetStringTable() const { return m_stringTable.data(); }
    bool empty() const { return m_byteCode.empty(); }
    ssize_t GetHash() const;

    void Serialise(Archive& ar) const;
    // RecordException when the bytes are no description. The value is then unchanged.
    InputArchive Deserialise(InputArchive ar);

    friend bool operator==(const ReflectionByteCodeValue& x, const ReflectionByteCodeValue& y) {
        return x.m_byteCode == y.m_byteCode && x.m_strings == y.m_strings;
    }
    friend bool operator<(const ReflectionByteCodeValue& x, const ReflectionByteCodeValue& y) {
        if (x.m_byteCode != y.m_byteCode) return x.m_byteCode < y.m_byteCode;
        return x.m_strings < y.m_strings;
    }
    friend bool operator!=(const ReflectionByteCodeValue& x, const ReflectionByteCodeValue& y) { return !(x == y); }
    friend bool operator>(const ReflectionByteCodeValue& x, const ReflectionByteCodeValue& y) { return y < x; }
    friend bool operator<=(const ReflectionByteCodeValue& x, const ReflectionByteCodeValue& y) { return !(y < x); }
    friend bool operator>=(const ReflectionByteCodeValue& x, const ReflectionByteCodeValue& y) { return !(x < y); }

private:
    void Capture(const octet_t* bc, const ConstStringZ* stringTable);
    ssize_t IndexOfName(ConstStringZ name, xvector<ssize_t>& offsets);
    void PointIntoStrings(const xvector<ssize_t>& offsets);
    void CopyTable(const ReflectionByteCodeValue& rhs);

    xvector<uint8> m_byteCode;
    xstring m_strings;                  // the names, each with a terminating zero
    xvector<const char*> m_stringTable; // into m_strings
};

inline Archive& operator<<(Archive& ar, const ReflectionByteCodeValue& x) {
    x.Serialise(ar);
    return ar;
}
inline InputArchive operator>>(InputArchive ar, ReflectionByteCodeValue& x) { return x.Deserialise(ar); }

inline xostream& operator<<(xostream& os, const ReflectionByteCodeValue& x) { return os << x.AsReflectionByteCode(); }

} // namespace quna

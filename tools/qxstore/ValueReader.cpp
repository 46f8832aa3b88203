#include "tools/qxstore/ValueReader.h"

#include "qxObject/ReflectionByteCodeValue.h"
#include "qxUtils/ArchiveContainers.h"
#include "tools/qxstore/StoreRecords.h"
#include "tools/qxstore/Units.h"

#include <charconv>
#include <type_traits>

namespace quna::qxstore {

namespace {

constexpr int MAX_DEPTH = 16;          // of types within types
constexpr size_t MAX_TEXT_BYTES = 512; // of one value; the rest is read and not shown

bool IsReadable(const octet_t*& bc, const ConstStringZ* names, int depth) {
    if (depth == MAX_DEPTH) return false;
    ByteCodeStep step{};
    bc = ReadByteCodeStep(bc, names, step);
    switch (step.m_code) {
    case EByteCode::Bool:
    case EByteCode::Int8:
    case EByteCode::Int16:
    case EByteCode::Int32:
    case EByteCode::Int64:
    case EByteCode::Uint8:
    case EByteCode::Uint16:
    case EByteCode::Uint32:
    case EByteCode::Uint64:
    case EByteCode::Float32:
    case EByteCode::Float64:
    case EByteCode::XString:
    case EByteCode::Guid:
    case EByteCode::Oid:
    case EByteCode::Char:
    case EByteCode::Pref:
    case EByteCode::Cref: return true;
    case EByteCode::Vector:
    case EByteCode::Pair:
    case EByteCode::Map:
    case EByteCode::Set:
        for (int i = 0; i < step.m_numArguments; ++i) {
            if (!IsReadable(bc, names, depth + 1)) return false;
        }
        return true;
    case EByteCode::Void:
    case EByteCode::StringZ:
    case EByteCode::Pointer:
    case EByteCode::Const:
    case EByteCode::Reference:
    case EByteCode::Class:
    case EByteCode::Interface:
    case EByteCode::Enum:
    case EByteCode::Ptr: return false;
    }
    return false;
}

template <class T>
std::string NumberText(T x) {
    char text[64];
    const std::to_chars_result end = std::to_chars(text, text + sizeof text, x);
    return {text, end.ptr};
}

} // namespace

bool IsReadableType(ReflectionByteCode type) {
    const octet_t* bc = type.m_bc;
    return bc && IsReadable(bc, type.m_stringTable, 0);
}

InputArchive ValueReader::Read(InputArchive ar, ReflectionByteCode type) {
    m_text.clear();
    const octet_t* bc = type.m_bc;
    return ReadType(ar, bc, type.m_stringTable);
}

// The depth is that of the type, which IsReadableType has limited.
InputArchive ValueReader::ReadType(InputArchive ar, const octet_t*& bc, const ConstStringZ* names) {
    ByteCodeStep step{};
    bc = ReadByteCodeStep(bc, names, step);
    switch (step.m_code) {
    case EByteCode::Bool: {
        uint8 x = 0;
        ar = ar >> x;
        Append(x ? "true" : "false");
        return ar;
    }
    case EByteCode::Int8: return ReadNumber<int8>(ar);
    case EByteCode::Int16: return ReadNumber<int16>(ar);
    case EByteCode::Int32: return ReadNumber<int32>(ar);
    case EByteCode::Int64: return ReadNumber<int64>(ar);
    case EByteCode::Uint8: return ReadNumber<uint8>(ar);
    case EByteCode::Uint16: return ReadNumber<uint16>(ar);
    case EByteCode::Uint32: return ReadNumber<uint32>(ar);
    case EByteCode::Uint64: return ReadNumber<uint64>(ar);
    case EByteCode::Float32: return ReadNumber<float32>(ar);
    case EByteCode::Float64: return ReadNumber<float64>(ar);
    case EByteCode::Char: {
        char x = 0;
        ar = ar >> x;
        Append("'" + Printable({&x, 1}) + "'");
        return ar;
    }
    case EByteCode::XString: return ReadString(ar);
    case EByteCode::Guid: {
        Guid x;
        ar = ar >> x;
        Append(GuidText(x));
        return ar;
    }
    case EByteCode::Oid: return ReadReference(ar, false);
    case EByteCode::Pref:
    case EByteCode::Cref: return ReadReference(ar, true);
    case EByteCode::Pair:
        Append("(");
        ar = ReadType(ar, bc, names);
        Append(", ");
        ar = ReadType(ar, bc, names);
        Append(")");
        return ar;
    case EByteCode::Vector:
    case EByteCode::Set: return ReadSequence(ar, bc, names, false);
    case EByteCode::Map: return ReadSequence(ar, bc, names, true);
    case EByteCode::Void:
    case EByteCode::StringZ:
    case EByteCode::Pointer:
    case EByteCode::Const:
    case EByteCode::Reference:
    case EByteCode::Class:
    case EByteCode::Interface:
    case EByteCode::Enum:
    case EByteCode::Ptr: break; // not readable
    }
    return ar;
}

InputArchive ValueReader::ReadSequence(InputArchive ar, const octet_t*& bc, const ConstStringZ* names, bool isMap) {
    ssize_t n = 0;
    ar = DeserialiseCount(ar, n);
    const octet_t* const element = bc;
    bc += GetByteCodeSize(bc);
    if (isMap) bc += GetByteCodeSize(bc);
    Append(isMap ? "{" : "[");
    for (ssize_t i = 0; i < n; ++i) {
        if (i > 0) Append(", ");
        const octet_t* at = element;
        ar = ReadType(ar, at, names);
        if (!isMap) continue;
        Append(": ");
        ar = ReadType(ar, at, names);
    }
    Append(isMap ? "}" : "]");
    return ar;
}

// An OID that is a plain value does not keep its object, and names one that may be gone.
InputArchive ValueReader::ReadReference(InputArchive ar, bool isOwned) {
    OID oid;
    ar = DeserialiseOid(ar, oid);
    if (oid && isOwned) m_references.push_back(oid);
    Append(oid ? OidText(oid) : "null");
    return ar;
}

InputArchive ValueReader::ReadString(InputArchive ar) {
    xstring x;
    ar = ar >> x;
    if (m_wantText) Append('"' + x.str() + '"');
    return ar;
}

template <class T>
InputArchive ValueReader::ReadNumber(InputArchive ar) {
    T x{};
    ar = ar >> x;
    if constexpr (sizeof(T) == 1)
        Append(NumberText(static_cast<int>(x)));
    else
        Append(NumberText(x));
    return ar;
}

void ValueReader::Append(const std::string& text) {
    if (!m_wantText || m_text.size() > MAX_TEXT_BYTES) return;
    m_text += text;
    if (m_text.size() > MAX_TEXT_BYTES) m_text += " ...";
}

} // namespace quna::qxstore

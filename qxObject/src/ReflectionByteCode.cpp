#include "qxObject/ReflectionByteCode.h"

#include "qxObject/ReflectedClass.h"
#include "qxObject/ReflectedEnum.h"
#include "qxObject/ReflectedInterface.h"
#include "qxObject/ReflectedTypedef.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/xostream.h"

#include <string>
#include <vector>

namespace quna {

namespace {

// The code of a named type whose name is the first of its table.
constexpr octet_t CLASS_CODE[] = {static_cast<octet_t>(EByteCode::Class), 0};
constexpr octet_t INTERFACE_CODE[] = {static_cast<octet_t>(EByteCode::Interface), 0};
constexpr octet_t ENUM_CODE[] = {static_cast<octet_t>(EByteCode::Enum), 0};

constexpr int MAX_INDEX_DIGITS = 4; // of base 128

enum class EShape {
    None,
    Basic,
    Named,
    OneArgument,
    TwoArguments
};

struct CodeInfo {
    EShape m_shape;
    ConstStringZ m_text; // what a basic type is called, and what a constructor is called
};

CodeInfo GetCodeInfo(octet_t code) {
    switch (static_cast<EByteCode>(code)) {
    case EByteCode::Void: return {EShape::Basic, "void"};
    case EByteCode::Bool: return {EShape::Basic, "bool"};
    case EByteCode::Int8: return {EShape::Basic, "int8"};
    case EByteCode::Int16: return {EShape::Basic, "int16"};
    case EByteCode::Int32: return {EShape::Basic, "int32"};
    case EByteCode::Int64: return {EShape::Basic, "int64"};
    case EByteCode::Uint8: return {EShape::Basic, "uint8"};
    case EByteCode::Uint16: return {EShape::Basic, "uint16"};
    case EByteCode::Uint32: return {EShape::Basic, "uint32"};
    case EByteCode::Uint64: return {EShape::Basic, "uint64"};
    case EByteCode::Float32: return {EShape::Basic, "float32"};
    case EByteCode::Float64: return {EShape::Basic, "float64"};
    case EByteCode::XString: return {EShape::Basic, "xstring"};
    case EByteCode::Guid: return {EShape::Basic, "Guid"};
    case EByteCode::Oid: return {EShape::Basic, "OID"};
    case EByteCode::Char: return {EShape::Basic, "char"};
    case EByteCode::StringZ: return {EShape::Basic, "ConstStringZ"};
    case EByteCode::Vector: return {EShape::OneArgument, "xvector<"};
    case EByteCode::Pair: return {EShape::TwoArguments, "pair<"};
    case EByteCode::Map: return {EShape::TwoArguments, "map<"};
    case EByteCode::Set: return {EShape::OneArgument, "set<"};
    case EByteCode::Pointer: return {EShape::OneArgument, ""};
    case EByteCode::Const: return {EShape::OneArgument, ""};
    case EByteCode::Reference: return {EShape::OneArgument, ""};
    case EByteCode::Class: return {EShape::Named, ""};
    case EByteCode::Interface: return {EShape::Named, ""};
    case EByteCode::Enum: return {EShape::Named, ""};
    case EByteCode::Pref: return {EShape::Named, "pref<"};
    case EByteCode::Cref: return {EShape::Named, "cref<"};
    case EByteCode::Ptr: return {EShape::Named, "ptr<"};
    }
    return {EShape::None, ""};
}

// What stands behind the last argument.
ConstStringZ ClosingText(EByteCode code) {
    switch (code) {
    case EByteCode::Pointer: return "*";
    case EByteCode::Const: return " const";
    case EByteCode::Reference: return "&";
    default: return ">";
    }
}

void WriteName(xostream& os, const ByteCodeStep& step) {
    const ConstStringZ opening = GetCodeInfo(static_cast<octet_t>(step.m_code)).m_text;
    os << opening << step.m_name << (*opening ? ">" : "");
}

} // namespace

ReflectionByteCode::ReflectionByteCode(const ReflectedClass& rc) : m_bc(CLASS_CODE), m_stringTable(&rc.m_name) {}
ReflectionByteCode::ReflectionByteCode(const ReflectedInterface& ri)
    : m_bc(INTERFACE_CODE), m_stringTable(&ri.m_name) {}
ReflectionByteCode::ReflectionByteCode(const ReflectedEnum& re) : m_bc(ENUM_CODE), m_stringTable(&re.m_name) {}
ReflectionByteCode::ReflectionByteCode(const ReflectedTypedef& rt) {
    if (rt.m_typeFn) *this = rt.m_typeFn();
}

const octet_t* ReadByteCodeStep(const octet_t* bc, const ConstStringZ* stringTable, ByteCodeStep& step) {
    const CodeInfo info = GetCodeInfo(*bc);
    if (info.m_shape == EShape::None)
        throw RecordException(("The byte " + std::to_string(*bc) + " is no type code").c_str());
    step.m_code = static_cast<EByteCode>(*bc++);
    step.m_numArguments = info.m_shape == EShape::OneArgument ? 1 : info.m_shape == EShape::TwoArguments ? 2 : 0;
    step.m_name = nullptr;
    if (info.m_shape != EShape::Named) return bc;

    ssize_t index = 0;
    for (int digit = 0; digit < MAX_INDEX_DIGITS; ++digit) {
        index |= static_cast<ssize_t>(*bc & 0x7F) << (7 * digit);
        if ((*bc++ & 0x80) == 0) {
            step.m_name = stringTable ? stringTable[index] : nullptr;
            return bc;
        }
    }
    throw RecordException("A name index in a type description does not end");
}

ssize_t GetByteCodeSize(const octet_t* bc) {
    const octet_t* const begin = bc;
    for (ssize_t pending = 1; pending > 0; --pending) {
        ByteCodeStep step;
        bc = ReadByteCodeStep(bc, nullptr, step);
        pending += step.m_numArguments;
    }
    return bc - begin;
}

xostream& operator<<(xostream& os, ReflectionByteCode bc) {
    if (!bc) return os;
    // The constructors whose arguments are not all written, outermost first.
    std::vector<ByteCodeStep> open;
    const octet_t* p = bc.m_bc;
    do {
        ByteCodeStep step;
        p = ReadByteCodeStep(p, bc.m_stringTable, step);
        if (step.m_name)
            WriteName(os, step);
        else
            os << GetCodeInfo(static_cast<octet_t>(step.m_code)).m_text;
        if (step.m_numArguments > 0) {
            open.push_back(step);
            continue;
        }
        while (!open.empty() && --open.back().m_numArguments == 0) {
            os << ClosingText(open.back().m_code);
            open.pop_back();
        }
        if (!open.empty()) os << ", ";
    } while (!open.empty());
    return os;
}

} // namespace quna

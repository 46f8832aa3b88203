#include "qxObject/ReflectionByteCodeValue.h"

#include "qxObject/Registry.h"
#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/VariableLengthSerialise.h"

#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quna {

namespace {

bool IsRegistered(const ByteCodeStep& step) {
    switch (step.m_code) {
    case EByteCode::Class:
    case EByteCode::Cref: return FindReflectedClass(step.m_name) != nullptr;
    case EByteCode::Interface:
    case EByteCode::Pref:
    case EByteCode::Ptr: return FindReflectedInterface(step.m_name) != nullptr;
    case EByteCode::Enum: return FindReflectedEnum(step.m_name) != nullptr;
    default: return true;
    }
}

void CheckNames(ReflectionByteCode bc) {
    const octet_t* p = bc.m_bc;
    for (ssize_t pending = 1; pending > 0; --pending) {
        ByteCodeStep step;
        p = ReadByteCodeStep(p, bc.m_stringTable, step);
        pending += step.m_numArguments;
        if (!IsRegistered(step))
            throw RecordException(
                (std::string("A type description names ") + step.m_name + ", which is not registered").c_str());
    }
}

void AppendIndex(xvector<uint8>& code, ssize_t index) {
    for (; index >= 0x80; index >>= 7) code.push_back(static_cast<uint8>(0x80 | (index & 0x7F)));
    code.push_back(static_cast<uint8>(index));
}

// A code from outside: each step must lie within it, the description must use it up, and each index must name something.
void ValidateCode(const xvector<uint8>& code, ssize_t numNames) {
    // A step may read a few bytes behind its place before it ends.
    xvector<uint8> padded(code);
    padded.resize(code.size() + 8);
    const octet_t* const end = padded.data() + code.size();
    const octet_t* p = padded.data();
    for (ssize_t pending = 1; pending > 0; --pending) {
        if (p >= end)
            throw RecordException(("A type description ends too early: found " + std::to_string(code.size()) +
                                   " bytes, expected " + std::to_string(pending) + " types more")
                                      .c_str());
        ByteCodeStep step;
        const octet_t* next = ReadByteCodeStep(p, nullptr, step);
        pending += step.m_numArguments;
        ssize_t index = 0;
        for (const octet_t* digit = next - 1; digit > p; --digit) index = index << 7 | (*digit & 0x7F);
        if (next - p > 1 && index >= numNames)
            throw RecordException(("A type description names what is not in its table: found name " +
                                   std::to_string(index) + ", expected one below " + std::to_string(numNames))
                                      .c_str());
        p = next;
    }
    if (p != end)
        throw RecordException(("A type description is followed by further bytes: found " + std::to_string(code.size()) +
                               " bytes, expected " + std::to_string(p - padded.data()))
                                  .c_str());
}

} // namespace

ReflectionByteCodeValue::ReflectionByteCodeValue(ReflectionByteCode bc, bool checkNames) {
    if (!bc) return;
    if (checkNames) CheckNames(bc);
    Capture(bc.m_bc, bc.m_stringTable);
}

ReflectionByteCodeValue::ReflectionByteCodeValue(const ReflectionByteCodeValue& rhs)
    : m_byteCode(rhs.m_byteCode), m_strings(rhs.m_strings) {
    CopyTable(rhs);
}

// Moving hands the memory on, into which the table points.
ReflectionByteCodeValue::ReflectionByteCodeValue(ReflectionByteCodeValue&& rhs) noexcept = default;

ReflectionByteCodeValue& ReflectionByteCodeValue::operator=(const ReflectionByteCodeValue& rhs) {
    if (this != &rhs) *this = ReflectionByteCodeValue(rhs);
    return *this;
}

ReflectionByteCodeValue& ReflectionByteCodeValue::operator=(ReflectionByteCodeValue&& rhs) noexcept = default;

void ReflectionByteCodeValue::CopyTable(const ReflectionByteCodeValue& rhs) {
    m_stringTable.reserve(rhs.m_stringTable.size());
    for (const char* name : rhs.m_stringTable)
        m_stringTable.push_back(m_strings.data() + (name - rhs.m_strings.data()));
}

ReflectionByteCode ReflectionByteCodeValue::AsReflectionByteCode() const {
    if (empty()) return ReflectionByteCode();
    return ReflectionByteCode(m_byteCode.data(), m_stringTable.data(), nullptr);
}

ssize_t ReflectionByteCodeValue::GetHash() const {
    const std::hash<std::string_view> hash;
    const std::size_t code = hash(std::string_view(reinterpret_cast<const char*>(m_byteCode.data()),
                                                   static_cast<std::size_t>(m_byteCode.size())));
    return static_cast<ssize_t>(code * 31 + hash(m_strings.view()));
}

// Copies the code and numbers its names anew, in the order in which they come.
void ReflectionByteCodeValue::Capture(const octet_t* bc, const ConstStringZ* stringTable) {
    xvector<ssize_t> offsets;
    for (ssize_t pending = 1; pending > 0; --pending) {
        ByteCodeStep step;
        bc = ReadByteCodeStep(bc, stringTable, step);
        pending += step.m_numArguments;
        m_byteCode.push_back(static_cast<uint8>(step.m_code));
        if (step.m_name) AppendIndex(m_byteCode, IndexOfName(step.m_name, offsets));
    }
    PointIntoStrings(offsets);
}

// The number of the name, which is added to m_strings when it is new. Descriptions have few names.
ssize_t ReflectionByteCodeValue::IndexOfName(ConstStringZ name, xvector<ssize_t>& offsets) {
    for (ssize_t i = 0; i < offsets.size(); ++i)
        if (std::strcmp(m_strings.data() + offsets[i], name) == 0) return i;
    offsets.push_back(m_strings.size());
    m_strings.append(name, static_cast<ssize_t>(std::strlen(name)) + 1);
    return offsets.size() - 1;
}

void ReflectionByteCodeValue::PointIntoStrings(const xvector<ssize_t>& offsets) {
    m_stringTable.reserve(offsets.size());
    for (const ssize_t offset : offsets) m_stringTable.push_back(m_strings.data() + offset);
}

void ReflectionByteCodeValue::Serialise(Archive& ar) const {
    ar << m_byteCode.m_buffer;
    Serialise_ssize_t(ar, m_stringTable.size());
    for (const char* name : m_stringTable) ar << xstring(name);
}

InputArchive ReflectionByteCodeValue::Deserialise(InputArchive ar) {
    xvector<uint8> code;
    ssize_t numNames = 0;
    ar = ar >> code.m_buffer;
    ar = DeserialiseCount(ar, numNames);
    std::vector<xstring> names;
    for (ssize_t i = 0; i < numNames; ++i) ar = ar >> names.emplace_back();

    ReflectionByteCodeValue value;
    if (!code.empty()) {
        ValidateCode(code, numNames);
        xvector<const char*> table;
        for (const xstring& name : names) table.push_back(name.c_str());
        value.Capture(code.data(), table.data());
    }
    *this = std::move(value);
    return ar;
}

} // namespace quna

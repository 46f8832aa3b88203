#include "qxObject/TypeDescription.h"

#include <cstring>

namespace quna {

void TypeDescriptionBuilder::Put(EByteCode code) { m_code.push_back(static_cast<octet_t>(code)); }

void TypeDescriptionBuilder::PutNamed(EByteCode code, ConstStringZ name) {
    Put(code);
    std::size_t index = 0;
    while (index < m_names.size() && std::strcmp(m_names[index], name) != 0) ++index;
    if (index == m_names.size()) m_names.push_back(name);
    for (; index >= 0x80; index >>= 7) m_code.push_back(static_cast<octet_t>(0x80 | (index & 0x7F)));
    m_code.push_back(static_cast<octet_t>(index));
}

void TypeDescriptionBuilder::PutMapOrSet(EByteCode code, PtrMapOrSetFns fns) {
    Put(code);
    m_mapOrSetFns.push_back(fns);
}

ReflectionByteCode TypeDescriptionBuilder::GetDescription() const {
    return ReflectionByteCode(m_code.data(), m_names.data(), m_mapOrSetFns.data());
}

} // namespace quna

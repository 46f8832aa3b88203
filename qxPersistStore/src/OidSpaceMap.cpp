#include "qxPersistStore/OidSpaceMap.h"

#include "qxObject/Reflect.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/PersistentMembers.h"
#include "qxPersistStore/src/WriteMapText.h"
#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Schema.h"
#include "qxUtils/xostream.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/OidSpaceMap";

constexpr int OidSpaceMap_SCHEMA = 1;
constexpr ssize_t MAP_INDENTATION = 4; // columns

} // namespace

// ---- Record ---------------------------------------------------------------------------------------------------------

void OidSpaceMap::Serialise(Archive& ar) const {
    const std::lock_guard lock(mutex_);
    SerialiseSchema(ar, OidSpaceMap_SCHEMA);
    ar << m_nameMap;
}

InputArchive OidSpaceMap::Deserialise(InputArchive ar) {
    int schema = 0;
    ar = DeserialiseSchema(ar, OidSpaceMap_SCHEMA, schema);
    ar = ar >> m_nameMap;
    for (const auto& [oh, osg] : m_nameMap) {
        const auto i = m_idMap.emplace(osg, oh).first;
        if (oh == 0 || i->second != oh)
            throw RecordException(
                "The record of an OidSpaceMap is damaged: an identifier space has the number 0 or the "
                "name of another one");
    }
    newOidHighsDelta_.clear();
    return ar;
}

// ---- Look-up --------------------------------------------------------------------------------------------------------

ssize_t OidSpaceMap::size() const {
    const std::lock_guard lock(mutex_);
    return static_cast<ssize_t>(m_nameMap.size());
}

OidHigh OidSpaceMap::GetOidHigh(const OidSpaceGuid& osg) const {
    const std::lock_guard lock(mutex_);
    const auto i = m_idMap.find(osg);
    return i == m_idMap.end() ? 0 : i->second;
}

bool OidSpaceMap::GetOidSpaceGuid(OidHigh oh, OidSpaceGuid& guid) const {
    const std::lock_guard lock(mutex_);
    QX_ASSERT(oh != 0);
    const auto i = m_nameMap.find(oh);
    if (i == m_nameMap.end()) return false;
    guid = i->second;
    return true;
}

// ---- Change ---------------------------------------------------------------------------------------------------------

OidHigh OidSpaceMap::GetOrCreateOidHigh(const OidSpaceGuid& osg) {
    const std::lock_guard lock(mutex_);
    if (const auto i = m_idMap.find(osg); i != m_idMap.end()) return i->second;
    PSpace* const p = GetThreadPSpace();
    QX_ASSERT(p);
    PersistStore* const ps = GetPersistStore(p);
    QX_ASSERT(ps);
    ILogStructuredStore* const lss = GetLss(ps);
    QX_ASSERT(lss);
    const OidHigh oh = lss->AllocateSeidHigh();
    Add(oh, osg);
    return oh;
}

void OidSpaceMap::GetOrCreateOidSpaceGuid(OidHigh oh, OidSpaceGuid& guid) {
    const std::lock_guard lock(mutex_);
    QX_ASSERT(oh != 0);
    if (const auto i = m_nameMap.find(oh); i != m_nameMap.end()) {
        guid = i->second;
        return;
    }
    guid = CreateGuid();
    Add(oh, guid);
}

void OidSpaceMap::Add(OidHigh oh, const OidSpaceGuid& osg) {
    QX_ASSERT(oh != 0);
    QX_ASSERT(m_nameMap.find(oh) == m_nameMap.end());
    QX_ASSERT(m_idMap.find(osg) == m_idMap.end());
    const auto name = m_nameMap.emplace(oh, osg).first;
    try {
        m_idMap.emplace(osg, oh);
        MarkAsDirtyWithoutTrace();
        newOidHighsDelta_.push_back(oh);
    } catch (...) { // without write access, say: an entry that is never written must not be handed out
        m_idMap.erase(osg);
        m_nameMap.erase(name);
        throw;
    }
}

void OidSpaceMap::RemoveOidHigh(OidHigh oh) {
    const std::lock_guard lock(mutex_);
    const auto i = m_nameMap.find(oh);
    QX_ASSERT(i != m_nameMap.end());
    const auto j = m_idMap.find(i->second);
    QX_ASSERT(j != m_idMap.end());
    MarkAsDirtyWithoutTrace(); // may throw, so before the first change
    m_nameMap.erase(i);
    m_idMap.erase(j);
}

void OidSpaceMap::SwapOutOidHighsDelta(xvector<uint32>& delta) {
    const std::lock_guard lock(mutex_);
    newOidHighsDelta_.swap(delta);
}

// ---- Text -----------------------------------------------------------------------------------------------------------

void OidSpaceMap::Write(xostream& os) const {
    const std::lock_guard lock(mutex_);
    os << "OidSpaceMap\n";
    const Indenter indent(os, MAP_INDENTATION);
    detail::WriteMapText(os, m_nameMap);
    os << '\n';
    detail::WriteMapText(os, m_idMap);
    os << '\n';
}

xostream& operator<<(xostream& os, const OidSpaceMap& map) {
    map.Write(os);
    return os;
}

// ---- Reflection -----------------------------------------------------------------------------------------------------

namespace {

constexpr ReflectedClass MakeOidSpaceMapClass() {
    ReflectedClass rc = MakeReflectedClass<OidSpaceMap>("quna::OidSpaceMap", REFLECTED_CLASS_FOR_APPLICATIONS,
                                                        detail::PERSISTABLE_INTERFACES);
    rc.m_ops = MakeLifeTypeOps<OidSpaceMap>();
    return rc;
}

constinit const ReflectedClass OIDSPACEMAP = MakeOidSpaceMapClass();

} // namespace

const ReflectedClass& _GetReflected(const OidSpaceMap*) { return OIDSPACEMAP; }
const TypeOps* _GetTypeOps(const OidSpaceMap*) { return &OIDSPACEMAP.m_ops; }
void _Register_OidSpaceMap(XTarget* target) { RegisterOrThrow(OIDSPACEMAP, target); }

} // namespace quna

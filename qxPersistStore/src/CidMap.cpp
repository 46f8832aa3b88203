#include "qxPersistStore/src/CidMap.h"

#include "qxObject/ReflectedClass.h"
#include "qxObject/Registry.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Schema.h"
#include "qxUtils/VariableLengthSerialise.h"

#include <cstdint>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/CidMap";

constexpr int CidMap_SCHEMA = 1;

using TRANSLATION_MAP = std::map<xstring, xstring>; // old name to new name

TRANSLATION_MAP MakeTranslationMap(const ClassNameTranslationTable* table) {
    TRANSLATION_MAP translation;
    if (!table) return translation;
    for (ssize_t i = 0; i < table->count; ++i) {
        const ClassNameTranslation& e = table->entries[i];
        QX_ASSERT(e.oldName);
        QX_ASSERT(e.newName);
        translation[e.oldName] = e.newName;
    }
    return translation;
}

} // namespace

CidMap::Entry::Entry(const ReflectedClass& rc) : m_name(rc.m_name), m_rc(&rc) {}

// Records of classes are static tables of more than a hundred bytes.
std::atomic<const CidMap::Known*>& CidMap::QuickCid(const ReflectedClass& rc) {
    return m_quickCids[reinterpret_cast<std::uintptr_t>(&rc) / 128 % NUM_QUICK];
}

CID CidMap::GetCid(const ReflectedClass& rc, bool& dirty) {
    std::atomic<const Known*>& quick = QuickCid(rc);
    const Known* const known = quick.load(std::memory_order_acquire);
    if (known && known->m_rc == &rc) [[likely]] {
        dirty = false;
        return known->m_cid;
    }
    const std::lock_guard lock(mutex_);
    // The place is the first comer's: two classes that share one don't push each other out for ever.
    if (!known) m_known.push_back({&rc, 0}); // before: nothing may fail any more once there is a new entry
    const CID cid = FindOrAddCid(rc, dirty);
    if (!known) {
        m_known.back().m_cid = cid;
        quick.store(&m_known.back(), std::memory_order_release);
    }
    return cid;
}

CID CidMap::FindOrAddCid(const ReflectedClass& rc, bool& dirty) {
    dirty = false;
    if (const auto i = m_rcToCid.find(&rc); i != m_rcToCid.end()) return i->second;

    const xstring name(rc.m_name);
    if (const auto i = m_nameToCid.find(name); i != m_nameToCid.end()) {
        m_rcToCid[&rc] = i->second;
        return i->second;
    }
    const CID cid = AddEntry(rc, name);
    dirty = true;
    return cid;
}

// All of it or nothing: what memory runs out for is taken back.
CID CidMap::AddEntry(const ReflectedClass& rc, const xstring& name) {
    m_entrys.push_back(Entry(rc));
    const CID cid = static_cast<CID>(m_entrys.size());
    try {
        m_nameToCid[name] = cid;
        m_rcToCid[&rc] = cid;
    } catch (...) {
        m_nameToCid.erase(name);
        m_entrys.pop_back();
        throw;
    }
    return cid;
}

const ReflectedClass& CidMap::GetReflectedClass(CID cid) {
    const bool isQuick = 0 <= cid && cid < static_cast<CID>(NUM_QUICK);
    if (isQuick) {
        const ReflectedClass* const rc = m_quickClasses[static_cast<std::size_t>(cid)].load(std::memory_order_acquire);
        if (rc) [[likely]]
            return *rc;
    }
    const std::lock_guard lock(mutex_);
    if (cid <= 0 || cid > static_cast<CID>(m_entrys.size())) throw BadCidException(cid);
    Entry& e = m_entrys[static_cast<std::size_t>(cid - 1)];
    if (!e.m_rc) {
        e.m_rc = FindReflectedClass(e.m_name.c_str());
        QX_ASSERT(e.m_rc);
    }
    if (isQuick) m_quickClasses[static_cast<std::size_t>(cid)].store(e.m_rc, std::memory_order_release);
    return *e.m_rc;
}

void CidMap::Serialise(Archive& ar) const {
    SerialiseSchema(ar, CidMap_SCHEMA);
    const std::lock_guard lock(mutex_);
    Serialise_ssize_t(ar, static_cast<ssize_t>(m_entrys.size()));
    for (const Entry& e : m_entrys) ar << e.m_name;
}

InputArchive CidMap::Deserialise(InputArchive ar, const ClassNameTranslationTable* table, bool& dirty) {
    dirty = false;
    const TRANSLATION_MAP translation = MakeTranslationMap(table);
    int schema = 0;
    ar = DeserialiseSchema(ar, CidMap_SCHEMA, schema);
    ssize_t count = 0;
    ar = DeserialiseCount(ar, count);
    m_entrys.resize(static_cast<std::size_t>(count));
    CID cid = 0;
    for (Entry& e : m_entrys) {
        ar = ar >> e.m_name;
        if (const auto i = translation.find(e.m_name); i != translation.end()) {
            dirty = true;
            e.m_name = i->second; // once: a new name is not translated again
        }
        if (m_nameToCid.count(e.m_name) != 0) throw RepeatedClassNameInCidMapException(e.m_name);
        m_nameToCid[e.m_name] = ++cid;
        e.m_rc = nullptr;
    }
    return ar;
}

} // namespace quna

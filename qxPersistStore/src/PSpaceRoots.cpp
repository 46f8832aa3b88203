#include "qxPersistStore/src/PSpaceRoots.h"

#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/Records.h"
#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/Assert.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Schema.h"

#include <cstring>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/PSpaceRoots";
constexpr int PSpaceRoots_SCHEMA = 1;

} // namespace

PSpaceRoots::PSpaceRoots(OID oid, bool creating) : m_oid(oid), m_dirty(creating) { QX_ASSERT(oid); }

ptr<IPersistable> PSpaceRoots::GetRoot(ConstStringZ name) const {
    QX_ASSERT(name);
    QX_ASSERT(strlen(name) > 0);
    const auto i = m_roots.find(xstring(name));
    if (i == m_roots.end()) return null;
    const ptr<IPersistable> po = i->second.Get();
    QX_ASSERT(po);
    return po;
}

bool PSpaceRoots::AddRoot(PSpace* pspace, ConstStringZ name, ptr<IPersistable> root) {
    QX_ASSERT(pspace);
    QX_ASSERT(name);
    QX_ASSERT(strlen(name) > 0);
    QX_ASSERT(root);
    QX_ASSERT(!GetOid(root));
    QX_ASSERT(root->RepresentsSubTree());
    const auto [i, inserted] = m_roots.try_emplace(xstring(name), root);
    if (!inserted) return false;
    m_dirty.store(true, std::memory_order_relaxed);
    try {
        pspace->MakeObjectPersist(root, true);
    } catch (...) {
        m_roots.erase(i); // a name of an object that is nowhere would fail every later write of the record
        throw;
    }
    QX_ASSERT(GetOid(root));
    return true;
}

bool PSpaceRoots::RemoveRoot(ConstStringZ name) {
    QX_ASSERT(name);
    QX_ASSERT(strlen(name) > 0);
    const auto i = m_roots.find(xstring(name));
    if (i == m_roots.end()) return false;
    const ptr<IPersistable> root = i->second.Get();
    QX_ASSERT(root);
    m_roots.erase(i);
    m_dirty.store(true, std::memory_order_relaxed);
    return true;
}

void PSpaceRoots::Clear() {
    if (m_roots.empty()) return;
    m_roots.clear();
    m_dirty.store(true, std::memory_order_relaxed);
}

void PSpaceRoots::Serialise(Archive& ar) const {
    QX_ASSERT(ar.IsStoring());
    SerialiseSchema(ar, PSpaceRoots_SCHEMA);
    ar << m_roots;
    SerialiseOid(ar, m_dqOid);
}

InputArchive PSpaceRoots::Deserialise(InputArchive ar) {
    int schema = 0;
    ar = DeserialiseSchema(ar, PSpaceRoots_SCHEMA, schema);
    ar = ar >> m_roots;
    return DeserialiseOid(ar, m_dqOid);
}

void PSpaceRoots::WriteToLssIfDirty(ILssTransaction& txn) {
    if (!m_dirty.load(std::memory_order_relaxed)) return;
    QX_ASSERT(m_oid);
    WriteRecord(txn, m_oid, [this](Archive& ar) { Serialise(ar); });
    m_dirty.store(false, std::memory_order_relaxed);
}

void PSpaceRoots::ReadFromLss(ILogStructuredStore* lss) {
    QX_ASSERT(lss);
    QX_ASSERT(m_oid);
    AutoCloser<IContiguousSerialElement> se(lss->OpenSerialElement(m_oid));
    if (!se) throw DerefDanglingOidException(m_oid);
    const bool usedExactly = ParseRecord(*se, [this](InputArchive ar) { return Deserialise(ar); });
    QX_ASSERT_TEXT(usedExactly, "ar == rob.buffer + rob.size");
    se.Close();
}

void PSpaceRoots::VisitObjects(IObjectVisitor& v) const {
    for (const auto& root : m_roots) root.second.VisitObjects(v);
}

void PSpaceRoots::VisitPrefs(IPrefVisitor& v) const {
    for (const auto& root : m_roots) v.VisitPref(root.second);
}

} // namespace quna

#include "qxPersistStore/src/PSpaceMap.h"

#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/DirtyFlagScope.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/Records.h"
#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/Assert.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Schema.h"

#include <algorithm>
#include <exception>
#include <vector>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/PSpaceMap";
constexpr int PSpaceMap_SCHEMA = 1;

} // namespace

// Gives a reserved name back at the end of the scope.
class PSpaceMap::OpeningName {
public:
    OpeningName(PSpaceMap& map, const xstring& name) : m_map(map), m_name(name) {}
    OpeningName(const OpeningName&) = delete;
    OpeningName& operator=(const OpeningName&) = delete;
    ~OpeningName() {
        const std::lock_guard lock(m_map.mutex_);
        m_map.m_opening.erase(m_name);
    }

private:
    PSpaceMap& m_map;
    const xstring& m_name;
};

PSpaceMap::~PSpaceMap() noexcept(false) {
    if (std::uncaught_exceptions() == 0) AssertAllClosed();
}

void PSpaceMap::AssertAllClosed() {
    bool allClosed = true;
    for (auto i = map_.begin(); i != map_.end(); ++i) {
        if (i->second.m_ptr) {
            allClosed = false;
            i->second.m_ptr = nullptr;
        }
    }
    QX_ASSERT_TEXT(allClosed, "i->second.m_ptr == __null");
}

OID PSpaceMap::ReserveName(const xstring& name, EOpenMode openMode) {
    const std::lock_guard lock(mutex_);
    const bool beingOpened = m_opening.find(name) != m_opening.end();
    QX_ASSERT_TEXT(!beingOpened, "e.m_ptr == __null");
    OID oid;
    const auto i = map_.find(name);
    if (i == map_.end()) {
        if (openMode == OM_OPEN_EXISTING || openMode == OM_DELETE_EXISTING) throw OpenPSpaceException(openMode, name);
    } else {
        if (openMode == OM_CREATE_NEW) throw OpenPSpaceException(OM_CREATE_NEW, name);
        const Entry& e = i->second;
        QX_ASSERT_TEXT(e.m_ptr == nullptr, "e.m_ptr == __null");
        QX_ASSERT(e.m_oid);
        oid = e.m_oid;
    }
    m_opening.insert(name);
    return oid;
}

PSpace* PSpaceMap::OpenPSpace(ILogStructuredStore& lss, OidHigh oidHigh, ConstStringZ name, EOpenMode openMode,
                              CSpace* cspace) {
    QX_ASSERT(name);
    const xstring key(name);
    Entry e;
    e.m_oid = ReserveName(key, openMode);
    PSpace* p = nullptr;
    {
        const OpeningName opening(*this, key);
        const bool creating = !e.m_oid;
        if (creating) {
            e.m_oid = Seid(0, oidHigh);
            QX_ASSERT(lss.AllocateAffiliateSeid(e.m_oid));
        }
        MAP fresh; // made before the space, so that entering it cannot fail
        if (creating) fresh.emplace(key, e);
        p = new PSpace(m_ps, name, e.m_oid, creating, cspace);
        const std::lock_guard lock(mutex_);
        map_.merge(fresh); // not committed: the map on disk does not change
        map_.find(key)->second.m_ptr = p;
    }
    m_ps.m_dosWriter.OnOpenPSpace(p);
    return p;
}

void PSpaceMap::CommitPSpace(PSpace* p) {
    QX_ASSERT(p);
    const std::lock_guard lock(mutex_);
    const auto i = map_.find(p->m_name);
    QX_ASSERT(i != map_.end());
    if (i->second.m_committed) return;
    i->second.m_committed = true;
    m_dirty.store(true, std::memory_order_release);
}

void PSpaceMap::RemovePSpace(PSpace* pspace) {
    QX_ASSERT(pspace);
    const std::lock_guard lock(mutex_);
    const auto i = map_.find(pspace->m_name);
    QX_ASSERT(i != map_.end());
    i->second.m_ptr = nullptr;
}

ssize_t PSpaceMap::GetNumPSpaces() const {
    const std::lock_guard lock(mutex_);
    return static_cast<ssize_t>(map_.size());
}

bool PSpaceMap::HasRecord(ILogStructuredStore& lss, OID oid) const {
    std::vector<OID> closed;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [name, e] : map_) {
            if (e.m_oid == oid || (e.m_ptr && e.m_ptr->m_roots.m_dqOid == oid)) return true;
            if (!e.m_ptr) closed.push_back(e.m_oid);
        }
    }
    const AutoCloser<IContiguousSerialElement> element(closed.empty() ? nullptr : lss.OpenSerialElement(oid));
    if (!element) return false; // as for every object that is new here
    return std::any_of(closed.begin(), closed.end(), [&](OID roots) {
        PSpaceRoots record(roots, false);
        record.ReadFromLss(&lss);
        return record.m_dqOid == oid;
    });
}

void PSpaceMap::Serialise(Archive& ar) const {
    QX_ASSERT(ar.IsStoring());
    SerialiseSchema(ar, PSpaceMap_SCHEMA);
    const std::lock_guard lock(mutex_);
    DirtyFlagScope dirty(m_dirty);
    uint32 numCommitted = 0;
    for (const auto& [name, e] : map_) numCommitted += e.m_committed ? 1 : 0;
    SerialiseVariableLengthUint32(ar, numCommitted);
    for (const auto& [name, e] : map_) {
        if (!e.m_committed) continue;
        ar << name;
        SerialiseOid(ar, e.m_oid);
    }
    dirty.Complete();
}

void PSpaceMap::WriteIfDirty(ILssTransaction& txn) {
    if (!m_dirty.load(std::memory_order_acquire)) return;
    AutoCloser<ICloseableOutputStream> os(txn.WriteSerialElement(PSPACEMAP_SEID));
    QX_ASSERT(os.Get());
    try {
        {
            Archive ar(os.Get());
            Serialise(ar);
        }
        QX_ASSERT(!m_dirty);
        os.Close();
    } catch (...) {
        m_dirty.store(true, std::memory_order_release); // serialised, but not written
        throw;
    }
}

InputArchive PSpaceMap::Deserialise(InputArchive ar) {
    int schema = 0;
    ar = DeserialiseSchema(ar, PSpaceMap_SCHEMA, schema);
    ssize_t count = 0;
    ar = DeserialiseCount(ar, count);
    const std::lock_guard lock(mutex_);
    for (ssize_t i = 0; i < count; ++i) {
        xstring name;
        Entry e;
        ar = ar >> name;
        ar = DeserialiseOid(ar, e.m_oid);
        QX_ASSERT_TEXT(e.m_ptr == nullptr, "e.m_ptr == __null");
        e.m_committed = true;
        map_[name] = e;
    }
    m_dirty.store(false, std::memory_order_release);
    return ar;
}

void PSpaceMap::Read(ILogStructuredStore& lss) {
    AutoCloser<IContiguousSerialElement> se(lss.OpenSerialElement(PSPACEMAP_SEID));
    QX_ASSERT(se);
    const bool usedExactly = ParseRecord(*se, [this](InputArchive ar) { return Deserialise(ar); });
    QX_ASSERT_TEXT(usedExactly, "ar == rob.buffer + rob.size");
    QX_ASSERT(!m_dirty);
    se.Close();
}

} // namespace quna

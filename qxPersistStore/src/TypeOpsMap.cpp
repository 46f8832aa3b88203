#include "qxPersistStore/src/TypeOpsMap.h"

#include "qxObject/Registry.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Schema.h"
#include "qxUtils/VariableLengthSerialise.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/TypeOpsMap";

constexpr int TypeOpsMap_SCHEMA = 1;

} // namespace

TypeOpsId TypeOpsMap::GetTypeOpsId(const ReflectionByteCodeValue& rbcv, const TypeOps& ops, bool& dirty) {
    std::atomic<bool> made{false};
    const TypeOpsId tid = GetTypeOpsId(rbcv, ops, made);
    dirty = made.load(std::memory_order_relaxed);
    return tid;
}

TypeOpsId TypeOpsMap::GetTypeOpsId(const ReflectionByteCodeValue& rbcv, const TypeOps& ops,
                                   std::atomic<bool>& recordDirty) {
    const std::lock_guard lock(mutex_);
    if (const auto i = m_rbcvToTypeOpsId.find(rbcv); i != m_rbcvToTypeOpsId.end()) {
        const TypeOpsId tid = i->second;
        QX_ASSERT_TEXT(1 <= tid && tid <= static_cast<ssize_t>(m_entrys.size()), "1 <= tid && tid <= m_entrys.size()");
        return tid;
    }
    m_entrys.push_back(Entry{rbcv, &ops});
    const TypeOpsId tid = static_cast<TypeOpsId>(m_entrys.size());
    try {
        m_rbcvToTypeOpsId[rbcv] = tid;
    } catch (...) {
        m_entrys.pop_back();
        throw;
    }
    recordDirty.store(true, std::memory_order_release);
    return tid;
}

BcTypeOps TypeOpsMap::GetTypeOps(TypeOpsId tid) {
    const std::lock_guard lock(mutex_);
    if (tid <= 0 || tid > static_cast<TypeOpsId>(m_entrys.size())) throw BadTypeOpsIdException(tid);
    Entry& e = m_entrys[static_cast<std::size_t>(tid - 1)];
    if (!e.m_typeOps) {
        e.m_typeOps = FindTypeOps(e.m_rbcv.AsReflectionByteCode());
        if (!e.m_typeOps) throw TypeOpsNotFoundException(e.m_rbcv);
    }
    return BcTypeOps{&e.m_rbcv, e.m_typeOps};
}

void TypeOpsMap::Serialise(Archive& ar) const {
    SerialiseSchema(ar, TypeOpsMap_SCHEMA);
    const std::lock_guard lock(mutex_);
    Serialise_ssize_t(ar, static_cast<ssize_t>(m_entrys.size()));
    for (const Entry& e : m_entrys) e.m_rbcv.Serialise(ar);
}

InputArchive TypeOpsMap::Deserialise(InputArchive ar) {
    int schema = 0;
    ar = DeserialiseSchema(ar, TypeOpsMap_SCHEMA, schema);
    ssize_t count = 0;
    ar = DeserialiseCount(ar, count);
    m_entrys.resize(static_cast<std::size_t>(count));
    TypeOpsId tid = 0;
    for (Entry& e : m_entrys) {
        ar = e.m_rbcv.Deserialise(ar);
        m_rbcvToTypeOpsId[e.m_rbcv] = ++tid;
        e.m_typeOps = nullptr;
    }
    return ar;
}

} // namespace quna

#include "qxPersistStore/src/RootPersistStoreObject.h"

#include "qxObject/QunaSystemException.h"
#include "qxPersistStore/src/DirtyFlagScope.h"
#include "qxPersistStore/src/Records.h"
#include "qxUtils/Assert.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Schema.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/RootPersistStoreObject";
constexpr int RootPersistStoreObject_SCHEMA = 2;

} // namespace

void RootPersistStoreObject::Serialise(Archive& ar) const {
    QX_ASSERT(m_oidHighForOidAllocations);
    SerialiseSchema(ar, RootPersistStoreObject_SCHEMA);
    m_cidMap.Serialise(ar);
    ar << m_oidHighForOidAllocations;
    m_typeOpsMap.Serialise(ar);
}

InputArchive RootPersistStoreObject::Deserialise(InputArchive ar, ClassNameTranslationTable const* table) {
    int schema = 0;
    ar = DeserialiseSchema(ar, RootPersistStoreObject_SCHEMA, schema);
    bool renamed = false;
    ar = m_cidMap.Deserialise(ar, table, renamed);
    m_dirty.store(renamed, std::memory_order_relaxed);
    ar = ar >> m_oidHighForOidAllocations;
    QX_ASSERT(m_oidHighForOidAllocations);
    if (schema > 1) ar = m_typeOpsMap.Deserialise(ar);
    return ar;
}

void RootPersistStoreObject::WriteIfDirty(ILssTransaction& txn) const {
    if (!m_dirty.load(std::memory_order_acquire)) return;
    DirtyFlagScope dirty(m_dirty);
    WriteRecord(txn, ROOT_PERSISTSTORE_OBJECT_SEID, [this](Archive& ar) { Serialise(ar); });
    dirty.Complete();
}

// Also false for a record that ends in the middle of a name or a count.
bool RootPersistStoreObject::IsUsedExactly(IContiguousSerialElement& se, ClassNameTranslationTable const* table) {
    try {
        return ParseRecord(se, [this, table](InputArchive ar) { return Deserialise(ar, table); });
    } catch (const SchemaException&) {
        throw;
    } catch (const RecordException&) {
        return false;
    }
}

void RootPersistStoreObject::Read(ILogStructuredStore& lss, ClassNameTranslationTable const* table) {
    AutoCloser<IContiguousSerialElement> se(lss.OpenSerialElement(ROOT_PERSISTSTORE_OBJECT_SEID));
    if (!se) throw QunaSystemException("PersistStore is missing root object");
    if (!IsUsedExactly(*se, table)) throw QunaSystemException("PersistStore root object is corupt");
    se.Close();
    if (!m_dirty.load(std::memory_order_relaxed)) return;
    AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
    WriteIfDirty(*txn);
    txn.Close();
}

} // namespace quna

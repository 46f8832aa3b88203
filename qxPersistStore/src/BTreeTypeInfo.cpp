#include "qxPersistStore/BTreeTypeInfo.h"

#include "qxPersistStore/TypeInfo.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Mutex.h"
#include "qxUtils/VariableLengthSerialise.h"

#include <mutex>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/BPlusTree2";

// One for all descriptors: each is resolved once in its life.
Mutex& ResolutionMutex() {
    static Mutex& mutex = *new Mutex("BTreeTypeInfo");
    return mutex;
}

void CalculateSizes(CalculatedBTreeTypeInfo& bi) {
    QX_ASSERT(bi.m_keyType);
    bi.m_keyAndCrefSize = bi.m_keyType->m_size + static_cast<ssize_t>(sizeof(cref<void>));
    bi.m_keyAndPayloadSize = bi.m_keyType->m_size + (bi.m_payloadType ? bi.m_payloadType->m_size : 0);
}

InputArchive DeserialiseTid(InputArchive ar, TypeOpsId& tid) {
    uint64 x = 0;
    ar = DeserialiseVariableLengthUint(ar, x);
    tid = static_cast<TypeOpsId>(x);
    return ar;
}

} // namespace

void BTreeTypeInfo::InitSizes() const { CalculateSizes(m_bi); }

// The types are looked up before the lock is taken: the maps of the store have locks of their own. Who comes second
// finds the work done.
const CalculatedBTreeTypeInfo& BTreeTypeInfo::Resolve() const {
    CalculatedBTreeTypeInfo bi;
    bi.m_keyType = &GetPersistStoreTypeOps(m_keyTid);
    if (m_payloadTid) bi.m_payloadType = &GetPersistStoreTypeOps(m_payloadTid);
    CalculateSizes(bi);
    const std::lock_guard lock(ResolutionMutex());
    if (!IsResolved()) {
        m_bi.m_payloadType = bi.m_payloadType;
        m_bi.m_keyAndCrefSize = bi.m_keyAndCrefSize;
        m_bi.m_keyAndPayloadSize = bi.m_keyAndPayloadSize;
        std::atomic_ref<const TypeOps*>(m_bi.m_keyType).store(bi.m_keyType, std::memory_order_release);
    }
    return m_bi;
}

void SerialiseBTreeTypeInfo(Archive& ar, const BTreeTypeInfo& bti) {
    QX_ASSERT(1 <= bti.m_keyTid);
    QX_ASSERT(0 <= bti.m_payloadTid);
    Serialise_ssize_t(ar, bti.m_keyTid);
    Serialise_ssize_t(ar, bti.m_payloadTid);
}

InputArchive DeserialiseBTreeTypeInfo(InputArchive ar, BTreeTypeInfo& bti) {
    bti.m_bi.m_keyType = nullptr;
    ar = DeserialiseTid(ar, bti.m_keyTid);
    ar = DeserialiseTid(ar, bti.m_payloadTid);
    QX_ASSERT(1 <= bti.m_keyTid);
    QX_ASSERT(0 <= bti.m_payloadTid);
    return ar;
}

} // namespace quna

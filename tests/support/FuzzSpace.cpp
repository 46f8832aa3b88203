#include "tests/support/FuzzSpace.h"

#include "qxObject/CSpace.h"
#include "qxPersistStore/BPlusTree2.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/InternalNode.h"
#include "qxPersistStore/LeafNode.h"
#include "qxPersistStore/OidSpaceMap.h"
#include "qxPersistStore/TypeInfo.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Guid.h"
#include "qxUtils/RecordLimits.h"
#include "tests/support/TestObjects.h"
#include "tests/support/TestTreeTypes.h"

#include <utility>

namespace quna {

// --- FuzzLss

namespace {

class Element final : public IContiguousSerialElement {
public:
    // A copy of its own, so that a read behind its end is seen.
    explicit Element(std::vector<octet_t> bytes) : m_bytes(std::move(bytes)) {}
    virtual ~Element() = default;
    void Close() override { delete this; }
    ReadOnlyBuffer GetBuffer() override { return {m_bytes.data(), std::ssize(m_bytes) - RECORD_SLACK}; }

private:
    const std::vector<octet_t> m_bytes;
};

} // namespace

void FuzzLss::Put(Seid seid, const octet_t* bytes, ssize_t n) {
    std::vector<octet_t> element(bytes, bytes + n);
    element.resize(element.size() + static_cast<size_t>(RECORD_SLACK));
    m_elements[seid.value_] = std::move(element);
}

IContiguousSerialElement* FuzzLss::OpenSerialElement(Seid seid) {
    const auto i = m_elements.find(seid.value_);
    return i == m_elements.end() ? nullptr : new Element(i->second);
}

ILssTransaction* FuzzLss::OpenTransaction() { throw FileException("The store of a fuzz target is not written to"); }

// --- FuzzSpace

FuzzSpace::FuzzSpace() {
    RegisterTestObjects();
    RegisterTreeTypes();
    PersistStoreSettings settings;
    settings.startObjectDeletion = false;
    m_store = OpenPersistStore(m_dir.File("store").c_str(), OM_CREATE_NEW, settings);
    CSpace* const cspace = CreateCSpace(QUNA_GC_THREAD_DONT_START, GCThreadFn());
    m_space = OpenPSpace(m_store, "fuzz", OM_CREATE_NEW, cspace);
    m_pair.emplace(m_space, cspace);
    m_lock.emplace(cspace, Exclusive);
    RegisterIds();
    m_lss = std::exchange(m_store->m_lss, &m_fuzzLss);
}

FuzzSpace::~FuzzSpace() noexcept(false) = default;

FuzzSpace& FuzzSpace::Get() {
    static FuzzSpace* const space = new FuzzSpace;
    return *space;
}

// In a fixed order: inputs hold the numbers.
void FuzzSpace::RegisterIds() {
    for (const ReflectedClass* rc :
         {&GetReflectedClass<TestLeaf>(), &GetReflectedClass<TestNode>(), &GetReflectedClass<BPlusTree>(),
          &GetReflectedClass<LeafNode>(), &GetReflectedClass<InternalNode>(), &GetReflectedClass<OidSpaceMap>(),
          &GetReflectedClass<TestNoSubTree>(), &GetReflectedClass<TestNoFactory>(),
          &GetReflectedClass<TestPlainObject>()})
        m_store->GetCid(*rc);
    const TypeOpsId ids[] = {GetPersistStoreTypeOpsId(DescriptionOf<uint8>()),
                             GetPersistStoreTypeOpsId(DescriptionOf<uint16>()),
                             GetPersistStoreTypeOpsId(DescriptionOf<int64>()),
                             GetPersistStoreTypeOpsId(DescriptionOf<xstring>()),
                             GetPersistStoreTypeOpsId(DescriptionOf<Guid>()),
                             GetPersistStoreTypeOpsId(DescriptionOf<OID>()),
                             GetPersistStoreTypeOpsId(DescriptionOf<xvector<xstring>>()),
                             GetPersistStoreTypeOpsId(DescriptionOf<CountedValue>()),
                             GetPersistStoreTypeOpsId(DescriptionOf<Key24>())};
    m_numTypes = std::ssize(ids);
}

void FuzzSpace::Begin() {
    m_fuzzLss.Forget();
    SynchronousGc(m_space->GetCSpace());
}

} // namespace quna

// Fuzz target: any bytes as the elements of a store's objects, which are then bound, walked through, printed and copied. Each
// ends in an exception of the library, or does what it does for good bytes.
//
// Input: the number of elements; of each the class (a byte, taken as the id) and the length (u16), then its record; then
// operations of one byte each. The elements are 1:00000010, 1:00000011 and so on.
#include "qxObject/PrintInstance.h"
#include "qxPersistStore/BPlusTree2.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxUtils/xostream.h"
#include "tests/support/FuzzBasics.h"
#include "tests/support/FuzzSpace.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

namespace quna {
namespace {

constexpr ssize_t MAX_ELEMENTS = 12;
constexpr ssize_t MAX_OPERATIONS = 16;
constexpr ssize_t MAX_STEPS = 400;
constexpr ssize_t MAX_ENTRIES = MAX_ELEMENTS * BTREE_MAX_ENTRIES; // of all leaves
constexpr SeidLow FIRST_LOW = 16;
constexpr int64 MEMORY_ALLOWANCE = int64{16} << 20;

OID OidAt(ssize_t i) { return OID(FIRST_LOW + static_cast<OidLow>(i), 1); }

class RefsVisitor : public IPrefVisitor {
public:
    void VisitPref(const prefbase& pref) override {
        if (++m_num < MAX_STEPS) TryRecord([&] { pref.TryGet(); });
    }
    void VisitParentPref(const prefbase&) override {}

private:
    ssize_t m_num = 0;
};

// A value of the tree's key type, as its user would have one.
class DefaultKey {
public:
    explicit DefaultKey(const TypeOps& type) : m_type(type) {
        FuzzRequire(type.m_size <= static_cast<ssize_t>(sizeof m_bytes), "a key is too large for the target");
        if (m_type.HasConstruct()) m_type.m_ConstructArrayFn(m_bytes, m_type.m_size, 1);
    }
    DefaultKey(const DefaultKey&) = delete;
    DefaultKey& operator=(const DefaultKey&) = delete;
    ~DefaultKey() {
        if (m_type.HasDestruct()) m_type.m_DestructArrayFn(m_bytes, m_type.m_size, 1);
    }
    const _Key* Get() const { return reinterpret_cast<const _Key*>(m_bytes); }

private:
    const TypeOps& m_type;
    alignas(16) octet_t m_bytes[64] = {};
};

// Each leaf is met at most once, whatever the chain says.
void RequireEnd(ssize_t n) { FuzzRequire(n <= MAX_ENTRIES, "a walk along the leaves has no end"); }

// Every entry that is met is read by the tree's types, as its user would.
void ReadEntry(const BPlusTree& tree, const BPlusTree::Iterator& i) {
    const CalculatedBTreeTypeInfo& bi = tree.GetCalculatedBTreeTypeInfo();
    const auto* const entry = reinterpret_cast<const octet_t*>(i.const_deref());
    StringStream os(64);
    if (bi.m_keyType->HasPrint()) bi.m_keyType->PrintVariable(os, entry);
    if (bi.m_payloadType && bi.m_payloadType->HasPrint())
        bi.m_payloadType->PrintVariable(os, entry + tree.GetPayloadOffset());
}

// Forwards and backwards.
void Walk(BPlusTree& tree) {
    const DefaultKey key(*tree.GetCalculatedBTreeTypeInfo().m_keyType);
    TryRecord([&] { tree.rFind(key.Get()); });
    TryRecord([&] { tree.upper_bound(key.Get()); });
    TryRecord([&] {
        ssize_t n = 0;
        for (BPlusTree::Iterator i = tree.lower_bound(key.Get()); i.can_dereference(); i.next()) {
            RequireEnd(++n);
            ReadEntry(tree, i);
        }
    });
    TryRecord([&] {
        ssize_t n = 0;
        for (BPlusTree::Iterator i = tree.begin(); i.can_dereference(); i.next()) {
            RequireEnd(++n);
            ReadEntry(tree, i);
        }
    });
    TryRecord([&] {
        ssize_t n = 0;
        for (BPlusTree::Iterator i = tree.end(); i.m_leaf && i.m_offset > 0;) {
            i.prev();
            RequireEnd(++n);
            if (i.can_dereference()) ReadEntry(tree, i);
        }
    });
}

void Use(ptr<IPersistable> po, unsigned how) {
    BPlusTree* const tree =
        po->GetReflectedClass() == &GetReflectedClass<BPlusTree>() ? static_cast<BPlusTree*>(po.m_self) : nullptr;
    switch (how) {
    case 0: {
        RefsVisitor visitor;
        po->VisitPrefs(visitor);
        break;
    }
    case 1:
        if (tree) Walk(*tree);
        break;
    case 2:
        if (tree) tree->Validate();
        break;
    case 3: MeasurePersistableObjectSize(po); break;
    case 4:
        if (tree && tree->m_size < MAX_STEPS) {
            tree->Validate(); // or the copy might have no end
            const BPlusTree copy(*tree);
            FuzzRequire(copy.GetNumNodes() >= 0, "a copy has no nodes");
        }
        break;
    default: {
        StringStream os(256);
        PrintTypeSettings settings;
        settings.m_printTargets = true;
        PrintInstance(os, po, settings);
        break;
    }
    }
}

void Run(const octet_t* p, const octet_t* end) {
    FuzzSpace& space = FuzzSpace::Get();
    ResetPeakMemory();
    const ssize_t numElements = *p++ % MAX_ELEMENTS;
    for (ssize_t i = 0; i < numElements && end - p >= 3; ++i) {
        const octet_t* const record = p;
        uint16 length = 0;
        std::memcpy(&length, p + 1, sizeof length);
        std::vector<octet_t> element{record[0]}; // ids below 128 are one byte
        p += 3;
        const ssize_t n = std::min<ssize_t>(length, end - p);
        element.insert(element.end(), p, p + n);
        p += n;
        space.Lss().Put(OidAt(i), element.data(), std::ssize(element));
    }
    for (ssize_t i = 0; i < MAX_OPERATIONS && p < end; ++i) {
        const unsigned byte = *p++;
        const OID oid = OidAt(byte % MAX_ELEMENTS);
        ptr<IPersistable> po;
        if (TryRecord([&] { po = TryBindObjectGivenOid(oid); }) && po)
            TryRecord([&] { Use(po, static_cast<unsigned>(byte / MAX_ELEMENTS % 6)); });
    }
    FuzzRequire(PeakMemory() <= MEMORY_ALLOWANCE, "the memory in use is out of proportion to the elements");
    space.Begin();
}

} // namespace
} // namespace quna

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size) {
    if (size == 0) return 0;
    quna::PrepareForFuzz();
    quna::Run(data, data + size);
    return 0;
}

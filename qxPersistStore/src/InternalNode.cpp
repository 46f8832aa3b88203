#include "qxPersistStore/InternalNode.h"

#include "qxObject/Reflect.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxPersistStore/PersistentMembers.h"
#include "qxPersistStore/src/BTreeNodes.h"
#include "qxPersistStore/src/BTreeSearch.h"
#include "qxUtils/Schema.h"

#include <cstring>

namespace quna {

namespace {

constexpr int LATEST_SCHEMA = 2;

} // namespace

// ---- Copying and ending ---------------------------------------------------------------------------------------------

// References are always copied one by one: other readers may be binding them.
InternalNode::InternalNode(const InternalNode& rhs) : PersistableMixin(rhs), m_ptr(rhs.m_ptr), m_bti(rhs.m_bti) {
    if (rhs.m_numKeyEntrys == 0) {
        m_entrys = rhs.m_entrys;
        return;
    }
    const CalculatedBTreeTypeInfo& bi = rhs.GetCalculatedBTreeTypeInfo();
    m_bti = rhs.m_bti;
    InitEntrysBuffer(bi, this);
    CopyConstructArrayOfKeyAndCref(bi, GetEntry(bi, this, 0), GetEntry(bi, &rhs, 0), rhs.m_numKeyEntrys);
    m_numKeyEntrys = rhs.m_numKeyEntrys;
}

InternalNode& InternalNode::operator=(const InternalNode& rhs) {
    if (this == &rhs) return *this;
    InternalNode copy(rhs);
    DestructLiveEntries();
    m_ptr = copy.m_ptr;
    m_entrys.swap(copy.m_entrys);
    m_bti = copy.m_bti;
    m_numKeyEntrys = copy.m_numKeyEntrys;
    copy.m_numKeyEntrys = 0;
    return *this;
}

InternalNode::~InternalNode() noexcept(false) { DestructLiveEntries(); }

void InternalNode::DestructLiveEntries() {
    if (m_numKeyEntrys == 0) return;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    DestructArrayOfKeyAndCref(bi, GetEntry(bi, this, 0), m_numKeyEntrys);
    m_numKeyEntrys = 0;
}

// ---- Records --------------------------------------------------------------------------------------------------------

void InternalNode::Serialise(Archive& ar) const {
    SerialiseSchema(ar, LATEST_SCHEMA);
    SerialiseBTreeTypeInfo(ar, m_bti);
    ar << m_ptr;
    Serialise_ssize_t(ar, m_numKeyEntrys);
    if (m_numKeyEntrys == 0) return;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    SerialiseArrayOfKeyAndCref(bi, ar, GetEntry(bi, this, 0), m_numKeyEntrys);
}

InputArchive InternalNode::Deserialise(InputArchive ar) {
    int schema = 0;
    ar = DeserialiseSchema(ar, LATEST_SCHEMA, schema);
    ar = detail::ReadTypes(ar, *this, [this] { DestructLiveEntries(); });
    ar = ar >> m_ptr;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    InitEntrysBuffer(bi, this);
    ssize_t n = 0;
    ar = detail::ReadNumEntries(ar, schema, n);
    if (n > m_numKeyEntrys)
        ConstructArrayOfKeyAndCref(bi, GetEntry(bi, this, m_numKeyEntrys), n - m_numKeyEntrys);
    else
        DestructArrayOfKeyAndCref(bi, GetEntry(bi, this, n), m_numKeyEntrys - n);
    m_numKeyEntrys = n;
    return DeserialiseArrayOfKeyAndCref(bi, ar, GetEntry(bi, this, 0), n);
}

// ---- Visits ---------------------------------------------------------------------------------------------------------

void InternalNode::VisitObjects(IObjectVisitor& visitor) const {
    visitor << m_ptr;
    if (m_numKeyEntrys == 0) return;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    VisitObjectsInArrayOfKeyAndCref(bi, visitor, GetEntry(bi, this, 0), m_numKeyEntrys);
}

void InternalNode::VisitPrefs(IPrefVisitor& visitor) const {
    visitor << m_ptr;
    if (m_numKeyEntrys == 0) return;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    VisitPrefsInArrayOfKeyAndCref(bi, visitor, GetEntry(bi, this, 0), m_numKeyEntrys);
}

// ---- Search ---------------------------------------------------------------------------------------------------------

std::pair<void*, ssize_t> InternalNode::FindChildGivenKey2(const _Key* key) const {
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    const ssize_t i = FindChildIndex(bi, this, key);
    const void* const place = PlaceOfChild(bi, this, i);
    if (evictable::IsAligned(place)) return {static_cast<const cref<void>*>(place)->Get(), i};
    const prefbase copy = LoadPref(place);
    const ptr<IPersistable> child = copy.Get();
    if (child && HaveExclusiveLockedCSpace()) StorePref(const_cast<void*>(place), copy);
    return {child.m_self, i};
}

ssize_t InternalNode::FindChildIndexGivenKey(const _Key* key) const {
    return FindChildIndex(GetCalculatedBTreeTypeInfo(), this, key);
}

// ---- Entries --------------------------------------------------------------------------------------------------------

void InitEntrysBuffer(const CalculatedBTreeTypeInfo& bi, InternalNode* node) {
    detail::ResizeEntrys(node, BTREE_MAX_ENTRIES * GetKeyAndCrefSize(bi));
}

void ShiftInternalEntries(const CalculatedBTreeTypeInfo& bi, InternalNode* node, ssize_t s, ssize_t d, ssize_t count) {
    std::memmove(GetEntry(bi, node, d), GetEntry(bi, node, s), static_cast<std::size_t>(count * bi.m_keyAndCrefSize));
}

void MoveInternalEntries(const CalculatedBTreeTypeInfo& bi, const InternalNode* src, ssize_t s, InternalNode* dst,
                         ssize_t d, ssize_t count) {
    std::memcpy(GetEntry(bi, dst, d), GetEntry(bi, src, s), static_cast<std::size_t>(count * bi.m_keyAndCrefSize));
}

void DestructInternalEntry(const CalculatedBTreeTypeInfo& bi, InternalNode* node, ssize_t i) {
    DestructKeyAndCref(bi, GetEntry(bi, node, i));
}

// ---- Reflection -----------------------------------------------------------------------------------------------------

namespace {

constexpr ReflectedClass MakeInternalNodeClass() {
    ReflectedClass rc = MakeReflectedClass<InternalNode>("quna::InternalNode", 0, detail::PERSISTABLE_INTERFACES);
    rc.m_ops = MakeLifeTypeOps<InternalNode>();
    return rc;
}

constinit const ReflectedClass INTERNALNODE = MakeInternalNodeClass();

} // namespace

const ReflectedClass& _GetReflected(const InternalNode*) { return INTERNALNODE; }
const TypeOps* _GetTypeOps(const InternalNode*) { return &INTERNALNODE.m_ops; }
void _Register_InternalNode(XTarget* target) { RegisterOrThrow(INTERNALNODE, target); }

} // namespace quna

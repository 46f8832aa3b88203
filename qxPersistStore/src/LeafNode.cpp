#include "qxPersistStore/LeafNode.h"

#include "qxObject/Reflect.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxPersistStore/PersistentMembers.h"
#include "qxPersistStore/src/BTreeNodes.h"
#include "qxPersistStore/src/BTreeSearch.h"
#include "qxUtils/Schema.h"

#include <cstring>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/BPlusTree2";

constexpr int LATEST_SCHEMA = 2;

} // namespace

// ---- Copying and ending ---------------------------------------------------------------------------------------------

LeafNode::LeafNode(const LeafNode& rhs)
    : PersistableMixin(rhs), m_prev(rhs.m_prev), m_next(rhs.m_next), m_bti(rhs.m_bti) {
    if (rhs.m_numKeyEntrys == 0 || !detail::NeedsCopyByType(rhs.GetCalculatedBTreeTypeInfo())) {
        m_entrys = rhs.m_entrys;
    } else {
        const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
        InitEntrysBuffer(bi, this);
        CopyConstructArrayOfKeyAndPayload(bi, GetEntry(bi, this, 0), GetEntry(bi, &rhs, 0), rhs.m_numKeyEntrys);
    }
    m_numKeyEntrys = rhs.m_numKeyEntrys;
}

LeafNode& LeafNode::operator=(const LeafNode& rhs) {
    if (this == &rhs) return *this;
    LeafNode copy(rhs);
    DestructLiveEntries();
    m_prev = copy.m_prev;
    m_next = copy.m_next;
    m_entrys.swap(copy.m_entrys);
    m_bti = copy.m_bti;
    m_numKeyEntrys = copy.m_numKeyEntrys;
    copy.m_numKeyEntrys = 0;
    return *this;
}

LeafNode::~LeafNode() noexcept(false) { DestructLiveEntries(); }

void LeafNode::DestructLiveEntries() {
    if (m_numKeyEntrys == 0) return;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    DestructArrayOfKeyAndPayload(bi, GetEntry(bi, this, 0), m_numKeyEntrys);
    m_numKeyEntrys = 0;
}

// ---- Records --------------------------------------------------------------------------------------------------------

void LeafNode::Serialise(Archive& ar) const {
    QX_ASSERT(ar.IsStoring());
    SerialiseSchema(ar, LATEST_SCHEMA);
    SerialiseBTreeTypeInfo(ar, m_bti);
    ar << m_prev << m_next;
    Serialise_ssize_t(ar, m_numKeyEntrys);
    if (m_numKeyEntrys == 0) return;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    SerialiseArrayOfKeyAndPayload(bi, ar, GetEntry(bi, this, 0), m_numKeyEntrys);
}

InputArchive LeafNode::Deserialise(InputArchive ar) {
    int schema = 0;
    ar = DeserialiseSchema(ar, LATEST_SCHEMA, schema);
    ar = detail::ReadTypes(ar, *this, [this] { DestructLiveEntries(); });
    ar = ar >> m_prev >> m_next;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    InitEntrysBuffer(bi, this);
    ssize_t n = 0;
    ar = detail::ReadNumEntries(ar, schema, n);
    if (n > m_numKeyEntrys)
        ConstructArrayOfKeyAndPayload(bi, GetEntry(bi, this, m_numKeyEntrys), n - m_numKeyEntrys);
    else
        DestructArrayOfKeyAndPayload(bi, GetEntry(bi, this, n), m_numKeyEntrys - n);
    m_numKeyEntrys = n;
    return DeserialiseArrayOfKeyAndPayload(bi, ar, GetEntry(bi, this, 0), n);
}

// ---- Visits ---------------------------------------------------------------------------------------------------------

void LeafNode::VisitObjects(IObjectVisitor& visitor) const {
    visitor << m_prev << m_next;
    if (m_numKeyEntrys == 0) return;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    VisitObjectsInArrayOfKeyAndPayload(bi, visitor, GetEntry(bi, this, 0), m_numKeyEntrys);
}

void LeafNode::VisitPrefs(IPrefVisitor& visitor) const {
    if (m_numKeyEntrys == 0) return;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    VisitPrefsInArrayOfKeyAndPayload(bi, visitor, GetEntry(bi, this, 0), m_numKeyEntrys);
}

// ---- Search ---------------------------------------------------------------------------------------------------------

ssize_t LeafNode::SearchLeaf(const _Key* key) const {
    return quna::SearchLeaf(GetCalculatedBTreeTypeInfo(), this, key);
}
ssize_t LeafNode::lower_bound(const _Key* key) const {
    return LowerBoundInLeaf(GetCalculatedBTreeTypeInfo(), this, key);
}
ssize_t LeafNode::upper_bound(const _Key* key) const {
    return UpperBoundInLeaf(GetCalculatedBTreeTypeInfo(), this, key);
}

// ---- Entries --------------------------------------------------------------------------------------------------------

void InitEntrysBuffer(const CalculatedBTreeTypeInfo& bi, LeafNode* node) {
    detail::ResizeEntrys(node, BTREE_MAX_ENTRIES * GetKeyAndPayloadSize(bi));
}

void ShiftLeafEntries(const CalculatedBTreeTypeInfo& bi, LeafNode* node, ssize_t s, ssize_t d, ssize_t count) {
    std::memmove(GetEntry(bi, node, d), GetEntry(bi, node, s),
                 static_cast<std::size_t>(count * bi.m_keyAndPayloadSize));
}

void MoveLeafEntries(const CalculatedBTreeTypeInfo& bi, const LeafNode* src, ssize_t s, LeafNode* dst, ssize_t d,
                     ssize_t count) {
    std::memcpy(GetEntry(bi, dst, d), GetEntry(bi, src, s), static_cast<std::size_t>(count * bi.m_keyAndPayloadSize));
}

void DestructLeafEntry(const CalculatedBTreeTypeInfo& bi, LeafNode* node, ssize_t i) {
    DestructKeyAndPayload(bi, GetEntry(bi, node, i));
}

// ---- Reflection -----------------------------------------------------------------------------------------------------

namespace {

constexpr ReflectedClass MakeLeafNodeClass() {
    ReflectedClass rc = MakeReflectedClass<LeafNode>("quna::LeafNode", 0, detail::PERSISTABLE_INTERFACES);
    rc.m_ops = MakeLifeTypeOps<LeafNode>();
    return rc;
}

constinit const ReflectedClass LEAFNODE = MakeLeafNodeClass();

} // namespace

const ReflectedClass& _GetReflected(const LeafNode*) { return LEAFNODE; }
const TypeOps* _GetTypeOps(const LeafNode*) { return &LEAFNODE.m_ops; }
void _Register_LeafNode(XTarget* target) { RegisterOrThrow(LEAFNODE, target); }

} // namespace quna

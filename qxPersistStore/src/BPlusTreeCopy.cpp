// Whole trees: clearing, comparing, copying, assigning, swapping.
//
// A persistent tree can't adopt the nodes of a transient one, nor give its own away. So the header fields are exchanged
// where both trees are of one kind, and entries are copied where they are not; nodes that a persistent tree gives up go to
// the deletion queue, which walks them through VisitPrefs.
#include "qxPersistStore/BPlusTree2.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/src/BTreeSearch.h"
#include "qxPersistStore/src/FixedOrHeapAllocatedBuffer.h"

#include <utility>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/BPlusTree2";

} // namespace

// ---- Clearing -------------------------------------------------------------------------------------------------------

void BPlusTree::DeleteNodes() {
    if (m_height == 0) AsyncPermanentlyDeleteSubTree(cast_ptr<LeafNode>(GetRoot()));
    if (m_height > 0) AsyncPermanentlyDeleteSubTree(cast_ptr<InternalNode>(GetRoot()));
}

void BPlusTree::clear() {
    EnsureChain();
    DeleteNodes();
    m_root.Clear();
    m_firstLeaf.Clear();
    m_lastLeaf.Clear();
    MarkDirty(this);
    m_size = 0;
    m_height = -1;
    m_rootOfChain = nullptr;
}

// ---- Comparing ------------------------------------------------------------------------------------------------------

bool BPlusTree::operator==(const BPlusTree& rhs) const {
    if (m_size != rhs.m_size) return false;
    Iterator i = const_cast<BPlusTree&>(*this).begin();
    Iterator j = const_cast<BPlusTree&>(rhs).begin();
    const Iterator end = const_cast<BPlusTree&>(*this).end();
    for (; i != end; i.next(), j.next()) {
        QX_ASSERT(j != const_cast<BPlusTree&>(rhs).end());
        if (!Equal(GetCalculatedBTreeTypeInfo(), i.const_deref(), j.const_deref())) return false;
    }
    QX_ASSERT(j == const_cast<BPlusTree&>(rhs).end());
    return true;
}

bool BPlusTree::operator<(const BPlusTree& rhs) const {
    Iterator i = const_cast<BPlusTree&>(*this).begin();
    Iterator j = const_cast<BPlusTree&>(rhs).begin();
    const Iterator iEnd = const_cast<BPlusTree&>(*this).end();
    const Iterator jEnd = const_cast<BPlusTree&>(rhs).end();
    for (;; i.next(), j.next()) {
        if (i == iEnd) return j != jEnd;
        if (j == jEnd) return false;
        const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
        if (Less(bi, i.const_deref(), j.const_deref())) return true;
        if (!Equal(GetCalculatedBTreeTypeInfo(), i.const_deref(), j.const_deref())) return false;
    }
}

// ---- Copying --------------------------------------------------------------------------------------------------------

BPlusTree::BPlusTree(const BPlusTree& rhs) : PersistableMixin(rhs), m_bti(rhs.m_bti) {
    auto& source = const_cast<BPlusTree&>(rhs);
    const Iterator end = source.end();
    for (Iterator i = source.begin(); i != end; i.next()) insert(i.const_deref());
    QX_ASSERT(m_size == rhs.m_size);
    m_rootOfChain = m_root.GetBoundPtr();
}

void BPlusTree::SwapMembers(BPlusTree& rhs) {
    std::swap(m_size, rhs.m_size);
    std::swap(m_height, rhs.m_height);
    std::swap(m_root, rhs.m_root);
    std::swap(m_firstLeaf, rhs.m_firstLeaf);
    std::swap(m_lastLeaf, rhs.m_lastLeaf);
    std::swap(m_rootOfChain, rhs.m_rootOfChain);
}

void BPlusTree::DeclareRootReachable() {
    if (m_height == 0) DeclareReachable(this, cast_ptr<LeafNode>(GetRoot()), true);
    if (m_height > 0) DeclareReachable(this, cast_ptr<InternalNode>(GetRoot()), true);
}

void BPlusTree::ReplaceNodes(LeafNode* firstLeaf, LeafNode* lastLeaf, const cref<void>& root, ssize_t height,
                             ssize_t size) {
    if (m_height >= 0) {
        EnsureChain();
        ReleaseReferencesOfNodes();
        clear();
    }
    if (height < 0) return;
    m_firstLeaf = firstLeaf;
    m_lastLeaf = lastLeaf;
    SetRoot(root, height);
    m_size = size;
    MarkDirty(this);
    DeclareRootReachable();
}

BPlusTree& BPlusTree::operator=(const BPlusTree& rhs) {
    BPlusTree temp(rhs);
    if (!m_persistObjState.m_oid) {
        SwapMembers(temp);
        return *this;
    }
    EnsureChain();
    if (this == &rhs) ReleaseReferencesOfNodes();
    DeleteNodes();
    SwapMembers(temp);
    MarkDirty(this);
    DeclareRootReachable();
    return *this;
}

// ---- Swapping -------------------------------------------------------------------------------------------------------

void BPlusTree::swap(BPlusTree& rhs) {
    QX_ASSERT(!ObjectsBelongToDifferentPersistStores(this, &rhs));
    QX_ASSERT(!ObjectsBelongToDifferentPSpaces(this, &rhs));
    QX_ASSERT(!ObjectsBelongToDifferentCSpaces(this, &rhs));
    EnsureChain();
    rhs.EnsureChain();
    const bool isPersistent = static_cast<bool>(GetOid(this));
    const bool rhsIsPersistent = static_cast<bool>(GetOid(&rhs));
    if (isPersistent && !rhsIsPersistent) {
        SwapPersistentWithTransient(rhs);
    } else if (!isPersistent && rhsIsPersistent) {
        rhs.SwapPersistentWithTransient(*this);
    } else {
        SwapMembers(rhs);
        MarkDirty(this);
        MarkDirty(&rhs);
    }
}

// Afterwards this tree holds what rhs held, made persistent, and rhs a transient copy of what this tree held.
void BPlusTree::SwapPersistentWithTransient(BPlusTree& rhs) {
    QX_ASSERT(GetOid(this));
    QX_ASSERT(!GetOid(&rhs));
    QX_ASSERT(!ObjectsBelongToDifferentCSpaces(this, &rhs));
    BPlusTree temp(*this);
    temp.SwapMembers(rhs);
    ReleaseReferencesOfNodes();
    DeleteNodes();
    SwapMembers(temp);
    MarkDirty(this);
    DeclareRootReachable();
}

// ---- Letting go of what entries name --------------------------------------------------------------------------------

namespace {

// Takes the references out of the entries of a subtree, which itself stays. The depth is the height of the tree.
class ReferenceReleaser {
public:
    explicit ReferenceReleaser(const CalculatedBTreeTypeInfo& bi)
        : m_bi(bi), m_keysHoldReferences(Key(bi).HasVisitPrefs()), m_blank(GetKeySize(bi)) {
        Key(bi).ConstructVariable(m_blank.m_buffer);
    }
    ~ReferenceReleaser() {
        if (Key(m_bi).HasDestruct()) Key(m_bi).DestructVariable(m_blank.m_buffer);
    }
    ReferenceReleaser(const ReferenceReleaser&) = delete;
    ReferenceReleaser& operator=(const ReferenceReleaser&) = delete;

    void Visit(ssize_t height, void* node) {
        if (height == 0) {
            EmptyLeaf(cast_ptr<LeafNode>(node));
            return;
        }
        auto* const inner = cast_ptr<InternalNode>(node);
        for (ssize_t i = -1; i < inner->m_numKeyEntrys; ++i)
            Visit(height - 1, FollowChildAt(m_bi, inner, i, height - 1));
        if (m_keysHoldReferences) BlankKeys(inner);
    }

private:
    void EmptyLeaf(LeafNode* leaf) {
        DestructArrayOfKeyAndPayload(m_bi, GetEntry(m_bi, leaf, 0), leaf->m_numKeyEntrys);
        leaf->m_numKeyEntrys = 0;
        MarkDirty(leaf);
    }
    // An inner node keeps its entries, through which its children are deleted.
    void BlankKeys(InternalNode* node) {
        for (ssize_t i = 0; i < node->m_numKeyEntrys; ++i)
            AssignKey(m_bi, member_key(GetEntry(m_bi, node, i)), reinterpret_cast<const _Key*>(m_blank.m_buffer));
        MarkDirty(node);
    }

    const CalculatedBTreeTypeInfo& m_bi;
    const bool m_keysHoldReferences;
    FixedOrHeapAllocatedBuffer<256> m_blank; // a default key
};

} // namespace

// Before old nodes are deleted whose content lives on in a copy: the deletion of a subtree would follow the references in
// them and take what the copy names.
void BPlusTree::ReleaseReferencesOfNodes() {
    if (m_height < 0) return;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    if (!Key(bi).HasVisitPrefs() && !(bi.m_payloadType && bi.m_payloadType->HasVisitPrefs())) return;
    ReferenceReleaser(bi).Visit(m_height, GetRoot());
}

} // namespace quna

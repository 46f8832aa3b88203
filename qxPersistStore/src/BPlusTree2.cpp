// The header object: its record, its visits, its root.
#include "qxPersistStore/BPlusTree2.h"

#include "qxObject/DollarNew.h"
#include "qxObject/Reflect.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxPersistStore/PersistentMembers.h"
#include "qxPersistStore/src/BTreeSearch.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Schema.h"

#include <string>
#include <utility>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/BPlusTree2";

// One level more would need 2 * 51^12 leaves or more, and there are 2^64 identifiers.
constexpr ssize_t MAX_STORED_HEIGHT = 12;

constexpr int LATEST_SCHEMA = 2;

} // namespace

// ---- Records --------------------------------------------------------------------------------------------------------

void BPlusTree::Serialise(Archive& ar) const {
    QX_ASSERT(ar.IsStoring());
    EnsureChain();
    SerialiseSchema(ar, LATEST_SCHEMA);
    SerialiseBTreeTypeInfo(ar, m_bti);
    Serialise_ssize_t(ar, m_size);
    ar << m_firstLeaf << m_lastLeaf << m_root;
    Serialise_ssize_t(ar, m_height + 1);
}

InputArchive BPlusTree::Deserialise(InputArchive ar) {
    int schema = 0;
    ar = DeserialiseSchema(ar, LATEST_SCHEMA, schema);
    ar = DeserialiseBTreeTypeInfo(ar, m_bti);
    if (schema == 1) {
        int64 size = 0;
        ar = ar >> size;
        m_size = size;
    } else {
        uint64 size = 0;
        ar = DeserialiseVariableLengthUint(ar, size);
        m_size = static_cast<ssize_t>(size);
    }
    QX_ASSERT(m_size >= 0);
    ar = ar >> m_firstLeaf >> m_lastLeaf >> m_root;
    if (schema == 1) {
        int64 height = 0;
        ar = ar >> height;
        m_height = height;
        QX_ASSERT(m_height >= -1);
    } else {
        uint64 heightPlusOne = 0;
        ar = DeserialiseVariableLengthUint(ar, heightPlusOne);
        m_height = static_cast<ssize_t>(heightPlusOne) - 1;
    }
    // The nodes of a damaged tree may lead round in a circle: then only the height ends a walk.
    if (m_height > MAX_STORED_HEIGHT) {
        const ssize_t found = std::exchange(m_height, -1);
        throw RecordException(("the record of a tree has an impossible height: found " + std::to_string(found) +
                               ", expected " + std::to_string(MAX_STORED_HEIGHT) + " at most")
                                  .c_str());
    }
    m_rootOfChain = nullptr;
    return ar;
}

// ---- Visits ---------------------------------------------------------------------------------------------------------

void BPlusTree::VisitObjects(IObjectVisitor& visitor) const { visitor << m_firstLeaf << m_lastLeaf << m_root; }

void BPlusTree::VisitPrefs(IPrefVisitor& visitor) const {
    EnsureChain();
    visitor << m_root;
}

// ---- The root and new nodes -----------------------------------------------------------------------------------------

void* BPlusTree::GetRoot() const {
    if (!m_root) return nullptr;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    return m_height > 0 ? static_cast<void*>(FollowChild<InternalNode>(bi, &m_root))
                        : static_cast<void*>(FollowChild<LeafNode>(bi, &m_root));
}

void BPlusTree::SetRoot(cref<void> root, ssize_t height) {
    m_root = root;
    m_height = height;
    if (m_rootOfChain) m_rootOfChain = m_root.GetBoundPtr();
}

LeafNode* BPlusTree::NewLeaf() {
    LeafNode* const leaf = DollarNew<LeafNode>(m_bti);
    InitEntrysBuffer(GetCalculatedBTreeTypeInfo(), leaf);
    return leaf;
}

InternalNode* BPlusTree::NewInternalNode() {
    InternalNode* const node = DollarNew<InternalNode>(m_bti);
    InitEntrysBuffer(GetCalculatedBTreeTypeInfo(), node);
    return node;
}

// ---- Chain of a deep copy -------------------------------------------------------------------------------------------

namespace {

// Links the leaves below a node in order. The depth is the height of the tree.
class LeafLinker {
public:
    explicit LeafLinker(const CalculatedBTreeTypeInfo& bi) : m_bi(bi) {}

    void Visit(ssize_t height, void* node) {
        if (height == 0) {
            Link(cast_ptr<LeafNode>(node));
            return;
        }
        const auto* const inner = cast_ptr<InternalNode>(node);
        for (ssize_t i = -1; i < inner->m_numKeyEntrys; ++i)
            Visit(height - 1, FollowChildAt(m_bi, inner, i, height - 1));
    }
    void Finish() {
        if (!m_last) return;
        m_last->m_next.Clear();
        MarkDirty(m_last);
    }

    LeafNode* m_first = nullptr;
    LeafNode* m_last = nullptr;

private:
    void Link(LeafNode* leaf) {
        leaf->m_prev = m_last;
        MarkDirty(leaf);
        if (m_last)
            m_last->m_next = leaf;
        else
            m_first = leaf;
        m_last = leaf;
    }

    const CalculatedBTreeTypeInfo& m_bi;
};

LeafNode* LeftmostLeaf(const CalculatedBTreeTypeInfo& bi, ssize_t height, void* node) {
    for (; height > 0; --height) node = FollowChildAt(bi, cast_ptr<InternalNode>(node), -1, height - 1);
    return cast_ptr<LeafNode>(node);
}

} // namespace

// The deep copy ends before anybody can change, store or make persistent what it has made, so it is enough to look then.
// A root that was loaded anew looks like another one too: only the leaves tell. Once the tree is persistent its deep copy
// is over, and nobody looks again.
void BPlusTree::RepairChainAfterDeepCopy() const {
    auto& self = const_cast<BPlusTree&>(*this);
    void* const root = GetRoot();
    QX_ASSERT_TEXT(root, "m_root");
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    if (LeftmostLeaf(bi, m_height, root) != FollowLink(bi, m_firstLeaf)) {
        LeafLinker linker(bi);
        linker.Visit(m_height, root);
        linker.Finish();
        self.m_firstLeaf = linker.m_first;
        self.m_lastLeaf = linker.m_last;
        MarkDirty(this);
    }
    m_rootOfChain = m_persistObjState.m_oid ? nullptr : root;
}

// ---- Reflection -----------------------------------------------------------------------------------------------------

namespace {

constexpr ReflectedClass MakeBPlusTreeClass() {
    ReflectedClass rc = MakeReflectedClass<BPlusTree>("quna::BPlusTree", REFLECTED_CLASS_FOR_APPLICATIONS,
                                                      detail::PERSISTABLE_INTERFACES);
    rc.m_ops = MakeLifeTypeOps<BPlusTree>();
    return rc;
}

constinit const ReflectedClass BPLUSTREE = MakeBPlusTreeClass();

} // namespace

const ReflectedClass& _GetReflected(const BPlusTree*) { return BPLUSTREE; }
const TypeOps* _GetTypeOps(const BPlusTree*) { return &BPLUSTREE.m_ops; }
void _Register_BPlusTree(XTarget* target) { RegisterOrThrow(BPLUSTREE, target); }

} // namespace quna

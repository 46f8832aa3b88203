// Looking at a whole tree: checking, counting, printing. The depth of each walk is the height of the tree.
#include "qxPersistStore/BPlusTree2.h"
#include "qxPersistStore/src/BTreeSearch.h"
#include "qxUtils/xostream.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/BPlusTree2";

constexpr ssize_t INDENT = 4; // columns

} // namespace

// ---- Checking -------------------------------------------------------------------------------------------------------

void BPlusTree::Validate() const {
    if (m_height >= 0) ValidateNode(m_height, GetRoot(), true, nullptr, nullptr);
}

// k1 and k2 are the separators beside the node, null at either end of its parent: a node is checked against its immediate
// separators only.
void BPlusTree::ValidateNode(ssize_t height, void* node, bool isRoot, const _Key* k1, const _Key* k2) const {
    QX_ASSERT(node);
    QX_ASSERT(height >= 0);
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    if (height == 0) {
        const auto* const leaf = cast_ptr<LeafNode>(node);
        const ssize_t nk = leaf->m_numKeyEntrys;
        QX_ASSERT(0 <= nk && nk <= 100);
        if (!isRoot) QX_ASSERT(50 <= nk);
        for (ssize_t i = 1; i < nk; ++i)
            QX_ASSERT(Key(bi).Less( member_key(GetEntry(bi,leaf,i-1)), member_key(GetEntry(bi,leaf,i))));
        if (nk == 0) return;
        if (k1) QX_ASSERT(Key(bi).LessOrEqual(k1, member_key(GetEntry(bi,leaf,0))));
        if (k2) QX_ASSERT(Key(bi).Less(member_key(GetEntry(bi,leaf,nk-1)), k2));
        return;
    }
    const auto* const inode = cast_ptr<InternalNode>(node);
    const ssize_t nk = inode->m_numKeyEntrys;
    QX_ASSERT(1 <= nk && nk <= 100);
    if (!isRoot) QX_ASSERT(50 <= nk);
    for (ssize_t i = 1; i < nk; ++i)
        QX_ASSERT(Key(bi).Less( member_key(GetEntry(bi,inode,i-1)), member_key(GetEntry(bi,inode,i))));
    if (k1) QX_ASSERT(Key(bi).LessOrEqual(k1,member_key(GetEntry(bi,inode,0))));
    if (k2) QX_ASSERT(Key(bi).Less(member_key(GetEntry(bi,inode, nk-1)), k2));
    for (ssize_t i = -1; i < nk; ++i)
        ValidateNode(height - 1, FollowChildAt(bi, inode, i, height - 1), false,
                     i < 0 ? nullptr : member_key(GetEntry(bi, inode, i)),
                     i + 1 < nk ? member_key(GetEntry(bi, inode, i + 1)) : nullptr);
}

// ---- Counting -------------------------------------------------------------------------------------------------------

ssize_t BPlusTree::GetNumNodes() const { return m_height < 0 ? 0 : GetNumNodes(m_height, GetRoot()); }

ssize_t BPlusTree::GetNumNodes(ssize_t height, void* node) const {
    QX_ASSERT(node);
    if (height == 0) return 1;
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    const auto* const inode = cast_ptr<InternalNode>(node);
    const ssize_t nk = inode->m_numKeyEntrys;
    QX_ASSERT(1 <= nk && nk <= 100);
    ssize_t numNodes = 1;
    for (ssize_t i = -1; i < nk; ++i) numNodes += GetNumNodes(height - 1, FollowChildAt(bi, inode, i, height - 1));
    return numNodes;
}

// ---- Printing -------------------------------------------------------------------------------------------------------

namespace {

void WriteEntry(xostream& os, const CalculatedBTreeTypeInfo& bi, const _KeyAndPayload* entry, ConstStringZ between) {
    Key(bi).PrintVariable(os, member_key(entry));
    if (bi.m_payloadType) {
        os << between;
        bi.m_payloadType->PrintVariable(os, member_payload(bi, entry));
    }
    os << '\n';
}

} // namespace

void BPlusTree::Write(xostream& os) const {
    if (m_size == 0) {
        os << "{}";
        return;
    }
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    os << "\n{\n";
    {
        const Indenter indenter(os, INDENT);
        for (Iterator i = const_cast<BPlusTree&>(*this).begin(); i.can_dereference(); i.next())
            WriteEntry(os, bi, i.deref(), " : ");
    }
    os << "}";
}

void BPlusTree::WriteNode(xostream& os, ssize_t height, void* node) const {
    QX_ASSERT(node);
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    os << "{\n";
    {
        const Indenter indenter(os, INDENT);
        if (height == 0) {
            const auto* const leaf = cast_ptr<LeafNode>(node);
            const ssize_t nk = leaf->m_numKeyEntrys;
            QX_ASSERT(0 <= nk && nk <= 100);
            for (ssize_t i = 0; i < nk; ++i) WriteEntry(os, bi, GetEntry(bi, leaf, i), " --> ");
        } else {
            const auto* const inode = cast_ptr<InternalNode>(node);
            const ssize_t nk = inode->m_numKeyEntrys;
            WriteNode(os, height - 1, FollowChildAt(bi, inode, -1, height - 1));
            QX_ASSERT(1 <= nk && nk <= 100);
            for (ssize_t i = 0; i < nk; ++i) {
                Key(bi).PrintVariable(os, member_key(GetEntry(bi, inode, i)));
                os << '\n';
                WriteNode(os, height - 1, FollowChildAt(bi, inode, i, height - 1));
            }
        }
    }
    os << "}\n";
}

} // namespace quna

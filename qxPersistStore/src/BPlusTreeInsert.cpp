// The write path: finding or making an entry, with splits on the way back up.
//
// Insertion never redistributes: a full node splits at once, its siblings are not looked at. (Knuth, The Art of Computer
// Programming vol. 3, 6.2.4, describes both ways; balancing belongs to deletion here.) A leaf splits into 50 and 51
// entries, the larger half on the right; the separator is a copy of the right half's first key. An internal node splits
// into 50 and 50, and entry 50 rises: its key moves, it is not copied. The boundary differs by one between the two.
//
// A new entry is made in scratch memory before anything changes, with a copy of the caller's payload and, when the leaf
// is full, of the separator: the caller's key and payload may lie in the very leaf that is about to shift, and a
// constructor that throws leaves the tree as it was.
#include "qxPersistStore/BPlusTree2.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/src/BTreeSearch.h"
#include "qxPersistStore/src/FixedOrHeapAllocatedBuffer.h"
#include "qxPersistStore/src/KeyAndCrefSlot.h"

#include <cstring>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/BPlusTree2";

constexpr ssize_t HALF = BTREE_MAX_ENTRIES / 2;

cref<void> ReferenceTo(auto* node) {
    cref<void> reference;
    reference.Set(node);
    return reference;
}

} // namespace

// An entry on its way into a leaf.
//
// Ownership: of key and payload until MoveTo.
class BPlusTree::NewLeafEntry {
public:
    // With a copy of `payload`, or a default one if that is null.
    NewLeafEntry(const CalculatedBTreeTypeInfo& bi, const _Key* key, const _Payload* payload)
        : m_bi(bi), m_entry(GetKeyAndPayloadSize(bi)),
          m_copy(payload && MayHoldReferences(bi) ? GetPayloadSize(bi) : 0) {
        CopyConstructKey(bi, member_key(Entry()), key);
        if (!bi.m_payloadType) return;
        try {
            MakePayload(payload);
        } catch (...) {
            if (Key(bi).HasDestruct()) Key(bi).DestructVariable(Entry());
            throw;
        }
    }
    ~NewLeafEntry() {
        if (m_hasCopy) EndPayload(Copy());
        if (m_live) DestructKeyAndPayload(m_bi, Entry());
    }
    NewLeafEntry(const NewLeafEntry&) = delete;
    NewLeafEntry& operator=(const NewLeafEntry&) = delete;

    // What key and payload name becomes persistent near the leaf. The caller's payload takes its place only then: what it
    // names is declared by the caller, after the leaf.
    void DeclareReachable(LeafNode* leaf) {
        DeclareKeyAndPayloadReachable(m_bi, ptr<IPersistable const>(leaf), Entry());
        if (!m_hasCopy) return;
        _Payload* const payload = member_payload(m_bi, Entry());
        EndPayload(payload);
        std::memcpy(payload, Copy(), static_cast<std::size_t>(GetPayloadSize(m_bi)));
        m_hasCopy = false;
    }

    void MoveTo(_KeyAndPayload* place) {
        std::memcpy(place, Entry(), static_cast<std::size_t>(GetKeyAndPayloadSize(m_bi)));
        m_live = false;
    }

private:
    static bool MayHoldReferences(const CalculatedBTreeTypeInfo& bi) {
        return bi.m_payloadType && bi.m_payloadType->HasVisitPrefs();
    }
    _KeyAndPayload* Entry() { return reinterpret_cast<_KeyAndPayload*>(m_entry.m_buffer); }
    _Payload* Copy() { return reinterpret_cast<_Payload*>(m_copy.m_buffer); }

    void MakePayload(const _Payload* payload) {
        _Payload* const own = member_payload(m_bi, Entry());
        ConstructPayload(m_bi, own);
        if (!payload) return;
        try {
            if (!MayHoldReferences(m_bi)) {
                AssignPayload(m_bi, own, payload);
            } else {
                ConstructPayload(m_bi, Copy());
                m_hasCopy = true;
                AssignPayload(m_bi, Copy(), payload);
            }
        } catch (...) {
            if (m_hasCopy) EndPayload(Copy());
            EndPayload(own);
            throw;
        }
    }
    void EndPayload(_Payload* payload) {
        if (m_bi.m_payloadType->HasDestruct()) m_bi.m_payloadType->DestructVariable(payload);
    }

    const CalculatedBTreeTypeInfo& m_bi;
    FixedOrHeapAllocatedBuffer<256> m_entry;
    FixedOrHeapAllocatedBuffer<256> m_copy; // of a payload with references, until these may be declared
    bool m_live = true;
    bool m_hasCopy = false;
};

// ---- From the root --------------------------------------------------------------------------------------------------

void BPlusTree::MakeFirstLeaf() {
    QX_ASSERT(!m_root);
    LeafNode* const n = NewLeaf();
    QX_ASSERT(n->m_numKeyEntrys == 0);
    m_lastLeaf = n;
    m_firstLeaf = n;
    SetRoot(ReferenceTo(n), 0);
    MarkDirty(this);
    DeclareReachable(this, n, true);
}

void BPlusTree::GrowRoot(KeyAndCrefSlot& rightEntry) {
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    InternalNode* const root = NewInternalNode();
    root->m_ptr = m_root;
    MoveKeyAndCref(bi, GetEntry(bi, root, 0), rightEntry.release());
    root->m_numKeyEntrys = 1;
    SetRoot(ReferenceTo(root), m_height + 1);
    MarkDirty(this);
    DeclareReachable(this, root, true);
}

void BPlusTree::wFind(wFindRet& ret, const _Key* key, bool allowCreate, const _Payload* payload) {
    EnsureChain();
    if (m_height == -1) MakeFirstLeaf();
    QX_ASSERT(m_height >= 0);
    QX_ASSERT(m_root);
    KeyAndCrefSlot rightEntry(GetCalculatedBTreeTypeInfo());
    wFindInNode(ret, GetRoot(), m_height, key, rightEntry, allowCreate, payload);
    if (!rightEntry.empty()) GrowRoot(rightEntry);
}

void BPlusTree::wFindInNode(wFindRet& ret, void* left, ssize_t height, const _Key* key, KeyAndCrefSlot& rightEntry,
                            bool allowCreate, const _Payload* payload) {
    QX_ASSERT(rightEntry.empty());
    if (height > 0) {
        wRecursiveFind(ret, cast_ptr<InternalNode>(left), height, key, rightEntry, allowCreate, payload);
        return;
    }
    LeafNode* const right = wFindInLeaf(ret, cast_ptr<LeafNode>(left), key, allowCreate, payload, &rightEntry);
    if (right) StorePref(member_cref(rightEntry.m_bi, rightEntry.contents()), ReferenceTo(right));
}

void BPlusTree::wRecursiveFind(wFindRet& ret, InternalNode* left, ssize_t height, const _Key* key,
                               KeyAndCrefSlot& rightEntry, bool allowCreate, const _Payload* payload) {
    QX_ASSERT(height >= 0);
    QX_ASSERT(left);
    QX_ASSERT(rightEntry.empty());
    const CalculatedBTreeTypeInfo& bi = rightEntry.m_bi;
    void* const childLeft = FollowChildAt(bi, left, FindChildIndex(bi, left, key), height - 1);
    QX_ASSERT(childLeft);
    KeyAndCrefSlot childRightEntry(bi);
    wFindInNode(ret, childLeft, height - 1, key, childRightEntry, allowCreate, payload);
    if (!childRightEntry.empty()) InsertIntoInternalNode(left, childRightEntry, rightEntry);
}

// ---- In a leaf ------------------------------------------------------------------------------------------------------

namespace {

void Report(wFindRet& ret, const CalculatedBTreeTypeInfo& bi, LeafNode* leaf, ssize_t i) {
    ret.m_containingNode = ptr<IPersistable>(leaf);
    ret.m_payload = member_payload(bi, GetEntry(bi, leaf, i));
    ret.m_leaf = leaf;
    ret.m_index = i;
}

// The first key of the right leaf that a split at insertPos makes.
const _Key* SeparatorOfSplit(const CalculatedBTreeTypeInfo& bi, const LeafNode* left, ssize_t insertPos,
                             const _Key* key) {
    if (insertPos == HALF) return key;
    return member_key(GetEntry(bi, left, insertPos < HALF ? HALF - 1 : HALF));
}

} // namespace

LeafNode* BPlusTree::wFindInLeaf(wFindRet& ret, LeafNode* left, const _Key* key, bool allowCreate,
                                 const _Payload* payload, KeyAndCrefSlot* separator) {
    QX_ASSERT(left);
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    const ssize_t nk = left->m_numKeyEntrys;
    QX_ASSERT(0 <= nk && nk <= 100);
    const ssize_t insertPos = LowerBoundInLeaf(bi, left, key);
    if (insertPos != nk) {
        QX_ASSERT(0 <= insertPos && insertPos < nk);
        if (Key(bi).Equal(member_key(GetEntry(bi, left, insertPos)), key)) {
            Report(ret, bi, left, insertPos);
            ret.m_created = false;
            return nullptr;
        }
    }
    if (!allowCreate) {
        ret = wFindRet();
        return nullptr;
    }
    NewLeafEntry entry(bi, key, payload);
    if (nk == BTREE_MAX_ENTRIES && separator) separator->FillWithCopyOf(SeparatorOfSplit(bi, left, insertPos, key));
    ret.m_created = true;
    MarkDirty(this);
    ++m_size;
    QX_ASSERT(0 <= insertPos && insertPos <= nk);
    if (nk == BTREE_MAX_ENTRIES) return SplitLeaf(ret, left, insertPos, entry);
    InsertIntoRoomyLeaf(ret, left, insertPos, entry);
    return nullptr;
}

void BPlusTree::InsertIntoRoomyLeaf(wFindRet& ret, LeafNode* leaf, ssize_t insertPos, NewLeafEntry& entry) {
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    try {
        entry.DeclareReachable(leaf);
    } catch (...) {
        --m_size;
        throw;
    }
    ShiftLeafEntries(bi, leaf, insertPos, insertPos + 1, leaf->m_numKeyEntrys - insertPos);
    entry.MoveTo(GetEntry(bi, leaf, insertPos));
    Report(ret, bi, leaf, insertPos);
    ++leaf->m_numKeyEntrys;
    MarkDirty(leaf);
}

LeafNode* BPlusTree::SplitLeaf(wFindRet& ret, LeafNode* left, ssize_t insertPos, NewLeafEntry& entry) {
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    LeafNode* const next = left->m_next.Get();
    LeafNode* const right = NewLeaf();
    right->m_prev = left;
    right->m_next = next;
    if (next) {
        QX_ASSERT(next->m_prev == left);
        next->m_prev = right;
        MarkDirty(next);
    } else {
        QX_ASSERT(m_lastLeaf == left);
        m_lastLeaf = right;
    }
    left->m_next = right;
    MarkDirty(left);
    DeclareReachable(left, right, true);
    try {
        entry.DeclareReachable(insertPos < HALF ? left : right);
    } catch (...) {
        UndoSplit(left, right, next);
        throw;
    }
    if (insertPos < HALF) {
        MoveLeafEntries(bi, left, HALF - 1, right, 0, HALF + 1);
        ShiftLeafEntries(bi, left, insertPos, insertPos + 1, HALF - 1 - insertPos);
        entry.MoveTo(GetEntry(bi, left, insertPos));
        Report(ret, bi, left, insertPos);
    } else {
        const ssize_t rightInsertPos = insertPos - HALF;
        MoveLeafEntries(bi, left, HALF, right, 0, rightInsertPos);
        entry.MoveTo(GetEntry(bi, right, rightInsertPos));
        Report(ret, bi, right, rightInsertPos);
        MoveLeafEntries(bi, left, insertPos, right, rightInsertPos + 1, BTREE_MAX_ENTRIES - insertPos);
    }
    left->m_numKeyEntrys = HALF;
    right->m_numKeyEntrys = HALF + 1;
    return right;
}

// Takes the new leaf, still empty, out of the chain: no entry has moved yet.
void BPlusTree::UndoSplit(LeafNode* left, LeafNode* right, LeafNode* next) {
    left->m_next = next;
    if (next)
        next->m_prev = left;
    else
        m_lastLeaf = left;
    right->m_prev.Clear();
    right->m_next.Clear();
    --m_size;
    AsyncPermanentlyDeleteSubTree(right);
}

// ---- In an internal node --------------------------------------------------------------------------------------------

void BPlusTree::InsertIntoInternalNode(InternalNode* left, KeyAndCrefSlot& e, KeyAndCrefSlot& overflow) {
    QX_ASSERT(left);
    QX_ASSERT(!e.empty());
    QX_ASSERT(overflow.empty());
    const CalculatedBTreeTypeInfo& bi = e.m_bi;
    const ssize_t nk = left->m_numKeyEntrys;
    QX_ASSERT(1 <= nk && nk <= 100);
    const ssize_t insertPos =
        Key(bi).LowerBound(GetEntry(bi, left, 0), GetKeyAndCrefSize(bi), nk, member_key(e.contents()));
    QX_ASSERT(0 <= insertPos && insertPos <= nk);
    const auto place = [&](InternalNode* node, ssize_t i) { MoveKeyAndCref(bi, GetEntry(bi, node, i), e.release()); };
    // What can throw comes before any entry moves, so that each key has one owner whatever happens.
    const auto declareKey = [&](const InternalNode* node) {
        DeclareKeyReachable(bi, ptr<IPersistable const>(node), member_key(e.contents()));
    };
    if (nk != BTREE_MAX_ENTRIES) {
        declareKey(left);
        ShiftInternalEntries(bi, left, insertPos, insertPos + 1, nk - insertPos);
        place(left, insertPos);
        ++left->m_numKeyEntrys;
        MarkDirty(left);
        return;
    }
    InternalNode* const right = NewInternalNode();
    MarkDirty(left);
    DeclareReachable(left, right, true);
    if (insertPos <= HALF) {
        declareKey(left);
        MoveInternalEntries(bi, left, HALF, right, 0, HALF);
        ShiftInternalEntries(bi, left, insertPos, insertPos + 1, HALF - insertPos);
        place(left, insertPos);
    } else {
        declareKey(right);
        const ssize_t rightInsertPos = insertPos - HALF - 1;
        MoveInternalEntries(bi, left, HALF + 1, right, 0, rightInsertPos);
        place(right, rightInsertPos);
        MoveInternalEntries(bi, left, insertPos, right, rightInsertPos + 1, BTREE_MAX_ENTRIES - insertPos);
    }
    // Entry 50 rises: its child becomes the leftmost of the right node, its key the separator.
    _KeyAndCref* const rising = GetEntry(bi, left, HALF);
    static_cast<prefbase&>(right->m_ptr) = LoadPref(member_cref(bi, rising));
    _KeyAndCref* const risen = overflow.fill();
    MoveKey(bi, member_key(risen), member_key(rising));
    StorePref(member_cref(bi, risen), ReferenceTo(right));
    left->m_numKeyEntrys = HALF;
    right->m_numKeyEntrys = HALF;
    MarkDirty(left);
}

// ---- What stands on the search --------------------------------------------------------------------------------------

namespace {

// The leaf has been found by the write path. Nothing to mark in a transient one.
void MarkContainingNode(const wFindRet& ret) {
    if (GetOid(ret.m_containingNode)) MarkPersistentAsDirtyWithoutTrace(ret.m_containingNode);
}

} // namespace

_Payload* BPlusTree::operator[](const _Key* key) {
    wFindRet ret;
    wFind(ret, key, true);
    QX_ASSERT(ret.m_payload);
    QX_ASSERT(ret.m_containingNode);
    MarkContainingNode(ret);
    return ret.m_payload;
}

std::pair<BPlusTree::Iterator, bool> BPlusTree::insert(const _KeyAndPayload* x) {
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    wFindRet ret;
    wFind(ret, member_key(x), true, member_payload(bi, x));
    QX_ASSERT(ret.m_leaf);
    if (ret.m_created) {
        QX_ASSERT(ret.m_payload);
        QX_ASSERT(ret.m_containingNode);
        MarkContainingNode(ret);
        DeclarePayloadReachable(bi, ret.m_containingNode, ret.m_payload);
    }
    return {Iterator(ret.m_leaf, ret.m_index), ret.m_created};
}

bool BPlusTree::Insert(const _Key* key, const _Payload* payload, bool allowReplace) {
    return InsertAt(key, payload, allowReplace).second;
}

std::pair<BPlusTree::Iterator, bool> BPlusTree::InsertAt(const _Key* key, const _Payload* payload, bool allowReplace) {
    const CalculatedBTreeTypeInfo& bi = GetCalculatedBTreeTypeInfo();
    wFindRet ret;
    wFind(ret, key, true, payload);
    QX_ASSERT(ret.m_payload);
    const Iterator position(ret.m_leaf, ret.m_index);
    if (!ret.m_created) {
        if (!allowReplace) return {position, false};
        if (bi.m_payloadType && payload) AssignPayload(bi, ret.m_payload, payload);
    }
    QX_ASSERT(ret.m_containingNode);
    MarkContainingNode(ret);
    DeclarePayloadReachable(bi, ret.m_containingNode, ret.m_payload);
    return {position, ret.m_created};
}

} // namespace quna

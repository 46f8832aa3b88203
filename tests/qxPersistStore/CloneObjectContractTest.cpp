// Copying an object with all that it owns: what the copy is, what it isn't, and what stops it.
#include "qxObject/Registry.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "tests/support/DeletionTestObjects.h"
#include "tests/support/TestStore.h"
#include "tests/support/TestTreeStore.h"

#include <functional>
#include <mutex>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

namespace quna {

// Has references, and says for each question what it was told to.
class TestCloneNode : public PersistableMixin<IObjectBaseMixin<TestCloneNode, EmptyBase>>,
                      public CountsItsObjects<TestCloneNode> {
public:
    TestCloneNode() = default;
    TestCloneNode(const TestCloneNode& rhs)
        : PersistableMixin(rhs), CountsItsObjects(rhs), m_number(rhs.m_number), m_children(rhs.m_children),
          m_visit(rhs.m_visit), m_offersPersistable(rhs.m_offersPersistable), m_record(rhs.m_record) {
        if (m_number == s_throwOnCopyOf) throw std::runtime_error("copy");
    }
    TestCloneNode& operator=(const TestCloneNode&) = delete;

    void Serialise(Archive& ar) const { SerialiseSchema(ar, 1); }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        return DeserialiseSchema(ar, 1, schema);
    }
    const ReflectedClass* GetReflectedClass() const { return m_record; }
    AnyInterface QueryInterface(const ReflectedInterface& ri) {
        if (!m_offersPersistable) return null;
        return PersistableMixin::QueryInterface(ri);
    }
    void VisitPrefs(IPrefVisitor& visitor) const {
        if (m_visit) m_visit();
        for (const pref<IPersistable>& child : m_children) visitor << child;
    }
    void VisitObjects(IObjectVisitor& visitor) const {
        for (const pref<IPersistable>& child : m_children) visitor << child;
    }
    void OnCreate(bool) { ++s_numOnCreate; }

    int32 m_number = 0;
    xvector<pref<IPersistable>> m_children;
    std::function<void()> m_visit;
    bool m_offersPersistable = true;
    const ReflectedClass* m_record = &quna::GetReflectedClass<TestCloneNode>();
    static inline int32 s_throwOnCopyOf = -1;
    static inline int s_numOnCreate = 0;
};
QX_REFLECT_PERSISTENT_CLASS(TestCloneNode, "test::CloneNode")

class TestNotCopyable : public PersistableMixin<IObjectBaseMixin<TestNotCopyable, EmptyBase>> {
public:
    TestNotCopyable() = default;
    TestNotCopyable(const TestNotCopyable&) = delete;
    TestNotCopyable& operator=(const TestNotCopyable&) = delete;
    void Serialise(Archive& ar) const { SerialiseSchema(ar, 1); }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        return DeserialiseSchema(ar, 1, schema);
    }
};
QX_REFLECT_PERSISTENT_CLASS(TestNotCopyable, "test::NotCopyable")

namespace {

constexpr ConstStringZ PATH = "src/CloneObject";

template <class T>
T* Copied(T* po) {
    return static_cast<T*>(SynchronousDeepCopyPersistableObject(po).m_self);
}

class CloneObjectContract : public ::testing::Test {
protected:
    CloneObjectContract() {
        RegisterDeletionTestObjects();
        static std::once_flag once;
        std::call_once(once, [] {
            static constexpr dsTarget TARGET = {"Quna/Tests/DeepCopy", nullptr, 0, nullptr, 0};
            _Register_TestNotCopyable(RegisterTarget(TARGET)); // the other class's objects are never written
        });
        m_ps = m_store.OpenSpace("s", OM_OPEN_ALWAYS, CreateCSpace());
    }
    CSpace* Cs() const { return m_ps->GetCSpace(); }
    ssize_t NumObjects() const { return GetNumObjects(Cs()); }
    void Collect() {
        const SpaceScope scope(m_ps);
        SynchronousGc(Cs());
    }
    static TestCloneNode* NewNode(int32 number, std::initializer_list<ptr<IPersistable>> children = {}) {
        auto* const node = NewObject<TestCloneNode>();
        node->m_number = number;
        for (const ptr<IPersistable>& child : children) node->m_children.push_back(pref<IPersistable>(child));
        return node;
    }
    static TestCloneNode* Child(const TestCloneNode* node, ssize_t i) {
        return static_cast<TestCloneNode*>(node->m_children[i].Get().m_self);
    }
    void ExpectNewAndTransient(ptr<IPersistable> po) {
        EXPECT_TRUE(po);
        EXPECT_FALSE(GetOid(po));
        EXPECT_FALSE(IsPersistableDirty(po));
        EXPECT_EQ(Cs(), GetAssociatedCSpace(po));
        for (const int flag : {PERSISTABLE_DELETE_VISITED, PERSISTABLE_DELETED})
            EXPECT_FALSE(po->GetSysState().GetFlag(flag));
    }

    TestStore m_store;
    PSpace* m_ps = nullptr;
};

// ---- What a copy is ---------------------------------------------------------------------------------------------------

TEST_F(CloneObjectContract, AnObjectWithoutReferencesIsCopiedByItsCopyConstructor) {
    const SpaceScope scope(m_ps);
    TestLeaf* const leaf = NewObject<TestLeaf>(5, "five");
    const ssize_t before = NumObjects();
    TestLeaf* const copy = Copied(leaf);
    ASSERT_TRUE(copy);
    EXPECT_NE(leaf, copy);
    EXPECT_EQ(5, copy->m_number);
    EXPECT_EQ(xstring("five"), copy->m_text);
    ExpectNewAndTransient(copy);
    EXPECT_EQ(before + 1, NumObjects());
    EXPECT_EQ(0, copy->m_numOnCreate) << "it is not in the persistent world yet";
}

TEST_F(CloneObjectContract, TheCopyOfAPersistentObjectHasNoIdentityAndTheOriginalKeepsIts) {
    const SpaceScope scope(m_ps);
    TestBranch* const grandChild = NewObject<TestBranch>(true, std::vector<TestBranch*>());
    TestBranch* const child = NewObject<TestBranch>(true, std::vector<TestBranch*>{grandChild});
    TestBranch* const top = NewObject<TestBranch>(true, std::vector<TestBranch*>{child});
    m_ps->AddRoot("r", top);
    const OID oid = GetOid(child);
    TestBranch* const copy = Copied(top);
    ASSERT_TRUE(copy);
    ExpectNewAndTransient(copy);
    TestBranch* const childCopy = copy->m_children[0].Get();
    EXPECT_NE(child, childCopy);
    ExpectNewAndTransient(childCopy);
    TestBranch* const grandChildCopy = childCopy->m_children[0].Get();
    EXPECT_NE(grandChild, grandChildCopy);
    ExpectNewAndTransient(grandChildCopy);
    EXPECT_EQ(oid, GetOid(child));
    EXPECT_EQ(child, top->m_children[0].Get());
    EXPECT_EQ(oid, top->m_children[0].GetOid());
    EXPECT_FALSE(copy->m_children[0].GetOid());
}

TEST_F(CloneObjectContract, AReferenceToTheParentEndsAtTheCopyOfTheParent) {
    const SpaceScope scope(m_ps);
    TestBranch* const grandChild = NewObject<TestBranch>(true, std::vector<TestBranch*>());
    TestBranch* const child = NewObject<TestBranch>(true, std::vector<TestBranch*>{grandChild});
    TestBranch* const other = NewObject<TestBranch>(true, std::vector<TestBranch*>());
    TestBranch* const top = NewObject<TestBranch>(true, std::vector<TestBranch*>{child, other});
    TestBranch* const outside = NewObject<TestBranch>(true, std::vector<TestBranch*>{top});
    TestBranch* const copy = Copied(top);
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy, copy->m_children[0].Get()->m_parent.Get());
    EXPECT_EQ(copy, copy->m_children[1].Get()->m_parent.Get());
    EXPECT_EQ(copy->m_children[0].Get(), copy->m_children[0].Get()->m_children[0].Get()->m_parent.Get());
    EXPECT_EQ(outside, copy->m_parent.Get()) << "the top's parent is as its copy constructor made it";
    EXPECT_EQ(top, child->m_parent.Get());
}

TEST_F(CloneObjectContract, ANullReferenceStaysNull) {
    const SpaceScope scope(m_ps);
    TestCloneNode* const copy = Copied(NewNode(1, {null, NewNode(2), null}));
    ASSERT_TRUE(copy);
    ASSERT_EQ(3, copy->m_children.size());
    EXPECT_FALSE(copy->m_children[0] || copy->m_children[2]);
    EXPECT_EQ(2, Child(copy, 1)->m_number);
}

TEST_F(CloneObjectContract, AChildThatIsReachedTwiceBecomesTwo) {
    const SpaceScope scope(m_ps);
    TestCloneNode* const shared = NewNode(2, {NewNode(3)});
    TestCloneNode* const top = NewNode(1, {shared, shared});
    const ssize_t before = NumObjects();
    TestCloneNode* const copy = Copied(top);
    ASSERT_TRUE(copy);
    EXPECT_NE(Child(copy, 0), Child(copy, 1));
    EXPECT_NE(Child(Child(copy, 0), 0), Child(Child(copy, 1), 0));
    EXPECT_EQ(before + 5, NumObjects());
}

TEST_F(CloneObjectContract, ChildrenThatAreNotInMemoryAreLoadedAlsoUnderASharedLock) {
    {
        const SpaceScope scope(m_ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(7);
        m_ps->AddRoot("r", NewObject<TestNode>("top", std::initializer_list<ptr<IPersistable>>{leaf}));
    }
    m_store.Reopen();
    m_ps = m_store.OpenSpace("s", OM_OPEN_ALWAYS, CreateCSpace());
    {
        const SpaceScope scope(m_ps, SharedRead);
        auto* const top = static_cast<TestNode*>(m_ps->GetRoot("r").m_self);
        EXPECT_FALSE(top->m_children[0].GetBoundPtr());
        TestNode* const copy = Copied(top);
        ASSERT_TRUE(copy);
        EXPECT_EQ(7, static_cast<TestLeaf*>(copy->m_children[0].Get().m_self)->m_number);
        EXPECT_FALSE(copy->m_children[0].GetOid());
        EXPECT_FALSE(top->IsDirty());
        EXPECT_EQ(GetOid(m_ps->BindObjectIfMemoryResident(top->m_children[0].GetOid())), top->m_children[0].GetOid());
    }
    EXPECT_FALSE(m_ps->HaveChangesToWriteToLss());
}

TEST_F(CloneObjectContract, ACopyBecomesPersistentLikeAnyNewObject) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestBranch* const child = NewObject<TestBranch>(true, std::vector<TestBranch*>());
        child->m_number = 5;
        TestBranch* const top = NewObject<TestBranch>(true, std::vector<TestBranch*>{child});
        m_ps->AddRoot("original", top);
        m_ps->AddRoot("copy", Copied(top));
        oid = top->m_children[0].GetOid();
    }
    m_store.Reopen();
    m_ps = m_store.OpenSpace("s", OM_OPEN_ALWAYS, CreateCSpace());
    const SpaceScope scope(m_ps);
    auto* const copy = static_cast<TestBranch*>(m_ps->GetRoot("copy").m_self);
    EXPECT_NE(oid, copy->m_children[0].GetOid());
    EXPECT_EQ(5, copy->m_children[0].Get()->m_number);
    EXPECT_EQ(copy, copy->m_children[0].Get()->m_parent.Get());
}

TEST_F(CloneObjectContract, TheCollectorEndsACopy) {
    const int before = TestCloneNode::s_numLive;
    {
        const SpaceScope scope(m_ps);
        ASSERT_TRUE(Copied(NewNode(1, {NewNode(2), NewNode(3)})));
        EXPECT_EQ(before + 6, TestCloneNode::s_numLive);
    }
    Collect();
    EXPECT_EQ(before, TestCloneNode::s_numLive);
}

TEST_F(CloneObjectContract, NobodyIsToldOfACreation) {
    const SpaceScope scope(m_ps);
    const int before = TestCloneNode::s_numOnCreate;
    ASSERT_TRUE(Copied(NewNode(1, {NewNode(2)})));
    EXPECT_EQ(before, TestCloneNode::s_numOnCreate);
}

// ---- What cannot be copied --------------------------------------------------------------------------------------------

TEST_F(CloneObjectContract, ThereMustBeAnObjectThatRepresentsASubTree) {
    const SpaceScope scope(m_ps);
    ExpectAssertion("po", PATH, [] { SynchronousDeepCopyPersistableObject(null); });
    TestNoSubTree* const part = NewObject<TestNoSubTree>();
    ExpectAssertion("po->RepresentsSubTree()", PATH, [&] { SynchronousDeepCopyPersistableObject(part); });
    TestCloneNode* const top = NewNode(1, {NewNode(2, {part})});
    ExpectAssertion("po->RepresentsSubTree()", PATH, [&] { SynchronousDeepCopyPersistableObject(top); });
}

TEST_F(CloneObjectContract, AClassWithoutARecordOrACopyConstructorGivesNull) {
    const SpaceScope scope(m_ps);
    EXPECT_FALSE(GetReflectedClass<TestNotCopyable>().m_ops.HasCopyConstruct());
    const ssize_t before = NumObjects();
    TestNotCopyable* const bad = NewObject<TestNotCopyable>();
    EXPECT_FALSE(SynchronousDeepCopyPersistableObject(bad));
    TestCloneNode* const node = NewNode(1);
    node->m_record = nullptr;
    EXPECT_FALSE(SynchronousDeepCopyPersistableObject(node));
    EXPECT_EQ(before + 2, NumObjects());
}

TEST_F(CloneObjectContract, AfterAChildThatCannotBeCopiedNoReferenceIsFollowed) {
    const int before = TestCloneNode::s_numLive;
    OID unloaded;
    {
        const SpaceScope scope(m_ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(7);
        m_ps->AddRoot("leaf", leaf);
        unloaded = GetOid(leaf);
    }
    m_ps->WriteDirtyObjectsToLss(false);
    Collect();
    {
        const SpaceScope scope(m_ps);
        ASSERT_FALSE(m_ps->BindObjectIfMemoryResident(unloaded));
        //   1 -> 2 -> (bad, 3) ; then the leaf, and 4
        TestCloneNode* const top =
            NewNode(1, {NewNode(2, {NewObject<TestNotCopyable>(), NewNode(3)}), null, NewNode(4)});
        top->m_children[1].SetOid(unloaded);
        const ssize_t numObjects = NumObjects();
        EXPECT_FALSE(SynchronousDeepCopyPersistableObject(top));
        EXPECT_EQ(numObjects + 2, NumObjects()) << "1 and 2";
        EXPECT_FALSE(m_ps->BindObjectIfMemoryResident(unloaded));
        EXPECT_FALSE(top->IsDirty());
    }
    Collect(); // what was copied belongs to the collector
    EXPECT_EQ(before, TestCloneNode::s_numLive);
}

TEST_F(CloneObjectContract, AReferenceThatDanglesEndsInTheBindersException) {
    const int before = TestCloneNode::s_numLive;
    {
        const SpaceScope scope(m_ps);
        const OID nobody = m_ps->AllocateOid(1, true);
        TestCloneNode* const top = NewNode(1, {NewNode(2, {null})});
        Child(top, 0)->m_children[0].SetOid(nobody);
        ExpectException<DerefDanglingOidException>("Dereferenced dangling OID = " + TextOfSeid(nobody),
                                                   [&] { SynchronousDeepCopyPersistableObject(top); });
        EXPECT_EQ(before + 4, TestCloneNode::s_numLive);
    }
    Collect();
    EXPECT_EQ(before, TestCloneNode::s_numLive);
}

TEST_F(CloneObjectContract, AnExceptionOfTheClassPassesAndLeavesNothingBehind) {
    const int before = TestCloneNode::s_numLive;
    {
        const SpaceScope scope(m_ps);
        TestCloneNode* const top = NewNode(1, {NewNode(2), NewNode(77), NewNode(3)});
        const ssize_t numObjects = NumObjects();
        TestCloneNode::s_throwOnCopyOf = 77;
        EXPECT_THROW(SynchronousDeepCopyPersistableObject(top), std::runtime_error);
        TestCloneNode::s_throwOnCopyOf = -1;
        EXPECT_EQ(numObjects + 2, NumObjects()) << "an object that was not made is not registered";
        Child(top, 0)->m_visit = [] { throw std::runtime_error("visit"); };
        EXPECT_THROW(SynchronousDeepCopyPersistableObject(top), std::runtime_error);
    }
    Collect();
    EXPECT_EQ(before, TestCloneNode::s_numLive);
}

// ---- The class's record -----------------------------------------------------------------------------------------------

TEST_F(CloneObjectContract, TheRecordSaysHowLargeAnObjectIsAndCopiesASingleOne) {
    static ReflectedClass s_record;
    static ssize_t s_strides[3];
    const SpaceScope scope(m_ps);
    TestCloneNode* const node = NewNode(1);
    s_record = GetReflectedClass<TestCloneNode>();
    s_record.m_ops.m_CopyConstructArrayFn = [](void* dst, ssize_t dstStride, const void* src, ssize_t srcStride,
                                               ssize_t count) {
        s_strides[0] = dstStride;
        s_strides[1] = srcStride;
        s_strides[2] = count;
        GetReflectedClass<TestCloneNode>().m_ops.m_CopyConstructArrayFn(dst, dstStride, src, srcStride, count);
    };
    node->m_record = &s_record;
    EXPECT_TRUE(SynchronousDeepCopyPersistableObject(node));
    EXPECT_EQ(0, s_strides[0]);
    EXPECT_EQ(0, s_strides[1]);
    EXPECT_EQ(1, s_strides[2]);

    s_record.m_size = 0;
    const ssize_t before = NumObjects();
    ExpectAssertion("rc->m_size > 0", PATH, [&] { SynchronousDeepCopyPersistableObject(node); });
    s_record.m_ops.m_CopyConstructArrayFn = nullptr; // is looked at first
    EXPECT_FALSE(SynchronousDeepCopyPersistableObject(node));
    EXPECT_EQ(before, NumObjects());
}

TEST_F(CloneObjectContract, ACopyThatOffersNoPersistableInterfaceIsRefusedAndCollected) {
    const int live = TestCloneNode::s_numLive;
    {
        const SpaceScope scope(m_ps);
        TestCloneNode* const node = NewNode(1);
        node->m_offersPersistable = false;
        const ssize_t before = NumObjects();
        ExpectAssertion("po", PATH, [&] { SynchronousDeepCopyPersistableObject(node); });
        EXPECT_EQ(before + 1, NumObjects()) << "the collector has it already";
    }
    Collect();
    EXPECT_EQ(live, TestCloneNode::s_numLive);
}

TEST_F(CloneObjectContract, IsAReflectedFunction) {
    EXPECT_NE(nullptr, FindReflectedGlobalFunction("quna::SynchronousDeepCopyPersistableObject"));
}

// ---- Depth ------------------------------------------------------------------------------------------------------------

TEST_F(CloneObjectContract, ALongChainNeedsNoDeepStack) {
    static constexpr int LENGTH = 20000; // at a hundred bytes a level, eight times the stack below
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, 256 << 10));
    const auto run = [](void* arg) -> void* {
        auto* const ps = static_cast<PSpace*>(arg);
        const SpaceScope scope(ps);
        TestNode* first = nullptr;
        for (int i = 0; i < LENGTH; ++i) {
            auto* const node = NewObject<TestNode>("n");
            if (first) node->m_next = first;
            first = node;
        }
        const TestNode* copy = Copied(first);
        int length = 0;
        for (; copy; copy = copy->m_next.Get(), first = first->m_next.Get()) {
            ++length;
            EXPECT_NE(first, copy);
        }
        EXPECT_EQ(LENGTH, length);
        return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, &attributes, run, m_ps));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    pthread_attr_destroy(&attributes);
}

// ---- Trees ------------------------------------------------------------------------------------------------------------

class CloneTreeContract : public PersistentTreeTest {};

TEST_F(CloneTreeContract, ACopiedTreeIsOnesOwnFromItsFirstChangeOn) {
    BPlusTree& tree = BuiltTree({50, 60, 70});
    const ssize_t size = tree.size();
    BPlusTree* const copy = Copied(&tree);
    ASSERT_TRUE(copy);
    EXPECT_EQ(size, copy->size());
    EXPECT_NE(tree.m_root.Get(), copy->m_root.Get());
    EXPECT_EQ(AllOf(*copy).size(), TransientOf(*copy).size()) << "no node is shared with the persistent tree";
    EXPECT_TRUE(DirtyOf(tree).empty());
    EXPECT_EQ((std::optional<IntKey>(11)), Get<IntKey>(*copy, IntKey{10}));

    EXPECT_TRUE(Put(*copy, IntKey{5}, IntKey{55}));
    EXPECT_TRUE(Put(*copy, IntKey{100000}, IntKey{56}));
    ExpectSound(*copy);
    ExpectSound(tree);
    EXPECT_TRUE(DirtyOf(tree).empty());
    EXPECT_EQ(size, tree.size());
    EXPECT_EQ(size + 2, copy->size());
    EXPECT_FALSE(Has(tree, IntKey{5}));
    EXPECT_TRUE(Remove(tree, IntKey{10}));
    EXPECT_TRUE(Has(*copy, IntKey{10}));
    for (IntKey key = 10; key <= 110 * KEY_STEP; key += KEY_STEP) EXPECT_TRUE(Remove(*copy, key)); // through repairs
    ExpectSound(*copy);
    ExpectSound(tree);
}

TEST_F(CloneTreeContract, ACopiedTreeOutlivesItsSourceAndARestart) {
    {
        BPlusTree& tree = BuiltTree({50, 60, 70});
        m_ps->AddRoot("copy", Copied(&tree));
        m_ps->AsyncPermanentlyDeleteSubTree(&tree);
        m_ps->RemoveRoot("tree");
    }
    WriteAll();
    Reopen();
    BPlusTree& copy = Tree("copy");
    ExpectSound(copy);
    EXPECT_EQ(180, copy.size());
    ssize_t n = 0;
    for (const LeafNode* leaf : LeavesOf(copy)) n += leaf->m_numKeyEntrys;
    EXPECT_EQ(180, n);
}

TEST_F(CloneTreeContract, KeysWithMemoryOfTheirOwnAreCopiedNotShared) {
    BPlusTree& tree = NewTransientTree<xstring, IntKey>();
    for (IntKey i = 0; i < 250; ++i) Put(tree, xstring((std::string(40, 'k') + std::to_string(i)).c_str()), i);
    AddGcRoot(&tree);
    BPlusTree* const copy = Copied(&tree);
    ASSERT_TRUE(copy);
    AddGcRoot(copy);
    Put(*copy, xstring("first"), IntKey{1000});
    RemoveGcRoot(&tree);
    Evict(); // the source is gone with its strings
    EXPECT_EQ(251, copy->size());
    EXPECT_EQ(std::optional<IntKey>(7), Get<IntKey>(*copy, xstring((std::string(40, 'k') + "7").c_str())));
    RemoveGcRoot(copy);
}

TEST_F(CloneTreeContract, AnEmptyTreeHasAnEmptyCopy) {
    BPlusTree* const copy = Copied(&NewTree<IntKey, IntKey>());
    ASSERT_TRUE(copy);
    EXPECT_EQ(0, copy->size());
    EXPECT_EQ(-1, copy->m_height);
    EXPECT_TRUE(Put(*copy, IntKey{1}, IntKey{2}));
    ExpectSound(*copy);
}

} // namespace
} // namespace quna

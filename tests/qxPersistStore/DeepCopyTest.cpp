// Deep copies of objects, of trees of objects, and of B+ trees.
#include "qxObject/Members.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/PMap.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/PersistentMembers.h"
#include "tests/support/ExpectAssertion.h"
#include "tests/support/TestTreeStore.h"

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

namespace quna {

// A part of a whole: two references of its own, a list of more, and one to its parent. Notes what happens to it.
class TestPart : public PersistableMixin<IObjectBaseMixin<TestPart, EmptyBase>>, public CountsItsObjects<TestPart> {
public:
    TestPart() = default;
    explicit TestPart(ConstStringZ name) : m_name(name) {}
    TestPart(const TestPart& rhs)
        : PersistableMixin(rhs), CountsItsObjects(rhs), m_name(rhs.m_name), m_first(rhs.m_first),
          m_children(rhs.m_children), m_last(rhs.m_last), m_parent(rhs.m_parent) {
        if (m_name == s_throwsWhenCopied) throw std::runtime_error("copying");
        s_copied += m_name.c_str();
    }
    TestPart& operator=(const TestPart&) = default;

    void Serialise(Archive& ar) const {
        SerialiseSchema(ar, 1);
        ar << m_name << m_first;
        Serialise_ssize_t(ar, m_children.size());
        for (const cref<TestPart>& child : m_children) ar << child;
        ar << m_last << m_parent;
    }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        ar = DeserialiseSchema(ar, 1, schema) >> m_name >> m_first;
        ssize_t n = 0;
        ar = DeserialiseCount(ar, n);
        m_children.resize(n);
        for (cref<TestPart>& child : m_children) ar = ar >> child;
        return ar >> m_last >> m_parent;
    }
    void VisitPrefs(IPrefVisitor& visitor) const {
        ++m_numVisits;
        visitor << m_first;
        for (const cref<TestPart>& child : m_children) visitor << child;
        visitor.VisitParentPref(m_parent);
        visitor << m_last;
    }
    void VisitObjects(IObjectVisitor& visitor) const {
        visitor << m_first;
        for (const cref<TestPart>& child : m_children) visitor << child;
        visitor << m_last << m_parent;
    }

    xstring m_name;
    prefbase m_first; // to objects of any class
    xvector<cref<TestPart>> m_children;
    prefbase m_last;
    cref<TestPart> m_parent;
    mutable int m_numVisits = 0;

    static inline std::string s_copied; // names, in the order of copying
    static inline xstring s_throwsWhenCopied;
};
QX_REFLECT_PERSISTENT_CLASS(TestPart, "test::Part")

// Can't be copied.
class TestUnique : public PersistableMixin<IObjectBaseMixin<TestUnique, EmptyBase>> {
public:
    TestUnique() = default;
    TestUnique(const TestUnique&) = delete;
    TestUnique& operator=(const TestUnique&) = delete;
    void Serialise(Archive& ar) const { SerialiseSchema(ar, 1); }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        return DeserialiseSchema(ar, 1, schema);
    }
};
QX_REFLECT_PERSISTENT_CLASS(TestUnique, "test::Unique")

// Shows the record that a test gives it, or none.
class TestOddRecord : public PersistableMixin<IObjectBaseMixin<TestOddRecord, EmptyBase>> {
public:
    void Serialise(Archive& ar) const { SerialiseSchema(ar, 1); }
    InputArchive Deserialise(InputArchive ar) { return ar; }
    const ReflectedClass* GetReflectedClass() const { return s_record; }
    AnyInterface QueryInterface(const ReflectedInterface& ri) {
        return s_offersInterface ? PersistableMixin::QueryInterface(ri) : null;
    }
    static inline const ReflectedClass* s_record = nullptr;
    static inline bool s_offersInterface = true;
};

// Owns a map, and a tree whose entries are references at unaligned places.
class TestCatalogue : public PersistentObject<TestCatalogue> {
public:
    static constexpr auto Members() {
        return MemberList(Member("byName", &TestCatalogue::m_byName), Member("byKey", &TestCatalogue::m_byKey));
    }
    PMap<xstring, uint64> m_byName;
    PMap<Key3, cref<TestLeaf>> m_byKey;
};
QX_REFLECT_PERSISTENT_CLASS(TestCatalogue, "test::Catalogue")

namespace {

constexpr ConstStringZ PATH = "src/CloneObject";
constexpr int LENGTH_OF_CHAIN = 200'000;

void RegisterDeepCopyClasses() {
    RegisterTreeTypes();
    RegisterTestObjects();
    static const bool registered = [] {
        static constexpr dsTarget TARGET = {"Quna/DeepCopyTests", nullptr, 0, nullptr, 0};
        XTarget* const target = RegisterTarget(TARGET);
        _Register_TestPart(target);
        _Register_TestUnique(target);
        _Register_TestCatalogue(target);
        return true;
    }();
    EXPECT_TRUE(registered);
}

template <class X>
X* DeepCopyOf(const X* x) {
    return static_cast<X*>(SynchronousDeepCopyPersistableObject(const_cast<X*>(x)).m_self);
}

// The part that a reference names.
TestPart* PartAt(const prefbase& pref) { return static_cast<TestPart*>(pref.Get().m_self); }

// ---- Without a store ------------------------------------------------------------------------------------------------

class DeepCopy : public ::testing::Test {
protected:
    DeepCopy() : m_current(m_domain), m_lock(m_domain, Exclusive) {
        RegisterDeepCopyClasses();
        TestPart::s_copied.clear();
        TestPart::s_throwsWhenCopied = xstring();
    }
    ~DeepCopy() noexcept override = default; // ending a domain could throw

    TestPart* NewPart(ConstStringZ name, std::initializer_list<TestPart*> children = {}) {
        TestPart* const part = NewObject<TestPart>(name);
        for (TestPart* child : children) {
            part->m_children.push_back(cref<TestPart>(child));
            child->m_parent = part;
        }
        return part;
    }
    // Only what the roots reach is left.
    void Collect() { SynchronousGc(m_domain); }

    CSpaceCreator m_domain;
    DeclareThreadPtr<CSpace> m_current;
    CSpaceLock m_lock;
};

TEST_F(DeepCopy, AnObjectWithoutReferencesIsCopiedAndVisitedOnce) {
    TestPart* const part = NewPart("a");
    const ssize_t before = GetNumObjects(m_domain);
    TestPart* const copy = DeepCopyOf(part);
    ASSERT_TRUE(copy);
    EXPECT_NE(part, copy);
    EXPECT_STREQ("a", copy->m_name.c_str());
    EXPECT_EQ(1, copy->m_numVisits);
    EXPECT_EQ(0, part->m_numVisits);
    EXPECT_EQ(before + 1, GetNumObjects(m_domain));
    EXPECT_EQ(m_domain.Get(), GetAssociatedCSpace(copy));
    EXPECT_FALSE(copy->m_first || copy->m_last || copy->m_parent);
}

TEST_F(DeepCopy, EachChildIsCopiedWithItsSubtreeBeforeTheNext) {
    TestPart* const c = NewPart("c", {NewPart("d"), NewPart("e", {NewPart("f")})});
    c->m_last.Set(NewPart("g"));
    TestPart* const a = NewPart("a", {c, NewPart("h")});
    a->m_first.Set(NewPart("b"));
    a->m_last.Set(NewPart("i"));
    TestPart* const copy = DeepCopyOf(a);
    EXPECT_EQ("abcdefghi", TestPart::s_copied);
    ASSERT_TRUE(copy);
    EXPECT_STREQ("b", PartAt(copy->m_first)->m_name.c_str());
    EXPECT_STREQ("i", PartAt(copy->m_last)->m_name.c_str());
    ASSERT_EQ(2, copy->m_children.size());
    const TestPart* const copyOfC = PartAt(copy->m_children[0]);
    EXPECT_NE(c, copyOfC);
    EXPECT_STREQ("c", copyOfC->m_name.c_str());
    EXPECT_STREQ("d", PartAt(copyOfC->m_children[0])->m_name.c_str());
    EXPECT_STREQ("f", PartAt(PartAt(copyOfC->m_children[1])->m_children[0])->m_name.c_str());
    EXPECT_STREQ("g", PartAt(copyOfC->m_last)->m_name.c_str());
    EXPECT_STREQ("h", PartAt(copy->m_children[1])->m_name.c_str());
    EXPECT_EQ(c, PartAt(a->m_children[0])); // the source is as it was
}

TEST_F(DeepCopy, NullReferencesStayNullAmongOthers) {
    TestPart* const a = NewPart("a");
    a->m_children.resize(5);
    a->m_children[3] = NewPart("b");
    const TestPart* const copy = DeepCopyOf(a);
    ASSERT_TRUE(copy);
    for (int i : {0, 1, 2, 4}) EXPECT_FALSE(copy->m_children[i]);
    EXPECT_STREQ("b", PartAt(copy->m_children[3])->m_name.c_str());
    EXPECT_NE(PartAt(a->m_children[3]), PartAt(copy->m_children[3]));
}

TEST_F(DeepCopy, AChildThatIsReachedTwiceBecomesTwoChildren) {
    TestPart* const shared = NewPart("s");
    TestPart* const a = NewPart("a", {shared, shared});
    const TestPart* const copy = DeepCopyOf(a);
    EXPECT_EQ("ass", TestPart::s_copied);
    EXPECT_NE(PartAt(copy->m_children[0]), PartAt(copy->m_children[1]));
}

TEST_F(DeepCopy, AReferenceToTheParentEndsUpAtTheParentsCopy) {
    TestPart* const d = NewPart("d");
    TestPart* const b = NewPart("b", {d});
    TestPart* const c = NewPart("c");
    TestPart* const a = NewPart("a", {b});
    a->m_last.Set(c);
    c->m_parent = d; // wherever it pointed
    const TestPart* const copy = DeepCopyOf(a);
    ASSERT_TRUE(copy);
    const TestPart* const copyOfB = PartAt(copy->m_children[0]);
    EXPECT_EQ(copy, copyOfB->m_parent.Get());
    EXPECT_EQ(copyOfB, PartAt(copyOfB->m_children[0])->m_parent.Get());
    EXPECT_EQ(copy, PartAt(copy->m_last)->m_parent.Get());
    EXPECT_FALSE(copy->m_parent);
    EXPECT_EQ(a, b->m_parent.Get());
}

TEST_F(DeepCopy, TheTopObjectKeepsTheParentThatItsCopyConstructorGaveIt) {
    TestPart* const b = NewPart("b", {NewPart("c")});
    TestPart* const a = NewPart("a", {b});
    const TestPart* const copy = DeepCopyOf(b);
    EXPECT_EQ("bc", TestPart::s_copied);
    EXPECT_EQ(a, copy->m_parent.Get());
}

TEST_F(DeepCopy, AClassWithoutCopyConstructorGivesNull) {
    EXPECT_FALSE(SynchronousDeepCopyPersistableObject(NewObject<TestUnique>()));
    TestOddRecord::s_record = nullptr;
    EXPECT_FALSE(SynchronousDeepCopyPersistableObject(NewObject<TestOddRecord>()));
}

TEST_F(DeepCopy, NothingIsFollowedBehindAChildThatCantBeCopied) {
    TestPart* const c = NewPart("c");
    c->m_first.Set(NewObject<TestUnique>());
    c->m_last.Set(NewPart("d"));
    TestPart* const a = NewPart("a", {NewPart("b"), c, NewPart("e")});
    AddGcRoot(a);
    const ssize_t before = GetNumObjects(m_domain);
    EXPECT_FALSE(DeepCopyOf(a));
    EXPECT_EQ("abc", TestPart::s_copied);
    EXPECT_EQ(before + 3, GetNumObjects(m_domain)); // the collector's by now
    Collect();
    EXPECT_EQ(before, GetNumObjects(m_domain));
}

TEST_F(DeepCopy, WhatCantBeASubTreeIsMisuse) {
    ExpectAssertion("po", PATH, [] { SynchronousDeepCopyPersistableObject(null); });
    ExpectAssertion("po->RepresentsSubTree()", PATH,
                    [] { SynchronousDeepCopyPersistableObject(NewObject<TestNoSubTree>()); });
    TestPart* const a = NewPart("a");
    a->m_first.Set(NewObject<TestNoSubTree>());
    ExpectAssertion("po->RepresentsSubTree()", PATH, [&] { SynchronousDeepCopyPersistableObject(a); });
    EXPECT_EQ("a", TestPart::s_copied);
}

TEST_F(DeepCopy, ARecordWithoutSizeAndAnObjectWithoutTheInterfaceAreMisuse) {
    ReflectedClass record = MakeReflectedClass<TestOddRecord>("test::OddRecord");
    TestOddRecord::s_record = &record;
    const ptr<IPersistable> po = NewObject<TestOddRecord>();
    EXPECT_TRUE(SynchronousDeepCopyPersistableObject(po));
    record.m_size = 0;
    ExpectAssertion("rc->m_size > 0", PATH, [&] { SynchronousDeepCopyPersistableObject(po); });
    record = MakeReflectedClass<TestOddRecord>("test::OddRecord");
    TestOddRecord::s_offersInterface = false;
    ExpectAssertion("po", PATH, [&] { SynchronousDeepCopyPersistableObject(po); });
    TestOddRecord::s_offersInterface = true;
    TestOddRecord::s_record = nullptr;
}

TEST_F(DeepCopy, AnObjectThatOwnsItselfIsMisuse) {
    for (int lengthOfTail : {0, 1, 2, 5}) {
        for (int lengthOfCycle : {1, 2, 3, 8}) {
            std::vector<TestPart*> parts;
            for (int i = 0; i < lengthOfTail + lengthOfCycle; ++i) {
                parts.push_back(NewPart("x", {NewPart("y")})); // finite subtrees stand beside the way round
                if (i > 0) parts[static_cast<std::size_t>(i - 1)]->m_last.Set(parts.back());
            }
            parts.back()->m_last.Set(parts[static_cast<std::size_t>(lengthOfTail)]);
            ExpectAssertion("!ownsItself", PATH, [&] { DeepCopyOf(parts[0]); });
        }
    }
}

TEST_F(DeepCopy, ACopyConstructorThatThrowsLeavesOnlyWhatTheCollectorTakes) {
    TestPart* const a = NewPart("a", {NewPart("b", {NewPart("c")}), NewPart("d")});
    AddGcRoot(a);
    const ssize_t before = GetNumObjects(m_domain);
    const int live = TestPart::s_numLive;
    TestPart::s_throwsWhenCopied = xstring("c");
    EXPECT_THROW(DeepCopyOf(a), std::runtime_error);
    EXPECT_EQ(before + 2, GetNumObjects(m_domain));
    EXPECT_EQ(live + 2, TestPart::s_numLive);
    TestPart::s_throwsWhenCopied = xstring("a");
    EXPECT_THROW(DeepCopyOf(a), std::runtime_error);
    EXPECT_EQ(before + 2, GetNumObjects(m_domain));
    Collect();
    EXPECT_EQ(live, TestPart::s_numLive);
    EXPECT_STREQ("c", PartAt(PartAt(a->m_children[0])->m_children[0])->m_name.c_str());
}

TEST_F(DeepCopy, AnObjectThatCantBeRegisteredIsEnded) {
    TestPart* const a = NewPart("a");
    const int live = TestPart::s_numLive;
    const DeclareThreadPtr<CSpace> none(nullptr);
    EXPECT_THROW(DeepCopyOf(a), std::exception);
    EXPECT_EQ("a", TestPart::s_copied);
    EXPECT_EQ(live, TestPart::s_numLive);
}

// ---- Depth and width ------------------------------------------------------------------------------------------------

void RunOnSmallStack(const std::function<void()>& action) {
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, 256 << 10));
    pthread_t thread;
    const auto run = [](void* arg) -> void* {
        (*static_cast<const std::function<void()>*>(arg))();
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&action)));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    pthread_attr_destroy(&attributes);
}

TEST(DeepCopyDepth, ALongChainNeedsNoStack) {
    RegisterDeepCopyClasses();
    RunOnSmallStack([] {
        const CSpaceCreator domain;
        const DeclareThreadPtr<CSpace> current(domain);
        const CSpaceLock lock(domain, Exclusive);
        TestNode* top = nullptr;
        for (int i = 0; i < LENGTH_OF_CHAIN; ++i) {
            auto* const node = NewObject<TestNode>("");
            // Every other link is in the object itself, the others in memory of their own.
            if (i % 2 == 0)
                node->m_next = top;
            else
                node->m_children.push_back(pref<IPersistable>(ptr<IPersistable>(top)));
            top = node;
        }
        TestNode* const copy = DeepCopyOf(top);
        ASSERT_TRUE(copy);
        EXPECT_EQ(2 * LENGTH_OF_CHAIN, GetNumObjects(domain));
        int n = 0;
        for (const TestNode *source = top, *node = copy; node; ++n) {
            ASSERT_NE(source, node);
            const auto next = [](const TestNode* from) {
                return from->m_next
                           ? from->m_next.Get()
                           : static_cast<TestNode*>(
                                 from->m_children.size() == 1 ? from->m_children[0].prefbase::Get().m_self : nullptr);
            };
            source = next(source);
            node = next(node);
        }
        EXPECT_EQ(LENGTH_OF_CHAIN, n);
    });
}

TEST_F(DeepCopy, AWideObjectGetsAllItsChildren) {
    TestPart* const a = NewPart("a");
    for (int i = 0; i < 1000; ++i) a->m_children.push_back(cref<TestPart>(NewPart("b", {NewPart("c"), NewPart("d")})));
    const TestPart* const copy = DeepCopyOf(a);
    ASSERT_TRUE(copy);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_NE(PartAt(a->m_children[i]), PartAt(copy->m_children[i]));
        ASSERT_STREQ("d", PartAt(PartAt(copy->m_children[i])->m_children[1])->m_name.c_str());
    }
}

// ---- Of a store -----------------------------------------------------------------------------------------------------

struct RegistersDeepCopyClasses {
    RegistersDeepCopyClasses() { RegisterDeepCopyClasses(); }
};

class DeepCopyInAStore : private RegistersDeepCopyClasses, public PersistentTreeTest {
protected:
    // A root, written, with two children in a list, one behind a reference of its own, and a grandchild.
    TestPart& StoredParts() {
        auto* const top = NewObject<TestPart>("a");
        auto* const b = NewObject<TestPart>("b");
        auto* const d = NewObject<TestPart>("d");
        top->m_children.push_back(cref<TestPart>(b));
        top->m_children.push_back(cref<TestPart>(NewObject<TestPart>("c")));
        top->m_last.Set(d);
        b->m_first.Set(NewObject<TestPart>("e"));
        b->m_parent = top;
        m_ps->AddRoot("parts", top);
        WriteAll();
        return *top;
    }
    TestPart& Parts() { return *static_cast<TestPart*>(m_ps->GetRoot("parts").m_self); }

    static void ExpectTransientAndClean(const std::vector<const TestPart*>& parts) {
        for (const TestPart* part : parts) {
            EXPECT_FALSE(GetOid(const_cast<TestPart*>(part))) << part->m_name.c_str();
            EXPECT_FALSE(part->IsDirty()) << part->m_name.c_str();
        }
    }
};

TEST_F(DeepCopyInAStore, ACopyOfPersistentObjectsHasNoIdentityAndIsNotDirty) {
    TestPart& top = StoredParts();
    top.MarkAsDirtyWithoutTrace();
    const TestPart* const copy = DeepCopyOf(&top);
    ASSERT_TRUE(copy);
    const TestPart* const b = PartAt(copy->m_children[0]);
    ExpectTransientAndClean({copy, b, PartAt(copy->m_children[1]), PartAt(copy->m_last), PartAt(b->m_first)});
    EXPECT_EQ(copy, b->m_parent.Get());
    EXPECT_TRUE(GetOid(ptr<IPersistable>(&top)));
    EXPECT_TRUE(top.IsDirty());
    EXPECT_FALSE(PartAt(top.m_last)->IsDirty());
}

TEST_F(DeepCopyInAStore, ChildrenAreLoadedUnderASharedLockToo) {
    StoredParts();
    Reopen();
    Lock(SharedRead);
    const TestPart* const copy = DeepCopyOf(&Parts());
    ASSERT_TRUE(copy);
    const TestPart* const b = PartAt(copy->m_children[0]);
    ExpectTransientAndClean({copy, b, PartAt(copy->m_children[1]), PartAt(copy->m_last), PartAt(b->m_first)});
    EXPECT_STREQ("e", PartAt(b->m_first)->m_name.c_str());
}

TEST_F(DeepCopyInAStore, ACopyIsAttachedAndSurvivesARestart) {
    m_ps->AddRoot("copy", DeepCopyOf(&StoredParts()));
    Reopen();
    const auto* copy = static_cast<const TestPart*>(m_ps->GetRoot("copy").m_self);
    ASSERT_TRUE(copy);
    const TestPart* const b = PartAt(copy->m_children[0]);
    EXPECT_STREQ("e", PartAt(b->m_first)->m_name.c_str());
    EXPECT_EQ(copy, b->m_parent.Get());
    EXPECT_NE(PartAt(Parts().m_last), PartAt(copy->m_last));
}

TEST_F(DeepCopyInAStore, ADanglingReferencePassesThrough) {
    TestPart& top = StoredParts();
    AddGcRoot(&top);
    SyncPermanentlyDeleteObject(top.m_last.Get());
    top.m_last.ClearPtrOnly();
    const int live = TestPart::s_numLive;
    TestPart::s_copied.clear();
    EXPECT_THROW(DeepCopyOf(&top), DerefDanglingOidException);
    EXPECT_EQ("abec", TestPart::s_copied);
    WriteAll();
    Unlock();
    SynchronousGc(m_ps->GetCSpace());
    EXPECT_GT(live, TestPart::s_numLive); // the copies, and what the cache held
    Lock();
}

// ---- Trees ----------------------------------------------------------------------------------------------------------

TEST_F(DeepCopyInAStore, ATreeIsCopiedNodeByNode) {
    for (const int n : {0, 1, 99, 250, 6000}) {
        BPlusTree& tree = NewTree<IntKey, IntKey>(std::to_string(n).c_str());
        for (int i = 0; i < n; ++i) Put(tree, static_cast<IntKey>(i), static_cast<IntKey>(2 * i));
        WriteAll();
        BPlusTree* const copy = DeepCopyOf(&tree);
        ASSERT_TRUE(copy);
        EXPECT_TRUE(TransientOf(tree).empty());
        EXPECT_EQ(AllOf(*copy).size(), TransientOf(*copy).size());
        EXPECT_TRUE(DirtyOf(tree).empty());
        EXPECT_TRUE(tree == *copy);
        ExpectSound(*copy);
        EXPECT_TRUE(Put(*copy, IntKey{1'000'000}, IntKey{1}));
        EXPECT_FALSE(Has(tree, IntKey{1'000'000}));
        ExpectSound(*copy);
        ExpectSound(tree);
    }
}

TEST_F(DeepCopyInAStore, ObjectsThatEntriesNameAreCopiedFromUnalignedPlacesToo) {
    using Ref = cref<TestLeaf>;
    BPlusTree& tree = NewTree<Key3, Ref>();
    for (int i = 0; i < 300; ++i) Put(tree, Key3(static_cast<uint64>(i)), Ref(NewObject<TestLeaf>(i)));
    Reopen();
    BPlusTree* const copy = DeepCopyOf(&Tree());
    ASSERT_TRUE(copy);
    (void)copy->begin(); // links the chain of its leaves
    ExpectSound(*copy);
    for (int i = 0; i < 300; ++i) {
        const Key3 key(static_cast<uint64>(i));
        TestLeaf* const leaf = Get<Ref>(*copy, key)->Get();
        ASSERT_EQ(i, leaf->m_number);
        ASSERT_FALSE(GetOid(leaf));
        ASSERT_NE(leaf, Get<Ref>(Tree(), key)->Get());
    }
}

TEST_F(DeepCopyInAStore, MapsInAnObjectAreCopiedWithIt) {
    auto* const catalogue = NewObject<TestCatalogue>();
    catalogue->m_byName = PMap<xstring, uint64>::Create();
    catalogue->m_byKey = PMap<Key3, cref<TestLeaf>>::Create();
    for (uint64 i = 0; i < 150; ++i) {
        catalogue->m_byName.insert_or_assign(std::to_string(i), i);
        catalogue->m_byKey.insert_or_assign(Key3(i), NewObject<TestLeaf>(static_cast<int32>(i)));
    }
    m_ps->AddRoot("catalogue", catalogue);
    WriteAll();
    auto* const copy = DeepCopyOf(catalogue);
    ASSERT_TRUE(copy);
    copy->m_byName.insert_or_assign("copied", 1);
    EXPECT_EQ(1u, copy->m_byName.erase("7"));
    copy->m_byKey.at(Key3(5))->m_number = 55;
    m_ps->AddRoot("copy", copy);
    Reopen();

    auto* const source = static_cast<TestCatalogue*>(m_ps->GetRoot("catalogue").m_self);
    EXPECT_EQ(150, std::ssize(source->m_byName));
    EXPECT_TRUE(source->m_byName.contains("7"));
    EXPECT_FALSE(source->m_byName.contains("copied"));
    EXPECT_EQ(5, source->m_byKey.at(Key3(5))->m_number);
    auto* const stored = static_cast<TestCatalogue*>(m_ps->GetRoot("copy").m_self);
    EXPECT_EQ(150, std::ssize(stored->m_byName));
    EXPECT_FALSE(stored->m_byName.contains("7"));
    EXPECT_TRUE(stored->m_byName.contains("copied"));
    EXPECT_EQ(55, stored->m_byKey.at(Key3(5))->m_number);
    int32 sum = 0;
    for (auto [key, leaf] : stored->m_byKey) sum += leaf->m_number;
    EXPECT_EQ(149 * 150 / 2 + 50, sum);
}

} // namespace
} // namespace quna

#include "qxPersistStore/pref.h"

#include "qxObject/CSpace.h"
#include "qxObject/IObjectVisitor.h"
#include "qxObject/PrintInstance.h"
#include "qxObject/Reflect.h"
#include "qxObject/TypeOps.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxUtils/Tracer.h"
#include "tests/support/ExpectAssertion.h"
#include "tests/support/TestStore.h"

#include <cstring>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace pref_test {

// Compares by its value.
class Node : public PersistableMixin<IObjectBaseMixin<Node, EmptyBase>> {
public:
    explicit Node(int32 value = 0) : m_value(value) {}

    void Serialise(Archive& ar) const { ar << m_value << m_next; }
    InputArchive Deserialise(InputArchive ar) { return ar >> m_value >> m_next; }
    void VisitPrefs(IPrefVisitor& visitor) const { visitor << m_next; }
    void VisitObjects(IObjectVisitor& visitor) const { visitor << m_next; }
    bool operator==(const Node& rhs) const { return m_value == rhs.m_value; }
    bool operator<(const Node& rhs) const { return m_value < rhs.m_value; }

    int32 m_value;
    cref<Node> m_next;
};
QX_REFLECT_CLASS(Node, "quna::pref_test::Node")

// Has no comparison.
class Other : public PersistableMixin<IObjectBaseMixin<Other, EmptyBase>> {
public:
    void Serialise(Archive&) const {}
    InputArchive Deserialise(InputArchive ar) { return ar; }
};
QX_REFLECT_CLASS(Other, "quna::pref_test::Other")

// No IPersistable.
class Mere : public IObjectBaseMixin<Mere, EmptyBase> {};
QX_REFLECT_CLASS(Mere, "quna::pref_test::Mere")

namespace {

class Sink final : public IOutputStream {
public:
    void WriteStream(const void* bytes, ssize_t n) override {
        const auto* p = static_cast<const octet_t*>(bytes);
        m_bytes.insert(m_bytes.end(), p, p + n);
    }
    void FlushStream() override {}

    Bytes m_bytes;
};

template <class T>
Bytes Serialised(const T& x) {
    Sink sink;
    {
        Archive ar(&sink);
        ar << x;
    }
    return sink.m_bytes;
}

// Collects what is traced.
class TraceCatcher {
public:
    TraceCatcher()
        : m_before(SetTraceSink(TraceSink{&m_text, [](void* self, const char* text, ssize_t n) {
                                              static_cast<std::string*>(self)->append(text,
                                                                                      static_cast<std::size_t>(n));
                                          }})) {}
    TraceCatcher(const TraceCatcher&) = delete;
    TraceCatcher& operator=(const TraceCatcher&) = delete;
    ~TraceCatcher() { SetTraceSink(m_before); }

    std::string m_text;

private:
    TraceSink m_before;
};

std::string ObjectText(ptr<const IObject> p) {
    StringStream os;
    WriteIObjectPtr(os, p);
    return os.c_str();
}

template <class T>
std::string Text(const T& x) {
    StringStream os;
    os << x;
    return os.c_str();
}

void MakePersistent(Node& node, OID oid) { node.GetPersistObjState().m_oid = oid; }

prefbase Unbound(OID oid) {
    prefbase r;
    r.SetOid(oid);
    return r;
}

template <class T>
prefbase Bound(T& object) {
    prefbase r;
    r.Set(ptr<IPersistable>(&object));
    return r;
}

// ---- The four forms ----

TEST(Pref, IsNullAtFirst) {
    const prefbase r;
    EXPECT_FALSE(r);
    EXPECT_FALSE(r.GetOid());
    EXPECT_FALSE(r.IsBound());
    EXPECT_FALSE(r.Get());
    EXPECT_FALSE(r.GetInMemory());
    EXPECT_FALSE(r.TryGet());
    EXPECT_FALSE(r.AsyncGet());
    EXPECT_FALSE(r.GetTransient());
    static_assert(sizeof(prefbase) == 24 && sizeof(cref<Node>) == 24 && sizeof(pref<IPersistable>) == 24);
}

TEST(Pref, ToATransientObjectIsTrueAndHasNoOid) {
    Node node;
    const prefbase r = Bound(node);
    EXPECT_TRUE(r);
    EXPECT_FALSE(r.GetOid());
    EXPECT_TRUE(r.IsBound());
    EXPECT_EQ(&node, r.GetBoundPtr().m_self);
    EXPECT_EQ(&node, r.Get().m_self);
    EXPECT_EQ(&node, r.GetTransient().m_self);
}

TEST(Pref, TakesTheOidOfItsTargetOverOnceThereIsOne) {
    Node node;
    const prefbase r = Bound(node);
    EXPECT_FALSE(r.GetOid());
    MakePersistent(node, OID(5, 7));
    EXPECT_EQ(OID(5, 7), r.GetOid());
    EXPECT_FALSE(r.GetTransient());
    EXPECT_EQ(&node, r.Get().m_self);
}

TEST(Pref, GetTransientTakesTheOidOver) {
    Node node;
    prefbase r = Bound(node);
    MakePersistent(node, OID(5, 7));
    EXPECT_FALSE(r.GetTransient());
    r.ClearPtrOnly();
    EXPECT_EQ(OID(5, 7), r.GetOid());
}

TEST(Pref, WithAnOidIsTrueWhileUnbound) {
    const prefbase r = Unbound(OID(5, 7));
    EXPECT_TRUE(r);
    EXPECT_FALSE(r.IsBound());
    EXPECT_FALSE(r.GetBoundPtr());
    EXPECT_EQ(OID(5, 7), r.GetOid());
    EXPECT_FALSE(r.GetTransient());
}

TEST(Pref, ChangingTheTargetForgetsTheOldOne) {
    Node a;
    Node b;
    MakePersistent(a, OID(5, 7));
    prefbase r = Bound(a);
    EXPECT_EQ(OID(5, 7), r.GetOid());
    r.Set(ptr<IPersistable>(&b));
    EXPECT_FALSE(r.GetOid());
    EXPECT_EQ(&b, r.Get().m_self);
    r.SetOid(OID(8, 9));
    EXPECT_FALSE(r.IsBound());
    r.Clear();
    EXPECT_FALSE(r);
    r = Bound(a);
    (void)r.GetOid();
    r.ClearOidOnly();
    EXPECT_TRUE(r.IsBound());
    r.ClearPtrOnly();
    EXPECT_FALSE(r);
}

TEST(Pref, AnOidThatDisagreesWithTheTargetFails) {
    Node node;
    const prefbase r = Bound(node);
    MakePersistent(node, OID(5, 7));
    r.InitOid();
    MakePersistent(node, OID(6, 7));
    ExpectAssertion("m_oid == quna::GetOid(p)", "src/pref", [&] { r.InitOid(); });
}

TEST(Pref, SetFromAnObjectAsksItForItsInterface) {
    Node node;
    prefbase r = Unbound(OID(5, 7));
    r.Set2(ptr<IObject>(&node));
    EXPECT_EQ(&node, r.Get().m_self);
    EXPECT_EQ(IPersistable::Stubs<Node>::GetTable(), r.Get().Table());
    Mere mere;
    ExpectAssertion("!p || q", "src/pref", [&] { r.Set2(ptr<IObject>(&mere)); });
    EXPECT_EQ(&node, r.Get().m_self);
    r.Set2(null);
    EXPECT_FALSE(r);
}

// ---- Binding ----

TEST(Pref, DereferencingNullThrows) {
    const prefbase r;
    ExpectException<DerefNullPrefException>("Attempt to dereference null pref<T>", [&] { r.GetNotNull(); });
    const cref<Node> c;
    ExpectException<DerefNullPrefException>("Attempt to dereference null pref<T>", [&] { (void)c->m_value; });
    ExpectException<DerefNullPrefException>("Attempt to dereference null pref<T>", [&] { (void)(*c).m_value; });
    const pref<IPersistable> p;
    ExpectException<DerefNullPrefException>("Attempt to dereference null pref<T>", [&] { p->RepresentsSubTree(); });
}

TEST(Pref, AMissNeedsASpaceOnTheThread) {
    ASSERT_EQ(nullptr, GetThreadCSpace());
    const prefbase r = Unbound(OID(5, 7));
    ExpectAssertion("pspace", [&] { r.Get(); });
    ExpectAssertion("pspace", [&] { r.TryGet(); });
    ExpectAssertion("pspace", [&] { r.GetInMemory(); });
    ExpectAssertion("pspace", [&] { r.AsyncGet(); });
    EXPECT_EQ(OID(5, 7), r.GetOid());
    EXPECT_FALSE(r.IsBound());
}

// A named root whose next node names a third, all written; the space is open again with nothing in memory.
class StoredNodes {
public:
    StoredNodes() : m_space(m_store.OpenSpace("nodes")) {
        {
            const SpaceScope scope(m_space);
            auto* const third = NewObject<TestNode>("third");
            auto* const second = NewObject<TestNode>("second");
            auto* const first = NewObject<TestNode>("first");
            second->m_next = third;
            first->m_next = second;
            EXPECT_TRUE(AddPSpaceRoot("first", first));
            m_firstOid = quna::GetOid(ptr<const IPersistable>(first));
            m_secondOid = quna::GetOid(ptr<const IPersistable>(second));
        }
        m_store.CloseSpace(m_space);
        m_space = m_store.OpenSpace("nodes");
    }

    TestStore m_store;
    PSpace* m_space;
    OID m_firstOid;
    OID m_secondOid;
};

TEST(Pref, BindsWhenItIsFollowedAndNotBefore) {
    StoredNodes nodes;
    const SpaceScope scope(nodes.m_space);
    cref<TestNode> r;
    r.SetOid(nodes.m_firstOid);
    EXPECT_EQ(nullptr, r.GetInMemory());
    EXPECT_FALSE(r.IsBound());
    EXPECT_TRUE(r);
    EXPECT_EQ(xstring("first"), r->m_name);
    EXPECT_TRUE(r.IsBound());
    EXPECT_FALSE(r->m_next.IsBound());
    EXPECT_TRUE(r->m_next);
    EXPECT_EQ(nodes.m_secondOid, r->m_next.GetOid());
    cref<TestNode> again;
    again.SetOid(nodes.m_firstOid);
    EXPECT_EQ(r.Get(), again.GetInMemory());
    EXPECT_TRUE(again.IsBound());
    EXPECT_EQ(xstring("third"), r->m_next.TryGet()->m_next->m_name);
}

TEST(Pref, ADanglingOidThrowsOrIsNullAndStaysUnbound) {
    StoredNodes nodes;
    const SpaceScope scope(nodes.m_space, SharedRead);
    const OID gone(0x7FFFFFF0, nodes.m_firstOid.high_);
    const prefbase r = Unbound(gone);
    EXPECT_FALSE(r.TryGet());
    EXPECT_FALSE(r.GetInMemory());
    ExpectException<DerefDanglingOidException>("Dereferenced dangling OID = " + Text(gone), [&] { r.Get(); });
    ExpectException<DerefDanglingOidException>("Dereferenced dangling OID = " + Text(gone), [&] { r.GetNotNull(); });
    EXPECT_FALSE(r.IsBound());
    EXPECT_EQ(gone, r.GetOid());
}

TEST(Pref, BindsAgainAfterTheCollectorLetTheTargetGo) {
    StoredNodes nodes;
    const SpaceScope scope(nodes.m_space);
    TestNode* const first = cref<TestNode>(static_cast<TestNode*>(GetPSpaceRoot("first").m_self)).Get();
    AddGcRoot(ptr<const IObject>(first));
    EXPECT_EQ(xstring("second"), first->m_next->m_name);
    SynchronousGc(nodes.m_space->GetCSpace());
    EXPECT_FALSE(first->m_next.IsBound());
    EXPECT_EQ(nullptr, first->m_next.GetInMemory());
    EXPECT_EQ(nodes.m_secondOid, first->m_next.GetOid());
    EXPECT_EQ(xstring("second"), first->m_next->m_name);
}

TEST(Pref, TwoReadersBindOneReferenceConcurrently) {
    StoredNodes nodes;
    cref<TestNode> r;
    r.SetOid(nodes.m_firstOid);
    const TestNode* seen[2] = {};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i)
        readers.emplace_back([&, i] {
            const SpaceScope scope(nodes.m_space, SharedRead);
            const prefbase copy = r;
            seen[i] = r.Get();
            (void)copy.GetOid();
            EXPECT_EQ(xstring("second"), r->m_next->m_name);
        });
    for (std::thread& reader : readers) reader.join();
    EXPECT_NE(nullptr, seen[0]);
    EXPECT_EQ(seen[0], seen[1]);
}

TEST(Pref, FollowingTouchesTheTarget) {
    Node node;
    const int32 clock = g_touchClock.load();
    for (int form = 0; form < 5; ++form) {
        node.GetSysState().SetLastTouchedTime(clock - 5);
        const cref<Node> c(&node);
        const prefbase r = c;
        switch (form) {
        case 0: r.Get(); break;
        case 1: r.TryGet(); break;
        case 2: r.GetInMemory(); break;
        case 3: r.AsyncGet(); break;
        case 4: c.Get(); break;
        }
        EXPECT_NE(clock - 5, node.GetSysState().GetLastTouchedTime()) << form;
    }
    node.GetSysState().SetLastTouchedTime(clock - 5);
    (void)Bound(node).GetBoundPtr();
    EXPECT_EQ(clock - 5, node.GetSysState().GetLastTouchedTime());
}

TEST(Pref, CastAsksTheTargetAndNamesWhatItDoesNotOffer) {
    Node node;
    const prefbase r = Bound(node);
    EXPECT_EQ(&node, r.qiGet(GetReflectedInterface<IObject>()).m_self);
    EXPECT_EQ(&node, r.qiGetNotNull(GetReflectedInterface<IPersistable>()).m_self);
    EXPECT_EQ(&node, r.qiGetBoundPtr(GetReflectedInterface<IPersistable>()).m_self);
    EXPECT_EQ(&node, r.qiGetInMemory(GetReflectedInterface<IPersistable>()).m_self);
    EXPECT_EQ(&node, r.qiTryGet(GetReflectedInterface<IPersistable>()).m_self);
    EXPECT_EQ(&node, r.qiAsyncGet(GetReflectedInterface<IPersistable>()).m_self);
    ExpectException<TypeMismatchException>("Type mismatch during deserialisation : class quna::pref_test::Node "
                                           "doesn't support interface quna::IPrefVisitor",
                                           [&] { r.qiGet(GetReflectedInterface<IPrefVisitor>()); });
    EXPECT_FALSE(prefbase::Cast(null, GetReflectedInterface<IPersistable>()));
    ExpectAssertion("p", "src/pref", [] { prefbase::CastNonNull(null, GetReflectedInterface<IPersistable>()); });
}

TEST(Pref, TypedFormsTakeAndGiveTheirType) {
    Node node(3);
    cref<Node> c(&node);
    EXPECT_EQ(&node, c.Get());
    EXPECT_EQ(&node, c.GetNotNull());
    EXPECT_EQ(&node, c.GetBoundPtr());
    EXPECT_EQ(&node, c.GetInMemory());
    EXPECT_EQ(&node, c.TryGet());
    EXPECT_EQ(&node, c.AsyncGet());
    EXPECT_EQ(3, c->m_value);
    EXPECT_EQ(3, (*c).m_value);
    c = nullptr;
    EXPECT_FALSE(c);
    c = &node;
    c = null;
    EXPECT_FALSE(c);

    pref<IPersistable> p = ptr<IPersistable>(&node);
    EXPECT_EQ(&node, p.Get().m_self);
    EXPECT_TRUE(p->RepresentsSubTree());
    EXPECT_TRUE((*p).RepresentsSubTree());
    p = null;
    EXPECT_FALSE(p);
    p = ptr<IPersistable>(&node);
    p = nullptr;
    EXPECT_FALSE(p);

    pref<IObject> q;
    q = ptr<IObject>(&node);
    EXPECT_EQ(&node, q.Get().m_self);
    Mere mere;
    ExpectAssertion("!p || q", "src/pref", [&] { q = ptr<IObject>(&mere); });

    cref<void> v;
    v.Set(&node);
    EXPECT_EQ(&node, v.Get());
    EXPECT_EQ(&node, v.GetNotNull());
    v = nullptr;
    EXPECT_FALSE(v);
    ExpectAssertion("!p", "src/pref", [&] { v = static_cast<void*>(&node); });
}

// ---- Comparison ----

TEST(Pref, EqualReferencesNameTheSameObject) {
    Node a;
    Node b;
    EXPECT_TRUE(prefbase() == prefbase());
    EXPECT_TRUE(Bound(a) == Bound(a));
    EXPECT_TRUE(Bound(a) != Bound(b));
    EXPECT_TRUE(Bound(a) != prefbase());
    EXPECT_TRUE(Unbound(OID(5, 7)) == Unbound(OID(5, 7)));
    EXPECT_TRUE(Unbound(OID(5, 7)) != Unbound(OID(5, 8)));
    EXPECT_TRUE(Unbound(OID(5, 7)) != prefbase());
    EXPECT_TRUE(prefbase() != Unbound(OID(5, 7)));
    EXPECT_TRUE(Bound(a) != Unbound(OID(5, 7)));
    MakePersistent(a, OID(5, 7));
    EXPECT_TRUE(Bound(a) == Unbound(OID(5, 7)));
}

TEST(Pref, TransientReferencesOrderAsNull) {
    Node a;
    Node b;
    EXPECT_FALSE(Bound(a) < Bound(b));
    EXPECT_FALSE(Bound(b) < Bound(a));
    EXPECT_FALSE(prefbase() < Bound(a));
    EXPECT_TRUE(prefbase() < Unbound(OID(5, 7)));
    EXPECT_TRUE(Unbound(OID(9, 6)) < Unbound(OID(5, 7)));
    MakePersistent(a, OID(5, 7));
    EXPECT_TRUE(Bound(b) < Bound(a));
}

TEST(Pref, ComparesWithAPointerWithoutBinding) {
    Node a;
    Node b;
    Mere mere;
    const ptr<const IObject> pa(&a);
    EXPECT_TRUE(Bound(a) == pa);
    EXPECT_TRUE(Bound(b) != pa);
    EXPECT_TRUE(Bound(a) != ptr<const IObject>());
    EXPECT_TRUE(prefbase() == ptr<const IObject>());
    EXPECT_TRUE(prefbase() != pa);
    EXPECT_TRUE(Unbound(OID(5, 7)) != ptr<const IObject>());
    EXPECT_TRUE(Unbound(OID(5, 7)) != pa);
    MakePersistent(a, OID(5, 7));
    EXPECT_TRUE(Unbound(OID(5, 7)) == pa);
    EXPECT_TRUE(Unbound(OID(5, 8)) != pa);
    EXPECT_TRUE(Unbound(OID(5, 7)) != ptr<const IObject>(&mere));
    EXPECT_TRUE(cref<Node>(&a) == &a);
    EXPECT_TRUE(cref<Node>() == nullptr);
    EXPECT_TRUE(cref<Node>() == null);
    const prefbase r = Bound(a);
    EXPECT_TRUE(r == pa);
    MakePersistent(a, OID(6, 7)); // reading the identity would show the change
    EXPECT_TRUE(r == pa);
}

TEST(Pref, ValuesAreComparedByTheOperationsOfTheClass) {
    Node one(1);
    Node alsoOne(1);
    Node two(2);
    EXPECT_TRUE(IsEqualPrefdValues(Bound(one), Bound(alsoOne)));
    EXPECT_FALSE(IsEqualPrefdValues(Bound(one), Bound(two)));
    EXPECT_TRUE(IsLessPrefdValues(Bound(one), Bound(two)));
    EXPECT_FALSE(IsLessPrefdValues(Bound(two), Bound(one)));
    EXPECT_TRUE(IsEqualNonNullPrefdValues(Bound(one), Bound(alsoOne)));
    EXPECT_TRUE(IsLessNonNullPrefdValues(Bound(one), Bound(two)));
}

TEST(Pref, NullValuesAreEqualAndSortFirst) {
    Node one(1);
    EXPECT_TRUE(IsEqualPrefdValues(prefbase(), prefbase()));
    EXPECT_FALSE(IsEqualPrefdValues(prefbase(), Bound(one)));
    EXPECT_FALSE(IsEqualPrefdValues(Bound(one), prefbase()));
    EXPECT_FALSE(IsLessPrefdValues(prefbase(), prefbase()));
    EXPECT_TRUE(IsLessPrefdValues(prefbase(), Bound(one)));
    EXPECT_FALSE(IsLessPrefdValues(Bound(one), prefbase()));
    ExpectAssertion("x", "src/pref", [&] { IsEqualNonNullPrefdValues(prefbase(), Bound(one)); });
    ExpectAssertion("y", "src/pref", [&] { IsEqualNonNullPrefdValues(Bound(one), prefbase()); });
    ExpectAssertion("x", "src/pref", [&] { IsLessNonNullPrefdValues(prefbase(), prefbase()); });
    ExpectAssertion("y", "src/pref", [&] { IsLessNonNullPrefdValues(Bound(one), prefbase()); });
}

TEST(Pref, ObjectsOfDifferentClassesAreUnequalAndHaveNoOrder) {
    Node node;
    Other other;
    EXPECT_FALSE(IsEqualPrefdValues(Bound(node), Bound(other)));
    EXPECT_FALSE(IsEqualNonNullPrefdValues(Bound(node), Bound(other)));
    ExpectAssertion("rcx == rcy", "src/pref", [&] { IsLessPrefdValues(Bound(node), Bound(other)); });
    ExpectAssertion("rcx == rcy", "src/pref", [&] { IsLessNonNullPrefdValues(Bound(node), Bound(other)); });
}

TEST(Pref, AClassWithoutComparisonIsRefused) {
    Other a;
    Other b;
    ExpectAssertion("rcx->m_ops.HasEqual()", "src/pref", [&] { IsEqualPrefdValues(Bound(a), Bound(b)); });
    ExpectAssertion("rcx->m_ops.HasLess()", "src/pref", [&] { IsLessPrefdValues(Bound(a), Bound(b)); });
}

TEST(Pref, VectorsOfReferencesAreComparedPairByPair) {
    Node one(1);
    Node alsoOne(1);
    Node two(2);
    xvector<prefbase> x;
    xvector<prefbase> y;
    EXPECT_TRUE(IsEqualMVectors(x, y));
    x.push_back(Bound(one));
    EXPECT_FALSE(IsEqualMVectors(x, y));
    y.push_back(Bound(alsoOne));
    EXPECT_TRUE(IsEqualMVectors(x, y));
    x.push_back(Bound(two));
    y.push_back(Bound(one));
    x.push_back(prefbase()); // behind the first difference nobody looks
    y.push_back(prefbase());
    EXPECT_FALSE(IsEqualMVectors(x, y));
    y[1] = Bound(two);
    ExpectAssertion("x", "src/pref", [&] { IsEqualMVectors(x, y); });
}

// ---- Records and text ----

TEST(Pref, IsStoredAsItsOid) {
    EXPECT_EQ(Bytes{0}, Serialised(prefbase()));
    EXPECT_EQ((Bytes{7, 5}), Serialised(Unbound(OID(5, 7))));
    Node node;
    MakePersistent(node, OID(5, 7));
    EXPECT_EQ((Bytes{7, 5}), Serialised(Bound(node)));
    EXPECT_EQ((Bytes{7, 5}), Serialised(cref<Node>(&node)));
}

TEST(Pref, WritingATransientTargetIsTracedAndFails) {
    Node node;
    const prefbase r = Bound(node);
    const TraceCatcher trace;
    ExpectAssertion("0", "src/pref", [&] { Serialised(r); });
    EXPECT_EQ("*** ERROR Object " + ObjectText(&node) + " being written to disk without an oid\n", trace.m_text);
}

TEST(Pref, ReadingDiscardsTheBinding) {
    Node node;
    prefbase r = Bound(node);
    Bytes bytes{7, 5};
    bytes.resize(80);
    const InputArchive end = InputArchive(bytes.data()) >> r;
    EXPECT_EQ(bytes.data() + 2, end.ptr());
    EXPECT_FALSE(r.IsBound());
    EXPECT_EQ(OID(5, 7), r.GetOid());
    bytes[0] = 0;
    EXPECT_EQ(bytes.data() + 1, r.Deserialise(bytes.data(), false).ptr());
    EXPECT_FALSE(r);
}

TEST(Pref, PrintsItsOidAndItsTarget) {
    Node node;
    EXPECT_EQ("null", Text(prefbase()));
    EXPECT_EQ("00000007:00000005", Text(Unbound(OID(5, 7))));
    EXPECT_EQ(ObjectText(&node), Text(Bound(node)));
    MakePersistent(node, OID(5, 7));
    EXPECT_EQ("00000007:00000005:" + ObjectText(&node), Text(Bound(node)));
}

TEST(Pref, PrintPrefShowsTheTargetToo) {
    const prefbase none;
    StringStream nothing;
    PrintPref(nothing, &none);
    EXPECT_STREQ("nul", nothing.c_str());
    Node node;
    const prefbase r = Bound(node);
    StringStream os;
    PrintPref(os, &r);
    StringStream instance;
    PrintInstance(instance, ptr<const IObject>(&node), PrintTypeSettings());
    EXPECT_EQ(ObjectText(&node) + " " + instance.c_str(), os.c_str());
}

TEST(Pref, TheHooksSerialiseAsTheReferenceDoes) {
    Sink sink;
    prefbase r = Unbound(OID(5, 7));
    {
        Archive ar(&sink);
        SerialisePref(ar, &r);
    }
    EXPECT_EQ((Bytes{7, 5}), sink.m_bytes);
    sink.m_bytes.resize(80);
    prefbase back;
    EXPECT_EQ(sink.m_bytes.data() + 2, DeserialisePref(sink.m_bytes.data(), &back).ptr());
    EXPECT_EQ(OID(5, 7), back.GetOid());
}

// ---- The collector's edges ----

class EdgeVisitor final : public IObjectVisitor {
public:
    void VisitObject(ptr<const IObject> object) override { m_strong.push_back(object.m_self); }
    void VisitEvictablePtr(AnyInterface* p) override { m_evictable.push_back(p); }

    std::vector<const void*> m_strong;
    std::vector<AnyInterface*> m_evictable;
};

TEST(Pref, TheEdgeToATransientObjectIsStrongAndTheEdgeToAPersistentOneEvictable) {
    Node node;
    const prefbase r = Bound(node);
    EdgeVisitor visitor;
    visitor << r;
    EXPECT_EQ(std::vector<const void*>{&node}, visitor.m_strong);
    EXPECT_TRUE(visitor.m_evictable.empty());

    MakePersistent(node, OID(5, 7));
    visitor = EdgeVisitor();
    visitor << r;
    EXPECT_TRUE(visitor.m_strong.empty());
    ASSERT_EQ(1u, visitor.m_evictable.size());
    EXPECT_EQ(&node, LoadEvictableWords(visitor.m_evictable[0]).m_self);

    StoreEvictableWords(visitor.m_evictable[0], AnyInterface());
    EXPECT_FALSE(r.IsBound());
    EXPECT_EQ(OID(5, 7), r.GetOid());
}

TEST(Pref, AnUnboundReferenceIsAnEvictableEdge) {
    const prefbase r = Unbound(OID(5, 7));
    EdgeVisitor visitor;
    r.VisitObjects(visitor);
    EXPECT_EQ(1u, visitor.m_evictable.size());
    EXPECT_TRUE(visitor.m_strong.empty());
}

// ---- Arrays at any address ----

// `count` references, `offset` bytes behind an aligned address and `stride` bytes apart.
class PackedPrefs {
public:
    PackedPrefs(std::ptrdiff_t offset, ssize_t stride, ssize_t count)
        : m_stride(stride), m_memory(static_cast<std::size_t>(offset + stride * count + 8)),
          m_first(m_memory.data() + offset) {
        GetTypeOps<prefbase>().ConstructArray(m_first, stride, count);
    }

    octet_t* operator[](ssize_t i) { return m_first + m_stride * i; }

private:
    const ssize_t m_stride;
    std::vector<octet_t> m_memory;
    octet_t* const m_first;
};

TEST(Pref, ItsTableOffersWhatAContainerNeeds) {
    const TypeOps& ops = GetTypeOps<prefbase>();
    EXPECT_EQ(24, ops.m_size);
    EXPECT_TRUE(ops.HasConstruct() && ops.HasCopyConstruct() && ops.HasAssign() && ops.HasDestruct());
    EXPECT_TRUE(ops.HasVisitPrefs() && ops.HasVisitObjects() && ops.HasSerialise() && ops.HasDeserialise());
    EXPECT_TRUE(ops.HasLess() && ops.HasEqual() && ops.HasPrint() && ops.HasLowerBound() && ops.HasUpperBound());
    EXPECT_EQ(&ops, &GetTypeOps<cref<Node>>());
    EXPECT_EQ(&ops, &GetTypeOps<pref<IPersistable>>());
}

TEST(Pref, ArraysWorkAtAnyAddress) {
    const TypeOps& ops = GetTypeOps<prefbase>();
    for (const std::ptrdiff_t offset : {0, 1, 3, 4, 7}) {
        PackedPrefs array(offset, 31, 3);
        EXPECT_FALSE(LoadPref(array[0]));
        StorePref(array[1], Unbound(OID(5, 7)));
        const prefbase nine = Unbound(OID(9, 7));
        ops.AssignVariable(array[2], &nine);
        EXPECT_EQ(OID(5, 7), LoadPref(array[1]).GetOid());
        EXPECT_EQ(OID(9, 7), LoadPref(array[2]).GetOid());
        EXPECT_TRUE(ops.Less(array[1], array[2]));
        EXPECT_TRUE(ops.Equal(array[1], array[1]));
        EXPECT_EQ(1, ops.LowerBound(array[0], 31, 3, array[1]));
        EXPECT_EQ(2, ops.UpperBound(array[0], 31, 3, array[1]));

        Sink sink;
        {
            Archive ar(&sink);
            ops.SerialiseArray(ar, array[0], 31, 3);
        }
        EXPECT_EQ((Bytes{0, 7, 5, 7, 9}), sink.m_bytes);
        sink.m_bytes.resize(80);
        PackedPrefs back(7 - offset, 25, 3);
        ops.DeserialiseArray(sink.m_bytes.data(), back[0], 25, 3);
        EXPECT_EQ(OID(9, 7), LoadPref(back[2]).GetOid());
        ops.CopyConstructArray(back[0], 25, array[0], 31, 3);
        EXPECT_EQ(OID(5, 7), LoadPref(back[1]).GetOid());
        ops.DestructArray(array[0], 31, 3);
    }
}

TEST(Pref, ThePlaceOfAPackedReferenceKeepsTheIdentityThatTheCollectorReliesOn) {
    Node node;
    MakePersistent(node, OID(5, 7));
    for (const std::ptrdiff_t offset : {0, 1, 4}) {
        PackedPrefs array(offset, 24, 1);
        StorePref(array[0], Bound(node));
        EdgeVisitor visitor;
        GetTypeOps<prefbase>().VisitObjectsInVariable(visitor, array[0]);
        ASSERT_EQ(1u, visitor.m_evictable.size());
        EXPECT_EQ(static_cast<void*>(array[0] + 8), visitor.m_evictable[0]);
        StoreEvictableWords(visitor.m_evictable[0], AnyInterface());
        EXPECT_FALSE(LoadPref(array[0]).IsBound());
        EXPECT_EQ(OID(5, 7), LoadPref(array[0]).GetOid());
    }
}

// Aims each reference at an object, as the deep copy does, or only asks it for its OID.
class AimingVisitor final : public IPrefVisitor {
public:
    explicit AimingVisitor(Node* target) : m_target(target) {}
    void VisitPref(const prefbase& pref) override {
        (void)pref.GetOid();
        if (m_target) const_cast<prefbase&>(pref).Set(ptr<IPersistable>(m_target));
    }
    void VisitParentPref(const prefbase&) override {}

private:
    Node* const m_target;
};

TEST(Pref, AVisitorCanAimAPackedReferenceElsewhereButFillsNothingIn) {
    Node a;
    Node b;
    PackedPrefs array(3, 24, 1);
    StorePref(array[0], Bound(a));
    MakePersistent(a, OID(5, 7));
    octet_t before[24];
    std::memcpy(before, array[0], sizeof before);

    AimingVisitor asking(nullptr);
    GetTypeOps<prefbase>().VisitPrefsInVariable(asking, array[0]);
    EXPECT_EQ(0, std::memcmp(before, array[0], sizeof before));

    AimingVisitor aiming(&b);
    GetTypeOps<prefbase>().VisitPrefsInVariable(aiming, array[0]);
    EXPECT_EQ(&b, LoadPref(array[0]).Get().m_self);
}

TEST(Pref, OnlyAChangeOfTheTargetCountsAsAChange) {
    Node a;
    Node b;
    MakePersistent(a, OID(5, 7));
    prefbase both = Bound(a);
    (void)both.GetOid();
    EXPECT_FALSE(ShouldStoreVisited(Bound(a), Bound(a)));
    EXPECT_FALSE(ShouldStoreVisited(Bound(a), both));
    EXPECT_FALSE(ShouldStoreVisited(Unbound(OID(5, 7)), both));
    EXPECT_FALSE(ShouldStoreVisited(prefbase(), prefbase()));
    EXPECT_TRUE(ShouldStoreVisited(both, Bound(b)));
    EXPECT_TRUE(ShouldStoreVisited(Bound(a), Bound(b)));
    EXPECT_TRUE(ShouldStoreVisited(prefbase(), Bound(b)));
    EXPECT_TRUE(ShouldStoreVisited(prefbase(), Unbound(OID(5, 7))));
    EXPECT_TRUE(ShouldStoreVisited(Unbound(OID(5, 7)), Unbound(OID(6, 7))));
    EXPECT_TRUE(ShouldStoreVisited(both, prefbase()));
}

} // namespace
} // namespace pref_test
} // namespace quna

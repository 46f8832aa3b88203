#include "qxObject/Interface.h"

#include "qxObject/IObject.h"
#include "qxObject/IObjectVisitor.h"
#include "tests/qxObject/ReflectionTestClasses.h"

#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using demo::INumber;
using demo::Number;

TEST(Interface, APointerReachesTheOperationsOfItsInterfaceAndOfTheRoot) {
    Number number;
    const ptr<INumber> p = &number;
    EXPECT_EQ(p->GetNumber(), 42);
    EXPECT_EQ((*p).GetNumber(), 42);
    EXPECT_EQ(p->GetReflectedClass(), &GetReflectedClass<Number>());
    EXPECT_EQ(&p->GetSysState(), &number.m_objSysState);
}

TEST(Interface, AnInterfaceValueAndAPointerAreTwoWords) {
    static_assert(sizeof(AnyInterface) == 16 && sizeof(ptr<IObject>) == 16 && sizeof(ptr<const IObject>) == 16 &&
                  sizeof(IObject) == 16);
    static_assert(std::is_trivially_copyable_v<ptr<IObject>>);
    Number number;
    ptr<INumber> p = &number;
    AnyInterface& any = p;
    EXPECT_EQ(any.m_self, &number);
    EXPECT_EQ(any.m_table, p.m_table);
}

TEST(Interface, PointersAreNullUntilTheyAreSet) {
    ptr<INumber> p;
    ptr<const INumber> q;
    EXPECT_FALSE(p);
    EXPECT_FALSE(q);
    EXPECT_EQ(p.m_self, nullptr);
    EXPECT_EQ(p.m_table, nullptr);
    EXPECT_TRUE(p == null);
    EXPECT_TRUE(p == nullptr);
    EXPECT_TRUE(null == q);
    EXPECT_FALSE(p != null);

    Number number;
    p = &number;
    EXPECT_TRUE(p);
    EXPECT_TRUE(p != null);
    p = null;
    EXPECT_FALSE(p);
    p = &number;
    p = nullptr;
    EXPECT_EQ(p.m_table, nullptr);
}

TEST(Interface, ANullObjectMakesANullPointer) {
    Number* const none = nullptr;
    const ptr<INumber> p = none;
    EXPECT_FALSE(p);
    EXPECT_EQ(p.m_table, nullptr);
}

TEST(Interface, PointersConvertToABaseInterfaceAndToConstWithoutChangeOfBits) {
    Number number;
    const ptr<INumber> p = &number;
    const ptr<IObject> o = p;
    const ptr<const IObject> c = p;
    const ptr<const IObject> d = ptr<const INumber>(p);
    EXPECT_EQ(o.m_self, p.m_self);
    EXPECT_EQ(o.m_table, p.m_table);
    EXPECT_EQ(c.m_table, p.m_table);
    EXPECT_TRUE(o == p);
    EXPECT_TRUE(c == o);
    EXPECT_TRUE(d == c);
    EXPECT_EQ(c->GetReflectedClass(), &GetReflectedClass<Number>());
}

TEST(Interface, NothingConvertsDownwardsOrLosesConst) {
    static_assert(!std::is_convertible_v<ptr<IObject>, ptr<INumber>>);
    static_assert(!std::is_convertible_v<ptr<const INumber>, ptr<INumber>>);
    static_assert(!std::is_convertible_v<const Number*, ptr<INumber>>);
    static_assert(!std::is_convertible_v<int*, ptr<IObject>>);
    static_assert(!std::is_convertible_v<ptr<IObject>, bool>);
    static_assert(!std::is_convertible_v<demo::Shape*, ptr<INumber>>);
    static_assert(std::is_convertible_v<const Number*, ptr<const IObject>>);
}

TEST(Interface, PointersComeFromSelfAndTableAndFromInterfaceValues) {
    Number number;
    const INumber value = INumber::CoerceFrom(&number);
    const IObject root = value;
    const ptr<IObject> a(value);
    const ptr<IObject> b(root);
    const ptr<IObject> c(&number, IObject::Stubs<Number>::GetTable());
    const ptr<IObject> d(a.m_self, a.m_table);
    EXPECT_TRUE(a == b);
    EXPECT_TRUE(b == c);
    EXPECT_TRUE(c == d);
    EXPECT_EQ(c->GetReflectedClass(), &GetReflectedClass<Number>());
}

TEST(Interface, QicastAsksTheObjectForAnInterface) {
    Number number;
    demo::Shape shape;
    const ptr<IObject> o = &number;
    EXPECT_EQ(qicast<INumber>(o)->GetNumber(), 42);
    EXPECT_FALSE(qicast<INumber>(ptr<IObject>(&shape)));
    EXPECT_FALSE(qicast<INumber>(ptr<IObject>()));
    EXPECT_TRUE(qicast<IObject>(ptr<INumber>(&number)) == o);
    static_assert(std::is_same_v<decltype(qicast<INumber>(o)), ptr<INumber>>);
    static_assert(std::is_same_v<decltype(qicast<INumber>(ptr<const IObject>(o))), ptr<const INumber>>);
    static_assert(std::is_same_v<decltype(qicast<const INumber>(o)), ptr<const INumber>>);
}

TEST(Interface, BindInterfaceAnswersAsQueryInterfaceDoes) {
    Number number;
    const ptr<IObject> o = &number;
    EXPECT_EQ(o->BindInterface(GetReflectedInterface<INumber>()).m_self, &number);
}

TEST(IObject, TheTableHoldsItsSevenFunctionsInOrderAndIsOneOfAClass) {
    Number number;
    EXPECT_EQ(IObject::CoerceFrom(&number).m_table, IObject::Stubs<Number>::GetTable());
    static_assert(sizeof(IObject::FnTable) == 7 * sizeof(void*));
    static_assert(offsetof(IObject::FnTable, QueryInterface) == 0 && offsetof(IObject::FnTable, BindInterface) == 8);
    static_assert(offsetof(IObject::FnTable, GetReflectedClass) == 16 &&
                  offsetof(IObject::FnTable, VisitObjects) == 24);
    static_assert(offsetof(IObject::FnTable, OnGarbageCollect) == 32 && offsetof(IObject::FnTable, Destroy) == 40);
    static_assert(offsetof(IObject::FnTable, GetSysState) == 48);
}

TEST(IObject, TheSystemStateOfANewObjectIsZero) {
    const Number number;
    const ObjSysState& state = number.GetSysState();
    EXPECT_EQ(state.m_cspace, nullptr);
    EXPECT_FALSE(state.marked_);
    EXPECT_EQ(state.objflags_, 0u);
    EXPECT_EQ(state.m_size, 0);
    EXPECT_EQ(state.GetLastTouchedTime(), 0);
}

TEST(IObject, FlagsAreSetAndClearedByBit) {
    Number number;
    ObjSysState& state = number.GetSysState();
    SetIObjectFlag(ptr<const IObject>(&number), 2, true);
    SetIObjectFlag(ptr<const IObject>(&number), 8, true);
    EXPECT_TRUE(state.GetFlag(2));
    EXPECT_FALSE(state.GetFlag(4));
    EXPECT_EQ(state.objflags_, 10u);
    state.SetFlag(4);
    state.ClearFlag(8);
    state.SetFlag(2, false);
    EXPECT_EQ(state.objflags_, 4u);
}

TEST(IObject, CopyingAnObjectCopiesItsValueAndNotItsSystemState) {
    Number from;
    from.m_number = 7;
    from.GetSysState().SetFlag(2);
    from.GetSysState().m_size = 100;

    Number copy(from);
    EXPECT_EQ(copy.m_number, 7);
    EXPECT_EQ(copy.GetSysState().objflags_, 0u);
    EXPECT_EQ(copy.GetSysState().m_size, 0);

    Number target;
    target.GetSysState().SetFlag(8);
    target = from;
    EXPECT_EQ(target.m_number, 7);
    EXPECT_EQ(target.GetSysState().objflags_, 8u);
}

TEST(IObject, TheStateStandsRightBehindTheVirtualTablePointer) {
    const Number number;
    EXPECT_EQ(reinterpret_cast<const char*>(&number.m_objSysState) - reinterpret_cast<const char*>(&number), 8);
    EXPECT_EQ(sizeof(ObjSysState), 32u);
}

TEST(IObject, DestroyDeletesThroughTheVirtualDestructor) {
    struct Watched : Number {
        explicit Watched(bool& gone) : m_gone(gone) {}
        ~Watched() noexcept(false) override { m_gone = true; }
        bool& m_gone;
    };
    bool gone = false;
    const ptr<IObject> o = static_cast<Number*>(new Watched(gone));
    o->OnGarbageCollect();
    EXPECT_FALSE(gone);
    o->Destroy();
    EXPECT_TRUE(gone);
}

TEST(IObjectVisitor, TheOperatorReportsAStrongEdge) {
    class Recorder : public IObjectVisitor {
    public:
        void VisitObject(ptr<const IObject> object) override { m_objects.push_back(object.m_self); }
        void VisitEvictablePtr(AnyInterface* p) override { *p = null; }
        std::vector<const void*> m_objects;
    };
    Number number;
    ptr<INumber> p = &number;
    Recorder recorder;
    IObjectVisitor& visitor = recorder;
    visitor << p << ptr<const IObject>(&number);
    EXPECT_EQ(recorder.m_objects, (std::vector<const void*>{&number, &number}));

    EXPECT_EQ(AsIObject(p)->GetReflectedClass(), &GetReflectedClass<Number>());
    visitor.VisitEvictablePtr(&p);
    EXPECT_FALSE(p);
}

} // namespace
} // namespace quna

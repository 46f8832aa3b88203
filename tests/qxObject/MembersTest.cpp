#include "qxObject/Members.h"

#include "qxObject/IObjectVisitor.h"
#include "qxObject/ReflectedClass.h"
#include "tests/qxObject/ReflectionTestClasses.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using demo::Point;
using demo::Shape;

class Recorder : public IObjectVisitor {
public:
    void VisitObject(ptr<const IObject> object) override { m_objects.push_back(object.m_self); }
    void VisitEvictablePtr(AnyInterface*) override {}
    std::vector<const void*> m_objects;
};

TEST(Members, TheListGivesNamesAndTheNewestSchema) {
    std::string names;
    ForEachMember<Shape>([&](const auto& member) { names += std::string(member.m_name) + " "; });
    EXPECT_EQ(names, "name points colour next ");
    static_assert(NumMembers<Shape>() == 4);
    static_assert(LatestSchema<Shape>() == 2);
    static_assert(LatestSchema<Point>() == 1);
    static_assert(!HasMembers<int> && !HasMembers<demo::Number> && HasMembers<Point>);
}

TEST(Members, AMemberBelongsToTheSchemasFromItsFirstToItsLast) {
    constexpr auto since2 = Member("x", &Point::m_x, 2);
    EXPECT_FALSE(since2.IsInSchema(1));
    EXPECT_TRUE(since2.IsInSchema(2));
    EXPECT_TRUE(since2.IsInSchema(9));
    constexpr auto until3 = since2.Until(3);
    EXPECT_TRUE(until3.IsInSchema(3));
    EXPECT_FALSE(until3.IsInSchema(4));
    constexpr auto removed = Removed<int32>(1, 2);
    EXPECT_TRUE(removed.IsInSchema(2));
    EXPECT_FALSE(removed.IsInSchema(3));
}

TEST(Members, EqualityComparesEachField) {
    const TypeOps& ops = GetTypeOps<Shape>();
    Shape a;
    Shape b;
    a.m_name = b.m_name = "square";
    a.m_points = b.m_points = {{1, 2}};
    EXPECT_TRUE(ops.Equal(&a, &b));
    b.m_points[0].m_y = 3;
    EXPECT_FALSE(ops.Equal(&a, &b));
    b = a;
    EXPECT_TRUE(ops.Equal(&a, &b));
    b.m_colour = demo::EColour::Green;
    EXPECT_FALSE(ops.Equal(&a, &b));
}

TEST(Members, OrderIsByTheFieldsInTurnWhereEachHasOne) {
    const TypeOps& ops = GetTypeOps<Point>();
    const Point a{1, 9};
    const Point b{2, 0};
    const Point c{2, 1};
    EXPECT_TRUE(ops.Less(&a, &b));
    EXPECT_TRUE(ops.Less(&b, &c));
    EXPECT_FALSE(ops.Less(&c, &b));
    EXPECT_FALSE(ops.Less(&b, &b));
    EXPECT_FALSE(GetTypeOps<Shape>().HasLess()); // pointers have no order
}

TEST(Members, PrintingShowsNamesAndValues) {
    const Point p{1, -2};
    StringStream os(32);
    GetTypeOps<Point>().PrintVariable(os, &p);
    EXPECT_STREQ(os.c_str(), "{x = 1, y = -2}");
}

TEST(Members, VisitObjectsReportsTheFieldsOfAnObject) {
    Shape first;
    Shape second;
    first.m_next = &second;
    Recorder recorder;
    const ptr<IObject> o = &first;
    o->VisitObjects(recorder);
    EXPECT_EQ(recorder.m_objects, (std::vector<const void*>{&second}));
    EXPECT_FALSE(GetTypeOps<Point>().HasVisitObjects());
}

TEST(Members, TheRecordListsTheFieldsWithTypeAddressAndSchema) {
    const ReflectedClass& rc = GetReflectedClass<Shape>();
    ASSERT_EQ(rc.m_numFields, 4);
    EXPECT_STREQ(rc.m_fields[0].m_name, "name");
    EXPECT_STREQ(rc.m_fields[2].m_name, "colour");
    EXPECT_EQ(rc.m_fields[2].m_sinceSchema, 2);
    StringStream os(32);
    os << rc.m_fields[1].m_typeFn();
    EXPECT_STREQ(os.c_str(), "xvector<demo::Point>");
    Shape shape;
    EXPECT_EQ(rc.m_fields[1].AddressIn(&shape), &shape.m_points);
    EXPECT_EQ(rc.m_fields[3].m_addressFn(&shape), &shape.m_next);
}

TEST(Members, TheRecordSaysWhatTheClassIs) {
    const ReflectedClass& rc = GetReflectedClass<Shape>();
    EXPECT_STREQ(rc.GetName(), "demo::Shape");
    EXPECT_EQ(rc.GetSize(), static_cast<ssize_t>(sizeof(Shape)));
    EXPECT_EQ(rc.m_flags, REFLECTED_CLASS_FOR_APPLICATIONS);
    EXPECT_EQ(rc.m_createFn, &Shape::sfnCreateInstance);
    EXPECT_EQ(rc.m_IObjectFnTable, IObject::Stubs<Shape>::GetTable());
    EXPECT_STREQ(rc.m_interfaces[0], "quna::IObject");
    EXPECT_EQ(rc.m_numIndirectInterfaces + rc.m_numDirectInterfaces, 1);
    EXPECT_TRUE(rc.m_ops.HasCopyConstruct() && rc.m_ops.HasDestruct());

    const ReflectedClass& point = GetReflectedClass<Point>();
    EXPECT_FALSE(point.CanCreate());
    EXPECT_EQ(point.m_IObjectFnTable, nullptr);
}

TEST(Members, TheRecordCreatesInstances) {
    const ReflectedClass& rc = GetReflectedClass<Shape>();
    ASSERT_TRUE(rc.CanCreate());
    const ptr<IObject> o = rc.Create();
    EXPECT_EQ(o->GetReflectedClass(), &rc);
    EXPECT_EQ(o->GetSysState().m_cspace, nullptr);
    o->Destroy();
    EXPECT_FALSE(GetReflectedClass<Point>().Create());
}

TEST(Members, ACopyMadeThroughTheRecordHasAFreshSystemState) {
    const ReflectedClass& rc = GetReflectedClass<Shape>();
    Shape shape;
    shape.m_name = "round";
    shape.GetSysState().SetFlag(2);
    void* const memory = ::operator new(static_cast<std::size_t>(rc.m_size));
    rc.m_ops.CopyConstructArray(memory, 0, &shape, 0, 1);
    const ptr<IObject> copy(memory, rc.m_IObjectFnTable);
    EXPECT_EQ(copy->GetSysState().objflags_, 0u);
    EXPECT_EQ(copy->GetReflectedClass(), &rc);
    EXPECT_TRUE(rc.m_ops.Equal(copy.m_self, &shape));
    copy->Destroy();
}

} // namespace
} // namespace quna

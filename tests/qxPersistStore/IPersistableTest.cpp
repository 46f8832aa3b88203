#include "qxPersistStore/IPersistable.h"

#include "qxObject/CSpace.h"
#include "qxObject/Reflect.h"
#include "qxPersistStore/IPrefVisitor.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/Tracer.h"
#include "tests/support/ExpectAssertion.h"

#include <cstddef>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

namespace quna {
namespace ipersistable_test {

// Declares nothing but its record.
class Plain : public PersistableMixin<IObjectBaseMixin<Plain, EmptyBase>> {
public:
    void Serialise(Archive& ar) const { ar << m_value; }
    InputArchive Deserialise(InputArchive ar) { return ar >> m_value; }

    int32 m_value = 0;
};
QX_REFLECT_CLASS(Plain, "quna::ipersistable_test::Plain")

// Hides the defaults.
class Special : public PersistableMixin<IObjectBaseMixin<Special, EmptyBase>> {
public:
    void Serialise(Archive&) const {}
    InputArchive Deserialise(InputArchive ar) { return ar; }
    bool RepresentsSubTree() const { return false; }
    void OnCreate(bool created) { m_created = created; }
    void VisitPrefs(IPrefVisitor& visitor) const { visitor << m_child; }

    prefbase m_child;
    bool m_created = false;
};
QX_REFLECT_CLASS(Special, "quna::ipersistable_test::Special")

namespace {

class CountingVisitor final : public IPrefVisitor {
public:
    void VisitPref(const prefbase&) override { ++m_prefs; }
    void VisitParentPref(const prefbase&) override { ++m_parentPrefs; }

    int m_prefs = 0;
    int m_parentPrefs = 0;
};

void SetDirty(Plain& object, bool dirty) { SetIObjectFlag(ptr<const IObject>(&object), 2, dirty); }

TEST(IPersistable, ANewObjectIsTransientAndClean) {
    Plain object;
    const ptr<IPersistable> po(&object);
    EXPECT_FALSE(GetOid(po));
    EXPECT_FALSE(object.IsDirty());
    EXPECT_FALSE(IsPersistableDirty(po));
    EXPECT_EQ(nullptr, GetAssociatedCSpace(po));
}

TEST(IPersistable, AClassThatDeclaresNothingHasTheDefaults) {
    Plain object;
    const ptr<IPersistable> po(&object);
    EXPECT_TRUE(po->RepresentsSubTree());
    CountingVisitor visitor;
    po->VisitPrefs(visitor);
    EXPECT_EQ(0, visitor.m_prefs + visitor.m_parentPrefs);
    po->OnCreate(true);
    EXPECT_EQ(0, object.m_value);
}

TEST(IPersistable, AClassHidesTheDefaultsByName) {
    Special object;
    const ptr<IPersistable> po(&object);
    EXPECT_FALSE(po->RepresentsSubTree());
    CountingVisitor visitor;
    po->VisitPrefs(visitor);
    EXPECT_EQ(1, visitor.m_prefs);
    po->OnCreate(true);
    EXPECT_TRUE(object.m_created);
}

TEST(IPersistable, ItsTableBeginsWithTheTableOfTheRootInterface) {
    const IPersistable::FnTable* table = IPersistable::Stubs<Plain>::GetTable();
    EXPECT_EQ(table->VisitObjects, IObject::Stubs<Plain>::GetTable()->VisitObjects);
    EXPECT_EQ(static_cast<const void*>(table), static_cast<const void*>(static_cast<const IObject::FnTable*>(table)));
    using Table = IPersistable::FnTable;
    Table copy = *table;
    const auto* start = reinterpret_cast<const char*>(&copy);
    const auto offset = [&](const auto& slot) { return (reinterpret_cast<const char*>(&slot) - start) / 8; };
    EXPECT_EQ(0, offset(copy.QueryInterface));
    EXPECT_EQ(6, offset(copy.GetSysState));
    EXPECT_EQ(7, offset(copy.VisitPrefs));
    EXPECT_EQ(8, offset(copy.RepresentsSubTree));
    EXPECT_EQ(9, offset(copy.Serialise));
    EXPECT_EQ(10, offset(copy.Deserialise));
    EXPECT_EQ(11, offset(copy.OnCreate));
    EXPECT_EQ(12, offset(copy.GetPersistObjState));
    EXPECT_EQ(13 * sizeof(void*), sizeof(Table));
}

TEST(IPersistable, ConvertsToTheRootInterfaceWithoutAChangeOfBits) {
    Plain object;
    const IPersistable value = IPersistable::CoerceFrom<Plain>(&object);
    EXPECT_EQ(&object, value.m_self);
    EXPECT_EQ(IPersistable::Stubs<Plain>::GetTable(), value.m_table);
    const IObject root = value;
    EXPECT_EQ(value.m_self, root.m_self);
    EXPECT_EQ(static_cast<const void*>(value.m_table), static_cast<const void*>(root.m_table));
    const ptr<IObject> p = ptr<IPersistable>(value);
    EXPECT_EQ(&_GetReflected(static_cast<const Plain*>(nullptr)), p->GetReflectedClass());
}

TEST(IPersistable, IsOfferedByQueryInterfaceBesideTheRootInterface) {
    Plain object;
    const ptr<IObject> p(&object);
    const ptr<IPersistable> po = qicast<IPersistable>(p);
    ASSERT_TRUE(po);
    EXPECT_EQ(&object, po.m_self);
    EXPECT_EQ(IPersistable::Stubs<Plain>::GetTable(), po.Table());
    EXPECT_TRUE(qicast<IObject>(po));
    EXPECT_FALSE(p->QueryInterface(GetReflectedInterface<IPrefVisitor>()));
    EXPECT_STREQ("quna::IPersistable", GetReflectedInterface<IPersistable>().m_name);
    EXPECT_STREQ("quna::PersistObjState", GetReflectedClass<PersistObjState>().m_name);
}

TEST(IPersistable, TheIdentityOfAConstObjectCanBeWritten) {
    const Plain object;
    object.GetPersistObjState().m_oid = OID(5, 7);
    EXPECT_EQ(OID(5, 7), GetOid(ptr<const IPersistable>(&object)));
}

TEST(IPersistable, SystemStateComesBeforeIdentityAndIdentityBeforeTheFields) {
    Plain object;
    const auto* start = reinterpret_cast<const char*>(&object);
    const auto offset = [&](const void* field) { return static_cast<const char*>(field) - start; };
    EXPECT_EQ(8, offset(&object.GetSysState()));
    EXPECT_EQ(8 + static_cast<ssize_t>(sizeof(ObjSysState)), offset(&object.GetPersistObjState()));
    EXPECT_EQ(16 + static_cast<ssize_t>(sizeof(ObjSysState)), offset(&object.m_value));
}

TEST(IPersistable, ACopyStartsWithoutIdentityAndAnAssignmentKeepsTheTargetsOwn) {
    Plain source;
    source.m_value = 3;
    source.GetPersistObjState().m_oid = OID(5, 7);
    const Plain copy(source);
    EXPECT_EQ(3, copy.m_value);
    EXPECT_FALSE(copy.GetPersistObjState().m_oid);
    Plain target;
    target.GetPersistObjState().m_oid = OID(6, 7);
    target = source;
    EXPECT_EQ(3, target.m_value);
    EXPECT_EQ(OID(6, 7), target.GetPersistObjState().m_oid);
}

TEST(IPersistable, AnInstanceMadeByItsClassIsAnEmptyObject) {
    const ptr<IObject> p = GetReflectedClass<Plain>().Create();
    const ptr<IPersistable> po = qicast<IPersistable>(p);
    ASSERT_TRUE(po);
    EXPECT_FALSE(GetOid(po));
    p->Destroy();
}

TEST(IPersistable, MarkingADirtyObjectAgainDoesNothing) {
    Plain object;
    SetDirty(object, true);
    EXPECT_TRUE(object.IsDirty());
    object.MarkAsDirtyWithoutTrace();
    EXPECT_EQ(2u, object.GetSysState().objflags_);
    SetDirty(object, false);
}

TEST(IPersistable, MarkingAnObjectOutsideAnySpaceReturnsQuietly) {
    Plain object;
    object.MarkAsDirtyWithoutTrace();
    EXPECT_FALSE(object.IsDirty());
}

TEST(IPersistable, DestroyingADirtyObjectFails) {
    ExpectAssertion("!IsDirty()", "src/IPersistable", [] {
        Plain object;
        SetDirty(object, true);
    });
    auto* object = new Plain;
    SetDirty(*object, true);
    ExpectAssertion("!IsDirty()", [&] { ptr<IObject>(object)->Destroy(); });
}

TEST(IPersistable, WhileAnExceptionPassesADirtyObjectIsTracedAndNotThrownFor) {
    std::string traced;
    const TraceSink before =
        SetTraceSink(TraceSink{&traced, [](void* self, const char* text, ssize_t n) {
                                   static_cast<std::string*>(self)->append(text, static_cast<std::size_t>(n));
                               }});
    EXPECT_THROW(
        {
            Plain object;
            SetDirty(object, true);
            throw 5;
        },
        int);
    SetTraceSink(before);
    EXPECT_NE(std::string::npos, traced.find("!IsDirty()")) << traced;
}

} // namespace
} // namespace ipersistable_test
} // namespace quna

#include "qxObject/Model.h"
#include "qxObject/ModelSet.h"
#include "qxObject/ModelVector.h"
#include "qxObject/PrintInstance.h"
#include "qxObject/Reflect.h"
#include "qxObject/WCSpace.h"
#include "tests/support/ExpectAssertion.h"
#include "tests/support/RecordingHooks.h"

#include <map>
#include <stdexcept>

#include <gtest/gtest.h>

namespace modeltest {

using namespace quna;

enum class Colour : uint8 {
    Red,
    Blue
};

class Thing : public IObjectBaseMixin<Thing, EmptyBase> {
public:
    // Uses a field above the list of members.
    void Rename(ConstStringZ newName) { name = newName; }

    static constexpr auto Members() {
        return MemberList(Member("plain", &Thing::plain), Member("name", &Thing::name), Removed<int32>(1, 1),
                          Member("age", &Thing::age), Member("small", &Thing::small), Member("ratio", &Thing::ratio),
                          Member("colour", &Thing::colour), Member("counts", &Thing::counts),
                          Member("scores", &Thing::scores), Member("tags", &Thing::tags));
    }
    int64 plain = 0;
    Model<xstring, Thing, "name"> name;
    Model<int32, Thing, "age"> age = 30;
    Model<uint8, Thing, "small"> small;
    Model<float64, Thing, "ratio"> ratio{0.5};
    Model<Colour, Thing, "colour"> colour = Colour::Red;
    Model<std::map<int32, int32>, Thing, "counts"> counts;
    ModelVector<int32, Thing, "scores"> scores;
    ModelSet<int32, Thing, "tags"> tags;
};
QX_REFLECT_CLASS(Thing, "modeltest::Thing")

// The same without model fields.
struct PlainThing {
    static constexpr auto Members() {
        return MemberList(Member("plain", &PlainThing::plain), Member("name", &PlainThing::name),
                          Member("age", &PlainThing::age), Member("small", &PlainThing::small),
                          Member("ratio", &PlainThing::ratio), Member("colour", &PlainThing::colour),
                          Member("counts", &PlainThing::counts), Member("scores", &PlainThing::scores),
                          Member("tags", &PlainThing::tags));
    }
    int64 plain = 0;
    xstring name;
    int32 age = 30;
    uint8 small = 0;
    float64 ratio = 0.5;
    Colour colour = Colour::Red;
    std::map<int32, int32> counts;
    xvector<int32> scores;
    std::set<int32> tags;
};

} // namespace modeltest

namespace quna {
namespace {

using modeltest::Colour;
using modeltest::PlainThing;
using modeltest::Thing;
using Notes = RecordingHooks::Notes;

std::string Text(const auto& x) {
    StringStream os(256);
    os << x;
    return std::string(os.c_str(), static_cast<std::size_t>(os.size()));
}

class Sink : public IOutputStream {
public:
    void WriteStream(const void* p, ssize_t n) override {
        m_bytes.append(static_cast<const char*>(p), static_cast<std::size_t>(n));
    }
    void FlushStream() override {}
    std::string m_bytes;
};

std::string Serialised(const auto& object) {
    Sink sink;
    {
        Archive ar(&sink);
        using T = std::remove_cvref_t<decltype(object)>;
        ForEachMember<T>([&](const auto& member) {
            using Field = typename std::remove_cvref_t<decltype(member)>::FieldType;
            ValueOps<Field>::Serialise(ar, object.*member.m_pointer);
        });
    }
    return sink.m_bytes;
}

class ModelFields : public ::testing::Test {
protected:
    ~ModelFields() override { thing.Destroy(); }

    // The last operation was told of this field of m_thing.
    void ExpectField(const void* addr) {
        EXPECT_EQ(hooks.m_field.addr, addr);
        EXPECT_EQ(hooks.m_field.obj, ptr<IObject>(&thing));
    }
    Thing& thing = *new Thing;
    RecordingHooks hooks;
};

// ---- Layout, safety ----

static_assert(sizeof(Model<xstring, Thing, "name">) == sizeof(xstring));
static_assert(sizeof(ModelVector<int32, Thing, "scores">) == sizeof(xvector<int32>));
static_assert(sizeof(ModelSet<int32, Thing, "tags">) == sizeof(std::set<int32>));
// A copy outside an owner would take whatever stands around it for one.
static_assert(!std::is_copy_constructible_v<Model<xstring, Thing, "name">> &&
              !std::is_default_constructible_v<Model<xstring, Thing, "name">>);
static_assert(std::is_copy_constructible_v<Thing> && std::is_copy_assignable_v<Thing>);
static_assert(std::is_same_v<decltype(std::declval<Thing&>().name.Get()), const xstring&>);

// ---- Values ----

TEST_F(ModelFields, AnAssignmentRunsBetweenTwoHooks) {
    std::vector<int32> seen;
    hooks.m_onNote = [&] { seen.push_back(thing.age); };
    thing.age = 31;
    EXPECT_EQ(hooks.Take(), (Notes{"before 1", "after 1"}));
    ExpectField(&thing.age);
    EXPECT_EQ(seen, (std::vector<int32>{30, 31}));
}

TEST_F(ModelFields, FieldsOfAllTypesAreAssignedLikePlainOnes) {
    thing.name = "Ann";
    EXPECT_EQ(hooks.Take(), (Notes{"before 0", "after 0"}));
    ExpectField(&thing.name);
    thing.name = xstring("Bob");
    const xstring carl("Carl");
    thing.name = carl;
    thing.Rename("Dora");
    thing.small = 7;
    thing.ratio = 2;
    thing.ratio = 2.5F;
    thing.colour = Colour::Blue;
    thing.counts = {{1, 2}, {3, 4}};
    EXPECT_EQ(hooks.Take().size(), 16U);
    EXPECT_EQ(thing.name, "Dora");
    EXPECT_EQ(thing.small, 7);
    EXPECT_EQ(thing.ratio, 2.5);
    EXPECT_EQ(thing.colour, Colour::Blue);
    EXPECT_EQ(thing.counts->at(3), 4);
}

TEST_F(ModelFields, ReadingIsThatOfThePlainValueAndFiresNothing) {
    const xstring& name = thing.name;
    EXPECT_EQ(&name, &thing.name.Get());
    EXPECT_EQ(thing.name->size(), 0);
    EXPECT_EQ((*thing.name).size(), 0);
    EXPECT_TRUE(thing.age == 30 && 30 == thing.age && thing.age != 31 && thing.age < 31);
    EXPECT_TRUE(thing.name == "" && thing.name == xstring());
    EXPECT_EQ(thing.age + 1, 31);
    EXPECT_EQ(Text(thing.age), "30");
    EXPECT_EQ(hooks.Take(), Notes());
}

TEST_F(ModelFields, AFieldTakesAnothersValue) {
    Thing other;
    other.name = "Other";
    other.age = 5;
    other.small = 6;
    hooks.Take();
    thing.name = other.name;
    thing.age = other.small;
    EXPECT_EQ(hooks.Take(), (Notes{"before 0", "after 0", "before 1", "after 1"}));
    ExpectField(&thing.age);
    EXPECT_EQ(thing.name, other.name);
    EXPECT_EQ(thing.age, 6);
    const auto& same = thing.name;
    thing.name = same;
    EXPECT_EQ(thing.name, "Other");
    thing.name = thing.name.Get();
    EXPECT_EQ(thing.name, "Other");
}

TEST_F(ModelFields, AnIntegerChangesByAnOffset) {
    thing.age += 5;
    thing.age -= 7;
    EXPECT_EQ(thing.age++, 28);
    EXPECT_EQ(--thing.age, 28);
    ++thing.small;
    EXPECT_EQ(thing.small--, 1);
    EXPECT_EQ(hooks.Take(), (Notes{"offset 1 by 5", "offset 1 by -7", "offset 1 by 1", "offset 1 by -1",
                                   "offset 2 by 1", "offset 2 by -1"}));
    ExpectField(&thing.small);
    EXPECT_EQ(thing.age, 28);
    EXPECT_EQ(thing.small, 0);
}

TEST_F(ModelFields, OtherTypesChangeByAnAssignment) {
    thing.ratio += 1;
    thing.ratio -= 0.25;
    EXPECT_EQ(thing.ratio, 1.25);
    thing.counts.Change([](std::map<int32, int32>& counts) { counts[5] = 6; });
    EXPECT_EQ(thing.counts->at(5), 6);
    EXPECT_EQ(hooks.Take(), (Notes{"before 3", "after 3", "before 3", "after 3", "before 5", "after 5"}));
}

TEST_F(ModelFields, AnExceptionOfAHookLeavesTheFieldAsItWas) {
    hooks.m_onNote = [] { throw std::runtime_error("hook"); };
    EXPECT_THROW(thing.age = 1, std::runtime_error);
    EXPECT_THROW(thing.age += 1, std::runtime_error);
    EXPECT_THROW(thing.name = "x", std::runtime_error);
    EXPECT_THROW(thing.scores.push_back(1), std::runtime_error);
    EXPECT_THROW(thing.tags.insert(1), std::runtime_error);
    EXPECT_EQ(thing.age, 30);
    EXPECT_EQ(thing.name, "");
    EXPECT_TRUE(thing.scores.empty() && thing.tags.empty());
}

TEST(ModelFieldsAlone, FieldsWorkWithoutHooks) {
    IOperationCallBacks* const installed = SetOperationCallBacks(nullptr);
    Thing thing;
    thing.age = 1;
    thing.age += 2;
    thing.name = "x";
    thing.scores.push_back(4);
    thing.scores.erase(0);
    thing.tags.insert(5);
    thing.tags.erase(5);
    EXPECT_EQ(thing.age, 3);
    EXPECT_EQ(thing.name, "x");
    EXPECT_TRUE(thing.scores.empty() && thing.tags.empty());
    SetOperationCallBacks(installed);
}

TEST_F(ModelFields, AQuietObjectIsReportedOnlyWhereItsLockIsNotHeld) {
    constexpr int FLAG = 1 << 20;
    const CSpaceCreator cs;
    auto* const quiet = new Thing;
    RegisterGcObject(cs, quiet);
    quiet->GetSysState().SetFlag(FLAG);
    SetQuietObjects(&hooks, FLAG);
    quiet->age = 1;
    EXPECT_EQ(hooks.Take(), (Notes{"before 1", "after 1"}));
    {
        const CSpaceLock lock(cs, Exclusive);
        quiet->age = 2;
        ++quiet->age;
        quiet->scores.push_back(1);
        quiet->tags.insert(1);
        EXPECT_EQ(hooks.Take(), Notes());
        EXPECT_EQ(quiet->age, 3);
        EXPECT_EQ(quiet->scores.size() + quiet->tags.size(), 2);

        RecordingHooks inFront;
        quiet->age = 4;
        EXPECT_EQ(inFront.Take(), (Notes{"before 1", "after 1"}));
        EXPECT_EQ(hooks.Take(), (Notes{"before 1", "after 1"}));
    }
    {
        const CSpaceLock lock(cs, SharedRead);
        quiet->age = 5;
        EXPECT_EQ(hooks.Take().size(), 2U);
    }
    SetQuietObjects(nullptr, 0);
}

// ---- Whole objects ----

TEST_F(ModelFields, CopyingAnObjectFiresNothingAndAssigningOneFiresForEachField) {
    thing.name = "Ann";
    thing.scores.push_back(1);
    hooks.Take();
    Thing copy(thing);
    EXPECT_EQ(hooks.Take(), Notes());
    EXPECT_EQ(copy.name, "Ann");
    EXPECT_EQ(copy.scores.size(), 1);

    thing = copy;
    EXPECT_EQ(hooks.Take().size(), 2U * 8U);
    ExpectField(&thing.tags);
}

TEST_F(ModelFields, RecordsEqualThoseOfPlainFieldsAndReadingOneFiresNothing) {
    PlainThing plain;
    plain.name = "Ann";
    plain.small = 3;
    plain.colour = Colour::Blue;
    plain.counts = {{1, 2}};
    plain.scores = {7, 8, 9};
    plain.tags = {4, 2};
    thing.name = plain.name;
    thing.small = plain.small;
    thing.colour = plain.colour;
    thing.counts = plain.counts;
    thing.scores = plain.scores;
    thing.tags = plain.tags;
    hooks.Take();
    std::string record = Serialised(plain);
    EXPECT_EQ(record, Serialised(thing));

    Thing read;
    record.resize(record.size() + 64);
    InputArchive ar(reinterpret_cast<const octet_t*>(record.data()));
    ForEachMember<Thing>([&](const auto& member) {
        using Field = typename std::remove_cvref_t<decltype(member)>::FieldType;
        ar = ValueOps<Field>::Deserialise(ar, read.*member.m_pointer);
    });
    EXPECT_EQ(hooks.Take(), Notes());
    EXPECT_TRUE(ValueOps<Thing>::Equal(thing, read));
    EXPECT_FALSE(ValueOps<Thing>::Less(thing, read));
    read.scores.push_back(10);
    EXPECT_FALSE(ValueOps<Thing>::Equal(thing, read));
    EXPECT_TRUE(ValueOps<Thing>::Less(thing, read));
}

// ---- Vectors of values ----

TEST_F(ModelFields, AVectorReportsWhatComesBeforeItIsThere) {
    hooks.m_onNote = [&] { EXPECT_TRUE(thing.scores.empty()); };
    const int32 seven = 7;
    thing.scores.push_back(seven);
    EXPECT_EQ(hooks.Take(), (Notes{"create 6 at 0 n 1"}));
    EXPECT_EQ(hooks.m_src, &seven);
    EXPECT_EQ(hooks.m_elementSize, 4);
    ExpectField(&thing.scores);
    hooks.m_onNote = nullptr;

    const int32 more[] = {1, 2, 3};
    thing.scores.insert(0, more, 3);
    thing.scores.insert(1, thing.scores.back());
    thing.scores.append(more, 1);
    thing.scores.append(more, 0);
    EXPECT_EQ(hooks.Take(), (Notes{"create 6 at 0 n 3", "create 6 at 1 n 1", "create 6 at 5 n 1"}));
    EXPECT_EQ(thing.scores, (xvector<int32>{1, 7, 2, 3, 7, 1}));
    EXPECT_EQ(thing.scores.front(), 1);
    EXPECT_EQ(thing.scores[2], 2);
}

TEST_F(ModelFields, AVectorReportsWhatGoesWhileItIsThere) {
    thing.scores = {0, 1, 2, 3, 4, 5};
    EXPECT_EQ(hooks.Take(), (Notes{"before 6", "after 6"}));
    hooks.m_onNote = [&, size = thing.scores.size()]() mutable { EXPECT_EQ(thing.scores.size(), size--); };
    thing.scores.pop_back();
    thing.scores.erase(0);
    hooks.m_onNote = nullptr;
    thing.scores.erase(1, 2);
    thing.scores.erase(0, 0);
    EXPECT_EQ(thing.scores, (xvector<int32>{1, 4}));
    thing.scores.clear();
    thing.scores.clear();
    EXPECT_EQ(hooks.Take(),
              (Notes{"delete 6 at 5 n 1", "delete 6 at 0 n 1", "delete 6 at 1 n 2", "delete 6 at 0 n 2"}));
    EXPECT_TRUE(thing.scores.empty());
}

TEST_F(ModelFields, AnElementIsAssignedAndAVectorResized) {
    thing.scores.resize(3);
    thing.scores.Set(1, 9);
    EXPECT_EQ(hooks.m_field.addr, &thing.scores[1]);
    thing.scores.resize(2);
    thing.scores.resize(2);
    EXPECT_EQ(hooks.Take(), (Notes{"create 6 at 0 n 3", "before 6", "after 6", "delete 6 at 2 n 1"}));
    EXPECT_EQ(thing.scores, (xvector<int32>{0, 9}));
}

TEST_F(ModelFields, PlacesOutsideAVectorAreRefused) {
    thing.scores = {1, 2};
    hooks.Take();
    ExpectAssertion("this->IsRange(i, 0)", [&] { thing.scores.insert(3, 1); });
    ExpectAssertion("this->IsRange(i, 0)", [&] { thing.scores.insert(-1, 1); });
    ExpectAssertion("this->IsRange(i, 1)", [&] { thing.scores.Set(2, 1); });
    ExpectAssertion("this->IsRange(i, n)", [&] { thing.scores.erase(1, 2); });
    ExpectAssertion("this->IsRange(i, n)", [&] { thing.scores.erase(0, -1); });
    ExpectAssertion("n >= 0", [&] { thing.scores.resize(-1); });
    thing.scores.clear();
    ExpectAssertion("this->IsRange(i, n)", [&] { thing.scores.pop_back(); });
    EXPECT_EQ(hooks.Take(), (Notes{"delete 6 at 0 n 2"}));
}

// ---- Sets of values ----

TEST_F(ModelFields, ASetReportsAChangeOfItsValueAndTheElement) {
    EXPECT_TRUE(thing.tags.insert(5));
    EXPECT_FALSE(thing.tags.insert(5));
    EXPECT_EQ(hooks.Take(), (Notes{"before 7", "set-insert 7", "after 7"}));
    EXPECT_TRUE(thing.tags.erase(5));
    EXPECT_FALSE(thing.tags.erase(5));
    EXPECT_EQ(hooks.Take(), (Notes{"before 7", "set-delete 7", "after 7"}));
    thing.tags = {3, 1, 2};
    EXPECT_EQ(*thing.tags.begin(), 1);
    EXPECT_EQ(thing.tags.size(), 3);
    thing.tags.clear();
    thing.tags.clear();
    EXPECT_EQ(hooks.Take(), (Notes{"before 7", "after 7", "before 7", "after 7"}));
    EXPECT_FALSE(thing.tags.contains(1));
}

// ---- Reflection ----

TEST_F(ModelFields, TheRecordListsModelFieldsWithTheirPlainTypes) {
    const ReflectedClass& rc = GetReflectedClass<Thing>();
    ASSERT_EQ(rc.m_numFields, 9);
    ASSERT_EQ(rc.m_numModelFields, 8);
    EXPECT_STREQ(rc.m_fields[0].m_name, "plain");
    EXPECT_STREQ(rc.m_modelFields[0].m_name, "name");
    EXPECT_EQ(rc.m_modelFields[1].AddressIn(&thing), &thing.age);
    EXPECT_EQ(Text(rc.m_modelFields[0].m_typeFn()), "xstring");
    EXPECT_EQ(Text(rc.m_modelFields[6].m_typeFn()), "xvector<int32>");
    StringStream os(256);
    thing.name = "Ann";
    PrintInstance(os, &thing);
    EXPECT_NE(std::string(os.c_str()).find("name = Ann, age = 30"), std::string::npos) << os.c_str();
}

TEST_F(ModelFields, GettersAndSettersAreReflected) {
    const ReflectedClass& rc = GetReflectedClass<Thing>();
    ASSERT_EQ(rc.m_numMethods, 16);
    const ReflectedMethod& get = rc.m_methods[2];
    const ReflectedMethod& set = rc.m_methods[3];
    EXPECT_STREQ(get.m_name, "Getage");
    EXPECT_STREQ(set.m_name, "Setage");
    EXPECT_EQ(get.m_numArgs, 0);
    ASSERT_EQ(set.m_numArgs, 1);
    EXPECT_STREQ(set.m_args[0].m_name, "x");
    EXPECT_EQ(Text(get.m_resultTypeFn()), "int32");
    EXPECT_EQ(Text(set.m_args[0].m_typeFn()), "int32");

    Thing* self = &thing;
    int32 value = 44;
    void* args[] = {&self, &value};
    set.m_invokeFn(nullptr, args);
    EXPECT_EQ(thing.age, 44);
    EXPECT_EQ(hooks.Take(), (Notes{"before 1", "after 1"}));
    int32 result = 0;
    get.m_invokeFn(&result, args);
    EXPECT_EQ(result, 44);
    EXPECT_EQ(hooks.Take(), Notes());
}

} // namespace
} // namespace quna

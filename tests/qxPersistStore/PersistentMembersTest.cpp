#include "qxPersistStore/PersistentMembers.h"

#include "qxLss/Seid.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/RecordLimits.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace membertest {

using namespace quna;

struct Address {
    static constexpr auto Members() {
        return MemberList(Member("street", &Address::m_street), Member("number", &Address::m_number));
    }

    xstring m_street;
    uint8 m_number = 0;
};

// The class as it was first.
class PersonV1 : public PersistentObject<PersonV1> {
public:
    static constexpr auto Members() {
        return MemberList(Member("name", &PersonV1::m_name), Member("shoes", &PersonV1::m_shoes),
                          Member("best", &PersonV1::m_best));
    }

    xstring m_name;
    uint16 m_shoes = 0;
    cref<PersonV1> m_best;
};
QX_REFLECT_PERSISTENT_CLASS(PersonV1, "membertest::PersonV1")

// Two schemas later: a field added with schema 2, another removed with schema 3, one more added then.
class Person : public PersistentObject<Person> {
public:
    static constexpr auto Members() {
        return MemberList(Member("name", &Person::m_name), Removed<uint16>(1, 2), Member("best", &Person::m_best),
                          Member("born", &Person::m_born, 2), Member("addresses", &Person::m_addresses, 3),
                          Member("friends", &Person::m_friends, 3), Member("owner", &Person::m_owner, 3).Parent());
    }

    xstring m_name;
    cref<Person> m_best;
    uint16 m_born = 1970;
    xvector<Address> m_addresses;
    xvector<cref<Person>> m_friends;
    pref<IPersistable> m_owner;
};
QX_REFLECT_PERSISTENT_CLASS(Person, "membertest::Person")

} // namespace membertest

namespace quna {
namespace {

using membertest::Person;
using membertest::PersonV1;

class Bytes : public IOutputStream {
public:
    void WriteStream(const void* p, ssize_t n) override {
        m_bytes.append(static_cast<const char*>(p), static_cast<std::size_t>(n));
    }
    void FlushStream() override {}
    std::string m_bytes;
};

std::string Record(ptr<const IPersistable> object) {
    Bytes bytes;
    {
        Archive ar(&bytes);
        object->Serialise(ar);
    }
    return bytes.m_bytes;
}

// Reads a record into the object and expects it to be used exactly.
void Read(std::string record, ptr<IPersistable> object) {
    const std::size_t size = record.size();
    record.resize(size + static_cast<std::size_t>(RECORD_SLACK));
    const octet_t* const begin = reinterpret_cast<const octet_t*>(record.data());
    const RecordLimitsScope limits(begin, begin + size);
    EXPECT_EQ(object->Deserialise(begin).ptr(), begin + size);
}

TEST(PersistentMembers, ARecordIsTheSchemaTagAndTheFieldsInOrder) {
    PersonV1 person;
    person.m_name = "Ann";
    person.m_shoes = 0x0102;
    person.m_best.SetOid(OID(3, 2));
    EXPECT_EQ(Record(&person), std::string("\x01\x03"
                                           "Ann\x02\x01\x02\x03",
                                           9));

    const Person later;
    EXPECT_EQ(Record(&later), std::string("\x03\x00\x00\xB2\x07\x00\x00\x00", 8));
}

TEST(PersistentMembers, EveryFieldReadsBack) {
    Person person;
    person.m_name = "Bob";
    person.m_best.SetOid(OID(9, 1));
    person.m_born = 1999;
    person.m_addresses.push_back({"Elm Street", 13});
    person.m_friends.resize(2);
    person.m_friends[1].SetOid(OID(7, 1));
    person.m_owner.SetOid(OID(8, 1));

    Person read;
    Read(Record(&person), &read);
    EXPECT_TRUE(GetTypeOps<Person>().Equal(&person, &read));
    EXPECT_EQ(read.m_addresses[0].m_number, 13);
    EXPECT_EQ(read.m_friends[1].GetOid(), OID(7, 1));
    read.m_born = 1;
    EXPECT_FALSE(GetTypeOps<Person>().Equal(&person, &read));
}

TEST(PersistentMembers, AnOlderRecordSkipsRemovedFieldsAndLeavesNewOnesAsConstructed) {
    PersonV1 old;
    old.m_name = "Ann";
    old.m_shoes = 42;
    old.m_best.SetOid(OID(3, 2));
    Person read;
    Read(Record(&old), &read);
    EXPECT_TRUE(read.m_name == "Ann");
    EXPECT_EQ(read.m_best.GetOid(), OID(3, 2));
    EXPECT_EQ(read.m_born, 1970);
    EXPECT_TRUE(read.m_addresses.empty());
}

TEST(PersistentMembers, ANewerRecordIsRefused) {
    PersonV1 read;
    const Person newer;
    EXPECT_THROW(Read(Record(&newer), &read), RecordException);
}

TEST(PersistentMembers, ATruncatedRecordEndsInAnException) {
    Person person;
    person.m_name = "a name of some length";
    const std::string record = Record(&person);
    std::string cut = record.substr(0, 10);
    cut.resize(10 + static_cast<std::size_t>(RECORD_SLACK));
    const octet_t* const begin = reinterpret_cast<const octet_t*>(cut.data());
    const RecordLimitsScope limits(begin, begin + 10);
    Person read;
    EXPECT_THROW(ptr<IPersistable>(&read)->Deserialise(begin), RecordException);
}

TEST(PersistentMembers, VisitPrefsReportsEachReferenceAndTellsParentsApart) {
    class Recorder : public IPrefVisitor {
    public:
        void VisitPref(const prefbase& r) override { m_owned.push_back(&r); }
        void VisitParentPref(const prefbase& r) override { m_parents.push_back(&r); }
        std::vector<const prefbase*> m_owned;
        std::vector<const prefbase*> m_parents;
    };
    Person person;
    person.m_friends.resize(2);
    Recorder recorder;
    ptr<IPersistable>(&person)->VisitPrefs(recorder);
    EXPECT_EQ(recorder.m_owned,
              (std::vector<const prefbase*>{&person.m_best, &person.m_friends[0], &person.m_friends[1]}));
    EXPECT_EQ(recorder.m_parents, (std::vector<const prefbase*>{&person.m_owner}));
}

TEST(PersistentMembers, VisitObjectsGivesPersistentTargetsAsEvictableAndTransientOnesAsStrong) {
    class Recorder : public IObjectVisitor {
    public:
        void VisitObject(ptr<const IObject> object) override {
            if (object) m_strong.push_back(object.m_self);
        }
        void VisitEvictablePtr(AnyInterface* p) override { m_evictable.push_back(p); }
        std::vector<const void*> m_strong;
        std::vector<const void*> m_evictable;
    };
    Person person;
    Person transient;
    person.m_best.SetOid(OID(3, 2));
    person.m_friends.resize(1);
    person.m_friends[0] = &transient;
    Recorder recorder;
    ptr<IPersistable>(&person)->VisitObjects(recorder);
    EXPECT_EQ(recorder.m_strong, (std::vector<const void*>{&transient}));
    EXPECT_EQ(recorder.m_evictable.size(), 1u);
}

TEST(PersistentMembers, TheRecordOfTheClassNamesInterfacesAndFields) {
    const ReflectedClass& rc = GetReflectedClass<Person>();
    EXPECT_STREQ(rc.m_name, "membertest::Person");
    EXPECT_EQ(rc.m_flags, 1u);
    EXPECT_EQ(rc.m_createFn, &Person::sfnCreateInstance);
    EXPECT_STREQ(rc.m_interfaces[0], "quna::IObject");
    EXPECT_STREQ(rc.m_interfaces[1], "quna::IPersistable");
    EXPECT_EQ(rc.m_numIndirectInterfaces, 1);
    EXPECT_EQ(rc.m_numDirectInterfaces, 1);
    ASSERT_EQ(rc.m_numFields, 6);
    StringStream os(64);
    os << rc.m_fields[1].m_typeFn() << ", " << rc.m_fields[4].m_typeFn() << ", " << rc.m_fields[5].m_typeFn();
    EXPECT_STREQ(os.c_str(), "cref<membertest::Person>, xvector<cref<membertest::Person>>, pref<quna::IPersistable>");
    EXPECT_EQ(rc.m_fields[3].m_typeFn, nullptr); // Address has no record
}

TEST(PersistentMembers, AnInstanceOfTheRecordIsAFreshPersistable) {
    const ptr<IObject> o = GetReflectedClass<Person>().Create();
    const ptr<IPersistable> p = qicast<IPersistable>(o);
    ASSERT_TRUE(p);
    EXPECT_FALSE(GetOid(p));
    EXPECT_FALSE(IsPersistableDirty(p));
    EXPECT_TRUE(p->RepresentsSubTree());
    o->Destroy();
}

} // namespace
} // namespace quna

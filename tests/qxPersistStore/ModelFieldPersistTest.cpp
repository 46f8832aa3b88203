#include "qxObject/Model.h"
#include "qxObject/ModelRef.h"
#include "qxObject/ModelRefSet.h"
#include "qxObject/ModelRefVector.h"
#include "qxObject/ModelSet.h"
#include "qxObject/ModelVector.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PersistStoreTxn.h"
#include "tests/support/DeletionFixture.h"
#include "tests/support/RecordingHooks.h"

#include <mutex>

namespace modeltest {

using namespace quna;

class Pet : public PersistentObject<Pet> {
public:
    Pet() = default;
    explicit Pet(ConstStringZ newName) : name(newName) {}
    static constexpr auto Members() { return MemberList(Member("name", &Pet::name)); }
    void OnCreate(bool) { ++numOnCreate; }

    Model<xstring, Pet, "name"> name;
    int numOnCreate = 0;
};
QX_REFLECT_PERSISTENT_CLASS(Pet, "modeltest::Pet")

// A value with a reference.
struct Job {
    static constexpr auto Members() { return MemberList(Member("pay", &Job::pay), Member("tool", &Job::tool)); }
    int32 pay = 0;
    cref<Pet> tool;
};

class Person : public PersistentObject<Person> {
public:
    static constexpr auto Members() {
        return MemberList(Member("name", &Person::name), Member("age", &Person::age), Member("pet", &Person::pet),
                          Member("pets", &Person::pets), Member("club", &Person::club), Member("job", &Person::job),
                          Member("jobs", &Person::jobs), Member("scores", &Person::scores),
                          Member("tags", &Person::tags), Member("guest", &Person::guest),
                          Member("boss", &Person::boss).Parent(), Member("peers", &Person::peers).Parent());
    }
    Model<xstring, Person, "name"> name;
    Model<int32, Person, "age"> age = 30;
    ModelRef<cref<Pet>, Person, "pet"> pet;
    ModelRefVector<cref<Pet>, Person, "pets"> pets;
    ModelRefSet<pref<IPersistable>, Person, "club"> club;
    Model<Job, Person, "job"> job;
    ModelVector<Job, Person, "jobs"> jobs;
    ModelVector<int32, Person, "scores"> scores;
    ModelSet<int32, Person, "tags"> tags;
    Model<cref<Pet>, Person, "guest"> guest;
    ModelRef<cref<Person>, Person, "boss"> boss;
    ModelRefVector<cref<Person>, Person, "peers"> peers;
};
QX_REFLECT_PERSISTENT_CLASS(Person, "modeltest::Person")

// The same record from plain fields.
class PlainPerson : public PersistentObject<PlainPerson> {
public:
    static constexpr auto Members() {
        return MemberList(Member("name", &PlainPerson::name), Member("age", &PlainPerson::age),
                          Member("pet", &PlainPerson::pet), Member("pets", &PlainPerson::pets),
                          Member("club", &PlainPerson::club), Member("job", &PlainPerson::job),
                          Member("jobs", &PlainPerson::jobs), Member("scores", &PlainPerson::scores),
                          Member("tags", &PlainPerson::tags), Member("guest", &PlainPerson::guest),
                          Member("boss", &PlainPerson::boss).Parent(), Member("peers", &PlainPerson::peers).Parent());
    }
    xstring name;
    int32 age = 30;
    cref<Pet> pet;
    xvector<cref<Pet>> pets;
    xvector<pref<IPersistable>> club;
    Job job;
    xvector<Job> jobs;
    xvector<int32> scores;
    std::set<int32> tags;
    cref<Pet> guest;
    cref<Person> boss;
    xvector<cref<Person>> peers;
};
QX_REFLECT_PERSISTENT_CLASS(PlainPerson, "modeltest::PlainPerson")

} // namespace modeltest

namespace quna {
namespace {

using modeltest::Job;
using modeltest::Person;
using modeltest::Pet;
using modeltest::PlainPerson;
using Notes = RecordingHooks::Notes;

static_assert(sizeof(Person) == sizeof(PlainPerson));

void RegisterModelObjects() {
    static std::once_flag once;
    std::call_once(once, [] {
        static constexpr dsTarget TARGET = {"Quna/Tests/Model", nullptr, 0, nullptr, 0};
        XTarget* const target = RegisterTarget(TARGET);
        modeltest::_Register_Pet(target);
        modeltest::_Register_Person(target);
    });
}

// A person named "ann", persistent, pinned and clean; the tests lock the space.
class ModelFieldsPersist : public DeletionFixture {
protected:
    ModelFieldsPersist() {
        RegisterModelObjects();
        {
            const SpaceScope scope(m_ps);
            ann = NewObject<Person>();
            ann->name = "Ann";
            m_ps->AddRoot("ann", ann);
            AddGcRoot(ann);
        }
        Clean();
    }
    void Clean() {
        WriteSpace();
        ASSERT_FALSE(ann->IsDirty());
    }
    void ReopenAnn() {
        Reopen();
        const SpaceScope scope(m_ps);
        ann = static_cast<Person*>(m_ps->GetRoot("ann").m_self);
        AddGcRoot(ann);
        ASSERT_FALSE(ann->IsDirty());
    }
    std::vector<OID> Queued() const {
        return std::vector<OID>(m_ps->m_dq.m_deltaQueue.begin(), m_ps->m_dq.m_deltaQueue.end());
    }
    static Pet* NewPet(ConstStringZ name = "pet") { return NewObject<Pet>(name); }
    // `change` marks ann, in a transaction of the domain and without one.
    template <class Change>
    void ExpectMarks(Change change) {
        const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
        Clean();
        {
            const CSpaceLock lock(Exclusive);
            change();
            EXPECT_TRUE(ann->IsDirty());
        }
        Clean();
        BeginTransaction(m_ps->GetCSpace());
        EXPECT_NE(nullptr, m_ps->txn_);
        change();
        EXPECT_TRUE(ann->IsDirty());
        EndTransaction(m_ps->GetCSpace());
    }
    Person* ann = nullptr;
};

TEST_F(ModelFieldsPersist, EveryChangeMarksAPersistentObject) {
    ExpectMarks([&] { ann->name = "Anna"; });
    ExpectMarks([&] { ++ann->age; });
    ExpectMarks([&] { ann->age -= 3; });
    ExpectMarks([&] { ann->pet = NewPet(); });
    ExpectMarks([&] { ann->pets.push_back(NewPet()); });
    ExpectMarks([&] { ann->pets.Set(0, NewPet()); });
    ExpectMarks([&] { ann->pets.pop_back(); });
    ExpectMarks([&] { ann->club.insert(ptr<IPersistable>(NewPet())); });
    ExpectMarks([&] { ann->club.erase(xvector<pref<IPersistable>>(ann->club)[0]); });
    ExpectMarks([&] { ann->job = Job{5, cref<Pet>(NewPet())}; });
    ExpectMarks([&] { ann->jobs.push_back(Job{5, cref<Pet>(NewPet())}); });
    ExpectMarks([&] { ann->jobs.Set(0, Job{6, {}}); });
    ExpectMarks([&] { ann->jobs.pop_back(); });
    ExpectMarks([&] { ann->scores.push_back(1); });
    ExpectMarks([&] { ann->scores.pop_back(); });
    ExpectMarks([&, n = 0]() mutable { ann->tags.insert(++n); });
    ExpectMarks([&, n = 0]() mutable { ann->tags.erase(++n); });
    ExpectMarks([&] { ann->guest = NewPet(); });
    ExpectMarks([&] {
        ann->boss = NewObject<Person>();
        ann->boss = nullptr;
    });
    ExpectMarks([&] { ann->peers.push_back(ann); });
    ExpectMarks([&] { ann->peers.pop_back(); });
}

TEST_F(ModelFieldsPersist, ATransientObjectIsChangedAndTheStoreIsNotTold) {
    const CSpaceCreator plain;
    const ThreadPSpaceScope pair(nullptr, plain);
    const CSpaceLock lock(Exclusive);
    Person* const bob = NewObject<Person>();
    Pet* const pet = NewPet();
    bob->name = "Bob";
    ++bob->age;
    bob->pet = pet;
    bob->pet = NewPet();
    bob->pet = nullptr;
    bob->pets.push_back(pet);
    bob->pets.Set(0, NewPet());
    bob->pets.clear();
    bob->club.insert(ptr<IPersistable>(pet));
    bob->club.clear();
    bob->job = Job{1, cref<Pet>(pet)};
    bob->job = Job();
    bob->jobs.push_back(bob->job);
    bob->tags.insert(1);
    bob->guest = pet;
    bob->guest = nullptr;
    EXPECT_FALSE(GetOid(bob));
    EXPECT_FALSE(GetOid(pet));
    EXPECT_FALSE(bob->IsDirty());
    EXPECT_EQ(0, pet->numOnCreate);
    EXPECT_EQ(bob->age, 31);
}

// ---- References ----

TEST_F(ModelFieldsPersist, ANewChildPersistsAndTheOneBeforeIsQueued) {
    const SpaceScope scope(m_ps);
    Pet* const rex = NewPet("rex");
    ann->pet = rex;
    EXPECT_TRUE(GetOid(rex));
    EXPECT_EQ(GetOid(ann).low_, m_ps->m_affiliateOidLow);
    EXPECT_EQ(1, rex->numOnCreate);
    EXPECT_TRUE(Queued().empty());
    EXPECT_EQ(ann->pet->name, "rex");
    EXPECT_EQ(&*ann->pet, rex);
    EXPECT_TRUE(ann->pet);

    Pet* const tom = NewPet("tom");
    ann->pet = tom;
    EXPECT_EQ(std::vector<OID>{GetOid(rex)}, Queued());
    EXPECT_EQ(ann->pet.Get().GetBoundPtr(), tom);
}

TEST_F(ModelFieldsPersist, AssigningTheChildThatIsThereChangesNothing) {
    const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
    {
        const SpaceScope scope(m_ps);
        ann->pet = NewPet();
        ann->pets.push_back(NewPet());
    }
    Clean();
    const CSpaceLock lock(Exclusive);
    const auto& same = ann->pet;
    ann->pet = same;
    ann->pet = ann->pet.Get();
    ann->pet = ann->pet.Get().Get();
    ann->pets.Set(0, ann->pets[0]);
    ann->pets = ann->pets.Get();
    EXPECT_FALSE(ann->IsDirty());
    EXPECT_TRUE(Queued().empty());
    EXPECT_EQ(1, ann->pet->numOnCreate);
}

TEST_F(ModelFieldsPersist, AChildOfAPersistentObjectIsNewAndNotNull) {
    const SpaceScope scope(m_ps);
    Pet* const elsewhere = NewPet();
    DeclareReachable(ann, elsewhere, true);
    ExpectAssertion("!GetOid(child)", [&] { ann->pet = elsewhere; });
    EXPECT_FALSE(ann->pet);
    ann->pet = nullptr; // is null: no change
    ann->pet = NewPet();
    ExpectAssertion("child", [&] { ann->pet = nullptr; });
    EXPECT_TRUE(ann->pet);
    ExpectAssertion("!GetOid(child)", [&] { ann->pets.push_back(elsewhere); });
    EXPECT_TRUE(ann->pets.empty());
    ExpectAssertion("x", [&] { ann->pets.push_back(nullptr); });
    ExpectAssertion("x", [&] { ann->club.insert(nullptr); });
}

TEST_F(ModelFieldsPersist, AReferenceAsAValueCanBeClearedAndTakeAPersistentObject) {
    const SpaceScope scope(m_ps);
    Pet* const elsewhere = NewPet();
    DeclareReachable(ann, elsewhere, true);
    ann->guest = elsewhere;
    EXPECT_EQ(ann->guest.Get().GetBoundPtr(), elsewhere);
    EXPECT_EQ(ann->guest->name, "pet");
    EXPECT_TRUE(Queued().empty());
    ann->guest = nullptr;
    EXPECT_EQ(std::vector<OID>{GetOid(elsewhere)}, Queued());
    Pet* const fresh = NewPet();
    ann->guest = fresh;
    EXPECT_TRUE(GetOid(fresh));
    EXPECT_EQ(0, fresh->numOnCreate);
}

TEST_F(ModelFieldsPersist, AParentsFieldOwnsNothing) {
    const SpaceScope scope(m_ps);
    Person* const eve = NewObject<Person>();
    DeclareReachable(ann, eve, true);
    ann->boss = eve;
    ann->boss = ann;
    ann->boss = nullptr;
    Person* const transient = NewObject<Person>();
    ann->peers.push_back(eve);
    ann->peers.push_back(eve);
    ann->peers.insert(0, ann);
    ann->peers.Set(1, transient);
    ann->peers.erase(1);
    ann->peers = {cref<Person>(eve)};
    EXPECT_EQ(ann->peers.size(), 1);
    ann->peers.clear();
    EXPECT_TRUE(Queued().empty());
    EXPECT_FALSE(GetOid(transient));
}

// ---- Vectors and sets of references ----

TEST_F(ModelFieldsPersist, ChildrenComeIntoAVectorAndGo) {
    const SpaceScope scope(m_ps);
    Pet* const a = NewPet("a");
    Pet* const b = NewPet("b");
    Pet* const c = NewPet("c");
    RecordingHooks hooks;
    ann->pets.push_back(a);
    ann->pets.push_back(cref<Pet>(c));
    ann->pets.insert(1, b);
    EXPECT_EQ(hooks.Take(), (Notes{"create-ref 3 at 0 n 1", "create-ref 3 at 1 n 1", "create-ref 3 at 1 n 1"}));
    EXPECT_TRUE(GetOid(a) && GetOid(b) && GetOid(c));
    EXPECT_EQ(1, b->numOnCreate);
    EXPECT_EQ(ann->pets[1]->name, "b");

    Pet* const d = NewPet("d");
    ann->pets.Set(1, d);
    EXPECT_EQ(std::vector<OID>{GetOid(b)}, Queued());
    EXPECT_EQ(1, d->numOnCreate);
    ann->pets.erase(0, 2);
    EXPECT_EQ((std::vector<OID>{GetOid(b), GetOid(a), GetOid(d)}), Queued());
    EXPECT_EQ(ann->pets.size(), 1);
    EXPECT_EQ(ann->pets.back().GetBoundPtr(), c);
    EXPECT_EQ(hooks.Take(), (Notes{"pref 3", "delete-ref 3 at 0 n 2"}));
    ann->pets.clear();
    EXPECT_EQ(4U, Queued().size());
}

TEST_F(ModelFieldsPersist, AVectorAssignedAsAWholeKeepsTheChildrenThatStay) {
    const SpaceScope scope(m_ps);
    Pet* const a = NewPet("a");
    Pet* const b = NewPet("b");
    Pet* const c = NewPet("c");
    ann->pets = {cref<Pet>(a), cref<Pet>(b)};
    ann->pets = {cref<Pet>(c), cref<Pet>(b)};
    EXPECT_EQ(std::vector<OID>{GetOid(a)}, Queued());
    EXPECT_TRUE(GetOid(c));
    EXPECT_EQ(1, b->numOnCreate);
    ann->pets = {cref<Pet>(b), cref<Pet>(c)}; // another order
    EXPECT_EQ(1U, Queued().size());
    ASSERT_EQ(ann->pets.size(), 2);
    EXPECT_EQ(ann->pets[0].GetBoundPtr(), b);
    EXPECT_EQ(ann->pets[1].GetBoundPtr(), c);

    Person* const bob = NewObject<Person>(); // by object where there is no identity
    Pet* const d = NewPet("d");
    bob->pets = {cref<Pet>(d)};
    Pet* const e = NewPet("e");
    bob->pets = {cref<Pet>(e), cref<Pet>(d)};
    EXPECT_EQ(bob->pets[0].GetBoundPtr(), e);
    EXPECT_EQ(bob->pets[1].GetBoundPtr(), d);
}

TEST_F(ModelFieldsPersist, ASetHoldsEachChildOnce) {
    const SpaceScope scope(m_ps);
    const ptr<IPersistable> a(NewPet("a"));
    const ptr<IPersistable> b(NewPet("b"));
    RecordingHooks hooks;
    EXPECT_TRUE(ann->club.insert(a));
    EXPECT_FALSE(ann->club.insert(a));
    EXPECT_TRUE(ann->club.insert(b));
    EXPECT_TRUE(ann->club.contains(b));
    EXPECT_TRUE(GetOid(a) && GetOid(b));
    EXPECT_TRUE(ann->club.erase(a));
    EXPECT_FALSE(ann->club.erase(a));
    EXPECT_EQ(std::vector<OID>{GetOid(a)}, Queued());
    const ptr<IPersistable> c(NewPet("c"));
    ann->club = {pref<IPersistable>(c), pref<IPersistable>(b)};
    EXPECT_EQ(ann->club.size(), 2);
    EXPECT_EQ(1U, Queued().size());
    EXPECT_EQ(hooks.Take(), (Notes{"insert-ref 4 n 1", "insert-ref 4 n 1", "erase-ref 4 n 1", "insert-ref 4 n 1"}));
    ann->club.clear();
    ann->club.clear();
    EXPECT_EQ(hooks.Take(), (Notes{"erase-ref 4 n 2"}));
    EXPECT_EQ((std::vector<OID>{GetOid(a), GetOid(b), GetOid(c)}), Queued());

    Person* const bob = NewObject<Person>(); // transient children are told apart too
    EXPECT_TRUE(bob->club.insert(ptr<IPersistable>(NewPet())));
    EXPECT_TRUE(bob->club.insert(ptr<IPersistable>(NewPet())));
    EXPECT_EQ(bob->club.size(), 2);
}

// ---- Values with references ----

TEST_F(ModelFieldsPersist, AValueThatKeepsItsTargetKeepsTheObject) {
    const SpaceScope scope(m_ps);
    Pet* const tool = NewPet("tool");
    ann->job = Job{1, cref<Pet>(tool)};
    EXPECT_TRUE(GetOid(tool));
    Job job = ann->job;
    job.pay = 2;
    ann->job = job;
    EXPECT_EQ(ann->job->pay, 2);
    EXPECT_TRUE(Queued().empty());
    RecordingHooks hooks;
    Pet* const other = NewPet("other");
    job.tool = other;
    ann->job = job;
    EXPECT_EQ(std::vector<OID>{GetOid(tool)}, Queued());
    EXPECT_TRUE(GetOid(other));
    EXPECT_EQ(hooks.Take(), (Notes{"before-with-prefs 5", "after-with-prefs 5"}));
}

TEST_F(ModelFieldsPersist, ElementsWithReferencesPersistTheirTargetsAndQueueThem) {
    const SpaceScope scope(m_ps);
    Pet* const a = NewPet("a");
    Pet* const b = NewPet("b");
    Pet* const c = NewPet("c");
    RecordingHooks hooks;
    ann->jobs.push_back(Job{1, cref<Pet>(a)});
    ann->jobs.push_back(Job{2, cref<Pet>(b)});
    ann->jobs.Set(1, Job{3, cref<Pet>(b)});
    EXPECT_EQ(hooks.Take(), (Notes{"create-with-prefs 6 at 0 n 1", "create-with-prefs 6 at 1 n 1",
                                   "before-with-prefs 6", "after-with-prefs 6"}));
    EXPECT_TRUE(GetOid(a) && GetOid(b));
    EXPECT_TRUE(Queued().empty());
    ann->jobs = {Job{2, cref<Pet>(b)}, Job{4, cref<Pet>(c)}}; // a goes, b stays, c comes
    EXPECT_EQ(std::vector<OID>{GetOid(a)}, Queued());
    EXPECT_TRUE(GetOid(c));
    hooks.Take();
    ann->jobs.clear();
    EXPECT_EQ(hooks.Take(), (Notes{"delete-with-prefs 6 at 0 n 2"}));
    EXPECT_EQ((std::vector<OID>{GetOid(a), GetOid(b), GetOid(c)}), Queued());
}

// ---- Records and restarts ----

TEST_F(ModelFieldsPersist, TheRecordIsThatOfPlainFields) {
    const SpaceScope scope(m_ps);
    PlainPerson* const plain = NewObject<PlainPerson>();
    Person* const model = NewObject<Person>();
    const auto fill = [](auto& person) {
        const auto refTo = [](SeidLow low) {
            cref<Pet> ref;
            ref.SetOid(OID(low, 1));
            return ref;
        };
        person.name = "Ann";
        person.age = 7;
        person.pet = refTo(1000);
        person.pets = {refTo(1001), refTo(1002)};
        pref<IPersistable> member;
        member.SetOid(OID(1003, 1));
        person.club = {member};
        person.job = Job{8, refTo(1004)};
        person.jobs = {Job{9, refTo(1005)}};
        person.scores = {1, 2};
        person.tags = {3};
        person.guest = refTo(1006);
    };
    fill(*plain);
    fill(*model);
    RecordingHooks hooks;
    const auto record = [](const auto& person) { return Written([&](Archive& ar) { person.Serialise(ar); }); };
    EXPECT_EQ(record(*plain), record(*model));

    struct : IPrefVisitor {
        void VisitPref(const prefbase& pref) override { m_owned.push_back(pref.GetOid()); }
        void VisitParentPref(const prefbase&) override { ++m_numParents; }
        std::vector<OID> m_owned;
        int m_numParents = 0;
    } visitor;
    ptr<IPersistable>(model)->VisitPrefs(visitor);
    EXPECT_EQ(7U, visitor.m_owned.size());
    EXPECT_EQ(1, visitor.m_numParents);
    EXPECT_EQ(hooks.Take(), Notes());
}

TEST_F(ModelFieldsPersist, WhatWasOnlyAssignedIsThereAfterARestart) {
    OID oldPet;
    {
        const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
        BeginTransaction(m_ps->GetCSpace());
        ann->name = "Anna";
        ann->age += 12;
        ann->pet = NewPet("rex");
        oldPet = ann->pet.Get().GetOid();
        ann->pets.push_back(NewPet("a"));
        ann->pets.push_back(NewPet("b"));
        ann->club.insert(ptr<IPersistable>(NewPet("c")));
        ann->job = Job{1, cref<Pet>(NewPet("tool"))};
        ann->scores.push_back(99);
        ann->tags.insert(7);
        ann->boss = ann;
        EndTransaction(m_ps->GetCSpace());
    }
    RecordingHooks hooks;
    ReopenAnn();
    {
        const SpaceScope scope(m_ps);
        EXPECT_EQ(hooks.Take(), Notes()); // loading fires nothing
        EXPECT_EQ(ann->name, "Anna");
        EXPECT_EQ(ann->age, 42);
        EXPECT_FALSE(ann->pet.Get().IsBound());
        EXPECT_EQ(ann->pet->name, "rex");
        EXPECT_EQ(0, ann->pet->numOnCreate);
        ASSERT_EQ(ann->pets.size(), 2);
        EXPECT_EQ(ann->pets[1]->name, "b");
        EXPECT_EQ(ann->club.size(), 1);
        EXPECT_EQ(ann->job->tool->name, "tool");
        EXPECT_EQ(ann->scores, (xvector<int32>{99}));
        EXPECT_TRUE(ann->tags.contains(7));
        EXPECT_EQ(ann->boss.Get().GetNotNull(), ann);

        ann->pet = NewPet("tom"); // the old one was loaded
        ann->pets.erase(0);       // this one is loaded to be queued
    }
    EXPECT_EQ(2U, Queued().size());
    Accumulate();
    while (Batch()) {
    }
    EXPECT_FALSE(m_store.Has(oldPet));
    ReopenAnn();
    const SpaceScope scope(m_ps);
    EXPECT_EQ(ann->pet->name, "tom");
    ASSERT_EQ(ann->pets.size(), 1);
    EXPECT_EQ(ann->pets[0]->name, "b");
}

TEST_F(ModelFieldsPersist, AnOwnerThatIsAttachedLaterTakesItsChildrenAlong) {
    const SpaceScope scope(m_ps);
    Person* const bob = NewObject<Person>();
    bob->pet = NewPet();
    bob->pets = {cref<Pet>(NewPet()), cref<Pet>(NewPet())};
    bob->job = Job{1, cref<Pet>(NewPet())};
    bob->boss = bob;
    m_ps->AddRoot("bob", bob);
    EXPECT_TRUE(bob->pet.Get().GetOid());
    EXPECT_TRUE(bob->pets[1].GetOid());
    EXPECT_TRUE(bob->job->tool.GetOid());
    EXPECT_EQ(0, bob->pet->numOnCreate); // nobody assigned it to a persistent owner
}

TEST_F(ModelFieldsPersist, ADeepCopyIsATransientObjectWithCopiesOfTheChildren) {
    const SpaceScope scope(m_ps);
    ann->pet = NewPet("rex");
    ann->pets.push_back(NewPet("a"));
    ann->jobs.push_back(Job{1, cref<Pet>(NewPet("tool"))});
    ann->scores = {1, 2};
    RecordingHooks hooks;
    auto* const copy = static_cast<Person*>(SynchronousDeepCopyPersistableObject(ann).m_self);
    EXPECT_EQ(hooks.Take(), Notes());
    EXPECT_FALSE(GetOid(copy));
    EXPECT_EQ(copy->name, "Ann");
    EXPECT_EQ(copy->scores, ann->scores);
    EXPECT_NE(copy->pet.Get().GetBoundPtr(), ann->pet.Get().GetBoundPtr());
    EXPECT_EQ(copy->pet->name, "rex");
    EXPECT_EQ(copy->pets[0]->name, "a");
    EXPECT_FALSE(GetOid(copy->jobs[0].tool.Get()));

    copy->name = "Eve"; // a field of the copy, and no other's
    EXPECT_EQ(hooks.m_field.obj, ptr<IObject>(copy));
    EXPECT_EQ(ann->name, "Ann");
}

TEST_F(ModelFieldsPersist, AChangeWithoutTheLockIsRefusedAndTheFieldStays) {
    ExpectAssertion("HaveWriteAccess()", [&] { ann->name = "x"; });
    ExpectAssertion("HaveWriteAccess()", [&] { ++ann->age; });
    EXPECT_EQ(ann->name, "Ann");
    EXPECT_EQ(ann->age, 30);
    {
        const SpaceScope scope(m_ps);
        ++ann->age;
    }
    EXPECT_TRUE(ann->IsDirty());
    ExpectAssertion("HaveWriteAccess()", [&] { ann->name = "x"; });
    const SpaceScope scope(m_ps, SharedRead);
    ExpectAssertion("HaveWriteAccess()", [&] { ++ann->age; });
    EXPECT_EQ(ann->age, 31);
}

} // namespace
} // namespace quna

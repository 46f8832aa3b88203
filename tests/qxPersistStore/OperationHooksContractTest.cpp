// What each elementary change of an object means for the store: the checks and the effect of every operation hook, on
// transient objects and persistent ones.
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PersistOperationCallbacks.h"
#include "tests/support/HookTestObjects.h"
#include "tests/support/TestStore.h"

#include <functional>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "src/PersistOperationCallbacks";

void VisitOne(IPrefVisitor& visitor, const void* value) { visitor << *static_cast<const prefbase*>(value); }
void VisitArray(IPrefVisitor& visitor, const void* array, ssize_t elementSize, ssize_t count) {
    for (ssize_t i = 0; i < count; ++i)
        visitor << *reinterpret_cast<const prefbase*>(static_cast<const char*>(array) + i * elementSize);
}
constexpr ssize_t PREF_SIZE = 24;

template <class Params>
Params Of(ptr<IObject> obj, void* addr) {
    Params params;
    params.obj = obj;
    params.addr = addr;
    return params;
}

class OperationHooks : public ::testing::Test {
protected:
    OperationHooks() {
        RegisterHookTestObjects();
        m_ps = Open("s");
    }
    // A space whose objects nobody collects but the test.
    PSpace* Open(ConstStringZ name) { return m_store.OpenSpace(name, OM_OPEN_ALWAYS, CreateCSpace()); }
    static IOperationCallBacks& Hooks() { return *GetOperationCallBacks(); }

    // A persistent parent that is written and clean.
    TestHookParent* CleanParent(const std::function<void(TestHookParent&)>& fill = {}, ConstStringZ name = "parent") {
        TestHookParent* parent = nullptr;
        {
            const SpaceScope scope(m_ps);
            parent = NewObject<TestHookParent>();
            if (fill) fill(*parent);
            EXPECT_TRUE(m_ps->AddRoot(name, parent));
        }
        m_ps->WriteDirtyObjectsToLss(false);
        EXPECT_FALSE(parent->IsDirty());
        return parent;
    }
    std::vector<OID> Requested(const PSpace* ps) const {
        const DeletionQueue::OIDS& queue = ps->m_dq.m_deltaQueue;
        return std::vector<OID>(queue.begin(), queue.end());
    }
    std::vector<OID> Requested() const { return Requested(m_ps); }

    // ---- Each operation, with arguments that it accepts: m_src is the reference that comes or goes ----

    struct Operation {
        ConstStringZ m_name;
        bool m_resolves; // looks at the object's identity
        bool m_marks;    // marks a persistent object dirty
        std::function<void(ptr<IObject>)> m_run;
    };
    std::vector<Operation> Operations() {
        m_vector.clear();
        m_vector.push_back(pref<IPersistable>());
        return {
            {"OnBeforeAssignValue", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<AssignValue_params>(obj, &m_src);
                 params.visitPrefsFn = &VisitOne;
                 Hooks().OnBeforeAssignValue(params);
             }},
            {"OnAfterAssignValueWithoutPrefs", false, false,
             [this](ptr<IObject> obj) {
                 Hooks().OnAfterAssignValueWithoutPrefs(Of<AssignValue_params>(obj, &m_number));
             }},
            {"OnAfterAssignValueWithPrefs", true, false,
             [this](ptr<IObject> obj) {
                 auto params = Of<AssignValue_params>(obj, &m_src);
                 params.visitPrefsFn = &VisitOne;
                 Hooks().OnAfterAssignValueWithPrefs(params);
             }},
            {"OnAssignPref", true, true,
             [this](ptr<IObject> obj) {
                 m_field.Clear();
                 auto params = Of<AssignPref_params>(obj, &m_field);
                 params.src = &m_src;
                 Hooks().OnAssignPref(params);
             }},
            {"OnOffsetValue", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<OffsetValue_params>(obj, &m_number);
                 params.offset = 5;
                 Hooks().OnOffsetValue(params);
             }},
            {"OnCreateIntoVector", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<CreateIntoVector_params>(obj, &m_vector);
                 params.src = &m_src;
                 params.n = 1;
                 params.visitPrefsInArrayFn = &VisitArray;
                 params.elementSize = PREF_SIZE;
                 Hooks().OnCreateIntoVector(params);
             }},
            {"OnDeleteFromVector", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<DeleteFromVector_params>(obj, &m_vector);
                 params.n = 1;
                 params.visitPrefsInArrayFn = &VisitArray;
                 params.elementSize = PREF_SIZE;
                 Hooks().OnDeleteFromVector(params);
             }},
            {"OnCreateIntoMVector", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<CreateIntoMVector_params>(obj, &m_vector);
                 params.src = &m_src;
                 params.n = 1;
                 Hooks().OnCreateIntoMVector(params);
             }},
            {"OnDeleteFromMVector", true, true,
             [this](ptr<IObject> obj) {
                 m_vector[0] = pref<IPersistable>(m_src.GetBoundPtr());
                 auto params = Of<DeleteFromMVector_params>(obj, &m_vector);
                 params.n = 1;
                 Hooks().OnDeleteFromMVector(params);
             }},
            {"OnSetInsert", false, false,
             [this](ptr<IObject> obj) { Hooks().OnSetInsert(Of<AssignValue_params>(obj, &m_number)); }},
            {"OnSetDelete", false, false,
             [this](ptr<IObject> obj) { Hooks().OnSetDelete(Of<AssignValue_params>(obj, &m_number)); }},
            {"OnInsertIntoMSet", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<InsertIntoMSet_params>(obj, &m_vector);
                 params.src = &m_src;
                 params.n = 1;
                 Hooks().OnInsertIntoMSet(params);
             }},
            {"OnDeleteFromMSet", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<DeleteFromMSet_params>(obj, &m_vector);
                 params.src = &m_src;
                 params.n = 1;
                 Hooks().OnDeleteFromMSet(params);
             }},
        };
    }

    // ---- Single operations with the arguments that matter ----

    static void AssignPref(TestHookParent* parent, prefbase& field, const prefbase& src) {
        auto params = Of<AssignPref_params>(parent, &field);
        params.src = &src;
        Hooks().OnAssignPref(params);
    }
    static void CreateIntoMVector(TestHookParent* parent, const std::vector<prefbase>& src) {
        auto params = Of<CreateIntoMVector_params>(parent, &parent->m_refs);
        params.src = src.data();
        params.n = static_cast<ssize_t>(src.size());
        Hooks().OnCreateIntoMVector(params);
    }
    static void DeleteFromMVector(TestHookParent* parent, ssize_t i, ssize_t n) {
        auto params = Of<DeleteFromMVector_params>(parent, &parent->m_refs);
        params.i = i;
        params.n = n;
        Hooks().OnDeleteFromMVector(params);
    }
    static void InsertIntoMSet(TestHookParent* parent, const std::vector<prefbase>& src) {
        auto params = Of<InsertIntoMSet_params>(parent, nullptr);
        params.src = src.data();
        params.n = static_cast<ssize_t>(src.size());
        Hooks().OnInsertIntoMSet(params);
    }
    static DeleteFromVector_params DeletionFromVector(TestHookParent* parent, ssize_t i, ssize_t n) {
        auto params = Of<DeleteFromVector_params>(parent, &parent->m_refs);
        params.i = i;
        params.n = n;
        params.visitPrefsInArrayFn = &VisitArray;
        params.elementSize = PREF_SIZE;
        return params;
    }
    static prefbase RefTo(ptr<IPersistable> po) {
        prefbase r;
        r.Set(po);
        return r;
    }

    TestStore m_store;
    PSpace* m_ps = nullptr;
    int32 m_number = 0;
    prefbase m_src;
    prefbase m_field;
    xvector<pref<IPersistable>> m_vector;
};

// ---- All operations ---------------------------------------------------------------------------------------------------

TEST_F(OperationHooks, AnObjectWithoutIdentityConcernsTheStoreInNothingAndNeedsNoLock) {
    TestPlainObject plain;
    TestHookParent outside;
    TestHookParent* inside = nullptr;
    {
        const SpaceScope scope(m_ps);
        inside = NewObject<TestHookParent>();
    }
    TestHookChild child;
    m_src.Set(&child);
    for (const ptr<IObject>& obj : {ptr<IObject>(&plain), ptr<IObject>(&outside), ptr<IObject>(inside)})
        for (const Operation& operation : Operations()) {
            SCOPED_TRACE(operation.m_name);
            EXPECT_NO_THROW(operation.m_run(obj));
            EXPECT_FALSE(GetOid(&child));
            EXPECT_EQ(0, child.m_numOnCreate);
        }
    EXPECT_FALSE(outside.IsDirty());
    EXPECT_FALSE(inside->IsDirty());
    EXPECT_FALSE(m_ps->m_dq.HaveRequests());
    EXPECT_FALSE(GetOid(inside));
    EXPECT_EQ(0, m_number); // the values are the caller's to change
    EXPECT_TRUE(m_field == m_src) << "assigning a reference is the hook's work all the same";
    m_src.Clear();
}

TEST_F(OperationHooks, EveryChangeOfAPersistentObjectMarksItDirtyOnceAndNothingElseDoes) {
    for (const Operation& operation : Operations()) {
        SCOPED_TRACE(operation.m_name);
        TestHookParent* const parent = CleanParent({}, operation.m_name);
        const SpaceScope scope(m_ps);
        m_src.Set(NewObject<TestHookChild>());
        operation.m_run(parent);
        EXPECT_EQ(operation.m_marks, parent->IsDirty());
        EXPECT_TRUE(Requested().empty()) << "what goes here is transient";
        const ssize_t numDirty = m_ps->m_dos.NumDirtyObjects();
        m_src.Set(NewObject<TestHookChild>());
        operation.m_run(parent);
        EXPECT_GE(numDirty + 1, m_ps->m_dos.NumDirtyObjects()); // the child at most
    }
}

TEST_F(OperationHooks, ChangingAPersistentObjectTakesTheExclusiveLock) {
    TestHookParent* const parent = CleanParent();
    const SpaceScope scope(m_ps, SharedRead);
    m_src.Set(NewObject<TestHookChild>());
    for (const Operation& operation : Operations()) {
        SCOPED_TRACE(operation.m_name);
        if (operation.m_resolves)
            ExpectAssertion("HaveWriteAccess()", "src/PSpace", [&] { operation.m_run(parent); });
        else
            EXPECT_NO_THROW(operation.m_run(parent));
        EXPECT_FALSE(parent->IsDirty());
        EXPECT_FALSE(m_src.GetOid());
    }
}

TEST_F(OperationHooks, AnObjectWithIdentityMustBeInASpace) {
    TestHookParent stray;
    stray.GetPersistObjState().m_oid = OID(5, 1);
    const SpaceScope scope(m_ps);
    m_src.Set(NewObject<TestHookChild>());
    for (const Operation& operation : Operations()) {
        SCOPED_TRACE(operation.m_name);
        if (operation.m_resolves)
            ExpectAssertion("pspace", PATH, [&] { operation.m_run(&stray); });
        else
            EXPECT_NO_THROW(operation.m_run(&stray));
    }
}

TEST_F(OperationHooks, ArgumentsAreCheckedBeforeTheObjectIsLookedAt) {
    TestHookParent transient;
    prefbase field;
    const ptr<IObject> obj(&transient);
    {
        AssignValue_params p;
        ExpectAssertion("params.obj", PATH, [&] { Hooks().OnBeforeAssignValue(p); });
        ExpectAssertion("params.obj", PATH, [&] { Hooks().OnAfterAssignValueWithPrefs(p); });
        EXPECT_NO_THROW(Hooks().OnAfterAssignValueWithoutPrefs(p));
        EXPECT_NO_THROW(Hooks().OnSetInsert(p));
        EXPECT_NO_THROW(Hooks().OnSetDelete(p));
        p.obj = obj;
        ExpectAssertion("params.addr", PATH, [&] { Hooks().OnBeforeAssignValue(p); });
        ExpectAssertion("params.addr", PATH, [&] { Hooks().OnAfterAssignValueWithPrefs(p); });
        p.addr = &field;
        EXPECT_NO_THROW(Hooks().OnBeforeAssignValue(p)); // a value without references
        ExpectAssertion("params.visitPrefsFn", PATH, [&] { Hooks().OnAfterAssignValueWithPrefs(p); });
    }
    {
        AssignPref_params p;
        ExpectAssertion("field", PATH, [&] { Hooks().OnAssignPref(p); });
    }
    {
        const OffsetValue_params p;
        ExpectAssertion("params.obj", PATH, [&] { Hooks().OnOffsetValue(p); });
    }
    {
        CreateIntoVector_params p;
        ExpectAssertion("params.n > 0", PATH, [&] { Hooks().OnCreateIntoVector(p); });
        p.n = -1;
        ExpectAssertion("params.n > 0", PATH, [&] { Hooks().OnCreateIntoVector(p); });
        p.n = 1;
        ExpectAssertion("params.src", PATH, [&] { Hooks().OnCreateIntoVector(p); });
        p.src = &field;
        ExpectAssertion("params.obj", PATH, [&] { Hooks().OnCreateIntoVector(p); });
    }
    {
        DeleteFromVector_params p;
        p.i = -1;
        ExpectAssertion("params.n > 0", PATH, [&] { Hooks().OnDeleteFromVector(p); });
        p.n = 1;
        ExpectAssertion("params.i >= 0", PATH, [&] { Hooks().OnDeleteFromVector(p); });
        p.i = 0;
        ExpectAssertion("params.obj", PATH, [&] { Hooks().OnDeleteFromVector(p); });
    }
    {
        CreateIntoMVector_params p;
        ExpectAssertion("params.n > 0", PATH, [&] { Hooks().OnCreateIntoMVector(p); });
        p.n = 1;
        ExpectAssertion("params.obj", PATH, [&] { Hooks().OnCreateIntoMVector(p); });
        p.obj = obj;
        EXPECT_NO_THROW(Hooks().OnCreateIntoMVector(p)); // no source is asked for: the object is transient
    }
    DeleteFromMVector_params fromVector;
    ExpectAssertion("params.n > 0", PATH, [&] { Hooks().OnDeleteFromMVector(fromVector); });
    InsertIntoMSet_params intoSet;
    ExpectAssertion("params.n > 0", PATH, [&] { Hooks().OnInsertIntoMSet(intoSet); });
    DeleteFromMSet_params fromSet;
    ExpectAssertion("params.n > 0", PATH, [&] { Hooks().OnDeleteFromMSet(fromSet); });
    // No object is no persistable one.
    fromVector.n = intoSet.n = fromSet.n = 1;
    EXPECT_NO_THROW(Hooks().OnDeleteFromMVector(fromVector));
    EXPECT_NO_THROW(Hooks().OnInsertIntoMSet(intoSet));
    EXPECT_NO_THROW(Hooks().OnDeleteFromMSet(fromSet));
}

// ---- Values -----------------------------------------------------------------------------------------------------------

TEST_F(OperationHooks, BeforeAValueIsAssignedWhatTheOldOneRefersToIsQueuedForDeletion) {
    TestLeaf* old = nullptr;
    TestHookParent* const parent = CleanParent([&](TestHookParent& p) { p.m_ref = old = NewObject<TestLeaf>(1); });
    const SpaceScope scope(m_ps);
    auto params = Of<AssignValue_params>(parent, &parent->m_ref);
    params.visitPrefsFn = &VisitOne;
    Hooks().OnBeforeAssignValue(params);
    EXPECT_EQ(std::vector<OID>{GetOid(old)}, Requested());
    EXPECT_TRUE(parent->IsDirty());
    EXPECT_EQ(old, parent->m_ref.Get().m_self) << "the assignment is the caller's";
}

TEST_F(OperationHooks, AnOldValueThatIsNoSubTreeKeepsTheObjectUnmarked) {
    TestHookParent* const parent = CleanParent([&](TestHookParent& p) { p.m_ref = NewObject<TestNoSubTree>(); });
    const SpaceScope scope(m_ps);
    auto params = Of<AssignValue_params>(parent, &parent->m_ref);
    params.visitPrefsFn = &VisitOne;
    ExpectAssertion("obj->RepresentsSubTree()", "src/DeletionQueue", [&] { Hooks().OnBeforeAssignValue(params); });
    EXPECT_FALSE(parent->IsDirty()) << "marking comes last";
    EXPECT_TRUE(Requested().empty());
}

TEST_F(OperationHooks, DeletionsGoToTheThreadsSpaceAndTheMarkToTheObjects) {
    PSpace* const other = Open("other");
    TestLeaf* old = nullptr;
    TestHookParent* const parent = CleanParent([&](TestHookParent& p) { p.m_ref = old = NewObject<TestLeaf>(1); });
    const SpaceScope scope(m_ps);
    auto params = Of<AssignValue_params>(parent, &parent->m_ref);
    params.visitPrefsFn = &VisitOne;
    {
        const ThreadPSpaceScope pair(other, other->GetCSpace());
        ExpectAssertion("HaveWriteAccess()", "src/PSpace", [&] { Hooks().OnBeforeAssignValue(params); });
    }
    EXPECT_FALSE(parent->IsDirty());
    {
        const SpaceScope inOther(other);
        Hooks().OnBeforeAssignValue(params);
    }
    EXPECT_TRUE(parent->IsDirty());
    EXPECT_TRUE(Requested().empty());
    EXPECT_EQ(std::vector<OID>{GetOid(old)}, Requested(other));
    other->m_dq.m_deltaQueue.clear(); // that object is not there
}

TEST_F(OperationHooks, AfterAValueIsAssignedItsNewTargetsArePersistentNearTheObject) {
    TestHookParent* const parent = CleanParent();
    RecordingLss& lss = m_store.Record();
    const SpaceScope scope(m_ps);
    m_ps->SetAffiliateOidLow(0);
    TestHookChild* const child = NewObject<TestHookChild>();
    TestHookChild* const below = NewObject<TestHookChild>();
    child->m_below = below;
    parent->m_ref = ptr<IPersistable>(child);
    auto params = Of<AssignValue_params>(parent, &parent->m_ref);
    params.visitPrefsFn = &VisitOne;
    Hooks().OnAfterAssignValueWithPrefs(params);
    EXPECT_TRUE(GetOid(child) && child->IsDirty());
    EXPECT_TRUE(GetOid(below) && below->IsDirty());
    EXPECT_FALSE(parent->IsDirty()) << "the call before the assignment has marked it";
    EXPECT_EQ(0, child->m_numOnCreate) << "only references that own their target tell it";
    EXPECT_EQ((std::vector<Seid>{Seid(GetOid(parent).low_, 1), Seid(GetOid(parent).low_, 1)}), lss.AffiliateHints());
    Hooks().OnAfterAssignValueWithPrefs(params); // a persistent target is left alone
    EXPECT_EQ(2u, lss.AffiliateHints().size());
}

TEST_F(OperationHooks, OffsettingMarksAndChangesNoValue) {
    TestHookParent* const parent = CleanParent();
    const SpaceScope scope(m_ps);
    auto params = Of<OffsetValue_params>(parent, &parent->m_number);
    params.offset = 7;
    Hooks().OnOffsetValue(params);
    EXPECT_TRUE(parent->IsDirty());
    EXPECT_EQ(0, parent->m_number);
    const OffsetValue_params withoutAddress = Of<OffsetValue_params>(parent, nullptr);
    EXPECT_NO_THROW(Hooks().OnOffsetValue(withoutAddress));
}

TEST_F(OperationHooks, MarkAsPersistentTellsWhetherTheObjectIsPersistent) {
    PersistOperationCallbacks& hooks = static_cast<PersistOperationCallbacks&>(Hooks());
    TestHookParent* const parent = CleanParent();
    TestHookParent transient;
    TestPlainObject plain;
    TestHookParent stray;
    stray.GetPersistObjState().m_oid = OID(5, 1);
    ExpectAssertion("params.obj", PATH, [&] { hooks.MarkAsPersistent(FieldParams()); });
    EXPECT_FALSE(hooks.MarkAsPersistent(Of<FieldParams>(&transient, nullptr)));
    EXPECT_FALSE(hooks.MarkAsPersistent(Of<FieldParams>(&plain, nullptr)));
    ExpectAssertion("pspace", PATH, [&] { hooks.MarkAsPersistent(Of<FieldParams>(&stray, nullptr)); });
    ExpectAssertion("HaveWriteAccess()", "src/PSpace",
                    [&] { hooks.MarkAsPersistent(Of<FieldParams>(parent, nullptr)); });
    const SpaceScope scope(m_ps);
    EXPECT_TRUE(hooks.MarkAsPersistent(Of<FieldParams>(parent, nullptr)));
    EXPECT_TRUE(hooks.MarkAsPersistent(Of<FieldParams>(parent, nullptr)));
    EXPECT_TRUE(parent->IsDirty());
}

// ---- Vectors of values ------------------------------------------------------------------------------------------------

TEST_F(OperationHooks, ElementsThatComeIntoAVectorBringTheirTargetsAlong) {
    TestHookParent* const parent = CleanParent();
    RecordingLss& lss = m_store.Record();
    const SpaceScope scope(m_ps);
    m_ps->SetAffiliateOidLow(0);
    TestHookChild* const x = NewObject<TestHookChild>();
    TestHookChild* const y = NewObject<TestHookChild>();
    const prefbase elements[] = {RefTo(x), prefbase(), RefTo(y)};
    auto params = Of<CreateIntoVector_params>(parent, &parent->m_refs);
    params.src = elements;
    params.n = 2;
    params.visitPrefsInArrayFn = &VisitArray;
    params.elementSize = PREF_SIZE;
    Hooks().OnCreateIntoVector(params);
    EXPECT_TRUE(GetOid(x));
    EXPECT_FALSE(GetOid(y)) << "only n elements";
    EXPECT_TRUE(parent->IsDirty());
    EXPECT_TRUE(parent->m_refs.empty()) << "the insertion is the caller's";
    EXPECT_EQ(0, x->m_numOnCreate);
    EXPECT_EQ(std::vector<Seid>{Seid(GetOid(parent).low_, 1)}, lss.AffiliateHints());
    params.visitPrefsInArrayFn = nullptr; // elements without references
    params.src = elements + 2;
    params.n = 1;
    Hooks().OnCreateIntoVector(params);
    EXPECT_FALSE(GetOid(y));
}

TEST_F(OperationHooks, ElementsThatLeaveAVectorTakeTheirTargetsAlong) {
    std::vector<TestLeaf*> leaves;
    TestHookParent* const parent = CleanParent([&](TestHookParent& p) {
        for (int i = 0; i < 4; ++i) p.m_refs.push_back(pref<IPersistable>(leaves.emplace_back(NewObject<TestLeaf>(i))));
    });
    const SpaceScope scope(m_ps);
    Hooks().OnDeleteFromVector(DeletionFromVector(parent, 1, 2));
    EXPECT_EQ((std::vector<OID>{GetOid(leaves[1]), GetOid(leaves[2])}), Requested());
    EXPECT_TRUE(parent->IsDirty());
    EXPECT_EQ(4, parent->m_refs.size()) << "the removal is the caller's";
}

TEST_F(OperationHooks, ARangeOfAVectorIsCheckedOnlyWhereItIsVisited) {
    TestHookParent* const parent =
        CleanParent([&](TestHookParent& p) { p.m_refs.push_back(pref<IPersistable>(NewObject<TestLeaf>(0))); });
    const SpaceScope scope(m_ps);
    auto params = DeletionFromVector(parent, 0, 2);
    ExpectAssertion("(params.i + params.n) * params.elementSize <= v->size()", PATH,
                    [&] { Hooks().OnDeleteFromVector(params); });
    params = DeletionFromVector(parent, 1, 1);
    ExpectAssertion("(params.i + params.n) * params.elementSize <= v->size()", PATH,
                    [&] { Hooks().OnDeleteFromVector(params); });
    params = DeletionFromVector(parent, 0, 1);
    params.elementSize = 0;
    ExpectAssertion("params.elementSize > 0", PATH, [&] { Hooks().OnDeleteFromVector(params); });
    params.elementSize = 7;
    ExpectAssertion("v->size() % params.elementSize == 0", PATH, [&] { Hooks().OnDeleteFromVector(params); });
    EXPECT_TRUE(Requested().empty());
    EXPECT_FALSE(parent->IsDirty());
    params = DeletionFromVector(parent, 100, 100);
    params.visitPrefsInArrayFn = nullptr;
    params.elementSize = 0;
    EXPECT_NO_THROW(Hooks().OnDeleteFromVector(params));
    EXPECT_TRUE(parent->IsDirty());
}

// ---- References that own their target ---------------------------------------------------------------------------------

TEST_F(OperationHooks, AssigningAReferenceAdoptsTheNewChildAndQueuesTheOldOne) {
    TestHookChild* old = nullptr;
    TestHookParent* const parent = CleanParent([&](TestHookParent& p) { p.m_ref = old = NewObject<TestHookChild>(); });
    RecordingLss& lss = m_store.Record();
    const SpaceScope scope(m_ps);
    TestHookChild* const child = NewObject<TestHookChild>();
    TestHookChild* const below = NewObject<TestHookChild>();
    child->m_below = below;
    bool wasDirty = true;
    child->m_onCreate = [&] {
        wasDirty = parent->IsDirty();
        EXPECT_EQ(old, parent->m_ref.GetBoundPtr().m_self);
    };
    AssignPref(parent, parent->m_ref, RefTo(child));
    EXPECT_EQ(std::vector<OID>{GetOid(old)}, Requested());
    EXPECT_TRUE(GetOid(child) && child->IsDirty());
    EXPECT_TRUE(GetOid(below) && below->IsDirty());
    EXPECT_EQ((std::vector<Seid>{Seid(GetOid(parent).low_, 1), Seid(GetOid(parent).low_, 1)}), lss.AffiliateHints());
    EXPECT_EQ(1, child->m_numOnCreate);
    EXPECT_TRUE(child->m_createdArgument);
    EXPECT_EQ(GetOid(child), child->m_oidInOnCreate);
    EXPECT_EQ(0, below->m_numOnCreate);
    EXPECT_FALSE(wasDirty) << "the parent is marked after its child has been told";
    EXPECT_TRUE(parent->IsDirty());
    EXPECT_EQ(child, parent->m_ref.Get().m_self);
    EXPECT_EQ(GetOid(child), parent->m_ref.GetOid());
}

TEST_F(OperationHooks, AReferenceToNothingTakesAChildAndDeletesNothing) {
    TestHookParent* const parent = CleanParent();
    const SpaceScope scope(m_ps);
    TestHookChild* const child = NewObject<TestHookChild>();
    AssignPref(parent, parent->m_ref, RefTo(child));
    EXPECT_TRUE(Requested().empty());
    EXPECT_TRUE(GetOid(child));
    EXPECT_EQ(child, parent->m_ref.Get().m_self);
}

TEST_F(OperationHooks, AnAssignmentSurvivesARestart) {
    TestHookParent* const parent = CleanParent();
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestHookChild* const child = NewObject<TestHookChild>();
        AssignPref(parent, parent->m_ref, RefTo(child));
        oid = GetOid(child);
    }
    m_store.Reopen();
    m_ps = Open("s");
    const SpaceScope scope(m_ps);
    const auto* const read = static_cast<const TestHookParent*>(m_ps->GetRoot("parent").m_self);
    EXPECT_EQ(oid, read->m_ref.GetOid());
    EXPECT_EQ(0, static_cast<const TestHookChild*>(read->m_ref.GetNotNull().m_self)->m_numOnCreate);
}

TEST_F(OperationHooks, AnOldChildThatIsNotInMemoryIsLoadedToBeQueued) {
    OID old;
    TestHookParent* const parent = CleanParent([&](TestHookParent& p) { p.m_ref = NewObject<TestHookChild>(); });
    old = parent->m_ref.GetOid();
    parent->m_ref.ClearPtrOnly();
    {
        const SpaceScope scope(m_ps);
        SynchronousGc(m_ps->GetCSpace());
    }
    const SpaceScope scope(m_ps);
    auto* const found = static_cast<TestHookParent*>(m_ps->GetRoot("parent").m_self);
    EXPECT_FALSE(m_ps->BindObjectIfMemoryResident(old));
    AssignPref(found, found->m_ref, RefTo(NewObject<TestHookChild>()));
    EXPECT_EQ(std::vector<OID>{old}, Requested());
}

TEST_F(OperationHooks, AnOldChildThatIsGoneStopsTheAssignment) {
    TestHookChild* old = nullptr;
    TestHookParent* const parent = CleanParent([&](TestHookParent& p) { p.m_ref = old = NewObject<TestHookChild>(); });
    const SpaceScope scope(m_ps);
    m_ps->SyncPermanentlyDeleteObject(old);
    parent->m_ref.ClearPtrOnly();
    TestHookChild* const child = NewObject<TestHookChild>();
    ExpectException<DerefDanglingOidException>("Dereferenced dangling OID = " + TextOfSeid(GetOid(old)),
                                               [&] { AssignPref(parent, parent->m_ref, RefTo(child)); });
    EXPECT_FALSE(GetOid(child));
    EXPECT_FALSE(parent->IsDirty());
    EXPECT_EQ(GetOid(old), parent->m_ref.GetOid());
}

TEST_F(OperationHooks, AnOldChildThatIsTransientIsJustReplaced) {
    TestHookParent* const parent = CleanParent();
    const SpaceScope scope(m_ps);
    parent->m_ref = ptr<IPersistable>(NewObject<TestHookChild>());
    TestHookChild* const child = NewObject<TestHookChild>();
    AssignPref(parent, parent->m_ref, RefTo(child));
    EXPECT_TRUE(Requested().empty());
    EXPECT_EQ(child, parent->m_ref.Get().m_self);
}

TEST_F(OperationHooks, AnOldChildThatIsNoSubTreeCannotBeReplaced) {
    TestNoSubTree* old = nullptr;
    TestHookParent* const parent = CleanParent([&](TestHookParent& p) { p.m_ref = old = NewObject<TestNoSubTree>(); });
    const SpaceScope scope(m_ps);
    TestHookChild* const child = NewObject<TestHookChild>();
    ExpectAssertion("obj->RepresentsSubTree()", "src/DeletionQueue",
                    [&] { AssignPref(parent, parent->m_ref, RefTo(child)); });
    EXPECT_FALSE(GetOid(child));
    EXPECT_FALSE(parent->IsDirty());
    EXPECT_EQ(old, parent->m_ref.Get().m_self);
}

TEST_F(OperationHooks, AReferenceCannotBeClearedAndTheOldChildStaysQueued) {
    TestHookChild* old = nullptr;
    TestHookParent* const parent = CleanParent([&](TestHookParent& p) { p.m_ref = old = NewObject<TestHookChild>(); });
    const SpaceScope scope(m_ps);
    ExpectAssertion("child", PATH, [&] { AssignPref(parent, parent->m_ref, prefbase()); });
    EXPECT_EQ(std::vector<OID>{GetOid(old)}, Requested()); // not taken back
    EXPECT_FALSE(parent->IsDirty());
    EXPECT_EQ(old, parent->m_ref.Get().m_self);
    // So the same assignment again finds it queued.
    ExpectAssertion("std::find(m_deltaQueue.begin(), m_deltaQueue.end(), oid) == m_deltaQueue.end()",
                    "src/DeletionQueue", [&] { AssignPref(parent, parent->m_ref, prefbase()); });
}

TEST_F(OperationHooks, ASourceMustBeThere) {
    TestHookParent* const parent = CleanParent();
    const SpaceScope scope(m_ps);
    ExpectAssertion("params.src", PATH,
                    [&] { Hooks().OnAssignPref(Of<AssignPref_params>(parent, &parent->m_ref)); });
    auto intoVector = Of<CreateIntoMVector_params>(parent, &parent->m_refs);
    intoVector.n = 1;
    ExpectAssertion("params.src", PATH, [&] { Hooks().OnCreateIntoMVector(intoVector); });
    auto intoSet = Of<InsertIntoMSet_params>(parent, &parent->m_refs);
    intoSet.n = 1;
    ExpectAssertion("params.src", PATH, [&] { Hooks().OnInsertIntoMSet(intoSet); });
    EXPECT_FALSE(parent->IsDirty());
}

TEST_F(OperationHooks, APersistentObjectCannotBeAdopted) {
    TestHookChild* owned = nullptr;
    TestHookParent* const owner =
        CleanParent([&](TestHookParent& p) { p.m_ref = owned = NewObject<TestHookChild>(); }, "owner");
    TestHookParent* const parent = CleanParent({}, "other");
    const SpaceScope scope(m_ps);
    prefbase unbound;
    unbound.SetOid(GetOid(owned));
    for (const prefbase& src : {RefTo(owned), unbound, RefTo(owner)}) {
        ExpectAssertion("!GetOid(child)", PATH, [&] { AssignPref(parent, parent->m_ref, src); });
        ExpectAssertion("!GetOid(child)", PATH, [&] { CreateIntoMVector(parent, {src}); });
        ExpectAssertion("!GetOid(child)", PATH, [&] { InsertIntoMSet(parent, {src}); });
    }
    EXPECT_FALSE(parent->m_ref);
    EXPECT_FALSE(parent->IsDirty());
    EXPECT_EQ(0, owned->m_numOnCreate);
}

TEST_F(OperationHooks, AChildOfAnotherSpaceCannotBeAdopted) {
    PSpace* const other = Open("other");
    TestHookParent* const parent = CleanParent();
    TestHookChild* foreign = nullptr;
    {
        const SpaceScope scope(other);
        foreign = NewObject<TestHookChild>();
    }
    const SpaceScope scope(m_ps);
    ExpectAssertion("GetAssociatedCSpace(po) == m_cspace", "src/PSpace",
                    [&] { AssignPref(parent, parent->m_ref, RefTo(foreign)); });
    EXPECT_FALSE(GetOid(foreign));
    EXPECT_FALSE(parent->IsDirty() || parent->m_ref);
}

TEST_F(OperationHooks, VectorsAndSetsAdoptEachNewElementInOrder) {
    TestHookParent* const parent = CleanParent();
    const SpaceScope scope(m_ps);
    for (const auto& insert : {&CreateIntoMVector, &InsertIntoMSet}) {
        std::vector<TestHookChild*> children;
        std::vector<prefbase> src;
        std::vector<int> order;
        for (int i = 0; i < 3; ++i) {
            children.push_back(NewObject<TestHookChild>());
            children.back()->m_onCreate = [&order, i] { order.push_back(i); };
            src.push_back(RefTo(children.back()));
        }
        insert(parent, src);
        EXPECT_EQ((std::vector<int>{0, 1, 2}), order);
        for (const TestHookChild* const child : children) {
            EXPECT_TRUE(GetOid(child) && child->IsDirty());
            EXPECT_EQ(GetOid(child), child->m_oidInOnCreate);
            EXPECT_TRUE(child->m_createdArgument);
        }
        EXPECT_EQ(GetOid(parent).low_, m_ps->m_affiliateOidLow);
        EXPECT_TRUE(parent->m_refs.empty()) << "the insertion is the caller's";
    }
    EXPECT_TRUE(parent->IsDirty());
}

TEST_F(OperationHooks, AnElementThatCannotBeAdoptedLeavesThoseBeforeItAdoptedAndTheParentUnmarked) {
    TestHookParent* const parent = CleanParent();
    const SpaceScope scope(m_ps);
    for (const auto& insert : {&CreateIntoMVector, &InsertIntoMSet}) {
        TestHookChild* const x = NewObject<TestHookChild>();
        TestHookChild* const z = NewObject<TestHookChild>();
        ExpectAssertion("child", PATH, [&] { insert(parent, {RefTo(x), prefbase(), RefTo(z)}); });
        EXPECT_EQ(1, x->m_numOnCreate);
        EXPECT_TRUE(GetOid(x));
        EXPECT_FALSE(GetOid(z));
        TestHookChild* const twice = NewObject<TestHookChild>();
        ExpectAssertion("!GetOid(child)", PATH, [&] { insert(parent, {RefTo(twice), RefTo(twice)}); });
        EXPECT_EQ(1, twice->m_numOnCreate);
    }
    EXPECT_FALSE(parent->IsDirty());
}

TEST_F(OperationHooks, ElementsThatLeaveAVectorOrSetOfReferencesAreQueued) {
    std::vector<OID> oids;
    TestHookParent* const parent = CleanParent([&](TestHookParent& p) {
        for (int i = 0; i < 4; ++i) p.m_refs.push_back(pref<IPersistable>(NewObject<TestLeaf>(i)));
    });
    const SpaceScope scope(m_ps);
    for (const pref<IPersistable>& r : parent->m_refs) oids.push_back(r.GetOid());
    parent->m_refs[2].ClearPtrOnly(); // comes back by its identifier
    DeleteFromMVector(parent, 1, 2);
    EXPECT_EQ((std::vector<OID>{oids[1], oids[2]}), Requested());
    EXPECT_TRUE(parent->IsDirty());
    EXPECT_EQ(4, parent->m_refs.size());
    const prefbase leaving[] = {parent->m_refs[3], parent->m_refs[0]};
    auto params = Of<DeleteFromMSet_params>(parent, nullptr);
    params.src = leaving;
    params.n = 2;
    Hooks().OnDeleteFromMSet(params);
    EXPECT_EQ((std::vector<OID>{oids[1], oids[2], oids[3], oids[0]}), Requested());
}

TEST_F(OperationHooks, ANullElementCannotLeave) {
    TestHookParent* const parent = CleanParent([&](TestHookParent& p) {
        p.m_refs.push_back(pref<IPersistable>(NewObject<TestLeaf>(0)));
        p.m_refs.push_back(pref<IPersistable>());
    });
    const SpaceScope scope(m_ps);
    ExpectException<DerefNullPrefException>("Attempt to dereference null pref<T>",
                                            [&] { DeleteFromMVector(parent, 0, 2); });
    EXPECT_EQ(std::vector<OID>{parent->m_refs[0].GetOid()}, Requested());
    const prefbase null;
    auto params = Of<DeleteFromMSet_params>(parent, nullptr);
    params.src = &null;
    params.n = 1;
    ExpectException<DerefNullPrefException>("Attempt to dereference null pref<T>",
                                            [&] { Hooks().OnDeleteFromMSet(params); });
    EXPECT_FALSE(parent->IsDirty());
}

// ---- Callers from inside ----------------------------------------------------------------------------------------------

TEST_F(OperationHooks, AChildMayAssignItsOwnFieldsWhileItIsTold) {
    TestHookParent* const parent = CleanParent();
    const SpaceScope scope(m_ps);
    TestHookChild* const child = NewObject<TestHookChild>();
    TestHookChild* const grandChild = NewObject<TestHookChild>();
    child->m_onCreate = [&] {
        const prefbase src = RefTo(grandChild);
        auto params = Of<AssignPref_params>(child, &child->m_below);
        params.src = &src;
        Hooks().OnAssignPref(params);
    };
    AssignPref(parent, parent->m_ref, RefTo(child));
    EXPECT_EQ(grandChild, child->m_below.Get());
    EXPECT_TRUE(GetOid(grandChild));
    EXPECT_EQ(1, grandChild->m_numOnCreate);
    EXPECT_EQ(child, parent->m_ref.Get().m_self);
}

TEST_F(OperationHooks, AnExceptionOfAChildPassesToTheAssignment) {
    TestHookParent* const parent = CleanParent();
    const SpaceScope scope(m_ps);
    TestHookChild* const child = NewObject<TestHookChild>();
    child->m_onCreate = [] { throw std::runtime_error("no"); };
    EXPECT_THROW(AssignPref(parent, parent->m_ref, RefTo(child)), std::runtime_error);
    EXPECT_TRUE(GetOid(child)); // persistent already
    EXPECT_FALSE(parent->IsDirty() || parent->m_ref);
    TestHookChild* const next = NewObject<TestHookChild>();
    next->m_onCreate = [] { throw std::runtime_error("no"); };
    EXPECT_THROW(CreateIntoMVector(parent, {RefTo(next)}), std::runtime_error);
    EXPECT_FALSE(parent->IsDirty());
}

} // namespace
} // namespace quna

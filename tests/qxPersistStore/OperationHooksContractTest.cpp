// What each elementary change of an object means for the store: the checks of every operation hook, and the effect on values
// and vectors of values, of transient objects and persistent ones.
#include "qxPersistStore/src/PersistOperationCallbacks.h"
#include "tests/support/OperationHooksFixture.h"

#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "src/PersistOperationCallbacks";

class OperationHooksContract : public OperationHooksFixture {};

// ---- All operations ---------------------------------------------------------------------------------------------------

TEST_F(OperationHooksContract, AnObjectWithoutIdentityConcernsTheStoreInNothingAndNeedsNoLock) {
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

TEST_F(OperationHooksContract, EveryChangeOfAPersistentObjectMarksItDirtyOnceAndNothingElseDoes) {
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

TEST_F(OperationHooksContract, ChangingAPersistentObjectTakesTheExclusiveLock) {
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

TEST_F(OperationHooksContract, AnObjectWithIdentityMustBeInASpace) {
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

TEST_F(OperationHooksContract, ArgumentsAreCheckedBeforeTheObjectIsLookedAt) {
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

TEST_F(OperationHooksContract, BeforeAValueIsAssignedWhatTheOldOneRefersToIsQueuedForDeletion) {
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

TEST_F(OperationHooksContract, AnOldValueThatIsNoSubTreeKeepsTheObjectUnmarked) {
    TestHookParent* const parent = CleanParent([&](TestHookParent& p) { p.m_ref = NewObject<TestNoSubTree>(); });
    const SpaceScope scope(m_ps);
    auto params = Of<AssignValue_params>(parent, &parent->m_ref);
    params.visitPrefsFn = &VisitOne;
    ExpectAssertion("obj->RepresentsSubTree()", "src/DeletionQueue", [&] { Hooks().OnBeforeAssignValue(params); });
    EXPECT_FALSE(parent->IsDirty()) << "marking comes last";
    EXPECT_TRUE(Requested().empty());
}

TEST_F(OperationHooksContract, DeletionsGoToTheThreadsSpaceAndTheMarkToTheObjects) {
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

TEST_F(OperationHooksContract, AfterAValueIsAssignedItsNewTargetsArePersistentNearTheObject) {
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

TEST_F(OperationHooksContract, OffsettingMarksAndChangesNoValue) {
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

TEST_F(OperationHooksContract, MarkAsPersistentTellsWhetherTheObjectIsPersistent) {
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

TEST_F(OperationHooksContract, ElementsThatComeIntoAVectorBringTheirTargetsAlong) {
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

TEST_F(OperationHooksContract, ElementsThatLeaveAVectorTakeTheirTargetsAlong) {
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

TEST_F(OperationHooksContract, ARangeOfAVectorIsCheckedOnlyWhereItIsVisited) {
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

} // namespace
} // namespace quna

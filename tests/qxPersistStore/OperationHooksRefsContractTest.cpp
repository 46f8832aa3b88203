// The operation hooks of references that own their target: adopting a new child, deleting the old one.
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PersistOperationCallbacks.h"
#include "tests/support/OperationHooksFixture.h"

#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "src/PersistOperationCallbacks";

class OperationHooksRefsContract : public OperationHooksFixture {};

// ---- References that own their target ---------------------------------------------------------------------------------

TEST_F(OperationHooksRefsContract, AssigningAReferenceAdoptsTheNewChildAndQueuesTheOldOne) {
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

TEST_F(OperationHooksRefsContract, AReferenceToNothingTakesAChildAndDeletesNothing) {
    TestHookParent* const parent = CleanParent();
    const SpaceScope scope(m_ps);
    TestHookChild* const child = NewObject<TestHookChild>();
    AssignPref(parent, parent->m_ref, RefTo(child));
    EXPECT_TRUE(Requested().empty());
    EXPECT_TRUE(GetOid(child));
    EXPECT_EQ(child, parent->m_ref.Get().m_self);
}

TEST_F(OperationHooksRefsContract, AnAssignmentSurvivesARestart) {
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

TEST_F(OperationHooksRefsContract, AnOldChildThatIsNotInMemoryIsLoadedToBeQueued) {
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

TEST_F(OperationHooksRefsContract, AnOldChildThatIsGoneStopsTheAssignment) {
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

TEST_F(OperationHooksRefsContract, AnOldChildThatIsTransientIsJustReplaced) {
    TestHookParent* const parent = CleanParent();
    const SpaceScope scope(m_ps);
    parent->m_ref = ptr<IPersistable>(NewObject<TestHookChild>());
    TestHookChild* const child = NewObject<TestHookChild>();
    AssignPref(parent, parent->m_ref, RefTo(child));
    EXPECT_TRUE(Requested().empty());
    EXPECT_EQ(child, parent->m_ref.Get().m_self);
}

TEST_F(OperationHooksRefsContract, AnOldChildThatIsNoSubTreeCannotBeReplaced) {
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

TEST_F(OperationHooksRefsContract, AReferenceCannotBeClearedAndTheOldChildStaysQueued) {
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

TEST_F(OperationHooksRefsContract, ASourceMustBeThere) {
    TestHookParent* const parent = CleanParent();
    const SpaceScope scope(m_ps);
    ExpectAssertion("params.src", PATH, [&] { Hooks().OnAssignPref(Of<AssignPref_params>(parent, &parent->m_ref)); });
    auto intoVector = Of<CreateIntoMVector_params>(parent, &parent->m_refs);
    intoVector.n = 1;
    ExpectAssertion("params.src", PATH, [&] { Hooks().OnCreateIntoMVector(intoVector); });
    auto intoSet = Of<InsertIntoMSet_params>(parent, &parent->m_refs);
    intoSet.n = 1;
    ExpectAssertion("params.src", PATH, [&] { Hooks().OnInsertIntoMSet(intoSet); });
    EXPECT_FALSE(parent->IsDirty());
}

TEST_F(OperationHooksRefsContract, APersistentObjectCannotBeAdopted) {
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

TEST_F(OperationHooksRefsContract, AChildOfAnotherSpaceCannotBeAdopted) {
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

TEST_F(OperationHooksRefsContract, VectorsAndSetsAdoptEachNewElementInOrder) {
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

TEST_F(OperationHooksRefsContract, AnElementThatCannotBeAdoptedLeavesThoseBeforeItAdoptedAndTheParentUnmarked) {
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

TEST_F(OperationHooksRefsContract, ElementsThatLeaveAVectorOrSetOfReferencesAreQueued) {
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

TEST_F(OperationHooksRefsContract, ANullElementCannotLeave) {
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

TEST_F(OperationHooksRefsContract, AChildMayAssignItsOwnFieldsWhileItIsTold) {
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

TEST_F(OperationHooksRefsContract, AnExceptionOfAChildPassesToTheAssignment) {
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

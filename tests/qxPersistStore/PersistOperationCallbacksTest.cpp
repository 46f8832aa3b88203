#include "qxPersistStore/src/PersistOperationCallbacks.h"

#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PersistStoreTxn.h"
#include "tests/support/DeletionFixture.h"

namespace quna {
namespace {

constexpr ConstStringZ PATH = "src/PersistOperationCallbacks";
constexpr ssize_t PREF_SIZE = static_cast<ssize_t>(sizeof(prefbase));

void VisitOne(IPrefVisitor& visitor, const void* value) { visitor << *static_cast<const prefbase*>(value); }
void VisitArray(IPrefVisitor& visitor, const void* array, ssize_t elementSize, ssize_t count) {
    for (ssize_t k = 0; k < count; ++k) VisitOne(visitor, static_cast<const octet_t*>(array) + k * elementSize);
}

// A parent, m_parent, persistent and clean, whose fields are its m_next and its m_children.
class PersistOperationHooks : public DeletionFixture {
protected:
    PersistOperationHooks() : m_hooks(*GetOperationCallBacks()) {
        const SpaceScope scope(m_ps);
        m_parent = NewObject<TestNode>("parent");
        m_ps->AddRoot("parent", m_parent);
        m_parentOid = GetOid(m_parent);
        AddGcRoot(m_parent);
        m_transient = NewObject<TestNode>("transient");
        AddGcRoot(m_transient);
        m_plain = NewObject<TestPlainObject>();
        AddGcRoot(m_plain);
    }
    // What a test changes must begin clean.
    void Clean() {
        WriteSpace();
        ASSERT_FALSE(m_parent->IsDirty());
    }
    bool IsDirty() const { return m_parent->IsDirty(); }

    template <class Params>
    Params Of(ptr<IObject> obj, void* addr) const {
        Params params;
        params.obj = obj;
        params.fid = 0;
        params.addr = addr;
        return params;
    }
    AssignValue_params Value(ptr<IObject> obj, void* addr, VisitPrefsFn visit = nullptr) const {
        auto params = Of<AssignValue_params>(obj, addr);
        params.visitPrefsFn = visit;
        return params;
    }
    AssignPref_params Next(TestNode* parent, const prefbase* src) const {
        auto params = Of<AssignPref_params>(ptr<IObject>(parent), &parent->m_next);
        params.src = src;
        return params;
    }
    std::vector<OID> Queued() const {
        return std::vector<OID>(m_ps->m_dq.m_deltaQueue.begin(), m_ps->m_dq.m_deltaQueue.end());
    }
    // A persistent child of the parent, which owns itself.
    TestNode* Child(ConstStringZ name = "child") {
        TestNode* const child = NewObject<TestNode>(name);
        DeclareReachable(m_parent, child, true);
        return child;
    }

    IOperationCallBacks& m_hooks;
    TestNode* m_parent = nullptr;
    TestNode* m_transient = nullptr;
    TestPlainObject* m_plain = nullptr;
    OID m_parentOid;
};

// ---- Registration ----

TEST_F(PersistOperationHooks, AreInstalledOnceForTheProcess) {
    EXPECT_NE(nullptr, dynamic_cast<PersistOperationCallbacks*>(&m_hooks));
    ExpectAssertion("SetOperationCallBacks(&s) == nullptr", PATH, [] { _Register_PersistOperationCallbacks0(); });
    EXPECT_EQ(&m_hooks, GetOperationCallBacks());
    Register_Project_qxPersistStore();
    EXPECT_EQ(&m_hooks, GetOperationCallBacks());
}

// ---- Transactions ----

TEST_F(PersistOperationHooks, ATransactionOnADomainIsOneOnItsSpace) {
    const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
    BeginTransaction(m_ps->GetCSpace());
    ASSERT_NE(nullptr, m_ps->txn_);
    EXPECT_EQ(m_store.Get(), m_ps->txn_->GetPersistStore());
    ExpectAssertion("!pspace->txn_", PATH, [&] { m_hooks.OnBeginTransaction(m_ps->GetCSpace()); });
    EndTransaction(m_ps->GetCSpace());
    EXPECT_EQ(nullptr, m_ps->txn_);
    EXPECT_FALSE(HaveLock(m_ps->GetCSpace()));

    const CSpaceLock lock(m_ps->GetCSpace(), Exclusive);
    ExpectAssertion("pspace->txn_", PATH, [&] { m_hooks.OnEndTransaction(m_ps->GetCSpace()); });
}

TEST_F(PersistOperationHooks, ATransactionNestedInAnotherFailsAndLeavesTheOuterOne) {
    const ThreadPSpaceScope pair(m_ps, m_ps->GetCSpace());
    BeginTransaction(m_ps->GetCSpace());
    ExpectAssertion("!pspace->txn_", PATH, [&] { BeginTransaction(m_ps->GetCSpace()); });
    EXPECT_NE(nullptr, m_ps->txn_);
    EndTransaction(m_ps->GetCSpace());
}

TEST_F(PersistOperationHooks, BothEndsOfATransactionCheckTheDomainThenTheThread) {
    CSpace* const cs = m_ps->GetCSpace();
    const auto expect = [&](const char* text, CSpace* cspace) {
        ExpectAssertion(text, PATH, [&] { m_hooks.OnBeginTransaction(cspace); });
        ExpectAssertion(text, PATH, [&] { m_hooks.OnEndTransaction(cspace); });
    };
    expect("cspace", nullptr);
    expect("HaveExclusiveLock(cspace)", cs);
    {
        const CSpaceLock shared(cs, SharedRead);
        expect("HaveExclusiveLock(cspace)", cs);
    }
    const CSpaceLock lock(cs, Exclusive);
    expect("GetThreadPtr<CSpace>() == cspace", cs);
    {
        const ThreadPSpaceScope domainOnly(nullptr, cs);
        expect("pspace == GetThreadPtr<PSpace>()", cs);
    }
    EXPECT_EQ(nullptr, m_ps->txn_);
}

TEST_F(PersistOperationHooks, ATransactionOnADomainWithoutASpaceOpensNothing) {
    const CSpaceCreator plain;
    const ThreadPSpaceScope pair(m_ps, plain);
    BeginTransaction(plain);
    EXPECT_EQ(nullptr, m_ps->txn_);
    EXPECT_TRUE(HaveExclusiveLock(plain));
    EndTransaction(plain);
    EXPECT_FALSE(HaveLock(plain));
}

// ---- Values ----

TEST_F(PersistOperationHooks, AssigningAPlainValueMarksAPersistentObjectBeforeTheChange) {
    Clean();
    const SpaceScope scope(m_ps);
    m_hooks.OnBeforeAssignValue(Value(ptr<IObject>(m_parent), &m_parent->m_name));
    EXPECT_TRUE(IsDirty());
    m_hooks.OnAfterAssignValueWithoutPrefs(Value(ptr<IObject>(m_parent), &m_parent->m_name));
    m_hooks.OnAfterAssignValueWithoutPrefs(AssignValue_params()); // checks nothing
}

TEST_F(PersistOperationHooks, MarkingTakesTheExclusiveLock) {
    Clean();
    const SpaceScope scope(m_ps, SharedRead);
    ExpectAssertion("HaveWriteAccess()", "src/PSpace",
                    [&] { m_hooks.OnBeforeAssignValue(Value(ptr<IObject>(m_parent), &m_parent->m_name)); });
}

TEST_F(PersistOperationHooks, ChangesOfTransientAndOfUnpersistableObjectsDoNothing) {
    Clean();
    const ThreadPSpaceScope noSpace(nullptr, m_ps->GetCSpace()); // and no lock is needed
    cref<TestNode> ref;
    for (const ptr<IObject>& obj : {ptr<IObject>(m_transient), ptr<IObject>(m_plain)}) {
        m_hooks.OnBeforeAssignValue(Value(obj, &ref, &VisitOne));
        m_hooks.OnAfterAssignValueWithPrefs(Value(obj, &ref, &VisitOne));
        m_hooks.OnOffsetValue(Of<OffsetValue_params>(obj, &ref));
        auto create = Of<CreateIntoVector_params>(obj, &ref);
        create.src = &ref;
        create.n = 1;
        create.visitPrefsInArrayFn = &VisitArray;
        m_hooks.OnCreateIntoVector(create);
        auto remove = Of<DeleteFromVector_params>(obj, &ref);
        remove.n = 1;
        remove.visitPrefsInArrayFn = &VisitArray;
        m_hooks.OnDeleteFromVector(remove);
        auto createRefs = Of<CreateIntoMVector_params>(obj, &ref);
        createRefs.n = 1;
        m_hooks.OnCreateIntoMVector(createRefs);
        auto removeRefs = Of<DeleteFromMVector_params>(obj, &ref);
        removeRefs.n = 1;
        m_hooks.OnDeleteFromMVector(removeRefs);
        auto insert = Of<InsertIntoMSet_params>(obj, &ref);
        insert.n = 1;
        m_hooks.OnInsertIntoMSet(insert);
        auto erase = Of<DeleteFromMSet_params>(obj, &ref);
        erase.n = 1;
        m_hooks.OnDeleteFromMSet(erase);
    }
    EXPECT_FALSE(GetOid(m_transient));
    EXPECT_FALSE(m_transient->IsDirty());
    EXPECT_TRUE(Queued().empty());
}

TEST_F(PersistOperationHooks, AnOldValuesTargetsAreQueuedAndANewOnesPersist) {
    TestNode* old = nullptr;
    {
        const SpaceScope scope(m_ps);
        old = Child("old");
        m_parent->m_next = old;
    }
    Clean();
    const SpaceScope scope(m_ps);
    const auto params = Value(ptr<IObject>(m_parent), &m_parent->m_next, &VisitOne);
    m_hooks.OnBeforeAssignValue(params);
    EXPECT_TRUE(IsDirty());
    EXPECT_EQ(std::vector<OID>{GetOid(old)}, Queued());

    TestNode* const below = NewObject<TestNode>("below");
    TestNode* const fresh = NewObject<TestNode>("fresh", std::initializer_list<ptr<IPersistable>>{below});
    m_parent->m_next = fresh;
    m_hooks.OnAfterAssignValueWithPrefs(params);
    EXPECT_TRUE(GetOid(fresh));
    EXPECT_TRUE(GetOid(below));
    EXPECT_EQ(m_parentOid.low_, m_ps->m_affiliateOidLow);
}

TEST_F(PersistOperationHooks, TheHookAfterAnAssignmentDoesNotMark) {
    Clean();
    const SpaceScope scope(m_ps);
    m_hooks.OnAfterAssignValueWithPrefs(Value(ptr<IObject>(m_parent), &m_parent->m_next, &VisitOne));
    EXPECT_FALSE(IsDirty());
}

TEST_F(PersistOperationHooks, AnOldTargetIsLoadedToBeQueued) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestNode* const old = Child("old");
        oid = GetOid(old);
        m_parent->m_next = old;
    }
    WriteSpace();
    Reopen();
    const SpaceScope scope(m_ps);
    auto* const parent = static_cast<TestNode*>(m_ps->GetRoot("parent").m_self);
    EXPECT_FALSE(parent->m_next.IsBound());
    m_hooks.OnBeforeAssignValue(Value(ptr<IObject>(parent), &parent->m_next, &VisitOne));
    EXPECT_EQ(std::vector<OID>{oid}, Queued());
}

TEST_F(PersistOperationHooks, ADeletionWithoutACurrentSpaceIsRefused) {
    const SpaceScope scope(m_ps);
    m_parent->m_next = Child();
    const ThreadPSpaceScope noSpace(nullptr, m_ps->GetCSpace());
    ExpectAssertion("pspace", PATH,
                    [&] { m_hooks.OnBeforeAssignValue(Value(ptr<IObject>(m_parent), &m_parent->m_next, &VisitOne)); });
}

TEST_F(PersistOperationHooks, ValueOperationsCheckTheirArgumentsInOrder) {
    const SpaceScope scope(m_ps);
    const ptr<IObject> obj(m_parent);
    ExpectAssertion("params.obj", PATH, [&] { m_hooks.OnBeforeAssignValue(Value(null, nullptr)); });
    ExpectAssertion("params.addr", PATH, [&] { m_hooks.OnBeforeAssignValue(Value(obj, nullptr)); });
    ExpectAssertion("params.obj", PATH, [&] { m_hooks.OnAfterAssignValueWithPrefs(Value(null, nullptr)); });
    ExpectAssertion("params.addr", PATH, [&] { m_hooks.OnAfterAssignValueWithPrefs(Value(obj, nullptr)); });
    ExpectAssertion("params.visitPrefsFn", PATH,
                    [&] { m_hooks.OnAfterAssignValueWithPrefs(Value(obj, &m_parent->m_next)); });
    ExpectAssertion("params.obj", PATH, [&] { m_hooks.OnOffsetValue(OffsetValue_params()); });
}

TEST_F(PersistOperationHooks, AnOffsetMarksAPersistentObject) {
    Clean();
    const SpaceScope scope(m_ps);
    auto& hooks = dynamic_cast<PersistOperationCallbacks&>(m_hooks);
    EXPECT_FALSE(hooks.MarkAsPersistent(Of<FieldParams>(ptr<IObject>(m_transient), nullptr)));
    EXPECT_FALSE(hooks.MarkAsPersistent(Of<FieldParams>(ptr<IObject>(m_plain), nullptr)));
    EXPECT_FALSE(IsDirty());
    m_hooks.OnOffsetValue(Of<OffsetValue_params>(ptr<IObject>(m_parent), nullptr));
    EXPECT_TRUE(IsDirty());
    EXPECT_TRUE(hooks.MarkAsPersistent(Of<FieldParams>(ptr<IObject>(m_parent), nullptr)));
    ExpectAssertion("params.obj", PATH, [&] { hooks.MarkAsPersistent(FieldParams()); });
}

// ---- References ----

TEST_F(PersistOperationHooks, AReferenceOfATransientParentIsCopied) {
    Clean();
    const SpaceScope scope(m_ps);
    TestNode* const child = NewObject<TestNode>("child");
    const cref<TestNode> src(child);
    m_hooks.OnAssignPref(Next(m_transient, &src));
    EXPECT_EQ(child, m_transient->m_next.GetBoundPtr());
    EXPECT_FALSE(GetOid(child));
    const cref<TestNode> nothing;
    m_hooks.OnAssignPref(Next(m_transient, &nothing)); // and can be cleared
    EXPECT_FALSE(m_transient->m_next);
    prefbase field;
    auto params = Of<AssignPref_params>(null, &field); // of nobody's object: a copy too
    params.src = &src;
    m_hooks.OnAssignPref(params);
    EXPECT_TRUE(field == src);
}

TEST_F(PersistOperationHooks, AnEmptyReferenceTakesAChildAndDeletesNothing) {
    Clean();
    const SpaceScope scope(m_ps);
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    pref<IPersistable> field;
    const pref<IPersistable> src{ptr<IPersistable>(leaf)};
    auto params = Of<AssignPref_params>(ptr<IObject>(m_parent), &field);
    params.src = &src;
    m_hooks.OnAssignPref(params);
    EXPECT_TRUE(GetOid(leaf));
    EXPECT_EQ(m_parentOid.low_, m_ps->m_affiliateOidLow);
    EXPECT_EQ(1, leaf->m_numOnCreate);
    EXPECT_TRUE(leaf->m_createdArgument);
    EXPECT_TRUE(IsDirty());
    EXPECT_TRUE(Queued().empty());
    EXPECT_TRUE(field == src);
    EXPECT_EQ(GetOid(leaf), field.GetOid());
}

TEST_F(PersistOperationHooks, AnOverwrittenChildIsQueuedAndTheNewOnePersists) {
    const SpaceScope scope(m_ps);
    TestNode* const old = Child("old");
    m_parent->m_next = old;
    TestNode* const fresh = NewObject<TestNode>("fresh");
    const cref<TestNode> src(fresh);
    m_hooks.OnAssignPref(Next(m_parent, &src));
    EXPECT_EQ(std::vector<OID>{GetOid(old)}, Queued());
    EXPECT_TRUE(GetOid(fresh));
    EXPECT_EQ(fresh, m_parent->m_next.GetBoundPtr());
}

TEST_F(PersistOperationHooks, AdoptingNeedsANewObject) {
    const SpaceScope scope(m_ps);
    TestNode* const old = Child("old");
    m_parent->m_next = old;
    const cref<TestNode> nothing;
    ExpectAssertion("child", PATH, [&] { m_hooks.OnAssignPref(Next(m_parent, &nothing)); });
    EXPECT_EQ(std::vector<OID>{GetOid(old)}, Queued()); // a queued deletion is not taken back
    EXPECT_EQ(old, m_parent->m_next.GetBoundPtr());

    m_parent->m_next = nullptr;
    TestNode* const persistent = Child("persistent");
    const cref<TestNode> src(persistent);
    ExpectAssertion("!GetOid(child)", PATH, [&] { m_hooks.OnAssignPref(Next(m_parent, &src)); });
    EXPECT_FALSE(m_parent->m_next);
    ExpectAssertion("params.src", PATH, [&] { m_hooks.OnAssignPref(Next(m_parent, nullptr)); });
    ExpectAssertion("field", PATH, [&] { m_hooks.OnAssignPref(AssignPref_params()); });
}

TEST_F(PersistOperationHooks, AnOldChildThatIsNoSubtreeCanNotBeOverwritten) {
    const SpaceScope scope(m_ps);
    auto* const old = NewObject<TestNoSubTree>();
    DeclareReachable(m_parent, old, true);
    pref<IPersistable> field{ptr<IPersistable>(old)};
    const pref<IPersistable> src{ptr<IPersistable>(NewObject<TestLeaf>(1))};
    auto params = Of<AssignPref_params>(ptr<IObject>(m_parent), &field);
    params.src = &src;
    ExpectAssertion("obj->RepresentsSubTree()", "src/DeletionQueue", [&] { m_hooks.OnAssignPref(params); });
    EXPECT_TRUE(Queued().empty());
    EXPECT_FALSE(src.GetOid());
}

TEST_F(PersistOperationHooks, ADanglingOldChildIsReported) {
    const SpaceScope scope(m_ps);
    m_parent->m_next.SetOid(m_ps->AllocateOid(1, false));
    const cref<TestNode> src(NewObject<TestNode>("fresh"));
    EXPECT_THROW(m_hooks.OnAssignPref(Next(m_parent, &src)), DerefDanglingOidException);
}

// ---- Vectors of values ----

TEST_F(PersistOperationHooks, NewElementsPersistAndOldOnesAreQueued) {
    Clean();
    const SpaceScope scope(m_ps);
    xvector<cref<TestNode>> v;
    for (ConstStringZ name : {"a", "b", "c"}) v.push_back(cref<TestNode>(NewObject<TestNode>(name)));
    auto create = Of<CreateIntoVector_params>(ptr<IObject>(m_parent), &v);
    create.src = v.data();
    create.n = 3;
    create.visitPrefsInArrayFn = &VisitArray;
    create.elementSize = PREF_SIZE;
    m_hooks.OnCreateIntoVector(create);
    EXPECT_TRUE(IsDirty());
    for (const cref<TestNode>& x : v) EXPECT_TRUE(x.GetOid());
    EXPECT_EQ(m_parentOid.low_, m_ps->m_affiliateOidLow);

    auto remove = Of<DeleteFromVector_params>(ptr<IObject>(m_parent), &v);
    remove.i = 1;
    remove.n = 2;
    remove.visitPrefsInArrayFn = &VisitArray;
    remove.elementSize = PREF_SIZE;
    m_hooks.OnDeleteFromVector(remove);
    EXPECT_EQ((std::vector<OID>{v[1].GetOid(), v[2].GetOid()}), Queued());
}

TEST_F(PersistOperationHooks, ElementsWithoutReferencesOnlyMark) {
    Clean();
    const SpaceScope scope(m_ps);
    const int32 number = 1;
    auto create = Of<CreateIntoVector_params>(ptr<IObject>(m_parent), nullptr);
    create.src = &number;
    create.n = 1;
    m_hooks.OnCreateIntoVector(create);
    EXPECT_TRUE(IsDirty());
    auto remove = Of<DeleteFromVector_params>(ptr<IObject>(m_parent), nullptr);
    remove.n = 1000; // without references the vector is not looked at
    m_hooks.OnDeleteFromVector(remove);
    EXPECT_TRUE(Queued().empty());
}

TEST_F(PersistOperationHooks, VectorOperationsCheckTheirArgumentsInOrder) {
    const SpaceScope scope(m_ps);
    const ptr<IObject> obj(m_parent);
    CreateIntoVector_params create;
    ExpectAssertion("params.n > 0", PATH, [&] { m_hooks.OnCreateIntoVector(create); });
    create.n = 1;
    ExpectAssertion("params.src", PATH, [&] { m_hooks.OnCreateIntoVector(create); });
    create.src = &obj;
    ExpectAssertion("params.obj", PATH, [&] { m_hooks.OnCreateIntoVector(create); });

    xvector<prefbase> v(2);
    DeleteFromVector_params remove;
    remove.i = -1;
    const auto expect = [&](const char* text) {
        ExpectAssertion(text, PATH, [&] { m_hooks.OnDeleteFromVector(remove); });
    };
    expect("params.n > 0");
    remove.n = 2;
    expect("params.i >= 0");
    remove.i = 1;
    expect("params.obj");
    remove.obj = obj;
    remove.addr = &v;
    remove.visitPrefsInArrayFn = &VisitArray;
    expect("params.elementSize > 0");
    remove.elementSize = 7;
    expect("v->size() % params.elementSize == 0");
    remove.elementSize = PREF_SIZE;
    expect("(params.i + params.n) * params.elementSize <= v->size()");
    remove.n = 1;
    m_hooks.OnDeleteFromVector(remove);
}

// ---- Vectors and sets of references ----

TEST_F(PersistOperationHooks, ReferencesThatComeIntoAContainerAreAdopted) {
    const SpaceScope scope(m_ps);
    TestLeaf* const leaves[] = {NewObject<TestLeaf>(1), NewObject<TestLeaf>(2), NewObject<TestLeaf>(3),
                                NewObject<TestLeaf>(4)};
    const cref<TestLeaf> src[] = {leaves[0], leaves[1], leaves[2], leaves[3]};
    auto create = Of<CreateIntoMVector_params>(ptr<IObject>(m_parent), nullptr);
    create.src = src;
    create.n = 2;
    m_hooks.OnCreateIntoMVector(create);
    auto insert = Of<InsertIntoMSet_params>(ptr<IObject>(m_parent), nullptr);
    insert.src = src + 2;
    insert.n = 2;
    m_hooks.OnInsertIntoMSet(insert);
    for (const TestLeaf* leaf : leaves) {
        EXPECT_TRUE(GetOid(leaf));
        EXPECT_EQ(1, leaf->m_numOnCreate);
    }
    EXPECT_EQ(m_parentOid.low_, m_ps->m_affiliateOidLow);

    ExpectAssertion("!GetOid(child)", PATH, [&] { m_hooks.OnCreateIntoMVector(create); }); // not twice
    ExpectAssertion("!GetOid(child)", PATH, [&] { m_hooks.OnInsertIntoMSet(insert); });
    const prefbase nothing;
    create.src = insert.src = &nothing;
    create.n = insert.n = 1;
    ExpectAssertion("child", PATH, [&] { m_hooks.OnCreateIntoMVector(create); });
    ExpectAssertion("child", PATH, [&] { m_hooks.OnInsertIntoMSet(insert); });
    create.src = insert.src = nullptr;
    ExpectAssertion("params.src", PATH, [&] { m_hooks.OnCreateIntoMVector(create); });
    ExpectAssertion("params.src", PATH, [&] { m_hooks.OnInsertIntoMSet(insert); });
}

TEST_F(PersistOperationHooks, ReferencesThatLeaveAContainerAreQueued) {
    Clean();
    const SpaceScope scope(m_ps);
    xvector<cref<TestNode>> v;
    for (ConstStringZ name : {"a", "b", "c", "d"}) v.push_back(cref<TestNode>(Child(name)));
    EXPECT_FALSE(IsDirty());
    auto remove = Of<DeleteFromMVector_params>(ptr<IObject>(m_parent), &v);
    remove.i = 1;
    remove.n = 2;
    m_hooks.OnDeleteFromMVector(remove);
    EXPECT_TRUE(IsDirty());
    auto erase = Of<DeleteFromMSet_params>(ptr<IObject>(m_parent), nullptr);
    erase.src = &v[3];
    erase.n = 1;
    m_hooks.OnDeleteFromMSet(erase);
    EXPECT_EQ((std::vector<OID>{v[1].GetOid(), v[2].GetOid(), v[3].GetOid()}), Queued());

    v[0] = nullptr;
    remove.i = 0;
    EXPECT_THROW(m_hooks.OnDeleteFromMVector(remove), DerefNullPrefException);
}

TEST_F(PersistOperationHooks, ContainersOfReferencesCheckTheirCounts) {
    ExpectAssertion("params.n > 0", PATH, [&] { m_hooks.OnCreateIntoMVector(CreateIntoMVector_params()); });
    CreateIntoMVector_params create;
    create.n = 1;
    ExpectAssertion("params.obj", PATH, [&] { m_hooks.OnCreateIntoMVector(create); });
    ExpectAssertion("params.n > 0", PATH, [&] { m_hooks.OnDeleteFromMVector(DeleteFromMVector_params()); });
    ExpectAssertion("params.n > 0", PATH, [&] { m_hooks.OnInsertIntoMSet(InsertIntoMSet_params()); });
    ExpectAssertion("params.n > 0", PATH, [&] { m_hooks.OnDeleteFromMSet(DeleteFromMSet_params()); });
}

TEST_F(PersistOperationHooks, SetsOfValuesReportNothing) {
    Clean();
    m_hooks.OnSetInsert(Value(ptr<IObject>(m_parent), &m_parent->m_name));
    m_hooks.OnSetDelete(Value(ptr<IObject>(m_parent), &m_parent->m_name));
    m_hooks.OnSetInsert(AssignValue_params());
    m_hooks.OnSetDelete(AssignValue_params());
    EXPECT_FALSE(IsDirty());
}

} // namespace
} // namespace quna

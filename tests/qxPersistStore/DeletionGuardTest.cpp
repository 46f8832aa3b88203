// What keeps a batch, and the process after it, from tripping over what was deleted, requested or changed meanwhile.
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/DeletionQueue.h"
#include "qxPersistStore/src/ObjectDeleterPrefVisitor.h"
#include "tests/support/DeletionFixture.h"

#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using DeletionGuards = DeletionFixture;

// ---- Failures ----

TEST_F(DeletionGuards, AMissingElementFailsAndTheBatchChangesNothing) {
    const std::vector<OID> oids = WrittenTrees(2);
    RequestOne(oids[0]);
    RequestOne(oids[1]);
    Accumulate();
    const Bytes image = Image();
    DeleteElement(*m_store->GetLss(), oids[1]);
    Collect();
    RecordingLss& lss = m_store.Record();
    const ThreadPSpaceScope pair(nullptr, nullptr);
    ExpectAssertion("txn->DeleteSerialElement(*i)", "src/DeletionQueue", [&] { Batch(); });
    EXPECT_EQ((Texts{"open", Delete(oids[0]), Delete(oids[1]), "close"}), lss.Log());
    EXPECT_TRUE(m_store.Has(oids[0]));
    EXPECT_EQ(image, Image());
    EXPECT_FALSE(HaveLock(m_ps->GetCSpace()));
    EXPECT_EQ(nullptr, GetThreadPSpace());
    EXPECT_EQ(nullptr, GetThreadCSpace());
    Reopen();
    EXPECT_EQ(2, Queue().m_queue2.size()); // as it was
}

TEST_F(DeletionGuards, ARootThatDoesNotExistRaisesAndStaysInTheDurableQueue) {
    const std::vector<OID> oids = WrittenTrees(2);
    Request(oids[0]);
    Request(oids[1]);
    Accumulate();
    const Bytes image = Image();
    DeleteElement(*m_store->GetLss(), oids[1]);
    Collect();
    RecordingLss& lss = m_store.Record();
    ExpectException<DerefDanglingOidException>("Dereferenced dangling OID = " + TextOfSeid(oids[1]), [&] { Batch(); });
    EXPECT_TRUE(lss.Log().empty());
    EXPECT_EQ(1, Queue().m_queue.size());
    EXPECT_EQ(image, Image());
    Reopen();
    EXPECT_EQ(2, Queue().m_queue.size());
}

// ---- Guards ----

TEST_F(DeletionGuards, ADanglingReferenceIsSkipped) {
    OID rootOid, goneOid, partOid;
    {
        const SpaceScope scope(m_ps);
        TestBranch* const gone = NewBranch(false);
        TestBranch* const part = NewBranch(false);
        TestBranch* const root = Persist(NewBranch(true, {gone, part}));
        rootOid = GetOid(root);
        goneOid = GetOid(gone);
        partOid = GetOid(part);
    }
    WriteSpace();
    RequestOne(goneOid);
    Accumulate();
    EXPECT_TRUE(Batch());
    Request(rootOid);
    Accumulate();
    Collect();
    EXPECT_TRUE(Batch());
    EXPECT_FALSE(m_store.Has(rootOid));
    EXPECT_FALSE(m_store.Has(partOid));
}

TEST_F(DeletionGuards, ASingleObjectThatASubTreeOfTheSameBatchReachesIsDeletedOnce) {
    for (const bool resident : {true, false}) {
        OID rootOid, partOid, belowOid;
        {
            const SpaceScope scope(m_ps);
            TestBranch* const below = NewBranch(false);
            TestBranch* const part = NewBranch(false, {below});
            TestBranch* const root = Persist(NewBranch(true, {part}));
            rootOid = GetOid(root);
            partOid = GetOid(part);
            belowOid = GetOid(below);
        }
        WriteSpace();
        RequestOne(partOid);
        Request(rootOid);
        Accumulate();
        if (!resident) Collect();
        RecordingLss& lss = m_store.Record();
        EXPECT_TRUE(Batch());
        EXPECT_EQ((Texts{Delete(partOid), Delete(rootOid)}), Deletions(lss.Log()));
        EXPECT_TRUE(m_store.Has(belowOid)); // deleted alone means that what it refers to stays
    }
}

TEST_F(DeletionGuards, ARequestForAnObjectThatABatchHasDeletedReturnsQuietly) {
    const std::vector<OID> oids = WrittenTrees(2);
    Request(oids[0]);
    RequestOne(oids[1]);
    Accumulate();
    EXPECT_TRUE(Batch());
    for (const OID oid : oids) {
        ASSERT_TRUE(IsResident(oid));
        Request(oid);
        RequestOne(oid);
    }
    EXPECT_FALSE(Queue().HaveRequests());
}

TEST_F(DeletionGuards, ARequestForANestedSubTreeThatWaitsStillFails) {
    OID rootOid, nestedOid;
    {
        const SpaceScope scope(m_ps);
        TestBranch* const nested = NewBranch(true);
        std::vector<TestBranch*> children = {nested};
        for (int i = 0; i < 9; ++i) children.push_back(NewBranch(false)); // a full batch without the nested one
        rootOid = GetOid(Persist(NewBranch(true, children)));
        nestedOid = GetOid(nested);
    }
    WriteSpace();
    Request(rootOid);
    Accumulate();
    EXPECT_TRUE(Batch());
    ASSERT_EQ(1, Queue().m_queue.size());
    ExpectAssertion("std::find(m_queue.begin(), m_queue.end(), oid) == m_queue.end()", [&] { Request(nestedOid); });
}

TEST_F(DeletionGuards, ASubTreeThatWaitsIsNotQueuedAgainByAnotherPathEvenWhenItWasLoadedAnew) {
    // The inner tree is requested first, so that the outer one is walked while the inner one waits.
    OID innerOid, outerOid;
    {
        const SpaceScope scope(m_ps);
        TestBranch* const inner = NewBranch(true);
        innerOid = GetOid(Persist(inner));
        outerOid = GetOid(Persist(NewBranch(true, {inner})));
    }
    WriteSpace();
    Request(innerOid);
    Request(outerOid);
    Accumulate();
    Reopen();
    RecordingLss& lss = m_store.Record();
    EXPECT_TRUE(Batch());
    EXPECT_EQ((Texts{Delete(outerOid), Delete(innerOid)}), Deletions(lss.Log()));
    EXPECT_FALSE(Batch());
}

TEST_F(DeletionGuards, TheVisitorByItselfFailsForWhatIsQueued) {
    const std::vector<OID> oids = WrittenTrees(1);
    const SpaceScope scope(m_ps);
    DeletionQueue dq(false);
    DeletionQueue::OIDS oidsToDelete;
    ObjectDeleterPrefVisitor::OBJSET stack;
    ObjectDeleterPrefVisitor visitor(dq, oidsToDelete, stack);
    prefbase ref;
    visitor.VisitPref(ref); // null
    ref.SetOid(oids[0]);
    visitor.VisitParentPref(ref);
    EXPECT_TRUE(dq.m_queue.empty());
    visitor.VisitPref(ref);
    ASSERT_EQ(1, dq.m_queue.size());
    EXPECT_TRUE(dq.m_dirty);
    EXPECT_TRUE(stack.empty());
    const ptr<IPersistable> po = ref.Get();
    EXPECT_TRUE(po->GetSysState().GetFlag(PERSISTABLE_DELETE_VISITED));
    visitor.VisitPref(ref);
    EXPECT_EQ(1, dq.m_queue.size());
    po->GetSysState().ClearFlag(PERSISTABLE_DELETE_VISITED);
    ExpectAssertion("std::find(m_queue.begin(), m_queue.end(), oid) == m_queue.end()", "src/DeletionQueue",
                    [&] { visitor.VisitPref(ref); });
    TestBranch* const transient = NewBranch(false);
    prefbase toTransient;
    toTransient.Set(ptr<IPersistable>(transient));
    ExpectAssertion("oid", "src/DeletionQueue", [&] { visitor.VisitPref(toTransient); });
}

TEST_F(DeletionGuards, AnObjectErasedWhileItIsResidentIsNeverWrittenAgain) {
    const std::vector<OID> oids = WrittenTrees(3);
    Request(oids[0]);
    RequestOne(oids[1]);
    Request(oids[2]);
    {
        const SpaceScope scope(m_ps); // dirty before the batch
        for (const int i : {0, 1})
            static_cast<TestBranch*>(m_ps->BindObject(oids[static_cast<std::size_t>(i)]).m_self)->m_number = 7;
    }
    Accumulate();
    {
        const SpaceScope scope(m_ps);
        for (const int i : {0, 1})
            m_ps->MarkPersistableAsDirtyWithoutTrace(m_ps->BindObject(oids[static_cast<std::size_t>(i)]));
    }
    EXPECT_TRUE(Batch());
    {
        const SpaceScope scope(m_ps); // and dirtied after it
        m_ps->MarkPersistableAsDirtyWithoutTrace(m_ps->BindObject(oids[2]));
    }
    RecordingLss& lss = m_store.Record();
    WriteSpace();
    EXPECT_EQ((Texts{"open", "close"}), lss.Log());
    Collect(); // clean, so they go
    for (const OID oid : oids) {
        EXPECT_FALSE(m_store.Has(oid));
        EXPECT_FALSE(IsResident(oid));
    }
}

TEST_F(DeletionGuards, AnObjectThatWasNeverWrittenIsDeletedAllTheSame) {
    const std::vector<OID> oids = WrittenTrees(1);
    OID partOid, singleOid;
    {
        const SpaceScope scope(m_ps);
        auto* const root = static_cast<TestBranch*>(m_ps->BindObject(oids[0]).m_self);
        m_ps->AsyncPermanentlyDeleteSubTree(root);
        m_ps->m_dos.MarkAsDirty();
    }
    WriteSpace();
    {
        const SpaceScope scope(m_ps);
        auto* const root = static_cast<TestBranch*>(m_ps->BindObject(oids[0]).m_self);
        TestBranch* const part = NewBranch(false);
        root->AddChild(part);
        root->MarkAsDirtyWithoutTrace();
        m_ps->DeclareReachable(ptr<IPersistable>(root), ptr<IPersistable>(part), true);
        partOid = GetOid(part);
        TestBranch* const single = Persist(NewBranch(true));
        singleOid = GetOid(single);
        Queue().m_queue2.push_back(singleOid);
    }
    EXPECT_TRUE(Batch());
    RecordingLss& lss = m_store.Record();
    WriteSpace();
    EXPECT_EQ((Texts{"open", "close"}), lss.Log());
    for (const OID oid : {oids[0], partOid, singleOid}) EXPECT_FALSE(m_store.Has(oid));
}

TEST_F(DeletionGuards, ANestedSubTreeWithoutElementDoesNotReachTheDurableQueueBeforeItsElementExists) {
    const std::vector<OID> oids = WrittenTrees(1);
    Request(oids[0]);
    Accumulate();
    OID nestedOid;
    {
        const SpaceScope scope(m_ps);
        auto* const root = static_cast<TestBranch*>(m_ps->BindObject(oids[0]).m_self);
        TestBranch* const nested = NewBranch(true);
        root->AddChild(nested);
        root->MarkAsDirtyWithoutTrace();
        m_ps->DeclareReachable(ptr<IPersistable>(root), ptr<IPersistable>(nested), true);
        nestedOid = GetOid(nested);
    }
    EXPECT_TRUE(Batch());
    EXPECT_EQ((Bytes{1, 0, 0}), Image()); // killed now, the next process finds nothing to trip over
    WriteSpace();
    EXPECT_TRUE(m_store.Has(nestedOid));
    EXPECT_EQ((Bytes{1, 1} + BytesOfOid(nestedOid) + Bytes{0}), Image());
    EXPECT_TRUE(Batch());
    EXPECT_FALSE(m_store.Has(nestedOid));
}

TEST_F(DeletionGuards, ARequestIsDroppedWhenItsObjectIsDeletedSynchronously) {
    const std::vector<OID> oids = WrittenTrees(2);
    {
        const SpaceScope scope(m_ps);
        const ptr<IPersistable> tree = m_ps->BindObject(oids[0]);
        const ptr<IPersistable> single = m_ps->BindObject(oids[1]);
        m_ps->AsyncPermanentlyDeleteSubTree(tree);
        m_ps->AsyncPermanentlyDeleteObject(single);
        m_ps->SyncPermanentlyDeleteObject(tree);
        m_ps->SyncPermanentlyDeleteObject(single);
    }
    RecordingLss& lss = m_store.Record();
    WriteSpace();
    EXPECT_EQ((Texts{"open", Delete(oids[0]), Delete(oids[1]), "close"}), lss.Log());
    EXPECT_FALSE(Queue().HaveRequests());
    EXPECT_TRUE(Writer().m_nedqList.empty());
    EXPECT_FALSE(Batch());
}

// It could be collected before the next group write, and its request would then be durable without an element behind it.
TEST_F(DeletionGuards, ARequestForAnObjectWhoseSynchronousDeletionIsWrittenReturnsQuietly) {
    const std::vector<OID> oids = WrittenTrees(2);
    ptr<IPersistable> tree;
    ptr<IPersistable> single;
    {
        const SpaceScope scope(m_ps);
        tree = m_ps->BindObject(oids[0]);
        single = m_ps->BindObject(oids[1]);
        m_ps->SyncPermanentlyDeleteObject(tree);
        m_ps->SyncPermanentlyDeleteObject(single);
    }
    WriteSpace();
    EXPECT_FALSE(m_store.Has(oids[0]));
    const SpaceScope scope(m_ps);
    m_ps->AsyncPermanentlyDeleteSubTree(tree);
    m_ps->AsyncPermanentlyDeleteObject(single);
    EXPECT_FALSE(Queue().HaveRequests());
}

TEST_F(DeletionGuards, AnObjectThatWaitsInTheDurableQueueMayBeDeletedSynchronouslyToo) {
    for (const bool batchComesFirst : {false, true}) {
        const std::vector<OID> oids = WrittenTrees(2);
        Request(oids[0]);
        RequestOne(oids[1]);
        Accumulate();
        {
            const SpaceScope scope(m_ps);
            for (const OID oid : oids) m_ps->SyncPermanentlyDeleteObject(m_ps->BindObject(oid));
        }
        if (batchComesFirst) {
            EXPECT_TRUE(Batch());
        }
        WriteSpace();
        EXPECT_EQ((Bytes{1, 0, 0}), Image());
        while (Batch()) {
        }
        EXPECT_TRUE(Writer().m_nedqList.empty());
        for (const OID oid : oids) EXPECT_FALSE(m_store.Has(oid));
    }
}

TEST_F(DeletionGuards, APartDeletedSynchronouslyIsSkippedByTheWalk) {
    OID rootOid, partOid;
    {
        const SpaceScope scope(m_ps);
        TestBranch* const part = NewBranch(false);
        TestBranch* const root = Persist(NewBranch(true, {part}));
        rootOid = GetOid(root);
        partOid = GetOid(part);
        AddGcRoot(ptr<IPersistable>(root));
    }
    WriteSpace();
    {
        const SpaceScope scope(m_ps);
        m_ps->SyncPermanentlyDeleteObject(m_ps->BindObject(partOid));
    }
    WriteSpace();
    Request(rootOid);
    Accumulate();
    RecordingLss& lss = m_store.Record();
    EXPECT_TRUE(Batch()); // the root still holds the part's pointer
    EXPECT_EQ(Texts{Delete(rootOid)}, Deletions(lss.Log()));
}

// ---- What is left ----

TEST_F(DeletionGuards, AReferenceToWhatWasDeletedDanglesOnceTheObjectIsCollected) {
    OID deletedOid, keeperOid;
    {
        const SpaceScope scope(m_ps);
        TestBranch* const deleted = NewBranch(true);
        TestBranch* const keeper = NewBranch(true, {deleted});
        m_ps->AddRoot("keeper", keeper);
        deletedOid = GetOid(deleted);
        keeperOid = GetOid(keeper);
    }
    WriteSpace();
    Request(deletedOid);
    Accumulate();
    EXPECT_TRUE(Batch());
    {
        const SpaceScope scope(m_ps);
        auto* const keeper = static_cast<TestBranch*>(m_ps->GetRoot("keeper").m_self);
        EXPECT_TRUE(keeper->m_children[0].Get()); // resident, until it is collected
    }
    Collect();
    const SpaceScope scope(m_ps);
    auto* const keeper = static_cast<TestBranch*>(m_ps->GetRoot("keeper").m_self);
    EXPECT_EQ(nullptr, keeper->m_children[0].TryGet());
    EXPECT_EQ(deletedOid, keeper->m_children[0].GetOid());
    EXPECT_THROW(keeper->m_children[0].Get(), DerefDanglingOidException);
}

} // namespace
} // namespace quna

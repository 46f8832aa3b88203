// What one deletion batch does, in which order, and what it leaves alone.
#include "qxPersistStore/src/DeletionQueue.h"
#include "tests/support/DeletionFixture.h"
#include "tests/support/Sanitized.h"

#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using DeletionBatches = DeletionFixture;

// ---- Requests ----

TEST_F(DeletionBatches, DeletingATransientObjectDoesNothing) {
    const SpaceScope scope(m_ps);
    TestBranch* const branch = NewBranch(true);
    m_ps->AsyncPermanentlyDeleteSubTree(branch);
    m_ps->AsyncPermanentlyDeleteObject(branch);
    EXPECT_FALSE(Queue().HaveRequests());
}

TEST_F(DeletionBatches, ARequestOnlyNotesTheObject) {
    const std::vector<OID> oids = WrittenTrees(2);
    Request(oids[0]);
    RequestOne(oids[1]);
    EXPECT_EQ(1, Queue().m_deltaQueue.size());
    EXPECT_EQ(1, Queue().m_deltaQueue2.size());
    EXPECT_FALSE(Queue().m_dirty);
    EXPECT_FALSE(m_ps->HaveChangesToWriteToLss());
    EXPECT_TRUE(Writer().m_nedqList.empty());
    EXPECT_FALSE(Batch());
}

TEST_F(DeletionBatches, AnObjectThatIsNoSubTreeCanOnlyBeDeletedAlone) {
    const SpaceScope scope(m_ps);
    TestBranch* const branch = Persist(NewBranch(false));
    ExpectAssertion("obj->RepresentsSubTree()", "src/DeletionQueue",
                    [&] { m_ps->AsyncPermanentlyDeleteSubTree(branch); });
    m_ps->AsyncPermanentlyDeleteObject(branch);
}

TEST_F(DeletionBatches, ASecondRequestFailsTheCheckOfTheFirstQueueThatHoldsTheObject) {
    const SpaceScope scope(m_ps);
    TestBranch* const branch = Persist(NewBranch(true));
    const OID oid = GetOid(branch);
    DeletionQueue& dq = Queue();
    const auto expect = [&](const std::string& queue) {
        const std::string text = "std::find(" + queue + ".begin(), " + queue + ".end(), oid) == " + queue + ".end()";
        ExpectAssertion(text, "src/DeletionQueue", [&] { m_ps->AsyncPermanentlyDeleteSubTree(branch); });
        ExpectAssertion(text, "src/DeletionQueue", [&] { m_ps->AsyncPermanentlyDeleteObject(branch); });
        ExpectAssertion(text, "src/DeletionQueue", [&] { dq.AssertNotQueuedToDelete(oid); });
    };
    dq.m_queue2.push_back(oid);
    expect("m_queue2");
    dq.m_queue.push_back(oid);
    expect("m_queue");
    dq.m_deltaQueue2.push_back(oid);
    expect("m_deltaQueue2");
    dq.m_deltaQueue.push_back(oid);
    expect("m_deltaQueue");
    dq.m_deltaQueue.clear();
    expect("m_deltaQueue2");
    for (DeletionQueue::OIDS* queue : {&dq.m_deltaQueue2, &dq.m_queue, &dq.m_queue2}) queue->clear();
    dq.AssertNotQueuedToDelete(oid);
    ExpectAssertion("pspace", "src/DeletionQueue", [&] { dq.AsyncPermanentlyDeleteSubTree(nullptr, branch); });
    ExpectAssertion("obj", "src/DeletionQueue", [&] { dq.AsyncPermanentlyDeleteSubTree(m_ps, null); });
    ExpectAssertion("pspace", "src/DeletionQueue", [&] { dq.AsyncPermanentlyDeleteObject(nullptr, branch); });
    ExpectAssertion("obj", "src/DeletionQueue", [&] { dq.AsyncPermanentlyDeleteObject(m_ps, null); });
    ExpectAssertion("pspace", "src/DeletionQueue", [&] { dq.AccumulateDelta(nullptr); });
    ExpectAssertion("pspace", "src/DeletionQueue", [&] { dq.DeleteSomeObjects(nullptr); });
}

TEST_F(DeletionBatches, RequestsBecomeDurableInOrderWithTheNextWriteOfTheSpace) {
    const std::vector<OID> oids = WrittenTrees(4);
    Request(oids[0]);
    Request(oids[1]);
    RequestOne(oids[2]);
    RequestOne(oids[3]);
    RecordingLss& lss = m_store.Record();
    Accumulate();
    EXPECT_EQ((Texts{"open", Write(DqOid()), "close"}), lss.Log());
    EXPECT_EQ((Bytes{1, 2} + BytesOfOid(oids[0]) + BytesOfOid(oids[1]) + Bytes{2} + BytesOfOid(oids[2]) +
               BytesOfOid(oids[3])),
              Image());
    EXPECT_FALSE(Queue().HaveRequests());
    EXPECT_EQ(m_ps, Writer().m_nedqList.Front());
}

TEST_F(DeletionBatches, TheSpaceEntersTheListOnceHoweverOftenRequestsCome) {
    const std::vector<OID> oids = WrittenTrees(2);
    Request(oids[0]);
    Accumulate();
    Request(oids[1]);
    Accumulate();
    EXPECT_EQ(m_ps, Writer().m_nedqList.Front());
    EXPECT_EQ(m_ps, Writer().m_nedqList.Back());
    EXPECT_EQ(2, Queue().m_queue.size());
}

// ---- Sizes and orders of batches ----

TEST_F(DeletionBatches, AllSingleObjectsGoInOneBatchAndNothingIsVisited) {
    const std::vector<OID> oids = WrittenTrees(25, 1);
    for (const OID oid : oids) RequestOne(oid);
    Accumulate();
    RecordingLss& lss = m_store.Record();
    const int64 numVisits = TestBranch::s_numVisits;
    EXPECT_TRUE(Batch());
    Texts expected = {"open"};
    for (const OID oid : oids) expected.push_back(Delete(oid));
    expected.push_back(Write(DqOid()));
    expected.push_back("close");
    EXPECT_EQ(expected, lss.Log());
    EXPECT_EQ(numVisits, TestBranch::s_numVisits);
    EXPECT_EQ((Bytes{1, 0, 0}), Image());
    EXPECT_TRUE(Writer().m_nedqList.empty());
    EXPECT_FALSE(Batch());
}

TEST_F(DeletionBatches, TakesTenRootsFromTheBackSoTheNewestGoesFirst) {
    std::vector<OID> oids = WrittenTrees(25);
    for (const OID oid : oids) Request(oid);
    Accumulate();
    RecordingLss& lss = m_store.Record();
    std::reverse(oids.begin(), oids.end());
    for (const auto& [begin, end] : {std::pair(0, 10), std::pair(10, 20), std::pair(20, 25)}) {
        lss.ClearLog();
        EXPECT_TRUE(Batch());
        EXPECT_EQ(DeletionsOf(std::vector<OID>(oids.begin() + begin, oids.begin() + end)), Deletions(lss.Log()));
        EXPECT_EQ(Write(DqOid()), *(lss.Log().end() - 2));
    }
    EXPECT_FALSE(Batch());
}

TEST_F(DeletionBatches, WithTwelveSingleObjectsNoRootIsTaken) {
    const std::vector<OID> oids = WrittenTrees(13);
    Request(oids[12]);
    for (int i = 0; i < 12; ++i) RequestOne(oids[static_cast<std::size_t>(i)]);
    Accumulate();
    RecordingLss& lss = m_store.Record();
    EXPECT_TRUE(Batch());
    EXPECT_EQ(DeletionsOf(std::vector<OID>(oids.begin(), oids.end() - 1)), Deletions(lss.Log()));
    EXPECT_EQ(1, Queue().m_queue.size());
    EXPECT_TRUE(Batch());
    EXPECT_FALSE(m_store.Has(oids[12]));
}

TEST_F(DeletionBatches, WithNineSingleObjectsOneRootIsTaken) {
    const std::vector<OID> oids = WrittenTrees(11);
    for (int i = 0; i < 9; ++i) RequestOne(oids[static_cast<std::size_t>(i)]);
    Request(oids[9]);
    Request(oids[10]);
    Accumulate();
    RecordingLss& lss = m_store.Record();
    EXPECT_TRUE(Batch());
    EXPECT_EQ(10u, Deletions(lss.Log()).size());
    EXPECT_EQ(Delete(oids[10]), Deletions(lss.Log()).back());
    EXPECT_EQ(oids[9], Queue().m_queue.back());
}

TEST_F(DeletionBatches, ARootGoesWithAllItsPartsInOneBatch) {
    const std::vector<OID> oids = WrittenTrees(1, 1000);
    LssStats before;
    m_store->GetLss()->GetStats(before);
    Request(oids[0]);
    Accumulate();
    RecordingLss& lss = m_store.Record();
    EXPECT_TRUE(Batch());
    EXPECT_EQ(1001u, Deletions(lss.Log()).size());
    EXPECT_EQ(Delete(oids[0]), Deletions(lss.Log()).front());
    EXPECT_EQ(1, lss.Count("open"));
    LssStats after;
    m_store->GetLss()->GetStats(after);
    EXPECT_EQ(before.numLiveHeadPackets - 1001, after.numLiveHeadPackets);
}

TEST_F(DeletionBatches, ANestedSubTreeIsQueuedAndNotDescendedInto) {
    OID rootOid, partOid, nestedOid, belowOid;
    {
        const SpaceScope scope(m_ps);
        TestBranch* const below = NewBranch(false);
        TestBranch* const nested = NewBranch(true, {below});
        TestBranch* const part = NewBranch(false, {nested});
        TestBranch* const root = Persist(NewBranch(true, {part}));
        rootOid = GetOid(root);
        partOid = GetOid(part);
        nestedOid = GetOid(nested);
        belowOid = GetOid(below);
    }
    WriteSpace();
    Request(rootOid);
    // Roots enough behind it, so that the batch ends before the nested one.
    const std::vector<OID> others = WrittenTrees(9);
    for (const OID oid : others) Request(oid);
    Accumulate();
    RecordingLss& lss = m_store.Record();
    EXPECT_TRUE(Batch());
    const Texts deletions = Deletions(lss.Log());
    ASSERT_EQ(11u, deletions.size());
    EXPECT_EQ((Texts{Delete(rootOid), Delete(partOid)}), Texts(deletions.end() - 2, deletions.end()));
    ASSERT_EQ(1, Queue().m_queue.size());
    EXPECT_EQ(nestedOid, Queue().m_queue.back());
    EXPECT_EQ((Bytes{1, 1} + BytesOfOid(nestedOid) + Bytes{0}), Image()); // in the same transaction
    EXPECT_TRUE(m_store.Has(nestedOid));
    lss.ClearLog();
    EXPECT_TRUE(Batch());
    EXPECT_EQ((Texts{Delete(nestedOid), Delete(belowOid)}), Deletions(lss.Log()));
}

TEST_F(DeletionBatches, TwoReferencesToOneObjectVisitItOnce) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestBranch* const part = NewBranch(false);
        oid = GetOid(Persist(NewBranch(true, {part, part, NewBranch(false, {part})})));
    }
    WriteSpace();
    Request(oid);
    Accumulate();
    RecordingLss& lss = m_store.Record();
    const int64 numVisits = TestBranch::s_numVisits;
    EXPECT_TRUE(Batch());
    EXPECT_EQ(3u, Deletions(lss.Log()).size());
    EXPECT_EQ(numVisits + 3, TestBranch::s_numVisits);
}

TEST_F(DeletionBatches, ACycleEnds) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestBranch* const part = NewBranch(false);
        TestBranch* const root = NewBranch(true, {part});
        part->AddChild(root);
        part->AddChild(part);
        oid = GetOid(Persist(root));
    }
    WriteSpace();
    Request(oid);
    Accumulate();
    RecordingLss& lss = m_store.Record();
    while (Batch()) {
    }
    EXPECT_EQ(2u, Deletions(lss.Log()).size());
}

TEST_F(DeletionBatches, NullAndParentReferencesAreSkipped) {
    OID rootOid, childOid;
    {
        const SpaceScope scope(m_ps);
        TestBranch* const child = NewBranch(true);
        TestBranch* const root = Persist(NewBranch(true, {nullptr, child}));
        rootOid = GetOid(root);
        childOid = GetOid(child);
    }
    WriteSpace();
    Request(childOid); // its parent reference names the root
    Accumulate();
    EXPECT_TRUE(Batch());
    EXPECT_TRUE(m_store.Has(rootOid));
    EXPECT_FALSE(m_store.Has(childOid));
    Request(rootOid); // its second reference dangles by now
    Accumulate();
    Collect();
    EXPECT_TRUE(Batch());
    EXPECT_FALSE(m_store.Has(rootOid));
}

TEST_F(DeletionBatches, AChainOfPartsNeedsNoStack) {
    const int length = UNDER_SANITIZER ? 20'000 : 100'000;
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestBranch* next = nullptr;
        for (int i = 0; i < length; ++i) next = NewBranch(i == length - 1, {next});
        oid = GetOid(Persist(next));
    }
    WriteSpace();
    Request(oid);
    Accumulate();
    RecordingLss& lss = m_store.Record();
    EXPECT_TRUE(Batch());
    EXPECT_EQ(static_cast<std::size_t>(length), Deletions(lss.Log()).size());
}

TEST_F(DeletionBatches, AVeryLongQueueIsWorkedInLongerBatchesSoThatItsImagesStayLinear) {
    const int n = 40'000;
    std::vector<OID> oids;
    {
        const SpaceScope scope(m_ps);
        for (int i = 0; i < n; ++i) oids.push_back(GetOid(Persist(NewBranch(true))));
        for (const OID oid : oids) m_ps->AsyncPermanentlyDeleteSubTree(m_ps->BindObject(oid));
    }
    Accumulate();
    EXPECT_TRUE(Batch());
    EXPECT_EQ(n - n / 128, Queue().m_queue.size());
}

// ---- The thread's context, the writer's list ----

TEST_F(DeletionBatches, ABatchMakesTheSpaceCurrentAndRestoresWhatWas) {
    const std::vector<OID> oids = WrittenTrees(1);
    Request(oids[0]);
    Accumulate();
    RecordingLss& lss = m_store.Record();
    PSpace* other = Open("other");
    const ThreadPSpaceScope pair(other, other->GetCSpace());
    PSpace* seen = nullptr;
    bool exclusive = false;
    lss.m_onWrite = [&](Seid) {
        seen = GetThreadPSpace();
        exclusive = GetThreadCSpace() == m_ps->GetCSpace() && HaveExclusiveLock(m_ps->GetCSpace());
    };
    EXPECT_TRUE(Batch());
    lss.m_onWrite = nullptr;
    EXPECT_EQ(m_ps, seen);
    EXPECT_TRUE(exclusive);
    EXPECT_EQ(other, GetThreadPSpace());
    EXPECT_EQ(other->GetCSpace(), GetThreadCSpace());
    EXPECT_FALSE(HaveLock(m_ps->GetCSpace()));
}

TEST_F(DeletionBatches, SpacesHaveTheirTurnsOneAfterTheOther) {
    const std::vector<OID> here = WrittenTrees(11);
    for (const OID oid : here) Request(oid);
    Accumulate();
    PSpace* const first = m_ps;
    m_ps = Open("t");
    const std::vector<OID> there = WrittenTrees(1);
    Request(there[0]);
    Accumulate();
    EXPECT_TRUE(Batch());
    EXPECT_TRUE(m_store.Has(there[0]));
    EXPECT_EQ(first, Writer().m_nedqList.Front());
    EXPECT_TRUE(Batch());
    EXPECT_EQ(m_ps, Writer().m_nedqList.Front());
    EXPECT_TRUE(Batch());
    EXPECT_FALSE(m_store.Has(there[0]));
    EXPECT_FALSE(Batch());
}

TEST_F(DeletionBatches, ABatchOfEmptyQueuesDoesNothingAndLeavesTheSpaceOnTheList) {
    WrittenTrees(1);
    RecordingLss& lss = m_store.Record();
    Writer().AddPSpaceToNedqList(m_ps);
    EXPECT_FALSE(Queue().DeleteSomeObjects(m_ps));
    EXPECT_EQ(m_ps, Writer().m_nedqList.Front());
    EXPECT_TRUE(lss.Log().empty());
    // The writer takes such a space off, or it would never come to the next.
    EXPECT_TRUE(Batch());
    EXPECT_TRUE(Writer().m_nedqList.empty());
    EXPECT_FALSE(Batch());
    EXPECT_TRUE(lss.Log().empty());
}

// ---- Transfer ----

TEST_F(DeletionBatches, ATransferTurnsTheQueuesIntoRequestsOfTheTarget) {
    const std::vector<OID> oids = WrittenTrees(4);
    Request(oids[0]);
    RequestOne(oids[1]);
    Accumulate();
    Request(oids[2]);
    RequestOne(oids[3]);
    PSpace* const source = m_ps;
    PSpace* const target = Open("target");
    {
        const ThreadPSpaceScope pair(target, target->GetCSpace());
        const CSpaceLock lockSource(source->GetCSpace(), Exclusive);
        const CSpaceLock lockTarget(target->GetCSpace(), Exclusive);
        target->Transfer(*source);
        const DeletionQueue& dq = target->m_dq;
        EXPECT_FALSE(dq.HaveObjectsToDelete());
        ASSERT_EQ(2, dq.m_deltaQueue.size());
        EXPECT_EQ(oids[0], dq.m_deltaQueue.front());
        EXPECT_EQ(oids[2], dq.m_deltaQueue.back());
        ASSERT_EQ(2, dq.m_deltaQueue2.size());
        EXPECT_EQ(oids[1], dq.m_deltaQueue2.front());
        EXPECT_EQ(oids[3], dq.m_deltaQueue2.back());
        EXPECT_FALSE(source->m_dq.HaveRequests());
        EXPECT_FALSE(source->m_dq.HaveObjectsToDelete());
        EXPECT_TRUE(source->m_dq.m_dirty);
        ExpectAssertion("std::find(m_deltaQueue.begin(), m_deltaQueue.end(), oid) == m_deltaQueue.end()",
                        [&] { target->m_dq.AssertNotQueuedToDelete(oids[2]); });
        source->m_dq.AssertNotQueuedToDelete(oids[2]);
    }
    EXPECT_EQ(source, Writer().m_nedqList.Front()); // with empty queues
    EXPECT_TRUE(Batch());
    EXPECT_FALSE(Batch());
    target->WriteDirtyObjectsToLss(false); // both, in one transaction
    EXPECT_EQ((Bytes{1, 0, 0}), m_store.Element(source->m_roots.m_dqOid));
    EXPECT_EQ(2, target->m_dq.m_queue.size());
    EXPECT_TRUE(Batch());
    for (const OID oid : oids) EXPECT_FALSE(m_store.Has(oid));
    EXPECT_FALSE(Batch());
}

// ---- What is left ----

TEST_F(DeletionBatches, ObjectsLoadedOnlyToBeDeletedAreCollected) {
    const std::vector<OID> oids = WrittenTrees(20, 10);
    for (const OID oid : oids) Request(oid);
    Accumulate();
    Collect();
    const int numLive = TestBranch::s_numLive;
    while (Batch()) {
    }
    EXPECT_EQ(numLive + 220, TestBranch::s_numLive);
    Collect();
    EXPECT_EQ(numLive, TestBranch::s_numLive);
    EXPECT_EQ(0, m_ps->rot_.NumEntries());
}

TEST_F(DeletionBatches, TenThousandPendingRequestsCostLinearWork) {
    const auto probes = [&](int n) {
        const int64 before = Queue().NumIndexProbes();
        std::vector<OID> oids;
        {
            const SpaceScope scope(m_ps);
            for (int i = 0; i < n; ++i) oids.push_back(GetOid(Persist(NewBranch(true))));
            for (const OID oid : oids) m_ps->AsyncPermanentlyDeleteSubTree(m_ps->BindObject(oid));
        }
        Accumulate();
        int numBatches = 0;
        while (Batch()) ++numBatches;
        EXPECT_EQ(n / 10, numBatches);
        EXPECT_TRUE(Writer().m_nedqList.empty());
        return Queue().NumIndexProbes() - before;
    };
    const int64 few = probes(1000);
    const int64 many = probes(10000);
    EXPECT_GT(many, 0);
    EXPECT_LT(few, 30 * 1000); // slots looked at, for request, move, walk and removal
    EXPECT_LT(many, 30 * 10000);
}

TEST_F(DeletionBatches, AnImageWithEmptyQueuesReadsBackAsEmpty) {
    const std::vector<OID> oids = WrittenTrees(1);
    Request(oids[0]);
    Accumulate();
    EXPECT_TRUE(Batch());
    EXPECT_EQ((Bytes{1, 0, 0}), Image());
    Reopen();
    EXPECT_FALSE(Queue().HaveObjectsToDelete());
    EXPECT_FALSE(Queue().m_dirty);
    EXPECT_TRUE(Writer().m_nedqList.empty());
}

} // namespace
} // namespace quna

// Binding without blocking: placeholders, their states, the handler, and those who wait.
#include "qxLss/CorruptLSSException.h"
#include "qxObject/DGDepNode.h"
#include "tests/support/GatedSpace.h"

#include <stdexcept>
#include <string>
#include <thread>

namespace quna {
namespace {

using AsyncBinding = GatedSpaceFixture;
using Node = DGIndepNodeForAsyncPref;
using enum EAsyncBindResult;

// ---- Asking ---------------------------------------------------------------------------------------------------------

TEST_F(AsyncBinding, ACalculationThatReadAPendingObjectRunsAgainWhenItHasArrived) {
    cref<TestLeaf> reference;
    reference.SetOid(StoredLeaf(7));
    int runs = 0;
    Calculated<int> shown("shown", [&] {
        ++runs;
        const TestLeaf* const leaf = reference.AsyncGet();
        return leaf ? leaf->m_number : -1;
    });
    DGWatchQueue news;
    const DGWatcher watcher(
        "watcher", [] {}, news);
    m_gate.Hold(reference.GetOid());
    {
        const SpaceScope scope(m_ps, SharedRead);
        EXPECT_EQ(-1, watcher.Watch([&] { return shown.Get(); }));
        EXPECT_EQ(-1, shown.Get());
    }
    EXPECT_EQ(1, runs); // nothing has changed yet
    m_gate.Release(reference.GetOid());
    ASSERT_TRUE(news.Wait(60'000));
    const SpaceScope scope(m_ps, SharedRead);
    EXPECT_EQ(7, shown.Get());
    EXPECT_EQ(2, runs);
    EXPECT_TRUE(reference.IsBound());
}

TEST_F(AsyncBinding, AskersOfOneObjectShareOnePlaceholderAndOneLoad) {
    const OID oid = StoredLeaf(1);
    m_gate.Hold(oid);
    for (const ECSpaceLockMode mode : {Exclusive, SharedRead, Exclusive}) {
        const MAsyncBind bind = Ask(oid, mode);
        EXPECT_EQ(Pending, bind.result);
        EXPECT_FALSE(bind.po);
    }
    EXPECT_EQ(1, m_ps->rot_.NumEntries());
    m_gate.Release(oid);
    const MAsyncBind bind = AwaitAnswer(oid);
    EXPECT_EQ(Bound, bind.result);
    EXPECT_EQ(1, LeafNumber(bind.po));
    EXPECT_EQ(1, m_gate.NumReads(oid));
    EXPECT_EQ(1, TestLeaf::s_numLive);
}

TEST_F(AsyncBinding, AResidentObjectIsBoundAtOnceUnlessItIsDeleted) {
    const SpaceScope scope(m_ps);
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    m_ps->MakeObjectPersist(leaf, false);
    EXPECT_EQ(BindAnswer(Bound, leaf), m_ps->AsyncBind2(GetOid(leaf)));
    EXPECT_EQ(ptr<IPersistable>(leaf), m_ps->AsyncBind(GetOid(leaf)));
    m_ps->SyncPermanentlyDeleteObject(leaf);
    EXPECT_EQ(BindAnswer(DoesNotExist), m_ps->AsyncBind2(GetOid(leaf)));
}

TEST_F(AsyncBinding, WhatIsNowhereIsMissingUntilThePlaceholderIsEvicted) {
    const OID oid = Missing();
    EXPECT_EQ(BindAnswer(DoesNotExist), AwaitAnswer(oid));
    EXPECT_EQ(BindAnswer(DoesNotExist), Ask(oid, SharedRead));
    EXPECT_EQ(1, m_gate.NumReads(oid));
    {
        const SpaceScope scope(m_ps);
        EXPECT_FALSE(m_ps->TryBindObject(oid)); // the placeholder knows
        EXPECT_FALSE(m_ps->rot_.FindResidentObject(oid));
        ExpectAssertion("i->second.m_table != nullptr", "src/ROT", [&] { m_ps->rot_.RemoveResidentObject(oid); });
    }
    EXPECT_EQ(1, m_gate.NumReads(oid));
    EvictNodes();
    EXPECT_EQ(0, m_ps->rot_.NumEntries());
    EXPECT_EQ(BindAnswer(DoesNotExist), AwaitAnswer(oid));
    EXPECT_EQ(2, m_gate.NumReads(oid));
}

TEST_F(AsyncBinding, ACollectionLeavesAPendingLoadAloneAndForgetsWhatIsMissingUnlessACalculationDependsOnIt) {
    const OID missing = Missing();
    const OID watched = Missing();
    const OID pending = StoredLeaf(1);
    m_gate.Hold(pending);
    AwaitAnswer(missing);
    AwaitAnswer(watched);
    Ask(pending);
    DGWatchQueue news;
    const DGWatcher watcher(
        "watcher", [] {}, news);
    {
        const SpaceScope scope(m_ps);
        watcher.Watch([&] { return m_ps->AsyncBind2(watched); });
    }
    SynchronousGc(m_ps->GetCSpace());
    EXPECT_EQ(2, m_ps->rot_.NumEntries());
    EXPECT_FALSE(news.Wait(0));
    m_gate.Release(pending);
    EXPECT_EQ(Bound, AwaitAnswer(pending).result);
    EXPECT_EQ(1, m_gate.NumReads(pending));
}

TEST_F(AsyncBinding, ThePlaceholderBelongsToTheSpaceWhateverTheThreadWorksIn) {
    const CSpaceCreator elsewhere;
    const OID oid = Missing();
    {
        const CSpaceLock lock(m_ps->GetCSpace(), Exclusive);
        const DeclareThreadPtr<CSpace> current(elsewhere);
        EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
    }
    m_store.CloseSpace(m_ps); // would wait for ever for a node in the other domain
}

// ---- Evicting -------------------------------------------------------------------------------------------------------

TEST_F(AsyncBinding, APlaceholderThatIsEvictedBeforeItsTurnCostsNoRead) {
    const OID first = StoredLeaf(1);
    const OID second = StoredLeaf(2);
    m_gate.Hold(first);
    Ask(first);
    Ask(second);
    m_gate.AwaitRead(first);
    EvictNodes();
    EXPECT_EQ(0, m_ps->rot_.NumEntries());
    m_gate.Release(first);
    m_ps->rot_.Close();
    EXPECT_EQ(0, m_gate.NumReads(second));
    EXPECT_EQ(0, TestLeaf::s_numLive); // what was being read reached nobody
    EXPECT_EQ(0, m_ps->rot_.NumEntries());
}

TEST_F(AsyncBinding, AnObjectThatHasJustArrivedWhenThePlaceholderIsEvictedIsResident) {
    const OID oid = StoredLeaf(3);
    const SpaceScope scope(m_ps); // keeps the update thread out
    m_ps->AsyncBind2(oid);
    AwaitLoadThread();
    EXPECT_FALSE(m_ps->rot_.FindResidentObject(oid));
    EvictAllDgsNodes(m_ps->GetCSpace());
    const ptr<IPersistable> po = m_ps->rot_.FindResidentObject(oid);
    ASSERT_TRUE(po);
    EXPECT_EQ(3, LeafNumber(po));
    EXPECT_EQ(m_ps->GetCSpace(), GetAssociatedCSpace(po));
    EXPECT_EQ(BindAnswer(Bound, po), m_ps->AsyncBind2(oid));
}

TEST_F(AsyncBinding, AnObjectMadePersistentUnderTheOidWinsOverTheLoad) {
    const OID oid = StoredLeaf(1);
    DGWatchQueue news;
    const DGWatcher watcher(
        "watcher", [] {}, news);
    m_gate.Hold(oid);
    TestLeaf* fetched = nullptr;
    {
        const SpaceScope scope(m_ps);
        EXPECT_EQ(Pending, watcher.Watch([&] { return m_ps->AsyncBind2(oid); }).result);
        m_gate.AwaitRead(oid);
        fetched = NewObject<TestLeaf>(2);
        EXPECT_TRUE(m_ps->MakeObjectPersistWithGivenOID(fetched, oid, false));
        EXPECT_EQ(BindAnswer(Bound, fetched), m_ps->AsyncBind2(oid));
        EXPECT_FALSE(m_ps->rot_.AddResidentObject(oid, NewObject<TestLeaf>(3)));
    }
    EXPECT_TRUE(news.Wait(0));
    m_gate.Release(oid);
    m_ps->rot_.Close();
    EXPECT_EQ(BindAnswer(Bound, fetched), Ask(oid));
    EXPECT_EQ(2, TestLeaf::s_numLive); // the refused one waits for the collector, the loaded one is gone
}

TEST_F(AsyncBinding, WhatABatchOfDeletionsErasesDoesNotComeBackThroughALoadUnderWay) {
    const OID oid = StoredLeaf(1);
    {
        const SpaceScope scope(m_ps);
        m_ps->AsyncPermanentlyDeleteObject(m_ps->BindObject(oid));
        m_ps->m_dos.MarkAsDirty(); // a request alone writes nothing yet
    }
    m_ps->WriteDirtyObjectsToLss(false);
    SynchronousGc(m_ps->GetCSpace());
    m_gate.Hold(oid);
    Ask(oid);
    m_gate.AwaitRead(oid);
    EXPECT_TRUE(m_store->m_dosWriter.DeleteSomeObjects());
    m_gate.Release(oid);
    EXPECT_EQ(BindAnswer(DoesNotExist), AwaitAnswer(oid));
    EvictNodes();
    m_ps->rot_.Close();
    EXPECT_EQ(0, TestLeaf::s_numLive);
}

TEST_F(AsyncBinding, ATransferEndsThePlaceholdersOfItsSource) {
    PSpace* const target = m_store.OpenSpace("target");
    const OID oid = StoredLeaf(1);
    m_gate.Hold(oid);
    {
        const SpaceScope scope(m_ps);
        const CSpaceLock lock(target->GetCSpace(), Exclusive);
        m_ps->AsyncBind2(oid);
        target->Transfer(*m_ps);
        EXPECT_EQ(0, m_ps->rot_.NumEntries());
        EXPECT_EQ(0, target->rot_.NumEntries());
    }
    m_gate.Release(oid);
    EXPECT_EQ(Bound, AwaitAnswer(oid, target).result);
}

// ---- Binding synchronously ------------------------------------------------------------------------------------------

TEST_F(AsyncBinding, ASynchronousBinderWaitsForTheLoadUnderWay) {
    for (const ECSpaceLockMode mode : {Exclusive, SharedRead}) {
        const OID oid = StoredLeaf(5);
        m_gate.Hold(oid);
        const SpaceScope scope(m_ps, mode);
        EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
        m_gate.AwaitRead(oid);
        std::thread release([&] { m_gate.Release(oid); });
        const ptr<IPersistable> po = m_ps->BindObject(oid);
        release.join();
        EXPECT_EQ(5, LeafNumber(po));
        EXPECT_EQ(1, m_gate.NumReads(oid));
        EXPECT_EQ(BindAnswer(Bound, po), m_ps->AsyncBind2(oid));
    }
}

TEST_F(AsyncBinding, ABinderThatComesAfterTheLoadEntersTheObjectItself) {
    const OID oid = StoredLeaf(5);
    const SpaceScope scope(m_ps);
    m_ps->AsyncBind2(oid);
    AwaitLoadThread();
    Node* const node = m_ps->rot_.PlaceholderForTest(oid);
    ASSERT_TRUE(node);
    EXPECT_TRUE(node->readyToUpdateRot_);
    const ptr<IPersistable> po = m_ps->BindObject(oid);
    EXPECT_EQ(5, LeafNumber(po));
    EXPECT_FALSE(m_ps->rot_.PlaceholderForTest(oid));
    EXPECT_EQ(1, m_gate.NumReads(oid));
}

TEST_F(AsyncBinding, ABinderOfWhatIsNowhereGetsNothingAndThePlaceholderStays) {
    const OID oid = Missing();
    const SpaceScope scope(m_ps);
    m_ps->AsyncBind2(oid);
    EXPECT_FALSE(m_ps->TryBindObject(oid));
    EXPECT_EQ(BindAnswer(DoesNotExist), m_ps->AsyncBind2(oid));
    EXPECT_TRUE(m_ps->rot_.PlaceholderForTest(oid));
}

// ---- The handler ----------------------------------------------------------------------------------------------------

TEST_F(AsyncBinding, AHandlerThatSaysNoIsAskedOnceAndNotToldOfAnEnd) {
    AnsweringHandler handler;
    SetHandler(&handler);
    for (const EAsyncBindResult no : {DoesNotExist, NotHandled}) {
        handler.m_onBegin = [&](OID) { return BindAnswer(no); };
        const OID oid = Missing();
        EXPECT_EQ(BindAnswer(DoesNotExist), AwaitAnswer(oid));
        EXPECT_EQ(BindAnswer(DoesNotExist), Ask(oid));
    }
    EvictNodes();
    m_ps->rot_.Close();
    EXPECT_EQ(2, handler.m_numBegun);
    EXPECT_EQ(0, handler.m_numEnded);
    SetHandler(nullptr);
}

TEST_F(AsyncBinding, AFetchEndsWhenTheObjectIsMadePersistent) {
    AnsweringHandler handler;
    SetHandler(&handler);
    handler.m_onBegin = [](OID) { return BindAnswer(Pending); };
    const OID oid = Missing();
    DGWatchQueue news;
    const DGWatcher watcher(
        "watcher", [] {}, news);
    {
        const SpaceScope scope(m_ps);
        watcher.Watch([&] { return m_ps->AsyncBind2(oid); });
        // Each synchronous bind asks once more; the object is still on its way.
        EXPECT_FALSE(m_ps->TryBindObject(oid));
        EXPECT_FALSE(m_ps->TryBindObject(oid));
        EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
        EXPECT_EQ(2, handler.m_numBegun);
        EXPECT_EQ(0, handler.m_numEnded);
        EXPECT_FALSE(news.Wait(0));
        TestLeaf* const leaf = NewObject<TestLeaf>(4);
        EXPECT_TRUE(m_ps->MakeObjectPersistWithGivenOID(leaf, oid, false));
        EXPECT_EQ(BindAnswer(Bound, leaf), m_ps->AsyncBind2(oid));
    }
    EXPECT_TRUE(news.Wait(0));
    m_ps->rot_.Close();
    EXPECT_EQ(1, handler.m_numEnded);
    SetHandler(nullptr);
}

TEST_F(AsyncBinding, AFetchThatIsGivenUpEndsOnce) {
    AnsweringHandler handler;
    SetHandler(&handler);
    handler.m_onBegin = [](OID) { return BindAnswer(Pending); };
    const OID oid = Missing();
    Ask(oid);
    {
        const SpaceScope scope(m_ps, SharedRead);
        EXPECT_FALSE(m_ps->TryBindObject(oid));
    }
    EvictNodes();
    m_ps->rot_.Close();
    EXPECT_EQ(1, handler.m_numEnded);
    SetHandler(nullptr);
}

TEST_F(AsyncBinding, AnObjectThatTheHandlerHasIsBoundAtTheNextBind) {
    AnsweringHandler handler;
    SetHandler(&handler);
    handler.m_onBegin = [](OID) { return BindAnswer(Bound, new TestLeaf(9)); };
    const OID oid = Missing();
    const MAsyncBind bind = AwaitAnswer(oid);
    ASSERT_EQ(Bound, bind.result);
    EXPECT_EQ(oid, GetOid(bind.po)); // it had none
    EXPECT_EQ(m_ps->GetCSpace(), GetAssociatedCSpace(bind.po));
    EXPECT_EQ(9, LeafNumber(bind.po));

    const OID other = Missing();
    {
        const SpaceScope scope(m_ps);
        m_ps->AsyncBind2(other);
        EXPECT_FALSE(m_ps->TryBindObject(other)); // this bind caused the request
        EXPECT_TRUE(m_ps->TryBindObject(other));
    }
    EXPECT_EQ(2, handler.m_numBegun);
    SetHandler(nullptr);
    SynchronousGc(m_ps->GetCSpace()); // it is clean, and nothing names it
    EXPECT_EQ(0, m_ps->rot_.NumEntries());
    EXPECT_EQ(0, TestLeaf::s_numLive);
}

TEST_F(AsyncBinding, AHandlerMayMakeTheObjectPersistentItself) {
    AnsweringHandler handler;
    SetHandler(&handler);
    for (const EAsyncBindResult answer : {Pending, Bound}) {
        TestLeaf* leaf = nullptr;
        handler.m_onBegin = [&](OID oid) {
            leaf = NewObject<TestLeaf>(1);
            EXPECT_TRUE(m_ps->MakeObjectPersistWithGivenOID(leaf, oid, false));
            return BindAnswer(answer, answer == Bound ? leaf : nullptr);
        };
        const MAsyncBind bind = AwaitAnswer(Missing());
        EXPECT_EQ(BindAnswer(Bound, leaf), bind);
    }
    m_ps->rot_.Close();
    EXPECT_EQ(1, handler.m_numEnded); // of the one Pending
    SetHandler(nullptr);
}

TEST_F(AsyncBinding, AHandlersExceptionReachesTheBinderAndDoesNotStopTheUpdateThread) {
    AnsweringHandler handler;
    SetHandler(&handler);
    handler.m_onBegin = [](OID) -> MAsyncBind { throw std::runtime_error("handler"); };
    const CollectedTrace trace;
    {
        const OID oid = Missing();
        const SpaceScope scope(m_ps);
        m_ps->AsyncBind2(oid);
        EXPECT_THROW(m_ps->TryBindObject(oid), std::runtime_error);
        EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
    }
    EXPECT_EQ(BindAnswer(DoesNotExist), AwaitAnswer(Missing()));
    EXPECT_EQ(Bound, AwaitAnswer(StoredLeaf(1)).result);
    EXPECT_FALSE(trace.Texts().empty());
    SetHandler(nullptr);
}

TEST_F(AsyncBinding, AHandlersAnswerIsChecked) {
    AnsweringHandler handler;
    SetHandler(&handler);
    const auto expect = [&](const char* text, MAsyncBind answer) {
        handler.m_onBegin = [=](OID) { return answer; };
        const OID oid = Missing();
        const SpaceScope scope(m_ps);
        m_ps->AsyncBind2(oid);
        ExpectAssertion(text, "src/ROT", [&] { m_ps->TryBindObject(oid); });
        EvictAllDgsNodes(m_ps->GetCSpace());
    };
    const CollectedTrace trace;
    expect("ab.po", BindAnswer(Bound));
    expect("ab.result == EAsyncBindResult::DoesNotExist || ab.result == EAsyncBindResult::NotHandled",
           BindAnswer(static_cast<EAsyncBindResult>(7)));
    TestLeaf* other = nullptr;
    {
        const SpaceScope scope(m_ps);
        other = NewObject<TestLeaf>(1);
        m_ps->MakeObjectPersist(other, false);
    }
    expect("oid == oid_", BindAnswer(Bound, other)); // an object under two identifiers
    m_ps->rot_.Close();
    SetHandler(nullptr);
}

// ---- Failures -------------------------------------------------------------------------------------------------------

TEST_F(AsyncBinding, ADamagedElementIsMissingForWhoDoesNotWaitAndAnErrorForWhoDoes) {
    const OID oid = StoredLeaf(1);
    m_onRead = [&](Seid seid) {
        if (seid == oid) throw CorruptLSSException("damaged");
    };
    const CollectedTrace trace;
    EXPECT_EQ(BindAnswer(DoesNotExist), AwaitAnswer(oid));
    ASSERT_EQ(1u, trace.Texts().size());
    EXPECT_NE(std::string::npos, trace.Texts()[0].find(TextOfSeid(oid)));
    const SpaceScope scope(m_ps);
    EXPECT_THROW(m_ps->BindObject(oid), CorruptLSSException);
    m_onRead = nullptr;
    EXPECT_EQ(1, LeafNumber(m_ps->BindObject(oid))); // it was the reading that was wrong
    EXPECT_EQ(Bound, m_ps->AsyncBind2(oid).result);
}

TEST_F(AsyncBinding, ABinderThatWaitsForALoadThatFailsGetsTheError) {
    for (const ECSpaceLockMode mode : {Exclusive, SharedRead}) {
        OID oid;
        {
            const SpaceScope scope(m_ps);
            TestThrower* const thrower = NewObject<TestThrower>();
            m_ps->MakeObjectPersist(thrower, false);
            oid = GetOid(thrower);
        }
        m_ps->WriteDirtyObjectsToLss(false);
        SynchronousGc(m_ps->GetCSpace());
        TestThrower::s_throwInDeserialise = true;
        m_gate.Hold(oid);
        const CollectedTrace trace;
        {
            const SpaceScope scope(m_ps, mode);
            EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
            m_gate.AwaitRead(oid);
            std::thread release([&] { m_gate.Release(oid); });
            EXPECT_THROW(m_ps->BindObject(oid), std::runtime_error);
            release.join();
            EXPECT_EQ(BindAnswer(DoesNotExist), m_ps->AsyncBind2(oid));
            TestThrower::s_throwInDeserialise = false;
            EXPECT_TRUE(m_ps->BindObject(oid));
        }
        SynchronousGc(m_ps->GetCSpace());
        EXPECT_EQ(0, TestThrower::s_numLive);
    }
}

TEST_F(AsyncBinding, ALoadFailsAsStated) {
    const OID oid = StoredLeaf(1);
    m_onRead = [&](Seid seid) {
        if (seid == oid) throw CorruptLSSException("damaged");
    };
    const CollectedTrace trace;
    auto* const node = new Node(m_ps->rot_, oid);
    EXPECT_EQ(2, node->refCount_.Get());
    EXPECT_EQ(xstring(("DGIndepNodeForAsyncPref:oid=" + TextOfSeid(oid)).c_str()), node->Name());
    ExpectAssertion("0", "src/ROT", [&] { node->AsyncLoad(); });
    node->DecRef(); // the graph's; the job's goes with the update job
    m_ps->rot_.Close();
    ExpectAssertion("oid_", "src/ROT", [&] { Node nowhere(m_ps->rot_, OID()); });
    const SpaceScope scope(m_ps);
    auto* const locked = new Node(m_ps->rot_, oid);
    ExpectAssertion("!rot_.HasLock()", "src/ROT", [&] { locked->AsyncLoad(); });
    locked->DecRef();
}

// ---- Several spaces, and closing ------------------------------------------------------------------------------------

TEST_F(AsyncBinding, ASpaceWhoseLockIsHeldDoesNotHoldUpTheOthers) {
    PSpace* const other = m_store.OpenSpace("other");
    const OID first = StoredLeaf(1);
    const OID second = StoredLeaf(2, other);
    {
        const SpaceScope scope(m_ps);
        m_ps->AsyncBind2(first);
        AwaitLoadThread(); // its update job waits for this thread
        EXPECT_EQ(Bound, AwaitAnswer(second, other).result);
    }
    EXPECT_EQ(Bound, AwaitAnswer(first).result);
}

TEST_F(AsyncBinding, ClosingASpaceWaitsForTheLoadsUnderWay) {
    const OID oid = StoredLeaf(1);
    m_gate.Hold(oid);
    Ask(oid);
    Ask(StoredLeaf(2));
    m_gate.AwaitRead(oid);
    std::thread release([&] { m_gate.Release(oid); });
    m_store.CloseSpace(m_ps);
    release.join();
    EXPECT_EQ(0, TestLeaf::s_numLive);
}

TEST_F(AsyncBinding, ClosingEndsAlsoWhatTheEndOfARequestAsksFor) {
    AnsweringHandler handler;
    SetHandler(&handler);
    handler.m_onBegin = [](OID) { return BindAnswer(Pending); };
    const OID first = Missing();
    const OID next = Missing();
    handler.m_onEnd = [&](OID oid) {
        if (oid == first) m_ps->AsyncBind2(next);
    };
    {
        const SpaceScope scope(m_ps);
        m_ps->AsyncBind2(first);
        EXPECT_FALSE(m_ps->TryBindObject(first));
    }
    m_store.CloseSpace(m_ps);
    EXPECT_GE(handler.m_numEnded, 1);
}

} // namespace
} // namespace quna

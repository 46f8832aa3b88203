// Asynchronous binding of what the store does not hold, and what calculations see of it all.
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PSpace.h"
#include "tests/support/AsyncBindFixture.h"

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using enum EAsyncBindResult;

class AsyncBindHandler : public AsyncBindFixture {
protected:
    AsyncBindHandler() { SetHandler(); }

    // An OID that the handler has promised to serve.
    OID Promised() {
        const OID oid = MissingOid();
        m_handler->Answer(oid, Pending);
        EXPECT_EQ(Pending, Ask(oid));
        m_handler->WaitForBegins(oid, 1);
        return oid;
    }
    void KeepPromise(OID oid, int32 number) {
        const SpaceScope scope(m_ps);
        EXPECT_TRUE(m_ps->MakeObjectPersistWithGivenOID(NewObject<TestLeaf>(number), oid, false));
    }
    // What a synchronous binder of a placeholder meets, whose load has found nothing.
    void BindWhenDelivered(OID oid, const std::function<void()>& bind) {
        const SpaceScope scope(m_ps);
        EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
        WaitForLoads();
        bind();
    }
    void DropHandler() {
        const SpaceScope scope(m_ps);
        m_ps->SetAsyncBindRequestHandler(null);
    }
};

TEST_F(AsyncBindHandler, APromiseIsKeptByMakingTheObjectPersistent) {
    const OID oid = Promised();
    AsyncReader reader(m_ps, oid);
    {
        const SpaceScope scope(m_ps);
        EXPECT_EQ(Pending, reader.Read().result);
        EXPECT_TRUE(m_ps->MakeObjectPersistWithGivenOID(NewObject<TestLeaf>(6), oid, false));
        EXPECT_TRUE(reader.IsStale());
        EXPECT_EQ(Bound, reader.Read().result);
        EXPECT_EQ(1, m_handler->NumEnds(oid));
    }
    EXPECT_EQ(1, m_handler->NumBegins(oid));
    m_store.CloseSpace(m_ps);
    EXPECT_EQ(1, m_handler->NumEnds(oid));
    m_ps = OpenSpace("s");
    const SpaceScope scope(m_ps);
    ASSERT_TRUE(m_ps->TryBindObject(oid)); // it was written like any other
    EXPECT_EQ(6, static_cast<const TestLeaf*>(m_ps->TryBindObject(oid).m_self)->m_number);
}

TEST_F(AsyncBindHandler, IsAskedOnlyForWhatTheStoreDoesNotHold) {
    const OID oid = StoredLeaf(3);
    EXPECT_EQ(Pending, Ask(oid));
    WaitForUpdates();
    EXPECT_EQ(Bound, Ask(oid));
    EXPECT_EQ(0, m_handler->NumBegins(oid));
    const SpaceScope scope(m_ps);
    const OID missing = MissingOid();
    EXPECT_FALSE(m_ps->TryBindObject(missing)); // a synchronous bind by itself asks nobody
    EXPECT_EQ(0, m_handler->NumBegins(missing));
    EXPECT_EQ(ptr<IAsyncBindRequestHandler>(m_handler.get()), m_ps->GetAsyncBindRequestHandler());
}

TEST_F(AsyncBindHandler, ARefusalMeansThatThereIsNoSuchObject) {
    for (const EAsyncBindResult answer : {DoesNotExist, NotHandled}) {
        const OID oid = MissingOid();
        m_handler->Answer(oid, answer);
        AsyncReader reader(m_ps, oid);
        {
            const SpaceScope scope(m_ps);
            EXPECT_EQ(Pending, reader.Read().result);
        }
        reader.WaitForChange();
        EXPECT_EQ((MAsyncBind{DoesNotExist, null}), Bind(oid));
        EXPECT_EQ(1, m_handler->NumBegins(oid));
        EndAllPlaceholders();
        EXPECT_EQ(1, m_handler->NumBegins(oid));
        EXPECT_EQ(0, m_handler->NumEnds(oid));
    }
}

TEST_F(AsyncBindHandler, AnObjectGivenAtOnceGetsTheOidAndArrivesLikeAStoredOne) {
    const OID oid = MissingOid();
    TestLeaf* const leaf = new TestLeaf(8);
    m_handler->Answer(oid, [&](OID) { return MAsyncBind{Bound, leaf}; });
    AsyncReader reader(m_ps, oid);
    reader.m_onChange = [&] { EXPECT_TRUE(Table().Holds(oid, leaf)); };
    {
        const SpaceScope scope(m_ps);
        EXPECT_EQ(Pending, reader.Read().result);
    }
    reader.WaitForChange();
    {
        const SpaceScope scope(m_ps);
        EXPECT_EQ((MAsyncBind{Bound, leaf}), reader.Read());
        EXPECT_EQ(ptr<IPersistable>(leaf), m_ps->BindObject(oid));
        EXPECT_EQ(oid, GetOid(leaf));
        EXPECT_EQ(Domain(), GetAssociatedCSpace(ptr<IPersistable>(leaf)));
    }
    EXPECT_EQ(0, m_handler->NumEnds(oid));
    Collect(m_ps);
    EXPECT_EQ(0, NumLeaves()); // nothing in the store knows it
    EXPECT_EQ(0, NumberOf(oid));
}

TEST_F(AsyncBindHandler, AnObjectGivenAtOnceMayBeRegisteredAlready) {
    const OID oid = MissingOid();
    m_handler->Answer(oid, [&](OID) { return MAsyncBind{Bound, NewObject<TestLeaf>(8)}; });
    EXPECT_EQ(Pending, Ask(oid));
    WaitForUpdates();
    EXPECT_EQ(Bound, Ask(oid));
    EXPECT_EQ(8, NumberOf(oid));
}

TEST_F(AsyncBindHandler, ABinderSeesAnObjectGivenAtOnceWithItsNextBind) {
    const OID oid = MissingOid();
    m_handler->Answer(oid, [&](OID) { return MAsyncBind{Bound, new TestLeaf(8)}; });
    BindWhenDelivered(oid, [&] {
        EXPECT_FALSE(m_ps->TryBindObject(oid));
        EXPECT_TRUE(m_ps->TryBindObject(oid));
        EXPECT_EQ(Bound, m_ps->AsyncBind2(oid).result);
    });
    WaitForUpdates();
    EXPECT_EQ(1, m_handler->NumBegins(oid));
}

TEST_F(AsyncBindHandler, EveryBinderOfAPromiseAsksOnceMoreAndTheRequestEndsOnce) {
    const OID oid = Promised();
    for (int i = 2; i <= 4; ++i) {
        const SpaceScope scope(m_ps, SharedRead);
        EXPECT_FALSE(m_ps->TryBindObject(oid));
        EXPECT_EQ(i, m_handler->NumBegins(oid));
        EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result); // asks nobody
        EXPECT_EQ(i, m_handler->NumBegins(oid));
    }
    EXPECT_EQ(0, m_handler->NumEnds(oid));
    EndAllPlaceholders();
    EXPECT_EQ(1, m_handler->NumEnds(oid));
    EXPECT_EQ(1, m_lss->NumOpens(oid));
}

TEST_F(AsyncBindHandler, APromiseCanBeKeptOrTakenBackWhenItIsAskedForAgain) {
    const OID kept = Promised();
    const OID takenBack = Promised();
    m_handler->Answer(kept, [](OID) { return MAsyncBind{Bound, new TestLeaf(4)}; });
    m_handler->Answer(takenBack, DoesNotExist);
    {
        // The placeholder ends under the shared lock, which its end must not try to make an exclusive one.
        const SpaceScope scope(m_ps, SharedRead);
        EXPECT_FALSE(m_ps->TryBindObject(kept));
        EXPECT_EQ(1, m_handler->NumEnds(kept));
        EXPECT_EQ(Bound, m_ps->AsyncBind2(kept).result);
        EXPECT_FALSE(m_ps->TryBindObject(takenBack));
        EXPECT_EQ(DoesNotExist, m_ps->AsyncBind2(takenBack).result);
        EXPECT_EQ(0, m_handler->NumEnds(takenBack)); // the placeholder stays
    }
    EndAllPlaceholders();
    EXPECT_EQ(1, m_handler->NumEnds(kept));
    EXPECT_EQ(1, m_handler->NumEnds(takenBack));
    EXPECT_EQ(4, NumberOf(kept));
}

TEST_F(AsyncBindHandler, TheLastUserOfAPlaceholderEndsTheRequest) {
    const OID oid = MissingOid();
    m_handler->Answer(oid, Pending);
    {
        const SpaceScope scope(m_ps);
        EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
        WaitForLoads(); // the update job waits for the lock
        EXPECT_FALSE(m_ps->TryBindObject(oid));
        EXPECT_EQ(1, m_handler->NumBegins(oid));
        EvictAllDgsNodes(Domain());
        EXPECT_EQ(0, Table().NumEntries());
    }
    Table().Close();
    EXPECT_EQ(1, m_handler->NumBegins(oid)); // the job found the placeholder evicted
    EXPECT_EQ(1, m_handler->NumEnds(oid));
    EXPECT_NE(std::this_thread::get_id(), m_handler->ThreadOfLastEnd());
}

TEST_F(AsyncBindHandler, AnExceptionReachesTheBinderAndLeavesTheRequestOpen) {
    const OID oid = MissingOid();
    {
        const SpaceScope scope(m_ps);
        EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
        WaitForLoads();
        m_handler->Answer(oid, [](OID) -> MAsyncBind { throw std::runtime_error("no connection"); });
        EXPECT_THROW(m_ps->TryBindObject(oid), std::runtime_error);
        EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
        EXPECT_THROW(m_ps->BindObject(oid), std::runtime_error);
        m_handler->Answer(oid, [](OID) { return MAsyncBind{Bound, new TestLeaf(2)}; });
        EXPECT_FALSE(m_ps->TryBindObject(oid));
        EXPECT_TRUE(m_ps->TryBindObject(oid));
    }
    EXPECT_EQ(3, m_handler->NumBegins(oid));
    EXPECT_EQ(0, m_handler->NumEnds(oid));
    Table().Close();
}

TEST_F(AsyncBindHandler, AnAnswerThatMakesNoSenseIsRefused) {
    const OID noObject = MissingOid();
    const OID noResult = MissingOid();
    m_handler->Answer(noObject, Bound);
    m_handler->Answer(noResult, static_cast<EAsyncBindResult>(4));
    const SpaceScope scope(m_ps);
    EXPECT_EQ(Pending, m_ps->AsyncBind2(noObject).result);
    EXPECT_EQ(Pending, m_ps->AsyncBind2(noResult).result);
    WaitForLoads();
    ExpectAssertion("ab.po", "src/ROT", [&] { m_ps->TryBindObject(noObject); });
    ExpectAssertion("ab.result == EAsyncBindResult::DoesNotExist || ab.result == EAsyncBindResult::NotHandled",
                    "src/ROT", [&] { m_ps->TryBindObject(noResult); });
    EvictAllDgsNodes(Domain()); // before the update thread asks the same and ends the process
}

// Whatever a handler answers when it has made the object persistent itself, that object is the one that counts.
TEST_F(AsyncBindHandler, MayMakeTheObjectPersistentBeforeItAnswers) {
    for (const EAsyncBindResult result : {Pending, DoesNotExist, NotHandled}) {
        const OID oid = MissingOid();
        m_handler->Answer(oid, [&, result](OID) {
            EXPECT_TRUE(m_ps->MakeObjectPersistWithGivenOID(NewObject<TestLeaf>(5), oid, false));
            return MAsyncBind{result, null};
        });
        EXPECT_EQ(Pending, Ask(oid));
        WaitForUpdates();
        EXPECT_EQ(Bound, Ask(oid));
        EXPECT_EQ(5, NumberOf(oid));
        EndAllPlaceholders();
        EXPECT_EQ(result == Pending ? 1 : 0, m_handler->NumEnds(oid)) << result;
    }
    const OID oid = MissingOid();
    m_handler->Answer(oid, [&](OID) {
        TestLeaf* const leaf = NewObject<TestLeaf>(5);
        EXPECT_TRUE(m_ps->MakeObjectPersistWithGivenOID(leaf, oid, false));
        return MAsyncBind{Bound, leaf};
    });
    EXPECT_EQ(Pending, Ask(oid));
    WaitForUpdates();
    EXPECT_EQ(Bound, Ask(oid));
    EXPECT_EQ(5, NumberOf(oid));
    EndAllPlaceholders();
    EXPECT_EQ(1, m_handler->NumBegins(oid));
    EXPECT_EQ(0, m_handler->NumEnds(oid));
}

TEST_F(AsyncBindHandler, MayHaveThePlaceholderEvictedBeforeItAnswers) {
    std::vector<OID> oids;
    for (const EAsyncBindResult result : {Pending, DoesNotExist, NotHandled, Bound}) {
        const OID oid = MissingOid();
        m_handler->Answer(oid, [&, result](OID) {
            EvictAllDgsNodes(Domain());
            return MAsyncBind{result, result == Bound ? ptr<IPersistable>(new TestLeaf(1)) : null};
        });
        BindWhenDelivered(oid, [&] {
            EXPECT_FALSE(m_ps->TryBindObject(oid));
            EXPECT_FALSE(Table().FindResidentObject(oid));
            EXPECT_EQ(0, Table().NumEntries());
        });
        Table().Close();
        EXPECT_EQ(1, m_handler->NumBegins(oid));
        EXPECT_EQ(result == Pending ? 1 : 0, m_handler->NumEnds(oid)) << result;
        Collect(m_ps);
        EXPECT_EQ(0, NumLeaves()) << result;
    }
}

TEST_F(AsyncBindHandler, MayAskForOtherObjectsWhileItIsAsked) {
    const OID whole = MissingOid();
    const OID part = StoredLeaf(3);
    const OID promised = MissingOid();
    m_handler->Answer(promised, Pending);
    m_handler->Answer(whole, [&](OID) {
        EXPECT_EQ(Pending, m_ps->AsyncBind2(whole).result);
        EXPECT_EQ(Pending, m_ps->AsyncBind2(part).result);
        EXPECT_EQ(Pending, m_ps->AsyncBind2(promised).result);
        return MAsyncBind{Pending, null};
    });
    EXPECT_EQ(Pending, Ask(whole));
    m_handler->WaitForBegins(promised, 1);
    WaitForUpdates();
    EXPECT_EQ(Bound, Ask(part));
    EXPECT_EQ(1, m_handler->NumBegins(whole));
}

TEST_F(AsyncBindHandler, AHandlerThatHasGoneIsNotTold) {
    const OID oid = Promised();
    DropHandler();
    EndAllPlaceholders();
    EXPECT_EQ(0, m_handler->NumEnds(oid));
    EXPECT_EQ(Pending, Ask(oid));
    WaitForUpdates();
    EXPECT_EQ(DoesNotExist, Ask(oid));
    EXPECT_EQ(1, m_handler->NumBegins(oid));
}

TEST_F(AsyncBindHandler, TheHandlerOfTheDayIsTold) {
    const OID oid = Promised();
    TestHandler successor(m_ps);
    {
        const SpaceScope scope(m_ps);
        m_ps->SetAsyncBindRequestHandler(&successor);
    }
    EndAllPlaceholders();
    EXPECT_EQ(0, m_handler->NumEnds(oid));
    EXPECT_EQ(1, successor.NumEnds(oid));
    DropHandler();
}

TEST_F(AsyncBindHandler, ClosingEndsRequestsThatTheEndOfOthersHasMade) {
    std::vector<OID> chain;
    for (int i = 0; i < 4; ++i) {
        chain.push_back(MissingOid());
        m_handler->Answer(chain.back(), Pending);
    }
    const OID stored = StoredLeaf();
    m_handler->m_onEnd = [&](OID oid) {
        const auto i = std::find(chain.begin(), chain.end(), oid) + 1;
        const OID next = i == chain.end() ? stored : *i;
        EXPECT_EQ(Pending, m_ps->AsyncBind2(next).result);
    };
    EXPECT_EQ(Pending, Ask(chain[0]));
    m_handler->WaitForBegins(chain[0], 1);
    m_store.CloseSpace(m_ps);
    for (const OID oid : chain) EXPECT_EQ(m_handler->NumBegins(oid), m_handler->NumEnds(oid));
    EXPECT_EQ(1, m_handler->NumEnds(chain[0]));
    EXPECT_EQ(0, NumLeaves());
}

// ---- Calculations ----------------------------------------------------------------------------------------------------

class AsyncBindGraph : public AsyncBindFixture {
protected:
    // The number of the leaf, or minus the answer where there is none.
    int32 NumberOrAnswer(OID oid) const {
        const MAsyncBind answer = m_ps->AsyncBind2(oid);
        return answer.po ? static_cast<const TestLeaf*>(answer.po.m_self)->m_number
                         : -static_cast<int32>(answer.result);
    }
};

TEST_F(AsyncBindGraph, ACalculationRunsAgainWhenWhatItMissedHasArrived) {
    const OID oid = StoredLeaf(40);
    int numRuns = 0;
    Calculated<int32> answer("answer", [&] { return ++numRuns, NumberOrAnswer(oid) + 2; });
    Calculated<int32> twice("twice", [&] { return answer.Get() * 2; });
    m_lss->HoldOpen(oid);
    {
        const SpaceScope scope(m_ps, SharedRead);
        EXPECT_EQ(2, twice.Get());
        EXPECT_EQ(1, answer.Get());
        EXPECT_EQ(1, numRuns);
    }
    m_lss->Release(oid);
    WaitForUpdates();
    const SpaceScope scope(m_ps, SharedRead);
    EXPECT_EQ(84, twice.Get());
    EXPECT_EQ(42, answer.Get());
    EXPECT_EQ(2, numRuns);
}

TEST_F(AsyncBindGraph, ACalculationRunsAgainWhenItIsProvenThatThereIsNothingAndWhenThatIsForgotten) {
    const OID oid = MissingOid();
    int numRuns = 0;
    Calculated<int32> number("number", [&] { return ++numRuns, NumberOrAnswer(oid); });
    const auto get = [&] {
        const SpaceScope scope(m_ps);
        return number.Get();
    };
    EXPECT_EQ(-1, get());
    WaitForUpdates();
    EXPECT_EQ(-2, get());
    EXPECT_EQ(-2, get());
    EXPECT_EQ(2, numRuns);
    PutLeaf(oid, 7);
    EvictNodes();
    EXPECT_EQ(-1, get());
    WaitForUpdates();
    EXPECT_EQ(7, get());
    EXPECT_EQ(4, numRuns);
}

TEST_F(AsyncBindGraph, ACalculationRunsAgainWhenAPromiseIsKeptOrTakenBack) {
    SetHandler();
    const OID kept = MissingOid();
    const OID takenBack = MissingOid();
    m_handler->Answer(kept, Pending);
    m_handler->Answer(takenBack, Pending);
    int numRuns = 0;
    Calculated<int32> sum("sum", [&] { return ++numRuns, 100 * NumberOrAnswer(kept) + NumberOrAnswer(takenBack); });
    const auto get = [&] {
        const SpaceScope scope(m_ps);
        return sum.Get();
    };
    EXPECT_EQ(-101, get());
    m_handler->WaitForBegins(kept, 1);
    m_handler->WaitForBegins(takenBack, 1);
    EXPECT_EQ(-101, get());
    EXPECT_EQ(1, numRuns); // a promise is no news
    {
        const SpaceScope scope(m_ps);
        m_ps->MakeObjectPersistWithGivenOID(NewObject<TestLeaf>(5), kept, false);
    }
    EXPECT_EQ(499, get());
    m_handler->Answer(takenBack, DoesNotExist);
    {
        const SpaceScope scope(m_ps);
        EXPECT_FALSE(m_ps->TryBindObject(takenBack));
    }
    EXPECT_EQ(498, get());
    EXPECT_EQ(3, numRuns);
}

TEST_F(AsyncBindGraph, ASceneIsDrawnTwiceHoweverManyPartsItWaitsFor) {
    constexpr int NUM_PARTS = 200;
    const std::vector<OID> parts = StoredLeaves(m_ps, NUM_PARTS);
    int numRuns = 0;
    Calculated<int> numPending("numPending", [&] {
        ++numRuns;
        int n = 0;
        for (const OID part : parts) n += m_ps->AsyncBind2(part).result == Pending;
        return n;
    });
    const auto get = [&] {
        const SpaceScope scope(m_ps, SharedRead);
        return numPending.Get();
    };
    HoldLoadThread();
    EXPECT_EQ(NUM_PARTS, get());
    ReleaseLoadThread();
    WaitForUpdates();
    EXPECT_EQ(0, get());
    EXPECT_EQ(2, numRuns);
    EXPECT_EQ(NUM_PARTS, NumLeaves());
}

} // namespace
} // namespace quna

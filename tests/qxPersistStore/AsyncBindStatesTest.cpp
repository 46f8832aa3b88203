// The placeholder of an asynchronous bind, from the first request to its end: every operation in every state.
#include "qxLss/CorruptLSSException.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PSpace.h"
#include "tests/support/AsyncBindFixture.h"

#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using enum EAsyncBindResult;

class AsyncBindTest : public AsyncBindFixture {};

TEST_F(AsyncBindTest, AnObjectOnDiskIsPendingFirstAndArrivesByItself) {
    const OID oid = StoredLeaf(42);
    AsyncReader reader(m_ps, oid);
    {
        const SpaceScope scope(m_ps, SharedRead);
        EXPECT_EQ((MAsyncBind{Pending, null}), reader.Read());
    }
    reader.WaitForChange();
    const SpaceScope scope(m_ps, SharedRead);
    const MAsyncBind answer = reader.Read();
    EXPECT_EQ(Bound, answer.result);
    ASSERT_TRUE(answer.po);
    EXPECT_EQ(42, static_cast<const TestLeaf*>(answer.po.m_self)->m_number);
    EXPECT_EQ(oid, GetOid(answer.po));
    EXPECT_EQ(Domain(), GetAssociatedCSpace(answer.po));
    EXPECT_EQ(answer.po, m_ps->BindObject(oid));
    EXPECT_EQ(answer.po, m_ps->AsyncBind(oid));
    EXPECT_EQ(1, m_lss->NumOpens(oid));
}

TEST_F(AsyncBindTest, AResidentObjectIsBoundAtOnce) {
    const SpaceScope scope(m_ps);
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    m_ps->MakeObjectPersist(leaf, false);
    EXPECT_EQ((MAsyncBind{Bound, leaf}), m_ps->AsyncBind2(GetOid(leaf)));
    EXPECT_EQ(0, m_lss->NumOpens(GetOid(leaf)));
}

TEST_F(AsyncBindTest, ADeletedObjectDoesNotExistThoughItIsResident) {
    const SpaceScope scope(m_ps);
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    m_ps->MakeObjectPersist(leaf, false);
    m_ps->SyncPermanentlyDeleteObject(leaf);
    EXPECT_EQ((MAsyncBind{DoesNotExist, null}), m_ps->AsyncBind2(GetOid(leaf)));
    EXPECT_FALSE(m_ps->AsyncBind(GetOid(leaf)));
    EXPECT_EQ(0, m_lss->NumOpens(GetOid(leaf)));
}

TEST_F(AsyncBindTest, AnObjectDeletedWhileItsLoadIsUnderWayDoesNotExist) {
    const OID oid = StoredLeaf();
    m_lss->HoldOpen(oid);
    EXPECT_EQ(Pending, Ask(oid));
    m_lss->WaitUntilHeld(oid);
    DeleteElement(*m_lss, oid);
    m_lss->Release(oid);
    WaitForUpdates();
    EXPECT_EQ(DoesNotExist, Ask(oid));
}

TEST_F(AsyncBindTest, NothingInTheStoreDoesNotExistAndStaysSoUntilEvicted) {
    const OID oid = MissingOid();
    EXPECT_EQ(Pending, Ask(oid));
    WaitForUpdates();
    EXPECT_EQ((MAsyncBind{DoesNotExist, null}), Bind(oid));
    PutLeaf(oid, 3);
    EXPECT_EQ(DoesNotExist, Ask(oid));
    EXPECT_EQ(1, m_lss->NumOpens(oid));
    EvictNodes();
    EXPECT_EQ(Pending, Ask(oid));
    WaitForUpdates();
    EXPECT_EQ(Bound, Ask(oid));
    EXPECT_EQ(3, NumberOf(oid));
}

TEST_F(AsyncBindTest, AReferenceFollowedWithoutBlockingBindsWhenTheObjectIsThere) {
    const OID oid = StoredLeaf(5);
    const OID dangling = MissingOid();
    cref<TestLeaf> reference, nothing, nowhere;
    reference.SetOid(oid);
    nowhere.SetOid(dangling);
    {
        const SpaceScope scope(m_ps, SharedRead);
        EXPECT_FALSE(reference.AsyncGet());
        EXPECT_FALSE(nothing.AsyncGet());
        EXPECT_FALSE(nowhere.AsyncGet());
        EXPECT_FALSE(reference.GetInMemory());
        EXPECT_FALSE(reference.GetBoundPtr());
    }
    WaitForUpdates();
    const SpaceScope scope(m_ps, SharedRead);
    EXPECT_FALSE(nowhere.AsyncGet());
    TestLeaf* const leaf = reference.AsyncGet();
    ASSERT_TRUE(leaf);
    EXPECT_EQ(5, leaf->m_number);
    EXPECT_EQ(leaf, reference.GetBoundPtr());
    EXPECT_EQ(1, m_lss->NumOpens(oid));
    EXPECT_EQ(1, m_lss->NumOpens(dangling));
}

TEST_F(AsyncBindTest, RefusesANullOidAndAThreadWithoutTheLock) {
    const OID oid = MissingOid();
    ExpectAssertion("oid", "src/PSpace", [&] { m_ps->AsyncBind2(OID()); });
    ExpectAssertion("oid", "src/PSpace", [&] { m_ps->AsyncBind(OID()); });
    ExpectAssertion("oid", "src/ROT", [&] { Table().AsyncBind2(OID()); });
    ExpectAssertion("HasLock()", "src/ROT", [&] { m_ps->AsyncBind2(oid); });
    ExpectAssertion("HasLock()", "src/ROT", [&] { m_ps->AsyncBind(oid); });
    ExpectAssertion("0", "src/ROT", [&] { m_ps->MakeMemoryResident(oid); });
    ExpectAssertion("0", "src/PSpace", [&] { m_ps->DeclareObjectDoesNotExist(oid); });
    EXPECT_EQ(0, Table().NumEntries());
    EXPECT_EQ(0, m_lss->NumOpens(oid));
}

TEST_F(AsyncBindTest, AnObjectOfAnotherDomainDoesNotTakeThePlaceholder) {
    const OID oid = StoredLeaf(1);
    m_lss->HoldOpen(oid);
    EXPECT_EQ(Pending, Ask(oid));
    TestLeaf unregistered(2);
    {
        const SpaceScope scope(m_ps);
        ExpectAssertion("GetAssociatedCSpace(po) == cspace", "src/ROT",
                        [&] { Table().AddResidentObject(oid, &unregistered); });
        EXPECT_FALSE(Table().FindResidentObject(oid));
        EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
    }
    m_lss->Release(oid);
    WaitForUpdates();
    EXPECT_EQ(1, NumberOf(oid));
}

TEST_F(AsyncBindTest, APlaceholderThatWasEvictedDoesNotDisturbItsSuccessor) {
    const OID oid = StoredLeaf(1);
    m_lss->HoldClose(oid);
    EXPECT_EQ(Pending, Ask(oid));
    m_lss->WaitUntilHeld(oid); // the first object has been read ...
    EvictNodes();
    EXPECT_EQ(Pending, Ask(oid));
    m_lss->Release(oid); // ... and nobody wants it
    WaitForUpdates();
    EXPECT_EQ(Bound, Ask(oid));
    EXPECT_EQ(2, m_lss->NumOpens(oid));
    EXPECT_EQ(1, NumLeaves());
}

TEST_F(AsyncBindTest, AnArrivedObjectIsCollectedLikeAnyOtherAndLoadedAgain) {
    const OID oid = StoredLeaf(1);
    EXPECT_EQ(Pending, Ask(oid));
    WaitForUpdates();
    EXPECT_EQ(Bound, Ask(oid));
    Collect(m_ps);
    EXPECT_EQ(0, NumLeaves());
    EXPECT_EQ(Pending, Ask(oid));
    WaitForUpdates();
    EXPECT_EQ(Bound, Ask(oid));
    EXPECT_EQ(2, m_lss->NumOpens(oid));
}

TEST_F(AsyncBindTest, ACollectionEvictsAnAnswerThatNobodyWaitsForOrDependsOn) {
    const OID pending = StoredLeaf();
    const OID missing = MissingOid();
    std::optional<AsyncReader> reader;
    reader.emplace(m_ps, missing);
    EXPECT_EQ(Pending, Ask(missing));
    WaitForUpdates();
    {
        const SpaceScope scope(m_ps);
        EXPECT_EQ(DoesNotExist, reader->Read().result);
    }
    HoldLoadThread();
    EXPECT_EQ(Pending, Ask(pending));
    Collect(m_ps);
    EXPECT_FALSE(reader->IsStale());
    EXPECT_EQ(DoesNotExist, Ask(missing));
    reader.reset();
    Collect(m_ps);
    EXPECT_EQ(Pending, Ask(missing)); // afresh
    ReleaseLoadThread();
    WaitForUpdates();
    EXPECT_EQ(Bound, Ask(pending));
    EXPECT_EQ(1, m_lss->NumOpens(pending));
    EXPECT_EQ(2, m_lss->NumOpens(missing));
}

TEST_F(AsyncBindTest, AReaderHoldsUpTheArrivalUntilItUnlocks) {
    const OID oid = StoredLeaf();
    {
        const SpaceScope scope(m_ps, SharedRead);
        EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
        WaitForLoads();
        EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
        EXPECT_FALSE(Table().FindResidentObject(oid));
    }
    WaitForUpdates();
    EXPECT_EQ(Bound, Ask(oid));
}

TEST_F(AsyncBindTest, AnUpdateOfALockedSpaceDoesNotHoldUpAnotherSpace) {
    PSpace* const other = OpenSpace("other");
    const std::vector<OID> here = StoredLeaves(m_ps, 2);
    const OID there = StoredLeaves(other, 1, 5).front();
    {
        const SpaceScope scope(m_ps);
        for (const OID oid : here) EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
        WaitForLoads();
        AsyncReader reader(other, there);
        {
            const SpaceScope otherScope(other);
            EXPECT_EQ(Pending, reader.Read().result);
        }
        reader.WaitForChange();
        const SpaceScope otherScope(other);
        EXPECT_EQ(Bound, reader.Read().result);
        EXPECT_FALSE(Table().FindResidentObject(here[0]));
    }
    WaitForUpdates();
    for (const OID oid : here) EXPECT_EQ(Bound, Ask(oid));
}

// Binding again after an eviction tries again.
TEST_F(AsyncBindTest, ALoadThatFailsHarmsNobodyElse) {
    const CollectedTrace trace;
    const std::vector<OID> oids = StoredLeaves(m_ps, 3);
    m_lss->FailOpen(oids[0], [] { throw FileException("read error", 5); });
    m_lss->FailBuffer(oids[1], [] { throw CorruptLSSException("wrong checksum"); });
    AsyncReader reader(m_ps, oids[0]);
    {
        const SpaceScope scope(m_ps);
        EXPECT_EQ(Pending, reader.Read().result);
        for (const OID oid : oids) EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
    }
    WaitForUpdates();
    EXPECT_TRUE(reader.IsStale());
    EXPECT_EQ(DoesNotExist, Ask(oids[0]));
    EXPECT_EQ(DoesNotExist, Ask(oids[1]));
    EXPECT_EQ(Bound, Ask(oids[2]));
    m_lss->StopFailing();
    EvictNodes();
    for (const OID oid : oids) Ask(oid);
    WaitForUpdates();
    for (const OID oid : oids) EXPECT_EQ(Bound, Ask(oid));
}

TEST_F(AsyncBindTest, ABinderThatWaitsForALoadThatFailsIsToldWhy) {
    const CollectedTrace trace;
    const OID oid = StoredLeaf(1);
    m_lss->FailOpen(oid, [] { throw FileException("read error", 5); });
    m_lss->HoldOpen(oid);
    const SpaceScope scope(m_ps);
    EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
    std::thread releaser([&] { m_lss->Release(oid); });
    EXPECT_THROW(m_ps->BindObject(oid), FileException);
    releaser.join();
    m_lss->StopFailing();
    EXPECT_TRUE(m_ps->BindObject(oid));
}

TEST_F(AsyncBindTest, TheTableClosesAtOnceWithoutPlaceholdersAndAfterQueuedLoadsOtherwise) {
    Table().Close();
    const std::vector<OID> oids = StoredLeaves(m_ps, 3);
    HoldLoadThread();
    AsyncReader reader(m_ps, oids[0]);
    {
        const SpaceScope scope(m_ps);
        reader.Read();
        for (const OID oid : oids) EXPECT_EQ(Pending, m_ps->AsyncBind2(oid).result);
        EvictAllDgsNodes(Domain());
    }
    std::atomic<bool> released{false};
    std::thread closer([&] {
        Table().Close();
        EXPECT_TRUE(released);
    });
    released = true;
    ReleaseLoadThread();
    closer.join();
    for (const OID oid : oids) EXPECT_EQ(0, m_lss->NumOpens(oid)); // the loads had been called off
}

// ---- Every operation in every state ----------------------------------------------------------------------------------

// How far the placeholder has come.
enum class Stage {
    Queued,           // the load waits for the load thread
    Opening,          // the load thread is about to open the element
    Read,             // the object has been made, and not been handed over
    Delivered,        // the object has been handed over, and not been entered
    QueuedNothing,    // the same for an OID that the store does not hold
    OpeningNothing,   //
    DeliveredNothing, //
    DoesNotExist,     // it is settled that there is no object
    Asked,            // the handler has answered Pending
};

constexpr ConstStringZ STAGE_NAMES[] = {"Queued",           "Opening",       "Read",
                                        "Delivered",        "QueuedNothing", "OpeningNothing",
                                        "DeliveredNothing", "DoesNotExist",  "Asked"};

class AsyncBindInEveryState : public AsyncBindFixture {
protected:
    ~AsyncBindInEveryState() noexcept override {}

    // Runs `test` once for each stage, each time with another OID and from a clean table.
    void ForEveryStage(const std::function<void()>& test) {
        for (int stage = 0; stage <= static_cast<int>(Stage::Asked); ++stage) {
            SCOPED_TRACE(STAGE_NAMES[stage]);
            m_stage = static_cast<Stage>(stage);
            test();
            m_reader.reset();
            EndAllPlaceholders();
            m_ps->WriteDirtyObjectsToLss(false);
            Collect(m_ps);
            EXPECT_EQ(0, Table().NumEntries());
            EXPECT_EQ(0, NumLeaves());
        }
    }

    bool Is(Stage stage) const { return m_stage == stage; }
    bool IsStored() const { return m_stage <= Stage::Delivered; }
    EAsyncBindResult AnswerNow() const { return Is(Stage::DoesNotExist) ? DoesNotExist : Pending; }

    // To be called first without a lock ...
    void Prepare() {
        m_oid = IsStored() ? StoredLeaf(7) : MissingOid();
        m_reader.emplace(m_ps, m_oid);
        if (Is(Stage::Queued) || Is(Stage::QueuedNothing)) HoldLoadThread();
        if (StandsAtOpen()) m_lss->HoldOpen(m_oid);
        if (Is(Stage::Read)) m_lss->HoldClose(m_oid);
        if (Is(Stage::Asked)) {
            SetHandler();
            m_handler->Answer(m_oid, Pending);
        }
        EXPECT_EQ(Pending, Read());
        if (StandsAtOpen() || Is(Stage::Read)) m_lss->WaitUntilHeld(m_oid);
        if (Is(Stage::Asked)) m_handler->WaitForBegins(m_oid, 1);
        if (Is(Stage::DoesNotExist)) {
            m_reader->WaitForChange();
            EXPECT_EQ(DoesNotExist, Read());
        }
        m_numChangesBefore = m_reader->NumChanges();
    }
    // ... then under the exclusive lock.
    void Deliver() {
        if (!Is(Stage::Delivered) && !Is(Stage::DeliveredNothing)) return;
        m_lss->Release(m_oid);
        WaitForLoads();
    }
    EAsyncBindResult Read() {
        const SpaceScope scope(m_ps);
        return m_reader->Read().result;
    }
    void BindSynchronously(ECSpaceLockMode mode) {
        Prepare();
        {
            const SpaceScope scope(m_ps, mode);
            Deliver();
            std::thread releaser([&] { m_lss->ReleaseAll(); });
            const ptr<IPersistable> po = m_ps->TryBindObject(m_oid);
            releaser.join();
            EXPECT_EQ(IsStored(), static_cast<bool>(po));
            EXPECT_EQ(1, m_lss->NumOpens(m_oid));
            EXPECT_EQ(1, Table().NumEntries());
            const MAsyncBind answer = m_ps->AsyncBind2(m_oid);
            EXPECT_EQ(IsStored() ? Bound : Is(Stage::Asked) ? Pending : DoesNotExist, answer.result);
            EXPECT_EQ(po, answer.po);
            if (!IsStored()) {
                EXPECT_THROW(m_ps->BindObject(m_oid), DerefDanglingOidException);
            }
        }
        EXPECT_EQ(Is(Stage::Asked) ? 3 : 0, m_handler->NumBegins(m_oid)); // each binder asks once more
        WaitForUpdates();
        EXPECT_EQ(IsStored() ? 7 : 0, NumberOf(m_oid));
        EXPECT_EQ(IsStored() ? 1 : 0, NumLeaves());
        EndAllPlaceholders();
        EXPECT_EQ(NumEndsExpected(), m_handler->NumEnds(m_oid));
    }
    int NumChanges() const { return m_reader->NumChanges() - m_numChangesBefore; }
    int NumEndsExpected() const { return Is(Stage::Asked) ? 1 : 0; }

    Stage m_stage = Stage::Queued;
    OID m_oid;
    std::optional<AsyncReader> m_reader; // depends on the placeholder
    int m_numChangesBefore = 0;

private:
    bool StandsAtOpen() const {
        return Is(Stage::Opening) || Is(Stage::OpeningNothing) || Is(Stage::Delivered) || Is(Stage::DeliveredNothing);
    }
};

TEST_F(AsyncBindInEveryState, AskingAgainGivesTheSameAnswerAndStartsNothing) {
    ForEveryStage([&] {
        Prepare();
        const SpaceScope scope(m_ps);
        Deliver();
        const int numOpens = m_lss->NumOpens(m_oid);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ((MAsyncBind{AnswerNow(), null}), m_ps->AsyncBind2(m_oid));
            EXPECT_FALSE(m_ps->AsyncBind(m_oid));
        }
        EXPECT_FALSE(Table().FindResidentObject(m_oid));
        EXPECT_FALSE(m_ps->BindObjectIfMemoryResident(m_oid));
        ExpectAssertion("i->second.m_table != nullptr", "src/ROT", [&] { Table().RemoveResidentObject(m_oid); });
        EXPECT_EQ(1, Table().NumEntries());
        EXPECT_EQ(numOpens, m_lss->NumOpens(m_oid));
        EXPECT_EQ(0, NumChanges());
    });
}

TEST_F(AsyncBindInEveryState, LeftAloneItComesToItsEnd) {
    ForEveryStage([&] {
        Prepare();
        {
            const SpaceScope scope(m_ps);
            Deliver();
        }
        m_lss->ReleaseAll();
        WaitForUpdates();
        const bool settledBefore = Is(Stage::DoesNotExist) || Is(Stage::Asked);
        EXPECT_EQ(settledBefore ? 0 : 1, NumChanges());
        EXPECT_EQ(!settledBefore, m_reader->IsStale());
        EXPECT_EQ(IsStored() ? Bound : Is(Stage::Asked) ? Pending : DoesNotExist, Read());
        EXPECT_EQ(IsStored() ? 7 : 0, NumberOf(m_oid));
        EXPECT_EQ(1, m_lss->NumOpens(m_oid));
        EXPECT_EQ(0, m_handler->NumEnds(m_oid));
    });
}

TEST_F(AsyncBindInEveryState, EvictionLeavesAnEntryOnlyForAnObjectThatHadBeenDelivered) {
    ForEveryStage([&] {
        Prepare();
        const bool arrived = Is(Stage::Delivered);
        {
            const SpaceScope scope(m_ps);
            Deliver();
            const ssize_t numObjects = GetNumObjects(Domain());
            EvictAllDgsNodes(Domain());
            EXPECT_TRUE(m_reader->IsStale());
            EXPECT_EQ(1, NumChanges());
            EXPECT_EQ(arrived ? 1 : 0, Table().NumEntries());
            EXPECT_EQ(arrived, static_cast<bool>(Table().FindResidentObject(m_oid)));
            EXPECT_EQ(numObjects + (arrived ? 1 : 0), GetNumObjects(Domain()));
        }
        m_lss->ReleaseAll();
        Table().Close();
        EXPECT_EQ(arrived ? 1 : 0, NumLeaves()); // any other object has been destroyed
        EXPECT_EQ(Is(Stage::Queued) || Is(Stage::QueuedNothing) ? 0 : 1, m_lss->NumOpens(m_oid));
        EXPECT_EQ(0, m_lss->NumOpenElements());
        EXPECT_EQ(NumEndsExpected(), m_handler->NumEnds(m_oid));

        EXPECT_EQ(arrived ? Bound : Pending, Read()); // afresh
        WaitForUpdates();
        EXPECT_EQ(IsStored() ? Bound : Is(Stage::Asked) ? Pending : DoesNotExist, Read());
    });
}

TEST_F(AsyncBindInEveryState, AnObjectMadePersistentUnderTheOidTakesItsPlace) {
    ForEveryStage([&] {
        Prepare();
        {
            const SpaceScope scope(m_ps);
            TestLeaf* const leaf = NewObject<TestLeaf>(9);
            m_reader->m_onChange = [&] { EXPECT_TRUE(Table().Holds(m_oid, leaf)); };
            Deliver();
            EXPECT_TRUE(m_ps->MakeObjectPersistWithGivenOID(leaf, m_oid, false));
            EXPECT_TRUE(m_reader->IsStale());
            EXPECT_EQ(1, NumChanges());
            EXPECT_EQ((MAsyncBind{Bound, leaf}), m_ps->AsyncBind2(m_oid));
            EXPECT_FALSE(m_ps->MakeObjectPersistWithGivenOID(NewObject<TestLeaf>(10), m_oid, false));
            EXPECT_EQ(1, Table().NumEntries());
        }
        m_lss->ReleaseAll();
        Table().Close(); // the placeholder is on its way out
        WaitForUpdates();
        EXPECT_EQ(9, NumberOf(m_oid));
        EXPECT_EQ(NumEndsExpected(), m_handler->NumEnds(m_oid));
        Collect(m_ps);
        EXPECT_EQ(1, NumLeaves()); // the store's own object, if it was read at all, has been destroyed
        EXPECT_EQ(9, NumberOf(m_oid));
    });
}

TEST_F(AsyncBindInEveryState, ASynchronousBinderGetsTheObjectOfTheLoadUnderWay) {
    ForEveryStage([&] { BindSynchronously(Exclusive); });
}

TEST_F(AsyncBindInEveryState, ASynchronousReaderGetsTheObjectOfTheLoadUnderWay) {
    ForEveryStage([&] { BindSynchronously(SharedRead); });
}

TEST_F(AsyncBindInEveryState, ClosingTheSpaceWaitsUntilThePlaceholderIsGone) {
    ForEveryStage([&] {
        Prepare();
        {
            const SpaceScope scope(m_ps);
            Deliver();
        }
        const bool held = Is(Stage::Queued) || Is(Stage::Opening) || Is(Stage::Read) || Is(Stage::QueuedNothing) ||
                          Is(Stage::OpeningNothing);
        std::atomic<bool> released{!held};
        std::thread closer([&] {
            m_store.CloseSpace(m_ps);
            EXPECT_TRUE(released);
        });
        m_reader->WaitForChange(); // the placeholder is evicted, or has just arrived
        released = true;
        m_lss->ReleaseAll();
        closer.join();
        EXPECT_EQ(0, NumLeaves());
        EXPECT_EQ(0, m_lss->NumOpenElements());
        EXPECT_EQ(NumEndsExpected(), m_handler->NumEnds(m_oid));

        m_ps = OpenSpace("s");
        m_handler = std::make_unique<TestHandler>(m_ps);
        const SpaceScope scope(m_ps);
        EXPECT_EQ(IsStored(), static_cast<bool>(m_ps->TryBindObject(m_oid)));
    });
}

TEST_F(AsyncBindInEveryState, TransferMovesAnObjectThatHadBeenDeliveredAndNoPlaceholder) {
    PSpace* const dst = OpenSpace("dst");
    ForEveryStage([&] {
        Prepare();
        const bool arrived = Is(Stage::Delivered);
        {
            const SpaceScope scope(m_ps);
            const SpaceScope dstScope(dst);
            Deliver();
            dst->Transfer(*m_ps);
            EXPECT_TRUE(m_reader->IsStale());
            EXPECT_EQ(0, Table().NumEntries());
            EXPECT_EQ(arrived ? 1 : 0, dst->rot_.NumEntries());
            const ptr<IPersistable> po = dst->rot_.FindResidentObject(m_oid);
            EXPECT_EQ(arrived, static_cast<bool>(po));
            EXPECT_EQ(arrived ? dst->GetCSpace() : nullptr, GetAssociatedCSpace(po));
        }
        m_lss->ReleaseAll();
        Table().Close();
        dst->rot_.Close();
        EXPECT_EQ(arrived ? 1 : 0, NumLeaves());
        EXPECT_EQ(NumEndsExpected(), m_handler->NumEnds(m_oid));
        Collect(dst);
    });
}

} // namespace
} // namespace quna

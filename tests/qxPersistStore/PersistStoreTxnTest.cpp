#include "qxPersistStore/src/PersistStoreTxn.h"

#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PSpace.h"
#include "tests/support/TestStore.h"

#include <csignal>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

// The names of the spaces tied to `ps`, itself first, in the order of their ring.
std::string Ring(PSpace* ps) {
    std::string names = ps->GetName();
    for (PSpace* p = ps->m_nextInTxnGrp; p != ps; p = p->m_nextInTxnGrp) names += std::string(",") + p->GetName();
    return names;
}

class PersistStoreTxnOfTest : public ::testing::Test {
protected:
    PersistStoreTxnOfTest() : m_a(m_store.OpenSpace("a")), m_b(m_store.OpenSpace("b")), m_c(m_store.OpenSpace("c")) {}

    void MakeDirty(PSpace* ps) {
        const ThreadPSpaceScope pair(ps, ps->GetCSpace());
        ps->MakeObjectPersist(NewObject<TestLeaf>(1), false);
    }

    TestStore m_store;
    PSpace* m_a;
    PSpace* m_b;
    PSpace* m_c;
};

TEST_F(PersistStoreTxnOfTest, WithoutMembersIsLegal) {
    PersistStoreTxn* const txn = m_store->OpenTxn(nullptr, 0);
    EXPECT_EQ(m_store.Get(), txn->GetPersistStore());
    txn->Close();
}

TEST_F(PersistStoreTxnOfTest, AWriterTiesItsMembersToTheFirst) {
    const CSpaceLock lockA(m_a->GetCSpace(), Exclusive);
    const CSpaceLock lockB(m_b->GetCSpace(), Exclusive);
    const CSpaceLock lockC(m_c->GetCSpace(), SharedRead);
    PSpaceLockMode members[] = {{m_a, Exclusive}, {m_b, Exclusive}, {m_c, SharedRead}};
    PersistStoreTxn* const txn = m_store->OpenTxn(members, 3);
    EXPECT_EQ("a,c,b", Ring(m_a)); // b, then c right behind a
    txn->Close();
    EXPECT_EQ("a,c,b", Ring(m_a)); // the tie outlives the transaction
    EXPECT_TRUE(HaveExclusiveLock(m_a->GetCSpace()));
}

TEST_F(PersistStoreTxnOfTest, AReaderTiesNothingUntilItOpensASpace) {
    PSpace* opened = nullptr;
    {
        const CSpaceLock lockA(m_a->GetCSpace(), SharedRead);
        const CSpaceLock lockB(m_b->GetCSpace(), SharedRead);
        PSpaceLockMode members[] = {{m_a, SharedRead}, {m_b, SharedRead}};
        PersistStoreTxn* const txn = m_store->OpenTxn(members, 2);
        EXPECT_EQ("a", Ring(m_a));
        opened = txn->OpenPSpace("opened", OM_OPEN_ALWAYS, nullptr); // makes it a writer
        EXPECT_EQ("opened,b,a", Ring(opened));
        EXPECT_TRUE(HaveExclusiveLock(opened->GetCSpace()));
        txn->Close();
        EXPECT_FALSE(HaveLock(opened->GetCSpace()));
        EXPECT_TRUE(HaveLock(m_a->GetCSpace()));
    }
    opened->Close();
}

TEST_F(PersistStoreTxnOfTest, TheModeTransactionPassesTheLockCheckButMakesNoWriter) {
    const CSpaceLock lockA(m_a->GetCSpace(), Transaction);
    const CSpaceLock lockB(m_b->GetCSpace(), Transaction);
    PSpaceLockMode members[] = {{m_a, Transaction}, {m_b, Transaction}};
    m_store->OpenTxn(members, 2)->Close();
    EXPECT_EQ("a", Ring(m_a));
}

TEST_F(PersistStoreTxnOfTest, SpacesOpenedTogetherAreTied) {
    PersistStoreTxn* const txn = m_store->OpenTxn(nullptr, 0);
    PSpace* const x = txn->OpenPSpace("x", OM_OPEN_ALWAYS, nullptr);
    PSpace* const y = txn->OpenPSpace("y", OM_OPEN_ALWAYS, nullptr);
    PSpace* const z = txn->OpenPSpace("z", OM_OPEN_ALWAYS, nullptr);
    EXPECT_EQ("x,z,y", Ring(x));
    for (PSpace* ps : {x, y, z}) EXPECT_TRUE(HaveExclusiveLock(ps->GetCSpace()));
    txn->Close();
    for (PSpace* ps : {x, y, z}) EXPECT_FALSE(HaveLock(ps->GetCSpace()));
    for (PSpace* ps : {x, y, z}) ps->Close();
}

TEST_F(PersistStoreTxnOfTest, ASpaceOpenedByAWriterJoinsItsFirstMember) {
    const CSpaceLock lockA(m_a->GetCSpace(), Exclusive);
    PSpaceLockMode members[] = {{m_a, Exclusive}};
    PersistStoreTxn* const txn = m_store->OpenTxn(members, 1);
    PSpace* const x = txn->OpenPSpace("x", OM_OPEN_ALWAYS, nullptr);
    EXPECT_EQ("a,x", Ring(m_a));
    txn->Close();
    {
        PSpaceLockMode none[] = {{m_a, Exclusive}};
        m_store->OpenTxn(none, 1)->Close();
    }
    Unlock(m_a->GetCSpace());
    x->Close();
    Lock(m_a->GetCSpace(), Exclusive);
}

TEST_F(PersistStoreTxnOfTest, AFailedOpenLeavesTheTransactionUsable) {
    PersistStoreTxn* const txn = m_store->OpenTxn(nullptr, 0);
    EXPECT_THROW(txn->OpenPSpace("none", OM_OPEN_EXISTING, nullptr), OpenPSpaceException);
    ExpectAssertion("name", "src/PersistStoreTxn", [&] { txn->OpenPSpace(nullptr, OM_OPEN_ALWAYS, nullptr); });
    ExpectAssertion("strlen(name) > 0", "src/PersistStoreTxn", [&] { txn->OpenPSpace("", OM_OPEN_ALWAYS, nullptr); });
    PSpace* const x = txn->OpenPSpace("x", OM_OPEN_ALWAYS, nullptr);
    EXPECT_EQ("x", Ring(x));
    txn->Close();
    x->Close();
}

TEST_F(PersistStoreTxnOfTest, ChecksTheLocksThatItsMembersName) {
    const auto expect = [&](const char* text, PSpaceLockMode member) {
        ExpectAssertion(text, "src/PersistStoreTxn", [&] { m_store->OpenTxn(&member, 1); });
    };
    expect("HaveLock(cs)", {m_a, SharedRead});
    expect("HaveExclusiveLock(cs)", {m_a, Exclusive});
    expect("HaveExclusiveLock(cs)", {m_a, Transaction});
    expect("m.space", {nullptr, SharedRead});
    const CSpaceLock lock(m_a->GetCSpace(), SharedRead);
    expect("HaveExclusiveLock(cs)", {m_a, Exclusive});
    expect("0", {m_a, static_cast<ECSpaceLockMode>(3)});
    PSpaceLockMode member = {m_a, SharedRead};
    ExpectAssertion("n >= 0", "src/PersistStoreTxn", [&] { AssertHaveCSpaceLocks(&member, -1); });
    ExpectAssertion("L", "src/PersistStoreTxn", [&] { AssertHaveCSpaceLocks(nullptr, 1); });
    AssertHaveCSpaceLocks(nullptr, 0);
    AssertHaveCSpaceLocks(&member, 1);
}

TEST_F(PersistStoreTxnOfTest, ClosingNeedsTheLocksStill) {
    Lock(m_a->GetCSpace(), Exclusive);
    PSpaceLockMode member = {m_a, Exclusive};
    PersistStoreTxn* const txn = m_store->OpenTxn(&member, 1);
    Unlock(m_a->GetCSpace());
    ExpectAssertion("HaveExclusiveLock(cs)", "src/PersistStoreTxn", [&] { txn->Close(); });
    Lock(m_a->GetCSpace(), Exclusive);
    txn->Close();
    Unlock(m_a->GetCSpace());
}

TEST_F(PersistStoreTxnOfTest, SpansOneStore) {
    TestStore other;
    PSpace* const foreign = other.OpenSpace("foreign");
    const CSpaceLock lockA(m_a->GetCSpace(), Exclusive);
    const CSpaceLock lockF(foreign->GetCSpace(), Exclusive);
    PSpaceLockMode members[] = {{m_a, Exclusive}, {foreign, Exclusive}};
    ExpectAssertion("m.space->GetPersistStore() == ps", "src/PersistStoreTxn", [&] { m_store->OpenTxn(members, 2); });
    EXPECT_EQ("a", Ring(m_a));
}

TEST_F(PersistStoreTxnOfTest, NoSpaceCanBeDestroyedWhateverItsName) {
    PersistStoreTxn* const txn = m_store->OpenTxn(nullptr, 0);
    ExpectAssertion("name", "src/PersistStoreTxn", [&] { txn->DestroyPSpace(nullptr); });
    ExpectAssertion("0", "src/PersistStoreTxn", [&] { txn->DestroyPSpace("a"); });
    ExpectAssertion("0", "src/PersistStoreTxn", [&] { txn->DestroyPSpace("unknown"); });
    ExpectAssertion("dst", "src/PersistStoreTxn", [&] { txn->TransferPSpace(nullptr, m_a); });
    ExpectAssertion("src", "src/PersistStoreTxn", [&] { txn->TransferPSpace(m_a, nullptr); });
    txn->Close();
}

TEST_F(PersistStoreTxnOfTest, ClosingAWriterTiesAgainWhatTheWriterDissolvedMeanwhile) {
    const CSpaceLock lockA(m_a->GetCSpace(), Exclusive);
    const CSpaceLock lockB(m_b->GetCSpace(), Exclusive);
    const CSpaceLock lockC(m_c->GetCSpace(), Exclusive);
    PSpaceLockMode members[] = {{m_a, Exclusive}, {m_b, Exclusive}, {m_c, Exclusive}};
    PersistStoreTxn* const txn = m_store->OpenTxn(members, 3);
    xvector<PSpace*> group{m_a};
    m_store->GetPSpaceTxnGroupMgr().RetrieveGroup(group); // as the background writer does
    EXPECT_EQ("a", Ring(m_a));
    MakeDirty(m_a);
    MakeDirty(m_c);
    txn->Close();
    EXPECT_EQ("a,c", Ring(m_a)); // b has no changes
    EXPECT_EQ("b", Ring(m_b));
}

TEST_F(PersistStoreTxnOfTest, TheFreeFormOpensASpaceUnlockedAndAlone) {
    PSpace* const x = OpenPSpace(m_store.Get(), "x", OM_CREATE_NEW, nullptr);
    EXPECT_FALSE(HaveLock(x->GetCSpace()));
    EXPECT_EQ("x", Ring(x));
    x->Close();
    EXPECT_THROW(OpenPSpace(m_store.Get(), "x", OM_CREATE_NEW, nullptr), OpenPSpaceException);
    ExpectAssertion("ps", "src/PersistStoreTxn",
                    [] { OpenPSpace(static_cast<PersistStore*>(nullptr), "x", OM_OPEN_ALWAYS, nullptr); });
}

TEST_F(PersistStoreTxnOfTest, OnTheThreadsSpaceItLocksAndUnlocks) {
    const ThreadPSpaceScope pair(m_a, m_a->GetCSpace());
    for (const ECSpaceLockMode mode : {SharedRead, Exclusive}) {
        PersistStoreTxn* const txn = OpenPSpaceTxn(mode);
        ASSERT_NE(nullptr, txn);
        EXPECT_EQ(mode == Exclusive, HaveExclusiveLock(m_a->GetCSpace()));
        EXPECT_TRUE(HaveLock(m_a->GetCSpace()));
        ClosePSpaceTxn(txn);
        EXPECT_FALSE(HaveLock(m_a->GetCSpace()));
    }
}

TEST_F(PersistStoreTxnOfTest, OnAPlainDomainItOnlyLocks) {
    const CSpaceCreator plain;
    const ThreadPSpaceScope pair(nullptr, plain);
    EXPECT_EQ(nullptr, OpenPSpaceTxn(Exclusive));
    EXPECT_TRUE(HaveExclusiveLock(plain));
    ClosePSpaceTxn(nullptr);
    EXPECT_FALSE(HaveLock(plain));
}

TEST_F(PersistStoreTxnOfTest, ChecksTheThreadsPairAndReleasesTheLockWhenItDoesNotFit) {
    const auto expect = [](const char* text, auto action) { ExpectAssertion(text, "src/PersistStoreTxn", action); };
    expect("cs", [] { OpenPSpaceTxn(Exclusive); });
    expect("cs", [] { ClosePSpaceTxn(nullptr); });
    const ThreadPSpaceScope pair(nullptr, m_a->GetCSpace());
    expect("!GetPSpaceOfCSpace(cs)", [] { OpenPSpaceTxn(Exclusive); });
    EXPECT_FALSE(HaveLock(m_a->GetCSpace()));
}

TEST_F(PersistStoreTxnOfTest, ASpaceAndADomainThatAreNoPairAreRefused) {
    CSpace* const cs = m_a->GetCSpace();
    const ThreadPSpaceScope pair(m_a, cs);
    const auto expect = [](const char* text, auto action) { ExpectAssertion(text, "src/PersistStoreTxn", action); };
    GetPtrSlotArray(cs)[PTR_SLOT_PSpace] = m_b;
    expect("GetPSpaceOfCSpace(cs) == ps", [] { OpenPSpaceTxn(Exclusive); });
    EXPECT_FALSE(HaveLock(cs));
    GetPtrSlotArray(cs)[PTR_SLOT_PSpace] = m_a;
    PersistStoreTxn* txn = OpenPSpaceTxn(Exclusive);
    GetPtrSlotArray(cs)[PTR_SLOT_PSpace] = m_b;
    expect("GetPSpaceOfCSpace(cs) == ps", [&] { ClosePSpaceTxn(txn); }); // the transaction itself has ended
    GetPtrSlotArray(cs)[PTR_SLOT_PSpace] = m_a;
    Unlock(cs);
    txn = OpenPSpaceTxn(Exclusive);
    SetThreadPSpace(nullptr);
    expect("ps", [&] { ClosePSpaceTxn(txn); });
    SetThreadPSpace(m_a);
    Unlock(cs);
}

TEST_F(PersistStoreTxnOfTest, TheScopedFormClosesAtTheEndOfItsScope) {
    const ThreadPSpaceScope pair(m_a, m_a->GetCSpace());
    {
        const PSpaceTxn txn(Exclusive);
        PersistStoreTxn* const inner = txn;
        EXPECT_EQ(m_store.Get(), inner->GetPersistStore());
        EXPECT_TRUE(HaveExclusiveLockedPSpace());
    }
    EXPECT_FALSE(HaveLock(m_a->GetCSpace()));
}

TEST(PSpaceTxnDeathTest, AnExceptionThroughItsScopeEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "fast"); // the child's files are in a directory of the parent's, which removes it
    RegisterTestObjects();
    const TempDir dir;
    const std::string path = dir.File("store");
    EXPECT_EXIT(
        {
            PersistStore* const store = OpenPersistStore(path.c_str(), OM_CREATE_NEW, TestStore::WithoutWriter());
            PSpace* const ps = OpenPSpace(store, "s", OM_CREATE_NEW, CreateCSpace());
            const ThreadPSpaceScope pair(ps, ps->GetCSpace());
            try {
                const PSpaceTxn txn(Exclusive);
                throw std::runtime_error("passing");
            } catch (const std::runtime_error&) {
            }
        },
        ::testing::KilledBySignal(SIGABRT), "false");
}

TEST_F(PersistStoreTxnOfTest, EachMethodHasItsFreeForm) {
    PersistStoreTxn* const txn = OpenTxn(m_store.Get(), nullptr, 0);
    EXPECT_EQ(m_store.Get(), GetPersistStore(txn));
    PSpace* const x = OpenPSpace(txn, "x", OM_OPEN_ALWAYS, nullptr);
    ExpectAssertion("0", [&] { DestroyPSpace(txn, "x"); });
    ExpectAssertion("dst", [&] { TransferPSpace(txn, nullptr, x); });
    Close(txn);
    Close(x);
}

} // namespace
} // namespace quna

// The hooks of the object system's transactions, and how the hooks are installed.
#include "qxObject/WCSpace.h"
#include "qxPersistStore/src/PersistOperationCallbacks.h"
#include "qxPersistStore/src/PersistStoreTxn.h"
#include "tests/support/TestStore.h"

#include <thread>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "src/PersistOperationCallbacks";

class TransactionHooksContract : public ::testing::Test {
protected:
    TransactionHooksContract() : m_ps(m_store.OpenSpace("s")) {}
    static IOperationCallBacks& Hooks() { return *GetOperationCallBacks(); }
    CSpace* Cs() const { return m_ps->GetCSpace(); }

    TestStore m_store;
    PSpace* m_ps;
};

// ---- Installation -----------------------------------------------------------------------------------------------------

TEST_F(TransactionHooksContract, TheLibraryInstallsItsHooksOnce) {
    IOperationCallBacks* const installed = GetOperationCallBacks();
    ASSERT_NE(nullptr, installed);
    Register_Project_qxPersistStore(); // a further call does nothing
    EXPECT_EQ(installed, GetOperationCallBacks());
    ExpectAssertion("SetOperationCallBacks(&s) == nullptr", PATH, [] { _Register_PersistOperationCallbacks0(); });
    EXPECT_EQ(installed, GetOperationCallBacks()); // the same static instance
}

TEST_F(TransactionHooksContract, AVisitorOfNewTargetsNeedsASpace) {
    ExpectAssertion("pspace", PATH, [] { AllocateOidsReachablePrefVisitor(nullptr, OID(5, 1)); });
}

// ---- Transactions -----------------------------------------------------------------------------------------------------

TEST_F(TransactionHooksContract, ATransactionOfTheDomainIsOneOfTheStore) {
    const ThreadPSpaceScope pair(m_ps, Cs());
    BeginTransaction(Cs());
    EXPECT_TRUE(HaveExclusiveLock(Cs()));
    PersistStoreTxn* const txn = m_ps->txn_;
    ASSERT_NE(nullptr, txn);
    EXPECT_EQ(m_store.Get(), GetPersistStore(txn));
    EXPECT_EQ(m_ps, m_ps->m_nextInTxnGrp); // alone, so nothing is tied
    m_ps->AddRoot("r", NewObject<TestLeaf>(1));
    EndTransaction(Cs());
    EXPECT_EQ(nullptr, m_ps->txn_);
    EXPECT_FALSE(HaveLock(Cs()));
    BeginTransaction(Cs()); // and again
    EXPECT_NE(nullptr, m_ps->txn_);
    EndTransaction(Cs());
    EXPECT_EQ(nullptr, m_ps->txn_);
}

TEST_F(TransactionHooksContract, WhatATransactionOpensBelongsToIt) {
    const ThreadPSpaceScope pair(m_ps, Cs());
    BeginTransaction(Cs());
    PSpace* const opened = OpenPSpace(m_ps->txn_, "t", OM_CREATE_NEW, nullptr);
    EXPECT_TRUE(HaveExclusiveLock(opened->GetCSpace()));
    EXPECT_EQ(opened, m_ps->m_nextInTxnGrp); // a member that was not writing so far is tied now
    EXPECT_EQ(m_ps, opened->m_nextInTxnGrp);
    EndTransaction(Cs());
    EXPECT_FALSE(HaveLock(opened->GetCSpace()));
    opened->Close();
}

TEST_F(TransactionHooksContract, ADomainWithoutASpaceOpensAndClosesNothing) {
    const CSpaceCreator cs;
    const DeclareThreadPtr<CSpace> current(cs.Get());
    {
        // Whatever the thread's space is: nobody asks.
        const DeclareThreadPtr<PSpace> space(m_ps);
        const CSpaceLock lock(cs, Exclusive);
        Hooks().OnBeginTransaction(cs);
        Hooks().OnBeginTransaction(cs);
        Hooks().OnEndTransaction(cs);
        Hooks().OnEndTransaction(cs);
        Hooks().OnEndTransaction(cs);
    }
    BeginTransaction(cs);
    EndTransaction(cs);
    EXPECT_EQ(nullptr, m_ps->txn_);
}

TEST_F(TransactionHooksContract, BeginningAndEndingCheckTheThreadInThisOrder) {
    const auto expect = [](ConstStringZ text, CSpace* cs) {
        ExpectAssertion(text, PATH, [&] { Hooks().OnBeginTransaction(cs); });
        ExpectAssertion(text, PATH, [&] { Hooks().OnEndTransaction(cs); });
    };
    PSpace* const other = m_store.OpenSpace("other");
    expect("cspace", nullptr);
    expect("HaveExclusiveLock(cspace)", Cs());
    {
        const CSpaceLock lock(Cs(), SharedRead);
        expect("HaveExclusiveLock(cspace)", Cs());
    }
    const CSpaceLock lock(Cs(), Exclusive);
    expect("GetThreadPtr<CSpace>() == cspace", Cs());
    const CSpaceCreator plain;
    {
        const CSpaceLock plainLock(plain, Exclusive);
        expect("GetThreadPtr<CSpace>() == cspace", plain); // for a domain without a space too
    }
    const DeclareThreadPtr<CSpace> current(Cs());
    expect("pspace == GetThreadPtr<PSpace>()", Cs());
    {
        const DeclareThreadPtr<PSpace> space(other);
        expect("pspace == GetThreadPtr<PSpace>()", Cs());
    }
    const DeclareThreadPtr<PSpace> space(m_ps);
    ExpectAssertion("pspace->txn_", PATH, [&] { Hooks().OnEndTransaction(Cs()); });
    Hooks().OnBeginTransaction(Cs());
    PersistStoreTxn* const txn = m_ps->txn_;
    ExpectAssertion("!pspace->txn_", PATH, [&] { Hooks().OnBeginTransaction(Cs()); });
    EXPECT_EQ(txn, m_ps->txn_) << "the first one stays open";
    Hooks().OnEndTransaction(Cs());
    ExpectAssertion("pspace->txn_", PATH, [&] { Hooks().OnEndTransaction(Cs()); });
}

TEST_F(TransactionHooksContract, ARefusedBeginningGivesTheLockBack) {
    ExpectAssertion("GetThreadPtr<CSpace>() == cspace", PATH, [&] { BeginTransaction(Cs()); });
    EXPECT_FALSE(HaveLock(Cs()));
    std::thread([&] {
        const CSpaceLock lock(Cs(), Exclusive); // nobody holds it
        EXPECT_TRUE(HaveExclusiveLock(Cs()));
    }).join();
    EXPECT_EQ(nullptr, m_ps->txn_);

    const ThreadPSpaceScope pair(m_ps, Cs());
    BeginTransaction(Cs());
    ExpectAssertion("!pspace->txn_", PATH, [&] { BeginTransaction(Cs()); });
    EXPECT_TRUE(HaveExclusiveLock(Cs())) << "the outer transaction's";
    EndTransaction(Cs());
    EXPECT_FALSE(HaveLock(Cs()));
}

TEST_F(TransactionHooksContract, ARefusedEndLeavesTheTransactionToBeEndedProperly) {
    const ThreadPSpaceScope pair(m_ps, Cs());
    BeginTransaction(Cs());
    {
        const DeclareThreadPtr<PSpace> space(nullptr);
        ExpectAssertion("pspace == GetThreadPtr<PSpace>()", PATH, [&] { EndTransaction(Cs()); });
    }
    EXPECT_FALSE(HaveLock(Cs()));
    ASSERT_NE(nullptr, m_ps->txn_);
    const CSpaceLock lock(Cs(), Exclusive);
    Hooks().OnEndTransaction(Cs());
    EXPECT_EQ(nullptr, m_ps->txn_);
}

} // namespace
} // namespace quna

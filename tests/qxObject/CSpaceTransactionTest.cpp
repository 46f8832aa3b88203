#include "qxObject/CSpace.h"
#include "qxObject/IOperationCallBacks.h"
#include "qxObject/WCSpace.h"
#include "tests/support/ExpectAssertion.h"

#include <stdexcept>
#include <string>

namespace quna {
namespace {

// Notes what happens to a domain's transactions; can be told to throw.
class TransactionHooks : public IOperationCallBacks {
public:
    TransactionHooks() : m_previous(SetOperationCallBacks(this)) {}
    ~TransactionHooks() { SetOperationCallBacks(m_previous); }

    void OnBeginTransaction(CSpace* cs) override { Note("begin", cs); }
    void OnEndTransaction(CSpace* cs) override { Note("end", cs); }
    void OnBeforeAssignValue(const AssignValue_params&) override {}
    void OnAfterAssignValueWithoutPrefs(const AssignValue_params&) override {}
    void OnAfterAssignValueWithPrefs(const AssignValue_params&) override {}
    void OnAssignPref(const AssignPref_params&) override {}
    void OnOffsetValue(const OffsetValue_params&) override {}
    void OnCreateIntoVector(const CreateIntoVector_params&) override {}
    void OnDeleteFromVector(const DeleteFromVector_params&) override {}
    void OnCreateIntoMVector(const CreateIntoMVector_params&) override {}
    void OnDeleteFromMVector(const DeleteFromMVector_params&) override {}
    void OnSetInsert(const AssignValue_params&) override {}
    void OnSetDelete(const AssignValue_params&) override {}
    void OnInsertIntoMSet(const InsertIntoMSet_params&) override {}
    void OnDeleteFromMSet(const DeleteFromMSet_params&) override {}

    std::string m_calls;
    bool m_throw = false;

private:
    void Note(const char* what, CSpace* cs) {
        EXPECT_TRUE(HaveExclusiveLock(cs));
        m_calls += what;
        m_calls += ' ';
        if (m_throw) throw std::runtime_error("hook");
    }

    IOperationCallBacks* m_previous;
};

TEST(CSpaceTransaction, FiresTheHooksInsideTheLock) {
    TransactionHooks hooks;
    CSpaceCreator cs;
    BeginTransaction(cs);
    EXPECT_TRUE(HaveExclusiveLock(cs));
    EndTransaction(cs);
    EXPECT_FALSE(HaveLock(cs));
    EXPECT_EQ(hooks.m_calls, "begin end ");
}

TEST(CSpaceTransaction, TheLockModeAloneFiresNothing) {
    TransactionHooks hooks;
    CSpaceCreator cs;
    { CSpaceLock lock(cs, Transaction); }
    EXPECT_EQ(hooks.m_calls, "");
}

TEST(CSpaceTransaction, AHookThatThrowsLeavesTheLockReleased) {
    TransactionHooks hooks;
    CSpaceCreator cs;
    hooks.m_throw = true;
    EXPECT_THROW(BeginTransaction(cs), std::runtime_error);
    EXPECT_FALSE(HaveLock(cs));
    hooks.m_throw = false;
    BeginTransaction(cs);
    hooks.m_throw = true;
    EXPECT_THROW(EndTransaction(cs), std::runtime_error);
    EXPECT_FALSE(HaveLock(cs));
}

TEST(CSpaceTransaction, EndingWhatIsNotBegunIsAnAssertion) {
    CSpaceCreator cs;
    ExpectAssertion("HaveExclusiveLock(cs)", [&] { EndTransaction(cs); });
    ExpectAssertion("cs", [] { BeginTransaction(nullptr); });
}

} // namespace
} // namespace quna

// What a group write that fails leaves behind, and what a transaction ties although the writer has been there.
#include "qxPersistStore/src/DosWriter.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStoreTxn.h"
#include "qxUtils/Exceptions.h"
#include "tests/support/DeletionFixture.h"
#include "tests/support/TestStore.h"

#include <algorithm>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

namespace quna {
namespace {

// A disk that has no room for a transaction while `full` is set.
class FullDisk final : public ILogStructuredStore {
public:
    explicit FullDisk(ILogStructuredStore* inner) : m_inner(inner) {}

    ILssTransaction* OpenTransaction() override {
        if (full) throw FileException("no room");
        return m_inner->OpenTransaction();
    }
    void Close() override { m_inner->Close(); }
    SeidHigh AllocateSeidHigh() override { return m_inner->AllocateSeidHigh(); }
    Seid AllocateSeid(SeidHigh high) override { return m_inner->AllocateSeid(high); }
    bool AllocateAffiliateSeid(Seid& seid) override { return m_inner->AllocateAffiliateSeid(seid); }
    IContiguousSerialElement* OpenSerialElement(Seid seid) override { return m_inner->OpenSerialElement(seid); }
    void GetStats(LssStats& stats) override { m_inner->GetStats(stats); }
    void Flush() override { m_inner->Flush(); }

    bool full = false;

private:
    ILogStructuredStore* m_inner;
};

OID AddLeaf(PSpace* ps) {
    const SpaceScope scope(ps);
    TestLeaf* const leaf = NewObject<TestLeaf>(1);
    ps->MakeObjectPersist(leaf, false);
    return GetOid(leaf);
}

TEST(GroupWriteFailure, ATransactionThatFoundNoRoomStaysTied) {
    std::unique_ptr<FullDisk> disk;
    TestStore store;
    disk = std::make_unique<FullDisk>(store->m_lss);
    store->m_lss = disk.get();
    PSpace* const a = store.OpenSpace("a");
    PSpace* const b = store.OpenSpace("b");
    AddLeaf(a);
    AddLeaf(b);
    store->GetPSpaceTxnGroupMgr().MergeTwoPSpaceTxnGroups(a, b);
    disk->full = true;
    EXPECT_THROW(a->WriteDirtyObjectsToLss(false), FileException);
    disk->full = false;
    RecordingLss& lss = store.Record();
    store->m_dosWriter.ProcessAllGroups(false);
    EXPECT_EQ(1, lss.Count("open")); // and not one for each
}

// The space's objects are committed and will not be written again.
TEST(GroupWriteFailure, ANewSpaceWhosePartWasCompletedIsNamed) {
    TestStore store;
    PSpace* const a = store.OpenSpace("complete");
    PSpace* const b = store.OpenSpace("failing");
    AddLeaf(a);
    const OID failing = AddLeaf(b);
    store->GetPSpaceTxnGroupMgr().MergeTwoPSpaceTxnGroups(a, b);
    RecordingLss& lss = store.Record();
    lss.m_onWrite = [&](Seid seid) {
        if (seid == failing) throw FileException("on the second space");
    };
    EXPECT_THROW(a->WriteDirtyObjectsToLss(false), FileException);
    lss.m_onWrite = nullptr;
    const Bytes map = store.Element(PSPACEMAP_SEID);
    const Bytes complete = BytesOfString("complete"), incomplete = BytesOfString("failing");
    EXPECT_NE(map.end(), std::search(map.begin(), map.end(), complete.begin(), complete.end()));
    EXPECT_EQ(map.end(), std::search(map.begin(), map.end(), incomplete.begin(), incomplete.end()));
    const SpaceScope scope(b);
    if (const ptr<IPersistable> lost = b->BindObjectIfMemoryResident(failing))
        SetIObjectFlag(lost, PERSISTABLE_DIRTY, false);
}

class GroupWriteThreads : public DeletionFixture {};

// The writer has looked at the group before the transaction had changed anything.
TEST_F(GroupWriteThreads, ARequestForADeletionIsTiedToTheOtherChangesOfItsTransaction) {
    const OID doomed = WrittenTrees(1).front();
    PSpace* const other = Open("other");
    AddLeaf(other);
    other->WriteDirtyObjectsToLss(false);
    PSpaceLockMode members[] = {{m_ps, Exclusive}, {other, Exclusive}};
    {
        const SpaceScope scope(m_ps);
        const CSpaceLock lock(other->GetCSpace(), Exclusive);
        PersistStoreTxn* const txn = m_store->OpenTxn(members, 2);
        std::thread([&] { other->WriteDirtyObjectsToLss(false); }).join();
        EXPECT_EQ(m_ps, m_ps->m_nextInTxnGrp);
        {
            const SpaceScope inOther(other);
            TestLeaf* const leaf = NewObject<TestLeaf>(2);
            other->MakeObjectPersist(leaf, false);
        }
        m_ps->AsyncPermanentlyDeleteSubTree(m_ps->BindObject(doomed));
        txn->Close();
    }
    RecordingLss& lss = m_store.Record();
    other->WriteDirtyObjectsToLss(false);
    EXPECT_EQ(1, lss.Count("open"));
    EXPECT_EQ((Bytes{1, 1} + BytesOfOid(doomed) + Bytes{0}), Image());
}

} // namespace
} // namespace quna

#include "qxPersistStore/src/DosWriter.h"

#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxUtils/Thread.h"
#include "tests/support/TestStore.h"

#include <thread>

#include <gtest/gtest.h>

namespace quna {
namespace {

using Texts = std::vector<std::string>;

class DosWriterOfTest : public ::testing::Test {
protected:
    DosWriter& Writer() { return m_store->m_dosWriter; }
    PSpaceTxnGroupMgr& Groups() { return Writer().m_grpMgr; }

    // A dirty, persistent object.
    OID AddLeaf(PSpace* ps) {
        const SpaceScope scope(ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(1);
        ps->MakeObjectPersist(leaf, false);
        return GetOid(leaf);
    }
    PSpace* OpenWrittenSpace(ConstStringZ name) {
        PSpace* ps = m_store.OpenSpace(name);
        AddLeaf(ps);
        ps->WriteDirtyObjectsToLss(false);
        return ps;
    }
    void SetPeriod(int milliSecs) { Writer().SetSleepTime(milliSecs); }
    static std::string Write(Seid seid) { return "write " + TextOfSeid(seid); }

    TestStore m_store;
};

TEST_F(DosWriterOfTest, StartsIdleWithAPeriodOfASecond) {
    EXPECT_EQ(1000, Writer().GetSleepTime());
    EXPECT_FALSE(Writer().requestShutDown_);
    EXPECT_FALSE(Writer().thread_.joinable());
    EXPECT_TRUE(Writer().m_dirtyPSpaces.empty());
    EXPECT_FALSE(Writer().DeleteSomeObjects());
}

TEST_F(DosWriterOfTest, WithNothingDirtyNoTransactionIsOpened) {
    OpenWrittenSpace("a");
    RecordingLss& lss = m_store.Record();
    Writer().ProcessAllGroups(false);
    EXPECT_TRUE(lss.Log().empty());
}

TEST_F(DosWriterOfTest, AGroupWithNothingDirtyIsDissolvedAllTheSame) {
    PSpace* const a = OpenWrittenSpace("a");
    PSpace* const b = OpenWrittenSpace("b");
    RecordingLss& lss = m_store.Record();
    Groups().MergeTwoPSpaceTxnGroups(a, b);
    Writer().ProcessPSpaceTxnGroup(a, false);
    EXPECT_TRUE(lss.Log().empty());
    EXPECT_EQ(a, a->m_nextInTxnGrp);
    EXPECT_EQ(b, b->m_nextInTxnGrp);
}

TEST_F(DosWriterOfTest, TheFirstWriteOfASpaceGoesOutInItsOrder) {
    PSpace* const ps = m_store.OpenSpace("s");
    const OID first = AddLeaf(ps);
    const OID second = AddLeaf(ps);
    RecordingLss& lss = m_store.Record();
    Writer().ProcessAllGroups(false);
    // The queue's image, the roots, the objects, then the root record (a new class) and the map (a new space).
    EXPECT_EQ((Texts{"open", Write(ps->m_roots.m_dqOid), Write(ps->m_roots.m_oid), Write(first), Write(second),
                     Write(ROOT_PERSISTSTORE_OBJECT_SEID), Write(PSPACEMAP_SEID), "close"}),
              lss.Log());
    EXPECT_TRUE(ps->m_ensureCommitted);
    EXPECT_TRUE(Writer().m_dirtyPSpaces.empty());
    const OID third = AddLeaf(ps);
    lss.ClearLog();
    Writer().ProcessAllGroups(false);
    EXPECT_EQ((Texts{"open", Write(third), "close"}), lss.Log());
}

TEST_F(DosWriterOfTest, AFlushIsRequestedBeforeAnyWrite) {
    PSpace* const ps = OpenWrittenSpace("s");
    const OID oid = AddLeaf(ps);
    RecordingLss& lss = m_store.Record();
    Writer().ProcessAllGroups(true);
    const Texts log = lss.Log();
    ASSERT_GE(log.size(), 4u);
    EXPECT_EQ((Texts{"open", "flush", Write(oid), "close"}), Texts(log.begin(), log.begin() + 4));
    EXPECT_EQ(1, lss.Count("open"));
}

TEST_F(DosWriterOfTest, AFlushWithNothingDirtyOpensNoTransactionButFlushesTheStore) {
    PSpace* const ps = OpenWrittenSpace("s");
    RecordingLss& lss = m_store.Record();
    ps->WriteDirtyObjectsToLss(true);
    EXPECT_EQ(Texts{"flush store"}, lss.Log());
    lss.ClearLog();
    Writer().ProcessAllGroups(true);
    EXPECT_EQ(Texts{"flush store"}, lss.Log());
}

TEST_F(DosWriterOfTest, SpacesOfOneGroupGoIntoOneTransactionInGroupOrder) {
    PSpace* const a = OpenWrittenSpace("a");
    PSpace* const b = OpenWrittenSpace("b");
    PSpace* const c = OpenWrittenSpace("c");
    const OID inB = AddLeaf(b);
    const OID inC = AddLeaf(c);
    const OID inA = AddLeaf(a);
    Groups().MergeTwoPSpaceTxnGroups(a, b);
    Groups().MergeTwoPSpaceTxnGroups(a, c); // the ring is a, c, b
    RecordingLss& lss = m_store.Record();
    Writer().ProcessPSpaceTxnGroup(a, false);
    EXPECT_EQ((Texts{"open", Write(inA), Write(inC), Write(inB), "close"}), lss.Log());
    for (PSpace* ps : {a, b, c}) {
        EXPECT_EQ(ps, ps->m_nextInTxnGrp);
        EXPECT_FALSE(ps->m_inGrp);
    }
}

TEST_F(DosWriterOfTest, SpacesOnTheirOwnGoIntoTransactionsOfTheirOwnInTheOrderInWhichTheyBecameDirty) {
    PSpace* const a = OpenWrittenSpace("a");
    PSpace* const b = OpenWrittenSpace("b");
    const OID inB = AddLeaf(b);
    const OID inA = AddLeaf(a);
    RecordingLss& lss = m_store.Record();
    Writer().ProcessAllGroups(false);
    EXPECT_EQ((Texts{"open", Write(inB), "close", "open", Write(inA), "close"}), lss.Log());
}

TEST_F(DosWriterOfTest, AMemberWrittenWithAnEarlierGroupIsNotWrittenAgain) {
    PSpace* const a = OpenWrittenSpace("a");
    PSpace* const b = OpenWrittenSpace("b");
    AddLeaf(a);
    AddLeaf(b);
    Groups().MergeTwoPSpaceTxnGroups(a, b);
    RecordingLss& lss = m_store.Record();
    Writer().ProcessAllGroups(false);
    EXPECT_EQ(1, lss.Count("open"));
}

TEST_F(DosWriterOfTest, ACleanMemberFailsBeforeAnythingIsWrittenAndTheGroupStaysTied) {
    PSpace* const a = OpenWrittenSpace("a");
    PSpace* const clean = OpenWrittenSpace("clean");
    PSpace* const c = OpenWrittenSpace("c");
    AddLeaf(a);
    AddLeaf(c);
    RecordingLss& lss = m_store.Record();
    Groups().MergeTwoPSpaceTxnGroups(a, clean);
    Groups().MergeTwoPSpaceTxnGroups(a, c);
    ExpectAssertion("m_dirty", "src/DOS", [&] { a->WriteDirtyObjectsToLss(false); });
    EXPECT_TRUE(lss.Log().empty());
    EXPECT_TRUE(a->HaveChangesToWriteToLss());
    EXPECT_TRUE(c->HaveChangesToWriteToLss());
    for (PSpace* ps : {a, clean, c}) EXPECT_FALSE(HaveLock(ps->GetCSpace()));
    // The dirty members are tied again: the next call writes them together.
    a->WriteDirtyObjectsToLss(false);
    EXPECT_EQ(1, lss.Count("open"));
    EXPECT_FALSE(a->HaveChangesToWriteToLss());
    EXPECT_FALSE(c->HaveChangesToWriteToLss());
}

TEST_F(DosWriterOfTest, WritingAllFailsOnACleanMemberToo) {
    PSpace* const a = OpenWrittenSpace("a");
    PSpace* const clean = OpenWrittenSpace("clean");
    AddLeaf(a);
    Groups().MergeTwoPSpaceTxnGroups(a, clean);
    ExpectAssertion("m_dirty", "src/DOS", [&] { Writer().ProcessAllGroups(false); });
    Writer().ProcessAllGroups(false);
    EXPECT_FALSE(a->HaveChangesToWriteToLss());
}

TEST_F(DosWriterOfTest, TheThreadWritesAGroupWithACleanMember) {
    PSpace* const a = OpenWrittenSpace("a");
    PSpace* const clean = OpenWrittenSpace("clean");
    RecordingLss& lss = m_store.Record();
    AddLeaf(a);
    Groups().MergeTwoPSpaceTxnGroups(a, clean);
    SetPeriod(600000);
    m_store->StartObjectDeletion();
    Writer().SignalWriteDirtyObjectSet();
    lss.WaitFor("close", 1);
    EXPECT_EQ(1, lss.Count("open"));
}

TEST_F(DosWriterOfTest, ASignalEndsThePeriod) {
    PSpace* const a = OpenWrittenSpace("a");
    RecordingLss& lss = m_store.Record();
    SetPeriod(600000);
    m_store->StartObjectDeletion();
    for (int i = 1; i <= 3; ++i) {
        AddLeaf(a);
        Writer().SignalWriteDirtyObjectSet();
        lss.WaitFor("close", i);
    }
}

TEST_F(DosWriterOfTest, ItsThreadBearsItsName) {
    PSpace* const a = OpenWrittenSpace("a");
    RecordingLss& lss = m_store.Record();
    std::string name;
    lss.m_onWrite = [&](Seid) { name = GetThreadName(); };
    AddLeaf(a);
    SetPeriod(0);
    m_store->StartObjectDeletion();
    lss.WaitFor("close", 1);
    EXPECT_EQ("Dirty Object Set Writer", name);
}

TEST_F(DosWriterOfTest, APeriodOfZeroWritesWithoutWaiting) {
    PSpace* const a = OpenWrittenSpace("a");
    RecordingLss& lss = m_store.Record();
    SetPeriod(0);
    m_store->StartObjectDeletion();
    for (int i = 1; i <= 3; ++i) {
        AddLeaf(a);
        lss.WaitFor("close", i);
    }
}

TEST_F(DosWriterOfTest, AStoppedWriterMakesNoLastPassAndStartsAgain) {
    PSpace* const a = OpenWrittenSpace("a");
    RecordingLss& lss = m_store.Record();
    SetPeriod(600000);
    Writer().Start();
    AddLeaf(a);
    Writer().Stop();
    EXPECT_TRUE(Writer().requestShutDown_);
    EXPECT_TRUE(a->HaveChangesToWriteToLss());
    Writer().Start(); // the signal that stopped it does not cut the first period short
    EXPECT_FALSE(Writer().requestShutDown_);
    Writer().Stop();
    EXPECT_TRUE(lss.Log().empty());
}

TEST_F(DosWriterOfTest, ChecksItsArguments) {
    const auto expect = [](const char* text, auto action) { ExpectAssertion(text, "src/DosWriter", action); };
    expect("first", [&] { Writer().ProcessPSpaceTxnGroup(nullptr, false); });
    expect("pspace", [&] { Writer().OnOpenPSpace(nullptr); });
    expect("pspace", [&] { Writer().OnClosePSpace(nullptr); });
}

TEST_F(DosWriterOfTest, ClosingASpaceWithoutDeletionsLeavesTheListOfDeletionsAlone) {
    PSpace* const a = OpenWrittenSpace("a");
    AddLeaf(a);
    Writer().OnClosePSpace(a);
    EXPECT_FALSE(a->HaveChangesToWriteToLss());
    EXPECT_FALSE(Writer().DeleteSomeObjects());
}

TEST_F(DosWriterOfTest, AWriteThatFailsCommitsWhatWasCompletedAndGivesTheLocksBack) {
    PSpace* const a = OpenWrittenSpace("a");
    const OID first = AddLeaf(a);
    const OID second = AddLeaf(a);
    RecordingLss& lss = m_store.Record();
    lss.m_onWrite = [&](Seid seid) {
        if (seid == second) throw std::runtime_error("on the second");
    };
    const ThreadPSpaceScope pair(nullptr, nullptr);
    EXPECT_THROW(a->WriteDirtyObjectsToLss(false), std::runtime_error);
    EXPECT_FALSE(HaveLock(a->GetCSpace()));
    EXPECT_EQ(nullptr, GetThreadPSpace());
    EXPECT_EQ(nullptr, GetThreadCSpace());
    EXPECT_TRUE(m_store.Has(first));
    EXPECT_FALSE(m_store.Has(second));
    EXPECT_TRUE(a->HaveChangesToWriteToLss());
    lss.m_onWrite = nullptr;
    const SpaceScope scope(a);
    if (const ptr<IPersistable> lost = a->BindObjectIfMemoryResident(second))
        SetIObjectFlag(lost, PERSISTABLE_DIRTY, false);
}

TEST_F(DosWriterOfTest, ANewClassReachesTheDiskWithItsObjectsEvenWhenTheWriteFails) {
    PSpace* const a = OpenWrittenSpace("a");
    OID nodeOid;
    TestThrower* thrower = nullptr;
    {
        const SpaceScope scope(a);
        TestNode* const node = NewObject<TestNode>("n");
        a->MakeObjectPersist(node, false);
        nodeOid = GetOid(node);
        thrower = NewObject<TestThrower>();
        AddGcRoot(ptr<IPersistable>(thrower));
        a->MakeObjectPersist(thrower, false);
    }
    CollectedTrace trace;
    TestThrower::s_throwInSerialise = true;
    EXPECT_THROW(a->WriteDirtyObjectsToLss(true), std::runtime_error);
    TestThrower::s_throwInSerialise = false;
    // As after a crash: the committed node names a class that the root record knows.
    const std::string path = m_store.Dir().File("copy");
    std::filesystem::copy_file(m_store.Path(), path);
    {
        const BareLss lss(path);
        const Bytes record = ElementOf(*lss, nodeOid);
        const Bytes root = ElementOf(*lss, ROOT_PERSISTSTORE_OBJECT_SEID);
        const Bytes name = BytesOfString("test::Node");
        EXPECT_NE(root.end(), std::search(root.begin(), root.end(), name.begin(), name.end()));
        EXPECT_FALSE(record.empty());
    }
    SetIObjectFlag(ptr<IPersistable>(thrower), PERSISTABLE_DIRTY, false);
}

using DosWriterThreads = DosWriterOfTest;

TEST_F(DosWriterThreads, ASpaceThatJoinsWhileTheLocksAreAwaitedIsWrittenInTheSameTransaction) {
    PSpace* const a = OpenWrittenSpace("a");
    PSpace* const b = OpenWrittenSpace("b");
    const OID inA = AddLeaf(a);
    const OID inB = AddLeaf(b);
    RecordingLss& lss = m_store.Record();
    std::thread writer;
    {
        const CSpaceLock lockA(a->GetCSpace(), Exclusive);
        const CSpaceLock lockB(b->GetCSpace(), Exclusive);
        writer = std::thread([&] { Writer().ProcessPSpaceTxnGroup(a, false); });
        while (Writer().mutex_.try_lock()) { // until the writer is inside
            Writer().mutex_.unlock();
            std::this_thread::yield();
        }
        Groups().MergeTwoPSpaceTxnGroups(a, b);
    }
    writer.join();
    EXPECT_EQ((Texts{"open", Write(inA), Write(inB), "close"}), lss.Log());
    EXPECT_EQ(a, a->m_nextInTxnGrp);
}

} // namespace
} // namespace quna

// Deletions in the background: beside readers and writers, across restarts, and after a kill in the middle.
#include "tests/support/DeletionFixture.h"
#include "tests/support/Sanitized.h"

#include <csignal>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quna {
namespace {

// The root record and the map of spaces; the roots and the queue of the one space.
constexpr int64 NUM_FIXED_RECORDS = NUM_PERSISTSTORE_SERIAL_ELEMENTS + NUM_PSPACE_SERIAL_ELEMENTS;

int64 NumLiveElements(PersistStore& store) {
    LssStats stats;
    store.GetLss()->GetStats(stats);
    return stats.numLiveHeadPackets;
}

// A complete tree with `n` objects, `fanOut` children each, made and made persistent under the root "keeper", which
// does not refer to it. Requires the exclusive lock.
OID AddTree(PSpace* ps, int n, int fanOut, bool (*isSubTree)(int)) {
    std::vector<TestBranch*> branches;
    for (int i = 0; i < n; ++i) {
        branches.push_back(NewObject<TestBranch>(isSubTree(i), std::vector<TestBranch*>()));
        if (i > 0) branches[static_cast<std::size_t>((i - 1) / fanOut)]->AddChild(branches.back());
    }
    ps->MakeObjectPersist(branches[0], true);
    return GetOid(branches[0]);
}

bool Always(int) { return true; }
bool EveryThird(int i) { return i % 3 == 0; }

class DeletionRestart : public ::testing::Test {
protected:
    DeletionRestart() { RegisterDeletionTestObjects(); }

    PersistStore* Open(EOpenMode mode, bool startWriter = false) {
        PersistStoreSettings settings;
        settings.startObjectDeletion = startWriter;
        return OpenPersistStore(Path().c_str(), mode, settings);
    }
    std::string Path() const { return m_dir.File("store"); }

    // Makes a store with a keeper and a durable request for a tree; both stay open in this process.
    PersistStore* MakePending(int n, int fanOut, PSpace*& ps) {
        PersistStore* const store = Open(OM_CREATE_NEW);
        ps = OpenPSpace(store, "s", OM_OPEN_ALWAYS, nullptr);
        {
            const SpaceScope scope(ps);
            ps->AddRoot("keeper", NewObject<TestBranch>());
            const OID oid = AddTree(ps, n, fanOut, &EveryThird);
            ps->AsyncPermanentlyDeleteSubTree(ps->BindObject(oid));
        }
        ps->WriteDirtyObjectsToLss(false);
        return store;
    }

    // Runs `action` in a child, which it ends by SIGKILL.
    void RunToItsKill(const std::function<void()>& action) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            try {
                action();
            } catch (const std::exception& e) {
                std::fprintf(stderr, "in the child: %s\n", e.what());
            }
            _exit(1);
        }
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFSIGNALED(status));
        ASSERT_EQ(SIGKILL, WTERMSIG(status));
    }

    Bytes FileContent() const {
        std::ifstream file(Path(), std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }

    TempDir m_dir;
};

void KillThisProcess() {
    kill(getpid(), SIGKILL);
    for (;;) pause();
}

TEST_F(DeletionRestart, DeletionsGoOnWhenTheSpaceIsOpenedAgain) {
    {
        PSpace* ps = nullptr;
        PersistStore* const store = MakePending(300, 4, ps);
        EXPECT_TRUE(store->m_dosWriter.DeleteSomeObjects());
        ps->Close();
        EXPECT_FALSE(store->m_dosWriter.DeleteSomeObjects());
        store->Close();
    }
    PersistStore* const store = Open(OM_OPEN_EXISTING);
    EXPECT_FALSE(store->m_dosWriter.DeleteSomeObjects());
    PSpace* const ps = OpenPSpace(store, "s", OM_OPEN_EXISTING, nullptr);
    EXPECT_EQ(ps, store->m_dosWriter.m_nedqList.Front());
    while (store->m_dosWriter.DeleteSomeObjects()) {
    }
    EXPECT_EQ(NUM_FIXED_RECORDS + 1, NumLiveElements(*store)); // and the keeper
    ps->Close();
    store->Close();
}

TEST_F(DeletionRestart, RequestsThatWereNotWrittenSurviveAnOrderlyClose) {
    {
        PersistStore* const store = Open(OM_CREATE_NEW);
        PSpace* const ps = OpenPSpace(store, "s", OM_OPEN_ALWAYS, nullptr);
        OID oid;
        {
            const SpaceScope scope(ps);
            oid = AddTree(ps, 20, 3, &Always);
        }
        ps->WriteDirtyObjectsToLss(false);
        {
            const SpaceScope scope(ps);
            ps->AsyncPermanentlyDeleteSubTree(ps->BindObject(oid));
        }
        ps->Close();
        store->Close();
    }
    PersistStore* const store = Open(OM_OPEN_EXISTING);
    PSpace* const ps = OpenPSpace(store, "s", OM_OPEN_EXISTING, nullptr);
    while (store->m_dosWriter.DeleteSomeObjects()) {
    }
    EXPECT_EQ(NUM_FIXED_RECORDS, NumLiveElements(*store));
    ps->Close();
    store->Close();
}

TEST_F(DeletionRestart, AKillBetweenBatchesResumes) {
    constexpr int NUM_OBJECTS = 120;
    for (const int numBatches : {0, 1, 2, 5}) {
        int64 left = 0;
        int pipeEnds[2];
        ASSERT_EQ(0, pipe(pipeEnds));
        RunToItsKill([&] {
            PSpace* ps = nullptr;
            PersistStore* const store = MakePending(NUM_OBJECTS, 4, ps);
            for (int i = 0; i < numBatches; ++i) store->m_dosWriter.DeleteSomeObjects();
            store->m_lss->Flush();
            const int64 live = NumLiveElements(*store);
            if (write(pipeEnds[1], &live, sizeof live) == sizeof live) KillThisProcess();
        });
        ASSERT_EQ(static_cast<::ssize_t>(sizeof left), read(pipeEnds[0], &left, sizeof left));
        close(pipeEnds[0]);
        close(pipeEnds[1]);
        PersistStore* const store = Open(OM_OPEN_EXISTING);
        EXPECT_EQ(left, NumLiveElements(*store));
        PSpace* const ps = OpenPSpace(store, "s", OM_OPEN_EXISTING, nullptr);
        while (store->m_dosWriter.DeleteSomeObjects()) {
        }
        EXPECT_EQ(NUM_FIXED_RECORDS + 1, NumLiveElements(*store));
        ps->Close();
        store->Close();
        std::filesystem::remove(Path());
    }
}

TEST_F(DeletionRestart, AKillInsideABatchLeavesTheBatchUndone) {
    constexpr int NUM_OBJECTS = 120;
    for (const int numBatches : {0, 3}) {
        RunToItsKill([&] {
            PSpace* ps = nullptr;
            PersistStore* const store = MakePending(NUM_OBJECTS, 4, ps);
            for (int i = 0; i < numBatches; ++i) store->m_dosWriter.DeleteSomeObjects();
            store->m_lss->Flush();
            RecordingLss lss(store->m_lss);
            store->m_lss = &lss;
            lss.m_onWrite = [](Seid) { KillThisProcess(); }; // the deletions are done, the image is not
            store->m_dosWriter.DeleteSomeObjects();
        });
        PersistStore* const store = Open(OM_OPEN_EXISTING);
        PSpace* const ps = OpenPSpace(store, "s", OM_OPEN_EXISTING, nullptr);
        EXPECT_TRUE(ps->m_dq.HaveObjectsToDelete());
        for (const OID oid : ps->m_dq.m_queue) EXPECT_TRUE(HasElement(*store->m_lss, oid));
        if (numBatches == 0) {
            EXPECT_EQ(NUM_FIXED_RECORDS + 1 + NUM_OBJECTS, NumLiveElements(*store));
        }
        while (store->m_dosWriter.DeleteSomeObjects()) {
        }
        EXPECT_EQ(NUM_FIXED_RECORDS + 1, NumLiveElements(*store));
        ps->Close();
        store->Close();
        std::filesystem::remove(Path());
    }
}

TEST_F(DeletionRestart, AReaderOfTheFileWorksThePendingDeletionsOffInMemoryOnly) {
    {
        PSpace* ps = nullptr;
        PersistStore* const store = MakePending(50, 4, ps);
        ps->Close();
        store->Close();
    }
    const Bytes before = FileContent();
    PersistStore* const store = Open(OM_OPEN_EXISTING_READ_ONLY);
    PSpace* const ps = OpenPSpace(store, "s", OM_OPEN_EXISTING, nullptr);
    EXPECT_TRUE(ps->m_dq.HaveObjectsToDelete());
    while (store->m_dosWriter.DeleteSomeObjects()) {
    }
    {
        const SpaceScope scope(ps, SharedRead);
        EXPECT_TRUE(ps->GetRoot("keeper"));
    }
    ps->Close();
    store->Close();
    EXPECT_EQ(before, FileContent());
}

// ---- Beside others ----

using DeletionThreads = DeletionFixture;

TEST_F(DeletionThreads, ABatchWaitsForTheReadersOfItsSpace) {
    const std::vector<OID> oids = WrittenTrees(1);
    Request(oids[0]);
    Accumulate();
    std::thread batch;
    {
        const SpaceScope scope(m_ps, SharedRead);
        batch = std::thread([&] { Batch(); });
        while (Writer().mutex_.try_lock()) { // until the batch is inside
            Writer().mutex_.unlock();
            std::this_thread::yield();
        }
        EXPECT_TRUE(m_ps->BindObject(oids[0]));
        EXPECT_TRUE(m_store.Has(oids[0]));
    }
    batch.join();
    EXPECT_FALSE(m_store.Has(oids[0]));
}

TEST_F(DeletionThreads, TheWriterDeletesABigSubTreeInSmallBatchesWhileOthersUseTheSpace) {
    const int numObjects = UNDER_SANITIZER ? 10'000 : 100'000;
    constexpr int NUM_KEPT = 100;
    OID treeOid;
    {
        const SpaceScope scope(m_ps);
        std::vector<TestBranch*> kept;
        for (int i = 0; i < NUM_KEPT; ++i) kept.push_back(NewBranch(true));
        m_ps->AddRoot("keeper", NewBranch(true, kept));
        treeOid = AddTree(m_ps, numObjects, 10, &Always);
    }
    WriteSpace();
    RecordingLss& lss = m_store.Record();
    Request(treeOid);
    Writer().SetSleepTime(20);
    m_store->StartObjectDeletion();
    {
        const SpaceScope scope(m_ps);
        m_ps->m_dos.MarkAsDirty(); // the request goes out with the next write
    }
    int32 numRounds = 0;
    for (bool pending = true; pending;) {
        {
            const SpaceScope scope(m_ps, SharedRead);
            const auto* keeper = static_cast<const TestBranch*>(m_ps->GetRoot("keeper").m_self);
            int32 sum = 0;
            for (const cref<TestBranch>& child : keeper->m_children) sum += child.Get()->m_number;
            EXPECT_EQ(numRounds * NUM_KEPT, sum);
        }
        const SpaceScope scope(m_ps);
        const auto* keeper = static_cast<const TestBranch*>(m_ps->GetRoot("keeper").m_self);
        ++numRounds;
        for (const cref<TestBranch>& child : keeper->m_children) {
            child.Get()->m_number = numRounds;
            child.Get()->MarkAsDirtyWithoutTrace();
        }
        pending = m_ps->m_dq.HaveObjectsToDelete() || m_ps->m_dq.HaveRequests();
    }
    m_store->m_dosWriter.Stop();
    m_store->m_startedDosWriter = false;
    int numDeleted = 0;
    int inTransaction = 0;
    for (const std::string& text : lss.Log()) {
        if (text == "open") inTransaction = 0;
        if (!text.starts_with("delete ")) continue;
        ++numDeleted;
        EXPECT_LE(++inTransaction, 10);
    }
    EXPECT_EQ(numObjects, numDeleted);
    EXPECT_EQ(NUM_FIXED_RECORDS + 1 + NUM_KEPT, NumLiveElements(*m_store.Get()));
}

TEST_F(DeletionThreads, OpeningASpaceWithDeletionsWakesTheWriter) {
    const std::vector<OID> oids = WrittenTrees(30);
    for (const OID oid : oids) Request(oid);
    Accumulate();
    m_store.Close();
    PersistStoreSettings settings;
    m_store.Open(settings);
    m_store->SetDosPeriod(600'000);
    m_ps = Open();
    for (bool pending = true; pending;) {
        const SpaceScope scope(m_ps, SharedRead);
        pending = m_ps->m_dq.HaveObjectsToDelete();
    }
    for (const OID oid : oids) EXPECT_FALSE(m_store.Has(oid));
}

TEST_F(DeletionThreads, ASpaceClosesInTheMiddleOfItsDeletions) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        oid = AddTree(m_ps, 5000, 10, &Always);
    }
    WriteSpace();
    Request(oid);
    Accumulate();
    Writer().SetSleepTime(600'000);
    m_store->StartObjectDeletion();
    m_store.CloseSpace(m_ps); // has its turn between two batches
    m_ps = Open();
    for (bool pending = true; pending;) {
        const SpaceScope scope(m_ps, SharedRead);
        pending = m_ps->m_dq.HaveObjectsToDelete();
    }
    EXPECT_EQ(NUM_FIXED_RECORDS, NumLiveElements(*m_store.Get()));
}

} // namespace
} // namespace quna

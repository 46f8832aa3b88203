// The way of objects through the end of a process and back.
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStoreTxn.h"
#include "tests/support/Sanitized.h"
#include "tests/support/TestStore.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quna {
namespace {

// A million objects where the compiler optimises; fewer where each costs ten times as much.
constexpr int CHAIN_LENGTH = UNDER_SANITIZER ? 20000 : OPTIMISED ? 1000000 : 100000;

// Reads what TestLeaf wrote, under another name.
class TestRenamedLeaf : public PersistableMixin<IObjectBaseMixin<TestRenamedLeaf, EmptyBase>> {
public:
    void Serialise(Archive& ar) const {
        SerialiseSchema(ar, 1);
        ar << m_number << m_text;
    }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        return DeserialiseSchema(ar, 1, schema) >> m_number >> m_text;
    }
    int32 m_number = 0;
    xstring m_text;
};
QX_REFLECT_PERSISTENT_CLASS(TestRenamedLeaf, "test::RenamedLeaf")

void RunOnSmallStack(const std::function<void()>& action) {
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, 256 << 10));
    pthread_t thread;
    const auto run = [](void* arg) -> void* {
        (*static_cast<const std::function<void()>*>(arg))();
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&action)));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    pthread_attr_destroy(&attributes);
}

// Starts `action` in a process of its own, which ends by _exit, closing nothing.
pid_t StartChild(const std::function<void()>& action) {
    const pid_t child = fork();
    EXPECT_GE(child, 0);
    if (child != 0) return child;
    try {
        action();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "in the child: %s\n", e.what());
        _exit(1);
    }
    _exit(::testing::Test::HasFailure() ? 2 : 0);
}

// Runs `action` in a child to its end.
void RunInChild(const std::function<void()>& action) {
    const pid_t child = StartChild(action);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(0, WEXITSTATUS(status));
}

class SurvivesRestart : public ::testing::Test {
protected:
    SurvivesRestart() { RegisterTestObjects(); }
    std::string Path() const { return m_dir.File("store"); }
    PersistStore* Open(EOpenMode mode, const PersistStoreSettings& settings = TestStore::WithoutWriter()) {
        return OpenPersistStore(Path().c_str(), mode, settings);
    }

    TempDir m_dir;
};

TEST_F(SurvivesRestart, AGraphWithCyclesComesBackObjectByObject) {
    TestStore store;
    PSpace* ps = store.OpenSpace("s");
    {
        const SpaceScope scope(ps);
        // A ring of ten, each also with a child that points back into the ring through its own reference.
        std::vector<TestNode*> ring;
        for (int i = 0; i < 10; ++i) ring.push_back(NewObject<TestNode>(std::to_string(i).c_str()));
        for (std::size_t i = 0; i < 10; ++i) {
            ring[i]->m_next = ring[(i + 1) % 10];
            TestNode* const child = NewObject<TestNode>("child");
            child->m_next = ring[(i + 5) % 10];
            ring[i]->m_children.push_back(pref<IPersistable>(ptr<IPersistable>(child)));
        }
        ps->AddRoot("ring", ring[0]);
    }
    store.Close();
    ASSERT_EQ(0, TestNode::s_numLive);

    store.Open();
    ps = store.OpenSpace("s", OM_OPEN_EXISTING);
    const SpaceScope scope(ps, SharedRead);
    const auto* first = static_cast<const TestNode*>(ps->GetRoot("ring").m_self);
    EXPECT_EQ(1, TestNode::s_numLive);
    std::vector<const TestNode*> ring;
    for (const TestNode* node = first; ring.empty() || node != first; node = node->m_next.Get()) ring.push_back(node);
    ASSERT_EQ(10u, ring.size());
    EXPECT_EQ(10, TestNode::s_numLive); // the children are still on disk
    for (std::size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(std::to_string(i), ring[i]->m_name.str());
        const auto* child = static_cast<const TestNode*>(ring[i]->m_children[0].Get().m_self);
        EXPECT_EQ(ring[(i + 5) % 10], child->m_next.Get());
    }
    EXPECT_EQ(20, TestNode::s_numLive);
}

TEST_F(SurvivesRestart, ALongChainIsAttachedCollectedAndClosedOnASmallStack) {
    RunOnSmallStack([this] {
        PersistStore* store = Open(OM_CREATE_NEW);
        PSpace* ps = OpenPSpace(store, "s", OM_CREATE_NEW, nullptr);
        {
            const SpaceScope scope(ps);
            TestNode* const head = NewObject<TestNode>("head");
            TestNode* last = head;
            for (int i = 1; i < CHAIN_LENGTH; ++i) {
                TestNode* const node = NewObject<TestNode>();
                last->m_next = node;
                last = node;
            }
            AddGcRoot(ptr<IPersistable>(head));
            SynchronousGc(ps->GetCSpace()); // marks along the whole chain
            EXPECT_EQ(CHAIN_LENGTH, TestNode::s_numLive);
            RemoveGcRoot(ptr<IPersistable>(head));
            EXPECT_TRUE(ps->AddRoot("head", head));
            EXPECT_TRUE(GetOid(last));
            EXPECT_EQ(CHAIN_LENGTH, ps->m_dos.NumDirtyObjects());
        }
        ps->Close();
        EXPECT_EQ(0, TestNode::s_numLive);
        store->Close();
    });
    PersistStore* store = Open(OM_OPEN_EXISTING);
    PSpace* ps = OpenPSpace(store, "s", OM_OPEN_EXISTING, nullptr);
    {
        const SpaceScope scope(ps, SharedRead);
        int length = 0;
        for (const auto* node = static_cast<const TestNode*>(ps->GetRoot("head").m_self); node;
             node = node->m_next.Get())
            ++length;
        EXPECT_EQ(CHAIN_LENGTH, length);
    }
    ps->Close();
    store->Close();
}

TEST_F(SurvivesRestart, WhatTheWriterWroteIsThereAfterAProcessThatClosedNothing) {
    RunInChild([this] {
        PersistStore* const store = Open(OM_CREATE_NEW);
        PSpace* const ps = OpenPSpace(store, "s", OM_CREATE_NEW, nullptr);
        {
            const SpaceScope scope(ps);
            ps->AddRoot("written", NewObject<TestLeaf>(1, "one"));
        }
        ps->WriteDirtyObjectsToLss(false);
        const SpaceScope scope(ps);
        ps->AddRoot("not written", NewObject<TestLeaf>(2, "two"));
        static_cast<TestLeaf*>(ps->GetRoot("written").m_self)->m_number = 99;
    });
    PersistStore* const store = Open(OM_OPEN_EXISTING);
    PSpace* const ps = OpenPSpace(store, "s", OM_OPEN_EXISTING, nullptr);
    {
        const SpaceScope scope(ps, SharedRead);
        const auto* leaf = static_cast<const TestLeaf*>(ps->GetRoot("written").m_self);
        EXPECT_EQ(1, leaf->m_number);
        EXPECT_STREQ("one", leaf->m_text.c_str());
        EXPECT_FALSE(ps->GetRoot("not written"));
    }
    ps->Close();
    store->Close();
}

TEST_F(SurvivesRestart, IdentifiersOfAProcessThatClosedNothingAreNotGivenOutAgain) {
    int pipeEnds[2];
    ASSERT_EQ(0, pipe(pipeEnds));
    RunInChild([&] {
        PersistStore* const store = Open(OM_CREATE_NEW);
        PSpace* const ps = OpenPSpace(store, "s", OM_CREATE_NEW, nullptr);
        const SpaceScope scope(ps);
        for (int i = 0; i < 100; ++i) {
            const OID oid = ps->AllocateOid(1, true);
            EXPECT_EQ(8, write(pipeEnds[1], &oid.value_, 8));
        }
    });
    close(pipeEnds[1]);
    OID last;
    uint64 value = 0;
    while (read(pipeEnds[0], &value, 8) == 8)
        last = std::max(last, OID(Seid(value)), [](OID x, OID y) { return x < y; });
    close(pipeEnds[0]);
    ASSERT_TRUE(last);
    PersistStore* const store = Open(OM_OPEN_EXISTING);
    EXPECT_LT(last, store->AllocateOid(1));
    store->Close();
}

TEST_F(SurvivesRestart, AKilledProcessLeavesTheSpacesOfAGroupAtOneMoment) {
    int pipeEnds[2];
    ASSERT_EQ(0, pipe(pipeEnds));
    const pid_t child = StartChild([&] {
        PersistStore* const store = Open(OM_CREATE_NEW, PersistStoreSettings());
        store->SetDosPeriod(1);
        PSpace* spaces[] = {OpenPSpace(store, "a", OM_CREATE_NEW, nullptr),
                            OpenPSpace(store, "b", OM_CREATE_NEW, nullptr)};
        CSpace* domains[] = {spaces[0]->GetCSpace(), spaces[1]->GetCSpace()};
        int64 told = 0;
        for (int32 i = 0;; ++i) {
            // One byte for each group that the writer has closed: by then both spaces are in the file.
            LssStats stats;
            store->GetLss()->GetStats(stats);
            if (i > 0 && stats.numTransactions > 1 && stats.numTransactions != told) {
                told = stats.numTransactions;
                if (write(pipeEnds[1], "x", 1) != 1) _exit(1);
            }
            const MultipleCSpaceLock locks(domains, 2, Exclusive);
            PSpaceLockMode members[] = {{spaces[0], Exclusive}, {spaces[1], Exclusive}};
            PersistStoreTxn* const txn = store->OpenTxn(members, 2);
            for (PSpace* ps : spaces) {
                const ThreadPSpaceScope pair(ps, ps->GetCSpace());
                if (i == 0) {
                    ps->AddRoot("count", NewObject<TestLeaf>(0));
                } else {
                    auto* const leaf = static_cast<TestLeaf*>(ps->GetRoot("count").m_self);
                    leaf->m_number = i;
                    leaf->MarkAsDirtyWithoutTrace();
                }
            }
            txn->Close();
        }
    });
    close(pipeEnds[1]);
    char byte = 0;
    for (int i = 0; i < 20; ++i) ASSERT_EQ(1, read(pipeEnds[0], &byte, 1));
    ASSERT_EQ(0, kill(child, SIGKILL));
    ASSERT_EQ(child, waitpid(child, nullptr, 0));
    close(pipeEnds[0]);
    PersistStore* const store = Open(OM_OPEN_EXISTING);
    int32 numbers[2] = {-1, -2};
    for (int i = 0; i < 2; ++i) {
        PSpace* const ps = OpenPSpace(store, i == 0 ? "a" : "b", OM_OPEN_EXISTING, nullptr);
        {
            const SpaceScope scope(ps, SharedRead);
            numbers[i] = static_cast<const TestLeaf*>(ps->GetRoot("count").m_self)->m_number;
        }
        ps->Close();
    }
    EXPECT_EQ(numbers[0], numbers[1]);
    store->Close();
}

TEST_F(SurvivesRestart, AClassThatWasRenamedIsReadUnderItsNewName) {
    static std::once_flag once;
    std::call_once(once, [] {
        static constexpr dsTarget TARGET = {"Quna/Tests/Renamed", nullptr, 0, nullptr, 0};
        _Register_TestRenamedLeaf(RegisterTarget(TARGET));
    });
    TestStore store;
    {
        PSpace* const ps = store.OpenSpace("s");
        const SpaceScope scope(ps);
        ps->AddRoot("leaf", NewObject<TestLeaf>(17, "text"));
    }
    const ClassNameTranslation entries[] = {{"test::Leaf", "test::RenamedLeaf"}};
    const ClassNameTranslationTable table = {entries, 1};
    PersistStoreSettings settings = TestStore::WithoutWriter();
    settings.translationTable = &table;
    store.Reopen(settings);
    for (int round = 0; round < 2; ++round) { // the second time without the table
        {
            PSpace* const ps = store.OpenSpace("s");
            const SpaceScope scope(ps);
            const ptr<IPersistable> root = ps->GetRoot("leaf");
            ASSERT_EQ(&GetReflectedClass<TestRenamedLeaf>(), root->GetReflectedClass());
            EXPECT_EQ(17, static_cast<const TestRenamedLeaf*>(root.m_self)->m_number);
        }
        store.Reopen();
    }
}

TEST_F(SurvivesRestart, AHundredSpacesComeBack) {
    constexpr int NUM_SPACES = 100;
    TestStore store;
    for (int i = 0; i < NUM_SPACES; ++i) {
        PSpace* const ps = store.OpenSpace(("space " + std::to_string(i)).c_str());
        {
            const SpaceScope scope(ps);
            ps->AddRoot("leaf", NewObject<TestLeaf>(i));
        }
        store.CloseSpace(ps);
    }
    store.Reopen();
    EXPECT_EQ(NUM_SPACES, store->GetNumPSpaces());
    for (int i = 0; i < NUM_SPACES; ++i) {
        PSpace* const ps = store.OpenSpace(("space " + std::to_string(i)).c_str(), OM_OPEN_EXISTING);
        {
            const SpaceScope scope(ps, SharedRead);
            EXPECT_EQ(i, static_cast<const TestLeaf*>(ps->GetRoot("leaf").m_self)->m_number);
        }
        store.CloseSpace(ps);
    }
}

} // namespace
} // namespace quna

// Copies of a store of objects, made while it is open.
#include "tests/support/TestStore.h"

namespace quna {
namespace {

// The names along the chain under the root "head" of a store file.
std::vector<std::string> ChainIn(const std::string& path) {
    RegisterTestObjects();
    PersistStore* const store = OpenPersistStore(path.c_str(), OM_OPEN_EXISTING, TestStore::WithoutWriter());
    PSpace* const space = OpenPSpace(store, "s", OM_OPEN_EXISTING, nullptr);
    std::vector<std::string> names;
    {
        const SpaceScope scope(space, SharedRead);
        const ptr<IPersistable> head = space->GetRoot("head");
        for (const auto* node = static_cast<const TestNode*>(head.m_self); node; node = node->m_next.Get())
            names.push_back(node->m_name.c_str());
    }
    space->Close();
    store->Close();
    return names;
}

TEST(StoreBackup, HoldsWhatWasWrittenBeforeAndNothingOfWhatIsOnlyInMemory) {
    TestStore store;
    store->SetDosPeriod(1 << 30); // before the start: the signal would make a thread that runs write once more
    store->StartObjectDeletion();
    PSpace* const space = store.OpenSpace("s");
    TestNode* head = nullptr;
    {
        const SpaceScope scope(space);
        head = NewObject<TestNode>("head");
        space->AddRoot("head", head);
    }
    WriteAllDirtyObjectsToLss(store.Get(), false);
    {
        const SpaceScope scope(space);
        TestNode* const next = NewObject<TestNode>("next");
        head->MarkAsDirtyWithoutTrace();
        head->m_next = next;
        DeclareReachable(head, next, true);
    }
    const std::string early = store.Dir().File("early");
    const std::string late = store.Dir().File("late");
    const std::string small = store.Dir().File("small");
    EXPECT_TRUE(Backup(store.Get(), early.c_str(), BackupOptions()).completed);
    WriteAllDirtyObjectsToLss(store.Get(), false);
    EXPECT_TRUE(Backup(store.Get(), late.c_str(), BackupOptions()).completed);
    EXPECT_TRUE(CopyCompacted(store.Get(), small.c_str(), BackupOptions()).completed);
    EXPECT_EQ(ChainIn(early), std::vector<std::string>{"head"});
    EXPECT_EQ(ChainIn(late), (std::vector<std::string>{"head", "next"}));
    EXPECT_EQ(ChainIn(small), (std::vector<std::string>{"head", "next"}));
}

} // namespace
} // namespace quna

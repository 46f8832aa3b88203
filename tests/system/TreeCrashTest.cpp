// A process that changes a tree in groups is killed again and again at moments that nothing arranges. Whenever the store is
// opened afterwards the tree is sound, its payloads add up to the number of a group that was committed, none that was
// acknowledged is lost, and every object in the file is reached from a root or waits in the deletion queue.
#include "tests/support/Sanitized.h"
#include "tests/support/TestStore.h"
#include "tests/support/TestTree.h"

#include <csignal>
#include <cstdio>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quna {
namespace {

constexpr uint64 ACCOUNT = 0;                               // the key whose payload keeps the sum right
constexpr uint64 NUM_KEYS = UNDER_SANITIZER ? 3000 : 12000; // three levels without a sanitizer
constexpr int NUM_KILLS = UNDER_SANITIZER ? 4 : 12;
constexpr int CHANGES_PER_GROUP = 150;

using Payload = int64;

struct Opened {
    explicit Opened(const std::string& path, bool writer) {
        RegisterTestObjects();
        PersistStoreSettings settings;
        settings.startObjectDeletion = writer;
        m_store = OpenPersistStore(path.c_str(), OM_OPEN_ALWAYS, settings);
        m_store->SetDosPeriod(1);
        m_ps = m_store->OpenPSpace("s", OM_OPEN_ALWAYS, CreateCSpace());
        const SpaceScope scope(m_ps);
        if (!m_ps->GetRoot("tree")) {
            m_ps->AddRoot("tree", NewObject<BPlusTree>(StoredInfo<uint64, Payload>()));
            m_ps->AddRoot("count", NewObject<TestLeaf>(0));
        }
    }
    void Close() {
        m_ps->Close();
        m_store->Close();
    }
    BPlusTree& Tree() const { return *static_cast<BPlusTree*>(m_ps->GetRoot("tree").m_self); }
    TestLeaf& Count() const { return *static_cast<TestLeaf*>(m_ps->GetRoot("count").m_self); }

    PersistStore* m_store = nullptr;
    PSpace* m_ps = nullptr;
};

Payload SumOf(BPlusTree& tree) {
    Payload sum = 0;
    for (const LeafNode* leaf : LeavesOf(tree))
        for (ssize_t i = 0; i < leaf->m_numKeyEntrys; ++i) sum += PayloadAt<Payload>(*leaf, i);
    return sum;
}

// ---- The process that is killed ---------------------------------------------------------------------------------------------------

// One group: random insertions and deletions, then the account is set so that the payloads add up to the new count.
void ChangeTree(const Opened& opened, std::mt19937_64& random, Payload& sum) {
    const SpaceScope scope(opened.m_ps);
    BPlusTree& tree = opened.Tree();
    TestLeaf& count = opened.Count();
    // Long runs of one kind, so that the tree grows and shrinks by levels.
    const bool growing = count.m_number / 100 % 2 == 0;
    for (int i = 0; i < CHANGES_PER_GROUP; ++i) {
        const uint64 key = 1 + random() % NUM_KEYS;
        const std::optional<Payload> old = Get<Payload>(tree, key);
        if (random() % 10 < (growing ? 9u : 1u)) {
            const auto payload = static_cast<Payload>(random() % 1000);
            Put(tree, key, payload, true);
            sum += payload - old.value_or(0);
        } else if (Remove(tree, key)) {
            sum -= *old;
        }
    }
    ++count.m_number;
    count.MarkAsDirtyWithoutTrace();
    const Payload account = Get<Payload>(tree, ACCOUNT).value_or(0) + count.m_number - sum;
    sum = count.m_number;
    Put(tree, ACCOUNT, account, true);
}

[[noreturn]] void Work(const std::string& path, uint64 seed, int pipe) {
    try {
        const Opened opened(path, true);
        std::mt19937_64 random(seed);
        Payload sum = 0;
        {
            const SpaceScope scope(opened.m_ps, SharedRead);
            sum = SumOf(opened.Tree());
        }
        for (int n = 0;; ++n) {
            ChangeTree(opened, random, sum);
            if (n % 4 != 0) continue;
            // Some groups are written here, the others by the writer in its own time.
            const int32 number = static_cast<int32>(sum);
            opened.m_store->WriteAllDirtyObjectsToLss(n % 16 == 0);
            if (::write(pipe, &number, sizeof number) != static_cast<ssize_t>(sizeof number)) break;
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "in the child: %s\n", e.what());
    }
    std::_Exit(4);
}

// ---- Afterwards ---------------------------------------------------------------------------------------------------------------------

class ReachedObjects final : public IPrefVisitor {
public:
    explicit ReachedObjects(PSpace* ps) : m_ps(ps) {}
    void Add(OID oid) {
        if (!oid || !m_reached.insert(oid).second) return;
        const ptr<IPersistable> object = m_ps->TryBindObject(oid);
        EXPECT_TRUE(object) << "a reference dangles: " << TextOfSeid(oid);
        if (object) m_pending.push_back(object);
        while (!m_pending.empty() && !m_walking) {
            m_walking = true;
            const ptr<IPersistable> next = m_pending.back();
            m_pending.pop_back();
            next->VisitPrefs(*this);
            m_walking = false;
        }
    }
    void VisitPref(const prefbase& pref) override { Add(pref.GetOid()); }
    void VisitParentPref(const prefbase&) override {}
    ssize_t Size() const { return std::ssize(m_reached); }

private:
    struct Less {
        bool operator()(OID x, OID y) const { return x.value_ < y.value_; }
    };
    PSpace* m_ps;
    std::set<OID, Less> m_reached;
    std::vector<ptr<IPersistable>> m_pending;
    bool m_walking = false;
};

void WaitUntilNothingIsQueued(const Opened& opened) {
    for (bool queued = true; queued; std::this_thread::yield()) {
        opened.m_store->WriteAllDirtyObjectsToLss(false);
        const SpaceScope scope(opened.m_ps);
        const DeletionQueue& queue = opened.m_ps->GetDQ();
        queued = queue.HaveObjectsToDelete() || queue.HaveRequests();
    }
}

void CheckNothingIsOrphaned(const Opened& opened) {
    const ssize_t live = opened.m_store->GetNumPersistableObjects();
    const SpaceScope scope(opened.m_ps);
    ReachedObjects reached(opened.m_ps);
    reached.Add(GetOid(ptr<const IPersistable>(&opened.Tree())));
    reached.Add(GetOid(ptr<const IPersistable>(&opened.Count())));
    const ssize_t fromRoots = reached.Size();
    EXPECT_EQ(opened.Tree().GetNumNodes() + 2, fromRoots);
    const DeletionQueue& queue = opened.m_ps->GetDQ();
    EXPECT_FALSE(queue.HaveObjectsToDelete());
    EXPECT_EQ(live, reached.Size());
}

// The number of the last group that is in the store.
int32 CheckStore(const std::string& path) {
    Opened opened(path, true);
    int32 number = 0;
    {
        const SpaceScope scope(opened.m_ps);
        number = opened.Count().m_number;
        ExpectSound(opened.Tree());
        EXPECT_EQ(number, SumOf(opened.Tree()));
    }
    WaitUntilNothingIsQueued(opened);
    CheckNothingIsOrphaned(opened);
    opened.Close();
    return number;
}

// Kills the child a random while after it has acknowledged `acknowledgements` groups; the last acknowledged number.
int32 RunAndKill(const std::string& path, uint64 seed, int32 acknowledged) {
    int pipe[2];
    EXPECT_EQ(0, ::pipe(pipe));
    const pid_t child = ::fork();
    EXPECT_GE(child, 0);
    if (child == 0) {
        ::close(pipe[0]);
        Work(path, seed, pipe[1]);
    }
    ::close(pipe[1]);
    const uint64 wanted = 1 + seed % 40;
    int32 number = 0;
    for (uint64 n = 0; n < wanted; ++n) {
        if (::read(pipe[0], &number, sizeof number) != static_cast<ssize_t>(sizeof number)) break;
        acknowledged = number;
    }
    // The moment is what the test is about; whatever it hits is right.
    ::usleep(static_cast<useconds_t>(seed / 64 % 8000));
    ::kill(child, SIGKILL);
    while (::read(pipe[0], &number, sizeof number) == static_cast<ssize_t>(sizeof number)) acknowledged = number;
    ::close(pipe[0]);
    int status = 0;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status)) << "the child ended by itself";
    return acknowledged;
}

TEST(TreeCrash, AfterEveryKillTheTreeIsThatOfACommittedGroupAndNothingIsOrphaned) {
    const TempDir dir;
    const std::string path = dir.File("store");
    std::mt19937_64 random(20);
    int32 acknowledged = 0;
    for (int kill = 0; kill < NUM_KILLS; ++kill) {
        acknowledged = RunAndKill(path, random(), acknowledged);
        const int32 found = CheckStore(path);
        EXPECT_GE(found, acknowledged) << "an acknowledged group is lost";
        acknowledged = found;
        ASSERT_FALSE(::testing::Test::HasFailure()) << "after kill " << kill;
    }
    EXPECT_GT(acknowledged, NUM_KILLS);
}

} // namespace
} // namespace quna

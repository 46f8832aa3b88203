// Several spaces of one store under load from many threads at once: these tests are for the race detector as much as
// for their own checks.
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStoreTxn.h"
#include "tests/support/Sanitized.h"
#include "tests/support/TestStore.h"

#include <atomic>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr int SLOWNESS = UNDER_SANITIZER ? 2 : 1;

TestNode& RootOf(PSpace* ps) { return *static_cast<TestNode*>(ps->GetRoot("root").m_self); }

TestLeaf& AccountOf(PSpace* ps) { return *static_cast<TestLeaf*>(ps->GetRoot("account").m_self); }

// Some spaces, locked together and in one transaction, for a scope.
class GroupScope {
public:
    GroupScope(PersistStore* store, const std::vector<PSpace*>& spaces) {
        for (PSpace* ps : spaces) {
            m_domains.push_back(ps->GetCSpace());
            m_members.push_back({ps, Exclusive});
        }
        LockMultipleCSpaces(m_domains.data(), static_cast<ssize_t>(m_domains.size()), Exclusive);
        m_txn = store->OpenTxn(m_members.data(), static_cast<ssize_t>(m_members.size()));
    }
    GroupScope(const GroupScope&) = delete;
    GroupScope& operator=(const GroupScope&) = delete;
    ~GroupScope() noexcept(false) {
        m_txn->Close();
        UnlockMultipleCSpaces(m_domains.data(), static_cast<ssize_t>(m_domains.size()));
    }

private:
    std::vector<CSpace*> m_domains;
    std::vector<PSpaceLockMode> m_members;
    PersistStoreTxn* m_txn = nullptr;
};

class StoreThreads : public ::testing::Test {
protected:
    void OpenSpaces(int n) {
        for (int i = 0; i < n; ++i) {
            m_spaces.push_back(m_store.OpenSpace(("space" + std::to_string(i)).c_str()));
            PSpace* const ps = m_spaces.back();
            SetMilliSecsPerGc(ps->GetCSpace(), 5);
            SetEvictionBudget(ps->GetCSpace(), 1000);
            const SpaceScope scope(ps);
            if (ps->CreatedNew()) {
                ps->AddRoot("root", NewObject<TestNode>("root"));
                ps->AddRoot("account", NewObject<TestLeaf>(1000));
            }
        }
    }
    void StartWriter() {
        m_store->SetDosPeriod(1);
        m_store->StartObjectDeletion();
    }
    // Runs the actions on a thread each, and waits for all.
    static void RunTogether(const std::vector<std::function<void()>>& actions) {
        std::vector<std::thread> threads;
        for (const auto& action : actions) threads.emplace_back(action);
        for (std::thread& thread : threads) thread.join();
    }

    // Hangs a new chain of nodes and a leaf under the root.
    static void Grow(PSpace* ps, std::mt19937& random) {
        const ThreadPSpaceScope pair(ps, ps->GetCSpace());
        TestNode& root = RootOf(ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(static_cast<int32>(random() % 1000), "some text");
        TestNode* const node = NewObject<TestNode>("node", std::initializer_list<ptr<IPersistable>>{leaf});
        node->m_next = root.m_next.Get();
        root.m_next = node;
        ps->DeclareReachable(&root, node, true);
        root.MarkAsDirtyWithoutTrace();
        AccountOf(ps).MarkAsDirtyWithoutTrace();
    }

    TestStore m_store;
    std::vector<PSpace*> m_spaces;
};

TEST_F(StoreThreads, TheSumOverTwoSpacesOfAGroupIsConserved) {
    OpenSpaces(2);
    StartWriter();
    const auto transfer = [&](unsigned seed) {
        std::mt19937 random(seed);
        for (int i = 0; i < 2000 / SLOWNESS; ++i) {
            const GroupScope group(m_store.Get(), m_spaces);
            const int32 amount = static_cast<int32>(random() % 21) - 10;
            const int32 change[] = {amount, -amount};
            for (std::size_t s = 0; s < 2; ++s) {
                const ThreadPSpaceScope pair(m_spaces[s], m_spaces[s]->GetCSpace());
                TestLeaf& account = AccountOf(m_spaces[s]);
                account.m_number += change[s];
                account.MarkAsDirtyWithoutTrace();
            }
        }
    };
    std::atomic<bool> stop{false};
    std::thread checker([&] {
        while (!stop) {
            CSpace* domains[] = {m_spaces[0]->GetCSpace(), m_spaces[1]->GetCSpace()};
            const MultipleCSpaceLock locks(domains, 2, SharedRead);
            int32 sum = 0;
            for (PSpace* ps : m_spaces) {
                const ThreadPSpaceScope pair(ps, ps->GetCSpace());
                sum += AccountOf(ps).m_number;
            }
            ASSERT_EQ(2000, sum);
        }
    });
    RunTogether({[&] { transfer(1); }, [&] { transfer(2); },
                 [&] {
                     for (int i = 0; i < 50 / SLOWNESS; ++i) m_store->WriteAllDirtyObjectsToLss(i % 4 == 0);
                 }});
    stop = true;
    checker.join();
    m_spaces.clear();
    m_store.Reopen();
    OpenSpaces(2);
    int32 sum = 0;
    for (PSpace* ps : m_spaces) {
        const SpaceScope scope(ps, SharedRead);
        sum += AccountOf(ps).m_number;
    }
    EXPECT_EQ(2000, sum);
}

TEST_F(StoreThreads, SpacesGrowAreReadCollectedWrittenOpenedAndClosedAtOnce) {
    constexpr int NUM_SPACES = 6;
    OpenSpaces(NUM_SPACES);
    StartWriter();
    std::atomic<int> numGrown{0};
    const auto grow = [&](unsigned seed) {
        std::mt19937 random(seed);
        for (int i = 0; i < 400 / SLOWNESS; ++i) {
            std::vector<PSpace*> members;
            const std::size_t first = random() % NUM_SPACES;
            for (std::size_t k = 0; k < 1 + random() % 3; ++k) members.push_back(m_spaces[(first + k) % NUM_SPACES]);
            const GroupScope group(m_store.Get(), members);
            for (PSpace* ps : members) {
                Grow(ps, random);
                ++numGrown;
            }
        }
    };
    const auto read = [&](unsigned seed) {
        std::mt19937 random(seed);
        for (int i = 0; i < 300 / SLOWNESS; ++i) {
            PSpace* const ps = m_spaces[random() % NUM_SPACES];
            const SpaceScope scope(ps, SharedRead);
            int length = 0;
            for (const TestNode* node = RootOf(ps).m_next.Get(); node && length < 50; node = node->m_next.Get()) {
                ASSERT_EQ(1, node->m_children.size());
                ASSERT_TRUE(node->m_children[0].Get());
                ++length;
            }
        }
    };
    const auto collect = [&] {
        for (int i = 0; i < 200 / SLOWNESS; ++i)
            SynchronousGc(m_spaces[static_cast<std::size_t>(i % NUM_SPACES)]->GetCSpace());
    };
    const auto openAndClose = [&](const std::string& prefix) {
        for (int i = 0; i < 60 / SLOWNESS; ++i) {
            PSpace* const ps =
                OpenPSpace(m_store.Get(), (prefix + std::to_string(i % 10)).c_str(), OM_OPEN_ALWAYS, nullptr);
            {
                const SpaceScope scope(ps);
                if (!ps->GetRoot("root")) ps->AddRoot("root", NewObject<TestNode>("visitor"));
                RootOf(ps).MarkAsDirtyWithoutTrace();
            }
            ps->Close();
        }
    };
    const auto write = [&] {
        for (int i = 0; i < 60 / SLOWNESS; ++i) {
            if (i % 3 == 0)
                m_store->WriteAllDirtyObjectsToLss(i % 2 == 0);
            else
                m_spaces[static_cast<std::size_t>(i % NUM_SPACES)]->WriteDirtyObjectsToLss(i % 2 == 0);
        }
    };
    RunTogether({[&] { grow(1); }, [&] { grow(2); }, [&] { read(3); }, [&] { read(4); }, collect,
                 [&] { openAndClose("x"); }, [&] { openAndClose("y"); }, write});
    m_spaces.clear();
    m_store.Reopen();
    OpenSpaces(NUM_SPACES);
    int numFound = 0;
    for (PSpace* ps : m_spaces) {
        const SpaceScope scope(ps, SharedRead);
        for (const TestNode* node = RootOf(ps).m_next.Get(); node; node = node->m_next.Get()) {
            ASSERT_TRUE(node->m_children[0].Get());
            ++numFound;
        }
    }
    EXPECT_EQ(numGrown, numFound);
}

TEST_F(StoreThreads, ReadersBindTheSameGraphConcurrently) {
    OpenSpaces(1);
    PSpace* const ps = m_spaces[0];
    {
        const SpaceScope scope(ps);
        std::mt19937 random(1);
        for (int i = 0; i < 500 / SLOWNESS; ++i) Grow(ps, random);
    }
    ps->WriteDirtyObjectsToLss(false);
    for (int round = 0; round < 4; ++round) {
        SynchronousGc(ps->GetCSpace()); // everything clean is let go
        std::atomic<int> total{0};
        const auto walk = [&] {
            const SpaceScope scope(ps, SharedRead);
            int n = 0;
            for (const TestNode* node = RootOf(ps).m_next.Get(); node; node = node->m_next.Get()) {
                EXPECT_TRUE(node->m_children[0].Get());
                ++n;
            }
            total += n;
        };
        RunTogether({walk, walk, walk, walk});
        EXPECT_EQ(4 * (500 / SLOWNESS), total);
    }
}

TEST_F(StoreThreads, TheWriterAndAThreadThatLocksSpacesInItsOwnOrderNeverHang) {
    OpenSpaces(4);
    StartWriter();
    const auto lockInOrder = [&](const std::vector<std::size_t>& order) {
        for (int i = 0; i < 300 / SLOWNESS; ++i) {
            std::vector<PSpace*> members;
            for (const std::size_t s : order) members.push_back(m_spaces[s]);
            const GroupScope group(m_store.Get(), members);
            for (PSpace* ps : members) {
                const ThreadPSpaceScope pair(ps, ps->GetCSpace());
                AccountOf(ps).MarkAsDirtyWithoutTrace();
            }
        }
    };
    const auto lockOne = [&](std::size_t s) {
        for (int i = 0; i < 600 / SLOWNESS; ++i) {
            const SpaceScope scope(m_spaces[s]);
            AccountOf(m_spaces[s]).MarkAsDirtyWithoutTrace();
        }
    };
    RunTogether({[&] {
                     lockInOrder({0, 1, 2, 3});
                 },
                 [&] {
                     lockInOrder({3, 2, 1, 0});
                 },
                 [&] {
                     lockInOrder({2, 0});
                 },
                 [&] { lockOne(1); }, [&] { lockOne(3); }});
}

} // namespace
} // namespace quna

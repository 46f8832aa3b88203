// One tree read by several threads under shared locks, while nodes are loaded, collected and changed in between: these
// tests are for the race detector as much as for their own checks.
#include "tests/support/Sanitized.h"
#include "tests/support/TestTree.h"
#include "tests/support/TestTreeStore.h"

#include <atomic>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr int SLOWNESS = UNDER_SANITIZER ? 8 : 1;

class BPlusTreeThreads : public PersistentTreeTest {
protected:
    static void RunTogether(const std::vector<std::function<void()>>& actions) {
        std::vector<std::thread> threads;
        for (const auto& action : actions) threads.emplace_back(action);
        for (std::thread& thread : threads) thread.join();
    }
    // Runs `read` on `n` threads, each under its own shared lock.
    void ReadTogether(int n, const std::function<void(BPlusTree&, unsigned)>& read) {
        Unlock();
        std::vector<std::function<void()>> actions;
        for (int t = 0; t < n; ++t)
            actions.push_back([&, t] {
                const SpaceScope scope(m_ps, SharedRead);
                read(Tree(), static_cast<unsigned>(t));
            });
        RunTogether(actions);
        Lock();
    }
};

TEST_F(BPlusTreeThreads, ReadersThatLoadTheSameNodesSeeOneTree) {
    BuiltTree(Shape(Times(3, Shape(Times(51, 50)))));
    for (int round = 0; round < 4; ++round) {
        Evict();
        ReadTogether(4, [](BPlusTree& tree, unsigned seed) {
            std::mt19937 random(seed);
            for (int i = 0; i < 2000 / SLOWNESS; ++i) {
                const IntKey key = (random() % 7650 + 1) * KEY_STEP;
                ASSERT_EQ(key + 1, (Get<IntKey>(tree, key)));
                const IntKey between = key + 1;
                ASSERT_EQ(0, tree.count(AsKey(between)));
                const auto bound = tree.lower_bound(AsKey(between));
                if (bound != tree.end()) {
                    ASSERT_EQ(key + KEY_STEP, ValueAt<IntKey>(bound.const_deref()));
                }
            }
        });
        ExpectSound(Tree());
    }
}

TEST_F(BPlusTreeThreads, ReadersWalkTheWholeTreeTogether) {
    BuiltTree(Shape(Times(2, Shape(Times(51, 50)))));
    Evict();
    ReadTogether(4, [](BPlusTree& tree, unsigned t) {
        IntKey key = 0;
        if (t % 2 == 0) {
            for (auto i = tree.begin(); i != tree.end(); i.next())
                ASSERT_EQ(key += KEY_STEP, ValueAt<IntKey>(i.const_deref()));
        } else {
            tree.Validate();
            ASSERT_EQ(2 * 52 + 1, tree.GetNumNodes());
        }
    });
}

// Child references stand at odd addresses here, where nothing may be written under a shared lock.
TEST_F(BPlusTreeThreads, ReadersOfATreeWithUnalignedReferencesShareItsNodes) {
    using Ref = cref<TestLeaf>;
    BPlusTree& tree = NewTree<Key3, Ref>();
    constexpr int N = 3000 / SLOWNESS + 500;
    for (int i = 0; i < N; ++i) Put(tree, Key3(static_cast<uint64>(i)), Ref(NewObject<TestLeaf>(i)));
    for (int round = 0; round < 3; ++round) {
        Evict();
        ReadTogether(4, [](BPlusTree& t, unsigned seed) {
            std::mt19937 random(seed);
            for (int i = 0; i < 1000 / SLOWNESS; ++i) {
                const auto number = static_cast<int32>(random() % N);
                const auto ref = Get<Ref>(t, Key3(static_cast<uint64>(number)));
                ASSERT_TRUE(ref);
                ASSERT_EQ(number, ref->Get()->m_number);
            }
        });
    }
    ExpectSound(Tree());
}

// The payloads are pairs whose two halves change together; the writer of the store writes in between.
TEST_F(BPlusTreeThreads, ReadersSeeEachChangeWholeWhileTheTreeIsChangedWrittenAndCollected) {
    using Payload = uint64;
    NewTree<IntKey, Payload>();
    Unlock();
    m_store->SetDosPeriod(1);
    m_store->StartObjectDeletion();
    std::atomic<bool> stop{false};
    const auto reader = [&](unsigned seed) {
        std::mt19937 random(seed);
        while (!stop) {
            const SpaceScope scope(m_ps, SharedRead);
            BPlusTree& tree = Tree();
            // Keys come and go in pairs: 2k with 2k + 1.
            const IntKey key = random() % 2000 & ~IntKey{1};
            ASSERT_EQ(Has(tree, key), Has(tree, key + 1));
            ASSERT_EQ(0, tree.size() % 2);
        }
    };
    const auto changer = [&](unsigned seed) {
        std::mt19937 random(seed);
        for (int i = 0; i < 4000 / SLOWNESS; ++i) {
            const SpaceScope scope(m_ps);
            BPlusTree& tree = Tree();
            const IntKey key = random() % 2000 & ~IntKey{1};
            if (!Remove(tree, key)) {
                Put(tree, key, Payload{0});
                Put(tree, key + 1, Payload{1});
            } else {
                ASSERT_TRUE(Remove(tree, key + 1));
            }
        }
    };
    std::thread r1([&] { reader(1); });
    std::thread r2([&] { reader(2); });
    RunTogether({[&] { changer(3); },
                 [&] {
                     for (int i = 0; i < 20; ++i) SynchronousGc(m_ps->GetCSpace());
                 }});
    stop = true;
    r1.join();
    r2.join();
    Lock();
    ExpectSound(Tree());
    Reopen();
    ExpectSound(Tree());
}

} // namespace
} // namespace quna

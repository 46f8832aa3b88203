// Random operations on a tree beside the same on a std::map, for keys and payloads of all sizes: after each step the tree
// passes its own Validate and the checker of the tests, and gives the model's answers.
#include "tests/support/Sanitized.h"
#include "tests/support/TestTree.h"
#include "tests/support/TestTreeStore.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr uint64 SLOWNESS = UNDER_SANITIZER ? 6 : 1;

// ---- Keys and payloads from numbers, in the same order ------------------------------------------------------------------------

template <class T>
struct Made {
    static T From(uint64 n) { return static_cast<T>(n); }
};
template <>
struct Made<xstring> {
    static xstring From(uint64 n) {
        std::string text = std::to_string(1000000 + n);
        text.append(n % 7, 'x'); // of several lengths
        return xstring(text.c_str());
    }
};
template <>
struct Made<cref<TestLeaf>> {
    // The reference to an object with this number.
    static cref<TestLeaf> From(uint64 n) { return cref<TestLeaf>(NewObject<TestLeaf>(static_cast<int32>(n))); }
};

template <class T>
bool IsMadeFrom(const T& x, uint64 n) {
    return x == Made<T>::From(n);
}
bool IsMadeFrom(const cref<TestLeaf>& x, uint64 n) { return x.Get()->m_number == static_cast<int32>(n); }

// NUMBERS: keys are made from 0 up to this.
template <class K, class P, uint64 NUMBERS>
struct Types {
    using Key = K;
    using Payload = P;
    static constexpr uint64 NUM_KEYS = NUMBERS;
    static constexpr bool IS_SET = std::is_void_v<P>;
};

// ---- The tree and the model, side by side -----------------------------------------------------------------------------------------

template <class T>
class Pair {
public:
    using K = typename T::Key;
    using P = typename T::Payload;

    explicit Pair(unsigned seed) : m_random(seed) {}

    // A step: mostly insertions for a `growth` of 100, mostly deletions for 0.
    void Step(BPlusTree& tree, unsigned growth) {
        const uint64 n = Random(T::NUM_KEYS);
        if (Random(100) < growth)
            Insert(tree, n);
        else if (Random(8) == 0)
            EraseByIterator(tree, n);
        else
            Erase(tree, n);
        CheckKey(tree, Random(T::NUM_KEYS));
    }

    // The whole content, in both directions.
    void CheckAll(BPlusTree& tree) {
        ASSERT_EQ(std::ssize(m_model), tree.size());
        auto j = m_model.begin();
        for (auto i = tree.begin(); i != tree.end(); i.next(), ++j) {
            ASSERT_TRUE(j != m_model.end());
            CheckEntry(i.const_deref(), *j);
        }
        auto i = tree.end();
        for (auto k = m_model.rbegin(); k != m_model.rend(); ++k) {
            i.prev();
            CheckEntry(i.const_deref(), *k);
        }
        ASSERT_TRUE(i == tree.begin());
    }

    std::size_t Size() const { return m_model.size(); }

private:
    uint64 Random(uint64 below) { return m_random() % below; }

    void Insert(BPlusTree& tree, uint64 n) {
        const bool isNew = !m_model.contains(n);
        const bool replace = Random(2) == 0;
        const K key = Made<K>::From(n);
        if constexpr (T::IS_SET) {
            ASSERT_EQ(isNew, replace ? tree.Insert(AsKey(key)) : tree.Insert(AsKey(key), nullptr, false));
            m_model.emplace(n, 0);
        } else {
            const uint64 payload = Random(200);
            ASSERT_EQ(isNew, Put(tree, key, Made<P>::From(payload), replace));
            if (isNew || replace) m_model[n] = payload;
        }
    }
    void Erase(BPlusTree& tree, uint64 n) {
        const K key = Made<K>::From(n);
        ASSERT_EQ(m_model.erase(n), tree.erase(AsKey(key)));
    }
    void EraseByIterator(BPlusTree& tree, uint64 n) {
        const K key = Made<K>::From(n);
        const auto i = tree.lower_bound(AsKey(key));
        const auto j = m_model.lower_bound(n);
        ASSERT_EQ(j == m_model.end(), i == tree.end());
        if (j == m_model.end()) return;
        tree.erase(i);
        m_model.erase(j);
    }
    void CheckKey(BPlusTree& tree, uint64 n) {
        const K key = Made<K>::From(n);
        const auto found = m_model.find(n);
        ASSERT_EQ(found != m_model.end(), Has(tree, key));
        if constexpr (!T::IS_SET) {
            if (found != m_model.end()) {
                ASSERT_TRUE(IsMadeFrom(*Get<P>(tree, key), found->second));
            }
        }
        CheckBound(tree.lower_bound(AsKey(key)), tree.end(), m_model.lower_bound(n));
        CheckBound(tree.upper_bound(AsKey(key)), tree.end(), m_model.upper_bound(n));
    }
    void CheckBound(BPlusTree::Iterator i, BPlusTree::Iterator end, std::map<uint64, uint64>::const_iterator j) {
        ASSERT_EQ(j == m_model.end(), i == end);
        if (j != m_model.end()) CheckEntry(i.const_deref(), *j);
    }
    static void CheckEntry(const void* entry, const std::pair<const uint64, uint64>& expected) {
        ASSERT_TRUE(IsMadeFrom(ValueAt<K>(entry), expected.first));
        if constexpr (!T::IS_SET) {
            ASSERT_TRUE(IsMadeFrom(ValueAt<P>(static_cast<const char*>(entry) + sizeof(K)), expected.second));
        }
    }

    std::mt19937_64 m_random;
    std::map<uint64, uint64> m_model;
};

// Grows, holds, shrinks, and empties.
constexpr unsigned GROWTHS[] = {90, 50, 20, 60, 10, 0};

using AllTypes = ::testing::Types<Types<uint8, void, 256>, Types<uint8, uint8, 256>, Types<uint8, xstring, 256>,
                                  Types<Key3, void, 2000>, Types<Key3, uint64, 2000>, Types<uint32, uint32, 2000>,
                                  Types<uint64, uint64, 2000>, Types<uint64, void, 2000>, Types<Key24, uint8, 2000>,
                                  Types<Key24, void, 1000>, Types<xstring, void, 1000>, Types<xstring, uint64, 1000>,
                                  Types<xstring, xstring, 1000>, Types<uint32, Key24, 2000>>;

template <class T>
class BPlusTreeModel : public ::testing::Test {
protected:
    TreeDomain m_domain;
};
TYPED_TEST_SUITE(BPlusTreeModel, AllTypes);

TYPED_TEST(BPlusTreeModel, AfterEveryStepTheTreeIsSoundAndAgrees) {
    BPlusTree tree(ResolvedInfo<typename TypeParam::Key, typename TypeParam::Payload>());
    Pair<TypeParam> pair(1);
    for (unsigned growth : GROWTHS)
        for (uint64 i = 0; i < TypeParam::NUM_KEYS / 2 / SLOWNESS; ++i) {
            pair.Step(tree, growth);
            ExpectSound(tree);
            if (i % 100 == 0) pair.CheckAll(tree);
            ASSERT_FALSE(this->HasFailure()) << "seed 1, growth " << growth << ", step " << i;
        }
    pair.CheckAll(tree);
}

// Tall enough for repairs of internal nodes.
class BPlusTreeTallModel : public ::testing::TestWithParam<unsigned> {};

TEST_P(BPlusTreeTallModel, ManyEntriesComeAndGo) {
    using Tall = Types<uint32, uint32, 30000>;
    const TreeDomain domain;
    BPlusTree tree(ResolvedInfo<uint32, uint32>());
    Pair<Tall> pair(GetParam());
    ssize_t height = 0;
    for (unsigned growth : {100u, 100u, 70u, 30u, 0u, 0u, 0u})
        for (uint64 i = 0; i < 20000 / SLOWNESS; ++i) {
            pair.Step(tree, growth);
            height = std::max(height, tree.m_height);
            if (i % 1000 != 0) continue;
            ExpectSound(tree);
            pair.CheckAll(tree);
            ASSERT_FALSE(HasFailure()) << "seed " << GetParam() << ", growth " << growth << ", step " << i;
        }
    EXPECT_EQ(2, height);
    ExpectSound(tree);
}

INSTANTIATE_TEST_SUITE_P(Seeds, BPlusTreeTallModel, ::testing::Values(1u, 2u, 3u));

TEST(BPlusTreeValuesModel, EachValueLivesOnceInTheTree) {
    using Counted = Types<CountedValue, CountedValue, 3000>;
    const int before = CountedValue::s_numLive;
    {
        const TreeDomain domain;
        BPlusTree tree(ResolvedInfo<CountedValue, CountedValue>());
        Pair<Counted> pair(7);
        for (unsigned growth : GROWTHS)
            for (uint64 i = 0; i < 3000 / SLOWNESS; ++i) {
                pair.Step(tree, growth);
                if (i % 50 != 0) continue;
                ExpectSound(tree);
                ssize_t separators = 0;
                for (const ptr<IPersistable>& node : NodesOf(tree))
                    if (node->GetReflectedClass() == &GetReflectedClass<InternalNode>())
                        separators += static_cast<InternalNode*>(node.m_self)->m_numKeyEntrys;
                ASSERT_EQ(before + 2 * tree.size() + separators, CountedValue::s_numLive) << "step " << i;
            }
    }
    EXPECT_EQ(before, CountedValue::s_numLive);
}

// ---- In a store -----------------------------------------------------------------------------------------------------------------------

template <class T>
class BPlusTreeStoredModel : public PersistentTreeTest {};

using StoredTypes =
    ::testing::Types<Types<uint8, uint8, 256>, Types<Key3, uint64, 2000>, Types<uint64, uint64, 2000>,
                     Types<Key24, void, 1000>, Types<xstring, xstring, 1000>, Types<uint64, cref<TestLeaf>, 1000>,
                     Types<Key3, cref<TestLeaf>, 1000>, Types<CountedValue, CountedValue, 1000>>;
TYPED_TEST_SUITE(BPlusTreeStoredModel, StoredTypes);

TYPED_TEST(BPlusTreeStoredModel, WritesCollectionsAndRestartsInBetweenChangeNothing) {
    this->template NewTree<typename TypeParam::Key, typename TypeParam::Payload>();
    Pair<TypeParam> pair(11);
    for (unsigned growth : GROWTHS)
        for (uint64 i = 0; i < TypeParam::NUM_KEYS / 2 / SLOWNESS; ++i) {
            pair.Step(this->Tree(), growth);
            if (i % 61 == 0) this->WriteAll();
            if (i % 97 == 0) this->Evict();
            if (i % 193 == 0) this->Reopen();
            if (i % 20 == 0) ExpectSound(this->Tree());
            if (i % 200 == 0) pair.CheckAll(this->Tree());
            ASSERT_FALSE(this->HasFailure()) << "seed 11, growth " << growth << ", step " << i;
        }
    this->Reopen();
    ExpectSound(this->Tree());
    pair.CheckAll(this->Tree());
}

} // namespace
} // namespace quna

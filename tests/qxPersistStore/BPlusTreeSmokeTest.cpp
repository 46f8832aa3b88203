// The tree in ordinary use, beside a std::map.
#include "qxObject/TypeDescription.h"
#include "qxPersistStore/BPlusTree2.h"
#include "qxUtils/xstring.h"
#include "tests/support/TestStore.h"

#include <map>
#include <random>
#include <set>

#include <gtest/gtest.h>

namespace quna {
namespace {

template <class T>
const _Key* K(const T& x) {
    return reinterpret_cast<const _Key*>(&x);
}
template <class T>
const _Payload* P(const T& x) {
    return reinterpret_cast<const _Payload*>(&x);
}
template <class K_, class V>
using Model = std::map<K_, V>;

// Everything that Validate leaves out: the chain, its ends, the size.
template <class KeyT, class PayloadT>
void ExpectEqual(BPlusTree& tree, const Model<KeyT, PayloadT>& model) {
    tree.Validate();
    const CalculatedBTreeTypeInfo& bi = tree.GetCalculatedBTreeTypeInfo();
    ASSERT_EQ(static_cast<ssize_t>(model.size()), tree.size());
    auto expected = model.begin();
    BPlusTree::Iterator i = tree.begin();
    for (; i != tree.end(); i.next(), ++expected) {
        ASSERT_NE(model.end(), expected);
        ASSERT_TRUE(expected->first == *detail::ReadView<KeyT>(member_key(i.const_deref())));
        ASSERT_TRUE(expected->second == *detail::ReadView<PayloadT>(member_payload(bi, i.const_deref())));
    }
    ASSERT_EQ(model.end(), expected);
    for (auto r = model.rbegin(); r != model.rend(); ++r) {
        i.prev();
        ASSERT_TRUE(r->first == *detail::ReadView<KeyT>(member_key(i.const_deref())));
    }
}

template <class T>
T Make(uint64 x);
template <>
uint64 Make<uint64>(uint64 x) {
    return x;
}
template <>
uint32 Make<uint32>(uint64 x) {
    return static_cast<uint32>(x);
}
template <>
uint8 Make<uint8>(uint64 x) {
    return static_cast<uint8>(x);
}
template <>
xstring Make<xstring>(uint64 x) {
    return xstring(("a text that no buffer holds, number " + std::to_string(x)).c_str());
}

class BPlusTreeSmoke : public ::testing::Test {
protected:
    BPlusTreeSmoke() : m_ps(m_store.OpenSpace("s")) {}

    template <class KeyT, class PayloadT>
    BPlusTree* NewTree() {
        return DollarNewTree(GetPersistStoreTypeOpsId(DescriptionOf<KeyT>()),
                             GetPersistStoreTypeOpsId(DescriptionOf<PayloadT>()));
    }
    BPlusTree* DollarNewTree(TypeOpsId k, TypeOpsId p) {
        BPlusTree* const tree = NewObject<BPlusTree>(BTreeTypeInfo(k, p));
        return tree;
    }

    template <class KeyT, class PayloadT>
    void RandomStep(BPlusTree& tree, Model<KeyT, PayloadT>& model, uint64 range, bool grows) {
        const KeyT key = Make<KeyT>(m_random() % range);
        const PayloadT payload = Make<PayloadT>(m_random() % 1000000);
        if (m_random() % 100 < (grows ? 70u : 30u)) {
            const bool replace = m_random() % 2 == 0;
            const bool isNew = model.find(key) == model.end();
            ASSERT_EQ(isNew, tree.Insert(K(key), P(payload), replace));
            if (isNew || replace) model[key] = payload;
        } else {
            ASSERT_EQ(model.erase(key), tree.erase(K(key)));
        }
        const KeyT probe = Make<KeyT>(m_random() % range);
        ASSERT_EQ(static_cast<ssize_t>(model.count(probe)), tree.count(K(probe)));
        const auto bound = model.lower_bound(probe);
        const BPlusTree::Iterator i = tree.lower_bound(K(probe));
        ASSERT_EQ(bound != model.end(), i.can_dereference());
        if (bound != model.end()) {
            ASSERT_TRUE(bound->first == *detail::ReadView<KeyT>(member_key(i.const_deref())));
        } else {
            ASSERT_EQ(tree.end(), i);
        }
    }

    template <class KeyT, class PayloadT>
    void RunTransient(uint64 range, int steps) {
        const SpaceScope scope(m_ps);
        BPlusTree* const tree = NewTree<KeyT, PayloadT>();
        Model<KeyT, PayloadT> model;
        for (int i = 0; i < steps; ++i) {
            ASSERT_NO_FATAL_FAILURE(RandomStep(*tree, model, range, i < steps / 2));
            if (i % 500 == 0) {
                ASSERT_NO_FATAL_FAILURE(ExpectEqual(*tree, model));
            }
        }
        ASSERT_NO_FATAL_FAILURE(ExpectEqual(*tree, model));
        const BPlusTree copy(*tree);
        EXPECT_TRUE(copy == *tree);
        EXPECT_FALSE(copy < *tree);
        while (!model.empty()) {
            ASSERT_EQ(1u, tree->erase(K(model.begin()->first)));
            model.erase(model.begin());
        }
        ASSERT_NO_FATAL_FAILURE(ExpectEqual(*tree, model));
        EXPECT_EQ(0, tree->m_height);
    }

    TestStore m_store;
    PSpace* m_ps;
    std::mt19937_64 m_random{20};
};

TEST_F(BPlusTreeSmoke, ATransientTreeIsAMapWhateverTheSizeOfItsKeys) {
    RunTransient<uint64, uint64>(20000, 40000);
    RunTransient<uint32, uint64>(5000, 20000);
    RunTransient<uint8, uint32>(256, 3000);
    RunTransient<xstring, xstring>(3000, 12000);
    RunTransient<uint8, xstring>(256, 3000);
}

TEST_F(BPlusTreeSmoke, APersistentTreeSurvivesReopening) {
    Model<uint64, xstring> model;
    Model<uint8, uint64> small;
    {
        const SpaceScope scope(m_ps);
        ASSERT_TRUE(AddPSpaceRoot("tree", NewTree<uint64, xstring>()));
        ASSERT_TRUE(AddPSpaceRoot("small", NewTree<uint8, uint64>()));
    }
    for (int round = 0; round < 8; ++round) {
        {
            const SpaceScope scope(m_ps);
            auto& tree = *static_cast<BPlusTree*>(GetPSpaceRoot("tree").m_self);
            auto& other = *static_cast<BPlusTree*>(GetPSpaceRoot("small").m_self);
            ASSERT_NO_FATAL_FAILURE(ExpectEqual(tree, model));
            ASSERT_NO_FATAL_FAILURE(ExpectEqual(other, small));
            for (int i = 0; i < 4000; ++i) {
                ASSERT_NO_FATAL_FAILURE(RandomStep(tree, model, 20000, round < 4));
                ASSERT_NO_FATAL_FAILURE(RandomStep(other, small, 256, round < 4));
            }
            ASSERT_NO_FATAL_FAILURE(ExpectEqual(tree, model));
        }
        if (round % 2 == 0) {
            m_ps->WriteDirtyObjectsToLss(false);
            SynchronousGc(m_ps->GetCSpace());
        } else {
            m_store.Reopen();
            m_ps = m_store.OpenSpace("s");
        }
        const SpaceScope scope(m_ps, SharedRead);
        ASSERT_NO_FATAL_FAILURE(ExpectEqual(*static_cast<BPlusTree*>(GetPSpaceRoot("tree").m_self), model));
        ASSERT_NO_FATAL_FAILURE(ExpectEqual(*static_cast<BPlusTree*>(GetPSpaceRoot("small").m_self), small));
    }
}

TEST_F(BPlusTreeSmoke, ReferencesInPayloadsBecomePersistentAndSurviveSelfAssignmentAndSwap) {
    const TypeOpsId keyTid = [&] {
        const SpaceScope scope(m_ps);
        return GetPersistStoreTypeOpsId(DescriptionOf<uint8>());
    }();
    {
        const SpaceScope scope(m_ps);
        BPlusTree* const tree = DollarNewTree(keyTid, GetPersistStoreTypeOpsId(DescriptionOf<pref<IPersistable>>()));
        ASSERT_TRUE(AddPSpaceRoot("tree", tree));
        for (int i = 0; i < 250; ++i) {
            const pref<IPersistable> payload(ptr<IPersistable>(NewObject<TestLeaf>(i)));
            const auto key = static_cast<uint8>(i * 7);
            ASSERT_TRUE(tree->Insert(K(key), P(payload), false));
        }
        for (BPlusTree::Iterator i = tree->begin(); i != tree->end(); i.next())
            ASSERT_TRUE(LoadPref(member_payload(tree->GetCalculatedBTreeTypeInfo(), i.const_deref())).GetOid());
        *tree = *tree; // NOLINT(clang-diagnostic-self-assign-overloaded): it is the case in question
        tree->Validate();
        BPlusTree* const transient = DollarNewTree(tree->m_bti.m_keyTid, tree->m_bti.m_payloadTid);
        tree->swap(*transient);
        EXPECT_TRUE(tree->empty());
        EXPECT_EQ(250, transient->size());
        tree->swap(*transient);
        EXPECT_EQ(250, tree->size());
    }
    m_store.Reopen();
    m_ps = m_store.OpenSpace("s");
    const SpaceScope scope(m_ps, SharedRead);
    auto& tree = *static_cast<BPlusTree*>(GetPSpaceRoot("tree").m_self);
    EXPECT_EQ(250, tree.size());
    std::set<int> seen;
    for (BPlusTree::Iterator i = tree.begin(); i != tree.end(); i.next()) {
        const prefbase payload = LoadPref(member_payload(tree.GetCalculatedBTreeTypeInfo(), i.const_deref()));
        seen.insert(static_cast<TestLeaf*>(payload.Get().m_self)->m_number);
    }
    EXPECT_EQ(250u, seen.size());
}

} // namespace
} // namespace quna

// The typed maps and sets, beside the standard containers whose vocabulary they have.
#include "qxPersistStore/PMap.h"

#include "qxPersistStore/PersistentMembers.h"
#include "tests/support/TestTreeStore.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>
#include <random>
#include <ranges>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace quna {

// An object that has a map and a set.
class TestShelf : public PersistentObject<TestShelf> {
public:
    static constexpr auto Members() {
        return MemberList(Member("byTitle", &TestShelf::m_byTitle), Member("years", &TestShelf::m_years));
    }
    PMap<xstring, cref<TestLeaf>> m_byTitle;
    PSet<int32> m_years;
};
QX_REFLECT_PERSISTENT_CLASS(TestShelf, "test::Shelf")

namespace {

using Numbers = PMap<uint64, uint64>;
using Names = PMap<xstring, uint64>;

static_assert(std::bidirectional_iterator<Numbers::iterator>);
static_assert(std::bidirectional_iterator<Names::iterator>);
static_assert(std::bidirectional_iterator<PMap<uint8, uint64>::iterator>);
static_assert(std::bidirectional_iterator<PSet<xstring>::iterator>);
// In place where every entry of the layout is aligned, otherwise a copy.
static_assert(std::is_same_v<decltype(Numbers::reference::second), const uint64&>);
static_assert(std::is_same_v<decltype(PMap<uint8, uint64>::reference::second), uint64>);
static_assert(std::is_same_v<decltype(PMap<Key3, uint8>::reference::first), const Key3&>);

// Before the fixture opens its store.
struct RegistersShelf {
    RegistersShelf() {
        RegisterTreeTypes();
        static const bool registered = [] {
            static constexpr dsTarget TARGET = {"Quna/ShelfTests", nullptr, 0, nullptr, 0};
            _Register_TestShelf(RegisterTarget(TARGET));
            return true;
        }();
        EXPECT_TRUE(registered);
    }
};

class PMapTest : private RegistersShelf, public PersistentTreeTest {
protected:
    // A map that is a root, so that it stays.
    template <class Map>
    Map Rooted(ConstStringZ name = "tree") {
        Map map = Map::Create();
        m_ps->AddRoot(name, map.Get());
        return map;
    }
};

template <class Map>
std::vector<typename Map::value_type> ContentsOf(const Map& map) {
    std::vector<typename Map::value_type> contents;
    for (auto i = map.begin(); i != map.end(); ++i) contents.push_back(*i);
    return contents;
}

std::vector<std::pair<uint64, uint64>> Ascending(uint64 n) {
    std::vector<std::pair<uint64, uint64>> entries;
    for (uint64 i = 0; i < n; ++i) entries.emplace_back(i * 3, i);
    return entries;
}

TEST_F(PMapTest, InsertsOnceAndAssignsAgain) {
    Numbers map = Numbers::Create();
    EXPECT_TRUE(map.empty());
    auto [where, made] = map.insert(5, 50);
    EXPECT_TRUE(made);
    EXPECT_EQ(5u, where->first);
    EXPECT_EQ(50u, where->second);
    EXPECT_FALSE(map.insert(5, 51).second);
    EXPECT_EQ(50u, map.at(5));
    EXPECT_FALSE(map.insert({5, 52}).second);
    EXPECT_FALSE(map.insert_or_assign(5, 53).second);
    EXPECT_EQ(53u, map.at(5));
    EXPECT_TRUE(map.insert_or_assign(6, 60).second);
    map[6] = 61;
    map[7] = 70;
    EXPECT_EQ(61u, static_cast<uint64>(map[6]));
    EXPECT_EQ(3, map.size());
    map.insert({{8, 80}, {5, 0}});
    EXPECT_EQ((std::vector<std::pair<uint64, uint64>>{{5, 53}, {6, 61}, {7, 70}, {8, 80}}), ContentsOf(map));
}

TEST_F(PMapTest, ReadingAnAbsentKeyChangesNothing) {
    Numbers map = Numbers::Create();
    map[1] = 1;
    EXPECT_THROW(map.at(2), std::out_of_range);
    EXPECT_THROW(static_cast<void>(static_cast<uint64>(map[2])), std::out_of_range);
    EXPECT_EQ(map.end(), map.find(2));
    EXPECT_FALSE(map.contains(2));
    EXPECT_EQ(0, map.count(2));
    EXPECT_EQ(0, map.erase(2));
    EXPECT_EQ(1, map.size());
}

TEST_F(PMapTest, WalksBothWaysAndByRanges) {
    Numbers map = Numbers::Create();
    for (const auto& [key, payload] : Ascending(1000)) map.insert(key, payload);
    uint64 expected = 0;
    for (auto [key, payload] : map) {
        ASSERT_EQ(expected * 3, key);
        ASSERT_EQ(expected++, payload);
    }
    EXPECT_EQ(1000u, expected);
    for (auto i = map.rbegin(); i != map.rend(); ++i) ASSERT_EQ(--expected, (*i).second);
    EXPECT_EQ(0u, expected);
    std::vector<uint64> keys;
    for (auto [key, payload] : map.range(10, 20)) keys.push_back(key);
    EXPECT_EQ((std::vector<uint64>{12, 15, 18}), keys);
    EXPECT_TRUE(map.range(20, 10).empty());
    EXPECT_TRUE(map.range(13, 15).empty());
    EXPECT_EQ(15u, map.lower_bound(13)->first);
    EXPECT_EQ(15u, map.lower_bound(15)->first);
    EXPECT_EQ(18u, map.upper_bound(15)->first);
    const auto [first, last] = map.equal_range(15);
    EXPECT_EQ(1, std::distance(first, last));
}

TEST_F(PMapTest, ErasesByKeyPositionAndStretch) {
    Numbers map = Numbers::Create();
    for (const auto& [key, payload] : Ascending(1000)) map.insert(key, payload);
    EXPECT_EQ(1, map.erase(30));
    EXPECT_EQ(36u, map.erase(map.find(33))->first);
    auto next = map.erase(map.find(999 * 3));
    EXPECT_EQ(map.end(), next);
    EXPECT_EQ(300u, map.erase(map.lower_bound(60), map.lower_bound(300))->first);
    EXPECT_TRUE(map.range(60, 300).empty());
    next = map.erase(map.lower_bound(600), map.end());
    EXPECT_EQ(map.end(), next);
    EXPECT_EQ(20 - 2 + 100, map.size());
    ExpectSound(map.Tree());
    map.clear();
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(map.begin(), map.end());
}

TEST_F(PMapTest, EveryKindOfTextIsAKey) {
    Names map = Names::Create();
    const std::string text = "three";
    map.insert("one", 1);
    map.insert(xstring("two"), 2);
    map[text] = 3;
    map[std::string_view("fours").substr(0, 4)] = 4;
    EXPECT_EQ(1u, map.at("one"));
    EXPECT_TRUE(map.contains(text));
    EXPECT_EQ(4u, map.at(xstring("four")));
    EXPECT_EQ(1, map.erase("two"));
    std::vector<std::string> names;
    for (auto [name, number] : map.range("f", "ones"))
        names.emplace_back(name.data(), static_cast<size_t>(name.size()));
    EXPECT_EQ((std::vector<std::string>{"four", "one"}), names);
}

template <class Key, class Payload>
void CompareWithStdMap(PMap<Key, Payload> map, uint64 seed) {
    std::map<Key, Payload> model;
    std::mt19937_64 random(seed);
    for (int i = 0; i < 4000; ++i) {
        const Key key(static_cast<uint8>(random() % 200));
        const Payload payload(static_cast<uint8>(random()));
        switch (random() % 4) {
        case 0: ASSERT_EQ(static_cast<ssize_t>(model.erase(key)), map.erase(key)); break;
        case 1: ASSERT_EQ(model.insert({key, payload}).second, map.insert(key, payload).second); break;
        case 2:
            ASSERT_EQ(model.insert_or_assign(key, payload).second, map.insert_or_assign(key, payload).second);
            break;
        default:
            ASSERT_EQ(model.contains(key), map.contains(key));
            if (model.contains(key)) {
                ASSERT_TRUE(model.at(key) == map.at(key));
            }
        }
    }
    ASSERT_EQ(std::ssize(model), map.size());
    auto expected = model.begin();
    for (auto [key, payload] : map) {
        ASSERT_TRUE(key == expected->first);
        ASSERT_TRUE(payload == (expected++)->second);
    }
    ExpectSound(map.Tree());
}

TEST_F(PMapTest, AgreesWithStdMapInEveryLayout) {
    CompareWithStdMap(Rooted<PMap<uint8, uint64>>("a"), 1); // payloads at odd addresses
    CompareWithStdMap(Rooted<PMap<Key3, uint32>>("b"), 2);
    CompareWithStdMap(Rooted<PMap<uint64, uint8>>("c"), 3); // keys at odd addresses
    CompareWithStdMap(Rooted<PMap<Key24, uint64>>("d"), 4);
    CompareWithStdMap(Rooted<PMap<uint32, uint32>>("e"), 5);
}

TEST_F(PMapTest, ASetHoldsEachKeyOnce) {
    auto set = PSet<xstring>::Create();
    EXPECT_TRUE(set.insert("b").second);
    EXPECT_FALSE(set.insert("b").second);
    set.insert({xstring("c"), xstring("a"), xstring("b")});
    EXPECT_EQ((std::vector<xstring>{"a", "b", "c"}), ContentsOf(set));
    EXPECT_EQ("b", *set.find("b"));
    EXPECT_EQ("c", *set.erase(set.find("b")));
    EXPECT_FALSE(set.contains("b"));
    auto other = PSet<xstring>::Create();
    set.swap(other);
    EXPECT_TRUE(set.empty());
    EXPECT_EQ(2, other.size());
    EXPECT_TRUE(other.Tree() != set.Tree());
}

TEST_F(PMapTest, WhatANewEntryOfAPersistentMapNamesBecomesPersistent) {
    using Leaves = PMap<uint64, cref<TestLeaf>>;
    Leaves map = Rooted<Leaves>();
    auto* const inserted = NewObject<TestLeaf>(1);
    auto* const assigned = NewObject<TestLeaf>(2);
    auto* const placed = NewObject<TestLeaf>(3);
    map.insert(1, inserted);
    map.insert(2, inserted);
    map.insert_or_assign(2, assigned);
    map[3] = placed;
    for (TestLeaf* leaf : {inserted, assigned, placed}) EXPECT_TRUE(GetOid(leaf));
    Reopen();
    const Leaves again(&Tree());
    EXPECT_EQ(1, again.at(1)->m_number);
    EXPECT_EQ(2, again.find(2)->second->m_number);
    for (auto [key, leaf] : again) EXPECT_EQ(static_cast<int32>(key), leaf->m_number);
}

TEST_F(PMapTest, AsAFieldItTravelsWithItsObject) {
    auto* const shelf = NewObject<TestShelf>();
    shelf->m_byTitle = PMap<xstring, cref<TestLeaf>>::Create();
    shelf->m_years = PSet<int32>::Create();
    shelf->m_byTitle["Emma"] = NewObject<TestLeaf>(1815);
    m_ps->AddRoot("shelf", shelf);
    shelf->m_years.insert(1815);
    shelf->m_byTitle["Persuasion"] = NewObject<TestLeaf>(1817);
    Reopen();
    auto* const again = static_cast<TestShelf*>(m_ps->GetRoot("shelf").m_self);
    EXPECT_EQ(1815, again->m_byTitle.at("Emma")->m_number);
    EXPECT_EQ(1817, again->m_byTitle.at("Persuasion")->m_number);
    EXPECT_EQ(std::vector<int32>{1815}, ContentsOf(again->m_years));
}

TEST_F(PMapTest, ANullHandleAndAnotherTypesTreeAreRefused) {
    EXPECT_ANY_THROW(Numbers().size());
    EXPECT_THROW(Numbers(Names::Create().Get()), std::logic_error);
    EXPECT_THROW(PSet<uint64>(Numbers::Create().Get()), std::logic_error);
    EXPECT_THROW((PMap<uint64, int64>(Numbers::Create().Get())), std::logic_error);
    Names wrong; // as if a class had changed a field's type
    static_cast<cref<BPlusTree>&>(wrong) = Numbers::Create();
    EXPECT_THROW(wrong.size(), std::logic_error);
}

// ---- Loading from a sorted range --------------------------------------------------------------------------------------

TEST_F(PMapTest, ASortedRangeFillsTheNodesToTheDegreeAskedFor) {
    for (const double degree : {0.5, 0.7, 1.0}) {
        for (const uint64 n : {0,   1,   49,   50,   51,   99,   100,   101,   149,   150,   151,
                               199, 201, 5000, 5050, 5099, 5100, 10100, 10101, 10150, 10201, 20000}) {
            SCOPED_TRACE(std::to_string(n) + " at " + std::to_string(degree));
            const auto entries = Ascending(n);
            const Numbers map = Numbers::FromSorted(entries, degree);
            ASSERT_EQ(static_cast<ssize_t>(n), map.size());
            ASSERT_EQ(entries, ContentsOf(map));
            ASSERT_NO_FATAL_FAILURE(ExpectSound(map.Tree()));
        }
    }
    EXPECT_EQ(1 + 100, Numbers::FromSorted(Ascending(10000)).Tree().GetNumNodes());
    EXPECT_EQ(1 + 2 + 125, Numbers::FromSorted(Ascending(10000), 0.8).Tree().GetNumNodes());
    EXPECT_ANY_THROW(Numbers::FromSorted(Ascending(10), 0.4));
}

TEST_F(PMapTest, ATreeThatWasLoadedSortedGrowsAndShrinksAsAnyOther) {
    Numbers map = Numbers::FromSorted(Ascending(12000));
    for (uint64 i = 0; i < 12000; i += 2) ASSERT_TRUE(map.insert(i * 3 + 1, i).second);
    ExpectSound(map.Tree());
    for (uint64 i = 0; i < 12000; ++i) ASSERT_EQ(1, map.erase(i * 3));
    ExpectSound(map.Tree());
    EXPECT_EQ(6000, map.size());
}

TEST_F(PMapTest, ARangeThatDoesNotAscendLeavesTheContents) {
    Numbers map = Rooted<Numbers>();
    map[7] = 70;
    for (const uint64 bad : {299, 300}) { // below the key before, and equal to it
        auto entries = Ascending(500);
        entries[101].first = bad;
        try {
            map.assign_sorted(entries);
            ADD_FAILURE();
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(nullptr, std::strstr(e.what(), "element 101"));
        }
        EXPECT_EQ((std::vector<std::pair<uint64, uint64>>{{7, 70}}), ContentsOf(map));
    }
}

TEST_F(PMapTest, ASortedRangeReplacesTheContentsOfAPersistentMap) {
    using Leaves = PMap<uint8, cref<TestLeaf>>;
    Leaves map = Rooted<Leaves>();
    map[200] = NewObject<TestLeaf>(200);
    WriteAll();
    std::vector<std::pair<uint8, cref<TestLeaf>>> entries;
    for (int i = 0; i < 180; ++i) entries.emplace_back(static_cast<uint8>(i), NewObject<TestLeaf>(i));
    map.assign_sorted(entries);
    EXPECT_EQ(1u, Requested().size()); // the old leaf
    EXPECT_TRUE(TransientOf(map.Tree()).empty());
    Reopen();
    const Leaves again(&Tree());
    EXPECT_EQ(180, again.size());
    for (auto [key, leaf] : again) ASSERT_EQ(key, leaf->m_number);
}

TEST_F(PMapTest, AMapPacksItselfAndItsObjectsStay) {
    using Leaves = PMap<uint64, cref<TestLeaf>>;
    Leaves map = Rooted<Leaves>();
    for (int i = 0; i < 300; ++i) map[static_cast<uint64>(i)] = NewObject<TestLeaf>(i); // half-full leaves
    WriteAll();
    map.assign_sorted(map);
    EXPECT_EQ(1 + 3, map.Tree().GetNumNodes());
    ExpectSound(map.Tree());
    m_ps->GetDQ().AccumulateDelta(m_ps);
    while (m_ps->GetDQ().DeleteSomeObjects(m_ps)) {
    }
    Reopen();
    const Leaves again(&Tree());
    EXPECT_EQ(300, again.size());
    for (auto [key, leaf] : again) ASSERT_EQ(static_cast<int32>(key), leaf->m_number);
}

TEST_F(PMapTest, AnEmptySortedRangeEmptiesTheMap) {
    Numbers map = Rooted<Numbers>();
    map[1] = 1;
    map.assign_sorted(std::vector<std::pair<uint64, uint64>>());
    EXPECT_TRUE(map.empty());
    map[2] = 2;
    EXPECT_EQ(2u, map.at(2));
}

TEST_F(PMapTest, ASetLoadsSortedTexts) {
    std::set<std::string> texts;
    for (int i = 0; i < 3000; ++i) texts.insert("text " + std::to_string(i * 7919 % 3000));
    const auto set = PSet<xstring>::FromSorted(texts, 0.9);
    EXPECT_EQ(std::ssize(texts), set.size());
    EXPECT_TRUE(
        std::equal(texts.begin(), texts.end(), set.begin(), set.end(), [](const std::string& x, const xstring& y) {
            return std::string_view(y.data(), static_cast<size_t>(y.size())) == x;
        }));
    ExpectSound(set.Tree());
}

// A constructor that throws in the middle leaves no value behind and the tree alone.
TEST_F(PMapTest, AValueThatCannotBeCopiedEndsALoadWithoutATrace) {
    Numbers map = Numbers::FromSorted(Ascending(150));
    struct Source {
        struct Iterator {
            using difference_type = std::ptrdiff_t;
            using value_type = std::pair<uint64, uint64>;
            value_type operator*() const {
                if (i == 120) throw std::runtime_error("no more");
                return {i, i};
            }
            Iterator& operator++() {
                ++i;
                return *this;
            }
            void operator++(int) { ++i; }
            bool operator==(std::default_sentinel_t) const { return i == 1000; }
            uint64 i = 0;
        };
        Iterator begin() const { return {}; }
        std::default_sentinel_t end() const { return {}; }
    };
    EXPECT_THROW(map.assign_sorted(Source()), std::runtime_error);
    EXPECT_EQ(Ascending(150), ContentsOf(map));
    ExpectSound(map.Tree());
}

} // namespace
} // namespace quna

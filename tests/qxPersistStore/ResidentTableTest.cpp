#include "qxPersistStore/src/ResidentTable.h"

#include "tests/support/TestObjects.h"

#include <map>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

// The table keeps words and looks at no object, so any distinct addresses do.
class Words {
public:
    ptr<IPersistable> operator[](std::size_t i) {
        return ptr<IPersistable>(&m_bytes[i], IPersistable::Stubs<TestLeaf>::GetTable());
    }

private:
    std::vector<char> m_bytes = std::vector<char>(1 << 16);
};

TEST(ResidentTable, StartsEmpty) {
    ResidentTable table;
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(0, table.size());
    EXPECT_EQ(table.end(), table.find(OID(1, 1)));
    EXPECT_EQ(0, table.erase(OID(1, 1)));
    EXPECT_TRUE(table.SortedEntries().empty());
    table.clear();
}

TEST(ResidentTable, AnEntryIsFoundUntilItIsErased) {
    ResidentTable table;
    Words words;
    table[OID(5, 1)] = words[0];
    ASSERT_NE(table.end(), table.find(OID(5, 1)));
    EXPECT_EQ(words[0], table.find(OID(5, 1))->second);
    EXPECT_EQ(OID(5, 1), table.find(OID(5, 1))->first);
    EXPECT_EQ(table.end(), table.find(OID(5, 2)));
    EXPECT_EQ(1, table.erase(OID(5, 1)));
    EXPECT_EQ(table.end(), table.find(OID(5, 1)));
    EXPECT_EQ(0, table.erase(OID(5, 1)));
}

TEST(ResidentTable, ANewEntryIsNull) {
    ResidentTable table;
    EXPECT_FALSE(table[OID(1, 1)]);
    EXPECT_EQ(1, table.size());
    EXPECT_FALSE(table[OID(1, 1)]);
    EXPECT_EQ(1, table.size());
}

TEST(ResidentTable, ListsItsEntriesInAscendingOrder) {
    ResidentTable table;
    Words words;
    table[OID(5, 7)] = words[1];
    table[OID(9, 6)] = words[2];
    table[OID(1, 7)] = words[3];
    const std::vector<ResidentTable::value_type> entries = table.SortedEntries();
    ASSERT_EQ(3u, entries.size());
    EXPECT_EQ(OID(9, 6), entries[0].first);
    EXPECT_EQ(OID(1, 7), entries[1].first);
    EXPECT_EQ(OID(5, 7), entries[2].first);
    EXPECT_EQ(words[1], entries[2].second);
}

// Random steps beside an ordered map. Identifiers come in runs, as the store allocates them, and a few collide.
void RunAgainstModel(unsigned seed, int numSteps, SeidLow range) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    ResidentTable table;
    std::map<OID, ptr<IPersistable>> model;
    Words words;
    for (int step = 0; step < numSteps; ++step) {
        const OID oid(static_cast<SeidLow>(random() % range), 1 + static_cast<SeidHigh>(random() % 3));
        switch (random() % 8) {
        case 0:
        case 1:
        case 2: {
            const ptr<IPersistable> value = words[random() % (1 << 16)];
            table[oid] = value;
            model[oid] = value;
            break;
        }
        case 3:
        case 4: ASSERT_EQ(static_cast<ssize_t>(model.erase(oid)), table.erase(oid)); break;
        case 5:
            if (random() % 500 == 0) {
                table.clear();
                model.clear();
            }
            break;
        default: {
            const auto found = table.find(oid);
            const auto expected = model.find(oid);
            ASSERT_EQ(expected != model.end(), found != table.end());
            if (found != table.end()) {
                ASSERT_EQ(expected->second, found->second);
            }
        }
        }
        ASSERT_EQ(static_cast<ssize_t>(model.size()), table.size());
        if (step % 1000 == 0) {
            const std::vector<ResidentTable::value_type> entries = table.SortedEntries();
            ASSERT_EQ(model.size(), entries.size());
            auto expected = model.begin();
            for (const ResidentTable::value_type& entry : entries) {
                ASSERT_EQ(expected->first, entry.first);
                ASSERT_EQ(expected->second, entry.second);
                ++expected;
            }
        }
    }
}

TEST(ResidentTable, AgreesWithAnOrderedMapOverRandomSteps) {
    for (unsigned seed = 1; seed <= 5; ++seed) {
        RunAgainstModel(seed, 20000, 50);
        RunAgainstModel(seed, 20000, 2000);
        RunAgainstModel(seed, 20000, 1u << 31);
    }
}

TEST(ResidentTable, GrowsAndShrinksThroughManyEntries) {
    ResidentTable table;
    Words words;
    constexpr SeidLow N = 100000;
    for (SeidLow low = 0; low < N; ++low) table[OID(low, 1)] = words[low % (1 << 16)];
    EXPECT_EQ(static_cast<ssize_t>(N), table.size());
    for (SeidLow low = 0; low < N; low += 2) ASSERT_EQ(1, table.erase(OID(low, 1)));
    for (SeidLow low = 0; low < N; ++low) {
        const auto found = table.find(OID(low, 1));
        ASSERT_EQ(low % 2 == 1, found != table.end());
        if (found != table.end()) {
            ASSERT_EQ(words[low % (1 << 16)], found->second);
        }
    }
}

} // namespace
} // namespace quna

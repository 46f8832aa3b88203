#include "qxUtils/xvector.h"

#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

// Counts what lives, so that a lost or doubled destruction shows.
struct Counted {
    static inline int s_numLive = 0;
    explicit Counted(int x_) : x(x_) { ++s_numLive; }
    Counted() : Counted(0) {}
    Counted(const Counted& rhs) : Counted(rhs.x) {}
    Counted(Counted&& rhs) noexcept : x(rhs.x) {
        ++s_numLive;
        rhs.x = -1;
    }
    Counted& operator=(const Counted&) = default;
    Counted& operator=(Counted&&) = default;
    ~Counted() { --s_numLive; }
    bool operator==(const Counted& rhs) const { return x == rhs.x; }
    int x;
};

TEST(XVector, GrowsFromTheBackAndIsIndexedWithSignedNumbers) {
    xvector<int> v;
    EXPECT_TRUE(v.empty());
    for (int i = 0; i < 1000; ++i) v.push_back(i);
    EXPECT_EQ(1000, v.size());
    for (ssize_t i = 0; i < 1000; ++i) EXPECT_EQ(i, v[i]);
    EXPECT_EQ(0, v.front());
    EXPECT_EQ(999, v.back());
    EXPECT_EQ(4000, v.m_buffer.size());
}

TEST(XVector, MatchesAStandardVectorOverRandomSteps) {
    std::mt19937 random(7);
    for (int round = 0; round < 50; ++round) {
        xvector<std::string> v;
        std::vector<std::string> model;
        for (int step = 0; step < 200; ++step) {
            const auto at = model.empty() ? 0 : random() % model.size();
            const std::string x = std::to_string(random()) + std::string(random() % 40, 'x');
            switch (random() % 7) {
            case 0:
            case 1:
                v.push_back(x);
                model.push_back(x);
                break;
            case 2:
                v.insert(v.begin() + at, x);
                model.insert(model.begin() + static_cast<std::ptrdiff_t>(at), x);
                break;
            case 3:
                if (!model.empty()) {
                    v.erase(v.begin() + at);
                    model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
                }
                break;
            case 4:
                if (!model.empty()) {
                    v.pop_back();
                    model.pop_back();
                }
                break;
            case 5:
                v.resize(static_cast<ssize_t>(at));
                model.resize(at);
                break;
            default:
                if (!model.empty()) {
                    v.push_back(v[static_cast<ssize_t>(at)]);
                    const std::string copy = model[at];
                    model.push_back(copy);
                }
            }
            ASSERT_EQ(model, std::vector<std::string>(v.begin(), v.end()));
        }
    }
}

TEST(XVector, EndsTheLifeOfEachElementOnce) {
    {
        xvector<Counted> v;
        for (int i = 0; i < 100; ++i) v.emplace_back(i);
        EXPECT_EQ(100, Counted::s_numLive);
        xvector<Counted> copy = v;
        EXPECT_EQ(200, Counted::s_numLive);
        copy = xvector<Counted>{Counted(1), Counted(2)};
        EXPECT_EQ(102, Counted::s_numLive);
        v.erase(v.begin() + 10, v.begin() + 60);
        EXPECT_EQ(52, Counted::s_numLive);
        EXPECT_EQ(60, v[10].x);
        v.resize(5);
        v.clear();
        EXPECT_EQ(2, Counted::s_numLive);
    }
    EXPECT_EQ(0, Counted::s_numLive);
}

TEST(XVector, HoldsElementsThatOnlyMove) {
    xvector<std::unique_ptr<int>> v;
    for (int i = 0; i < 50; ++i) v.push_back(std::make_unique<int>(i));
    EXPECT_EQ(49, *v.back());
    v.erase(v.begin());
    EXPECT_EQ(1, *v.front());
}

TEST(XVector, AnElementMayBePushedIntoItsOwnVectorWhileItGrows) {
    xvector<std::string> v = {"first, long enough to live on the heap"};
    for (int i = 0; i < 100; ++i) v.push_back(v[0]);
    EXPECT_EQ(v[0], v.back());
}

TEST(XVector, NewElementsOfAResizeAreZero) {
    xvector<int> v(3);
    EXPECT_EQ((xvector<int>{0, 0, 0}), v);
}

TEST(XVector, ComparesLikeTheStandardVector) {
    EXPECT_TRUE((xvector<int>{1, 2}) == (xvector<int>{1, 2}));
    EXPECT_TRUE((xvector<int>{1, 2}) != (xvector<int>{1, 2, 3}));
    EXPECT_TRUE((xvector<int>{1, 2}) < (xvector<int>{1, 2, 3}));
    EXPECT_TRUE((xvector<int>{1, 9}) < (xvector<int>{2}));
}

TEST(XVector, AMoveLeavesTheSourceEmpty) {
    xvector<int> a = {1, 2, 3};
    const xvector<int> b = std::move(a);
    EXPECT_EQ(3, b.size());
    EXPECT_TRUE(a.empty()); // NOLINT(bugprone-use-after-move): the state after a move is what is tested
}

TEST(VectorOfByte, GrowsWithZeroBytesAndCutsItsEnd) {
    VectorOfByte v;
    v.resize(5);
    for (const uint8 x : v) EXPECT_EQ(0, x);
    v[4] = 9;
    v.resize(100);
    EXPECT_EQ(9, v[4]);
    EXPECT_EQ(0, v[99]);
    v.resize(5);
    v.resize(6);
    EXPECT_EQ(0, v[5]);
}

TEST(VectorOfByte, AppendsItsOwnBytes) {
    VectorOfByte v("abc", 3);
    for (int i = 0; i < 5; ++i) v.append(v.data(), v.size());
    ASSERT_EQ(96, v.size());
    for (ssize_t i = 0; i < 96; ++i) EXPECT_EQ("abc"[i % 3], static_cast<char>(v[i]));
}

TEST(VectorOfByte, AZeroStandsBehindItsSize) {
    VectorOfByte v;
    for (int i = 1; i < 300; ++i) {
        v.push_back(0xff);
        ASSERT_EQ(0, v.data()[v.size()]);
    }
    v.assign("xy", 2);
    EXPECT_STREQ("xy", reinterpret_cast<const char*>(v.data()));
}

TEST(VectorOfByte, ImpossibleSizesAreRefusedAndChangeNothing) {
    VectorOfByte v("abc", 3);
    EXPECT_THROW(v.resize(-1), std::length_error);
    EXPECT_THROW(v.reserve((ssize_t{1} << 46) + 1), std::length_error);
    EXPECT_EQ(VectorOfByte("abc", 3), v);
}

TEST(VectorOfByte, OrdersByBytesAsUnsignedThenByLength) {
    EXPECT_LT(VectorOfByte("\x7f", 1), VectorOfByte("\x80", 1));
    EXPECT_LT(VectorOfByte("a", 1), VectorOfByte("ab", 2));
    EXPECT_FALSE(VectorOfByte("a", 1) < VectorOfByte("a", 1));
    EXPECT_TRUE(VectorOfByte() == VectorOfByte());
}

} // namespace
} // namespace quna

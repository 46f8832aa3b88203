#include "qxObject/DGNode.h"

#include "qxObject/CSpace.h"
#include "qxObject/DGDepNode.h"
#include "qxObject/WCSpace.h"
#include "tests/support/ExpectAssertion.h"

#include <deque>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace quna {
namespace {

// An input: a number that calculations may read.
class Input : public DGIndepNode {
public:
    explicit Input(int value) : m_value(value) {}

    int Get() const {
        ReadBarrier();
        return m_value;
    }
    void Set(int value) {
        m_value = value;
        OnChange();
    }

    void OnEvict() const override { ++m_evicted; }
    xstring Name() const override { return "Input"; }
    void VisitContainingObject(IObjectVisitor&) const override {}

    mutable int m_evicted = 0;

private:
    int m_value;
};

class DGNodeTest : public testing::Test {
protected:
    ~DGNodeTest() noexcept override {}

    CSpaceCreator cs;
    DeclareThreadPtr<CSpace> current{cs};
    CSpaceLock lock{cs, Exclusive};
};

TEST_F(DGNodeTest, AValueIsComputedOnceAndAgainWhenAnInputChanges) {
    Input a(2), b(3);
    int runs = 0;
    Calculated<int> sum("sum", [&] {
        ++runs;
        return a.Get() + b.Get();
    });
    EXPECT_EQ(sum.Get(), 5);
    EXPECT_EQ(sum.Get(), 5);
    EXPECT_EQ(runs, 1);
    a.Set(10);
    EXPECT_EQ(runs, 1); // never inside OnChange
    EXPECT_EQ(sum.Get(), 13);
    b.Set(0);
    a.Set(1);
    EXPECT_EQ(sum.Get(), 1);
    EXPECT_EQ(runs, 3);
}

TEST_F(DGNodeTest, ADiamondRecomputesEachNodeOnce) {
    Input top(1);
    int runs[3] = {};
    Calculated<int> left("left", [&] { return ++runs[0], top.Get() + 10; });
    Calculated<int> right("right", [&] { return ++runs[1], top.Get() + 20; });
    Calculated<int> bottom("bottom", [&] { return ++runs[2], left.Get() + right.Get(); });
    EXPECT_EQ(bottom.Get(), 32);
    top.Set(2);
    EXPECT_EQ(bottom.Get(), 34);
    EXPECT_EQ(runs[0], 2);
    EXPECT_EQ(runs[1], 2);
    EXPECT_EQ(runs[2], 2);
}

TEST_F(DGNodeTest, OnlyWhatWasReadLastTimeCounts) {
    Input useA(1), a(5), b(6);
    int runs = 0;
    Calculated<int> chosen("chosen", [&] { return ++runs, useA.Get() ? a.Get() : b.Get(); });
    EXPECT_EQ(chosen.Get(), 5);
    b.Set(7);
    EXPECT_EQ(chosen.Get(), 5);
    EXPECT_EQ(runs, 1);
    useA.Set(0);
    EXPECT_EQ(chosen.Get(), 7);
    a.Set(1);
    EXPECT_EQ(chosen.Get(), 7);
    EXPECT_EQ(runs, 2);
}

// A node that counts its invalidations.
class Counting : public DGDepNode {
public:
    explicit Counting(const Input& input) : m_input(input) {}

    void Compute() const {
        ReadBarrier();
        DGCalculation calculation(*this);
        for (int i = 0; i < 3; ++i) m_input.Get(); // three reads of one input are one dependency
        m_version = calculation.Finish();
    }
    bool IsCurrent() const { return m_version != 0 && m_version == Version(); }

    void OnEvict() const override { ++m_evicted; }
    xstring Name() const override { return "Counting"; }
    void VisitContainingObject(IObjectVisitor&) const override {}
    void OnInvalidate() const override { ++m_invalidated; }

    mutable int m_invalidated = 0;
    mutable int m_evicted = 0;

private:
    const Input& m_input;
    mutable uint64 m_version = 0;
};

TEST_F(DGNodeTest, AStaleNodeIsToldOnceUntilItIsComputedAgain) {
    Input input(1);
    Counting node(input);
    node.Compute();
    EXPECT_TRUE(node.IsCurrent());
    input.Set(2);
    input.Set(3);
    EXPECT_FALSE(node.IsCurrent());
    EXPECT_EQ(node.m_invalidated, 1);
    node.Compute();
    input.Set(4);
    EXPECT_EQ(node.m_invalidated, 2);
}

TEST_F(DGNodeTest, EvictionInvalidatesTheDependentsAndRunsAtOnce) {
    Input input(1);
    Counting node(input);
    node.Compute();
    input.AlwaysEvict();
    EXPECT_EQ(input.m_evicted, 1);
    EXPECT_EQ(node.m_invalidated, 1);
    EXPECT_EQ(node.m_evicted, 0);
    EXPECT_FALSE(node.IsCurrent());
}

TEST_F(DGNodeTest, AllNodesOfADomainThatWereReadAreEvicted) {
    Input input(1), unread(2);
    Counting node(input);
    node.Compute();
    CSpaceCreator other;
    Input elsewhere(3);
    {
        DeclareThreadPtr<CSpace> declare(other);
        elsewhere.Get();
    }
    EvictAllDgsNodes(cs);
    EXPECT_EQ(input.m_evicted, 1);
    EXPECT_EQ(node.m_evicted, 1);
    EXPECT_EQ(unread.m_evicted, 0);
    EXPECT_EQ(elsewhere.m_evicted, 0);
    EvictAllDgsNodes(cs);
    EXPECT_EQ(input.m_evicted, 1); // it is listed again when it is read again
    input.Get();
    EvictAllDgsNodes(cs);
    EXPECT_EQ(input.m_evicted, 2);
}

// A node that frees itself when it is evicted, as placeholders do.
class SelfDeleting : public DGIndepNode {
public:
    explicit SelfDeleting(int& alive) : m_alive(alive) { ++m_alive; }
    ~SelfDeleting() noexcept(false) override { --m_alive; }

    void OnEvict() const override { delete this; }
    xstring Name() const override { return "SelfDeleting"; }
    void VisitContainingObject(IObjectVisitor&) const override {}

private:
    int& m_alive;
};

TEST_F(DGNodeTest, ANodeMayDeleteItselfWhenItIsEvicted) {
    int alive = 0;
    for (int i = 0; i < 10; ++i) (new SelfDeleting(alive))->ReadBarrier();
    (new SelfDeleting(alive))->AlwaysEvict(); // never read
    EXPECT_EQ(alive, 10);
    EvictAllDgsNodes(cs);
    EXPECT_EQ(alive, 0);
}

class Pinned : public Input {
public:
    using Input::Input;
    bool IsEvictable() const override { return false; }
};

TEST_F(DGNodeTest, ANodeThatIsNotEvictableStays) {
    Pinned input(1);
    input.Get();
    EvictAllDgsNodes(cs);
    EXPECT_EQ(input.m_evicted, 0);
}

TEST(DGNode, TheEndOfADomainEvictsItsNodesAndForgetsTheOthers) {
    int alive = 0;
    Pinned pinned(1);
    CSpace* cs = CreateCSpace();
    SetThreadCSpace(cs);
    pinned.Get();
    (new SelfDeleting(alive))->ReadBarrier();
    Destroy(cs);
    EXPECT_EQ(alive, 0);
    CSpaceCreator next;
    DeclareThreadPtr<CSpace> current(next);
    pinned.Get(); // listed anew
}

TEST_F(DGNodeTest, ADependentMayEndBeforeItsInputAndTheOtherWayRound) {
    Input input(1);
    {
        Counting node(input);
        node.Compute();
    }
    input.Set(2);
    auto shortLived = std::make_unique<Input>(1);
    Counting node(*shortLived);
    node.Compute();
    shortLived.reset();
    EXPECT_EQ(node.m_invalidated, 1);
    EXPECT_FALSE(node.IsCurrent());
}

TEST_F(DGNodeTest, AChangeDuringTheCalculationIsNotLost) {
    Input input(1);
    bool disturb = true;
    Calculated<int> node("node", [&] {
        const int value = input.Get();
        if (disturb) {
            disturb = false;
            input.Set(value + 1);
        }
        return value;
    });
    Calculated<int> outer("outer", [&] { return node.Get() * 100; });
    EXPECT_EQ(outer.Get(), 100); // good when it was read, but not kept
    EXPECT_EQ(outer.Get(), 200);
}

TEST_F(DGNodeTest, EvictingWhatIsBeingCalculatedKeepsNothing) {
    Input input(1);
    int runs = 0;
    std::optional<Calculated<int>> node;
    node.emplace("node", [&] {
        if (++runs == 1) node->AlwaysEvict();
        return input.Get();
    });
    EXPECT_EQ(node->Get(), 1);
    EXPECT_EQ(node->Get(), 1);
    EXPECT_EQ(runs, 2);
}

TEST_F(DGNodeTest, ACycleIsAnAssertionThatNamesIt) {
    std::optional<Calculated<int>> a, b, c;
    c.emplace("c", [&] { return a->Get(); });
    b.emplace("b", [&] { return c->Get(); });
    a.emplace("a", [&] { return b->Get(); });
    ExpectAssertion("cycle in a calculation: a -> b -> c -> a", [&] { a->Get(); });
    ExpectAssertion("cycle in a calculation: b -> c -> a -> b", [&] { b->Get(); }); // nothing was left behind
}

TEST_F(DGNodeTest, ACalculationThatThrowsIsTriedAgain) {
    Input input(0);
    Calculated<int> node("node", [&] {
        if (input.Get() == 0) throw std::runtime_error("zero");
        return 10 / input.Get();
    });
    Calculated<int> outer("outer", [&] { return node.Get() + 1; });
    EXPECT_THROW(outer.Get(), std::runtime_error);
    EXPECT_THROW(outer.Get(), std::runtime_error);
    input.Set(5);
    EXPECT_EQ(outer.Get(), 3);
}

TEST_F(DGNodeTest, ADataSourceIsKnownByItsAddress) {
    int source = 1, other = 2, runs = 0;
    Calculated<int> node("node", [&] {
        ++runs;
        DataSourceReadBarrier(&source);
        return source;
    });
    Calculated<int> outer("outer", [&] { return node.Get() + 1; });
    DataSourceEvict(&source); // nobody depends on it yet
    EXPECT_EQ(outer.Get(), 2);
    source = 5;
    DataSourceEvict(&other);
    EXPECT_EQ(outer.Get(), 2);
    DataSourceEvict(&source);
    EXPECT_EQ(outer.Get(), 6);
    EXPECT_EQ(runs, 2);
}

TEST_F(DGNodeTest, LongChainsAreInvalidatedWithoutRecursion) {
    Input input(1);
    std::deque<Calculated<int>> chain;
    chain.emplace_back("first", [&] { return input.Get(); });
    EXPECT_EQ(chain.back().Get(), 1);
    for (int i = 1; i < 100000; ++i) {
        const Calculated<int>& previous = chain.back();
        chain.emplace_back("link", [&previous] { return previous.Get() + 1; });
        chain.back().Get(); // bottom up, so that the calculation itself doesn't nest either
    }
    EXPECT_EQ(chain.back().Get(), 100000);
    const uint64 version = chain.back().Version();
    input.Set(2);
    EXPECT_NE(chain.back().Version(), version);
}

TEST(DGNodeThreads, ReadersUnderTheSharedLockCalculateSideBySide) {
    CSpaceCreator cs;
    Input input(0);
    Calculated<int> twice("twice", [&] { return input.Get() * 2; });
    Calculated<int> outer("outer", [&] { return twice.Get() + input.Get(); });

    constexpr int LAST = 600;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            DeclareThreadPtr<CSpace> current(cs);
            for (int last = 0; last < 3 * LAST;) {
                CSpaceLock lock(cs, SharedRead);
                const int value = outer.Get();
                EXPECT_EQ(value % 3, 0);
                EXPECT_GE(value, last);
                last = value;
            }
        });
    }
    threads.emplace_back([&] {
        DeclareThreadPtr<CSpace> current(cs);
        for (int i = 1; i <= LAST; ++i) {
            CSpaceLock lock(cs, Exclusive);
            if (i % 50 == 0) EvictAllDgsNodes(cs);
            input.Set(i);
        }
    });
    for (std::thread& thread : threads) thread.join();
}

} // namespace
} // namespace quna

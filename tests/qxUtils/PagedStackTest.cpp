#include "qxUtils/PagedStack.h"

#include "qxUtils/Exceptions.h"

#include <new>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using Stack = PagedStack<int64, 8>;

TEST(PagedStack, GivesBackTheLastPushedFirst) {
    PagedStack<int64, 1024> s;
    for (int64 x = 0; x < 5000; ++x) s.push(x);
    EXPECT_EQ(5000, s.size());
    for (int64 x = 4999; x >= 0; --x) EXPECT_EQ(x, s.pop());
    EXPECT_TRUE(s.empty());
}

TEST(PagedStack, APageThatWasJustEmptiedIsReleasedByTheNextPop) {
    Stack s;
    for (int64 x = 0; x < 9; ++x) s.push(x);
    Stack::Page* second = s.last_;
    EXPECT_EQ(8, s.pop());
    EXPECT_EQ(second, s.last_);
    EXPECT_EQ(0, s.last_->m_count);
    EXPECT_EQ(7, s.pop());
    EXPECT_EQ(s.first_, s.last_);
    EXPECT_EQ(nullptr, s.last_->next_);
    EXPECT_EQ(7, s.last_->m_count);
}

TEST(PagedStack, PushingOnAnEmptiedTopPageUsesIt) {
    Stack s;
    for (int64 x = 0; x < 9; ++x) s.push(x);
    Stack::Page* second = s.last_;
    s.pop();
    s.push(20);
    EXPECT_EQ(second, s.last_);
    EXPECT_EQ(20, s.pop());
    EXPECT_EQ(8, s.size());
}

TEST(PagedStack, KeepsItsFirstPageWhenItRunsEmpty) {
    Stack s;
    s.push(1);
    Stack::Page* first = s.first_;
    s.pop();
    EXPECT_EQ(first, s.last_);
    s.push(2);
    EXPECT_EQ(first, s.last_);
    EXPECT_EQ(2, s.pop());
}

TEST(PagedStack, RefusesToPopWhatIsNotThere) {
    const auto expect = [](const char* text, auto act) {
        try {
            act();
            ADD_FAILURE() << "no assertion failed: " << text;
        } catch (const QunaAssertionError& e) {
            EXPECT_STREQ(text, e.GetText());
            EXPECT_STREQ("PagedStack", e.GetPath());
        }
    };
    Stack s;
    expect("last_ != nullptr", [&] { s.pop(); });
    s.push(1);
    s.pop();
    expect("size_ > 0", [&] { s.pop(); });
}

TEST(PagedStack, ClearAndSwapKeepTheInvariants) {
    Stack a;
    Stack b;
    for (int64 x = 0; x < 20; ++x) a.push(x);
    a.swap(b);
    EXPECT_TRUE(a.empty());
    EXPECT_EQ(19, b.pop());
    b.clear();
    EXPECT_TRUE(b.empty());
    b.push(3);
    EXPECT_EQ(3, b.pop());
}

TEST(PagedStack, RandomWorkAgreesWithAVector) {
    const unsigned seed = 77;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    Stack s;
    std::vector<int64> model;
    for (int64 step = 0; step < 20000; ++step) {
        // Phases that mostly grow alternate with phases that mostly shrink.
        const bool grow = std::uniform_int_distribution<int>(0, 9)(random) < (step / 500 % 2 == 0 ? 7 : 3);
        if (grow || model.empty()) {
            s.push(step);
            model.push_back(step);
        } else {
            ASSERT_EQ(model.back(), s.pop());
            model.pop_back();
        }
        ASSERT_EQ(static_cast<ssize_t>(model.size()), s.size());
    }
}

struct Element {
    static inline int s_allowed = 1 << 30;
    int64 m_value = 0;
    Element() {
        if (s_allowed-- <= 0) throw std::bad_alloc();
    }
    explicit Element(int64 value) : m_value(value) {}
};

TEST(PagedStack, AFailedPageAllocationLeavesTheContentUnchanged) {
    PagedStack<Element, 4> s;
    const Element x(5);
    Element::s_allowed = 0;
    EXPECT_THROW(s.push(x), std::bad_alloc);
    EXPECT_EQ(0, s.size());
    Element::s_allowed = 4;
    for (int i = 0; i < 4; ++i) s.push(x);
    EXPECT_THROW(s.push(x), std::bad_alloc);
    Element::s_allowed = 1 << 30;
    EXPECT_EQ(4, s.size());
    EXPECT_EQ(5, s.pop().m_value);
    s.push(x);
    s.push(x);
    EXPECT_EQ(5, s.size());
}

} // namespace
} // namespace quna

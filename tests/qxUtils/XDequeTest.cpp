#include "qxUtils/xdeque.h"

#include "qxUtils/Exceptions.h"

#include <functional>
#include <new>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using Deque = xdeque<int64, 8>;

// The invariants of the sequence, and its content as a vector.
template <class D>
std::vector<typename D::value_type> Content(const D& d) {
    std::vector<typename D::value_type> content;
    ssize_t total = 0;
    const typename D::Page* prev = nullptr;
    for (const typename D::Page* p = d.first_; p; p = p->next_) {
        EXPECT_LE(0, p->m_t1);
        EXPECT_LT(p->m_t1, p->m_t2);
        EXPECT_EQ(p->prev_, prev);
        total += p->size();
        prev = p;
    }
    EXPECT_EQ(d.last_, prev);
    EXPECT_EQ(d.size(), total);
    for (const auto& x : d) content.push_back(x);
    EXPECT_EQ(static_cast<ssize_t>(content.size()), total);
    return content;
}

template <class D>
ssize_t NumPages(const D& d) {
    ssize_t n = 0;
    for (const auto* p = d.first_; p; p = p->next_) ++n;
    return n;
}

std::vector<int64> Range(int64 from, int64 to) {
    std::vector<int64> values(static_cast<size_t>(to - from));
    std::iota(values.begin(), values.end(), from);
    return values;
}

template <class D>
void Fill(D& d, int64 from, int64 to) {
    for (int64 x = from; x < to; ++x) d.push_back(x);
}

template <class D>
typename D::iterator At(D& d, ssize_t index) {
    auto i = d.begin();
    for (; index > 0; --index) ++i;
    return i;
}

void ExpectAssertion(const std::string& text, const std::function<void()>& act) {
    try {
        act();
        ADD_FAILURE() << "no assertion failed: " << text;
    } catch (const QunaAssertionError& e) {
        EXPECT_EQ(text, e.GetText());
        EXPECT_STREQ("xdeque", e.GetPath());
    }
}

TEST(XDeque, KeepsWhatWasPushedInOrder) {
    xdeque<int64, 512> d;
    EXPECT_TRUE(d.empty());
    Fill(d, 0, 2000);
    EXPECT_EQ(2000, d.size());
    EXPECT_EQ(0, d.front());
    EXPECT_EQ(1999, d.back());
    EXPECT_EQ(Range(0, 2000), Content(d));
    for (int64 x = 1999; x >= 0; --x) {
        EXPECT_EQ(x, d.back());
        d.pop_back();
    }
    EXPECT_TRUE(d.empty());
    EXPECT_EQ(nullptr, d.first_);
    EXPECT_EQ(nullptr, d.last_);
}

TEST(XDeque, PushBackOnAnEmptyDequeStartsAtIndexZero) {
    Deque d;
    d.push_back(7);
    EXPECT_EQ(0, d.first_->m_t1);
    EXPECT_EQ(1, d.first_->m_t2);
    EXPECT_EQ(7, d.first_->m_buffer[0]);
}

TEST(XDeque, AFreshPageHasItsWindowInTheMiddle) {
    Deque::PageAllocator allocator;
    Deque::Page* p = allocator.Get();
    EXPECT_EQ(4, p->m_t1);
    EXPECT_EQ(4, p->m_t2);
    EXPECT_EQ(0, p->m_buffer[0]);
    allocator.Return(p);
}

TEST(XDeque, TheElementAfterAFullPageGetsASecondPage) {
    xdeque<int64, 512> d;
    Fill(d, 0, 512);
    EXPECT_EQ(d.first_, d.last_);
    d.push_back(512);
    ASSERT_NE(d.first_, d.last_);
    EXPECT_EQ(512, d.first_->size());
    EXPECT_EQ(0, d.last_->m_t1);
    EXPECT_EQ(1, d.last_->m_t2);
}

TEST(XDeque, OscillatingAcrossAPageBoundaryReusesTheSparePage) {
    Deque d;
    Fill(d, 0, 9);
    Deque::Page* second = d.last_;
    for (int i = 0; i < 5; ++i) {
        d.pop_back();
        EXPECT_EQ(second, d.m_allocator.m_free);
        EXPECT_EQ(nullptr, d.last_->next_);
        d.push_back(8);
        EXPECT_EQ(second, d.last_);
        EXPECT_EQ(nullptr, d.m_allocator.m_free);
        EXPECT_EQ(Range(0, 9), Content(d));
    }
}

TEST(XDeque, ClearKeepsThePageThatStoodFirstAsSpare) {
    Deque d;
    Fill(d, 0, 30);
    Deque::Page* first = d.first_;
    d.clear();
    EXPECT_EQ(0, d.size());
    EXPECT_EQ(nullptr, d.first_);
    EXPECT_EQ(nullptr, d.last_);
    EXPECT_EQ(first, d.m_allocator.m_free);
    Fill(d, 0, 3);
    EXPECT_EQ(first, d.first_);
    EXPECT_EQ(Range(0, 3), Content(d));
}

TEST(XDeque, IterationStaysOnTheLastPageAtTheEnd) {
    Deque d;
    Fill(d, 0, 16);
    EXPECT_EQ(2, NumPages(d));
    Deque::iterator i = d.begin();
    EXPECT_EQ(d.first_, i.m_page);
    EXPECT_EQ(0, i.m_index);
    EXPECT_EQ(0, i.m_overallIndex);
    for (int k = 0; k < 16; ++k, ++i) EXPECT_EQ(k, *i);
    EXPECT_EQ(d.end(), i);
    EXPECT_EQ(d.last_, i.m_page);
    EXPECT_EQ(8, i.m_index);
    EXPECT_EQ(16, i.m_overallIndex);
    for (int k = 15; k >= 0; --k) EXPECT_EQ(k, *--i);
    EXPECT_EQ(d.begin(), i);
}

TEST(XDeque, BeginAndEndOfAnEmptyDequeAreTheNullPosition) {
    const Deque d;
    EXPECT_EQ(d.begin(), d.end());
    EXPECT_EQ(nullptr, d.begin().m_page);
    EXPECT_EQ(-1, d.end().m_index);
    EXPECT_EQ(0, d.end().m_overallIndex);
}

TEST(XDeque, InsertSpaceOfNothingReturnsThePositionUnchanged) {
    Deque d;
    Fill(d, 0, 5);
    const auto i = d.InsertSpace(At(d, 2), 0);
    EXPECT_EQ(2, i.m_index);
    EXPECT_EQ(Range(0, 5), Content(d));
}

TEST(XDeque, InsertSpaceIntoAnEmptyDequePutsThePartialPageFirst) {
    Deque d;
    auto i = d.InsertSpace(d.end(), 19);
    EXPECT_EQ(d.first_, i.m_page);
    EXPECT_EQ(0, i.m_index);
    EXPECT_EQ(0, i.m_overallIndex);
    EXPECT_EQ(19, d.size());
    EXPECT_EQ(3, NumPages(d));
    EXPECT_EQ(3, d.first_->size());
    EXPECT_EQ(8, d.first_->next_->size());
    EXPECT_EQ(8, d.last_->size());
    for (int64 x = 0; x < 19; ++x, ++i) *i = x;
    EXPECT_EQ(Range(0, 19), Content(d));
}

TEST(XDeque, InsertSpaceOfWholePagesHasNoPartialPage) {
    Deque d;
    d.InsertSpace(d.end(), 16);
    EXPECT_EQ(2, NumPages(d));
    EXPECT_EQ(8, d.first_->size());
}

TEST(XDeque, InsertSpaceUsesTheRoomAboveTheWindow) {
    Deque d;
    Fill(d, 0, 5);
    const auto gap = d.InsertSpace(At(d, 2), 3);
    EXPECT_EQ(2, gap.m_index);
    EXPECT_EQ(1, NumPages(d));
    EXPECT_EQ(0, d.first_->m_t1);
    EXPECT_EQ(8, d.first_->m_t2);
    EXPECT_EQ(4, d.first_->m_buffer[7]);
}

TEST(XDeque, InsertSpacePrefersTheRoomBelowTheWindow) {
    Deque d;
    Fill(d, 0, 5);
    d.first_->m_t1 = 2; // the window of a page whose front was taken
    d.size_ = 3;
    const auto gap = d.InsertSpace(At(d, 1), 2);
    EXPECT_EQ(1, gap.m_index);
    EXPECT_EQ(1, gap.m_overallIndex);
    EXPECT_EQ(0, d.first_->m_t1);
    EXPECT_EQ(5, d.first_->m_t2);
    EXPECT_EQ(2, d.first_->m_buffer[0]);
    EXPECT_EQ(3, d.first_->m_buffer[3]);
    EXPECT_EQ(5, d.size());
}

TEST(XDeque, InsertSpaceAtTheEndOfAFullLastPageAppendsPages) {
    Deque d;
    Fill(d, 0, 8);
    const auto gap = d.InsertSpace(d.end(), 11);
    EXPECT_EQ(3, NumPages(d));
    EXPECT_EQ(d.first_->next_, gap.m_page);
    EXPECT_EQ(3, gap.m_page->size());
    EXPECT_EQ(8, gap.m_overallIndex);
    EXPECT_EQ(8, d.last_->size());
}

TEST(XDeque, InsertSpaceAtTheStartOfAFullPagePutsPagesInFrontOfIt) {
    Deque d;
    Fill(d, 0, 16);
    Deque::Page* second = d.last_;
    const auto gap = d.InsertSpace(At(d, 8), 9);
    EXPECT_EQ(4, NumPages(d));
    EXPECT_EQ(d.first_->next_, gap.m_page);
    EXPECT_EQ(1, gap.m_page->size());
    EXPECT_EQ(second, d.last_);
    const auto front = d.InsertSpace(d.begin(), 1);
    EXPECT_EQ(d.first_, front.m_page);
    EXPECT_EQ(26, d.size());
}

TEST(XDeque, InsertingManyElementsInTheMiddleOfAPageSplitsIt) {
    xdeque<int64, 512> d;
    Fill(d, 0, 100);
    Fill(d, 1100, 1512);
    const auto values = Range(100, 1100);
    const auto gap = d.insert(At(d, 100), values.begin(), values.end());
    EXPECT_EQ(100, *gap);
    EXPECT_EQ(100, gap.m_overallIndex);
    EXPECT_EQ(Range(0, 1512), Content(d));
    ASSERT_EQ(4, NumPages(d));
    EXPECT_EQ(100, d.first_->size());
    EXPECT_EQ(1000 % 512, d.first_->next_->size());
    EXPECT_EQ(412, d.last_->size());
    EXPECT_EQ(0, d.last_->m_t1);
}

TEST(XDeque, SplittingAPageInFrontOfAnotherKeepsTheLinks) {
    Deque d;
    Fill(d, 0, 4);
    Fill(d, 14, 26);
    const auto values = Range(4, 14);
    d.insert(At(d, 4), values.begin(), values.end());
    EXPECT_EQ(Range(0, 26), Content(d));
}

TEST(XDeque, RandomInsertionsAgreeWithAVector) {
    const unsigned seed = 20240611;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 30; ++round) {
        Deque d;
        std::vector<int64> model;
        for (int step = 0; step < 60; ++step) {
            const size_t at = std::uniform_int_distribution<size_t>(0, model.size())(random);
            const auto values = Range(step * 100, step * 100 + std::uniform_int_distribution<int>(0, 20)(random));
            const auto gap = d.insert(At(d, static_cast<ssize_t>(at)), values.begin(), values.end());
            EXPECT_EQ(static_cast<ssize_t>(at), gap.m_overallIndex);
            model.insert(model.begin() + static_cast<ssize_t>(at), values.begin(), values.end());
            if (step % 3 == 0 && !model.empty()) {
                d.pop_back();
                model.pop_back();
            }
            d.push_back(step);
            model.push_back(step);
            ASSERT_EQ(model, Content(d));
        }
    }
}

TEST(XDeque, ResizeGrowsWithDefaultElementsAndShrinksFromTheBack) {
    Deque d;
    Fill(d, 1, 12);
    d.pop_back();
    d.resize(13);
    EXPECT_EQ(13, d.size());
    EXPECT_EQ(10, Content(d)[9]);
    EXPECT_EQ(0, Content(d)[10]);
    EXPECT_EQ(0, d.back());
    d.resize(4);
    EXPECT_EQ(Range(1, 5), Content(d));
    d.resize(0);
    EXPECT_EQ(nullptr, d.first_);
}

TEST(XDeque, TakePagesMovesTheContentAndLeavesBothSparePages) {
    Deque a;
    Deque b;
    Fill(a, 0, 9);
    Fill(b, 0, 20);
    b.pop_back();
    b.pop_back();
    b.pop_back();
    b.pop_back(); // its third page becomes the spare
    Deque::Page* spareOfB = b.m_allocator.m_free;
    ASSERT_NE(nullptr, spareOfB);
    Deque::Page* pageOfB = b.first_;
    a.TakePages(b);
    EXPECT_EQ(Range(0, 16), Content(a));
    EXPECT_EQ(pageOfB, a.first_);
    EXPECT_NE(nullptr, a.m_allocator.m_free);
    EXPECT_TRUE(b.empty());
    EXPECT_EQ(nullptr, b.first_);
    EXPECT_EQ(nullptr, b.last_);
    EXPECT_EQ(spareOfB, b.m_allocator.m_free);
    a.TakePages(a);
    EXPECT_EQ(Range(0, 16), Content(a));
}

TEST(XDeque, SwapExchangesTheContents) {
    Deque a;
    Deque b;
    Fill(a, 0, 9);
    a.swap(b);
    EXPECT_TRUE(a.empty());
    EXPECT_EQ(Range(0, 9), Content(b));
}

// Each allocation of a page fails while s_failing is set.
struct Element {
    static inline int s_allowed = 1 << 30;
    int64 m_value = 0;
    Element() {
        if (s_allowed-- <= 0) throw std::bad_alloc();
    }
    explicit Element(int64 value) : m_value(value) {}
    bool operator==(const Element&) const = default;
};

TEST(XDeque, AFailedPageAllocationLeavesTheContentUnchanged) {
    xdeque<Element, 4> d;
    for (int64 x = 0; x < 4; ++x) d.push_back(Element(x));
    const std::vector<Element> before = Content(d);
    const std::vector<Element> more(21, Element(9));
    for (int allowed : {0, 2, 4, 7, 9, 12, 16}) {
        Element::s_allowed = allowed;
        if (allowed == 0) {
            EXPECT_THROW(d.push_back(more[0]), std::bad_alloc);
        }
        EXPECT_THROW(d.insert(At(d, 2), more.begin(), more.end()), std::bad_alloc);
        Element::s_allowed = 1 << 30;
        EXPECT_EQ(before, Content(d));
    }
    d.insert(At(d, 2), more.begin(), more.end());
    EXPECT_EQ(25, d.size());
    EXPECT_EQ(Element(3), Content(d).back());
}

TEST(XDeque, RefusesToReadOrPopWhatIsNotThere) {
    Deque d;
    ExpectAssertion("size_ > 0", [&] { d.pop_back(); });
    ExpectAssertion("last_", [&] { d.back(); });
    ExpectAssertion("first_", [&] { d.front(); });
    ExpectAssertion("m_page", [&] { ++d.begin(); });
    Fill(d, 0, 3);
    ExpectAssertion("m_page->m_t1 <= m_index && m_index < m_page->m_t2", [&] { ++d.end(); });
    ExpectAssertion("m_page->m_t1 <= m_index && m_index < m_page->m_t2", [&] { *d.end(); });
    ExpectAssertion("0 <= n", [&] { d.InsertSpace(d.begin(), -1); });
}

TEST(XDeque, RefusesPositionsThatAreNotItsOwn) {
    Deque d;
    Fill(d, 0, 3);
    Deque::iterator i = d.end();
    i.m_overallIndex = 4;
    ExpectAssertion("0 <= it.m_overallIndex && it.m_overallIndex <= size_", [&] { d.InsertSpace(i, 1); });
    i = d.end();
    i.m_index = 4;
    ExpectAssertion("p->m_t1 <= i && i <= p->m_t2", [&] { d.InsertSpace(i, 1); });
    Deque::iterator none;
    none.m_index = 0;
    ExpectAssertion("i == -1", [&] { d.InsertSpace(none, 1); });
    none = Deque::iterator();
    ExpectAssertion("size_ == 0", [&] { d.InsertSpace(none, 1); });
}

TEST(XDeque, MovesInAPageRefuseTheWrongDirectionAndNull) {
    int64 a[4] = {1, 2, 3, 4};
    Deque::Page::MoveDown(a, a + 1, a + 4);
    EXPECT_EQ(2, a[0]);
    EXPECT_EQ(4, a[2]);
    Deque::Page::MoveUp(a, a + 3, a + 4);
    EXPECT_EQ(2, a[1]);
    EXPECT_EQ(4, a[3]);
    ExpectAssertion("d1 <= s1", [&] { Deque::Page::MoveDown(a + 2, a + 1, a + 2); });
    ExpectAssertion("d2 >= s2", [&] { Deque::Page::MoveUp(a, a + 3, a + 2); });
    ExpectAssertion("s1", [&] { Deque::Page::MoveDown(a, nullptr, a); });
    ExpectAssertion("s2", [&] { Deque::Page::MoveDown(a, a, nullptr); });
    ExpectAssertion("d2", [&] { Deque::Page::MoveUp(a, a, nullptr); });
}

} // namespace
} // namespace quna

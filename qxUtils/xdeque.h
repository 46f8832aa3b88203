// A sequence in a doubly linked list of fixed pages: the store's queues.
//
// Pushing at the back and popping there touch one page and never move an element; a range inserted in the middle moves
// elements within one page or splits it, never the tail of the sequence. A whole queue changes hands in three words
// (TakePages, swap), which is what lets its owner take it out under a mutex and work on it outside.
#pragma once

#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <type_traits>
#include <utility>

namespace quna {

// Ownership: owns its pages and at most one spare page.
// Threads:   none of its own; the owner guards it.
// Invariants: every page on the list is non-empty; an empty sequence has no page; the sizes of the pages add up to
//   size_; first_->prev_ and last_->next_ are null.
//
// T is copyable and default-constructible. An element that was popped stays in its page until the place is used again.
// The fields are open to white-box tests; code uses the operations.
template <class T, ssize_t pageSize>
class xdeque {
public:
    static_assert(pageSize > 0);

    // The live elements are m_buffer[m_t1] up to but not including m_buffer[m_t2]. The window may lie anywhere in the
    // page, so a page can grow at either end.
    struct Page {
        T m_buffer[pageSize];
        ssize_t m_t1 = pageSize / 2;
        ssize_t m_t2 = pageSize / 2;
        Page* prev_ = nullptr;
        Page* next_ = nullptr;

        // Written out: with a default member initialiser for m_buffer, g++ 12 leaks the page when an element's
        // constructor throws.
        Page() : m_buffer{} {}

        ssize_t size() const noexcept { return m_t2 - m_t1; }

        // Copies [s1,s2) to d1, which does not lie above s1; the ranges may overlap.
        static void MoveDown(T* d1, const T* s1, const T* s2) {
            QX_ASSERT_IN("xdeque", s1);
            QX_ASSERT_IN("xdeque", s2);
            QX_ASSERT_IN("xdeque", d1 <= s1);
            std::copy(s1, s2, d1);
        }

        // Copies [s1,s2) so that the copy ends at d2, which does not lie below s2; the ranges may overlap.
        static void MoveUp(const T* s1, const T* s2, T* d2) {
            QX_ASSERT_IN("xdeque", s1);
            QX_ASSERT_IN("xdeque", s2);
            QX_ASSERT_IN("xdeque", d2);
            QX_ASSERT_IN("xdeque", d2 >= s2);
            std::copy_backward(s1, s2, d2);
        }

        // Opens a gap of n elements before index i without leaving the page, and returns the index where the gap
        // begins; -1, and nothing done, if there is no room below or above the window.
        ssize_t InsertSpaceInPage(ssize_t i, ssize_t n) {
            if (n <= m_t1) {
                MoveDown(m_buffer + m_t1 - n, m_buffer + m_t1, m_buffer + i);
                m_t1 -= n;
                return i - n;
            }
            if (n <= pageSize - m_t2) {
                MoveUp(m_buffer + i, m_buffer + m_t2, m_buffer + m_t2 + n);
                m_t2 += n;
                return i;
            }
            return -1;
        }
    };

    // Where pages come from and go to. Keeps one spare page, so that a queue that oscillates across a page boundary
    // does not allocate.
    struct PageAllocator {
        Page* m_free = nullptr;

        PageAllocator() = default;
        PageAllocator(const PageAllocator&) = delete;
        PageAllocator& operator=(const PageAllocator&) = delete;
        ~PageAllocator() { delete m_free; }

        // A page with null links. Its window and its elements are whatever they were.
        Page* Get() {
            if (!m_free) return new Page;
            Page* p = std::exchange(m_free, nullptr);
            p->prev_ = nullptr;
            p->next_ = nullptr;
            return p;
        }

        void Return(Page* p) noexcept {
            if (m_free)
                delete p;
            else
                m_free = p;
        }
    };

    // A position. Positions compare by m_overallIndex alone; those of two different sequences do not compare.
    // The position behind the last element stays on the last page.
    struct IteratorPolicy {
        Page* m_page = nullptr;
        ssize_t m_index = -1;       // within m_page->m_buffer
        ssize_t m_overallIndex = 0; // within the sequence

        T& Element() const {
            CheckWindow();
            return m_page->m_buffer[m_index];
        }

        void Increment() {
            CheckWindow();
            ++m_index;
            ++m_overallIndex;
            if (m_index == m_page->m_t2 && m_page->next_) {
                m_page = m_page->next_;
                m_index = m_page->m_t1;
            }
        }

        void Decrement() {
            QX_ASSERT_IN("xdeque", m_page);
            if (m_index == m_page->m_t1) {
                m_page = m_page->prev_;
                QX_ASSERT_IN("xdeque", m_page);
                m_index = m_page->m_t2;
            }
            --m_index;
            --m_overallIndex;
            CheckWindow();
        }

        friend bool operator==(const IteratorPolicy& x, const IteratorPolicy& y) noexcept {
            return x.m_overallIndex == y.m_overallIndex;
        }
        friend auto operator<=>(const IteratorPolicy& x, const IteratorPolicy& y) noexcept {
            return x.m_overallIndex <=> y.m_overallIndex;
        }

    private:
        void CheckWindow() const {
            QX_ASSERT_IN("xdeque", m_page);
            QX_ASSERT_IN("xdeque", 0 <= m_page->m_t1 && m_page->m_t1 < m_page->m_t2 && m_page->m_t2 <= pageSize);
            QX_ASSERT_IN("xdeque", m_page->m_t1 <= m_index && m_index < m_page->m_t2);
        }
    };

    template <class Value>
    struct IteratorOver : IteratorPolicy {
        using iterator_category = std::bidirectional_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = Value*;
        using reference = Value&;

        IteratorOver() = default;
        explicit IteratorOver(const IteratorPolicy& position) : IteratorPolicy(position) {}
        // A position that may write is also one that may read.
        operator IteratorOver<const T>() const requires(!std::is_const_v<Value>) {
            return IteratorOver<const T>(*this);
        }

        reference operator*() const { return this->Element(); }
        pointer operator->() const { return &this->Element(); }
        IteratorOver& operator++() {
            this->Increment();
            return *this;
        }
        IteratorOver operator++(int) {
            IteratorOver before(*this);
            this->Increment();
            return before;
        }
        IteratorOver& operator--() {
            this->Decrement();
            return *this;
        }
        IteratorOver operator--(int) {
            IteratorOver before(*this);
            this->Decrement();
            return before;
        }
    };

    using make_iterator = IteratorOver<T>;
    using make_const_iterator = IteratorOver<const T>;
    using iterator = make_iterator;
    using const_iterator = make_const_iterator;
    using value_type = T;
    using size_type = ssize_t;
    using difference_type = std::ptrdiff_t;
    using reference = T&;
    using const_reference = const T&;

    xdeque() = default;
    xdeque(const xdeque&) = delete;
    xdeque& operator=(const xdeque&) = delete;
    ~xdeque() { clear(); }

    ssize_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }

    T& front() { return *FrontElement(); }
    const T& front() const { return *FrontElement(); }
    T& back() { return *BackElement(); }
    const T& back() const { return *BackElement(); }

    iterator begin() noexcept { return iterator(BeginPosition()); }
    const_iterator begin() const noexcept { return const_iterator(BeginPosition()); }
    iterator end() noexcept { return iterator(EndPosition()); }
    const_iterator end() const noexcept { return const_iterator(EndPosition()); }

    // Unchanged if no page can be allocated.
    void push_back(const T& x) {
        if (last_) {
            QX_ASSERT_IN("xdeque", first_);
            QX_ASSERT_IN("xdeque", first_->prev_ == nullptr);
            QX_ASSERT_IN("xdeque", last_->next_ == nullptr);
        }
        if (!last_ || last_->m_t2 == pageSize) {
            // x may lie in this sequence: a page never moves, so the reference stays good.
            LinkInFront(GetPageForPushBack(), nullptr);
            QX_ASSERT_IN("xdeque", last_->next_ == nullptr);
        }
        last_->m_buffer[last_->m_t2] = x;
        ++last_->m_t2;
        ++size_;
    }

    void pop_back() {
        QX_ASSERT_IN("xdeque", size_ > 0);
        QX_ASSERT_IN("xdeque", last_->size() > 0);
        --size_;
        --last_->m_t2;
        if (last_->size() == 0) DropEmptyLastPage();
    }

    // Keeps one page for reuse.
    void clear() noexcept {
        for (Page* p = first_; p;) {
            Page* next = p->next_;
            m_allocator.Return(p);
            p = next;
        }
        Forget();
    }

    // New elements are default-constructed. If memory runs out the sequence is as long as it got.
    void resize(ssize_t n) {
        QX_ASSERT_IN("xdeque", 0 <= n);
        while (size_ > n) pop_back();
        while (size_ < n) push_back(T());
    }

    // Inserts copies of [first, last) before `where` and returns the position of the first of them. The range lies
    // outside this sequence.
    template <class ForwardIterator>
    iterator insert(iterator where, ForwardIterator first, ForwardIterator last) {
        const iterator gap = InsertSpace(where, static_cast<ssize_t>(std::distance(first, last)));
        for (iterator i = gap; first != last; ++first, ++i) *i = *first;
        return gap;
    }

    // Opens a gap of n elements before `it` and returns the position where the gap begins; the elements in it have
    // some value. Where new pages are needed, the partial one comes first and each starts at index 0. Other positions
    // are invalid afterwards. If memory runs out the elements and their order are unchanged.
    iterator InsertSpace(iterator it, ssize_t n) {
        QX_ASSERT_IN("xdeque", 0 <= it.m_overallIndex && it.m_overallIndex <= size_);
        QX_ASSERT_IN("xdeque", 0 <= n);
        if (n == 0) return it;
        const ssize_t i = it.m_index;
        Page* p = it.m_page;
        if (!p) {
            QX_ASSERT_IN("xdeque", i == -1);
            QX_ASSERT_IN("xdeque", it.m_overallIndex == 0);
            QX_ASSERT_IN("xdeque", size_ == 0);
            QX_ASSERT_IN("xdeque", first_ == nullptr);
            QX_ASSERT_IN("xdeque", last_ == nullptr);
            PutAtStart(it, InsertPagesForElements(nullptr, n));
        } else {
            QX_ASSERT_IN("xdeque", p->size() > 0);
            QX_ASSERT_IN("xdeque", p->m_t1 <= i && i <= p->m_t2);
            const ssize_t gap = p->InsertSpaceInPage(i, n);
            if (gap != -1)
                it.m_index = gap;
            else
                PutAtStart(it, InsertPagesForElements(PageBehind(p, i), n));
        }
        size_ += n;
        return it;
    }

    // Takes the whole content of src, which is empty afterwards; what this held is dropped. Three words move, each
    // sequence keeps its own spare page. Nothing happens when src is this.
    void TakePages(xdeque& src) noexcept {
        if (this == &src) return;
        clear();
        first_ = src.first_;
        last_ = src.last_;
        size_ = src.size_;
        src.Forget();
    }

    // Exchanges the contents; each sequence keeps its own spare page.
    void swap(xdeque& rhs) noexcept {
        std::swap(first_, rhs.first_);
        std::swap(last_, rhs.last_);
        std::swap(size_, rhs.size_);
    }

    Page* first_ = nullptr;
    Page* last_ = nullptr;
    ssize_t size_ = 0; // elements in all pages
    PageAllocator m_allocator;

private:
    // Pages taken from the allocator and not yet on the list; gives back what is left.
    class PageReserve {
    public:
        PageReserve(PageAllocator& allocator, ssize_t numPages) : m_pageAllocator(allocator) {
            try {
                for (ssize_t k = 0; k < numPages; ++k) Add(m_pageAllocator.Get());
            } catch (...) {
                ReturnAll();
                throw;
            }
        }
        PageReserve(const PageReserve&) = delete;
        PageReserve& operator=(const PageReserve&) = delete;
        ~PageReserve() { ReturnAll(); }

        Page* Take() noexcept {
            Page* p = m_top;
            m_top = p->next_;
            p->next_ = nullptr;
            return p;
        }

    private:
        void Add(Page* p) noexcept {
            p->next_ = m_top;
            m_top = p;
        }
        void ReturnAll() noexcept {
            while (m_top) m_pageAllocator.Return(Take());
        }

        PageAllocator& m_pageAllocator;
        Page* m_top = nullptr;
    };

    void Forget() noexcept {
        first_ = nullptr;
        last_ = nullptr;
        size_ = 0;
    }

    T* FrontElement() const {
        QX_ASSERT_IN("xdeque", first_);
        return first_->m_buffer + first_->m_t1;
    }

    T* BackElement() const {
        QX_ASSERT_IN("xdeque", last_);
        QX_ASSERT_IN("xdeque", last_->size() > 0);
        return last_->m_buffer + (last_->m_t2 - 1);
    }

    IteratorPolicy BeginPosition() const noexcept {
        return first_ ? IteratorPolicy{first_, first_->m_t1, 0} : IteratorPolicy{};
    }
    IteratorPolicy EndPosition() const noexcept {
        return last_ ? IteratorPolicy{last_, last_->m_t2, size_} : IteratorPolicy{};
    }

    static void PutAtStart(iterator& it, Page* page) noexcept {
        it.m_page = page;
        it.m_index = 0;
    }

    static void SetWindowFromStart(Page* page, ssize_t n) noexcept {
        page->m_t1 = 0;
        page->m_t2 = n;
    }

    // A queue is filled from the back, so its pages start at 0 and not in the middle.
    Page* GetPageForPushBack() {
        Page* p = m_allocator.Get();
        SetWindowFromStart(p, 0);
        QX_ASSERT_IN("xdeque", p->next_ == nullptr);
        return p;
    }

    void DropEmptyLastPage() {
        Page* prev = last_->prev_;
        m_allocator.Return(last_);
        last_ = prev;
        if (prev) {
            prev->next_ = nullptr;
        } else {
            QX_ASSERT_IN("xdeque", size_ == 0);
            first_ = nullptr;
        }
    }

    // Puts `page` on the list in front of p, at the end if p is null.
    void LinkInFront(Page* page, Page* p) {
        if (!p) {
            LinkAtEnd(page);
            return;
        }
        if (p->prev_) {
            QX_ASSERT_IN("xdeque", p->prev_->next_ == p);
            p->prev_->next_ = page;
        } else {
            QX_ASSERT_IN("xdeque", p == first_);
            first_ = page;
        }
        page->prev_ = p->prev_;
        page->next_ = p;
        p->prev_ = page;
    }

    void LinkAtEnd(Page* page) {
        if (last_) {
            QX_ASSERT_IN("xdeque", last_->next_ == nullptr);
            last_->next_ = page;
        } else {
            first_ = page;
        }
        page->prev_ = last_;
        page->next_ = nullptr;
        last_ = page;
    }

    // The page in front of which new pages go so that they stand between index i of p and what is before it; null at
    // the end of the list. Splits p if i lies inside it.
    Page* PageBehind(Page* p, ssize_t i) {
        if (i == p->m_t1) return p;
        if (i == p->m_t2) return p->next_;
        return SplitPage(p, i);
    }

    // Moves the elements of `left` from index i on to a new page behind it, which is the result.
    Page* SplitPage(Page* left, ssize_t i) {
        QX_ASSERT_IN("xdeque", left->m_t1 < i && i < left->m_t2);
        const ssize_t n = left->m_t2 - i;
        QX_ASSERT_IN("xdeque", n > 0);
        Page* right = m_allocator.Get();
        LinkInFront(right, left->next_);
        QX_ASSERT_IN("xdeque", left->next_ == right);
        QX_ASSERT_IN("xdeque", right->prev_ == left);
        SetWindowFromStart(right, n);
        std::copy(left->m_buffer + i, left->m_buffer + left->m_t2, right->m_buffer);
        left->m_t2 = i;
        return right;
    }

    // Inserts pages that hold n elements in front of `next`, at the end if that is null: a partial page, then full
    // ones. The result is the foremost. Requires: n > 0. All pages are allocated before the first is linked.
    Page* InsertPagesForElements(Page* next, ssize_t n) {
        const ssize_t numFull = n / pageSize;
        const ssize_t remain = n % pageSize;
        QX_ASSERT_IN("xdeque", 0 <= remain && remain < pageSize);
        PageReserve reserve(m_allocator, numFull + (remain != 0 ? 1 : 0));
        Page* p = next;
        for (ssize_t k = 0; k < numFull; ++k) p = InsertPage(reserve.Take(), p, pageSize);
        if (remain != 0) return InsertPage(reserve.Take(), p, remain);
        QX_ASSERT_IN("xdeque", p);
        QX_ASSERT_IN("xdeque", p->m_t1 == 0);
        return p;
    }

    Page* InsertPage(Page* page, Page* next, ssize_t n) {
        SetWindowFromStart(page, n);
        LinkInFront(page, next);
        return page;
    }
};

} // namespace quna

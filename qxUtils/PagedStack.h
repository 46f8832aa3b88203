// A stack in a doubly linked list of fixed pages: a work list that grows without limit and never reallocates.
#pragma once

#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"

#include <utility>

namespace quna {

// Ownership: owns its pages. There is no spare page, but the top page may be empty: it is released by the pop after
//   the one that emptied it, so a stack that oscillates across a page boundary allocates every other time at most.
// Threads:   none of its own; the owner guards it.
// The fields are open to white-box tests; code uses the operations.
template <class T, ssize_t pageSize>
class PagedStack {
public:
    static_assert(pageSize > 0);

    struct Page {
        T m_buffer[pageSize];
        ssize_t m_count = 0; // elements in use, from the front of m_buffer
        Page* prev_ = nullptr;
        Page* next_ = nullptr;

        // Written out: with a default member initialiser for m_buffer, g++ 12 leaks the page when an element's
        // constructor throws.
        Page() : m_buffer{} {}
    };

    PagedStack() = default;
    PagedStack(const PagedStack&) = delete;
    PagedStack& operator=(const PagedStack&) = delete;
    ~PagedStack() { clear(); }

    ssize_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }

    // Unchanged if no page can be allocated.
    void push(const T& x) {
        if (!first_) {
            first_ = new Page;
            last_ = first_;
        }
        QX_ASSERT_IN("PagedStack", first_->prev_ == nullptr);
        QX_ASSERT_IN("PagedStack", last_ != nullptr);
        QX_ASSERT_IN("PagedStack", last_->next_ == nullptr);
        if (last_->m_count == pageSize) AppendPage();
        last_->m_buffer[last_->m_count] = x;
        ++last_->m_count;
        ++size_;
    }

    // The element that was on top. The reference is good until the next push, pop or clear.
    T& pop() {
        QX_ASSERT_IN("PagedStack", last_ != nullptr);
        QX_ASSERT_IN("PagedStack", size_ > 0);
        if (last_->m_count == 0) DropEmptyLastPage();
        --size_;
        --last_->m_count;
        return last_->m_buffer[last_->m_count];
    }

    void clear() noexcept {
        for (Page* p = first_; p;) {
            Page* next = p->next_;
            delete p;
            p = next;
        }
        first_ = nullptr;
        last_ = nullptr;
        size_ = 0;
    }

    void swap(PagedStack& rhs) noexcept {
        std::swap(first_, rhs.first_);
        std::swap(last_, rhs.last_);
        std::swap(size_, rhs.size_);
    }

    Page* first_ = nullptr;
    Page* last_ = nullptr;
    ssize_t size_ = 0; // elements in all pages

private:
    void AppendPage() {
        Page* p = new Page;
        p->prev_ = last_;
        last_->next_ = p;
        last_ = p;
    }

    void DropEmptyLastPage() {
        Page* prev = last_->prev_;
        delete last_;
        last_ = prev;
        QX_ASSERT_IN("PagedStack", last_ != nullptr);
        QX_ASSERT_IN("PagedStack", last_->m_count > 0);
        last_->next_ = nullptr;
    }
};

} // namespace quna

// A growing sequence of plain values in large pages: the collector's stack and its lists.
#pragma once

#include "qxUtils/BasicTypes.h"

#include <memory>
#include <type_traits>
#include <vector>

namespace quna {

// Nothing moves when it grows, and a push is a compare and a store: a std::vector would copy hundreds of megabytes at
// once, in the middle of a pause. Pages are kept when the sequence shrinks.
template <class T>
class PageSequence {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    static constexpr ssize_t PAGE_ENTRIES = 8192;

    bool Empty() const noexcept { return m_top == m_begin && m_page <= 0; }
    ssize_t Size() const noexcept { return m_page < 0 ? 0 : m_page * PAGE_ENTRIES + (m_top - m_begin); }

    void Push(const T& value) {
        if (m_top == m_end) [[unlikely]]
            NextPage();
        *m_top++ = value;
    }

    // Requires: not empty.
    T Pop() noexcept {
        if (m_top == m_begin) [[unlikely]]
            SelectPage(m_page - 1, PAGE_ENTRIES);
        return *--m_top;
    }

    T& operator[](ssize_t i) const noexcept {
        return m_pages[static_cast<std::size_t>(i / PAGE_ENTRIES)].get()[i % PAGE_ENTRIES];
    }

private:
    void NextPage() {
        if (m_page + 1 == static_cast<ssize_t>(m_pages.size()))
            m_pages.push_back(std::make_unique_for_overwrite<T[]>(PAGE_ENTRIES));
        SelectPage(m_page + 1, 0);
    }
    void SelectPage(ssize_t page, ssize_t used) noexcept {
        m_page = page;
        m_begin = m_pages[static_cast<std::size_t>(page)].get();
        m_top = m_begin + used;
        m_end = m_begin + PAGE_ENTRIES;
    }

    std::vector<std::unique_ptr<T[]>> m_pages;
    ssize_t m_page = -1; // index of the page that m_begin is; -1 before the first
    T* m_begin = nullptr;
    T* m_top = nullptr;
    T* m_end = nullptr;
};

} // namespace quna

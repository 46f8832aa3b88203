// A growable array of T over one byte vector.
#pragma once

#include "qxUtils/VectorOfByte.h"

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace quna {

// Has one field, whose size is counted in bytes. Elements are constructed, moved and destroyed like those of
// std::vector; trivially copyable ones move as bytes. Sizes and indexes are signed.
template <class T>
class xvector {
    static_assert(alignof(T) <= alignof(std::max_align_t));
    static constexpr ssize_t ELEMENT_SIZE = static_cast<ssize_t>(sizeof(T)); // NOLINT(bugprone-sizeof-expression)

public:
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    xvector() = default;
    explicit xvector(ssize_t n) { resize(n); }
    xvector(std::initializer_list<T> elements) { append(elements.begin(), static_cast<ssize_t>(elements.size())); }
    xvector(const xvector& rhs) { append(rhs.data(), rhs.size()); }
    xvector(xvector&& rhs) noexcept { swap(rhs); }
    xvector& operator=(const xvector& rhs) {
        if (this != &rhs) {
            xvector copy(rhs);
            swap(copy);
        }
        return *this;
    }
    xvector& operator=(xvector&& rhs) noexcept {
        if (this != &rhs) {
            xvector moved(std::move(rhs));
            swap(moved);
        }
        return *this;
    }
    ~xvector() { std::destroy(begin(), end()); }

    ssize_t size() const { return m_buffer.size() / ELEMENT_SIZE; }
    bool empty() const { return m_buffer.empty(); }
    ssize_t capacity() const { return m_buffer.capacity() / ELEMENT_SIZE; }
    T* data() { return reinterpret_cast<T*>(m_buffer.data()); }
    const T* data() const { return reinterpret_cast<const T*>(m_buffer.data()); }
    T* begin() { return data(); }
    T* end() { return data() + size(); }
    const T* begin() const { return data(); }
    const T* end() const { return data() + size(); }
    T& operator[](ssize_t i) { return data()[i]; }
    const T& operator[](ssize_t i) const { return data()[i]; }
    T& front() { return *begin(); }
    const T& front() const { return *begin(); }
    T& back() { return end()[-1]; }
    const T& back() const { return end()[-1]; }

    void reserve(ssize_t n) {
        if (n > capacity()) Regrow(n * ELEMENT_SIZE);
    }
    void resize(ssize_t n) {
        const ssize_t oldSize = size();
        if (n <= oldSize) {
            std::destroy(begin() + n, end());
        } else {
            EnsureRoom(n - oldSize);
            std::uninitialized_value_construct(end(), begin() + n);
        }
        m_buffer.SetSize(n * ELEMENT_SIZE);
    }
    void clear() { resize(0); }
    // `x` may be an element of this vector.
    void push_back(const T& x) { emplace_back(x); }
    void push_back(T&& x) { emplace_back(std::move(x)); }
    template <class... Args>
    T& emplace_back(Args&&... args) {
        if (m_buffer.size() + ELEMENT_SIZE <= m_buffer.capacity()) {
            T* place = ::new (static_cast<void*>(end())) T(std::forward<Args>(args)...);
            m_buffer.SetSize(m_buffer.size() + ELEMENT_SIZE);
            return *place;
        }
        T fresh(std::forward<Args>(args)...); // before the old elements, perhaps its source, move
        EnsureRoom(1);
        T* place = ::new (static_cast<void*>(end())) T(std::move(fresh));
        m_buffer.SetSize(m_buffer.size() + ELEMENT_SIZE);
        return *place;
    }
    void pop_back() {
        std::destroy_at(end() - 1);
        m_buffer.SetSize(m_buffer.size() - ELEMENT_SIZE);
    }
    // `elements` must not lie in this vector.
    void append(const T* elements, ssize_t n) {
        EnsureRoom(n);
        std::uninitialized_copy_n(elements, n, end());
        m_buffer.SetSize(m_buffer.size() + n * ELEMENT_SIZE);
    }
    void insert(T* where, const T& x) {
        const ssize_t i = where - begin();
        push_back(x);
        std::rotate(begin() + i, end() - 1, end());
    }
    T* erase(T* where) { return erase(where, where + 1); }
    T* erase(T* first, T* last) {
        T* newEnd = std::move(last, end(), first);
        std::destroy(newEnd, end());
        m_buffer.SetSize((newEnd - begin()) * ELEMENT_SIZE);
        return first;
    }
    void swap(xvector& rhs) noexcept { m_buffer.swap(rhs.m_buffer); }

    VectorOfByte m_buffer; // public for the archive operators, which see a byte vector

private:
    void EnsureRoom(ssize_t n) {
        const ssize_t required = m_buffer.size() + n * ELEMENT_SIZE;
        if (required > m_buffer.capacity()) Regrow(m_buffer.GrownCapacity(required));
    }
    void Regrow(ssize_t capacityBytes) {
        if constexpr (std::is_trivially_copyable_v<T>) {
            m_buffer.reserve(capacityBytes);
        } else {
            uint8* buffer = VectorOfByte::AllocateBuffer(capacityBytes);
            try {
                std::uninitialized_copy(std::make_move_iterator(begin()), std::make_move_iterator(end()),
                                        reinterpret_cast<T*>(buffer));
            } catch (...) {
                VectorOfByte::FreeBuffer(buffer);
                throw;
            }
            std::destroy(begin(), end());
            m_buffer.AdoptBuffer(buffer, capacityBytes);
        }
    }
};

template <class T>
bool operator==(const xvector<T>& x, const xvector<T>& y) {
    return std::equal(x.begin(), x.end(), y.begin(), y.end());
}

template <class T>
bool operator!=(const xvector<T>& x, const xvector<T>& y) {
    return !(x == y);
}

template <class T>
bool operator<(const xvector<T>& x, const xvector<T>& y) {
    return std::lexicographical_compare(x.begin(), x.end(), y.begin(), y.end());
}

} // namespace quna

// A growable byte array, the storage of xvector and xstring.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

// Ownership: owns its memory. Threads: a plain value, no locking.
// Invariant: 0 <= size_ <= m_capacity; where m_buffer is not null, a zero byte stands at m_buffer[size_] (not counted
// in m_capacity), so that a string's text is always terminated.
// Errors: a negative size or one above 2^46 is std::length_error; running out of memory is
// std::bad_alloc, and the vector is then unchanged.
class QX_API VectorOfByte {
public:
    VectorOfByte() = default;
    VectorOfByte(const void* bytes, ssize_t n) { append(bytes, n); }
    VectorOfByte(const VectorOfByte& rhs) { append(rhs.m_buffer, rhs.size_); }
    VectorOfByte(VectorOfByte&& rhs) noexcept { swap(rhs); }
    VectorOfByte& operator=(const VectorOfByte& rhs);
    VectorOfByte& operator=(VectorOfByte&& rhs) noexcept;
    ~VectorOfByte();

    ssize_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    ssize_t capacity() const { return m_capacity; }
    uint8* data() { return m_buffer; }
    const uint8* data() const { return m_buffer; }
    uint8* begin() { return m_buffer; }
    uint8* end() { return m_buffer + size_; }
    const uint8* begin() const { return m_buffer; }
    const uint8* end() const { return m_buffer + size_; }
    uint8& operator[](ssize_t i) { return m_buffer[i]; }
    const uint8& operator[](ssize_t i) const { return m_buffer[i]; }

    void reserve(ssize_t capacity);
    // Grows with zero bytes or cuts off the end.
    void resize(ssize_t n);
    // As resize, but new bytes are not set. The caller writes them.
    void resize_uninitialised(ssize_t n);
    void clear() { SetSize(0); }
    void push_back(uint8 x);
    // `bytes` may lie in this vector.
    void append(const void* bytes, ssize_t n);
    void assign(const void* bytes, ssize_t n);
    void swap(VectorOfByte& rhs) noexcept;

    // Gives memory for at least `capacity` bytes that is not yet part of any vector; AdoptBuffer makes it this
    // vector's own and frees the old one, whose contents the caller has moved. For xvector's growth.
    static uint8* AllocateBuffer(ssize_t capacity);
    void AdoptBuffer(uint8* buffer, ssize_t capacity) noexcept;
    static void FreeBuffer(uint8* buffer) noexcept;
    // The capacity to grow to when `required` bytes must fit.
    ssize_t GrownCapacity(ssize_t required) const;
    // Requires: 0 <= n <= capacity().
    void SetSize(ssize_t n) {
        size_ = n;
        if (m_buffer) m_buffer[n] = 0;
    }

private:
    uint8* m_buffer = nullptr;
    ssize_t size_ = 0;      // bytes
    ssize_t m_capacity = 0; // bytes, without the terminating zero
};

QX_API bool operator==(const VectorOfByte& x, const VectorOfByte& y);
inline bool operator!=(const VectorOfByte& x, const VectorOfByte& y) { return !(x == y); }
// Bytewise as unsigned, then shorter first.
QX_API bool operator<(const VectorOfByte& x, const VectorOfByte& y);

} // namespace quna

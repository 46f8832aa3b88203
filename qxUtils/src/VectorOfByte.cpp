#include "qxUtils/VectorOfByte.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

namespace quna {

namespace {

constexpr ssize_t MIN_CAPACITY = 16;               // bytes
constexpr ssize_t MAX_CAPACITY = ssize_t{1} << 46; // bytes; above it a size is a mistake, not a wish

void CheckCapacity(ssize_t capacity) {
    if (capacity < 0 || capacity > MAX_CAPACITY) throw std::length_error("quna::VectorOfByte: size out of range");
}

} // namespace

VectorOfByte& VectorOfByte::operator=(const VectorOfByte& rhs) {
    if (this != &rhs) assign(rhs.m_buffer, rhs.size_);
    return *this;
}

VectorOfByte& VectorOfByte::operator=(VectorOfByte&& rhs) noexcept {
    swap(rhs);
    return *this;
}

VectorOfByte::~VectorOfByte() { FreeBuffer(m_buffer); }

uint8* VectorOfByte::AllocateBuffer(ssize_t capacity) {
    CheckCapacity(capacity);
    return static_cast<uint8*>(::operator new(static_cast<std::size_t>(capacity) + 1));
}

void VectorOfByte::FreeBuffer(uint8* buffer) noexcept { ::operator delete(buffer); }

void VectorOfByte::AdoptBuffer(uint8* buffer, ssize_t capacity) noexcept {
    FreeBuffer(m_buffer);
    m_buffer = buffer;
    m_capacity = capacity;
    m_buffer[size_] = 0;
}

ssize_t VectorOfByte::GrownCapacity(ssize_t required) const {
    CheckCapacity(required);
    return std::max({required, m_capacity + m_capacity / 2, MIN_CAPACITY});
}

void VectorOfByte::reserve(ssize_t capacity) {
    if (capacity <= m_capacity) return;
    uint8* buffer = AllocateBuffer(capacity);
    if (size_ > 0) std::memcpy(buffer, m_buffer, static_cast<std::size_t>(size_));
    AdoptBuffer(buffer, capacity);
}

void VectorOfByte::resize_uninitialised(ssize_t n) {
    CheckCapacity(n);
    if (n > m_capacity) reserve(GrownCapacity(n));
    SetSize(n);
}

void VectorOfByte::resize(ssize_t n) {
    const ssize_t oldSize = size_;
    resize_uninitialised(n);
    if (n > oldSize) std::memset(m_buffer + oldSize, 0, static_cast<std::size_t>(n - oldSize));
}

void VectorOfByte::push_back(uint8 x) {
    if (size_ == m_capacity) reserve(GrownCapacity(size_ + 1));
    m_buffer[size_] = x;
    SetSize(size_ + 1);
}

void VectorOfByte::append(const void* bytes, ssize_t n) {
    CheckCapacity(n);
    if (n == 0) return;
    const ssize_t newSize = size_ + n;
    if (newSize <= m_capacity) {
        std::memmove(m_buffer + size_, bytes, static_cast<std::size_t>(n));
        SetSize(newSize);
        return;
    }
    const ssize_t capacity = GrownCapacity(newSize);
    uint8* buffer = AllocateBuffer(capacity);
    if (size_ > 0) std::memcpy(buffer, m_buffer, static_cast<std::size_t>(size_));
    std::memcpy(buffer + size_, bytes, static_cast<std::size_t>(n)); // before the old buffer, perhaps its home, goes
    size_ = newSize;
    AdoptBuffer(buffer, capacity);
}

void VectorOfByte::assign(const void* bytes, ssize_t n) {
    if (n <= m_capacity && n >= 0) {
        if (n > 0) std::memmove(m_buffer, bytes, static_cast<std::size_t>(n));
        SetSize(n);
        return;
    }
    VectorOfByte fresh(bytes, n);
    swap(fresh);
}

void VectorOfByte::swap(VectorOfByte& rhs) noexcept {
    std::swap(m_buffer, rhs.m_buffer);
    std::swap(size_, rhs.size_);
    std::swap(m_capacity, rhs.m_capacity);
}

bool operator==(const VectorOfByte& x, const VectorOfByte& y) {
    return x.size() == y.size() &&
           (x.empty() || std::memcmp(x.data(), y.data(), static_cast<std::size_t>(x.size())) == 0);
}

bool operator<(const VectorOfByte& x, const VectorOfByte& y) {
    const ssize_t common = std::min(x.size(), y.size());
    const int order = common == 0 ? 0 : std::memcmp(x.data(), y.data(), static_cast<std::size_t>(common));
    return order != 0 ? order < 0 : x.size() < y.size();
}

} // namespace quna

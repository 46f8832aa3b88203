// Scratch bytes that stand on the stack when they are few.
#pragma once

#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"

#include <cstddef>

namespace quna {

template <ssize_t N>
class FixedOrHeapAllocatedBuffer {
public:
    explicit FixedOrHeapAllocatedBuffer(ssize_t size) : m_buffer(Allocate(size)) {}
    ~FixedOrHeapAllocatedBuffer() {
        if (m_buffer != m_fixedBuffer) delete[] m_buffer;
    }
    FixedOrHeapAllocatedBuffer(const FixedOrHeapAllocatedBuffer&) = delete;
    FixedOrHeapAllocatedBuffer& operator=(const FixedOrHeapAllocatedBuffer&) = delete;

    alignas(std::max_align_t) octet_t m_fixedBuffer[N]; // not set
    octet_t* m_buffer;

private:
    octet_t* Allocate(ssize_t size) {
        QX_ASSERT_IN("src/BPlusTree2", 0 <= size);
        return size <= N ? m_fixedBuffer : new octet_t[static_cast<std::size_t>(size)];
    }
};

} // namespace quna

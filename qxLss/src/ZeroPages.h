// Large arrays of zeros of which few pages are ever touched.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

// Zero pages that cost nothing before they are touched. Not from the heap, which may clear memory that was in use before.
//
// Ownership: owns the memory.
class QX_API ZeroPages {
public:
    // None, with errno set, if the system grants no addresses.
    explicit ZeroPages(size_t bytes) noexcept;
    ZeroPages(const ZeroPages&) = delete;
    ZeroPages& operator=(const ZeroPages&) = delete;
    ~ZeroPages();

    explicit operator bool() const { return m_pages != nullptr; }
    template <class T>
    T* As() const {
        return static_cast<T*>(m_pages);
    }
    // For the destructor: behind the first so many bytes all is zero still, or again.
    void SetUsed(size_t bytes) { m_used = bytes; }

    // From now on the process keeps what is no longer needed, made zero again, and uses it for the next store: for programs
    // that open one thousands of times a second. Most of that time went into getting and returning pages.
    static void KeepForTest();

private:
    static constexpr size_t UNKNOWN = ~size_t{0};

    void* m_pages = nullptr;
    const size_t m_bytes;
    size_t m_used = UNKNOWN;
};

} // namespace quna

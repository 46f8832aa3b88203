// The objects of one domain: what its collector marks and sweeps.
#pragma once

#include "qxObject/IObject.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace quna {

// A sequence of interface values in pages: 16 bytes an object, no copying of the whole when it grows.
class QX_API ObjectPages {
public:
    static constexpr ssize_t PAGE_ENTRIES = 1024;

    ssize_t Size() const noexcept { return m_size; }
    ptr<IObject> operator[](ssize_t i) const noexcept { return Entry(i); }

    void Append(ptr<IObject> object) {
        if (m_size == static_cast<ssize_t>(m_pages.size()) * PAGE_ENTRIES) [[unlikely]]
            AddPage();
        Entry(m_size++) = object;
    }

    // Makes room, so that as many calls of Append can't fail.
    void Reserve(ssize_t count);

    void Set(ssize_t i, ptr<IObject> object) noexcept { Entry(i) = object; }

    // Drops the entries from `size` on, and the pages that they leave empty.
    void Shrink(ssize_t size) noexcept;

private:
    struct Page {
        ptr<IObject> entries[PAGE_ENTRIES];
    };

    ptr<IObject>& Entry(ssize_t i) const noexcept {
        return m_pages[static_cast<std::size_t>(i / PAGE_ENTRIES)]->entries[i % PAGE_ENTRIES];
    }
    void AddPage();

    std::vector<std::unique_ptr<Page>> m_pages;
    ssize_t m_size = 0;
};

// Ownership: the objects are the domain's; who takes entries out for good calls Destroy on them.
// Threads:   Register, AddRoot, RemoveRoot and AddBytes under the domain's lock in any mode, the queries of figures
//   without it, all else under the exclusive lock.
// Invariant: m_cspace of every object listed is the domain; an object is listed once.
class QX_API CSpaceObjects {
public:
    explicit CSpaceObjects(CSpace& cspace) : m_cspace(cspace) {}
    CSpaceObjects(const CSpaceObjects&) = delete;
    CSpaceObjects& operator=(const CSpaceObjects&) = delete;

    void Register(ptr<IObject> object);
    void RegisterOwn(ptr<IObject> object);
    void AddRoot(ptr<const IObject> object);
    void RemoveRoot(ptr<const IObject> object);

    // Moves all objects of `from` but its own, and their roots.
    void TransferFrom(CSpaceObjects& from);

    // `delta` bytes more are resident.
    void AddBytes(ssize_t delta) noexcept { m_bytes.fetch_add(delta, std::memory_order_relaxed); }
    ssize_t Bytes() const noexcept { return m_bytes.load(std::memory_order_relaxed); }
    ssize_t Count() const noexcept { return m_count.load(std::memory_order_relaxed); }

    // The value of `marked_` that means "reached" in the collection to come. It changes with each collection, so that
    // none has to clear the marks of the last; a new object gets the value that means "not reached".
    bool MarkValue() const noexcept { return m_markValue; }
    void FlipMarkValue() noexcept { m_markValue = !m_markValue; }

    // For the collector and for teardown; after changing Objects, UpdateCount.
    ObjectPages& Objects() noexcept { return m_objects; }
    ObjectPages& OwnObjects() noexcept { return m_own; }
    const std::unordered_map<const void*, ptr<const IObject>>& Roots() const noexcept { return m_roots; }
    void UpdateCount() noexcept { m_count.store(m_objects.Size() + m_own.Size(), std::memory_order_relaxed); }

private:
    void Adopt(ptr<IObject> object);
    bool TakeOffList(ptr<IObject> object);

    CSpace& m_cspace;
    Mutex m_mutex{"CSpaceObjects::m_mutex"}; // leaf lock: taken by shared holders, and for roots
    ObjectPages m_objects;
    ObjectPages m_own;                                           // the domain's own, which are roots and don't move
    std::unordered_map<const void*, ptr<const IObject>> m_roots; // by self pointer
    std::atomic<ssize_t> m_count{0};
    std::atomic<ssize_t> m_bytes{0}; // sum of m_size over all objects
    bool m_markValue = true;
};

// The size that the evictor counts. Reached by shared holders side by side, hence atomic.
inline ssize_t EvictorSize(const ObjSysState& state) noexcept {
    return std::atomic_ref<ssize_t>(const_cast<ssize_t&>(state.m_size)).load(std::memory_order_relaxed);
}

} // namespace quna

// The collector of one domain: precise mark and sweep with an evictable cache.
#pragma once

#include "qxObject/CSpace.h"
#include "qxObject/src/CSpaceObjects.h"
#include "qxObject/src/PageSequence.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <mutex>
#include <string>

namespace quna {

class GcMarker;

// What a collection does with the objects that only evictable pointers reach.
enum class EGcCache {
    KeepWithinBudget,
    LetGo
};

// Threads: Collect and DestroyAll under one exclusive hold of the domain's lock. Budget and figures from any thread.
class QX_API Collector {
public:
    explicit Collector(CSpaceObjects& objects, const CSpace& cspace) : m_objects(objects), m_cspace(cspace) {}
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    // One collection. When a visitor or OnGarbageCollect throws, every object is still there; when a Destroy throws,
    // the others are ended all the same and an assertion that names the class comes out.
    void Collect(EGcCache cache);

    // Ends every object of the domain, its own last.
    void DestroyAll();

    void SetBudget(ssize_t bytes);
    // Resident bytes beyond which a collection should not wait for its period.
    ssize_t PressureThreshold() const noexcept { return m_pressureThreshold.load(std::memory_order_relaxed); }

    CSpaceGcStats GetStats() const;

private:
    struct Going;

    void MarkAll(GcMarker& marker, EGcCache cache);
    void MarkRoots(GcMarker& marker);
    void MarkCache(GcMarker& marker);
    void MarkMostRecentlyUsed(GcMarker& marker, ssize_t limit);
    void UnmarkAll(const GcMarker& marker) noexcept;
    void FindGoing(GcMarker& marker, Going& going);
    void RemoveFromList(const GcMarker& marker, Going& going) noexcept;
    void PutBack(const Going& going);
    void NoteCollection(const GcMarker& marker, const Going& going, int64 pauseMicros);

    CSpaceObjects& m_objects;
    const CSpace& m_cspace;
    bool m_collecting = false; // guarded by the domain's lock
    std::atomic<ssize_t> m_budget{DEFAULT_EVICTION_BUDGET};
    std::atomic<ssize_t> m_pressureThreshold{DEFAULT_EVICTION_BUDGET + DEFAULT_EVICTION_BUDGET / 4};

    mutable Mutex m_mutex{"Collector::m_mutex"}; // leaf lock
    CSpaceGcStats m_stats;                       // guarded by m_mutex
};

} // namespace quna

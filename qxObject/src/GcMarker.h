// The marking half of a collection: walks strong edges, remembers evictable ones.
#pragma once

#include "qxObject/EvictablePtr.h"
#include "qxObject/IObjectVisitor.h"
#include "qxObject/src/CSpaceObjects.h"
#include "qxObject/src/PageSequence.h"

#include <array>

namespace quna {

// Marks objects of one domain with `markValue`. Iterative: a chain of any length takes a few pages.
//
// An edge is pushed without a look at its target. The target's header is prefetched, and read PREFETCH_DISTANCE edges
// later: with objects spread over memory this is what most of the time goes into.
//
// Threads: one thread that holds the domain exclusively for the marker's whole life.
class GcMarker final : public IObjectVisitor {
public:
    GcMarker(const CSpace& cspace, bool markValue) : m_cspace(cspace), m_markValue(markValue) {}

    // The edges that an object reports. An edge into another domain is dropped when its turn comes.
    void VisitObject(ptr<const IObject> object) override {
        if (object.m_self) m_stack.Push(object);
    }
    void VisitEvictablePtr(AnyInterface* p) override {
        if (!m_remember) return;
        const AnyInterface words = LoadEvictableWords(p);
        if (words.m_self && words.m_table) m_evictable.Push(p);
    }

    // Marks everything that the pushed objects reach over strong edges.
    void Drain();

    bool IsMarked(const ObjSysState& state) const noexcept { return state.marked_ == m_markValue; }
    void SetMarked(ObjSysState& state, bool marked) const noexcept { state.marked_ = marked == m_markValue; }

    // Stops remembering evictable pointers: from now on objects are walked a second time.
    void StopRemembering() noexcept { m_remember = false; }
    // From now on objects may be walked for the first time again. A pointer that is remembered twice does no harm.
    void ResumeRemembering() noexcept { m_remember = true; }
    void ResetFigures() noexcept { m_numMarked = m_bytesMarked = 0; }

    ssize_t NumMarked() const noexcept { return m_numMarked; }
    ssize_t BytesMarked() const noexcept { return m_bytesMarked; }

    // The evictable pointers that were bound when they were reported.
    ssize_t NumEvictable() const noexcept { return m_evictable.Size(); }
    AnyInterface* Evictable(ssize_t i) const noexcept { return m_evictable[i]; }

    // The object that the i-th evictable pointer names now; null when it is none of this domain. Looks ahead.
    ptr<IObject> EvictableTarget(ssize_t i) const;

private:
    static constexpr std::size_t PREFETCH_DISTANCE = 8; // a power of two

    bool NextEdge(ptr<const IObject>& edge);

    const CSpace& m_cspace;
    const bool m_markValue;
    bool m_remember = true;
    PageSequence<ptr<const IObject>> m_stack;
    std::array<ptr<const IObject>, PREFETCH_DISTANCE> m_ahead{}; // prefetched; null where empty
    std::size_t m_next = 0;                                      // in m_ahead: the oldest
    PageSequence<AnyInterface*> m_evictable;
    ssize_t m_numMarked = 0;
    ssize_t m_bytesMarked = 0;
};

inline void PrefetchObject(const void* object) noexcept {
    __builtin_prefetch(object);
    __builtin_prefetch(static_cast<const char*>(object) + 64);
}

} // namespace quna

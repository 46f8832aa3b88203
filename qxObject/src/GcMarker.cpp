#include "qxObject/src/GcMarker.h"

#include <utility>

namespace quna {

// Takes the edge that was prefetched longest ago and puts one from the stack in its place.
bool GcMarker::NextEdge(ptr<const IObject>& edge) {
    while (!m_stack.Empty()) {
        edge = std::exchange(m_ahead[m_next], m_stack.Pop());
        PrefetchObject(m_ahead[m_next].m_self);
        m_next = (m_next + 1) % PREFETCH_DISTANCE;
        if (edge.m_self) return true;
    }
    for (std::size_t i = 0; i < PREFETCH_DISTANCE; ++i) {
        edge = std::exchange(m_ahead[m_next], null);
        m_next = (m_next + 1) % PREFETCH_DISTANCE;
        if (edge.m_self) return true;
    }
    return false;
}

void GcMarker::Drain() {
    ptr<const IObject> edge;
    while (NextEdge(edge)) {
        ObjSysState& state = edge->GetSysState();
        if (state.m_cspace != &m_cspace || IsMarked(state)) continue;
        SetMarked(state, true);
        ++m_numMarked;
        m_bytesMarked += EvictorSize(state);
        edge->VisitObjects(*this);
    }
}

ptr<IObject> GcMarker::EvictableTarget(ssize_t i) const {
    // Both the pointer and its target are likely to be far from the processor: the pointer is fetched first, so that
    // it can be read in time to fetch the target.
    constexpr ssize_t TARGET_AHEAD = 16;
    constexpr ssize_t POINTER_AHEAD = 2 * TARGET_AHEAD;
    if (i + POINTER_AHEAD < m_evictable.Size()) __builtin_prefetch(m_evictable[i + POINTER_AHEAD]);
    if (i + TARGET_AHEAD < m_evictable.Size())
        __builtin_prefetch(LoadEvictableWords(m_evictable[i + TARGET_AHEAD]).m_self);
    const ptr<IObject> target = AsIObject(LoadEvictableWords(m_evictable[i]));
    return target && target->GetSysState().m_cspace == &m_cspace ? target : ptr<IObject>();
}

} // namespace quna

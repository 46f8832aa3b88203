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
    constexpr ssize_t AHEAD = 16;
    if (i + AHEAD < m_evictable.Size()) __builtin_prefetch(LoadEvictableWords(m_evictable[i + AHEAD]).m_self);
    const ptr<IObject> target = AsIObject(LoadEvictableWords(m_evictable[i]));
    return target && target->GetSysState().m_cspace == &m_cspace ? target : ptr<IObject>();
}

} // namespace quna

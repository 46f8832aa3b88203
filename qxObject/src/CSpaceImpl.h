// The inside of a domain.
#pragma once

#include "qxObject/CSpace.h"
#include "qxObject/src/CSpaceGcThread.h"
#include "qxObject/src/CSpaceObjects.h"
#include "qxObject/src/CSpaceRwLock.h"
#include "qxObject/src/Collector.h"
#include "qxObject/src/DGGraph.h"

namespace quna {

// Threads: m_lock guards the objects as the public functions say. The other members guard themselves.
class CSpace {
public:
    CSpace(int milliSecsPerGc, GCThreadFn fn);
    CSpace(const CSpace&) = delete;
    CSpace& operator=(const CSpace&) = delete;

    mutable CSpaceRwLock m_lock;
    void* m_slots[CSPACE_NUM_RESERVED_PTR_SLOTS] = {};
    CSpaceObjects m_objects;
    Collector m_collector;
    DGDomain m_graph; // guarded by the graph
    CSpaceGcThread m_gcThread;
};

} // namespace quna

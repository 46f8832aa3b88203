// Objects for the tests of the collector: a node with strong and evictable edges that reports its end.
#pragma once

#include "qxObject/CSpace.h"
#include "qxObject/EvictablePtr.h"
#include "qxObject/IObjectVisitor.h"
#include "qxObject/WCSpace.h"

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

namespace quna {

inline constexpr int DIRTY = 2; // the flag of objflags_ that keeps an object

// What happened to the nodes of one test.
struct NodeLog {
    std::atomic<ssize_t> alive{0};
    std::atomic<ssize_t> announced{0}; // OnGarbageCollect calls
    std::function<void(int)> onGarbageCollect;
    std::function<void(int)> onDestroy;
};

class GcNode : public IObjectBaseMixin<GcNode, EmptyBase> {
public:
    explicit GcNode(NodeLog& log, int id = 0) : m_id(id), m_log(log) { ++m_log.alive; }
    ~GcNode() noexcept(false) override { --m_log.alive; }

    const ReflectedClass* GetReflectedClass() const { return nullptr; }

    void VisitObjects(IObjectVisitor& visitor) const {
        for (GcNode* child : m_strong) visitor << ptr<const IObject>(child);
        for (ptr<IObject>& child : m_evictable) visitor.VisitEvictablePtr(&child);
    }
    void OnGarbageCollect() {
        ++m_log.announced;
        if (m_log.onGarbageCollect) m_log.onGarbageCollect(m_id);
    }
    void Destroy() {
        const auto onDestroy = m_log.onDestroy;
        const int id = m_id;
        delete this;
        if (onDestroy) onDestroy(id);
    }

    void HoldStrongly(GcNode* child) { m_strong.push_back(child); }
    void HoldEvictably(GcNode* child) { m_evictable.push_back(ptr<IObject>(child)); }
    bool HasEvictable(std::size_t i) const { return static_cast<bool>(m_evictable[i]); }

    const int m_id;
    std::vector<GcNode*> m_strong;
    mutable std::vector<ptr<IObject>> m_evictable;

private:
    NodeLog& m_log;
};

// A new node in `cs`, whose lock the caller holds.
inline GcNode* NewNode(CSpace* cs, NodeLog& log, int id = 0, ssize_t size = 0) {
    GcNode* const node = new GcNode(log, id);
    RegisterGcObject(cs, ptr<IObject>(node));
    if (size) SetEvictableObjectSizeInBytes(ptr<const IObject>(node), size);
    return node;
}

} // namespace quna

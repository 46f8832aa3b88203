// Nodes of the dependency graph: what a calculation reads, so that it runs again when that has changed.
//
// A node belongs to whoever made it. While a calculating node (DGDepNode) computes, every ReadBarrier on the same thread
// makes it a dependent of the node read. OnChange marks all dependents stale, transitively; a stale node computes again
// when it is next read, never inside OnChange.
#pragma once

#include "qxUtils/Export.h"
#include "qxUtils/xstring.h"

#include <atomic>

namespace quna {

class CSpace;
class DGBaseNode;
class DGDepNode;
class DGGraph;
class IObjectVisitor;
struct DGEdge;

// A place in a ring of nodes. Alone, it points at itself.
struct DGNodeLink {
    DGNodeLink* prev = this;
    DGNodeLink* next = this;
    const DGBaseNode* node = nullptr; // null for the head of a ring
};

// Threads: ReadBarrier under the domain's lock in any mode; OnChange and AlwaysEvict under the domain's lock, with no
//   other thread changing the same node. The edges themselves are guarded inside the graph; no node is called while
//   that guard is held.
// Ownership: a node is listed in the domain that was the thread's current one when it was first read, and is taken off
//   that list by eviction or by its destructor.
class QX_API DGBaseNode {
public:
    // The order of the virtual operations is fixed: applications and the store derive nodes.

    // The node leaves the graph: nobody depends on it any more. It may delete itself here.
    virtual void OnEvict() const = 0;
    virtual bool IsEvictable() const = 0;
    virtual xstring Name() const = 0;
    // Reports the object that the node is a part of, if any.
    virtual void VisitContainingObject(IObjectVisitor& visitor) const = 0;
    // Cuts every edge of the node; its dependents become stale.
    virtual void EnsureNoInnodesOrOutnodes() const = 0;

    DGBaseNode(const DGBaseNode&) = delete;
    DGBaseNode& operator=(const DGBaseNode&) = delete;
    virtual ~DGBaseNode() noexcept(false);

    // The value of the node has changed: what depends on it is stale.
    void OnChange() const;

    // The calling thread reads the value of the node. A calculation that is in progress on the thread becomes a
    // dependent.
    void ReadBarrier() const;

    // Invalidates the dependents, then calls OnEvict, at once. The node may be gone when this returns.
    void AlwaysEvict() const;

protected:
    DGBaseNode() { m_link.node = this; }

    // Whether a collection may evict the node, if it is evictable; at first it may. A collection that was asked for
    // (SynchronousGc) evicts what no calculation depends on; the domain's own collector waits until nobody has read the
    // node for some collections.
    void OfferToCollector(bool offer) const noexcept { m_offered.store(offer, std::memory_order_relaxed); }

private:
    friend class DGDepNode;
    friend class DGGraph;

    mutable std::atomic<CSpace*> m_cspace{nullptr}; // the domain that lists the node; null when none does
    mutable std::atomic<bool> m_offered{true};
    mutable std::atomic<unsigned char> m_unread{0}; // how many collections ago the node was read, clamped
    const DGDepNode* m_asDepNode = nullptr;         // this node, when it calculates; constant after construction
    // All below is guarded by the graph.
    mutable DGNodeLink m_link;                   // in the list of m_cspace
    mutable DGEdge* m_outEdges = nullptr;        // to the dependents
    mutable unsigned long long m_lastReader = 0; // number of the calculation that read the node last
};

// A node with no inputs.
class QX_API DGIndepNode : public DGBaseNode {
public:
    bool IsEvictable() const override; // true
    void EnsureNoInnodesOrOutnodes() const override;

protected:
    DGIndepNode();
};

// Data that is no node can be depended on by its address. A calculation that reads it says so with
// DataSourceReadBarrier; DataSourceEvict marks stale and evicts what depends on it in the thread's current domain, which
// its caller has locked exclusively.
QX_API void DataSourceReadBarrier(const void* source);
QX_API void DataSourceEvict(const void* source);

} // namespace quna

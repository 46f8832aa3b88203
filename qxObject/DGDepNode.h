// Calculating nodes: a value that is computed on demand from other nodes and kept until one of them changes.
#pragma once

#include "qxObject/DGNode.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Mutex.h"

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace quna {

// A node that depends on what its calculation reads. Derived classes compute inside a DGCalculation and keep the result
// together with the version under which it was computed: it is current as long as Version() is the same.
//
// Threads: as DGBaseNode. Two threads that hold the shared lock may calculate one node side by side; both results are
//   right, and either may be kept.
class QX_API DGDepNode : public DGBaseNode {
public:
    bool IsEvictable() const override; // true
    void EnsureNoInnodesOrOutnodes() const override;

    // The node has turned stale. Called once each time, from OnChange of an input, with no guard held: it may not read
    // nodes, but may note that somebody has to.
    virtual void OnInvalidate() const;

    // Changes whenever the node turns stale.
    uint64 Version() const noexcept { return m_version.load(std::memory_order_acquire); }

    ~DGDepNode() noexcept(false) override;

protected:
    DGDepNode();

    // For the destructor of a derived class, which need not hold the domain's lock then: nothing invalidates or evicts
    // the node any more, and none of its operations runs on another thread. Nobody reads the node from now on.
    void Detach() const;

private:
    friend class DGGraph;

    mutable std::atomic<uint64> m_version{1};
    // All below is guarded by the graph.
    mutable bool m_subscribed = false; // edges from the inputs are, or are being, recorded
    mutable DGEdge* m_inEdges = nullptr;
    mutable DGNodeLink m_pending; // in the ring of nodes whose OnInvalidate is to be called
};

// One calculation of a node, on the stack of the thread that computes. While it lives, nodes that the thread reads
// become inputs of the node.
class QX_API DGCalculation {
public:
    // Fails an assertion that names the nodes when the thread is calculating this very node already.
    explicit DGCalculation(const DGDepNode& node);
    DGCalculation(const DGCalculation&) = delete;
    DGCalculation& operator=(const DGCalculation&) = delete;
    // Without Finish the calculation has failed, and the node is stale.
    ~DGCalculation();

    // The calculation is complete. The result belongs to the version that is returned; it is 0 when an input changed
    // in the meantime: then the result is good for the caller, but not to be kept.
    [[nodiscard]] uint64 Finish();

private:
    friend class DGGraph;

    const DGDepNode& m_node;
    DGCalculation* m_outer; // the calculation that this one interrupts
    uint64 m_version = 0;   // of the node at the beginning
    uint64 m_number = 0;    // unique in the process
    bool m_finished = false;
};

// A value of type T that a function computes from other nodes.
template <class T>
class Calculated final : public DGDepNode {
public:
    Calculated(xstring name, std::function<T()> calculate)
        : m_name(std::move(name)), m_calculate(std::move(calculate)) {}
    ~Calculated() noexcept(false) override { Detach(); }

    // The current value. Requires the domain's lock in any mode. An exception of the function passes through.
    T Get() const {
        // The reader depends on this node before the value is fetched: a change in between then reaches it.
        ReadBarrier();
        if (const std::shared_ptr<const T> value = CurrentValue()) return *value;
        DGCalculation calculation(*this);
        auto value = std::make_shared<const T>(m_calculate());
        Keep(value, calculation.Finish());
        return *value;
    }

    void OnEvict() const override { Drop(); }
    xstring Name() const override { return m_name; }
    void VisitContainingObject(IObjectVisitor&) const override {}
    void OnInvalidate() const override { Drop(); }

private:
    std::shared_ptr<const T> CurrentValue() const {
        std::lock_guard guard(m_mutex);
        return m_valueVersion == Version() ? m_value : nullptr;
    }
    void Keep(const std::shared_ptr<const T>& value, uint64 version) const {
        if (version == 0) return;
        std::lock_guard guard(m_mutex);
        m_value = value;
        m_valueVersion = version;
    }
    // Only frees the value's memory: an outdated version hides it already.
    void Drop() const {
        std::shared_ptr<const T> old;
        std::lock_guard guard(m_mutex);
        if (m_valueVersion != Version()) old.swap(m_value);
    }

    const xstring m_name;
    const std::function<T()> m_calculate;
    mutable Mutex m_mutex{"DGDepNode::m_mutex"}; // leaf lock
    mutable std::shared_ptr<const T> m_value;    // guarded by m_mutex
    mutable uint64 m_valueVersion = 0;           // guarded by m_mutex
};

} // namespace quna

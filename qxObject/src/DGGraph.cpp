#include "qxObject/src/DGGraph.h"

#include "qxObject/CSpace.h"
#include "qxObject/src/CSpaceImpl.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Mutex.h"
#include "qxUtils/Tracer.h"

#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace quna {

// Staleness is a version. A calculation notes the node's version, subscribes the node (m_subscribed), and records an
// edge for every input that it reads. Invalidating an input takes each subscribed dependent, unsubscribes it, drops its
// edges and raises its version, and goes on with the dependent's own dependents, by a list, not by recursion. So a
// result is kept only if the version is still the one noted, and a stale node costs nothing until it is read again.

// One input of one dependent, in the input's list of out-edges and in the dependent's list of in-edges.
struct DGEdge {
    const DGBaseNode* in;
    const DGDepNode* dep;
    DGEdge* prevOut;
    DGEdge* nextOut;
    DGEdge* prevIn;
    DGEdge* nextIn;
};

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/DGGraph";

Mutex& GraphMutex() {
    static Mutex* const mutex = new Mutex("DGGraph"); // never destroyed: nodes may outlive static objects
    return *mutex;
}

using Guard = std::lock_guard<Mutex>;

std::atomic<uint64> s_numCalculations{0};

constinit thread_local DGCalculation* t_calculation = nullptr; // the innermost of the thread

bool IsAlone(const DGNodeLink& link) { return link.next == &link; }

void Unlink(DGNodeLink& link) {
    link.prev->next = link.next;
    link.next->prev = link.prev;
    link.prev = link.next = &link;
}

void LinkAtEnd(DGNodeLink& head, DGNodeLink& link) {
    link.prev = head.prev;
    link.next = &head;
    head.prev->next = &link;
    head.prev = &link;
}

// Moves all of `from` to the end of `to`.
void SpliceAtEnd(DGNodeLink& to, DGNodeLink& from) {
    if (IsAlone(from)) return;
    from.next->prev = to.prev;
    to.prev->next = from.next;
    from.prev->next = &to;
    to.prev = from.prev;
    from.prev = from.next = &from;
}

// The nodes of a domain, taken off its list one by one; what is left goes back when the scope ends. All of its methods
// require that the graph is guarded.
class WorkList {
public:
    explicit WorkList(DGNodeLink& nodes) : m_nodes(nodes) { SpliceAtEnd(m_work, nodes); }
    WorkList(const WorkList&) = delete;
    WorkList& operator=(const WorkList&) = delete;
    ~WorkList() { SpliceAtEnd(m_nodes, m_work); }
    // The next node, which is back on its domain's list then; null when there is none.
    const DGBaseNode* Next() {
        if (IsAlone(m_work)) return nullptr;
        DGNodeLink& link = *m_work.next;
        Unlink(link);
        LinkAtEnd(m_nodes, link);
        return link.node;
    }

private:
    DGNodeLink& m_nodes;
    DGNodeLink m_work;
};

// A node that this thread is about to call, without the guard, or calls: its destructor waits (DGDepNode::Detach).
class NodeInUse {
public:
    // Requires: `guard` holds the graph's mutex, here and at each Set. It need not at the end of the scope.
    explicit NodeInUse(std::unique_lock<Mutex>& guard) : m_guard(guard), m_next(std::exchange(s_first, this)) {}
    NodeInUse(const NodeInUse&) = delete;
    NodeInUse& operator=(const NodeInUse&) = delete;
    ~NodeInUse() {
        if (!m_guard.owns_lock()) m_guard.lock();
        Set(nullptr);
        NodeInUse** place = &s_first;
        while (*place != this) place = &(*place)->m_next;
        *place = m_next;
    }
    void Set(const DGBaseNode* node) {
        m_node = node;
        if (s_numWaiting > 0) Changed().notify_all();
    }

    // Sleeps until no other thread uses the node.
    static void WaitForOthers(std::unique_lock<Mutex>& guard, const DGBaseNode& node) {
        const auto isInUse = [&] {
            for (const NodeInUse* use = s_first; use; use = use->m_next)
                if (use->m_node == &node && use->m_thread != std::this_thread::get_id()) return true;
            return false;
        };
        ++s_numWaiting;
        Changed().wait(guard, [&] { return !isInUse(); });
        --s_numWaiting;
    }

private:
    static ConditionVariable& Changed() { // with the graph's mutex
        static ConditionVariable* const changed = new ConditionVariable;
        return *changed;
    }
    static NodeInUse* s_first; // of all threads; guarded by the graph
    static int s_numWaiting;   // guarded by the graph

    std::unique_lock<Mutex>& m_guard;
    NodeInUse* m_next;
    const DGBaseNode* m_node = nullptr;
    const std::thread::id m_thread = std::this_thread::get_id();
};

NodeInUse* NodeInUse::s_first = nullptr;
int NodeInUse::s_numWaiting = 0;

// A datum that is no node of its own, known by its address.
class DataSourceNode final : public DGIndepNode {
public:
    DataSourceNode(CSpace& cspace, const void* source) : m_domain(cspace), m_source(source) {}

    // The domain's table owns this node.
    void OnEvict() const override {
        std::unique_ptr<DGIndepNode> self; // ends after the guard
        Guard guard(GraphMutex());
        const auto i = m_domain.m_graph.sources.find(m_source);
        if (i == m_domain.m_graph.sources.end() || i->second.get() != this) return;
        self = std::move(i->second);
        m_domain.m_graph.sources.erase(i);
    }
    xstring Name() const override { return "data source"; }
    void VisitContainingObject(IObjectVisitor&) const override {}

private:
    CSpace& m_domain;
    const void* const m_source;
};

} // namespace

// --- Lists ----------------------------------------------------------------------------------------------------------

void DGGraph::List(const DGBaseNode& node) {
    CSpace* const cspace = GetThreadCSpace();
    if (!cspace) return;
    Guard guard(GraphMutex());
    if (node.m_cspace.load(std::memory_order_relaxed)) return;
    LinkAtEnd(cspace->m_graph.nodes, node.m_link);
    node.m_cspace.store(cspace, std::memory_order_release);
}

void DGGraph::Unlist(const DGBaseNode& node) noexcept {
    Unlink(node.m_link);
    node.m_cspace.store(nullptr, std::memory_order_relaxed);
}

void DGGraph::EvictAll(CSpace& cspace) {
    std::unique_lock guard(GraphMutex());
    WorkList work(cspace.m_graph.nodes);
    NodeInUse inUse(guard);
    while (const DGBaseNode* const node = work.Next()) {
        inUse.Set(node);
        guard.unlock();
        if (node->IsEvictable()) Evict(*node);
        guard.lock();
    }
}

bool DGGraph::MayBeCollected(const DGBaseNode& node, bool all) {
    if (node.m_outEdges || !node.m_offered.load(std::memory_order_relaxed)) return false;
    if (all) return true;
    const unsigned char unread = node.m_unread.load(std::memory_order_relaxed);
    if (unread >= MAX_UNREAD_COLLECTIONS) return true;
    node.m_unread.store(static_cast<unsigned char>(unread + 1), std::memory_order_relaxed);
    return false;
}

// Under an exclusive hold of the domain's lock. A node is listed when it is first read, a calculation before its
// inputs: so one pass mostly finds inputs without their dependents.
void DGGraph::OfferToCollector(CSpace& cspace, bool all) {
    std::unique_lock guard(GraphMutex());
    if (IsAlone(cspace.m_graph.nodes)) return;
    WorkList work(cspace.m_graph.nodes);
    NodeInUse inUse(guard);
    while (const DGBaseNode* const node = work.Next()) {
        if (!MayBeCollected(*node, all)) continue;
        inUse.Set(node);
        guard.unlock();
        if (node->IsEvictable()) Evict(*node);
        guard.lock();
    }
}

void DGGraph::ForgetDomain(CSpace& cspace) {
    std::unordered_map<const void*, std::unique_ptr<DGIndepNode>> sources; // ends after the guard
    Guard guard(GraphMutex());
    while (!IsAlone(cspace.m_graph.nodes)) Unlist(*cspace.m_graph.nodes.next->node);
    sources.swap(cspace.m_graph.sources);
}

// --- Edges ----------------------------------------------------------------------------------------------------------

void DGGraph::Read(const DGBaseNode& node) {
    if (!node.m_cspace.load(std::memory_order_acquire)) List(node);
    if (node.m_unread.load(std::memory_order_relaxed) != 0) node.m_unread.store(0, std::memory_order_relaxed);
    if (t_calculation) AddEdge(node, *t_calculation);
}

void DGGraph::AddEdge(const DGBaseNode& in, DGCalculation& calculation) {
    const DGDepNode& dep = calculation.m_node;
    Guard guard(GraphMutex());
    if (!dep.m_subscribed || dep.m_version.load(std::memory_order_relaxed) != calculation.m_version)
        return; // stale already
    if (in.m_lastReader == calculation.m_number) return;
    DGEdge* const edge = new DGEdge{&in, &dep, nullptr, in.m_outEdges, nullptr, dep.m_inEdges};
    if (edge->nextOut) edge->nextOut->prevOut = edge;
    if (edge->nextIn) edge->nextIn->prevIn = edge;
    in.m_outEdges = edge;
    dep.m_inEdges = edge;
    in.m_lastReader = calculation.m_number;
}

void DGGraph::DropEdge(DGEdge* edge) noexcept {
    (edge->prevOut ? edge->prevOut->nextOut : edge->in->m_outEdges) = edge->nextOut;
    if (edge->nextOut) edge->nextOut->prevOut = edge->prevOut;
    (edge->prevIn ? edge->prevIn->nextIn : edge->dep->m_inEdges) = edge->nextIn;
    if (edge->nextIn) edge->nextIn->prevIn = edge->prevIn;
    // The input is no longer read by the calculation that may be under way.
    edge->in->m_lastReader = 0;
    delete edge;
}

void DGGraph::DropInEdges(const DGDepNode& node) noexcept {
    while (node.m_inEdges) DropEdge(node.m_inEdges);
}

void DGGraph::MakeStale(const DGDepNode& node) noexcept {
    node.m_subscribed = false;
    node.m_version.fetch_add(1, std::memory_order_release);
    DropInEdges(node);
}

// Makes everything stale that depends on `node`, and appends it to `pending`, except what stands in such a ring already.
// False when that is nothing.
bool DGGraph::CollectStale(const DGBaseNode& node, DGNodeLink& pending) noexcept {
    DGNodeLink fresh;
    const DGNodeLink* done = &fresh;
    const DGBaseNode* current = &node;
    for (;;) {
        while (current->m_outEdges) {
            const DGDepNode& dep = *current->m_outEdges->dep;
            MakeStale(dep);
            if (IsAlone(dep.m_pending)) LinkAtEnd(fresh, dep.m_pending);
        }
        if (done->next == &fresh) break;
        done = done->next;
        current = done->node;
    }
    const bool found = !IsAlone(fresh);
    SpliceAtEnd(pending, fresh);
    return found;
}

bool DGGraph::IsCalculatedHere(const DGDepNode& node) noexcept {
    for (const DGCalculation* c = t_calculation; c; c = c->m_outer)
        if (&c->m_node == &node) return true;
    return false;
}

// The same for what depends on a node whose calculation has failed, except what this thread calculates: that fails too, or
// it knows.
bool DGGraph::CollectStaleElsewhere(const DGBaseNode& node, DGNodeLink& pending) noexcept {
    bool found = false;
    for (const DGEdge* edge = node.m_outEdges; edge;) {
        const DGDepNode& dep = *edge->dep;
        if (IsCalculatedHere(dep)) {
            edge = edge->nextOut;
            continue;
        }
        MakeStale(dep);
        if (IsAlone(dep.m_pending)) LinkAtEnd(pending, dep.m_pending);
        CollectStale(dep, pending);
        found = true;
        edge = node.m_outEdges; // this one is gone, and perhaps others
    }
    return found;
}

void DGGraph::NotifyPending(DGNodeLink& pending) {
    std::unique_lock guard(GraphMutex());
    // An exception of a node must not leave links to this stack behind.
    struct Emptying {
        ~Emptying() {
            while (!IsAlone(pending)) Unlink(*pending.next);
        }
        DGNodeLink& pending;
    };
    const Emptying emptying{pending};
    NodeInUse inUse(guard);
    while (!IsAlone(pending)) {
        const DGDepNode* const node = pending.next->node->m_asDepNode;
        Unlink(*pending.next);
        inUse.Set(node);
        guard.unlock();
        node->OnInvalidate();
        guard.lock();
    }
}

void DGGraph::Detach(const DGDepNode& node) {
    std::unique_lock guard(GraphMutex());
    MakeStale(node);
    Unlink(node.m_pending);
    Unlist(node);
    NodeInUse::WaitForOthers(guard, node);
}

void DGGraph::Invalidate(const DGBaseNode& node) {
    DGNodeLink pending;
    {
        Guard guard(GraphMutex());
        if (!CollectStale(node, pending)) return;
    }
    NotifyPending(pending);
}

void DGGraph::Evict(const DGBaseNode& node) {
    DGNodeLink pending;
    bool notify = false;
    {
        Guard guard(GraphMutex());
        if (node.m_asDepNode) MakeStale(*node.m_asDepNode);
        notify = CollectStale(node, pending);
        Unlist(node);
    }
    if (notify) NotifyPending(pending);
    node.OnEvict();
}

// The node ends.
void DGGraph::Forget(const DGBaseNode& node) {
    DGNodeLink pending;
    {
        Guard guard(GraphMutex());
        const bool notify = CollectStale(node, pending);
        Unlist(node);
        if (!notify) return;
    }
    NotifyPending(pending);
}

// --- Calculations ---------------------------------------------------------------------------------------------------

void DGGraph::BeginCalculation(DGCalculation& calculation) {
    const DGDepNode& node = calculation.m_node;
    for (const DGCalculation* c = t_calculation; c; c = c->m_outer) {
        if (&c->m_node != &node) continue;
        std::string cycle = node.Name().str();
        for (const DGCalculation* d = t_calculation; d != c; d = d->m_outer)
            cycle.insert(0, d->m_node.Name().str() + " -> ");
        cycle.insert(0, "cycle in a calculation: " + node.Name().str() + " -> ");
        ThrowQunaAssertionError(cycle.c_str(), SOURCE_PATH, __LINE__);
    }
    calculation.m_number = s_numCalculations.fetch_add(1, std::memory_order_relaxed) + 1;
    calculation.m_outer = t_calculation;
    {
        Guard guard(GraphMutex());
        node.m_subscribed = true; // another thread may have done so: then both record
        calculation.m_version = node.m_version.load(std::memory_order_relaxed);
    }
    t_calculation = &calculation;
}

bool DGGraph::EndCalculation(DGCalculation& calculation, bool complete) noexcept {
    t_calculation = calculation.m_outer;
    DGNodeLink pending;
    {
        Guard guard(GraphMutex());
        if (calculation.m_node.m_version.load(std::memory_order_relaxed) != calculation.m_version) return false;
        if (complete) return true;
        // Another thread may have completed the same calculation beside this one, and others have read its result: without
        // the node's inputs they would not hear of a change.
        MakeStale(calculation.m_node);
        if (!CollectStaleElsewhere(calculation.m_node, pending)) return false;
    }
    try {
        NotifyPending(pending);
    } catch (...) {
        TraceSwallowedException("the end of a calculation that failed");
    }
    return false;
}

DGCalculation::DGCalculation(const DGDepNode& node) : m_node(node) { DGGraph::BeginCalculation(*this); }

DGCalculation::~DGCalculation() {
    if (!m_finished) DGGraph::EndCalculation(*this, false);
}

uint64 DGCalculation::Finish() {
    m_finished = true;
    return DGGraph::EndCalculation(*this, true) ? m_version : 0;
}

// --- Data sources ---------------------------------------------------------------------------------------------------

void DGGraph::ReadSource(CSpace& cspace, const void* source) {
    if (!t_calculation) return;
    const DGIndepNode* node = nullptr;
    {
        Guard guard(GraphMutex());
        auto& entry = cspace.m_graph.sources[source];
        if (!entry) entry = std::make_unique<DataSourceNode>(cspace, source);
        node = entry.get();
        cspace.m_graph.haveSources.store(true, std::memory_order_relaxed);
    }
    node->ReadBarrier();
}

void DGGraph::EvictSource(CSpace& cspace, const void* source) {
    if (!cspace.m_graph.haveSources.load(std::memory_order_relaxed)) return;
    std::unique_lock guard(GraphMutex());
    NodeInUse inUse(guard);
    for (;;) {
        const auto i = cspace.m_graph.sources.find(source);
        if (i == cspace.m_graph.sources.end()) return;
        const DGBaseNode* victim = i->second.get();
        // Evicting a dependent takes it off the list; the source itself comes last.
        if (const DGEdge* const edge = victim->m_outEdges) victim = edge->dep;
        inUse.Set(victim);
        guard.unlock();
        if (victim->IsEvictable())
            Evict(*victim);
        else
            victim->EnsureNoInnodesOrOutnodes();
        guard.lock();
    }
}

void DataSourceReadBarrier(const void* source) {
    if (CSpace* const cspace = GetThreadCSpace()) DGGraph::ReadSource(*cspace, source);
}

void DataSourceEvict(const void* source) {
    if (CSpace* const cspace = GetThreadCSpace()) DGGraph::EvictSource(*cspace, source);
}

// --- Nodes ----------------------------------------------------------------------------------------------------------

DGBaseNode::~DGBaseNode() noexcept(false) {
    const int uncaught = std::uncaught_exceptions();
    try {
        DGGraph::Forget(*this);
    } catch (...) {
        if (uncaught == 0) throw;
        TraceSwallowedException("~DGBaseNode");
    }
}

void DGBaseNode::OnChange() const { DGGraph::Invalidate(*this); }

void DGBaseNode::ReadBarrier() const { DGGraph::Read(*this); }

void DGBaseNode::AlwaysEvict() const { DGGraph::Evict(*this); }

DGIndepNode::DGIndepNode() = default;

bool DGIndepNode::IsEvictable() const { return true; }

void DGIndepNode::EnsureNoInnodesOrOutnodes() const { DGGraph::Invalidate(*this); }

DGDepNode::DGDepNode() {
    m_asDepNode = this;
    m_pending.node = this;
}

DGDepNode::~DGDepNode() noexcept(false) {
    Guard guard(GraphMutex());
    DGGraph::MakeStale(*this);
    Unlink(m_pending);
}

void DGDepNode::Detach() const { DGGraph::Detach(*this); }

bool DGDepNode::IsEvictable() const { return true; }

void DGDepNode::EnsureNoInnodesOrOutnodes() const {
    {
        Guard guard(GraphMutex());
        DGGraph::MakeStale(*this);
    }
    DGGraph::Invalidate(*this);
}

void DGDepNode::OnInvalidate() const {}

} // namespace quna

// The edges of the dependency graph, and the lists of the nodes of each domain.
#pragma once

#include "qxObject/DGDepNode.h"
#include "qxUtils/Export.h"

#include <memory>
#include <unordered_map>

namespace quna {

// The nodes that one domain lists, and the data sources that its calculations have read.
struct DGDomain {
    DGNodeLink nodes; // head of the ring
    std::unordered_map<const void*, std::unique_ptr<DGIndepNode>> sources;
    std::atomic<bool> haveSources{false}; // sources may be non-empty
};

// All state of the graph is guarded by one mutex of the process, a leaf lock that is held for a few words at a time and
// never while a node's virtual operation runs. Without a calculation in progress, reading a node that is listed takes
// no mutex.
class QX_API DGGraph {
public:
    static void Read(const DGBaseNode& node);
    static void Invalidate(const DGBaseNode& node);
    static void Evict(const DGBaseNode& node);
    static void Forget(const DGBaseNode& node);

    static void BeginCalculation(DGCalculation& calculation);
    static bool EndCalculation(DGCalculation& calculation, bool complete) noexcept;

    static void ReadSource(CSpace& cspace, const void* source);
    static void EvictSource(CSpace& cspace, const void* source);

    static void EvictAll(CSpace& cspace);
    // Evicts what a collection may: see DGBaseNode::OfferToCollector. `all` when it was asked for.
    static void OfferToCollector(CSpace& cspace, bool all);
    static void Detach(const DGDepNode& node);
    // Takes every node off the domain's list; the domain ends.
    static void ForgetDomain(CSpace& cspace);

private:
    friend class DGDepNode;

    static constexpr unsigned char MAX_UNREAD_COLLECTIONS = 16;

    static bool MayBeCollected(const DGBaseNode& node, bool all);
    static const DGBaseNode* NextToCollect(CSpace& cspace, DGNodeLink& work, bool all);
    static void List(const DGBaseNode& node);
    static void AddEdge(const DGBaseNode& in, DGCalculation& calculation);
    static void DropEdge(DGEdge* edge) noexcept;
    static void DropInEdges(const DGDepNode& node) noexcept;
    static void MakeStale(const DGDepNode& node) noexcept;
    static bool CollectStale(const DGBaseNode& node, DGNodeLink& pending) noexcept;
    static bool CollectStaleElsewhere(const DGBaseNode& node, DGNodeLink& pending) noexcept;
    static bool IsCalculatedHere(const DGDepNode& node) noexcept;
    static void NotifyPending(DGNodeLink& pending);
    static void Unlist(const DGBaseNode& node) noexcept;
};

} // namespace quna

// Fills a tree from entries in ascending order of their keys.
#pragma once

#include "qxPersistStore/BPlusTree2.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <vector>

namespace quna {

// Builds the leaves from left to right and then each level above at once, so that no node splits and no key is searched.
// Plain insertion of ascending keys leaves every leaf half full; here the caller says how full. (Bottom-up loading:
// Comer, The Ubiquitous B-Tree, 1979.)
//
//     BTreeBulkLoader loader(*tree, 1.0);
//     for (...) loader.Add(key, payload);
//     loader.Finish();
//
// Until Finish the tree is as it was; Finish replaces its contents. A loader that is dropped before leaves nothing but
// transient nodes to the collector.
//
// Threads: exclusive lock of the tree's domain throughout, with the space in force.
class QX_API BTreeBulkLoader {
public:
    // fillDegree: how full a node becomes, 0.5 to 1 ("0.5 <= fillDegree && fillDegree <= 1"). 1 is best for a tree that
    // is read; room in the leaves saves splits in one that grows in the middle. The tree outlives the loader.
    BTreeBulkLoader(BPlusTree& tree, double fillDegree);
    BTreeBulkLoader(const BTreeBulkLoader&) = delete;
    BTreeBulkLoader& operator=(const BTreeBulkLoader&) = delete;

    // False, and nothing is added, when the key is not above the one before. `payload` is not read in a set; null stands
    // for a default one.
    [[nodiscard]] bool Add(const _Key* key, const _Payload* payload);
    ssize_t Size() const { return m_size; }
    // Makes what was added the contents of the tree, persistent if the tree is. Nothing may be added afterwards. The old
    // nodes are deleted, the objects that their entries name are not: the new entries may name them too.
    void Finish();

private:
    // A node that has no parent yet.
    struct Child {
        void* node;
        LeafNode* leftmost; // its first key is the separator to the left of the node
    };

    LeafNode* NewLeaf();
    void CompleteLastLeaf();
    std::vector<Child> BuildLevel(const std::vector<Child>& children, ssize_t height) const;
    Child BuildNode(const Child* children, ssize_t count, ssize_t height) const;

    BPlusTree& m_tree;
    const CalculatedBTreeTypeInfo& m_bi;
    const ssize_t m_fill; // entries of a node, 50 to 100
    std::vector<LeafNode*> m_leaves;
    ssize_t m_size = 0;
};

} // namespace quna

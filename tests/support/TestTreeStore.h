// Persistent trees for tests: a store with one space, whose lock, writes, collections and restarts a test asks for.
#pragma once

#include "tests/support/TestStore.h"
#include "tests/support/TestTree.h"

#include <optional>
#include <set>
#include <vector>

#include <gtest/gtest.h>

namespace quna {

// The space is locked exclusively and current except where a helper says otherwise. Nothing is written or collected but
// by WriteAll, Evict and Reopen; the latter two make all pointers to nodes invalid.
class PersistentTreeTest : public ::testing::Test {
protected:
    PersistentTreeTest() {
        RegisterTreeTypes();
        OpenSpace();
    }
    ~PersistentTreeTest() noexcept override { Unlock(); }

    void Lock(ECSpaceLockMode mode = Exclusive) {
        m_scope.reset();
        m_scope.emplace(m_ps, mode);
    }
    void Unlock() { m_scope.reset(); }
    void WriteAll() {
        Unlock();
        m_ps->WriteDirtyObjectsToLss(false);
        Lock();
    }
    // Lets go of everything that can be loaded again.
    void Evict() {
        WriteAll();
        Unlock();
        SynchronousGc(m_ps->GetCSpace());
        Lock();
    }
    void Reopen() {
        Unlock();
        m_store.Reopen();
        OpenSpace();
    }

    template <class K, class P = void>
    BPlusTree& NewTree(ConstStringZ name = "tree") {
        auto* const tree = NewObject<BPlusTree>(StoredInfo<K, P>());
        m_ps->AddRoot(name, tree);
        return *tree;
    }
    template <class K, class P = void>
    BPlusTree& NewTransientTree() {
        return *NewObject<BPlusTree>(StoredInfo<K, P>());
    }
    BPlusTree& Tree(ConstStringZ name = "tree") { return *static_cast<BPlusTree*>(m_ps->GetRoot(name).m_self); }
    // A persistent tree of uint64 keys and payloads in this shape, all of it written and clean.
    BPlusTree& BuiltTree(const Shape& shape, ConstStringZ name = "tree") {
        auto* const tree = NewObject<BPlusTree>(StoredInfo<IntKey, IntKey>());
        TreeBuilder(*tree).Build(shape);
        m_ps->AddRoot(name, tree);
        WriteAll();
        return *tree;
    }

    // The deletions requested since the last write: roots of subtrees.
    std::vector<OID> Requested() const {
        const DeletionQueue::OIDS& queue = m_ps->GetDQ().m_deltaQueue;
        return std::vector<OID>(queue.begin(), queue.end());
    }

    TestStore m_store;
    PSpace* m_ps = nullptr;

private:
    void OpenSpace() {
        m_ps = m_store.OpenSpace("s", OM_OPEN_ALWAYS, CreateCSpace());
        Lock();
    }

    std::optional<SpaceScope> m_scope;
};

using Objects = std::set<const void*>;

// The tree and its nodes: the tree first, then each node before its children.
inline std::vector<ptr<IPersistable>> AllOf(BPlusTree& tree) {
    std::vector<ptr<IPersistable>> objects{ptr<IPersistable>(&tree)};
    for (const ptr<IPersistable>& node : NodesOf(tree)) objects.push_back(node);
    return objects;
}
// Those of `objects` that are dirty.
inline Objects DirtyOf(const std::vector<ptr<IPersistable>>& objects) {
    Objects dirty;
    for (const ptr<IPersistable>& object : objects)
        if (IsPersistableDirty(object)) dirty.insert(object.m_self);
    return dirty;
}
inline Objects DirtyOf(BPlusTree& tree) { return DirtyOf(AllOf(tree)); }
inline Objects TransientOf(BPlusTree& tree) {
    Objects found;
    for (const ptr<IPersistable>& object : AllOf(tree))
        if (!GetOid(object)) found.insert(object.m_self);
    return found;
}

} // namespace quna

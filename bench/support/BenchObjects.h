// What the benchmarks of the store have in common: a class of small objects, stores in a temporary directory, and
// graphs of a stated size.
#pragma once

#include "qxObject/CSpace.h"
#include "qxObject/ReflectedClass.h"
#include "qxObject/Registry.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/Schema.h"
#include "tests/support/TempDir.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace quna {

class BenchNode;
const ReflectedClass& _GetReflected(const BenchNode*);

inline constexpr int BENCH_NODE_WORDS = 11; // with schema and reference about 100 bytes on disk

// A record of about 100 bytes with one reference.
class BenchNode : public PersistableMixin<IObjectBaseMixin<BenchNode, EmptyBase>> {
public:
    void VisitObjects(IObjectVisitor& v) const { m_next.VisitObjects(v); }
    void VisitPrefs(IPrefVisitor& v) const { v.VisitPref(m_next); }
    void Serialise(Archive& ar) const {
        SerialiseSchema(ar, 1);
        for (const uint64 word : m_words) ar << word;
        ar << m_next;
    }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        ar = DeserialiseSchema(ar, 1, schema);
        for (uint64& word : m_words) ar = ar >> word;
        return ar >> m_next;
    }

    uint64 m_words[BENCH_NODE_WORDS] = {};
    cref<BenchNode> m_next;
};

class BenchRoot;
const ReflectedClass& _GetReflected(const BenchRoot*);

// Names all nodes, so that a store is reached from one root.
class BenchRoot : public PersistableMixin<IObjectBaseMixin<BenchRoot, EmptyBase>> {
public:
    void VisitObjects(IObjectVisitor& v) const {
        for (const cref<BenchNode>& node : m_nodes) node.VisitObjects(v);
    }
    void VisitPrefs(IPrefVisitor& v) const {
        for (const cref<BenchNode>& node : m_nodes) v.VisitPref(node);
    }
    void Serialise(Archive& ar) const {
        SerialiseSchema(ar, 1);
        Serialise_ssize_t(ar, m_nodes.size());
        for (const cref<BenchNode>& node : m_nodes) ar << node;
    }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        ar = DeserialiseSchema(ar, 1, schema);
        uint32 n = 0;
        ar = DeserialiseVariableLengthUint(ar, n);
        m_nodes.resize(n);
        for (cref<BenchNode>& node : m_nodes) ar = ar >> node;
        return ar;
    }

    xvector<cref<BenchNode>> m_nodes;
};

template <class T>
ReflectedClass MakeBenchClass(ConstStringZ name) {
    ReflectedClass rc;
    rc.m_name = name;
    rc.m_size = static_cast<ssize_t>(sizeof(T));
    rc.m_createFn = &T::sfnCreateInstance;
    rc.m_IObjectFnTable = IObject::Stubs<T>::GetTable();
    return rc;
}

inline const ReflectedClass& _GetReflected(const BenchNode*) {
    static const ReflectedClass rc = MakeBenchClass<BenchNode>("bench::Node");
    return rc;
}

inline const ReflectedClass& _GetReflected(const BenchRoot*) {
    static const ReflectedClass rc = MakeBenchClass<BenchRoot>("bench::Root");
    return rc;
}

inline void RegisterBenchClasses() {
    static const bool registered = [] {
        Register_Project_qxPersistStore();
        XTarget* target = Quna_Core_qxPersistStore_GetXTarget();
        return RegisterReflectedClass(&GetReflectedClass<BenchNode>(), target) == NSE_OK &&
               RegisterReflectedClass(&GetReflectedClass<BenchRoot>(), target) == NSE_OK;
    }();
    if (!registered) std::abort();
}

// An open store with one open space, which is the thread's current one. The collector keeps everything.
class BenchStore {
public:
    explicit BenchStore(const std::string& path, EOpenMode mode = OM_OPEN_ALWAYS, bool startWriter = false) {
        RegisterBenchClasses();
        PersistStoreSettings settings;
        settings.startObjectDeletion = startWriter; // otherwise spaces are written when a benchmark says so
        m_store = OpenPersistStore(path.c_str(), mode, settings);
        m_space = OpenPSpace(m_store, "bench", OM_OPEN_ALWAYS, nullptr);
        SetEvictionBudget(GetCSpace(m_space), ssize_t{1} << 40);
        SetMilliSecsPerGc(GetCSpace(m_space), 3600 * 1000);
        SetThreadPSpace(m_space);
        SetThreadCSpace(GetCSpace(m_space));
    }
    BenchStore(const BenchStore&) = delete;
    BenchStore& operator=(const BenchStore&) = delete;
    ~BenchStore() noexcept(false) { CloseAll(); }

    void CloseAll() {
        if (!m_store) return;
        Close(m_space);
        Close(m_store);
        m_store = nullptr;
        SetThreadPSpace(nullptr);
        SetThreadCSpace(nullptr);
    }

    PersistStore* m_store;
    PSpace* m_space;
};

// A random order of 0..n-1 by a fixed seed.
inline std::vector<uint32> Shuffled(ssize_t n) {
    std::vector<uint32> order(static_cast<std::size_t>(n));
    std::iota(order.begin(), order.end(), 0u);
    std::shuffle(order.begin(), order.end(), std::mt19937(12345));
    return order;
}

// New, transient nodes, registered with the thread's CSpace, whose lock is held exclusively.
inline std::vector<BenchNode*> NewNodes(ssize_t n) {
    std::vector<BenchNode*> nodes(static_cast<std::size_t>(n));
    for (BenchNode*& node : nodes) {
        node = new BenchNode;
        node->m_words[0] = static_cast<uint64>(&node - nodes.data());
        RegisterGcObject(ptr<IObject>(node));
    }
    return nodes;
}

// A store with a root that names n nodes, cleanly closed.
inline void MakeStoreOfNodes(const std::string& path, ssize_t n) {
    BenchStore store(path, OM_CREATE_ALWAYS);
    const PSpaceTxn txn(Exclusive);
    auto* root = new BenchRoot;
    RegisterGcObject(ptr<IObject>(root));
    for (BenchNode* node : NewNodes(n)) {
        root->m_nodes.emplace_back();
        root->m_nodes.back() = node;
    }
    AddPSpaceRoot("root", ptr<IPersistable>(root));
}

} // namespace quna

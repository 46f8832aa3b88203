// How fast does a subtree of 1 M objects go in the background, loaded from the file for it (page cache warm), and how long does a
// foreground thread wait at most for the exclusive lock meanwhile? Limits: at least 500 k objects/s, and a wait of at
// most one batch. Two shapes: a tree in which each object is a subtree with ten children, whose batches are ten objects,
// and one object with 1 M subtrees right below it, whose queue is long.
#include "bench/support/BenchObjects.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/src/DosWriter.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

#include <benchmark/benchmark.h>

namespace {

using namespace quna;
using Clock = std::chrono::steady_clock;

constexpr ssize_t NUM_OBJECTS = 1'000'000;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }
double MicroSecs(Clock::duration d) { return Seconds(d) * 1e6; }

class BenchBranch;
const ReflectedClass& _GetReflected(const BenchBranch*);

// About 100 bytes on disk with ten children.
class BenchBranch : public PersistableMixin<IObjectBaseMixin<BenchBranch, EmptyBase>> {
public:
    void VisitObjects(IObjectVisitor& v) const {
        for (const cref<BenchBranch>& child : m_children) child.VisitObjects(v);
    }
    void VisitPrefs(IPrefVisitor& v) const {
        for (const cref<BenchBranch>& child : m_children) v.VisitPref(child);
    }
    void Serialise(Archive& ar) const {
        SerialiseSchema(ar, 1);
        for (const uint64 word : m_words) ar << word;
        Serialise_ssize_t(ar, m_children.size());
        for (const cref<BenchBranch>& child : m_children) ar << child;
    }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        ar = DeserialiseSchema(ar, 1, schema);
        for (uint64& word : m_words) ar = ar >> word;
        uint32 n = 0;
        ar = DeserialiseVariableLengthUint(ar, n);
        m_children.resize(n);
        for (cref<BenchBranch>& child : m_children) ar = ar >> child;
        return ar;
    }

    uint64 m_words[8] = {};
    xvector<cref<BenchBranch>> m_children;
};

const ReflectedClass& _GetReflected(const BenchBranch*) {
    static const ReflectedClass rc = MakeBenchClass<BenchBranch>("bench::Branch");
    return rc;
}

void RegisterBranch() {
    RegisterBenchClasses();
    static const bool registered =
        RegisterReflectedClass(&GetReflectedClass<BenchBranch>(), Quna_Core_qxPersistStore_GetXTarget()) == NSE_OK;
    if (!registered) std::abort();
}

void MakeStoreOfBranches(const std::string& path, ssize_t fanOut) {
    BenchStore store(path, OM_CREATE_ALWAYS);
    const PSpaceTxn txn(Exclusive);
    std::vector<BenchBranch*> branches;
    for (ssize_t i = 0; i < NUM_OBJECTS; ++i) {
        auto* const branch = new BenchBranch;
        RegisterGcObject(ptr<IObject>(branch));
        branches.push_back(branch);
        if (i == 0) continue;
        BenchBranch* const parent = branches[static_cast<std::size_t>((i - 1) / fanOut)];
        parent->m_children.emplace_back();
        parent->m_children.back() = branch;
    }
    AddPSpaceRoot("root", ptr<IPersistable>(branches[0]));
}

// Reads the whole file, so that a figure does not depend on what the system has kept of it. After the opening.
void WarmPageCache(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> buffer(1 << 20);
    while (file.read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) {
    }
}

bool IsPending(const DeletionQueue& dq) { return dq.HaveObjectsToDelete() || dq.HaveRequests(); }

void DeleteInTheBackground(benchmark::State& state) {
    RegisterBranch();
    double longestWait = 0;
    for (auto _ : state) {
        const TempDir dir;
        MakeStoreOfBranches(dir / "store", state.range(0));
        BenchStore store(dir / "store", OM_OPEN_EXISTING);
        WarmPageCache(dir / "store");
        PSpace* const space = store.m_space;
        {
            const PSpaceTxn txn(Exclusive);
            const ptr<IPersistable> root = GetPSpaceRoot("root");
            RemovePSpaceRoot("root");
            space->AsyncPermanentlyDeleteSubTree(root);
        }
        space->WriteDirtyObjectsToLss(false);
        const auto begin = Clock::now();
        store.m_store->StartObjectDeletion();
        for (bool pending = true; pending;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            const auto before = Clock::now();
            const CSpaceLock lock(space->GetCSpace(), Exclusive);
            longestWait = std::max(longestWait, MicroSecs(Clock::now() - before));
            pending = IsPending(space->m_dq);
        }
        state.SetIterationTime(Seconds(Clock::now() - begin));
    }
    state.SetItemsProcessed(state.iterations() * NUM_OBJECTS);
    state.counters["longest_wait_us"] = longestWait;
}

// The same without the writer's thread and its foreground: the longest batch is what a wait can last.
void Batches(benchmark::State& state) {
    RegisterBranch();
    double longestBatch = 0;
    ssize_t numBatches = 0;
    for (auto _ : state) {
        const TempDir dir;
        MakeStoreOfBranches(dir / "store", state.range(0));
        BenchStore store(dir / "store", OM_OPEN_EXISTING);
        WarmPageCache(dir / "store");
        {
            const PSpaceTxn txn(Exclusive);
            const ptr<IPersistable> root = GetPSpaceRoot("root");
            RemovePSpaceRoot("root");
            store.m_space->AsyncPermanentlyDeleteSubTree(root);
        }
        store.m_space->WriteDirtyObjectsToLss(false);
        const auto begin = Clock::now();
        for (auto last = begin; store.m_store->m_dosWriter.DeleteSomeObjects();) {
            const auto now = Clock::now();
            longestBatch = std::max(longestBatch, MicroSecs(now - last));
            last = now;
            ++numBatches;
        }
        state.SetIterationTime(Seconds(Clock::now() - begin));
    }
    state.SetItemsProcessed(state.iterations() * NUM_OBJECTS);
    state.counters["longest_batch_us"] = longestBatch;
    state.counters["batches"] = static_cast<double>(numBatches) / static_cast<double>(state.iterations());
}

BENCHMARK(DeleteInTheBackground)
    ->Arg(10)
    ->Arg(NUM_OBJECTS)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly();
BENCHMARK(Batches)
    ->Arg(10)
    ->Arg(NUM_OBJECTS)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly();

} // namespace

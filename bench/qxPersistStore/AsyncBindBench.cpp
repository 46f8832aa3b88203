// What does binding without blocking cost? Limits: on a resident object at most 1.5 times a synchronous bind; a miss at
// most 2 us on the calling thread; at least 700 k objects/s through the load and update threads (one space, 1 M objects,
// page cache warm) while the caller never waits 1 ms for its lock.
#include "bench/support/BenchObjects.h"
#include "bench/support/Contest.h"
#include "qxObject/CSpace.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/src/DGIndepNodeForAsyncPref.h"
#include "qxPersistStore/src/PSpace.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <thread>
#include <vector>

namespace {

using namespace quna;
using Clock = std::chrono::steady_clock;
using Report = Contest::Report;

constexpr ssize_t NUM_OBJECTS = 1'000'000;
constexpr ssize_t NUM_HOT = 1000; // resident objects that stay in the processor's cache
constexpr int HOT_ROUNDS = 2000;
constexpr ssize_t ASKS_PER_FRAME = 2000; // what a caller asks for under one hold of the lock
constexpr std::chrono::milliseconds BETWEEN_FRAMES{1};

std::vector<OID> OidsOf(const BenchRoot& root) {
    std::vector<OID> oids;
    for (const cref<BenchNode>& node : root.m_nodes) oids.push_back(node.GetOid());
    return oids;
}

std::vector<OID> LoadOids() {
    const PSpaceTxn txn(SharedRead);
    return OidsOf(*static_cast<BenchRoot*>(GetPSpaceRoot("root").m_self));
}

template <class Bind>
void BindResident(Report& report, PSpace* space, const std::vector<OID>& oids, ECSpaceLockMode mode, Bind bind) {
    const PSpaceTxn txn(mode);
    for (ssize_t i = 0; i < NUM_HOT; ++i) space->BindObject(oids[static_cast<std::size_t>(i)]);
    const auto begin = Clock::now();
    uintptr_t sum = 0;
    for (int round = 0; round < HOT_ROUNDS; ++round)
        for (ssize_t i = 0; i < NUM_HOT; ++i)
            sum += reinterpret_cast<uintptr_t>(bind(oids[static_cast<std::size_t>(i)]));
    const double seconds = SecondsSince(begin);
    if (sum == 0) std::abort();
    report.Value(mode == SharedRead ? "resident, shared" : "resident, exclusive",
                 seconds * 1e9 / (HOT_ROUNDS * NUM_HOT), "ns");
}

void RunResident(const std::string& path) {
    BenchStore store(path, OM_OPEN_EXISTING);
    const std::vector<OID> oids = LoadOids();
    PSpace* const space = store.m_space;
    Contest contest;
    contest.Add("AsyncBind2", [&](Report& report) {
        for (const ECSpaceLockMode mode : {Exclusive, SharedRead})
            BindResident(report, space, oids, mode, [&](OID oid) { return space->AsyncBind2(oid).po.m_self; });
    });
    contest.Add("TryBindObject", [&](Report& report) {
        for (const ECSpaceLockMode mode : {Exclusive, SharedRead})
            BindResident(report, space, oids, mode, [&](OID oid) { return space->TryBindObject(oid).m_self; });
    });
    contest.Run("Binding a resident object");
}

// A program with frames: asks for all objects, some each frame, then looks each frame whether all have arrived.
void LoadAll(Report& report, const std::string& path) {
    BenchStore store(path, OM_OPEN_EXISTING);
    const std::vector<OID> oids = LoadOids();
    CSpace* const cs = GetCSpace(store.m_space);
    Clock::duration longestWait{};
    Clock::duration asking{};
    const auto lock = [&] {
        const auto begin = Clock::now();
        Lock(cs, Exclusive);
        longestWait = std::max(longestWait, Clock::now() - begin);
    };
    const auto begin = Clock::now();
    for (std::size_t i = 0; i < oids.size();) {
        lock();
        const auto start = Clock::now();
        const std::size_t end = std::min(i + ASKS_PER_FRAME, oids.size());
        for (; i < end; ++i)
            if (store.m_space->AsyncBind2(oids[i]).result != EAsyncBindResult::Pending) std::abort();
        asking += Clock::now() - start;
        Unlock(cs);
        std::this_thread::sleep_for(BETWEEN_FRAMES);
    }
    for (bool done = false; !done;) {
        std::this_thread::sleep_for(BETWEEN_FRAMES);
        lock();
        done = store.m_space->AsyncBind2(oids.back()).result == EAsyncBindResult::Bound;
        Unlock(cs);
    }
    report.Time("loaded", static_cast<double>(oids.size()), SecondsSince(begin));
    report.Value("miss, on the caller's thread",
                 std::chrono::duration<double, std::micro>(asking).count() / static_cast<double>(oids.size()), "us");
    report.Value("longest wait for the lock", std::chrono::duration<double, std::milli>(longestWait).count(), "ms");
}

void LoadSynchronously(Report& report, const std::string& path) {
    BenchStore store(path, OM_OPEN_EXISTING);
    const std::vector<OID> oids = LoadOids();
    const PSpaceTxn txn(Exclusive);
    const auto begin = Clock::now();
    for (const OID oid : oids) store.m_space->BindObject(oid);
    report.Time("loaded", static_cast<double>(oids.size()), SecondsSince(begin));
}

void RunLoads(const std::string& path) {
    Contest contest;
    contest.Add("AsyncBind2", [&](Report& report) { LoadAll(report, path); });
    contest.Add("BindObject", [&](Report& report) { LoadSynchronously(report, path); });
    contest.Run("Loading 1 M objects, page cache warm");
}

} // namespace

// The argument is a regular expression for what to measure: resident, loads.
int main(int argc, char** argv) {
    const std::regex parts(ArgumentOrNothing(argc, argv, 1));
    const TempDir dir;
    MakeStoreOfNodes(dir / "store", NUM_OBJECTS);
    if (std::regex_search("resident", parts)) RunResident(dir / "store");
    if (std::regex_search("loads", parts)) RunLoads(dir / "store");
}

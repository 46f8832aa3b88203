// What does taking and giving back an uncontended domain lock cost, beside a std::mutex? And two threads on one lock?
//
// Items are pairs of lock and unlock. Target: an exclusive pair at most twice the mutex pair.
#include "qxObject/CSpace.h"
#include "qxObject/WCSpace.h"

#include <mutex>
#include <shared_mutex>

#include <benchmark/benchmark.h>

namespace quna {
namespace {

void StdMutexPair(benchmark::State& state) {
    static std::mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        benchmark::ClobberMemory();
        mutex.unlock();
    }
    state.SetItemsProcessed(state.iterations());
}

void StdSharedMutexReadPair(benchmark::State& state) {
    static std::shared_mutex mutex;
    for (auto _ : state) {
        mutex.lock_shared();
        benchmark::ClobberMemory();
        mutex.unlock_shared();
    }
    state.SetItemsProcessed(state.iterations());
}

CSpace* SharedDomain() {
    static CSpace* const cs = CreateCSpace();
    return cs;
}

void DomainPair(benchmark::State& state, ECSpaceLockMode mode) {
    CSpace* const cs = SharedDomain();
    for (auto _ : state) {
        Lock(cs, mode);
        benchmark::ClobberMemory();
        Unlock(cs);
    }
    state.SetItemsProcessed(state.iterations());
}

void NestedPair(benchmark::State& state) {
    CSpaceLock outer(SharedDomain(), Exclusive);
    for (auto _ : state) {
        Lock(SharedDomain(), SharedRead);
        benchmark::ClobberMemory();
        Unlock(SharedDomain());
    }
    state.SetItemsProcessed(state.iterations());
}

void RecordedStatus(benchmark::State& state) {
    CSpaceLock outer(SharedDomain(), Exclusive);
    for (auto _ : state) benchmark::DoNotOptimize(GetRecordedLockStatus(SharedDomain()));
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(StdMutexPair)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK_CAPTURE(DomainPair, Exclusive, Exclusive)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(StdSharedMutexReadPair)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK_CAPTURE(DomainPair, SharedRead, SharedRead)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(NestedPair);
BENCHMARK(RecordedStatus);

} // namespace
} // namespace quna

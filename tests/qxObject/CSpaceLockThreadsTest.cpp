// Many threads against the locks of a few domains. Each domain has plain data that only its lock guards: the race
// detector sees a lock that lets two in, and the checks see it in any build.
#include "qxObject/CSpace.h"
#include "qxObject/WCSpace.h"

#include <array>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr int NUM_SPACES = 5;
constexpr int ROUNDS = 20000; // of each thread; seconds under the race detector

struct Guarded {
    CSpaceCreator cs;
    int64 a = 0; // a == b whenever nobody holds the domain exclusively
    int64 b = 0;

    void Change() {
        ++a;
        ++b;
    }
    void Check() const { ASSERT_EQ(a, b); }
};

using Domains = std::array<Guarded, NUM_SPACES>;

void LockOneByOne(Domains& domains, std::mt19937& random) {
    // Each holder of several locks must have an order of its own: two such threads would deadlock with each other, not
    // with the sets. So the singles take at most two, and the second only if it is free.
    Guarded& first = domains[random() % NUM_SPACES];
    if (random() % 3 == 0) {
        CSpaceLock lock(first.cs, SharedRead);
        first.Check();
        return;
    }
    CSpaceLock lock(first.cs, Exclusive);
    Guarded& second = domains[random() % NUM_SPACES];
    first.Change();
    if (TryLock(second.cs, Exclusive)) {
        second.Change();
        Unlock(second.cs);
    }
}

void LockInOrder(Domains& domains, bool ascending) {
    for (int i = 0; i < NUM_SPACES; ++i)
        Lock(domains[static_cast<std::size_t>(ascending ? i : NUM_SPACES - 1 - i)].cs, Exclusive);
    for (Guarded& domain : domains) domain.Change();
    for (Guarded& domain : domains) Unlock(domain.cs);
}

void LockSet(Domains& domains, std::mt19937& random) {
    std::vector<CSpace*> set;
    std::vector<Guarded*> members;
    const std::size_t size = 1 + random() % NUM_SPACES;
    for (std::size_t i = 0; i < size; ++i) {
        members.push_back(&domains[random() % NUM_SPACES]);
        set.push_back(members.back()->cs);
    }
    const ECSpaceLockMode mode = random() % 4 == 0 ? SharedRead : Exclusive;
    MultipleCSpaceLock lock(set.data(), static_cast<ssize_t>(set.size()), mode);
    for (Guarded* member : members) {
        if (mode == SharedRead)
            member->Check();
        else
            member->Change();
    }
}

TEST(CSpaceLockThreads, SetsAgainstSingleLocksInRandomOrderNeverDeadlock) {
    Domains domains;
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 6; ++t) {
        threads.emplace_back([&domains, t] {
            std::mt19937 random(t + 1);
            for (int i = 0; i < ROUNDS; ++i) {
                if (t < 3)
                    LockSet(domains, random);
                else if (t < 5)
                    LockOneByOne(domains, random);
                else
                    LockInOrder(domains, true);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const Guarded& domain : domains) domain.Check();
}

TEST(CSpaceLockThreads, AThreadThatLocksDownwardsMeetsSetsThatLockUpwards) {
    Domains domains;
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        for (int i = 0; i < ROUNDS; ++i) LockInOrder(domains, false);
    });
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            CSpace* set[NUM_SPACES];
            for (std::size_t i = 0; i < NUM_SPACES; ++i) set[i] = domains[i].cs;
            for (int i = 0; i < ROUNDS; ++i) {
                MultipleCSpaceLock lock(set, NUM_SPACES, Exclusive);
                for (Guarded& domain : domains) domain.Change();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const Guarded& domain : domains) EXPECT_EQ(domain.a, 3 * ROUNDS);
}

TEST(CSpaceLockThreads, WaitersThatGiveUpLeaveTheLockToTheOthers) {
    Guarded domain;
    std::atomic<int> numChanges{0};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(t + 1);
            for (int i = 0; i < ROUNDS / 4; ++i) {
                const ECSpaceLockMode mode = random() % 3 == 0 ? SharedRead : Exclusive;
                if (t < 3 && !TryLockFor(domain.cs, mode, 0)) continue;
                if (t == 3) Lock(domain.cs, mode);
                if (mode == SharedRead)
                    domain.Check();
                else
                    domain.Change(), ++numChanges;
                Unlock(domain.cs);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(domain.a, numChanges);
}

TEST(CSpaceLockThreads, ReadersThatNestAndWritersShareOneDomain) {
    Guarded domain;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < ROUNDS; ++i) {
                CSpaceLock outer(domain.cs, SharedRead);
                CSpaceLock inner(domain.cs, SharedRead);
                domain.Check();
            }
        });
    }
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < ROUNDS; ++i) {
                CSpaceLock outer(domain.cs, Exclusive);
                CSpaceLock inner(domain.cs, SharedRead);
                domain.Change();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(domain.a, 2 * ROUNDS);
}

TEST(CSpaceLockThreads, AWriterGetsItsTurnAmongReadersThatNeverLetTheLockGoFree) {
    CSpaceCreator cs;
    std::atomic<bool> stop{false};
    std::atomic<int> running{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&] {
            ++running;
            while (!stop.load(std::memory_order_relaxed)) CSpaceLock lock(cs, SharedRead);
        });
    }
    while (running.load() < 3) std::this_thread::yield();
    for (int i = 0; i < 2000; ++i) CSpaceLock lock(cs, Exclusive); // each would wait for ever behind unfair readers
    stop = true;
    for (std::thread& reader : readers) reader.join();
}

// A domain is ended as soon as its lock can be had: the thread that has just given it up may still be on its way out.
TEST(CSpaceLockThreads, ADomainMayEndRightAfterItsLastUserUnlocks) {
    for (int i = 0; i < 300; ++i) {
        CSpace* const cs = CreateCSpace();
        Lock(cs, Exclusive);
        std::thread destroyer([cs] { Destroy(cs); });
        std::this_thread::yield();
        Unlock(cs);
        destroyer.join();
    }
}

} // namespace
} // namespace quna

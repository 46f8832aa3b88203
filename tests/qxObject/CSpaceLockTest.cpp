#include "qxObject/CSpace.h"
#include "qxObject/CSpaceLockTable.h"
#include "qxObject/WCSpace.h"
#include "qxObject/src/CSpaceImpl.h"
#include "tests/support/ExpectAssertion.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>

namespace quna {
namespace {

constexpr ECSpaceLockMode ALL_MODES[] = {SharedRead, Exclusive, Transaction};

template <class Act>
void OnAnotherThread(Act act) {
    std::thread(act).join();
}

void WaitUntilWaiting(CSpace* cs, ssize_t count) {
    while (cs->m_lock.NumWaitingForTest() != count) std::this_thread::yield();
}

bool Excludes(ECSpaceLockMode x, ECSpaceLockMode y) { return x != SharedRead || y != SharedRead; }

TEST(CSpaceLock, LocksForItsScopeAndIsRecordedForTheThread) {
    CSpaceCreator cs;
    EXPECT_EQ(GetRecordedLockStatus(cs), 0);
    {
        CSpaceLock lock(cs, Exclusive);
        EXPECT_GT(GetRecordedLockStatus(cs), 0);
        EXPECT_TRUE(HaveLock(cs));
        EXPECT_TRUE(HaveExclusiveLock(cs));
        OnAnotherThread([&] { EXPECT_EQ(GetRecordedLockStatus(cs), 0); });
    }
    EXPECT_EQ(GetRecordedLockStatus(cs), 0);
    {
        CSpaceLock lock(cs, SharedRead);
        EXPECT_LT(GetRecordedLockStatus(cs), 0);
        EXPECT_TRUE(HaveLock(cs));
        EXPECT_FALSE(HaveExclusiveLock(cs));
    }
    {
        CSpaceLock lock(cs, Transaction);
        EXPECT_GT(GetRecordedLockStatus(cs), 0);
    }
    EXPECT_FALSE(HaveLock(cs));
    EXPECT_EQ(GetRecordedLockStatus(nullptr), 0);
}

TEST(CSpaceLock, EveryModeAgainstEveryModeOfAnotherThread) {
    CSpaceCreator cs;
    for (const ECSpaceLockMode held : ALL_MODES) {
        for (const ECSpaceLockMode wanted : ALL_MODES) {
            CSpaceLock lock(cs, held);
            OnAnotherThread([&] {
                const bool taken = TryLock(cs, wanted);
                EXPECT_EQ(taken, !Excludes(held, wanted)) << held << " against " << wanted;
                EXPECT_EQ(HaveLock(cs), taken);
                if (taken) Unlock(cs);
            });
        }
    }
}

TEST(CSpaceLock, EveryModeInsideEveryModeOfTheSameThread) {
    for (const ECSpaceLockMode outer : ALL_MODES) {
        for (const ECSpaceLockMode inner : ALL_MODES) {
            CSpaceCreator cs;
            CSpaceLock lock(cs, outer);
            const int status = GetRecordedLockStatus(cs);
            if (outer == SharedRead && inner != SharedRead) {
                ExpectAssertion("entry.exclusive || mode == SharedRead", [&] { Lock(cs, inner); });
                ExpectAssertion("entry.exclusive || mode == SharedRead", [&] { (void)TryLock(cs, inner); });
                CSpace* set[] = {cs};
                ExpectAssertion("mode == SharedRead || GetRecordedLockStatus(spaces[i]) >= 0",
                                [&] { LockMultipleCSpaces(set, 1, inner); });
            } else {
                CSpaceLock nested(cs, inner);
                EXPECT_EQ(GetRecordedLockStatus(cs) > 0, status > 0); // the outermost lock decides
                EXPECT_NE(GetRecordedLockStatus(cs), 0);
            }
            EXPECT_EQ(GetRecordedLockStatus(cs), status);
        }
    }
}

TEST(CSpaceLock, StaysHeldUntilTheOutermostUnlock) {
    CSpaceCreator cs;
    Lock(cs, Exclusive);
    Lock(cs, SharedRead);
    Lock(cs, Exclusive);
    for (int i = 0; i < 3; ++i) {
        OnAnotherThread([&] { EXPECT_FALSE(TryLock(cs, SharedRead)); });
        Unlock(cs);
    }
    OnAnotherThread([&] {
        ASSERT_TRUE(TryLock(cs, Exclusive));
        Unlock(cs);
    });
}

TEST(CSpaceLock, AReaderMayReadAgainWhileAWriterWaits) {
    CSpaceCreator cs;
    CSpaceLock lock(cs, SharedRead);
    std::thread writer([&] { CSpaceLock exclusive(cs, Exclusive); });
    WaitUntilWaiting(cs, 1);
    {
        CSpaceLock again(cs, SharedRead);
        EXPECT_LT(GetRecordedLockStatus(cs), 0);
    }
    OnAnotherThread([&] { EXPECT_FALSE(TryLock(cs, SharedRead)) << "a new reader would overtake the writer"; });
    Unlock(cs);
    writer.join();
    Lock(cs, SharedRead);
}

TEST(CSpaceLock, AWaitWithALimitGivesUpAndLeavesTheQueueInOrder) {
    CSpaceCreator cs;
    for (const ECSpaceLockMode held : {SharedRead, Exclusive}) {
        Lock(cs, held);
        OnAnotherThread([&] {
            EXPECT_FALSE(TryLockFor(cs, Exclusive, 1));
            EXPECT_EQ(held == SharedRead, TryLockFor(cs, SharedRead, 1));
            if (HaveLock(cs)) Unlock(cs);
            EXPECT_FALSE(HaveLock(cs));
        });
        std::thread first([&] { CSpaceLock lock(cs, Exclusive); });
        WaitUntilWaiting(cs, 1);
        OnAnotherThread([&] { EXPECT_FALSE(TryLockFor(cs, SharedRead, 1)) << "overtook the writer"; });
        EXPECT_EQ(cs.Get()->m_lock.NumWaitingForTest(), 1);
        EXPECT_TRUE(TryLockFor(cs, SharedRead, 1)); // nests
        Unlock(cs);
        Unlock(cs);
        first.join();
    }
    EXPECT_TRUE(TryLockFor(cs, Exclusive, 0));
    Unlock(cs);
}

TEST(CSpaceLock, AWaitWithALimitIsServedInTurn) {
    CSpaceCreator cs;
    Lock(cs, Exclusive);
    std::thread waiter([&] {
        ASSERT_TRUE(TryLockFor(cs, Exclusive, 60'000));
        EXPECT_TRUE(HaveExclusiveLock(cs));
        Unlock(cs);
    });
    WaitUntilWaiting(cs, 1);
    Unlock(cs);
    waiter.join();
}

TEST(CSpaceLock, IsHandedOverInTheOrderOfArrival) {
    CSpaceCreator cs;
    std::mutex mutex;
    std::vector<int> entered;
    const bool isWriter[] = {true, false, false, true, false, true, true};
    std::vector<std::thread> threads;
    Lock(cs, Exclusive);
    for (int i = 0; i < 7; ++i) {
        threads.emplace_back([&, i] {
            CSpaceLock lock(cs, isWriter[i] ? Exclusive : SharedRead);
            std::lock_guard<std::mutex> guard(mutex);
            entered.push_back(i);
        });
        WaitUntilWaiting(cs, i + 1);
    }
    Unlock(cs);
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(entered.size(), 7u);
    std::sort(entered.begin() + 1, entered.begin() + 3); // the two readers enter together, in either order
    EXPECT_TRUE(std::is_sorted(entered.begin(), entered.end()));
}

TEST(CSpaceLock, ReadersThatWaitedTogetherHoldItTogether) {
    CSpaceCreator cs;
    std::atomic<int> inside{0};
    std::vector<std::thread> readers;
    Lock(cs, Exclusive);
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            CSpaceLock lock(cs, SharedRead);
            ++inside;
            while (inside.load() < 3) std::this_thread::yield(); // hangs unless all three are inside at once
        });
    }
    WaitUntilWaiting(cs, 3);
    Unlock(cs);
    for (std::thread& reader : readers) reader.join();
}

TEST(CSpaceLock, UnlockingWhatTheThreadDoesNotHoldIsAnAssertion) {
    CSpaceCreator cs;
    ExpectAssertion("HaveLock(cs)", [&] { Unlock(cs); });
    ExpectAssertion("HaveLock(cs)", [&] { RecordUnlock(cs); });
    CSpaceLock lock(cs, Exclusive);
    OnAnotherThread([&] { ExpectAssertion("HaveLock(cs)", [&] { Unlock(cs); }); });
    ExpectAssertion("entry->recorded", [&] { RecordUnlock(cs); });
}

TEST(CSpaceLock, NullAndUnknownModesAreRefused) {
    CSpaceCreator cs;
    ExpectAssertion("cs", [] { Lock(nullptr, Exclusive); });
    ExpectAssertion("cs", [] { Unlock(nullptr); });
    ExpectAssertion("cs_", [] { CSpaceLock lock(nullptr, Exclusive); });
    ExpectAssertion("SharedRead <= mode && mode <= Transaction", [&] { Lock(cs, static_cast<ECSpaceLockMode>(3)); });
    EXPECT_FALSE(HaveLock(cs));
}

TEST(CSpaceLock, ARecordedLockExcludesNobody) {
    CSpaceCreator cs;
    {
        CSpacePseudoLock record(cs, Exclusive);
        EXPECT_TRUE(HaveExclusiveLock(cs));
        CSpaceLock nested(cs, Exclusive);
        OnAnotherThread([&] {
            ASSERT_TRUE(TryLock(cs, Exclusive));
            Unlock(cs);
        });
    }
    EXPECT_FALSE(HaveLock(cs));
    RecordLock(cs, SharedRead);
    EXPECT_LT(GetRecordedLockStatus(cs), 0);
    ExpectAssertion("!entry->recorded", [&] { Unlock(cs); });
    RecordUnlock(cs);
}

TEST(CSpaceLock, TheTableOfAThreadHoldsAnyNumberOfDomains) {
    constexpr int COUNT = 100;
    std::vector<CSpace*> spaces;
    for (int i = 0; i < COUNT; ++i) spaces.push_back(CreateCSpace());
    {
        MultipleCSpaceLock lock(spaces.data(), COUNT, Exclusive);
        for (CSpace* cs : spaces) EXPECT_EQ(GetRecordedLockStatus(cs), 1);
        for (int i = 0; i < COUNT; i += 7) Lock(spaces[static_cast<std::size_t>(i)], SharedRead);
        for (int i = 0; i < COUNT; i += 7) Unlock(spaces[static_cast<std::size_t>(i)]);
        EXPECT_EQ(CSpaceLockTable::Current().Count(), COUNT);
    }
    EXPECT_EQ(CSpaceLockTable::Current().Count(), 0);
    for (CSpace* cs : spaces) {
        EXPECT_FALSE(HaveLock(cs));
        Destroy(cs);
    }
}

TEST(CSpaceLock, LocksCanBeReleasedInAnyOrder) {
    CSpaceCreator a, b, c;
    Lock(a, Exclusive);
    Lock(b, SharedRead);
    Lock(c, Exclusive);
    Unlock(b);
    EXPECT_GT(GetRecordedLockStatus(a), 0);
    EXPECT_EQ(GetRecordedLockStatus(b), 0);
    EXPECT_GT(GetRecordedLockStatus(c), 0);
    Unlock(a);
    Unlock(c);
    EXPECT_EQ(CSpaceLockTable::Current().Count(), 0);
}

TEST(CSpaceLock, ASetMayNameADomainTwiceOrOneThatIsHeld) {
    CSpaceCreator a, b;
    CSpaceLock outer(a, Exclusive);
    CSpace* set[] = {b, a, b};
    LockMultipleCSpaces(set, 3, Exclusive);
    UnlockMultipleCSpaces(set, 3);
    EXPECT_TRUE(HaveExclusiveLock(a));
    EXPECT_FALSE(HaveLock(b));
    LockMultipleCSpaces(nullptr, 0, Exclusive);
    UnlockMultipleCSpaces(nullptr, 0);
}

TEST(CSpaceLock, LockingASetHoldsNothingWhileItWaits) {
    CSpaceCreator a, b;
    Lock(b, Exclusive);
    std::thread other([&] {
        CSpace* set[] = {a, b};
        MultipleCSpaceLock lock(set, 2, Exclusive);
    });
    WaitUntilWaiting(b, 1); // it has found b taken
    ASSERT_TRUE(TryLock(a, Exclusive));
    Unlock(a);
    Unlock(b);
    other.join();
}

TEST(CSpaceLock, TheFiguresNameTheHolderAndCountTheWaits) {
    CSpaceCreator cs;
    EXPECT_EQ(GetLockStats(cs).holder, "");
    std::thread holder([&] {
        ::pthread_setname_np(::pthread_self(), "a stuck thread");
        CSpaceLock lock(cs, Exclusive);
        WaitUntilWaiting(cs, 1);
        EXPECT_EQ(GetLockStats(cs).holder, "a stuck thread");
    });
    while (GetLockStats(cs).holder.empty()) std::this_thread::yield();
    { CSpaceLock lock(cs, SharedRead); }
    holder.join();
    EXPECT_EQ(GetLockStats(cs).totalWaits, 1);
    EXPECT_GE(GetLockStats(cs).longestWaitMicros, 0);
}

TEST(CSpaceThreadPointer, IsTheThreadsOwnAndScoped) {
    CSpaceCreator a, b;
    EXPECT_EQ(GetThreadCSpace(), nullptr);
    EXPECT_FALSE(HaveLockedCSpace());
    {
        DeclareThreadPtr<CSpace> outer(a);
        EXPECT_EQ(GetThreadPtr<CSpace>(), a.Get());
        CSpaceLock lock(SharedRead); // of the current domain
        EXPECT_TRUE(HaveSharedReadLockedCSpace());
        EXPECT_FALSE(HaveExclusiveLockedCSpace());
        EXPECT_TRUE(HaveLockedCSpace());
        {
            DeclareThreadPtr<CSpace> inner(b);
            EXPECT_EQ(GetThreadCSpace(), b.Get());
            EXPECT_FALSE(HaveLockedCSpace());
            OnAnotherThread([] { EXPECT_EQ(GetThreadCSpace(), nullptr); });
        }
        EXPECT_EQ(GetThreadCSpace(), a.Get());
    }
    EXPECT_EQ(GetThreadCSpace(), nullptr);
}

struct Context {
    int value = 0;
};

TEST(CSpaceThreadPointer, AnyTypeHasOne) {
    Context context;
    EXPECT_EQ(GetThreadPtr<Context>(), nullptr);
    {
        DeclareThreadPtr<Context> declare(&context);
        EXPECT_EQ(GetThreadPtr<Context>(), &context);
    }
    EXPECT_EQ(GetThreadPtr<Context>(), nullptr);
}

TEST(CSpaceThreadPointer, TheEndOfADomainClearsItInEveryThread) {
    CSpace* cs = CreateCSpace();
    std::atomic<int> step{0};
    std::thread other([&] {
        SetThreadCSpace(cs);
        step = 1;
        while (step.load() != 2) std::this_thread::yield();
        EXPECT_EQ(GetThreadCSpace(), nullptr);
    });
    while (step.load() != 1) std::this_thread::yield();
    SetThreadCSpace(cs);
    Destroy(cs);
    EXPECT_EQ(GetThreadCSpace(), nullptr);
    step = 2;
    other.join();
}

TEST(CSpaceSlots, AreSixteenAndNullAtFirst) {
    CSpaceCreator cs;
    for (ssize_t i = 0; i < CSPACE_NUM_RESERVED_PTR_SLOTS; ++i) EXPECT_EQ(GetPtrSlot(cs, i), nullptr);
    int something = 0;
    GetPtrSlotArray(cs)[PTR_SLOT_PSpace] = &something;
    EXPECT_EQ(GetPtrSlot(cs, PTR_SLOT_PSpace), &something);
    ExpectAssertion("0 <= slot && slot < CSPACE_NUM_RESERVED_PTR_SLOTS", [&] { GetPtrSlot(cs, 16); });
}

TEST(CSpaceDestroy, MayBeCalledUnderTheExclusiveLockButNotUnderASharedOne) {
    CSpace* cs = CreateCSpace();
    Lock(cs, SharedRead);
    ExpectAssertion("GetRecordedLockStatus(cs) >= 0", [&] { Destroy(cs); });
    Unlock(cs);
    Lock(cs, Exclusive);
    StartGc(cs);
    ExpectAssertion("!HaveLock(cs) || !cs->m_gcThread.HasThread()", [&] { Destroy(cs); });
    Unlock(cs);
    Destroy(cs);

    cs = CreateCSpace();
    Lock(cs, Exclusive);
    Destroy(cs);
    EXPECT_EQ(CSpaceLockTable::Current().Count(), 0);
}

} // namespace
} // namespace quna

// The writer's period, changed while the writer sleeps.
#include "tests/support/Sanitized.h"
#include "tests/support/TestStore.h"

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(DosPeriodThreads, ANewPeriodEndsTheSleepOfTheOldOne) {
    constexpr int NUM_ROUNDS = UNDER_SANITIZER ? 200 : 1000;
    TestStore store;
    PSpace* const ps = store.OpenSpace("s");
    RecordingLss& lss = store.Record();
    store->SetDosPeriod(600'000);
    store->StartObjectDeletion();
    for (int i = 0; i < NUM_ROUNDS; ++i) {
        store->SetDosPeriod(0); // the writer must not sleep for ten minutes now ...
        lss.ClearLog();
        {
            const SpaceScope scope(ps);
            ps->MakeObjectPersist(NewObject<TestLeaf>(i), false);
        }
        lss.WaitFor("close", 1); // ... but write
        store->SetDosPeriod(600'000);
    }
}

} // namespace
} // namespace quna

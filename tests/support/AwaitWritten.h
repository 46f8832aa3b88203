// Waiting for the writer of a store.
#pragma once

#include "qxObject/WCSpace.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/src/PSpace.h"

#include <chrono>
#include <thread>

namespace quna {

// Between two looks at a state that another thread is to reach.
inline constexpr std::chrono::microseconds MOMENT{200};

// Until the writer's thread, which is woken, has written the space's changes. It has the lock until its transaction is closed.
inline void AwaitWritten(PersistStore* store, const PSpace* space) {
    for (;;) {
        {
            const CSpaceLock lock(space->GetCSpace(), SharedRead);
            if (!space->HaveChangesToWriteToLss()) return;
        }
        SetDosPeriod(store, GetDosPeriod(store));
        std::this_thread::sleep_for(MOMENT);
    }
}

} // namespace quna

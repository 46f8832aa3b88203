// What a crash has left of a simulated store, compared with the model.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "tests/support/SimStore.h"

#include <string>

namespace quna {

// Kinds: "lost", "sum_broken", "dangling", "tree_bad", "ids_repeated", "other"; empty: nothing is wrong.
struct StoreFault {
    std::string kind;
    std::string text;

    explicit operator bool() const { return !kind.empty(); }
};

struct StoreCheck {
    const StoreHistory* history = nullptr;
    ssize_t calls = 0; // recorded before the crash
    ssize_t floor = 0;
    ssize_t ceiling = 0;
    bool processDeath = false;
    // Also before the deletions that wait have run.
    bool lookFirst = false;
    // Also write a further change and open twice more.
    bool thorough = true;
};

// Opens the store in `sys`, deletes what waits for it, and looks at everything. On return `found` is the number of the
// state, -1 if there is no store (which is right only while the floor is 0).
StoreFault CheckStoreImage(SimSys& sys, const StoreCheck& check, ssize_t& found);

} // namespace quna

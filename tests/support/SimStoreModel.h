// What a space of a simulated store should hold.
#pragma once

#include "qxUtils/BasicTypes.h"

#include <array>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace quna {

inline constexpr ssize_t NUM_SIM_SPACES = 2;
inline constexpr std::array<ConstStringZ, NUM_SIM_SPACES> SIM_SPACE_NAMES = {"left", "right"};
inline constexpr uint64 NUM_SIM_ACCOUNTS = 12; // of a new space
inline constexpr int64 FIRST_SIM_BALANCE = 1000;
inline constexpr int64 SIM_SUM = NUM_SIM_SPACES * static_cast<int64>(NUM_SIM_ACCOUNTS) * FIRST_SIM_BALANCE;

// The content of a space, its objects named by numbers. The driver changes one beside the space; the check reads one from
// the space, and both have to give the same text.
struct SimSpaceModel {
    static constexpr uint64 DANGLING = ~uint64{0}; // in place of a number

    struct Account {
        int64 balance = 0;
        int64 size = 0;      // of the text; -1: it is damaged
        uint64 mentions = 0; // 0: none
    };
    struct Branch {
        bool isSubTree = true;
        int64 size = 0;
        uint64 parent = 0;
        std::vector<uint64> children;
    };

    bool exists = false;
    int64 changes = 0;
    std::map<uint64, Account> accounts;
    std::map<uint64, uint64> numbers;
    std::map<uint64, Branch> branches; // reachable or not
    std::vector<uint64> forest;
    std::map<std::string, uint64> notes; // the names of roots
    int64 numNotes = 0;                  // objects, two for each root that was not deleted

    int64 Sum() const;
    // Without trees.
    int64 NumObjects() const;
    // A branch, and all that are below it.
    std::vector<uint64> SubTreeOf(uint64 branch) const;
    // Everything that can be reached. What does not exist, but is referred to, is a '!'.
    std::string Text() const;
};

struct WrittenSimSpace {
    SimSpaceModel model;
    std::string text;
};

// What is written: null for a space that is not.
using SimStoreState = std::array<std::shared_ptr<const WrittenSimSpace>, NUM_SIM_SPACES>;

} // namespace quna

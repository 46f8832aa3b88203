// A random workload on a log-structured store beside a model of it, and the check of what a crash of it leaves.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxLss/src/LssStore.h"
#include "tests/support/CrashHistory.h"
#include "tests/support/SimSys.h"

#include <exception>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace quna {

// Seid -> hash of the element's bytes.
using LssState = std::map<uint64, uint64>;

// Order does not matter: the sum over all elements.
uint64 DigestOf(const LssState& state);

// What a workload did.
struct LssHistory : CrashHistory {
    std::vector<LssState> states; // S0, S1...; one more than transactions
};

struct LssWorkload {
    uint64 seed = 1;
    int steps = 30;
    int segmentSize = 4096;
    bool reopen = true;   // close and abandon the store now and then
    bool longOnes = true; // elements beyond a segment
    bool threads = false; // the store's own threads run; without them a run depends on the seed alone
    bool clean = true;    // batches of the cleaner, with transactions between its steps
    // A batch between the steps of a checkpoint, which the store itself never allows.
    bool cleanInsideCheckpoint = false;
};

// Opens the store "d/store" and works on it. One thread.
class LssDriver {
public:
    LssDriver(SimSys& sys, const LssWorkload& workload);
    ~LssDriver();

    // Runs to the end, or to the first exception of the store, and closes it.
    void Run();

    const LssHistory& History() const { return m_history; }
    // After a failure: how many transactions could be closed all the same.
    int NumClosedAfterFailure() const { return m_closedAfterFailure; }
    // Failed calls that met Close of the store, which only traces them.
    int64 NumFailuresInClose() const { return m_failuresInClose; }

    static LssSettings Settings(int segmentSize, bool clean);

private:
    uint64 Pick(uint64 limit) { return m_random() % limit; }
    void Open();
    void Step();
    void RunTransaction();
    template <class Action>
    void Maintain(bool isCheckpoint, Action action);
    void BetweenSteps(bool isCheckpoint);
    void ChangeAtRandom(ILssTransaction& transaction, LssState& state, bool& changed);
    void NoteCloseBegins(LssState state);
    void Write(ILssTransaction& transaction, LssState& state, Seid seid);
    Seid SomeSeid(const LssState& state);
    Seid NewSeid();
    void NoteDurable();
    void NoteDurable(ssize_t upTo); // the first so many transactions
    void CloseStore();
    void ProbeAfterFailure();

    SimSys& m_sys;
    const LssWorkload m_workload;
    std::mt19937_64 m_random;
    LssStore* m_store = nullptr;
    SeidHigh m_highs = 0;
    LssHistory m_history;
    std::vector<uint64> m_known;
    bool m_isBetween = false;
    std::exception_ptr m_failedBetween; // by a transaction between steps
    int m_closedAfterFailure = 0;
    int64 m_failuresInClose = 0;
};

// What is wrong with the store in `image`, empty if nothing is. On return `found` is the number of its state, -1 if there is
// no store (which is right only while the floor is 0).
struct LssCheck {
    const LssHistory* history;
    ssize_t floor;
    ssize_t ceiling;
    // Identifiers that may not be handed out again.
    const std::set<uint64>* spent = nullptr;
    // Also commit a further transaction and open twice more.
    bool thorough = true;
};
std::string CheckLssImage(SimSys& sys, const LssCheck& check, ssize_t& found);

// Reads all elements of an open store and validates it.
LssState ReadLssState(LssStore& store);

} // namespace quna

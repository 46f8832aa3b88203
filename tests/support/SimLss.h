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
    std::vector<LssState> states;    // S0, S1...; one more than transactions
    std::vector<uint64> digests;     // of states
    ssize_t opened = 0;              // calls recorded when the first open had returned
    std::vector<ssize_t> operations; // calls recorded when each operation of a script began

    void AddState(LssState state);
};

// Operations of a scripted workload.
enum class ELssOperation {
    WRITE_SMALL,
    WRITE_LONG, // longer than a segment
    REMOVE,     // the element written first
    FLUSH,
    CHECKPOINT,
    CLEAN,
    REOPEN, // close and open
    COUNT
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
    bool uniform = false;    // every transaction has the same length
    bool manyHighs = false;  // three steps in four allocate a high half; others do between the steps of a checkpoint
    bool checkpoints = true; // now and then
    bool killAtEnd = false;  // is not closed
    bool pullsEndIn = false; // shrinking moves what stands at the end of the file
    int maintenance = 5;     // of 20 steps: a checkpoint or a batch of the cleaner
    int liveElements = 40;   // about so many, then more is deleted
    int stampShift = 9;      // of log stamps: 512 bytes, so that data of these short lives has ages
    std::vector<ELssOperation> script; // in place of `steps` random ones
};

// What a store is when a driver begins: nothing, or what a crash has left.
struct LssBeginning {
    LssState state;
    bool mayBeMissing = true;                // the crash may have left no store
    const std::set<uint64>* spent = nullptr; // identifiers not to be handed out again
    std::set<uint64> mayHaveLeft{};          // digests of the states that the crash might have left
};

// Opens the store "d/store" and works on it. One thread.
class LssDriver {
public:
    LssDriver(SimSys& sys, const LssWorkload& workload, LssBeginning beginning = {});
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
    struct Unwound {};

    uint64 Pick(uint64 limit) { return m_random() % limit; }
    void Open();
    void Step();
    void Do(ELssOperation operation);
    void RunTransaction();
    template <class Change>
    void RunTransaction(bool flush, Change change);
    void Checkpoint();
    void Clean();
    void Background();
    void Reopen(bool kill);
    SeidHigh NewHigh();
    Seid Given(Seid seid);
    template <class Action>
    void Maintain(bool isCheckpoint, Action action);
    void BetweenSteps(bool isCheckpoint);
    void ChangeAtRandom(ILssTransaction& transaction, LssState& state, bool& changed);
    void NoteCloseBegins(LssState state);
    int64 PickSize();
    void Write(ILssTransaction& transaction, LssState& state, Seid seid, int64 size);
    void WriteInPart(ILssTransaction& transaction, Seid seid);
    Seid SomeSeid(const LssState& state);
    Seid NewSeid();
    void SpendUnwritten();
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
    LssBeginning m_beginning;
    std::vector<uint64> m_known;
    std::set<uint64> m_given; // by this driver
    // Has the first transaction without an exception been closed? Before that the store counts as never created.
    bool m_isCreated = false;
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
    bool mayBeMissing = true; // while the floor is 0
    // Identifiers that may not be handed out again.
    const std::set<uint64>* spent = nullptr;
    // Also commit a further transaction and open twice more.
    bool thorough = true;
    int stampShift = 20; // of the workload
    // The crash cut an open short: what the crash before it might have left may come to light. `found` is then FOUND_EARLIER.
    const std::set<uint64>* earlier = nullptr; // digests
};
inline constexpr ssize_t FOUND_EARLIER = -2;
std::string CheckLssImage(SimSys& sys, const LssCheck& check, ssize_t& found);

// Reads all elements of an open store and validates it.
LssState ReadLssState(LssStore& store);

} // namespace quna

// A random workload on a whole store beside a model of it: two spaces that are tied by transfers between accounts, trees,
// forests whose parts are deleted in the background, roots that come and go, and the cleaner and checkpoints below.
#pragma once

#include "qxLss/LssSettings.h"
#include "qxLss/src/LssStore.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxUtils/AutoCloser.h"
#include "tests/support/CrashHistory.h"
#include "tests/support/SimStoreModel.h"
#include "tests/support/SimStoreObjects.h"
#include "tests/support/SimSys.h"
#include "tests/support/WatchedLss.h"

#include <array>
#include <exception>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace quna {

struct StoreHistory : CrashHistory {
    std::vector<SimStoreState> states;        // S0 is no store at all
    std::vector<std::vector<uint64>> written; // the elements that each transaction wrote
};

struct StoreWorkload {
    uint64 seed = 1;
    int steps = 60;
    int segmentSize = 4096;
    uint64 numKeys = 150; // about so many in each tree
    bool reopen = true;   // close the store in order, now and then and at the end
};

// A store over a SimSys with its two spaces, nothing running in the background.
//
// Ownership: ends all of it; by default as if its process were killed.
class OpenSimStore {
public:
    // OM_OPEN_EXISTING: opens those spaces that there are; otherwise both.
    OpenSimStore(SimSys& sys, EOpenMode mode, const LssSettings& settings);
    OpenSimStore(const OpenSimStore&) = delete;
    OpenSimStore& operator=(const OpenSimStore&) = delete;
    ~OpenSimStore();

    // Each space is written with its group, then the store is closed.
    void Close();
    void Kill();
    // Makes those spaces that there are not.
    void OpenMissingSpaces() { OpenSpaces(OM_OPEN_ALWAYS); }

    static LssSettings Settings(int segmentSize);

    PersistStore* m_store = nullptr;
    LssStore* m_inner = nullptr;
    std::unique_ptr<WatchedLss> m_lss;
    std::array<PSpace*, NUM_SIM_SPACES> m_spaces{};

private:
    void OpenSpaces(EOpenMode mode);
};

// A transaction over both spaces, which are locked meanwhile.
class SimStoreTxn {
public:
    explicit SimStoreTxn(const OpenSimStore& open);

private:
    static PersistStoreTxn* OpenTxnOf(const OpenSimStore& open);

    std::array<CSpace*, NUM_SIM_SPACES> m_cspaces;
    MultipleCSpaceLock m_locks;
    AutoCloser2<PersistStoreTxn> m_txn;
};

// Null if there is none yet. The space is locked.
SimHome* HomeOf(PSpace& space);
// The root "home" with FIRST_SIM_BALANCE in each account. The space is locked exclusively.
void MakeSimHome(PSpace& space, SimSpaceModel& model);

// One thread.
class StoreDriver {
public:
    StoreDriver(SimSys& sys, const StoreWorkload& workload);
    ~StoreDriver();

    // Runs to the end, or to the first exception, and closes the store.
    void Run();

    const StoreHistory& History() const { return m_history; }

private:
    class One;

    uint64 Pick(uint64 limit) { return m_random() % limit; }
    size_t PickSpace() { return static_cast<size_t>(Pick(NUM_SIM_SPACES)); }
    void Open();
    void CloseOrKill(bool kill);
    void MakeHomes();
    void Step();
    void ChangeSomething();

    void Transfer();
    void TransferOnce();
    void ChangeAccounts(size_t space);
    void ChangeNumbers(size_t space);
    void Plant(size_t space);
    void DeleteBranch(size_t space);
    void ChangeNotes(size_t space);
    SimBranch* NewBranch(size_t space, uint64 number, int depth);
    SimBranch* Branch(size_t space, uint64 number);
    void Unlink(size_t space, uint64 number);
    uint64 SomeBranch(size_t space);
    SimHome* Changed(size_t space);

    void Write();
    void WorkInBackground();
    template <class Action>
    void Maintain(Action action);
    void BetweenSteps();

    void OnCloseBegins();
    void OnClosed();
    void NoteDurable() { m_history.NoteDurable(std::ssize(m_history.transactions), m_sys.NumRecorded()); }

    SimSys& m_sys;
    const StoreWorkload m_workload;
    std::mt19937_64 m_random;
    std::unique_ptr<OpenSimStore> m_open;
    StoreHistory m_history;
    std::array<SimSpaceModel, NUM_SIM_SPACES> m_models; // what the spaces hold now
    std::array<std::map<uint64, OID>, NUM_SIM_SPACES> m_branches;
    bool m_tied = false;        // both spaces have changes that must be written together
    bool m_noted = false;       // the transaction that is closing leads to a new state
    uint64 m_nextNumber = 1000; // of whatever is made
    std::vector<uint64> m_written;
    bool m_isBetween = false;
    std::exception_ptr m_failedBetween;
};

} // namespace quna

#include "tests/support/SimStore.h"

#include "qxObject/WCSpace.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/DosWriter.h"
#include "qxPersistStore/src/PersistStoreTxn.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "d/store";

template <class X>
X* NewSimObject() {
    X* const x = new X;
    RegisterGcObject(x);
    return x;
}

SimAccount* NewAccount(uint64 number, int64 balance, ssize_t size) {
    auto* account = NewSimObject<SimAccount>();
    account->m_number = number;
    account->m_balance = balance;
    account->m_text = xstring(PatternText(number, size).c_str());
    return account;
}

uint64 NumberOf(const std::map<uint64, SimSpaceModel::Account>& accounts, uint64 random) {
    auto at = accounts.begin();
    std::advance(at, static_cast<ssize_t>(random % accounts.size()));
    return at->first;
}

} // namespace

// --- an open store

LssSettings OpenSimStore::Settings(int segmentSize) {
    LssSettings settings;
    settings.segmentSize = segmentSize;
    settings.flushTimeMilliSec = -1; // what syncs is what the workload asks for
    settings.numSegmentsPerCheckPoint = 6;
    settings.validateSUTDuringCheckPoint = true;
    settings.maxNumSegmentsInCache = 8;
    return settings;
}

OpenSimStore::OpenSimStore(SimSys& sys, EOpenMode mode, const LssSettings& settings) {
    RegisterSimStoreObjects();
    PersistStoreSettings storeSettings;
    storeSettings.startObjectDeletion = false;
    m_store = OpenPersistStoreForTest(
        [&](bool& createdNew) {
            m_inner = static_cast<LssStore*>(OpenLssForTest(sys, PATH, nullptr, createdNew, mode, settings));
            m_inner->StopThreadsForTest();
            m_lss = std::make_unique<WatchedLss>(m_inner);
            return m_lss.get();
        },
        storeSettings);
    try {
        OpenSpaces(mode);
    } catch (...) {
        Kill();
        throw;
    }
}

void OpenSimStore::OpenSpaces(EOpenMode mode) {
    for (size_t i = 0; i < m_spaces.size(); ++i) {
        if (m_spaces[i]) continue;
        CSpace* cs = CreateCSpace(); // without a collector of its own
        try {
            m_spaces[i] = OpenPSpace(m_store, SIM_SPACE_NAMES[i], mode, cs);
        } catch (const OpenPSpaceException&) {
            Destroy(cs);
        } catch (...) {
            Destroy(cs);
            throw;
        }
    }
}

OpenSimStore::~OpenSimStore() {
    try {
        Kill();
    } catch (const std::exception&) { // by objects that a fault has left in disorder: they stay in memory
        m_store = nullptr;
    }
}

void OpenSimStore::Close() {
    if (!m_store) return;
    for (PSpace*& space : m_spaces) {
        if (space) quna::Close(space);
        space = nullptr;
    }
    quna::Close(std::exchange(m_store, nullptr));
}

void OpenSimStore::Kill() {
    if (!m_store) return;
    m_lss->Die();
    Close();
}

SimHome* HomeOf(PSpace& space) {
    const ThreadPSpaceScope pair(&space, space.GetCSpace());
    return static_cast<SimHome*>(space.GetRoot("home").m_self);
}

void MakeSimHome(PSpace& space, SimSpaceModel& model) {
    const ThreadPSpaceScope pair(&space, space.GetCSpace());
    auto* home = NewSimObject<SimHome>();
    home->m_accounts = PMap<uint64, cref<SimAccount>>::Create();
    home->m_numbers = PMap<uint64, uint64>::Create();
    model = SimSpaceModel();
    model.exists = true;
    for (uint64 number = 1; number <= NUM_SIM_ACCOUNTS; ++number) {
        home->m_accounts.insert_or_assign(number, cref<SimAccount>(NewAccount(number, FIRST_SIM_BALANCE, 0)));
        model.accounts[number].balance = FIRST_SIM_BALANCE;
    }
    space.AddRoot("home", home);
}

SimStoreTxn::SimStoreTxn(const OpenSimStore& open)
    : m_cspaces{open.m_spaces[0]->GetCSpace(), open.m_spaces[1]->GetCSpace()},
      m_locks(m_cspaces.data(), NUM_SIM_SPACES, Exclusive), m_txn(OpenTxnOf(open)) {}

PersistStoreTxn* SimStoreTxn::OpenTxnOf(const OpenSimStore& open) {
    std::array<PSpaceLockMode, NUM_SIM_SPACES> members;
    for (size_t i = 0; i < members.size(); ++i) {
        members[i].space = open.m_spaces[i];
        members[i].mode = Exclusive;
    }
    return OpenTxn(open.m_store, members.data(), NUM_SIM_SPACES);
}

// --- the driver

// A transaction over one space, which is the thread's current one meanwhile.
class StoreDriver::One {
public:
    One(StoreDriver& driver, size_t space)
        : m_pair(driver.m_open->m_spaces[space], driver.m_open->m_spaces[space]->GetCSpace()), m_lock(Exclusive),
          m_txn(OpenTxn(driver.m_open->m_spaces[space])) {}

private:
    static PersistStoreTxn* OpenTxn(PSpace* space) {
        PSpaceLockMode member;
        member.space = space;
        member.mode = Exclusive;
        return quna::OpenTxn(space->GetPersistStore(), &member, 1);
    }

    ThreadPSpaceScope m_pair;
    CSpaceLock m_lock;
    AutoCloser2<PersistStoreTxn> m_txn;
};

StoreDriver::StoreDriver(SimSys& sys, const StoreWorkload& workload)
    : m_sys(sys), m_workload(workload), m_random(workload.seed) {
    m_history.states.emplace_back();
}

StoreDriver::~StoreDriver() = default;

void StoreDriver::Run() {
    try {
        Open();
        for (int i = 0; i < m_workload.steps; ++i) Step();
        if (m_workload.reopen) CloseOrKill(false);
    } catch (const FileException& e) {
        m_history.failure = e.what();
    } catch (const std::exception& e) {
        m_history.fault = e.what();
    }
    m_open.reset();
}

void StoreDriver::Open() {
    m_open = std::make_unique<OpenSimStore>(m_sys, OM_OPEN_ALWAYS, OpenSimStore::Settings(m_workload.segmentSize));
    if (m_history.transactions.empty()) { // of the creation, which nobody could watch
        m_history.states.emplace_back();
        m_history.transactions.push_back({0, m_sys.NumRecorded(), -1});
        m_history.written.push_back({ROOT_PERSISTSTORE_OBJECT_SEID.value_, PSPACEMAP_SEID.value_});
    }
    WatchedLss& lss = *m_open->m_lss;
    lss.m_onAllocated = [this](Seid seid) { m_history.identifiers.push_back({m_sys.NumRecorded(), seid.value_}); };
    lss.m_onWritten = [this](Seid seid) { m_written.push_back(seid.value_); };
    lss.m_onCloseBegins = [this] { OnCloseBegins(); };
    lss.m_onClosed = [this] { OnClosed(); };
    if (!m_models[0].exists) MakeHomes();
}

void StoreDriver::MakeHomes() {
    const SimStoreTxn txn(*m_open);
    m_tied = true;
    for (size_t i = 0; i < m_models.size(); ++i) {
        m_branches[i].clear();
        MakeSimHome(*m_open->m_spaces[i], m_models[i]);
    }
}

void StoreDriver::CloseOrKill(bool kill) {
    if (kill) {
        m_open->Kill();
        for (size_t i = 0; i < m_models.size(); ++i) {
            const std::shared_ptr<const WrittenSimSpace>& written = m_history.states.back()[i];
            m_models[i] = written ? written->model : SimSpaceModel();
        }
    } else {
        m_open->Close();
        NoteDurable();
    }
    m_tied = false;
    m_open.reset();
}

void StoreDriver::Step() {
    const uint64 what = Pick(24);
    if (what == 0 && m_workload.reopen) {
        CloseOrKill(Pick(2) == 0);
        Open();
    } else if (what <= 2) {
        Maintain([this] { m_open->m_inner->CleanForTest(1 + static_cast<ssize_t>(Pick(4))); });
        if (Pick(3) == 0) m_open->m_inner->ShrinkForTest();
    } else if (what == 3) {
        const ssize_t before = std::ssize(m_history.transactions);
        Maintain([this] { m_open->m_inner->CheckpointForTest(); });
        m_history.NoteDurable(before,
                              m_sys.NumRecorded()); // those closed between its steps may have come after its sync
    } else if (what == 4) {
        const size_t space = PickSpace();
        const One one(*this, space);
        SynchronousGc(m_open->m_spaces[space]->GetCSpace());
    } else if (what <= 7) {
        m_open->m_store->m_dosWriter.DeleteSomeObjects();
    } else if (what <= 11) {
        Write();
    } else {
        ChangeSomething();
        if (Pick(3) == 0) Write();
    }
    if (Pick(2) == 0) WorkInBackground();
}

void StoreDriver::ChangeSomething() {
    const size_t space = PickSpace();
    switch (Pick(8)) {
    case 0:
    case 1: Transfer(); break;
    case 2: ChangeAccounts(space); break;
    case 3: ChangeNumbers(space); break;
    case 4: Plant(space); break;
    case 5:
    case 6: DeleteBranch(space); break;
    default:
        if (m_history.transactions.size() > 8) ChangeNotes(space); // not before: its class is to be new then
        break;
    }
}

// --- changes

// The space's home, which is written with each change.
SimHome* StoreDriver::Changed(size_t space) {
    SimHome* home = HomeOf(*m_open->m_spaces[space]);
    if (!home) throw std::logic_error("a space has lost its home");
    home->MarkAsDirtyWithoutTrace();
    home->m_changes = ++m_models[space].changes;
    return home;
}

void StoreDriver::Transfer() {
    const SimStoreTxn txn(*m_open);
    m_tied = true;
    for (size_t i = 0; i < m_models.size(); ++i) Changed(i);
    for (uint64 i = 1 + Pick(5); i > 0; --i) TransferOnce();
}

void StoreDriver::TransferOnce() {
    const int64 amount = static_cast<int64>(Pick(200));
    const size_t from = PickSpace();
    const size_t to = PickSpace();
    for (const auto& [space, change] : {std::pair(from, -amount), std::pair(to, amount)}) {
        PSpace* pspace = m_open->m_spaces[space];
        const ThreadPSpaceScope pair(pspace, pspace->GetCSpace());
        const uint64 number = NumberOf(m_models[space].accounts, m_random());
        SimAccount* account = HomeOf(*pspace)->m_accounts.at(number).GetNotNull();
        account->MarkAsDirtyWithoutTrace();
        account->m_balance += change;
        m_models[space].accounts[number].balance += change;
    }
}

void StoreDriver::ChangeAccounts(size_t space) {
    const One one(*this, space);
    SimHome* home = Changed(space);
    SimSpaceModel& model = m_models[space];
    const uint64 number = NumberOf(model.accounts, m_random());
    SimAccount* account = home->m_accounts.at(number).GetNotNull();
    const uint64 what = Pick(8);
    if (what < 3) {
        const uint64 fresh = m_nextNumber++;
        const ssize_t size = static_cast<ssize_t>(Pick(200));
        home->m_accounts.insert_or_assign(fresh, cref<SimAccount>(NewAccount(fresh, 0, size)));
        model.accounts[fresh].size = size;
    } else if (what < 5 && model.accounts.size() > NUM_SIM_ACCOUNTS) { // its balance goes to another one first
        const int64 balance = model.accounts[number].balance;
        home->m_accounts.erase(number);
        model.accounts.erase(number);
        const uint64 heir = NumberOf(model.accounts, m_random());
        SimAccount* inheriting = home->m_accounts.at(heir).GetNotNull();
        inheriting->MarkAsDirtyWithoutTrace();
        inheriting->m_balance += balance;
        model.accounts[heir].balance += balance;
        if (Pick(2))
            SyncPermanentlyDeleteObject(account);
        else
            AsyncPermanentlyDeleteObject(account);
    } else {
        account->MarkAsDirtyWithoutTrace();
        const ssize_t size =
            static_cast<ssize_t>(Pick(20) == 0 ? Pick(static_cast<uint64>(3 * m_workload.segmentSize)) : Pick(200));
        account->m_text = xstring(PatternText(number, size).c_str());
        model.accounts[number].size = size;
        const uint64 mentioned = SomeBranch(space);
        account->m_mentions = cref<SimBranch>(mentioned ? Branch(space, mentioned) : nullptr);
        model.accounts[number].mentions = mentioned;
    }
}

void StoreDriver::ChangeNumbers(size_t space) {
    const One one(*this, space);
    PMap<uint64, uint64>& numbers = Changed(space)->m_numbers;
    std::map<uint64, uint64>& model = m_models[space].numbers;
    const uint64 range = m_workload.numKeys / 2;
    const uint64 first = Pick(2 * m_workload.numKeys);
    const uint64 what = Pick(40);
    if (what == 0) {
        numbers.clear();
        model.clear();
    } else if (what == 1) {
        numbers.assign_sorted(model, 0.7);
    } else if (what < 20 && model.size() > range) {
        const uint64 last = first + Pick(range);
        numbers.erase(numbers.lower_bound(first), numbers.lower_bound(last));
        model.erase(model.lower_bound(first), model.lower_bound(last));
    } else {
        for (uint64 key = first + 1 + Pick(range); key > first; --key) {
            const uint64 value = m_random();
            numbers.insert_or_assign(key, value);
            model[key] = value;
        }
    }
}

uint64 StoreDriver::SomeBranch(size_t space) {
    const std::map<uint64, SimSpaceModel::Branch>& branches = m_models[space].branches;
    if (branches.empty()) return 0;
    auto at = branches.begin();
    std::advance(at, static_cast<ssize_t>(Pick(branches.size())));
    return at->first;
}

SimBranch* StoreDriver::Branch(size_t space, uint64 number) {
    const ptr<IPersistable> po = m_open->m_spaces[space]->BindObject(m_branches[space].at(number));
    return static_cast<SimBranch*>(po.m_self);
}

// Transient, with what is below it.
SimBranch* StoreDriver::NewBranch(size_t space, uint64 number, int depth) {
    auto* branch = NewSimObject<SimBranch>();
    SimSpaceModel::Branch& model = m_models[space].branches[number];
    branch->m_number = number;
    branch->m_isSubTree = model.isSubTree = depth == 0 || Pick(2) == 0;
    model.size = static_cast<int64>(Pick(120));
    branch->m_text = xstring(PatternText(number, model.size).c_str());
    for (uint64 i = depth < 3 ? Pick(4) : 0; i > 0; --i) {
        const uint64 below = m_nextNumber++;
        SimBranch* child = NewBranch(space, below, depth + 1);
        child->m_parent = cref<SimBranch>(branch);
        m_models[space].branches[below].parent = number;
        branch->m_children.push_back(cref<SimBranch>(child));
        model.children.push_back(below);
    }
    return branch;
}

void StoreDriver::Plant(size_t space) {
    const One one(*this, space);
    SimHome* home = Changed(space);
    const uint64 parent = Pick(2) ? SomeBranch(space) : 0;
    const uint64 number = m_nextNumber++;
    SimBranch* branch = NewBranch(space, number, 0);
    if (parent) {
        SimBranch* above = Branch(space, parent);
        above->MarkAsDirtyWithoutTrace();
        above->m_children.push_back(cref<SimBranch>(branch));
        branch->m_parent = cref<SimBranch>(above);
        m_models[space].branches[parent].children.push_back(number);
        m_models[space].branches[number].parent = parent;
        DeclareReachable(above, branch, true);
    } else {
        home->m_forest.push_back(cref<SimBranch>(branch));
        m_models[space].forest.push_back(number);
        DeclareReachable(home, branch, true);
    }
    std::vector<SimBranch*> stack{branch};
    while (!stack.empty()) {
        SimBranch* made = stack.back();
        stack.pop_back();
        m_branches[space][made->m_number] = GetOid(made);
        for (const cref<SimBranch>& child : made->m_children) stack.push_back(child.GetNotNull());
    }
}

// Takes a branch off the list of its parent, if that still exists.
void StoreDriver::Unlink(size_t space, uint64 number) {
    SimSpaceModel& model = m_models[space];
    const uint64 parent = model.branches[number].parent;
    if (parent && !model.branches.contains(parent)) return;
    std::vector<uint64>& numbers = parent ? model.branches[parent].children : model.forest;
    const auto at = std::find(numbers.begin(), numbers.end(), number);
    if (at == numbers.end()) return;
    SimBranch* above = parent ? Branch(space, parent) : nullptr;
    if (above) above->MarkAsDirtyWithoutTrace();
    xvector<cref<SimBranch>>& references = above ? above->m_children : HomeOf(*m_open->m_spaces[space])->m_forest;
    references.erase(references.begin() + (at - numbers.begin()));
    numbers.erase(at);
}

void StoreDriver::DeleteBranch(size_t space) {
    const uint64 number = SomeBranch(space);
    if (number == 0) return;
    const One one(*this, space);
    Changed(space);
    SimBranch* branch = Branch(space, number);
    if (Pick(8)) Unlink(space, number); // otherwise a reference will dangle
    SimSpaceModel& model = m_models[space];
    const uint64 what = Pick(6);
    if (what > 1 && model.branches[number].isSubTree) {
        for (uint64 gone : model.SubTreeOf(number)) model.branches.erase(gone);
        AsyncPermanentlyDeleteSubTree(branch);
        return;
    }
    model.branches.erase(number); // what is below it is left behind
    if (what == 0)
        SyncPermanentlyDeleteObject(branch);
    else
        AsyncPermanentlyDeleteObject(branch);
}

void StoreDriver::ChangeNotes(size_t space) {
    const One one(*this, space);
    Changed(space);
    SimSpaceModel& model = m_models[space];
    const std::string name = "note" + std::to_string(Pick(4));
    if (!model.notes.contains(name)) {
        auto* note = NewSimObject<SimNote>();
        auto* next = NewSimObject<SimNote>();
        note->m_number = model.notes[name] = m_nextNumber++;
        note->m_next = cref<SimNote>(next);
        model.numNotes += 2;
        AddPSpaceRoot(name.c_str(), note);
        return;
    }
    const ptr<IPersistable> note = GetPSpaceRoot(name.c_str());
    RemovePSpaceRoot(name.c_str());
    model.notes.erase(name);
    if (Pick(2) == 0) return; // it stays, without a name
    AsyncPermanentlyDeleteSubTree(note);
    model.numNotes -= 2;
}

// --- writing and maintenance

void StoreDriver::Write() {
    const bool flush = Pick(3) == 0;
    if (Pick(3) == 0)
        WriteDirtyObjectsToLss(m_open->m_spaces[PickSpace()], flush);
    else
        m_open->m_store->m_dosWriter.ProcessAllGroups(flush);
    if (flush) NoteDurable();
}

void StoreDriver::WorkInBackground() {
    Maintain([this] { m_open->m_inner->BackgroundForTest(); });
}

// Cleaning or a checkpoint, with changes and writes between the steps, as other threads would have them.
template <class Action>
void StoreDriver::Maintain(Action action) {
    const ssize_t begin = m_sys.NumRecorded();
    m_open->m_inner->SetStepHookForTest([this] { BetweenSteps(); });
    action();
    m_open->m_inner->SetStepHookForTest(nullptr);
    if (m_sys.NumRecorded() > begin) m_history.maintenance.emplace_back(begin, m_sys.NumRecorded());
    if (m_failedBetween) std::rethrow_exception(std::exchange(m_failedBetween, nullptr));
}

void StoreDriver::BetweenSteps() {
    if (m_failedBetween || m_isBetween || std::ssize(m_history.transactions) < 2) return;
    m_isBetween = true;
    try {
        const uint64 what = Pick(16);
        if (what < 2) {
            ChangeSomething();
            Write();
        } else if (what == 2) {
            m_open->m_store->m_dosWriter.DeleteSomeObjects();
        } else if (what == 3) {
            m_open->m_lss->Flush();
            NoteDurable();
        }
    } catch (...) {
        m_failedBetween = std::current_exception();
    }
    m_isBetween = false;
}

// --- noting

void StoreDriver::OnCloseBegins() {
    SimStoreState state = m_history.states.back();
    std::array<bool, NUM_SIM_SPACES> written{};
    for (size_t i = 0; i < state.size(); ++i) {
        const PSpace* space = m_open->m_spaces[i];
        written[i] = space && m_models[i].exists && !space->HaveChangesToWriteToLss() &&
                     (!state[i] || state[i]->model.changes != m_models[i].changes);
    }
    // Half of a group is no state that a crash may leave.
    m_noted = !m_tied || written[0] == written[1];
    if (!m_noted) return;
    for (size_t i = 0; i < state.size(); ++i) {
        if (!written[i]) continue;
        state[i] = std::make_shared<const WrittenSimSpace>(WrittenSimSpace{m_models[i], m_models[i].Text()});
        m_tied = false;
    }
    m_history.states.push_back(std::move(state));
    m_history.transactions.push_back({m_sys.NumRecorded(), -1, -1});
    m_history.written.push_back(std::exchange(m_written, {}));
}

void StoreDriver::OnClosed() {
    if (m_noted) m_history.transactions.back().closed = m_sys.NumRecorded();
}

} // namespace quna

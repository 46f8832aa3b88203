// A process that works on a whole store in a real file, with its writer, its collectors and four threads on two spaces, is
// killed at random moments. Another one opens the file and compares: each thread's changes are there up to some step, not
// before the last one that was acknowledged, and none in part. The file lives on, so that recovery is killed as well.
#include "qxObject/WCSpace.h"
#include "qxPersistStore/src/DosWriter.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Tracer.h"
#include "tests/support/KillLoop.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimStoreModel.h"
#include "tests/support/SimStoreObjects.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace quna {

// What a thread has done in a space.
class KillWorker : public PersistentObject<KillWorker> {
public:
    static constexpr auto Members() {
        return MemberList(Member("step", &KillWorker::m_step), Member("forest", &KillWorker::m_forest));
    }
    uint64 m_step = 0; // the last one that changed this space
    xvector<cref<SimBranch>> m_forest;
};
QX_REFLECT_PERSISTENT_CLASS(KillWorker, "sim::Worker")

namespace {

constexpr size_t NUM_THREADS = 4;
constexpr uint64 NUM_KEYS = 300; // of each thread in each space
constexpr size_t MAX_FOREST = 4; // trees of a thread in a space
constexpr uint64 STEPS_BETWEEN_ACKS = 8;

// A thread's changes up to a step are closed.
struct Message {
    uint64 thread;
    uint64 step;
};

using Spaces = std::array<PSpace*, NUM_SIM_SPACES>;

void RegisterObjects() {
    RegisterSimStoreObjects();
    static std::once_flag once;
    std::call_once(once, [] {
        static constexpr dsTarget TARGET = {"Quna/Tests/KillStore", nullptr, 0, nullptr, 0};
        _Register_KillWorker(RegisterTarget(TARGET));
    });
}

std::string WorkerName(size_t thread) { return "worker" + std::to_string(thread); }

// What step `number` of a thread does: every third one transfers between the spaces, the others change one of them.
struct Step {
    bool isTransfer;
    size_t space;                     // of those that change one
    std::map<uint64, uint64> numbers; // key -> value, 0: erased
    uint64 tree = 0;                  // number of its root; 0: none is planted
    uint64 shape = 0;                 // of the tree

    Step(size_t thread, uint64 number) : isTransfer(number % 3 == 0), space(number % 3 == 1 ? 0 : 1) {
        if (isTransfer) return;
        std::mt19937_64 random(number * 7919 + thread);
        const uint64 first = random() % NUM_KEYS;
        const bool erases = random() % 3 == 0;
        const uint64 count = random() % 4 == 0 ? 70 : 4;
        for (uint64 key = first; key < std::min(first + count, NUM_KEYS); ++key)
            numbers[uint64{thread} << 32 | key] = erases ? 0 : random() | 1;
        if (random() % 2) tree = number;
        shape = random();
    }
    bool Changes(size_t s) const { return isTransfer || space == s; }

    // The last step up to `number` that changes the space.
    static uint64 LastOf(size_t thread, size_t s, uint64 number) {
        while (number > 0 && !Step(thread, number).Changes(s)) --number;
        return number;
    }
    static uint64 LastTransfer(uint64 number) { return number - number % 3; }
};

// A tree of a given shape: two bits for the number of children of each of the first nodes, one whether it is a subtree.
// visit(index, index of the parent or -1, isSubTree), parents first.
template <class Visit>
int VisitShape(uint64 shape, Visit visit) {
    int made = 1;
    visit(0, -1, true);
    for (int i = 0; i < 6 && i < made; ++i)
        for (uint64 children = shape >> (2 * i) & 3; children > 0; --children, ++made)
            visit(made, i, (shape >> (20 + made) & 1) != 0);
    return made;
}

// --- the child

class Worker {
public:
    Worker(PersistStore* store, const Spaces& spaces, size_t thread, uint64 seed, int pipe)
        : m_store(store), m_spaces(spaces), m_thread(thread), m_pipe(pipe), m_random(seed) {}

    [[noreturn]] void Run() {
        uint64 number = Begin();
        for (;;) {
            ++number;
            const Step step(m_thread, number);
            if (step.isTransfer)
                Transfer(number);
            else
                Change(step, number);
            if (number % STEPS_BETWEEN_ACKS == 0) Acknowledge(number);
        }
    }

private:
    KillWorker* Self(PSpace* space) {
        return static_cast<KillWorker*>(space->GetRoot(WorkerName(m_thread).c_str()).m_self);
    }
    static SimHome* Home(PSpace* space) { return static_cast<SimHome*>(space->GetRoot("home").m_self); }

    // The last step that the store has. Changes of one space that the other has overtaken are made again.
    uint64 Begin() {
        std::array<uint64, NUM_SIM_SPACES> steps{};
        for (size_t i = 0; i < steps.size(); ++i) {
            const ThreadPSpaceScope pair(m_spaces[i], m_spaces[i]->GetCSpace());
            const PSpaceTxn txn(SharedRead);
            steps[i] = Self(m_spaces[i])->m_step;
        }
        const auto [first, last] = std::minmax(steps[0], steps[1]);
        for (uint64 number = first + 1; number <= last; ++number) {
            const Step step(m_thread, number);
            if (!step.isTransfer && steps[step.space] < number) Change(step, number);
        }
        return last;
    }

    void Transfer(uint64 number) {
        std::array<CSpace*, NUM_SIM_SPACES> locks{m_spaces[0]->GetCSpace(), m_spaces[1]->GetCSpace()};
        const MultipleCSpaceLock lock(locks.data(), std::ssize(locks), Exclusive);
        std::array<PSpaceLockMode, NUM_SIM_SPACES> members;
        for (size_t i = 0; i < members.size(); ++i) {
            members[i].space = m_spaces[i];
            members[i].mode = Exclusive;
        }
        const AutoCloser2<PersistStoreTxn> txn(OpenTxn(m_store, members.data(), std::ssize(members)));
        const int64 amount = static_cast<int64>(m_random() % 100);
        for (size_t i = 0; i < m_spaces.size(); ++i) {
            const ThreadPSpaceScope pair(m_spaces[i], locks[i]);
            KillWorker* self = Self(m_spaces[i]);
            self->MarkAsDirtyWithoutTrace();
            self->m_step = number;
            SimAccount* account = Home(m_spaces[i])->m_accounts.at(1 + m_random() % NUM_SIM_ACCOUNTS).GetNotNull();
            account->MarkAsDirtyWithoutTrace();
            account->m_balance += i == 0 ? amount : -amount;
        }
    }

    void Change(const Step& step, uint64 number) {
        PSpace* space = m_spaces[step.space];
        const ThreadPSpaceScope pair(space, space->GetCSpace());
        const PSpaceTxn txn(Exclusive);
        PMap<uint64, uint64>& numbers = Home(space)->m_numbers;
        for (const auto& [key, value] : step.numbers) {
            if (value == 0)
                numbers.erase(key);
            else
                numbers.insert_or_assign(key, value);
        }
        KillWorker* self = Self(space);
        self->MarkAsDirtyWithoutTrace();
        self->m_step = number;
        if (step.tree == 0) return;
        Plant(*self, step);
        if (self->m_forest.size() <= ssize_t{MAX_FOREST}) return;
        AsyncPermanentlyDeleteSubTree(self->m_forest[0].GetNotNull());
        self->m_forest.erase(self->m_forest.begin());
    }

    static void Plant(KillWorker& self, const Step& step) {
        std::vector<SimBranch*> made;
        VisitShape(step.shape, [&](int, int parent, bool isSubTree) {
            auto* branch = new SimBranch;
            RegisterGcObject(branch);
            branch->m_number = step.tree;
            branch->m_isSubTree = isSubTree;
            branch->m_text = xstring(PatternText(step.tree, static_cast<ssize_t>(step.shape % 300)).c_str());
            if (parent >= 0) {
                SimBranch* above = made[static_cast<size_t>(parent)];
                branch->m_parent = cref<SimBranch>(above);
                above->m_children.push_back(cref<SimBranch>(branch));
            }
            made.push_back(branch);
        });
        self.m_forest.push_back(cref<SimBranch>(made[0]));
        DeclareReachable(&self, made[0], true);
    }

    void Acknowledge(uint64 number) {
        WriteAllDirtyObjectsToLss(m_store, m_random() % 4 == 0);
        Tell(m_pipe, Message{m_thread, number});
    }

    PersistStore* m_store;
    const Spaces m_spaces;
    const size_t m_thread;
    const int m_pipe;
    std::mt19937_64 m_random;
};

PersistStoreSettings Settings(uint64 seed) {
    PersistStoreSettings settings;
    settings.lssSettings.segmentSize = 65536;
    settings.lssSettings.flushTimeMilliSec = 10;
    settings.lssSettings.numSegmentsPerCheckPoint = seed % 2 ? 2 : 16;
    return settings;
}

// In one transaction over both spaces.
void MakeContent(PersistStore* store, const Spaces& spaces) {
    std::array<CSpace*, NUM_SIM_SPACES> locks{spaces[0]->GetCSpace(), spaces[1]->GetCSpace()};
    const MultipleCSpaceLock lock(locks.data(), std::ssize(locks), Exclusive);
    {
        const ThreadPSpaceScope pair(spaces[0], locks[0]);
        if (spaces[0]->GetRoot("home")) return;
    }
    std::array<PSpaceLockMode, NUM_SIM_SPACES> members;
    for (size_t i = 0; i < members.size(); ++i) {
        members[i].space = spaces[i];
        members[i].mode = Exclusive;
    }
    const AutoCloser2<PersistStoreTxn> txn(OpenTxn(store, members.data(), std::ssize(members)));
    for (PSpace* space : spaces) {
        const ThreadPSpaceScope pair(space, space->GetCSpace());
        auto* home = new SimHome;
        RegisterGcObject(home);
        home->m_accounts = PMap<uint64, cref<SimAccount>>::Create();
        home->m_numbers = PMap<uint64, uint64>::Create();
        for (uint64 number = 1; number <= NUM_SIM_ACCOUNTS; ++number) {
            auto* account = new SimAccount;
            RegisterGcObject(account);
            account->m_balance = FIRST_SIM_BALANCE;
            home->m_accounts.insert_or_assign(number, cref<SimAccount>(account));
        }
        space->AddRoot("home", home);
        for (size_t t = 0; t < NUM_THREADS; ++t) {
            auto* worker = new KillWorker;
            RegisterGcObject(worker);
            space->AddRoot(WorkerName(t).c_str(), worker);
        }
    }
}

[[noreturn]] void Child(const std::string& path, uint64 seed, int pipe) {
    try {
        RegisterObjects();
        PersistStore* store = OpenPersistStore(path.c_str(), OM_OPEN_ALWAYS, Settings(seed));
        SetDosPeriod(store, 1 + static_cast<int32>(seed % 10));
        Spaces spaces{};
        for (size_t i = 0; i < spaces.size(); ++i) {
            spaces[i] = OpenPSpace(store, SIM_SPACE_NAMES[i], OM_OPEN_ALWAYS, nullptr);
            SetMilliSecsPerGc(spaces[i]->GetCSpace(), 5);
        }
        MakeContent(store, spaces);
        std::vector<std::thread> threads;
        for (size_t t = 0; t < NUM_THREADS; ++t)
            threads.emplace_back([&, t] { Worker(store, spaces, t, seed * NUM_THREADS + t, pipe).Run(); });
        for (std::thread& thread : threads) thread.join();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "child: %s\n", e.what());
    }
    std::_Exit(4);
}

// --- the check

// What a thread's steps leave in a space.
class ThreadModel {
public:
    void RollTo(size_t thread, size_t space, uint64 number) {
        while (m_step < number) {
            const Step step(thread, ++m_step);
            if (step.isTransfer || step.space != space) continue;
            for (const auto& [key, value] : step.numbers) {
                if (value == 0)
                    m_numbers.erase(key);
                else
                    m_numbers[key] = value;
            }
            if (step.tree == 0) continue;
            m_forest.push_back(step);
            if (m_forest.size() > MAX_FOREST) m_forest.pop_front();
        }
    }

    std::map<uint64, uint64> m_numbers;
    std::deque<Step> m_forest;

private:
    uint64 m_step = 0;
};

struct Totals : KillTotals {
    int64 lost = 0;
    int64 sumBroken = 0;
};

struct Wrong : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Looks at a store that is open for reading only: what the deletions remove, they remove from memory.
class Checker {
public:
    using Models = std::array<std::array<ThreadModel, NUM_THREADS>, NUM_SIM_SPACES>;
    // Steps that a later process must find.
    using Steps = std::array<std::array<uint64, NUM_THREADS>, NUM_SIM_SPACES>;

    Checker(const std::string& path, Models& models) : m_models(models) {
        PersistStoreSettings settings = Settings(1);
        settings.startObjectDeletion = false;
        m_store = OpenPersistStore(path.c_str(), OM_OPEN_EXISTING_READ_ONLY, settings);
    }
    Checker(const Checker&) = delete;
    Checker& operator=(const Checker&) = delete;
    ~Checker() {
        for (PSpace* space : m_spaces)
            if (space) Close(space);
        Close(m_store);
    }

    // Raises the steps that count as acknowledged to those found.
    void Check(Steps& acknowledged, Totals& totals) {
        if (GetNumPSpaces(m_store) == 0) {
            if (acknowledged != Steps{}) Lose(totals, "there are no spaces");
            return;
        }
        for (size_t i = 0; i < m_spaces.size(); ++i)
            m_spaces[i] = OpenPSpace(m_store, SIM_SPACE_NAMES[i], OM_OPEN_EXISTING, CreateCSpace());
        while (m_store->m_dosWriter.DeleteSomeObjects()) continue;
        for (size_t i = 0; i < m_spaces.size(); ++i) {
            const ThreadPSpaceScope pair(m_spaces[i], m_spaces[i]->GetCSpace());
            SynchronousGc(m_spaces[i]->GetCSpace());
            const CSpaceLock lock(SharedRead);
            CheckSpace(i);
        }
        CheckSteps(acknowledged, totals);
        if (m_sum != SIM_SUM) {
            ++totals.sumBroken;
            throw Wrong("the sum is " + std::to_string(m_sum));
        }
        LssStats stats;
        m_store->GetLss()->GetStats(stats);
        if (stats.numLiveHeadPackets != m_count)
            throw Wrong("there are " + std::to_string(stats.numLiveHeadPackets) + " elements instead of " +
                        std::to_string(m_count));
    }

private:
    [[noreturn]] static void Lose(Totals& totals, const std::string& text) {
        ++totals.lost;
        throw Wrong(text);
    }

    void CheckSpace(size_t i) {
        const auto* home = static_cast<const SimHome*>(m_spaces[i]->GetRoot("home").m_self);
        m_count += NUM_PSPACE_SERIAL_ELEMENTS + 1 + ssize_t{NUM_SIM_ACCOUNTS};
        CountTree(home->m_accounts);
        CountTree(home->m_numbers);
        for (const auto [number, account] : home->m_accounts) m_sum += account.GetNotNull()->m_balance;
        std::map<uint64, uint64> expected;
        for (size_t t = 0; t < NUM_THREADS; ++t) {
            const auto* worker = static_cast<const KillWorker*>(m_spaces[i]->GetRoot(WorkerName(t).c_str()).m_self);
            ++m_count;
            m_steps[i][t] = worker->m_step;
            ThreadModel& model = m_models[i][t];
            model.RollTo(t, i, worker->m_step);
            expected.insert(model.m_numbers.begin(), model.m_numbers.end());
            CheckForest(*worker, model);
        }
        if (home->m_numbers.size() != std::ssize(expected)) throw Wrong("the tree has the wrong number of entries");
        auto at = expected.begin();
        for (const auto [key, value] : home->m_numbers) {
            if (key != at->first || value != at->second) throw Wrong("the tree has the wrong content");
            ++at;
        }
    }

    template <class Map>
    void CountTree(const Map& map) {
        map.Tree().Validate();
        m_count += 1 + map.Tree().GetNumNodes();
    }

    void CheckForest(const KillWorker& worker, const ThreadModel& model) {
        if (worker.m_forest.size() != std::ssize(model.m_forest)) throw Wrong("a forest has the wrong number of trees");
        for (size_t i = 0; i < model.m_forest.size(); ++i) {
            const Step& step = model.m_forest[i];
            std::vector<const SimBranch*> found{worker.m_forest[static_cast<ssize_t>(i)].GetNotNull()};
            for (size_t next = 0; next < found.size(); ++next)
                for (const cref<SimBranch>& child : found[next]->m_children) found.push_back(child.GetNotNull());
            bool right = true;
            const int expected = VisitShape(step.shape, [&](int index, int, bool isSubTree) {
                const size_t at = static_cast<size_t>(index);
                right = right && at < found.size() && found[at]->m_number == step.tree &&
                        found[at]->m_isSubTree == isSubTree;
            });
            if (!right || std::ssize(found) != expected) throw Wrong("a tree of a forest has the wrong shape");
            if (PatternText(step.tree, static_cast<ssize_t>(step.shape % 300)) != found.back()->m_text.c_str())
                throw Wrong("a tree of a forest has the wrong text");
            m_count += expected;
        }
    }

    void CheckSteps(Steps& acknowledged, Totals& totals) {
        for (size_t t = 0; t < NUM_THREADS; ++t) {
            for (size_t i = 0; i < m_steps.size(); ++i)
                if (m_steps[i][t] < acknowledged[i][t])
                    Lose(totals, "step " + std::to_string(acknowledged[i][t]) + " of thread " + std::to_string(t) +
                                     " was closed in space " + std::to_string(i) + ", but the last there is " +
                                     std::to_string(m_steps[i][t]));
            if (Step::LastTransfer(m_steps[0][t]) != Step::LastTransfer(m_steps[1][t]))
                throw Wrong("a transfer is in one space and not in the other");
        }
        acknowledged = m_steps;
    }

    Models& m_models;
    PersistStore* m_store = nullptr;
    Spaces m_spaces{};
    Steps m_steps{};
    int64 m_sum = 0;
    int64 m_count = NUM_PERSISTSTORE_SERIAL_ELEMENTS;
};

// --- the parent

class Murderer final : public KillLoop<Message> {
public:
    Murderer(uint64 seed, Totals& totals) : KillLoop(seed, totals), m_totals(totals) {}

private:
    [[noreturn]] void Work(uint64 seed, int pipe) override { Child(Path(), seed, pipe); }

    void Take(const Message& message) override {
        for (size_t i = 0; i < m_acknowledged.size(); ++i) {
            uint64& known = m_acknowledged[i][message.thread];
            known = std::max(known, Step::LastOf(message.thread, i, message.step));
        }
    }

    // Opened read-only, so that the next child meets the file as the killed one left it.
    bool Check() override {
        try {
            if (::access(Path().c_str(), F_OK) == 0)
                Checker(Path(), m_models).Check(m_acknowledged, m_totals);
            else if (m_acknowledged != Checker::Steps{})
                throw Wrong("the store has gone");
            return true;
        } catch (const std::exception& e) {
            if (m_acknowledged == Checker::Steps{} && std::strstr(e.what(), "cut short")) return true;
            Report(e.what());
            return false;
        }
    }

    Totals& m_totals;
    Checker::Steps m_acknowledged{};
    Checker::Models m_models;
};

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    RegisterObjects();
    SetTraceSink({nullptr, [](void*, const char*, ssize_t) {}}); // a warning at each check
    Totals totals;
    const int stores = std::max(1, static_cast<int>(arguments.scale));
    for (int i = 0; i < stores; ++i) Murderer(arguments.seed + static_cast<uint64>(i), totals).Run(20);
    const bool ok = totals.lost + totals.sumBroken + totals.faults == 0 && totals.messages > 0;
    std::printf("reliability store-kill-random: kills=%lld acknowledged=%lld lost=%lld sum_broken=%lld wrong=%lld "
                "verdict=%s\n",
                static_cast<long long>(totals.kills), static_cast<long long>(totals.messages),
                static_cast<long long>(totals.lost), static_cast<long long>(totals.sumBroken),
                static_cast<long long>(totals.faults), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

// A class of an application throws at its n-th call of Serialise, of Deserialise, of VisitPrefs or of a constructor, for each
// n, while a space is worked on: on the caller's thread, and with the store's own threads at work. The exception reaches the
// caller or ends the process (on the writer's thread); no element is torn, no lock stays taken, the space can be used and
// what is changed and written next is right.
#include "qxObject/DollarNew.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/DosWriter.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Schema.h"
#include "qxUtils/Tracer.h"
#include "tests/support/AwaitWritten.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimStoreObjects.h"
#include "tests/support/TempDir.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quna {

enum class EThrowing {
    SERIALISE,
    DESERIALISE,
    VISIT_PREFS,
    CONSTRUCT,
    COUNT
};

struct Thrown : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Record: schema 1, id, step, text, the number of children (variable length) and each child.
class NthThrower : public PersistableMixin<IObjectBaseMixin<NthThrower, EmptyBase>> {
public:
    NthThrower() { Count(EThrowing::CONSTRUCT); }
    NthThrower(const NthThrower& x)
        : PersistableMixin(x), m_id(x.m_id), m_step(x.m_step), m_text(x.m_text), m_children(x.m_children) {
        Count(EThrowing::CONSTRUCT);
    }
    NthThrower& operator=(const NthThrower&) = delete;

    void Serialise(Archive& ar) const {
        SerialiseSchema(ar, 1);
        ar << m_id << m_step;
        Count(EThrowing::SERIALISE); // half a record is in the archive
        ar << m_text;
        Serialise_ssize_t(ar, m_children.size());
        for (const cref<NthThrower>& child : m_children) ar << child;
    }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        ar = DeserialiseSchema(ar, 1, schema) >> m_id >> m_step;
        Count(EThrowing::DESERIALISE);
        ar = ar >> m_text;
        ssize_t n = 0;
        ar = DeserialiseCount(ar, n);
        m_children.resize(n);
        for (cref<NthThrower>& child : m_children) ar = ar >> child;
        return ar;
    }
    void VisitPrefs(IPrefVisitor& visitor) const {
        for (const cref<NthThrower>& child : m_children) {
            visitor << child;
            if (&child == &m_children[0]) Count(EThrowing::VISIT_PREFS);
        }
    }
    void VisitObjects(IObjectVisitor& visitor) const {
        for (const cref<NthThrower>& child : m_children) visitor << child;
    }

    void SetStep(uint64 step) {
        m_step = step;
        m_text = TextOf();
    }
    bool IsWhole() const { return std::strcmp(m_text.c_str(), TextOf().c_str()) == 0; }

    uint64 m_id = 0;
    uint64 m_step = 0;
    xstring m_text;
    xvector<cref<NthThrower>> m_children;

    static void Arm(EThrowing kind, int64 n) {
        s_kind = kind;
        s_calls = 0;
        s_n = n;
    }
    static void Disarm() { s_n = 0; }
    static int64 NumCalls() { return s_calls; }
    static bool HasThrown() { return s_n > 0 && s_calls >= s_n; }

private:
    xstring TextOf() const {
        return xstring(PatternText(m_id * 1000 + m_step, static_cast<ssize_t>(m_step * 37 % 300)).c_str());
    }
    static void Count(EThrowing kind) {
        if (kind == s_kind && s_n > 0 && ++s_calls == s_n) throw Thrown("the application's own code has thrown");
    }

    static inline EThrowing s_kind = EThrowing::COUNT;
    static inline std::atomic<int64> s_n{0}; // 0: it counts nothing
    static inline std::atomic<int64> s_calls{0};
};
QX_REFLECT_PERSISTENT_CLASS(NthThrower, "nth::Thrower")

namespace {

constexpr int DONE = 7;
constexpr int ENDED = 8;
constexpr unsigned SECONDS_UNTIL_HUNG = 60;
constexpr int64 NEVER = int64{1} << 60;

// 0 is the root; its children are 1 to 5, each with one child, 6 to 10. 5 is deleted in the end, with 10.
constexpr size_t NUM_OBJECTS = 11;
constexpr size_t NUM_CHILDREN = 5;
constexpr bool IsToBeDeleted(size_t id) { return id == 5 || id == 10; }

using Objects = std::array<NthThrower*, NUM_OBJECTS>;

// Written by the child, read by the parent after its end.
struct Told {
    std::array<std::atomic<uint64>, NUM_OBJECTS> floor{};   // this step of an object is closed
    std::array<std::atomic<uint64>, NUM_OBJECTS> current{}; // this one is in memory
    std::atomic<bool> deleting{false};
    std::atomic<int64> calls{0};
    std::atomic<int64> thrown{0};
    std::atomic<int64> exceptions{0}; // that the application caught
    std::atomic<int64> traces{0};
    std::atomic<int64> ackedAfter{0}; // writes that returned although an object had thrown
    char wrong[400] = {};
};

Told* g_told = nullptr;

void Reset() {
    void* p = g_told;
    if (!p) p = ::mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) std::abort();
    g_told = new (p) Told;
}

void NoteWrong(const std::string& text) {
    if (!g_told->wrong[0]) std::snprintf(g_told->wrong, sizeof g_told->wrong, "%s", text.c_str());
}

[[noreturn]] void End(int status) {
    g_told->calls = NthThrower::NumCalls();
    g_told->thrown = NthThrower::HasThrown() ? 1 : 0;
    ::_exit(status);
}

PersistStoreSettings Settings(bool threads) {
    PersistStoreSettings settings;
    settings.startObjectDeletion = threads;
    settings.lssSettings.segmentSize = 65536;
    settings.lssSettings.flushTimeMilliSec = -1;
    return settings;
}

class OneSpace {
public:
    void Open(const std::string& path, bool threads) {
        m_store = OpenPersistStore(path.c_str(), OM_OPEN_ALWAYS, Settings(threads));
        if (threads) SetDosPeriod(m_store, 1);
        CSpace* const cspace = threads ? nullptr : CreateCSpace();
        m_space = OpenPSpace(m_store, "space", OM_OPEN_ALWAYS, cspace);
        if (threads) SetMilliSecsPerGc(m_space->GetCSpace(), 5);
    }
    void Close() {
        quna::Close(m_space);
        m_space = nullptr;
        quna::Close(m_store);
        m_store = nullptr;
    }
    // Under the exclusive lock, in a transaction.
    template <class Change>
    void InTransaction(Change change) {
        const ThreadPSpaceScope pair(m_space, m_space->GetCSpace());
        const CSpaceLock lock(Exclusive);
        PSpaceLockMode member;
        member.space = m_space;
        member.mode = Exclusive;
        const AutoCloser2<PersistStoreTxn> txn(OpenTxn(m_store, &member, 1));
        change();
    }
    // Null where there is none. In a locked space.
    Objects LoadAll() {
        Objects objects{};
        try {
            objects[0] = static_cast<NthThrower*>(m_space->GetRoot("top").m_self);
        } catch (const DerefDanglingOidException&) {
            return objects; // its name was written and it has thrown
        }
        if (!objects[0]) return objects;
        for (size_t id = 0; id <= NUM_CHILDREN; ++id) {
            if (!objects[id]) continue;
            for (const cref<NthThrower>& child : objects[id]->m_children) {
                NthThrower* const found = child.TryGet();
                if (found && found->m_id < NUM_OBJECTS) objects[found->m_id] = found;
            }
        }
        return objects;
    }

    PersistStore* m_store = nullptr;
    PSpace* m_space = nullptr;
};

// --- the child

class Work {
public:
    Work(const std::string& path, bool threads) : m_path(path), m_threads(threads) {}

    [[noreturn]] void Run() {
        m_open.Open(m_path, m_threads);
        if (!Try("attach", [this] { Attach(); })) End(ENDED); // some objects are attached; as PSpaceTxn would end it
        Write();
        for (int round = 0; round < 2; ++round) {
            ChangeAndWrite(1);
            Do("collection", [this] { Collect(); });
            Do("look", [this] { Look(); });
            ChangeAndWrite(0);
        }
        Do("copy", [this] { Copy(); });
        Do("measure", [this] { Measure(); });
        Do("collection", [this] { Collect(); });
        Do("bind", [this] { Bind(); });
        ChangeAndWrite(1);
        // What is not going to be written is not deleted either.
        if (!m_stuck[NUM_CHILDREN] && !m_stuck[2 * NUM_CHILDREN]) Do("deletion", [this] { Delete(); });
        Write();
        Do("batches", [this] {
            while (m_open.m_store->m_dosWriter.DeleteSomeObjects()) continue;
        });
        CloseSpace();
        m_open.Open(m_path, m_threads);
        Do("look again", [this] { Look(); });
        ChangeAndWrite(0);
        CloseSpace();
        End(DONE);
    }

private:
    template <class Action>
    bool Try(const char* name, Action action) {
        try {
            action();
            return true;
        } catch (const Thrown&) {
            ++g_told->exceptions;
        } catch (const std::exception& e) {
            NoteWrong(std::string(name) + ": " + e.what());
            End(ENDED);
        }
        CheckThatLocksAreFree(name);
        return false;
    }
    // What has failed once succeeds the second time.
    template <class Action>
    void Do(const char* name, Action action) {
        if (Try(name, action) || Try(name, action)) return;
        NoteWrong(std::string(name) + " fails a second time");
        End(ENDED);
    }
    void CheckThatLocksAreFree(const char* name) {
        CSpace* const cspace = m_open.m_space->GetCSpace();
        bool free = !HaveLock(cspace) && GetThreadPSpace() == nullptr && GetThreadCSpace() == nullptr;
        std::thread([&] {
            free = free && TryLockFor(cspace, Exclusive, SECONDS_UNTIL_HUNG * 500);
            if (free) Unlock(cspace);
        }).join();
        if (!free) NoteWrong(std::string("a lock stays taken after ") + name);
    }

    void Attach() {
        m_open.InTransaction([this] {
            Objects made{};
            for (size_t id = 0; id < NUM_OBJECTS; ++id) {
                made[id] = DollarNew<NthThrower>();
                made[id]->m_id = id;
                made[id]->SetStep(1);
            }
            for (size_t id = 1; id <= NUM_CHILDREN; ++id) {
                made[0]->m_children.push_back(cref<NthThrower>(made[id]));
                made[id]->m_children.push_back(cref<NthThrower>(made[id + NUM_CHILDREN]));
            }
            for (std::atomic<uint64>& step : g_told->current) step = 1;
            if (!m_open.m_space->AddRoot("top", made[0])) NoteWrong("the name of a root that was not added is taken");
        });
        m_step = 1;
    }
    void ChangeAndWrite(uint64 parity) {
        Do("change", [&] {
            m_open.InTransaction([&] {
                const Objects objects = m_open.LoadAll(); // whatever throws has changed nothing
                ++m_step;
                for (size_t id = parity; id < NUM_OBJECTS; id += 2) {
                    if (!objects[id] || (g_told->deleting && IsToBeDeleted(id))) continue;
                    objects[id]->MarkAsDirtyWithoutTrace();
                    objects[id]->SetStep(m_step);
                    g_told->current[id] = m_step;
                }
            });
        });
        Write();
    }
    // After an exception the object that threw, and those behind it, are not written by this process any more.
    void Write() {
        const bool hadThrown = NthThrower::HasThrown();
        if (m_threads) {
            AwaitWritten(m_open.m_store, m_open.m_space);
        } else if (!Try("write", [this] { m_open.m_store->m_dosWriter.ProcessAllGroups(false); })) {
            for (size_t id = 0; id < NUM_OBJECTS; ++id)
                m_stuck[id] = m_stuck[id] || g_told->floor[id] < g_told->current[id];
            Do("write", [this] { m_open.m_store->m_dosWriter.ProcessAllGroups(false); });
        } else if (NthThrower::HasThrown() && !hadThrown) {
            ++g_told->ackedAfter;
        }
        for (size_t id = 0; id < NUM_OBJECTS; ++id)
            if (!m_stuck[id]) g_told->floor[id] = g_told->current[id].load();
    }
    void CloseSpace() {
        try {
            m_open.Close();
        } catch (const Thrown&) { // by the last write
            ++g_told->exceptions;
            End(ENDED);
        } catch (const std::exception& e) {
            // It says so if an object ends that has changes.
            if (m_stuck == decltype(m_stuck){}) NoteWrong(std::string("close: ") + e.what());
            End(ENDED);
        }
        for (size_t id = 0; id < NUM_OBJECTS; ++id) g_told->floor[id] = g_told->current[id].load();
    }
    void Collect() {
        const ThreadPSpaceScope pair(m_open.m_space, m_open.m_space->GetCSpace());
        SynchronousGc(m_open.m_space->GetCSpace());
    }
    void Look() {
        const ThreadPSpaceScope pair(m_open.m_space, m_open.m_space->GetCSpace());
        const CSpaceLock lock(SharedRead);
        const Objects objects = m_open.LoadAll();
        for (size_t id = 0; id < NUM_OBJECTS; ++id) {
            const bool gone = g_told->deleting && IsToBeDeleted(id);
            if (gone != !objects[id]) NoteWrong("object " + std::to_string(id) + " is missing, or there again");
            if (objects[id] && (!objects[id]->IsWhole() || objects[id]->m_step != g_told->current[id]))
                NoteWrong("object " + std::to_string(id) + " is not what it was");
        }
    }
    void Copy() {
        const ThreadPSpaceScope pair(m_open.m_space, m_open.m_space->GetCSpace());
        const CSpaceLock lock(Exclusive);
        const Objects objects = m_open.LoadAll();
        const ptr<IPersistable> copy = SynchronousDeepCopyPersistableObject(objects[0]);
        if (!copy || GetOid(copy) || !static_cast<const NthThrower*>(copy.m_self)->IsWhole())
            NoteWrong("a copy is wrong");
    }
    void Measure() {
        const ThreadPSpaceScope pair(m_open.m_space, m_open.m_space->GetCSpace());
        const CSpaceLock lock(SharedRead);
        if (MeasurePersistableObjectSize(m_open.LoadAll()[1]) < 3) NoteWrong("an object has no size");
    }
    // By the threads that load. What throws there is answered "does not exist", and once more found when it is looked for.
    void Bind() {
        const ThreadPSpaceScope pair(m_open.m_space, m_open.m_space->GetCSpace());
        std::vector<OID> oids;
        {
            const CSpaceLock lock(SharedRead);
            const auto* const top = static_cast<const NthThrower*>(m_open.m_space->GetRoot("top").m_self);
            for (const cref<NthThrower>& child : top->m_children) oids.push_back(child.GetOid());
        }
        for (const OID oid : oids)
            for (EAsyncBindResult result = EAsyncBindResult::Pending; result == EAsyncBindResult::Pending;) {
                std::this_thread::sleep_for(MOMENT);
                const CSpaceLock lock(Exclusive);
                result = m_open.m_space->AsyncBind2(oid).result;
                if (result != EAsyncBindResult::DoesNotExist) continue;
                ++g_told->exceptions;
                if (!NthThrower::HasThrown()) NoteWrong("an object does not exist");
            }
    }
    void Delete() {
        m_open.InTransaction([this] {
            const Objects objects = m_open.LoadAll();
            ++m_step;
            if (g_told->deleting) return;
            AsyncPermanentlyDeleteSubTree(objects[NUM_CHILDREN]);
            g_told->deleting = true;
            objects[0]->MarkAsDirtyWithoutTrace();
            objects[0]->m_children.pop_back();
            objects[0]->SetStep(m_step);
            g_told->current[0] = m_step;
        });
    }

    const std::string m_path;
    const bool m_threads;
    OneSpace m_open;
    uint64 m_step = 0;
    std::array<bool, NUM_OBJECTS> m_stuck{};
};

// --- the parent

struct Totals {
    int64 runs = 0;
    int64 failures = 0;
    int64 ended = 0;
    int64 unreported = 0;
    int64 ackedAfter = 0;
    int64 lost = 0;
    int64 hung = 0;
    int64 torn = 0;
    int64 wrong = 0;

    int64 Faults() const { return unreported + ackedAfter + lost + hung + torn + wrong; }
};

// Empty, or what is wrong with the objects that are found.
std::string Compare(OneSpace& open) {
    const ThreadPSpaceScope pair(open.m_space, open.m_space->GetCSpace());
    const CSpaceLock lock(SharedRead);
    const Objects objects = open.LoadAll();
    for (size_t id = 0; id < NUM_OBJECTS; ++id) {
        const uint64 floor = g_told->floor[id];
        const std::string name = "object " + std::to_string(id);
        if (!objects[id]) {
            if (floor == 0 || (g_told->deleting && IsToBeDeleted(id))) continue;
            return "lost: " + name + " is not there";
        }
        const uint64 step = objects[id]->m_step;
        if (!objects[id]->IsWhole()) return "torn: " + name + " is half of step " + std::to_string(step);
        if (step < floor || step > g_told->current[id])
            return "lost: " + name + " is of step " + std::to_string(step) + ", " + std::to_string(floor) +
                   " was closed and " + std::to_string(g_told->current[id]) + " made";
    }
    return {};
}

std::string Check(const std::string& path) {
    try {
        OneSpace open;
        open.Open(path, false);
        while (open.m_store->m_dosWriter.DeleteSomeObjects()) continue;
        std::string fault = Compare(open);
        open.InTransaction([&] {
            const Objects objects = open.LoadAll();
            for (size_t id = 0; id < NUM_OBJECTS; ++id) {
                if (!objects[id]) continue;
                objects[id]->MarkAsDirtyWithoutTrace();
                objects[id]->SetStep(1000);
                g_told->floor[id] = g_told->current[id] = 1000;
            }
        });
        open.Close();
        if (!fault.empty()) return fault;
        open.Open(path, false);
        fault = Compare(open);
        open.Close();
        return fault;
    } catch (const std::exception& e) {
        return std::string("torn: ") + e.what();
    }
}

// The calls that were counted.
int64 RunOne(EThrowing kind, bool threads, int64 n, Totals& totals) {
    const TempDir dir;
    const std::string path = dir.File("store");
    Reset();
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child < 0) std::abort();
    if (child == 0) {
        ::alarm(SECONDS_UNTIL_HUNG);
        std::set_terminate([] { End(ENDED); });
        SetTraceSink({nullptr, [](void*, const char*, ssize_t) { ++g_told->traces; }});
        NthThrower::Arm(kind, n);
        Work(path, threads).Run();
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    const int exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    ++totals.runs;
    totals.failures += g_told->thrown;
    totals.ended += exit == ENDED;
    const auto fault = [&](int64& count, const std::string& text) {
        ++count;
        std::printf("FAULT --replay 0,%lld,%d: %s\n", static_cast<long long>(n), static_cast<int>(kind) * 2 + threads,
                    text.c_str());
    };
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
        fault(totals.hung, "hung");
    else if (exit != DONE && exit != ENDED)
        fault(totals.wrong, "the child ended with status " + std::to_string(status));
    if (g_told->wrong[0]) fault(totals.wrong, g_told->wrong);
    if (g_told->ackedAfter > 0) fault(totals.ackedAfter, "a write returned although an object had thrown");
    if (g_told->thrown > 0 && g_told->exceptions == 0 && exit == DONE) fault(totals.unreported, "nobody was told");
    const std::string found = Check(path);
    if (!found.empty()) fault(found.starts_with("lost") ? totals.lost : totals.torn, found);
    return g_told->calls;
}

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    PreferFilesInMemory();
    Register_Project_qxPersistStore();
    static constexpr dsTarget TARGET = {"Quna/Tests/NthThrow", nullptr, 0, nullptr, 0};
    _Register_NthThrower(RegisterTarget(TARGET));
    SetTraceSink({nullptr, [](void*, const char*, ssize_t) {}});
    Totals totals;
    if (arguments.replay) {
        RunOne(static_cast<EThrowing>(arguments.replayVariant / 2 % 4), arguments.replayVariant % 2 != 0,
               arguments.replayPoint, totals);
    } else {
        for (int kind = 0; kind < static_cast<int>(EThrowing::COUNT); ++kind)
            for (const bool threads : {false, true}) {
                const int64 calls = RunOne(static_cast<EThrowing>(kind), threads, NEVER, totals);
                for (int64 n = 1; n <= calls; ++n) RunOne(static_cast<EThrowing>(kind), threads, n, totals);
            }
    }
    const bool ok = totals.Faults() == 0 && totals.failures > 0;
    std::printf("reliability nth-throw: runs=%lld failures=%lld ended=%lld unreported=%lld acked_after=%lld lost=%lld "
                "hung=%lld "
                "torn=%lld wrong=%lld verdict=%s\n",
                static_cast<long long>(totals.runs), static_cast<long long>(totals.failures),
                static_cast<long long>(totals.ended), static_cast<long long>(totals.unreported),
                static_cast<long long>(totals.ackedAfter), static_cast<long long>(totals.lost),
                static_cast<long long>(totals.hung), static_cast<long long>(totals.torn),
                static_cast<long long>(totals.wrong), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

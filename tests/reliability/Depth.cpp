// Chains and combs of very many objects on a thread with a stack of 256 KiB: they are attached, marked, collected, copied,
// written, loaded, deleted and closed there. Nothing may go as deep as the data.
#include "qxObject/DollarNew.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/PersistentMembers.h"
#include "qxPersistStore/src/DosWriter.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Tracer.h"
#include "tests/support/SimArguments.h"
#include "tests/support/TempDir.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quna {

// A link of a chain; in a comb each also has a tooth.
class DepthNode : public PersistentObject<DepthNode> {
public:
    static constexpr auto Members() {
        return MemberList(Member("number", &DepthNode::m_number), Member("tooth", &DepthNode::m_tooth),
                          Member("next", &DepthNode::m_next));
    }
    bool RepresentsSubTree() const { return s_areSubTrees || m_number == TOP; }

    static constexpr int64 TOP = -1;

    int64 m_number = 0;
    cref<DepthNode> m_tooth;
    cref<DepthNode> m_next;

    static inline bool s_areSubTrees = true;
};
QX_REFLECT_PERSISTENT_CLASS(DepthNode, "depth::Node")

namespace {

constexpr size_t STACK_BYTES = 256 << 10;
constexpr double DEPTH_AT_SCALE_1 = 1e7;
// Of a structure each link of which is a subtree, so that a batch takes only some of them.
constexpr int64 MOST_SUBTREES = 20000;

enum class EShape {
    CHAIN,
    COMB
};

void Expect(bool condition, const char* text) {
    if (!condition) throw std::runtime_error(text);
}

class Work {
public:
    Work(const std::string& path, EShape shape, int64 numObjects, bool areSubTrees)
        : m_path(path), m_shape(shape), m_numObjects(numObjects), m_areSubTrees(areSubTrees) {}

    void Run() {
        Open();
        Under(Exclusive, [this] {
            DepthNode* const top = Make();
            Expect(m_space->AddRoot("top", top), "the root is not added");
        });
        Collect();
        Expect(GetNumObjects(m_space->GetCSpace()) >= m_numObjects, "a collection has taken what is reached");
        Under(Exclusive, [this] {
            const ptr<IPersistable> copy = SynchronousDeepCopyPersistableObject(m_space->GetRoot("top"));
            Expect(Count(static_cast<const DepthNode*>(copy.m_self)) == m_numObjects, "the copy has lost something");
        });
        Collect(); // the copy goes
        m_store->m_dosWriter.ProcessAllGroups(false);
        Collect(); // all goes
        Expect(GetNumObjects(m_space->GetCSpace()) < 10, "a collection has left the cache");
        CloseAll();

        Open();
        Under(SharedRead, [this] { Expect(Count(Top()) == m_numObjects, "something is not loaded"); });
        CloseAll();

        DepthNode::s_areSubTrees = m_areSubTrees; // or one batch takes all
        Open();
        Under(Exclusive, [this] {
            m_space->AsyncPermanentlyDeleteSubTree(m_space->GetRoot("top"));
            m_space->RemoveRoot("top");
        });
        m_store->m_dosWriter.ProcessAllGroups(false);
        while (m_store->m_dosWriter.DeleteSomeObjects()) continue;
        LssStats stats;
        m_store->GetLss()->GetStats(stats);
        Expect(stats.numLiveHeadPackets == NUM_PERSISTSTORE_SERIAL_ELEMENTS + NUM_PSPACE_SERIAL_ELEMENTS,
               "the deletion has left something");
        CloseAll();
        DepthNode::s_areSubTrees = true;
    }

private:
    void Open() {
        PersistStoreSettings settings;
        settings.startObjectDeletion = false; // all work is this thread's
        m_store = OpenPersistStore(m_path.c_str(), OM_OPEN_ALWAYS, settings);
        m_space = OpenPSpace(m_store, "space", OM_OPEN_ALWAYS, CreateCSpace());
    }
    void CloseAll() {
        Close(m_space);
        Close(m_store);
    }
    template <class Action>
    void Under(ECSpaceLockMode mode, Action action) {
        const ThreadPSpaceScope pair(m_space, m_space->GetCSpace());
        const CSpaceLock lock(mode);
        PSpaceLockMode member;
        member.space = m_space;
        member.mode = mode;
        const AutoCloser2<PersistStoreTxn> txn(OpenTxn(m_store, &member, 1));
        action();
    }
    void Collect() {
        const ThreadPSpaceScope pair(m_space, m_space->GetCSpace());
        SynchronousGc(m_space->GetCSpace());
    }
    DepthNode* Top() { return static_cast<DepthNode*>(m_space->GetRoot("top").m_self); }

    // From the far end.
    DepthNode* Make() const {
        DepthNode* top = nullptr;
        for (int64 i = 0; i < m_numObjects; ++i) {
            auto* const node = DollarNew<DepthNode>();
            node->m_number = i;
            if (m_shape == EShape::COMB && i % 2 != 0) {
                node->m_tooth = cref<DepthNode>(top); // the comb hangs on its teeth: both references lead deep
                node->m_next = cref<DepthNode>(DollarNew<DepthNode>());
                ++i;
            } else {
                node->m_next = cref<DepthNode>(top);
            }
            top = node;
        }
        top->m_number = DepthNode::TOP;
        return top;
    }
    static int64 Count(const DepthNode* top) {
        int64 count = 0;
        for (const DepthNode* node = top; node;) {
            ++count;
            const DepthNode* const tooth = node->m_tooth ? node->m_tooth.GetNotNull() : nullptr;
            const DepthNode* const next = node->m_next ? node->m_next.GetNotNull() : nullptr;
            count += tooth && next;
            node = tooth ? tooth : next;
        }
        return count;
    }

    const std::string m_path;
    const EShape m_shape;
    const int64 m_numObjects;
    const bool m_areSubTrees;
    PersistStore* m_store = nullptr;
    PSpace* m_space = nullptr;
};

// Empty, or what was wrong.
std::string RunOnSmallStack(Work& work) {
    struct Body {
        Work& work;
        std::string fault;
    } body{work, {}};
    pthread_attr_t attributes;
    pthread_t thread;
    if (::pthread_attr_init(&attributes) != 0 || ::pthread_attr_setstacksize(&attributes, STACK_BYTES) != 0 ||
        ::pthread_create(
            &thread, &attributes,
            [](void* p) -> void* {
                Body& b = *static_cast<Body*>(p);
                try {
                    b.work.Run();
                } catch (const std::exception& e) {
                    b.fault = e.what();
                }
                return nullptr;
            },
            &body) != 0)
        std::abort();
    ::pthread_join(thread, nullptr);
    ::pthread_attr_destroy(&attributes);
    return body.fault;
}

// In a child, which a stack that overflows ends. True if it was well.
bool Run(const char* name, EShape shape, int64 numObjects, bool areSubTrees) {
    const TempDir dir;
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child < 0) std::abort();
    if (child == 0) {
        Work work(dir.File("store"), shape, numObjects, areSubTrees);
        const std::string fault = RunOnSmallStack(work);
        if (!fault.empty())
            std::printf("FAULT %s of %lld: %s\n", name, static_cast<long long>(numObjects), fault.c_str());
        std::fflush(stdout);
        ::_exit(fault.empty() ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status))
        std::printf("FAULT %s of %lld: ended by signal %d\n", name, static_cast<long long>(numObjects),
                    WTERMSIG(status));
    return status == 0;
}

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    Register_Project_qxPersistStore();
    static constexpr dsTarget TARGET = {"Quna/Tests/Depth", nullptr, 0, nullptr, 0};
    _Register_DepthNode(RegisterTarget(TARGET));
    SetTraceSink({nullptr, [](void*, const char*, ssize_t) {}});
    const int64 n = std::max<int64>(1000, static_cast<int64>(DEPTH_AT_SCALE_1 * arguments.scale));
    int tried = 0;
    int faults = 0;
    for (const bool areSubTrees : {false, true}) {
        const int64 numObjects = areSubTrees ? std::min(n / 10, MOST_SUBTREES) : n;
        ++tried;
        faults += !Run("a chain", EShape::CHAIN, numObjects, areSubTrees);
        ++tried;
        faults += !Run("a comb", EShape::COMB, numObjects | 1, areSubTrees);
    }
    std::printf("reliability depth: tried=%d deep=%lld faults=%d verdict=%s\n", tried, static_cast<long long>(n),
                faults, faults == 0 ? "ok" : "FAIL");
    return faults == 0 ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

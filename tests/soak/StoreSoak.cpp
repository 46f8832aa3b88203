// A store at its defaults under changing load for a long time: what must not happen slowly. Memory does not grow, nor does the
// number of open files, nor the file beyond its data; no thread waits long; and at the end everything is there.
//
//   soak_StoreSoak [--scale X] [--seed N]        X times ten minutes; a short run judges no growth of memory
//
// Two spaces have a tree of numbers and a forest each, of bounded size. For each space two threads change them and one reads
// under the shared lock, while the collectors evict, the writer writes and deletes, and the log is cleaned. Another thread
// opens, fills and closes a third space again and again.
#include "qxObject/WCSpace.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "qxUtils/Tracer.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimStoreObjects.h"
#include "tests/support/TempDir.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace quna {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64 NUM_KEYS = 200'000; // of each space; about half of them are in the tree
constexpr ssize_t MAX_FOREST = 2000; // trees of each space
constexpr int MAX_NODES = 60;        // of a tree of the forest
constexpr ssize_t EVICTION_BUDGET = ssize_t{8} << 20;
constexpr int64 STALL_MILLIS = 10'000;
constexpr double JUDGED_FROM_HOURS = 0.15; // growth of memory: sooner the first fill of all tables is most of it
constexpr double MOST_GROWTH = 0.01;

// What a thread met. Read when it has ended.
struct Role {
    std::string name;
    int64 operations = 0;
    int64 longestMillis = 0;
    int64 stalls = 0;

    void Note(Clock::time_point begin) {
        const int64 millis = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
        ++operations;
        longestMillis = std::max(longestMillis, millis);
        stalls += millis >= STALL_MILLIS;
    }
};

SimHome* Home(PSpace* space) { return static_cast<SimHome*>(space->GetRoot("home").m_self); }

void MakeHome(PSpace* space) {
    const ThreadPSpaceScope pair(space, GetCSpace(space));
    const PSpaceTxn txn(Exclusive);
    auto* home = new SimHome;
    RegisterGcObject(home);
    home->m_accounts = PMap<uint64, cref<SimAccount>>::Create();
    home->m_numbers = PMap<uint64, uint64>::Create();
    space->AddRoot("home", home);
}

class Changer {
public:
    Changer(PSpace* space, uint64 seed) : m_space(space), m_random(seed) {}

    void Step() {
        const PSpaceTxn txn(Exclusive);
        SimHome* home = Home(m_space);
        home->MarkAsDirtyWithoutTrace();
        ++home->m_changes;
        for (int i = 0; i < 20; ++i) {
            const uint64 key = m_random() % NUM_KEYS;
            if (m_random() % 2)
                home->m_numbers.insert_or_assign(key, m_random());
            else
                home->m_numbers.erase(key);
        }
        if (m_random() % 2) ChangeForest(*home);
    }

private:
    void ChangeForest(SimHome& home) {
        xvector<cref<SimBranch>>& forest = home.m_forest;
        if (forest.size() >= MAX_FOREST) {
            const ssize_t at = static_cast<ssize_t>(m_random() % static_cast<uint64>(forest.size()));
            AsyncPermanentlyDeleteSubTree(forest[at].GetNotNull());
            forest[at] = forest.back();
            forest.pop_back();
        }
        forest.push_back(cref<SimBranch>(Plant()));
        DeclareReachable(&home, forest.back().GetNotNull(), true);
    }

    SimBranch* Plant() {
        std::vector<SimBranch*> made;
        const int count = 1 + static_cast<int>(m_random() % MAX_NODES);
        const uint64 number = m_random();
        for (int i = 0; i < count; ++i) {
            auto* branch = new SimBranch;
            RegisterGcObject(branch);
            branch->m_number = number;
            branch->m_isSubTree = i == 0;
            branch->m_text = xstring(PatternText(number, static_cast<ssize_t>(m_random() % 400)).c_str());
            if (i > 0) {
                SimBranch* above = made[m_random() % made.size()];
                branch->m_parent = cref<SimBranch>(above);
                above->m_children.push_back(cref<SimBranch>(branch));
            }
            made.push_back(branch);
        }
        return made[0];
    }

    PSpace* m_space;
    std::mt19937_64 m_random;
};

// Nodes of a tree of the forest; -1 if one of them is not of this tree.
int64 CountTree(const SimBranch* root) {
    std::vector<const SimBranch*> found{root};
    for (size_t next = 0; next < found.size(); ++next) {
        if (found[next]->m_number != root->m_number) return -1;
        for (const cref<SimBranch>& child : found[next]->m_children) found.push_back(child.GetNotNull());
    }
    return std::ssize(found);
}

class Reader {
public:
    Reader(PSpace* space, uint64 seed) : m_space(space), m_random(seed) {}

    void Step() {
        const PSpaceTxn txn(SharedRead);
        const SimHome* home = Home(m_space);
        for (int i = 0; i < 50; ++i) m_found += home->m_numbers.find(m_random() % NUM_KEYS) != home->m_numbers.end();
        const ssize_t size = home->m_forest.size();
        if (size == 0) return;
        const ssize_t at = static_cast<ssize_t>(m_random() % static_cast<uint64>(size));
        if (CountTree(home->m_forest[at].GetNotNull()) < 1) m_wrong = true;
    }
    bool IsWrong() const { return m_wrong; }
    int64 NumFound() const { return m_found; }

private:
    PSpace* m_space;
    std::mt19937_64 m_random;
    int64 m_found = 0;
    bool m_wrong = false;
};

int64 ResidentBytes() {
    std::ifstream statm("/proc/self/statm");
    int64 size = 0;
    int64 resident = 0;
    statm >> size >> resident;
    return resident * ::sysconf(_SC_PAGESIZE);
}

int64 NumOpenFiles() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

double Mean(const std::vector<int64>& values, size_t from, size_t to) {
    double sum = 0;
    for (size_t i = from; i < to; ++i) sum += static_cast<double>(values[i]);
    return to > from ? sum / static_cast<double>(to - from) : 0;
}

class Soak {
public:
    Soak(double scale, uint64 seed) : m_hours(scale / 6), m_random(seed) {}

    int Run() {
        RegisterSimStoreObjects();
        m_store = OpenPersistStore((m_dir / "store").c_str(), OM_CREATE_NEW, PersistStoreSettings());
        for (size_t i = 0; i < m_spaces.size(); ++i) {
            m_spaces[i] = OpenPSpace(m_store, ("space" + std::to_string(i)).c_str(), OM_CREATE_NEW, nullptr);
            SetEvictionBudget(GetCSpace(m_spaces[i]), EVICTION_BUDGET);
            MakeHome(m_spaces[i]);
        }
        const int64 files = NumOpenFiles();
        Work();
        m_files = NumOpenFiles() - files;
        const double fileOverLive = RestAndMeasureFile();
        for (PSpace* space : m_spaces) Close(space);
        Close(m_store);
        const int64 lost = Compare();
        return Print(fileOverLive, lost);
    }

private:
    // Runs step() until the end, as a thread of its own.
    template <class Step>
    void Start(const std::string& name, PSpace* space, Step step) {
        m_roles.push_back({name, 0, 0, 0});
        m_threads.emplace_back([this, space, step, index = m_roles.size() - 1]() mutable {
            const ThreadPSpaceScope pair(space, space ? GetCSpace(space) : nullptr);
            Role role{m_roles[index].name, 0, 0, 0};
            while (!m_stop.load(std::memory_order_relaxed)) {
                const Clock::time_point begin = Clock::now();
                step();
                role.Note(begin);
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
            m_roles[index] = role;
        });
    }

    void Work() {
        std::array<Reader, 2> readers{Reader(m_spaces[0], m_random()), Reader(m_spaces[1], m_random())};
        m_roles.reserve(16); // threads hold places in it
        for (size_t i = 0; i < m_spaces.size(); ++i) {
            for (int k = 0; k < 2; ++k) {
                Start("change", m_spaces[i],
                      [changer = Changer(m_spaces[i], m_random())]() mutable { changer.Step(); });
            }
            Start("read", m_spaces[i], [&reader = readers[i]] { reader.Step(); });
        }
        Start("open", nullptr, [this, seed = m_random()]() mutable { FillAnotherSpace(++seed); });
        std::vector<int64> resident;
        const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                         std::chrono::duration<double, std::ratio<3600>>(m_hours));
        while (Clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            resident.push_back(ResidentBytes());
        }
        m_stop = true;
        for (std::thread& thread : m_threads) thread.join();
        m_wrong = readers[0].IsWrong() || readers[1].IsWrong();
        const size_t n = resident.size();
        m_growth = n < 8 ? 0 : Mean(resident, n * 3 / 4, n) / Mean(resident, n / 2, n * 3 / 4) - 1;
        m_resident = resident.empty() ? 0 : resident.back();
    }

    void FillAnotherSpace(uint64 seed) {
        PSpace* const space = OpenPSpace(m_store, "third", OM_OPEN_ALWAYS, nullptr);
        {
            if (!m_hasThird) MakeHome(space);
            m_hasThird = true;
            const ThreadPSpaceScope pair(space, GetCSpace(space));
            Changer changer(space, seed);
            for (int i = 0; i < 20; ++i) changer.Step();
        }
        Close(space);
    }

    // The file when cleaner and deletions have come to rest, by what it may be: live / 0.85 + 64 MiB.
    double RestAndMeasureFile() {
        LssStats stats{};
        int64 before = -1;
        for (int calm = 0; calm < 5;) {
            WriteAllDirtyObjectsToLss(m_store, true);
            std::this_thread::sleep_for(std::chrono::seconds(1));
            GetLss(m_store)->GetStats(stats);
            calm = stats.fileSize == before ? calm + 1 : 0;
            before = stats.fileSize;
        }
        m_live = stats.utilisation;
        return static_cast<double>(stats.fileSize) / (static_cast<double>(stats.utilisation) / 0.85 + 64 * 1048576.0);
    }

    // What the closed store has, against what the spaces had: every tree of the forest whole, the map valid.
    int64 Compare() {
        PersistStoreSettings settings;
        settings.startObjectDeletion = false;
        PersistStore* const store = OpenPersistStore((m_dir / "store").c_str(), OM_OPEN_EXISTING_READ_ONLY, settings);
        int64 lost = 0;
        for (size_t i = 0; i < m_spaces.size(); ++i) {
            PSpace* const space = OpenPSpace(store, ("space" + std::to_string(i)).c_str(), OM_OPEN_EXISTING, nullptr);
            {
                const ThreadPSpaceScope pair(space, GetCSpace(space));
                const PSpaceTxn txn(SharedRead);
                const SimHome* home = Home(space);
                home->m_numbers.Tree().Validate();
                for (const cref<SimBranch>& root : home->m_forest) lost += CountTree(root.GetNotNull()) < 1;
            }
            Close(space);
        }
        Close(store);
        return lost;
    }

    int Print(double fileOverLive, int64 lost) {
        int64 operations = 0;
        int64 stalls = 0;
        std::string waits;
        for (const Role& role : m_roles) {
            operations += role.operations;
            stalls += role.stalls;
            waits += (waits.empty() ? "" : ",") + role.name + ":" + std::to_string(role.longestMillis);
        }
        const bool grows = m_hours >= JUDGED_FROM_HOURS && m_growth > MOST_GROWTH;
        const bool ok = !grows && m_files <= 0 && stalls == 0 && fileOverLive <= 1 && lost == 0 && !m_wrong;
        std::printf("reliability soak: hours=%.2f operations=%lld rss=%lldMiB rss_growth=%.2f%% fds=%+lld live=%lldMiB "
                    "file_over_limit=%.2f longest_wait_ms=%s stalls=%lld lost=%lld verdict=%s\n",
                    m_hours, static_cast<long long>(operations), static_cast<long long>(m_resident >> 20),
                    m_growth * 100, static_cast<long long>(m_files), static_cast<long long>(m_live >> 20), fileOverLive,
                    waits.c_str(), static_cast<long long>(stalls), static_cast<long long>(lost), ok ? "ok" : "FAIL");
        return ok ? 0 : 1;
    }

    const double m_hours;
    std::mt19937_64 m_random;
    TempDir m_dir;
    PersistStore* m_store = nullptr;
    std::array<PSpace*, 2> m_spaces{};
    std::atomic<bool> m_stop = false;
    std::vector<Role> m_roles;
    std::vector<std::thread> m_threads;
    bool m_hasThird = false; // of the thread that opens
    bool m_wrong = false;
    double m_growth = 0;
    int64 m_resident = 0;
    int64 m_files = 0;
    int64 m_live = 0;
};

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    std::fflush(stdout);
    return Soak(arguments.scale, arguments.seed).Run();
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

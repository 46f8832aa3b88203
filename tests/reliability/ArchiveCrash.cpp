// Crash simulation of a store with an archive: random workloads on an imagined disk; power failures and process deaths at
// random system calls of them; after each the store is opened again with its archive, goes on, is closed; then it is restored,
// from the copy of the empty store, to transactions before and after the crash, and compared with the model.
//
// A failure prints "seed,k,v": the workload, the number of calls before the crash, the variant. --replay runs that one.
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Tracer.h"
#include "tests/qxLss/ArchivedStore.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimDisk.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

namespace quna {
namespace {

struct Totals {
    int64 points = 0;
    int64 restores = 0;
    std::map<std::string, int64> faults;

    int64 Sum() const {
        int64 sum = 0;
        for (const auto& [kind, count] : faults) sum += count;
        return sum;
    }
};

class ArchiveSweep {
public:
    ArchiveSweep(Totals& totals, uint64 seed) : m_totals(totals), m_seed(seed) {}

    void Run(int points, int64 onlyPoint, uint64 onlyVariant) {
        Work();
        const std::vector<SimCall> record = m_sys.Record();
        std::mt19937_64 random(m_seed);
        std::set<int64> chosen;
        while (onlyPoint < 0 && std::ssize(chosen) < std::min<int64>(points, std::ssize(record)))
            chosen.insert(static_cast<int64>(random() % record.size()));
        if (onlyPoint >= 0) chosen.insert(onlyPoint);
        SimDisk disk;
        for (int64 k = 0; k < std::ssize(record); ++k) {
            const SimCall& next = record[static_cast<size_t>(k)];
            if (chosen.contains(k)) {
                const uint64 variant = onlyPoint >= 0 ? onlyVariant : random() % 7;
                ++m_totals.points;
                CheckOne(
                    disk.Image({static_cast<CrashVariant::EChoice>(variant), m_seed + static_cast<uint64>(k)}, &next),
                    k, variant);
            }
            disk.Apply(next);
        }
    }

private:
    void Work() {
        m_store.SetDeltaBytes(m_seed % 3 == 0 ? 1 : 6000);
        m_store.Open();
        m_store.Close();
        {
            File file(m_sys);
            file.Open("d/store", EFileAccess::READ_ONLY);
            m_base.resize(static_cast<size_t>(file.Size()));
            file.Read(0, m_base.data(), std::ssize(m_base));
        }
        m_store.Open();
        for (int i = 0; i < 120; ++i) {
            m_store.Step();
            if (m_store.Pick(12) != 0) continue;
            m_store.Pick(2) ? m_store.Close() : m_store.Kill();
            m_store.Open();
        }
        m_store.Close();
    }

    void CheckOne(DiskImage image, int64 k, uint64 variant) {
        image["d/base"] = m_base;
        SimSys sys(image);
        sys.StopRecording();
        try {
            if (!image.contains("d/store")) return; // not yet created
            ArchivedStore after(sys, m_seed + static_cast<uint64>(k));
            after.SetDeltaBytes(6000);
            after.Open();
            const uint64 last = after.Lss()->LastTransaction();
            if (after.Lss().IsCreatedNew()) {
                after.Close();
                return; // no transaction had been closed
            }
            after.Adopt(m_store, last);
            if (after.Lss().All() != after.states.back()) return Report("state", k, variant, "after the crash");
            for (int i = 0; i < 12; ++i) after.Step();
            after.Close();
            ExpectRestored(sys, after, after.Last(), k, variant);
            ExpectRestored(sys, after, last, k, variant);
            ExpectRestored(sys, after, after.Pick(after.Last() + 1), k, variant);
        } catch (const std::exception& e) {
            Report("refused", k, variant, e.what());
        }
    }

    void ExpectRestored(SimSys& sys, const ArchivedStore& store, uint64 n, int64 k, uint64 variant) {
        ++m_totals.restores;
        Restore(sys, RestoreTarget::Transaction(n));
        if (ElementsOf(sys, "d/new") != store.states[n])
            Report("wrong", k, variant, "restored to transaction " + std::to_string(n));
    }

    void Report(const std::string& kind, int64 k, uint64 variant, const std::string& text) {
        if (++m_totals.faults[kind] <= 3)
            std::printf("%s: --replay %llu,%lld,%llu: %s\n", kind.c_str(), static_cast<unsigned long long>(m_seed),
                        static_cast<long long>(k), static_cast<unsigned long long>(variant), text.c_str());
    }

    Totals& m_totals;
    const uint64 m_seed;
    SimSys m_sys;
    ArchivedStore m_store{m_sys, m_seed};
    FileBytes m_base;
};

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    SetTraceSink({nullptr, [](void*, const char*, ssize_t) {}});
    Totals totals;
    if (arguments.replay) {
        ArchiveSweep(totals, arguments.replaySeed).Run(1, arguments.replayPoint, arguments.replayVariant);
    } else {
        const int workloads = std::max(1, static_cast<int>(4 * arguments.scale));
        for (int i = 0; i < workloads; ++i)
            ArchiveSweep(totals, arguments.seed + static_cast<uint64>(i)).Run(25, -1, 0);
    }
    const bool ok = totals.Sum() == 0 && totals.points > 0;
    std::printf("reliability archive-crash: points=%lld restores=%lld state=%lld wrong=%lld refused=%lld verdict=%s\n",
                static_cast<long long>(totals.points), static_cast<long long>(totals.restores),
                static_cast<long long>(totals.faults["state"]), static_cast<long long>(totals.faults["wrong"]),
                static_cast<long long>(totals.faults["refused"]), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

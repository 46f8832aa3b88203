// A store's file is cut at every length, and then extended again with zeros or with random bytes. What opens must be the
// state that the marks allow; everything else is an error.
//
// Of elements that lie where they lay, only those near the cut are read each time: the others are whole, or end in the same
// error. Every 16th length all are read; of files of 4 MiB, where as many lengths hit one element, every 256th.
#include "tests/support/DamageLab.h"
#include "tests/support/MeteredNew.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimJobs.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>

namespace quna {
namespace {

struct Totals {
    LabTotals cut;
    LabTotals extended;

    void Add(const Totals& other) {
        cut.Add(other.cut);
        extended.Add(other.extended);
    }
};

class Sweep {
public:
    Sweep(const LabStore& store, Totals& totals) : m_store(store), m_lab(store), m_totals(totals) {
        std::mt19937_64 random(store.seed);
        m_garbage.resize(store.file.size() + static_cast<size_t>(store.segmentSize + NUM_STARTS * 8));
        for (octet_t& byte : m_garbage) byte = static_cast<octet_t>(random());
    }

    // Lengths with length % of == part, from the longest on: so the file is only ever cut. Of `thoroughEvery` lengths one.
    void Run(int64 part, int64 of, int64 extendEvery, int64 thoroughEvery) {
        for (int64 size = std::ssize(m_store.file) - 1; size >= 0; --size) {
            if (size % of != part) continue;
            m_lab.CutAt(size);
            m_at = size;
            m_lab.TryReading(m_totals.cut, m_where, size / of % thoroughEvery == 0);
        }
        m_lab.Undo();
        for (int64 size = part; size < std::ssize(m_store.file); size += of * extendEvery) {
            Extend(size, 1);
            Extend(size, 2);
        }
    }

    void One(int64 size, uint64 how) {
        if (how != 0) return Extend(size, how);
        m_at = size;
        m_lab.CutAt(size);
        m_lab.TryReading(m_totals.cut, m_where);
        m_lab.TryWriting(m_totals.cut, m_where);
    }

private:
    std::string Where(int64 size, uint64 how) const {
        return "--replay " + std::to_string(m_store.seed) + "," + std::to_string(size) + "," +
               std::to_string(static_cast<uint64>(m_store.kind) * 4 + how) + " (file of " +
               std::to_string(m_store.file.size()) + " bytes)";
    }

    // To the old length, or beyond it.
    void Extend(int64 size, uint64 how) {
        const int64 whole = std::ssize(m_store.file);
        const auto damage = [&] {
            const int64 to = size % 3 == 0 ? whole + m_store.segmentSize : whole;
            m_lab.Resize(size);
            m_lab.Resize(to);
            if (how != 2) return;
            const auto from = m_garbage.begin() + size % NUM_STARTS * 8;
            m_lab.Fill(size, FileBytes(from, from + (to - size)));
        };
        const LabWhere where = [&] { return Where(size, how); };
        damage();
        m_lab.TryReading(m_totals.extended, where);
        m_lab.Undo();
        damage();
        m_lab.TryWriting(m_totals.extended, where);
    }

    static constexpr int64 NUM_STARTS = 1024;

    const LabStore& m_store;
    FileBytes m_garbage;
    DamageLab m_lab;
    Totals& m_totals;
    int64 m_at = 0; // where the file is cut
    const LabWhere m_where = [this] { return Where(m_at, 0); };
};

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    Totals totals;
    // At full scale every length of files of 4 MiB; without a checkpoint, when opening reads all of it, of 512 KiB. A long run
    // can be cut into pieces: --replay piece,pieces,kind.
    const bool full = arguments.scale >= 100;
    const auto build = [&](uint64 seed, int kind) {
        const int64 bytes = !full ? 294912 : static_cast<ELabKind>(kind) == ELabKind::NEW ? 524288 : 4194304;
        return BuildLabStore(static_cast<ELabKind>(kind), seed, bytes, full ? 16384 : 4096);
    };
    const auto run = [&](const LabStore& store, int64 part, int64 of, int64 extendEvery) {
        return RunJobs<Totals>(arguments.jobs, [&](int job, int jobs) {
            Totals found;
            Sweep(store, found).Run(part + of * job, of * jobs, extendEvery, full ? 256 : 16);
            return found;
        });
    };
    if (arguments.replay && full) {
        const LabStore store = build(arguments.seed, static_cast<int>(arguments.replayVariant));
        totals = run(store, static_cast<int64>(arguments.replaySeed), arguments.replayPoint, 64);
    } else if (arguments.replay) {
        const LabStore store = build(arguments.replaySeed, static_cast<int>(arguments.replayVariant / 4));
        Sweep(store, totals).One(arguments.replayPoint, arguments.replayVariant % 4);
    } else {
        const int64 of = arguments.scale > 1 ? 1 : 251;
        for (int kind = 0; kind < static_cast<int>(ELabKind::COUNT); ++kind) {
            const LabStore store = build(arguments.seed, kind);
            totals.Add(run(store, static_cast<int64>(arguments.seed) % of, of, of == 1 ? 64 : 16));
        }
    }
    const bool ok = totals.cut.NumFaults() + totals.extended.NumFaults() == 0 && totals.cut.tried > 0;
    std::printf("extended: %s\n", totals.extended.Figures().c_str());
    std::printf("reliability truncate: %s extended=%lld verdict=%s\n", totals.cut.Figures().c_str(),
                static_cast<long long>(totals.extended.tried), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

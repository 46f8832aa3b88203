// Blocks of a store's file are zeroed, filled with random bytes, replaced by what stood there earlier, swapped or doubled, one
// to three of them at once. Wrong content must never be given, and no transaction that a mark still calls durable may be
// missing without an error.
#include "tests/support/DamageLab.h"
#include "tests/support/MeteredNew.h"
#include "tests/support/SimArguments.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>

namespace quna {
namespace {

class Damager {
public:
    Damager(const LabStore& store, uint64 seed) : m_store(store), m_random(seed) {}

    void Damage(DamageLab& lab) {
        for (uint64 i = 1 + Pick(8) / 6; i > 0; --i) One(lab);
    }

private:
    int64 Pick(int64 limit) { return static_cast<int64>(m_random() % static_cast<uint64>(limit)); }

    // Mostly where a disk would lose something, often in the front of the file and at the end of the log.
    int64 Place(int64 n) {
        const int64 size = std::ssize(m_store.file);
        int64 at = Pick(size);
        const int64 where = Pick(8);
        if (where == 0) at = Pick(FRONT_AREA_BYTES);
        if (where == 1) at = Pick(16384);
        if (where < 5 && where > 1 && !m_store.commits.empty())
            at = m_store.commits[static_cast<size_t>(Pick(std::ssize(m_store.commits)))].packet.from;
        if (Pick(4) != 0) at = at / n * n;
        return std::clamp<int64>(at, 0, std::max<int64>(0, size - n));
    }

    FileBytes BytesAt(const FileBytes& file, int64 at, int64 n) const {
        FileBytes bytes(static_cast<size_t>(n));
        const int64 there = std::clamp<int64>(std::ssize(file) - at, 0, n);
        if (there > 0) std::copy_n(file.begin() + at, there, bytes.begin());
        return bytes;
    }

    void One(DamageLab& lab) {
        constexpr int64 SIZES[] = {64, 512, 512, 4096, 4096, 4096};
        int64 n = SIZES[Pick(6)];
        if (Pick(8) == 0) n = m_store.segmentSize;
        const int64 at = Place(n);
        switch (Pick(5)) {
        case 0: lab.Replace(at, FileBytes(static_cast<size_t>(n))); break;
        case 1: {
            FileBytes bytes(static_cast<size_t>(n));
            for (octet_t& byte : bytes) byte = static_cast<octet_t>(m_random());
            lab.Replace(at, bytes);
            break;
        }
        case 2:
            lab.Replace(at, BytesAt(m_store.earlier[static_cast<size_t>(Pick(std::ssize(m_store.earlier)))], at, n));
            break;
        case 3: {
            const int64 other = Place(n);
            lab.Replace(at, BytesAt(m_store.file, other, n));
            lab.Replace(other, BytesAt(m_store.file, at, n));
            break;
        }
        default: lab.Replace(at, BytesAt(m_store.file, Place(n), n)); break;
        }
    }

    const LabStore& m_store;
    std::mt19937_64 m_random;
};

struct Totals {
    LabTotals reading;
    LabTotals writing;
};

void TryOne(DamageLab& lab, uint64 seed, int64 k, Totals& totals) {
    const LabWhere where = [&] {
        return "--replay " + std::to_string(lab.Store().seed) + "," + std::to_string(k) + "," +
               std::to_string(static_cast<int>(lab.Store().kind));
    };
    const auto damage = [&] { Damager(lab.Store(), seed * 1000003 + static_cast<uint64>(k)).Damage(lab); };
    damage();
    lab.TryReading(totals.reading, where);
    lab.Undo();
    if (k % 4 != 0) return;
    damage();
    lab.TryWriting(totals.writing, where);
}

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    Totals totals;
    const auto build = [&](uint64 seed, int kind) {
        const bool large = arguments.scale >= 100 && seed % 2 == 0;
        return BuildLabStore(static_cast<ELabKind>(kind), seed, large ? 4194304 : 294912, large ? 16384 : 4096);
    };
    if (arguments.replay) {
        const LabStore store = build(arguments.replaySeed, static_cast<int>(arguments.replayVariant));
        DamageLab lab(store);
        TryOne(lab, arguments.replaySeed, arguments.replayPoint, totals);
    } else {
        const int64 tries = static_cast<int64>(900 * std::max(1.0, arguments.scale));
        constexpr int64 TRIES_A_STORE = 5000;
        for (int64 done = 0; done < tries; done += TRIES_A_STORE) {
            const uint64 seed = arguments.seed + static_cast<uint64>(done / TRIES_A_STORE);
            for (int kind = 0; kind < static_cast<int>(ELabKind::COUNT); ++kind) {
                const LabStore store = build(seed, kind);
                DamageLab lab(store);
                for (int64 k = 0; k < std::min(TRIES_A_STORE, tries - done); ++k) TryOne(lab, seed, k, totals);
            }
        }
    }
    const bool ok = totals.reading.NumFaults() + totals.writing.NumFaults() == 0 && totals.reading.tried > 0;
    std::printf("for writing: %s\n", totals.writing.Figures().c_str());
    std::printf("reliability damage: %s for_writing=%lld verdict=%s\n", totals.reading.Figures().c_str(),
                static_cast<long long>(totals.writing.tried), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

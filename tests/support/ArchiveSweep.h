// Crash simulation of one store with an archive.
#pragma once

#include "qxUtils/Exceptions.h"
#include "tests/qxLss/ArchivedStore.h"
#include "tests/support/SimDisk.h"

#include <algorithm>
#include <exception>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace quna {

struct ArchiveSweepTotals {
    int64 points = 0;
    int64 restores = 0;
    std::map<std::string, int64> faults;
    std::vector<std::string> examples; // of each kind a few, with what --replay needs

    int64 Sum() const {
        int64 sum = 0;
        for (const auto& [kind, count] : faults) sum += count;
        return sum;
    }
};

// A random workload on an imagined disk; power failures and process deaths at random system calls of it; after each the store
// is opened again with its archive, goes on, is closed; then it is restored, from the copy of the empty store, to
// transactions before and after the crash, and compared with the model.
class ArchiveSweep {
public:
    ArchiveSweep(ArchiveSweepTotals& totals, uint64 seed) : m_totals(totals), m_seed(seed) {}

    void Run(int points, int64 onlyPoint, uint64 onlyVariant) {
        try {
            Work();
        } catch (const std::exception& e) {
            return Report("refused", -1, 0, std::string("without a crash: ") + e.what());
        }
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
            m_totals.examples.push_back(kind + ": --replay " + std::to_string(m_seed) + "," + std::to_string(k) + "," +
                                        std::to_string(variant) + ": " + text);
    }

    ArchiveSweepTotals& m_totals;
    const uint64 m_seed;
    SimSys m_sys;
    ArchivedStore m_store{m_sys, m_seed};
    FileBytes m_base;
};

} // namespace quna

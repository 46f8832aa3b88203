// Copies of a store that lives on: at random moments a backup or a compacting copy is made, while transactions, checkpoints,
// batches of the cleaner and the cutting of the file's end go on between its steps. Each copy must be the state after the
// transaction that it names. Some are cancelled, for some a call fails, and the crash states of one in each life are opened.
#include "qxLss/src/LssStore.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimDisk.h"
#include "tests/support/SimSys.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace quna {
namespace {

constexpr ConstStringZ STORE = "d/store";
constexpr ConstStringZ COPY = "d/copy";
constexpr int COPIES_A_LIFE = 8;

using Model = std::map<uint64, std::string>;

struct Totals {
    int64 copies = 0;
    int64 compacted = 0;
    int64 cancelled = 0;
    int64 failedCalls = 0;
    int64 states = 0; // after crashes
    int64 whole = 0;  // of them: with a copy
    int64 wrong = 0;
    int64 partLeft = 0;
    int64 idsRepeated = 0;
    int64 storeHarmed = 0;

    int64 Faults() const { return wrong + partLeft + idsRepeated + storeHarmed; }
};

LssSettings Settings() {
    LssSettings settings;
    settings.segmentSize = 4096;
    settings.flushTimeMilliSec = -1;
    return settings;
}

LssStore* Open(SimSys& sys, ConstStringZ path, EOpenMode mode) {
    bool createdNew = false;
    auto* store = static_cast<LssStore*>(OpenLssForTest(sys, path, nullptr, createdNew, mode, Settings()));
    if (mode != OM_OPEN_EXISTING_READ_ONLY) store->StopThreadsForTest();
    return store;
}

std::string ReadElement(LssStore& store, Seid seid) {
    AutoCloser<IContiguousSerialElement> element(store.OpenSerialElement(seid));
    const ReadOnlyBuffer b = element->GetBuffer();
    return {reinterpret_cast<const char*>(b.buffer), static_cast<size_t>(b.size)};
}

Model ReadAll(LssStore& store) {
    Model all;
    store.VisitElements([&](Seid seid, Location) { all[seid.value_] = ReadElement(store, seid); });
    return all;
}

// One store from its creation on.
class Life {
public:
    Life(uint64 seed, Totals& totals) : m_seed(seed), m_random(seed), m_totals(totals) {
        m_store = Open(m_sys, STORE, OM_CREATE_NEW);
        m_high = m_store->AllocateSeidHigh();
    }

    void Run() {
        for (int i = 0; i < COPIES_A_LIFE; ++i) {
            GoOn(static_cast<int>(m_random() % 120));
            if (m_random() % 3 == 0) Reopen();
            CopyOnce(i == COPIES_A_LIFE / 2);
        }
        if (ReadAll(*m_store) != m_model) Fault("the store has other elements", m_totals.storeHarmed);
        m_store->Validate();
        m_store->Close();
    }

private:
    void Fault(const char* what, int64& counter) {
        ++counter;
        std::printf("FAULT seed %llu: %s\n", static_cast<unsigned long long>(m_seed), what);
    }
    void Reopen() {
        m_random() % 2 ? m_store->Close() : m_store->Abandon();
        m_store = Open(m_sys, STORE, OM_OPEN_EXISTING);
    }

    void GoOn(int steps) {
        for (int i = 0; i < steps; ++i) {
            switch (m_random() % 12) {
            case 0: m_store->CheckpointForTest(); break;
            case 1: m_store->CleanForTest(1 + static_cast<ssize_t>(m_random() % 8)); break;
            case 2: m_store->ShrinkForTest(); break;
            default: Change();
            }
        }
    }
    void Change() {
        AutoCloser<ILssTransaction> txn(m_store->OpenTransaction());
        for (uint64 n = 1 + m_random() % 6; n > 0; --n) {
            Seid seid;
            if (m_given.empty() || m_random() % 4 == 0) {
                seid = m_store->AllocateSeid(m_high);
                m_given.insert(seid.value_);
                m_known.push_back(seid);
            } else {
                seid = m_known[m_random() % m_known.size()];
            }
            if (m_random() % 6 == 0) {
                txn->DeleteSerialElement(seid);
                m_model.erase(seid.value_);
                continue;
            }
            const size_t size = m_random() % 30 == 0 ? 3000 + m_random() % 12000 : m_random() % 500;
            std::string content(size, '\0');
            for (char& c : content) c = static_cast<char>(m_random());
            AutoCloser<ICloseableOutputStream> stream(txn->WriteSerialElement(seid));
            stream->WriteStream(content.data(), static_cast<ssize_t>(size));
            stream.Close();
            m_model[seid.value_] = std::move(content);
        }
        txn.Close();
    }

    // Cancelled at a report, or hit by a failing call behind the first one, or neither.
    void CopyOnce(bool withCrashes) {
        const bool compacting = m_random() % 3 == 0;
        const uint64 fate = withCrashes ? 9 : m_random() % 6;
        const uint64 cancelAt = m_random() % 30;
        const bool livesOn = fate != 1 && !withCrashes; // a failing call is to be the copy's
        const Model model = m_model;
        const std::set<uint64> given = m_given;
        const uint64 last = m_store->LogForTest().LastTransaction();
        const ssize_t recorded = m_sys.NumRecorded();
        const int64 failures = m_sys.NumFailures();
        uint64 reports = 0;
        BackupOptions options;
        options.progress = [&](const BackupProgress&) {
            if (reports == 0 && fate == 1) FailSomeCall();
            if (livesOn) GoOn(static_cast<int>(m_random() % 5));
            return fate != 0 || reports++ < cancelAt;
        };
        BackupResult result;
        bool threw = false;
        try {
            result = compacting ? m_store->CopyCompacted(COPY, options) : m_store->Backup(COPY, options);
        } catch (const FileException&) {
            threw = true;
        }
        m_sys.Heal();
        const bool failed = m_sys.NumFailures() != failures;
        m_totals.failedCalls += failed;
        if (threw != failed) Fault("a failed call was not reported, or nothing failed", m_totals.wrong);
        if (m_store->CoreForTest().HasFailed()) Fault("the store has stopped writing", m_totals.storeHarmed);
        const DiskImage image = m_sys.CachedImage();
        if (image.contains(std::string(COPY) + ".part")) Fault("the part was left behind", m_totals.partLeft);
        if (!result.completed) {
            m_totals.cancelled += !threw;
            if (!threw && image.contains(COPY)) Fault("a cancelled copy is there", m_totals.partLeft);
        } else {
            ++(compacting ? m_totals.compacted : m_totals.copies);
            if (result.transaction != last) Fault("the copy is of another transaction", m_totals.wrong);
            CheckCopy(image.at(COPY), model, given);
            if (withCrashes) CheckCrashes(static_cast<size_t>(recorded), model);
        }
        RemoveFile(m_sys, COPY);
        SyncDirectoryOf(m_sys, COPY); // else a crash of the next one might bring it back
    }
    void FailSomeCall() {
        constexpr std::array<std::pair<ESimCall, int>, 7> CALLS{{{ESimCall::WRITE, ENOSPC},
                                                                 {ESimCall::WRITE, EIO},
                                                                 {ESimCall::TRUNCATE, ENOSPC},
                                                                 {ESimCall::SYNC, EIO},
                                                                 {ESimCall::WRITE_DURABLE, EIO},
                                                                 {ESimCall::RENAME, EACCES},
                                                                 {ESimCall::READ, EIO}}};
        const auto& [kind, error] = CALLS[m_random() % CALLS.size()];
        m_sys.FailCall(kind, 1 + static_cast<int64>(m_random() % 3), error, false);
    }

    // Opened as a reader, then as an owner who goes on.
    void CheckCopy(const FileBytes& bytes, const Model& model, const std::set<uint64>& given) {
        try {
            SimSys sys(DiskImage{{STORE, bytes}});
            LssStore* reader = Open(sys, STORE, OM_OPEN_EXISTING_READ_ONLY);
            const bool same = ReadAll(*reader) == model;
            reader->Close();
            LssStore* copy = Open(sys, STORE, OM_OPEN_EXISTING);
            if (!same || ReadAll(*copy) != model) Fault("the copy has other elements", m_totals.wrong);
            copy->Validate();
            for (int i = 0; i < 20; ++i) {
                if (given.contains(copy->AllocateSeid(m_high).value_))
                    Fault("an identifier twice", m_totals.idsRepeated);
            }
            copy->CheckpointForTest();
            copy->CleanForTest(8);
            copy->CheckpointForTest();
            copy->Validate();
            if (ReadAll(*copy) != model) Fault("the copy does not stay as it is", m_totals.wrong);
            copy->Abandon();
            copy = Open(sys, STORE, OM_OPEN_EXISTING);
            if (ReadAll(*copy) != model) Fault("the copy does not survive a crash", m_totals.wrong);
            copy->Close();
        } catch (const std::exception& e) {
            Fault(e.what(), m_totals.wrong);
        }
    }

    // Whatever a crash leaves of the calls that made the copy: no copy or a whole one; and the store itself.
    void CheckCrashes(size_t begin, const Model& model) {
        const std::vector<SimCall> record = m_sys.Record();
        SimDisk disk(m_sys.InitialImage());
        for (size_t k = 0; k < record.size(); ++k) {
            if (k >= begin) {
                constexpr std::array CHOICES{CrashVariant::EChoice::ALL, CrashVariant::EChoice::NONE,
                                             CrashVariant::EChoice::RANDOM_SUBSET, CrashVariant::EChoice::TORN,
                                             CrashVariant::EChoice::SECTORS};
                const CrashVariant variant{CHOICES[m_random() % CHOICES.size()], m_random()};
                CheckCrash(disk.Image(variant, &record[k]), model);
            }
            disk.Apply(record[k]);
        }
    }
    void CheckCrash(const DiskImage& image, const Model& model) {
        ++m_totals.states;
        try {
            SimSys sys(image);
            // Transactions are not synced, so that a power failure may cost the last ones, but not its soundness.
            LssStore* store = Open(sys, STORE, OM_OPEN_EXISTING);
            store->Validate();
            store->Abandon();
            if (!image.contains(COPY)) return;
            ++m_totals.whole;
            store = Open(sys, COPY, OM_OPEN_EXISTING);
            if (ReadAll(*store) != model) Fault("a copy found after a crash has other elements", m_totals.wrong);
            store->Validate();
            store->Abandon();
        } catch (const std::exception& e) {
            Fault(e.what(), m_totals.wrong);
        }
    }

    const uint64 m_seed;
    std::mt19937_64 m_random;
    Totals& m_totals;
    SimSys m_sys;
    LssStore* m_store = nullptr;
    SeidHigh m_high = 0;
    Model m_model;
    std::set<uint64> m_given;
    std::vector<Seid> m_known;
};

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    Totals t;
    const int lives = std::max(1, static_cast<int>(12 * arguments.scale));
    for (int i = 0; i < lives; ++i) Life(arguments.seed + static_cast<uint64>(i), t).Run();
    const bool ok =
        t.Faults() == 0 && t.copies > 0 && t.compacted > 0 && t.cancelled > 0 && t.failedCalls > 0 && t.whole > 0;
    const auto n = [](int64 x) { return static_cast<long long>(x); };
    std::printf("reliability copy-live: copies=%lld compacted=%lld cancelled=%lld failed_calls=%lld crash_states=%lld "
                "crash_whole=%lld wrong=%lld part_left=%lld ids_repeated=%lld store_harmed=%lld verdict=%s\n",
                n(t.copies), n(t.compacted), n(t.cancelled), n(t.failedCalls), n(t.states), n(t.whole), n(t.wrong),
                n(t.partLeft), n(t.idsRepeated), n(t.storeHarmed), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

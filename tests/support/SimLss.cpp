#include "tests/support/SimLss.h"

#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "d/store";

uint64 HashOf(const void* p, ssize_t n) {
    return std::hash<std::string_view>()(std::string_view(static_cast<const char*>(p), static_cast<size_t>(n))) +
           static_cast<uint64>(n);
}

LssStore* OpenStore(SimSys& sys, EOpenMode mode, int segmentSize, bool clean, bool& createdNew,
                    EBackground background = EBackground::NONE) {
    return static_cast<LssStore*>(
        OpenLssForTest(sys, PATH, nullptr, createdNew, mode, LssDriver::Settings(segmentSize, clean), background));
}

// Abandons the store at the end of the scope.
struct StoreScope {
    explicit StoreScope(LssStore* s) : store(s) {}
    StoreScope(const StoreScope&) = delete;
    StoreScope& operator=(const StoreScope&) = delete;
    ~StoreScope() {
        if (store) store->Abandon();
    }
    void Close() { std::exchange(store, nullptr)->Close(); }

    LssStore* store;
};

bool IsNoStore(const FileException& e) {
    return std::strstr(e.what(), "does not exist") || std::strstr(e.what(), "cut short");
}

} // namespace

uint64 DigestOf(const LssState& state) {
    uint64 digest = state.size();
    for (const auto& [seid, hash] : state) digest += (seid * 0x9E3779B97F4A7C15u) ^ (hash * 0xC2B2AE3D27D4EB4Fu);
    return digest;
}

LssState ReadLssState(LssStore& store) {
    std::vector<Seid> seids;
    store.VisitElements([&](Seid seid, Location) { seids.push_back(seid); });
    LssState state;
    for (Seid seid : seids) {
        AutoCloser<IContiguousSerialElement> element(store.OpenSerialElement(seid));
        if (!element.Get()) throw FileException("an element that the index names can't be opened");
        const ReadOnlyBuffer buffer = element->GetBuffer();
        state[seid.value_] = HashOf(buffer.buffer, buffer.size);
    }
    store.Validate();
    return state;
}

// --- driver

LssSettings LssDriver::Settings(int segmentSize, bool clean) {
    LssSettings settings;
    settings.segmentSize = segmentSize;
    settings.flushTimeMilliSec = -1; // what syncs is what the workload asks for
    settings.numSegmentsPerCheckPoint = 1 << 20;
    settings.validateSUTDuringCheckPoint = true;
    settings.maxNumSegmentsInCache = 8;
    settings.cleanerUtilisationPercent = clean ? 85 : 0;
    return settings;
}

LssDriver::LssDriver(SimSys& sys, const LssWorkload& workload)
    : m_sys(sys), m_workload(workload), m_random(workload.seed) {
    m_history.states.emplace_back();
}

LssDriver::~LssDriver() {
    if (m_store) m_store->Abandon();
}

void LssDriver::Open() {
    bool createdNew = false;
    m_store = OpenStore(m_sys, OM_OPEN_ALWAYS, m_workload.segmentSize, m_workload.clean, createdNew,
                        m_workload.threads ? EBackground::THREADS : EBackground::NONE);
    if (!createdNew) return;
    // A store in which no transaction has been closed counts as never created, so it begins anew.
    if (!m_history.transactions.empty())
        throw std::logic_error("a store with closed transactions was taken for missing");
    m_highs = 0;
    m_known.clear();
    m_history.identifiers.clear();
}

void LssDriver::Run() {
    try {
        Open();
        for (int i = 0; i < m_workload.steps; ++i) Step();
    } catch (const FileException& e) {
        m_history.failure = e.what();
    } catch (const std::exception& e) {
        m_history.fault = e.what();
    }
    if (!m_store) return;
    if (!m_history.fault.empty()) {
        std::exchange(m_store, nullptr)->Abandon();
        return;
    }
    if (!m_history.failure.empty()) ProbeAfterFailure();
    CloseStore();
}

void LssDriver::CloseStore() {
    const int64 failures = m_sys.NumFailures();
    std::exchange(m_store, nullptr)->Close();
    m_failuresInClose += m_sys.NumFailures() - failures;
    if (m_history.failure.empty() && m_sys.NumFailures() == 0) NoteDurable();
}

// A store that has failed refuses every later transaction. One that only lacked room may go on.
void LssDriver::ProbeAfterFailure() {
    for (int i = 0; i < 3; ++i) {
        try {
            RunTransaction();
            ++m_closedAfterFailure;
        } catch (const FileException&) {
            continue;
        }
    }
}

void LssDriver::Step() {
    const uint64 what = Pick(20);
    if (what == 0 || (what == 4 && m_workload.clean)) {
        const ssize_t before = std::ssize(m_history.transactions);
        Maintain(true, [this] { m_store->CheckpointForTest(); });
        NoteDurable(before); // those closed between its steps may have come after its sync
    } else if ((what == 5 || what == 6) && m_workload.clean) {
        Maintain(false, [this] { m_store->CleanForTest(1 + static_cast<ssize_t>(Pick(5))); });
        if (Pick(3) == 0) m_store->ShrinkForTest();
    } else if (what == 1) {
        m_store->Flush();
        NoteDurable();
    } else if (what == 2 && m_workload.reopen) {
        if (Pick(2))
            CloseStore();
        else
            std::exchange(m_store, nullptr)->Abandon(); // as good as killed
        Open();
        NoteDurable();
    } else if (what == 3 || m_highs == 0) {
        const SeidHigh high = m_store->AllocateSeidHigh();
        m_highs = std::max(m_highs, high);
        m_history.identifiers.push_back({m_sys.NumRecorded(), uint64{high} << 32 | 0xFFFFFFFF});
    } else {
        RunTransaction();
    }
}

// Cleaning or a checkpoint, with transactions between the steps, as other threads would have them.
template <class Action>
void LssDriver::Maintain(bool isCheckpoint, Action action) {
    const ssize_t begin = m_sys.NumRecorded();
    // The first transaction that closes takes the lock that is held there; and a running thread would meet the hook too.
    if (!m_history.transactions.empty() && !m_workload.threads)
        m_store->SetStepHookForTest([this, isCheckpoint] { BetweenSteps(isCheckpoint); });
    action();
    if (!m_workload.threads) m_store->SetStepHookForTest(nullptr);
    m_history.maintenance.emplace_back(begin, m_sys.NumRecorded());
    if (m_failedBetween) std::rethrow_exception(std::exchange(m_failedBetween, nullptr));
}

void LssDriver::BetweenSteps(bool isCheckpoint) {
    if (m_failedBetween || m_isBetween) return;
    m_isBetween = true;
    try {
        const uint64 what = Pick(8);
        if (what < 2 && m_highs != 0) {
            RunTransaction();
        } else if (what == 2) {
            m_store->Flush();
            NoteDurable();
        } else if (isCheckpoint && m_workload.cleanInsideCheckpoint && what == 3) {
            m_store->CleanForTest(4);
        }
    } catch (...) {
        m_failedBetween = std::current_exception();
    }
    m_isBetween = false;
}

Seid LssDriver::NewSeid() {
    Seid seid = m_known.empty() ? Seid(0, 1) : Seid(m_known[Pick(m_known.size())]);
    if (Pick(3) == 0 && m_store->AllocateAffiliateSeid(seid)) {
        // near a relative
    } else {
        seid = m_store->AllocateSeid(1 + static_cast<SeidHigh>(Pick(m_highs)));
    }
    m_history.identifiers.push_back({m_sys.NumRecorded(), seid.value_});
    m_known.push_back(seid.value_);
    return seid;
}

Seid LssDriver::SomeSeid(const LssState& state) {
    if (state.empty() || Pick(3) == 0) return NewSeid();
    if (Pick(4) == 0) return Seid(m_known[Pick(m_known.size())]); // perhaps deleted
    auto at = state.lower_bound(m_known[Pick(m_known.size())]);
    return Seid(at == state.end() ? state.begin()->first : at->first);
}

void LssDriver::Write(ILssTransaction& transaction, LssState& state, Seid seid) {
    const int64 segment = m_workload.segmentSize;
    int64 size = static_cast<int64>(Pick(200));
    const uint64 kind = Pick(16);
    if (kind == 0) size = static_cast<int64>(Pick(static_cast<uint64>(segment)));
    if (kind == 1 && m_workload.longOnes) size = static_cast<int64>(Pick(static_cast<uint64>(3 * segment)));
    if (kind == 2) size = segment / 4 - 20 + static_cast<int64>(Pick(40));
    FileBytes bytes(static_cast<size_t>(size));
    const uint64 pattern = m_random();
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<octet_t>(pattern >> (i % 8 * 8) ^ (i / 8));
    AutoCloser<ICloseableOutputStream> stream(transaction.WriteSerialElement(seid));
    for (int64 at = 0; at < size;) {
        const int64 n = std::min<int64>(size - at, 1 + static_cast<int64>(Pick(2000)));
        stream->WriteStream(bytes.data() + at, n);
        at += n;
    }
    stream.Close();
    state[seid.value_] = HashOf(bytes.data(), size);
}

void LssDriver::ChangeAtRandom(ILssTransaction& transaction, LssState& state, bool& changed) {
    for (uint64 i = Pick(6); i > 0; --i) {
        const Seid seid = SomeSeid(state);
        if (Pick(4) == 0) {
            const bool existed = transaction.DeleteSerialElement(seid);
            if (existed != (state.erase(seid.value_) == 1))
                throw std::logic_error("DeleteSerialElement has the wrong result");
            changed = changed || existed;
        } else {
            Write(transaction, state, seid);
            changed = true;
        }
    }
}

void LssDriver::NoteCloseBegins(LssState state) {
    m_history.states.push_back(std::move(state));
    m_history.transactions.push_back({m_sys.NumRecorded(), -1, -1});
}

void LssDriver::RunTransaction() {
    const bool flush = Pick(4) == 0;
    AutoCloser<ILssTransaction> transaction(m_store->OpenTransaction());
    if (flush) transaction->RequestFlushToDisk();
    LssState state = m_history.states.back();
    bool changed = false;
    try {
        ChangeAtRandom(*transaction.Get(), state, changed);
    } catch (...) {
        NoteCloseBegins(state); // what was finished may be committed by the unwinding
        throw;
    }
    if (changed) NoteCloseBegins(state);
    transaction.Close();
    if (changed) m_history.transactions.back().closed = m_sys.NumRecorded();
    if (flush) NoteDurable();
}

void LssDriver::NoteDurable() { NoteDurable(std::ssize(m_history.transactions)); }

void LssDriver::NoteDurable(ssize_t upTo) { m_history.NoteDurable(upTo, m_sys.NumRecorded()); }

// --- check

std::string CheckLssImage(SimSys& sys, const LssCheck& check, ssize_t& found) {
    found = -1;
    const LssHistory& history = *check.history;
    try {
        bool createdNew = false;
        StoreScope scope(nullptr);
        try {
            scope.store = OpenStore(sys, OM_OPEN_EXISTING, 4096, false, createdNew);
        } catch (const FileException& e) {
            if (check.floor == 0 && IsNoStore(e)) return {};
            return std::string("refused: ") + e.what();
        }
        const LssState state = ReadLssState(*scope.store);
        const uint64 digest = DigestOf(state);
        for (ssize_t i = check.ceiling; i >= check.floor && found < 0; --i)
            if (DigestOf(history.states[static_cast<size_t>(i)]) == digest) found = i;
        if (found < 0) {
            for (ssize_t i = 0; i < std::ssize(history.states); ++i)
                if (DigestOf(history.states[static_cast<size_t>(i)]) == digest)
                    return "lost: the state is S" + std::to_string(i) + ", the floor S" + std::to_string(check.floor) +
                           ", the ceiling S" + std::to_string(check.ceiling);
            return "not_prefix: the state is none of S" + std::to_string(check.floor) + "..S" +
                   std::to_string(check.ceiling);
        }
        LssStats stats;
        scope.store->GetStats(stats);
        if (stats.numLiveHeadPackets != std::ssize(state))
            return "count: " + std::to_string(stats.numLiveHeadPackets) + " elements instead of " +
                   std::to_string(state.size());
        if (!check.thorough) return {};

        // Nothing that the state names, or that a dead process had got, is handed out again.
        std::set<uint64> highs;
        for (const auto& [seid, hash] : state) highs.insert(seid >> 32);
        LssState further = state;
        Seid fresh;
        for (uint64 high : highs) {
            for (int i = 0; i < 3; ++i) {
                fresh = Seid(static_cast<SeidLow>(i), static_cast<SeidHigh>(high));
                if (i == 0)
                    fresh = scope.store->AllocateSeid(static_cast<SeidHigh>(high));
                else if (!scope.store->AllocateAffiliateSeid(fresh))
                    return "ids: none left";
                if (state.contains(fresh.value_) || (check.spent && check.spent->contains(fresh.value_)))
                    return "ids_repeated: " + std::to_string(fresh.value_);
            }
        }
        if (fresh) {
            AutoCloser<ILssTransaction> transaction(scope.store->OpenTransaction());
            AutoCloser<ICloseableOutputStream> stream(transaction->WriteSerialElement(fresh));
            stream->WriteStream("further", 7);
            stream.Close();
            transaction.Close();
            further[fresh.value_] = HashOf("further", 7);
        }
        for (int i = 0; i < 2; ++i) { // once after a kill, once after a close
            if (i == 0)
                std::exchange(scope.store, nullptr)->Abandon();
            else
                scope.Close();
            scope.store = OpenStore(sys, OM_OPEN_EXISTING, 4096, false, createdNew);
            if (ReadLssState(*scope.store) != further) return "reopen: the state has changed";
        }
        return {};
    } catch (const std::exception& e) {
        return std::string("refused: ") + e.what();
    }
}

} // namespace quna

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

LssStore* OpenStore(SimSys& sys, EOpenMode mode, const LssSettings& settings, bool threads, int stampShift,
                    bool& createdNew) {
    return static_cast<LssStore*>(OpenLssForTest(sys, PATH, nullptr, createdNew, mode, settings,
                                                 threads ? EBackground::THREADS : EBackground::NONE, stampShift));
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
    void Kill() { std::exchange(store, nullptr)->Abandon(); }

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

void LssHistory::AddState(LssState state) {
    digests.push_back(DigestOf(state));
    states.push_back(std::move(state));
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

LssDriver::LssDriver(SimSys& sys, const LssWorkload& workload, LssBeginning beginning)
    : m_sys(sys), m_workload(workload), m_random(workload.seed), m_beginning(std::move(beginning)) {
    for (const auto& [seid, hash] : m_beginning.state) {
        m_known.push_back(seid);
        m_highs = std::max(m_highs, Seid(seid).high_);
    }
    m_history.AddState(m_beginning.state);
}

LssDriver::~LssDriver() {
    if (m_store) m_store->Abandon();
}

void LssDriver::Open() {
    bool createdNew = false;
    m_store = OpenStore(m_sys, OM_OPEN_ALWAYS, Settings(m_workload.segmentSize, m_workload.clean), m_workload.threads,
                        m_workload.stampShift, createdNew);
    if (!m_history.opened) m_history.opened = m_sys.NumRecorded();
    m_isCreated = !createdNew;
    if (!createdNew) return;
    // A store in which no transaction has been closed counts as never created, so it begins anew.
    if (!m_history.transactions.empty() || !m_beginning.mayBeMissing)
        throw std::logic_error("a store with closed transactions was taken for missing");
    m_highs = 0;
    m_known.clear();
    m_given.clear();
    m_history.identifiers.clear();
    m_beginning.spent = nullptr;
}

void LssDriver::Run() {
    try {
        Open();
        if (m_workload.script.empty()) {
            for (int i = 0; i < m_workload.steps; ++i) Step();
        } else {
            NewHigh();
            for (ELssOperation operation : m_workload.script) {
                m_history.operations.push_back(m_sys.NumRecorded());
                Do(operation);
            }
        }
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
    if (m_workload.killAtEnd)
        std::exchange(m_store, nullptr)->Abandon();
    else
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
        } catch (const std::exception& e) {
            m_history.fault = e.what();
            return;
        }
    }
}

void LssDriver::Step() {
    const uint64 what = Pick(20);
    if (m_workload.manyHighs && what % 4 != 0) {
        NewHigh();
    } else if (what < static_cast<uint64>(m_workload.maintenance)) {
        if (m_workload.clean && m_workload.checkpoints && what == 4)
            Background();
        else if (m_workload.clean && (what % 2 != 0 || !m_workload.checkpoints))
            Clean();
        else if (m_workload.checkpoints)
            Checkpoint();
    } else if (what == 17) {
        m_store->Flush();
        NoteDurable();
    } else if (what == 18 && m_workload.reopen) {
        Reopen(Pick(2) == 0);
    } else if ((what == 19 && Pick(2)) || m_highs == 0) {
        NewHigh();
    } else {
        RunTransaction();
    }
}

void LssDriver::Checkpoint() {
    const ssize_t before = std::ssize(m_history.transactions);
    Maintain(true, [this] { m_store->CheckpointForTest(); });
    NoteDurable(before); // those closed between its steps may have come after its sync
}

void LssDriver::Clean() {
    Maintain(false, [this] { m_store->CleanForTest(1 + static_cast<ssize_t>(Pick(5))); });
    if (Pick(3) != 0) return;
    if (m_workload.pullsEndIn)
        Maintain(true, [this] { m_store->PullInEndForTest(); });
    else
        m_store->ShrinkForTest();
}

// What the thread "Lss clean" does when it is woken.
void LssDriver::Background() {
    Maintain(true, [this] { m_store->BackgroundForTest(); });
}

void LssDriver::Reopen(bool kill) {
    if (kill)
        std::exchange(m_store, nullptr)->Abandon();
    else
        CloseStore();
    Open();
    NoteDurable();
}

void LssDriver::Do(ELssOperation operation) {
    switch (operation) {
    case ELssOperation::WRITE_SMALL:
    case ELssOperation::WRITE_LONG:
        RunTransaction(false, [&](ILssTransaction& transaction, LssState& state) {
            Write(transaction, state, NewSeid(),
                  operation == ELssOperation::WRITE_SMALL ? 100 : m_workload.segmentSize * 5 / 2);
            return true;
        });
        break;
    case ELssOperation::REMOVE:
        RunTransaction(false, [&](ILssTransaction& transaction, LssState& state) {
            if (state.empty()) return false;
            const Seid first(state.begin()->first);
            state.erase(state.begin());
            if (!transaction.DeleteSerialElement(first))
                throw std::logic_error("DeleteSerialElement has the wrong result");
            return true;
        });
        break;
    case ELssOperation::FLUSH:
        m_store->Flush();
        NoteDurable();
        break;
    case ELssOperation::CHECKPOINT: Checkpoint(); break;
    case ELssOperation::CLEAN: Clean(); break;
    case ELssOperation::REOPEN: Reopen(false); break;
    case ELssOperation::COUNT: break;
    }
}

// Cleaning or a checkpoint, with transactions between the steps, as other threads would have them.
template <class Action>
void LssDriver::Maintain(bool isCheckpoint, Action action) {
    const ssize_t begin = m_sys.NumRecorded();
    // The first transaction that closes takes the lock that is held there; and a running thread would meet the hook too.
    const bool served = m_isCreated && !m_workload.threads && m_workload.script.empty();
    if (served) m_store->SetStepHookForTest([this, isCheckpoint] { BetweenSteps(isCheckpoint); });
    action();
    if (served) m_store->SetStepHookForTest(nullptr);
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
        } else if (what > 4 && m_workload.manyHighs) {
            NewHigh();
            if (isCheckpoint) SpendUnwritten();
        } else if (isCheckpoint && m_workload.cleanInsideCheckpoint && what == 3) {
            m_store->CleanForTest(4);
        }
    } catch (...) {
        m_failedBetween = std::current_exception();
    }
    m_isBetween = false;
}

// --- identifiers

SeidHigh LssDriver::NewHigh() {
    const SeidHigh high = m_store->AllocateSeidHigh();
    Given(Seid(0xFFFFFFFF, high));
    if (high <= m_highs) throw std::logic_error("ids_repeated: high half " + std::to_string(high));
    m_highs = high;
    return high;
}

// So many identifiers that the horizon moves. None of them is written, so that only the ring knows. The last one counts for
// all.
void LssDriver::SpendUnwritten() {
    constexpr int BEYOND_THE_FIRST_HORIZON = 4200;
    const SeidHigh high = static_cast<SeidHigh>(1 + Pick(m_highs));
    Seid last;
    for (int i = 0; i < BEYOND_THE_FIRST_HORIZON; ++i) last = m_store->AllocateSeid(high);
    Given(last);
}

Seid LssDriver::Given(Seid seid) {
    m_history.identifiers.push_back({m_sys.NumRecorded(), seid.value_});
    const bool isSpent = m_beginning.spent && m_beginning.spent->contains(seid.value_);
    if (!m_given.insert(seid.value_).second || isSpent || m_history.states.back().contains(seid.value_))
        throw std::logic_error("ids_repeated: " + std::to_string(seid.value_));
    return seid;
}

Seid LssDriver::NewSeid() {
    Seid seid = m_known.empty() ? Seid(0, 1) : Seid(m_known[Pick(m_known.size())]);
    if (Pick(3) == 0 && m_store->AllocateAffiliateSeid(seid)) {
        // near a relative
    } else {
        const SeidHigh high = m_workload.manyHighs ? m_highs : 1 + static_cast<SeidHigh>(Pick(m_highs));
        seid = m_store->AllocateSeid(high);
    }
    Given(seid);
    m_known.push_back(seid.value_);
    return seid;
}

Seid LssDriver::SomeSeid(const LssState& state) {
    const bool many = std::ssize(state) >= m_workload.liveElements;
    if (state.empty() || Pick(many ? 12 : 3) == 0) return NewSeid();
    if (Pick(4) == 0) return Seid(m_known[Pick(m_known.size())]); // perhaps deleted
    auto at = state.lower_bound(m_known[Pick(m_known.size())]);
    return Seid(at == state.end() ? state.begin()->first : at->first);
}

// --- transactions

int64 LssDriver::PickSize() {
    if (m_workload.uniform) return 104;
    const uint64 segment = static_cast<uint64>(m_workload.segmentSize);
    const uint64 kind = Pick(16);
    if (kind == 0) return static_cast<int64>(Pick(segment));
    if (kind == 1 && m_workload.longOnes) return static_cast<int64>(Pick(3 * segment));
    if (kind == 2) return static_cast<int64>(segment / 4 - 20 + Pick(40));
    return static_cast<int64>(Pick(200));
}

void LssDriver::Write(ILssTransaction& transaction, LssState& state, Seid seid, int64 size) {
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

// Ends in the middle of an element, by an exception: the element stays as it was.
void LssDriver::WriteInPart(ILssTransaction& transaction, Seid seid) {
    const FileBytes bytes(Pick(2 * static_cast<uint64>(m_workload.segmentSize)), octet_t{7});
    AutoCloser<ICloseableOutputStream> stream(transaction.WriteSerialElement(seid));
    stream->WriteStream(bytes.data(), std::ssize(bytes));
    throw Unwound();
}

void LssDriver::ChangeAtRandom(ILssTransaction& transaction, LssState& state, bool& changed) {
    const uint64 oneDeleteIn = std::ssize(state) > m_workload.liveElements ? 2 : 4;
    for (uint64 i = m_workload.uniform ? 2 : Pick(6); i > 0; --i) {
        const Seid seid = SomeSeid(state);
        if (!m_workload.uniform && Pick(oneDeleteIn) == 0) {
            const bool existed = transaction.DeleteSerialElement(seid);
            if (existed != (state.erase(seid.value_) == 1))
                throw std::logic_error("DeleteSerialElement has the wrong result");
            changed = changed || existed;
        } else if (!m_workload.uniform && m_isCreated && Pick(24) == 0) {
            WriteInPart(transaction, seid);
        } else {
            Write(transaction, state, seid, PickSize());
            changed = true;
        }
    }
}

void LssDriver::NoteCloseBegins(LssState state) {
    m_history.AddState(std::move(state));
    m_history.transactions.push_back({m_sys.NumRecorded(), -1, -1});
}

void LssDriver::RunTransaction() {
    RunTransaction(Pick(4) == 0, [this](ILssTransaction& transaction, LssState& state) {
        bool changed = false;
        ChangeAtRandom(transaction, state, changed);
        return changed;
    });
}

// `change` says whether there was any.
template <class Change>
void LssDriver::RunTransaction(bool flush, Change change) {
    LssState state = m_history.states.back();
    const int64 failures = m_sys.NumFailures();
    bool changed = true;
    bool noted = false;
    bool unwound = false;
    try {
        AutoCloser<ILssTransaction> transaction(m_store->OpenTransaction());
        if (flush) transaction->RequestFlushToDisk();
        try {
            changed = change(*transaction.Get(), state);
        } catch (...) {
            // What was finished is committed by the unwinding.
            changed = DigestOf(state) != m_history.digests.back();
            noted = changed;
            if (changed) NoteCloseBegins(state);
            throw;
        }
        noted = changed;
        if (changed) NoteCloseBegins(state);
        transaction.Close();
    } catch (const Unwound&) {
        unwound = true; // a failure is told by the next transaction
    }
    if (unwound && m_sys.NumFailures() != failures) return;
    m_isCreated = m_isCreated || noted;
    if (noted) m_history.transactions.back().closed = m_sys.NumRecorded();
    if (flush) NoteDurable();
}

void LssDriver::NoteDurable() { NoteDurable(std::ssize(m_history.transactions)); }

void LssDriver::NoteDurable(ssize_t upTo) { m_history.NoteDurable(upTo, m_sys.NumRecorded()); }

// --- check

namespace {

// What it takes to say that one state is right; throws or returns a text if it is not.
class ImageChecker {
public:
    ImageChecker(SimSys& sys, const LssCheck& check) : m_sys(sys), m_check(check), m_scope(nullptr) {}

    std::string Check(ssize_t& found) {
        try {
            Open();
        } catch (const FileException& e) {
            if (m_check.floor == 0 && m_check.mayBeMissing && IsNoStore(e)) return {};
            return std::string("refused: ") + e.what();
        }
        m_state = ReadLssState(*m_scope.store);
        std::string fault = FindState(found);
        if (fault.empty()) fault = CheckStats();
        if (fault.empty() && m_check.thorough) fault = CheckIdentifiers();
        if (fault.empty() && m_check.thorough) fault = CheckFurther();
        return fault;
    }

private:
    void Open() {
        bool createdNew = false;
        m_scope.store =
            OpenStore(m_sys, OM_OPEN_EXISTING, LssDriver::Settings(4096, false), false, m_check.stampShift, createdNew);
    }

    // A transaction that the first open took for unfinished may be whole for the next one: the file has grown meanwhile, and
    // what it lacked were zeros.
    std::string FindState(ssize_t& found) const {
        const std::vector<uint64>& digests = m_check.history->digests;
        const uint64 digest = DigestOf(m_state);
        for (ssize_t i = m_check.ceiling; i >= m_check.floor && found < 0; --i)
            if (digests[static_cast<size_t>(i)] == digest) found = i;
        if (found >= 0) return {};
        if (m_check.earlier && m_check.earlier->contains(digest)) {
            found = FOUND_EARLIER;
            return {};
        }
        for (ssize_t i = 0; i < std::ssize(digests); ++i)
            if (digests[static_cast<size_t>(i)] == digest)
                return "lost: the state is S" + std::to_string(i) + ", the floor S" + std::to_string(m_check.floor) +
                       ", the ceiling S" + std::to_string(m_check.ceiling);
        return "not_prefix: the state is none of S" + std::to_string(m_check.floor) + "..S" +
               std::to_string(m_check.ceiling);
    }

    std::string CheckStats() const {
        LssStats stats;
        m_scope.store->GetStats(stats);
        if (stats.numLiveHeadPackets == std::ssize(m_state)) return {};
        return "count: " + std::to_string(stats.numLiveHeadPackets) + " elements instead of " +
               std::to_string(m_state.size());
    }

    // Nothing that the state names, or that a dead process had got, is handed out again.
    std::string CheckIdentifiers() {
        std::set<uint64> highs;
        for (const auto& [seid, hash] : m_state) highs.insert(seid >> 32);
        for (uint64 high : highs) {
            for (int i = 0; i < 3; ++i) {
                m_fresh = Seid(static_cast<SeidLow>(i), static_cast<SeidHigh>(high));
                if (i == 0)
                    m_fresh = m_scope.store->AllocateSeid(static_cast<SeidHigh>(high));
                else if (!m_scope.store->AllocateAffiliateSeid(m_fresh))
                    return "ids: none left";
                if (m_state.contains(m_fresh.value_) || IsSpent(m_fresh))
                    return "ids_repeated: " + std::to_string(m_fresh.value_);
            }
        }
        const SeidHigh next = m_scope.store->AllocateSeidHigh();
        if ((!highs.empty() && next <= *highs.rbegin()) || IsSpent(Seid(0xFFFFFFFF, next)))
            return "ids_repeated: high half " + std::to_string(next);
        return {};
    }

    bool IsSpent(Seid seid) const { return m_check.spent && m_check.spent->contains(seid.value_); }

    // A further transaction survives a kill and a close.
    std::string CheckFurther() {
        if (m_fresh) {
            AutoCloser<ILssTransaction> transaction(m_scope.store->OpenTransaction());
            AutoCloser<ICloseableOutputStream> stream(transaction->WriteSerialElement(m_fresh));
            stream->WriteStream("further", 7);
            stream.Close();
            transaction.Close();
            m_state[m_fresh.value_] = HashOf("further", 7);
        }
        for (int i = 0; i < 2; ++i) {
            if (i == 0)
                m_scope.Kill();
            else
                m_scope.Close();
            Open();
            if (ReadLssState(*m_scope.store) != m_state) return "reopen: the state has changed";
        }
        return {};
    }

    SimSys& m_sys;
    const LssCheck& m_check;
    StoreScope m_scope;
    LssState m_state;
    Seid m_fresh;
};

} // namespace

std::string CheckLssImage(SimSys& sys, const LssCheck& check, ssize_t& found) {
    found = -1;
    try {
        return ImageChecker(sys, check).Check(found);
    } catch (const std::exception& e) {
        return std::string("refused: ") + e.what();
    }
}

} // namespace quna

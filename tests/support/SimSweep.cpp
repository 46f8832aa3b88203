#include "tests/support/SimSweep.h"

#include "tests/support/SimCrashImage.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

namespace quna {
namespace {

using EChoice = CrashVariant::EChoice;
using EKind = SimCall::EKind;

constexpr EChoice FIXED[] = {EChoice::ALL, EChoice::NONE, EChoice::ALL_BUT_LAST, EChoice::ONLY_LAST};
constexpr uint64 NUM_FIXED = std::size(FIXED);

// What the variants behind the fixed ones take in turn.
constexpr EChoice TURN[] = {EChoice::SUBSET,  EChoice::TEAR,      EChoice::SECTORS, EChoice::TEAR,
                            EChoice::GARBLED, EChoice::SUBSET,    EChoice::TORN,    EChoice::TEAR,
                            EChoice::SUBSET,  EChoice::NEW_SPACE, EChoice::TEAR,    EChoice::SECTORS,
                            EChoice::SUBSET,  EChoice::TEAR,      EChoice::SIZE,    EChoice::TORN};
constexpr uint64 TURNS = std::size(TURN);

constexpr const char* NAMES[] = {"none",    "all",    "all but the last", "only the last", "random subset", "torn",
                                 "sectors", "subset", "one torn",         "new space",     "size",          "garbled"};

// The variant is a function of the workload's seed, the point and its number there. Enough numbers give every subset of
// few calls and every tear, from a start that differs from point to point.
CrashVariant VariantOf(const SimDisk& disk, const SimCall* next, uint64 seed, int64 k, uint64 v) {
    if (v < NUM_FIXED) return {FIXED[v], 0, 0};
    const uint64 start = MixBits(seed * 1000003 + static_cast<uint64>(k));
    const uint64 turn = (start + v - NUM_FIXED) % TURNS;
    const EChoice choice = TURN[turn];
    const uint64 before = static_cast<uint64>(std::count(TURN, TURN + turn, choice));
    const uint64 all = static_cast<uint64>(std::count(TURN, TURN + TURNS, choice));
    const uint64 rank = (start % TURNS + v - NUM_FIXED) / TURNS * all + before;
    CrashVariant variant{choice, MixBits(start + v), 0};
    if (choice == EChoice::SUBSET && disk.NumSubsets(next) != 0)
        variant = {choice, 0, (start + rank) % disk.NumSubsets(next)};
    if (choice == EChoice::TEAR) variant.index = (start + rank) % disk.NumTears(next);
    return variant;
}

uint64 HashOf(const SimImage& image) {
    uint64 hash = image.size();
    for (const auto& [name, content] : image) hash = MixBits(MixBits(hash ^ name.size()) ^ content.Hash());
    return hash;
}

SweepTotals::EFault FaultOf(const std::string& text) {
    const std::string kind = text.substr(0, text.find(':'));
    if (kind == "lost") return SweepTotals::LOST;
    if (kind == "not_prefix") return SweepTotals::NOT_PREFIX;
    if (kind == "refused") return SweepTotals::REFUSED;
    if (kind == "ids_repeated") return SweepTotals::IDS_REPEATED;
    return SweepTotals::OTHER;
}

} // namespace

int64 SweepTotals::Sum() const { return std::accumulate(faults.begin(), faults.end(), int64{0}); }

void SweepTotals::Add(const SweepTotals& other) {
    workloads += other.workloads;
    transactions += other.transactions;
    points += other.points;
    inMaintenance += other.inMaintenance;
    scripted += other.scripted;
    states += other.states;
    nested += other.nested;
    for (size_t i = 0; i < faults.size(); ++i) faults[i] += other.faults[i];
}

// One crash: where, and what it left.
struct SimSweep::Crash {
    Place place;
    bool processDeath;
    SimImage image;
    const std::set<uint64>* spent; // null: power loss
    bool mayBeMissing;
    const std::set<uint64>* earlier; // see LssCheck; null: not in an open
};

void SimSweep::Run() {
    SimSys sys({}, ESimMemory::ARENA);
    if (m_plan.disturb) m_plan.disturb(sys);
    LssDriver driver(sys, m_workload);
    driver.Run();
    const LssHistory& history = driver.History();
    ++m_totals.workloads;
    m_totals.transactions += std::ssize(history.transactions);
    if (!history.fault.empty() || (!history.failure.empty() && sys.NumFailures() == 0))
        return Report({-1, 0, 0, {}}, history.fault.empty()
                                          ? "refused: the undisturbed workload failed: " + history.failure
                                          : history.fault);
    if (!history.failure.empty() && driver.NumClosedAfterFailure() > 0)
        return Report({-1, 0, 0, {}}, "acked_after: a transaction was closed after: " + history.failure);
    sys.Heal();
    const std::vector<SimCall> record = sys.TakeRecord();
    SimDisk disk(sys.InitialImage());
    std::set<uint64> spent;
    size_t given = 0;
    for (int64 k = 0; k <= std::ssize(record) && !IsOver(); ++k) {
        if (k > 0) disk.Apply(record[static_cast<size_t>(k - 1)]);
        for (; given < history.identifiers.size() && history.identifiers[given].given <= k; ++given)
            spent.insert(history.identifiers[given].seid);
        if ((m_plan.onlyPoint >= 0 && k != m_plan.onlyPoint) || k % m_plan.stride != 0 || k < m_plan.fromPoint)
            continue;
        ++m_totals.points;
        m_totals.scripted += !m_workload.script.empty();
        if (m_workload.script.empty()) m_totals.inMaintenance += history.IsInMaintenance(k);
        CheckPoint(disk, k < std::ssize(record) ? &record[static_cast<size_t>(k)] : nullptr, history, spent, k);
    }
}

void SimSweep::CheckPoint(const SimDisk& disk, const SimCall* next, const LssHistory& history,
                          const std::set<uint64>& spent, int64 k) {
    m_seen.clear();
    const bool isSettled =
        disk.NumPending() == 0 && (!next || next->kind == EKind::SYNC || next->kind == EKind::SYNC_DIR);
    for (uint64 v = 0; v < (isSettled ? 1 : m_plan.variants) && !IsOver(); ++v) {
        if (m_plan.onlyVariant >= 0 && v != static_cast<uint64>(m_plan.onlyVariant)) continue;
        // The call under way counts from v = NUM_FIXED on.
        const SimCall* const inFlight = v >= NUM_FIXED ? next : nullptr;
        const CrashVariant variant = VariantOf(disk, inFlight, m_workload.seed, k, v);
        Crash crash{{k, v, 0, std::string(" ") + NAMES[static_cast<size_t>(variant.choice)]},
                    v == 0,
                    disk.Blocks(variant, inFlight),
                    v == 0 && !m_plan.disturb ? &spent : nullptr,
                    true,
                    nullptr};
        if (!m_seen.insert(HashOf(crash.image)).second) continue;
        const uint64 chance = MixBits(m_workload.seed * 31 + static_cast<uint64>(k) * 1009 + v);
        const bool lives = m_plan.depth > 0 && chance % m_plan.oneLifeIn == 0 && !m_plan.disturb;
        ssize_t found = -1;
        SimSys sys(ESimMemory::ARENA, crash.image);
        const std::string fault = CheckImage(crash, history, sys, chance / 64 % 4 == 0, found);
        if (!fault.empty()) {
            Report(crash.place, fault);
        } else if (lives) {
            LssBeginning beginning{{}, found < 0, crash.spent};
            if (found >= 0) beginning.state = history.states[static_cast<size_t>(found)];
            beginning.mayHaveLeft = MayHaveLeft(crash, history);
            GoOnLiving(crash.image, beginning, crash.place, chance / 256);
        }
    }
}

LssCheck SimSweep::CheckOf(const Crash& crash, const LssHistory& history) const {
    LssCheck check;
    check.history = &history;
    // A failed sync loses closed transactions even if only the process dies.
    check.floor = history.Floor(crash.place.k, crash.processDeath && !m_plan.disturb);
    check.ceiling = std::max(check.floor, history.Ceiling(crash.place.k));
    check.mayBeMissing = crash.mayBeMissing;
    check.spent = crash.spent;
    check.stampShift = m_workload.stampShift;
    check.earlier = crash.earlier;
    return check;
}

std::set<uint64> SimSweep::MayHaveLeft(const Crash& crash, const LssHistory& history) const {
    const LssCheck check = CheckOf(crash, history);
    std::set<uint64> digests = crash.earlier ? *crash.earlier : std::set<uint64>();
    for (ssize_t i = check.floor; i <= check.ceiling; ++i) digests.insert(history.digests[static_cast<size_t>(i)]);
    return digests;
}

std::string SimSweep::CheckImage(const Crash& crash, const LssHistory& history, SimSys& sys, bool thorough,
                                 ssize_t& found) {
    LssCheck check = CheckOf(crash, history);
    check.thorough = thorough;
    ++m_totals.states;
    m_totals.nested += crash.place.depth > 0;
    return CheckLssImage(sys, check, found);
}

// The store that a crash left is opened again and worked on, and crashes again.
void SimSweep::GoOnLiving(const SimImage& image, const LssBeginning& beginning, Place place, uint64 seed) {
    SimSys sys(ESimMemory::ARENA, image);
    LssWorkload workload = m_workload;
    workload.script.clear();
    workload.seed = MixBits(seed);
    workload.steps = 1 + static_cast<int>(workload.seed % static_cast<uint64>(m_plan.lifeSteps));
    workload.killAtEnd = seed % 2;
    workload.threads = false;
    LssDriver driver(sys, workload, beginning);
    driver.Run();
    ++place.depth;
    const LssHistory& history = driver.History();
    if (!history.fault.empty()) return Report(place, history.fault);
    if (!history.failure.empty()) return Report(place, "refused: " + history.failure);
    CrashLife(sys, history, beginning, place, workload.seed);
}

void SimSweep::CrashLife(SimSys& sys, const LssHistory& history, const LssBeginning& beginning, Place place,
                         uint64 seed) {
    const std::vector<SimCall> record = sys.TakeRecord();
    const int64 end = std::ssize(record);
    std::vector<int64> points;
    std::mt19937_64 random(seed);
    for (int i = 0; i < m_plan.lifePoints; ++i) {
        const int64 most = i % 2 ? end : history.opened;
        points.push_back(static_cast<int64>(random() % static_cast<uint64>(most + 1)));
    }
    std::sort(points.begin(), points.end());
    SimDisk disk(sys.InitialImage());
    std::set<uint64> spent;
    size_t given = 0;
    int64 applied = 0;
    const size_t lucky = random() % points.size(); // goes on
    for (size_t i = 0; i < points.size() && !IsOver(); ++i) {
        const int64 k = points[i];
        for (; applied < k; ++applied) disk.Apply(record[static_cast<size_t>(applied)]);
        for (; given < history.identifiers.size() && history.identifiers[given].given <= k; ++given)
            spent.insert(history.identifiers[given].seid);
        const uint64 v = random() % (NUM_FIXED + TURNS);
        const SimCall* const next = v >= NUM_FIXED && k < end ? &record[static_cast<size_t>(k)] : nullptr;
        const CrashVariant variant = VariantOf(disk, next, seed, k, v);
        Place here = place;
        here.k = k;
        here.v = v;
        here.trail += " > " + std::to_string(k) + " of " + std::to_string(end) + " (" + std::to_string(history.opened) +
                      "), " + std::to_string(v) + " = " + NAMES[static_cast<size_t>(variant.choice)];
        Crash crash{here,
                    v == 0,
                    disk.Blocks(variant, next),
                    v == 0 ? &spent : nullptr,
                    beginning.mayBeMissing,
                    k < history.opened ? &beginning.mayHaveLeft : nullptr};
        ssize_t found = -1;
        SimSys after(ESimMemory::ARENA, crash.image);
        const std::string fault = CheckImage(crash, history, after, random() % 4 == 0, found);
        here.k = place.k; // what replays it is where the first life ended
        here.v = place.v;
        if (!fault.empty()) return Report(here, fault);
        if (i != lucky || place.depth >= m_plan.depth || found == FOUND_EARLIER) continue;
        LssBeginning further{{}, found < 0, crash.spent};
        if (found >= 0) further.state = history.states[static_cast<size_t>(found)];
        further.mayHaveLeft = MayHaveLeft(crash, history);
        GoOnLiving(crash.image, further, here, random());
    }
}

void SimSweep::Report(Place place, const std::string& text) {
    ++m_totals.faults[FaultOf(text)];
    const std::string line = "--replay " + std::to_string(m_workload.seed) + "," + std::to_string(place.k) + "," +
                             std::to_string(place.v) + " depth " + std::to_string(place.depth) + place.trail + ": " +
                             text;
    if (m_firstFault.empty()) m_firstFault = line;
    if (m_plan.stopAtFirstFault || m_totals.Sum() > 20) return;
    std::printf("FAULT %s\n", line.c_str());
    std::fflush(stdout);
}

LssWorkload SimSweep::WorkloadOf(uint64 seed) {
    LssWorkload workload;
    workload.seed = seed;
    // About half of the steps are transactions, with others between the steps of the maintenance: 50 to 500 in all.
    constexpr int STEPS[] = {100, 120, 100, 160, 100, 120, 300, 900};
    workload.steps = STEPS[seed % 8];
    workload.segmentSize = seed % 4 == 3 ? 16384 : 4096;
    workload.uniform = seed % 11 == 10;
    workload.manyHighs = seed % 13 == 12;
    workload.stampShift = seed % 2 ? 9 : 20;
    workload.pullsEndIn = seed % 3 == 0;
    workload.maintenance = seed % 3 == 2 ? 9 : 7;
    return workload;
}

} // namespace quna

// Is the crash simulation able to see what it looks for? A list of mistakes, each compiled into the store on purpose and
// switched on in turn; the simulation must find every one, and nothing when none is on.
//
// Each mistake names the kind of workload that finds it soonest, and a seed near one that does; other seeds follow. Each runs
// in a process of its own, for a store with a mistake in it may as well end the process or hang: that is found, too.
// --replay n,0,0 runs the n-th alone; --replay n,m,0 tells which of m seeds finds it soonest.
#include "qxLss/src/Mutants.h"

#include "qxUtils/Tracer.h"
#include "tests/support/ArchiveSweep.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimCrashImage.h"
#include "tests/support/SimSweep.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

namespace quna {
namespace {

enum class EShape {
    ANY,
    FEW,         // few small elements, overwritten and moved again and again, several batches to a segment
    UNIFORM,     // transactions of one length, many crashes in one life after another
    HIGHS,       // identifiers more than anything
    LONG_BATCH,  // a batch inside a checkpoint
    FAILED_SYNC, // a sync fails once
    SHORT_WRITES,
    DAMAGE,  // one byte of the file changes afterwards
    ARCHIVE, // the store has an archive, from which it is restored
    COUNT
};

struct Mutant {
    EMutant mutant;
    EShape shape;
    uint64 seed;
    const char* text;
};

// Not in the list, since no crash can show it: that COMMIT's counts are not compared. The walk ends at the first packet
// that does not verify, and after a recovery nothing is ever appended behind one, so nothing can be missing before a COMMIT.
constexpr Mutant MUTANTS[] = {
    {EMutant::FREE_BEFORE_SYNC, EShape::ANY, 1, "victims are free before their RELOC is on the disk"},
    {EMutant::RELOC_LEFT_OUT, EShape::ANY, 1, "moves are not logged"},
    {EMutant::LAST_TOO_EARLY, EShape::ANY, 1, "a RELOC calls victims free that another names again"},
    {EMutant::RANGE_FROM_THE_BEGINNING, EShape::FEW, 6, "a RELOC names the whole segment"},
    {EMutant::REST_OF_RANGE_LEFT_OUT, EShape::ANY, 5, "a RELOC is applied as far as its ranges verify"},
    {EMutant::LONG_MOVES_WITHOUT_PAIRS, EShape::ANY, 8, "the parts of long elements that move are not told"},
    {EMutant::PUBLISH_WITHOUT_LOOKING, EShape::FEW, 1, "an element overwritten meanwhile gets its old content back"},
    {EMutant::VICTIMS_OF_THE_WINDOW, EShape::ANY, 1, "segments that recovery walks through are cleaned"},
    {EMutant::BATCH_INSIDE_CHECKPOINT, EShape::LONG_BATCH, 1, "the cleaner works inside a checkpoint"},
    {EMutant::OPEN_TAKEN_FOR_SEALED, EShape::FEW, 1, "a survivor segment that is being filled is freed or cleaned"},
    {EMutant::TRIMMED_TOO_FAR, EShape::ANY, 1, "the file's last segment is cut off"},
    {EMutant::NEIGHBOUR_PUNCHED, EShape::ANY, 1, "the slot before the free one is punched"},
    {EMutant::CHECKPOINT_WITHOUT_SYNC, EShape::ANY, 1, "a checkpoint does not sync"},
    {EMutant::HEADER_BEFORE_SYNC, EShape::ANY, 1, "a checkpoint's header is written before what it names is synced"},
    {EMutant::HEADER_NOT_DURABLE, EShape::ANY, 1, "a checkpoint's header is not synced"},
    {EMutant::HEADER_OVER_THE_VALID_ONE, EShape::ANY, 1, "a checkpoint's header overwrites the only valid one"},
    {EMutant::OLDER_HEADER_TAKEN, EShape::ANY, 1, "the older of two valid headers is taken"},
    {EMutant::INDEX_FREED_EARLY, EShape::ANY, 1, "a checkpoint frees index segments that the header before it names"},
    {EMutant::EMPTIED_FREED_EARLY, EShape::ANY, 1, "a checkpoint frees log segments that the header before it names"},
    {EMutant::CHECKPOINT_CHECKSUM_IGNORED, EShape::ANY, 1, "the checksum of a checkpoint's header is not compared"},
    {EMutant::SEGMENT_CHECKSUM_IGNORED, EShape::ANY, 32, "the checksum of a segment's header is not compared"},
    {EMutant::PACKET_CHECKSUM_IGNORED, EShape::ANY, 1, "the walk along the log does not compare checksums"},
    {EMutant::ELEMENT_CHECKSUM_IGNORED, EShape::DAMAGE, 1, "readers do not compare checksums"},
    {EMutant::COMMIT_WITHOUT_SYNC, EShape::ANY, 1, "a flush that was asked for is left out"},
    {EMutant::GROUP_IN_TWO_FRAMES, EShape::ANY, 1, "a transaction is committed in two parts"},
    {EMutant::BAD_FRAME_SKIPPED, EShape::ANY, 33, "a packet that does not verify is stepped over"},
    {EMutant::ABORT_IGNORED, EShape::ANY, 6, "ABORT is ignored"},
    {EMutant::DROP_IGNORED, EShape::ANY, 1, "DROP is ignored"},
    {EMutant::LOST_HEADER_CALLED_DAMAGE, EShape::ANY, 1, "a LINK to a segment whose header was lost is called damage"},
    {EMutant::DAMAGE_TAKEN_FOR_THE_END, EShape::DAMAGE, 3, "a durable log that breaks is cut without a word"},
    {EMutant::NO_SEQUENCE_JUMP, EShape::UNIFORM, 17, "sequences do not jump after a recovery"},
    {EMutant::NO_FRESH_SEGMENT, EShape::UNIFORM, 7, "no fresh segment after a recovery without work"},
    {EMutant::CLEAN_MARK_NOT_VOIDED, EShape::ANY, 1, "an open leaves the clean mark in force"},
    {EMutant::CREATING_FLAG_KEPT, EShape::ANY, 1, "a store with transactions counts as never created"},
    {EMutant::HORIZON_NOT_DURABLE, EShape::ANY, 35, "identifiers leave before their horizon is on the disk"},
    {EMutant::RING_NOT_ASKED, EShape::ANY, 1, "horizons come from the checkpoint alone"},
    {EMutant::RING_SET_EMPTIED, EShape::HIGHS, 9, "the ring's set is emptied at the header"},
    {EMutant::ARCHIVE_NOT_AWAITED, EShape::ARCHIVE, 1, "segments that are not archived are cleaned and freed"},
    {EMutant::DELTA_NOT_SYNCED, EShape::ARCHIVE, 1, "a delta gets its name before its bytes are on the disk"},
    {EMutant::SYNC_ERROR_IGNORED, EShape::FAILED_SYNC, 1, "a failed sync is ignored"},
    {EMutant::SYNC_ERROR_RETRIED, EShape::FAILED_SYNC, 1, "a failed sync is tried again"},
    {EMutant::SHORT_WRITE_IGNORED, EShape::SHORT_WRITES, 1, "a short write is taken for a whole one"},
    {EMutant::DIRECTORY_NOT_SYNCED, EShape::ANY, 1, "the directory is not synced after a creation"},
};
constexpr int NUM_MUTANTS = static_cast<int>(std::size(MUTANTS));
constexpr unsigned LONGEST_SECONDS = 60; // of one mutant: then it is said to hang
constexpr int64 CLEAN_STATES = 250;      // of each shape, without a mistake, at scale 1
constexpr int MOST_SEEDS = 100;          // of one mutant
constexpr int64 MOST_STATES = 100000;    // of one mutant, at scale 1

// What the process of one mutant tells.
struct Result {
    bool caught = false;
    int seeds = 0; // tried
    uint64 lastSeed = 0;
    int64 states = 0;
    char how[200] = {};

    void Catch(const std::string& text) {
        caught = true;
        std::strncpy(how, text.c_str(), sizeof how - 1);
    }
};

LssWorkload WorkloadOf(EShape shape, uint64 seed) {
    LssWorkload workload;
    workload.seed = seed;
    workload.steps = 60;
    workload.segmentSize = seed % 4 == 3 ? 16384 : 4096;
    workload.killAtEnd = seed % 2;
    switch (shape) {
    case EShape::FEW:
        workload.steps = 120;
        workload.segmentSize = 16384;
        workload.longOnes = false;
        workload.liveElements = 8;
        workload.maintenance = 9;
        break;
    case EShape::UNIFORM:
        workload.steps = 12;
        workload.uniform = true;
        workload.liveElements = 6;
        workload.maintenance = 3;
        break;
    case EShape::HIGHS:
        workload.steps = 200;
        workload.manyHighs = true;
        workload.maintenance = 1;
        workload.reopen = false;
        break;
    case EShape::LONG_BATCH: workload.cleanInsideCheckpoint = true; break;
    case EShape::DAMAGE:
        workload.segmentSize = 16384;
        workload.longOnes = false;
        workload.killAtEnd = true;
        break;
    default: break;
    }
    return workload;
}

// One byte changes: the store must say so, or be as it was, as far as its own marks of what was durable allow.
void SweepDamage(const LssWorkload& workload, SweepTotals& totals, Result& result) {
    SimSys sys({}, ESimMemory::ARENA);
    LssDriver driver(sys, workload);
    driver.Run();
    const LssHistory& history = driver.History();
    const std::vector<SimCall> record = sys.TakeRecord();
    SimDisk disk(sys.InitialImage());
    std::mt19937_64 random(workload.seed);
    for (ssize_t k = 0; k < std::ssize(record) && !result.caught; ++k) {
        disk.Apply(record[static_cast<size_t>(k)]);
        if (k % 7 != 0 || k < history.opened) continue;
        DiskImage image = disk.Image({CrashVariant::EChoice::ALL, 0, 0});
        FileBytes& bytes = image.begin()->second;
        size_t at = 0;
        do at = random() % bytes.size();
        while (bytes[at] == 0);
        bytes[at] ^= static_cast<octet_t>(1 + random() % 255);
        // The last COMMIT says what was durable before it; those that say less count as well.
        const ssize_t last = history.Floor(k + 1, true);
        LssCheck check;
        check.history = &history;
        check.floor =
            last == 0 ? 0 : history.Floor(history.transactions[static_cast<size_t>(last - 1)].closeBegan, false);
        check.ceiling = history.Ceiling(k + 1);
        check.thorough = false;
        check.stampShift = workload.stampShift;
        SimSys damaged(std::move(image), ESimMemory::ARENA);
        ssize_t found = -1;
        ++totals.states;
        const std::string fault = CheckLssImage(damaged, check, found);
        if (fault.empty() || fault.starts_with("refused")) continue;
        result.Catch("seed " + std::to_string(workload.seed) + ", call " + std::to_string(k) + ", byte " +
                     std::to_string(at) + ": " + fault);
    }
}

// Each point is one crash and three restores.
void SweepArchive(uint64 seed, SweepTotals& totals, Result& result) {
    ArchiveSweepTotals archive;
    ArchiveSweep(archive, seed).Run(20, -1, 0);
    totals.states += archive.points + archive.restores;
    if (archive.Sum() > 0) result.Catch(archive.examples.front());
}

void SweepOnce(EShape shape, uint64 seed, int64 mostStates, SweepTotals& totals, Result& result) {
    const LssWorkload workload = WorkloadOf(shape, seed);
    if (shape == EShape::DAMAGE) return SweepDamage(workload, totals, result);
    if (shape == EShape::ARCHIVE) return SweepArchive(seed, totals, result);
    SweepPlan plan;
    plan.stopAtFirstFault = true;
    plan.mostStates = mostStates;
    plan.variants = 14;
    plan.stride = 3;
    if (shape == EShape::FAILED_SYNC)
        plan.disturb = [seed](SimSys& sys) {
            sys.FailCall(ESimCall::SYNC, 1 + static_cast<int64>(seed % 12), EIO, false);
        };
    if (shape == EShape::SHORT_WRITES) plan.disturb = [seed](SimSys& sys) { sys.Disturb(seed, 8); };
    if (shape == EShape::HIGHS) {
        plan.stride = 10;
        plan.variants = 4;
        plan.depth = 0;
    }
    if (shape == EShape::UNIFORM) {
        plan.stride = 1;
        plan.oneLifeIn = 1;
        plan.lifePoints = 6;
    }
    SimSweep sweep(totals, workload, plan);
    sweep.Run();
    if (!sweep.FirstFault().empty()) result.Catch(sweep.FirstFault());
}

Result Sweep(EMutant mutant, EShape shape, uint64 seed, int seeds, int64 mostStates) {
    g_mutant = mutant;
    Result result;
    SweepTotals totals;
    for (; result.seeds < seeds && totals.states < mostStates && !result.caught; ++result.seeds) {
        result.lastSeed = seed + static_cast<uint64>(result.seeds);
        SweepOnce(shape, result.lastSeed, mostStates, totals, result);
    }
    result.states = totals.states;
    return result;
}

// In a process of its own.
Result SweepApart(EMutant mutant, EShape shape, uint64 seed, int seeds, int64 mostStates) {
    int ends[2];
    if (::pipe(ends) != 0) std::abort();
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(LONGEST_SECONDS);
        const Result result = Sweep(mutant, shape, seed, seeds, mostStates);
        const bool sent = ::write(ends[1], &result, sizeof result) == static_cast<ssize_t>(sizeof result);
        ::_exit(sent ? 0 : 1);
    }
    ::close(ends[1]);
    Result result;
    const bool told = ::read(ends[0], &result, sizeof result) == static_cast<ssize_t>(sizeof result);
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!told) {
        result = Result();
        result.Catch(WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM ? "the store hangs" : "the process has ended");
    }
    return result;
}

// Which of `seeds` seeds finds it soonest.
void PrintBest(const Mutant& mutant, int seeds) {
    Result best;
    best.states = 4000;
    for (int i = 1; i <= seeds; ++i) {
        const Result result = SweepApart(mutant.mutant, mutant.shape, static_cast<uint64>(i), 1, best.states);
        if (!result.caught || result.states >= best.states) continue;
        best = result;
        std::printf("%-70s seed %llu, %lld states: %s\n", mutant.text, static_cast<unsigned long long>(best.lastSeed),
                    static_cast<long long>(best.states), best.how);
        std::fflush(stdout);
    }
}

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    SetTraceSink({nullptr, [](void*, const char*, ssize_t) {}}); // a mistaken store has much to say
    const auto mostStates = [&](int64 states) {
        return std::max<int64>(1, static_cast<int64>(static_cast<double>(states) * arguments.scale));
    };
    int caught = 0;
    int64 states = 0;
    for (const Mutant& mutant : MUTANTS) {
        if (arguments.replay && &mutant - MUTANTS != static_cast<std::ptrdiff_t>(arguments.replaySeed)) continue;
        if (arguments.replay && arguments.replayPoint > 0) {
            PrintBest(mutant, static_cast<int>(arguments.replayPoint));
            continue;
        }
        const uint64 first = mutant.seed + arguments.seed - 1;
        const Result result = SweepApart(mutant.mutant, mutant.shape, first, MOST_SEEDS, mostStates(MOST_STATES));
        caught += result.caught;
        states += result.states;
        std::printf("%-70s %s after %lld states, seed %llu: %s\n", mutant.text, result.caught ? "caught" : "NOT CAUGHT",
                    static_cast<long long>(result.states), static_cast<unsigned long long>(result.lastSeed),
                    result.how);
        std::fflush(stdout);
    }
    bool clean = true;
    for (int shape = 0; shape < static_cast<int>(EShape::COUNT); ++shape) {
        if (shape == static_cast<int>(EShape::LONG_BATCH)) continue; // which the store never does
        const Result result =
            SweepApart(EMutant::NONE, static_cast<EShape>(shape), arguments.seed, MOST_SEEDS, mostStates(CLEAN_STATES));
        states += result.states;
        if (!result.caught) continue;
        clean = false;
        std::printf("without a mistake, shape %d: FAULT %s\n", shape, result.how);
    }
    const bool ok = clean && caught == NUM_MUTANTS;
    std::printf("reliability mutants: seeded=%d caught=%d states=%lld clean=%s verdict=%s\n", NUM_MUTANTS, caught,
                static_cast<long long>(states), clean ? "yes" : "NO", ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

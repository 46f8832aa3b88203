#include "qxLss/src/LogArchive.h"

#include "qxUtils/Exceptions.h"
#include "qxUtils/Thread.h"
#include "qxUtils/Tracer.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <utility>

namespace quna {

namespace {

constexpr int64 DELTA_BYTES = int64{16} << 20;
constexpr int64 SECOND = 1'000'000'000; // ns
constexpr int64 LONGEST_WAIT = 60 * SECOND;
constexpr auto LONGEST_HURRY = std::chrono::milliseconds(100);
constexpr int64 FIRST_RETRY = SECOND;
constexpr int64 LAST_RETRY = 60 * SECOND;

std::string WithoutSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

} // namespace

LogArchive::LogArchive(StoreCore& core, Flusher& flusher, const std::string& directory, Hooks hooks)
    : m_core(core), m_flusher(flusher), m_directory(WithoutSlashes(directory)), m_hooks(std::move(hooks)),
      m_deltaBytes(DELTA_BYTES) {}

LogArchive::~LogArchive() { Stop(); }

// --- opening

bool LogArchive::Attach(ssize_t numSlots, const LogPosition& end, uint64 lastTransaction) {
    ArchiveProgress& progress = m_core.m_archive;
    const Newest newest = ReadDirectory();
    CheckHistory(newest, lastTransaction);
    // The header may be older than the newest delta; and deltas may have been moved elsewhere.
    const uint64 number = std::max(progress.upTo.load(std::memory_order_relaxed), newest.lastTransaction);
    progress.upTo.store(number, std::memory_order_relaxed);
    if (std::optional<ChainPosition> found = FindBehindTransaction(m_core, numSlots, end, number)) {
        if (number == newest.lastTransaction && found->time && found->time != newest.time)
            throw FileException(("Can't go on with the archive in '" + m_directory + "': transaction " +
                                 std::to_string(number) + " in '" + newest.path + "' is not the one that the store '" +
                                 m_core.m_file.Path() +
                                 "' has: it was put back to an older state and went on from there. Give it an empty "
                                 "directory for its deltas")
                                    .c_str());
        if (number == newest.lastTransaction) found->time = newest.time;
        BeginAt(std::move(*found));
        return false;
    }
    // Behind the end there is nothing that could be missed.
    const std::optional<SegmentHeader> open = ReadUserHeader(m_core, end.slot, end.sequence);
    if (!open)
        ThrowCorrupt(m_core,
                     "found no valid header of a segment, expected that of the open one, sequence " +
                         std::to_string(end.sequence),
                     m_core.m_segments->OffsetOf(end.slot));
    ChainPosition position;
    position.segments.push_back({end.slot, end.sequence, open->clockAtOpening, -1});
    position.offset = end.offset;
    const bool isGap = number != lastTransaction;
    if (!isGap && number == newest.lastTransaction) position.time = newest.time;
    if (isGap) {
        if (const auto last = FindBehindTransaction(m_core, numSlots, end, lastTransaction)) position.time = last->time;
        progress.upTo.store(lastTransaction, std::memory_order_relaxed);
        TracerX() << "The archive of the store '" << m_core.m_file.Path() << "' in '" << m_directory
                  << "' begins anew with transaction " << lastTransaction + 1 << ": the log no longer has transaction "
                  << number + 1 << " and later ones. To restore what comes now, keep a copy of the store that has at "
                  << "least transaction " << lastTransaction << ", taken before this open or at any time from now on\n";
    }
    BeginAt(std::move(position));
    return isGap;
}

// A delta that is found here may have got its name just before a crash, so the directory is synced before anything of the
// log is given up.
LogArchive::Newest LogArchive::ReadDirectory() {
    SysCalls& sys = m_core.m_file.Sys();
    MakeDirectory(sys, m_directory);
    Newest newest;
    std::string newestName;
    for (const std::string& name : ListDirectory(sys, m_directory)) {
        if (IsUnfinishedDeltaName(name))
            RemoveFile(sys, PathOf(name));
        else if (TransactionOfDeltaName(name))
            newestName = name; // they come in ascending order
    }
    SyncDirectory(sys, m_directory);
    if (newestName.empty()) return newest;
    newest.path = PathOf(newestName);
    const DeltaFile delta(sys, newest.path, DeltaFile::EKeep::ENDS);
    if (delta.Header().storeId != m_core.m_storeId)
        throw FileException(("Can't archive the store '" + m_core.m_file.Path() + "' in '" + m_directory +
                             "': the delta '" + newest.path + "' there belongs to another store")
                                .c_str());
    newest.lastTransaction = delta.Closing().lastTransaction;
    newest.time = delta.Closing().lastTime;
    return newest;
}

void LogArchive::CheckHistory(const Newest& newest, uint64 lastTransaction) const {
    if (newest.lastTransaction <= lastTransaction) return;
    throw FileException(("Can't go on with the archive in '" + m_directory + "': it has transactions up to " +
                         std::to_string(newest.lastTransaction) + " of the store '" + m_core.m_file.Path() +
                         "', which itself has only " + std::to_string(lastTransaction) +
                         ": it was put back to an older state. Give it an empty directory for its deltas")
                            .c_str());
}

void LogArchive::BeginAt(ChainPosition position) {
    m_position = std::move(position);
    m_position.segments.back().end = -1; // may grow
    const ChainSegment& first = m_position.segments.front();
    const uint64 clock = first.clock + static_cast<uint64>(m_position.offset);
    m_positionClock.store(clock, std::memory_order_relaxed);
    m_wakeAt.store(clock + 1, std::memory_order_relaxed);
    m_core.m_archive.neededFrom.store(first.sequence, std::memory_order_release);
}

// --- one delta

// Reads the log from the archive's place on and writes what belongs to complete transactions.
class LogArchive::Pass {
public:
    explicit Pass(LogArchive& archive)
        : m_archive(archive), m_core(archive.m_core), m_durable(archive.m_flusher.DurableClock()),
          m_at(archive.m_position), m_safe(m_at), m_last(archive.m_core.m_archive.upTo.load(std::memory_order_relaxed)),
          m_time(m_at.time) {}

    // False: no complete transaction.
    bool Run() {
        while (!IsFull() && CopySegment()) {
        }
        if (m_last == Progress().upTo.load(std::memory_order_relaxed)) {
            MoveOn(m_safe);
            return false;
        }
        std::vector<AllocHorizon> horizons;
        uint32 nextHigh = 0;
        m_archive.m_hooks.horizons(horizons, nextHigh);
        const uint64 first = Progress().upTo.load(std::memory_order_relaxed) + 1;
        try {
            m_writer->Finish(m_last, m_time, nextHigh, horizons, m_archive.m_nameTaken == first);
        } catch (...) {
            if (m_writer->HasName()) m_archive.m_nameTaken = first;
            throw;
        }
        m_archive.m_nameTaken = 0;
        Progress().upTo.store(m_last, std::memory_order_relaxed);
        m_safe.time = m_time;
        MoveOn(m_safe);
        return true;
    }

private:
    ArchiveProgress& Progress() { return m_core.m_archive; }
    bool IsFull() const { return m_writer && m_count.IsEmpty() && m_writer->WholeBytes() >= m_archive.m_deltaBytes; }

    // What is durable of the first segment of m_at, and on to the next. False: there is no more.
    bool CopySegment() {
        const ChainSegment segment = m_at.segments.front();
        const ssize_t durable = static_cast<ssize_t>(std::min<uint64>(m_durable - std::min(m_durable, segment.clock),
                                                                      static_cast<uint64>(m_core.m_segmentSize)));
        const ssize_t end = segment.end >= 0 ? std::min(segment.end, durable) : durable;
        if (m_at.offset < end) CopyRange(segment, end);
        if (m_linkedTo == 0 && (segment.end < 0 || m_at.offset < segment.end)) return false;
        return Advance(segment);
    }

    void CopyRange(const ChainSegment& segment, ssize_t end) {
        const ssize_t from = m_at.offset;
        m_bytes.resize(static_cast<size_t>(end - from));
        m_core.m_file.Read(m_core.m_segments->OffsetOf(segment.slot) + from, m_bytes.data(), end - from);
        m_linkedTo = 0;
        m_wholeFrom = m_wholeTo = -1;
        m_openFrom = from;
        const ssize_t stopped =
            VisitPackets(m_bytes.data(), from, end, SegmentCrcSeed(m_core.m_storeId, segment.sequence),
                         [&](ssize_t pos, const PacketHeader& header, const octet_t* payload) {
                             return Take(segment, pos, header, payload);
                         });
        if (m_wholeTo >= 0) {
            Copy(segment, from, m_wholeFrom, m_wholeTo);
            m_writer->MarkWhole();
        }
        if (!m_count.IsEmpty()) Copy(segment, from, m_openFrom, stopped); // a later segment may end the transaction
        if (m_wholeTo >= 0) {
            // What is durable may end within the next transaction.
            m_safe = m_at;
            m_safe.offset = m_wholeTo;
        }
        m_at.offset = stopped;
        if (stopped != end && m_linkedTo == 0 && !IsFull())
            ThrowCorrupt(m_core,
                         "the log can't be archived: found bytes that are no valid packet, expected packets for " +
                             std::to_string(end - stopped) + " bytes more",
                         m_core.m_segments->OffsetOf(segment.slot) + stopped);
        if (!m_count.IsEmpty()) return;
        m_safe = m_at;
        // A place behind the LINK would not say where the log goes on.
        if (m_linkedTo != 0) m_safe.offset -= LINK_BYTES;
    }

    // False: the delta is full, or the segment ends.
    bool Take(const ChainSegment& segment, ssize_t pos, const PacketHeader& header, const octet_t* payload) {
        const bool wasEmpty = m_count.IsEmpty();
        if (PacketType(header.info) == EPacketType::COMMIT) return TakeCommit(segment, pos, header, payload);
        if (m_count.Add(header)) {
            if (wasEmpty) m_openFrom = pos;
            return true;
        }
        if (PacketType(header.info) != EPacketType::LINK) return true;
        m_linkedTo = header.key;
        m_linkSlot = PayloadBytes(header.info) == sizeof(LinkPayload)
                         ? static_cast<ssize_t>(ReadPod<LinkPayload>(payload).slot)
                         : -1;
        return false; // behind it stands what an earlier use of the slot has left
    }

    bool TakeCommit(const ChainSegment& segment, ssize_t pos, const PacketHeader& header, const octet_t* payload) {
        if (PayloadBytes(header.info) != sizeof(CommitPayload) || header.key != m_last + 1 ||
            !m_count.Agrees(ReadPod<CommitPayload>(payload)))
            ThrowCorrupt(m_core,
                         "the log can't be archived: found the end of transaction " + std::to_string(header.key) +
                             ", expected that of " + std::to_string(m_last + 1) + " with all its packets before it",
                         m_core.m_segments->OffsetOf(segment.slot) + pos);
        m_count.Reset();
        m_last = header.key;
        m_time = ReadPod<CommitPayload>(payload).time;
        if (m_wholeFrom < 0) m_wholeFrom = m_openFrom; // what stands in front of the first transaction is not needed
        m_wholeTo = pos + PacketBytes(header.info);
        return (m_writer ? m_writer->Bytes() : 0) + m_wholeTo - m_wholeFrom < m_archive.m_deltaBytes;
    }

    void Copy(const ChainSegment& segment, ssize_t base, ssize_t from, ssize_t to) {
        if (to <= from) return;
        if (!m_writer) OpenWriter();
        m_writer->Append(static_cast<uint32>(segment.slot), static_cast<uint32>(from), segment.sequence,
                         m_bytes.data() + (from - base), to - from);
    }

    void OpenWriter() {
        DeltaHeader header{};
        header.storeId = m_core.m_storeId;
        header.segmentSize = static_cast<uint32>(m_core.m_segmentSize);
        header.previousTransaction = Progress().upTo.load(std::memory_order_relaxed);
        header.firstTransaction = header.previousTransaction + 1;
        header.previousTime = m_archive.m_position.time;
        m_writer.emplace(m_core.m_file.Sys(), m_archive.PathOf(DeltaName(header.firstTransaction)), header);
    }

    // To the segment behind: the one that stood in the chain at the open, or the one that the LINK names.
    bool Advance(const ChainSegment& segment) {
        std::deque<ChainSegment>& segments = m_at.segments;
        if (segments.size() == 1) {
            const uint64 clock = segment.clock + static_cast<uint64>(m_at.offset);
            if (m_durable <= clock) return false; // of the next nothing is durable
            const std::optional<SegmentHeader> header = m_linkSlot >= 0 && m_linkSlot < m_core.m_segments->MaxSlots()
                                                            ? ReadUserHeader(m_core, m_linkSlot, m_linkedTo)
                                                            : std::nullopt;
            if (!header || header->clockAtOpening != clock)
                ThrowCorrupt(m_core,
                             "the log can't be archived: found no valid segment behind this one, expected sequence " +
                                 std::to_string(m_linkedTo) + " at log position " + std::to_string(clock),
                             m_core.m_segments->OffsetOf(segment.slot));
            segments.push_back({m_linkSlot, m_linkedTo, clock, -1});
        }
        segments.pop_front();
        // Where a recovery has cut the log off, an unfinished transaction is over.
        if (m_linkedTo != segments.front().sequence) m_count.Reset();
        m_linkedTo = 0;
        m_at.offset = SEGMENT_HEADER_BYTES;
        if (m_count.IsEmpty()) m_safe = m_at;
        return true;
    }

    void MoveOn(const ChainPosition& to) {
        const uint64 before = m_archive.m_position.segments.front().sequence;
        m_archive.m_position = to;
        const ChainSegment& first = to.segments.front();
        m_archive.m_positionClock.store(first.clock + static_cast<uint64>(to.offset), std::memory_order_relaxed);
        Progress().neededFrom.store(first.sequence, std::memory_order_release);
        if (first.sequence != before) m_archive.m_hooks.advanced();
    }

    LogArchive& m_archive;
    StoreCore& m_core;
    const uint64 m_durable;
    std::optional<DeltaWriter> m_writer;
    std::vector<octet_t> m_bytes;
    ChainPosition m_at;
    ChainPosition m_safe; // the last place between transactions
    uint64 m_last;        // transaction that was met
    uint64 m_time;        // of its commit
    CommitCount m_count;
    // Of the segment that is being read: offsets between which there are whole transactions (-1: none), and where the packets
    // of the open one begin.
    ssize_t m_wholeFrom = -1;
    ssize_t m_wholeTo = -1;
    ssize_t m_openFrom = 0;
    uint64 m_linkedTo = 0; // the LINK at the end of the segment; 0: none was met
    ssize_t m_linkSlot = -1;
};

bool LogArchive::WriteNext() {
    if (m_flusher.DurableClock() <= m_positionClock.load(std::memory_order_relaxed)) return false;
    return Pass(*this).Run();
}

void LogArchive::WriteLast() noexcept {
    try {
        while (WriteNext()) {
        }
    } catch (const std::exception& e) {
        NoteFailure(e.what());
    }
}

// --- the thread

void LogArchive::Start() {
    m_thread = std::thread([this] { ThreadMain(); });
    NoteDurable(m_flusher.DurableClock());
}

void LogArchive::Stop() {
    if (!m_thread.joinable()) return;
    {
        std::lock_guard lock(m_wakeMutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

// Told of the first byte that waits, and again when a delta's worth does.
void LogArchive::Wake(uint64 clock) {
    {
        std::lock_guard lock(m_wakeMutex);
        m_notedClock = std::max(m_notedClock, clock);
        if (m_deadline == 0) m_deadline = m_core.m_file.Sys().MonotonicNanos() + LONGEST_WAIT;
        m_wakeAt.store(m_positionClock.load(std::memory_order_relaxed) + static_cast<uint64>(m_deltaBytes),
                       std::memory_order_relaxed);
    }
    m_wake.notify_all();
}

void LogArchive::Hurry() {
    std::unique_lock lock(m_wakeMutex);
    if (!m_thread.joinable() || m_flusher.DurableClock() <= m_positionClock.load(std::memory_order_relaxed)) return;
    m_deadline = m_core.m_file.Sys().MonotonicNanos();
    m_retryAt = 0;
    m_wake.notify_all();
    const uint64 passes = m_numPasses;
    m_passEnded.wait_for(lock, LONGEST_HURRY, [&] { return m_numPasses != passes || m_stop; });
}

// With m_wakeMutex.
int64 LogArchive::DueAt() const {
    const bool isEnough =
        m_notedClock >= m_positionClock.load(std::memory_order_relaxed) + static_cast<uint64>(m_deltaBytes);
    return isEnough ? m_retryAt : std::max(m_deadline, m_retryAt);
}

void LogArchive::ThreadMain() {
    SetThreadName("Lss archive");
    std::unique_lock lock(m_wakeMutex);
    while (!m_stop) {
        const int64 now = m_core.m_file.Sys().MonotonicNanos();
        if (m_deadline == 0) {
            m_wake.wait(lock);
            continue;
        }
        if (now < DueAt()) {
            m_wake.wait_for(lock, std::chrono::nanoseconds(std::min(DueAt() - now, LONGEST_WAIT)));
            continue;
        }
        lock.unlock();
        try {
            WriteDue();
        } catch (const std::exception& e) {
            NoteFailure(e.what());
        }
        lock.lock();
        ++m_numPasses;
        m_passEnded.notify_all();
    }
}

// Whole deltas as long as there is enough for one; the rest when it has waited long enough.
void LogArchive::WriteDue() {
    bool all = false;
    {
        std::lock_guard lock(m_wakeMutex);
        all = m_core.m_file.Sys().MonotonicNanos() >= m_deadline;
    }
    const auto waiting = [this] {
        return static_cast<int64>(m_flusher.DurableClock() - m_positionClock.load(std::memory_order_relaxed));
    };
    bool wrote = true;
    while (wrote && (all || waiting() >= m_deltaBytes)) wrote = WriteNext();
    std::lock_guard lock(m_wakeMutex);
    if (!m_failure.empty())
        TracerX() << "The archive of the store '" << m_core.m_file.Path() << "' goes on, up to transaction "
                  << m_core.m_archive.upTo.load(std::memory_order_relaxed) << "\n";
    m_failure.clear();
    m_retryAt = m_retryDelay = 0;
    m_core.m_archive.isStalled.store(false, std::memory_order_relaxed);
    while (!PlanNext()) {
    }
}

// With m_wakeMutex. When to look again, and of what to be told. False: more has become durable meanwhile, and whoever made it
// so may have gone by the old m_wakeAt and told nobody.
bool LogArchive::PlanNext() {
    // What is left begins to wait now. A transaction that is not complete is looked at again no earlier.
    const uint64 clock = m_flusher.DurableClock();
    const bool rests = clock <= m_positionClock.load(std::memory_order_relaxed);
    m_deadline = rests ? 0 : m_core.m_file.Sys().MonotonicNanos() + LONGEST_WAIT;
    m_notedClock = 0;
    // Not again at every sync while one large transaction is being written.
    const uint64 enough = std::max(m_positionClock.load(std::memory_order_relaxed) + static_cast<uint64>(m_deltaBytes),
                                   clock + static_cast<uint64>(m_deltaBytes) / 4);
    m_wakeAt.exchange(rests ? clock + 1 : enough, std::memory_order_acq_rel); // see NoteDurable
    return m_flusher.DurableClock() == clock;
}

void LogArchive::NoteFailure(const char* what) {
    std::lock_guard lock(m_wakeMutex);
    m_core.m_archive.isStalled.store(true, std::memory_order_relaxed);
    m_retryDelay = m_retryDelay == 0 ? FIRST_RETRY : std::min(2 * m_retryDelay, LAST_RETRY);
    m_retryAt = m_core.m_file.Sys().MonotonicNanos() + m_retryDelay;
    if (m_failure == what) return;
    m_failure = what;
    TracerX() << "The archive of the store '" << m_core.m_file.Path() << "' has stopped at transaction "
              << m_core.m_archive.upTo.load(std::memory_order_relaxed)
              << " and will try again; until then the log is kept: " << what << "\n";
}

} // namespace quna

#include "qxLss/src/LssStore.h"

#include "qxLss/src/CompactingCopy.h"
#include "qxLss/src/Mutants.h"
#include "qxLss/src/SerialElement.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Tracer.h"

#include <algorithm>
#include <limits>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/LssStore";

// Slots that only maintenance may use, so that a full disk can still be cleaned.
constexpr ssize_t SLOTS_FOR_CLEANER = 8;

int Saturate(int64 x) { return static_cast<int>(std::clamp<int64>(x, 0, std::numeric_limits<int>::max())); }

} // namespace

LssStore::LssStore(std::unique_ptr<StoreCore> core, const std::string& deltasDirectory)
    : m_core(std::move(core)), m_flusher(*m_core), m_space(*m_core),
      m_ring(m_core->m_file, m_core->m_storeId, [this] { m_cleanThread.Wake(); }),
      m_allocator(m_ring, [this] { m_flusher.WakeTopUp(); }), m_index(*m_core), m_log(*m_core, m_space, m_flusher),
      m_checkpoint(*m_core, m_space, m_log, m_index, m_flusher, m_ring, m_allocator),
      m_cleaner(*m_core, m_space, m_log, m_index, m_flusher, m_checkpoint),
      m_shrinker(*m_core, m_space, m_log, m_checkpoint, m_cleaner),
      m_transaction(*m_core, m_log, m_index, m_flusher, m_allocator,
                    [this](bool unwinding) { OnTransactionClosed(unwinding); }) {
    if (m_cleaner.IsEnabled() && !m_core->m_readOnly) m_space.SetReserve(SLOTS_FOR_CLEANER);
    if (deltasDirectory.empty() || m_core->m_readOnly) return;
    LogArchive::Hooks hooks;
    hooks.horizons = [this](std::vector<AllocHorizon>& horizons, uint32& nextHigh) {
        m_allocator.GetHorizons(horizons, nextHigh);
    };
    hooks.advanced = [this] {
        m_cleaner.Rouse();
        m_cleanThread.Wake();
    };
    m_archive = std::make_unique<LogArchive>(*m_core, m_flusher, deltasDirectory, std::move(hooks));
}

// An abandoned store may still have a transaction open.
LssStore::~LssStore() {
    StopThreads();
    LockRecorder::Releases(&m_log.Turn());
}

// --- opening

LssStore* LssStore::OpenLocked(std::unique_ptr<StoreCore> core, const std::string& deltasDirectory) {
    // The disk decides, not what a failed sync may have left in the cache. The rest follows if the close was not clean.
    core->m_file.DropCache(0, FRONT_AREA_BYTES);
    const CheckpointHeader header = ReadNewestHeader(*core, core->m_file);
    core->Attach(header.storeId, static_cast<ssize_t>(header.segmentSize));
    StorePtr store(new LssStore(std::move(core), deltasDirectory));
    store->Recover(header);
    return store.release();
}

void LssStore::LayDown() {
    m_space.Import(0, 1);
    m_ring.BeginOwner(0, {}, 1, 1, true);
    m_checkpoint.Import(CheckpointHeader{}, {});
    m_log.OpenFresh(0, 0);
    m_checkpoint.Run(Checkpoint::EReason::CREATION);
    if (m_archive) AttachArchive();
}

void LssStore::Recover(const CheckpointHeader& header) {
    if (m_archive) m_archive->KeepEverything();
    RecoveredLog log = Recovery(*m_core, m_space, m_index, m_ring).Run(header);
    m_log.SetLastTransaction(log.lastTransaction);
    m_checkpoint.Import(header, log.held);
    if (m_core->m_readOnly) {
        BecomeReadOnly(header, std::move(log));
        return;
    }
    // The first checkpoint would find it, but by then the file has been written to.
    if (!log.clean && m_core->m_settings.validateSUTDuringCheckPoint) m_checkpoint.Validate();
    if (!log.clean) CompleteLastSlot();
    std::vector<AllocHorizon> known;
    for (const HighAllocation& high : log.highs) known.push_back({high.high, high.horizon});
    m_ring.BeginOwner(header.checkpointSequence, known, log.nextHigh, log.nextSequence, log.clean);
    m_allocator.Import(log.highs, log.ring, log.clean);
    const bool hasWork = log.end.offset != static_cast<ssize_t>(header.startOffset) ||
                         log.end.slot != static_cast<ssize_t>(header.startSlot);
    if (!log.clean && (hasWork || !IsMutant(EMutant::NO_FRESH_SEGMENT))) {
        m_core->m_counters.numRecoveries.fetch_add(1, std::memory_order_relaxed);
        m_log.OpenFresh(log.clock, log.end.sequence);
        m_checkpoint.Run(Checkpoint::EReason::RUNNING);
    } else {
        m_flusher.SetDurableClock(log.clock);
        m_log.Resume(log.end, log.clock);
        if (m_core->m_settings.forceIncrementMSSN) {
            m_log.LinkToNext(EClaim::MAINTENANCE);
            m_log.HandOver();
        }
    }
    if (m_archive) AttachArchive();
}

// A crash may have taken the file's end from it right behind an element, and readers may look a little further.
void LssStore::CompleteLastSlot() {
    const int64 size = m_core->m_file.Size();
    const int64 inLastSlot = (size - m_core->m_segments->DataStartOffset()) % m_core->m_segmentSize;
    if (inLastSlot > 0) m_core->m_file.Truncate(size - inLastSlot + m_core->m_segmentSize);
}

// A chain that begins anew is made known by a checkpoint: else, after a crash, it would begin anew once more, with a gap.
void LssStore::AttachArchive() {
    if (m_archive->Attach(m_space.NumSlots(), m_log.Position(), m_log.LastTransaction()))
        m_checkpoint.Run(Checkpoint::EReason::RUNNING);
}

void LssStore::BecomeReadOnly(const CheckpointHeader& header, RecoveredLog log) {
    m_origin = std::make_unique<CopyOrigin>(CopyOrigin{header, std::move(log), m_core->m_counters.liveHead.load()});
    m_overlayTransaction = std::make_unique<OverlayTransaction>(
        m_overlay, m_log.Turn(), m_core->m_file.Path().c_str(), [this](Seid seid) { return m_index.Get(seid) != 0; },
        [this](int64 delta) { m_core->m_counters.liveHead.fetch_add(delta, std::memory_order_relaxed); });
}

void LssStore::StartThreads() {
    if (m_core->m_readOnly) return;
    Flusher::Hooks hooks;
    hooks.handOverBuffered = [this] { HandOverBuffered(); };
    hooks.topUp = [this] { m_allocator.TopUp(); };
    if (m_archive) hooks.durable = [this](uint64 clock) { m_archive->NoteDurable(clock); };
    m_flusher.Start(std::move(hooks));
    m_cleanThread.Start([this](bool isWoken) { return DoBackgroundWork(isWoken); },
                        [this] {
                            m_core->FailWithCurrentException();
                            m_cleaner.NoteRoundEnded();
                        });
    if (m_archive) m_archive->Start();
    if (m_cleaner.IsDue()) m_cleanThread.Wake(); // dead space may have been left by a killed process
}

// --- ending

// The flusher may wait for a turn and the checkpoint for a sync, but neither for the other's end.
void LssStore::StopThreads() {
    m_cleaner.RequestStop();
    m_cleanThread.Stop();
    m_flusher.Stop();
    if (m_archive) m_archive->Stop();
}

// Of a store that has failed, what was durable before is archived all the same.
void LssStore::FinishArchive() {
    try {
        if (!m_core->HasFailed()) {
            HandOverBuffered();
            m_flusher.SyncHandedOver();
        }
    } catch (...) {
        m_core->FailWithCurrentException();
    }
    m_archive->WriteLast();
}

void LssStore::Close() {
    m_core->ThrowIfForked();
    QX_ASSERT(!m_log.Turn().IsOwnedByThisThread());
    m_copies.Shut();
    StopThreads();
    if (m_archive) FinishArchive();
    if (!m_core->m_readOnly && !m_core->HasFailed()) {
        try {
            m_checkpoint.Run(Checkpoint::EReason::CLEAN_CLOSE);
            m_space.TrimEnd();
        } catch (...) {
            m_core->FailWithCurrentException(); // traces; the next open recovers
        }
    }
    delete this;
}

void LssStore::Abandon() {
    m_copies.Shut();
    StopThreads();
    delete this;
}

// --- identifiers

void LssStore::ThrowIfReadOnly(ConstStringZ operation) const {
    if (m_core->m_readOnly)
        throw FileException((std::string("Can't ") + operation + " in the store '" + m_core->m_file.Path() +
                             "': the store is open read-only")
                                .c_str());
}

// A failed write of the ring is as final as one of the log; an exhausted high is not.
template <class Action>
auto LssStore::Allocate(Action&& action) {
    ThrowIfReadOnly("allocate an identifier");
    m_core->ThrowIfUnwritable();
    try {
        return action();
    } catch (...) {
        if (m_ring.HasFailed()) m_core->FailWithCurrentException();
        throw;
    }
}

SeidHigh LssStore::AllocateSeidHigh() {
    return Allocate([this] { return m_allocator.AllocateSeidHigh(); });
}

Seid LssStore::AllocateSeid(SeidHigh high) {
    return Allocate([this, high] { return m_allocator.AllocateSeid(high); });
}

bool LssStore::AllocateAffiliateSeid(Seid& seid) {
    return Allocate([this, &seid] { return m_allocator.AllocateAffiliateSeid(seid); });
}

// A read-only store knows no horizons, and writes nothing that could meet one.
bool LssStore::IsAllocated(Seid seid) { return m_core->m_readOnly || m_allocator.IsAllocated(seid); }

// --- elements and transactions

IContiguousSerialElement* LssStore::OpenSerialElement(Seid seid) {
    m_core->ThrowIfForked();
    if (!m_overlay.IsEmpty()) {
        Overlay::Bytes bytes;
        if (m_overlay.Find(seid, bytes)) return bytes ? new OverlayElement(std::move(bytes)) : nullptr;
    }
    return SerialElement::Open(*m_core, m_index, seid);
}

ILssTransaction* LssStore::OpenTransaction() {
    m_core->ThrowIfUnwritable();
    QX_ASSERT(!m_log.Turn().IsOwnedByThisThread());
    if (!m_core->m_readOnly && m_cleanThread.IsRunning()) m_cleaner.WaitForRoom();
    m_log.Turn().Acquire();
    if (m_core->m_readOnly) {
        m_overlayTransaction->Open();
        return m_overlayTransaction.get();
    }
    try {
        m_core->ThrowIfUnwritable();
        MakeRoomForTransaction();
        m_transaction.Open();
    } catch (...) {
        m_log.Turn().Release();
        throw;
    }
    return &m_transaction;
}

// With the turn, which is given back for a while if the disk is full and the cleaner may help.
void LssStore::MakeRoomForTransaction() {
    try {
        m_space.EnsureReady(SLOTS_FOR_TRANSACTION + m_checkpoint.SlotsNeeded());
        return;
    } catch (const FileException&) {
        m_cleaner.RequestUrgently();
        if (!m_cleaner.IsEnabled() || !m_cleanThread.IsRunning()) throw;
    }
    m_log.Turn().Release();
    if (m_archive) m_archive->Hurry();
    const uint64 rounds = m_cleaner.NumRounds();
    m_cleanThread.Wake();
    m_cleaner.WaitForRound(rounds);
    m_log.Turn().Acquire();
    m_core->ThrowIfUnwritable();
    m_space.EnsureReady(SLOTS_FOR_TRANSACTION + m_checkpoint.SlotsNeeded());
}

void LssStore::OnTransactionClosed(bool unwinding) {
    if (m_checkpoint.IsBeingCreated() && !unwinding && !IsMutant(EMutant::CREATING_FLAG_KEPT) &&
        m_core->m_counters.numTransactions.load(std::memory_order_relaxed) > 0) [[unlikely]] {
        try {
            HandOverBuffered();
            m_checkpoint.ClearCreatingFlag();
        } catch (...) {
            m_core->FailWithCurrentException();
            throw;
        }
    }
    if (m_checkpoint.IsDue() || m_space.IsShort() || m_cleaner.IsDue()) [[unlikely]]
        m_cleanThread.Wake();
}

// With enableFileBuffering closed transactions may be in memory only.
void LssStore::HandOverBuffered() {
    if (!m_core->m_settings.enableFileBuffering) return;
    QX_ASSERT(!m_log.Turn().IsOwnedByThisThread());
    TurnScope turn(m_log.Turn());
    m_log.HandOver();
}

// --- in the background

int LssStore::DoBackgroundWork(bool isWoken) {
    if (m_core->HasFailed()) return -1;
    CleanUntilAtRest();
    return m_shrinker.Run(isWoken);
}

void LssStore::CleanUntilAtRest() {
    const bool urgent = m_cleaner.TakeUrgent();
    bool wanted = false; // a checkpoint, by the cleaner
    for (;;) {
        if (wanted || m_checkpoint.IsDue() || m_ring.WantsCheckpoint()) m_checkpoint.Run(Checkpoint::EReason::RUNNING);
        m_space.GrowAhead();
        const Cleaner::EOutcome outcome = m_cleaner.CleanOnce(urgent);
        if (outcome != Cleaner::EOutcome::NEEDS_CHECKPOINT) m_cleaner.NoteRoundEnded();
        if (outcome == Cleaner::EOutcome::AT_REST) return;
        if (outcome == Cleaner::EOutcome::NEEDS_CHECKPOINT && wanted) {
            m_cleaner.Rest();
            m_cleaner.NoteRoundEnded();
            return;
        }
        wanted = outcome == Cleaner::EOutcome::NEEDS_CHECKPOINT;
    }
}

void LssStore::Flush() {
    ThrowIfReadOnly("flush");
    m_core->ThrowIfUnwritable();
    HandOverBuffered();
    m_flusher.SyncHandedOver();
}

void LssStore::GetStats(LssStats& stats) {
    m_core->ThrowIfForked();
    const StoreCounters& c = m_core->m_counters;
    const int64 heads = c.liveHead.load(std::memory_order_relaxed);
    const int64 parts = c.liveOverflow.load(std::memory_order_relaxed);
    const int64 pages = c.liveIndex.load(std::memory_order_relaxed);
    stats.numCheckPoints = Saturate(c.numCheckpoints.load(std::memory_order_relaxed));
    stats.numRecoveries = Saturate(c.numRecoveries.load(std::memory_order_relaxed));
    stats.numTransactions = c.numTransactions.load(std::memory_order_relaxed);
    stats.segmentSize = static_cast<int>(m_core->m_segmentSize);
    stats.fileSize = m_core->m_file.Size();
    stats.utilisation = c.liveBytes.load(std::memory_order_relaxed);
    stats.numLiveHeadPackets = Saturate(heads);
    stats.numLiveOverflowPackets = Saturate(parts);
    stats.numLiveRPMPackets = Saturate(pages);
    stats.numObsoletePackets = Saturate(c.packets.load(std::memory_order_relaxed) - heads - parts - pages);
}

// --- repeating transactions

uint64 LssStore::TimeOfLastTransaction() {
    const auto place = FindBehindTransaction(*m_core, m_space.NumSlots(), m_log.Position(), LastTransaction());
    return place ? place->time : 0;
}

void LssStore::RaiseHorizons(const std::vector<AllocHorizon>& horizons, uint32 nextHigh) {
    const auto makeRoom = [this] {
        if (m_ring.WantsCheckpoint()) m_checkpoint.Run(Checkpoint::EReason::RUNNING);
    };
    m_ring.RaiseNextHigh(nextHigh);
    for (const AllocHorizon& known : horizons) {
        m_allocator.SpendBelow(known.high, known.horizon);
        makeRoom();
    }
}

void LssStore::FinishRestore() {
    StopThreads();
    m_core->ThrowIfUnwritable();
    m_flusher.SyncHandedOver();
    m_checkpoint.Run(Checkpoint::EReason::CLEAN_CLOSE);
    m_space.TrimEnd();
}

// --- inside looks

void LssStore::ArchiveForTest() {
    while (m_archive->WriteNext()) {
    }
}

void LssStore::CheckpointForTest() {
    try {
        m_checkpoint.Run(Checkpoint::EReason::RUNNING);
    } catch (...) {
        m_core->FailWithCurrentException();
        throw;
    }
}

ssize_t LssStore::CleanForTest(ssize_t maxVictims) {
    try {
        return m_cleaner.CleanForTest(maxVictims);
    } catch (...) {
        m_core->FailWithCurrentException();
        throw;
    }
}

void LssStore::ShrinkForTest() {
    m_space.TrimEnd(SLOTS_FOR_TRANSACTION);
    m_space.PunchOne(0);
}

void LssStore::PullInEndForTest() {
    try {
        m_shrinker.PullInEnd(SLOTS_FOR_TRANSACTION);
    } catch (...) {
        m_core->FailWithCurrentException();
        throw;
    }
    m_space.TrimEnd(SLOTS_FOR_TRANSACTION);
}

void LssStore::Validate() { m_checkpoint.Validate(); }

} // namespace quna

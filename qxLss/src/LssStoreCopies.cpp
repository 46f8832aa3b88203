// Copies of an open store: LssStore's second half.
#include "qxLss/src/CompactingCopy.h"
#include "qxLss/src/HotBackup.h"
#include "qxLss/src/LssStore.h"
#include "qxLss/src/PartFile.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Exceptions.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/LssStore";

// Transactions that bring elements into a compacting copy count from here, so that none is taken for one of the store.
constexpr uint64 NUMBERS_OF_COPYING = uint64{1} << 63;

// Gives the slots of a copy back, however it ends.
class HoldScope {
public:
    explicit HoldScope(SpaceManager& space) : m_space(space) {}
    HoldScope(const HoldScope&) = delete;
    HoldScope& operator=(const HoldScope&) = delete;
    ~HoldScope() { m_space.ReleaseAll(); }

private:
    SpaceManager& m_space;
};

} // namespace

// A checkpoint that fails is final, as in the background, but for a disk so full that it can't begin.
CheckpointImage LssStore::CheckpointForCopy() {
    {
        TurnScope turn(m_log.Turn());
        m_core->ThrowIfUnwritable();
        m_space.EnsureReady(m_checkpoint.SlotsNeeded());
    }
    try {
        return m_checkpoint.RunForCopy();
    } catch (...) {
        m_core->FailWithCurrentException();
        throw;
    }
}

void LssStore::CheckMayCopy() {
    m_core->ThrowIfUnwritable();
    QX_ASSERT(!m_log.Turn().IsOwnedByThisThread());
}

BackupResult LssStore::Backup(ConstStringZ path, const BackupOptions& options) {
    CheckMayCopy();
    CopyGate::Pass pass(m_copies, path);
    File target(m_core->m_file.Sys());
    PartFile part(target, path, options.replaceExisting);
    part.Open();
    HotBackup backup(*m_core, m_core->m_file, target, options, m_copies);
    BackupResult result;
    if (m_core->m_readOnly) {
        result.transaction = m_origin->log.lastTransaction;
        result.numElements = m_origin->numElements;
        result.completed = backup.CopyFile(m_space.NumSlots());
    } else {
        const HoldScope hold(m_space);
        const CheckpointImage image = CheckpointForCopy();
        result.transaction = image.header.lastTransaction;
        result.numElements = static_cast<int64>(image.header.liveHead);
        result.completed = backup.CopyImage(image, m_space);
    }
    if (!result.completed) return {};
    target.SyncData();
    part.Publish();
    result.fileSize = backup.FileSize();
    result.bytesCopied = backup.BytesCopied();
    return result;
}

// --- compacting

BackupResult LssStore::CopyCompacted(ConstStringZ path, const BackupOptions& options) {
    CheckMayCopy();
    CopyGate::Pass pass(m_copies, path);
    StorePtr target; // owns the file of the part, and so ends after it
    auto core = std::make_unique<StoreCore>(m_core->m_file.Sys());
    core->m_settings.cleanerUtilisationPercent = 0;
    core->m_settings.flushTimeMilliSec = -1;
    PartFile part(core->m_file, path, options.replaceExisting);
    part.Open();

    const HoldScope hold(m_space);
    const StorePtr view = m_core->m_readOnly ? nullptr : OpenCheckpoint(CheckpointForCopy().header);
    const LssStore& source = view ? *view : *this;
    core->Attach(m_core->m_storeId, m_core->m_segmentSize);
    target.reset(new LssStore(std::move(core)));
    target->LayDownCopy(source);
    CompactingCopy copy(*source.m_core, source.m_index, options, m_copies);
    if (!copy.CopyElements(*target)) return {};
    target->FinishCopy(source);
    part.Publish();

    BackupResult result;
    result.completed = true;
    result.transaction = source.m_origin->log.lastTransaction;
    result.numElements = copy.NumElements();
    result.fileSize = target->m_core->m_file.Size();
    result.bytesCopied = copy.BytesCopied();
    return result;
}

// A second, read-only look at the same file, which sees the state of a checkpoint whose slots are held. It needs no lock of
// the file: this store has it.
LssStore::StorePtr LssStore::OpenCheckpoint(const CheckpointHeader& header) {
    auto core = std::make_unique<StoreCore>(m_core->m_file.Sys());
    core->m_readOnly = true;
    core->m_file.Open(m_core->m_file.Path(), EFileAccess::READ_ONLY);
    if (!m_core->m_file.IsStillNamed())
        throw FileException(
            ("Can't copy the store '" + m_core->m_file.Path() + "': the file has another name now").c_str());
    core->Attach(m_core->m_storeId, m_core->m_segmentSize);
    StorePtr view(new LssStore(std::move(core)));
    view->BecomeReadOnly(header, Recovery(*view->m_core, view->m_space, view->m_index, view->m_ring).RunAt(header));
    return view;
}

// As LayDown, but for what the copy takes over. No thread is started: nothing is cleaned, and the only checkpoint is that of
// FinishCopy.
void LssStore::LayDownCopy(const LssStore& source) {
    const CheckpointHeader& from = source.m_origin->header;
    const RecoveredLog& log = source.m_origin->log;
    CheckpointHeader before{};
    before.checkpointSequence = from.checkpointSequence;
    before.archivedUpTo = from.archivedUpTo;
    before.logClock = log.clock;
    m_space.Import(0, log.nextSequence);
    m_ring.BeginOwner(from.checkpointSequence, {}, log.nextHigh, log.nextSequence, true);
    m_allocator.Import(log.highs, log.ring, log.clean);
    m_checkpoint.Import(before, {});
    m_log.OpenFresh(log.clock, log.end.sequence);
    m_log.SetLastTransaction(NUMBERS_OF_COPYING);
}

// The transactions that brought the elements here do not count: the next one is the source's next.
void LssStore::FinishCopy(const LssStore& source) {
    const StoreCounters& from = source.m_core->m_counters;
    {
        TurnScope turn(m_log.Turn());
        m_log.SetLastTransaction(source.m_origin->log.lastTransaction);
        m_core->m_counters.numTransactions.store(from.numTransactions.load());
        m_core->m_counters.numCheckpoints.store(from.numCheckpoints.load());
        m_core->m_counters.numRecoveries.store(from.numRecoveries.load());
    }
    m_checkpoint.Run(Checkpoint::EReason::CLEAN_CLOSE);
    m_space.TrimEnd();
}

} // namespace quna

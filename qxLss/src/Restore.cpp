#include "qxLss/src/Restore.h"

#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/DeltaTransactions.h"
#include "qxLss/src/LssStore.h"
#include "qxLss/src/PartFile.h"
#include "qxLss/src/Recovery.h"
#include "qxLss/src/TimeText.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace quna {

namespace {

constexpr ssize_t COPY_BYTES = 1 << 20;

[[noreturn]] void Refuse(const std::string& newPath, const std::string& why) {
    throw FileException(("Can't restore the store '" + newPath + "': " + why).c_str());
}

std::string WithoutSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

struct Abandoner {
    void operator()(LssStore* store) const { store->Abandon(); }
};

// One restore. The copy of the base is an ordinary store, in which the transactions are repeated.
class Restorer {
public:
    Restorer(SysCalls& sys, const std::string& base, const std::string& deltas, RestoreTarget target,
             const std::string& newPath)
        : m_sys(sys), m_basePath(base), m_deltasPath(WithoutSlashes(deltas)), m_target(target), m_newPath(newPath),
          m_core(std::make_unique<StoreCore>(sys)), m_part(m_core->m_file, newPath, false, "restore the store") {}
    Restorer(const Restorer&) = delete;
    Restorer& operator=(const Restorer&) = delete;
    ~Restorer() = default;

    RestoredLss Run() {
        InstallForkGuard();
        const std::vector<uint64> deltas = ListDeltas();
        CopyBase();
        OpenCopy();
        for (auto next = FirstNeeded(deltas); next != deltas.end() && !m_isReached; ++next) Replay(*next);
        if (m_target.Kind() == RestoreTarget::EKind::TRANSACTION && !m_isReached)
            Refuse(m_newPath, "transaction " + std::to_string(m_target.Value()) +
                                  " is wanted, the last one that there is is " + std::to_string(m_reached));
        Finish();
        return {m_reached, m_time, m_numReplayed};
    }

private:
    std::vector<uint64> ListDeltas() const {
        std::vector<uint64> deltas;
        for (const std::string& name : ListDirectory(m_sys, m_deltasPath)) {
            if (const auto first = TransactionOfDeltaName(name)) deltas.push_back(*first);
        }
        return deltas; // names ascend as numbers do
    }

    // The last one that begins no later than behind what is reached. A gap is found when it is read.
    std::vector<uint64>::const_iterator FirstNeeded(const std::vector<uint64>& deltas) const {
        auto next = std::upper_bound(deltas.begin(), deltas.end(), m_reached + 1);
        if (next != deltas.begin()) --next;
        return next;
    }

    // The part is locked from its beginning until it has its name. Zeros are left out: what was free in the base takes no
    // room in the copy.
    void CopyBase() {
        File base(m_sys);
        if (!base.TryOpen(m_basePath, EFileAccess::READ_ONLY))
            Refuse(m_newPath, "its base '" + m_basePath + "' does not exist");
        if (!base.TryLock(false)) Refuse(m_newPath, "its base '" + m_basePath + "' is in use by an owner");
        if (IsCutShortCreation(base))
            Refuse(m_newPath, "the creation of its base '" + m_basePath + "' was cut short, so it counts as missing");
        m_part.Open();
        File& part = m_core->m_file;
        const int64 size = base.Size();
        part.Truncate(size);
        std::vector<octet_t> bytes(static_cast<size_t>(std::min<int64>(size, COPY_BYTES)));
        for (int64 at = 0; at < size;) {
            const ssize_t n = base.ReadUpTo(at, bytes.data(), std::ssize(bytes));
            if (n == 0) break;
            const auto end = bytes.begin() + n;
            if (std::find_if(bytes.begin(), end, [](octet_t b) { return b != 0; }) != end)
                part.Write(at, bytes.data(), n);
            at += n;
        }
        part.SyncData();
    }

    void OpenCopy() {
        m_core->m_settings.flushTimeMilliSec = -1; // the end syncs
        try {
            m_store.reset(LssStore::OpenLocked(std::move(m_core)));
            m_store->StartThreads();
        } catch (const CorruptLSSException& e) {
            throw CorruptLSSException(("The base '" + m_basePath + "' can't be used. " + e.GetMessage()).c_str());
        }
        m_reached = m_store->LastTransaction();
        m_time = m_store->TimeOfLastTransaction();
        const uint64 wanted = m_target.Value();
        if (m_target.Kind() == RestoreTarget::EKind::TRANSACTION && m_reached > wanted)
            Refuse(m_newPath, "transaction " + std::to_string(wanted) + " is wanted, and its base '" + m_basePath +
                                  "' already has transaction " + std::to_string(m_reached));
        if (m_target.Kind() == RestoreTarget::EKind::TIME && m_time > wanted)
            Refuse(m_newPath, "the time " + TimeText(wanted) + " is wanted, and its base '" + m_basePath +
                                  "' already has transaction " + std::to_string(m_reached) + " of " + TimeText(m_time));
        m_isReached = m_target.Kind() == RestoreTarget::EKind::TRANSACTION && m_reached == wanted;
    }

    void Replay(uint64 first) {
        const DeltaFile delta(m_sys, m_deltasPath + "/" + DeltaName(first));
        CheckFollows(delta);
        DeltaTransactions transactions(delta);
        DeltaTransaction transaction;
        bool raised = false;
        while (!m_isReached && transactions.Next(transaction)) {
            if (transaction.number <= m_reached) {
                if (transaction.number == m_reached) CheckTime(delta, transaction.time, transaction.fileOffset);
                continue;
            }
            if (m_target.Kind() == RestoreTarget::EKind::TIME && transaction.time > m_target.Value()) {
                m_isReached = true;
                return;
            }
            // All identifiers of the delta's time, since it does not say when each was handed out.
            if (!std::exchange(raised, true)) m_store->RaiseHorizons(delta.Horizons(), delta.Closing().nextHigh);
            Repeat(delta, transaction);
            m_isReached = m_target.Kind() == RestoreTarget::EKind::TRANSACTION && m_reached == m_target.Value();
        }
    }

    void CheckFollows(const DeltaFile& delta) {
        const DeltaHeader& header = delta.Header();
        const StoreCore& base = m_store->Core();
        if (header.storeId != base.m_storeId)
            delta.ThrowDamaged("the store id", offsetof(DeltaHeader, storeId), "that of another store",
                               "that of the base '" + m_basePath + "'");
        if (header.segmentSize != base.m_segmentSize)
            delta.ThrowDamaged("the segment size", offsetof(DeltaHeader, segmentSize),
                               std::to_string(header.segmentSize), std::to_string(base.m_segmentSize));
        if (header.previousTransaction > m_reached)
            delta.ThrowDamaged("the archive has a gap; the transaction before",
                               offsetof(DeltaHeader, previousTransaction), std::to_string(header.previousTransaction),
                               std::to_string(m_reached) + ", the last one that there is");
        if (header.previousTransaction == m_reached)
            CheckTime(delta, header.previousTime, offsetof(DeltaHeader, previousTime));
    }

    // A transaction is known again by number and time. Where they differ the store was put back once and has gone on in
    // another way.
    void CheckTime(const DeltaFile& delta, uint64 time, int64 offset) {
        if (m_time && time && m_time != time)
            delta.ThrowDamaged("another history of the store: the time of transaction " + std::to_string(m_reached),
                               offset, TimeText(time), TimeText(m_time));
        if (!m_time) m_time = time;
    }

    void Repeat(const DeltaFile& delta, const DeltaTransaction& transaction) {
        AutoCloser<ILssTransaction> txn(m_store->OpenTransaction());
        txn->RequestDropWhenUnwinding();
        for (const DeltaOperation& operation : transaction.operations) {
            if (operation.seid.high_ == 0 || operation.seid.high_ >= delta.Closing().nextHigh)
                delta.ThrowDamaged("the high half of an element's key", operation.fileOffset,
                                   std::to_string(operation.seid.high_),
                                   "1 to " + std::to_string(delta.Closing().nextHigh - 1));
            if (operation.isDeletion) {
                if (!txn->DeleteSerialElement(operation.seid))
                    delta.ThrowDamaged("a deletion", operation.fileOffset, "no such element", "one that exists");
                continue;
            }
            AutoCloser<ICloseableOutputStream> os(txn->WriteSerialElement(operation.seid));
            for (const DeltaBytes& piece : operation.pieces) os->WriteStream(piece.bytes, piece.size);
            os.Close();
        }
        m_store->SetTimeOfNextCommit(transaction.time);
        txn.Close();
        if (m_store->LastTransaction() != transaction.number)
            delta.ThrowDamaged("a transaction", transaction.fileOffset, "nothing that changes the store", "a change");
        m_reached = transaction.number;
        m_time = transaction.time;
        ++m_numReplayed;
    }

    void Finish() {
        m_store->FinishRestore();
        m_part.Publish();
    }

    SysCalls& m_sys;
    const std::string m_basePath;
    const std::string m_deltasPath;
    const RestoreTarget m_target;
    const std::string m_newPath;
    std::unique_ptr<StoreCore> m_core; // null: the store has it
    std::unique_ptr<LssStore, Abandoner> m_store;
    PartFile m_part; // behind the two that own its file
    bool m_isReached = false;
    uint64 m_reached = 0; // transaction
    uint64 m_time = 0;    // of its commit, 0: not known
    uint64 m_numReplayed = 0;
};

void CheckArguments(ConstStringZ basePath, ConstStringZ deltasDirPath, ConstStringZ newPath) {
    if (!basePath || !*basePath) throw FileException("Can't restore a store: the path of its base is empty");
    if (!deltasDirPath || !*deltasDirPath)
        throw FileException("Can't restore a store: the path of its deltas is empty");
    if (!newPath || !*newPath) throw FileException("Can't restore a store: the path of the new file is empty");
}

} // namespace

RestoredLss RestoreLss(ConstStringZ basePath, ConstStringZ deltasDirPath, RestoreTarget target, ConstStringZ newPath) {
    return RestoreLssForTest(RealSysCalls(), basePath, deltasDirPath, target, newPath);
}

RestoredLss RestoreLssForTest(SysCalls& sys, ConstStringZ basePath, ConstStringZ deltasDirPath, RestoreTarget target,
                              ConstStringZ newPath) {
    CheckArguments(basePath, deltasDirPath, newPath);
    return Restorer(sys, basePath, deltasDirPath, target, newPath).Run();
}

} // namespace quna

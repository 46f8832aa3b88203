#include "tests/support/LabStore.h"

#include "qxUtils/AutoCloser.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <stdexcept>
#include <string_view>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "d/store";

class Builder {
public:
    Builder(ELabKind kind, uint64 seed, int64 bytes, int segmentSize)
        : m_kind(kind), m_bytes(bytes), m_segmentSize(segmentSize), m_random(seed) {
        m_result.kind = kind;
        m_result.seed = seed;
        m_result.segmentSize = segmentSize;
    }

    LabStore Build() {
        bool createdNew = false;
        m_store = static_cast<LssStore*>(OpenLssForTest(m_sys, PATH, nullptr, createdNew, OM_CREATE_NEW,
                                                        LabSettings(m_segmentSize), EBackground::NONE));
        m_store->AllocateSeidHigh();
        m_store->AllocateSeidHigh();
        const bool isNew = m_kind == ELabKind::NEW;
        const int64 tail = isNew ? 0 : std::max<int64>(m_bytes / 32, 6 * m_segmentSize);
        while (Size() < m_bytes - tail) {
            Transaction(Pick(4) == 0);
            if (!isNew && Pick(40) == 0) Maintain();
        }
        Keep();
        if (!isNew) Maintain();
        Keep();
        if (m_kind == ELabKind::KILLED || m_kind == ELabKind::LONG_TRANSACTIONS) Tail(tail);
        if (isNew || m_kind == ELabKind::KILLED) {
            for (int i = 0; i < 4; ++i) Transaction(i == 1);
        }
        m_result.numTransactions = m_result.before.size();
        m_result.last = m_state;
        m_result.seids.assign(m_known.begin(), m_known.end());
        if (m_kind == ELabKind::CLEAN)
            m_store->Close();
        else
            m_store->Abandon();
        m_result.file = m_sys.CachedImage().at(PATH);
        return std::move(m_result);
    }

private:
    uint64 Pick(uint64 limit) { return m_random() % limit; }

    int64 Size() {
        LssStats stats;
        m_store->GetStats(stats);
        return stats.fileSize;
    }

    void Keep() { m_result.earlier.push_back(m_sys.CachedImage().at(PATH)); }

    void Maintain() {
        m_store->CleanForTest(4);
        m_store->CheckpointForTest();
    }

    // The part of the log behind the last checkpoint, about `bytes` long.
    void Tail(int64 bytes) {
        const int64 start = static_cast<int64>(m_store->LogForTest().Clock());
        const bool isLong = m_kind == ELabKind::LONG_TRANSACTIONS;
        while (static_cast<int64>(m_store->LogForTest().Clock()) < start + bytes) {
            Transaction(true);
            if (isLong) LongTransaction();
            if (!isLong && Pick(8) == 0) m_store->CleanForTest(1);
        }
        if (isLong) Transaction(true);
    }

    // Its COMMIT comes only many segments later.
    void LongTransaction() {
        AutoCloser<ILssTransaction> transaction(m_store->OpenTransaction());
        Begin();
        for (int i = 0; i < 24; ++i) Write(*transaction.Get(), NewSeid(), m_segmentSize / 5);
        transaction->RequestFlushToDisk();
        transaction.Close();
    }

    void Transaction(bool flush) {
        AutoCloser<ILssTransaction> transaction(m_store->OpenTransaction());
        Begin();
        if (flush) transaction->RequestFlushToDisk();
        Write(*transaction.Get(), SomeSeid(), RandomSize());
        for (uint64 i = Pick(5); i > 0; --i) {
            if (Pick(4) == 0)
                Delete(*transaction.Get());
            else
                Write(*transaction.Get(), SomeSeid(), RandomSize());
        }
        transaction.Close();
    }

    int64 RandomSize() {
        const uint64 kind = Pick(24);
        if (kind == 0) return static_cast<int64>(Pick(static_cast<uint64>(3 * m_segmentSize)));
        if (kind < 4) return static_cast<int64>(Pick(static_cast<uint64>(m_segmentSize / 4)));
        return static_cast<int64>(Pick(1200));
    }

    Seid NewSeid() {
        const Seid seid = m_store->AllocateSeid(1 + static_cast<SeidHigh>(Pick(2)));
        m_known.insert(seid.value_);
        return seid;
    }

    Seid SomeSeid() {
        if (m_state.empty() || Pick(3) == 0) return NewSeid();
        auto at = m_state.lower_bound(
            Seid(static_cast<SeidLow>(Pick(m_known.size())), 1 + static_cast<SeidHigh>(Pick(2))).value_);
        return Seid(at == m_state.end() ? m_state.begin()->first : at->first);
    }

    void Begin() { m_result.before.emplace_back(); }

    void Change(uint64 seid, uint64 hash) {
        const auto now = m_state.find(seid);
        m_result.before.back().try_emplace(seid, now == m_state.end() ? 0 : now->second);
        if (hash)
            m_state[seid] = hash;
        else
            m_state.erase(seid);
    }

    void Delete(ILssTransaction& transaction) {
        const Seid seid = SomeSeid();
        if (transaction.DeleteSerialElement(seid)) Change(seid.value_, 0);
    }

    void Write(ILssTransaction& transaction, Seid seid, int64 size) {
        FileBytes bytes(static_cast<size_t>(size));
        const uint64 pattern = m_random();
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<octet_t>(pattern >> (i % 8 * 8) ^ (i / 8));
        AutoCloser<ICloseableOutputStream> stream(transaction.WriteSerialElement(seid));
        stream->WriteStream(bytes.data(), size);
        stream.Close();
        Change(seid.value_, LabHash({bytes.data(), size}));
    }

    const ELabKind m_kind;
    const int64 m_bytes;
    const int m_segmentSize;
    std::mt19937_64 m_random;
    SimSys m_sys;
    LssStore* m_store = nullptr;
    std::map<uint64, uint64> m_state;
    std::set<uint64> m_known;
    LabStore m_result;
};

CheckpointHeader HeaderAt(const FileBytes& file, int64 offset) {
    CheckpointHeader header{};
    std::memcpy(static_cast<void*>(&header), file.data() + offset, sizeof header);
    const bool valid = header.crc == Crc32c(&header, offsetof(CheckpointHeader, crc));
    return valid ? header : CheckpointHeader{};
}

// Reads the file by itself, without the store's code for it.
void FindMarks(LabStore& store) {
    const FileBytes& file = store.file;
    const CheckpointHeader a = HeaderAt(file, 0);
    const CheckpointHeader b = HeaderAt(file, 4096);
    const bool useB = b.checkpointSequence > a.checkpointSequence;
    store.header = useB ? b : a;
    store.headerRange = useB ? LabRange{4096, 8192} : LabRange{0, 4096};
    store.clean = store.header.flags & HEADER_FLAG_CLEAN;
    for (int64 at = 8192; at < FRONT_AREA_BYTES; at += 4096) {
        const bool named = ReadPod<uint64>(file.data() + at + 32) == store.header.checkpointSequence;
        if (std::memcmp(file.data() + at, "LSSALLOC", 8) == 0 && named) store.vouching.push_back({at, at + 4096});
    }

    const int64 dataStart = DataStart(store.segmentSize);
    int64 segment = dataStart + store.header.startSlot * store.segmentSize;
    int64 pos = store.header.startOffset;
    LabRange link{};
    for (;;) {
        const SegmentHeader s = ReadPod<SegmentHeader>(file.data() + segment);
        const octet_t* const p = file.data() + segment + pos;
        if (pos + PACKET_HEADER_BYTES > store.segmentSize) break;
        const PacketHeader packet = ReadPod<PacketHeader>(p);
        const ssize_t bytes = PacketBytes(packet.info);
        if (pos + bytes > store.segmentSize ||
            PacketCrc(SegmentCrcSeed(store.header.storeId, s.sequence), static_cast<uint32>(pos), p,
                      PayloadBytes(packet.info)) != packet.crc)
            break;
        const LabRange range{segment + pos, segment + pos + bytes};
        pos += bytes;
        if (PacketType(packet.info) == EPacketType::COMMIT) {
            const CommitPayload commit = ReadPod<CommitPayload>(p + PACKET_HEADER_BYTES);
            store.commits.push_back({range,
                                     {segment, segment + SEGMENT_HEADER_BYTES},
                                     link,
                                     packet.key,
                                     s.clockAtOpening + static_cast<uint64>(pos),
                                     commit.durableUpTo});
        } else if (PacketType(packet.info) == EPacketType::LINK) {
            link = range;
            segment = dataStart + ReadPod<LinkPayload>(p + PACKET_HEADER_BYTES).slot * store.segmentSize;
            pos = SEGMENT_HEADER_BYTES;
        }
    }
    const uint64 found = store.commits.empty() ? store.header.lastTransaction : store.commits.back().transaction;
    if (found != store.numTransactions) throw std::logic_error("LabStore: the file is not what was written");
}

} // namespace

const char* NameOf(ELabKind kind) {
    constexpr const char* NAMES[] = {"clean", "killed", "new", "long transactions"};
    return NAMES[static_cast<size_t>(kind)];
}

uint64 LabHash(const ReadOnlyBuffer& bytes) {
    const std::string_view view(reinterpret_cast<const char*>(bytes.buffer), static_cast<size_t>(bytes.size));
    return (std::hash<std::string_view>()(view) ^ static_cast<uint64>(bytes.size)) | 1;
}

LssSettings LabSettings(int segmentSize) {
    LssSettings settings;
    settings.segmentSize = segmentSize;
    settings.flushTimeMilliSec = -1;
    settings.numSegmentsPerCheckPoint = 1 << 20;
    settings.cleanerUtilisationPercent = 0;
    return settings;
}

uint64 LabStore::Floor(const std::vector<LabRange>& touched) const {
    const auto isTouched = [&](const LabRange& range) {
        return std::any_of(touched.begin(), touched.end(), [&](const LabRange& t) { return t.Meets(range); });
    };
    if (isTouched(headerRange) && std::all_of(vouching.begin(), vouching.end(), isTouched)) return 0;
    if (clean) return numTransactions;
    uint64 mark = 0;
    for (const LabCommit& commit : commits) {
        const bool isFound = !isTouched(commit.segmentHeader) || (commit.link.to > 0 && !isTouched(commit.link));
        if (isFound && !isTouched(commit.packet)) mark = std::max(mark, commit.durableUpTo);
    }
    uint64 floor = header.lastTransaction;
    for (const LabCommit& commit : commits)
        if (commit.endClock <= mark) floor = std::max(floor, commit.transaction);
    return floor;
}

LabStore BuildLabStore(ELabKind kind, uint64 seed, int64 bytes, int segmentSize) {
    LabStore store = Builder(kind, seed, bytes, segmentSize).Build();
    FindMarks(store);
    return store;
}

} // namespace quna

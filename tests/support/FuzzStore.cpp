#include "tests/support/FuzzStore.h"

#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/AllocRing.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace quna {

// --- files

namespace {

constexpr int64 MAX_FUZZ_FILE = int64{4} << 20;
constexpr int64 MEMORY_ALLOWANCE = int64{96} << 20;
constexpr ssize_t MAX_ELEMENTS_READ = 500;
constexpr ssize_t MAX_OPERATIONS = 24;

template <class T>
T Take(const octet_t*& p, const octet_t* end) {
    T x{};
    const size_t n = std::min(sizeof x, static_cast<size_t>(end - p));
    std::memcpy(&x, p, n);
    p += n;
    return x;
}

template <class T>
void Put(std::vector<octet_t>& bytes, T x) {
    const auto* p = reinterpret_cast<const octet_t*>(&x);
    bytes.insert(bytes.end(), p, p + sizeof x);
}

bool IsZero(const octet_t* p, ssize_t n) {
    return std::all_of(p, p + n, [](octet_t b) { return b == 0; });
}

} // namespace

void DecodeSparseFile(const octet_t* p, ssize_t n, FuzzSys& sys) {
    struct Piece {
        int64 offset;
        const octet_t* p;
        ssize_t n;
    };
    static std::vector<Piece> pieces;
    pieces.clear();
    const octet_t* const end = p + n;
    int64 size = 0;
    while (p != end) {
        const int64 gap = int64{Take<uint16>(p, end)} * 8;
        const ssize_t stated = Take<uint16>(p, end);
        const ssize_t length = std::min(stated, end - p);
        if (size + gap + length > MAX_FUZZ_FILE) break;
        pieces.push_back({size + gap, p, length});
        size += gap + length;
        p += length;
    }
    sys.SetZeros(size);
    for (const Piece& piece : pieces) sys.Put(piece.offset, piece.p, piece.n);
}

std::vector<octet_t> EncodeSparseFile(const FileBytes& file) {
    constexpr ssize_t LEAST_GAP = 16;
    std::vector<octet_t> bytes;
    const ssize_t size = std::ssize(file);
    const auto isGap = [&](ssize_t at) { return at + LEAST_GAP <= size && IsZero(file.data() + at, LEAST_GAP); };
    ssize_t at = 0;
    while (at < size) {
        ssize_t from = at;
        while (from < size && isGap(from)) from += 8;
        const ssize_t gap = std::min<ssize_t>((from - at) / 8, 0xFFFF);
        Put(bytes, static_cast<uint16>(gap));
        at += gap * 8;
        ssize_t to = at;
        while (to < size && to - at < 0xFFF8 && !isGap(to)) to = std::min(to + 8, size);
        Put(bytes, static_cast<uint16>(to - at));
        bytes.insert(bytes.end(), file.begin() + at, file.begin() + to);
        at = to;
    }
    return bytes;
}

namespace {

// A file whose bytes are changed by poke(offset, bytes, n).
template <class Poke>
class ChecksumFixer {
public:
    ChecksumFixer(const octet_t* file, int64 size, Poke poke) : m_file(file), m_size(size), m_poke(poke) {}

    void Run() {
        StoreId storeId{};
        ssize_t segmentSize = 0;
        for (const int64 offset : {int64{4096}, int64{0}}) {
            if (!Has(offset, sizeof(CheckpointHeader)) || !StartsWith(offset, CHECKPOINT_MAGIC)) continue;
            const auto header = ReadPod<CheckpointHeader>(m_file + offset);
            PokeCrc(offset + int64{offsetof(CheckpointHeader, crc)},
                    Crc32c(m_file + offset, offsetof(CheckpointHeader, crc)));
            storeId = header.storeId;
            segmentSize = static_cast<ssize_t>(header.segmentSize);
        }
        for (int i = 0; i < AllocRing::NUM_BLOCKS; ++i) {
            const int64 at = AllocRing::FILE_OFFSET + i * AllocRingBlock::BYTES;
            if (!Has(at, AllocRingBlock::BYTES) || IsZero(m_file + at, 8)) continue;
            PokeCrc(at + AllocRingBlock::BYTES - 4, Crc32c(m_file + at, AllocRingBlock::BYTES - 4));
        }
        if (segmentSize < MIN_TEST_SEGMENT_SIZE || segmentSize > MAX_SEGMENT_SIZE) return;
        for (int64 offset = DataStart(segmentSize); Has(offset, sizeof(SegmentHeader)); offset += segmentSize) {
            if (!StartsWith(offset, SEGMENT_MAGIC)) continue;
            const auto header = ReadPod<SegmentHeader>(m_file + offset);
            PokeCrc(offset + int64{offsetof(SegmentHeader, crc)},
                    Crc32c(m_file + offset, offsetof(SegmentHeader, crc)));
            FixPackets(offset, std::min<int64>(segmentSize, m_size - offset), SegmentCrcSeed(storeId, header.sequence));
        }
    }

private:
    bool Has(int64 offset, size_t n) const { return offset + static_cast<int64>(n) <= m_size; }
    bool StartsWith(int64 offset, const char* magic) const { return std::memcmp(m_file + offset, magic, 8) == 0; }
    void PokeCrc(int64 offset, uint32 crc) const {
        m_poke(offset, reinterpret_cast<const octet_t*>(&crc), ssize_t{sizeof crc});
    }

    void FixPackets(int64 segment, ssize_t size, uint32 seed) const {
        ssize_t pos = SEGMENT_HEADER_BYTES;
        while (pos + PACKET_HEADER_BYTES <= size) {
            const uint32 info = ReadPod<PacketHeader>(m_file + segment + pos).info;
            if (info == 0) {
                pos += PACKET_ALIGNMENT;
                continue;
            }
            const ssize_t bytes = PacketBytes(info);
            if (pos + bytes > size) return;
            PokeCrc(segment + pos,
                    PacketCrc(seed, static_cast<uint32>(pos), m_file + segment + pos, PayloadBytes(info)));
            pos += bytes;
        }
    }

    const octet_t* const m_file;
    const int64 m_size;
    const Poke m_poke;
};
static_assert(offsetof(PacketHeader, crc) == 0);

} // namespace

void MakeChecksumsRight(FileBytes& file) {
    ChecksumFixer(file.data(), std::ssize(file), [&](int64 offset, const octet_t* p, ssize_t n) {
        std::copy(p, p + n, file.begin() + offset);
    }).Run();
}

void MakeChecksumsRight(FuzzSys& sys) {
    ChecksumFixer(sys.Bytes(), sys.FileSize(), [&](int64 offset, const octet_t* p, ssize_t n) {
        sys.Put(offset, p, n);
    }).Run();
}

// --- use

LssSettings FuzzSettings(bool validate, bool clean) {
    LssSettings settings;
    settings.segmentSize = 4096;
    settings.flushTimeMilliSec = -1;
    settings.numSegmentsPerCheckPoint = 1 << 20;
    settings.maxNumSegmentsInCache = 8;
    settings.validateSUTDuringCheckPoint = validate;
    settings.cleanerUtilisationPercent = clean ? 85 : 0;
    return settings;
}

LssStore* OpenFuzzStore(FuzzSys& sys, EOpenMode mode, bool& createdNew, const LssSettings& settings) {
    return static_cast<LssStore*>(
        OpenLssForTest(sys, FUZZ_PATH, nullptr, createdNew, mode, settings, EBackground::NONE));
}

namespace {

// Runs one act. Its exception may be one of those that a damaged file may end in.
bool Try(const std::function<void()>& act) {
    try {
        act();
        return true;
    } catch (const CorruptLSSException&) {
        return false;
    } catch (const FileException&) {
        return false;
    }
}

struct Abandoner {
    void operator()(LssStore* store) const { store->Abandon(); }
};
using StorePtr = std::unique_ptr<LssStore, Abandoner>;

StorePtr TryOpen(FuzzSys& sys, const FuzzUse& use) {
    StorePtr store;
    const EOpenMode mode = use.readOnly ? OM_OPEN_EXISTING_READ_ONLY : OM_OPEN_EXISTING;
    Try([&] {
        bool createdNew = false;
        store.reset(OpenFuzzStore(sys, mode, createdNew, FuzzSettings(use.validate, use.clean)));
    });
    return store;
}

// Reads every byte, by a function that the sanitizer checks as a whole.
void Read(const octet_t* p, ssize_t n) {
    static octet_t s_copy[65536];
    for (ssize_t at = 0; at < n;) {
        const ssize_t part = std::min<ssize_t>(n - at, sizeof s_copy);
        std::memmove(s_copy, p + at, static_cast<size_t>(part));
        at += part;
    }
    asm volatile("" : : "r"(s_copy) : "memory"); // so that it is done
}

// All elements, to the last of the bytes that may be read.
std::vector<Seid> ReadAll(LssStore& store) {
    std::vector<Seid> seids;
    Try([&] {
        store.VisitElements([&](Seid seid, Location) {
            if (std::ssize(seids) < MAX_ELEMENTS_READ) seids.push_back(seid);
        });
    });
    for (const Seid seid : seids) {
        Try([&] {
            AutoCloser<IContiguousSerialElement> element(store.OpenSerialElement(seid));
            if (!element) return;
            const ReadOnlyBuffer buffer = element->GetBuffer();
            Read(buffer.buffer, buffer.size + ELEMENT_TAIL_BYTES);
            element.Close();
        });
    }
    return seids;
}

void WriteSome(LssStore& store, const std::vector<Seid>& seids) {
    Try([&] {
        AutoCloser<ILssTransaction> transaction(store.OpenTransaction());
        int n = 0;
        for (const Seid seid : seids) {
            if (++n > 6) break;
            if (n % 2) {
                transaction->DeleteSerialElement(seid);
                continue;
            }
            AutoCloser<ICloseableOutputStream> stream(transaction->WriteSerialElement(seid));
            const std::vector<octet_t> bytes(static_cast<size_t>(n * 300), 7);
            stream->WriteStream(bytes.data(), std::ssize(bytes));
            stream.Close();
        }
        transaction.Close();
    });
    Try([&] {
        const SeidHigh high = store.AllocateSeidHigh();
        Seid seid = store.AllocateSeid(high);
        store.AllocateAffiliateSeid(seid);
        AutoCloser<ILssTransaction> transaction(store.OpenTransaction());
        transaction->RequestFlushToDisk();
        AutoCloser<ICloseableOutputStream> stream(transaction->WriteSerialElement(seid));
        stream->WriteStream("new", 3);
        stream.Close();
        transaction.Close();
    });
}

void Maintain(LssStore& store) {
    Try([&] { store.CheckpointForTest(); });
    Try([&] { store.CleanForTest(4); });
    Try([&] { store.BackgroundForTest(); });
    Try([&] { store.ShrinkForTest(); });
}

void Operate(LssStore& store, octet_t byte, const std::vector<Seid>& seids, bool readOnly) {
    const size_t which = byte >> 4;
    const Seid seid = seids.empty() ? Seid(2, 1) : seids[which * 7 % seids.size()];
    if (readOnly && (byte & 15) < 4) return; // a read-only store does none of that
    switch (byte & 15) {
    case 0: Try([&] { store.CheckpointForTest(); }); break;
    case 1: Try([&] { store.CleanForTest(1 + static_cast<ssize_t>(which)); }); break;
    case 2: Try([&] { store.BackgroundForTest(); }); break;
    case 3: Try([&] { store.ShrinkForTest(); }); break;
    case 4: Try([&] { store.Validate(); }); break;
    case 5: ReadAll(store); break;
    case 6: Try([&] { store.Flush(); }); break;
    case 7: WriteSome(store, seids); break;
    case 8: Try([&] { store.AllocateSeidHigh(); }); break;
    case 9:
        Try([&] {
            Seid near = seid;
            store.AllocateAffiliateSeid(near);
        });
        break;
    default:
        Try([&] {
            AutoCloser<ILssTransaction> transaction(store.OpenTransaction());
            if (byte & 1) {
                transaction->DeleteSerialElement(seid);
            } else {
                AutoCloser<ICloseableOutputStream> stream(transaction->WriteSerialElement(seid));
                const std::vector<octet_t> bytes(which * which * 60, 9);
                stream->WriteStream(bytes.data(), std::ssize(bytes));
                stream.Close();
            }
            transaction.Close();
        });
        break;
    }
}

} // namespace

void UseDamagedStore(FuzzSys& sys, const FuzzUse& use, const octet_t* ops, ssize_t numOps) {
    ResetPeakMemory();
    const int64 fileSize = sys.FileSize();
    StorePtr store = TryOpen(sys, use);
    if (!store) {
        FuzzRequire(sys.NumChanges() == 0, "a refused open has changed the file");
    } else {
        const std::vector<Seid> seids = ReadAll(*store);
        LssStats stats{};
        store->GetStats(stats);
        Try([&] { store->Validate(); });
        if (use.write) WriteSome(*store, seids);
        if (use.maintain && !use.readOnly) Maintain(*store);
        for (ssize_t i = 0; i < std::min(numOps, MAX_OPERATIONS); ++i) Operate(*store, ops[i], seids, use.readOnly);
        store.release()->Close();
        if (use.readOnly) FuzzRequire(sys.NumChanges() == 0, "a read-only store has changed the file");
        if (use.reopen)
            if (const StorePtr again = TryOpen(sys, use)) ReadAll(*again);
    }
    FuzzRequire(PeakMemory() <= 4 * std::max(fileSize, sys.FileSize()) + MEMORY_ALLOWANCE,
                "the memory in use is out of proportion to the file");
}

} // namespace quna

// Every single bit of a store's file is turned over; the store is opened and all elements are read. Wrong content must
// never be given, and no durable transaction may be missing without an error.
//
// How every bit can be tried: a bit that opening does not read can't change what it finds, so there one open store serves:
// the element that the bit lies in is read again. Bytes that neither opening nor any element reads are turned over 64 at a
// time, each time with an open and a reading of everything.
#include "tests/support/DamageLab.h"
#include "tests/support/MeteredNew.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimJobs.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace quna {
namespace {

constexpr int64 IDLE_BYTES = 64; // turned over at once where nobody reads

struct Share {
    int64 part; // of `of` parts, the places that are tried: byte % of == part
    int64 of;
};

class Sweep {
public:
    Sweep(const LabStore& store, LabTotals& totals) : m_store(store), m_lab(store), m_totals(totals) {}

    // Every bit, for reading; of those in what opening reads the share.
    void Read(const Share& share) {
        const std::vector<LabRange> opened = m_lab.ReadByOpen();
        std::vector<LabRange> fresh = opened;
        for (const DamageLab::Packet& packet : m_lab.ReadLater())
            if (packet.seid == 0) fresh.push_back(packet.range);
        std::sort(fresh.begin(), fresh.end(), [](const LabRange& a, const LabRange& b) { return a.from < b.from; });
        int64 done = 0;
        for (const LabRange& range : fresh) {
            for (int64 at = std::max(range.from, done); at < std::min(range.to, Size()); ++at)
                if (at % share.of == share.part) FlipFresh(at);
            done = std::max(done, range.to);
        }
        TryElements(opened, share);
        TryIdle(fresh, share);
    }

    // The bits of what opening reads, for writing.
    void Write(const Share& share) {
        for (const LabRange& range : m_lab.ReadByOpen()) {
            for (int64 at = range.from; at < std::min(range.to, Size()); ++at) {
                if (at % share.of != share.part) continue;
                for (int bit = 0; bit < 8; ++bit) {
                    Flip(at, bit);
                    m_lab.TryWriting(m_totals, m_where);
                }
            }
        }
    }

    void One(int64 at, int bit) {
        Flip(at, bit);
        m_lab.TryReading(m_totals, m_where);
        m_lab.TryWriting(m_totals, m_where);
    }

    int64 NumIdleBits() const { return m_idleBits; }

private:
    int64 Size() const { return std::ssize(m_store.file); }

    std::string Where(int64 at, int bit) const {
        return "--replay " + std::to_string(m_store.seed) + "," + std::to_string(at) + "," +
               std::to_string(static_cast<int>(m_store.kind) * 8 + bit) + " (file of " + std::to_string(Size()) +
               " bytes)";
    }

    void Flip(int64 at, int bit) {
        m_at = at;
        m_bit = bit;
        m_lab.Flip(at, bit);
    }

    void FlipFresh(int64 at) {
        for (int bit = 0; bit < 8; ++bit) {
            Flip(at, bit);
            m_lab.TryReading(m_totals, m_where);
            m_lab.Undo();
        }
    }

    void TryElements(const std::vector<LabRange>& opened, const Share& share) {
        m_lab.Share();
        size_t i = 0;
        for (const DamageLab::Packet& packet : m_lab.ReadLater()) {
            if (packet.seid == 0) continue;
            for (int64 at = packet.range.from; at < packet.range.to; ++at) {
                while (i < opened.size() && opened[i].to <= at) ++i;
                const bool isOpened = i < opened.size() && opened[i].from <= at;
                if (isOpened || at % share.of != share.part) continue;
                for (int bit = 0; bit < 8; ++bit) {
                    Flip(at, bit);
                    m_lab.TryElement(m_totals, packet.seid, m_where);
                    m_lab.Undo();
                }
            }
        }
    }

    void TryIdle(std::vector<LabRange> read, const Share& share) {
        for (const DamageLab::Packet& packet : m_lab.ReadLater()) read.push_back(packet.range);
        std::sort(read.begin(), read.end(), [](const LabRange& a, const LabRange& b) { return a.from < b.from; });
        read.push_back({Size(), Size()});
        int64 at = 0;
        for (const LabRange& range : read) {
            while (at < range.from) {
                const int64 n = std::min(IDLE_BYTES, range.from - at);
                if (at / IDLE_BYTES % share.of == share.part) TurnOver(at, n);
                at += n;
            }
            at = std::max(at, range.to);
        }
    }

    void TurnOver(int64 at, int64 n) {
        FileBytes bytes(m_store.file.begin() + at, m_store.file.begin() + at + n);
        for (octet_t& byte : bytes) byte = static_cast<octet_t>(~byte);
        m_lab.Replace(at, bytes);
        const LabWhere where = [&] { return Where(at, 0) + ", all bits of " + std::to_string(n) + " bytes"; };
        if (m_lab.TryReading(m_totals, where) == ELabVerdict::HARMLESS) m_idleBits += 8 * n;
        m_lab.Undo();
    }

    const LabStore& m_store;
    DamageLab m_lab;
    LabTotals& m_totals;
    int64 m_idleBits = 0;
    int64 m_at = 0; // the bit that is turned over
    int m_bit = 0;
    const LabWhere m_where = [this] { return Where(m_at, m_bit); };
};

struct Totals {
    LabTotals reading;
    LabTotals writing;
    int64 idle = 0;

    void Add(const Totals& other) {
        reading.Add(other.reading);
        writing.Add(other.writing);
        idle += other.idle;
    }
};

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    Totals totals;
    // At full scale every bit of files of 4 MiB; without a checkpoint, when opening reads all of it, of 512 KiB. A long run
    // can be cut into pieces: --replay piece,pieces,kind.
    const bool full = arguments.scale >= 100;
    const int64 bytes = full ? 4194304 : 196608;
    const int segment = full ? 16384 : 4096;
    const auto sweep = [&](ELabKind kind, const Share& share) {
        const int64 size = kind == ELabKind::NEW ? std::min<int64>(bytes, 524288) : bytes;
        const LabStore store = BuildLabStore(kind, arguments.seed, size, segment);
        totals.Add(RunJobs<Totals>(arguments.jobs, [&](int job, int jobs) {
            const Share mine{share.part + share.of * job, share.of * jobs};
            Totals found;
            Sweep one(store, found.reading);
            one.Read(mine);
            found.idle = one.NumIdleBits();
            Sweep(store, found.writing).Write({mine.part, mine.of * (full ? 32 : 2)});
            return found;
        }));
    };
    if (arguments.replay && !full) {
        const auto kind = static_cast<ELabKind>(arguments.replayVariant / 8);
        const LabStore store = BuildLabStore(kind, arguments.replaySeed, bytes, segment);
        Sweep(store, totals.reading).One(arguments.replayPoint, static_cast<int>(arguments.replayVariant % 8));
    } else if (arguments.replay) {
        sweep(static_cast<ELabKind>(arguments.replayVariant),
              {static_cast<int64>(arguments.replaySeed), arguments.replayPoint});
    } else {
        const int64 of = full || arguments.scale >= 10 ? 1 : 997;
        for (int kind = 0; kind < static_cast<int>(ELabKind::COUNT); ++kind)
            sweep(static_cast<ELabKind>(kind), {static_cast<int64>(arguments.seed % static_cast<uint64>(of)), of});
    }
    const bool ok =
        totals.reading.NumFaults() + totals.writing.NumFaults() == 0 && totals.reading.Of(ELabVerdict::DETECTED) > 0;
    std::printf("for writing: %s\n", totals.writing.Figures().c_str());
    std::printf("reliability bitflip: %s idle_bits=%lld for_writing=%lld verdict=%s\n",
                totals.reading.Figures().c_str(), static_cast<long long>(totals.idle),
                static_cast<long long>(totals.writing.tried), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

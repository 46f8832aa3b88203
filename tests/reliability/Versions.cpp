// Each number in the file that names a format is set to others, with right checksums: opening, or reading what depends on
// it, must end in an exception that names the number found and the one expected, and the file must not change by a byte.
#include "qxLss/CorruptLSSException.h"
#include "tests/support/DamageLab.h"
#include "tests/support/SimArguments.h"
#include "tests/support/SimLss.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "d/store";

struct Totals {
    int64 tried = 0;
    int64 accepted = 0; // no exception
    int64 badTexts = 0; // one that does not name both numbers, or not the file
    int64 changed = 0;
};

class Sweep {
public:
    Sweep(const LabStore& store, Totals& totals) : m_store(store), m_lab(store), m_totals(totals) {}

    void Run() {
        for (const uint32 version : {0u, FORMAT_VERSION + 1, 0x7FFFFFFFu, 0xFFFFFFFFu})
            for (const int places : {1, 2, 3}) {
                SetVersion(version, places);
                ExpectRefused(std::to_string(version), std::to_string(FORMAT_VERSION));
            }
        for (const int form : {1, 2, 255})
            for (const DamageLab::Packet& packet : m_lab.ReadLater()) {
                if (packet.seid != 0) continue;
                SetForm(packet.range, form);
                ExpectRefused("form " + std::to_string(form), "form 0");
            }
    }

private:
    // In the first header, the second or both, as far as they are valid.
    void SetVersion(uint32 version, int places) {
        for (int i = 0; i < 2; ++i) {
            CheckpointHeader header{};
            std::memcpy(static_cast<void*>(&header), m_store.file.data() + i * 4096, sizeof header);
            if (!(places >> i & 1) || header.crc != Crc32c(&header, offsetof(CheckpointHeader, crc))) continue;
            header.version = version;
            header.crc = Crc32c(&header, offsetof(CheckpointHeader, crc));
            const octet_t* const bytes = reinterpret_cast<const octet_t*>(&header);
            m_lab.Replace(i * 4096, FileBytes(bytes, bytes + sizeof header));
        }
    }

    void SetForm(const LabRange& page, int form) {
        const int64 dataStart = DataStart(m_store.segmentSize);
        const int64 segment = dataStart + (page.from - dataStart) / m_store.segmentSize * m_store.segmentSize;
        const SegmentHeader header = ReadPod<SegmentHeader>(m_store.file.data() + segment);
        FileBytes packet(m_store.file.begin() + page.from, m_store.file.begin() + page.to);
        packet[PACKET_HEADER_BYTES + 1] = static_cast<octet_t>(form);
        const uint32 crc =
            PacketCrc(SegmentCrcSeed(m_store.header.storeId, header.sequence), static_cast<uint32>(page.from - segment),
                      packet.data(), PayloadBytes(ReadPod<uint32>(packet.data() + 4)));
        std::memcpy(packet.data(), &crc, sizeof crc);
        m_lab.Replace(page.from, packet);
    }

    void ExpectRefused(const std::string& found, const std::string& expected) {
        if (m_lab.Touched().empty()) return;
        const FileBytes before = m_lab.Sys().CachedImage().at(PATH);
        for (const EOpenMode mode : {OM_OPEN_EXISTING_READ_ONLY, OM_OPEN_EXISTING, OM_OPEN_ALWAYS}) {
            if (mode != OM_OPEN_EXISTING_READ_ONLY && found[0] == 'f') continue; // found only when it is read
            ++m_totals.tried;
            std::string text;
            try {
                bool createdNew = false;
                LssStore* const store = m_lab.Open(mode, createdNew);
                try {
                    static_cast<void>(ReadLssState(*store));
                } catch (...) {
                    store->Abandon();
                    throw;
                }
                store->Abandon();
            } catch (const CorruptLSSException& e) {
                text = e.what();
            }
            const bool says = text.find(found) != std::string::npos && text.find(expected) != std::string::npos &&
                              text.find(PATH) != std::string::npos;
            if (text.empty()) ++m_totals.accepted;
            if (!text.empty() && !says) ++m_totals.badTexts;
            if (!says) std::printf("FAULT %s, %s: \"%s\"\n", NameOf(m_store.kind), found.c_str(), text.c_str());
            if (m_lab.Sys().CachedImage().at(PATH) != before || m_lab.Sys().NumRecorded() > 0) {
                ++m_totals.changed;
                std::printf("FAULT %s, %s: the file has changed\n", NameOf(m_store.kind), found.c_str());
            }
        }
        m_lab.Undo();
    }

    const LabStore& m_store;
    DamageLab m_lab;
    Totals& m_totals;
};

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    Totals totals;
    for (int kind = 0; kind < static_cast<int>(ELabKind::COUNT); ++kind) {
        const LabStore store = BuildLabStore(static_cast<ELabKind>(kind), arguments.seed, 294912, 4096);
        Sweep(store, totals).Run();
    }
    const int64 faults = totals.accepted + totals.badTexts + totals.changed;
    const bool ok = faults == 0 && totals.tried > 0;
    std::printf("reliability versions: tried=%lld accepted=%lld bad_texts=%lld changed=%lld faults=%lld verdict=%s\n",
                static_cast<long long>(totals.tried), static_cast<long long>(totals.accepted),
                static_cast<long long>(totals.badTexts), static_cast<long long>(totals.changed),
                static_cast<long long>(faults), ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }

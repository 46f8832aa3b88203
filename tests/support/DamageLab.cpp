#include "tests/support/DamageLab.h"

#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/SerialElement.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"
#include "tests/support/AllocationMeter.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>

namespace quna {
namespace {

constexpr ConstStringZ PATH = "d/store";
constexpr double MOST_MEMORY = 4;       // times the file
constexpr int64 SMALLEST_FILE = 262144; // counts for smaller ones
constexpr int64 MOST_REPORTS = 20;

// A store being tried is never closed: nothing more is to be written.
struct Abandoning {
    LssStore* store;
    explicit Abandoning(LssStore* s) : store(s) {}
    Abandoning(const Abandoning&) = delete;
    Abandoning& operator=(const Abandoning&) = delete;
    ~Abandoning() { store->Abandon(); }
};

std::vector<LabRange> Merged(std::vector<LabRange> ranges) {
    std::sort(ranges.begin(), ranges.end(), [](const LabRange& a, const LabRange& b) { return a.from < b.from; });
    std::vector<LabRange> merged;
    for (const LabRange& range : ranges) {
        if (!merged.empty() && range.from <= merged.back().to)
            merged.back().to = std::max(merged.back().to, range.to);
        else
            merged.push_back(range);
    }
    return merged;
}

} // namespace

const char* NameOf(ELabVerdict verdict) {
    constexpr const char* NAMES[] = {"harmless", "prefix", "detected", "silent", "cut", "escaped", "changed", "greedy"};
    return NAMES[static_cast<size_t>(verdict)];
}

int64 LabTotals::NumFaults() const {
    int64 sum = poorTexts;
    for (size_t i = 0; i < static_cast<size_t>(ELabVerdict::COUNT); ++i)
        if (IsFault(static_cast<ELabVerdict>(i))) sum += verdicts[i];
    return sum;
}

void LabTotals::Add(const LabTotals& other) {
    tried += other.tried;
    for (size_t i = 0; i < static_cast<size_t>(ELabVerdict::COUNT); ++i) verdicts[i] += other.verdicts[i];
    poorTexts += other.poorTexts;
    mostMemory = std::max(mostMemory, other.mostMemory);
    reported += other.reported;
}

std::string LabTotals::Figures() const {
    std::string figures = "tried=" + std::to_string(tried);
    for (size_t i = 0; i < static_cast<size_t>(ELabVerdict::COUNT); ++i)
        figures += std::string(" ") + NameOf(static_cast<ELabVerdict>(i)) + "=" + std::to_string(verdicts[i]);
    char memory[64];
    std::snprintf(memory, sizeof memory, " poor_texts=%lld memory_over_file=%.2f", static_cast<long long>(poorTexts),
                  mostMemory);
    return figures + memory;
}

DamageLab::DamageLab(const LabStore& store)
    : m_store(store), m_image({{PATH, SimBlocks(store.file)}}), m_size(std::ssize(store.file)) {
    m_sys = std::make_unique<SimSys>(ESimMemory::GUARDED, m_image);
    bool createdNew = false;
    const Abandoning scope(Open(OM_OPEN_EXISTING_READ_ONLY, createdNew));
    m_packets = PacketsOf(*scope.store);
    m_places = PlacesOf(*scope.store);
}

DamageLab::~DamageLab() {
    if (m_shared) m_shared->Abandon();
}

void DamageLab::Share() {
    bool createdNew = false;
    m_shared = Open(OM_OPEN_EXISTING_READ_ONLY, createdNew);
    static_cast<void>(PlacesOf(*m_shared)); // loads the index
}

LssStore* DamageLab::Open(EOpenMode mode, bool& createdNew) {
    return static_cast<LssStore*>(OpenLssForTest(*m_sys, PATH, nullptr, createdNew, mode,
                                                 LabSettings(static_cast<int>(m_store.segmentSize)),
                                                 EBackground::NONE));
}

// --- damage

void DamageLab::Flip(int64 at, int bit) {
    const octet_t byte = static_cast<octet_t>(m_store.file[static_cast<size_t>(at)] ^ (1u << bit));
    m_sys->Poke(PATH, at, &byte, 1);
    m_touched.push_back({at, at + 1});
}

void DamageLab::Replace(int64 at, const FileBytes& bytes) {
    const int64 n = std::min(std::ssize(bytes), m_size - at);
    if (n <= 0) return;
    m_sys->Poke(PATH, at, bytes.data(), static_cast<size_t>(n));
    // Only what differs has been damaged.
    int64 from = 0;
    int64 to = n;
    const octet_t* const old = m_store.file.data() + at;
    while (from < to && old[from] == bytes[static_cast<size_t>(from)]) ++from;
    while (to > from && old[to - 1] == bytes[static_cast<size_t>(to - 1)]) --to;
    if (from < to) m_touched.push_back({at + from, at + to});
}

void DamageLab::Resize(int64 size) {
    const int64 whole = std::ssize(m_store.file);
    m_sys->PokeSize(PATH, size);
    if (size < whole) m_touched.push_back({size, whole});
    m_size = size;
}

void DamageLab::CutAt(int64 size) {
    m_sys->PokeSize(PATH, size);
    m_touched = {{size, std::ssize(m_store.file)}};
    m_size = size;
}

void DamageLab::Undo() {
    const int64 whole = std::ssize(m_store.file);
    if (m_sys->SizeOf(PATH) != whole) m_sys->PokeSize(PATH, whole);
    for (const LabRange& range : m_touched) {
        const int64 to = std::min(range.to, whole);
        if (range.from < to)
            m_sys->Poke(PATH, range.from, m_store.file.data() + range.from, static_cast<size_t>(to - range.from));
    }
    m_touched.clear();
    m_size = whole;
}

// --- trials

ELabVerdict DamageLab::TryReading(LabTotals& totals, const LabWhere& where, bool thorough) {
    std::string text;
    const int64 calls = m_sys->NumAllCalls();
    AllocationMeter::Begin();
    double memory = 0;
    ELabVerdict verdict = ELabVerdict::DETECTED;
    try {
        bool createdNew = false;
        const Abandoning scope(Open(OM_OPEN_EXISTING_READ_ONLY, createdNew));
        memory = MemoryOverFile();
        verdict = Judge(*scope.store, thorough, text);
    } catch (const CorruptLSSException& e) {
        text = e.what();
        memory = MemoryOverFile();
    } catch (const FileException& e) {
        text = e.what();
        memory = MemoryOverFile();
    } catch (const std::exception& e) {
        verdict = ELabVerdict::ESCAPED;
        text = e.what();
    }
    totals.mostMemory = std::max(totals.mostMemory, memory);
    const int64 made = m_sys->NumAllCalls() - calls;
    const int64 bound = 2000 + 20 * (m_size / m_store.segmentSize + std::ssize(m_store.seids));
    if (!IsFault(verdict) && (memory > MOST_MEMORY || made > bound)) {
        text = std::to_string(made) + " calls, " + std::to_string(memory) + " times the file's size; " + text;
        verdict = ELabVerdict::GREEDY;
    }
    if (m_sys->NumRecorded() > 0) verdict = ELabVerdict::CHANGED;
    return Note(totals, verdict, text, where);
}

double DamageLab::MemoryOverFile() const {
    return static_cast<double>(AllocationMeter::Peak()) / static_cast<double>(std::max(m_size, SMALLEST_FILE));
}

ELabVerdict DamageLab::TryWriting(LabTotals& totals, const LabWhere& where) {
    std::string text;
    ELabVerdict verdict = ELabVerdict::DETECTED;
    bool wasOpen = false;
    try {
        bool createdNew = false;
        const Abandoning scope(Open(OM_OPEN_ALWAYS, createdNew));
        wasOpen = true;
        if (createdNew) {
            verdict = m_store.Floor(m_touched) > 0 ? ELabVerdict::CUT : ELabVerdict::PREFIX;
            text = "the store was taken for missing and created anew";
        } else {
            verdict = Judge(*scope.store, true, text);
            if (verdict == ELabVerdict::HARMLESS) text = RepeatedIdentifier(*scope.store);
            if (verdict == ELabVerdict::HARMLESS && !text.empty()) verdict = ELabVerdict::SILENT;
        }
    } catch (const CorruptLSSException& e) {
        text = e.what();
    } catch (const FileException& e) {
        text = e.what();
    } catch (const std::exception& e) {
        verdict = ELabVerdict::ESCAPED;
        text = e.what();
    }
    if (!wasOpen && m_sys->NumRecorded() > 0) verdict = ELabVerdict::CHANGED;
    RestoreAfterWriting();
    return Note(totals, verdict, text, where);
}

ELabVerdict DamageLab::TryElement(LabTotals& totals, uint64 seid, const LabWhere& where) {
    std::optional<uint64> hash;
    std::string text;
    ELabVerdict verdict = ELabVerdict::DETECTED;
    try {
        LookUp(*m_shared, seid, hash, text);
        if (hash) {
            const auto expected = m_store.last.find(seid);
            const bool right = *hash == (expected == m_store.last.end() ? 0 : expected->second);
            verdict = right ? ELabVerdict::HARMLESS : ELabVerdict::SILENT;
            if (!right) text = "key " + std::to_string(seid) + " has the wrong content";
        }
    } catch (const std::exception& e) {
        verdict = ELabVerdict::ESCAPED;
        text = e.what();
    }
    return Note(totals, verdict, text, where);
}

// The hash, 0 for no element, or none and the text of the exception that reading ended in.
void DamageLab::LookUp(LssStore& store, uint64 seid, std::optional<uint64>& hash, std::string& error) {
    try {
        AutoCloser<IContiguousSerialElement> element(store.OpenSerialElement(Seid(seid)));
        hash = element.Get() ? LabHash(element->GetBuffer()) : 0;
    } catch (const CorruptLSSException& e) {
        error = e.what();
    } catch (const FileException& e) {
        error = e.what();
    }
}

ELabVerdict DamageLab::Judge(LssStore& store, bool thorough, std::string& text) {
    bool samePlaces = false;
    bool pagesLost = false;
    std::string error;
    try {
        samePlaces = PlacesOf(store) == m_places;
    } catch (const CorruptLSSException& e) {
        error = e.what();
        pagesLost = true;
    } catch (const FileException& e) {
        error = e.what();
        pagesLost = true;
    }
    // The same bytes at the same places, read with the same checksums' seeds.
    if (samePlaces && !TouchesPacket()) return ELabVerdict::HARMLESS;
    std::vector<std::optional<uint64>> found(m_store.seids.size());
    const auto look = [&](size_t i) { LookUp(store, m_store.seids[i], found[i], error); };
    if (!thorough && samePlaces) {
        for (const Packet& packet : m_packets)
            if (packet.seid != 0 && IsNearEdge(packet)) look(IndexOf(packet.seid));
    } else {
        const size_t step = !thorough && pagesLost ? 61 : 1;
        for (size_t i = ++m_sample % step; i < found.size(); i += step) look(i);
    }
    text = error;
    return Compare(found, !error.empty(), text);
}

size_t DamageLab::IndexOf(uint64 seid) const {
    return static_cast<size_t>(std::lower_bound(m_store.seids.begin(), m_store.seids.end(), seid) -
                               m_store.seids.begin());
}

bool DamageLab::IsNearEdge(const Packet& packet) const {
    constexpr int64 NEAR = 1024;
    return std::any_of(m_touched.begin(), m_touched.end(), [&](const LabRange& touched) {
        return packet.range.Meets({touched.from - NEAR, touched.from + NEAR}) ||
               packet.range.Meets({touched.to - NEAR, touched.to + NEAR});
    });
}

// Which transaction's state is it?
ELabVerdict DamageLab::Compare(const std::vector<std::optional<uint64>>& found, bool detected, std::string& text) {
    const uint64 floor = m_store.Floor(m_touched);
    std::map<uint64, uint64> expected = m_store.last;
    std::set<uint64> different;
    const auto look = [&](uint64 seid, uint64 hash) {
        const size_t i = IndexOf(seid);
        if (found[i] && *found[i] != hash)
            different.insert(seid);
        else
            different.erase(seid);
    };
    for (const uint64 seid : m_store.seids) {
        const auto element = expected.find(seid);
        look(seid, element == expected.end() ? 0 : element->second);
    }
    const size_t firstDifference = different.size();
    for (uint64 number = m_store.numTransactions;; --number) {
        if (different.empty()) {
            const std::string state = "the state is that after transaction " + std::to_string(number) + " of " +
                                      std::to_string(m_store.numTransactions) + ", " + std::to_string(floor) +
                                      " are marked as durable";
            if (number < floor) {
                text = state + (detected ? ", and: " + text : "");
                return ELabVerdict::CUT;
            }
            if (detected) return ELabVerdict::DETECTED;
            if (number < m_store.numTransactions) text = state;
            return number < m_store.numTransactions ? ELabVerdict::PREFIX : ELabVerdict::HARMLESS;
        }
        if (number == 0) break;
        for (const auto& [seid, hash] : m_store.before[static_cast<size_t>(number - 1)]) look(seid, hash);
    }
    text = "the state is after no transaction; " + std::to_string(firstDifference) + " keys differ from the last, " +
           std::to_string(different.size()) + " from the first; " + text;
    return ELabVerdict::SILENT;
}

bool DamageLab::TouchesPacket() const {
    for (const LabRange& touched : m_touched) {
        const auto at = std::lower_bound(m_packets.begin(), m_packets.end(), touched.from,
                                         [](const Packet& p, int64 from) { return p.range.to <= from; });
        if (at != m_packets.end() && at->range.Meets(touched)) return true;
    }
    return m_size < std::ssize(m_store.file);
}

// A number for all elements, their places and the seeds of their checksums.
uint64 DamageLab::PlacesOf(LssStore& store) const {
    const SegmentTable& segments = *store.CoreForTest().m_segments;
    uint64 digest = 0;
    const auto add = [&](uint64 key, Location l) {
        const uint64 seed = segments[segments.SlotOf(l)].crcSeed;
        digest += (key * 0x9E3779B97F4A7C15u) ^ ((l + seed * 0xD6E8FEB86659FD93u) * 0xC2B2AE3D27D4EB4Fu);
    };
    store.IndexForTest().VisitAll([&](uint64 seid, Location l) { add(seid, l); }, [](Location) {});
    for (const Packet& packet : m_packets) {
        if (packet.seid == 0 || packet.range.to - packet.range.from != m_store.segmentSize / 4 - 48) continue;
        const ssize_t slot = (packet.range.from - segments.DataStartOffset()) / m_store.segmentSize;
        digest += segments[slot].crcSeed * 0xD6E8FEB86659FD93u; // parts of long elements are not in the index
    }
    return digest;
}

// An identifier that an element has must not be given again. Empty, or the fault.
std::string DamageLab::RepeatedIdentifier(LssStore& store) {
    std::set<uint64> highs;
    for (const auto& [seid, hash] : m_store.last) highs.insert(seid >> 32);
    for (const uint64 high : highs) {
        Seid seid = store.AllocateSeid(static_cast<SeidHigh>(high));
        for (int i = 0; i < 2; ++i) {
            if (m_store.last.contains(seid.value_))
                return "identifier " + std::to_string(seid.value_) + " is given again";
            if (!store.AllocateAffiliateSeid(seid)) break;
        }
    }
    return {};
}

void DamageLab::RestoreAfterWriting() {
    using EKind = SimCall::EKind;
    bool onlyWrites = true;
    for (const SimCall& call : m_sys->RestartRecord()) {
        const bool isWrite = call.kind == EKind::WRITE || call.kind == EKind::WRITE_DURABLE;
        onlyWrites = onlyWrites && (isWrite || call.kind == EKind::SYNC || call.kind == EKind::ALLOCATE);
        if (isWrite) m_touched.push_back({call.offset, call.offset + std::ssize(call.data)});
    }
    if (!onlyWrites) {
        m_sys.reset();
        m_sys = std::make_unique<SimSys>(ESimMemory::GUARDED, m_image);
        m_touched.clear();
        m_size = std::ssize(m_store.file);
        return;
    }
    Undo();
}

ELabVerdict DamageLab::Note(LabTotals& totals, ELabVerdict verdict, const std::string& text, const LabWhere& where) {
    ++totals.tried;
    ++totals.verdicts[static_cast<size_t>(verdict)];
    const bool poor = verdict == ELabVerdict::DETECTED && text.find(PATH) == std::string::npos;
    if (poor) ++totals.poorTexts;
    if ((IsFault(verdict) || poor) && totals.reported++ < MOST_REPORTS)
        std::printf("FAULT %s, %s: %s%s\n", where().c_str(), NameOf(m_store.kind), NameOf(verdict),
                    text.empty() ? "" : (": " + text).c_str());
    return verdict;
}

// --- what is read when

std::vector<LabRange> DamageLab::ReadByOpen() {
    m_sys->TrackReads();
    bool createdNew = false;
    const Abandoning scope(Open(OM_OPEN_EXISTING_READ_ONLY, createdNew));
    std::vector<LabRange> ranges;
    for (const auto& [at, n] : m_sys->TakeReads()) ranges.push_back({at, at + n});
    return Merged(std::move(ranges));
}

std::vector<DamageLab::Packet> DamageLab::PacketsOf(LssStore& store) const {
    const StoreCore& core = store.CoreForTest();
    std::vector<Packet> packets;
    const auto add = [&](Location l, uint64 seid) {
        packets.push_back({{LocationOffset(l), LocationOffset(l) + LocationBytes(l)}, seid});
    };
    store.IndexForTest().VisitAll(
        [&](uint64 seid, Location l) {
            add(l, seid);
            if (!IsLong(l)) return;
            for (const Location part : ParseLongHead(core, LoadPacket(core, l, EPacketType::HEAD, seid), l).parts)
                add(part, seid);
        },
        [&](Location l) { add(l, 0); });
    std::sort(packets.begin(), packets.end(),
              [](const Packet& a, const Packet& b) { return a.range.from < b.range.from; });
    return packets;
}

} // namespace quna

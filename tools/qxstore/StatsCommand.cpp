#include "tools/qxstore/Commands.h"
#include "tools/qxstore/OpenedStore.h"
#include "tools/qxstore/Units.h"

#include <array>
#include <bit>

namespace quna::qxstore {

namespace {

// Elements by the power of two of their packet's size.
struct SizeClass {
    int64 count = 0;
    int64 bytes = 0;
};
constexpr size_t NUM_SIZE_CLASSES = 24; // a packet has less than 2^24 bytes
constexpr size_t NUM_TENTHS = 10;

struct SegmentSum {
    const char* name;
    int64 count = 0;
    int64 liveBytes = 0;
};

void AddCounters(OpenedStore& store, Report& report) {
    const LssStats stats = store.Stats();
    report.Add("transactions", "transactions", Count(stats.numTransactions));
    report.Add("checkpoints", "checkpoints", Count(stats.numCheckPoints));
    report.Add("recoveries", "recoveries", Count(stats.numRecoveries));
    report.Add("elements", "elements", Count(stats.numLiveHeadPackets));
    report.Add("overflowPackets", "parts of long elements", Count(stats.numLiveOverflowPackets));
    report.Add("indexPages", "index pages", Count(stats.numLiveRPMPackets));
    report.Add("deadPackets", "dead packets", Count(stats.numObsoletePackets));
    report.Add("fileBytes", "file size", Bytes(stats.fileSize));
    report.Add("liveBytes", "live data", Bytes(stats.utilisation));
    report.Add("livePercent", "share of the file", Share(stats.utilisation, stats.fileSize));
}

void AddSegments(OpenedStore& store, Report& report) {
    std::array<SegmentSum, 4> sums = {{{"free"}, {"log"}, {"survivors"}, {"index"}}};
    std::array<int64, NUM_TENTHS> tenths{};
    const ssize_t segmentBytes = store.Segments().SegmentSize();
    for (ssize_t slot = 0; slot < store.NumSlots(); ++slot) {
        const SutEntry entry = store.Segments().Entry(slot);
        // The file may be shorter than its table by slots that are free.
        if (!entry.sequence && store.Segments().OffsetOf(slot) >= store.FileBytes()) continue;
        const size_t kind = entry.sequence ? entry.kind & 3 : 0;
        ++sums[kind].count;
        sums[kind].liveBytes += entry.liveBytes;
        if (!kind) continue;
        const int64 tenth = entry.liveBytes * static_cast<int64>(NUM_TENTHS) / segmentBytes;
        ++tenths[static_cast<size_t>(tenth < 9 ? tenth : 9)];
    }
    Table& segments = report.tables.emplace_back();
    segments.key = "segments";
    segments.title = "Segments of " + ShortBytes(segmentBytes);
    segments.columns = {
        {"kind", "kind"}, {"segments", "segments"}, {"bytes", "size"}, {"liveBytes", "live"}, {"livePercent", "share"}};
    for (const size_t kind : {size_t{1}, size_t{2}, size_t{3}, size_t{0}}) {
        const SegmentSum& sum = sums[kind];
        const int64 bytes = sum.count * segmentBytes;
        segments.rows.push_back(
            {Text(sum.name), Count(sum.count), Bytes(bytes), Bytes(sum.liveBytes), Share(sum.liveBytes, bytes)});
    }
    Table& fill = report.tables.emplace_back();
    fill.key = "fill";
    fill.title = "Live share of the segments in use";
    fill.columns = {{"fromPercent", "from"}, {"toPercent", "to"}, {"segments", "segments"}};
    for (size_t i = 0; i < NUM_TENTHS; ++i)
        fill.rows.push_back({Share(static_cast<int64>(i), 10), Share(static_cast<int64>(i) + 1, 10), Count(tenths[i])});
}

// The size of an element in one packet is known from the index; that of a long one is its parts' and is left out here.
void AddSizes(OpenedStore& store, Report& report) {
    std::array<SizeClass, NUM_SIZE_CLASSES> classes{};
    SizeClass longOnes;
    store.Lss().VisitElements([&](Seid, Location l) {
        const size_t bytes = static_cast<size_t>(LocationBytes(l));
        SizeClass& sizeClass = IsLong(l) ? longOnes : classes[static_cast<size_t>(std::bit_width(bytes - 1))];
        ++sizeClass.count;
        sizeClass.bytes += static_cast<int64>(bytes);
    });
    Table& sizes = report.tables.emplace_back();
    sizes.key = "sizes";
    sizes.title = "Elements by the size of their packet";
    sizes.columns = {{"upToBytes", "up to"}, {"elements", "elements"}, {"bytes", "together"}};
    sizes.ifEmpty = "There are no elements.";
    for (size_t i = 0; i < classes.size(); ++i) {
        if (classes[i].count)
            sizes.rows.push_back({Bytes(int64{1} << i), Count(classes[i].count), Bytes(classes[i].bytes)});
    }
    report.Add("longElements", "elements in several packets", Count(longOnes.count));
}

} // namespace

EExit RunStats(const Options& options) {
    OpenedStore store(options.store);
    Report report("stats", options.store);
    AddCounters(store, report);
    AddSegments(store, report);
    AddSizes(store, report);
    Print(report, options);
    return EXIT_GOOD;
}

} // namespace quna::qxstore

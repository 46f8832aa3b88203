#include "qxLss/src/UsageCheck.h"

#include "qxLss/src/SerialElement.h"

#include <vector>

namespace quna {

namespace {

struct Usage {
    int64 packets = 0;
    int64 bytes = 0;
};

} // namespace

void CheckUsage(const StoreCore& core, Index& index, ssize_t numSlots) {
    const SegmentTable& segments = *core.m_segments;
    std::vector<Usage> usage(static_cast<size_t>(numSlots));
    int64 heads = 0;
    int64 parts = 0;
    int64 pages = 0;
    const auto count = [&](Location l) {
        if (!segments.IsInside(l, numSlots)) ThrowOutside(core, "the index names a packet", l);
        Usage& u = usage[static_cast<size_t>(segments.SlotOf(l))];
        ++u.packets;
        u.bytes += LocationBytes(l);
    };
    index.VisitAll(
        [&](uint64 seid, Location l) {
            count(l);
            ++heads;
            if (!IsLong(l)) return;
            for (const Location part : ParseLongHead(core, LoadPacket(core, l, EPacketType::HEAD, seid), l).parts) {
                count(part);
                ++parts;
            }
        },
        [&](Location l) {
            count(l);
            ++pages;
        });
    int64 bytes = 0;
    for (ssize_t slot = 0; slot < numSlots; ++slot) {
        const SutEntry entry = segments.Entry(slot);
        const Usage& u = usage[static_cast<size_t>(slot)];
        bytes += u.bytes;
        if (entry.livePackets != u.packets || entry.liveBytes != u.bytes)
            ThrowCorrupt(core,
                         "the usage table says " + std::to_string(entry.livePackets) + " live packets of " +
                             std::to_string(entry.liveBytes) + " bytes, the index " + std::to_string(u.packets) +
                             " of " + std::to_string(u.bytes) + ", for the segment",
                         segments.OffsetOf(slot));
    }
    const StoreCounters& c = core.m_counters;
    if (c.liveHead.load() != heads || c.liveOverflow.load() != parts || c.liveIndex.load() != pages ||
        c.liveBytes.load() != bytes)
        ThrowCorrupt(core, "the counters say " + std::to_string(c.liveHead.load()) + " elements, " +
                               std::to_string(c.liveOverflow.load()) + " parts, " + std::to_string(c.liveIndex.load()) +
                               " pages, " + std::to_string(c.liveBytes.load()) + " live bytes, the index " +
                               std::to_string(heads) + ", " + std::to_string(parts) + ", " + std::to_string(pages) +
                               ", " + std::to_string(bytes));
}

} // namespace quna

#include "qxLss/src/HotBackup.h"

#include "qxLss/src/AllocRing.h"

#include <algorithm>
#include <cstring>

namespace quna {

namespace {

// The first `n`, of which there is at least one.
bool IsZero(const std::vector<octet_t>& bytes, ssize_t n) {
    return bytes[0] == 0 && std::memcmp(bytes.data(), bytes.data() + 1, static_cast<size_t>(n) - 1) == 0;
}

} // namespace

bool CopyProgress::Report(int64 bytesDone) {
    if (m_gate.IsShut()) return false;
    return !m_options.progress || m_options.progress({std::min(bytesDone, m_total), m_total});
}

bool HotBackup::CopyImage(const CheckpointImage& image, SpaceManager& space) {
    const std::vector<ssize_t> slots = image.Slots();
    const ssize_t segmentSize = m_core.m_segmentSize;
    CopyProgress progress(m_options, m_gate, static_cast<int64>(slots.size()) * segmentSize);
    int64 done = 0;
    if (!progress.Report(done)) return false;
    m_fileSize = m_core.m_segments->OffsetOf(slots.back() + 1);
    m_target.Truncate(m_fileSize); // slots that are not copied stay holes
    for (const ssize_t slot : slots) {
        const bool isOpen = slot == static_cast<ssize_t>(image.header.startSlot);
        const ssize_t n = isOpen ? static_cast<ssize_t>(image.header.startOffset) : segmentSize;
        ReadSegment(slot, n);
        space.Release(slot);
        if (m_options.verify) Verify(slot, image.segments[static_cast<size_t>(slot)], n);
        WriteSegment(slot, n);
        done += segmentSize;
        if (!progress.Report(done)) return false;
    }
    WriteFront(image);
    return true;
}

bool HotBackup::CopyFile(ssize_t numSlots) {
    const int64 dataStart = m_core.m_segments->DataStartOffset();
    m_fileSize = m_source.Size();
    CopyProgress progress(m_options, m_gate, m_fileSize);
    if (!progress.Report(0)) return false;
    m_target.Truncate(m_fileSize);
    std::vector<octet_t> front(static_cast<size_t>(dataStart));
    m_source.Read(0, front.data(), dataStart);
    m_target.Write(0, front.data(), dataStart);
    m_bytesCopied += dataStart;
    for (ssize_t slot = 0; m_core.m_segments->OffsetOf(slot) < m_fileSize; ++slot) {
        const int64 offset = m_core.m_segments->OffsetOf(slot);
        const ssize_t n = std::min<ssize_t>(m_core.m_segmentSize, m_fileSize - offset);
        ReadSegment(slot, n);
        const SutEntry entry = slot < numSlots ? m_core.m_segments->Entry(slot) : SutEntry{};
        if (m_options.verify && entry.sequence) Verify(slot, entry, n);
        if (!IsZero(m_buffer, n)) WriteSegment(slot, n);
        if (!progress.Report(offset + n)) return false;
    }
    return true;
}

void HotBackup::ReadSegment(ssize_t slot, ssize_t n) {
    m_buffer.assign(static_cast<size_t>(m_core.m_segmentSize), octet_t{0});
    m_source.ReadUpTo(m_core.m_segments->OffsetOf(slot), m_buffer.data(), n);
}

// Packets stand one behind the other from the segment's header on. How many there are says the usage table; so a packet that
// does not verify is told from the end, behind which bytes of an earlier use may stand.
void HotBackup::Verify(ssize_t slot, const SutEntry& entry, ssize_t end) const {
    const uint32 seed = SegmentCrcSeed(m_core.m_storeId, entry.sequence);
    uint32 counted = 0;
    ssize_t pos = SEGMENT_HEADER_BYTES;
    while (counted < entry.packets) {
        const octet_t* const packet = m_buffer.data() + pos;
        const bool fits =
            pos + PACKET_HEADER_BYTES <= end && pos + PacketBytes(ReadPod<PacketHeader>(packet).info) <= end;
        if (!fits || PacketCrc(seed, static_cast<uint32>(pos), packet,
                               PayloadBytes(ReadPod<PacketHeader>(packet).info)) != ReadPod<PacketHeader>(packet).crc)
            ThrowCorrupt(m_core,
                         "found bytes that are no valid packet, expected packet " + std::to_string(counted + 1) +
                             " of " + std::to_string(entry.packets) + " of its segment",
                         m_core.m_segments->OffsetOf(slot) + pos);
        const PacketHeader header = ReadPod<PacketHeader>(packet);
        if (IsCounted(PacketType(header.info))) ++counted;
        pos += PacketBytes(header.info);
    }
}

// Write-back begins at once, so that little is left for the sync at the end, which the store's own syncs might wait for.
void HotBackup::WriteSegment(ssize_t slot, ssize_t n) {
    const int64 offset = m_core.m_segments->OffsetOf(slot);
    m_target.Write(offset, m_buffer.data(), n);
    m_target.WriteBack(offset, n);
    m_bytesCopied += n;
}

void HotBackup::WriteFront(const CheckpointImage& image) {
    CheckpointHeader header = image.header;
    header.numSlots = static_cast<uint32>(image.Slots().back() + 1);
    header.flags = (header.flags & ~HEADER_FLAG_CREATING) | HEADER_FLAG_CLEAN;
    header.crc = Crc32c(&header, offsetof(CheckpointHeader, crc));
    AllocRingBlock block;
    block.ringSequence = header.ringSequence + 1;
    block.storeId = header.storeId;
    block.checkpointSequence = header.checkpointSequence;
    block.nextHigh = header.nextHigh;
    block.sequenceBase = header.nextSegmentSequence;
    octet_t ring[AllocRingBlock::BYTES];
    block.Encode(ring);
    m_target.Write(HeaderOffset(header.checkpointSequence), &header, sizeof header);
    m_target.Write(AllocRing::FILE_OFFSET, ring, sizeof ring);
    m_bytesCopied += static_cast<int64>(sizeof header + sizeof ring);
}

} // namespace quna

#include "qxLss/src/DeltaTransactions.h"

#include <utility>

namespace quna {

DeltaTransactions::DeltaTransactions(const DeltaFile& delta)
    : m_delta(delta), m_segmentSize(static_cast<ssize_t>(delta.Header().segmentSize)),
      m_lastNumber(delta.Header().previousTransaction) {}

int64 DeltaTransactions::FileOffsetOf(const octet_t* p) const { return m_frame->fileOffset + (p - m_frame->bytes); }

void DeltaTransactions::ThrowDamaged(const std::string& what, const std::string& found,
                                     const std::string& expected) const {
    m_delta.ThrowDamaged(what, m_packetOffset, found, expected);
}

void DeltaTransactions::Forget() {
    m_pending.operations.clear();
    m_parts.clear();
    m_count.Reset();
}

bool DeltaTransactions::Next(DeltaTransaction& transaction) {
    Forget();
    m_isComplete = false;
    for (;;) {
        const ssize_t end = m_frame ? static_cast<ssize_t>(m_frame->head.offset) + m_frame->head.length : 0;
        if (m_pos == end) {
            if (!NextFrame()) return false;
            continue;
        }
        const octet_t* const bytes = m_frame->bytes + (m_pos - m_frame->head.offset);
        const ssize_t stopped = VisitPackets(
            bytes, m_pos, end, m_crcSeed,
            [this](ssize_t pos, const PacketHeader& header, const octet_t* p) { return Take(pos, header, p); });
        m_pos = stopped;
        if (m_isComplete) {
            std::swap(transaction, m_pending);
            return true;
        }
        if (stopped != end) {
            m_packetOffset = m_frame->fileOffset + (stopped - m_frame->head.offset);
            ThrowDamaged("a packet", "bytes that do not verify", "a packet with a right checksum");
        }
    }
}

// Frames that do not continue one another have between them what belongs to no transaction; or there a recovery had cut
// off the log, and what was unfinished in front of the cut is void.
bool DeltaTransactions::NextFrame() {
    if (m_nextFrame == m_delta.Frames().size()) {
        m_packetOffset = m_frame ? m_frame->fileOffset + m_frame->head.length : 0;
        if (!m_count.IsEmpty())
            ThrowDamaged("the end of the transactions", std::to_string(m_count.Packets()) + " packets without a COMMIT",
                         "none");
        if (m_lastNumber != m_delta.Closing().lastTransaction || m_lastTime != m_delta.Closing().lastTime)
            ThrowDamaged("the last transaction", std::to_string(m_lastNumber),
                         std::to_string(m_delta.Closing().lastTransaction) + " by the closing frame");
        return false;
    }
    const DeltaFile::Frame* const before = m_frame;
    m_frame = &m_delta.Frames()[m_nextFrame++];
    const DeltaFrame& head = m_frame->head;
    const bool continues = before && before->head.sequence == head.sequence && before->head.slot == head.slot &&
                           before->head.offset + before->head.length == head.offset;
    const bool isLinked = m_linkedTo == head.sequence && head.offset == SEGMENT_HEADER_BYTES;
    m_packetOffset = m_frame->fileOffset;
    if (before &&
        (head.sequence < before->head.sequence ||
         (head.sequence == before->head.sequence && head.offset < uint64{before->head.offset} + before->head.length)))
        ThrowDamaged("a frame", "segment " + std::to_string(head.sequence) + " from " + std::to_string(head.offset),
                     "a place behind the frame before");
    if (!continues && !isLinked) Forget();
    m_linkedTo = 0;
    m_crcSeed = SegmentCrcSeed(m_delta.Header().storeId, head.sequence);
    m_pos = head.offset;
    return true;
}

// False: a transaction is complete.
bool DeltaTransactions::Take(ssize_t pos, const PacketHeader& header, const octet_t* payload) {
    m_packetOffset = FileOffsetOf(payload - PACKET_HEADER_BYTES);
    const bool wasEmpty = m_count.IsEmpty();
    switch (PacketType(header.info)) {
    case EPacketType::HEAD: TakeHead(header, payload); break;
    case EPacketType::LONG_PART: TakePart(pos, header, payload); break;
    case EPacketType::REMOVE: m_pending.operations.push_back({Seid(header.key), true, {}, m_packetOffset}); break;
    case EPacketType::COMMIT: TakeCommit(header, payload); break;
    case EPacketType::ABORT: Forget(); break;
    case EPacketType::LINK: m_linkedTo = header.key; break;
    case EPacketType::RELOC:
        if (!wasEmpty) ThrowDamaged("a packet", "RELOC", "none within a transaction");
        break;
    case EPacketType::DROP:
    case EPacketType::PAD: break;
    case EPacketType::INDEX:
    case EPacketType::SUT:
    case EPacketType::HIGHS:
    case EPacketType::LIST:
    default:
        ThrowDamaged("a packet", "type " + std::to_string(static_cast<uint32>(PacketType(header.info))),
                     "one of the user stream");
    }
    m_count.Add(header);
    return !m_isComplete;
}

void DeltaTransactions::TakeHead(const PacketHeader& header, const octet_t* payload) {
    const ssize_t n = PayloadBytes(header.info);
    DeltaOperation operation{Seid(header.key), false, {}, m_packetOffset};
    if (PacketFlags(header.info) & PACKET_FLAG_LONG)
        TakeLong(operation, payload, n);
    else
        operation.pieces.push_back({payload, n});
    m_pending.operations.push_back(std::move(operation));
}

void DeltaTransactions::TakeLong(DeltaOperation& operation, const octet_t* payload, ssize_t n) {
    LongPrefix prefix{};
    if (n >= static_cast<ssize_t>(sizeof prefix)) prefix = ReadPod<LongPrefix>(payload);
    const ssize_t listBytes = ssize_t{prefix.n} * static_cast<ssize_t>(sizeof(Location));
    const ssize_t tailBytes = n - static_cast<ssize_t>(sizeof prefix) - listBytes;
    const ssize_t total = ssize_t{prefix.n} * OverflowBytes(m_segmentSize) + tailBytes;
    if (prefix.n == 0 || tailBytes < 0 || static_cast<ssize_t>(prefix.totalBytes) != total)
        ThrowDamaged("the head of a long element",
                     std::to_string(prefix.totalBytes) + " bytes in " + std::to_string(prefix.n) + " parts",
                     std::to_string(total) + " bytes");
    const octet_t* at = payload + sizeof prefix;
    for (uint32 i = 0; i < prefix.n; ++i, at += sizeof(Location)) {
        const auto part = m_parts.find(ReadPod<Location>(at));
        if (part == m_parts.end() || part->second.ordinal != i)
            ThrowDamaged("a part of a long element", "none or another",
                         "part " + std::to_string(i) + " before its head");
        operation.pieces.push_back(part->second.piece);
    }
    operation.pieces.push_back({at, tailBytes});
}

void DeltaTransactions::TakePart(ssize_t pos, const PacketHeader& header, const octet_t* payload) {
    const ssize_t n = PayloadBytes(header.info) - static_cast<ssize_t>(sizeof(OverflowPrefix));
    if (n != OverflowBytes(m_segmentSize))
        ThrowDamaged("the length of a part of a long element", std::to_string(n),
                     std::to_string(OverflowBytes(m_segmentSize)));
    const int64 storeOffset = DataStart(m_segmentSize) + int64{m_frame->head.slot} * m_segmentSize + pos;
    m_parts[MakeLocation(storeOffset, PacketBytes(header.info))] = {ReadPod<OverflowPrefix>(payload).ordinal,
                                                                    {payload + sizeof(OverflowPrefix), n}};
}

void DeltaTransactions::TakeCommit(const PacketHeader& header, const octet_t* payload) {
    if (header.key != m_lastNumber + 1)
        ThrowDamaged("the number of a transaction", std::to_string(header.key), std::to_string(m_lastNumber + 1));
    if (PayloadBytes(header.info) != sizeof(CommitPayload))
        ThrowDamaged("the length of a COMMIT", std::to_string(PayloadBytes(header.info)),
                     std::to_string(sizeof(CommitPayload)));
    const CommitPayload commit = ReadPod<CommitPayload>(payload);
    if (!m_count.Agrees(commit))
        ThrowDamaged("a transaction",
                     std::to_string(m_count.Packets()) + " packets of " + std::to_string(m_count.Bytes()) + " bytes",
                     std::to_string(commit.packets) + " of " + std::to_string(commit.bytes) + " by its COMMIT");
    m_lastNumber = header.key;
    m_lastTime = commit.time;
    m_pending.number = header.key;
    m_pending.time = commit.time;
    m_pending.fileOffset = m_packetOffset;
    m_isComplete = true;
}

} // namespace quna

#include "qxLss/src/ElementStream.h"

#include "qxLss/src/LssTransaction.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <cstring>
#include <exception>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/ElementStream";
constexpr ssize_t PART_PREFIX_BYTES = sizeof(OverflowPrefix);

} // namespace

ElementStream::ElementStream(LssTransaction& transaction, UserLog& log, ssize_t segmentSize)
    : m_transaction(transaction), m_log(log), m_segmentSize(segmentSize) {}

ElementStream::~ElementStream() noexcept(false) = default;

void ElementStream::Open(Seid seid) {
    m_seid = seid;
    m_isOpen = true;
    m_isLong = false;
    m_uncaughtAtOpen = std::uncaught_exceptions();
    m_filled = 0;
    m_parts.clear();
    m_log.BeforePacket();
    m_room = m_log.ElementRoom();
}

void ElementStream::WriteStream(const void* buffer, ssize_t n) {
    QX_ASSERT(m_isOpen);
    if (n <= m_room - m_filled && !m_isLong) [[likely]] {
        if (n > 0) std::memcpy(m_log.Payload() + m_filled, buffer, static_cast<size_t>(n));
        m_filled += n;
        return;
    }
    m_transaction.ThrowIfBroken();
    // Before the log is touched: this is the caller's mistake and harms nothing but the element.
    const ssize_t partBytes = OverflowBytes(m_segmentSize);
    if (static_cast<ssize_t>(m_parts.size()) * partBytes + m_filled + n > MaxOverflowPackets(m_segmentSize) * partBytes)
        throw FileException("An element is longer than a store with segments of this size can hold");
    try {
        WriteSlowly(static_cast<const octet_t*>(buffer), n);
    } catch (...) {
        m_transaction.Break();
        throw;
    }
}

void ElementStream::FlushStream() {}

void ElementStream::WriteSlowly(const octet_t* p, ssize_t n) {
    while (!m_isLong) {
        const ssize_t take = std::clamp<ssize_t>(m_room - m_filled, 0, n);
        if (take > 0) {
            std::memcpy(m_log.Payload() + m_filled, p, static_cast<size_t>(take));
            m_filled += take;
            p += take;
        }
        n -= take;
        if (n == 0) return;
        if (m_filled < m_segmentSize / 4)
            MoveToNextSegment();
        else
            BecomeLong();
    }
    WritePart(p, n);
}

void ElementStream::MoveToNextSegment() {
    if (!m_spill) m_spill = std::make_unique_for_overwrite<octet_t[]>(static_cast<size_t>(m_segmentSize));
    std::memcpy(m_spill.get(), m_log.Payload(), static_cast<size_t>(m_filled));
    m_log.LinkToNext();
    std::memcpy(m_log.Payload(), m_spill.get(), static_cast<size_t>(m_filled));
    m_room = m_log.ElementRoom();
}

void ElementStream::BecomeLong() {
    if (!m_spill) m_spill = std::make_unique_for_overwrite<octet_t[]>(static_cast<size_t>(m_segmentSize));
    const ssize_t n = m_filled;
    std::memcpy(m_spill.get(), m_log.Payload(), static_cast<size_t>(n));
    m_isLong = true;
    m_filled = 0;
    WritePart(m_spill.get(), n);
}

// A part is begun only when there are bytes for it, and ended when the next begins, so that the last, full or not, goes
// into the head.
void ElementStream::WritePart(const octet_t* p, ssize_t n) {
    const ssize_t partBytes = OverflowBytes(m_segmentSize);
    while (n > 0) {
        if (m_filled == partBytes) EndPart();
        if (m_filled == 0 && m_log.ElementRoom() < PART_PREFIX_BYTES + partBytes) m_log.LinkToNext();
        const ssize_t take = std::min(n, partBytes - m_filled);
        std::memcpy(m_log.Payload() + PART_PREFIX_BYTES + m_filled, p, static_cast<size_t>(take));
        m_filled += take;
        p += take;
        n -= take;
    }
}

void ElementStream::EndPart() {
    const OverflowPrefix prefix{static_cast<uint32>(m_parts.size()), 0};
    std::memcpy(m_log.Payload(), &prefix, sizeof prefix);
    m_parts.push_back(m_log.EndElement(EPacketType::LONG_PART, m_seid.value_, PART_PREFIX_BYTES + m_filled));
    m_filled = 0;
}

// The bytes of the last part move behind the list of the others.
Location ElementStream::EndLong() {
    const ssize_t tailBytes = m_filled;
    const ssize_t listBytes = static_cast<ssize_t>(m_parts.size() * sizeof(Location));
    const LongPrefix prefix{
        static_cast<uint64>(static_cast<ssize_t>(m_parts.size()) * OverflowBytes(m_segmentSize) + tailBytes),
        static_cast<uint32>(m_parts.size()), 0};
    const ssize_t payloadBytes = static_cast<ssize_t>(sizeof prefix) + listBytes + tailBytes;
    std::memcpy(m_spill.get(), m_log.Payload() + PART_PREFIX_BYTES, static_cast<size_t>(tailBytes));
    if (m_log.ElementRoom() < payloadBytes) m_log.LinkToNext();
    octet_t* const payload = m_log.Payload();
    std::memcpy(payload, &prefix, sizeof prefix);
    std::memcpy(payload + sizeof prefix, m_parts.data(), static_cast<size_t>(listBytes));
    std::memcpy(payload + static_cast<ssize_t>(sizeof prefix) + listBytes, m_spill.get(),
                static_cast<size_t>(tailBytes));
    return m_log.EndElement(EPacketType::HEAD, m_seid.value_, payloadBytes, PACKET_FLAG_LONG);
}

void ElementStream::Drop() { m_isOpen = false; }

void ElementStream::Close() {
    QX_ASSERT(m_isOpen);
    m_isOpen = false;
    if (std::uncaught_exceptions() > m_uncaughtAtOpen) return;
    m_transaction.ThrowIfBroken();
    try {
        if (!m_isLong && m_room < m_filled) // no room for even an empty element
            MoveToNextSegment();
        const Location l = m_isLong ? EndLong() : m_log.EndElement(EPacketType::HEAD, m_seid.value_, m_filled);
        m_transaction.AddElement(l, m_parts);
    } catch (...) {
        m_transaction.Break();
        throw;
    }
}

} // namespace quna

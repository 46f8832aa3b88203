#include "qxLss/src/SerialElement.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace quna {

LongHead ParseLongHead(const StoreCore& core, const octet_t* head, Location l) {
    const ssize_t payloadBytes = PayloadBytes(ReadPod<PacketHeader>(head).info);
    const octet_t* const payload = head + PACKET_HEADER_BYTES;
    LongPrefix prefix{};
    if (payloadBytes >= static_cast<ssize_t>(sizeof prefix)) prefix = ReadPod<LongPrefix>(payload);
    const ssize_t n = prefix.n;
    const ssize_t listBytes = n * static_cast<ssize_t>(sizeof(Location));
    LongHead result{};
    result.totalBytes = static_cast<int64>(prefix.totalBytes);
    result.tail = payload + sizeof prefix + listBytes;
    result.tailBytes = payloadBytes - static_cast<ssize_t>(sizeof prefix) - listBytes;
    if (n == 0 || result.tailBytes < 0 || result.totalBytes != n * OverflowBytes(core.m_segmentSize) + result.tailBytes)
        ThrowCorrupt(core,
                     "the head of a long element names " + std::to_string(result.totalBytes) + " bytes, expected are " +
                         std::to_string(n) + " parts of " + std::to_string(OverflowBytes(core.m_segmentSize)) +
                         " and " + std::to_string(result.tailBytes) + " bytes more",
                     LocationOffset(l));
    result.parts.resize(static_cast<size_t>(n));
    std::memcpy(result.parts.data(), payload + sizeof prefix, static_cast<size_t>(listBytes));
    for (const Location part : result.parts) {
        if (!core.m_segments->IsInside(part)) ThrowOutside(core, "a long element has a part", part, LocationOffset(l));
    }
    return result;
}

namespace {

class SpareMemory {
public:
    constexpr SpareMemory() = default;
    SpareMemory(const SpareMemory&) = delete;
    SpareMemory& operator=(const SpareMemory&) = delete;
    ~SpareMemory() {
        ::operator delete(m_memory);
        m_hasEnded = true;
    }
    void* Take() { return std::exchange(m_memory, nullptr); }
    bool Keep(void* memory) {
        if (m_memory || m_hasEnded) return false;
        m_memory = memory;
        return true;
    }

private:
    void* m_memory = nullptr;
    bool m_hasEnded = false; // elements may be closed while the thread ends
};

constinit thread_local SpareMemory t_spareMemory;

} // namespace

void* SerialElement::operator new(std::size_t size) {
    void* const spare = t_spareMemory.Take();
    return spare ? spare : ::operator new(size);
}

void SerialElement::operator delete(void* p) noexcept {
    if (!t_spareMemory.Keep(p)) ::operator delete(p);
}

SerialElement* SerialElement::Open(const StoreCore& core, const Index& index, Seid seid) {
    const std::atomic<Location>* const place = index.Find(seid);
    if (!place) return nullptr;
    std::unique_ptr<SerialElement, void (*)(SerialElement*)> element(nullptr, [](SerialElement* e) { delete e; });
    for (;;) {
        const Location l = place->load(std::memory_order_acquire);
        if (!l) return nullptr;
        if (!element) element.reset(new SerialElement(core, seid));
        element->m_location = l;
        element->Pin(core.m_segments->SlotOf(l));
        if (place->load(std::memory_order_seq_cst) == l && element->PinParts(*place)) return element.release();
        element->UnpinAll();
    }
}

SerialElement::~SerialElement() { UnpinAll(); }

void SerialElement::Close() { delete this; }

void SerialElement::Pin(ssize_t slot) {
    (*m_core.m_segments)[slot].pins.fetch_add(1, std::memory_order_seq_cst);
    m_pinned = slot;
}

void SerialElement::UnpinAll() {
    if (m_long) {
        for (const ssize_t slot : m_long->pinned)
            (*m_core.m_segments)[slot].pins.fetch_sub(1, std::memory_order_release);
        m_long->pinned.clear();
    }
    if (m_pinned >= 0) (*m_core.m_segments)[m_pinned].pins.fetch_sub(1, std::memory_order_release);
    m_pinned = -1;
}

// The head is pinned and current. Verifies it; false if the element has moved while its parts were being pinned.
bool SerialElement::PinParts(const std::atomic<Location>& place) {
    const octet_t* const head = LoadPacket(m_core, m_location, EPacketType::HEAD, m_seid.value_, ELEMENT_TAIL_BYTES);
    const uint32 info = ReadPod<PacketHeader>(head).info;
    const bool isLong = PacketFlags(info) & PACKET_FLAG_LONG;
    if (isLong != IsLong(m_location))
        ThrowCorrupt(m_core,
                     std::string("found the head of ") + (isLong ? "a long" : "an ordinary") + " element, expected " +
                         (isLong ? "an ordinary" : "a long") + " one, as the index says,",
                     LocationOffset(m_location));
    if (!isLong) {
        m_bytes = head + PACKET_HEADER_BYTES;
        m_size = PayloadBytes(info);
        return true;
    }
    m_bytes = nullptr;
    m_long = std::make_unique<Long>();
    m_long->head = ParseLongHead(m_core, head, m_location);
    m_size = m_long->head.totalBytes;
    m_long->pinned.reserve(m_long->head.parts.size());
    for (const Location part : m_long->head.parts) {
        const ssize_t slot = m_core.m_segments->SlotOf(part);
        (*m_core.m_segments)[slot].pins.fetch_add(1, std::memory_order_seq_cst);
        m_long->pinned.push_back(slot);
    }
    if (place.load(std::memory_order_seq_cst) == m_location) return true;
    UnpinAll();
    m_long.reset();
    return false;
}

ReadOnlyBuffer SerialElement::GetBuffer() {
    if (!m_bytes) Assemble();
    return {m_bytes, m_size};
}

void SerialElement::Assemble() {
    const ssize_t partBytes = OverflowBytes(m_core.m_segmentSize);
    // Its parts are packets of the file, each only once: checked before the memory is taken.
    if (m_size > m_core.m_file.Size())
        ThrowCorrupt(m_core,
                     "found a long element of " + std::to_string(m_size) + " bytes, expected at most " +
                         std::to_string(m_core.m_file.Size()) + " as the file has",
                     LocationOffset(m_location));
    auto buffer = std::make_unique_for_overwrite<octet_t[]>(static_cast<size_t>(m_size + ELEMENT_TAIL_BYTES));
    octet_t* to = buffer.get();
    uint32 ordinal = 0;
    for (const Location part : m_long->head.parts) {
        CopyPart(part, ordinal, to);
        to += partBytes;
        ++ordinal;
    }
    std::memcpy(to, m_long->head.tail, static_cast<size_t>(m_long->head.tailBytes));
    std::memset(to + m_long->head.tailBytes, 0, static_cast<size_t>(ELEMENT_TAIL_BYTES));
    m_long->buffer = std::move(buffer);
    m_bytes = m_long->buffer.get();
    UnpinAll();
}

// Copies in blocks and takes the checksum of each copy while it is in the cache: a pass of its own over the mapping would
// take as long as the copy (bench/LssReadBench, LongElement).
void SerialElement::CopyPart(Location part, uint32 ordinal, octet_t* to) const {
    constexpr ssize_t BLOCK_BYTES = 16384;
    constexpr ssize_t PREFIX_BYTES = sizeof(OverflowPrefix);
    const ssize_t partBytes = OverflowBytes(m_core.m_segmentSize);
    const octet_t* const packet = TouchPacket(m_core, part, 0);
    const PacketHeader header = ReadPod<PacketHeader>(packet);
    const octet_t* from = packet + PACKET_HEADER_BYTES;
    if (PacketType(header.info) != EPacketType::LONG_PART || header.key != m_seid.value_ ||
        PayloadBytes(header.info) != PREFIX_BYTES + partBytes || PacketBytes(header.info) != LocationBytes(part) ||
        ReadPod<OverflowPrefix>(from).ordinal != ordinal)
        ThrowCorrupt(m_core,
                     "found a packet of type " + std::to_string(static_cast<uint32>(PacketType(header.info))) +
                         ", key " + std::to_string(header.key) + " and " + std::to_string(PacketBytes(header.info)) +
                         " bytes, expected part " + std::to_string(ordinal) + " of the long element " +
                         std::to_string(m_seid.value_) + " of " + std::to_string(LocationBytes(part)) + " bytes",
                     LocationOffset(part));
    const uint32 offset = m_core.m_segments->OffsetIn(part);
    uint32 crc = Crc32c(&offset, sizeof offset, (*m_core.m_segments)[m_core.m_segments->SlotOf(part)].crcSeed);
    crc = Crc32c(packet + 4, PACKET_HEADER_BYTES - 4 + PREFIX_BYTES, crc);
    from += PREFIX_BYTES;
    for (ssize_t done = 0; done < partBytes; done += BLOCK_BYTES) {
        const ssize_t n = std::min(BLOCK_BYTES, partBytes - done);
        std::memcpy(to + done, from + done, static_cast<size_t>(n));
        crc = Crc32c(to + done, n, crc);
    }
    if (crc != header.crc) ThrowWrongChecksum(m_core, part, m_seid.value_, crc, header.crc);
}

} // namespace quna

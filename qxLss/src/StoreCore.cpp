#include "qxLss/src/StoreCore.h"

#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/Mutants.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Tracer.h"

#include <algorithm>

#include <pthread.h>

namespace quna {

namespace {

std::atomic<uint32> g_forkGeneration{0};

// The largest segment table, in slots: at the usual sizes more than 8 TiB have.
constexpr ssize_t MAX_SLOTS = ssize_t{1} << 27;

std::string Describe(EPacketType type, uint64 key, ssize_t bytes) {
    return "of type " + std::to_string(static_cast<uint32>(type)) + ", key " + std::to_string(key) + " and " +
           std::to_string(bytes) + " bytes";
}

void OnForkInChild() { g_forkGeneration.fetch_add(1, std::memory_order_relaxed); }

} // namespace

void InstallForkGuard() {
    static const int installed = ::pthread_atfork(nullptr, nullptr, &OnForkInChild);
    static_cast<void>(installed);
}

uint32 ForkGeneration() noexcept { return g_forkGeneration.load(std::memory_order_relaxed); }

void StoreCore::Attach(const StoreId& storeId, ssize_t segmentSize) {
    m_storeId = storeId;
    m_segmentSize = segmentSize;
    m_map = std::make_unique<FileMap>(m_file);
    const int64 maxSlots = (m_map->MaxBytes() - DataStart(segmentSize)) / segmentSize;
    m_segments = std::make_unique<SegmentTable>(segmentSize, std::min<int64>(maxSlots, MAX_SLOTS));
}

void StoreCore::Fail(const char* what) noexcept {
    try {
        {
            std::lock_guard lock(m_failureMutex);
            if (!m_failure.empty()) return;
            m_failure = "The store '" + m_file.Path() + "' has stopped writing after a failure: " + what;
            // Under the mutex: whoever comes second goes on at once, and must not write or sync again.
            m_hasFailed.store(true, std::memory_order_release);
        }
        TracerX() << m_failure << "\n";
    } catch (...) {
        m_hasFailed.store(true, std::memory_order_release);
    }
}

void StoreCore::FailWithCurrentException() noexcept {
    try {
        throw;
    } catch (const std::exception& e) {
        Fail(e.what());
    } catch (...) {
        Fail("an exception that is no std::exception");
    }
}

void StoreCore::ThrowUnwritable() const {
    if (IsForkedChild())
        throw FileException(("The store '" + m_file.Path() + "' belongs to the parent of this process").c_str());
    std::lock_guard lock(m_failureMutex);
    throw FileException(m_failure.empty() ? "The store has stopped writing after a failure" : m_failure.c_str());
}

void ThrowCorrupt(const StoreCore& core, const std::string& what, int64 offset, ConstStringZ advice) {
    std::string text = "The store '" + core.m_file.Path() + "' is damaged: " + what;
    if (offset >= 0) text += " at offset " + std::to_string(offset);
    text += std::string(". ") + advice;
    throw CorruptLSSException(text.c_str());
}

void ThrowOutside(const StoreCore& core, const std::string& what, Location l, int64 namedAt) {
    const SegmentTable& segments = *core.m_segments;
    ThrowCorrupt(core,
                 what + " outside the segments: found " + std::to_string(LocationBytes(l)) + " bytes from offset " +
                     std::to_string(LocationOffset(l)) + " on, expected some between " +
                     std::to_string(segments.OffsetOf(0)) + " and " +
                     std::to_string(segments.OffsetOf(segments.Limit())),
                 namedAt);
}

const octet_t* TouchPacket(const StoreCore& core, Location l, ssize_t loadBehind) {
    const SegmentTable& segments = *core.m_segments;
    if (!segments.IsInside(l)) ThrowOutside(core, "a location points", l);
    const ssize_t slot = segments.SlotOf(l);
    const octet_t* const base = segments[slot].base.load(std::memory_order_acquire);
    if (!base) [[unlikely]]
        ThrowCorrupt(core,
                     "found a free segment, expected a packet of " + std::to_string(LocationBytes(l)) + " bytes in it",
                     LocationOffset(l));
    if (base == core.m_map->At(segments.OffsetOf(slot)))
        core.m_map->Load(LocationOffset(l), LocationBytes(l), loadBehind);
    return base + segments.OffsetIn(l);
}

const octet_t* LoadPacket(const StoreCore& core, Location l, EPacketType type, uint64 key, ssize_t loadBehind) {
    const octet_t* const packet = TouchPacket(core, l, loadBehind);
    const SegmentTable& segments = *core.m_segments;
    const PacketHeader header = ReadPod<PacketHeader>(packet);
    if (PacketType(header.info) != type || header.key != key || PacketBytes(header.info) != LocationBytes(l))
        ThrowCorrupt(core,
                     "found a packet " + Describe(PacketType(header.info), header.key, PacketBytes(header.info)) +
                         ", expected one " + Describe(type, key, LocationBytes(l)),
                     LocationOffset(l));
    const uint32 crc =
        PacketCrc(segments[segments.SlotOf(l)].crcSeed, segments.OffsetIn(l), packet, PayloadBytes(header.info));
    if (crc != header.crc && !IsMutant(EMutant::ELEMENT_CHECKSUM_IGNORED))
        ThrowWrongChecksum(core, l, key, crc, header.crc);
    return packet;
}

void ThrowWrongChecksum(const StoreCore& core, Location l, uint64 key, uint32 found, uint32 expected) {
    ThrowCorrupt(core,
                 "the bytes of the packet with key " + std::to_string(key) + " have the checksum " +
                     std::to_string(found) + ", expected is " + std::to_string(expected),
                 LocationOffset(l));
}

} // namespace quna

#include "qxLss/src/Relocation.h"

#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/Mutants.h"
#include "qxLss/src/SerialElement.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Tracer.h"

#include <algorithm>
#include <cstring>

namespace quna {

namespace {

// The turn is held for the publishing of so many moves at most: some 0.3 ms.
constexpr ssize_t MAX_MOVES = 2048;
constexpr ssize_t MOVES_A_STEP = 8; // between looks at the stop flag

// Memory is asked for ahead of need: what is moved comes from all over the victims.
constexpr ssize_t NUM_WALKS = 8;          // at once
constexpr size_t MOVES_AHEAD = 6;         // of copying and publishing
constexpr ssize_t MAX_BYTES_AHEAD = 1024; // of each packet; then the processor has seen where it goes
constexpr ssize_t CACHE_LINE_BYTES = 64;

ssize_t LongEntryBytes(ssize_t numPairs) {
    return static_cast<ssize_t>(sizeof(RelocLong)) + numPairs * 2 * static_cast<ssize_t>(sizeof(Location));
}

// As long as it lives, what stands in the slot can be read: no segment is written there, and the buffer that has the bytes of
// the open user segment with enableFileBuffering is not used for the next one.
class SlotPin {
public:
    explicit SlotPin(SegmentSlot& slot) : m_slot(slot) { m_slot.pins.fetch_add(1, std::memory_order_seq_cst); }
    SlotPin(const SlotPin&) = delete;
    SlotPin& operator=(const SlotPin&) = delete;
    ~SlotPin() { m_slot.pins.fetch_sub(1, std::memory_order_release); }

private:
    SegmentSlot& m_slot;
};

void Put(std::vector<octet_t>& to, const void* p, size_t n) {
    const octet_t* const bytes = static_cast<const octet_t*>(p);
    to.insert(to.end(), bytes, bytes + n);
}

} // namespace

RelocationResult Relocation::Run(const std::vector<VictimCandidate>& victims, const std::atomic<bool>& stop) {
    m_victims = victims;
    for (const VictimCandidate& victim : victims) m_slots.insert(static_cast<uint32>(victim.slot));
    CollectAll(stop);
    if (stop.load(std::memory_order_relaxed)) return m_result;
    m_core.Step();
    CopyAll(stop);
    FreeEmptied();
    m_core.m_counters.movingBytes.store(0, std::memory_order_relaxed);
    return m_result;
}

// --- what is live

void Relocation::CollectAll(const std::atomic<bool>& stop) {
    auto next = m_victims.begin();
    for (;;) {
        while (next != m_victims.end() && static_cast<ssize_t>(m_walks.size()) < NUM_WALKS) {
            if (stop.load(std::memory_order_relaxed)) return;
            BeginWalk(*next++);
        }
        if (m_walks.empty()) return;
        for (size_t i = 0; i < m_walks.size();) {
            if (TryStep(m_walks[i])) {
                ++i;
            } else {
                m_walks[i] = m_walks.back();
                m_walks.pop_back();
            }
        }
    }
}

void Relocation::BeginWalk(const VictimCandidate& victim) {
    if (victim.liveBytes == 0) return;
    const int64 offset = m_core.m_segments->OffsetOf(victim.slot);
    const uint64 clock = m_log.HandedClock();
    const int ageClass = AgeClassOf(clock - std::min(clock, victim.dataStamp),
                                    m_core.m_counters.liveBytes.load(std::memory_order_relaxed));
    try {
        m_walks.push_back({&victim, offset, m_core.m_map->Load(offset, m_core.m_segmentSize), ageClass});
    } catch (const FileException& e) {
        LeaveAlone(MakeLocation(offset + SEGMENT_HEADER_BYTES, 0), e.what());
    }
}

bool Relocation::TryStep(Walk& walk) {
    try {
        return Step(walk);
    } catch (const CorruptLSSException& e) { // a page of the index
        LeaveAlone(MakeLocation(walk.offset + SEGMENT_HEADER_BYTES, 0), e.what());
    } catch (const FileException& e) {
        LeaveAlone(MakeLocation(walk.offset + SEGMENT_HEADER_BYTES, 0), e.what());
    }
    return false;
}

// False at the end. Dead packets are stepped over by their length. If damage leads astray, the live packets that are missed
// keep their segment from being freed.
bool Relocation::Step(Walk& walk) {
    Decide(walk);
    if (walk.pos + PACKET_HEADER_BYTES > m_core.m_segmentSize) return false;
    const PacketHeader header = ReadPod<PacketHeader>(walk.bytes + walk.pos);
    const ssize_t packetBytes = PacketBytes(header.info);
    if (PacketType(header.info) < EPacketType::HEAD || PacketType(header.info) > EPacketType::LIST ||
        walk.pos + packetBytes > m_core.m_segmentSize)
        return false;
    if (PacketType(header.info) == EPacketType::HEAD) {
        walk.key = header.key;
        walk.location = MakeLocation(walk.offset + walk.pos, packetBytes, PacketFlags(header.info) & PACKET_FLAG_LONG);
        walk.place = m_index.Find(Seid(header.key));
        __builtin_prefetch(walk.place);
    } else if (PacketType(header.info) == EPacketType::LONG_PART && IsLong(m_index.Get(Seid(header.key)))) {
        CollectLong(header.key, walk);
    }
    walk.pos += packetBytes;
    __builtin_prefetch(walk.bytes + walk.pos);
    return true;
}

void Relocation::Decide(Walk& walk) {
    const std::atomic<Location>* const place = std::exchange(walk.place, nullptr);
    if (!place || place->load(std::memory_order_acquire) != walk.location) return;
    if (IsLong(walk.location))
        CollectLong(walk.key, walk);
    else
        m_plan.push_back({walk.key, walk.location, 0, place, walk.ageClass, walk.victim->dataStamp});
}

void Relocation::CollectLong(uint64 seid, const Walk& walk) {
    if (m_longs.insert(seid).second) m_longPlan.push_back({seid, 0, 0, nullptr, walk.ageClass, walk.victim->dataStamp});
}

void Relocation::LeaveAlone(Location l, const char* what) {
    SegmentSlot& slot = (*m_core.m_segments)[m_core.m_segments->SlotOf(l)];
    if (slot.isDamaged) return;
    slot.isDamaged = true;
    TracerX() << "The cleaner of the store '" << m_core.m_file.Path() << "' leaves a segment as it is: " << what
              << "\n";
}

// Null if the packet is damaged: it stays, and with it its segment, so that what can still be read of it can be.
const octet_t* Relocation::Load(Location l, EPacketType type, uint64 seid) {
    try {
        return LoadPacket(m_core, l, type, seid);
    } catch (const CorruptLSSException& e) {
        LeaveAlone(l, e.what());
    } catch (const FileException& e) {
        LeaveAlone(l, e.what());
    }
    return nullptr;
}

// --- copying

// In the order of the keys within a class, so that neighbours come to lie together.
void Relocation::CopyAll(const std::atomic<bool>& stop) {
    std::sort(m_plan.begin(), m_plan.end(), [](const Move& a, const Move& b) {
        return a.ageClass != b.ageClass ? a.ageClass < b.ageClass : a.seid < b.seid;
    });
    ssize_t step = 0;
    const auto mayGoOn = [&] {
        if (++step % MOVES_A_STEP == 0) m_core.Step();
        return !m_result.lacksRoom && !stop.load(std::memory_order_relaxed);
    };
    for (size_t i = 0; i < m_plan.size(); ++i) {
        if (!mayGoOn()) break;
        if (i + MOVES_AHEAD < m_plan.size()) Prefetch(m_plan[i + MOVES_AHEAD]);
        if (!CopyMove(m_plan[i])) continue;
        if (static_cast<ssize_t>(m_moved.size()) >= MAX_MOVES ||
            RelocBytes() + static_cast<ssize_t>(sizeof(RelocRange)) > m_log.MaxRelocBytes())
            Emit();
    }
    for (const Move& source : m_longPlan) {
        if (!mayGoOn()) break;
        CopyLong(source);
    }
    Emit();
}

void Relocation::Prefetch(const Move& move) const {
    __builtin_prefetch(move.place);
    const octet_t* const packet = m_core.m_map->At(LocationOffset(move.from));
    const ssize_t n = std::min(LocationBytes(move.from), MAX_BYTES_AHEAD);
    for (ssize_t i = 0; i < n; i += CACHE_LINE_BYTES) __builtin_prefetch(packet + i);
}

bool Relocation::CopyMove(Move& move) {
    if (move.place->load(std::memory_order_acquire) != move.from) return false; // overwritten since
    const octet_t* const packet = Load(move.from, EPacketType::HEAD, move.seid);
    if (!packet) return false;
    const uint32 info = ReadPod<PacketHeader>(packet).info;
    move.to = m_streams.Append(move.ageClass, EPacketType::HEAD, move.seid, packet + PACKET_HEADER_BYTES,
                               PayloadBytes(info), PacketFlags(info), move.dataStamp, m_log.HandedClock());
    if (!move.to) {
        m_result.lacksRoom = true;
        return false;
    }
    m_result.movedBytes += LocationBytes(move.to);
    m_moved.push_back(move);
    return true;
}

// Moves those parts that lie in victims and gives the element a new head that names their new places: in one RELOC, so that
// recovery finds either the old list with the old parts or the new one with the new. The head need not lie in a victim: it
// may be in the open user segment, which a transaction may end at any moment.
bool Relocation::CopyLong(const Move& source) {
    const Location oldHead = m_index.Get(Seid(source.seid));
    if (!IsLong(oldHead)) return false;
    const SlotPin pin((*m_core.m_segments)[m_core.m_segments->SlotOf(oldHead)]);
    if (m_index.Get(Seid(source.seid)) != oldHead) return false; // written anew since
    const octet_t* const packet = Load(oldHead, EPacketType::HEAD, source.seid);
    if (!packet) return false;
    LongHead head;
    try {
        head = ParseLongHead(m_core, packet, oldHead);
    } catch (const CorruptLSSException& e) {
        LeaveAlone(oldHead, e.what());
        return false;
    }
    const ssize_t numInVictims =
        std::count_if(head.parts.begin(), head.parts.end(), [&](Location part) { return IsInVictim(part); });
    if (numInVictims == 0 && !IsInVictim(oldHead)) return false; // written anew since
    // Its ranges: four parts fill a segment, and the head may begin another.
    const ssize_t needed =
        LongEntryBytes(numInVictims) + (numInVictims / 4 + 2) * static_cast<ssize_t>(sizeof(RelocRange));
    if (RelocBytes() + needed > m_log.MaxRelocBytes()) Emit();

    const uint32 info = ReadPod<PacketHeader>(packet).info;
    std::vector<octet_t> payload(packet + PACKET_HEADER_BYTES, packet + PACKET_HEADER_BYTES + PayloadBytes(info));
    LongMove move{source.seid, oldHead, 0, {}};
    const uint64 clock = m_log.HandedClock();
    for (size_t i = 0; i < head.parts.size(); ++i) {
        const Location part = head.parts[i];
        if (!IsInVictim(part)) continue;
        const octet_t* const bytes = Load(part, EPacketType::LONG_PART, source.seid);
        if (!bytes) return false;
        const Location to =
            m_streams.Append(source.ageClass, EPacketType::LONG_PART, source.seid, bytes + PACKET_HEADER_BYTES,
                             PayloadBytes(ReadPod<PacketHeader>(bytes).info), 0, source.dataStamp, clock);
        if (!to) {
            m_result.lacksRoom = true;
            return false;
        }
        m_result.movedBytes += LocationBytes(to);
        move.pairs.emplace_back(part, to);
        std::memcpy(payload.data() + sizeof(LongPrefix) + i * sizeof(Location), &to, sizeof to);
    }
    move.newHead = m_streams.Append(source.ageClass, EPacketType::HEAD, source.seid, payload.data(),
                                    static_cast<ssize_t>(payload.size()), PACKET_FLAG_LONG, source.dataStamp, clock);
    if (!move.newHead) {
        m_result.lacksRoom = true;
        return false;
    }
    m_result.movedBytes += LocationBytes(move.newHead);
    m_longBytes += LongEntryBytes(static_cast<ssize_t>(move.pairs.size()));
    m_movedLongs.push_back(std::move(move));
    return true;
}

// --- telling the log and the index

ssize_t Relocation::RelocBytes() const {
    return static_cast<ssize_t>(sizeof(RelocPayload)) +
           m_streams.NumRanges() * static_cast<ssize_t>(sizeof(RelocRange)) +
           static_cast<ssize_t>(m_victims.size() * sizeof(RelocVictim)) + m_longBytes;
}

std::vector<octet_t> Relocation::EncodeReloc(const std::vector<SurvivorStreams::Range>& ranges, uint32 flags) const {
    std::vector<octet_t> payload;
    const bool withPairs = !IsMutant(EMutant::LONG_MOVES_WITHOUT_PAIRS);
    const RelocPayload head{static_cast<uint32>(ranges.size()), static_cast<uint32>(m_victims.size()),
                            withPairs ? static_cast<uint32>(m_movedLongs.size()) : 0, flags};
    Put(payload, &head, sizeof head);
    for (const SurvivorStreams::Range& range : ranges) {
        const ssize_t from = IsMutant(EMutant::RANGE_FROM_THE_BEGINNING) ? SEGMENT_HEADER_BYTES : range.from;
        const RelocRange entry{static_cast<uint32>(range.slot), static_cast<uint32>(from),
                               static_cast<uint32>(range.to), 0, range.sequence};
        Put(payload, &entry, sizeof entry);
    }
    for (const VictimCandidate& victim : m_victims) {
        const RelocVictim entry{static_cast<uint32>(victim.slot), 0, victim.sequence};
        Put(payload, &entry, sizeof entry);
    }
    if (!withPairs) return payload;
    for (const LongMove& move : m_movedLongs) {
        const RelocLong entry{move.seid, move.oldHead, move.newHead, static_cast<uint32>(move.pairs.size()), 0};
        Put(payload, &entry, sizeof entry);
        for (const auto& [from, to] : move.pairs) {
            Put(payload, &from, sizeof from);
            Put(payload, &to, sizeof to);
        }
    }
    return payload;
}

// With the turn. What the log says and the index does not would be said again by recovery only: nothing may follow a failure.
void Relocation::AppendReloc(const std::vector<octet_t>& payload) {
    m_core.ThrowIfUnwritable();
    if (IsMutant(EMutant::RELOC_LEFT_OUT)) return;
    m_log.AppendReloc(m_batchNumber, payload.data(), static_cast<ssize_t>(payload.size()));
    m_log.HandOver();
}

void Relocation::Emit() {
    if (!m_streams.HasUnreported()) return;
    m_streams.HandOver(); // readers follow the index at once, and recovery verifies the ranges
    m_core.Step();
    {
        TurnScope turn(m_log.Turn());
        try {
            AppendReloc(EncodeReloc(m_streams.TakeRanges(), IsMutant(EMutant::LAST_TOO_EARLY) ? RELOC_FLAG_LAST : 0));
            Publish();
        } catch (...) {
            m_core.FailWithCurrentException();
            throw;
        }
    }
    m_moved.clear();
    m_movedLongs.clear();
    m_longBytes = 0;
    m_core.Step();
}

void Relocation::Publish() {
    const SegmentTable& segments = *m_core.m_segments;
    int64 moving = 0;
    for (size_t i = 0; i < m_moved.size(); ++i) {
        if (i + MOVES_AHEAD < m_moved.size()) __builtin_prefetch(m_moved[i + MOVES_AHEAD].place, 1);
        const Move& move = m_moved[i];
        const IndexSlot slot = m_index.Prepare(Seid(move.seid));
        if (slot.Get() != move.from && !IsMutant(EMutant::PUBLISH_WITHOUT_LOOKING)) continue; // overwritten since
        const Location old = m_index.Publish(slot, move.to);
        if (old) moving += segments.Debit(old);
        segments.Credit(move.to);
    }
    m_core.m_counters.movingBytes.fetch_add(moving, std::memory_order_relaxed);
    for (const LongMove& move : m_movedLongs) PublishLong(move);
}

void Relocation::PublishLong(const LongMove& move) {
    const SegmentTable& segments = *m_core.m_segments;
    const IndexSlot slot = m_index.Prepare(Seid(move.seid));
    if (slot.Get() != move.oldHead) return;
    m_index.Publish(slot, move.newHead);
    segments.Debit(move.oldHead);
    segments.Credit(move.newHead);
    for (const auto& [from, to] : move.pairs) {
        segments.Debit(from);
        segments.Credit(to);
    }
}

// --- freeing

void Relocation::FreeEmptied() {
    uint64 clock = 0;
    {
        TurnScope turn(m_log.Turn());
        std::erase_if(m_victims, [&](const VictimCandidate& victim) {
            return (*m_core.m_segments)[victim.slot].livePackets != 0;
        });
        if (m_victims.empty()) return;
        try {
            AppendReloc(EncodeReloc({}, RELOC_FLAG_LAST));
        } catch (...) {
            m_core.FailWithCurrentException();
            throw;
        }
        clock = m_log.HandedClock();
    }
    m_core.Step();
    if (!IsMutant(EMutant::FREE_BEFORE_SYNC)) m_flusher.SyncUpTo(clock);
    m_core.Step();
    for (const VictimCandidate& victim : m_victims) m_space.Free(victim.slot);
    m_result.numFreed = static_cast<ssize_t>(m_victims.size());
    m_core.Step();
}

} // namespace quna

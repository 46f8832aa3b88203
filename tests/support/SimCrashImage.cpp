#include "tests/support/SimCrashImage.h"

#include <algorithm>

namespace quna {
namespace {

using EKind = SimCall::EKind;
using EChoice = CrashVariant::EChoice;

constexpr int64 SECTOR = 512;
constexpr int64 BLOCK = 4096;
constexpr int64 SEGMENTS_AT = 131072; // sectors before that have no counterpart elsewhere
constexpr uint64 WAYS = 3;            // to tear at a place: prefix, suffix, all but a middle
constexpr uint64 PLACES_INSIDE = 2;   // inside a sector, for each write: in its first bytes, anywhere
constexpr int64 FIRST_BYTES = 64;

bool IsWrite(const SimCall& call) { return call.kind == EKind::WRITE || call.kind == EKind::WRITE_DURABLE; }

// How many sector boundaries lie inside the write.
int64 NumBoundaries(const SimCall& call) {
    const int64 n = std::ssize(call.data);
    return n <= 0 ? 0 : (call.offset + n - 1) / SECTOR - call.offset / SECTOR;
}

} // namespace

uint64 NumTearsOf(const SimCall& call) {
    return IsWrite(call) ? WAYS * (static_cast<uint64>(NumBoundaries(call)) + PLACES_INSIDE) : 0;
}

CrashImageMaker::CrashImageMaker(const SimBlocks& base, const SimBlocks& old, const CrashVariant& variant)
    : m_base(base), m_old(old), m_variant(variant), m_random(MixBits(variant.seed * 8191 + variant.index)) {}

SimBlocks CrashImageMaker::Make(Apply apply) {
    m_apply = apply;
    m_bytes = m_base;
    switch (m_variant.choice) {
    case EChoice::SUBSET: ApplySubset(); break;
    case EChoice::TORN: ApplyTears(); break;
    case EChoice::SECTORS: ApplySectors(); break;
    case EChoice::TEAR: ApplyOneTear(); break;
    case EChoice::NEW_SPACE:
        ApplyChosen();
        FillNewSpace();
        ApplyDurable();
        break;
    case EChoice::SIZE:
        ApplyAll();
        ChangeSize();
        break;
    case EChoice::GARBLED:
        ApplyChosen();
        Garble();
        ApplyDurable();
        break;
    default: ApplyChosen(); break;
    }
    return std::move(m_bytes);
}

// What was written durably while earlier calls were pending is there whatever became of those.
void CrashImageMaker::ApplyDurable() {
    for (const Call& c : m_calls)
        if (c.durable) m_apply(m_bytes, *c.call);
}

// Each call whole or not.
void CrashImageMaker::ApplyChosen() {
    const ssize_t n = std::ssize(m_calls);
    ssize_t last = -1; // the last one that may be missing
    for (ssize_t i = 0; i < n; ++i)
        if (!m_calls[static_cast<size_t>(i)].durable) last = i;
    const bool mostly = OneIn(2);
    for (ssize_t i = 0; i < n; ++i) {
        const Call& c = m_calls[static_cast<size_t>(i)];
        bool whole = c.durable;
        switch (m_variant.choice) {
        case EChoice::NONE: break;
        case EChoice::ALL: whole = true; break;
        case EChoice::ALL_BUT_LAST: whole = whole || i != last; break;
        case EChoice::ONLY_LAST: whole = whole || i == last; break;
        case EChoice::RANDOM_SUBSET: whole = whole || OneIn(2); break;
        default: whole = whole || mostly || !OneIn(4); break;
        }
        if (whole) m_apply(m_bytes, *c.call);
    }
}

void CrashImageMaker::ApplySubset() {
    std::vector<const SimCall*> chosen;
    ssize_t numFree = 0;
    for (const Call& c : m_calls) numFree += !c.durable;
    if (numFree <= 8) {
        uint64 bits = m_variant.index;
        for (const Call& c : m_calls) {
            if (c.durable) {
                m_apply(m_bytes, *c.call);
                continue;
            }
            if (bits & 1) m_apply(m_bytes, *c.call);
            bits >>= 1;
        }
        return;
    }
    for (const Call& c : m_calls)
        if (!c.durable && OneIn(2)) chosen.push_back(c.call);
    std::shuffle(chosen.begin(), chosen.end(), m_random);
    for (const SimCall* call : chosen) m_apply(m_bytes, *call);
    ApplyDurable();
}

// Each call whole, not, or torn.
void CrashImageMaker::ApplyTears() {
    for (const Call& c : m_calls) {
        if (!c.durable && IsWrite(*c.call) && OneIn(3))
            ApplyTorn(*c.call);
        else if (c.durable || OneIn(2))
            m_apply(m_bytes, *c.call);
    }
}

// A write of which the disk has only a part: a beginning, an end, or all but a middle, cut at sectors; seldom one cut
// lies inside a sector.
void CrashImageMaker::ApplyTorn(const SimCall& call) {
    const int64 n = std::ssize(call.data);
    const auto cut = [&] {
        const int64 at = static_cast<int64>(Pick(static_cast<uint64>(n) + 1));
        if (OneIn(8)) return at;
        return std::clamp<int64>((call.offset + at) / SECTOR * SECTOR - call.offset, 0, n);
    };
    int64 a = cut();
    int64 b = cut();
    if (a > b) std::swap(a, b);
    const uint64 way = Pick(WAYS);
    if (way != 1) m_bytes.Write(call.offset, call.data.data(), a);
    if (way != 0) m_bytes.Write(call.offset + b, call.data.data() + b, n - b);
}

// One call is torn in the way that the index says. Those before it are whole; those behind it as chance wants it.
void CrashImageMaker::ApplyOneTear() {
    uint64 number = 0;
    for (const Call& c : m_calls)
        if (!c.durable) number += NumTearsOf(*c.call);
    number = number ? m_variant.index % number : 0;
    const uint64 rest = Pick(3); // behind it: nothing, everything, some
    bool done = false;
    for (const Call& c : m_calls) {
        const uint64 ways = c.durable ? 0 : NumTearsOf(*c.call);
        if (done || ways == 0 || number >= ways) {
            number -= done || ways == 0 ? 0 : ways;
            if (!done || c.durable || rest == 1 || (rest == 2 && OneIn(2))) m_apply(m_bytes, *c.call);
            continue;
        }
        done = true;
        const SimCall& call = *c.call;
        const int64 n = std::ssize(call.data);
        const int64 place = static_cast<int64>(number / WAYS);
        int64 a = 0;
        int64 b = 0; // the middle
        if (place < NumBoundaries(call)) {
            a = (call.offset / SECTOR + 1 + place) * SECTOR - call.offset;
            b = std::min(n, a + SECTOR);
        } else {
            const bool first = place == NumBoundaries(call);
            a = static_cast<int64>(Pick(static_cast<uint64>(first ? std::min(n, FIRST_BYTES) : n)));
            b = std::min(n, a + 8 + static_cast<int64>(Pick(first ? 32 : SECTOR)));
        }
        const uint64 way = number % WAYS;
        if (way != 1) m_bytes.Write(call.offset, call.data.data(), a);
        if (way == 1) b = a;
        if (way != 0) m_bytes.Write(call.offset + b, call.data.data() + b, n - b);
    }
}

// Each sector was written back last before or after each call. The choice depends on the sector alone and the position of
// the call, so that a later call never shows without an earlier one in the same sector.
void CrashImageMaker::ApplySectors() {
    const uint64 n = static_cast<uint64>(m_calls.size());
    for (uint64 i = 0; i < n; ++i) {
        const SimCall& call = *m_calls[i].call;
        if (m_calls[i].durable || !IsWrite(call)) {
            if (m_calls[i].durable || !OneIn(4)) m_apply(m_bytes, call);
            continue;
        }
        const int64 end = call.offset + std::ssize(call.data);
        for (int64 sector = call.offset / SECTOR; sector * SECTOR < end; ++sector) {
            if (MixBits(m_variant.seed ^ (static_cast<uint64>(sector) * 0x9E3779B97F4A7C15u)) % (n + 1) <= i) continue;
            const int64 from = std::max(call.offset, sector * SECTOR);
            const int64 to = std::min(end, (sector + 1) * SECTOR);
            m_bytes.Write(from, call.data.data() + (from - call.offset), to - from);
        }
    }
    if (n == 0) return;
    for (int64 at = m_base.Size(); at < m_bytes.Size(); at += SECTOR) {
        const int64 size = std::min(SECTOR, m_bytes.Size() - at);
        if (m_bytes.IsZero(at, size) && OneIn(4)) WriteRandom(at, size);
    }
}

// Sectors behind the durable end, and those of lost writes where nothing was before.
void CrashImageMaker::FillNewSpace() {
    std::vector<int64> fresh;
    for (int64 at = (m_base.Size() + SECTOR - 1) / SECTOR * SECTOR; at < m_bytes.Size(); at += SECTOR)
        fresh.push_back(at);
    for (const Call& c : m_calls) {
        if (c.durable || !IsWrite(*c.call)) continue;
        const int64 end = std::min<int64>(c.call->offset + std::ssize(c.call->data), m_base.Size());
        for (int64 at = c.call->offset / SECTOR * SECTOR; at < end; at += SECTOR) fresh.push_back(at);
    }
    const uint64 kind = Pick(4);
    octet_t sector[SECTOR];
    for (const int64 at : fresh) {
        const int64 n = std::min(SECTOR, m_bytes.Size() - at);
        if (n <= 0 || !m_bytes.IsZero(at, n)) continue;
        const uint64 what = kind < 3 ? kind : Pick(4);
        if (what == 0) {
            WriteRandom(at, n);
        } else if (what == 1 && at + n <= m_old.Size()) {
            m_old.Read(at, sector, n);
            m_bytes.Write(at, sector, n);
        } else if (what == 2 && at >= SEGMENTS_AT + BLOCK) {
            const int64 blocks = 1 + static_cast<int64>(Pick(static_cast<uint64>((at - SEGMENTS_AT) / BLOCK)));
            m_bytes.Read(at - blocks * BLOCK, sector, n);
            m_bytes.Write(at, sector, n);
        }
    }
}

void CrashImageMaker::ChangeSize() {
    const int64 size = m_bytes.Size();
    int64 least = std::min(m_base.Size(), size);
    for (const Call& c : m_calls) {
        const SimCall& call = *c.call;
        if (c.durable) least = std::max(least, call.offset + std::ssize(call.data));
    }
    if (least < size && !OneIn(3)) {
        const int64 at = least + static_cast<int64>(Pick(static_cast<uint64>(size - least)));
        m_bytes.Resize(OneIn(2) ? at : std::max(least, at / SECTOR * SECTOR));
        return;
    }
    m_bytes.Resize(size + 1 + static_cast<int64>(Pick(3 * BLOCK)));
    if (OneIn(2)) WriteRandom(size, m_bytes.Size() - size);
}

// What was being written holds random bytes, within one block.
void CrashImageMaker::Garble() {
    std::vector<const SimCall*> writes;
    for (const Call& c : m_calls)
        if (!c.durable && IsWrite(*c.call) && !c.call->data.empty()) writes.push_back(c.call);
    if (writes.empty()) return;
    const SimCall& call = *writes[Pick(writes.size())];
    const int64 block = (call.offset + static_cast<int64>(Pick(call.data.size()))) / BLOCK * BLOCK;
    const int64 at = std::max(block, call.offset);
    const int64 end = std::min<int64>({block + BLOCK, call.offset + std::ssize(call.data), m_bytes.Size()});
    WriteRandom(at, end - at);
}

void CrashImageMaker::WriteRandom(int64 at, int64 n) {
    FileBytes bytes(static_cast<size_t>(std::max<int64>(n, 0)));
    for (octet_t& byte : bytes) byte = static_cast<octet_t>(m_random());
    m_bytes.Write(at, bytes.data(), n);
}

} // namespace quna

#include "tests/support/SimDisk.h"

#include <algorithm>
#include <cstring>
#include <set>

namespace quna {
namespace {

constexpr int64 SECTOR = 512;

using EKind = SimCall::EKind;
using EChoice = CrashVariant::EChoice;

bool IsNameChange(EKind kind) { return kind == EKind::CREATE || kind == EKind::RENAME || kind == EKind::REMOVE; }

bool IsWrite(EKind kind) { return kind == EKind::WRITE || kind == EKind::WRITE_DURABLE; }

void Grow(FileBytes& bytes, int64 size) {
    if (std::ssize(bytes) < size) bytes.resize(static_cast<size_t>(size));
}

void Overwrite(FileBytes& bytes, int64 offset, const octet_t* data, int64 n) {
    if (n <= 0) return;
    Grow(bytes, offset + n);
    std::memcpy(bytes.data() + offset, data, static_cast<size_t>(n));
}

int64 Pick(std::mt19937_64& random, int64 limit) {
    return limit <= 0 ? 0 : static_cast<int64>(random() % static_cast<uint64>(limit));
}

// A write of which the disk has only a part: a beginning, an end, or all but a middle, cut at sectors; seldom one cut
// lies inside a sector.
void ApplyTorn(FileBytes& bytes, const SimCall& call, std::mt19937_64& random) {
    const int64 n = std::ssize(call.data);
    auto cut = [&] {
        const int64 at = Pick(random, n + 1);
        if (random() % 8 == 0) return at;
        const int64 absolute = (call.offset + at) / SECTOR * SECTOR;
        return std::clamp<int64>(absolute - call.offset, 0, n);
    };
    int64 a = cut();
    int64 b = cut();
    if (a > b) std::swap(a, b);
    switch (random() % 3) {
    case 0: Overwrite(bytes, call.offset, call.data.data(), a); break;
    case 1: Overwrite(bytes, call.offset + b, call.data.data() + b, n - b); break;
    default:
        Overwrite(bytes, call.offset, call.data.data(), a);
        Overwrite(bytes, call.offset + b, call.data.data() + b, n - b);
        break;
    }
}

// Space that was never written durably may hold zeros or what an earlier owner left.
void FillNewSpace(FileBytes& bytes, int64 from, std::mt19937_64& random) {
    for (int64 at = from; at < std::ssize(bytes); at += SECTOR) {
        const int64 n = std::min<int64>(SECTOR, std::ssize(bytes) - at);
        octet_t* sector = bytes.data() + at;
        if (std::any_of(sector, sector + n, [](octet_t b) { return b != 0; })) continue;
        if (random() % 4 == 0) std::generate(sector, sector + n, [&] { return static_cast<octet_t>(random()); });
    }
}

} // namespace

SimDisk::SimDisk(const DiskImage& image) {
    for (const auto& [name, bytes] : image) {
        m_names[name] = static_cast<int>(m_files.size());
        m_files.push_back({bytes, {}});
    }
}

void SimDisk::ApplyTo(FileBytes& bytes, const SimCall& call) {
    switch (call.kind) {
    case EKind::WRITE:
    case EKind::WRITE_DURABLE: Overwrite(bytes, call.offset, call.data.data(), std::ssize(call.data)); break;
    case EKind::ALLOCATE: Grow(bytes, call.offset + call.size); break;
    case EKind::TRUNCATE: bytes.resize(static_cast<size_t>(call.size)); break;
    case EKind::PUNCH: {
        const int64 end = std::min<int64>(std::ssize(bytes), call.offset + call.size);
        if (call.offset < end) std::memset(bytes.data() + call.offset, 0, static_cast<size_t>(end - call.offset));
        break;
    }
    default: break;
    }
}

void SimDisk::ApplyName(std::map<std::string, int>& names, const SimCall& call) {
    switch (call.kind) {
    case EKind::CREATE: names[call.name] = call.file; break;
    case EKind::REMOVE: names.erase(call.name); break;
    case EKind::RENAME: {
        const auto from = names.find(call.name);
        if (from == names.end()) break;
        const int file = from->second;
        names.erase(from);
        names[call.name2] = file;
        break;
    }
    default: break;
    }
}

void SimDisk::Apply(const SimCall& call) {
    if (call.kind == EKind::CREATE && call.file >= std::ssize(m_files))
        m_files.resize(static_cast<size_t>(call.file) + 1);
    if (IsNameChange(call.kind)) {
        m_pendingNames.push_back(call);
        return;
    }
    if (call.kind == EKind::SYNC_DIR) {
        for (const SimCall& change : m_pendingNames) ApplyName(m_names, change);
        m_pendingNames.clear();
        return;
    }
    File& file = m_files[static_cast<size_t>(call.file)];
    switch (call.kind) {
    case EKind::SYNC:
        for (const Pending& pending : file.pending) ApplyTo(file.base, pending.call);
        file.pending.clear();
        break;
    case EKind::FAILED_SYNC:
        for (const Pending& pending : file.pending)
            if (pending.durable) ApplyTo(file.base, pending.call);
        file.pending.clear();
        break;
    case EKind::WRITE_DURABLE:
        if (file.pending.empty())
            ApplyTo(file.base, call);
        else
            file.pending.push_back({call, true});
        break;
    default: file.pending.push_back({call, false}); break;
    }
}

FileBytes SimDisk::FileImage(const File& file, const CrashVariant& variant, std::mt19937_64& random) const {
    FileBytes bytes = file.base;
    const ssize_t n = std::ssize(file.pending);
    ssize_t last = -1; // the last one that may be missing
    for (ssize_t i = 0; i < n; ++i)
        if (!file.pending[static_cast<size_t>(i)].durable) last = i;

    for (ssize_t i = 0; i < n; ++i) {
        const Pending& pending = file.pending[static_cast<size_t>(i)];
        bool whole = pending.durable;
        switch (variant.choice) {
        case EChoice::NONE: break;
        case EChoice::ALL: whole = true; break;
        case EChoice::ALL_BUT_LAST: whole = whole || i != last; break;
        case EChoice::ONLY_LAST: whole = whole || i == last; break;
        case EChoice::RANDOM_SUBSET: whole = whole || random() % 2 == 0; break;
        case EChoice::TORN:
            if (!whole && IsWrite(pending.call.kind) && random() % 3 == 0) {
                ApplyTorn(bytes, pending.call, random);
                continue;
            }
            whole = whole || random() % 2 == 0;
            break;
        case EChoice::SECTORS: {
            if (whole || !IsWrite(pending.call.kind)) {
                whole = whole || random() % 4 != 0;
                break;
            }
            // Each sector was written back last before or after this call. The choice depends on the sector alone and
            // the position of the call, so that a later call never shows without an earlier one in the same sector.
            const int64 first = pending.call.offset / SECTOR;
            const int64 end = (pending.call.offset + std::ssize(pending.call.data) + SECTOR - 1) / SECTOR;
            for (int64 sector = first; sector < end; ++sector) {
                std::mt19937_64 choice(variant.seed ^ (static_cast<uint64>(sector) * 0x9E3779B97F4A7C15u));
                choice.discard(2);
                if (static_cast<ssize_t>(choice() % static_cast<uint64>(n + 1)) <= i) continue;
                const int64 from = std::max(pending.call.offset, sector * SECTOR);
                const int64 to =
                    std::min<int64>(pending.call.offset + std::ssize(pending.call.data), (sector + 1) * SECTOR);
                Overwrite(bytes, from, pending.call.data.data() + (from - pending.call.offset), to - from);
            }
            continue;
        }
        }
        if (whole) ApplyTo(bytes, pending.call);
    }
    if (variant.choice == EChoice::SECTORS && n > 0) FillNewSpace(bytes, std::ssize(file.base), random);
    return bytes;
}

DiskImage SimDisk::Image(const CrashVariant& variant, const SimCall* inFlight) const {
    if (inFlight) {
        SimDisk further = *this;
        SimCall call = *inFlight;
        if (call.kind == EKind::WRITE_DURABLE) call.kind = EKind::WRITE;
        if (call.kind != EKind::SYNC && call.kind != EKind::FAILED_SYNC && call.kind != EKind::SYNC_DIR)
            further.Apply(call);
        return further.Image(variant);
    }
    std::mt19937_64 random(variant.seed * 0x9E3779B97F4A7C15u + 1);
    std::map<std::string, int> names = m_names;
    ssize_t numNames = 0;
    switch (variant.choice) {
    case EChoice::NONE:
    case EChoice::ONLY_LAST: break;
    case EChoice::ALL: numNames = std::ssize(m_pendingNames); break;
    case EChoice::ALL_BUT_LAST: numNames = std::max<ssize_t>(0, std::ssize(m_pendingNames) - 1); break;
    default: numNames = Pick(random, std::ssize(m_pendingNames) + 1); break;
    }
    for (ssize_t i = 0; i < numNames; ++i) ApplyName(names, m_pendingNames[static_cast<size_t>(i)]);

    DiskImage image;
    for (const auto& [name, file] : names) image[name] = FileImage(m_files[static_cast<size_t>(file)], variant, random);
    return image;
}

FileBytes SimDisk::Content(int file) const {
    const File& found = m_files[static_cast<size_t>(file)];
    FileBytes bytes = found.base;
    for (const Pending& pending : found.pending) ApplyTo(bytes, pending.call);
    return bytes;
}

ssize_t SimDisk::NumPending() const {
    ssize_t count = std::ssize(m_pendingNames);
    for (const File& file : m_files) count += std::ssize(file.pending);
    return count;
}

} // namespace quna

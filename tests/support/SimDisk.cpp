#include "tests/support/SimDisk.h"

#include "tests/support/SimCrashImage.h"

#include <algorithm>

namespace quna {
namespace {

using EKind = SimCall::EKind;
using EChoice = CrashVariant::EChoice;

constexpr ssize_t MOST_FOR_ALL_SUBSETS = 8;

bool IsNameChange(EKind kind) { return kind == EKind::CREATE || kind == EKind::RENAME || kind == EKind::REMOVE; }

bool IsSync(EKind kind) { return kind == EKind::SYNC || kind == EKind::FAILED_SYNC || kind == EKind::SYNC_DIR; }

} // namespace

SimDisk::SimDisk(const SimImage& image) {
    for (const auto& [name, bytes] : image) {
        m_names[name] = static_cast<int>(m_files.size());
        m_files.push_back({bytes, {}, {}});
    }
}

void SimDisk::ApplyTo(SimBlocks& bytes, const SimCall& call) {
    switch (call.kind) {
    case EKind::WRITE:
    case EKind::WRITE_DURABLE: bytes.Write(call.offset, call.data.data(), std::ssize(call.data)); break;
    case EKind::ALLOCATE:
        if (bytes.Size() < call.offset + call.size) bytes.Resize(call.offset + call.size);
        break;
    case EKind::TRUNCATE: bytes.Resize(call.size); break;
    case EKind::PUNCH: {
        const int64 end = std::min(bytes.Size(), call.offset + call.size);
        if (call.offset < end) bytes.Zero(call.offset, end - call.offset);
        break;
    }
    default: break;
    }
}

// What is cut off or punched may show again where the space is used once more.
void SimDisk::ApplyToBase(File& file, const SimCall& call) {
    int64 from = 0;
    int64 to = 0;
    if (call.kind == EKind::TRUNCATE) {
        from = call.size;
        to = file.base.Size();
    } else if (call.kind == EKind::PUNCH) {
        from = call.offset;
        to = std::min(call.offset + call.size, file.base.Size());
    }
    if (from < to) {
        FileBytes gone(static_cast<size_t>(to - from));
        file.base.Read(from, gone.data(), to - from);
        file.old.Write(from, gone.data(), to - from);
    }
    ApplyTo(file.base, call);
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
        for (const Pending& pending : file.pending) ApplyToBase(file, pending.call);
        file.pending.clear();
        break;
    case EKind::FAILED_SYNC:
        for (const Pending& pending : file.pending)
            if (pending.durable) ApplyToBase(file, pending.call);
        file.pending.clear();
        break;
    case EKind::WRITE_DURABLE:
        if (file.pending.empty())
            ApplyToBase(file, call);
        else
            file.pending.push_back({call, true});
        break;
    default: file.pending.push_back({call, false}); break;
    }
}

SimDisk::Candidates SimDisk::CandidatesOf(int file, const SimCall* inFlight) const {
    Candidates candidates;
    for (const Pending& pending : m_files[static_cast<size_t>(file)].pending)
        candidates.push_back({&pending.call, pending.durable});
    if (inFlight && inFlight->file == file && !IsNameChange(inFlight->kind) && !IsSync(inFlight->kind))
        candidates.push_back({inFlight, false});
    return candidates;
}

SimBlocks SimDisk::FileImage(int number, const SimCall* inFlight, const CrashVariant& variant) const {
    const File& file = m_files[static_cast<size_t>(number)];
    CrashImageMaker maker(file.base, file.old, variant);
    for (const Candidate& candidate : CandidatesOf(number, inFlight)) maker.Add(*candidate.call, candidate.durable);
    return maker.Make(&SimDisk::ApplyTo);
}

SimImage SimDisk::Blocks(const CrashVariant& variant, const SimCall* inFlight) const {
    std::map<std::string, int> names = m_names;
    const bool namesInFlight = inFlight && IsNameChange(inFlight->kind);
    const ssize_t numPending = std::ssize(m_pendingNames) + namesInFlight;
    ssize_t numNames = 0;
    switch (variant.choice) {
    case EChoice::NONE:
    case EChoice::ONLY_LAST: break;
    case EChoice::ALL: numNames = numPending; break;
    case EChoice::ALL_BUT_LAST: numNames = std::max<ssize_t>(0, numPending - 1); break;
    default:
        numNames = static_cast<ssize_t>(MixBits(variant.seed + variant.index) % static_cast<uint64>(numPending + 1));
        break;
    }
    for (ssize_t i = 0; i < std::min(numNames, std::ssize(m_pendingNames)); ++i)
        ApplyName(names, m_pendingNames[static_cast<size_t>(i)]);
    if (namesInFlight && numNames == numPending && inFlight->file < std::ssize(m_files)) ApplyName(names, *inFlight);

    SimImage image;
    for (const auto& [name, file] : names) image[name] = FileImage(file, inFlight, variant);
    return image;
}

FileBytes SimDisk::Content(int file) const {
    const File& found = m_files[static_cast<size_t>(file)];
    SimBlocks bytes = found.base;
    for (const Pending& pending : found.pending) ApplyTo(bytes, pending.call);
    return bytes.Bytes();
}

ssize_t SimDisk::NumPending() const {
    ssize_t count = std::ssize(m_pendingNames);
    for (const File& file : m_files) count += std::ssize(file.pending);
    return count;
}

uint64 SimDisk::NumSubsets(const SimCall* inFlight) const {
    uint64 most = 1;
    for (int file = 0; file < std::ssize(m_files); ++file) {
        const Candidates candidates = CandidatesOf(file, inFlight);
        const auto n = std::count_if(candidates.begin(), candidates.end(), [](const auto& c) { return !c.durable; });
        if (n > MOST_FOR_ALL_SUBSETS) return 0;
        most = std::max(most, uint64{1} << n);
    }
    return most;
}

uint64 SimDisk::NumTears(const SimCall* inFlight) const {
    uint64 most = 1;
    for (int file = 0; file < std::ssize(m_files); ++file) {
        uint64 n = 0;
        for (const Candidate& candidate : CandidatesOf(file, inFlight))
            if (!candidate.durable) n += NumTearsOf(*candidate.call);
        most = std::max(most, n);
    }
    return most;
}

} // namespace quna

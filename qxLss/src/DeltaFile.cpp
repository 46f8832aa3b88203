#include "qxLss/src/DeltaFile.h"

#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/Mutants.h"
#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace quna {

namespace {

constexpr size_t NAME_DIGITS = 20;
constexpr ConstStringZ NAME_END = ".lssdelta";
constexpr ConstStringZ PART_END = ".part";
constexpr ssize_t HEADER_BYTES = sizeof(DeltaHeader);
constexpr ssize_t FRAME_BYTES = sizeof(DeltaFrame);

uint32 FrameCrc(const DeltaFrame& frame, const octet_t* bytes, uint32 start) {
    return Crc32c(bytes, static_cast<ssize_t>(frame.length), Crc32c(&frame, offsetof(DeltaFrame, crc), start));
}

} // namespace

std::string DeltaName(uint64 firstTransaction) {
    const std::string digits = std::to_string(firstTransaction);
    return std::string(NAME_DIGITS - digits.size(), '0') + digits + NAME_END;
}

std::optional<uint64> TransactionOfDeltaName(const std::string& name) {
    uint64 number = 0;
    for (size_t i = 0; i < NAME_DIGITS; ++i) {
        if (i >= name.size() || name[i] < '0' || name[i] > '9') return std::nullopt;
        number = number * 10 + static_cast<uint64>(name[i] - '0');
    }
    if (name != DeltaName(number)) return std::nullopt; // another ending, or more than 64 bits
    return number;
}

bool IsUnfinishedDeltaName(const std::string& name) {
    const std::string end = PART_END;
    return name.size() > end.size() && name.compare(name.size() - end.size(), end.size(), end) == 0 &&
           TransactionOfDeltaName(name.substr(0, name.size() - end.size()));
}

// --- writing

DeltaWriter::DeltaWriter(SysCalls& sys, const std::string& path, DeltaHeader header)
    : m_sys(sys), m_path(path), m_partPath(path + PART_END), m_file(sys) {
    // A new file, not the old one emptied: of that a sync may have failed, and its pages must not be trusted.
    RemoveFile(sys, m_partPath);
    m_file.Open(m_partPath, EFileAccess::CREATE);
    std::memcpy(header.magic, DELTA_MAGIC, sizeof header.magic);
    header.version = DELTA_VERSION;
    header.zero = 0;
    header.crc = Crc32c(&header, offsetof(DeltaHeader, crc));
    m_end = m_whole = {HEADER_BYTES, header.crc};
    try {
        m_file.Write(0, &header, sizeof header);
    } catch (...) {
        m_file.Close();
        m_sys.Remove(m_partPath.c_str());
        throw;
    }
}

DeltaWriter::~DeltaWriter() {
    m_file.Close();
    if (!m_hasName) m_sys.Remove(m_partPath.c_str()); // or by the next attempt, or the next open
}

void DeltaWriter::Append(uint32 slot, uint32 offset, uint64 sequence, const octet_t* bytes, ssize_t n) {
    DeltaFrame frame{slot, offset, sequence, static_cast<uint32>(n), 0};
    frame.crc = FrameCrc(frame, bytes, m_end.crc);
    m_file.Write(m_end.offset, &frame, sizeof frame);
    m_file.Write(m_end.offset + FRAME_BYTES, bytes, n);
    m_end = {m_end.offset + FRAME_BYTES + n, frame.crc};
}

void DeltaWriter::Finish(uint64 lastTransaction, uint64 lastTime, uint32 nextHigh,
                         const std::vector<AllocHorizon>& horizons, bool replace) {
    const bool isCut = m_end.offset != m_whole.offset;
    m_end = m_whole;
    const DeltaClosing closing{lastTransaction, lastTime, nextHigh, static_cast<uint32>(horizons.size())};
    std::vector<octet_t> bytes(sizeof closing + horizons.size() * sizeof(AllocHorizon));
    std::memcpy(bytes.data(), &closing, sizeof closing);
    if (!horizons.empty())
        std::memcpy(bytes.data() + sizeof closing, horizons.data(), horizons.size() * sizeof(AllocHorizon));
    if (isCut) m_file.Truncate(m_end.offset);
    Append(DELTA_CLOSING_SLOT, 0, 0, bytes.data(), std::ssize(bytes));
    if (!IsMutant(EMutant::DELTA_NOT_SYNCED)) m_file.SyncData();
    m_file.Close();
    if (!RenameFile(m_sys, m_partPath, m_path, replace))
        throw FileException(
            ("Can't finish the delta file '" + m_path + "': a file of that name exists already").c_str());
    m_hasName = true;
    SyncDirectoryOf(m_sys, m_path);
}

// --- reading

DeltaFile::DeltaFile(SysCalls& sys, const std::string& path, EKeep keep) : m_path(path) {
    File file(sys);
    file.Open(m_path, EFileAccess::READ_ONLY);
    m_size = file.Size();
    ReadHeader(file);
    ReadFrames(file, keep);
}

void DeltaFile::ThrowDamaged(const std::string& what, int64 offset, const std::string& found,
                             const std::string& expected) const {
    throw CorruptLSSException(("The delta file '" + m_path + "' is damaged: " + what + " at offset " +
                               std::to_string(offset) + ": found " + found + ", expected " + expected)
                                  .c_str());
}

void DeltaFile::ReadHeader(File& file) {
    if (m_size < HEADER_BYTES)
        ThrowDamaged("the header", 0, std::to_string(m_size) + " bytes", std::to_string(HEADER_BYTES));
    file.Read(0, &m_header, sizeof m_header);
    if (std::memcmp(m_header.magic, DELTA_MAGIC, sizeof m_header.magic) != 0)
        ThrowDamaged("the magic", 0, "other bytes", DELTA_MAGIC);
    if (m_header.version > DELTA_VERSION)
        ThrowDamaged("the format version", offsetof(DeltaHeader, version), std::to_string(m_header.version),
                     std::to_string(DELTA_VERSION) + " at most");
    const uint32 crc = Crc32c(&m_header, offsetof(DeltaHeader, crc));
    if (crc != m_header.crc)
        ThrowDamaged("the header's checksum", offsetof(DeltaHeader, crc), std::to_string(m_header.crc),
                     std::to_string(crc));
    const std::optional<uint64> named = TransactionOfDeltaName(m_path.substr(m_path.rfind('/') + 1));
    if (named && *named != m_header.firstTransaction)
        ThrowDamaged("the first transaction", offsetof(DeltaHeader, firstTransaction),
                     std::to_string(m_header.firstTransaction), std::to_string(*named) + " by the file's name");
    if (m_header.version == 0 || m_header.firstTransaction != m_header.previousTransaction + 1)
        ThrowDamaged("the transaction before", offsetof(DeltaHeader, previousTransaction),
                     std::to_string(m_header.previousTransaction), std::to_string(m_header.firstTransaction - 1));
}

void DeltaFile::ReadFrames(File& file, EKeep keep) {
    if (keep == EKeep::FRAMES) m_bytes.resize(static_cast<size_t>(m_size - HEADER_BYTES));
    uint32 crc = m_header.crc;
    for (int64 at = HEADER_BYTES;;) {
        if (m_size - at < FRAME_BYTES)
            ThrowDamaged("a frame", at, std::to_string(m_size - at) + " bytes", std::to_string(FRAME_BYTES));
        DeltaFrame frame{};
        file.Read(at, &frame, sizeof frame);
        const ssize_t room = m_size - at - FRAME_BYTES;
        const ssize_t n = frame.length;
        CheckFrame(frame, at, room);
        if (keep == EKeep::ENDS) m_bytes.resize(static_cast<size_t>(n));
        octet_t* const bytes = m_bytes.data() + (keep == EKeep::ENDS ? 0 : at + FRAME_BYTES - HEADER_BYTES);
        file.Read(at + FRAME_BYTES, bytes, n);
        crc = FrameCrc(frame, bytes, crc);
        if (crc != frame.crc) ThrowDamaged("a frame's checksum", at, std::to_string(frame.crc), std::to_string(crc));
        if (frame.slot == DELTA_CLOSING_SLOT) {
            TakeClosing(bytes, n, at);
            if (n != room)
                ThrowDamaged("the end of the file", at + FRAME_BYTES + n, std::to_string(room - n) + " more bytes",
                             "none");
            return;
        }
        if (keep == EKeep::FRAMES) m_frames.push_back({frame, at + FRAME_BYTES, bytes});
        at += FRAME_BYTES + n;
    }
}

void DeltaFile::CheckFrame(const DeltaFrame& frame, int64 at, ssize_t room) const {
    if (int64{frame.length} > room)
        ThrowDamaged("a frame's length", at, std::to_string(frame.length), std::to_string(room) + " at most");
    const int64 end = int64{frame.offset} + frame.length;
    if (frame.slot != DELTA_CLOSING_SLOT && end > int64{m_header.segmentSize})
        ThrowDamaged("a frame's end in its segment", at, std::to_string(end),
                     std::to_string(m_header.segmentSize) + " at most");
}

void DeltaFile::TakeClosing(const octet_t* bytes, ssize_t n, int64 offset) {
    if (n >= static_cast<ssize_t>(sizeof m_closing)) m_closing = ReadPod<DeltaClosing>(bytes);
    const int64 expected =
        static_cast<int64>(sizeof m_closing) + int64{m_closing.numHighs} * static_cast<int64>(sizeof(AllocHorizon));
    if (n != expected) ThrowDamaged("the closing frame's length", offset, std::to_string(n), std::to_string(expected));
    if (m_closing.lastTransaction < m_header.firstTransaction)
        ThrowDamaged("the last transaction", offset + FRAME_BYTES, std::to_string(m_closing.lastTransaction),
                     std::to_string(m_header.firstTransaction) + " at least");
    m_horizons.resize(m_closing.numHighs);
    if (m_closing.numHighs)
        std::memcpy(m_horizons.data(), bytes + sizeof m_closing, m_horizons.size() * sizeof(AllocHorizon));
}

} // namespace quna

// The files of an archive: a stretch of the user stream as it stands in the log, for one or more whole transactions.
#pragma once

#include "qxLss/src/AllocRing.h"
#include "qxLss/src/FileIo.h"
#include "qxLss/src/Format.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <optional>
#include <string>
#include <vector>

namespace quna {

inline constexpr char DELTA_MAGIC[] = "LSSDELTA";
inline constexpr uint32 DELTA_VERSION = 1;

#pragma pack(push, 1)

struct DeltaHeader {
    char magic[8];
    StoreId storeId;
    uint32 version;
    uint32 segmentSize;
    uint64 firstTransaction;
    uint64 previousTransaction; // the last one of the file before
    uint64 previousTime;        // of its commit, 100 ns since 1970; 0: not known
    uint32 zero;
    uint32 crc; // CRC32C of bytes 0..59
};
static_assert(sizeof(DeltaHeader) == 64 && offsetof(DeltaHeader, firstTransaction) == 32);
static_assert(offsetof(DeltaHeader, crc) == 60);

// Followed by `length` bytes as they stand in the segment. The last frame of a file is the closing one, whose slot is
// DELTA_CLOSING_SLOT and whose bytes are a DeltaClosing.
struct DeltaFrame {
    uint32 slot;
    uint32 offset; // in the segment
    uint64 sequence;
    uint32 length;
    uint32 crc; // CRC32C of bytes 0..19 and the bytes that follow, started with the crc of the frame (or header) before
};
static_assert(sizeof(DeltaFrame) == 24 && offsetof(DeltaFrame, crc) == 20);
inline constexpr uint32 DELTA_CLOSING_SLOT = 0xFFFFFFFF;

// Followed by numHighs x {high u32, horizon u32}.
struct DeltaClosing {
    uint64 lastTransaction;
    uint64 lastTime; // of its commit
    uint32 nextHigh;
    uint32 numHighs;
};
static_assert(sizeof(DeltaClosing) == 24);

#pragma pack(pop)

// "<20 digits>.lssdelta": the names sort as the transactions do.
QX_API std::string DeltaName(uint64 firstTransaction);
// The first transaction of a file of that name; nothing if it is not the name of a delta.
QX_API std::optional<uint64> TransactionOfDeltaName(const std::string& name);
// Is it the name of a delta that was not finished?
QX_API bool IsUnfinishedDeltaName(const std::string& name);

// Writes one delta under another name and gives it its own when it is whole and durable.
//
// Ownership: owns the file; removes it again if it is not finished.
// Threads:   one.
class QX_API DeltaWriter {
public:
    // Throws FileException, as all methods do. `path` is the final one.
    DeltaWriter(SysCalls& sys, const std::string& path, DeltaHeader header);
    DeltaWriter(const DeltaWriter&) = delete;
    DeltaWriter& operator=(const DeltaWriter&) = delete;
    ~DeltaWriter();

    // `n` bytes at `offset` of the segment `sequence` in `slot`.
    void Append(uint32 slot, uint32 offset, uint64 sequence, const octet_t* bytes, ssize_t n);
    // What has been appended ends with a complete transaction. What is appended behind the last such mark is cut off.
    void MarkWhole() { m_whole = m_end; }
    bool HasWhole() const { return m_whole.offset > static_cast<int64>(sizeof(DeltaHeader)); }
    int64 WholeBytes() const { return m_whole.offset; }
    int64 Bytes() const { return m_end.offset; }
    // Writes the closing frame, syncs, renames, syncs the directory. With `replace` a file of that name may stand there.
    void Finish(uint64 lastTransaction, uint64 lastTime, uint32 nextHigh, const std::vector<AllocHorizon>& horizons,
                bool replace);
    // Has the file been given its name? It may be so although Finish has thrown.
    bool HasName() const { return m_hasName; }

private:
    struct End {
        int64 offset;
        uint32 crc; // of the frame before
    };

    SysCalls& m_sys;
    const std::string m_path;
    const std::string m_partPath;
    File m_file;
    End m_end{};
    End m_whole{};
    bool m_hasName = false;
};

// A delta that has been read and verified: header, every frame, closing frame, the end of the file right behind it.
//
// Threads: constant once loaded.
class QX_API DeltaFile {
public:
    struct Frame {
        DeltaFrame head;
        int64 fileOffset; // of its bytes
        const octet_t* bytes;
    };

    enum class EKeep {
        FRAMES,
        ENDS // header and closing frame alone: Frames is empty, and memory is needed for one frame at a time
    };

    // Throws CorruptLSSException with what was found and what was expected, or FileException.
    DeltaFile(SysCalls& sys, const std::string& path, EKeep keep = EKeep::FRAMES);
    DeltaFile(const DeltaFile&) = delete;
    DeltaFile& operator=(const DeltaFile&) = delete;

    const std::string& Path() const { return m_path; }
    const DeltaHeader& Header() const { return m_header; }
    const DeltaClosing& Closing() const { return m_closing; }
    const std::vector<AllocHorizon>& Horizons() const { return m_horizons; }
    const std::vector<Frame>& Frames() const { return m_frames; }

    // Throws CorruptLSSException: "The delta file '<path>' is damaged: <what> at offset <offset>: found <found>, expected
    // <expected>".
    [[noreturn]] void ThrowDamaged(const std::string& what, int64 offset, const std::string& found,
                                   const std::string& expected) const;

private:
    void ReadHeader(File& file);
    void ReadFrames(File& file, EKeep keep);
    void CheckFrame(const DeltaFrame& frame, int64 at, ssize_t room) const;
    void TakeClosing(const octet_t* bytes, ssize_t n, int64 offset);

    const std::string m_path;
    int64 m_size = 0;             // of the file
    std::vector<octet_t> m_bytes; // of the file from the header's end on, or of one frame
    DeltaHeader m_header{};
    DeltaClosing m_closing{};
    std::vector<AllocHorizon> m_horizons;
    std::vector<Frame> m_frames;
};

} // namespace quna

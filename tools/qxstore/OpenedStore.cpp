#include "tools/qxstore/OpenedStore.h"

#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/AllocRing.h"
#include "qxLss/src/Recovery.h"
#include "qxUtils/Exceptions.h"
#include "tools/qxstore/ToolError.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/stat.h>

namespace quna::qxstore {

namespace {

[[noreturn]] void Refuse(EExit exitCode, const std::string& path, const std::string& why, const std::string& whatToDo) {
    throw ToolError(exitCode, "Can't open the store '" + path + "': " + why + "; " + whatToDo);
}

constexpr const char* RESTORE = "put a backup in its place";

// Does any block of the allocation ring look like one? Then the file was a store before its headers were lost.
bool HasRing(File& file) {
    for (int i = 0; i < AllocRing::NUM_BLOCKS; ++i) {
        octet_t bytes[AllocRingBlock::BYTES];
        AllocRingBlock block;
        if (file.ReadUpTo(AllocRing::FILE_OFFSET + i * AllocRingBlock::BYTES, bytes, AllocRingBlock::BYTES) ==
                AllocRingBlock::BYTES &&
            block.Decode(bytes))
            return true;
    }
    return false;
}

struct HeaderStart {
    char magic[8];
    uint32 version;
};
static_assert(sizeof(HeaderStart) == 12);

// The version of the header place at `offset`; 0 if there is none.
uint32 VersionAt(File& file, int64 offset) {
    HeaderStart start{};
    if (file.ReadUpTo(offset, &start, sizeof start) != static_cast<ssize_t>(sizeof start)) return 0;
    return std::memcmp(start.magic, CHECKPOINT_MAGIC, sizeof start.magic) == 0 ? start.version : 0;
}

} // namespace

OpenedStore::OpenedStore(const std::string& path) : m_path(path), m_file(RealSysCalls()) {
    CheckFile();
    CheckFormat();
    OpenLss();
}

void OpenedStore::CheckFile() {
    struct stat status {};
    if (::stat(m_path.c_str(), &status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            Refuse(EXIT_NO_OPEN, m_path, "there is no such file", "check the path");
        Refuse(EXIT_NO_OPEN, m_path, std::strerror(errno), "check the path and the permissions of its folders");
    }
    if (S_ISDIR(status.st_mode)) Refuse(EXIT_NO_OPEN, m_path, "it is a folder", "name the file of a store");
    if (!S_ISREG(status.st_mode)) Refuse(EXIT_NO_OPEN, m_path, "it is no regular file", "name the file of a store");
    try {
        m_file.Open(m_path, EFileAccess::READ_ONLY);
    } catch (const FileException& e) {
        Refuse(EXIT_NO_OPEN, m_path, std::strerror(e.GetErrno()), "run this as a user who may read it");
    }
    if (!m_file.TryLock(false))
        Refuse(EXIT_NO_OPEN, m_path, "another process has it open for writing", "try again when that has closed it");
}

void OpenedStore::CheckFormat() {
    m_fileBytes = m_file.Size();
    if (m_fileBytes == 0) Refuse(EXIT_NO_OPEN, m_path, "the file is empty, so it is no store", "check the path");
    const uint32 version = std::max(VersionAt(m_file, 0), VersionAt(m_file, 4096));
    if (version > FORMAT_VERSION)
        Refuse(EXIT_NO_OPEN, m_path,
               "its format has version " + std::to_string(version) + ", and this program reads versions up to " +
                   std::to_string(FORMAT_VERSION),
               "take the qxstore of the library that wrote it");
    if (version == 0 && !HasRing(m_file))
        Refuse(EXIT_NO_OPEN, m_path, "the file does not begin as a store does, so it is none", "check the path");
    if (IsCutShortCreation(m_file))
        Refuse(EXIT_NO_OPEN, m_path, "its creation was cut short, so it holds nothing",
               "let the application create it again");
}

void OpenedStore::OpenLss() {
    try {
        bool createdNew = false;
        m_lss = static_cast<LssStore*>(
            CreateOrOpenLSS(m_path.c_str(), nullptr, createdNew, OM_OPEN_EXISTING_READ_ONLY, LssSettings()));
        m_closer.ptr_ = m_lss;
        m_header = ReadNewestHeader(Core(), m_file);
        AllocRing ring(m_file, m_header.storeId);
        static_cast<void>(ring.Read());
        m_closedCleanly =
            (m_header.flags & HEADER_FLAG_CLEAN) && ring.VouchesForCleanClose(m_header.checkpointSequence);
    } catch (const CorruptLSSException& e) {
        throw ToolError(EXIT_DAMAGED, WithoutAdvice(e.what()) + "; " + RESTORE);
    } catch (const FileException& e) {
        throw ToolError(EXIT_NO_OPEN, std::string(e.what()) + "; check the disk and the permissions");
    }
}

LssStats OpenedStore::Stats() {
    LssStats stats{};
    m_lss->GetStats(stats);
    return stats;
}

} // namespace quna::qxstore

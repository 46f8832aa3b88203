#include "qxLss/src/FileIo.h"

#include "qxUtils/Assert.h"
#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <fcntl.h>

namespace quna {
namespace {

constexpr ConstStringZ SOURCE_PATH = "src/FileIo";

// Linux moves at most this many bytes in one call; asking for no more keeps the counts positive everywhere.
constexpr ssize_t MAX_TRANSFER = 1 << 30;

// The result of `call`, repeated for as long as a signal interrupts it.
template <class Call>
auto Uninterrupted(Call call) {
    for (;;) {
        const auto result = call();
        if (result != -EINTR) return result;
    }
}

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool IsUnsupported(int result) { return result == -EOPNOTSUPP || result == -ENOSYS || result == -EINVAL; }

} // namespace

void ThrowFileError(ConstStringZ operation, const std::string& path, int error, int64 offset) {
    std::string text = std::string("Can't ") + operation + " file \"" + path + "\"";
    if (offset >= 0) text += " at offset " + std::to_string(offset);
    text += ": " + std::generic_category().message(error) + " (errno " + std::to_string(error) + ")";
    throw FileException(text.c_str(), error);
}

File::~File() { Close(); }

bool File::TryOpen(const std::string& path, EFileAccess access) {
    QX_ASSERT(!IsOpen());
    int flags = O_RDWR;
    if (access == EFileAccess::READ_ONLY)
        flags = O_RDONLY;
    else if (access == EFileAccess::CREATE)
        flags = O_RDWR | O_CREAT;
    const int fd = Uninterrupted([&] { return m_sys.Open(path.c_str(), flags, 0666); });
    if (fd == -ENOENT && access != EFileAccess::CREATE) return false;
    if (fd < 0) ThrowFileError(access == EFileAccess::CREATE ? "create" : "open", path, -fd);
    m_fd = fd;
    m_path = path;
    return true;
}

void File::Open(const std::string& path, EFileAccess access) {
    if (!TryOpen(path, access)) ThrowFileError("open", path, ENOENT);
}

void File::Close() noexcept {
    if (m_fd < 0) return;
    m_sys.Close(m_fd);
    m_fd = -1;
}

bool File::TryLock(bool exclusive) {
    const int result = Uninterrupted([&] { return m_sys.Lock(m_fd, exclusive); });
    if (result == -EAGAIN || result == -EACCES) return false;
    if (result < 0) ThrowFileError("lock", m_path, -result);
    return true;
}

bool File::IsStillNamed() {
    const int result = Uninterrupted([&] { return m_sys.NamesFile(m_path.c_str(), m_fd); });
    if (result < 0) ThrowFileError("look up", m_path, -result);
    return result == 1;
}

ssize_t File::ReadUpTo(int64 offset, void* p, ssize_t n) {
    ssize_t done = 0;
    while (done < n) {
        const size_t part = static_cast<size_t>(std::min(n - done, MAX_TRANSFER));
        const ssize_t got =
            Uninterrupted([&] { return m_sys.Read(m_fd, static_cast<octet_t*>(p) + done, part, offset + done); });
        if (got < 0) ThrowFileError("read", m_path, static_cast<int>(-got), offset + done);
        if (got == 0) break;
        done += got;
    }
    return done;
}

void File::Read(int64 offset, void* p, ssize_t n) {
    const ssize_t got = ReadUpTo(offset, p, n);
    if (got != n) {
        const std::string text = "Can't read " + std::to_string(n) + " bytes of file \"" + m_path + "\" at offset " +
                                 std::to_string(offset) + ": the file ends after " + std::to_string(got) + " of them";
        throw FileException(text.c_str());
    }
}

template <class Call>
void File::WriteLoop(ConstStringZ operation, int64 offset, const void* p, ssize_t n, Call call) {
    ssize_t done = 0;
    while (done < n) {
        const size_t part = static_cast<size_t>(std::min(n - done, MAX_TRANSFER));
        const ssize_t put =
            Uninterrupted([&] { return call(static_cast<const octet_t*>(p) + done, part, offset + done); });
        if (put < 0) ThrowFileError(operation, m_path, static_cast<int>(-put), offset + done);
        // A call that neither writes nor fails would be repeated for ever.
        if (put == 0) ThrowFileError(operation, m_path, EIO, offset + done);
        done += put;
    }
}

void File::Write(int64 offset, const void* p, ssize_t n) {
    WriteLoop("write", offset, p, n,
              [this](const octet_t* from, size_t count, int64 at) { return m_sys.Write(m_fd, from, count, at); });
}

void File::WriteDurable(int64 offset, const void* p, ssize_t n) {
    WriteLoop("write and sync", offset, p, n, [this](const octet_t* from, size_t count, int64 at) {
        return m_sys.WriteDurable(m_fd, from, count, at);
    });
}

void File::SyncData() {
    const int result = Uninterrupted([&] { return m_sys.SyncData(m_fd); });
    if (result < 0) ThrowFileError("sync", m_path, -result);
}

void File::WriteBack(int64 offset, int64 n) noexcept { m_sys.WriteBack(m_fd, offset, n); }

void File::Allocate(int64 offset, int64 n) {
    int result = Uninterrupted([&] { return m_sys.Allocate(m_fd, offset, n); });
    if (IsUnsupported(result)) {
        if (Size() >= offset + n) return;
        result = Uninterrupted([&] { return m_sys.Truncate(m_fd, offset + n); });
    }
    if (result < 0) ThrowFileError("allocate space in", m_path, -result, offset);
}

void File::Truncate(int64 size) {
    const int result = Uninterrupted([&] { return m_sys.Truncate(m_fd, size); });
    if (result < 0) ThrowFileError("truncate", m_path, -result, size);
}

bool File::PunchHole(int64 offset, int64 n) {
    const int result = Uninterrupted([&] { return m_sys.PunchHole(m_fd, offset, n); });
    if (IsUnsupported(result)) return false;
    if (result < 0) ThrowFileError("give back space of", m_path, -result, offset);
    return true;
}

int64 File::Size() const {
    const int64 size = m_sys.Size(m_fd);
    if (size < 0) ThrowFileError("get the size of", m_path, static_cast<int>(-size));
    return size;
}

void File::ReadAhead(int64 offset, int64 n) noexcept { m_sys.ReadAhead(m_fd, offset, n); }

void File::DropCache(int64 offset, int64 n) noexcept { m_sys.DropCache(m_fd, offset, n); }

bool RenameFile(SysCalls& sys, const std::string& from, const std::string& to, bool replace) {
    const int result = Uninterrupted(
        [&] { return replace ? sys.Rename(from.c_str(), to.c_str()) : sys.RenameNoReplace(from.c_str(), to.c_str()); });
    if (result == -EEXIST && !replace) return false;
    if (result < 0) ThrowFileError("rename", from, -result);
    return true;
}

void SyncDirectoryOf(SysCalls& sys, const std::string& path) {
    const std::string directory = DirectoryOf(path);
    const int result = Uninterrupted([&] { return sys.SyncDir(directory.c_str()); });
    if (result < 0) ThrowFileError("sync the directory of", path, -result);
}

bool RemoveFile(SysCalls& sys, const std::string& path) {
    const int result = Uninterrupted([&] { return sys.Remove(path.c_str()); });
    if (result == -ENOENT) return false;
    if (result < 0) ThrowFileError("remove", path, -result);
    return true;
}

} // namespace quna

// A directory for the files of one test, removed with all its content at the end of the scope.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include <unistd.h>

namespace quna {

// A fresh, empty directory under the system's temporary directory (TMPDIR). Its name is unique among all processes, so
// that tests may run in parallel.
//
// Ownership: owns the directory; a process that dies by a signal leaves it behind. A child of fork() must leave through
//   _exit, or it would remove its parent's files.
class TempDir {
public:
    TempDir() {
        std::string name = (std::filesystem::temp_directory_path() / "qxtest-XXXXXX").string();
        if (!::mkdtemp(name.data()))
            throw std::filesystem::filesystem_error("mkdtemp", name, std::error_code(errno, std::generic_category()));
        m_path = name;
    }

    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // A test may have taken away permissions below; what can't be removed is left.
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::filesystem::path& Path() const noexcept { return m_path; }

    // The path of `name` inside; nothing is created.
    std::filesystem::path operator/(std::string_view name) const { return m_path / name; }
    std::string File(std::string_view name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

// From here on temporary directories lie in memory, if there is such a place and TMPDIR does not say otherwise: for programs
// that make many files and depend on no disk.
inline void PreferFilesInMemory() {
    if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 0);
}

} // namespace quna

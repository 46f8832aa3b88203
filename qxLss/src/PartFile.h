// A file that appears under its name whole or not at all.
#pragma once

#include "qxLss/src/FileIo.h"
#include "qxUtils/Export.h"

#include <string>

namespace quna {

// The file is built under the name `path`.part, locked, and gets its own when it is complete. A part that a killed process
// has left is emptied and used again.
//
// Ownership: opens `file`, which is the caller's and has the lock. It should outlive this object, which otherwise removes
//   its part under no lock.
// Threads:   one.
class QX_API PartFile {
public:
    // `doing` begins the texts of failures: "Can't <doing> '<path>': ...".
    PartFile(File& file, std::string path, bool replace, ConstStringZ doing = "make the copy");
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;
    // Removes the part if it was not published.
    ~PartFile();

    // Opens the part, empty. Throws FileException when there is a file at the target and it may not be replaced, when another
    // owner has it or the part locked, and when the part can't be opened.
    void Open();
    // The file, whose bytes are on the disk, gets its name, durably. Throws FileException; then the part is still there,
    // unless it was the directory that could not be synced.
    void Publish();

private:
    [[noreturn]] void Refuse(ConstStringZ why) const;
    void ClaimTarget();

    SysCalls& m_sys;
    File& m_file;
    const std::string m_path;
    const std::string m_partPath;
    const bool m_replace;
    const ConstStringZ m_doing;
    File m_old;            // what stands at the target, locked until it is replaced
    bool m_isPart = false; // there is a part, and it is ours
};

} // namespace quna

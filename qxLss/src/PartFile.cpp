#include "qxLss/src/PartFile.h"

#include "qxUtils/Exceptions.h"

#include <utility>

namespace quna {

PartFile::PartFile(File& file, std::string path, bool replace, ConstStringZ doing)
    : m_sys(file.Sys()), m_file(file), m_path(std::move(path)), m_partPath(m_path + ".part"), m_replace(replace),
      m_doing(doing), m_old(m_sys) {}

PartFile::~PartFile() {
    if (!m_isPart) return;
    try {
        RemoveFile(m_sys, m_partPath);
    } catch (const FileException&) {
        return; // it is in nobody's way
    }
}

void PartFile::Refuse(ConstStringZ why) const {
    throw FileException((std::string("Can't ") + m_doing + " '" + m_path + "': " + why).c_str());
}

// A store that is open, the one that is being copied above all, has its lock taken.
void PartFile::ClaimTarget() {
    if (!m_old.TryOpen(m_path, m_replace ? EFileAccess::READ_WRITE : EFileAccess::READ_ONLY)) return;
    if (!m_replace) Refuse("the file exists already");
    if (!m_old.TryLock(true)) Refuse("the file exists and is in use by another owner");
}

void PartFile::Open() {
    if (m_path.empty()) Refuse("the path is empty");
    ClaimTarget();
    for (;;) {
        m_file.Open(m_partPath, EFileAccess::CREATE);
        if (!m_file.TryLock(true)) Refuse("another copy is being written there");
        if (m_file.IsStillNamed()) break;
        m_file.Close();
    }
    m_isPart = true;
    m_file.Truncate(0);
}

void PartFile::Publish() {
    if (!RenameFile(m_sys, m_partPath, m_path, m_replace)) Refuse("the file exists already");
    m_isPart = false;
    m_file.SetPath(m_path);
    SyncDirectoryOf(m_sys, m_path);
}

} // namespace quna

#include "qxLss/Backup.h"

#include "qxLss/ILogStructuredStore.h"
#include "qxUtils/Exceptions.h"

#include <string>

namespace quna {

namespace {

[[noreturn]] void Refuse(ConstStringZ path) {
    throw FileException((std::string("Can't make the copy '") + path + "': this store does not copy itself").c_str());
}

} // namespace

BackupResult ILogStructuredStore::Backup(ConstStringZ path, const BackupOptions&) { Refuse(path); }

BackupResult ILogStructuredStore::CopyCompacted(ConstStringZ path, const BackupOptions&) { Refuse(path); }

} // namespace quna

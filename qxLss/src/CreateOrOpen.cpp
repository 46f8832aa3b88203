// The open modes: finding, locking, creating and replacing the file of a store.
#include "qxLss/ILogStructuredStore.h"
#include "qxLss/src/LssStore.h"
#include "qxLss/src/Recovery.h"
#include "qxLss/src/StoreCore.h"
#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <bit>
#include <memory>
#include <string>

namespace quna {

namespace {

struct OpenRequest {
    SysCalls& sys;
    std::string path;
    std::string deltasDirectory; // empty: none
    EOpenMode mode;
    LssSettings settings;
    ssize_t minSegmentSize;
    int stampShift;
};

[[noreturn]] void Refuse(const char* what, const std::string& path, const char* why) {
    throw FileException((std::string("Can't ") + what + " the store '" + path + "': " + why).c_str());
}

bool IsReadOnly(EOpenMode mode) { return mode == OM_OPEN_EXISTING_READ_ONLY || mode == OM_OPEN_EXISTING_SHARED_READ; }
bool MustExist(EOpenMode mode) { return IsReadOnly(mode) || mode == OM_OPEN_EXISTING || mode == OM_DELETE_EXISTING; }
bool Replaces(EOpenMode mode) { return mode == OM_CREATE_ALWAYS || mode == OM_DELETE_EXISTING; }

ssize_t SegmentSizeFor(const OpenRequest& request) {
    const ssize_t wanted = std::clamp<ssize_t>(request.settings.segmentSize, request.minSegmentSize, MAX_SEGMENT_SIZE);
    return static_cast<ssize_t>(std::bit_ceil(static_cast<uint64>(wanted)));
}

std::unique_ptr<StoreCore> MakeCore(const OpenRequest& request) {
    auto core = std::make_unique<StoreCore>(request.sys);
    core->m_settings = request.settings;
    core->m_readOnly = IsReadOnly(request.mode);
    core->m_stampShift = request.stampShift;
    return core;
}

// A store in the making ends like a failed construction: nothing more is written.
struct Abandoner {
    void operator()(LssStore* store) const { store->Abandon(); }
};
using StorePtr = std::unique_ptr<LssStore, Abandoner>;

// Opens `path`.new, locked and empty. It may be left from a creation that was cut short; another creator that has it
// locked is at work now, and may just have renamed it.
void OpenNewFile(File& file, const std::string& newPath, const std::string& path) {
    for (;;) {
        file.Open(newPath, EFileAccess::CREATE);
        if (!file.TryLock(true)) Refuse("create", path, "another process is creating it");
        if (file.IsStillNamed()) break;
        file.Close();
    }
    file.Truncate(0);
}

// What an attempt leaves behind is in nobody's way; it is removed so that a full disk has its room again.
void RemoveQuietly(SysCalls& sys, const std::string& path) noexcept {
    try {
        RemoveFile(sys, path);
    } catch (const FileException&) {
        return;
    }
}

// The store is whole under its own name or not there: it is built under another name and renamed. Null if `replace` is
// false and there is a file by now.
StorePtr Create(const OpenRequest& request, bool replace) {
    const std::string newPath = request.path + ".new";
    std::unique_ptr<StoreCore> core = MakeCore(request);
    OpenNewFile(core->m_file, newPath, request.path);
    StorePtr store;
    try {
        StoreId id;
        const int error = request.sys.RandomBytes(id.data(), id.size());
        if (error < 0) ThrowFileError("get random bytes for", request.path, -error);
        core->Attach(id, SegmentSizeFor(request));
        store.reset(new LssStore(std::move(core), request.deltasDirectory));
        store->LayDown();
        if (RenameFile(request.sys, newPath, request.path, replace)) {
            SyncDirectoryOf(request.sys, request.path);
            store->SetPath(request.path);
            return store;
        }
    } catch (...) {
        RemoveQuietly(request.sys, newPath);
        throw;
    }
    RemoveQuietly(request.sys, newPath);
    return nullptr;
}

// One look at the file. Null: it has changed under us, look again.
StorePtr TryOnce(const OpenRequest& request, bool& createdNew) {
    const EOpenMode mode = request.mode;
    std::unique_ptr<StoreCore> core = MakeCore(request);
    if (!core->m_file.TryOpen(request.path, IsReadOnly(mode) ? EFileAccess::READ_ONLY : EFileAccess::READ_WRITE)) {
        if (MustExist(mode)) Refuse("open", request.path, "the file does not exist");
        createdNew = true;
        StorePtr store = Create(request, Replaces(mode));
        if (!store && mode == OM_CREATE_NEW) Refuse("create", request.path, "the file exists already");
        return store;
    }
    if (!core->m_file.TryLock(!IsReadOnly(mode)))
        Refuse(mode == OM_CREATE_NEW ? "create" : "open", request.path,
               mode == OM_CREATE_NEW ? "the file exists already and is in use" : "it is in use by another owner");
    if (!core->m_file.IsStillNamed()) return nullptr;

    const bool isCutShort = mode != OM_CREATE_ALWAYS && IsCutShortCreation(core->m_file);
    if (isCutShort && MustExist(mode))
        Refuse("open", request.path, "its creation was cut short, so it counts as missing");
    if (mode == OM_CREATE_NEW && !isCutShort) Refuse("create", request.path, "the file exists already");
    createdNew = isCutShort || Replaces(mode);
    // The old file's lock is held until the new one has its name.
    return createdNew ? Create(request, true)
                      : StorePtr(LssStore::OpenLocked(std::move(core), request.deltasDirectory));
}

ILogStructuredStore* Open(const OpenRequest& request, bool& createdNew, EBackground background) {
    InstallForkGuard();
    for (;;) {
        bool created = false;
        StorePtr store = TryOnce(request, created);
        if (!store) continue;
        if (background == EBackground::THREADS) store->StartThreads();
        createdNew = created;
        return store.release();
    }
}

void CheckArguments(ConstStringZ path) {
    if (!path || !*path) throw FileException("Can't open a store: the path is empty");
}

ConstStringZ OrEmpty(ConstStringZ path) { return path ? path : ""; }

} // namespace

ILogStructuredStore* CreateOrOpenLSS(ConstStringZ path, ConstStringZ deltasDirPath, bool& createdNew,
                                     EOpenMode openMode, const LssSettings& settings) {
    CheckArguments(path);
    return Open({RealSysCalls(), path, OrEmpty(deltasDirPath), openMode, settings, MIN_SEGMENT_SIZE, STAMP_SHIFT},
                createdNew, EBackground::THREADS);
}

ILogStructuredStore* OpenLssForTest(SysCalls& sys, ConstStringZ path, ConstStringZ deltasDirPath, bool& createdNew,
                                    EOpenMode openMode, const LssSettings& settings, EBackground background,
                                    int stampShift) {
    CheckArguments(path);
    return Open({sys, path, OrEmpty(deltasDirPath), openMode, settings, MIN_TEST_SEGMENT_SIZE, stampShift}, createdNew,
                background);
}

} // namespace quna

// restore: a store as it was after a transaction or at a time, from a copy of it and its archive.
#include "qxLss/CorruptLSSException.h"
#include "qxLss/Restore.h"
#include "qxUtils/Exceptions.h"
#include "tools/qxstore/Commands.h"
#include "tools/qxstore/GrowthMonitor.h"
#include "tools/qxstore/Interrupt.h"
#include "tools/qxstore/OpenedStore.h"
#include "tools/qxstore/Target.h"
#include "tools/qxstore/Times.h"

#include <filesystem>
#include <system_error>

namespace quna::qxstore {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void Refuse(EExit exitCode, const Options& options, const std::string& why) {
    throw ToolError(exitCode, "Can't restore the store '" + options.target + "': " + why);
}

// Says what is wrong with the base before anything is copied.
void CheckBase(const Options& options) {
    OpenedStore base(options.store);
    const int64 last = static_cast<int64>(base.LastTransaction());
    if (options.upTo.kind == RestoreTarget::EKind::TRANSACTION && static_cast<int64>(options.upTo.value) < last)
        Refuse(EXIT_NOT_FOUND, options,
               "transaction " + std::to_string(options.upTo.value) + " is wanted, and '" + options.store +
                   "' already has transaction " + std::to_string(last) + "; take an older copy of the store");
}

void CheckDeltas(const Options& options) {
    std::error_code error;
    if (!fs::is_directory(options.deltas, error))
        Refuse(EXIT_NO_OPEN, options, "there is no folder '" + options.deltas + "'; name the folder of the archive");
}

int64 BytesOfFolder(const std::string& path) {
    int64 bytes = 0;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(path, error))
        bytes += BytesOnDisk(entry.path().string());
    return bytes;
}

RestoreTarget TargetOf(const RestoreUpTo& upTo) {
    switch (upTo.kind) {
    case RestoreTarget::EKind::TRANSACTION: return RestoreTarget::Transaction(upTo.value);
    case RestoreTarget::EKind::TIME: return RestoreTarget::Time(upTo.value);
    case RestoreTarget::EKind::END: break;
    }
    return RestoreTarget::End();
}

RestoredLss RestoreTo(const std::string& newPath, const Options& options, Console& console) {
    const std::string partPath = newPath + ".part";
    const InterruptScope interrupt(partPath);
    const GrowthMonitor monitor("restoring", partPath, BytesOnDisk(options.store) + BytesOfFolder(options.deltas),
                                console);
    try {
        return RestoreLss(options.store.c_str(), options.deltas.c_str(), TargetOf(options.upTo), newPath.c_str());
    } catch (const CorruptLSSException& e) {
        throw ToolError(EXIT_DAMAGED, WithoutAdvice(e.what()) + "; nothing was left behind");
    } catch (const FileException& e) {
        throw ToolError(EXIT_NO_TARGET, std::string(e.what()) + "; nothing was left behind");
    }
}

// The old file keeps its name until the new one is whole, and nobody opens it as a store meanwhile.
RestoredLss ReplaceByRestored(const Options& options, Console& console) {
    File old(RealSysCalls());
    old.Open(options.target, EFileAccess::READ_WRITE);
    if (!old.TryLock(true))
        Refuse(EXIT_NO_TARGET, options, "a process has the file of that name open; try again when that has closed it");
    const std::string newPath = options.target + ".restored";
    const RestoredLss result = RestoreTo(newPath, options, console);
    static_cast<void>(RenameFile(RealSysCalls(), newPath, options.target, true));
    SyncDirectoryOf(RealSysCalls(), options.target);
    return result;
}

} // namespace

EExit RunRestore(const Options& options, Console& console) {
    CheckBase(options);
    CheckDeltas(options);
    CheckTarget(options.target, {options.store, options.deltas}, options.force);
    std::error_code error;
    const RestoredLss result = fs::exists(options.target, error) ? ReplaceByRestored(options, console)
                                                                 : RestoreTo(options.target, options, console);
    Report report("restore", options.store);
    report.Add("base", "base", Text(options.store));
    report.Add("deltas", "archive", Text(options.deltas));
    report.Add("target", "restored store", Text(options.target));
    report.Add("transaction", "up to transaction", Count(static_cast<int64>(result.lastTransaction)));
    report.Add("time", "which was closed at", Text(result.time ? TimeText(result.time) : "(not known)"));
    report.Add("replayed", "transactions from the archive", Count(static_cast<int64>(result.numReplayed)));
    report.Add("fileBytes", "file size", Bytes(static_cast<int64>(fs::file_size(options.target, error))));
    Print(report, options, console);
    return EXIT_GOOD;
}

} // namespace quna::qxstore

// backup and compact: copies of the store.
#include "qxLss/Backup.h"
#include "qxLss/CorruptLSSException.h"
#include "qxUtils/Exceptions.h"
#include "tools/qxstore/Commands.h"
#include "tools/qxstore/Interrupt.h"
#include "tools/qxstore/OpenedStore.h"
#include "tools/qxstore/Progress.h"
#include "tools/qxstore/Target.h"

namespace quna::qxstore {

namespace {

struct CopyKind {
    const char* name; // of the command
    const char* doing;
    BackupResult (ILogStructuredStore::*copy)(ConstStringZ path, const BackupOptions& options);
};

BackupResult Copy(OpenedStore& store, const Options& options, const CopyKind& kind, Console& console) {
    const InterruptScope interrupt;
    Progress progress(kind.doing, 0, console);
    BackupOptions how;
    how.replaceExisting = options.force;
    how.verify = !options.asIs;
    how.progress = [&](const BackupProgress& at) {
        if (interrupt.WasInterrupted()) return false;
        progress.Set(at.bytesDone, at.bytesTotal);
        return true;
    };
    try {
        const BackupResult result = (store.Lss().*kind.copy)(options.target.c_str(), how);
        if (!result.completed) throw ToolError(EXIT_INTERRUPTED, "Interrupted; nothing was left behind");
        return result;
    } catch (const CorruptLSSException& e) {
        throw ToolError(EXIT_DAMAGED, WithoutAdvice(e.what()) +
                                          "; nothing was left behind, 'qxstore verify' says what else is damaged, and "
                                          "'qxstore backup --as-is' copies a damaged store");
    } catch (const FileException& e) {
        throw ToolError(EXIT_NO_TARGET, std::string(e.what()) + "; nothing was left behind");
    }
}

EExit RunCopy(const Options& options, const CopyKind& kind, Console& console) {
    OpenedStore store(options.store);
    CheckTarget(options.target, {options.store}, options.force);
    const BackupResult result = Copy(store, options, kind, console);
    Report report(kind.name, options.store);
    report.Add("store", "store", Text(options.store));
    report.Add("target", "copy", Text(options.target));
    report.Add("transaction", "up to transaction", Count(static_cast<int64>(result.transaction)));
    report.Add("elements", "elements", Count(result.numElements));
    report.Add("sourceBytes", "size of the store", Bytes(store.FileBytes()));
    report.Add("fileBytes", "size of the copy", Bytes(result.fileSize));
    report.Add("bytesWritten", "written", Bytes(result.bytesCopied));
    Print(report, options, console);
    return EXIT_GOOD;
}

} // namespace

EExit RunBackup(const Options& options, Console& console) {
    return RunCopy(options, {"backup", "backing up", &ILogStructuredStore::Backup}, console);
}

EExit RunCompact(const Options& options, Console& console) {
    return RunCopy(options, {"compact", "compacting", &ILogStructuredStore::CopyCompacted}, console);
}

} // namespace quna::qxstore

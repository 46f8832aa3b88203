#include "tools/qxstore/Commands.h"
#include "tools/qxstore/Directory.h"
#include "tools/qxstore/OpenedStore.h"
#include "tools/qxstore/Units.h"

#include <cstdio>

namespace quna::qxstore {

namespace {

std::string StoreIdText(const StoreId& id) {
    std::string text;
    for (size_t i = 0; i < id.size(); ++i) {
        char hex[4];
        std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned>(id[i]));
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += hex;
    }
    return text;
}

void AddFile(OpenedStore& store, Report& report) {
    const CheckpointHeader& header = store.Header();
    report.Add("store", "store", Text(store.Path()));
    report.Add("formatVersion", "format version", Count(header.version));
    report.Add("storeId", "store id", Text(StoreIdText(header.storeId)));
    report.Add("fileBytes", "file size", Bytes(store.FileBytes()));
    report.Add("segmentBytes", "segment size", Bytes(store.Segments().SegmentSize()));
    report.Add("closedCleanly", "closed cleanly", YesNo(store.WasClosedCleanly()));
    report.Add("checkpoint", "newest checkpoint", Count(static_cast<int64>(header.checkpointSequence)));
    report.Add("transactions", "transactions", Count(store.Stats().numTransactions));
}

void AddObjects(OpenedStore& store, const Directory& directory, Report& report) {
    const int64 numElements = store.Stats().numLiveHeadPackets;
    report.Add("objectStore", "object store", YesNo(directory.IsObjectStore()));
    if (!directory.IsObjectStore()) {
        report.Add("elements", "elements", Count(numElements));
        return;
    }
    int64 numRoots = 0;
    for (const Space& space : directory.Spaces()) numRoots += static_cast<int64>(space.roots.roots.size());
    report.Add("spaces", "spaces", Count(static_cast<int64>(directory.Spaces().size())));
    report.Add("roots", "roots", Count(numRoots));
    report.Add("classes", "classes", Count(static_cast<int64>(directory.Root().classes.size())));
    report.Add("objects", "objects", Count(numElements - directory.NumOwnRecords()));
}

} // namespace

EExit RunInfo(const Options& options) {
    OpenedStore store(options.store);
    const Directory directory(store);
    const LssStats stats = store.Stats();
    Report report("info", options.store);
    AddFile(store, report);
    report.Add("liveBytes", "live data", Bytes(stats.utilisation));
    report.Add("livePercent", "share of the file", Share(stats.utilisation, stats.fileSize));
    AddObjects(store, directory, report);
    Print(report, options);
    return EXIT_GOOD;
}

} // namespace quna::qxstore

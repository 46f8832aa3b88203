#include "qxUtils/Exceptions.h"
#include "tools/qxstore/Commands.h"
#include "tools/qxstore/Directory.h"
#include "tools/qxstore/OpenedStore.h"
#include "tools/qxstore/Progress.h"

#include <algorithm>

namespace quna::qxstore {

namespace {

struct ClassSum {
    int64 objects = 0;
    int64 bytes = 0;
    int64 largest = 0;
};

struct Sums {
    std::vector<ClassSum> classes; // by class id; 0: of no class that the store knows
    int64 unreadable = 0;
};

void CountObject(OpenedStore& store, Seid seid, Sums& sums) {
    const auto count = [&sums](const ReadOnlyBuffer& record) {
        const uint32 cid = ParseObjectRecord(record).cid;
        ClassSum& sum = sums.classes[cid < sums.classes.size() ? cid : 0];
        ++sum.objects;
        sum.bytes += record.size;
        sum.largest = std::max<int64>(sum.largest, record.size);
    };
    try {
        store.WithElement(seid, count);
    } catch (const IException&) {
        ++sums.unreadable;
    }
}

Sums CountAll(OpenedStore& store, const Directory& directory, bool quiet) {
    Sums sums;
    sums.classes.resize(directory.Root().classes.size() + 1);
    Progress progress("objects", store.Stats().numLiveHeadPackets, quiet);
    store.Lss().VisitElements([&](Seid seid, Location) {
        if (!directory.IsOwnRecord(seid)) CountObject(store, seid, sums);
        progress.Advance(1);
    });
    return sums;
}

void AddRow(const std::string& id, const std::string& name, const ClassSum& sum, Table& table) {
    table.rows.push_back({Text(id), Text(name), Count(sum.objects), Bytes(sum.bytes),
                          Bytes(sum.objects ? sum.bytes / sum.objects : 0), Bytes(sum.largest)});
}

void AddClasses(const Directory& directory, const Sums& sums, Report& report) {
    Table& table = report.tables.emplace_back();
    table.key = "classes";
    table.ifEmpty = "The store has no classes.";
    table.columns = {{"id", "id"},       {"name", "class"},           {"objects", "objects"},
                     {"bytes", "bytes"}, {"averageBytes", "average"}, {"largestBytes", "largest"}};
    const std::vector<std::string>& names = directory.Root().classes;
    for (size_t i = 0; i < names.size(); ++i) AddRow(std::to_string(i + 1), names[i], sums.classes[i + 1], table);
    if (sums.classes[0].objects) AddRow("?", "(not known to the store)", sums.classes[0], table);
}

void AddTypes(const Directory& directory, Report& report) {
    Table& table = report.tables.emplace_back();
    table.key = "types";
    table.title = "Types of keys and payloads";
    table.ifEmpty = "The store has no types of keys and payloads.";
    table.columns = {{"id", "id"}, {"name", "type"}};
    const std::vector<ReflectionByteCodeValue>& types = directory.Root().types;
    for (size_t i = 0; i < types.size(); ++i)
        table.rows.push_back({Text(std::to_string(i + 1)), Text(TypeText(types[i]))});
}

} // namespace

EExit RunClasses(const Options& options) {
    OpenedStore store(options.store);
    const Directory directory(store);
    directory.Root();
    const Sums sums = CountAll(store, directory, options.quiet);
    Report report("classes", options.store);
    AddClasses(directory, sums, report);
    AddTypes(directory, report);
    if (sums.unreadable) {
        report.Add("unreadable", "objects that can't be read", Count(sums.unreadable));
        report.conclusion = "The store is damaged: 'qxstore verify' says where.";
    }
    Print(report, options);
    return sums.unreadable ? EXIT_DAMAGED : EXIT_GOOD;
}

} // namespace quna::qxstore

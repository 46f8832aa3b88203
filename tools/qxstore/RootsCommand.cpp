#include "tools/qxstore/Commands.h"
#include "tools/qxstore/Directory.h"
#include "tools/qxstore/ObjectSummary.h"
#include "tools/qxstore/OpenedStore.h"

namespace quna::qxstore {

namespace {

void AddRoots(OpenedStore& store, const Directory& directory, const Space& space, Table& table) {
    for (const NamedOid& root : space.roots.roots) {
        const ObjectSummary object = SummariseObject(store, directory, root.oid);
        table.rows.push_back(
            {Text(space.name), Text(root.name), Text(OidText(root.oid)), Text(object.className), Bytes(object.bytes)});
    }
}

} // namespace

EExit RunRoots(const Options& options) {
    OpenedStore store(options.store);
    const Directory directory(store);
    directory.Root();
    Report report("roots", options.store);
    Table& table = report.tables.emplace_back();
    table.key = "roots";
    table.ifEmpty = "There are no roots.";
    table.columns = {{"space", "space"}, {"name", "root"}, {"oid", "object"}, {"class", "class"}, {"bytes", "size"}};
    if (!options.space.empty()) {
        AddRoots(store, directory, directory.SpaceNamed(options.space), table);
    } else {
        for (const Space& space : directory.Spaces()) AddRoots(store, directory, space, table);
    }
    Print(report, options);
    return EXIT_GOOD;
}

} // namespace quna::qxstore

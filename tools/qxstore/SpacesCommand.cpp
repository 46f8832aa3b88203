#include "tools/qxstore/Commands.h"
#include "tools/qxstore/Directory.h"
#include "tools/qxstore/OpenedStore.h"

namespace quna::qxstore {

EExit RunSpaces(const Options& options) {
    OpenedStore store(options.store);
    const Directory directory(store);
    directory.Root();
    Report report("spaces", options.store);
    Table& table = report.tables.emplace_back();
    table.key = "spaces";
    table.ifEmpty = "The store has no spaces.";
    table.columns = {{"name", "space"},
                     {"oid", "record"},
                     {"deletionQueue", "deletion queue"},
                     {"roots", "roots"},
                     {"subTreesToDelete", "subtrees to delete"},
                     {"objectsToDelete", "objects to delete"}};
    for (const Space& space : directory.Spaces()) {
        table.rows.push_back({Text(space.name), Text(OidText(space.oid)), Text(OidText(space.roots.deletionQueue)),
                              Count(static_cast<int64>(space.roots.roots.size())),
                              Count(static_cast<int64>(space.deletion.subTrees.size())),
                              Count(static_cast<int64>(space.deletion.objects.size()))});
    }
    Print(report, options);
    return EXIT_GOOD;
}

} // namespace quna::qxstore

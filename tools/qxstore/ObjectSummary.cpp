#include "tools/qxstore/ObjectSummary.h"

#include "qxUtils/Exceptions.h"

namespace quna::qxstore {

ObjectSummary SummariseObject(OpenedStore& store, const Directory& directory, OID oid) {
    ObjectSummary summary;
    const auto look = [&](const ReadOnlyBuffer& record) {
        summary.bytes = record.size;
        const uint32 cid = ParseObjectRecord(record).cid;
        const std::string* const name = directory.Root().ClassName(cid);
        summary.className = name ? *name : "(class " + std::to_string(cid) + ", which the store does not know)";
    };
    try {
        summary.exists = store.WithElement(oid, look);
        if (!summary.exists) summary.className = "(there is no such object)";
    } catch (const IException& e) {
        summary.exists = true;
        summary.className = "(can't be read)";
    }
    return summary;
}

} // namespace quna::qxstore

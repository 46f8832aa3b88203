// One line about an object.
#pragma once

#include "qxPersistStore/OID.h"
#include "qxUtils/BasicTypes.h"
#include "tools/qxstore/Directory.h"
#include "tools/qxstore/OpenedStore.h"

#include <string>

namespace quna::qxstore {

struct ObjectSummary {
    std::string className; // or, in words, why there is none
    int64 bytes = 0;       // of the record
    bool exists = false;
};

ObjectSummary SummariseObject(OpenedStore& store, const Directory& directory, OID oid);

} // namespace quna::qxstore

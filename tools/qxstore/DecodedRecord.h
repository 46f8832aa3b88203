// A record in words: what the store knows of it, for the report of `dump`.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxPersistStore/OID.h"
#include "tools/qxstore/Directory.h"
#include "tools/qxstore/Report.h"

namespace quna::qxstore {

// Adds fields and tables for the record at `oid`; what is not well formed ends in a field that says so. `maxRows` limits
// each table, 0: no limit.
void AddDecoded(const Directory& directory, OID oid, const ReadOnlyBuffer& record, int64 maxRows, Report& report);

} // namespace quna::qxstore

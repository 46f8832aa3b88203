// Schema tags: the number with which each durable record opens.
//
// A writer always states its current schema; a reader states the newest that it knows and branches on what it reads.
// The tag is the variable-length form of the number.
#pragma once

#include "qxUtils/Archive.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

QX_API void SerialiseSchema(Archive& ar, int schema);

// Stores the record's schema in `schema`. SchemaException, naming both numbers, when it is newer than latestSchema or
// below 1.
QX_API InputArchive DeserialiseSchema(InputArchive ar, int latestSchema, int& schema);

} // namespace quna

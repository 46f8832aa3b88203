// The records of B+ trees, read without any class of the application. docs/file-format.md describes them.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxObject/ReflectionByteCodeValue.h"
#include "qxPersistStore/OID.h"
#include "qxUtils/BasicTypes.h"

#include <string>
#include <vector>

namespace quna::qxstore {

enum class ETreeRecord {
    NONE, // an object of another class
    TREE,
    LEAF,
    INNER
};

// Which of the three the class of this full name is.
ETreeRecord TreeRecordOf(const std::string& className);

struct TreeRecord {
    ETreeRecord kind = ETreeRecord::NONE;
    int schema = 0;
    uint64 keyType = 0;     // type id
    uint64 payloadType = 0; // 0: a set
    uint64 size = 0;        // TREE
    int64 height = 0;       // TREE
    std::vector<OID>
        links; // TREE: first leaf, last leaf, root; LEAF: previous, next; INNER: leftmost child. May be null
    uint64 numEntries = 0; // LEAF, INNER

    bool areEntriesRead = false;   // the types are such that they could be; always true of a TREE
    std::vector<std::string> keys; // texts, if asked for
    std::vector<std::string> payloads;
    std::vector<OID> children; // INNER: behind each key

    // References to objects of the application in keys and payloads, but for null ones.
    std::vector<OID> valueReferences;
};

// `body` is the record behind the class id. Throws RecordException when it is not well formed, or names types that the
// store does not know.
TreeRecord ParseTreeRecord(ETreeRecord kind, const ReadOnlyBuffer& body,
                           const std::vector<ReflectionByteCodeValue>& types, bool wantText);

} // namespace quna::qxstore

// The serialised form of an xdeque: the count (variable length), then each element from front to back.
#pragma once

#include "qxUtils/Archive.h"
#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/VariableLengthSerialise.h"
#include "qxUtils/xdeque.h"

namespace quna {

template <class T, ssize_t pageSize>
Archive& operator<<(Archive& ar, const xdeque<T, pageSize>& x) {
    Serialise_ssize_t(ar, x.size());
    for (const T& element : x) ar << element;
    return ar;
}

// Replaces the contents: each element is read in place, over whatever stood there.
template <class T, ssize_t pageSize>
InputArchive operator>>(InputArchive ar, xdeque<T, pageSize>& x) {
    ssize_t count = 0;
    ar = DeserialiseCount(ar, count);
    x.resize(count);
    for (T& element : x) ar = ar >> element;
    return ar;
}

} // namespace quna

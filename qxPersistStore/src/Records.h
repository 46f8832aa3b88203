// Writing and reading whole records: each is one serial element.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxUtils/Archive.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/RecordLimits.h"

namespace quna {

// Replaces the element at `seid` with what `serialise(Archive&)` writes. When it throws, the element keeps its former
// content.
template <class Serialise>
void WriteRecord(ILssTransaction& txn, Seid seid, Serialise serialise) {
    ICloseableOutputStream* const os = txn.WriteSerialElement(seid);
    try {
        Archive ar(os);
        serialise(ar);
        ar.FlushBuffer();
    } catch (...) {
        const AutoCloser<ICloseableOutputStream> closer(os);
        throw;
    }
    os->Close();
}

// Parses the element by `deserialise(cursor)`; true when that used it exactly. Leaves the element open.
template <class Deserialise>
[[nodiscard]] bool ParseRecord(IContiguousSerialElement& se, Deserialise deserialise) {
    const ReadOnlyBuffer rob = se.GetBuffer();
    const RecordLimitsScope limits(rob.buffer, rob.buffer + rob.size);
    const InputArchive ar = deserialise(InputArchive(rob.buffer));
    return ar.ptr() == rob.buffer + rob.size;
}

} // namespace quna

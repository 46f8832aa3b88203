// The log-structured store: a map from Seid to byte string in one file.
//
// None of these objects is deleted by its user; each ends by its own Close. AutoCloser (qxUtils/AutoCloser.h) does that
// at the end of a scope.
#pragma once

#include "qxLss/EOpenMode.h"
#include "qxLss/LssSettings.h"
#include "qxLss/Seid.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/IStream.h"

namespace quna {

// Bytes that someone else keeps alive.
struct ReadOnlyBuffer {
    const octet_t* buffer; // first byte
    ssize_t size;          // bytes
};

// The state of a store. Counts that exceed their field saturate.
struct LssStats {
    int numCheckPoints;         // completed checkpoints in the store's life
    int numRecoveries;          // opens that rolled the log forward, in the store's life
    int64 numTransactions;      // committed transactions in the store's life
    int segmentSize;            // bytes
    int64 fileSize;             // bytes
    int64 utilisation;          // bytes of live packets, headers and padding included
    int numLiveHeadPackets;     // elements that exist, committed
    int numLiveOverflowPackets; // further packets of elements too long for one
    int numLiveRPMPackets;      // current pages of the index
    int numObsoletePackets;     // dead packets in segments that have not been freed
};

// Takes the bytes of one element. FlushStream does nothing: an element is whole or not there.
//
// Threads: as its transaction.
class QX_API ICloseableOutputStream : public IOutputStream {
public:
    // Ends the element. While an exception passes (one that began after the stream was opened) the element is dropped
    // instead and keeps its old content, so that half an element never replaces a whole one; then Close never throws.
    virtual void Close() = 0;

protected:
    ~ICloseableOutputStream() noexcept(false) override {}
};

// An element as it was when it was opened. May be used and closed by another thread than the one that opened it.
class QX_API IContiguousSerialElement {
public:
    virtual void Close() = 0;

    // The whole element, stable until Close; the same at every call. At least 64 readable bytes, of any content, follow
    // it. Throws CorruptLSSException or FileException.
    virtual ReadOnlyBuffer GetBuffer() = 0;

protected:
    ~IContiguousSerialElement() = default;
};

// Writes that become visible and durable together.
//
// Threads: one at a time; Close may come from another than the one that opened it.
class QX_API ILssTransaction {
public:
    // Commits. Throws FileException when the bytes can't be written: then nothing of the transaction has happened and
    // the store refuses further writing. While an exception passes it never throws; the failure is then thrown by the
    // next OpenTransaction.
    virtual void Close() = 0;
    // Close returns only when the transaction, and all before it, are on the disk.
    virtual void RequestFlushToDisk() = 0;
    // A stream that replaces the element. One at a time. Requires: `seid` was allocated from this store, or by another
    // store in an identifier space that bears the number `seid.high_` here, which AllocateSeidHigh gave.
    virtual ICloseableOutputStream* WriteSerialElement(Seid seid) = 0;
    // Removes the element; did it exist, as this transaction sees it?
    virtual bool DeleteSerialElement(Seid seid) = 0;
    // Close forgets everything, and changes nothing, when an exception passes that began after the transaction was
    // opened; otherwise what was completed is committed then too. For changes that are wrong in part.
    virtual void RequestDropWhenUnwinding() {}

protected:
    ~ILssTransaction() = default;
};

// An open store. See qxLss/README.md for what survives what.
//
// Threads: all operations from any thread, but for Close and Abandon, which come last and alone. Reads take no lock. At
//          most one transaction is open; a second OpenTransaction waits (by the thread that has one open: an assertion,
//          since it could never be served).
class QX_API ILogStructuredStore {
public:
    // Makes everything closed durable and ends the object. A failure is traced; the next open then recovers.
    virtual void Close() = 0;
    // A high half never returned before: 1, 2, 3...
    virtual SeidHigh AllocateSeidHigh() = 0;
    // The next unused identifier under `high`, in ascending order of the low half. Throws FileException when the 2^32 - 1
    // identifiers of `high` are gone. Requires: `high` came from AllocateSeidHigh.
    virtual Seid AllocateSeid(SeidHigh high) = 0;
    // Replaces `seid` by an unused identifier of the same high half that lies near it. False if there is none left.
    virtual bool AllocateAffiliateSeid(Seid& seid) = 0;
    // Has the store given `seid` out, in this or an earlier life? Counts as given out what it took over from another store,
    // and what a crash has spent. Always true where nothing can be given out.
    virtual bool IsAllocated(Seid /*seid*/) { return true; }
    // Null if there is no such element.
    virtual IContiguousSerialElement* OpenSerialElement(Seid seid) = 0;
    virtual ILssTransaction* OpenTransaction() = 0;
    virtual void GetStats(LssStats& stats) = 0;
    // Everything closed before the call is on the disk on return. No transaction is needed for it.
    virtual void Flush() {}
    // Ends the object and gives back lock and memory without writing anything, for an owner whose own construction has
    // failed. The file is then as after a kill; one that never closed a transaction counts as never created.
    virtual void Abandon() { Close(); }

protected:
    ~ILogStructuredStore() = default;
};

// Opens or creates the store at `path`. `createdNew` becomes true exactly when a fresh store was laid down.
//
//   mode                          file exists                           file missing
//   OM_CREATE_NEW                 FileException                         create
//   OM_CREATE_ALWAYS              take its lock, create anew over it    create
//   OM_OPEN_EXISTING              open                                  FileException
//   OM_OPEN_EXISTING_READ_ONLY,
//   OM_OPEN_EXISTING_SHARED_READ  open, write nothing, shared lock      FileException
//   OM_OPEN_ALWAYS                open                                  create
//   OM_DELETE_EXISTING            take its lock, create anew over it    FileException
//
// A file whose creation was cut short counts as missing. A file that is empty or no store is CorruptLSSException where it
// would be opened. A store that another owner has open is FileException at once. Read-only stores refuse allocation and
// requested flushes; what a transaction writes is kept in memory, seen by this process only, and dropped by Close.
// `deltasDirPath` may be null.
QX_API ILogStructuredStore* CreateOrOpenLSS(ConstStringZ path, ConstStringZ deltasDirPath, bool& createdNew,
                                            EOpenMode openMode, const LssSettings& settings);

} // namespace quna

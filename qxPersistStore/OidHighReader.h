// The receiving side of a stream of identifiers from another store. OidHighWriter.h gives the form of the stream.
#pragma once

#include "qxPersistStore/OID.h"
#include "qxUtils/Archive.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <map>
#include <set>

namespace quna {

class OidSpaceMap;
class xostream;

// The sender's numbers of the spaces that a stream has introduced, and their numbers here.
//
// Threads:   as its reader's.
// Invariant: 0 is on neither side.
class QX_API OidHighConversionMap {
public:
    using MAP = std::map<uint32, uint32>;

    // Requires: neither is 0; the remote number is new.
    void Add(OidHigh remoteOidHigh, OidHigh localOidHigh);
    // 0 stands for itself. False, after a line in the trace, with `localOidHigh` untouched, when the number is unknown.
    bool MapRemoteOidHighToLocalOidHigh(OidHigh remoteOidHigh, OidHigh& localOidHigh) const;

    void Write(xostream& os) const;

    MAP map_; // remote to local
};

// Reads high halves of identifiers that an OidHighWriter of another store wrote, in the hook of the thread:
//
//     OidHighReader reader(map);             // lives as long as the stream
//     const OidHighReaderScope scope(reader);
//     ar = ar >> object.m_name >> object.m_next;
//
// A space that this store has never seen gets a number here, and a place in the map.
//
// Its state is the history of the stream, from the first byte to the last; it can't be reset. In a stream that lies, or
// of which the reader got only the end, an assertion fails; the reader is of no further use then.
//
// Ownership: borrows the map, which may be null while no space is introduced.
// Threads:   belongs to the thread that reads the stream, which holds the lock of its current domain exclusively, since
//   the map may change. The thread's current space belongs to the receiving store.
class QX_API OidHighReader : public IOidHighDeserialiser {
public:
    explicit OidHighReader(OidSpaceMap* oidSpaceMap) : m_oidSpaceMap(oidSpaceMap) {}
    OidHighReader(const OidHighReader&) = default;
    OidHighReader& operator=(const OidHighReader&) = default;
    virtual ~OidHighReader() = default;

    void SetOidSpaceMap(OidSpaceMap* oidSpaceMap) { m_oidSpaceMap = oidSpaceMap; }

    // The hook: gives the local number.
    InputArchive DeserialiseOidHigh(InputArchive ar, OidHigh& localOidHigh) override;
    // The same as the operator of the cursor on a thread with this hook.
    InputArchive DeserialiseOid(InputArchive ar, OID& oid);

    // Spaces introduced so far.
    int64 GetNumGuidsSent() const { return m_countSendOidSpaceGuid; }

    OidSpaceMap* m_oidSpaceMap;
    OidHighConversionMap m_oidHighConversionMap;
    std::set<uint32> m_sentOidHighs; // always empty: a receiver has nothing to remember beside the conversions
    int64 m_countSendOidSpaceGuid = 0;

private:
    struct Conversion {
        uint32 remote = 0;
        uint32 local = 0;
    };
    static constexpr uint32 NUM_RECENT = 16;

    InputArchive DeserialiseRare(InputArchive ar, OidHigh& localOidHigh);
    InputArchive Learn(InputArchive ar, OidHigh& localOidHigh);

    // In place of most look-ups: an entry of the conversion map, or of 0, stands only in m_recent[remote % NUM_RECENT].
    Conversion m_recent[NUM_RECENT];
};

// Puts a reader into the hook of the calling thread for a scope; afterwards the hook is as it was. Every identifier that
// the thread reads meanwhile is translated, so nothing of the receiving store may be loaded in the scope: bind what is
// needed before it, or after it.
class OidHighReaderScope {
public:
    explicit OidHighReaderScope(OidHighReader& reader) : m_previous(GetThreadOidHighDeserialiser()) {
        SetThreadOidHighDeserialiser(&reader);
    }
    ~OidHighReaderScope() { SetThreadOidHighDeserialiser(m_previous); }
    OidHighReaderScope(const OidHighReaderScope&) = delete;
    OidHighReaderScope& operator=(const OidHighReaderScope&) = delete;

private:
    IOidHighDeserialiser* const m_previous;
};

} // namespace quna

// The sending side of a stream of identifiers from one store to another.
//
// Wire form of one OidHigh under translation. It stands at the very places of the plain form (OID.h); the low half
// follows it as usual.
//   none                          0           one variable-length value
//   introduced before             oidHigh     one variable-length value, the sender's number
//   first use in the stream       0xFF        one byte; no variable-length value opens with it
//                                 oidHigh     one variable-length value, the sender's number
//                                 16          the OidSpaceGuid, as it lies in memory
// So each space's name is sent once, and from then on an identifier costs what it costs without translation.
#pragma once

#include "qxPersistStore/OID.h"
#include "qxUtils/Archive.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <set>

namespace quna {

class OidSpaceMap;

// Opens the introduction of a space.
inline constexpr octet_t SEND_GUID_ESCAPE = 255;

// Writes high halves of identifiers for another store, in the hook of an archive:
//
//     OidHighWriter writer(map);             // lives as long as the stream
//     const OidHighWriterScope scope(ar, writer);
//     ar << object.m_name << object.m_next;  // references in it are translated by the reader
//
// Every space that is sent has a name in the map: OidSpaceMap::GetOrCreateOidSpaceGuid before the stream begins.
//
// Its state is the history of the stream: one writer and one reader serve one stream from its first byte to its last,
// and none of them can be reset. A stream may be sent in pieces, as long as the reader gets them all in order. A writer
// whose assertion failed is of no further use: the reader was not told of the space that it takes for introduced.
//
// Ownership: borrows the map, which may be null while no space is introduced.
// Threads:   belongs to the thread that writes the stream, which holds the lock of its current domain in any mode.
class QX_API OidHighWriter : public IItemSerialiser {
public:
    explicit OidHighWriter(OidSpaceMap* oidSpaceMap) : m_oidSpaceMap(oidSpaceMap) {}

    void SetOidSpaceMap(OidSpaceMap* oidSpaceMap) { m_oidSpaceMap = oidSpaceMap; }

    // Traces the map and fails the assertion "0", with nothing written, when oh has no name.
    void SerialiseOidHigh(Archive& ar, OidHigh oh);
    // The same as the operator of an archive with this hook.
    void SerialiseOid(Archive& ar, OID oid);
    // The hook: `item` is the address of an OidHigh.
    void SerialiseItem(Archive& ar, const void* item) override;

    // Spaces introduced so far.
    int64 GetNumGuidsSent() const { return m_countSendOidSpaceGuid; }

    OidSpaceMap* m_oidSpaceMap;
    std::set<uint32> m_sentOidHighs; // introduced in this stream
    int64 m_countSendOidSpaceGuid = 0;

private:
    static constexpr uint32 NUM_RECENT = 16;

    void SerialiseRare(Archive& ar, OidHigh oh);
    void Introduce(Archive& ar, OidHigh oh);

    // In place of most look-ups: a number stands only in m_recent[number % NUM_RECENT], and is then in m_sentOidHighs or 0.
    uint32 m_recent[NUM_RECENT] = {};
};

// Puts a writer into the hook of an archive for a scope; afterwards the hook is as it was.
class OidHighWriterScope {
public:
    OidHighWriterScope(Archive& ar, OidHighWriter& writer) : m_ar(ar), m_previous(ar.m_oidHighSerialiser) {
        ar.m_oidHighSerialiser = &writer;
    }
    ~OidHighWriterScope() { m_ar.m_oidHighSerialiser = m_previous; }
    OidHighWriterScope(const OidHighWriterScope&) = delete;
    OidHighWriterScope& operator=(const OidHighWriterScope&) = delete;

private:
    Archive& m_ar;
    IItemSerialiser* const m_previous;
};

} // namespace quna

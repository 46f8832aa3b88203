#include "qxPersistStore/OidHighReader.h"

#include "qxObject/CSpace.h"
#include "qxObject/LockAtHand.h"
#include "qxPersistStore/OidHighWriter.h"
#include "qxPersistStore/OidSpaceMap.h"
#include "qxPersistStore/src/WriteMapText.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Guid.h"
#include "qxUtils/Tracer.h"
#include "qxUtils/VariableLengthSerialise.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/OidHighReader";

constexpr octet_t FIRST_OF_LONG_NUMBERS = 0x80; // below, a variable-length number is that byte

} // namespace

// ---- OidHighConversionMap -------------------------------------------------------------------------------------------

void OidHighConversionMap::Add(OidHigh remoteOidHigh, OidHigh localOidHigh) {
    QX_ASSERT(remoteOidHigh);
    QX_ASSERT(localOidHigh);
    QX_ASSERT(map_.find(remoteOidHigh) == map_.end());
    map_.emplace(remoteOidHigh, localOidHigh);
}

bool OidHighConversionMap::MapRemoteOidHighToLocalOidHigh(OidHigh remoteOidHigh, OidHigh& localOidHigh) const {
    if (remoteOidHigh == 0) {
        localOidHigh = 0;
        return true;
    }
    if (const auto i = map_.find(remoteOidHigh); i != map_.end()) [[likely]] {
        localOidHigh = i->second;
        return true;
    }
    TracerX() << "OidHighConversionMap: *** ERROR : Received unknown remote OidHigh = "
              << HexNumber<OidHigh>(remoteOidHigh) << "\n";
    return false;
}

void OidHighConversionMap::Write(xostream& os) const { detail::WriteMapText(os, map_); }

// ---- OidHighReader --------------------------------------------------------------------------------------------------

// The usual case, a known space whose number is one byte, calls nothing.
InputArchive OidHighReader::DeserialiseOidHigh(InputArchive ar, OidHigh& localOidHigh) {
    if (HasExclusiveLockAtHand()) [[likely]] {
        CheckRecordCursor(ar.p);
        const octet_t first = *ar.p;
        const Conversion& recent = m_recent[first % NUM_RECENT];
        if (first < FIRST_OF_LONG_NUMBERS && recent.remote == first) [[likely]] {
            localOidHigh = recent.local;
            return ar.p + 1;
        }
    }
    return DeserialiseRare(ar, localOidHigh);
}

[[gnu::noinline]] InputArchive OidHighReader::DeserialiseRare(InputArchive ar, OidHigh& localOidHigh) {
    QX_ASSERT(HaveExclusiveLockedCSpace());
    uint32 remoteOidHigh = 0;
    bool escaped = false;
    ar = DeserialiseVariableLengthUint(ar.p, remoteOidHigh, escaped);
    if (escaped) {
        QX_ASSERT(remoteOidHigh == SEND_GUID_ESCAPE);
        return Learn(ar, localOidHigh);
    }
    QX_ASSERT(m_oidHighConversionMap.MapRemoteOidHighToLocalOidHigh(remoteOidHigh, localOidHigh));
    m_recent[remoteOidHigh % NUM_RECENT] = {remoteOidHigh, localOidHigh};
    return ar;
}

InputArchive OidHighReader::Learn(InputArchive ar, OidHigh& localOidHigh) {
    uint32 remoteOidHigh = 0;
    ar = DeserialiseCompressedOidPart(ar, remoteOidHigh);
    QX_ASSERT(remoteOidHigh);
    OidSpaceGuid guid;
    ar = DeserialisePod(ar.p, guid);
    ++m_countSendOidSpaceGuid;
    QX_ASSERT(m_oidSpaceMap);
    localOidHigh = m_oidSpaceMap->GetOrCreateOidHigh(guid);
    m_oidHighConversionMap.Add(remoteOidHigh, localOidHigh);
    return ar;
}

InputArchive OidHighReader::DeserialiseOid(InputArchive ar, OID& oid) {
    OidHigh high = 0;
    ar = DeserialiseOidHigh(ar, high);
    OidLow low = 0;
    if (high != 0) ar = DeserialiseCompressedOidPart(ar, low);
    oid = OID(low, high);
    return ar;
}

} // namespace quna

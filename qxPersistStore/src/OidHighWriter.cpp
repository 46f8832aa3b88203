#include "qxPersistStore/OidHighWriter.h"

#include "qxObject/CSpace.h"
#include "qxObject/LockAtHand.h"
#include "qxPersistStore/OidSpaceMap.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Guid.h"
#include "qxUtils/Tracer.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/OidHighWriter";

} // namespace

void OidHighWriter::SerialiseOidHigh(Archive& ar, OidHigh oh) {
    if (HasLockAtHand() && m_recent[oh % NUM_RECENT] == oh) [[likely]]
        SerialiseCompressedOidPart(ar, oh);
    else
        SerialiseRare(ar, oh);
}

[[gnu::noinline]] void OidHighWriter::SerialiseRare(Archive& ar, OidHigh oh) {
    QX_ASSERT(HaveLockedCSpace());
    const bool isNew = oh != 0 && m_sentOidHighs.insert(oh).second;
    m_recent[oh % NUM_RECENT] = oh;
    if (isNew)
        Introduce(ar, oh);
    else
        SerialiseCompressedOidPart(ar, oh);
}

void OidHighWriter::Introduce(Archive& ar, OidHigh oh) {
    QX_ASSERT(m_oidSpaceMap);
    OidSpaceGuid guid;
    if (!m_oidSpaceMap->GetOidSpaceGuid(oh, guid)) {
        TracerX() << "Oid space map: " << *m_oidSpaceMap << "\nERROR: Cannot find OidHigh = " << HexNumber<OidHigh>(oh)
                  << "\n";
        QX_ASSERT(0);
    }
    ar.SerialisePod<uint8>(SEND_GUID_ESCAPE);
    SerialiseCompressedOidPart(ar, oh);
    ar.SerialisePod<Guid>(guid);
    ++m_countSendOidSpaceGuid;
}

void OidHighWriter::SerialiseOid(Archive& ar, OID oid) {
    SerialiseOidHigh(ar, oid.high_);
    if (oid.high_ != 0) SerialiseCompressedOidPart(ar, oid.low_);
}

void OidHighWriter::SerialiseItem(Archive& ar, const void* item) {
    SerialiseOidHigh(ar, *static_cast<const uint32*>(item));
}

} // namespace quna

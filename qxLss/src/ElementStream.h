// Writes one element straight into the log's buffer.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxLss/src/UserLog.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <memory>
#include <vector>

namespace quna {

class LssTransaction;

// The bytes of an element go behind a hole of 16 bytes, where Close puts the packet header, so that they are copied once.
// If the room ends while the element is shorter than a quarter of a segment, what there is moves to the next segment;
// if it has grown beyond, it is closed as OVERFLOW packets and ends with a LONG head.
//
// Ownership: part of its transaction, and used again for the next element.
// Threads:   as its transaction.
class QX_API ElementStream final : public ICloseableOutputStream {
public:
    ElementStream(LssTransaction& transaction, UserLog& log, ssize_t segmentSize);
    ElementStream(const ElementStream&) = delete;
    ElementStream& operator=(const ElementStream&) = delete;
    ~ElementStream() noexcept(false) override;

    void Open(Seid seid);
    bool IsOpen() const { return m_isOpen; }
    Seid GetSeid() const { return m_seid; }
    // Forgets the element. Parts already in the log are dead packets.
    void Drop();

    void WriteStream(const void* buffer, ssize_t n) override;
    void FlushStream() override;
    void Close() override;

private:
    void WriteSlowly(const octet_t* p, ssize_t n);
    void MoveToNextSegment();
    void BecomeLong();
    void WritePart(const octet_t* p, ssize_t n);
    void EndPart();
    Location EndLong();

    LssTransaction& m_transaction;
    UserLog& m_log;
    const ssize_t m_segmentSize;
    Seid m_seid;
    bool m_isOpen = false;
    bool m_isLong = false;
    int m_uncaughtAtOpen = 0;
    ssize_t m_filled = 0;               // payload bytes in the packet under construction
    ssize_t m_room = 0;                 // payload bytes that it may have
    std::vector<Location> m_parts;      // OVERFLOW packets of a long element
    std::unique_ptr<octet_t[]> m_spill; // of a segment's size, made at the first need
};

} // namespace quna

// A reader's view of one element.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxLss/src/Index.h"
#include "qxLss/src/StoreCore.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace quna {

// The overflow packets of the LONG head at `head` (a verified packet), and the bytes behind the list. Throws
// CorruptLSSException if the head is not well formed.
struct LongHead {
    std::vector<Location> parts;
    int64 totalBytes;
    const octet_t* tail;
    ssize_t tailBytes;
};
QX_API LongHead ParseLongHead(const StoreCore& core, const octet_t* head, Location l);

// Pins the segments that hold the element, so that they are not reused, from opening to Close; an element of several
// packets is assembled in memory by GetBuffer and needs no pin from then on.
//
// A reader takes no lock: it pins the segment that the index names and looks again. If the location is still the same,
// whoever wants to reuse the segment will see the pin.
class QX_API SerialElement final : public IContiguousSerialElement {
public:
    // Null if there is no such element. Throws CorruptLSSException or FileException.
    static SerialElement* Open(const StoreCore& core, const Index& index, Seid seid);

    void Close() override;
    ReadOnlyBuffer GetBuffer() override;

    // A thread keeps the memory of the element that it closed last for the next one.
    static void* operator new(std::size_t size);
    static void operator delete(void* p) noexcept;

private:
    SerialElement(const StoreCore& core, Seid seid) : m_core(core), m_seid(seid) {}
    ~SerialElement();

    bool PinParts(const std::atomic<Location>& place);
    void Assemble();
    void CopyPart(Location part, uint32 ordinal, octet_t* to) const;
    void Pin(ssize_t slot);
    void UnpinAll();

    const StoreCore& m_core;
    const Seid m_seid;
    Location m_location = 0;
    ssize_t m_pinned = -1;            // slot of the head, -1: none
    const octet_t* m_bytes = nullptr; // null: a long element that is not assembled
    ssize_t m_size = 0;
    struct Long {
        LongHead head;
        std::vector<ssize_t> pinned; // slots of the parts
        std::unique_ptr<octet_t[]> buffer;
    };
    std::unique_ptr<Long> m_long; // null for an element of one packet
};

} // namespace quna

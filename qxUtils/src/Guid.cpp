#include "qxUtils/Guid.h"

#include "qxUtils/Exceptions.h"

#include <cerrno>

#include <sys/random.h>

namespace quna {

Guid CreateGuid() {
    Guid guid;
    ssize_t numBytes = 0;
    do {
        numBytes = ::getrandom(&guid, sizeof(guid), 0);
    } while (numBytes < 0 && errno == EINTR);
    // Requests of up to 256 bytes are never cut short once the source is ready.
    if (numBytes != static_cast<ssize_t>(sizeof(guid)))
        throw FileException("The system's random source gave no bytes for a new Guid", errno);
    guid.Data3 = static_cast<uint16>((guid.Data3 & 0x0FFF) | 0x4000);
    guid.Data4[0] = static_cast<uint8>((guid.Data4[0] & 0x3F) | 0x80);
    return guid;
}

} // namespace quna
